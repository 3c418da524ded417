/* SPDX-License-Identifier: MIT */
#include <corvel.h>

#include "tests/support/child_process.h"
#include "tests/support/descriptors.h"
#include "tests/support/fenced.h"
#include "tests/support/stand_in.h"
#include "tests/support/temporary_directory.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <malloc.h>
#include <random>
#include <string>
#include <string_view>

namespace {

using namespace corvel_test;
using namespace std::string_literals;

/** The value of a digit, or -1. */
int digit_value(char digit) {
    constexpr std::string_view digits = "00112233445566778899aAbBcCdDeEfF";
    const std::size_t at = digits.find(digit);
    return at == std::string_view::npos ? -1 : static_cast<int>(at / 2);
}

/** A pair of digits as unchecked converters take it: what is no digit is worth -1. */
char unchecked_pair(char high, char low) {
    return static_cast<char>(static_cast<unsigned>(digit_value(high)) * 16U +
                             static_cast<unsigned>(digit_value(low)));
}

std::string upper_case_hex(std::string_view bytes) {
    std::string text;
    for (const char byte : bytes) {
        char pair[3];
        std::snprintf(pair, sizeof pair, "%02X", static_cast<unsigned char>(byte));
        text += pair;
    }
    return text;
}

char upper_case(char character) {
    constexpr std::string_view small = "abcdefghijklmnopqrstuvwxyz";
    constexpr std::string_view capital = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";
    const std::size_t at = small.find(character);
    return at == std::string_view::npos ? character : capital[at];
}

/** Calls @p body with every text of one and of two bytes, NUL included. */
void for_each_short_text(const std::function<void(const std::string &)> &body) {
    for (int first = 0; first < 256; ++first) {
        std::string text(1, static_cast<char>(first));
        body(text);
        text += '\0';
        for (int second = 0; second < 256; ++second) {
            text[1] = static_cast<char>(second);
            body(text);
        }
    }
}

class RandomTexts {
  public:
    unsigned number(std::size_t below) { return static_cast<unsigned>(engine_() % below); }

    std::string bytes(std::size_t length) {
        std::string text(length, '\0');
        for (char &byte : text)
            byte = static_cast<char>(engine_());
        return text;
    }
    /** Mostly digits; no NUL. */
    std::string hexadecimal(std::size_t length) {
        constexpr std::string_view digits = "0123456789abcdefABCDEF";
        std::string text(length, '\0');
        for (char &character : text)
            character = number(8) != 0 ? digits[number(digits.size())] : any();
        return text;
    }

  private:
    char any() { return static_cast<char>(1 + number(255)); }

