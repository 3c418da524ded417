// SPDX-License-Identifier: MIT
// Requests of the page kit against a model on std::string: the status, the pairs, the cookies and
// the bytes that are left of standard input.
//
// Input: a byte of flags (the content types of the rules in the lower 4 bits, then whether there is
// a list of hosts, TLS, a transfer encoding, and whether other sites are accepted) and the strings
// method NUL length NUL type NUL path NUL cookies NUL host NUL origin NUL referer NUL site NUL
// query NUL body. A string "-" is a variable that is not set; a length "=" is that of the body.
#include "corvel_page.h"
#include "fuzz/harness.h"

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <tuple>
#include <unistd.h>
#include <utility>

namespace {

using namespace corvel_fuzz;

constexpr std::size_t body_max = 3000;
constexpr std::size_t pairs_max = 12;
/** Less than the default limit of memory permits. */
constexpr std::size_t query_max = 100000;
constexpr std::size_t lookups_max = 40;

using Text = std::optional<std::string>;
using Pairs = std::vector<std::pair<std::string, std::string>>;

struct Request {
    unsigned flags = 0;
    Text method, length, type, path, cookies, host, origin, referer, site, query;
    std::string body;

    bool has_hosts() const { return (flags & 0x10U) != 0; }
    bool has_tls() const { return (flags & 0x20U) != 0; }
    bool is_chunked() const { return (flags & 0x40U) != 0; }
    bool accepts_others() const { return (flags & 0x80U) != 0; }
    unsigned types() const { return (flags & 0xFU) != 0 ? flags & 0xFU : unsigned{CORVEL_FORM}; }
};

std::string or_empty(const Text &text) { return text.value_or(""); }

unsigned method_of(const Request &request) {
    const std::string method = or_empty(request.method);
    if (method == "GET" || method == "HEAD")
        return CORVEL_GET;
    if (method == "POST")
        return CORVEL_POST;
    if (method == "PUT")
        return CORVEL_PUT;
    return method == "DELETE" ? unsigned{CORVEL_DELETE} : 0;
}

// The body

/** The announced length: of a malformed one nothing, of none in particular the whole input. */
std::optional<unsigned long long> length_of(const Request &request) {
    std::string digits = or_empty(request.length);
    if (digits.empty())
        return request.is_chunked() ? request.body.size() : 0;
    if (digits.find_first_not_of("0123456789") != std::string::npos)
        return std::nullopt;
    digits.erase(0, std::min(digits.find_first_not_of('0'), digits.size() - 1));
    if (digits.size() > 19)
        return std::nullopt;
    return std::strtoull(digits.c_str(), nullptr, 10);
}

/** The bytes that are consumed: all up to the announced length. */
std::size_t consumed(const Request &request) {
    const auto length = length_of(request);
    return length ? static_cast<std::size_t>(
                        std::min<unsigned long long>(*length, request.body.size()))
                  : request.body.size();
}

/** Whether the web server announces a body, however short it is. */
bool announces_body(const Request &request) {
    const bool is_open = or_empty(request.length).empty() && request.is_chunked();
    return is_open || length_of(request).value_or(1) != 0;
}

unsigned type_of(const Request &request) {
    const std::string all = or_empty(request.type);
    const std::size_t start = std::min(all.find_first_not_of(" \t"), all.size());
    const std::size_t end = std::min(all.find_first_of("; \t", start), all.size());
    const std::string type = lower_case(all.substr(start, end - start));
    const unsigned named = type == "application/x-www-form-urlencoded" ? CORVEL_FORM
                           : type == "multipart/form-data"             ? CORVEL_MULTIPART
                           : type == "application/json"                ? CORVEL_JSON_TEXT
                                                                       : CORVEL_ANY_TYPE;
    return (request.types() & named) != 0 ? named : request.types() & CORVEL_ANY_TYPE;
}

// The source

struct Authority {
    std::string host;
    std::string port;
    bool operator==(const Authority &) const = default;
};

Authority authority_of(const std::string &text, const std::string &default_port) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos)
        return {lower_case(text), default_port};
    const std::string port = text.substr(colon + 1);
    if (port == default_port)
        return {lower_case(text.substr(0, colon)), port};
    return {lower_case(text), default_port}; // another port is a part of the host
}

bool is_own(const std::string &url, const Request &request) {
    for (const auto &[scheme, port] : {std::pair("https://", "443"), std::pair("http://", "80")}) {
        if (!url.starts_with(scheme) || (request.has_tls() && *port == '8'))
            continue;
        std::string authority = url.substr(std::string(scheme).size());
        authority.resize(std::min(authority.find_first_of("/?#"), authority.size()));
        const Authority own = authority_of(or_empty(request.host), port);
        return !own.host.empty() && authority_of(authority, port) == own;
    }
    return false;
}

