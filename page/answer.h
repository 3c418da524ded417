// SPDX-License-Identifier: MIT
#ifndef CORVEL_PAGE_ANSWER_H
#define CORVEL_PAGE_ANSWER_H

#include <cstddef>
#include <cstdint>

#include <corvel_page.h>

#include "page/buffer.h"
#include "page/escape.h"

namespace corvel {

/// Where the JSON writer is.
struct JsonState {
    static constexpr unsigned depth_max = 32;

    unsigned depth = 0;        ///< Arrays and objects that are open.
    std::uint32_t objects = 0; ///< One bit for each of them, the innermost lowest: it is an object.
    bool needs_comma = false;
    bool is_body = false; ///< The whole body is one JSON value.
};

/// Bytes of the header fields of an answer, and of its cookies.
inline constexpr std::size_t header_max = 16384;

} // namespace corvel

struct corvel_answer {
    const corvel_request *request = nullptr;
    corvel_site site = {};
    const corvel_data *values = nullptr;
    corvel::Buffer body{CORVEL_ANSWER_MAX};
    /// Lines of the header, each with a name of its own, in any case.
    corvel::Buffer fields{corvel::header_max};
    /// Lines of the header that set cookies, each with a name of its own.
    corvel::Buffer cookies{corvel::header_max};
    corvel::JsonState json;
    int status = CORVEL_HTTP_OK;
    bool has_type = false;
    bool is_conditional = false;
    bool is_final = false; ///< The body is that of an error or a redirection: nothing is added.
    bool is_misused = false;
    bool is_sent = false;
};

namespace corvel {

/// The body, which text of any kind can be appended to. Null for a null answer and after
/// corvel_answer_error() or corvel_answer_redirect(). A JSON body cannot be appended to either:
/// that is a misuse.
Buffer *body_of(corvel_answer *answer);

/// Records that the page misused a function: corvel_answer_send() sends status 500 instead of the
/// answer. Only the first misuse of an answer is written to the log. Accepts null.
void misuse(corvel_answer *answer, const char *reason);

} // namespace corvel

#endif
