// SPDX-License-Identifier: MIT
// Reading a request body from the CGI environment and standard input.
#ifndef CORVEL_CGI_REQUEST_BODY_H
#define CORVEL_CGI_REQUEST_BODY_H

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <strings.h>

#include "support/text.h"

namespace corvel {

/// Whether REQUEST_METHOD is `method`, ignoring case.
inline bool is_method(const char *method) {
    const char *const actual = std::getenv("REQUEST_METHOD");
    return actual != nullptr && strcasecmp(actual, method) == 0;
}

/// CONTENT_LENGTH; negative if it is unset or negative.
inline int announced_length() {
    const char *const length = std::getenv("CONTENT_LENGTH");
    return length != nullptr ? decimal_value(length) : -1;
}

/// Fills a block from standard input. Returns the number of bytes read.
inline std::size_t read_body_into(std::span<char> block) {
    return std::fread(block.data(), 1, block.size(), stdin);
}

} // namespace corvel

#endif