bool is_from_own_site(const Request &request) {
    if (request.site)
        return *request.site == "same-origin" || *request.site == "none";
    if (request.origin)
        return is_own(*request.origin, request);
    return !request.referer || is_own(*request.referer, request);
}

/** The only names of the list, and no addresses but these. */
bool has_listed_host(const Request &request) {
    std::string host = lower_case(or_empty(request.host));
    const std::size_t colon = host.rfind(':');
    if (colon != std::string::npos &&
        host.find_first_not_of("0123456789", colon + 1) == std::string::npos)
        host.resize(colon);
    if (host == "router" || host == "router.lan")
        return true;
    unsigned char address[16];
    if (host.starts_with('[') && host.ends_with(']') && host.size() > 1)
        return corvel_check_ipv6(host.substr(1, host.size() - 2).c_str(), address) == nullptr;
    return corvel_check_ipv4(host.c_str(), nullptr) == nullptr;
}

// Pairs

std::string decoded(const std::string &text) {
    constexpr const char *digits = "0123456789abcdefABCDEF";
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const std::string pair = text.substr(i + 1, 2);
        if (text[i] == '%' && pair.size() == 2 &&
            pair.find_first_not_of(digits) == std::string::npos) {
            result += static_cast<char>(std::strtoul(pair.c_str(), nullptr, 16));
            i += 2;
        } else {
            result += text[i] == '+' ? ' ' : text[i];
        }
    }
    return result;
}

/** The pairs, and the status that they lead to. */
std::pair<Pairs, int> pairs_of(const std::string &text) {
    Pairs pairs;
    std::size_t start = 0;
    for (; start < text.size(); ++start) {
        const std::size_t end = std::min(text.find('&', start), text.size());
        const std::string pair = text.substr(start, end - start);
        start = end;
        if (pair.empty())
            continue;
        if (pairs.size() == pairs_max)
            return {pairs, CORVEL_HTTP_CONTENT_TOO_LARGE};
        const std::size_t equals = std::min(pair.find('='), pair.size());
        pairs.emplace_back(decoded(pair.substr(0, equals)),
                           decoded(pair.substr(std::min(equals + 1, pair.size()))));
        if (pairs.back().first.find('\0') != std::string::npos ||
            pairs.back().second.find('\0') != std::string::npos)
            return {pairs, CORVEL_HTTP_BAD_REQUEST};
    }
    return {pairs, CORVEL_HTTP_OK};
}

Pairs cookies_of(const std::string &header) {
    constexpr const char *spaces = " \t\n\v\f\r";
    const auto trimmed = [&](std::string text) {
        text.erase(0, std::min(text.find_first_not_of(spaces), text.size()));
        text.resize(text.find_last_not_of(spaces) + 1);
        return text;
    };
    Pairs cookies;
    for (std::size_t start = 0; start < header.size(); ++start) {
        const std::size_t end = std::min(header.find(';', start), header.size());
        const std::string cookie = header.substr(start, end - start);
        start = end;
        const std::size_t equals = cookie.find('=');
        if (equals == std::string::npos)
            continue;
        std::string value = trimmed(cookie.substr(equals + 1));
        if (value.size() > 1 && value.front() == '"' && value.back() == '"')
            value = value.substr(1, value.size() - 2);
        cookies.emplace_back(trimmed(cookie.substr(0, equals)), value);
    }
    return cookies;
}

// The whole

struct Outcome {
    int status = CORVEL_HTTP_OK;
    Pairs query;
    Pairs form;
    std::string raw;
};

int checked(const Request &request) {
    if ((method_of(request) & (CORVEL_GET | CORVEL_POST | CORVEL_PUT)) == 0)
        return CORVEL_HTTP_METHOD_NOT_ALLOWED;
    for (const char character : or_empty(request.path))
        if ((character >= 0 && character < ' ') || character == 0x7F)
            return CORVEL_HTTP_BAD_REQUEST;
    if (!length_of(request))
        return CORVEL_HTTP_BAD_REQUEST;
    if (request.has_hosts() && !has_listed_host(request))
        return CORVEL_HTTP_FORBIDDEN;
    if (method_of(request) == CORVEL_GET)
        return CORVEL_HTTP_OK;
    if (!request.accepts_others() && !is_from_own_site(request))
        return CORVEL_HTTP_FORBIDDEN;
    return announces_body(request) && type_of(request) == 0 ? CORVEL_HTTP_UNSUPPORTED_MEDIA_TYPE
                                                            : CORVEL_HTTP_OK;
}

