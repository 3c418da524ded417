/* SPDX-License-Identifier: MIT */
/** CRC-32 computed bit by bit, from its definition, as a reference for the library. */
#ifndef CORVEL_TESTS_REFERENCE_CRC_H
#define CORVEL_TESTS_REFERENCE_CRC_H

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace corvel_test {

/** Returns the CRC register after one byte is shifted into a register of zeros. */
constexpr std::uint32_t shift_in(std::uint32_t byte) {
    for (int bit = 0; bit < 8; ++bit)
        byte = (byte & 1) != 0 ? byte >> 1 ^ 0xEDB88320 : byte >> 1;
    return byte;
}

/** Returns shift_in() of each byte value. */
constexpr std::array<std::uint32_t, 256> shift_in_each() {
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t byte = 0; byte < table.size(); ++byte)
        table[byte] = shift_in(byte);
    return table;
}

/** The table that makes the CRC of a whole image fast. */
inline constexpr std::array<std::uint32_t, 256> shifted_in = shift_in_each();

constexpr std::uint32_t reference_crc(std::string_view bytes) {
    std::uint32_t crc = 0xFFFFFFFF;
    for (const char byte : bytes)
        crc = shifted_in[(crc ^ static_cast<unsigned char>(byte)) & 0xFF] ^ crc >> 8;
    return crc ^ 0xFFFFFFFF;
}

/** Returns a word as the file formats store it, in big-endian order. */
inline std::string stored(std::uint32_t word) {
    return {static_cast<char>(word >> 24 & 0xFF), static_cast<char>(word >> 16 & 0xFF),
            static_cast<char>(word >> 8 & 0xFF), static_cast<char>(word & 0xFF)};
}

} // namespace corvel_test

#endif
