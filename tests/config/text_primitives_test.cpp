/* SPDX-License-Identifier: MIT */
#include <corvel.h>

#include "tests/support/output_capture.h"
#include "tests/support/stand_in.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace corvel_test;

/** A text at the front of a heap block of an exact size, so that no byte behind it is free to use.
 */
class Buffer {
  public:
    explicit Buffer(std::string_view text) : Buffer(text, text.size() + 1) {}
    Buffer(std::string_view text, std::size_t size) : bytes_(size, guard) {
        bytes_.at(text.copy(bytes_.data(), size - 1)) = '\0';
    }

    [[nodiscard]] char *get() { return bytes_.data(); }
    [[nodiscard]] std::string text() const { return bytes_.data(); }
    /** Whether every byte from an offset on was left alone. */
    [[nodiscard]] bool untouched_from(std::size_t offset) const {
        return std::all_of(bytes_.begin() + static_cast<std::ptrdiff_t>(offset), bytes_.end(),
                           [](char byte) { return byte == guard; });
    }

  private:
    static constexpr char guard = 0x5a;
    std::vector<char> bytes_;
};

std::string stripped(std::string_view text, char ch) {
    Buffer buffer(text);
    return strip(buffer.get(), static_cast<signed char>(ch));
}

std::string escaped(const std::string &text) {
    Buffer buffer("", 2 * text.size() + 1);
    EXPECT_EQ(add_escape(text.c_str(), buffer.get()), buffer.get());
    return buffer.text();
}

std::string unescaped(const std::string &text) {
    Buffer buffer("", text.size() + 1);
    EXPECT_EQ(strip_escape(text.c_str(), buffer.get()), buffer.get());
    return buffer.text();
}

std::string translated(std::string_view text) {
    Buffer buffer(text, std::max<std::size_t>(text.size() + 1, 200));
    EXPECT_EQ(translate_control_code(buffer.get()), buffer.get());
    return buffer.text();
}

