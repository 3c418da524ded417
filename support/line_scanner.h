// SPDX-License-Identifier: MIT
#ifndef CORVEL_SUPPORT_LINE_SCANNER_H
#define CORVEL_SUPPORT_LINE_SCANNER_H

#include <cstdint>
#include <optional>
#include <string_view>

#include "support/hexadecimal.h"
#include "support/text.h"

namespace corvel {

/// Parses a line as sscanf() does, except that a word is always consumed whole: a word longer than
/// its field does not shift the words after it. The functions called most are not inlined, to keep
/// the code small.
class LineScanner {
  public:
    explicit constexpr LineScanner(std::string_view line) : rest_(line) {}

    /// The next word; empty if there is none.
    constexpr std::string_view word() { return take_word(rest_); }

    /// Skips white space, and then a string if it follows. False if it does not.
    constexpr bool skip(std::string_view text) {
        skip_spaces(rest_);
        const bool follows = rest_.starts_with(text);
        if (follows)
            rest_.remove_prefix(text.size());
        return follows;
    }

    /// Reads a number as "%x" does, in 32 bits as on the board; a larger number becomes the
    /// largest. Empty if there is none.
    [[gnu::noinline]] constexpr std::optional<std::uint32_t> hexadecimal() {
        skip_spaces(rest_);
        const bool negative = skip_sign(rest_);
        if ((rest_.starts_with("0x") || rest_.starts_with("0X")) && rest_.size() > 2 &&
            hex_value(rest_[2]) >= 0)
            rest_.remove_prefix(2);
        std::uint64_t value = 0;
        const std::size_t length = rest_.size();
        for (; !rest_.empty() && hex_value(rest_.front()) >= 0; rest_.remove_prefix(1)) {
            if (value <= UINT32_MAX)
                value = value * 16 + static_cast<unsigned>(hex_value(rest_.front()));
        }
        if (rest_.size() == length)
            return {};
        if (value > UINT32_MAX)
            return UINT32_MAX;
        return static_cast<std::uint32_t>(negative ? -value : value);
    }

    /// Skips a decimal number as "%d" does. False if there is none.
    [[gnu::noinline]] constexpr bool skip_decimal() {
        skip_spaces(rest_);
        skip_sign(rest_);
        const std::size_t length = rest_.size();
        while (!rest_.empty() && is_digit(rest_.front()))
            rest_.remove_prefix(1);
        return rest_.size() != length;
    }

  private:
    std::string_view rest_;
};

} // namespace corvel

#endif
