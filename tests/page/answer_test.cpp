/* SPDX-License-Identifier: MIT */
#include <corvel_page.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <poll.h>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <unistd.h>
#include <vector>

#include "tests/page/sent_answer.h"
#include "tests/support/child_process.h"
#include "tests/support/next_definition.h"
#include "tests/support/stand_in.h"
#include "tests/support/temporary_directory.h"

/** If set, called instead of poll(). */
static std::function<int(pollfd *, nfds_t, int)> instead_of_poll;

extern "C" int poll(pollfd *files, nfds_t count, int milliseconds) {
    static auto *const next = corvel_test::next_definition<int(pollfd *, nfds_t, int)>("poll");
    return instead_of_poll ? instead_of_poll(files, count, milliseconds)
                           : next(files, count, milliseconds);
}

namespace corvel_test {
namespace {

using Strings = std::vector<std::string>;

const std::string default_policy = "default-src 'self'; base-uri 'none'; form-action 'self'; "
                                   "frame-ancestors 'none'; object-src 'none'";

const std::string default_fields = "Content-Type: text/html; charset=utf-8\r\n"
                                   "Cache-Control: no-store\r\n"
                                   "X-Content-Type-Options: nosniff\r\n"
                                   "X-Frame-Options: DENY\r\n"
                                   "Referrer-Policy: same-origin\r\n"
                                   "Content-Security-Policy: " +
                                   default_policy + "\r\n";

/** The control characters that a header field must not contain. */
Strings controls() {
    Strings all;
    for (int character = 1; character < 0x20; ++character)
        all.emplace_back(1, static_cast<char>(character));
    all.emplace_back("\x7F");
    return all;
}

/** Expects the answer of status 500 that replaces a misused one, and one message in the log. */
void expect_misuse(const std::function<void(corvel_answer *)> &page, const std::string &reason) {
    const RecordSyslog log;
    const SentAnswer sent = answer_of(page);
    EXPECT_EQ(sent.status(), "500 Internal Server Error");
    EXPECT_EQ(sent.body.find("<!DOCTYPE html>"), 0U);
    EXPECT_EQ(RecordSyslog::messages(), (std::vector<RecordSyslog::Message>{{3, reason}}));
}

// ------------------------------------------------------------------------------ a new answer ----

TEST(corvel_answer_new, HasStatus200AndTheDefaultFieldsAndNoBody) {
    const SentAnswer sent = answer_of([](corvel_answer *) {});
    EXPECT_EQ(sent.head, "Status: 200 OK\r\n" + default_fields + "Content-Length: 0\r\n");
    EXPECT_EQ(sent.body, "");
}

TEST(corvel_answer_new, HasThePolicyOfTheSite) {
    corvel_site site{};
    site.content_security_policy = "default-src 'none'";
    EXPECT_EQ(PageAnswer(&site).send().values("Content-Security-Policy"),
              Strings{"default-src 'none'"});
    site.content_security_policy = "";
    EXPECT_EQ(PageAnswer(&site).send().head.find("Content-Security"), std::string::npos);
}

TEST(corvel_answer_new, RefusesAPolicyWithControlCharacters) {
    for (const std::string &control : controls()) {
        const std::string policy = "default-src" + control + "X: y";
        corvel_site site{};
        site.content_security_policy = policy.c_str();
        const RecordSyslog log;
        const SentAnswer sent = PageAnswer(&site).send();
        EXPECT_EQ(sent.status(), "500 Internal Server Error");
        EXPECT_EQ(sent.values("Content-Security-Policy"), Strings{default_policy});
        EXPECT_EQ(RecordSyslog::messages(),
                  (std::vector<RecordSyslog::Message>{
                      {3, "The content security policy contains a control character."}}));
    }
}

TEST(corvel_answer_new, AcceptsARequestThatCouldNotBegin) {
    const EnvironmentVariable method("REQUEST_METHOD", "HEAD");
    corvel_answer *const answer = corvel_answer_new(nullptr, nullptr);
    corvel_answer_html(answer, "text");
    corvel_answer_cookie(answer, "a", "b", -1);
    corvel_answer_conditional(answer);
    bool sent = false;
    EXPECT_EQ(SentAnswer(capture_stdout([&] { sent = corvel_answer_send(answer); })).body, "text");
    EXPECT_TRUE(sent);
    corvel_answer_free(answer);
}

TEST(corvel_answer_new, IsNullWithoutMemory) {
    const unsigned long failures = for_each_allocation_failure([](AllocationTrial &trial) {
        corvel_answer *const answer = trial.run([] { return corvel_answer_new(nullptr, nullptr); });
        EXPECT_EQ(answer == nullptr, trial.failed());
        corvel_answer_free(answer);
    });
    EXPECT_GE(failures, 2U);
}

// -------------------------------------------------------------------------------- the header ----

TEST(corvel_answer_status, SetsTheStatus) {
    EXPECT_EQ(answer_of([](corvel_answer *answer) { corvel_answer_status(answer, 201); }).status(),
              "201 Created");
}

TEST(corvel_answer_status, OfUnknownNumberHasTheNameOfItsClass) {
    const std::array<std::pair<int, const char *>, 8> cases{{{200, "200 OK"},
                                                             {299, "299 OK"},
                                                             {300, "300 Multiple Choices"},
                                                             {399, "399 Multiple Choices"},
                                                             {418, "418 Bad Request"},
                                                             {499, "499 Bad Request"},
                                                             {507, "507 Insufficient Storage"},
                                                             {599, "599 Internal Server Error"}}};
    for (const auto &each : cases)
        EXPECT_EQ(answer_of([&](corvel_answer *answer) {
                      corvel_answer_status(answer, each.first);
                  }).status(),
                  each.second);
}

TEST(corvel_answer_status, OutsideTheRangeIsAMisuse) {
    for (const int status : {-200, 0, 100, 199, 600, 2000})
        expect_misuse([&](corvel_answer *answer) { corvel_answer_status(answer, status); },
                      "The status of the answer is invalid.");
}

TEST(corvel_answer_status, WithoutContentSendsNoBodyAndNoLength) {
    for (const int status : {204, 304}) {
        const SentAnswer sent = answer_of([&](corvel_answer *answer) {
            corvel_answer_write(answer, "x", 1);
            corvel_answer_status(answer, status);
        });
        EXPECT_EQ(sent.body, "");
        EXPECT_EQ(sent.head.find("Content-Length"), std::string::npos);
    }
}

TEST(corvel_answer_status, IsIgnoredAfterAnErrorAndARedirection) {
    EXPECT_EQ(answer_of([](corvel_answer *answer) {
                  corvel_answer_error(answer, 404, nullptr);
                  corvel_answer_status(answer, 200);
              }).status(),
              "404 Not Found");
    EXPECT_EQ(answer_of([](corvel_answer *answer) {
                  corvel_answer_redirect(answer, "/");
                  corvel_answer_status(answer, 200);
              }).status(),
              "303 See Other");
}

TEST(corvel_answer_type, ReplacesTheType) {
    const SentAnswer sent = answer_of([](corvel_answer *answer) {
        corvel_answer_type(answer, "text/plain");
        corvel_answer_type(answer, "text/csv; charset=utf-8");
    });
    EXPECT_EQ(sent.values("Content-Type"), Strings{"text/csv; charset=utf-8"});
}

TEST(corvel_answer_type, ThatIsInvalidIsAMisuse) {
    Strings types{""};
    for (const std::string &control : controls())
        types.push_back("text/html" + control + "X: y");
    for (const std::string &type : types)
        expect_misuse([&](corvel_answer *answer) { corvel_answer_type(answer, type.c_str()); },
                      "The content type of the answer is invalid.");
    expect_misuse([&](corvel_answer *answer) { corvel_answer_type(answer, nullptr); },
                  "The content type of the answer is invalid.");
}

TEST(corvel_answer_type, IsIgnoredAfterAnErrorAndARedirection) {
    for (const bool is_error : {true, false}) {
        const SentAnswer sent = answer_of([&](corvel_answer *answer) {
            if (is_error)
                corvel_answer_error(answer, 404, nullptr);
            else
                corvel_answer_redirect(answer, "/");
            corvel_answer_type(answer, "application/json");
        });
        EXPECT_EQ(sent.values("Content-Type"), Strings{"text/html; charset=utf-8"});
    }
}

TEST(corvel_answer_header, AddsReplacesAndRemovesFields) {
    const SentAnswer sent = answer_of([](corvel_answer *answer) {
        corvel_answer_header(answer, "X-One", "1");
        corvel_answer_header(answer, "X-Two", "2");
        corvel_answer_header(answer, "x-one", "\xC3\xA9: \"3\"");
        corvel_answer_header(answer, "CACHE-CONTROL", "max-age=60");
        corvel_answer_header(answer, "X-Frame-Options", nullptr);
        corvel_answer_header(answer, "X-Content-Type-Options", "");
        corvel_answer_header(answer, "X-Two-And-More", "4");
        corvel_answer_header(answer, "X-Two", nullptr);
    });
    EXPECT_EQ(sent.head, "Status: 200 OK\r\n"
                         "Content-Type: text/html; charset=utf-8\r\n"
                         "Referrer-Policy: same-origin\r\n"
                         "Content-Security-Policy: " +
                             default_policy +
                             "\r\n"
                             "x-one: \xC3\xA9: \"3\"\r\n"
                             "CACHE-CONTROL: max-age=60\r\n"
                             "X-Two-And-More: 4\r\n"
                             "Content-Length: 0\r\n");
}

TEST(corvel_answer_header, CanBeSetAgainAfterItWasRemoved) {
    const SentAnswer sent = answer_of([](corvel_answer *answer) {
        corvel_answer_header(answer, "X-One", nullptr);
        corvel_answer_header(answer, "X-One", "1");
    });
    EXPECT_EQ(sent.values("X-One"), Strings{"1"});
}

const std::string invalid_field = "The name or value of a header field is invalid.";

TEST(corvel_answer_header, WithAControlCharacterIsAMisuse) {
    for (const std::string &control : controls()) {
        expect_misuse(
            [&](corvel_answer *answer) {
                corvel_answer_header(answer, "X-One", ("1" + control + "Set-Cookie: a=b").c_str());
            },
            invalid_field);
        expect_misuse(
            [&](corvel_answer *answer) {
                corvel_answer_header(answer, ("X" + control + "One").c_str(), "1");
            },
            invalid_field);
    }
}

TEST(corvel_answer_header, OfInvalidNameIsAMisuse) {
    for (const char *name :
         {"",   " ",  "X One", "X:", "X=", "X(", "X)", "X,",  "X/",  "X;",      "X<",
          "X>", "X?", "X@",    "X[", "X]", "X{", "X}", "X\"", "X\\", "\xC3\xA9"})
        expect_misuse([&](corvel_answer *answer) { corvel_answer_header(answer, name, "1"); },
                      invalid_field);
    expect_misuse([&](corvel_answer *answer) { corvel_answer_header(answer, nullptr, "1"); },
                  invalid_field);
}

TEST(corvel_answer_header, AcceptsEveryCharacterOfAToken) {
    const std::string name = "!#$%&'*+-.^_`|~azAZ09";
    EXPECT_EQ(answer_of([&](corvel_answer *answer) {
                  corvel_answer_header(answer, name.c_str(), "1");
              }).values(name),
              Strings{"1"});
}

TEST(corvel_answer_header, ThatAnotherFunctionSetsIsAMisuse) {
    for (const char *name :
         {"Status", "status", "Content-Type", "CONTENT-LENGTH", "Set-Cookie", "Transfer-Encoding"})
        expect_misuse([&](corvel_answer *answer) { corvel_answer_header(answer, name, "1"); },
                      invalid_field);
}

TEST(corvel_answer_header, CanHave16384BytesAltogether) {
    const std::size_t used = default_fields.size() + std::strlen("X: \r\n");
    EXPECT_EQ(answer_of([&](corvel_answer *answer) {
                  corvel_answer_header(answer, "X", std::string(16384 - used, 'x').c_str());
              }).status(),
              "200 OK");
    expect_misuse(
        [&](corvel_answer *answer) {
            corvel_answer_header(answer, "X", std::string(16384 - used + 1, 'x').c_str());
        },
        "The answer is too large, or memory is exhausted.");
}

TEST(corvel_answer_cookie, HasTheAttributesThatProtectIt) {
    const SentAnswer sent = answer_of([](corvel_answer *answer) {
        corvel_answer_cookie(answer, "session", "0123", -1);
        corvel_answer_cookie(answer, "theme", "dark", 3600);
    });
    EXPECT_EQ(sent.values("Set-Cookie"),
              (Strings{"session=0123; Path=/; HttpOnly; SameSite=Strict",
                       "theme=dark; Path=/; HttpOnly; SameSite=Strict; Max-Age=3600"}));
}

TEST(corvel_answer_cookie, IsSecureIfTheRequestArrivedByTls) {
    const EnvironmentVariable tls("HTTPS", "on");
    const SentAnswer sent = answer_of(
        [](corvel_answer *answer) { corvel_answer_cookie(answer, "a", "", 2147483647L); });
    EXPECT_EQ(sent.values("Set-Cookie"),
              Strings{"a=; Path=/; HttpOnly; SameSite=Strict; Secure; Max-Age=2147483647"});
}

TEST(corvel_answer_cookie, IsRemovedByANullValueOrAnAgeOf0) {
    const std::string attributes = "; Path=/; HttpOnly; SameSite=Strict; Max-Age=0";
    const SentAnswer sent = answer_of([](corvel_answer *answer) {
        corvel_answer_cookie(answer, "a", nullptr, 3600);
        corvel_answer_cookie(answer, "b", nullptr, -1);
        corvel_answer_cookie(answer, "c", "x", 0);
    });
    EXPECT_EQ(sent.values("Set-Cookie"),
              (Strings{"a=" + attributes, "b=" + attributes, "c=x" + attributes}));
}

TEST(corvel_answer_cookie, ReplacesTheOneOfTheSameName) {
    const SentAnswer sent = answer_of([](corvel_answer *answer) {
        for (const char *value : {"1", "2"})
            for (const char *name : {"a", "A", "aa"})
                corvel_answer_cookie(answer, name, value, -1);
    });
    const std::string attributes = "; Path=/; HttpOnly; SameSite=Strict";
    EXPECT_EQ(sent.values("Set-Cookie"),
              (Strings{"a=2" + attributes, "A=2" + attributes, "aa=2" + attributes}));
}

TEST(corvel_answer_cookie, ThatIsInvalidIsAMisuse) {
    Strings invalid{" ", "\"", ",", ";", "\\", "\xC3\xA9"};
    for (const std::string &control : controls())
        invalid.push_back(control);
    const std::string reason = "The name or value of a cookie is invalid.";
    for (const std::string &part : invalid) {
        expect_misuse(
            [&](corvel_answer *answer) {
                corvel_answer_cookie(answer, "a", ("x" + part + "y").c_str(), -1);
            },
            reason);
        expect_misuse(
            [&](corvel_answer *answer) {
                corvel_answer_cookie(answer, ("x" + part + "y").c_str(), "a", -1);
            },
            reason);
    }
    for (const char *name : {"", "a=b", "a:b"})
        expect_misuse([&](corvel_answer *answer) { corvel_answer_cookie(answer, name, "a", -1); },
                      reason);
    expect_misuse([&](corvel_answer *answer) { corvel_answer_cookie(answer, nullptr, "a", -1); },
                  reason);
}

TEST(corvel_answer_cookie, AcceptsEveryOtherPrintableCharacter) {
    std::string value;
    for (char character = '!'; character <= '~'; ++character)
        if (std::string_view("\",;\\").find(character) == std::string_view::npos)
            value += character;
    EXPECT_EQ(answer_of([&](corvel_answer *answer) {
                  corvel_answer_cookie(answer, "a", value.c_str(), -1);
              }).values("Set-Cookie"),
              Strings{"a=" + value + "; Path=/; HttpOnly; SameSite=Strict"});
}

TEST(corvel_answer_cookie, IsNotSentTruncated) {
    const RecordSyslog log;
    const SentAnswer sent = answer_of([](corvel_answer *answer) {
        corvel_answer_cookie(answer, "a", std::string(10000, 'x').c_str(), -1);
        corvel_answer_cookie(answer, "b", std::string(10000, 'x').c_str(), -1);
    });
    EXPECT_EQ(sent.status(), "500 Internal Server Error");
    EXPECT_EQ(sent.values("Set-Cookie"), Strings{});
}

// ---------------------------------------------------------------------------------- the body ----

TEST(corvel_answer_write, AppendsTheBytesAsTheyAre) {
    const std::string bytes("<a>\0\r\n\r\n\xFF{{name}}$\0", 19);
    const SentAnswer sent = answer_of([&](corvel_answer *answer) {
        corvel_answer_write(answer, bytes.data(), bytes.size());
        corvel_answer_write(answer, nullptr, 5);
        corvel_answer_write(answer, "x", 0);
        corvel_answer_write(answer, bytes.data(), bytes.size());
    });
    EXPECT_EQ(sent.body, bytes + bytes);
    EXPECT_EQ(sent.values("Content-Length"), Strings{"38"});
}

TEST(corvel_answer_write, FillsTheBodyUpToItsLimit) {
    const std::string half(CORVEL_ANSWER_MAX / 2, 'x');
    const auto page = [&](corvel_answer *answer) {
        corvel_answer_write(answer, half.data(), half.size());
        corvel_answer_write(answer, half.data(), half.size());
    };
    EXPECT_EQ(answer_of(page).body, half + half);
    expect_misuse(
        [&](corvel_answer *answer) {
            page(answer);
            corvel_answer_write(answer, "x", 1);
        },
        "The answer is too large, or memory is exhausted.");
    expect_misuse([&](corvel_answer *answer) { corvel_answer_write(answer, "", SIZE_MAX); },
                  "The answer is too large, or memory is exhausted.");
}

std::string html_of(const std::string &text) {
    return answer_of([&](corvel_answer *answer) { corvel_answer_html(answer, text.c_str()); }).body;
}

TEST(corvel_answer_html, EscapesWhatEndsTextOrAnAttribute) {
    EXPECT_EQ(html_of("a&b<c>d\"e'f"), "a&amp;b&lt;c&gt;d&quot;e&#39;f");
    EXPECT_EQ(html_of("</script>&amp;"), "&lt;/script&gt;&amp;amp;");
}

TEST(corvel_answer_html, KeepsWhatIsAValueElsewhere) {
    for (const char *text : {"x$token", "{{token}}", "{{#a}}", "{{/a}}", "%s%n", "$", "`${a}`",
                             "\u00E9\u2028\u2029\U0001F600", "\t\n\f\r ", ""})
        EXPECT_EQ(html_of(text), text);
}

TEST(corvel_answer_html, ReplacesMalformedBytesAndControlCharacters) {
    const std::string replaced = "\uFFFD";
    EXPECT_EQ(html_of("a\xFFz"), "a" + replaced + "z");
    EXPECT_EQ(html_of("\xC3"), replaced);
    EXPECT_EQ(html_of("\xC3<"), replaced + "&lt;");
    EXPECT_EQ(html_of("\xE2\x82"), replaced + replaced);
    EXPECT_EQ(html_of("\xED\xA0\x80"), replaced + replaced + replaced); // a surrogate
    EXPECT_EQ(html_of("\xC0\xBC"), replaced + replaced);                // an overlong `<`
    EXPECT_EQ(html_of("\xF4\x90\x80\x80"), replaced + replaced + replaced + replaced);
    for (const std::string &control : controls())
        if (control.find_first_of("\t\n\f\r") == std::string::npos) {
            EXPECT_EQ(html_of("a" + control + "b"), "a" + replaced + "b");
        }
    for (char second = '\x80'; second != '\xA0'; ++second)
        EXPECT_EQ(html_of(std::string("\xC2") + second), replaced);
    EXPECT_EQ(html_of("\xC2\xA0"), "\xC2\xA0");
}

TEST(corvel_answer_html, AppendsNothingForNull) {
    EXPECT_EQ(answer_of([](corvel_answer *answer) { corvel_answer_html(answer, nullptr); }).body,
              "");
}

/** A document in which a value is text and an attribute in either kind of quotes. */
std::string document_with(const std::string &value) {
    return answer_of([&](corvel_answer *answer) {
               const auto write = [&](std::string_view text) {
                   corvel_answer_write(answer, text.data(), text.size());
               };
               write("<!DOCTYPE html><title>");
               corvel_answer_html(answer, value.c_str());
               write("</title><p>=");
               corvel_answer_html(answer, value.c_str());
               write("</p><a id=\"=");
               corvel_answer_html(answer, value.c_str());
               write("\"></a><a id='=");
               corvel_answer_html(answer, value.c_str());
               write("'></a>");
           })
        .body;
}

/** What a parser reads from the document, for a value as it is in JSON. */
std::string expected_document(const std::string &value) {
    return R"([[],[["html",{},""],["head",{},""],["title",{},")" + value +
           R"("],["body",{},""],["p",{},"=)" + value + R"("],["a",{"id":"=)" + value +
           R"("},""],["a",{"id":"=)" + value + R"("},""]]])";
}

