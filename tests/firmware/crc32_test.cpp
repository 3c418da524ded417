/* SPDX-License-Identifier: MIT */
#include <corvel.h>

#include "tests/firmware/reference_crc.h"
#include "tests/support/golden_files.h"
#include "tests/support/guarded_memory.h"

#include <climits>
#include <gtest/gtest.h>
#include <random>
#include <sstream>
#include <string>

namespace {

using namespace corvel_test;

std::uint32_t crc_of(std::string_view bytes) {
    return crc32(reinterpret_cast<const unsigned char *>(bytes.data()),
                 static_cast<int>(bytes.size()));
}

std::string random_bytes(std::size_t size) {
    std::mt19937 random(20240229);
    std::string bytes(size, '\0');
    for (char &byte : bytes)
        byte = static_cast<char>(random());
    return bytes;
}

std::string counting_bytes(std::size_t size) {
    std::string bytes;
    for (std::size_t i = 0; i < size; ++i)
        bytes += static_cast<char>(i);
    return bytes;
}

TEST(crc32, ReturnsTheStandardCheckValues) {
    EXPECT_EQ(crc_of("123456789"), 0xCBF43926U);
    EXPECT_EQ(crc_of("a"), 0xE8B7BE43U);
    EXPECT_EQ(crc_of("abc"), 0x352441C2U);
    EXPECT_EQ(crc_of(std::string(32, '\0')), 0x190A55ADU);
    EXPECT_EQ(crc_of(std::string(32, '\xFF')), 0xFF6CAB0BU);
    EXPECT_EQ(crc_of(counting_bytes(32)), 0x91267E8AU);
}

TEST(crc32, IsZeroForNoBytes) {
    const unsigned char byte = 'a';
    EXPECT_EQ(crc32(&byte, 0), 0U);
    EXPECT_EQ(crc32(nullptr, 0), 0U);
    for (const int length : {-1, -40, INT_MIN}) {
        EXPECT_EQ(crc32(&byte, length), 0U) << length;
        EXPECT_EQ(crc32(nullptr, length), 0U) << length;
    }
}

TEST(crc32, StartsAnewInEachCall) {
    EXPECT_EQ(crc_of("12345"), reference_crc("12345"));
    EXPECT_EQ(crc_of("6789"), reference_crc("6789"));
    EXPECT_EQ(crc_of("12345"), reference_crc("12345"));
}

TEST(crc32, IsRightForEveryLengthAndAlignment) {
    const std::string bytes = random_bytes(700);
    for (std::size_t start = 0; start < 16; ++start)
        for (std::size_t length = 0; start + length <= bytes.size(); ++length) {
            const std::string_view piece = std::string_view(bytes).substr(start, length);
            ASSERT_EQ(crc_of(piece), reference_crc(piece)) << start << ", " << length;
        }
}

TEST(crc32, ReadsNothingOutsideItsBytes) {
    const std::string bytes = random_bytes(300);
    for (std::size_t length = 0; length <= bytes.size(); ++length)
        for (const GuardPage guard : {GuardPage::after, GuardPage::before}) {
            const GuardedBlock block(bytes.substr(0, length), guard);
            ASSERT_EQ(crc_of(block.bytes()), reference_crc(block.bytes())) << length;
        }
}

TEST(crc32, ChangesWithEveryBit) {
    std::string bytes = random_bytes(200);
    const std::uint32_t before = crc_of(bytes);
    for (std::size_t bit = 0; bit < bytes.size() * 8; ++bit) {
        bytes[bit / 8] = static_cast<char>(bytes[bit / 8] ^ 1 << bit % 8);
        EXPECT_NE(crc_of(bytes), before) << bit;
        EXPECT_EQ(crc_of(bytes), reference_crc(bytes)) << bit;
        bytes[bit / 8] = static_cast<char>(bytes[bit / 8] ^ 1 << bit % 8);
    }
}

TEST(crc32, IsRightForAWholeFlash) {
    const std::string bytes = random_bytes(16U << 20);
    EXPECT_EQ(crc_of(bytes), reference_crc(bytes));
}

TEST(crc32, ReturnsTheGoldenWords) {
    const std::string bytes = golden("crc32.bin");
    std::istringstream ranges(golden("crc32.txt"));
    std::string words;
    std::size_t offset = 0;
    std::size_t length = 0;
    std::uint32_t word = 0;
    while (ranges >> std::dec >> offset >> length >> std::hex >> word) {
        const std::uint32_t crc = crc_of(std::string_view(bytes).substr(offset, length));
        EXPECT_EQ(crc, word) << offset << ", " << length;
        words += stored(crc);
    }
    EXPECT_TRUE(ranges.eof());
    EXPECT_EQ(words, golden("crc32.words"));
}

} // namespace
