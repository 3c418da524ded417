// SPDX-License-Identifier: MIT
// The CRC-32 of N KiB.
//
// "table loop" is the textbook loop with one table and one byte at a time: the larger code of the
// peer and of the library must be faster.
#include "bench/firmware/zlib.h"
#include "bench/harness.h"

#include <corvel.h>

#include <array>
#include <random>

namespace {

std::vector<unsigned char> random_bytes(std::size_t size) {
    std::mt19937 generator(1);
    std::vector<unsigned char> bytes(size);
    for (unsigned char &byte : bytes)
        byte = static_cast<unsigned char>(generator());
    return bytes;
}

constexpr std::array<std::uint32_t, 256> make_table() {
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t byte = 0; byte < 256; ++byte) {
        table[byte] = byte;
        for (int bit = 0; bit < 8; ++bit)
            table[byte] = (table[byte] >> 1) ^ ((table[byte] & 1) != 0 ? 0xEDB88320 : 0);
    }
    return table;
}

constexpr std::array<std::uint32_t, 256> table = make_table();

using Bytes = std::span<const unsigned char>;

std::uint32_t corvel_crc32(Bytes bytes) {
    return crc32(bytes.data(), static_cast<int>(bytes.size()));
}

std::uint32_t table_crc32(Bytes bytes) {
    std::uint32_t crc = 0xFFFFFFFF;
    for (const unsigned char byte : bytes)
        crc = table[(crc ^ byte) & 0xFF] ^ (crc >> 8);
    return ~crc;
}

template <std::uint32_t compute(Bytes)> void side(benchmark::State &state) {
    const auto bytes = random_bytes(static_cast<std::size_t>(state.range(0)) * 1024);
    bench::require(compute(bytes) == table_crc32(bytes), "a side computes a wrong CRC");
    bench::measure(state, [&bytes] { benchmark::DoNotOptimize(compute(bytes)); });
    state.SetBytesProcessed(state.iterations() * state.range(0) * 1024);
}

const bench::Job job("compute a CRC-32", {{64}, {1024}, {16384}},
                     {{"corvel", side<corvel_crc32>},
                      {"zlib", side<bench::zlib_crc32>},
                      {"table loop", side<table_crc32>}});

} // namespace
