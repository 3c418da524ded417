// SPDX-License-Identifier: MIT
#include "page/syntax.h"

#include <cstring>
#include <strings.h>

#include "support/text.h"

namespace corvel {
namespace {

bool is_alphanumeric(char character) {
    const char lower = static_cast<char>(character | 0x20);
    return (lower >= 'a' && lower <= 'z') || is_digit(character);
}

} // namespace

bool equals_ignoring_case(std::string_view text, const char *expected) {
    return std::strlen(expected) == text.size() &&
           strncasecmp(text.data(), expected, text.size()) == 0;
}

int index_ignoring_case(const char *list, std::string_view text) {
    for (int index = 0; *list != '\0'; ++index, list += std::strlen(list) + 1)
        if (equals_ignoring_case(text, list))
            return index;
    return -1;
}

std::size_t span_of(const char *text, const char *others) {
    const char *end = text;
    while (is_alphanumeric(*end) || (*end != '\0' && std::strchr(others, *end) != nullptr))
        ++end;
    return static_cast<std::size_t>(end - text);
}

int hex_byte(const char *digits) {
    int value = 0;
    for (const char *digit = digits; digit != digits + 2; ++digit) {
        const char lower = static_cast<char>(*digit | 0x20);
        const bool is_letter = lower >= 'a' && lower <= 'f';
        if (!is_letter && !is_digit(*digit))
            return -1;
        value = 16 * value + (is_letter ? lower - 'a' + 10 : *digit - '0');
    }
    return value;
}

bool has_control_character(const char *text) {
    for (; *text != '\0'; ++text)
        if (static_cast<unsigned char>(*text) < ' ' || *text == '\x7F')
            return true;
    return false;
}

std::string_view trimmed(std::string_view text) {
    skip_spaces(text);
    while (!text.empty() && is_space(text.back()))
        text.remove_suffix(1);
    return text;
}

} // namespace corvel
