// SPDX-License-Identifier: MIT
#ifndef CORVEL_SUPPORT_HEXADECIMAL_H
#define CORVEL_SUPPORT_HEXADECIMAL_H

#include <array>
#include <climits>
#include <cstddef>

namespace corvel {

/// The value of each character as a hexadecimal digit of either case; -1 for other characters.
inline constexpr std::array<signed char, UCHAR_MAX + 1> hex_values = [] {
    std::array<signed char, UCHAR_MAX + 1> values{};
    values.fill(-1);
    for (unsigned char digit = 0; digit < 10; ++digit)
        values['0' + digit] = static_cast<signed char>(digit);
    for (unsigned char digit = 10; digit < 16; ++digit) {
        values['a' + digit - 10] = static_cast<signed char>(digit);
        values['A' + digit - 10] = static_cast<signed char>(digit);
    }
    return values;
}();

constexpr int hex_value(char digit) { return hex_values[static_cast<unsigned char>(digit)]; }

/// The value of two hexadecimal digits, or -1 if either is not one. If the first is not, as at the
/// end of a string, the second is not read.
constexpr int hex_pair(const char *digits) {
    const int high = hex_value(digits[0]);
    const int low = high < 0 ? -1 : hex_value(digits[1]);
    return low < 0 ? -1 : high * 16 + low;
}

/// Converts pairs of digits to bytes, stopping at the first malformed pair. False if there is one;
/// the bytes of the preceding pairs are stored.
constexpr bool parse_hex(const char *digits, std::size_t pairs, unsigned char *out) {
    for (; pairs != 0; --pairs, digits += 2) {
        const int byte = hex_pair(digits);
        if (byte < 0)
            return false;
        *out++ = static_cast<unsigned char>(byte);
    }
    return true;
}

/// Not local to put_hex(), where it would be rebuilt on the stack for every byte.
inline constexpr char hex_digits[] = "0123456789ABCDEF";

/// Writes a byte as two upper-case digits. Returns the position after them.
constexpr char *put_hex(char *out, unsigned char byte) {
    *out++ = hex_digits[byte >> 4];
    *out++ = hex_digits[byte & 0xF];
    return out;
}

} // namespace corvel

#endif