    std::mt19937 engine_{20260621};
};

TEST(Hex2Int, GivesTheValueOfADigitOfEitherCase) {
    EXPECT_EQ(hex2int('0'), 0);
    EXPECT_EQ(hex2int('9'), 9);
    EXPECT_EQ(hex2int('a'), 10);
    EXPECT_EQ(hex2int('A'), 10);
    EXPECT_EQ(hex2int('f'), 15);
    EXPECT_EQ(hex2int('F'), 15);
}

TEST(Hex2Int, IsMinusOneForAnythingElse) {
    for (const char character : "g/:@G`\x7f"s)
        EXPECT_EQ(hex2int(character), -1) << character;
    for (int byte = 0; byte < 256; ++byte)
        EXPECT_EQ(hex2int(static_cast<char>(byte)), digit_value(static_cast<char>(byte))) << byte;
    for (int byte = 128; byte < 256; ++byte)
        EXPECT_EQ(hex2int(static_cast<char>(byte)), -1) << byte;
}

TEST(Ascii2Hex, PrintsEachByteAsTwoUpperCaseDigits) {
    const unsigned char bytes[] = {0x00, 0xAB};
    char text[5];
    EXPECT_EQ(ascii2hex(bytes, 2, text), text);
    EXPECT_STREQ(text, "00AB");
}

/** What is printed of bytes that a fence follows, into a buffer that a fence follows. */
std::string printed(const std::string &bytes) {
    static FencedText input;
    static FencedRoom room(0);
    char *const out = room.renew(2 * bytes.size() + 1);
    EXPECT_EQ(ascii2hex(input.hold_bytes(bytes), static_cast<unsigned>(bytes.size()), out), out);
    EXPECT_TRUE(room.front_is_intact());
    return room.bytes();
}

TEST(Ascii2Hex, PrintsAnyBytesAndATerminator) {
    for_each_short_text([](const std::string &bytes) {
        ASSERT_EQ(printed(bytes), upper_case_hex(bytes) + '\0') << testing::PrintToString(bytes);
    });
    RandomTexts random;
    for (int round = 0; round < 5000; ++round) {
        const std::string bytes = random.bytes(1 + random.number(200));
        ASSERT_EQ(printed(bytes), upper_case_hex(bytes) + '\0');
    }
}

TEST(Ascii2Hex, WritesNothingForNoBytes) {
    char text[] = "as it was";
    EXPECT_EQ(ascii2hex(nullptr, 0, text), text);
    EXPECT_STREQ(text, "as it was");
}

TEST(Ascii2Hex, MakesABlockThatTheCallerReleases) {
    RandomTexts random;
    FencedText input;
    const CountCalls allocations(call_allocation);
    const CountCalls releases(call_free);
    for (unsigned n = 0; n < 70; ++n) {
        const std::string bytes = random.bytes(n);
        const unsigned long allocated_before = allocations.count();
        const unsigned char *const start = input.hold_bytes(bytes);
        char *const text = ascii2hex(start, n, nullptr);
        const unsigned long allocated = allocations.count() - allocated_before;
        EXPECT_EQ(allocated, 1U);
        ASSERT_NE(text, nullptr);
        EXPECT_EQ(std::string(text), upper_case_hex(bytes));
        const unsigned long released_before = releases.count();
        free_buffer(text, 2 * n);
        const unsigned long released = releases.count() - released_before;
        EXPECT_EQ(released, 1U);
    }
}

TEST(Ascii2Hex, KeepsTheTerminatorInsideOfItsBlock) {
    for (unsigned n = 0; n < 200; ++n) {
        const std::string bytes(n, 'x');
        char *const text =
            ascii2hex(reinterpret_cast<const unsigned char *>(bytes.data()), n, nullptr);
        ASSERT_NE(text, nullptr);
        EXPECT_GE(malloc_usable_size(text), 2U * n + 1) << n;
        EXPECT_EQ(text[2 * n], '\0') << n;
        free_buffer(text, 2 * n);
    }
}

TEST(Ascii2Hex, IsNullWithoutMemory) {
    const unsigned char bytes[] = {1, 2, 3};
    EXPECT_EQ(for_each_allocation_failure([&](AllocationTrial &trial) {
                  char *const text = trial.run([&] { return ascii2hex(bytes, 3, nullptr); });
                  if (trial.failed())
                      EXPECT_EQ(text, nullptr);
                  else
                      EXPECT_STREQ(text, "010203");
                  free_buffer(text, 6);
              }),
              1U);
}

TEST(Ascii2Hex, IsNullForMoreThanFitsIntoTheMemory) {
    // Where a size has more than 32 bits there is memory for it, so that the bytes had to be there.
    if constexpr (sizeof(std::size_t) == 4) {
        expect_in_child([] {
            const unsigned char byte = 1;
            for (const unsigned n : {UINT_MAX, UINT_MAX - 1, UINT_MAX / 2 + 1, UINT_MAX / 2})
                EXPECT_EQ(ascii2hex(&byte, n, nullptr), nullptr) << n;
        });
    }
}

TEST(Ascii2Hex, AllocatesNothingForABufferOfTheCaller) {
    const unsigned char bytes[] = {1, 2, 3};
    char text[7];
    const CountCalls allocations(call_allocation);
    ascii2hex(bytes, 3, text);
    EXPECT_EQ(allocations.count(), 0U);
}

/** The characters that a text becomes, with the terminator, and nothing behind that. */
std::string characters(const std::string &hex) {
    static FencedText input;
    static FencedRoom room(0);
    char *const out = room.renew(hex.size() / 2 + 1);
    *out = '\0';
    EXPECT_EQ(hex2ascii(input.hold(hex), out), out);
    EXPECT_TRUE(room.front_is_intact());
    return room.bytes();
}

std::string expected_characters(const std::string &hex) {
    std::string expected;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
        expected += unchecked_pair(hex[i], hex[i + 1]);
    return expected + '\0';
}

TEST(Hex2Ascii, TurnsPairsOfDigitsIntoCharacters) {
    EXPECT_EQ(characters("414243"), "ABC\0"s);
    EXPECT_EQ(characters("4a4B4c"), "JKL\0"s);
    EXPECT_EQ(characters("80fF"), "\x80\xFF\0"s);
    EXPECT_EQ(characters(""), "\0"s);
}

TEST(Hex2Ascii, DropsAnOddLastDigit) {
    EXPECT_EQ(characters("4"), "\0"s);
    EXPECT_EQ(characters("41424"), "AB\0"s);
}

TEST(Hex2Ascii, TakesWhatIsNoDigitForMinusOne) {
    EXPECT_EQ(characters("ZZ"), "\xEF\0"s);
    EXPECT_EQ(characters("4Z"), "\x3F\0"s);
    EXPECT_EQ(characters("Z1"), "\xF1\0"s);
    EXPECT_EQ(characters("0Z"), "\xFF\0"s);
    EXPECT_EQ(characters("\xE9\xE9"), "\xEF\0"s);
}

TEST(Hex2Ascii, GoesOnBehindAZero) { EXPECT_EQ(characters("41004300"), "A\0C\0\0"s); }

TEST(Hex2Ascii, GivesTheSameForEveryText) {
    for_each_short_text([](const std::string &hex) {
        if (hex.find('\0') == std::string::npos) {
            ASSERT_EQ(characters(hex), expected_characters(hex)) << testing::PrintToString(hex);
        }
    });
    RandomTexts random;
    for (int round = 0; round < 10000; ++round) {
        const std::string hex = random.hexadecimal(random.number(300));
        ASSERT_EQ(characters(hex), expected_characters(hex)) << testing::PrintToString(hex);
    }
}

TEST(Hex2Ascii, UndoesAscii2Hex) {
    RandomTexts random;
    for (int round = 0; round < 2000; ++round) {
        const std::string bytes = random.bytes(1 + random.number(200));
        const std::string hex = printed(bytes);
        ASSERT_EQ(characters(hex.substr(0, hex.size() - 1)), bytes + '\0');
    }
}

TEST(Hex2Ascii, TakesNullForAnEmptyText) {
    const FencedRoom room(1, '\0');
    EXPECT_EQ(hex2ascii(nullptr, room.start()), room.start());
    EXPECT_EQ(room.bytes(), "\0"s);
}

struct Bytes {
    int result;
    std::string bytes;
    bool operator==(const Bytes &) const = default;
};

/** What a text of a stated length becomes in a buffer that is filled with '#'. */
Bytes strict(const std::string &hex, int length) {
    static FencedText input;
    static FencedRoom room(0);
    room.renew(length > 0 ? static_cast<std::size_t>(length) / 2 : 0);
    const int result = str2byte(input.hold(hex), length, room.bytes_start());
    EXPECT_TRUE(room.front_is_intact());
    return {result, room.bytes()};
}

Bytes strict(const std::string &hex) { return strict(hex, static_cast<int>(hex.size())); }

Bytes expected_strict(const std::string &hex) {
    std::string bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
        if (digit_value(hex[i]) < 0 || digit_value(hex[i + 1]) < 0)
            return {-1, bytes + std::string(hex.size() / 2 - i / 2, '#')};
        bytes += unchecked_pair(hex[i], hex[i + 1]);
    }
    return {0, bytes};
}

