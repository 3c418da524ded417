/* SPDX-License-Identifier: MIT */
#include "page/utf8.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <string>
#include <string_view>

namespace {

using corvel::is_control;
using corvel::utf8_length;

/** Encodes a number as UTF-8 would in a given number of bytes. */
std::string encoded(std::uint32_t code_point, std::size_t length) {
    if (length == 1)
        return {static_cast<char>(code_point)};
    std::string bytes(length, '\0');
    for (std::size_t i = length; i-- > 1; code_point >>= 6)
        bytes[i] = static_cast<char>(0x80 | (code_point & 0x3F));
    bytes[0] = static_cast<char>((0xF00 >> length & 0xFF) | code_point);
    return bytes;
}

std::size_t shortest_length(std::uint32_t code_point) {
    return code_point < 0x80 ? 1 : code_point < 0x800 ? 2 : code_point < 0x10000 ? 3 : 4;
}

TEST(Utf8Length, AcceptsEveryCodePointInItsShortestEncodingOnly) {
    for (std::uint32_t code_point = 0; code_point < 0x120000; ++code_point) {
        const bool exists = code_point < 0x110000 && (code_point < 0xD800 || code_point > 0xDFFF);
        const std::size_t shortest = shortest_length(code_point);
        ASSERT_EQ(utf8_length(encoded(code_point, shortest) + "x"), exists ? shortest : 0)
            << code_point;
        for (std::size_t length = shortest + 1; length <= 4; ++length)
            ASSERT_EQ(utf8_length(encoded(code_point, length)), 0U) << code_point;
    }
}

TEST(Utf8Length, RefusesWhatIsTruncated) {
    EXPECT_EQ(utf8_length(""), 0U);
    for (const std::string_view whole : {"\xC3\xA4", "\xE2\x82\xAC", "\xF0\x9F\x98\x80"}) {
        EXPECT_EQ(utf8_length(whole), whole.size());
        for (std::size_t size = 1; size < whole.size(); ++size) {
            EXPECT_EQ(utf8_length(whole.substr(0, size)), 0U);
            EXPECT_EQ(utf8_length(std::string(whole.substr(0, size)) + "abc"), 0U);
        }
    }
}

TEST(Utf8Length, RefusesEveryByteThatStartsNoCharacter) {
    for (unsigned byte = 0x80; byte < 0x100; ++byte) {
        const bool starts = byte >= 0xC2 && byte <= 0xF4;
        bool accepted = false;
        for (unsigned second = 0; second < 0x100; ++second) {
            const std::string bytes = {static_cast<char>(byte), static_cast<char>(second), '\x80',
                                       '\x80'};
            accepted = accepted || utf8_length(bytes) != 0;
        }
        EXPECT_EQ(accepted, starts) << byte;
    }
}

TEST(IsControl, IsTrueForTheControlsOfBothRangesAndDelete) {
    for (std::uint32_t code_point = 0; code_point < 0x10000; ++code_point) {
        const bool control = code_point < 0x20 || (code_point >= 0x7F && code_point < 0xA0);
        ASSERT_EQ(is_control(encoded(code_point, shortest_length(code_point))), control)
            << code_point;
    }
    EXPECT_FALSE(is_control(""));
    EXPECT_FALSE(is_control("\xC2"));
}

} // namespace
