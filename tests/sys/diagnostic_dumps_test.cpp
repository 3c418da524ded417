/* SPDX-License-Identifier: MIT */
#include <corvel.h>

#include "tests/support/guarded_memory.h"
#include "tests/support/output_capture.h"
#include "tests/sys/sample_bytes.h"

#include <climits>
#include <cstdio>
#include <functional>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace corvel_test;
using namespace std::string_literals;

constexpr int short_lengths[] = {1, 2, 5, 6, 7, 12, 13, 15, 16, 17, 20, 31, 32, 33, 37, 38, 39};
constexpr int long_lengths[] = {40, 41, 47, 48, 49, 100, 255, 256, 257, 1000};
const std::vector<int> lengths = [] {
    std::vector<int> all = {0};
    all.insert(all.end(), std::begin(short_lengths), std::end(short_lengths));
    all.insert(all.end(), std::begin(long_lengths), std::end(long_lengths));
    return all;
}();
constexpr int negative_lengths[] = {-1, -16, -40, INT_MIN};

std::string sample(int length) { return sample_bytes(static_cast<std::size_t>(length), 0xF7); }

/** Returns bytes in hexadecimal, each followed by @p suffix. */
std::string hex(std::string_view bytes, const std::string &suffix = "") {
    std::string text;
    for (const char byte : bytes) {
        constexpr const char *digits = "0123456789abcdef";
        text += digits[static_cast<unsigned char>(byte) / 16];
        text += digits[static_cast<unsigned char>(byte) % 16];
        text += suffix;
    }
    return text;
}

/** Returns what a dump prints of bytes that end or begin at an inaccessible page. */
std::string dumped(const std::string &bytes,
                   const std::function<void(const unsigned char *, int)> &dump) {
    std::string text;
    for (const GuardPage guard : {GuardPage::after, GuardPage::before}) {
        const GuardedBlock block(bytes, guard);
        text = capture_stdout([&] {
            dump(reinterpret_cast<const unsigned char *>(block.start()),
                 static_cast<int>(bytes.size()));
        });
        EXPECT_EQ(block.bytes(), bytes);
    }
    return text;
}

/** Expects what a dump prints for no bytes and for negative lengths. */
void expect_without_bytes(const std::string &text,
                          const std::function<void(const unsigned char *, int)> &dump) {
    EXPECT_EQ(capture_stdout([&] { dump(nullptr, 0); }), text);
    const unsigned char byte = 'a';
    for (const int length : negative_lengths) {
        EXPECT_EQ(capture_stdout([&] { dump(&byte, length); }), text) << length;
        EXPECT_EQ(capture_stdout([&] { dump(nullptr, length); }), text) << length;
    }
}

// --- DPrint_hex_string ---

TEST(DPrint_hex_string, PrintsNothing) {
    for (const int length : lengths) {
        EXPECT_EQ(dumped(sample(length), DPrint_hex_string), "");
        EXPECT_EQ(capture_stderr([length] {
                      const std::string bytes = sample(length);
                      DPrint_hex_string(reinterpret_cast<const unsigned char *>(bytes.data()),
                                        length);
                  }),
                  "");
    }
    expect_without_bytes("", DPrint_hex_string);
}

// --- print_hex_string ---

TEST(print_hex_string, PrintsFewerThanFortyBytesWhole) {
    EXPECT_EQ(dumped("\x01\xAB\xFF", print_hex_string), "01abff");
    for (const int length : short_lengths)
        EXPECT_EQ(dumped(sample(length), print_hex_string), hex(sample(length))) << length;
    EXPECT_EQ(dumped(sample(39), print_hex_string).size(), 78U);
}

TEST(print_hex_string, PrintsOnlyTheEndsOfFortyBytesOrMore) {
    EXPECT_EQ(dumped("0123456789" + std::string(20, '\0') + "ABCDEFGHIJ", print_hex_string),
              "30313233343536373839 ... 4142434445464748494a [40 bytes]");
    for (const int length : long_lengths)
        EXPECT_EQ(dumped(sample(length), print_hex_string),
                  hex(sample(length).substr(0, 10)) + " ... " +
                      hex(sample(length).substr(sample(length).size() - 10)) + " [" +
                      std::to_string(length) + " bytes]");
}

TEST(print_hex_string, PrintsEmptyStringForNoBytes) {
    EXPECT_EQ(dumped("", print_hex_string), "<empty string>");
    expect_without_bytes("<empty string>", print_hex_string);
}

// --- print_to_string ---

TEST(print_to_string, PrintsFewerThanFortyBytesWhole) {
    EXPECT_EQ(dumped("a\0%s\n\xFF"s, print_to_string), "a\0%s\n\xFF"s);
    for (const int length : short_lengths)
        EXPECT_EQ(dumped(sample(length), print_to_string), sample(length)) << length;
}

TEST(print_to_string, PrintsOnlyTheEndsOfFortyBytesOrMore) {
    EXPECT_EQ(dumped("0123456789abcdefghijABCDEFGHIJ0123456789", print_to_string),
              "0123456789abcdefghij ... ABCDEFGHIJ0123456789 [40 bytes]");
    for (const int length : long_lengths)
        EXPECT_EQ(dumped(sample(length), print_to_string),
                  sample(length).substr(0, 20) + " ... " +
                      sample(length).substr(sample(length).size() - 20) + " [" +
                      std::to_string(length) + " bytes]");
}

TEST(print_to_string, PrintsEmptyStringForNoBytes) {
    EXPECT_EQ(dumped("", print_to_string), "<empty string>");
    expect_without_bytes("<empty string>", print_to_string);
}

