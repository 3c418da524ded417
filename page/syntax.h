// SPDX-License-Identifier: MIT
#ifndef CORVEL_PAGE_SYNTAX_H
#define CORVEL_PAGE_SYNTAX_H

#include <cstddef>
#include <string_view>

namespace corvel {

/// True if a string equals another one regardless of the case of letters.
bool equals_ignoring_case(std::string_view text, const char *expected);

/// The length of the start of a string that consists of letters and digits of ASCII and of @p
/// others.
std::size_t span_of(const char *text, const char *others);

/// True if a string contains a control character of ASCII.
bool has_control_character(const char *text);

/// The string without the spaces and tabs at its ends.
std::string_view trimmed(std::string_view text);

} // namespace corvel

#endif
