// SPDX-License-Identifier: MIT
#include "page/request.h"

#include <cstdlib>

#include "support/text.h"

struct corvel_request {
    unsigned method;
};

namespace corvel {

const char *environment(const corvel_request *request, const char *name) {
    return request != nullptr ? std::getenv(name) : nullptr;
}

} // namespace corvel

using namespace corvel;

extern "C" {

corvel_request *corvel_request_begin(void) {
    auto *const request = static_cast<corvel_request *>(std::malloc(sizeof(corvel_request)));
    if (request == nullptr)
        return nullptr;
    const std::string_view method = text_of(std::getenv("REQUEST_METHOD"));
    request->method = 0;
    if (method == "GET" || method == "HEAD")
        request->method = CORVEL_GET;
    return request;
}

void corvel_request_free(corvel_request *request) { std::free(request); }

unsigned corvel_method(const corvel_request *request) {
    return request != nullptr ? request->method : 0;
}

bool corvel_is_secure(const corvel_request *request) {
    return text_of(environment(request, "HTTPS")) == "on";
}

} // extern "C"
