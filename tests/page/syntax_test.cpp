/* SPDX-License-Identifier: MIT */
#include "page/syntax.h"

#include <cctype>
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <string_view>

namespace {

using corvel::equals_ignoring_case;
using corvel::has_control_character;
using corvel::hex_byte;
using corvel::index_ignoring_case;
using corvel::span_of;
using corvel::trimmed;

TEST(EqualsIgnoringCase, ComparesAllCharactersAndTheLength) {
    EXPECT_TRUE(equals_ignoring_case("Form-Data", "form-data"));
    EXPECT_TRUE(equals_ignoring_case("", ""));
    EXPECT_FALSE(equals_ignoring_case("form-dat", "form-data"));
    EXPECT_FALSE(equals_ignoring_case("form-data", "form-dat"));
    EXPECT_FALSE(equals_ignoring_case("form_data", "form-data"));
}

TEST(EqualsIgnoringCase, ComparesNothingAfterTheView) {
    EXPECT_TRUE(equals_ignoring_case(std::string_view("name=value").substr(0, 4), "NAME"));
}

TEST(EqualsIgnoringCase, TreatsANulAsACharacter) {
    EXPECT_FALSE(equals_ignoring_case(std::string_view("name\0", 5), "name"));
    EXPECT_FALSE(equals_ignoring_case(std::string_view("nam\0", 4), "name"));
}

TEST(IndexIgnoringCase, CountsTheStringsBeforeTheEqualOne) {
    static constexpr char list[] = "One\0two\0three\0";
    EXPECT_EQ(index_ignoring_case(list, "one"), 0);
    EXPECT_EQ(index_ignoring_case(list, "THREE"), 2);
    EXPECT_EQ(index_ignoring_case(list, "tw"), -1);
    EXPECT_EQ(index_ignoring_case(list, "twos"), -1);
    EXPECT_EQ(index_ignoring_case(list, ""), -1);
    EXPECT_EQ(index_ignoring_case("", "one"), -1);
}

TEST(SpanOf, CountsLettersAndDigitsOfAsciiAndTheOthers) {
    for (int byte = 0; byte < 256; ++byte) {
        const char character = static_cast<char>(byte);
        const bool is_letter =
            (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || byte == '-';
        const bool is_digit = byte >= '0' && byte <= '9';
        EXPECT_EQ(span_of(std::string{'a', character, 'z'}.c_str(), "-"),
                  is_letter || is_digit ? 3U : 1U)
            << byte;
    }
    EXPECT_EQ(span_of("", "-"), 0U);
    EXPECT_EQ(span_of("a-b", ""), 1U);
}

TEST(HexByte, IsTheValueOfTwoDigitsOfEitherCase) {
    for (int high = 0; high < 256; ++high)
        for (int low = 0; low < 256; ++low) {
            const char digits[] = {static_cast<char>(high), static_cast<char>(low), '\0'};
            const bool is_hex = std::isxdigit(high) != 0 && std::isxdigit(low) != 0;
            const long expected = is_hex ? std::strtol(digits, nullptr, 16) : -1;
            ASSERT_EQ(hex_byte(digits), expected) << digits;
        }
}

TEST(HasControlCharacter, FindsEachControlOfAscii) {
    for (int byte = 1; byte < 256; ++byte)
        EXPECT_EQ(has_control_character(std::string{'a', static_cast<char>(byte)}.c_str()),
                  byte < 0x20 || byte == 0x7F)
            << byte;
    EXPECT_FALSE(has_control_character(""));
}

TEST(Trimmed, RemovesWhiteSpaceAtBothEnds) {
    EXPECT_EQ(trimmed(" \t a\t b \t"), "a\t b");
    EXPECT_EQ(trimmed("a"), "a");
    EXPECT_EQ(trimmed("\na\r"), "a");
    EXPECT_EQ(trimmed(" \t "), "");
    EXPECT_EQ(trimmed(""), "");
}

} // namespace