TEST(corvel_answer_html, IsReadBackByAnHtmlParser) {
    const std::vector<std::pair<std::string, std::string>> values{
        {"x$token", "x$token"},
        {"{{token}}{{#a}}{{&b}}", "{{token}}{{#a}}{{&b}}"},
        {"\"'`=<>&", "\\\"'`=<>&"},
        {"</title></p></script><script>alert(1)</script>",
         "</title></p></script><script>alert(1)</script>"},
        {"<!--", "<!--"},
        {"&lt;&#60;&notin;&copy", "&lt;&#60;&notin;&copy"},
        {"\" onload=\"x", "\\\" onload=\\\"x"},
        {"' onload='x", "' onload='x"},
        {"a\u2028b\u2029c", "a\\u2028b\\u2029c"},
        {"a\xED\xA0\x80z", "a\\ufffd\\ufffd\\ufffdz"},
        {"a\x01z", "a\\ufffdz"},
        {"a\xFF<", "a\\ufffd<"},
        {"\\\\", "\\\\\\\\"},
        {"a\n\tb", "a\\n\\tb"},
    };
    std::vector<std::string> documents;
    std::vector<std::string> expected;
    for (const auto &[value, as_json] : values) {
        documents.push_back(document_with(value));
        expected.push_back(expected_document(as_json));
    }
    EXPECT_EQ(parsed_html(documents), expected);
}

