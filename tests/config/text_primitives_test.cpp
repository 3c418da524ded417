/* SPDX-License-Identifier: MIT */
#include <corvel.h>

#include "tests/support/guarded_memory.h"
#include "tests/support/output_capture.h"
#include "tests/support/stand_in.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <string_view>

namespace {

using namespace corvel_test;

/** Whether all bytes from an offset on have the value that fills a GuardedString. */
bool untouched_from(GuardedString &buffer, std::size_t offset) {
    return std::all_of(buffer.text() + offset, buffer.text() + buffer.size(),
                       [](char byte) { return byte == '\xA5'; });
}

std::string stripped(std::string_view text, char ch) {
    GuardedString buffer(text);
    return strip(buffer.text(), static_cast<signed char>(ch));
}

std::string escaped(const std::string &text) {
    GuardedString buffer("", 2 * text.size());
    EXPECT_EQ(add_escape(text.c_str(), buffer.text()), buffer.text());
    return buffer.text();
}

std::string unescaped(const std::string &text) {
    GuardedString buffer("", text.size());
    EXPECT_EQ(strip_escape(text.c_str(), buffer.text()), buffer.text());
    return buffer.text();
}

std::string translated(std::string_view text) {
    GuardedString buffer(text, CORVEL_ATTRIBUTE_SIZE - 1);
    EXPECT_EQ(translate_control_code(buffer.text()), buffer.text());
    return buffer.text();
}

/** Strings of any bytes but NUL; half of the characters are special to the shell. */
class RandomStrings {
  public:
    std::string next(std::size_t longest) {
        std::string text(engine_() % (longest + 1), '\0');
        for (char &character : text)
            character = engine_() % 2 == 0 ? special() : any();
        return text;
    }

  private:
    char special() {
        static constexpr std::string_view specials = "\"\\$`";
        return specials[engine_() % specials.size()];
    }
    char any() { return static_cast<char>(1 + engine_() % 255); }

