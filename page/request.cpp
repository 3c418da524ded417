// SPDX-License-Identifier: MIT
#include "page/request.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <strings.h>

#include "page/decimal.h"
#include "support/handles.h"
#include "support/text.h"

using namespace corvel;

struct corvel_request {
    int status = 0; ///< The result of corvel_request_read(); 0 before.
    const char *complaint = "";
    unsigned method = 0;
    unsigned type = 0;
    bool has_valid_path = true;
    bool has_valid_length = true;
    bool is_secure = false;
    HeapBlock<char> path;
    HeapBlock<char> client_address;
    Pairs cookies;
    Pairs path_parts;
    Pairs query;
    Pairs form;
    char *raw_body = nullptr; ///< The body of a request that is not a form, NUL-terminated.
    std::size_t raw_size = 0;
    /// A stream, whose position is no part of what the request is.
    mutable Body body{0, 0};

    ~corvel_request() { wipe_and_free(raw_body, raw_size); }
};

namespace corvel {
namespace {

constexpr std::size_t default_body_max = 65536;
constexpr std::size_t default_pairs_max = 1024;
constexpr unsigned default_seconds = 30;
/// Added to twice the largest body.
constexpr std::size_t default_memory = 131072;

struct RequestRelease {
    void operator()(corvel_request *request) const {
        request->~corvel_request();
        std::free(request);
    }
};

std::string_view variable(const char *name) { return text_of(std::getenv(name)); }

bool equal_ignoring_case(std::string_view one, std::string_view other) {
    return one.size() == other.size() && strncasecmp(one.data(), other.data(), one.size()) == 0;
}

std::string_view trimmed(std::string_view text) {
    skip_spaces(text);
    while (!text.empty() && is_space(text.back()))
        text.remove_suffix(1);
    return text;
}

bool is_control_character(char character) {
    return static_cast<unsigned char>(character) < ' ' || character == '\x7F';
}

// What begins a request.

unsigned method_named(std::string_view name) {
    if (name == "GET" || name == "HEAD")
        return CORVEL_GET;
    if (name == "POST")
        return CORVEL_POST;
    if (name == "PUT")
        return CORVEL_PUT;
    return name == "DELETE" ? CORVEL_DELETE : 0;
}

/// Cookies are separated by semicolons. One without `=` has no name and is skipped.
bool add_cookies(Pairs &cookies, std::string_view header) {
    while (!header.empty()) {
        const std::string_view cookie = front(header, header.find(';'));
        header = after(header, cookie.size() + 1);
        const std::string_view name = front(cookie, cookie.find('='));
        std::string_view value = trimmed(after(cookie, name.size() + 1));
        if (value.size() >= 2 && value.starts_with('"') && value.ends_with('"'))
            value = stripped(value, '"');
        if (name.size() < cookie.size() &&
            cookies.add(trimmed(name), value) != Pairs::Added::stored)
            return false;
    }
    return true;
}

/// The body that the web server announces. One of a chunked request ends with the input.
Body announced_body(bool &is_valid) {
    const std::string_view length = variable("CONTENT_LENGTH");
    std::uint64_t bytes = 0;
    is_valid = length.empty() || (parse_digits(length, bytes) && bytes != Body::unknown_length);
    const bool is_unknown =
        !is_valid || (length.empty() && !variable("HTTP_TRANSFER_ENCODING").empty());
    return {is_unknown ? Body::unknown_length : bytes, default_seconds};
}

bool begin(corvel_request &request) {
    const std::string_view path = variable("PATH_INFO");
    const std::string_view https = variable("HTTPS");
    request.method = method_named(variable("REQUEST_METHOD"));
    request.is_secure = !https.empty() && !equal_ignoring_case(https, "off");
    request.has_valid_path = std::none_of(path.begin(), path.end(), is_control_character);
    request.body = announced_body(request.has_valid_length);
    request.path = copy_of(request.has_valid_path ? path : "");
    request.client_address = copy_of(variable("REMOTE_ADDR"));
    return request.path && request.client_address &&
           add_cookies(request.cookies, variable("HTTP_COOKIE"));
}

// Where a request comes from.

/// Whether a host of a URL is an address. No name leads to it, so it cannot be made to lead to
/// another device.
bool is_address(std::string_view host) {
    char text[INET6_ADDRSTRLEN];
    unsigned char address[16];
    if (host.size() >= sizeof text + 2)
        return false;
    const bool is_bracketed = host.starts_with('[') && host.ends_with(']');
    if (is_bracketed)
        host = after(front(host, host.size() - 1), 1);
    store(text, host);
    return inet_pton(is_bracketed ? AF_INET6 : AF_INET, text, address) == 1;
}

/// The host of an authority, without the port.
std::string_view host_of(std::string_view authority) {
    std::string_view host = authority;
    while (!host.empty() && is_digit(host.back()))
        host.remove_suffix(1);
    return host.ends_with(':') ? front(host, host.size() - 1) : authority;
}

/// Whether the request was sent to this device by one of its names. A page of another site cannot
/// change the Host that a browser sends, but it can make its own name lead to this device.
bool is_own_host(const char *const *hosts) {
    const std::string_view host = host_of(variable("HTTP_HOST"));
    for (; *hosts != nullptr; ++hosts)
        if (!host.empty() && equal_ignoring_case(host, *hosts))
            return true;
    return is_address(host);
}

std::string_view without_suffix(std::string_view text, std::string_view suffix) {
    return text.ends_with(suffix) ? front(text, text.size() - suffix.size()) : text;
}

/// Whether a URL starts with a scheme and then names this request's host.
bool is_own_url(std::string_view url, std::string_view scheme, std::string_view default_port) {
    if (!url.starts_with(scheme))
        return false;
    url = after(url, scheme.size());
    const std::string_view authority = front(url, url.find_first_of("/?#"));
    const std::string_view host = without_suffix(variable("HTTP_HOST"), default_port);
    return !host.empty() && equal_ignoring_case(without_suffix(authority, default_port), host);
}

/// Behind a proxy that ends TLS, the request arrives without it, and the URL is one with https.
bool is_own_url(const corvel_request &request, std::string_view url) {
    return is_own_url(url, "https://", ":443") ||
           (!request.is_secure && is_own_url(url, "http://", ":80"));
}

/// A browser states where a request that changes something comes from. The page that sends it has
/// no influence on these header fields, except that it can suppress the Referer and make the Origin
/// "null". Who states nothing is no browser.
bool is_from_own_site(const corvel_request &request) {
    const char *const site = std::getenv("HTTP_SEC_FETCH_SITE");
    if (site != nullptr)
        return text_of(site) == "same-origin" || text_of(site) == "none";
    const char *const origin = std::getenv("HTTP_ORIGIN");
    const char *const referer = std::getenv("HTTP_REFERER");
    if (origin != nullptr || referer != nullptr)
        return is_own_url(request, text_of(origin != nullptr ? origin : referer));
    return true;
}

// What is accepted.

int refuse(corvel_request &request, int status, const char *complaint) {
    request.complaint = complaint;
    return status;
}

unsigned type_named(std::string_view type) {
    type = trimmed(front(type, type.find(';')));
    if (equal_ignoring_case(type, "application/x-www-form-urlencoded"))
        return CORVEL_FORM;
    if (equal_ignoring_case(type, "multipart/form-data"))
        return CORVEL_MULTIPART;
    return equal_ignoring_case(type, "application/json") ? CORVEL_JSON_TEXT : CORVEL_ANY_TYPE;
}

/// The type as which the body is read; 0 if the rules do not permit it.
unsigned accepted_type(unsigned types) {
    const unsigned type = type_named(variable("CONTENT_TYPE"));
    return (types & type) != 0 ? type : types & CORVEL_ANY_TYPE;
}

bool has_body(const corvel_request &request) { return request.body.left() != 0; }

int check(corvel_request &request, const corvel_request_rules &rules) {
    if ((request.method & rules.methods) == 0)
        return refuse(request, CORVEL_HTTP_METHOD_NOT_ALLOWED,
                      "This page does not support the request's method.");
    if (!request.has_valid_path)
        return refuse(request, CORVEL_HTTP_BAD_REQUEST,
                      "The address of this page contains a control character.");
    if (!request.has_valid_length)
        return refuse(request, CORVEL_HTTP_BAD_REQUEST, "The request's length is malformed.");
    if (rules.hosts != nullptr && !is_own_host(rules.hosts))
        return refuse(request, CORVEL_HTTP_FORBIDDEN,
                      "The address of this page contains a name that is not this device's.");
    if (request.method == CORVEL_GET)
        return CORVEL_HTTP_OK;
    if (!rules.accept_other_sites && !is_from_own_site(request))
        return refuse(request, CORVEL_HTTP_FORBIDDEN,
                      "The request was sent by a page of another site.");
    if (has_body(request) && (request.type = accepted_type(rules.types)) == 0)
        return refuse(request, CORVEL_HTTP_UNSUPPORTED_MEDIA_TYPE,
                      "This page does not accept data of this type.");
    return CORVEL_HTTP_OK;
}

// Reading.

int too_large(corvel_request &request) {
    return refuse(request, CORVEL_HTTP_CONTENT_TOO_LARGE, "The request is too large.");
}

int no_memory(corvel_request &request) {
    return refuse(request, CORVEL_HTTP_SERVICE_UNAVAILABLE, no_memory_complaint);
}

int status_of(corvel_request &request, Pairs::Added added) {
    switch (added) {
    case Pairs::Added::stored:
        return CORVEL_HTTP_OK;
    case Pairs::Added::contains_nul:
        return refuse(request, CORVEL_HTTP_BAD_REQUEST, "A field contains a NUL character.");
    case Pairs::Added::too_many:
        return refuse(request, CORVEL_HTTP_CONTENT_TOO_LARGE,
                      "The request contains too many fields.");
    case Pairs::Added::too_large:
        return too_large(request);
    default:
        return no_memory(request);
    }
}

/// Reads all of the body, which is not longer than the room, or is too large if its length is
/// unknown.
int receive(corvel_request &request, std::span<char> room, std::size_t &size) {
    std::size_t count = 0;
    do {
        count = request.body.read(room.data() + size, room.size() - size);
        size += count;
    } while (count != 0);
    switch (request.body.state()) {
    case Body::State::complete:
        return CORVEL_HTTP_OK;
    case Body::State::truncated:
        return refuse(request, CORVEL_HTTP_BAD_REQUEST, "The request is incomplete.");
    case Body::State::timed_out:
        return refuse(request, CORVEL_HTTP_REQUEST_TIMEOUT, "The request did not arrive in time.");
    default:
        return too_large(request);
    }
}

int read_body(corvel_request &request, const corvel_request_rules &rules) {
    const std::size_t memory = rules.memory_max - request.query.memory();
    request.form.limit(rules.pairs_max, memory);
    if (request.type == CORVEL_MULTIPART)
        return CORVEL_HTTP_OK;
    const std::uint64_t length = request.body.left();
    const bool is_unknown = length == Body::unknown_length;
    if (!is_unknown && length > rules.body_max)
        return too_large(request);
    // Room for a terminating NUL, or for a byte that is too many.
    const std::size_t room = (is_unknown ? rules.body_max : static_cast<std::size_t>(length)) + 1;
    if (room > memory)
        return too_large(request);
    WipedBlock block(room);
    if (!block)
        return no_memory(request);
    std::size_t size = 0;
    const int status = receive(request, block.bytes(), size);
    block.wipe_only(size);
    if (status != CORVEL_HTTP_OK)
        return status;
    if (request.type == CORVEL_FORM) {
        request.form.limit(rules.pairs_max, memory - room);
        return status_of(request, request.form.add_encoded({block.get(), size}));
    }
    block.get()[size] = '\0';
    request.raw_body = block.release();
    request.raw_size = size;
    return CORVEL_HTTP_OK;
}

int read_query(corvel_request &request, const corvel_request_rules &rules) {
    request.query.limit(rules.pairs_max, rules.memory_max);
    return status_of(request, request.query.add_encoded(variable("QUERY_STRING")));
}

template <typename Value> void set_default(Value &value, Value standard) {
    if (value == 0)
        value = standard;
}

corvel_request_rules with_defaults(const corvel_request_rules *given) {
    corvel_request_rules rules{};
    if (given != nullptr)
        rules = *given;
    set_default(rules.methods, unsigned{CORVEL_GET});
    set_default(rules.types, unsigned{CORVEL_FORM});
    set_default(rules.body_max, default_body_max);
    set_default(rules.pairs_max, default_pairs_max);
    set_default(rules.body_seconds, default_seconds);
    rules.body_max = at_most(rules.body_max, SIZE_MAX / 4);
    set_default(rules.memory_max, 2 * rules.body_max + default_memory);
    return rules;
}

int read(corvel_request &request, const corvel_request_rules &rules) {
    request.body.set_patience(rules.body_seconds);
    int status = check(request, rules);
    if (status == CORVEL_HTTP_OK)
        status = read_query(request, rules);
    if (status == CORVEL_HTTP_OK && request.method != CORVEL_GET && has_body(request))
        status = read_body(request, rules);
    if (status != CORVEL_HTTP_OK || request.method == CORVEL_GET)
        request.body.discard();
    return status;
}

bool is_accepted(const corvel_request *request) {
    return request != nullptr && request->status == CORVEL_HTTP_OK;
}

} // namespace

const char *environment(const corvel_request *request, const char *name) {
    return request != nullptr ? std::getenv(name) : nullptr;
}

const char *content_type(const corvel_request *request) {
    return text_or_empty(environment(request, "CONTENT_TYPE"));
}

Body *body_of(corvel_request *request) {
    const bool is_left = is_accepted(request) && request->type == CORVEL_MULTIPART &&
                         request->body.state() == Body::State::open;
    return is_left ? &request->body : nullptr;
}

void discard_body(const corvel_request *request) {
    if (request != nullptr)
        request->body.discard();
}

int add_field(corvel_request *request, std::string_view name, std::string_view value) {
    if (!is_accepted(request))
        return CORVEL_HTTP_INTERNAL_SERVER_ERROR;
    return status_of(*request, request->form.add(name, value));
}

const Pairs *fields_of(const corvel_request *request) {
    if (!is_accepted(request))
        return nullptr;
    return request->method == CORVEL_GET ? &request->query : &request->form;
}

const Pairs *query_of(const corvel_request *request) {
    return is_accepted(request) ? &request->query : nullptr;
}

const Pairs *path_parts_of(const corvel_request *request) {
    return request != nullptr ? &request->path_parts : nullptr;
}

bool add_path_part(corvel_request *request, std::string_view component) {
    return request != nullptr && request->path_parts.add(component, "") == Pairs::Added::stored;
}

} // namespace corvel

