/* SPDX-License-Identifier: MIT */
#include <corvel.h>

#include "tests/support/child_process.h"
#include "tests/support/descriptors.h"
#include "tests/support/guarded_memory.h"
#include "tests/support/stand_in.h"
#include "tests/support/temporary_directory.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <malloc.h>
#include <ostream>
#include <random>
#include <string>
#include <string_view>

namespace {

using namespace corvel_test;
using namespace std::string_literals;

/** The value of a hexadecimal digit, or -1. */
int digit_value(char digit) {
    constexpr std::string_view digits = "00112233445566778899aAbBcCdDeEfF";
    const std::size_t at = digits.find(digit);
    return at == std::string_view::npos ? -1 : static_cast<int>(at / 2);
}

/** The value of two characters to a converter that does not check them: any other character than a
 * digit counts as -1. */
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

/** Calls @p body with every string of one and of two bytes, NUL included. */
void for_each_short_string(const std::function<void(const std::string &)> &body) {
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

class RandomStrings {
  public:
    unsigned number(std::size_t below) { return static_cast<unsigned>(engine_() % below); }

    std::string bytes(std::size_t length) {
        std::string text(length, '\0');
        for (char &byte : text)
            byte = static_cast<char>(engine_());
        return text;
    }
    /** Mostly hexadecimal digits; no NUL. */
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

TEST(hex2int, ReturnsTheValueOfADigitOfEitherCase) {
    EXPECT_EQ(hex2int('0'), 0);
    EXPECT_EQ(hex2int('9'), 9);
    EXPECT_EQ(hex2int('a'), 10);
    EXPECT_EQ(hex2int('A'), 10);
    EXPECT_EQ(hex2int('f'), 15);
    EXPECT_EQ(hex2int('F'), 15);
}

TEST(hex2int, ReturnsMinusOneForAnyOtherCharacter) {
    for (const char character : "g/:@G`\x7f"s)
        EXPECT_EQ(hex2int(character), -1) << character;
    for (int byte = 0; byte < 256; ++byte)
        EXPECT_EQ(hex2int(static_cast<char>(byte)), digit_value(static_cast<char>(byte))) << byte;
    for (int byte = 128; byte < 256; ++byte)
        EXPECT_EQ(hex2int(static_cast<char>(byte)), -1) << byte;
}

TEST(ascii2hex, PrintsEachByteAsTwoUpperCaseDigits) {
    const unsigned char bytes[] = {0x00, 0xAB};
    char text[5];
    EXPECT_EQ(ascii2hex(bytes, 2, text), text);
    EXPECT_STREQ(text, "00AB");
}

/** The bytes that ascii2hex() writes, which must fit exactly. */
std::string printed(const std::string &bytes) {
    static GuardedInput input;
    static GuardedOutput output(0);
    char *const out = output.renew(2 * bytes.size() + 1);
    EXPECT_EQ(ascii2hex(input.hold_bytes(bytes), static_cast<unsigned>(bytes.size()), out), out);
    EXPECT_TRUE(output.preceding_bytes_intact());
    return output.bytes();
}

TEST(ascii2hex, PrintsAnyBytesAndATerminator) {
    for_each_short_string([](const std::string &bytes) {
        ASSERT_EQ(printed(bytes), upper_case_hex(bytes) + '\0') << testing::PrintToString(bytes);
    });
    RandomStrings random;
    for (int round = 0; round < 5000; ++round) {
        const std::string bytes = random.bytes(1 + random.number(200));
        ASSERT_EQ(printed(bytes), upper_case_hex(bytes) + '\0');
    }
}

TEST(ascii2hex, WritesNothingForNoBytes) {
    char text[] = "unchanged";
    EXPECT_EQ(ascii2hex(nullptr, 0, text), text);
    EXPECT_STREQ(text, "unchanged");
}

TEST(ascii2hex, AllocatesABlockThatTheCallerFrees) {
    RandomStrings random;
    GuardedInput input;
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

TEST(ascii2hex, AllocatesRoomForTheTerminator) {
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

TEST(ascii2hex, ReturnsNullWithoutMemory) {
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

TEST(ascii2hex, ReturnsNullForMoreBytesThanMemoryCanHold) {
    // With 64-bit sizes the block can be allocated, so that the bytes would be read.
    if constexpr (sizeof(std::size_t) == 4) {
        expect_in_child([] {
            const unsigned char byte = 1;
            for (const unsigned n : {UINT_MAX, UINT_MAX - 1, UINT_MAX / 2 + 1, UINT_MAX / 2})
                EXPECT_EQ(ascii2hex(&byte, n, nullptr), nullptr) << n;
        });
    }
}

TEST(ascii2hex, AllocatesNothingIfTheCallerHasABuffer) {
    const unsigned char bytes[] = {1, 2, 3};
    char text[7];
    const CountCalls allocations(call_allocation);
    ascii2hex(bytes, 3, text);
    EXPECT_EQ(allocations.count(), 0U);
}

/** The bytes that hex2ascii() writes, terminator included, which must fit exactly. */
std::string characters(const std::string &hex) {
    static GuardedInput input;
    static GuardedOutput output(0);
    char *const out = output.renew(hex.size() / 2 + 1);
    *out = '\0';
    EXPECT_EQ(hex2ascii(input.hold(hex), out), out);
    EXPECT_TRUE(output.preceding_bytes_intact());
    return output.bytes();
}

std::string expected_characters(const std::string &hex) {
    std::string expected;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
        expected += unchecked_pair(hex[i], hex[i + 1]);
    return expected + '\0';
}

TEST(hex2ascii, ConvertsPairsOfDigitsToCharacters) {
    EXPECT_EQ(characters("414243"), "ABC\0"s);
    EXPECT_EQ(characters("4a4B4c"), "JKL\0"s);
    EXPECT_EQ(characters("80fF"), "\x80\xFF\0"s);
    EXPECT_EQ(characters(""), "\0"s);
}

TEST(hex2ascii, IgnoresAnOddLastDigit) {
    EXPECT_EQ(characters("4"), "\0"s);
    EXPECT_EQ(characters("41424"), "AB\0"s);
}

TEST(hex2ascii, CountsAnyOtherCharacterAsMinusOne) {
    EXPECT_EQ(characters("ZZ"), "\xEF\0"s);
    EXPECT_EQ(characters("4Z"), "\x3F\0"s);
    EXPECT_EQ(characters("Z1"), "\xF1\0"s);
    EXPECT_EQ(characters("0Z"), "\xFF\0"s);
    EXPECT_EQ(characters("\xE9\xE9"), "\xEF\0"s);
}

TEST(hex2ascii, ContinuesAfterAZeroCharacter) { EXPECT_EQ(characters("41004300"), "A\0C\0\0"s); }

TEST(hex2ascii, AgreesWithTheModelForAnyString) {
    for_each_short_string([](const std::string &hex) {
        if (hex.find('\0') == std::string::npos) {
            ASSERT_EQ(characters(hex), expected_characters(hex)) << testing::PrintToString(hex);
        }
    });
    RandomStrings random;
    for (int round = 0; round < 10000; ++round) {
        const std::string hex = random.hexadecimal(random.number(300));
        ASSERT_EQ(characters(hex), expected_characters(hex)) << testing::PrintToString(hex);
    }
}

TEST(hex2ascii, IsTheInverseOfAscii2hex) {
    RandomStrings random;
    for (int round = 0; round < 2000; ++round) {
        const std::string bytes = random.bytes(1 + random.number(200));
        const std::string hex = printed(bytes);
        ASSERT_EQ(characters(hex.substr(0, hex.size() - 1)), bytes + '\0');
    }
}

TEST(hex2ascii, TreatsANullPointerAsAnEmptyString) {
    const GuardedOutput output(1, '\0');
    EXPECT_EQ(hex2ascii(nullptr, output.start()), output.start());
    EXPECT_EQ(output.bytes(), "\0"s);
}

struct Converted {
    int result;
    std::string bytes;
    bool operator==(const Converted &) const = default;
};

/** The result of str2byte() and the buffer, initially filled with '#'. */
Converted strict(const std::string &hex, int length) {
    static GuardedInput input;
    static GuardedOutput output(0);
    output.renew(length > 0 ? static_cast<std::size_t>(length) / 2 : 0);
    const int result = str2byte(input.hold(hex), length, output.bytes_start());
    EXPECT_TRUE(output.preceding_bytes_intact());
    return {result, output.bytes()};
}

Converted strict(const std::string &hex) { return strict(hex, static_cast<int>(hex.size())); }

Converted expected_strict(const std::string &hex) {
    std::string bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
        if (digit_value(hex[i]) < 0 || digit_value(hex[i + 1]) < 0)
            return {-1, bytes + std::string(hex.size() / 2 - i / 2, '#')};
        bytes += unchecked_pair(hex[i], hex[i + 1]);
    }
    return {0, bytes};
}

TEST(str2byte, ConvertsPairsOfDigitsToBytes) {
    EXPECT_EQ(strict("0aF9"), (Converted{0, "\x0A\xF9"}));
    EXPECT_EQ(strict("00"), (Converted{0, "\0"s}));
    EXPECT_EQ(strict(""), (Converted{0, ""}));
}

TEST(str2byte, StopsAtTheFirstPairWithAnotherCharacter) {
    EXPECT_EQ(strict("0aZZ"), (Converted{-1, "\x0A#"}));
    EXPECT_EQ(strict("0a1Z02"), (Converted{-1, "\x0A##"}));
    EXPECT_EQ(strict("Z1"), (Converted{-1, "#"}));
    EXPECT_EQ(strict("1\xB1"), (Converted{-1, "#"}));
}

TEST(str2byte, IgnoresAnOddLastCharacter) {
    EXPECT_EQ(strict("abc"), (Converted{0, "\xAB"}));
    EXPECT_EQ(strict("abZ"), (Converted{0, "\xAB"}));
    EXPECT_EQ(strict("Z"), (Converted{0, ""}));
}

TEST(str2byte, ConvertsNoMoreThanTheGivenLength) {
    EXPECT_EQ(strict("0102ZZ", 4), (Converted{0, "\x01\x02"}));
    EXPECT_EQ(strict("ZZ", 1), (Converted{0, ""}));
    EXPECT_EQ(strict("ZZ", 0), (Converted{0, ""}));
}

TEST(str2byte, NeedsNoTerminatorAfterTheGivenLength) {
    GuardedInput input;
    GuardedOutput output(2);
    const auto *const hex = reinterpret_cast<const char *>(input.hold_bytes("01ff"));
    EXPECT_EQ(str2byte(hex, 4, output.bytes_start()), 0);
    EXPECT_EQ(output.bytes(), "\x01\xFF");
}

TEST(str2byte, ReadsNothingAfterTheTerminator) {
    EXPECT_EQ(strict("01", 4), (Converted{-1, "\x01#"}));
    EXPECT_EQ(strict("012", 4), (Converted{-1, "\x01#"}));
    EXPECT_EQ(strict("", 200), (Converted{-1, std::string(100, '#')}));
}

TEST(str2byte, TreatsANullPointerAsAnEmptyString) {
    const GuardedOutput output(2);
    EXPECT_EQ(str2byte(nullptr, 4, output.bytes_start()), -1);
    EXPECT_EQ(str2byte(nullptr, 0, output.bytes_start()), 0);
    EXPECT_EQ(output.bytes(), "##");
}

TEST(str2byte, TreatsANegativeLengthAsZero) {
    for (const int length : {-1, -2, -3, INT_MIN})
        EXPECT_EQ(strict("0102", length), (Converted{0, ""})) << length;
}

TEST(str2byte, AgreesWithTheModelForAnyString) {
    for_each_short_string([](const std::string &hex) {
        ASSERT_EQ(strict(hex), expected_strict(hex)) << testing::PrintToString(hex);
    });
    RandomStrings random;
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
    static GuardedInput input;
    static GuardedOutput output(0);
    output.renew(CORVEL_MAC_BYTES);
    const unsigned result = ascii2mac(input.hold(text), output.bytes_start());
    EXPECT_TRUE(output.preceding_bytes_intact());
    return {result, output.bytes()};
}

TEST(ascii2mac, FillsSixBytes) {
    EXPECT_EQ(mac_of("001122334455"), (Mac{0, "\x00\x11\x22\x33\x44\x55"s}));
    EXPECT_EQ(mac_of("fEDcba987654"), (Mac{0, "\xFE\xDC\xBA\x98\x76\x54"}));
}

TEST(ascii2mac, ReturnsOneForAGroupAddress) {
    EXPECT_EQ(mac_of("010203040506"), (Mac{1, "\x01\x02\x03\x04\x05\x06"}));
    EXPECT_EQ(mac_of("FFFFFFFFFFFF"), (Mac{1, std::string(6, '\xFF')}));
    for (unsigned first = 0; first < 256; ++first) {
        const std::string byte(1, static_cast<char>(first));
        EXPECT_EQ(mac_of(upper_case_hex(byte) + "0000000000"),
                  (Mac{first & 1U, byte + std::string(5, '\0')}));
    }
}

TEST(ascii2mac, RefusesAStringThatIsNotTwelveCharactersLong) {
    for (std::size_t length = 0; length < 30; ++length) {
        if (length != 12) {
            EXPECT_EQ(mac_of(std::string(length, '0')), (Mac{1, "######"})) << length;
        }
    }
    EXPECT_EQ(mac_of("00:11:22:33:44:55"), (Mac{1, "######"}));
    for_each_short_string([](const std::string &text) {
        ASSERT_EQ(mac_of(text), (Mac{1, "######"})) << testing::PrintToString(text);
    });
}

TEST(ascii2mac, TreatsANullPointerAsAnEmptyString) {
    const GuardedOutput output(CORVEL_MAC_BYTES);
    EXPECT_EQ(ascii2mac(nullptr, output.bytes_start()), 1U);
    EXPECT_EQ(output.bytes(), "######");
}

TEST(ascii2mac, DoesNotCheckTheDigits) {
    EXPECT_EQ(mac_of("0Z1122334455"), (Mac{1, "\xFF\x11\x22\x33\x44\x55"}));
    EXPECT_EQ(mac_of("Z01122334455"), (Mac{0, "\xF0\x11\x22\x33\x44\x55"}));
    RandomStrings random;
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

TEST(iw_pr_ether, PrintsAnAddressInColonForm) {
    GuardedInput input;
    EXPECT_STREQ(iw_pr_ether(input.hold_bytes("\x00\x1A\x2b\xFF\x80\x09"s)), "00:1A:2B:FF:80:09");
    RandomStrings random;
    for (int round = 0; round < 2000; ++round) {
        const std::string mac = random.bytes(6);
        std::string expected = upper_case_hex(mac);
        for (std::size_t colon = 2; colon < 17; colon += 3)
            expected.insert(colon, ":");
        ASSERT_EQ(std::string(iw_pr_ether(input.hold_bytes(mac))), expected);
    }
}

TEST(iw_pr_ether, UsesOneBufferForAllCalls) {
    const unsigned char one[6] = {1, 1, 1, 1, 1, 1};
    const unsigned char two[6] = {2, 2, 2, 2, 2, 2};
    const char *const first = iw_pr_ether(one);
    EXPECT_STREQ(first, "01:01:01:01:01:01");
    EXPECT_EQ(iw_pr_ether(two), first);
    EXPECT_STREQ(first, "02:02:02:02:02:02");
}

TEST(iw_pr_ether, ReturnsAWritableBufferOf64Bytes) {
    const unsigned char mac[6] = {1, 2, 3, 4, 5, 6};
    // A sanitizer detects a shorter buffer.
    std::memset(iw_pr_ether(mac), '#', 64);
    EXPECT_STREQ(iw_pr_ether(mac), "01:02:03:04:05:06");
}

TEST(in2str, PrintsANumber) {
    for (const int value : {0, 1, -1, 10, 65535, INT_MAX, INT_MIN}) {
        const std::string expected = std::to_string(value);
        const GuardedOutput output(expected.size() + 1);
        EXPECT_EQ(in2str(output.start(), value), output.start());
        EXPECT_EQ(output.bytes(), expected + '\0');
        EXPECT_TRUE(output.preceding_bytes_intact());
    }
}

TEST(chUpcase, ConvertsLettersFromAToZToUpperCase) {
    EXPECT_EQ(chUpcase('a'), 'A');
    EXPECT_EQ(chUpcase('z'), 'Z');
}

TEST(chUpcase, ReturnsAnyOtherCharacterUnchanged) {
    for (int value = SCHAR_MIN; value <= SCHAR_MAX; ++value) {
        const bool small = value >= 'a' && value <= 'z';
        EXPECT_EQ(chUpcase(static_cast<signed char>(value)), small ? value - 32 : value);
    }
}

/** The 13 bytes that mac2hexStrip() writes. */
std::string without_separators(const std::string &text) {
    static GuardedInput input;
    static GuardedOutput output(0);
    char *const out = output.renew(CORVEL_MAC_STRIPPED_SIZE);
    EXPECT_EQ(mac2hexStrip(input.hold(text), out), out);
    EXPECT_TRUE(output.preceding_bytes_intact());
    return output.bytes();
}

TEST(mac2hexStrip, RemovesTheSeparators) {
    EXPECT_EQ(without_separators("00:1a:2b:3c:4d:5e"), "001A2B3C4D5E\0"s);
    EXPECT_EQ(without_separators("aa-bb-cc-dd-ee-ff"), "AABBCCDDEEFF\0"s);
    EXPECT_EQ(without_separators("AA:bb:CC:dd:EE:ff"), "AABBCCDDEEFF\0"s);
    EXPECT_EQ(without_separators("aa0bb1cc2dd3ee4ff"), "AABBCCDDEEFF\0"s);
}

TEST(mac2hexStrip, IgnoresCharactersAfterTheAddress) {
    EXPECT_EQ(without_separators("00:1a:2b:3c:4d:5e:6f"), "001A2B3C4D5E\0"s);
    EXPECT_EQ(without_separators("00:1a:2b:3c:4d:5e" + std::string(1000, 'x')), "001A2B3C4D5E\0"s);
}

TEST(mac2hexStrip, AcceptsAnyCharactersAsDigits) {
    EXPECT_EQ(without_separators("zz:\xE9\xFF:{`:@[:  :\t\n"), "ZZ\xE9\xFF{`@[  \t\n\0"s);
}

TEST(mac2hexStrip, WritesNulsForMissingCharacters) {
    const std::string whole = "00:1a:2b:3c:4d:5e";
    EXPECT_EQ(without_separators(""), std::string(CORVEL_MAC_STRIPPED_SIZE, '\0'));
    for (std::size_t length = 0; length <= whole.size(); ++length) {
        std::string expected;
        for (std::size_t at = 0; at < length; ++at) {
            if (at % 3 != 2)
                expected += upper_case(whole[at]);
        }
        expected.resize(CORVEL_MAC_STRIPPED_SIZE);
        EXPECT_EQ(without_separators(whole.substr(0, length)), expected) << length;
    }
}

TEST(mac2hexStrip, TreatsANullPointerAsAnEmptyString) {
    const GuardedOutput output(CORVEL_MAC_STRIPPED_SIZE);
    EXPECT_EQ(mac2hexStrip(nullptr, output.start()), output.start());
    EXPECT_EQ(output.bytes(), std::string(CORVEL_MAC_STRIPPED_SIZE, '\0'));
}

TEST(mac2hexStrip, WorksInPlace) {
    char text[] = "00:1a:2b:3c:4d:5e";
    EXPECT_EQ(mac2hexStrip(text, text), text);
    EXPECT_STREQ(text, "001A2B3C4D5E");
}

TEST(mac2hexStrip, AgreesWithTheModelForAnyString) {
    RandomStrings random;
    for (int round = 0; round < 10000; ++round) {
        const std::string text = random.hexadecimal(random.number(24));
        std::string expected;
        for (std::size_t at = 0; at < text.size() && at < 17; ++at) {
            if (at % 3 != 2)
                expected += upper_case(text[at]);
        }
        expected.resize(CORVEL_MAC_STRIPPED_SIZE);
        ASSERT_EQ(without_separators(text), expected) << testing::PrintToString(text);
    }
}

/** The bytes that HexStrip2mac() writes, which must fit exactly; it writes no terminator. */
std::string with_colons(const std::string &text) {
    static GuardedInput input;
    static GuardedOutput output(0);
    const std::size_t pairs = (text.size() + 1) / 2;
    char *const out = output.renew(pairs == 0 ? 0 : 3 * pairs - 1);
    EXPECT_EQ(HexStrip2mac(input.hold(text), out), out);
    EXPECT_TRUE(output.preceding_bytes_intact());
    return output.bytes();
}

TEST(HexStrip2mac, InsertsColonsBetweenPairs) {
    EXPECT_EQ(with_colons("001A2B3C4D5E"), "00:1A:2B:3C:4D:5E");
    EXPECT_EQ(with_colons("01"), "01");
    EXPECT_EQ(with_colons("0123"), "01:23");
    EXPECT_EQ(with_colons(""), "");
}

TEST(HexStrip2mac, KeepsTheCase) {
    EXPECT_EQ(with_colons("aAbBzZ\xE9\xFF::  "), "aA:bB:zZ:\xE9\xFF::::  ");
}

TEST(HexStrip2mac, CompletesAnOddLastPairWithANul) {
    EXPECT_EQ(with_colons("0"), "0\0"s);
    EXPECT_EQ(with_colons("012"), "01:2\0"s);
    EXPECT_EQ(with_colons("001A2B3C4D5"), "00:1A:2B:3C:4D:5\0"s);
}

TEST(HexStrip2mac, WritesNoTerminator) {
    char text[CORVEL_MAC_SIZE + 1] = "##################";
    HexStrip2mac("001A2B3C4D5E", text);
    EXPECT_STREQ(text, "00:1A:2B:3C:4D:5E#");
}

TEST(HexStrip2mac, TreatsANullPointerAsAnEmptyString) {
    const GuardedOutput output(0);
    EXPECT_EQ(HexStrip2mac(nullptr, output.start()), output.start());
    EXPECT_TRUE(output.preceding_bytes_intact());
}

TEST(HexStrip2mac, AcceptsAnyCharactersAsDigits) {
    for_each_short_string([](const std::string &text) {
        const std::string shown = text.substr(0, text.find('\0'));
        ASSERT_EQ(with_colons(shown), shown.size() == 1 ? shown + '\0' : shown)
            << testing::PrintToString(text);
    });
}

TEST(HexStrip2mac, AcceptsAStringOfAnyLength) {
    RandomStrings random;
    for (std::size_t length = 0; length < 300; ++length) {
        const std::string text = random.hexadecimal(length);
        std::string expected = length % 2 == 0 ? text : text + '\0';
        for (std::size_t colon = 2; colon < expected.size(); colon += 3)
            expected.insert(colon, ":");
        ASSERT_EQ(with_colons(text), expected);
    }
}

TEST(HexStrip2mac, IsTheInverseOfMac2hexStrip) {
    RandomStrings random;
    for (int round = 0; round < 10000; ++round) {
        const std::string stripped = upper_case_hex(random.bytes(6));
        ASSERT_EQ(without_separators(with_colons(stripped)), stripped + '\0');
    }
}

/** What get_val_from_file() prints for a file with this text. */
std::string number_in(const std::string &text) {
    const TemporaryDirectory directory;
    directory.write("value", text);
    const DescriptorWatch watch;
    const GuardedOutput output(64);
    EXPECT_EQ(get_val_from_file(directory.path("value").c_str(), output.start(), 64),
              output.start());
    EXPECT_TRUE(output.preceding_bytes_intact());
    return output.start();
}

/** The buffer after get_val_from_file(); initially "unchanged". */
std::string buffer_after(const char *path) {
    const DescriptorWatch watch;
    char out[] = "unchanged";
    EXPECT_EQ(get_val_from_file(path, out, sizeof out), out);
    return out;
}

TEST(get_val_from_file, PrintsTheNumberWithSixDecimalPlaces) {
    EXPECT_EQ(number_in("3.5"), "3.500000");
    EXPECT_EQ(number_in("3.5\n"), "3.500000");
    EXPECT_EQ(number_in("-2"), "-2.000000");
    EXPECT_EQ(number_in("+.25"), "0.250000");
    EXPECT_EQ(number_in("1e3"), "1000.000000");
    EXPECT_EQ(number_in("0"), "0.000000");
}

TEST(get_val_from_file, ReadsTheFirstNumberAfterWhitespace) {
    EXPECT_EQ(number_in(" \t\n7 8"), "7.000000");
    EXPECT_EQ(number_in(std::string(10000, ' ') + "7"), "7.000000");
    EXPECT_EQ(number_in("12abc"), "12.000000");
}

TEST(get_val_from_file, RoundsToSinglePrecision) {
    EXPECT_EQ(number_in("16777217"), "16777216.000000");
    EXPECT_EQ(number_in("0.3"), "0.300000");
    EXPECT_EQ(number_in("100000.3"), "100000.296875");
}

TEST(get_val_from_file, AcceptsEveryNumberThatScanfAccepts) {
    EXPECT_EQ(number_in("0x1P4"), "16.000000");
    EXPECT_EQ(number_in("-Inf"), "-inf");
    EXPECT_EQ(number_in("nan"), "nan");
    EXPECT_EQ(number_in("3.4028235E+38"), "340282346638528859811704183484516925440.000000");
    EXPECT_EQ(number_in("1e39"), "inf");
    EXPECT_EQ(number_in("-1e-60"), "-0.000000");
}

TEST(get_val_from_file, AcceptsANumberOfAnyLength) {
    EXPECT_EQ(number_in(std::string(20000, '0') + "7.5"), "7.500000");
    EXPECT_EQ(number_in("0." + std::string(20000, '0') + "1e20001"), "1.000000");
}

TEST(get_val_from_file, PrintsOneHundredthIfThereIsNoNumber) {
    EXPECT_EQ(number_in("abc"), "0.010000");
    EXPECT_EQ(number_in(""), "0.010000");
    EXPECT_EQ(number_in("\n"), "0.010000");
    EXPECT_EQ(number_in("x 5"), "0.010000");
    EXPECT_EQ(number_in("\0"s + "5"), "0.010000");
    EXPECT_EQ(number_in("-"), "0.010000");
}

TEST(get_val_from_file, PrintsOneHundredthIfReadingFails) {
    // Opens, but reading fails: nothing is mapped at address 0.
    EXPECT_EQ(buffer_after("/proc/self/mem"), "0.010000");
}

TEST(get_val_from_file, TruncatesTheTextToTheBuffer) {
    const TemporaryDirectory directory;
    directory.write("value", "-123.5");
    const std::string whole = "-123.500000";
    for (int size = 1; size < 15; ++size) {
        const auto bytes = static_cast<std::size_t>(size);
        const GuardedOutput output(bytes);
        get_val_from_file(directory.path("value").c_str(), output.start(), size);
        EXPECT_STREQ(output.start(), whole.substr(0, bytes - 1).c_str());
        EXPECT_TRUE(output.preceding_bytes_intact());
    }
}

TEST(get_val_from_file, WritesNothingIfTheSizeIsNotPositive) {
    const TemporaryDirectory directory;
    directory.write("value", "3.5");
    for (const int size : {0, -1, INT_MIN}) {
        const DescriptorWatch watch;
        char out[] = "unchanged";
        EXPECT_EQ(get_val_from_file(directory.path("value").c_str(), out, size), out);
        EXPECT_STREQ(out, "unchanged") << size;
    }
}

TEST(get_val_from_file, LeavesTheBufferUnchangedIfThereIsNoFile) {
    const TemporaryDirectory directory;
    EXPECT_EQ(buffer_after(nullptr), "unchanged");
    EXPECT_EQ(buffer_after(""), "unchanged");
    EXPECT_EQ(buffer_after(directory.path("missing").c_str()), "unchanged");
    EXPECT_EQ(buffer_after(directory.path().c_str()), "unchanged");
}

TEST(get_val_from_file, LeavesTheBufferUnchangedWithoutReadPermission) {
    const TemporaryDirectory directory;
    directory.write("value", "3.5");
    std::filesystem::permissions(directory.path("value"), std::filesystem::perms::none);
    expect_as_ordinary_user(
        [&] { EXPECT_EQ(buffer_after(directory.path("value").c_str()), "unchanged"); });
}

TEST(get_val_from_file, LeavesTheBufferUnchangedWithoutMemory) {
    const TemporaryDirectory directory;
    directory.write("value", "3.5");
    const FailCall failing(call_fdopen, 1, ENOMEM);
    EXPECT_EQ(buffer_after(directory.path("value").c_str()), "unchanged");
    EXPECT_EQ(failing.failures(), 1U);
}

TEST(get_val_from_file, ReadsAFileThatFstatFailsFor) {
    const TemporaryDirectory directory;
    directory.write("value", "3.5");
    const FailCall no_status(call_fstat, 1, EOVERFLOW);
    EXPECT_EQ(buffer_after(directory.path("value").c_str()), "3.500000");
    EXPECT_EQ(no_status.failures(), 1U);
}

TEST(get_val_from_file, ClosesTheFileOnce) {
    const TemporaryDirectory directory;
    directory.write("value", "3.5");
    const std::string path = directory.path("value");
    char out[16];
    const CountCalls descriptors(call_close);
    const CountCalls streams(call_fclose);
    get_val_from_file(path.c_str(), out, sizeof out);
    EXPECT_EQ(descriptors.count() + streams.count(), 1U);
}

TEST(get_val_from_file, FreesItsMemoryAfterAnyFailedAllocation) {
    const TemporaryDirectory directory;
    directory.write("value", "3.5");
    const std::string path = directory.path("value");
    EXPECT_GE(for_each_allocation_failure([&](AllocationTrial &trial) {
                  const DescriptorWatch watch;
                  char out[16] = "unchanged";
                  trial.run([&] { get_val_from_file(path.c_str(), out, sizeof out); });
                  if (!trial.failed()) {
                      EXPECT_STREQ(out, "3.500000");
                  }
              }),
              1U);
}

/** One of the functions that join indices and a suffix to a name. */
struct NameBuilder {
    const char *function;
    char *(*build)(int radio, int network, const char *suffix, char *out);
    const char *pattern; /**< The name: %r and %n are the indices, %s is the suffix. */
    const char *example; /**< The name for the indices 1 and 258 and the suffix "SSID". */

    friend std::ostream &operator<<(std::ostream &out, const NameBuilder &parameter) {
        return out << parameter.function;
    }
};

constexpr NameBuilder wlan_name = {"gen_wlan_name",
                                   [](int radio, int network, const char *, char *out) {
                                       return gen_wlan_name(radio, network, out);
                                   },
                                   "wifi%r_wlan%n", "wifi1_wlan2"};

constexpr NameBuilder wlan_name0 = {"gen_wlan_name0",
                                    [](int radio, int network, const char *, char *out) {
                                        return gen_wlan_name0(radio, network, out);
                                    },
                                    "WIFI%r_WLAN%n", "WIFI1_WLAN2"};

constexpr NameBuilder radio_name = {
    "gen_radio_name",
    [](int radio, int, const char *, char *out) { return gen_radio_name(radio, out); }, "wifi%r",
    "wifi1"};

constexpr NameBuilder radio_key = {
    "gen_radio_key",
    [](int radio, int, const char *suffix, char *out) { return gen_radio_key(radio, suffix, out); },
    "{WIFI%r_%s}", "{WIFI1_SSID}"};

constexpr NameBuilder radio_key0 = {"gen_radio_key0",
                                    [](int radio, int, const char *suffix, char *out) {
                                        return gen_radio_key0(radio, suffix, out);
                                    },
                                    "WIFI%r_%s", "WIFI1_SSID"};

constexpr NameBuilder wlan_key = {"gen_wlan_key",
                                  [](int radio, int network, const char *suffix, char *out) {
                                      return gen_wlan_key(radio, network, suffix, out);
                                  },
                                  "{WIFI%r_WLAN%n_%s}", "{WIFI1_WLAN2_SSID}"};

constexpr NameBuilder wlan_key0 = {"gen_wlan_key0",
                                   [](int radio, int network, const char *suffix, char *out) {
                                       return gen_wlan_key0(radio, network, suffix, out);
                                   },
                                   "WIFI%r_WLAN%n_%s", "WIFI1_WLAN2_SSID"};

/** Replaces the mark, if there is one. */
std::string replaced(std::string text, std::string_view mark, const std::string &value) {
    const std::size_t at = text.find(mark);
    return at == std::string::npos ? text : text.replace(at, mark.size(), value);
}

class BuiltName : public testing::TestWithParam<NameBuilder> {
  protected:
    /** Expects the name that the pattern describes, in a buffer of exactly its size. */
    static void expect(int radio, int network, const std::string &radio_text,
                       const std::string &network_text, const std::string &suffix) {
        std::string expected = replaced(GetParam().pattern, "%r", radio_text);
        expected = replaced(replaced(expected, "%n", network_text), "%s", suffix);
        GuardedInput input;
        const GuardedOutput output(expected.size() + 1);
        EXPECT_EQ(GetParam().build(radio, network, input.hold(suffix), output.start()),
                  output.start());
        EXPECT_EQ(output.bytes(), expected + '\0');
        EXPECT_TRUE(output.preceding_bytes_intact());
    }
};

/** Of the functions that take a suffix. */
class BuiltKey : public BuiltName {};

INSTANTIATE_TEST_SUITE_P(gen_wlan_name, BuiltName, testing::Values(wlan_name),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(gen_wlan_name0, BuiltName, testing::Values(wlan_name0),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(gen_radio_name, BuiltName, testing::Values(radio_name),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(gen_radio_key, BuiltName, testing::Values(radio_key),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(gen_radio_key0, BuiltName, testing::Values(radio_key0),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(gen_wlan_key, BuiltName, testing::Values(wlan_key),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(gen_wlan_key0, BuiltName, testing::Values(wlan_key0),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(gen_radio_key, BuiltKey, testing::Values(radio_key),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(gen_radio_key0, BuiltKey, testing::Values(radio_key0),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(gen_wlan_key, BuiltKey, testing::Values(wlan_key),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(gen_wlan_key0, BuiltKey, testing::Values(wlan_key0),
                         testing::PrintToStringParamName());

TEST_P(BuiltName, JoinsIndicesAndSuffix) {
    char out[64];
    EXPECT_STREQ(GetParam().build(1, 258, "SSID", out), GetParam().example);
    expect(0, 1, "0", "1", "CHANNEL");
}

TEST_P(BuiltName, ContainsOnlyTheLowByteOfAnIndex) {
    expect(0, 255, "0", "255", "x");
    expect(255, 0, "255", "0", "x");
    expect(256, 257, "0", "1", "x");
    expect(-1, -256, "255", "0", "x");
    expect(INT_MAX, INT_MIN, "255", "0", "x");
    expect(0x12345678, -2, "120", "254", "x");
    for (int index = 0; index < 1000; ++index)
        expect(index, 999 - index, std::to_string(index % 256), std::to_string((999 - index) % 256),
               "KEY");
}

TEST_P(BuiltKey, ContainsTheSuffixUnchanged) {
    expect(1, 2, "1", "2", "");
    expect(1, 2, "1", "2", "%s%n%d");
    expect(1, 2, "1", "2", "lower_case } {\xE9\xFF");
    expect(1, 2, "1", "2", std::string(400, 'K'));
}

TEST_P(BuiltKey, TreatsANullPointerAsAnEmptySuffix) {
    char with_null[32];
    char with_empty[32];
    EXPECT_STREQ(GetParam().build(1, 2, nullptr, with_null),
                 GetParam().build(1, 2, "", with_empty));
}

} // namespace
