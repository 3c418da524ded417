// SPDX-License-Identifier: MIT
#ifndef CORVEL_PAGE_DECIMAL_H
#define CORVEL_PAGE_DECIMAL_H

#include <cstdint>
#include <string_view>

#include "support/text.h"

namespace corvel {

/// Reads a string that consists of decimal digits; false for any other string. A number of more
/// than 19 digits, the most that cannot overflow, becomes UINT64_MAX. Not inlined, to keep the code
/// small.
[[gnu::noinline]] inline bool parse_digits(std::string_view text, std::uint64_t &number) {
    bool is_number = !text.empty();
    while (text.size() > 1 && text[0] == '0')
        text.remove_prefix(1);
    std::uint64_t sum = 0;
    for (const char character : text) {
        is_number = is_number && is_digit(character);
        sum = sum * 10 + static_cast<unsigned char>(character - '0');
    }
    number = text.size() <= 19 ? sum : UINT64_MAX;
    return is_number;
}

} // namespace corvel

#endif
