// SPDX-License-Identifier: MIT
#ifndef CORVEL_PAGE_UTF8_H
#define CORVEL_PAGE_UTF8_H

#include <cstddef>
#include <string_view>

namespace corvel {

/// Returns the number of bytes of the first UTF-8 character; 0 if it is malformed, overlong, a
/// surrogate, beyond the last code point, or if @p text is empty.
std::size_t utf8_length(std::string_view text);

/// True for the C0 controls, DEL, and the C1 controls U+0080 to U+009F.
bool is_control(std::string_view character);

} // namespace corvel

#endif
