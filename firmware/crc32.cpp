// SPDX-License-Identifier: MIT
#include "firmware/crc32.h"

#include <corvel.h>

#include <array>
#include <bit>
#include <cstddef>
#include <cstring>

namespace corvel {
namespace {

constexpr std::uint32_t polynomial = 0xEDB88320;

using Table = std::array<std::uint32_t, 256>;

/// The CRC register after one byte, from a register of zeros.
constexpr Table make_byte_table() {
    Table table{};
    for (std::uint32_t byte = 0; byte < table.size(); ++byte) {
        std::uint32_t crc = byte;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1) ^ ((crc & 1) != 0 ? polynomial : 0);
        table[byte] = crc;
    }
    return table;
}

constexpr Table byte_table = make_byte_table();

constexpr std::uint32_t after_byte(std::uint32_t crc, unsigned char byte) {
    return byte_table[(crc ^ byte) & 0xFF] ^ (crc >> 8);
}

// The bulk is taken in rounds of `lanes` words. Each lane keeps a CRC of its own, of every lanes-th
// word, so that the look-ups of one lane need not wait for those of another: that is worth a factor
// of eight over the byte-wise loop. A lane's word moves on by a whole round at once: lane_tables[i]
// holds the register after byte i of the word and all that stands between it and the lane's next
// word, which is zeros as far as this lane goes.
constexpr std::size_t word_size = 8;
constexpr std::size_t lanes = 5;
constexpr std::size_t round_size = lanes * word_size;

using LaneTables = std::array<Table, word_size>;

constexpr LaneTables make_lane_tables() {
    LaneTables tables{};
    for (std::size_t byte = 0; byte < byte_table.size(); ++byte) {
        std::uint32_t crc = byte_table[byte];
        for (std::size_t zeros = 1; zeros <= round_size - 1; ++zeros) {
            crc = after_byte(crc, 0);
            // Byte i of a word is followed by round_size - 1 - i bytes before the next word.
            if (round_size - 1 - zeros < word_size)
                tables[round_size - 1 - zeros][byte] = crc;
        }
    }
    return tables;
}

constexpr LaneTables lane_tables = make_lane_tables();
static_assert(sizeof lane_tables + sizeof byte_table <= std::size_t{16} * 1024);

/// A word whose least significant byte is the first in memory, whatever the machine's order.
std::uint64_t word_at(const unsigned char *bytes) {
    std::uint64_t word;
    std::memcpy(&word, bytes, sizeof word);
    return std::endian::native == std::endian::little ? word : __builtin_bswap64(word);
}

/// Written out: compilers do not unroll the loop at -O2, which costs more than half of the speed.
std::uint32_t after_round(std::uint64_t word) {
    return lane_tables[0][word & 0xFF] ^ lane_tables[1][(word >> 8) & 0xFF] ^
           lane_tables[2][(word >> 16) & 0xFF] ^ lane_tables[3][(word >> 24) & 0xFF] ^
           lane_tables[4][(word >> 32) & 0xFF] ^ lane_tables[5][(word >> 40) & 0xFF] ^
           lane_tables[6][(word >> 48) & 0xFF] ^ lane_tables[7][word >> 56];
}

std::uint32_t after_bytes(std::uint32_t crc, std::span<const unsigned char> bytes) {
    for (const unsigned char byte : bytes)
        crc = after_byte(crc, byte);
    return crc;
}

std::uint32_t after_word(std::uint32_t crc, std::span<const unsigned char> bytes) {
    return after_bytes(crc, bytes.first(word_size));
}

/// The register after one or more whole rounds.
std::uint32_t after_rounds(std::uint32_t crc, std::span<const unsigned char> rounds) {
    // Variables, not an array, which the compiler would keep in memory.
    std::uint32_t lane0 = crc;
    std::uint32_t lane1 = 0;
    std::uint32_t lane2 = 0;
    std::uint32_t lane3 = 0;
    std::uint32_t lane4 = 0;
    while (rounds.size() > round_size) {
        const unsigned char *const words = rounds.data();
        lane0 = after_round(word_at(words) ^ lane0);
        lane1 = after_round(word_at(words + word_size) ^ lane1);
        lane2 = after_round(word_at(words + 2 * word_size) ^ lane2);
        lane3 = after_round(word_at(words + 3 * word_size) ^ lane3);
        lane4 = after_round(word_at(words + 4 * word_size) ^ lane4);
        rounds = rounds.subspan(round_size);
    }
    // In the last round the lanes meet: what the words before it left in the register goes into the
    // first four bytes of the next one.
    crc = after_word(lane0, rounds.subspan(0));
    crc = after_word(crc ^ lane1, rounds.subspan(word_size));
    crc = after_word(crc ^ lane2, rounds.subspan(2 * word_size));
    crc = after_word(crc ^ lane3, rounds.subspan(3 * word_size));
    return after_word(crc ^ lane4, rounds.subspan(4 * word_size));
}

} // namespace

std::uint32_t crc32_of(std::span<const unsigned char> bytes) {
    std::uint32_t crc = ~std::uint32_t{0};
    const std::size_t in_rounds = bytes.size() / round_size * round_size;
    if (in_rounds != 0)
        crc = after_rounds(crc, bytes.first(in_rounds));
    return ~after_bytes(crc, bytes.subspan(in_rounds));
}

} // namespace corvel

extern "C" uint32_t crc32(const unsigned char *data, int length) {
    return corvel::crc32_of({data, length > 0 ? static_cast<std::size_t>(length) : 0});
}