TEST(Str2Byte, TurnsPairsOfDigitsIntoBytes) {
    EXPECT_EQ(strict("0aF9"), (Bytes{0, "\x0A\xF9"}));
    EXPECT_EQ(strict("00"), (Bytes{0, "\0"s}));
    EXPECT_EQ(strict(""), (Bytes{0, ""}));
}

TEST(Str2Byte, StopsAtTheFirstPairThatIsNotOfDigits) {
    EXPECT_EQ(strict("0aZZ"), (Bytes{-1, "\x0A#"}));
    EXPECT_EQ(strict("0a1Z02"), (Bytes{-1, "\x0A##"}));
    EXPECT_EQ(strict("Z1"), (Bytes{-1, "#"}));
    EXPECT_EQ(strict("1\xB1"), (Bytes{-1, "#"}));
}

TEST(Str2Byte, IgnoresAnOddLastCharacter) {
    EXPECT_EQ(strict("abc"), (Bytes{0, "\xAB"}));
    EXPECT_EQ(strict("abZ"), (Bytes{0, "\xAB"}));
    EXPECT_EQ(strict("Z"), (Bytes{0, ""}));
}

TEST(Str2Byte, ConvertsNoMoreThanTheStatedLength) {
    EXPECT_EQ(strict("0102ZZ", 4), (Bytes{0, "\x01\x02"}));
    EXPECT_EQ(strict("ZZ", 1), (Bytes{0, ""}));
    EXPECT_EQ(strict("ZZ", 0), (Bytes{0, ""}));
}

TEST(Str2Byte, NeedsNoTerminatorBehindTheStatedLength) {
    FencedText input;
    FencedRoom room(2);
    const auto *const hex = reinterpret_cast<const char *>(input.hold_bytes("01ff"));
    EXPECT_EQ(str2byte(hex, 4, room.bytes_start()), 0);
    EXPECT_EQ(room.bytes(), "\x01\xFF");
}

TEST(Str2Byte, ReadsNothingBehindTheEndOfTheText) {
    EXPECT_EQ(strict("01", 4), (Bytes{-1, "\x01#"}));
    EXPECT_EQ(strict("012", 4), (Bytes{-1, "\x01#"}));
    EXPECT_EQ(strict("", 200), (Bytes{-1, std::string(100, '#')}));
}

