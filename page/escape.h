// SPDX-License-Identifier: MIT
#ifndef CORVEL_PAGE_ESCAPE_H
#define CORVEL_PAGE_ESCAPE_H

#include "page/buffer.h"

namespace corvel {

/// Appends a string escaped for HTML text and quoted attributes. A control character that HTML does
/// not permit, and a byte that is not part of a well-formed character, becomes U+FFFD.
void append_html(Buffer &out, const char *text);

/// Appends a string as a JSON string, with its quotes. A byte that is not part of a well-formed
/// character becomes U+FFFD. `<` and the line separators of JavaScript are escaped, so that the
/// result can be in a script element.
void append_json_string(Buffer &out, const char *text);

} // namespace corvel

#endif
