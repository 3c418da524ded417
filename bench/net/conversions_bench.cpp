// SPDX-License-Identifier: MIT
// Bytes to hexadecimal digits and back, N bytes at a time; and N hardware addresses from the form
// with colons to the form without, to bytes, and back to the form with colons.
//
// The limit is the textbook loop with a table for each conversion, written for this job only.
#include "bench/harness.h"

#include <corvel.h>

#include <array>
#include <climits>
#include <random>

namespace {

using Bytes = std::vector<unsigned char>;

constexpr std::size_t mac_size = CORVEL_MAC_BYTES;
constexpr std::size_t colon_form_size = CORVEL_MAC_SIZE;
constexpr char digits[] = "0123456789ABCDEF";

constexpr std::array<signed char, UCHAR_MAX + 1> values = [] {
    std::array<signed char, UCHAR_MAX + 1> table{};
    table.fill(-1);
    for (signed char value = 0; value < 16; ++value) {
        const auto digit = static_cast<unsigned char>(digits[value]);
        table[digit] = value;
        if (value > 9)
            table[digit + 'a' - 'A'] = value;
    }
    return table;
}();

int value_of(char digit) { return values[static_cast<unsigned char>(digit)]; }

Bytes random_bytes(std::size_t size) {
    std::mt19937 generator(1);
    Bytes bytes(size);
    for (unsigned char &byte : bytes)
        byte = static_cast<unsigned char>(generator());
    return bytes;
}

std::string text_of(const Bytes &bytes) {
    std::string text;
    for (const unsigned char byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

// ------------------------------------------------------------------------------------- the limits

[[gnu::noinline]] void table_to_text(const unsigned char *bytes, std::size_t size, char *out) {
    for (std::size_t i = 0; i < size; ++i) {
        *out++ = digits[bytes[i] >> 4];
        *out++ = digits[bytes[i] & 15];
    }
    *out = '\0';
}

[[gnu::noinline]] int table_to_bytes(const char *text, std::size_t size, unsigned char *out) {
    for (std::size_t i = 0; i + 1 < size; i += 2) {
        const int high = value_of(text[i]);
        const int low = value_of(text[i + 1]);
        if (high < 0 || low < 0)
            return -1;
        *out++ = static_cast<unsigned char>(high * 16 + low);
    }
    return 0;
}

[[gnu::noinline]] void table_to_characters(const char *text, char *out) {
    for (; text[0] != '\0' && text[1] != '\0'; text += 2)
        *out++ = static_cast<char>(value_of(text[0]) * 16 + value_of(text[1]));
    *out = '\0';
}

[[gnu::noinline]] void loop_to_stripped(const char *text, char *out) {
    for (std::size_t i = 0; i < mac_size; ++i) {
        for (std::size_t digit = 0; digit < 2; ++digit) {
            const char c = text[3 * i + digit];
            *out++ = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
        }
    }
    *out = '\0';
}

[[gnu::noinline]] unsigned table_to_mac(const char *text, unsigned char *mac) {
    for (std::size_t i = 0; i < mac_size; ++i)
        mac[i] = static_cast<unsigned char>(value_of(text[2 * i]) << 4 | value_of(text[2 * i + 1]));
    return mac[0] & 1U;
}

[[gnu::noinline]] const char *table_to_colon_form(const unsigned char *mac) {
    static std::array<char, colon_form_size> text;
    char *out = text.data();
    for (std::size_t i = 0; i < mac_size; ++i) {
        *out++ = digits[mac[i] >> 4];
        *out++ = digits[mac[i] & 15];
        *out++ = ':';
    }
    text.back() = '\0';
    return text.data();
}

// -------------------------------------------------------------------------------------- the sides

void corvel_to_text(const Bytes &bytes, std::string &out) {
    ascii2hex(bytes.data(), static_cast<unsigned>(bytes.size()), out.data());
}

void limit_to_text(const Bytes &bytes, std::string &out) {
    table_to_text(bytes.data(), bytes.size(), out.data());
}

template <void convert(const Bytes &, std::string &)> void to_text(benchmark::State &state) {
    const Bytes bytes = random_bytes(static_cast<std::size_t>(state.range(0)));
    std::string out(bytes.size() * 2, '\0');
    convert(bytes, out);
    bench::require(out == text_of(bytes), "a side prints wrong digits");
    bench::measure(state, [&] { convert(bytes, out); });
}

int corvel_to_bytes(const std::string &text, Bytes &out) {
    return str2byte(text.c_str(), static_cast<int>(text.size()), out.data());
}

int limit_to_bytes(const std::string &text, Bytes &out) {
    return table_to_bytes(text.c_str(), text.size(), out.data());
}

template <int convert(const std::string &, Bytes &)> void to_bytes(benchmark::State &state) {
    const Bytes bytes = random_bytes(static_cast<std::size_t>(state.range(0)));
    const std::string text = text_of(bytes);
    Bytes out(bytes.size());
    bench::require(convert(text, out) == 0 && out == bytes, "a side returns wrong bytes");
    bench::measure(state, [&] { benchmark::DoNotOptimize(convert(text, out)); });
}

void corvel_to_characters(const char *text, char *out) { hex2ascii(text, out); }

template <void convert(const char *, char *)> void to_characters(benchmark::State &state) {
    const Bytes bytes = random_bytes(static_cast<std::size_t>(state.range(0)));
    const std::string text = text_of(bytes);
    std::string out(bytes.size(), '\0');
    convert(text.c_str(), out.data());
    bench::require(out == std::string(bytes.begin(), bytes.end()),
                   "a side returns wrong characters");
    bench::measure(state, [&] {
        out[0] = '\0';
        convert(text.c_str(), out.data());
    });
}

struct MacFunctions {
    void (*to_stripped)(const char *, char *);
    unsigned (*to_mac)(const char *, unsigned char *);
    const char *(*to_colon_form)(const unsigned char *);
};

void corvel_to_stripped(const char *text, char *out) { mac2hexStrip(text, out); }
const char *corvel_to_colon_form(const unsigned char *mac) { return iw_pr_ether(mac); }

constexpr MacFunctions corvel_macs = {corvel_to_stripped, ascii2mac, corvel_to_colon_form};
constexpr MacFunctions limit_macs = {loop_to_stripped, table_to_mac, table_to_colon_form};

/// Converts each address through all forms; returns the last address.
template <const MacFunctions &functions> const char *convert(const std::vector<std::string> &macs) {
    const char *text = "";
    for (const std::string &mac : macs) {
        std::array<char, CORVEL_MAC_STRIPPED_SIZE> stripped;
        std::array<unsigned char, mac_size> bytes;
        functions.to_stripped(mac.c_str(), stripped.data());
        benchmark::DoNotOptimize(functions.to_mac(stripped.data(), bytes.data()));
        text = functions.to_colon_form(bytes.data());
        benchmark::ClobberMemory();
    }
    return text;
}

template <const MacFunctions &functions> void spellings(benchmark::State &state) {
    const Bytes bytes = random_bytes(static_cast<std::size_t>(state.range(0)) * mac_size);
    std::vector<std::string> macs;
    for (std::size_t at = 0; at < bytes.size(); at += mac_size)
        macs.emplace_back(table_to_colon_form(&bytes[at]));
    bench::require(convert<functions>(macs) == macs.back(), "an address is not restored");
    bench::measure(state, [&] { benchmark::DoNotOptimize(convert<functions>(macs)); });
}

const std::vector<bench::Size> sizes = {{1024}, {16384}};

const bench::Job text_job("bytes to hexadecimal", sizes,
                          {{"corvel", to_text<corvel_to_text>}, {"limit", to_text<limit_to_text>}});
const bench::Job bytes_job("hexadecimal to bytes", sizes,
                           {{"corvel", to_bytes<corvel_to_bytes>},
                            {"limit", to_bytes<limit_to_bytes>}});
const bench::Job character_job("hexadecimal to characters", sizes,
                               {{"corvel", to_characters<corvel_to_characters>},
                                {"limit", to_characters<table_to_characters>}});
const bench::Job mac_job("convert hardware addresses", {{1000}},
                         {{"corvel", spellings<corvel_macs>}, {"limit", spellings<limit_macs>}});

} // namespace