// ------------------------------------------------------------------ redirections and errors -----

TEST(corvel_answer_redirect, ReplacesTheAnswerButItsCookies) {
    const SentAnswer sent = answer_of([](corvel_answer *answer) {
        corvel_answer_cookie(answer, "session", "1", -1);
        corvel_answer_type(answer, "application/json");
        corvel_answer_header(answer, "X-One", "1");
        corvel_answer_header(answer, "Cache-Control", "max-age=60");
        corvel_answer_write(answer, "body", 4);
        corvel_answer_status(answer, 201);
        corvel_answer_redirect(answer, "/cgi-bin/status?saved=1&x=%20#top");
        corvel_answer_write(answer, "more", 4);
        corvel_answer_html(answer, "more");
        corvel_json_string(answer, nullptr, "more");
        corvel_answer_template(answer, "missing", nullptr);
        corvel_answer_conditional(answer);
    });
    EXPECT_EQ(sent.head, "Status: 303 See Other\r\n" + default_fields +
                             "Location: /cgi-bin/status?saved=1&x=%20#top\r\n"
                             "Set-Cookie: session=1; Path=/; HttpOnly; SameSite=Strict\r\n"
                             "Content-Length: 0\r\n");
    EXPECT_EQ(sent.body, "");
}

TEST(corvel_answer_redirect, ToAnotherSiteIsAMisuse) {
    for (const char *path : {"//host", "http://host/", "/\\host", "\\\\host", "", "host",
                             "/\r\nX: y", "/\t/host", " /", "/a b", "/<", "/\xC3\xA9"})
        expect_misuse([&](corvel_answer *answer) { corvel_answer_redirect(answer, path); },
                      "The target of a redirection is not a path of this site.");
    expect_misuse([](corvel_answer *answer) { corvel_answer_redirect(answer, nullptr); },
                  "The target of a redirection is not a path of this site.");
}