TEST(Str2Byte, TakesNullForAnEmptyText) {
    const FencedRoom room(2);
    EXPECT_EQ(str2byte(nullptr, 4, room.bytes_start()), -1);
    EXPECT_EQ(str2byte(nullptr, 0, room.bytes_start()), 0);
    EXPECT_EQ(room.bytes(), "##");
}

TEST(Str2Byte, TakesANegativeLengthForZero) {
    for (const int length : {-1, -2, -3, INT_MIN})
        EXPECT_EQ(strict("0102", length), (Bytes{0, ""})) << length;
}

TEST(Str2Byte, GivesTheSameForEveryText) {
    for_each_short_text([](const std::string &hex) {
        ASSERT_EQ(strict(hex), expected_strict(hex)) << testing::PrintToString(hex);
    });
    RandomTexts random;
    for (int round = 0; round < 10000; ++round) {
        const std::string hex = random.hexadecimal(random.number(60));
        ASSERT_EQ(strict(hex), expected_strict(hex)) << testing::PrintToString(hex);
    }
}

struct Mac {
    unsigned result;
    std::string bytes;
    bool operator==(const Mac &) const = default;
};

Mac mac_of(const std::string &text) {
    static FencedText input;
    static FencedRoom room(0);
    room.renew(6);
    const unsigned result = ascii2mac(input.hold(text), room.bytes_start());
    EXPECT_TRUE(room.front_is_intact());
    return {result, room.bytes()};
}

TEST(Ascii2Mac, FillsSixBytes) {
    EXPECT_EQ(mac_of("001122334455"), (Mac{0, "\x00\x11\x22\x33\x44\x55"s}));
    EXPECT_EQ(mac_of("fEDcba987654"), (Mac{0, "\xFE\xDC\xBA\x98\x76\x54"}));
}

TEST(Ascii2Mac, AnswersOneForAGroupAddress) {
    EXPECT_EQ(mac_of("010203040506"), (Mac{1, "\x01\x02\x03\x04\x05\x06"}));
    EXPECT_EQ(mac_of("FFFFFFFFFFFF"), (Mac{1, std::string(6, '\xFF')}));
    for (unsigned first = 0; first < 256; ++first) {
        const std::string byte(1, static_cast<char>(first));
        EXPECT_EQ(mac_of(upper_case_hex(byte) + "0000000000"),
                  (Mac{first & 1U, byte + std::string(5, '\0')}));
    }
}

TEST(Ascii2Mac, RefusesATextThatHasNotTwelveCharacters) {
    for (std::size_t length = 0; length < 30; ++length) {
        if (length != 12) {
            EXPECT_EQ(mac_of(std::string(length, '0')), (Mac{1, "######"})) << length;
        }
    }
    EXPECT_EQ(mac_of("00:11:22:33:44:55"), (Mac{1, "######"}));
    for_each_short_text([](const std::string &text) {
        ASSERT_EQ(mac_of(text), (Mac{1, "######"})) << testing::PrintToString(text);
    });
}

TEST(Ascii2Mac, TakesNullForAnEmptyText) {
    const FencedRoom room(6);
    EXPECT_EQ(ascii2mac(nullptr, room.bytes_start()), 1U);
    EXPECT_EQ(room.bytes(), "######");
}

TEST(Ascii2Mac, ChecksNoDigits) {
    EXPECT_EQ(mac_of("0Z1122334455"), (Mac{1, "\xFF\x11\x22\x33\x44\x55"}));
    EXPECT_EQ(mac_of("Z01122334455"), (Mac{0, "\xF0\x11\x22\x33\x44\x55"}));
    RandomTexts random;
    for (int round = 0; round < 10000; ++round) {
        const std::string text = random.hexadecimal(12);
        std::string bytes;
        for (std::size_t i = 0; i < 12; i += 2) {
            const auto high = static_cast<unsigned>(digit_value(text[i]));
            const auto low = static_cast<unsigned>(digit_value(text[i + 1]));
            bytes += static_cast<char>(high << 4 | low);
        }
        ASSERT_EQ(mac_of(text), (Mac{static_cast<unsigned char>(bytes[0]) & 1U, bytes}))
            << testing::PrintToString(text);
    }
}

TEST(IwPrEther, PrintsAnAddressInColonForm) {
    FencedText input;
    EXPECT_STREQ(iw_pr_ether(input.hold_bytes("\x00\x1A\x2b\xFF\x80\x09"s)), "00:1A:2B:FF:80:09");
    RandomTexts random;
    for (int round = 0; round < 2000; ++round) {
        const std::string mac = random.bytes(6);
        std::string expected = upper_case_hex(mac);
        for (std::size_t colon = 2; colon < 17; colon += 3)
            expected.insert(colon, ":");
        ASSERT_EQ(std::string(iw_pr_ether(input.hold_bytes(mac))), expected);
    }
}