/** Texts of any bytes but NUL, in which the characters with a meaning of their own are frequent. */
class RandomTexts {
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

TEST(Strcmp, IsZeroForIdenticalTexts) {
    EXPECT_EQ(STRCMP("abc", "abc"), 0U);
    EXPECT_EQ(STRCMP("", ""), 0U);
    EXPECT_EQ(STRCMP("\x80\xff", "\x80\xff"), 0U);
}

TEST(Strcmp, IsOneForTextsThatDifferInACharacter) {
    EXPECT_EQ(STRCMP("abc", "abd"), 1U);
    EXPECT_EQ(STRCMP("abd", "abc"), 1U);
    EXPECT_EQ(STRCMP("abc", "Abc"), 1U);
    EXPECT_EQ(STRCMP("\x7f", "\xff"), 1U);
}

TEST(Strcmp, IsOneForTextsThatDifferInLength) {
    EXPECT_EQ(STRCMP("ab", "abc"), 1U);
    EXPECT_EQ(STRCMP("abc", "ab"), 1U);
    EXPECT_EQ(STRCMP("", "a"), 1U);
}

TEST(Strcmp, TakesANullPointerForTheEmptyText) {
    EXPECT_EQ(STRCMP(nullptr, nullptr), 0U);
    EXPECT_EQ(STRCMP(nullptr, ""), 0U);
    EXPECT_EQ(STRCMP("a", nullptr), 1U);
}

TEST(Strip, RemovesTheCharacterFromBothEnds) { EXPECT_EQ(stripped("\"x\"", '"'), "x"); }

TEST(Strip, RemovesTheCharacterFromTheStartAlone) { EXPECT_EQ(stripped("\"x", '"'), "x"); }

TEST(Strip, RemovesTheCharacterFromTheEndAlone) { EXPECT_EQ(stripped("x\"", '"'), "x"); }

TEST(Strip, MakesTwoCharactersEmpty) { EXPECT_EQ(stripped("\"\"", '"'), ""); }

TEST(Strip, MakesTheCharacterAloneEmpty) {
    Buffer buffer("\"");
    char *const result = strip(buffer.get(), '"');
    EXPECT_EQ(result, buffer.get() + 1);
    EXPECT_STREQ(result, "");
    EXPECT_EQ(buffer.get()[0], '\0');
}

TEST(Strip, LeavesTheEmptyTextEmpty) {
    Buffer buffer("");
    EXPECT_EQ(strip(buffer.get(), '"'), buffer.get());
    EXPECT_EQ(buffer.text(), "");
}

TEST(Strip, ReturnsATextWithoutTheCharacterAsItIs) {
    Buffer buffer("abc");
    EXPECT_EQ(strip(buffer.get(), '"'), buffer.get());
    EXPECT_EQ(buffer.text(), "abc");
}

TEST(Strip, TakesOneCharacterFromEachEndOnly) {
    EXPECT_EQ(stripped("\"\"a\"\"", '"'), "\"a\"");
    EXPECT_EQ(stripped("\"\"\"", '"'), "\"");
}

TEST(Strip, LeavesTheCharacterInsideAlone) { EXPECT_EQ(stripped("a\"b\"c", '"'), "a\"b\"c"); }

TEST(Strip, WorksInPlaceAndPointsBehindTheFirstCharacter) {
    Buffer buffer("'x'");
    EXPECT_EQ(strip(buffer.get(), '\''), buffer.get() + 1);
    EXPECT_EQ(buffer.get()[2], '\0');
}

TEST(Strip, RemovesAnyCharacterThatIsAskedFor) {
    EXPECT_EQ(stripped(" x ", ' '), "x");
    EXPECT_EQ(stripped("axa", 'a'), "x");
    EXPECT_EQ(stripped("\"x\"", '\''), "\"x\"");
}

TEST(Strip, RemovesCharactersAbove127) {
    EXPECT_EQ(stripped("\xe9x\xe9", '\xe9'), "x");
    EXPECT_EQ(stripped("\xffx\xff", '\xff'), "x");
    EXPECT_EQ(stripped("\x80", '\x80'), "");
    EXPECT_EQ(stripped("\xe9x\xe9", '\x69'), "\xe9x\xe9");
}

TEST(Strip, ReturnsANullPointerForANullPointer) { EXPECT_EQ(strip(nullptr, '"'), nullptr); }

TEST(AddEscape, PutsABackslashInFrontOfEachSpecialCharacter) {
    EXPECT_EQ(escaped("a\"b$c"), "a\\\"b\\$c");
    EXPECT_EQ(escaped("\\"), "\\\\");
    EXPECT_EQ(escaped("`date`"), "\\`date\\`");
    EXPECT_EQ(escaped("\"\\$`"), "\\\"\\\\\\$\\`");
}

TEST(AddEscape, LeavesASingleQuoteAlone) { EXPECT_EQ(escaped("'"), "'"); }

TEST(AddEscape, CopiesEveryOtherByteUnchanged) {
    for (int byte = 1; byte < 256; ++byte) {
        const std::string text(1, static_cast<char>(byte));
        const bool special = text.find_first_of("\"\\$`") == 0;
        EXPECT_EQ(escaped(text), special ? "\\" + text : text) << byte;
    }
}

TEST(AddEscape, TerminatesTheResultOfTheEmptyText) {
    Buffer buffer("rest", 16);
    add_escape("", buffer.get());
    EXPECT_EQ(buffer.text(), "");
}

TEST(AddEscape, WritesNothingBehindTheTerminator) {
    Buffer buffer("", 16);
    add_escape("a$", buffer.get());
    EXPECT_EQ(buffer.text(), "a\\$");
    EXPECT_TRUE(buffer.untouched_from(4));
}

TEST(AddEscape, TakesANullPointerForTheEmptyText) {
    Buffer buffer("rest", 16);
    EXPECT_EQ(add_escape(nullptr, buffer.get()), buffer.get());
    EXPECT_EQ(buffer.text(), "");
}

TEST(StrRegular, GivesTheSameAsAddEscape) {
    RandomTexts texts;
    for (int round = 0; round < 2000; ++round) {
        const std::string text = texts.next(100);
        Buffer buffer("", 2 * text.size() + 1);
        EXPECT_EQ(str_regular(text.c_str(), buffer.get()), buffer.get());
        ASSERT_EQ(buffer.text(), escaped(text));
    }
}

TEST(StripEscape, DropsTheBackslashInFrontOfASpecialCharacter) {
    EXPECT_EQ(unescaped("a\\\"b"), "a\"b");
    EXPECT_EQ(unescaped("\\$\\`"), "$`");
}

TEST(StripEscape, KeepsTheBackslashInFrontOfAnotherCharacter) {
    EXPECT_EQ(unescaped("a\\nb"), "a\\nb");
    EXPECT_EQ(unescaped("\\'"), "\\'");
    EXPECT_EQ(unescaped("\\\xe9"), "\\\xe9");
}

TEST(StripEscape, KeepsABackslashAtTheEnd) {
    EXPECT_EQ(unescaped("abc\\"), "abc\\");
    EXPECT_EQ(unescaped("\\"), "\\");
}

TEST(StripEscape, GoesOnBehindTheCharacterThatWasEscaped) {
    EXPECT_EQ(unescaped("\\\\\\\\"), "\\\\");
    EXPECT_EQ(unescaped("\\\\\""), "\\\"");
    EXPECT_EQ(unescaped("\\\\n"), "\\n");
    EXPECT_EQ(unescaped("\\\\\\"), "\\\\");
}

TEST(StripEscape, CopiesATextWithoutBackslashes) {
    EXPECT_EQ(unescaped("a \"$` b"), "a \"$` b");
    EXPECT_EQ(unescaped(""), "");
}

TEST(StripEscape, WorksInPlace) {
    Buffer buffer("\\\"a\\\\b\\$\\c");
    EXPECT_EQ(strip_escape(buffer.get(), buffer.get()), buffer.get());
    EXPECT_EQ(buffer.text(), "\"a\\b$\\c");
}

TEST(StripEscape, TakesANullPointerForTheEmptyText) {
    Buffer buffer("rest", 16);
    EXPECT_EQ(strip_escape(nullptr, buffer.get()), buffer.get());
    EXPECT_EQ(buffer.text(), "");
}

TEST(StripEscape, UndoesAddEscapeOnAnyText) {
    RandomTexts texts;
    for (int round = 0; round < 20000; ++round) {
        const std::string text = texts.next(64);
        ASSERT_EQ(unescaped(escaped(text)), text);
    }
}

TEST(StripEscape, IsNeverLongerThanItsSource) {
    RandomTexts texts;
    for (int round = 0; round < 5000; ++round) {
        const std::string text = texts.next(64);
        ASSERT_LE(unescaped(text).size(), text.size());
    }
}

TEST(TranslateControlCode, ReplacesEachDoubleQuote) {
    EXPECT_EQ(translated("say \"hi\""), "say &quot;hi&quot;");
    EXPECT_EQ(translated("\""), "&quot;");
    EXPECT_EQ(translated("\"\"\""), "&quot;&quot;&quot;");
}

TEST(TranslateControlCode, TranslatesNoOtherCharacter) {
    for (int byte = 1; byte < 256; ++byte) {
        const std::string text(1, static_cast<char>(byte));
        EXPECT_EQ(translated(text), byte == '"' ? "&quot;" : text) << byte;
        EXPECT_EQ(translated("\"" + text), byte == '"' ? "&quot;&quot;" : "&quot;" + text) << byte;
    }
}

TEST(TranslateControlCode, LeavesATextWithoutDoubleQuotesUnchanged) {
    EXPECT_EQ(translated(""), "");
    EXPECT_EQ(translated("<a href='x'>&amp;"), "<a href='x'>&amp;");
}

TEST(TranslateControlCode, LeavesALongTextWithoutDoubleQuotesUnchanged) {
    for (const std::size_t length : {199U, 200U, 201U, 5000U}) {
        const std::string text(length, 'x');
        EXPECT_EQ(translated(text), text) << length;
    }
}

TEST(TranslateControlCode, FillsUpTo199Characters) {
    EXPECT_EQ(translated(std::string(193, 'x') + "\""), std::string(193, 'x') + "&quot;");
    EXPECT_EQ(translated("\"" + std::string(193, 'x')), "&quot;" + std::string(193, 'x'));
}

TEST(TranslateControlCode, CutsInFrontOfTheFirstCharacterThatDoesNotFit) {
    EXPECT_EQ(translated("\"" + std::string(194, 'x')), "&quot;" + std::string(193, 'x'));
    EXPECT_EQ(translated("\"" + std::string(3000, 'x')), "&quot;" + std::string(193, 'x'));
}

TEST(TranslateControlCode, NeverCutsAnEntityInTwo) {
    for (std::size_t before = 194; before < 200; ++before)
        EXPECT_EQ(translated(std::string(before, 'x') + "\"y"), std::string(before, 'x')) << before;
    std::string entities;
    for (int i = 0; i < 33; ++i)
        entities += "&quot;";
    EXPECT_EQ(translated(std::string(199, '"')), entities);
    EXPECT_EQ(translated(std::string(33, '"') + "y"), entities + "y");
    EXPECT_EQ(translated(std::string(33, '"') + "yz"), entities + "y");
}

TEST(TranslateControlCode, NeverWritesBeyond200Bytes) {
    for (const std::size_t quotes : {1U, 33U, 34U, 100U, 150U}) {
        Buffer buffer(std::string(quotes, '"') + std::string(49, 'x'), 300);
        translate_control_code(buffer.get());
        EXPECT_LE(buffer.text().size(), 199U);
        EXPECT_TRUE(buffer.untouched_from(std::max<std::size_t>(quotes + 50, 200))) << quotes;
    }
}

TEST(TranslateControlCode, ReturnsANullPointerForANullPointer) {
    EXPECT_EQ(translate_control_code(nullptr), nullptr);
}

TEST(DfPrintf, PrintsNothing) {
    EXPECT_EQ(capture_stdout([] { DFPrintf(stdout, "%s %d\n", "text", 1); }), "");
    EXPECT_EQ(capture_stderr([] { DFPrintf(stderr, "text\n"); }), "");
}

TEST(DfPrintf, EvaluatesNothing) {
    int written = 7;
    DFPrintf(nullptr, "%d", written);
    DFPrintf(stderr, "text%n", &written);
    EXPECT_EQ(written, 7);
}

TEST(TextPrimitives, AllocateNothing) {
    Buffer text("\"say $x\"", 256);
    Buffer copy("", 600);
    const CountCalls allocations(call_allocation);
    STRCMP(text.get(), copy.get());
    add_escape(text.get(), copy.get());
    str_regular(text.get(), copy.get());
    strip_escape(copy.get(), copy.get());
    translate_control_code(text.get());
    strip(text.get(), '"');
    DFPrintf(stderr, "%s", text.get());
    EXPECT_EQ(allocations.count(), 0U);
}

} // namespace