TEST(corvel_is_local_path, AcceptsPathsOfThisSiteOnly) {
    for (const char *path : {"/", "/a", "/cgi-bin/page", "/a/../b", "/a//b", "/~x._-?&=%+,:@#",
                             "/azAZ09", "/?next=//host"})
        EXPECT_TRUE(corvel_is_local_path(path)) << path;
    for (const char *path :
         {"//",  "//host", "///host", "/\\host",      "\\/host", "a",  "",   "http:/a", " /a",
          "/a ", "/\t/a",  "/\n",     "/\"",          "/'",      "/<", "/>", "/`",      "/{",
          "/|",  "/}",     "/^",      "/[",           "/]",      "/;", "/!", "/$",      "/*",
          "/(",  "/)",     "/\x7F",   "/\xE2\x80\xA8"})
        EXPECT_FALSE(corvel_is_local_path(path)) << path;
    EXPECT_FALSE(corvel_is_local_path(nullptr));
}

TEST(corvel_is_local_path, AcceptsUpToItsLimit) {
    const std::string longest = "/" + std::string(CORVEL_LOCAL_PATH_MAX - 1, 'a');
    EXPECT_TRUE(corvel_is_local_path(longest.c_str()));
    EXPECT_FALSE(corvel_is_local_path((longest + "a").c_str()));
    EXPECT_EQ(answer_of([&](corvel_answer *answer) {
                  corvel_answer_redirect(answer, longest.c_str());
              }).values("Location"),
              Strings{longest});
}