TEST(IwPrEther, UsesOneBufferForAllCalls) {
    const unsigned char one[6] = {1, 1, 1, 1, 1, 1};
    const unsigned char two[6] = {2, 2, 2, 2, 2, 2};
    const char *const first = iw_pr_ether(one);
    EXPECT_STREQ(first, "01:01:01:01:01:01");
    EXPECT_EQ(iw_pr_ether(two), first);
    EXPECT_STREQ(first, "02:02:02:02:02:02");
}

TEST(IwPrEther, PrintsIntoABufferOf64BytesThatMayBeWrittenTo) {
    const unsigned char mac[6] = {1, 2, 3, 4, 5, 6};
    // A sanitizer sees where the buffer ends.
    std::memset(iw_pr_ether(mac), '#', 64);
    EXPECT_STREQ(iw_pr_ether(mac), "01:02:03:04:05:06");
}

TEST(In2Str, PrintsANumber) {
    for (const int value : {0, 1, -1, 10, 65535, INT_MAX, INT_MIN}) {
        const std::string expected = std::to_string(value);
        const FencedRoom room(expected.size() + 1);
        EXPECT_EQ(in2str(room.start(), value), room.start());
        EXPECT_EQ(room.bytes(), expected + '\0');
        EXPECT_TRUE(room.front_is_intact());
    }
}

TEST(ChUpcase, TurnsLettersFromAToZIntoUpperCase) {
    EXPECT_EQ(chUpcase('a'), 'A');
    EXPECT_EQ(chUpcase('z'), 'Z');
}

TEST(ChUpcase, LeavesEveryOtherCharacterAsItIs) {
    for (int value = SCHAR_MIN; value <= SCHAR_MAX; ++value) {
        const bool small = value >= 'a' && value <= 'z';
        EXPECT_EQ(chUpcase(static_cast<signed char>(value)), small ? value - 32 : value);
    }
}

/** An address without its separators and what follows it, up to 13 bytes. */
std::string without_separators(const std::string &text) {
    static FencedText input;
    static FencedRoom room(0);
    char *const out = room.renew(13);
    EXPECT_EQ(mac2hexStrip(input.hold(text), out), out);
    EXPECT_TRUE(room.front_is_intact());
    return room.bytes();
}

TEST(Mac2HexStrip, DropsTheSeparators) {
    EXPECT_EQ(without_separators("00:1a:2b:3c:4d:5e"), "001A2B3C4D5E\0"s);
    EXPECT_EQ(without_separators("aa-bb-cc-dd-ee-ff"), "AABBCCDDEEFF\0"s);
    EXPECT_EQ(without_separators("AA:bb:CC:dd:EE:ff"), "AABBCCDDEEFF\0"s);
    EXPECT_EQ(without_separators("aa0bb1cc2dd3ee4ff"), "AABBCCDDEEFF\0"s);
}

TEST(Mac2HexStrip, IgnoresWhatIsBehindTheAddress) {
    EXPECT_EQ(without_separators("00:1a:2b:3c:4d:5e:6f"), "001A2B3C4D5E\0"s);
    EXPECT_EQ(without_separators("00:1a:2b:3c:4d:5e" + std::string(1000, 'x')), "001A2B3C4D5E\0"s);
}

TEST(Mac2HexStrip, TakesAnyCharactersForDigits) {
    EXPECT_EQ(without_separators("zz:\xE9\xFF:{`:@[:  :\t\n"), "ZZ\xE9\xFF{`@[  \t\n\0"s);
}

TEST(Mac2HexStrip, TakesWhatIsMissingForNul) {
    const std::string whole = "00:1a:2b:3c:4d:5e";
    EXPECT_EQ(without_separators(""), std::string(13, '\0'));
    for (std::size_t length = 0; length <= whole.size(); ++length) {
        std::string expected;
        for (std::size_t at = 0; at < length; ++at) {
            if (at % 3 != 2)
                expected += upper_case(whole[at]);
        }
        expected.resize(13);
        EXPECT_EQ(without_separators(whole.substr(0, length)), expected) << length;
    }
}

TEST(Mac2HexStrip, TakesNullForAnEmptyText) {
    const FencedRoom room(13);
    EXPECT_EQ(mac2hexStrip(nullptr, room.start()), room.start());
    EXPECT_EQ(room.bytes(), std::string(13, '\0'));
}

TEST(Mac2HexStrip, WorksInPlace) {
    char text[] = "00:1a:2b:3c:4d:5e";
    EXPECT_EQ(mac2hexStrip(text, text), text);
    EXPECT_STREQ(text, "001A2B3C4D5E");
}

