// SPDX-License-Identifier: MIT
#include <cstdio>
#include <cstring>
#include <string_view>

#include "page/pairs.h"
#include "page/request.h"
#include "support/text.h"

namespace corvel {
namespace {

/// The length of the first component of a path, with the slash before it; 0 if there is none.
std::size_t component_length(const char *path) {
    return *path != '\0' ? 1 + std::strcspn(path + 1, "/") : 0;
}

/// True if a component, with the slash before it, is a string.
bool equals(std::string_view component, const char *expected) {
    return std::strncmp(component.data(), expected, component.size()) == 0 &&
           expected[component.size()] == '\0';
}

/// True if `{}` matches a component: not if, as a part of a file's path, it names another
/// directory.
bool is_name(std::string_view component) {
    return component.size() > 1 && component.front() == '/' && !equals(component, "/.") &&
           !equals(component, "/..");
}

/// True if a path matches that of a route. Stores the components that match a `{}` in a request,
/// unless that is null.
bool matches(const char *route, const char *path, corvel_request *request) {
    while (*route != '\0' && *path != '\0') {
        const std::size_t expected = component_length(route);
        const std::size_t length = component_length(path);
        const bool is_any = equals({route, expected}, "/{}");
        const bool is_same = expected == length && std::memcmp(route, path, length) == 0;
        if (is_any ? !is_name({path, length}) : !is_same)
            return false;
        if (is_any && request != nullptr)
            add_path_part(request, {path + 1, length - 1});
        route += expected;
        path += length;
    }
    return *route == *path;
}

/// The routes of a path: the first that permits the method, else the last, and the methods of all.
struct Selection {
    const corvel_route *route;
    bool has_method;
    unsigned methods;
};

void select(Selection &selection, const char *path, unsigned method, const corvel_route *route,
            std::size_t count) {
    for (; count != 0 && !selection.has_method; --count, ++route) {
        if (route->answer == nullptr || !matches(text_or_empty(route->path), path, nullptr))
            continue;
        const unsigned given = route->rules.methods;
        const unsigned methods = given != 0 ? given : unsigned{CORVEL_GET};
        selection.route = route;
        selection.methods |= methods;
        selection.has_method = (methods & method) != 0;
    }
}

/// States the methods of a path's routes.
void allow(corvel_answer *answer, unsigned methods) {
    char text[sizeof ", GET, HEAD, POST, PUT, DELETE"] = ", ";
    std::size_t used = 0;
    for (const NamedMethod &each : named_methods)
        if ((methods & each.method) != 0)
            used += size_from(std::snprintf(text + used, sizeof text - used, ", %s", each.name));
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
    Selection selection{};
    if (routes != nullptr)
        select(selection, path, corvel_method(request), routes, count);
    const corvel_route *const route = selection.route;
    if (selection.has_method)
        matches(route->path, path, request);
    int status = CORVEL_HTTP_NOT_FOUND;
    const char *complaint = "There is no page at this address.";
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
