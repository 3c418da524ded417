/* SPDX-License-Identifier: MIT */
/** Requests: what identifies them, what is accepted, and the body of each content type. */
#include "tests/page/page_request.h"
#include "tests/support/child_process.h"
#include "tests/support/descriptors.h"
#include "tests/support/stand_in.h"

#include <array>
#include <cstdint>
#include <fstream>
#include <initializer_list>
#include <sstream>

namespace corvel_test {
namespace {

using std::string_literals::operator""s;

constexpr Rules post_rules = {.methods = CORVEL_POST};

/** The result of reading a request. */
int status_of(const CgiRequest &cgi, const Rules &rules = post_rules) {
    const PageRequest request(cgi);
    return request.read(rules);
}

// corvel_request_begin

TEST(corvel_request_begin, CopiesTheMethodAndTheCookies) {
    const PageRequest request(get().with("HTTP_COOKIE", "a=1"));
    unsetenv("REQUEST_METHOD");
    unsetenv("HTTP_COOKIE");
    EXPECT_EQ(corvel_method(request), unsigned{CORVEL_GET});
    EXPECT_STREQ(corvel_cookie(request, "a", 0), "1");
}

TEST(corvel_request_begin, DoesNotReadTheBody) {
    const PageRequest request(post("name=value"));
    EXPECT_EQ(CgiSurroundings::unread_input(), "name=value");
}

TEST(corvel_request_begin, ReturnsNullIfMemoryIsExhausted) {
    const CgiSurroundings surroundings(get().with("PATH_INFO", "/a").with("HTTP_COOKIE", "a=1"));
    const unsigned long failures = for_each_allocation_failure([](AllocationTrial &trial) {
        corvel_request *const request = trial.run([] { return corvel_request_begin(); });
        EXPECT_EQ(request == nullptr, trial.failed());
        corvel_request_free(request);
    });
    EXPECT_EQ(failures, 3U); // the request, the cookies' strings and their index
}

// corvel_method

TEST(corvel_method, TellsTheMethodsApart) {
    const std::pair<const char *, unsigned> methods[] = {{"GET", CORVEL_GET},
                                                         {"HEAD", CORVEL_GET},
                                                         {"POST", CORVEL_POST},
                                                         {"PUT", CORVEL_PUT},
                                                         {"DELETE", CORVEL_DELETE},
                                                         {"get", 0},
                                                         {"OPTIONS", 0},
                                                         {"", 0},
                                                         {"GET ", 0},
                                                         {"POSTS", 0}};
    for (const auto &[name, method] : methods)
        EXPECT_EQ(corvel_method(PageRequest(get().with("REQUEST_METHOD", name))), method) << name;
    EXPECT_EQ(corvel_method(PageRequest(get().with("REQUEST_METHOD", std::nullopt))), 0U);
}

// corvel_path

TEST(corvel_path, IsNotDecodedAgain) {
    EXPECT_STREQ(corvel_path(PageRequest(get().with("PATH_INFO", "/a%41/../+"))), "/a%41/../+");
}

TEST(corvel_path, IsEmptyIfThereIsNone) { EXPECT_STREQ(corvel_path(PageRequest(get())), ""); }

TEST(corvel_path, IsEmptyWithAControlCharacterAndTheRequestIsRefused) {
    for (const char *path : {"/a\nb", "/\x01", "/\x7F", "\x1F"}) {
        const PageRequest request(get().with("PATH_INFO", path));
        EXPECT_STREQ(corvel_path(request), "");
        EXPECT_EQ(request.read(), CORVEL_HTTP_BAD_REQUEST);
        EXPECT_EQ(request.complaint(), "The address of this page contains a control character.");
    }
    EXPECT_STREQ(corvel_path(PageRequest(get().with("PATH_INFO", "/\xC3\xA4 \x80"))),
                 "/\xC3\xA4 \x80");
}

// corvel_cookie

std::string cookie(const std::string &header, const char *name, std::size_t index = 0) {
    const PageRequest request(get().with("HTTP_COOKIE", header));
    const char *const value = corvel_cookie(request, name, index);
    return value != nullptr ? value : "(missing)";
}

TEST(corvel_cookie, SelectsOneOfSeveralWithTheSameName) {
    const std::string header = "session=other; lang=de; session=own; session=third";
    EXPECT_EQ(cookie(header, "session", 0), "other");
    EXPECT_EQ(cookie(header, "session", 1), "own");
    EXPECT_EQ(cookie(header, "session", 2), "third");
    EXPECT_EQ(cookie(header, "session", 3), "(missing)");
    EXPECT_EQ(cookie(header, "session", SIZE_MAX), "(missing)");
    EXPECT_EQ(cookie(header, "lang", 0), "de");
    EXPECT_EQ(cookie(header, "lang", 1), "(missing)");
}

TEST(corvel_cookie, ComparesNamesExactly) {
    EXPECT_EQ(cookie("Session=1; sessio=2; sessions=3", "session"), "(missing)");
}

TEST(corvel_cookie, HasNoQuotesAndNoSpacesAtItsEnds) {
    EXPECT_EQ(cookie("a=\"x y\"", "a"), "x y");
    EXPECT_EQ(cookie("a=\"\"", "a"), "");
    EXPECT_EQ(cookie("a=\"", "a"), "\"");
    EXPECT_EQ(cookie("a=\"x", "a"), "\"x");
    EXPECT_EQ(cookie("a=x\"", "a"), "x\"");
    EXPECT_EQ(cookie("a=\"\"x\"\"", "a"), "\"x\"");
    EXPECT_EQ(cookie("  a =\t x  ;b=2", "a"), "x");
    EXPECT_EQ(cookie("\r\na\v=\fx\r\n;b=2", "a"), "x");
    EXPECT_EQ(cookie("a=1;b=2", "b"), "2");
}

TEST(corvel_cookie, KeepsEqualsSignsAndPercentSigns) {
    EXPECT_EQ(cookie("a=b=c%41+", "a"), "b=c%41+");
}

TEST(corvel_cookie, SkipsWhatHasNoEqualsSign) {
    EXPECT_EQ(cookie("a; a=1; ; ;;", "a"), "1");
    EXPECT_EQ(cookie("a; a=1", "a", 1), "(missing)");
    EXPECT_EQ(cookie("nothing", "nothing"), "(missing)");
    EXPECT_EQ(cookie("=x", ""), "x");
}

TEST(corvel_cookie, OfNullIsNull) {
    EXPECT_EQ(corvel_cookie(nullptr, "a", 0), nullptr);
    EXPECT_EQ(corvel_cookie(PageRequest(get().with("HTTP_COOKIE", "a=1")), nullptr, 0), nullptr);
}

// corvel_client_address, corvel_is_secure

TEST(corvel_client_address, IsThatOfTheServerAndNotOfAHeaderField) {
    const CgiRequest request = get().with("HTTP_X_FORWARDED_FOR", "1.2.3.4");
    EXPECT_STREQ(corvel_client_address(PageRequest(request.with("REMOTE_ADDR", "fd00::7"))),
                 "fd00::7");
    EXPECT_STREQ(corvel_client_address(PageRequest(request)), "");
}

TEST(corvel_is_secure, DependsOnTheVariableHttps) {
    for (const char *value : {"on", "ON", "1"})
        EXPECT_TRUE(corvel_is_secure(PageRequest(get().with("HTTPS", value)))) << value;
    for (const char *value : {"", "off", "OFF"})
        EXPECT_FALSE(corvel_is_secure(PageRequest(get().with("HTTPS", value)))) << value;
    EXPECT_FALSE(corvel_is_secure(PageRequest(get())));
}

// corvel_request_read: methods

TEST(corvel_request_read, AcceptsOnlyAGetByDefault) {
    const PageRequest request(get("a=1"));
    EXPECT_EQ(corvel_request_read(request, nullptr), CORVEL_HTTP_OK);
    EXPECT_STREQ(corvel_field(request, "a"), "1");
    EXPECT_EQ(request.complaint(), "");
    const PageRequest refused(post("a=1"));
    EXPECT_EQ(corvel_request_read(refused, nullptr), CORVEL_HTTP_METHOD_NOT_ALLOWED);
    EXPECT_EQ(refused.complaint(), "This page does not support the request's method.");
}

TEST(corvel_request_read, AcceptsTheMethodsOfTheRules) {
    const char *const names[] = {"GET", "HEAD", "POST", "PUT", "DELETE"};
    const unsigned methods[] = {CORVEL_GET, CORVEL_GET, CORVEL_POST, CORVEL_PUT, CORVEL_DELETE};
    for (unsigned permitted = 1; permitted < 16; ++permitted)
        for (std::size_t i = 0; i < std::size(names); ++i) {
            const int status =
                status_of(get().with("REQUEST_METHOD", names[i]), {.methods = permitted});
            EXPECT_EQ(status, (methods[i] & permitted) != 0 ? CORVEL_HTTP_OK
                                                            : CORVEL_HTTP_METHOD_NOT_ALLOWED)
                << names[i] << permitted;
        }
    EXPECT_EQ(status_of(get().with("REQUEST_METHOD", "PATCH"), {.methods = ~0U}),
              CORVEL_HTTP_METHOD_NOT_ALLOWED);
}

TEST(corvel_request_read, TakesHeadAsGet) {
    const PageRequest request(get("a=1").with("REQUEST_METHOD", "HEAD"));
    EXPECT_EQ(request.read(Rules{}), CORVEL_HTTP_OK);
    EXPECT_STREQ(corvel_field(request, "a"), "1");
}

TEST(corvel_request_read, DiscardsTheBodyOfAGet) {
    const PageRequest request(post(std::string(200000, 'x')).with("REQUEST_METHOD", "GET"));
    EXPECT_EQ(request.read(Rules{}), CORVEL_HTTP_OK);
    EXPECT_EQ(CgiSurroundings::unread_input(), "");
    EXPECT_EQ(corvel_field_count(request), 0U);
}

// corvel_request_read: length

TEST(corvel_request_read, ReadsNoByteAfterTheAnnouncedLength) {
    for (const CgiRequest &cgi : {post("a=12345"), post("a=12345").through_pipe()}) {
        const PageRequest request(cgi.with("CONTENT_LENGTH", "4"));
        EXPECT_EQ(request.read(), CORVEL_HTTP_OK);
        EXPECT_STREQ(corvel_field(request, "a"), "12");
        EXPECT_EQ(CgiSurroundings::unread_input(), "345");
        const PageRequest refused(cgi.with("CONTENT_LENGTH", "4"));
        EXPECT_EQ(refused.read(Rules{}), CORVEL_HTTP_METHOD_NOT_ALLOWED);
        EXPECT_EQ(CgiSurroundings::unread_input(), "345");
    }
}

TEST(corvel_request_read, RefusesAMalformedLength) {
    for (const char *length :
         {"-1", "+1", " 1", "1 ", "1x", "x", "0x1", "1.0", "1,0", "-0", "18446744073709551615",
          "18446744073709551616", "99999999999999999999999999", "10000000000000000000"}) {
        const PageRequest request(post("a=1").with("CONTENT_LENGTH", length));
        EXPECT_EQ(request.read(), CORVEL_HTTP_BAD_REQUEST) << length;
        EXPECT_EQ(request.complaint(), "The request's length is malformed.");
        EXPECT_EQ(CgiSurroundings::unread_input(), "") << length;
    }
}

TEST(corvel_request_read, AcceptsLeadingZerosOfALength) {
    const PageRequest request(post("a=1").with("CONTENT_LENGTH", "00000000000000000000003"));
    EXPECT_EQ(request.read(), CORVEL_HTTP_OK);
    EXPECT_STREQ(corvel_field(request, "a"), "1");
}

TEST(corvel_request_read, HasNoBodyWithoutALength) {
    for (const std::optional<std::string> &length : {std::optional<std::string>(), {""}, {"0"}}) {
        const PageRequest request(post("a=1").with("CONTENT_LENGTH", length));
        EXPECT_EQ(request.read(), CORVEL_HTTP_OK);
        EXPECT_EQ(corvel_field_count(request), 0U);
        EXPECT_EQ(CgiSurroundings::unread_input(), "a=1");
    }
}

TEST(corvel_request_read, RefusesABodyThatEndsEarly) {
    for (const CgiRequest &cgi : {post("a=1"), post("a=1").through_pipe()}) {
        const PageRequest request(cgi.with("CONTENT_LENGTH", "4"));
        EXPECT_EQ(request.read(), CORVEL_HTTP_BAD_REQUEST);
        EXPECT_EQ(request.complaint(), "The request is incomplete.");
        EXPECT_EQ(corvel_field(request, "a"), nullptr);
    }
}

TEST(corvel_request_read, AcceptsBodiesOfBodyMaxBytes) {
    for (const std::size_t max : {0U, 1U, 2U, 1000U, 200000U}) {
        const std::size_t limit = max != 0 ? max : 65536;
        const Rules rules = {.methods = CORVEL_POST, .body_max = max};
        const std::string fits(limit, 'x');
        EXPECT_EQ(status_of(post(fits), rules), CORVEL_HTTP_OK);
        EXPECT_EQ(status_of(chunked_post(fits), rules), CORVEL_HTTP_OK);
        EXPECT_EQ(status_of(post(fits + "x"), rules), CORVEL_HTTP_CONTENT_TOO_LARGE);
        EXPECT_EQ(status_of(chunked_post(fits + "x"), rules), CORVEL_HTTP_CONTENT_TOO_LARGE);
    }
}

TEST(corvel_request_read, DiscardsABodyThatIsTooLarge) {
    const std::string body(3000000, 'x');
    for (const CgiRequest &cgi : {post(body), chunked_post(body), post(body).through_pipe(),
                                  chunked_post(body).through_pipe()}) {
        const PageRequest request(cgi);
        EXPECT_EQ(request.read(), CORVEL_HTTP_CONTENT_TOO_LARGE);
        EXPECT_EQ(request.complaint(), "The request is too large.");
        EXPECT_EQ(CgiSurroundings::unread_input(), "");
    }
}

TEST(corvel_request_read, ReadsABodyOfUnknownLengthToItsEnd) {
    const std::string body = "a=" + std::string(60000, 'x') + "&b=1";
    for (const CgiRequest &cgi : {chunked_post(body), chunked_post(body).through_pipe()}) {
        const PageRequest request(cgi);
        EXPECT_EQ(request.read(), CORVEL_HTTP_OK);
        EXPECT_STREQ(corvel_field(request, "b"), "1");
    }
}

TEST(corvel_request_read, PrefersTheLengthToTheTransferEncoding) {
    const PageRequest request(chunked_post("a=12345").with("CONTENT_LENGTH", "4"));
    EXPECT_EQ(request.read(), CORVEL_HTTP_OK);
    EXPECT_STREQ(corvel_field(request, "a"), "12");
}

TEST(corvel_request_read, RefusesChunksThatTheWebServerDoesNotDecode) {
    const PageRequest request(
        chunked_post("3\r\na=1\r\n0\r\n\r\n").with("SERVER_SOFTWARE", "busybox httpd/1.35.0"));
    EXPECT_EQ(request.read(), CORVEL_HTTP_BAD_REQUEST);
    EXPECT_EQ(corvel_field_count(request), 0U);
    EXPECT_EQ(CgiSurroundings::unread_input(), "");
    EXPECT_EQ(status_of(post("a=1").with("SERVER_SOFTWARE", "busybox httpd/1.35.0")),
              CORVEL_HTTP_OK);
}

TEST(corvel_request_read, AllocatesForALengthOnlyIfItIsAccepted) {
    const PageRequest request(post("a=1").with("CONTENT_LENGTH", "9000000000000000000"));
    const CountCalls allocations(call_allocation);
    EXPECT_EQ(request.read(), CORVEL_HTTP_CONTENT_TOO_LARGE);
    EXPECT_EQ(allocations.count(), 0U);
}

// corvel_request_read: content types

TEST(corvel_request_read, AcceptsTheTypesOfTheRules) {
    const std::pair<const char *, unsigned> types[] = {
        {"application/x-www-form-urlencoded", CORVEL_FORM},
        {"application/X-WWW-Form-URLEncoded", CORVEL_FORM},
        {"application/x-www-form-urlencoded; charset=UTF-8", CORVEL_FORM},
        {" application/x-www-form-urlencoded ;charset=UTF-8", CORVEL_FORM},
        {"multipart/form-data; boundary=x", CORVEL_MULTIPART},
        {"application/json", CORVEL_JSON_TEXT},
        {"application/json;charset=utf-8", CORVEL_JSON_TEXT},
        {"text/plain", 0},
        {"application/x-www-form-urlencodedx", 0},
        {"application/jso", 0},
        {"multipart/form-data,application/json", 0},
        {"", 0}};
    for (const auto &[name, type] : types)
        for (unsigned permitted = 1; permitted < 16; ++permitted) {
            const bool accepted = (permitted & (type | CORVEL_ANY_TYPE)) != 0;
            const Rules rules = {.methods = CORVEL_POST, .types = permitted};
            EXPECT_EQ(status_of(post("a=1", name), rules),
                      accepted ? CORVEL_HTTP_OK : CORVEL_HTTP_UNSUPPORTED_MEDIA_TYPE)
                << name << permitted;
        }
}

TEST(corvel_request_read, AcceptsOnlyAFormByDefault) {
    EXPECT_EQ(status_of(post("a=1")), CORVEL_HTTP_OK);
    for (const char *type : {"multipart/form-data; boundary=x", "application/json", "text/plain"}) {
        const PageRequest request(post("a=1", type));
        EXPECT_EQ(request.read(), CORVEL_HTTP_UNSUPPORTED_MEDIA_TYPE);
        EXPECT_EQ(request.complaint(), "This page does not accept data of this type.");
        EXPECT_EQ(CgiSurroundings::unread_input(), "");
    }
    EXPECT_EQ(status_of(post("a=1").with("CONTENT_TYPE", std::nullopt)),
              CORVEL_HTTP_UNSUPPORTED_MEDIA_TYPE);
}

TEST(corvel_request_read, NeedsNoTypeWithoutABody) {
    EXPECT_EQ(status_of(post("").with("CONTENT_TYPE", std::nullopt)), CORVEL_HTTP_OK);
    EXPECT_EQ(status_of(post("").with("REQUEST_METHOD", "DELETE").with("CONTENT_TYPE", ""),
                        {.methods = CORVEL_DELETE}),
              CORVEL_HTTP_OK);
}

TEST(corvel_request_read, LeavesAnUploadToItsReader) {
    const std::string body(200000, 'x');
    const Rules rules = {.methods = CORVEL_POST, .types = CORVEL_MULTIPART};
    const PageRequest request(post(body, "multipart/form-data; boundary=x"));
    EXPECT_EQ(request.read(rules), CORVEL_HTTP_OK);
    EXPECT_EQ(CgiSurroundings::unread_input(), body);
}

// corvel_request_body

TEST(corvel_request_body, ReturnsTheBytesAndANulAfterThem) {
    const std::string body = "{\"a\": \0 1}"s;
    for (const CgiRequest &cgi :
         {post(body, "application/json"), chunked_post(body, "application/json")}) {
        const PageRequest request(cgi);
        ASSERT_EQ(request.read(Rules{.methods = CORVEL_POST, .types = CORVEL_JSON_TEXT}),
                  CORVEL_HTTP_OK);
        std::size_t size = 0;
        const char *const bytes = corvel_request_body(request, &size);
        EXPECT_EQ(std::string(bytes, size), body);
        EXPECT_EQ(bytes[size], '\0');
        EXPECT_EQ(corvel_request_body(request, nullptr), bytes);
        EXPECT_EQ(corvel_field_count(request), 0U);
    }
}

TEST(corvel_request_body, ReturnsAFormIfOnlyOtherTypesAreAccepted) {
    const PageRequest request(post("a=1"));
    ASSERT_EQ(request.read(Rules{.methods = CORVEL_POST, .types = CORVEL_ANY_TYPE}),
              CORVEL_HTTP_OK);
    EXPECT_STREQ(corvel_request_body(request, nullptr), "a=1");
    EXPECT_EQ(corvel_field_count(request), 0U);
}

TEST(corvel_request_body, IsEmptyIfThereIsNone) {
    std::size_t size = 1;
    EXPECT_STREQ(corvel_request_body(nullptr, &size), "");
    EXPECT_EQ(size, 0U);
    const PageRequest form(post("a=1"));
    EXPECT_EQ(form.read(), CORVEL_HTTP_OK);
    EXPECT_STREQ(corvel_request_body(form, &size), "");
    const PageRequest refused(post("a=1", "text/plain"));
    EXPECT_NE(refused.read(), CORVEL_HTTP_OK);
    EXPECT_STREQ(corvel_request_body(refused, &size), "");
    EXPECT_EQ(size, 0U);
}

// corvel_request_read: the own site

struct Source {
    std::string host;
    std::string url;
    bool accepted;
};

const Source sources[] = {
    {"router", "http://router", true},
    {"router", "https://router", true},
    {"Router", "http://rOUTER", true},
    {"router", "http://router:80", true},
    {"router:80", "http://router", true},
    {"router:80", "http://router:80", true},
    {"router", "https://router:443", true},
    {"router:443", "https://router", true},
    {"router:8080", "http://router:8080", true},
    {"router:8443", "https://router:8443", true},
    {"192.168.1.1", "http://192.168.1.1", true},
    {"[fd00::1]:8080", "http://[fd00::1]:8080", true},
    {"[fd00::80]", "http://[fd00::80]", true},
    {"router", "http://router:443", false},
    {"router", "https://router:80", false},
    {"router:80", "https://router", false},
    {"router:443", "http://router", false},
    {"router:8080", "http://router", false},
    {"router", "http://router:8080", false},
    {"router", "http://route", false},
    {"router", "http://routers", false},
    {"router", "http://router.evil.example", false},
    {"router", "http://evil.example", false},
    {"router", "http://evilrouter", false},
    {"router", "http://router@evil.example", false},
    {"router", "http://evil.example:80@router", false},
    {"router", "http://evil.example\\@router", false},
    {"router", "ftp://router", false},
    {"router", "HTTP://router", false},
    {"router", "//router", false},
    {"router", "router", false},
    {"router", "http:router", false},
    {"router", "http:///router", false},
    {"router", "http://", false},
    {"", "http://", false},
    {":80", "http://", false},
    {"", "http://router", false},
    {"router", "null", false},
    {"null", "null", false},
    {"router", "", false},
    {"", "", false},
};

TEST(corvel_request_read, AcceptsAnOriginOfTheSameHostAndPort) {
    for (const Source &source : sources)
        EXPECT_EQ(
            status_of(post("a=1").with("HTTP_HOST", source.host).with("HTTP_ORIGIN", source.url)),
            source.accepted ? CORVEL_HTTP_OK : CORVEL_HTTP_FORBIDDEN)
            << source.host << ' ' << source.url;
}

TEST(corvel_request_read, AcceptsARefererOfTheSameHostAndPort) {
    for (const char *rest : {"", "/", "/page?x=http://evil.example", "?x", "#x"})
        for (const Source &source : sources)
            EXPECT_EQ(status_of(post("a=1")
                                    .with("HTTP_HOST", source.host)
                                    .with("HTTP_REFERER", source.url + rest)),
                      source.accepted ? CORVEL_HTTP_OK : CORVEL_HTTP_FORBIDDEN)
                << source.host << ' ' << source.url << rest;
}

TEST(corvel_request_read, RefusesAPageWithoutTlsIfTheRequestHasIt) {
    const CgiRequest request = post("a=1").with("HTTP_HOST", "router").with("HTTPS", "on");
    EXPECT_EQ(status_of(request.with("HTTP_ORIGIN", "https://router")), CORVEL_HTTP_OK);
    EXPECT_EQ(status_of(request.with("HTTP_ORIGIN", "http://router")), CORVEL_HTTP_FORBIDDEN);
}

TEST(corvel_request_read, RefusesAnOriginIfThereIsNoHost) {
    EXPECT_EQ(status_of(post("a=1").with("HTTP_ORIGIN", "http://router")), CORVEL_HTTP_FORBIDDEN);
}

TEST(corvel_request_read, PrefersTheOriginToTheReferer) {
    const CgiRequest request = post("a=1").with("HTTP_HOST", "router");
    EXPECT_EQ(status_of(request.with("HTTP_ORIGIN", "http://evil.example")
                            .with("HTTP_REFERER", "http://router/")),
              CORVEL_HTTP_FORBIDDEN);
    EXPECT_EQ(status_of(request.with("HTTP_ORIGIN", "http://router")
                            .with("HTTP_REFERER", "http://evil.example/")),
              CORVEL_HTTP_OK);
}

TEST(corvel_request_read, BelievesWhatTheBrowserSaysAboutTheSite) {
    for (const char *site : {"same-origin", "none"})
        EXPECT_EQ(status_of(post("a=1")
                                .with("HTTP_SEC_FETCH_SITE", site)
                                .with("HTTP_HOST", "router")
                                .with("HTTP_ORIGIN", "http://name-at-the-proxy")),
                  CORVEL_HTTP_OK);
    for (const char *site : {"same-site", "cross-site", "", "Same-Origin", "same-origin, none"})
        EXPECT_EQ(status_of(post("a=1")
                                .with("HTTP_SEC_FETCH_SITE", site)
                                .with("HTTP_HOST", "router")
                                .with("HTTP_ORIGIN", "http://router")),
                  CORVEL_HTTP_FORBIDDEN)
            << site;
}

TEST(corvel_request_read, AcceptsAClientThatIsNoBrowser) {
    EXPECT_EQ(status_of(post("a=1")), CORVEL_HTTP_OK);
    EXPECT_EQ(status_of(post("a=1").with("HTTP_HOST", "router")), CORVEL_HTTP_OK);
}

TEST(corvel_request_read, RefusesEveryMethodThatChangesSomethingAndNoOther) {
    for (const char *method : {"POST", "PUT", "DELETE", "GET", "HEAD"}) {
        const std::string name = method;
        const PageRequest request(
            get().with("REQUEST_METHOD", name).with("HTTP_SEC_FETCH_SITE", "cross-site"));
        const bool changes = name != "GET" && name != "HEAD";
        EXPECT_EQ(request.read(Rules{.methods = ~0U}),
                  changes ? CORVEL_HTTP_FORBIDDEN : CORVEL_HTTP_OK);
        EXPECT_EQ(request.complaint(),
                  changes ? "The request was sent by a page of another site." : "");
    }
}

TEST(corvel_request_read, AcceptsOtherSitesIfTheRulesSayIt) {
    const CgiRequest request = post("a=1").with("HTTP_SEC_FETCH_SITE", "cross-site");
    EXPECT_EQ(status_of(request, {.methods = CORVEL_POST, .accept_other_sites = true}),
              CORVEL_HTTP_OK);
}

TEST(corvel_request_read, DiscardsTheBodyThatAnotherSiteSent) {
    const PageRequest request(post("a=1").with("HTTP_ORIGIN", "null"));
    EXPECT_EQ(request.read(), CORVEL_HTTP_FORBIDDEN);
    EXPECT_EQ(CgiSurroundings::unread_input(), "");
}

// corvel_request_read: the names of the device

TEST(corvel_request_read, AcceptsTheDevicesNamesAndEveryAddress) {
    const char *const names[] = {"router", "router.lan", nullptr};
    const Rules rules = {.hosts = names};
    for (const char *host : {"router", "ROUTER", "router:8080", "router.lan", "192.168.1.1",
                             "192.168.1.1:80", "[fd00::1]", "[fd00::1]:8080", "[::]"})
        EXPECT_EQ(status_of(get().with("HTTP_HOST", host), rules), CORVEL_HTTP_OK) << host;
    for (const char *host : {"evil.example",
                             "route",
                             "routers",
                             "lan",
                             "router.lan.evil.example",
                             "",
                             ":",
                             ":80",
                             "router:x",
                             "router:80:80",
                             "192.168.1.1.evil.example",
                             "192.168.1",
                             "1",
                             "fd00::1",
                             "[fd00::1",
                             "[fd00::1]x",
                             "[]",
                             "[192.168.1.1]",
                             "192.168.1.1x",
                             "[fd00::1%25eth0]",
                             "@router",
                             "1111:2222:3333:4444:5555:6666:7777:8888:9999:1111:2222:3333:4444"}) {
        const PageRequest request(get().with("HTTP_HOST", host));
        EXPECT_EQ(request.read(rules), CORVEL_HTTP_FORBIDDEN) << host;
        EXPECT_EQ(request.complaint(),
                  "The address of this page contains a name that is not this device's.");
    }
    EXPECT_EQ(status_of(get(), rules), CORVEL_HTTP_FORBIDDEN);
}

TEST(corvel_request_read, RefusesHostsOfEveryLengthThatAreNoAddresses) {
    const char *const names[] = {nullptr};
    for (std::size_t length = 1; length < 100; ++length)
        for (const std::string &host :
             {std::string(length, '1'), "[" + std::string(length, ':') + "x]",
              "[" + std::string(length, '1') + "]"}) {
            EXPECT_EQ(status_of(get().with("HTTP_HOST", host), {.hosts = names}),
                      CORVEL_HTTP_FORBIDDEN)
                << host;
        }
    EXPECT_EQ(status_of(get().with("HTTP_HOST", "[1111:2222:3333:4444:5555:6666:123.123.123.123]"),
                        {.hosts = names}),
              CORVEL_HTTP_OK);
}

TEST(corvel_request_read, AcceptsEveryNameWithoutAList) {
    EXPECT_EQ(status_of(get().with("HTTP_HOST", "evil.example"), {}), CORVEL_HTTP_OK);
}

TEST(corvel_request_read, AcceptsOnlyAddressesIfTheListIsEmpty) {
    const char *const names[] = {nullptr};
    EXPECT_EQ(status_of(get().with("HTTP_HOST", "router"), {.hosts = names}),
              CORVEL_HTTP_FORBIDDEN);
    EXPECT_EQ(status_of(get().with("HTTP_HOST", "10.0.0.1"), {.hosts = names}), CORVEL_HTTP_OK);
}

// corvel_request_read: limits of the fields

std::string many_pairs(std::size_t count) {
    std::string pairs;
    for (std::size_t i = 0; i < count; ++i)
        pairs += "a&";
    return pairs;
}

TEST(corvel_request_read, AcceptsPairsMaxPairsOfTheQueryAndOfTheForm) {
    for (const std::size_t max : {0U, 1U, 2U, 17U, 4000U}) {
        const std::size_t limit = max != 0 ? max : 1024;
        const Rules rules = {.methods = CORVEL_GET | CORVEL_POST, .pairs_max = max};
        for (const CgiRequest &cgi :
             {get(many_pairs(limit)), post(many_pairs(limit)),
              post(many_pairs(limit)).with("QUERY_STRING", many_pairs(limit))}) {
            const PageRequest request(cgi);
            EXPECT_EQ(request.read(rules), CORVEL_HTTP_OK);
            EXPECT_EQ(corvel_field_count(request), limit);
        }
        for (const CgiRequest &cgi : {get(many_pairs(limit + 1)), post(many_pairs(limit + 1)),
                                      post("").with("QUERY_STRING", many_pairs(limit + 1))}) {
            const PageRequest request(cgi);
            EXPECT_EQ(request.read(rules), CORVEL_HTTP_CONTENT_TOO_LARGE);
            EXPECT_EQ(request.complaint(), "The request contains too many fields.");
            EXPECT_EQ(corvel_field_count(request), 0U);
            EXPECT_EQ(corvel_field(request, "a"), nullptr);
            EXPECT_EQ(corvel_query(request, "a"), nullptr);
        }
    }
}

TEST(corvel_request_read, HasMemoryForEveryBodyWithinTheDefaults) {
    std::string body = many_pairs(1024);
    body.resize(65536, 'x');
    EXPECT_EQ(status_of(post(body)), CORVEL_HTTP_CONTENT_TOO_LARGE); // one pair more
    body[2 * 1024 - 1] = 'x';
    EXPECT_EQ(status_of(post(body)), CORVEL_HTTP_OK);
    EXPECT_EQ(status_of(chunked_post(body).with("QUERY_STRING", many_pairs(1024))), CORVEL_HTTP_OK);
}

TEST(corvel_request_read, RefusesWhatNeedsMoreThanMemoryMax) {
    const std::string value(4000, 'x');
    const Rules rules = {.methods = CORVEL_GET | CORVEL_POST,
                         .types = CORVEL_FORM | CORVEL_ANY_TYPE,
                         .memory_max = 4000};
    for (const CgiRequest &cgi :
         {get("a=" + value), post("a=" + value), post(value, "text/plain"), chunked_post("a=1")}) {
        const PageRequest request(cgi);
        EXPECT_EQ(request.read(rules), CORVEL_HTTP_CONTENT_TOO_LARGE);
        EXPECT_EQ(request.complaint(), "The request is too large.");
        EXPECT_EQ(CgiSurroundings::unread_input(), "");
    }
    EXPECT_EQ(status_of(post("a=" + std::string(1000, 'x')), rules), CORVEL_HTTP_OK);
    // Body and form each have room, but not both.
    EXPECT_EQ(status_of(post("a=" + std::string(2500, 'x')), rules), CORVEL_HTTP_CONTENT_TOO_LARGE);
    // The query leaves too little for the body.
    EXPECT_EQ(
        status_of(
            post("a=" + std::string(1000, 'x')).with("QUERY_STRING", "a=" + std::string(3000, 'x')),
            rules),
        CORVEL_HTTP_CONTENT_TOO_LARGE);
}

TEST(corvel_request_read, RefusesADecodedNul) {
    for (const char *pairs : {"a=%00", "%00=a", "a=b%00c", "a=1&b=2%00&c=3", "%00"})
        for (const CgiRequest &cgi :
             {get(pairs), post(pairs), post("").with("QUERY_STRING", pairs)}) {
            const PageRequest request(cgi);
            EXPECT_EQ(request.read(), CORVEL_HTTP_BAD_REQUEST) << pairs;
            EXPECT_EQ(request.complaint(), "A field contains a NUL character.");
            EXPECT_EQ(corvel_field_count(request), 0U);
        }
    EXPECT_EQ(status_of(post("a=b\0c"s)), CORVEL_HTTP_BAD_REQUEST);
}

// corvel_request_read: the call

TEST(corvel_request_read, ReadsOnlyOnce) {
    const PageRequest request(post("a=1x").with("CONTENT_LENGTH", "3"));
    EXPECT_EQ(request.read(), CORVEL_HTTP_OK);
    EXPECT_EQ(request.read(Rules{.methods = CORVEL_GET}), CORVEL_HTTP_OK);
    EXPECT_EQ(corvel_field_count(request), 1U);
    EXPECT_EQ(CgiSurroundings::unread_input(), "x");
    const PageRequest refused(post("a=1"));
    EXPECT_EQ(refused.read(Rules{}), CORVEL_HTTP_METHOD_NOT_ALLOWED);
    EXPECT_EQ(refused.read(), CORVEL_HTTP_METHOD_NOT_ALLOWED);
}

TEST(corvel_request_read, DiscardsTheBodyOfANullRequest) {
    const CgiSurroundings surroundings(post("a=1"));
    EXPECT_EQ(corvel_request_read(nullptr, nullptr), CORVEL_HTTP_SERVICE_UNAVAILABLE);
    EXPECT_EQ(CgiSurroundings::unread_input(), "");
}

TEST(corvel_request_read, ReportsThatMemoryIsExhausted) {
    for (const CgiRequest &cgi :
         {post("a=1&b=2").with("QUERY_STRING", "c=3"), post("{}", "application/json"),
          chunked_post("{}", "application/json"), get("a=1")})
        EXPECT_GE(for_each_allocation_failure([&](AllocationTrial &trial) {
                      const PageRequest request(cgi);
                      const int status = trial.run([&] {
                          return request.read(Rules{.methods = CORVEL_GET | CORVEL_POST,
                                                    .types = CORVEL_FORM | CORVEL_JSON_TEXT});
                      });
                      EXPECT_EQ(status,
                                trial.failed() ? CORVEL_HTTP_SERVICE_UNAVAILABLE : CORVEL_HTTP_OK);
                      EXPECT_EQ(request.complaint(),
                                trial.failed()
                                    ? "The device has not enough free memory. Try again later."
                                    : "");
                      EXPECT_EQ(CgiSurroundings::unread_input(), "");
                  }),
                  1U);
}

TEST(corvel_request_read, OpensNoDescriptorAndLeaksNone) {
    const PageRequest request(post("a=1"));
    const DescriptorsLeft none(0);
    EXPECT_EQ(request.read(), CORVEL_HTTP_OK);
}

// corvel_request_complaint

TEST(corvel_request_complaint, OfANullRequestIsThatMemoryIsExhausted) {
    EXPECT_STREQ(corvel_request_complaint(nullptr),
                 "The device has not enough free memory. Try again later.");
}

TEST(corvel_request_complaint, IsEmptyBeforeTheRequestIsRead) {
    EXPECT_EQ(PageRequest(get()).complaint(), "");
}

// Null requests

TEST(NullRequest, HasNothing) {
    EXPECT_EQ(corvel_method(nullptr), 0U);
    EXPECT_STREQ(corvel_path(nullptr), "");
    EXPECT_STREQ(corvel_client_address(nullptr), "");
    EXPECT_FALSE(corvel_is_secure(nullptr));
    corvel_request_free(nullptr);
}

// corvel_request_free

/** The secret, with each byte changed so that the secret itself is not in this program's memory. */
constexpr std::string_view changed_secret = "qbs5psf5b`uufsz6!`uqbsmf";

char unchanged(char byte) { return static_cast<char>(byte ^ 1); }

__attribute__((no_sanitize("address"))) std::size_t count_secrets(const char *at, const char *end) {
    std::size_t count = 0;
    for (; static_cast<std::size_t>(end - at) >= changed_secret.size(); ++at) {
        std::size_t same = 0;
        while (same < changed_secret.size() && at[same] == unchanged(changed_secret[same]))
            ++same;
        if (same == changed_secret.size())
            ++count;
    }
    return count;
}

/** How often the secret is in the memory that this process can write. */
std::size_t secrets_in_memory() {
    constexpr std::uintptr_t largest = 64U << 20U; // not the shadow memory of a sanitizer
    std::ifstream maps("/proc/self/maps");
    std::size_t count = 0;
    for (std::string line; std::getline(maps, line);) {
        std::istringstream words(line);
        std::uintptr_t start = 0;
        std::uintptr_t end = 0;
        char dash = 0;
        std::string permissions;
        words >> std::hex >> start >> dash >> end >> permissions;
        if (permissions.starts_with("rw") && end - start <= largest)
            // NOLINTNEXTLINE(performance-no-int-to-ptr): the addresses are in a file
            count += count_secrets(reinterpret_cast<const char *>(start),
                                   reinterpret_cast<const char *>(end)); // NOLINT
    }
    return count;
}

/** Makes standard input a pipe that a child fills with the secret and what is around it. */
void feed_secret(std::string_view before, std::string_view rest) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    if (fork() == 0) {
        std::string text(before);
        for (const char byte : changed_secret)
            text += unchanged(byte);
        text += rest;
        _exit(write(ends[1], text.data(), text.size()) > 0 ? 0 : 1);
    }
    ASSERT_EQ(dup2(ends[0], STDIN_FILENO), STDIN_FILENO);
    close(ends[0]);
    close(ends[1]);
}

/** What is around the secret: the C library overwrites the start of a block that is freed. */
const std::string secret_start = "a=" + std::string(3000, 'x') + "&password=";
const std::string secret_end = "&b=" + std::string(3000, 'x');

/** What is found of the secret while the request exists and after it has been freed. */
void expect_wiped(const CgiRequest &cgi, int status, std::size_t least) {
    expect_in_child([&] {
        const CgiSurroundings surroundings(cgi);
        feed_secret(secret_start, secret_end);
        corvel_request *const request = corvel_request_begin();
        const corvel_request_rules rules =
            Rules{.methods = CORVEL_POST, .types = CORVEL_FORM | CORVEL_JSON_TEXT}.value();
        EXPECT_EQ(corvel_request_read(request, &rules), status);
        EXPECT_GE(secrets_in_memory(), least);
        corvel_request_free(request);
        EXPECT_EQ(secrets_in_memory(), 0U);
    });
}

TEST(corvel_request_free, OverwritesTheBodyAndTheFields) {
    const std::string length =
        std::to_string(secret_start.size() + changed_secret.size() + secret_end.size());
    const CgiRequest form = post("").with("CONTENT_LENGTH", length);
    expect_wiped(form, CORVEL_HTTP_OK, 1);
    expect_wiped(form.with("CONTENT_TYPE", "application/json"), CORVEL_HTTP_OK, 1);
    expect_wiped(chunked_post(""), CORVEL_HTTP_OK, 1);
    expect_wiped(form.with("CONTENT_TYPE", "text/plain"), CORVEL_HTTP_UNSUPPORTED_MEDIA_TYPE, 0);
    expect_wiped(form.with("CONTENT_LENGTH", "10000"), CORVEL_HTTP_BAD_REQUEST, 0);
}

} // namespace
} // namespace corvel_test