TEST(Mac2HexStrip, GivesTheSameForEveryText) {
    RandomTexts random;
    for (int round = 0; round < 10000; ++round) {
        const std::string text = random.hexadecimal(random.number(24));
        std::string expected;
        for (std::size_t at = 0; at < text.size() && at < 17; ++at) {
            if (at % 3 != 2)
                expected += upper_case(text[at]);
        }
        expected.resize(13);
        ASSERT_EQ(without_separators(text), expected) << testing::PrintToString(text);
    }
}

/** What is written of a text in colon form: exactly so many bytes, no NUL behind them. */
std::string with_colons(const std::string &text) {
    static FencedText input;
    static FencedRoom room(0);
    const std::size_t pairs = (text.size() + 1) / 2;
    char *const out = room.renew(pairs == 0 ? 0 : 3 * pairs - 1);
    EXPECT_EQ(HexStrip2mac(input.hold(text), out), out);
    EXPECT_TRUE(room.front_is_intact());
    return room.bytes();
}

TEST(HexStrip2Mac, PutsColonsBetweenPairs) {
    EXPECT_EQ(with_colons("001A2B3C4D5E"), "00:1A:2B:3C:4D:5E");
    EXPECT_EQ(with_colons("01"), "01");
    EXPECT_EQ(with_colons("0123"), "01:23");
    EXPECT_EQ(with_colons(""), "");
}

TEST(HexStrip2Mac, LeavesTheCaseAsItIs) {
    EXPECT_EQ(with_colons("aAbBzZ\xE9\xFF::  "), "aA:bB:zZ:\xE9\xFF::::  ");
}

TEST(HexStrip2Mac, CompletesAnOddLengthWithANul) {
    EXPECT_EQ(with_colons("0"), "0\0"s);
    EXPECT_EQ(with_colons("012"), "01:2\0"s);
    EXPECT_EQ(with_colons("001A2B3C4D5"), "00:1A:2B:3C:4D:5\0"s);
}

TEST(HexStrip2Mac, WritesNoTerminator) {
    char text[19] = "##################";
    HexStrip2mac("001A2B3C4D5E", text);
    EXPECT_STREQ(text, "00:1A:2B:3C:4D:5E#");
}

TEST(HexStrip2Mac, TakesNullForAnEmptyText) {
    const FencedRoom room(0);
    EXPECT_EQ(HexStrip2mac(nullptr, room.start()), room.start());
    EXPECT_TRUE(room.front_is_intact());
}

TEST(HexStrip2Mac, TakesEveryCharacterForADigit) {
    for_each_short_text([](const std::string &text) {
        const std::string shown = text.substr(0, text.find('\0'));
        ASSERT_EQ(with_colons(shown), shown.size() == 1 ? shown + '\0' : shown)
            << testing::PrintToString(text);
    });
}

TEST(HexStrip2Mac, TakesATextOfAnyLength) {
    RandomTexts random;
    for (std::size_t length = 0; length < 300; ++length) {
        const std::string text = random.hexadecimal(length);
        std::string expected = length % 2 == 0 ? text : text + '\0';
        for (std::size_t colon = 2; colon < expected.size(); colon += 3)
            expected.insert(colon, ":");
        ASSERT_EQ(with_colons(text), expected);
    }
}

TEST(HexStrip2Mac, UndoesMac2HexStrip) {
    RandomTexts random;
    for (int round = 0; round < 10000; ++round) {
        const std::string stripped = upper_case_hex(random.bytes(6));
        ASSERT_EQ(without_separators(with_colons(stripped)), stripped + '\0');
    }
}

/** What is printed of a file that holds a text. */
std::string number_in(const std::string &text) {
    const TemporaryDirectory folder;
    folder.write("value", text);
    const DescriptorWatch watch;
    const FencedRoom room(64);
    EXPECT_EQ(get_val_from_file(folder.path("value").c_str(), room.start(), 64), room.start());
    EXPECT_TRUE(room.front_is_intact());
    return room.start();
}

/** What is left in a buffer when a file can't be read. */
std::string left_by(const char *path) {
    const DescriptorWatch watch;
    char out[] = "as it was";
    EXPECT_EQ(get_val_from_file(path, out, sizeof out), out);
    return out;
}

TEST(GetValFromFile, PrintsTheNumberWithSixPlaces) {
    EXPECT_EQ(number_in("3.5"), "3.500000");
    EXPECT_EQ(number_in("3.5\n"), "3.500000");
    EXPECT_EQ(number_in("-2"), "-2.000000");
    EXPECT_EQ(number_in("+.25"), "0.250000");
    EXPECT_EQ(number_in("1e3"), "1000.000000");
    EXPECT_EQ(number_in("0"), "0.000000");
}

TEST(GetValFromFile, ReadsTheFirstNumberBehindBlanks) {
    EXPECT_EQ(number_in(" \t\n7 8"), "7.000000");
    EXPECT_EQ(number_in(std::string(10000, ' ') + "7"), "7.000000");
    EXPECT_EQ(number_in("12abc"), "12.000000");
}