// --- print_string ---

/** Returns lines of sixteen bytes; a newline ends even an empty last line. */
std::string hex_lines(const std::string &bytes) {
    std::string text;
    std::size_t at = 0;
    for (; at + 16 <= bytes.size(); at += 16)
        text += hex(bytes.substr(at, 16), " ") + "\n";
    return text + hex(bytes.substr(at), " ") + "\n";
}

TEST(print_string, PrintsANewlineAndThenSixteenBytesALine) {
    EXPECT_EQ(dumped("", print_string), "\n\n");
    EXPECT_EQ(dumped("\x01\xAB", print_string), "\n01 ab \n");
    EXPECT_EQ(dumped("0123456789abcdef", print_string),
              "\n30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66 \n\n");
    EXPECT_EQ(dumped("0123456789abcdefg", print_string),
              "\n30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66 \n67 \n");
    for (const int length : lengths)
        EXPECT_EQ(dumped(sample(length), print_string), "\n" + hex_lines(sample(length)));
    expect_without_bytes("\n\n", print_string);
}

// --- print_hex_array ---

TEST(print_hex_array, PrintsTheTitleAndSixteenBytesALine) {
    const auto titled = [](const unsigned char *data, int length) {
        print_hex_array("title %d", data, length);
    };
    EXPECT_EQ(dumped("", titled), "title %d(0):\n\n");
    EXPECT_EQ(dumped("0123456789abcdef", titled),
              "title %d(16):\n30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66 \n\n");
    for (const int length : lengths)
        EXPECT_EQ(dumped(sample(length), titled),
                  "title %d(" + std::to_string(length) + "):\n" + hex_lines(sample(length)));
    expect_without_bytes("title %d(0):\n\n", titled);
}

TEST(print_hex_array, PrintsNoTitleLineForANullTitle) {
    const auto untitled = [](const unsigned char *data, int length) {
        print_hex_array(nullptr, data, length);
    };
    for (const int length : lengths)
        EXPECT_EQ(dumped(sample(length), untitled), hex_lines(sample(length)));
    expect_without_bytes("\n", untitled);
    EXPECT_EQ(capture_stdout([] { print_hex_array("", nullptr, 0); }), "(0):\n\n");
}

// --- print_string_array ---

TEST(print_string_array, PrintsTheTitleAndTheBytes) {
    const auto titled = [](const unsigned char *data, int length) {
        print_string_array("title", data, length);
    };
    EXPECT_EQ(dumped("a\0b\n"s, titled), "title(4):\na\0b\n\n"s);
    for (const int length : lengths)
        EXPECT_EQ(dumped(sample(length), titled),
                  "title(" + std::to_string(length) + "):\n" + sample(length) + "\n");
    expect_without_bytes("title(0):\n\n", titled);
}

TEST(print_string_array, PrintsNoTitleLineForANullTitle) {
    const auto untitled = [](const unsigned char *data, int length) {
        print_string_array(nullptr, data, length);
    };
    for (const int length : lengths)
        EXPECT_EQ(dumped(sample(length), untitled), sample(length) + "\n");
    expect_without_bytes("\n", untitled);
}

// --- print_byte_to_string ---

/** Returns a string with bytes appended to it, in a buffer of exactly the documented size. */
std::string appended(const std::string &text, const std::string &bytes) {
    const std::size_t size = text.size() + (bytes.empty() ? 1 : 3 * bytes.size());
    std::string buffer = text + '\0';
    buffer.resize(size, '#');
    const GuardedBlock block(buffer);
    EXPECT_EQ(print_byte_to_string(block.start(),
                                   reinterpret_cast<const unsigned char *>(bytes.data()),
                                   static_cast<int>(bytes.size())),
              0);
    return block.start();
}

TEST(print_byte_to_string, AppendsHardwareAddresses) {
    EXPECT_EQ(appended("", "\x00\x11\x22\x33\x44\x55"s), "00:11:22:33:44:55");
    EXPECT_EQ(appended("", "\x00\x11\x22\x33\x44\x55\x66\x77\x88\x99\xAA\xBB"s),
              "00:11:22:33:44:55 66:77:88:99:AA:BB");
    EXPECT_EQ(appended("", "\x00\x11\x22\x33\x44\x55\xFF"s), "00:11:22:33:44:55 FF");
    EXPECT_EQ(appended("mac ", "\xAB"), "mac AB");
    EXPECT_EQ(appended("mac ", ""), "mac ");
}

TEST(print_byte_to_string, AppendsASpaceAfterEverySixthByte) {
    for (const int length : lengths) {
        std::string expected = "->";
        const std::string bytes = sample(length);
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            char digits[8];
            std::snprintf(digits, sizeof digits, "%02X", static_cast<unsigned char>(bytes[i]));
            expected += digits;
            if (i + 1 < bytes.size())
                expected += (i + 1) % 6 == 0 ? ' ' : ':';
        }
        EXPECT_EQ(appended("->", bytes), expected) << length;
    }
}

TEST(print_byte_to_string, AppendsNothingForANegativeLength) {
    for (const int length : negative_lengths) {
        char text[] = "as it was";
        const unsigned char byte = 0xAB;
        EXPECT_EQ(print_byte_to_string(text, &byte, length), 0);
        EXPECT_STREQ(text, "as it was");
    }
}

TEST(print_byte_to_string, PrintsNothing) {
    EXPECT_EQ(capture_stdout([] { EXPECT_EQ(appended("", "\x01\x02"), "01:02"); }), "");
}

} // namespace