TEST(corvel_answer_error, ReplacesTheAnswerButItsCookies) {
    const SentAnswer sent = answer_of([](corvel_answer *answer) {
        corvel_answer_cookie(answer, "session", "1", -1);
        corvel_answer_type(answer, "application/json");
        corvel_answer_header(answer, "X-One", "1");
        corvel_answer_header(answer, "Cache-Control", "max-age=60");
        corvel_json_open_object(answer, nullptr);
        corvel_answer_conditional(answer);
        corvel_answer_error(answer, 403, "Not <you>.");
        corvel_answer_write(answer, "more", 4);
        corvel_answer_html(answer, "more");
        corvel_json_close(answer);
        corvel_json_string(answer, nullptr, "more");
        corvel_answer_template(answer, "missing", nullptr);
        corvel_answer_conditional(answer);
    });
    EXPECT_EQ(sent.body, "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
                         "<title>403 Forbidden</title>\n</head>\n<body>\n<h1>403 Forbidden</h1>\n"
                         "<p>Not &lt;you&gt;.</p>\n</body>\n</html>\n");
    EXPECT_EQ(sent.head, "Status: 403 Forbidden\r\n" + default_fields +
                             "Set-Cookie: session=1; Path=/; HttpOnly; SameSite=Strict\r\n"
                             "Content-Length: " +
                             std::to_string(sent.body.size()) + "\r\n");
}

TEST(corvel_answer_error, KeepsFieldsThatAreSetAfterwards) {
    const SentAnswer sent = answer_of([](corvel_answer *answer) {
        corvel_answer_error(answer, 405, nullptr);
        corvel_answer_header(answer, "Allow", "GET");
    });
    EXPECT_EQ(sent.values("Allow"), Strings{"GET"});
}

TEST(corvel_answer_error, ReplacesAnEarlierErrorOrRedirection) {
    const SentAnswer sent = answer_of([](corvel_answer *answer) {
        corvel_answer_redirect(answer, "/");
        corvel_answer_error(answer, 404, "first");
        corvel_answer_error(answer, 409, "second");
    });
    EXPECT_EQ(sent.status(), "409 Conflict");
    EXPECT_EQ(sent.values("Location"), Strings{});
    EXPECT_EQ(sent.body.find("first"), std::string::npos);
    EXPECT_NE(sent.body.find("second"), std::string::npos);
}

TEST(corvel_answer_error, IsAWellFormedPageForEveryStatus) {
    std::vector<std::string> pages;
    for (int status = 400; status < 600; ++status)
        pages.push_back(answer_of([&](corvel_answer *answer) {
                            corvel_answer_error(answer, status, "\"</p><p>'&amp;\x01");
                        }).body);
    const std::vector<std::string> parsed = parsed_html(pages);
    ASSERT_EQ(parsed.size(), 200U);
    std::set<std::string> titles;
    for (int status = 400; status < 600; ++status) {
        const std::string &page = parsed[static_cast<std::size_t>(status - 400)];
        const std::size_t title = page.find("[\"title\",{},\"" + std::to_string(status) + " ");
        EXPECT_EQ(page.find("[[],[[\"html\",{\"lang\":\"en\"},"), 0U) << page;
        ASSERT_NE(title, std::string::npos) << page;
        titles.insert(page.substr(title, page.find(']', title) - title));
        EXPECT_NE(page.find(R"(["p",{},"\"</p><p>'&amp;\ufffd"]])"), std::string::npos) << page;
    }
    EXPECT_EQ(titles.size(), 200U);
}

TEST(corvel_answer_error, OutsideTheRangeIsAMisuse) {
    for (const int status : {-404, 0, 200, 303, 399, 600})
        expect_misuse([&](corvel_answer *answer) { corvel_answer_error(answer, status, "x"); },
                      "The status of an error page is invalid.");
}

/** A site with an error template. */
class SiteWithErrors {
  public:
    explicit SiteWithErrors(std::string_view error_template) : path_(directory_.path()) {
        directory_.write("error.html", error_template);
        site_.templates = path_.c_str();
        site_.error_template = "error";
    }
    [[nodiscard]] const corvel_site *get() const { return &site_; }

  private:
    TemporaryDirectory directory_;
    std::string path_;
    corvel_site site_{};
};

TEST(corvel_answer_error, IsInTheDesignOfTheSite) {
    const SiteWithErrors site("<title>{{title}} - {{model}}</title>{{status}}: {{reason}}"
                              "{{^reason}}none{{/reason}}");
    corvel_data *const common = corvel_data_new();
    corvel_data_set(common, "model", "<R1>");
    corvel_data_set(common, "title", "hidden by the error's own");
    for (const char *reason : {"a < b", static_cast<const char *>(nullptr)}) {
        const PageAnswer answer(site.get());
        corvel_answer_values(answer.get(), common);
        corvel_answer_error(answer.get(), 404, reason);
        EXPECT_EQ(answer.send().body, std::string("<title>Not Found - &lt;R1&gt;</title>404: ") +
                                          (reason != nullptr ? "a &lt; b" : "none"));
    }
    corvel_data_free(common);
}

TEST(corvel_answer_error, OfAMisuseIsInTheDesignOfTheSiteToo) {
    const SiteWithErrors site("{{status}} {{title}}: {{reason}}");
    const RecordSyslog log;
    const PageAnswer answer(site.get());
    corvel_answer_status(answer.get(), 1);
    const CountCalls opened(call_open);
    EXPECT_EQ(answer.send().body,
              "500 Internal Server Error: The page could not be made. The system log contains the "
              "reason.");
    EXPECT_EQ(opened.count(), 1U);
}

TEST(corvel_answer_error, IsPlainIfTheTemplateCannotBeFilled) {
    const SiteWithErrors malformed("before {{#a}}");
    corvel_site missing = *malformed.get();
    missing.error_template = "missing";
    corvel_site outside = *malformed.get();
    outside.error_template = "../error";
    const std::vector<std::pair<const corvel_site *, std::string>> cases{
        {malformed.get(), "Template error, line 1: a section is not closed."},
        {&missing, "Template missing: the file cannot be read, is too large, or memory is "
                   "exhausted."},
        {&outside, "The name or the values of a template are invalid or incomplete."}};
    for (const auto &[site, reason] : cases) {
        const RecordSyslog log;
        const PageAnswer answer(site);
        corvel_answer_error(answer.get(), 404, "Reason.");
        const SentAnswer sent = answer.send();
        EXPECT_EQ(sent.status(), "404 Not Found");
        EXPECT_EQ(sent.body.find("<!DOCTYPE html>\n"), 0U) << sent.body;
        EXPECT_NE(sent.body.find("<p>Reason.</p>"), std::string::npos);
        EXPECT_EQ(RecordSyslog::messages(), (std::vector<RecordSyslog::Message>{{3, reason}}));
    }
}