TEST(GetValFromFile, KeepsSinglePrecision) {
    EXPECT_EQ(number_in("16777217"), "16777216.000000");
    EXPECT_EQ(number_in("0.3"), "0.300000");
    EXPECT_EQ(number_in("100000.3"), "100000.296875");
}

TEST(GetValFromFile, TakesEveryNumberThatAFormatTakes) {
    EXPECT_EQ(number_in("0x1P4"), "16.000000");
    EXPECT_EQ(number_in("-Inf"), "-inf");
    EXPECT_EQ(number_in("nan"), "nan");
    EXPECT_EQ(number_in("3.4028235E+38"), "340282346638528859811704183484516925440.000000");
    EXPECT_EQ(number_in("1e39"), "inf");
    EXPECT_EQ(number_in("-1e-60"), "-0.000000");
}

TEST(GetValFromFile, TakesANumberOfAnyLength) {
    EXPECT_EQ(number_in(std::string(20000, '0') + "7.5"), "7.500000");
    EXPECT_EQ(number_in("0." + std::string(20000, '0') + "1e20001"), "1.000000");
}

TEST(GetValFromFile, PrintsAHundredthWhereThereIsNoNumber) {
    EXPECT_EQ(number_in("abc"), "0.010000");
    EXPECT_EQ(number_in(""), "0.010000");
    EXPECT_EQ(number_in("\n"), "0.010000");
    EXPECT_EQ(number_in("x 5"), "0.010000");
    EXPECT_EQ(number_in("\0"s + "5"), "0.010000");
    EXPECT_EQ(number_in("-"), "0.010000");
}

TEST(GetValFromFile, PrintsAHundredthWhereAFileThatIsOpenCannotBeRead) {
    // Nothing is mapped at the start of a process's memory.
    EXPECT_EQ(left_by("/proc/self/mem"), "0.010000");
}

TEST(GetValFromFile, CutsTheTextToFit) {
    const TemporaryDirectory folder;
    folder.write("value", "-123.5");
    const std::string whole = "-123.500000";
    for (int size = 1; size < 15; ++size) {
        const auto bytes = static_cast<std::size_t>(size);
        const FencedRoom room(bytes);
        get_val_from_file(folder.path("value").c_str(), room.start(), size);
        EXPECT_STREQ(room.start(), whole.substr(0, bytes - 1).c_str());
        EXPECT_TRUE(room.front_is_intact());
    }
}

TEST(GetValFromFile, WritesNothingToABufferOfNoBytes) {
    const TemporaryDirectory folder;
    folder.write("value", "3.5");
    for (const int size : {0, -1, INT_MIN}) {
        const DescriptorWatch watch;
        char out[] = "as it was";
        EXPECT_EQ(get_val_from_file(folder.path("value").c_str(), out, size), out);
        EXPECT_STREQ(out, "as it was") << size;
    }
}

TEST(GetValFromFile, LeavesTheBufferAloneWhereThereIsNoFile) {
    const TemporaryDirectory folder;
    EXPECT_EQ(left_by(nullptr), "as it was");
    EXPECT_EQ(left_by(""), "as it was");
    EXPECT_EQ(left_by(folder.path("missing").c_str()), "as it was");
    EXPECT_EQ(left_by(folder.path().c_str()), "as it was");
}

TEST(GetValFromFile, LeavesTheBufferAloneWhereTheFileMayNotBeRead) {
    const TemporaryDirectory folder;
    folder.write("value", "3.5");
    std::filesystem::permissions(folder.path("value"), std::filesystem::perms::none);
    expect_as_ordinary_user([&] { EXPECT_EQ(left_by(folder.path("value").c_str()), "as it was"); });
}

TEST(GetValFromFile, LeavesTheBufferAloneWithoutMemory) {
    const TemporaryDirectory folder;
    folder.write("value", "3.5");
    const FailCall no_stream(call_fdopen, 1, ENOMEM);
    EXPECT_EQ(left_by(folder.path("value").c_str()), "as it was");
    EXPECT_EQ(no_stream.failures(), 1U);
}

TEST(GetValFromFile, ReadsAFileWhoseSizeOrDateTheCLibraryCannotTell) {
    const TemporaryDirectory folder;
    folder.write("value", "3.5");
    const FailCall no_status(call_fstat, 1, EOVERFLOW);
    EXPECT_EQ(left_by(folder.path("value").c_str()), "3.500000");
    EXPECT_EQ(no_status.failures(), 1U);
}

TEST(GetValFromFile, ClosesTheFileOnce) {
    const TemporaryDirectory folder;
    folder.write("value", "3.5");
    const std::string path = folder.path("value");
    char out[16];
    const CountCalls descriptors(call_close);
    const CountCalls streams(call_fclose);
    get_val_from_file(path.c_str(), out, sizeof out);
    EXPECT_EQ(descriptors.count() + streams.count(), 1U);
}

