// SPDX-License-Identifier: MIT
#ifndef CORVEL_PAGE_SYNTAX_H
#define CORVEL_PAGE_SYNTAX_H

#include <cstddef>
#include <string_view>

namespace corvel {

/// True if a string equals another one regardless of the case of letters.
bool equals_ignoring_case(std::string_view text, const char *expected);

/// The index of the string of a list that equals a text regardless of the case of letters; -1 if
/// none does. Each string is terminated by a NUL, and an empty one ends the list.
int index_ignoring_case(const char *list, std::string_view text);

/// The length of the start of a string that consists of letters and digits of ASCII and of @p
/// others.
std::size_t span_of(const char *text, const char *others);

/// The value of two hexadecimal digits of either case, or -1 if either is not one. If the first is
/// not, as at the end of a string, the second is not read.
int hex_byte(const char *digits);

/// True if a string contains a control character of ASCII.
bool has_control_character(const char *text);

/// The string without the white space at its ends.
std::string_view trimmed(std::string_view text);

} // namespace corvel

#endif