    std::mt19937 engine_{20240229};
};

// --- STRCMP ---

TEST(STRCMP, ReturnsZeroForIdenticalStrings) {
    EXPECT_EQ(STRCMP("abc", "abc"), 0U);
    EXPECT_EQ(STRCMP("", ""), 0U);
    EXPECT_EQ(STRCMP("\x80\xff", "\x80\xff"), 0U);
}

TEST(STRCMP, ReturnsOneForStringsThatDifferInACharacter) {
    EXPECT_EQ(STRCMP("abc", "abd"), 1U);
    EXPECT_EQ(STRCMP("abd", "abc"), 1U);
    EXPECT_EQ(STRCMP("abc", "Abc"), 1U);
    EXPECT_EQ(STRCMP("\x7f", "\xff"), 1U);
}

TEST(STRCMP, ReturnsOneForStringsOfDifferentLength) {
    EXPECT_EQ(STRCMP("ab", "abc"), 1U);
    EXPECT_EQ(STRCMP("abc", "ab"), 1U);
    EXPECT_EQ(STRCMP("", "a"), 1U);
}

TEST(STRCMP, ReadsANullPointerAsTheEmptyString) {
    EXPECT_EQ(STRCMP(nullptr, nullptr), 0U);
    EXPECT_EQ(STRCMP(nullptr, ""), 0U);
    EXPECT_EQ(STRCMP("a", nullptr), 1U);
}

// --- strip ---

TEST(strip, RemovesTheCharacterFromBothEnds) { EXPECT_EQ(stripped("\"x\"", '"'), "x"); }

TEST(strip, RemovesTheCharacterFromTheStartOnly) { EXPECT_EQ(stripped("\"x", '"'), "x"); }

TEST(strip, RemovesTheCharacterFromTheEndOnly) { EXPECT_EQ(stripped("x\"", '"'), "x"); }

TEST(strip, MakesAStringOfTwoSuchCharactersEmpty) { EXPECT_EQ(stripped("\"\"", '"'), ""); }

TEST(strip, MakesAStringOfOneSuchCharacterEmpty) {
    GuardedString buffer("\"");
    char *const result = strip(buffer.text(), '"');
    EXPECT_EQ(result, buffer.text() + 1);
    EXPECT_STREQ(result, "");
    EXPECT_EQ(buffer.text()[0], '\0');
}

TEST(strip, LeavesTheEmptyStringEmpty) {
    GuardedString buffer("");
    EXPECT_EQ(strip(buffer.text(), '"'), buffer.text());
    EXPECT_STREQ(buffer.text(), "");
}

TEST(strip, LeavesAStringWithoutTheCharacterUnchanged) {
    GuardedString buffer("abc");
    EXPECT_EQ(strip(buffer.text(), '"'), buffer.text());
    EXPECT_STREQ(buffer.text(), "abc");
}

TEST(strip, RemovesAtMostOneCharacterFromEachEnd) {
    EXPECT_EQ(stripped("\"\"a\"\"", '"'), "\"a\"");
    EXPECT_EQ(stripped("\"\"\"", '"'), "\"");
}

TEST(strip, KeepsTheCharacterInside) { EXPECT_EQ(stripped("a\"b\"c", '"'), "a\"b\"c"); }

TEST(strip, WorksInPlaceAndReturnsTheAddressOfTheSecondCharacter) {
    GuardedString buffer("'x'");
    EXPECT_EQ(strip(buffer.text(), '\''), buffer.text() + 1);
    EXPECT_EQ(buffer.text()[2], '\0');
}

TEST(strip, RemovesAnyGivenCharacter) {
    EXPECT_EQ(stripped(" x ", ' '), "x");
    EXPECT_EQ(stripped("axa", 'a'), "x");
    EXPECT_EQ(stripped("\"x\"", '\''), "\"x\"");
}

TEST(strip, RemovesCharactersAbove127) {
    EXPECT_EQ(stripped("\xe9x\xe9", '\xe9'), "x");
    EXPECT_EQ(stripped("\xffx\xff", '\xff'), "x");
    EXPECT_EQ(stripped("\x80", '\x80'), "");
    EXPECT_EQ(stripped("\xe9x\xe9", '\x69'), "\xe9x\xe9");
}

TEST(strip, ReturnsANullPointerForANullPointer) { EXPECT_EQ(strip(nullptr, '"'), nullptr); }

// --- add_escape ---

TEST(add_escape, InsertsABackslashBeforeEachSpecialCharacter) {
    EXPECT_EQ(escaped("a\"b$c"), "a\\\"b\\$c");
    EXPECT_EQ(escaped("\\"), "\\\\");
    EXPECT_EQ(escaped("`date`"), "\\`date\\`");
    EXPECT_EQ(escaped("\"\\$`"), "\\\"\\\\\\$\\`");
}

TEST(add_escape, DoesNotEscapeASingleQuote) { EXPECT_EQ(escaped("'"), "'"); }

TEST(add_escape, CopiesEveryOtherByteUnchanged) {
    for (int byte = 1; byte < 256; ++byte) {
        const std::string text(1, static_cast<char>(byte));
        const bool special = text.find_first_of("\"\\$`") == 0;
        EXPECT_EQ(escaped(text), special ? "\\" + text : text) << byte;
    }
}

TEST(add_escape, TerminatesAnEmptyResult) {
    GuardedString buffer("rest", 15);
    add_escape("", buffer.text());
    EXPECT_STREQ(buffer.text(), "");
}

TEST(add_escape, WritesNothingAfterTheTerminator) {
    GuardedString buffer("", 15);
    add_escape("a$", buffer.text());
    EXPECT_STREQ(buffer.text(), "a\\$");
    EXPECT_TRUE(untouched_from(buffer, 4));
}

TEST(add_escape, ReadsANullPointerAsTheEmptyString) {
    GuardedString buffer("rest", 15);
    EXPECT_EQ(add_escape(nullptr, buffer.text()), buffer.text());
    EXPECT_STREQ(buffer.text(), "");
}

// --- str_regular ---

TEST(str_regular, ReturnsTheSameAsAddEscape) {
    RandomStrings strings;
    for (int round = 0; round < 2000; ++round) {
        const std::string text = strings.next(100);
        GuardedString buffer("", 2 * text.size());
        EXPECT_EQ(str_regular(text.c_str(), buffer.text()), buffer.text());
        ASSERT_EQ(std::string(buffer.text()), escaped(text));
    }
}

// --- strip_escape ---

TEST(strip_escape, RemovesTheBackslashBeforeASpecialCharacter) {
    EXPECT_EQ(unescaped("a\\\"b"), "a\"b");
    EXPECT_EQ(unescaped("\\$\\`"), "$`");
}

TEST(strip_escape, KeepsTheBackslashBeforeAnyOtherCharacter) {
    EXPECT_EQ(unescaped("a\\nb"), "a\\nb");
    EXPECT_EQ(unescaped("\\'"), "\\'");
    EXPECT_EQ(unescaped("\\\xe9"), "\\\xe9");
}

TEST(strip_escape, KeepsABackslashAtTheEnd) {
    EXPECT_EQ(unescaped("abc\\"), "abc\\");
    EXPECT_EQ(unescaped("\\"), "\\");
}

TEST(strip_escape, ContinuesAfterTheEscapedCharacter) {
    EXPECT_EQ(unescaped("\\\\\\\\"), "\\\\");
    EXPECT_EQ(unescaped("\\\\\""), "\\\"");
    EXPECT_EQ(unescaped("\\\\n"), "\\n");
    EXPECT_EQ(unescaped("\\\\\\"), "\\\\");
}

TEST(strip_escape, CopiesAStringWithoutBackslashes) {
    EXPECT_EQ(unescaped("a \"$` b"), "a \"$` b");
    EXPECT_EQ(unescaped(""), "");
}

TEST(strip_escape, WorksInPlace) {
    GuardedString buffer("\\\"a\\\\b\\$\\c");
    EXPECT_EQ(strip_escape(buffer.text(), buffer.text()), buffer.text());
    EXPECT_STREQ(buffer.text(), "\"a\\b$\\c");
}

TEST(strip_escape, ReadsANullPointerAsTheEmptyString) {
    GuardedString buffer("rest", 15);
    EXPECT_EQ(strip_escape(nullptr, buffer.text()), buffer.text());
    EXPECT_STREQ(buffer.text(), "");
}

TEST(strip_escape, UndoesAddEscapeForAnyString) {
    RandomStrings strings;
    for (int round = 0; round < 20000; ++round) {
        const std::string text = strings.next(64);
        ASSERT_EQ(unescaped(escaped(text)), text);
    }
}

TEST(strip_escape, NeverReturnsMoreThanTheSource) {
    RandomStrings strings;
    for (int round = 0; round < 5000; ++round) {
        const std::string text = strings.next(64);
        ASSERT_LE(unescaped(text).size(), text.size());
    }
}

// --- translate_control_code ---

TEST(translate_control_code, ReplacesEachDoubleQuote) {
    EXPECT_EQ(translated("say \"hi\""), "say &quot;hi&quot;");
    EXPECT_EQ(translated("\""), "&quot;");
    EXPECT_EQ(translated("\"\"\""), "&quot;&quot;&quot;");
}

TEST(translate_control_code, TranslatesNoOtherCharacter) {
    for (int byte = 1; byte < 256; ++byte) {
        const std::string text(1, static_cast<char>(byte));
        EXPECT_EQ(translated(text), byte == '"' ? "&quot;" : text) << byte;
        EXPECT_EQ(translated("\"" + text), byte == '"' ? "&quot;&quot;" : "&quot;" + text) << byte;
    }
}

TEST(translate_control_code, LeavesAStringWithoutDoubleQuotesUnchanged) {
    EXPECT_EQ(translated(""), "");
    EXPECT_EQ(translated("<a href='x'>&amp;"), "<a href='x'>&amp;");
}

TEST(translate_control_code, LeavesALongStringWithoutDoubleQuotesUnchanged) {
    for (const std::size_t length : {199U, 200U, 201U, 5000U}) {
        const std::string text(length, 'x');
        EXPECT_EQ(translated(text), text) << length;
    }
}

TEST(translate_control_code, ReturnsUpTo199Characters) {
    EXPECT_EQ(translated(std::string(193, 'x') + "\""), std::string(193, 'x') + "&quot;");
    EXPECT_EQ(translated("\"" + std::string(193, 'x')), "&quot;" + std::string(193, 'x'));
}

TEST(translate_control_code, TruncatesBeforeTheFirstCharacterThatDoesNotFit) {
    EXPECT_EQ(translated("\"" + std::string(194, 'x')), "&quot;" + std::string(193, 'x'));
    EXPECT_EQ(translated("\"" + std::string(3000, 'x')), "&quot;" + std::string(193, 'x'));
}

TEST(translate_control_code, NeverSplitsAnEntity) {
    for (std::size_t before = 194; before < 200; ++before)
        EXPECT_EQ(translated(std::string(before, 'x') + "\"y"), std::string(before, 'x')) << before;
    std::string entities;
    for (int i = 0; i < 33; ++i)
        entities += "&quot;";
    EXPECT_EQ(translated(std::string(199, '"')), entities);
    EXPECT_EQ(translated(std::string(33, '"') + "y"), entities + "y");
    EXPECT_EQ(translated(std::string(33, '"') + "yz"), entities + "y");
}

TEST(translate_control_code, WritesAtMost200Bytes) {
    for (const std::size_t quotes : {1U, 33U, 34U, 100U, 150U}) {
        GuardedString buffer(std::string(quotes, '"') + std::string(49, 'x'), 299);
        translate_control_code(buffer.text());
        EXPECT_LE(std::strlen(buffer.text()), CORVEL_ATTRIBUTE_SIZE - 1U);
        EXPECT_TRUE(
            untouched_from(buffer, std::max<std::size_t>(quotes + 50, CORVEL_ATTRIBUTE_SIZE)))
            << quotes;
    }
}

TEST(translate_control_code, ReturnsANullPointerForANullPointer) {
    EXPECT_EQ(translate_control_code(nullptr), nullptr);
}

// --- DFPrintf ---

TEST(DFPrintf, PrintsNothing) {
    EXPECT_EQ(capture_stdout([] { DFPrintf(stdout, "%s %d\n", "text", 1); }), "");
    EXPECT_EQ(capture_stderr([] { DFPrintf(stderr, "text\n"); }), "");
}

TEST(DFPrintf, StoresNothingForAPercentN) {
    int written = 7;
    DFPrintf(nullptr, "%d", written);
    DFPrintf(stderr, "text%n", &written);
    EXPECT_EQ(written, 7);
}

// --- All functions ---

TEST(TextPrimitives, AllocateNothing) {
    GuardedString text("\"say $x\"", 255);
    GuardedString copy("", 599);
    const CountCalls allocations(call_allocation);
    STRCMP(text.text(), copy.text());
    add_escape(text.text(), copy.text());
    str_regular(text.text(), copy.text());
    strip_escape(copy.text(), copy.text());
    translate_control_code(text.text());
    strip(text.text(), '"');
    DFPrintf(stderr, "%s", text.text());
    EXPECT_EQ(allocations.count(), 0U);
}

} // namespace