TEST(GetValFromFile, ReleasesWhatItAllocatesWhateverFails) {
    const TemporaryDirectory folder;
    folder.write("value", "3.5");
    const std::string path = folder.path("value");
    EXPECT_GE(for_each_allocation_failure([&](AllocationTrial &trial) {
                  const DescriptorWatch watch;
                  char out[16] = "as it was";
                  trial.run([&] { get_val_from_file(path.c_str(), out, sizeof out); });
                  if (!trial.failed()) {
                      EXPECT_STREQ(out, "3.500000");
                  }
              }),
              1U);
}

/** What a function writes, which must fit exactly. */
std::string written(const std::string &expected, const std::function<char *(char *)> &write) {
    const FencedRoom room(expected.size() + 1);
    EXPECT_EQ(write(room.start()), room.start());
    EXPECT_TRUE(room.front_is_intact());
    return room.start();
}

void expect_names(int radio, int network, const std::string &radio_text,
                  const std::string &network_text, const std::string &suffix) {
    const auto expect = [](const std::string &expected,
                           const std::function<char *(char *)> &write) {
        EXPECT_EQ(written(expected, write), expected);
    };
    FencedText text;
    const char *const key = text.hold(suffix);
    expect("wifi" + radio_text + "_wlan" + network_text,
           [=](char *out) { return gen_wlan_name(radio, network, out); });
    expect("WIFI" + radio_text + "_WLAN" + network_text,
           [=](char *out) { return gen_wlan_name0(radio, network, out); });
    expect("wifi" + radio_text, [=](char *out) { return gen_radio_name(radio, out); });
    expect("{WIFI" + radio_text + "_" + suffix + "}",
           [=](char *out) { return gen_radio_key(radio, key, out); });
    expect("WIFI" + radio_text + "_" + suffix,
           [=](char *out) { return gen_radio_key0(radio, key, out); });
    expect("{WIFI" + radio_text + "_WLAN" + network_text + "_" + suffix + "}",
           [=](char *out) { return gen_wlan_key(radio, network, key, out); });
    expect("WIFI" + radio_text + "_WLAN" + network_text + "_" + suffix,
           [=](char *out) { return gen_wlan_key0(radio, network, key, out); });
}

TEST(NameBuilders, JoinIndicesAndSuffix) {
    char out[64];
    EXPECT_STREQ(gen_wlan_key(1, 258, "SSID", out), "{WIFI1_WLAN2_SSID}");
    EXPECT_STREQ(gen_wlan_name(0, 1, out), "wifi0_wlan1");
    EXPECT_STREQ(gen_wlan_name0(0, 1, out), "WIFI0_WLAN1");
    EXPECT_STREQ(gen_radio_name(0, out), "wifi0");
    EXPECT_STREQ(gen_radio_key(0, "CHANNEL", out), "{WIFI0_CHANNEL}");
    EXPECT_STREQ(gen_radio_key0(0, "CHANNEL", out), "WIFI0_CHANNEL");
    EXPECT_STREQ(gen_wlan_key0(0, 1, "SSID", out), "WIFI0_WLAN1_SSID");
}

TEST(NameBuilders, UseTheLowByteOfAnIndexAlone) {
    expect_names(0, 255, "0", "255", "x");
    expect_names(255, 0, "255", "0", "x");
    expect_names(256, 257, "0", "1", "x");
    expect_names(-1, -256, "255", "0", "x");
    expect_names(INT_MAX, INT_MIN, "255", "0", "x");
    expect_names(0x12345678, -2, "120", "254", "x");
    for (int index = 0; index < 1000; ++index)
        expect_names(index, 999 - index, std::to_string(index % 256),
                     std::to_string((999 - index) % 256), "KEY");
}

TEST(NameBuilders, TakeTheSuffixAsItIs) {
    expect_names(1, 2, "1", "2", "");
    expect_names(1, 2, "1", "2", "%s%n%d");
    expect_names(1, 2, "1", "2", "lower_case } {\xE9\xFF");
    expect_names(1, 2, "1", "2", std::string(400, 'K'));
}

TEST(NameBuilders, TakeNullForAnEmptySuffix) {
    char out[32];
    EXPECT_STREQ(gen_radio_key(1, nullptr, out), "{WIFI1_}");
    EXPECT_STREQ(gen_radio_key0(1, nullptr, out), "WIFI1_");
    EXPECT_STREQ(gen_wlan_key(1, 2, nullptr, out), "{WIFI1_WLAN2_}");
    EXPECT_STREQ(gen_wlan_key0(1, 2, nullptr, out), "WIFI1_WLAN2_");
}

} // namespace