TEST(corvel_answer_values, AreNeededIfTheyAreStated) {
    expect_misuse([](corvel_answer *answer) { corvel_answer_values(answer, nullptr); },
                  "The values of the answer are missing.");
}

// ----------------------------------------------------------------------- conditional answers ----

const std::string hello_tag =
    "\"2cf24dba5fb0a30e26e83b2ac5b9e29e1b161e5c1fa7425e73043362938b9824\"";

SentAnswer conditional(const std::optional<std::string> &tags, const std::string &method = "GET",
                       int status = 200) {
    const EnvironmentVariable field("HTTP_IF_NONE_MATCH", tags);
    return answer_of(
        [&](corvel_answer *answer) {
            corvel_answer_status(answer, status);
            corvel_answer_conditional(answer);
            corvel_answer_write(answer, "hello", 5);
        },
        method);
}

TEST(corvel_answer_conditional, HasTheHashOfTheBodyAsItsTag) {
    const SentAnswer sent = conditional({});
    EXPECT_EQ(sent.status(), "200 OK");
    EXPECT_EQ(sent.values("ETag"), Strings{hello_tag});
    EXPECT_EQ(sent.values("Cache-Control"), Strings{"private, no-cache"});
    EXPECT_EQ(sent.body, "hello");
}

TEST(corvel_answer_conditional, IsA304WithoutBodyIfTheBrowserHasTheBody) {
    for (const std::string &tags :
         {hello_tag, "W/" + hello_tag, "\"a\", " + hello_tag,
          "\"a,b\" ,,\t" + hello_tag + ", \"c\"", "W/\"a\"," + hello_tag, " , " + hello_tag,
          std::string("*"), std::string(" *"), "\"\"" + hello_tag}) {
        for (const char *method : {"GET", "HEAD"}) {
            const SentAnswer sent = conditional(tags, method);
            EXPECT_EQ(sent.status(), "304 Not Modified") << tags;
            EXPECT_EQ(sent.values("ETag"), Strings{hello_tag});
            EXPECT_EQ(sent.values("Cache-Control"), Strings{"private, no-cache"});
            EXPECT_EQ(sent.head.find("Content-Length"), std::string::npos);
            EXPECT_EQ(sent.head.find("Content-Type:"), std::string::npos);
            EXPECT_EQ(sent.body, "");
        }
    }
}

TEST(corvel_answer_conditional, IsSentIfNoTagMatches) {
    const std::string inner = hello_tag.substr(1, hello_tag.size() - 2);
    const Strings lists{"",
                        "\"a\"",
                        inner,
                        "\"" + inner,
                        inner + "\"",
                        "\"" + inner.substr(1) + "\"",
                        "\"x" + inner + "\"",
                        "w/" + hello_tag,
                        "a, " + hello_tag,
                        "\"a, " + hello_tag,
                        "W/",
                        "W/\"",
                        "\"a\" *",
                        "\""};
    for (const std::string &tags : lists)
        EXPECT_EQ(conditional(tags).status(), "200 OK") << tags;
}

TEST(corvel_answer_conditional, HasNoConditionForOtherMethodsAndStatuses) {
    for (const SentAnswer &sent : {conditional("*", "POST"), conditional("*", "GET", 201)}) {
        EXPECT_NE(sent.status(), "304 Not Modified");
        EXPECT_EQ(sent.values("ETag"), Strings{});
        EXPECT_EQ(sent.body, "hello");
    }
}

TEST(corvel_answer_conditional, KeepsALaterCacheControl) {
    const SentAnswer sent = answer_of([](corvel_answer *answer) {
        corvel_answer_conditional(answer);
        corvel_answer_header(answer, "Cache-Control", "max-age=5");
    });
    EXPECT_EQ(sent.values("Cache-Control"), Strings{"max-age=5"});
}

// ----------------------------------------------------------------------------------- sending ----

TEST(corvel_answer_send, OmitsTheBodyForHead) {
    const auto page = [](corvel_answer *answer) {
        corvel_answer_html(answer, "text");
    };
    const SentAnswer sent = answer_of(page, "HEAD");
    EXPECT_EQ(sent.body, "");
    EXPECT_EQ(sent.head, answer_of(page).head);
    EXPECT_EQ(sent.values("Content-Length"), Strings{"4"});
    EXPECT_EQ(answer_of(page, "head").body, "text");
}

TEST(corvel_answer_send, ReadsABodyThatThePageHasNotReadToItsEnd) {
    const std::string body(100000, 'x');
    const EnvironmentVariable length("CONTENT_LENGTH", std::to_string(body.size()));
    const StandardInput input(body);
    const PageAnswer answer(nullptr, "POST");
    corvel_answer_redirect(answer.get(), "/login");
    EXPECT_EQ(answer.send().status(), "303 See Other");
    char byte = 0;
    EXPECT_EQ(read(STDIN_FILENO, &byte, 1), 0);
}

TEST(corvel_answer_send, SendsOnce) {
    const PageAnswer answer;
    EXPECT_EQ(answer.send().status(), "200 OK");
    const RecordSyslog log;
    EXPECT_EQ(capture_stdout([&] { EXPECT_FALSE(corvel_answer_send(answer.get())); }), "");
    EXPECT_EQ(RecordSyslog::messages(),
              (std::vector<RecordSyslog::Message>{{3, "The answer was sent twice."}}));
}

TEST(corvel_answer_send, SendsAPlainAnswerForNull) {
    const SentAnswer sent(capture_stdout([] { EXPECT_FALSE(corvel_answer_send(nullptr)); }));
    EXPECT_EQ(sent.status(), "503 Service Unavailable");
    EXPECT_EQ(sent.values("Content-Length"), Strings{std::to_string(sent.body.size())});
    EXPECT_EQ(sent.body, "The device is out of memory.\n");
}

