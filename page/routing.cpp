// SPDX-License-Identifier: MIT
#include <cstring>
#include <span>
#include <string_view>

#include "page/pairs.h"
#include "page/request.h"
#include "support/text.h"

namespace corvel {
namespace {

struct NamedMethod {
    char names[12];
    unsigned char method;
};

constexpr NamedMethod named_methods[] = {{", GET, HEAD", CORVEL_GET},
                                         {", POST", CORVEL_POST},
                                         {", PUT", CORVEL_PUT},
                                         {", DELETE", CORVEL_DELETE}};

constexpr std::size_t allow_size = sizeof ", GET, HEAD, POST, PUT, DELETE";

/// The length of the first component of a path, with the slash before it; 0 if there is none.
std::size_t component_length(const char *path) {
    return *path != '\0' ? 1 + std::strcspn(path + 1, "/") : 0;
}

bool equals(const char *component, std::size_t length, const char *expected) {
    return std::strlen(expected) == length && std::memcmp(component, expected, length) == 0;
}

bool is_any(const char *component, std::size_t length) { return equals(component, length, "/{}"); }

/// Whether `{}` matches a component: not if, as a part of a file's path, it names another
/// directory.
bool is_name(const char *component, std::size_t length) {
    return *component == '/' && length > 1 && !equals(component, length, "/.") &&
           !equals(component, length, "/..");
}

bool matches(const char *route, const char *path) {
    while (*route != '\0' && *path != '\0') {
        const std::size_t expected = component_length(route);
        const std::size_t length = component_length(path);
        const bool is_same = expected == length && std::memcmp(route, path, length) == 0;
        if (is_any(route, expected) ? !is_name(path, length) : !is_same)
            return false;
        route += expected;
        path += length;
    }
    return *route == *path;
}

/// Stores the components of a path that match a route's `{}`.
void store_parts(corvel_request *request, const char *route, const char *path) {
    while (*route != '\0') {
        const std::size_t expected = component_length(route);
        const std::size_t length = component_length(path);
        if (is_any(route, expected))
            add_path_part(request, {path + 1, length - 1});
        route += expected;
        path += length;
    }
}

/// The routes of a path: the first that permits the method, else the last, and the methods of all.
struct Selection {
    const corvel_route *route = nullptr;
    bool has_method = false;
    unsigned methods = 0;
};

Selection select(const char *path, unsigned method, std::span<const corvel_route> routes) {
    Selection selection;
    for (const corvel_route &route : routes) {
        if (route.answer == nullptr || !matches(text_or_empty(route.path), path))
            continue;
        const unsigned methods =
            route.rules.methods != 0 ? route.rules.methods : unsigned{CORVEL_GET};
        selection.route = &route;
        selection.methods |= methods;
        selection.has_method = (methods & method) != 0;
        if (selection.has_method)
            break;
    }
    return selection;
}

/// States the methods of a path's routes.
void allow(corvel_answer *answer, unsigned methods) {
    char text[allow_size] = ", ";
    std::size_t used = 0;
    for (const NamedMethod &each : named_methods)
        if ((methods & each.method) != 0)
            used += store(std::span(text).subspan(used), each.names);
    corvel_answer_header(answer, "Allow", text + 2);
}

} // namespace
} // namespace corvel

using namespace corvel;

extern "C" {

void corvel_dispatch(corvel_request *request, corvel_answer *answer, const corvel_route routes[],
                     size_t count, void *context) {
    const char *path = corvel_path(request);
    if (*path == '\0')
        path = "/";
    const Selection selection =
        select(path, corvel_method(request), {routes, routes != nullptr ? count : 0});
    const corvel_route *const route = selection.route;
    int status = CORVEL_HTTP_NOT_FOUND;
    const char *complaint = "There is no page at this address.";
    if (selection.has_method)
        store_parts(request, route->path, path);
    if (request == nullptr || route != nullptr) {
        status = corvel_request_read(request, route != nullptr ? &route->rules : nullptr);
        complaint = corvel_request_complaint(request);
    }
    if (status == CORVEL_HTTP_OK && selection.has_method) {
        route->answer(request, answer, context);
        return;
    }
    if (status == CORVEL_HTTP_OK) // by other rules, before this call
        status = CORVEL_HTTP_METHOD_NOT_ALLOWED;
    discard_body(request);
    corvel_answer_error(answer, status, complaint);
    if (status == CORVEL_HTTP_METHOD_NOT_ALLOWED)
        allow(answer, selection.methods);
}

const char *corvel_path_part(const corvel_request *request, size_t index) {
    const Pairs *const parts = path_parts_of(request);
    return parts != nullptr ? parts->name(index) : nullptr;
}

} // extern "C"
