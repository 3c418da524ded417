// SPDX-License-Identifier: MIT
// What every reader of a request body asks of the CGI environment and of standard input.
#ifndef CORVEL_CGI_REQUEST_BODY_H
#define CORVEL_CGI_REQUEST_BODY_H

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <strings.h>

#include "support/text.h"

namespace corvel {

/// Whether the request's method is this one, in whatever case.
inline bool is_method(const char *method) {
    const char *const actual = std::getenv("REQUEST_METHOD");
    return actual != nullptr && strcasecmp(actual, method) == 0;
}

/// The announced length of the body; below zero if none, or one below zero, is announced.
inline int announced_length() {
    const char *const length = std::getenv("CONTENT_LENGTH");
    return length != nullptr ? decimal_value(length) : -1;
}

/// Fills a block from standard input. Returns the number of bytes that came.
inline std::size_t read_body_into(std::span<char> block) {
    return std::fread(block.data(), 1, block.size(), stdin);
}

} // namespace corvel

#endif
