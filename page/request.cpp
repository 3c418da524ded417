// SPDX-License-Identifier: MIT
#include "page/request.h"

#include <algorithm>
#include <arpa/inet.h>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>
#include <span>
#include <string_view>
#include <strings.h>

#include "page/contained_process.h"
#include "page/string_list.h"
#include "page/syntax.h"
#include "support/handles.h"
#include "support/text.h"

using namespace corvel;

namespace corvel {
namespace {

/// Why a request is refused. The first ones have the values of Pairs::Added.
enum class Refusal : unsigned char {
    none,
    too_many_pairs,
    too_large,
    no_memory,
    contains_nul,
    method,
    path,
    length,
    host,
    site,
    type,
    incomplete,
    timeout,
    containment
};

/// The status and the complaint of each.
constexpr char refusals[] = "200\0"
                            "413The request contains too many fields.\0"
                            "413The request is too large.\0"
                            "503The device has not enough free memory. Try again later.\0"
                            "400A field contains a NUL character.\0"
                            "405This page does not support the request's method.\0"
                            "400The address of this page contains a control character.\0"
                            "400The request's length is malformed.\0"
                            "403The address of this page contains a name that is not this "
                            "device's.\0"
                            "403The request was sent by a page of another site.\0"
                            "415This page does not accept data of this type.\0"
                            "400The request is incomplete.\0"
                            "408The request did not arrive in time.\0"
                            "500The request could not be processed.";

const char *text_of(Refusal refusal) { return string_in_list(refusals, static_cast<int>(refusal)); }

int status_of(Refusal refusal) {
    return static_cast<int>(std::strtol(text_of(refusal), nullptr, 10));
}

Refusal refusal_of(Pairs::Added added) { return static_cast<Refusal>(added); }

} // namespace
} // namespace corvel

struct corvel_request {
    int status = 0; ///< The result of corvel_request_read(); 0 before.
    Refusal refusal = Refusal::none;
    bool has_valid_length = false;
    bool is_contained = false;
    corvel_containment containment{};
    unsigned method = 0;
    unsigned type = 0;
    Pairs cookies;
    Pairs path_parts;
    Pairs query;
    Pairs form;
    char *raw_body = nullptr; ///< The body of a request that is not a form, NUL-terminated.
    std::size_t raw_size = 0;
    /// A stream, whose position is no part of what the request is.
    mutable Body body;

    ~corvel_request() { wipe_and_free(raw_body, raw_size); }
};

