// SPDX-License-Identifier: MIT
#ifndef CORVEL_SUPPORT_LINE_SCANNER_H
#define CORVEL_SUPPORT_LINE_SCANNER_H

#include <cstdint>
#include <optional>
#include <string_view>

#include "support/hexadecimal.h"
#include "support/text.h"

namespace corvel {

/// Takes a line apart as sscanf does, except that a word is always taken whole: one that is longer
/// than what keeps it does not shift those behind it. Those that are called most are not
/// inlined: the code is small that way.
class LineScanner {
  public:
    explicit constexpr LineScanner(std::string_view line) : rest_(line) {}

    /// The next word; empty if there is none.
    constexpr std::string_view word() { return take_word(rest_); }

    /// Whether a text follows, behind blanks.
    constexpr bool skip(std::string_view text) {
        skip_spaces(rest_);
        const bool follows = rest_.starts_with(text);
        if (follows)
            rest_.remove_prefix(text.size());
        return follows;
    }

    /// A number as "%x" takes it, of 32 bits as on the board: the largest one for a larger one.
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

    /// Whether a number as "%d" takes it follows.
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