TEST(corvel_answer_send, SendsStatus500ForAMisuseBeforeOrAfterAnErrorOrARedirection) {
    const auto misused = [](corvel_answer *answer) {
        corvel_answer_header(answer, "", "");
    };
    const auto error = [](corvel_answer *answer) {
        corvel_answer_error(answer, 404, "");
    };
    const auto redirection = [](corvel_answer *answer) {
        corvel_answer_redirect(answer, "/");
    };
    using Page = std::function<void(corvel_answer *)>;
    for (const auto &pages : std::vector<std::pair<Page, Page>>{
             {misused, error}, {error, misused}, {misused, redirection}, {redirection, misused}})
        expect_misuse(
            [&](corvel_answer *answer) {
                pages.first(answer);
                pages.second(answer);
            },
            invalid_field);
}

TEST(corvel_answer_send, PrecedesWhatTheStreamHasInItsBuffer) {
    const ChildResult child = run_in_child([] {
        std::printf("printed");
        const PageAnswer answer;
        corvel_answer_html(answer.get(), "body");
        corvel_answer_send(answer.get());
    });
    EXPECT_EQ(SentAnswer(child.out).body, "bodyprinted");
}

TEST(corvel_answer, AcceptsNullEverywhere) {
    corvel_answer_values(nullptr, nullptr);
    corvel_answer_status(nullptr, 200);
    corvel_answer_type(nullptr, "a");
    corvel_answer_header(nullptr, "a", "b");
    corvel_answer_cookie(nullptr, "a", "b", 0);
    corvel_answer_write(nullptr, "a", 1);
    corvel_answer_html(nullptr, "a");
    corvel_answer_template(nullptr, "a", nullptr);
    corvel_answer_redirect(nullptr, "/");
    corvel_answer_error(nullptr, 404, "a");
    corvel_answer_conditional(nullptr);
    corvel_answer_free(nullptr);
}

/** A body whose bytes show where they belong. */
std::string long_body(std::size_t size) {
    std::string body;
    while (body.size() < size)
        body += std::to_string(body.size()) + " ";
    body.resize(size);
    return body;
}

/** Standard output is the writing end of a pipe during its lifetime. */
class OutputPipe {
  public:
    OutputPipe() : saved_(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3)) {
        std::array<int, 2> ends{};
        EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
        reader_ = ends[0];
        EXPECT_EQ(dup2(ends[1], STDOUT_FILENO), STDOUT_FILENO);
        close(ends[1]);
    }
    ~OutputPipe() {
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
        close_reader();
    }
    OutputPipe(const OutputPipe &) = delete;
    OutputPipe &operator=(const OutputPipe &) = delete;

    [[nodiscard]] int reader() const { return reader_; }
    void close_reader() {
        if (reader_ >= 0)
            close(reader_);
        reader_ = -1;
    }

  private:
    int saved_;
    int reader_ = -1;
};

TEST(corvel_answer_send, WritesEverythingToASlowReaderOfAPipeThatDoesNotBlock) {
    const std::string body = long_body(300'000);
    for (const int flags : {0, O_NONBLOCK}) {
        const PageAnswer answer;
        corvel_answer_write(answer.get(), body.data(), body.size());
        std::string received;
        {
            const OutputPipe output;
            ASSERT_EQ(fcntl(STDOUT_FILENO, F_SETFL, O_WRONLY | flags), 0);
            std::thread reader([&] {
                std::array<char, 1000> bytes{};
                while (received.size() < body.size() ||
                       received.find("\r\n\r\n") + 4 + body.size() != received.size()) {
                    const ssize_t length = read(output.reader(), bytes.data(), bytes.size());
                    if (length <= 0)
                        break;
                    received.append(bytes.data(), static_cast<std::size_t>(length));
                }
            });
            EXPECT_TRUE(corvel_answer_send(answer.get()));
            reader.join();
        }
        EXPECT_EQ(SentAnswer(received).body, body);
    }
}

TEST(corvel_answer_send, ReturnsFalseIfNobodyReadsAndDoesNotEndTheProgram) {
    expect_in_child([] {
        signal(SIGPIPE, SIG_DFL);
        const PageAnswer answer;
        OutputPipe output;
        output.close_reader();
        EXPECT_FALSE(corvel_answer_send(answer.get()));
        sigset_t pending;
        sigset_t blocked;
        sigpending(&pending);
        sigprocmask(SIG_BLOCK, nullptr, &blocked);
        EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
        EXPECT_EQ(sigismember(&blocked, SIGPIPE), 0);
        struct sigaction action {};
        sigaction(SIGPIPE, nullptr, &action);
        EXPECT_EQ(action.sa_handler, SIG_DFL);
    });
}

TEST(corvel_answer_send, KeepsASignalThatWasPendingBefore) {
    expect_in_child([] {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGPIPE);
        sigprocmask(SIG_BLOCK, &set, nullptr);
        raise(SIGPIPE);
        const PageAnswer answer;
        OutputPipe output;
        output.close_reader();
        EXPECT_FALSE(corvel_answer_send(answer.get()));
        sigset_t pending;
        sigpending(&pending);
        EXPECT_EQ(sigismember(&pending, SIGPIPE), 1);
        sigset_t blocked;
        sigprocmask(SIG_BLOCK, nullptr, &blocked);
        EXPECT_EQ(sigismember(&blocked, SIGPIPE), 1);
    });
}

TEST(corvel_answer_send, RepeatsAWriteThatWasInterruptedOrWouldHaveBlocked) {
    for (const int error : {EINTR, EAGAIN}) {
        const PageAnswer answer;
        const FailCall interrupted(call_write, 1, error);
        EXPECT_EQ(answer.send().status(), "200 OK");
        EXPECT_EQ(interrupted.failures(), 1U);
    }
}

TEST(corvel_answer_send, ContinuesIfWaitingIsInterrupted) {
    const PageAnswer answer;
    int calls = 0;
    const Instead interrupted(instead_of_poll, [&](pollfd *, nfds_t, int) {
        errno = EINTR;
        return ++calls < 3 ? -1 : 1;
    });
    EXPECT_EQ(answer.send().status(), "200 OK");
    EXPECT_EQ(calls, 3);
}

