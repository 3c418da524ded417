// SPDX-License-Identifier: MIT
#include "page/pairs.h"
#include "page/request.h"
#include "support/text.h"

namespace corvel {
namespace {

struct NamedMethod {
    unsigned method;
    const char *names;
};

constexpr NamedMethod named_methods[] = {{CORVEL_GET, ", GET, HEAD"},
                                         {CORVEL_POST, ", POST"},
                                         {CORVEL_PUT, ", PUT"},
                                         {CORVEL_DELETE, ", DELETE"}};

constexpr std::size_t allow_size = sizeof ", GET, HEAD, POST, PUT, DELETE";

/// Removes the first component of a path, and the slash before it. Returns both.
std::string_view take_component(std::string_view &path) {
    const std::string_view component = front(path, path.find('/', 1));
    path = after(path, component.size());
    return component;
}

bool is_any(std::string_view component) { return component == "/{}"; }

/// Whether `{}` matches a component: not if, as a part of a file's path, it names another
/// directory.
bool is_name(std::string_view component) {
    return component != "/" && component != "/." && component != "/..";
}

bool matches(std::string_view route, std::string_view path) {
    while (!route.empty() && !path.empty()) {
        const std::string_view expected = take_component(route);
        const std::string_view component = take_component(path);
        if (is_any(expected) ? !is_name(component) : component != expected)
            return false;
    }
    return route.empty() && path.empty();
}

/// Stores the components of a path that match a route's `{}`. False if memory is exhausted.
bool store_parts(corvel_request *request, std::string_view route, std::string_view path) {
    while (!route.empty()) {
        const std::string_view component = take_component(path);
        if (is_any(take_component(route)) && !add_path_part(request, after(component, 1)))
            return false;
    }
    return true;
}

unsigned methods_of(const corvel_route &route) {
    return route.rules.methods != 0 ? route.rules.methods : unsigned{CORVEL_GET};
}

/// Answers a request that no route accepts, with the methods of the routes of its path.
void refuse(const corvel_request *request, corvel_answer *answer, unsigned methods) {
    discard_body(request);
    if (methods == 0) {
        corvel_answer_error(answer, CORVEL_HTTP_NOT_FOUND, "There is no page at this address.");
        return;
    }
    char allow[allow_size] = "";
    std::size_t used = 0;
    for (const NamedMethod &each : named_methods)
        if ((methods & each.method) != 0)
            used += store(std::span(allow).subspan(used), each.names);
    corvel_answer_error(answer, CORVEL_HTTP_METHOD_NOT_ALLOWED,
                        "This page does not support the request's method.");
    corvel_answer_header(answer, "Allow", used != 0 ? allow + 2 : allow);
}

/// Answers that memory is exhausted.
void give_up(const corvel_request *request, corvel_answer *answer) {
    discard_body(request);
    corvel_answer_error(answer, CORVEL_HTTP_SERVICE_UNAVAILABLE, no_memory_complaint);
}

void follow(corvel_request *request, corvel_answer *answer, const corvel_route &route,
            void *context) {
    const int status = corvel_request_read(request, &route.rules);
    if (status == CORVEL_HTTP_OK)
        route.answer(request, answer, context);
    else
        corvel_answer_error(answer, status, corvel_request_complaint(request));
}

} // namespace
} // namespace corvel

using namespace corvel;

extern "C" {

void corvel_dispatch(corvel_request *request, corvel_answer *answer, const corvel_route routes[],
                     size_t count, void *context) {
    if (request == nullptr) {
        follow(request, answer, {}, context);
        return;
    }
    std::string_view path = corvel_path(request);
    if (path.empty())
        path = "/";
    unsigned methods = 0;
    for (size_t i = 0; routes != nullptr && i < count; ++i) {
        const std::string_view route = text_of(routes[i].path);
        if (routes[i].answer == nullptr || !matches(route, path))
            continue;
        methods |= methods_of(routes[i]);
        if ((corvel_method(request) & methods_of(routes[i])) == 0)
            continue;
        if (store_parts(request, route, path))
            follow(request, answer, routes[i], context);
        else
            give_up(request, answer);
        return;
    }
    refuse(request, answer, methods);
}

const char *corvel_path_part(const corvel_request *request, size_t index) {
    const Pairs *const parts = path_parts_of(request);
    return parts != nullptr ? parts->name(index) : nullptr;
}

} // extern "C"