Outcome model(const Request &request) {
    Outcome outcome;
    outcome.status = checked(request);
    if (outcome.status != CORVEL_HTTP_OK)
        return outcome;
    std::tie(outcome.query, outcome.status) = pairs_of(or_empty(request.query));
    const unsigned type = type_of(request);
    if (outcome.status != CORVEL_HTTP_OK || method_of(request) == CORVEL_GET ||
        !announces_body(request) || type == CORVEL_MULTIPART)
        return outcome;
    const bool has_length = !or_empty(request.length).empty();
    if ((has_length ? *length_of(request) : request.body.size()) > body_max)
        outcome.status = CORVEL_HTTP_CONTENT_TOO_LARGE;
    else if (has_length && *length_of(request) > request.body.size())
        outcome.status = CORVEL_HTTP_BAD_REQUEST;
    else if (type == CORVEL_FORM)
        std::tie(outcome.form, outcome.status) =
            pairs_of(request.body.substr(0, consumed(request)));
    else
        outcome.raw = request.body.substr(0, consumed(request));
    return outcome;
}

using Find = const char *(*)(const corvel_request *, const char *, std::size_t);

void check_lookups(const Pairs &pairs, const corvel_request *request, Find find) {
    for (std::size_t i = 0; i < std::min(pairs.size(), lookups_max); ++i) {
        const std::string &name = pairs[i].first;
        std::size_t index = 0;
        for (const auto &[other, value] : pairs) {
            if (other != name)
                continue;
            const char *const found = find(request, name.c_str(), index++);
            check(found != nullptr, "a value is found");
            check_equal(found, value, "a value");
        }
        check(find(request, name.c_str(), index) == nullptr, "no further value of a name");
    }
}

void check_fields(const Pairs &pairs, const corvel_request *request) {
    check_equal(static_cast<long long>(corvel_field_count(request)),
                static_cast<long long>(pairs.size()), "the number of pairs");
    for (std::size_t i = 0; i < pairs.size(); ++i) {
        const char *name = nullptr;
        const char *value = nullptr;
        check(corvel_field_pair(request, i, &name, &value), "a pair");
        check_equal(name, pairs[i].first, "a name");
        check_equal(value, pairs[i].second, "a value");
    }
    check(!corvel_field_pair(request, pairs.size(), nullptr, nullptr), "no further pair");
    check_lookups(pairs, request, corvel_field_at);
}

/** The bytes that are left of standard input, a file. */
std::size_t input_left(const Request &request) {
    const auto position = lseek(STDIN_FILENO, 0, SEEK_CUR);
    return request.body.size() - static_cast<std::size_t>(position);
}

void check_request(const Request &request) {
    const char *const hosts[] = {"router", "router.lan", nullptr};
    corvel_request_rules rules{};
    rules.methods = CORVEL_GET | CORVEL_POST | CORVEL_PUT;
    rules.types = request.types();
    rules.body_max = body_max;
    rules.pairs_max = pairs_max;
    rules.accept_other_sites = request.accepts_others();
    rules.hosts = request.has_hosts() ? hosts : nullptr;
    const Outcome expected = model(request);

    feed_standard_input(request.body);
    corvel_request *const handle = corvel_request_begin();
    check(handle != nullptr, "a request begins");
    check_equal(corvel_method(handle), method_of(request), "the method");
    check_lookups(cookies_of(or_empty(request.cookies)), handle, corvel_cookie);
    check_equal(corvel_request_read(handle, &rules), expected.status, "the status");
    check((*corvel_request_complaint(handle) == '\0') == (expected.status == CORVEL_HTTP_OK),
          "a complaint if the request is refused");
    const bool is_ok = expected.status == CORVEL_HTTP_OK;
    const bool is_get = method_of(request) == CORVEL_GET;
    const Pairs none;
    check_fields(is_ok ? (is_get ? expected.query : expected.form) : none, handle);
    if (is_ok)
        for (const auto &[name, value] : expected.query)
            check(corvel_query(handle, name.c_str()) != nullptr, "a name of the query");
    std::size_t size = 0;
    const char *const raw = corvel_request_body(handle, &size);
    check_equal(std::string_view(raw, size), expected.raw, "the body");
    check(raw[size] == '\0', "a NUL after the body");
    const bool is_upload = is_ok && !is_get && type_of(request) == CORVEL_MULTIPART;
    check_equal(static_cast<long long>(input_left(request)),
                static_cast<long long>(request.body.size() - (is_upload ? 0 : consumed(request))),
                "what is left of the input");
    corvel_request_free(handle);
}

