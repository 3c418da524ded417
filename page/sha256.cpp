// SPDX-License-Identifier: MIT
#include "page/sha256.h"

#include <bit>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "support/handles.h"

namespace corvel {
namespace {

constexpr std::uint32_t round_constants[64] = {
    0x428A2F98, 0x71374491, 0xB5C0FBCF, 0xE9B5DBA5, 0x3956C25B, 0x59F111F1, 0x923F82A4, 0xAB1C5ED5,
    0xD807AA98, 0x12835B01, 0x243185BE, 0x550C7DC3, 0x72BE5D74, 0x80DEB1FE, 0x9BDC06A7, 0xC19BF174,
    0xE49B69C1, 0xEFBE4786, 0x0FC19DC6, 0x240CA1CC, 0x2DE92C6F, 0x4A7484AA, 0x5CB0A9DC, 0x76F988DA,
    0x983E5152, 0xA831C66D, 0xB00327C8, 0xBF597FC7, 0xC6E00BF3, 0xD5A79147, 0x06CA6351, 0x14292967,
    0x27B70A85, 0x2E1B2138, 0x4D2C6DFC, 0x53380D13, 0x650A7354, 0x766A0ABB, 0x81C2C92E, 0x92722C85,
    0xA2BFE8A1, 0xA81A664B, 0xC24B8B70, 0xC76C51A3, 0xD192E819, 0xD6990624, 0xF40E3585, 0x106AA070,
    0x19A4C116, 0x1E376C08, 0x2748774C, 0x34B0BCB5, 0x391C0CB3, 0x4ED8AA4A, 0x5B9CCA4F, 0x682E6FF3,
    0x748F82EE, 0x78A5636F, 0x84C87814, 0x8CC70208, 0x90BEFFFA, 0xA4506CEB, 0xBEF9A3F7, 0xC67178F2};

constexpr std::size_t block_size = 64;

std::uint32_t big_endian(const unsigned char bytes[4]) {
    return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 |
           std::uint32_t{bytes[2]} << 8 | bytes[3];
}

} // namespace

void Sha256::process(const unsigned char block[64]) {
    std::uint32_t words[64];
    for (std::size_t i = 0; i < 16; ++i)
        words[i] = big_endian(block + 4 * i);
    for (std::size_t i = 16; i < 64; ++i) {
        const std::uint32_t x = words[i - 15];
        const std::uint32_t y = words[i - 2];
        words[i] = words[i - 16] + (std::rotr(x, 7) ^ std::rotr(x, 18) ^ x >> 3) + words[i - 7] +
                   (std::rotr(y, 17) ^ std::rotr(y, 19) ^ y >> 10);
    }
    std::uint32_t s[8];
    std::memcpy(s, state_, sizeof s);
    for (std::size_t i = 0; i < 64; ++i) {
        const std::uint32_t sum = std::rotr(s[4], 6) ^ std::rotr(s[4], 11) ^ std::rotr(s[4], 25);
        const std::uint32_t choice = (s[4] & s[5]) ^ (~s[4] & s[6]);
        const std::uint32_t first = s[7] + sum + choice + round_constants[i] + words[i];
        const std::uint32_t sum2 = std::rotr(s[0], 2) ^ std::rotr(s[0], 13) ^ std::rotr(s[0], 22);
        const std::uint32_t majority = (s[0] & s[1]) ^ (s[0] & s[2]) ^ (s[1] & s[2]);
        std::memmove(s + 1, s, 7 * sizeof *s);
        s[4] += first;
        s[0] = first + sum2 + majority;
    }
    for (std::size_t i = 0; i < 8; ++i)
        state_[i] += s[i];
}

void Sha256::update(std::string_view bytes) {
    while (!bytes.empty()) {
        const auto used = static_cast<std::size_t>(size_ % block_size);
        const std::size_t room = block_size - used;
        const std::size_t taken = bytes.size() < room ? bytes.size() : room;
        std::memcpy(block_ + used, bytes.data(), taken);
        bytes.remove_prefix(taken);
        size_ += taken;
        if (taken == room)
            process(block_);
    }
}

void Sha256::digest_text(char result[text_size]) {
    const std::uint64_t bits = size_ * 8;
    constexpr char zero = '\0';
    update("\x80");
    while (size_ % block_size != block_size - sizeof bits)
        update({&zero, 1});
    char text[sizeof bits];
    for (std::size_t i = 0; i < sizeof text; ++i)
        text[i] = static_cast<char>(bits >> (56 - 8 * i));
    update({text, sizeof text});
    for (const std::uint32_t word : state_)
        result += std::snprintf(result, 9, "%08" PRIx32, word);
}

void hash_text(std::string_view prefix, std::string_view text, char result[Sha256::text_size]) {
    Sha256 hash;
    hash.update(prefix);
    hash.update(text);
    hash.digest_text(result);
    wipe(&hash, sizeof hash);
}

} // namespace corvel