namespace corvel {
namespace {

constexpr std::size_t default_body_max = 65536;
constexpr std::size_t default_pairs_max = 1024;
constexpr unsigned default_seconds = 30;
/// Added to twice the largest body.
constexpr std::size_t default_memory = 131072;

const char *variable(const char *name) { return text_or_empty(std::getenv(name)); }

// What begins a request.

unsigned method_named(const char *name) {
    for (const NamedMethod &each : named_methods)
        if (std::strcmp(name, each.name) == 0)
            return each.method;
    return 0;
}

/// Cookies are separated by semicolons. One without `=` has no name and is skipped.
bool add_cookies(Pairs &cookies, std::string_view header) {
    while (!header.empty()) {
        const std::string_view cookie = front(header, header.find(';'));
        header = after(header, cookie.size() + 1);
        const std::string_view name = front(cookie, cookie.find('='));
        if (name.size() == cookie.size())
            continue;
        std::string_view value = trimmed(after(cookie, name.size() + 1));
        if (value.size() > 1 && value.front() == '"' && value.back() == '"')
            value = stripped(value, '"');
        if (cookies.add(trimmed(name), value) != Pairs::Added::stored)
            return false;
    }
    return true;
}

/// Whether the web server passes a chunked body as it was sent, with the lengths of the chunks, and
/// only as much of it as arrived together with the header.
bool keeps_chunks() { return std::strncmp(variable("SERVER_SOFTWARE"), "busybox", 7) == 0; }

/// Announces the body as the web server does. One of a chunked request ends with the input. False
/// if the length is malformed or missing; then the body is what the input contains.
bool announce(Body &body) {
    const char *const length = variable("CONTENT_LENGTH");
    const bool has_digits_only = length[std::strspn(length, "0123456789")] == '\0';
    const long long given = has_digits_only ? std::strtoll(length, nullptr, 10) : LLONG_MAX;
    const bool is_chunked = *length == '\0' && *variable("HTTP_TRANSFER_ENCODING") != '\0';
    const bool is_valid = given != LLONG_MAX // also the result of an overflow
                          && !(is_chunked && keeps_chunks());
    auto bytes = static_cast<std::uint64_t>(given);
    if (!is_valid || is_chunked)
        bytes = Body::unknown_length;
    body = Body(bytes, default_seconds);
    return is_valid;
}

// Where a request comes from.

/// Whether the host of a URL is an address. No name leads to it, so it cannot be made to lead to
/// another device.
bool is_address(const char *host, std::size_t length) {
    char text[INET6_ADDRSTRLEN];
    unsigned char address[16];
    const bool is_bracketed = length > 1 && host[0] == '[' && host[length - 1] == ']';
    if (is_bracketed) {
        ++host;
        length -= 2;
    }
    if (length >= sizeof text)
        return false;
    std::memcpy(text, host, length);
    text[length] = '\0';
    return inet_pton(is_bracketed ? AF_INET6 : AF_INET, text, address) == 1;
}

/// The length of an authority without the port.
std::size_t host_length(const char *authority) {
    const std::size_t length = std::strlen(authority);
    std::size_t end = length;
    while (end != 0 && is_digit(authority[end - 1]))
        --end;
    return end != 0 && authority[end - 1] == ':' ? end - 1 : length;
}

/// Whether the request was sent to this device by one of its names. A page of another site cannot
/// change the Host that a browser sends, but it can make its own name lead to this device.
bool is_own_host(const char *const *hosts) {
    const char *const host = variable("HTTP_HOST");
    const std::size_t length = host_length(host);
    for (; length != 0 && *hosts != nullptr; ++hosts)
        if (equals_ignoring_case({host, length}, *hosts))
            return true;
    return is_address(host, length);
}

/// The length of an authority without a port of this name, which includes the colon.
std::size_t length_without(const char *authority, std::size_t length, const char *port) {
    const std::size_t size = std::strlen(port);
    const bool has_port = length >= size && std::memcmp(authority + length - size, port, size) == 0;
    return has_port ? length - size : length;
}

/// Whether a URL starts with a scheme and then names this request's host.
bool is_own_url(const char *url, const char *scheme, const char *default_port) {
    const std::size_t start = std::strlen(scheme);
    if (std::strncmp(url, scheme, start) != 0)
        return false;
    const char *const authority = url + start;
    const char *const host = variable("HTTP_HOST");
    const std::size_t length = length_without(host, std::strlen(host), default_port);
    return length != 0 &&
           length == length_without(authority, std::strcspn(authority, "/?#"), default_port) &&
           strncasecmp(authority, host, length) == 0;
}

/// A browser states where a request that changes something comes from. The page that sends it has
/// no influence on these header fields, except that it can suppress the Referer and make the Origin
/// "null". Who states nothing is no browser.
bool is_from_own_site(const corvel_request &request) {
    if (const char *const site = std::getenv("HTTP_SEC_FETCH_SITE"))
        return std::strcmp(site, "same-origin") == 0 || std::strcmp(site, "none") == 0;
    const char *source = std::getenv("HTTP_ORIGIN");
    if (source == nullptr)
        source = std::getenv("HTTP_REFERER");
    // Behind a proxy that ends TLS, the request arrives without it, and the URL is one with https.
    return source == nullptr || is_own_url(source, "https://", ":443") ||
           (!corvel_is_secure(&request) && is_own_url(source, "http://", ":80"));
}

// What is accepted.

/// The types in the order of their bits, the lowest first.
constexpr char type_names[] =
    "application/x-www-form-urlencoded\0multipart/form-data\0application/json\0";

unsigned type_named(const char *name) {
    name += std::strspn(name, " \t");
    const std::size_t length = std::strcspn(name, "; \t");
    const int index = index_ignoring_case(type_names, {name, length});
    return index < 0 ? unsigned{CORVEL_ANY_TYPE} : 1U << static_cast<unsigned>(index);
}

/// The type as which the body is read; 0 if the rules do not permit it.
unsigned accepted_type(unsigned types) {
    const unsigned type = type_named(variable("CONTENT_TYPE"));
    return (types & type) != 0 ? type : types & CORVEL_ANY_TYPE;
}

bool has_body(const corvel_request &request) { return request.body.left() != 0; }

Refusal check(corvel_request &request, const corvel_request_rules &rules) {
    if ((request.method & rules.methods) == 0)
        return Refusal::method;
    if (has_control_character(variable("PATH_INFO")))
        return Refusal::path;
    if (!request.has_valid_length)
        return Refusal::length;
    if (rules.hosts != nullptr && !is_own_host(rules.hosts))
        return Refusal::host;
    if (request.method == CORVEL_GET)
        return Refusal::none;
    if (!rules.accept_other_sites && !is_from_own_site(request))
        return Refusal::site;
    request.type = accepted_type(rules.types);
    return has_body(request) && request.type == 0 ? Refusal::type : Refusal::none;
}

// Reading.

/// Reads all of the body, which is not longer than the room, or is too large if its length is
/// unknown. Returns the number of bytes.
std::size_t receive(Body &body, std::span<char> room) {
    std::size_t size = 0;
    std::size_t count = 0;
    do {
        count = body.read(room.data() + size, room.size() - size);
        size += count;
    } while (count != 0);
    return size;
}

Refusal refusal_of(Body::State state) {
    if (state == Body::State::complete)
        return Refusal::none;
    if (state == Body::State::truncated)
        return Refusal::incomplete;
    return state == Body::State::timed_out ? Refusal::timeout : Refusal::too_large;
}

Refusal read_body(corvel_request &request, const corvel_request_rules &rules) {
    const std::size_t memory = rules.memory_max - request.query.memory();
    request.form.limit(rules.pairs_max, memory);
    if (request.type == CORVEL_MULTIPART)
        return Refusal::none;
    const std::uint64_t length = request.body.left();
    const bool is_unknown = length == Body::unknown_length;
    // Room for a terminating NUL, or for a byte that is too many.
    const std::size_t room = (is_unknown ? rules.body_max : static_cast<std::size_t>(length)) + 1;
    if ((!is_unknown && length > rules.body_max) || room > memory)
        return Refusal::too_large;
    WipedBlock block(room);
    if (!block)
        return Refusal::no_memory;
    const std::size_t size = receive(request.body, block.bytes());
    block.wipe_only(size);
    const Refusal refusal = refusal_of(request.body.state());
    if (refusal != Refusal::none)
        return refusal;
    if (request.type == CORVEL_FORM) {
        request.form.limit(rules.pairs_max, memory - room);
        return refusal_of(request.form.add_encoded({block.get(), size}));
    }
    block.get()[size] = '\0';
    request.raw_body = block.release();
    request.raw_size = size;
    return Refusal::none;
}

Refusal read_all(corvel_request &request, const corvel_request_rules &rules) {
    Refusal refusal = check(request, rules);
    if (refusal != Refusal::none)
        return refusal;
    request.query.limit(rules.pairs_max, rules.memory_max);
    refusal = refusal_of(request.query.add_encoded(variable("QUERY_STRING")));
    if (refusal != Refusal::none || request.method == CORVEL_GET || !has_body(request))
        return refusal;
    return read_body(request, rules);
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

// Reading in a process without privileges.

corvel_containment with_defaults(const corvel_containment *given) {
    corvel_containment containment{};
    if (given != nullptr)
        containment = *given;
    set_default(containment.user, unsigned{65534});
    set_default(containment.group, unsigned{65534});
    set_default(containment.seconds, 10U);
    set_default(containment.memory_max, std::size_t{64} << 20U);
    return containment;
}

void send(RecordWriter &writer, RecordKind kind, const Pairs &pairs) {
    for (std::size_t i = 0; i < pairs.count(); ++i)
        writer.send(kind, pairs.name(i), pairs.value(i));
}

bool store_body(corvel_request &request, ContainedProcess &process) {
    wipe_and_free(request.raw_body, request.raw_size);
    request.raw_size = process.bytes().size();
    request.raw_body = process.release();
    return true;
}

bool store_pair(Pairs &pairs, const ContainedProcess &process) {
    const char *const name = process.text(0);
    const char *const value = process.text(1);
    return name != nullptr && value != nullptr && pairs.add(name, value) == Pairs::Added::stored;
}

/// Stores a record. False if that is not possible, or if it is not one of a request.
bool store(corvel_request &request, ContainedProcess &process) {
    switch (process.kind()) {
    case RecordKind::cookie:
        return store_pair(request.cookies, process);
    case RecordKind::query:
        return store_pair(request.query, process);
    case RecordKind::form:
        return store_pair(request.form, process);
    case RecordKind::body:
        return store_body(request, process);
    default:
        return false;
    }
}

/// Receives what the process has found. Its outcome is the refusal, and the type in the bits above.
Refusal receive(corvel_request &request, ContainedProcess &process) {
    while (process.next())
        if (!store(request, process))
            process.refuse_record();
    const unsigned refusal = process.outcome() & 0xFFU;
    if (!process.is_complete() || refusal > static_cast<unsigned>(Refusal::containment))
        return Refusal::containment;
    request.type = process.outcome() >> 8U;
    return static_cast<Refusal>(refusal);
}

Refusal add_contained_cookies(corvel_request &request) {
    const char *const header = variable("HTTP_COOKIE");
    Body no_body;
    ContainedProcess process(request.containment, no_body, 0, std::strlen(header) + 2);
    if (process.is_child()) {
        RecordWriter writer(process);
        const bool are_added = add_cookies(request.cookies, header);
        send(writer, RecordKind::cookie, request.cookies);
        writer.end(static_cast<unsigned>(are_added ? Refusal::none : Refusal::no_memory));
    }
    return receive(request, process);
}

/// Pairs that arrive one by one can take up to three times the memory of those that are decoded
/// together.
Refusal read_contained(corvel_request &request, const corvel_request_rules &rules) {
    const std::size_t memory = 3 * at_most(rules.memory_max, SIZE_MAX / 3);
    const std::size_t longest = std::max(std::strlen(variable("QUERY_STRING")), rules.body_max);
    ContainedProcess process(request.containment, request.body, rules.body_max, longest + 2);
    if (process.is_child()) {
        RecordWriter writer(process);
        const Refusal refusal = read_all(request, rules);
        send(writer, RecordKind::query, request.query);
        send(writer, RecordKind::form, request.form);
        if (request.raw_body != nullptr)
            writer.send(RecordKind::body, {request.raw_body, request.raw_size});
        writer.end(static_cast<unsigned>(refusal) | request.type << 8U);
    }
    request.query.limit(rules.pairs_max, memory);
    request.form.limit(rules.pairs_max, memory);
    const Refusal refusal = receive(request, process);
    request.type &= rules.types;
    return refusal;
}

int read(corvel_request &request, const corvel_request_rules &rules) {
    request.body.set_patience(rules.body_seconds);
    request.refusal =
        request.is_contained ? read_contained(request, rules) : read_all(request, rules);
    if (request.refusal != Refusal::none || request.method == CORVEL_GET)
        request.body.discard();
    return status_of(request.refusal);
}

corvel_request *begin() {
    void *const memory = std::malloc(sizeof(corvel_request));
    if (memory == nullptr)
        return nullptr;
    auto *const request = new (memory) corvel_request;
    request->method = method_named(variable("REQUEST_METHOD"));
    request->has_valid_length = announce(request->body);
    return request;
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

const corvel_containment *containment_of(const corvel_request *request) {
    return request != nullptr && request->is_contained ? &request->containment : nullptr;
}

void discard_body(const corvel_request *request) {
    if (request != nullptr)
        request->body.discard();
}

int add_field(corvel_request *request, std::string_view name, std::string_view value) {
    if (!is_accepted(request))
        return CORVEL_HTTP_INTERNAL_SERVER_ERROR;
    request->refusal = refusal_of(request->form.add(name, value));
    return status_of(request->refusal);
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

void add_path_part(corvel_request *request, std::string_view component) {
    if (request == nullptr || request->path_parts.add(component, "") == Pairs::Added::stored)
        return;
    request->refusal = Refusal::no_memory;
    request->status = CORVEL_HTTP_SERVICE_UNAVAILABLE;
}

} // namespace corvel

extern "C" {

corvel_request *corvel_request_begin(void) {
    corvel_request *const request = begin();
    if (request == nullptr || add_cookies(request->cookies, variable("HTTP_COOKIE")))
        return request;
    corvel_request_free(request);
    return nullptr;
}

corvel_request *corvel_request_begin_contained(const corvel_containment *containment) {
    corvel_request *const request = begin();
    if (request == nullptr)
        return nullptr;
    request->is_contained = true;
    request->containment = with_defaults(containment);
    if (*variable("HTTP_COOKIE") != '\0')
        request->refusal = add_contained_cookies(*request);
    if (request->refusal == Refusal::none)
        return request;
    request->status = status_of(request->refusal);
    request->body.discard();
    return request;
}

int corvel_request_read(corvel_request *request, const corvel_request_rules *rules) {
    if (request == nullptr) {
        Body body;
        announce(body);
        body.discard();
        return CORVEL_HTTP_SERVICE_UNAVAILABLE;
    }
    if (request->status == 0)
        request->status = read(*request, with_defaults(rules));
    return request->status;
}

const char *corvel_request_complaint(const corvel_request *request) {
    return text_of(request != nullptr ? request->refusal : Refusal::no_memory) + 3;
}

void corvel_request_free(corvel_request *request) {
    if (request == nullptr)
        return;
    request->~corvel_request();
    std::free(request);
}

unsigned corvel_method(const corvel_request *request) {
    return request != nullptr ? request->method : 0;
}

const char *corvel_path(const corvel_request *request) {
    const char *const path = text_or_empty(environment(request, "PATH_INFO"));
    return has_control_character(path) ? "" : path;
}

const char *corvel_cookie(const corvel_request *request, const char *name, size_t index) {
    return request != nullptr && name != nullptr ? request->cookies.find(name, index) : nullptr;
}

const char *corvel_client_address(const corvel_request *request) {
    return text_or_empty(environment(request, "REMOTE_ADDR"));
}

bool corvel_is_secure(const corvel_request *request) {
    const char *const https = text_or_empty(environment(request, "HTTPS"));
    return *https != '\0' && !equals_ignoring_case(https, "off");
}

const char *corvel_request_body(const corvel_request *request, size_t *size) {
    const bool has_raw = is_accepted(request) && request->raw_body != nullptr;
    if (size != nullptr)
        *size = has_raw ? request->raw_size : 0;
    return has_raw ? request->raw_body : "";
}

} // extern "C"
