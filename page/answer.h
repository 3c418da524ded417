// SPDX-License-Identifier: MIT
#ifndef CORVEL_PAGE_ANSWER_H
#define CORVEL_PAGE_ANSWER_H

#include <string_view>

#include <corvel_page.h>

#include "page/buffer.h"

namespace corvel {

/// What the modules of the kit use of an answer beyond the public functions. All accept null.

/// The body so far, which further bytes are appended to; null for a null answer.
Buffer *body_of(corvel_answer *answer);

/// Records that the page misused a function: corvel_answer_send() sends status 500 and the log gets
/// the reason, a string literal.
void misuse(corvel_answer *answer, const char *reason);

/// The site of the answer, with every default filled in.
const corvel_site &site_of(const corvel_answer *answer);

/// Appends a string to a buffer, escaped for HTML text and quoted attributes.
void append_html(Buffer &buffer, std::string_view text);

/// Where the JSON writer is: one bit for each level, set in an object, and whether a comma is due.
struct JsonState {
    unsigned depth = 0;
    unsigned objects = 0;
    bool needs_comma = false;
    bool is_complete = false;
};

/// The state of the JSON writer of an answer, which must not be null.
JsonState &json_state(corvel_answer *answer);

} // namespace corvel

#endif
