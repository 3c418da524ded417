// SPDX-License-Identifier: MIT
// Bounded views of strings, and the operations on them that several subjects need.
//
// front() and after() replace std::string_view::substr(), which can throw and therefore needs the
// C++ runtime. Neither leaves the string.
#ifndef CORVEL_SUPPORT_TEXT_H
#define CORVEL_SUPPORT_TEXT_H

#include <climits>
#include <concepts>
#include <cstddef>
#include <cstring>
#include <span>
#include <string_view>

namespace corvel {

/// The string itself, or the empty string for a null pointer.
constexpr const char *text_or_empty(const char *text) { return text != nullptr ? text : ""; }

/// A view of a NUL-terminated string; a null pointer is the empty string.
inline std::string_view text_of(const char *text) { return text_or_empty(text); }

/// The string in a field of a record. No byte after the field is read.
template <std::size_t size> std::string_view text_in(const char (&field)[size]) {
    return {field, strnlen(field, size)};
}

/// A view of at most the first `size` bytes of a string, which may be unterminated if it is that
/// long; a null pointer is the empty string. For strings that are stored in a field of that size.
inline std::string_view text_of(const char *text, std::size_t size) {
    return {text_or_empty(text), strnlen(text_or_empty(text), size)};
}

/// A length or count as a size; a negative one, such as the result of a failed read, is zero.
constexpr std::size_t size_from(std::signed_integral auto length) {
    return length > 0 ? static_cast<std::size_t>(length) : 0;
}

constexpr std::size_t at_most(std::size_t length, std::size_t limit) {
    return length < limit ? length : limit;
}

/// The first `length` characters; all if there are fewer.
constexpr std::string_view front(std::string_view text, std::size_t length) {
    return {text.data(), at_most(length, text.size())};
}

/// All but the first `length` characters; the empty string if there are fewer.
constexpr std::string_view after(std::string_view text, std::size_t length) {
    text.remove_prefix(at_most(length, text.size()));
    return text;
}

/// Stores a string in a field, truncated to fit and NUL-terminated. The two may overlap. Returns
/// the number of characters stored. A field of size 0 is unchanged.
///
/// Not inlined: where the compiler knows a bound of the length, it copies byte by byte.
[[gnu::noinline]] inline std::size_t store(std::span<char> field, std::string_view text) {
    if (field.empty())
        return 0;
    const std::size_t kept = at_most(text.size(), field.size() - 1);
    if (kept != 0)
        std::memmove(field.data(), text.data(), kept);
    field[kept] = '\0';
    return kept;
}

/// White space of the C locale, as scanf() and atoi() skip it.
constexpr bool is_space(char character) {
    return character == ' ' || (character >= '\t' && character <= '\r');
}

constexpr bool is_digit(char character) { return character >= '0' && character <= '9'; }

/// Skips the white space at the start of a string.
constexpr void skip_spaces(std::string_view &text) {
    while (!text.empty() && is_space(text.front()))
        text.remove_prefix(1);
}

/// Skips the sign at the start of a string. Returns whether it is a minus.
constexpr bool skip_sign(std::string_view &text) {
    const bool negative = text.starts_with('-');
    if (negative || text.starts_with('+'))
        text.remove_prefix(1);
    return negative;
}

/// Removes the first word, and the white space before it, from a string. Returns the word; empty
/// if there is none. Not inlined, to keep the code small.
[[gnu::noinline]] constexpr std::string_view take_word(std::string_view &text) {
    skip_spaces(text);
    std::size_t length = 0;
    while (length < text.size() && !is_space(text[length]))
        ++length;
    const std::string_view word = front(text, length);
    text = after(text, length);
    return word;
}

/// The string without at most one `character` at each end. Each end is tested by itself, except
/// that a string of one character loses it only once.
constexpr std::string_view stripped(std::string_view text, char character) {
    if (text.starts_with(character))
        text.remove_prefix(1);
    if (text.ends_with(character))
        text.remove_suffix(1);
    return text;
}

/// The number at the start of a string as atoi() and atol() read it: white space, a sign, digits; 0
/// if there is none. A number out of range, where their result is undefined, becomes the nearest
/// one in range.
constexpr long long decimal_value(std::string_view text, long long minimum, long long maximum) {
    skip_spaces(text);
    const bool negative = skip_sign(text);
    unsigned long long magnitude = 0;
    for (; !text.empty() && is_digit(text.front()); text.remove_prefix(1)) {
        if (magnitude > (ULLONG_MAX - 9) / 10)
            return negative ? minimum : maximum;
        magnitude = magnitude * 10 + static_cast<unsigned>(text.front() - '0');
    }
    if (negative)
        return magnitude < 0 - static_cast<unsigned long long>(minimum)
                   ? -static_cast<long long>(magnitude)
                   : minimum;
    return magnitude < static_cast<unsigned long long>(maximum) ? static_cast<long long>(magnitude)
                                                                : maximum;
}

constexpr int decimal_value(std::string_view text) {
    return static_cast<int>(decimal_value(text, INT_MIN, INT_MAX));
}

} // namespace corvel

#endif
