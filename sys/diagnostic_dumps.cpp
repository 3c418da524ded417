// SPDX-License-Identifier: MIT
#include "sys/diagnostic_dumps.h"

#include <corvel.h>

#include <cstdio>
#include <cstring>

#include "support/hexadecimal.h"

namespace corvel {
namespace {

using Bytes = std::span<const unsigned char>;

/// From this length on, a shortened dump shows only the first and the last bytes.
constexpr std::size_t shortened_from = 40;

constexpr std::size_t line_bytes = 16;

Bytes bytes_of(const unsigned char *data, int length) {
    return {data, length > 0 ? static_cast<std::size_t>(length) : 0};
}

/// Where a shortened dump goes: as hexadecimal or as raw characters, to standard output, or as
/// hexadecimal to the debug print.
struct HexPrinter {
    static constexpr std::size_t end_bytes = 10;
    static void text(const char *text) { std::fputs(text, stdout); }
    static void length(int length) { std::printf(" [%d bytes]", length); }
    static void bytes(Bytes bytes) {
        for (const unsigned char byte : bytes)
            std::printf("%02x", byte);
    }
};

struct RawPrinter : HexPrinter {
    static constexpr std::size_t end_bytes = 20;
    static void bytes(Bytes bytes) {
        if (!bytes.empty()) // no bytes may stand at a null pointer, which fwrite() must not get
            std::fwrite(bytes.data(), 1, bytes.size(), stdout);
    }
};

struct DebugPrinter {
    static constexpr std::size_t end_bytes = 10;
    static void text(const char *text) { DFPrintf(stderr, "%s", text); }
    static void length(int length) { DFPrintf(stderr, " [%d bytes]", length); }
    static void bytes(Bytes bytes) {
        for (const unsigned char byte : bytes)
            DFPrintf(stderr, "%02x", byte);
    }
};

template <typename Printer> void print_shortened(Bytes bytes) {
    if (bytes.empty()) {
        Printer::text("<empty string>");
    } else if (bytes.size() < shortened_from) {
        Printer::bytes(bytes);
    } else {
        Printer::bytes(bytes.first(Printer::end_bytes));
        Printer::text(" ... ");
        Printer::bytes(bytes.last(Printer::end_bytes));
        Printer::length(static_cast<int>(bytes.size()));
    }
}

void print_title(const char *title, std::size_t length) {
    if (title != nullptr)
        std::printf("%s(%d):\n", title, static_cast<int>(length));
}

/// A line ends behind every 16th byte and behind the last one, so that a full last line is followed
/// by an empty one.
void print_hex_lines(Bytes bytes) {
    std::size_t printed = 0;
    for (const unsigned char byte : bytes) {
        std::printf("%02x ", byte);
        if (++printed % line_bytes == 0)
            std::putchar('\n');
    }
    std::putchar('\n');
}

/// Appends hardware addresses: a colon between two bytes, a blank behind every sixth.
void append_addresses(char *text, Bytes bytes) {
    char *out = text + std::strlen(text);
    std::size_t appended = 0;
    for (const unsigned char byte : bytes) {
        if (appended != 0)
            *out++ = appended % 6 == 0 ? ' ' : ':';
        out = put_hex(out, byte);
        ++appended;
    }
    *out = '\0';
}

} // namespace

void print_raw_dump(const char *title, Bytes bytes) {
    print_title(title, bytes.size());
    RawPrinter::bytes(bytes);
    std::putchar('\n');
}

} // namespace corvel

extern "C" {

void DPrint_hex_string(const unsigned char *data, int len) {
    corvel::print_shortened<corvel::DebugPrinter>(corvel::bytes_of(data, len));
}

void print_hex_string(const unsigned char *data, int len) {
    corvel::print_shortened<corvel::HexPrinter>(corvel::bytes_of(data, len));
}

void print_to_string(const unsigned char *data, int len) {
    corvel::print_shortened<corvel::RawPrinter>(corvel::bytes_of(data, len));
}

void print_string(const unsigned char *data, int len) {
    std::putchar('\n');
    corvel::print_hex_lines(corvel::bytes_of(data, len));
}

void print_hex_array(const char *title, const unsigned char *data, int len) {
    const corvel::Bytes bytes = corvel::bytes_of(data, len);
    corvel::print_title(title, bytes.size());
    corvel::print_hex_lines(bytes);
}

void print_string_array(const char *title, const unsigned char *data, int len) {
    corvel::print_raw_dump(title, corvel::bytes_of(data, len));
}

int print_byte_to_string(char *dst, const unsigned char *data, int len) {
    corvel::append_addresses(dst, corvel::bytes_of(data, len));
    return 0;
}

} // extern "C"