extern "C" {

corvel_request *corvel_request_begin(void) {
    void *const memory = std::malloc(sizeof(corvel_request));
    if (memory == nullptr)
        return nullptr;
    std::unique_ptr<corvel_request, RequestRelease> request(new (memory) corvel_request);
    return begin(*request) ? request.release() : nullptr;
}

int corvel_request_read(corvel_request *request, const corvel_request_rules *rules) {
    if (request == nullptr) {
        bool is_valid = false;
        announced_body(is_valid).discard();
        return CORVEL_HTTP_SERVICE_UNAVAILABLE;
    }
    if (request->status == 0)
        request->status = read(*request, with_defaults(rules));
    return request->status;
}

const char *corvel_request_complaint(const corvel_request *request) {
    return request != nullptr ? request->complaint : no_memory_complaint;
}

void corvel_request_free(corvel_request *request) {
    if (request != nullptr)
        RequestRelease()(request);
}

unsigned corvel_method(const corvel_request *request) {
    return request != nullptr ? request->method : 0;
}

const char *corvel_path(const corvel_request *request) {
    return request != nullptr ? request->path.get() : "";
}

const char *corvel_cookie(const corvel_request *request, const char *name, size_t index) {
    return request != nullptr && name != nullptr ? request->cookies.find(name, index) : nullptr;
}

const char *corvel_client_address(const corvel_request *request) {
    return request != nullptr ? request->client_address.get() : "";
}

bool corvel_is_secure(const corvel_request *request) {
    return request != nullptr && request->is_secure;
}

const char *corvel_request_body(const corvel_request *request, size_t *size) {
    const bool has_raw = is_accepted(request) && request->raw_body != nullptr;
    if (size != nullptr)
        *size = has_raw ? request->raw_size : 0;
    return has_raw ? request->raw_body : "";
}

} // extern "C"