// Routes

std::vector<std::string> components(const std::string &path) {
    std::vector<std::string> result(1);
    for (const char character : path) {
        if (character == '/')
            result.emplace_back();
        else
            result.back() += character;
    }
    return result;
}

bool matches(const std::string &route, const std::string &path) {
    const std::vector<std::string> expected = components(route);
    const std::vector<std::string> actual = components(path);
    if (expected.size() != actual.size() || expected[0] != actual[0])
        return false;
    for (std::size_t i = 1; i < expected.size(); ++i) {
        const bool is_name = !actual[i].empty() && actual[i] != "." && actual[i] != "..";
        if (expected[i] == "{}" ? !is_name : expected[i] != actual[i])
            return false;
    }
    return true;
}

std::string parts_of(const std::string &route, const std::string &path) {
    const std::vector<std::string> expected = components(route);
    const std::vector<std::string> actual = components(path);
    std::string parts;
    for (std::size_t i = 1; i < expected.size(); ++i)
        if (expected[i] == "{}")
            parts += actual[i] + "/";
    return parts;
}

void note_parts(corvel_request *request, corvel_answer * /*answer*/, void *context) {
    auto &parts = *static_cast<std::string *>(context);
    parts = "called:";
    for (std::size_t i = 0; corvel_path_part(request, i) != nullptr; ++i)
        parts += std::string(corvel_path_part(request, i)) + "/";
}

/** The bytes of a path after its slash, and the request's path, which may be one of a kind. */
void check_route(const Request &request) {
    const std::string path = or_empty(request.path).empty() ? "/" : or_empty(request.path);
    const std::string own = "/" + or_empty(request.cookies);
    const std::string paths[] = {own, "/{}", "/clients/{}/x", "/{}/{}", path};
    for (const std::string &route_path : paths) {
        corvel_request_rules rules{};
        const corvel_route route = {route_path.c_str(), rules, note_parts};
        feed_standard_input("");
        corvel_request *const handle = corvel_request_begin();
        std::string called;
        corvel_dispatch(handle, nullptr, &route, 1, &called);
        const bool is_read = corvel_request_read(handle, &rules) == CORVEL_HTTP_OK;
        const bool is_match = matches(route_path, path) && is_read;
        check_equal(called, is_match ? "called:" + parts_of(route_path, path) : "", "the route");
        corvel_request_free(handle);
    }
}

Text variable(Input &input) {
    std::string text = input.text();
    return text == "-" ? Text() : Text(std::move(text));
}

Request request_of(Input &input) {
    Request request;
    request.flags = input.byte();
    for (Text *const each :
         {&request.method, &request.length, &request.type, &request.path, &request.cookies,
          &request.host, &request.origin, &request.referer, &request.site, &request.query})
        *each = variable(input);
    request.body = input.rest();
    if (request.query && request.query->size() > query_max)
        request.query->resize(query_max);
    if (request.length == "=")
        request.length = std::to_string(request.body.size());
    return request;
}

std::vector<std::string> environment_of(const Request &request) {
    const std::pair<const char *, const Text &> variables[] = {
        {"REQUEST_METHOD", request.method},    {"CONTENT_LENGTH", request.length},
        {"CONTENT_TYPE", request.type},        {"PATH_INFO", request.path},
        {"HTTP_COOKIE", request.cookies},      {"HTTP_HOST", request.host},
        {"HTTP_ORIGIN", request.origin},       {"HTTP_REFERER", request.referer},
        {"HTTP_SEC_FETCH_SITE", request.site}, {"QUERY_STRING", request.query}};
    std::vector<std::string> entries;
    for (const auto &[name, value] : variables)
        if (value)
            entries.push_back(std::string(name) + "=" + *value);
    if (request.has_tls())
        entries.emplace_back("HTTPS=on");
    if (request.is_chunked())
        entries.emplace_back("HTTP_TRANSFER_ENCODING=chunked");
    return entries;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    Input input(data, size);
    Request request = request_of(input);
    {
        const Environment environment(environment_of(request));
        in_different_surroundings([&] {
            check_request(request);
            return std::string();
        });
    }
    request.length = std::nullopt;
    request.flags &= ~0x40U;
    request.method = "GET";
    request.query = std::nullopt;
    const Environment environment(environment_of(request));
    check_route(request);
    return 0;
}