TEST(corvel_answer_send, ReturnsFalseIfAWriteFails) {
    const std::string body = long_body(100'000);
    for (unsigned long n = 1; n <= 3; ++n) {
        const PageAnswer answer;
        corvel_answer_write(answer.get(), body.data(), body.size());
        const FailCall full(call_write, n, ENOSPC);
        const std::string sent =
            capture_stdout([&] { EXPECT_FALSE(corvel_answer_send(answer.get())); });
        EXPECT_EQ(full.failures(), 1U);
        EXPECT_EQ(sent.size(), (n - 1) * 4096);
    }
}

TEST(corvel_answer_send, ReturnsFalseIfTheReaderAcceptsNothingFor60Seconds) {
    const PageAnswer answer;
    int limit = 0;
    const Instead stalled(instead_of_poll, [&](pollfd *, nfds_t, int milliseconds) {
        limit = milliseconds;
        return 0;
    });
    EXPECT_EQ(capture_stdout([&] { EXPECT_FALSE(corvel_answer_send(answer.get())); }), "");
    EXPECT_EQ(limit, 60'000);
}

TEST(corvel_answer_send, WaitsForAPipeThatIsFull) {
    expect_in_child([] {
        const PageAnswer answer;
        const OutputPipe output;
        const std::string filling(static_cast<std::size_t>(fcntl(STDOUT_FILENO, F_GETPIPE_SZ)),
                                  'x');
        ASSERT_EQ(write(STDOUT_FILENO, filling.data(), filling.size()),
                  static_cast<ssize_t>(filling.size()));
        // The limit is shortened, not skipped: the kernel says that nothing can be written.
        static auto *const next = next_definition<int(pollfd *, nfds_t, int)>("poll");
        const Instead short_wait(instead_of_poll, [](pollfd *files, nfds_t count, int) {
            return next(files, count, 10);
        });
        EXPECT_FALSE(corvel_answer_send(answer.get()));
    });
}

TEST(corvel_answer_send, ReturnsFalseWithoutStandardOutput) {
    expect_in_child([] {
        const PageAnswer answer;
        close(STDOUT_FILENO);
        EXPECT_FALSE(corvel_answer_send(answer.get()));
    });
}

// --------------------------------------------------------------------------- without memory -----

const std::string long_value(300, 'x');
const std::string long_text(3000, '<');

/** A page that uses everything. */
void make_page(corvel_answer *answer, corvel_data *data) {
    corvel_answer_values(answer, data);
    corvel_answer_type(answer, "text/html");
    corvel_answer_cookie(answer, "session", long_value.c_str(), -1);
    corvel_answer_header(answer, "X-One", long_value.c_str());
    corvel_answer_html(answer, long_text.c_str());
    corvel_answer_template(answer, "page", data);
    corvel_answer_conditional(answer);
}

/** Nothing is logged or recorded during its lifetime, so that no message is a leaked block. */
class NoSyslog {
  public:
    NoSyslog() {
        stand_in_syslog = [](int, const char *) {
        };
    }
    ~NoSyslog() { stand_in_syslog = nullptr; }
    NoSyslog(const NoSyslog &) = delete;
    NoSyslog &operator=(const NoSyslog &) = delete;
};

TEST(corvel_answer_send, SendsACompleteAnswerWhateverAllocationFails) {
    const TemporaryDirectory directory;
    directory.write("page.html", "<p>{{a}}{{#rows}}{{b}}{{/rows}}");
    directory.write("error.html", "<!DOCTYPE html>{{status}} {{title}}{{reason}}");
    const std::string templates = directory.path();
    corvel_site site{};
    site.templates = templates.c_str();
    site.error_template = "error";
    const EnvironmentVariable method("REQUEST_METHOD", "GET");
    const NoSyslog no_log;
    const CountCalls opened(call_open);
    const CountCalls closed(call_close);
    std::string whole;
    const unsigned long failures = for_each_allocation_failure([&](AllocationTrial &trial) {
        bool sent = false;
        const auto page = [&] {
            corvel_request *const request = corvel_request_begin();
            corvel_answer *const answer = corvel_answer_new(request, &site);
            corvel_data *const data = corvel_data_new();
            corvel_data_set(data, "a", "value");
            corvel_data_set_integer(corvel_data_add(data, "rows"), "b", 5);
            make_page(answer, data);
            sent = corvel_answer_send(answer);
            corvel_data_free(data);
            corvel_answer_free(answer);
            corvel_request_free(request);
        };
        const SentAnswer answer(capture_stdout([&] { trial.run(page); }));
        EXPECT_EQ(answer.values("Content-Length"), Strings{std::to_string(answer.body.size())});
        EXPECT_EQ(answer.values("Cache-Control").size(), 1U);
        if (!trial.failed()) {
            EXPECT_EQ(answer.status(), "200 OK");
            EXPECT_NE(answer.body.find("<p>value5"), std::string::npos);
        } else if (answer.status() != "200 OK") {
            EXPECT_EQ(answer.status(),
                      sent ? "500 Internal Server Error" : "503 Service Unavailable");
        } else {
            // Only the request failed, which the answer does not need.
            EXPECT_EQ(trial.n(), 1U);
        }
    });
    EXPECT_GE(failures, 10U);
    EXPECT_LE(opened.count(), closed.count());
}

TEST(corvel_answer_error, IsCompleteWhateverAllocationFails) {
    const SiteWithErrors site("<title>{{title}}</title>" + std::string(3000, 'x') + "{{reason}}");
    const NoSyslog no_log;
    const unsigned long failures = for_each_allocation_failure([&](AllocationTrial &trial) {
        corvel_answer *const answer = corvel_answer_new(nullptr, site.get());
        trial.run([&] { corvel_answer_error(answer, 404, "Reason."); });
        const SentAnswer sent(capture_stdout([&] { EXPECT_TRUE(corvel_answer_send(answer)); }));
        EXPECT_EQ(sent.status(), "404 Not Found");
        EXPECT_EQ(sent.values("Content-Length"), Strings{std::to_string(sent.body.size())});
        EXPECT_TRUE(sent.body.ends_with("Reason.") || sent.body.ends_with("</html>\n"));
        EXPECT_TRUE(trial.failed() || sent.body.ends_with("xReason."));
        corvel_answer_free(answer);
    });
    EXPECT_GE(failures, 5U);
}

TEST(corvel_answer_error, HasNoBodyIfThereIsNoMemoryForOne) {
    corvel_answer *const answer = corvel_answer_new(nullptr, nullptr);
    {
        const FailCall exhausted(call_allocation, 1, ENOMEM, FailCall::from_then_on);
        corvel_answer_error(answer, 404, "Reason.");
    }
    const SentAnswer sent(capture_stdout([&] { EXPECT_TRUE(corvel_answer_send(answer)); }));
    EXPECT_EQ(sent.status(), "404 Not Found");
    EXPECT_EQ(sent.values("Content-Length"), Strings{"0"});
    corvel_answer_free(answer);
}

} // namespace
} // namespace corvel_test
