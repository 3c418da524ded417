// SPDX-License-Identifier: MIT
// Integers of the file formats: 32 bits, most significant byte first, at any address.
#ifndef CORVEL_SUPPORT_BIG_ENDIAN_H
#define CORVEL_SUPPORT_BIG_ENDIAN_H

#include <cstdint>
#include <span>

namespace corvel {

constexpr std::uint32_t big_endian_word(std::span<const unsigned char, 4> bytes) {
    return static_cast<std::uint32_t>(bytes[0]) << 24 | static_cast<std::uint32_t>(bytes[1]) << 16 |
           static_cast<std::uint32_t>(bytes[2]) << 8 | bytes[3];
}

constexpr void store_big_endian(std::span<unsigned char, 4> bytes, std::uint32_t word) {
    bytes[0] = static_cast<unsigned char>(word >> 24);
    bytes[1] = static_cast<unsigned char>(word >> 16);
    bytes[2] = static_cast<unsigned char>(word >> 8);
    bytes[3] = static_cast<unsigned char>(word);
}

} // namespace corvel

#endif
