// SPDX-License-Identifier: MIT
#include "sys/diagnostic_dumps.h"

#include <corvel.h>

#include <cstdio>
#include <cstring>

#include "support/hexadecimal.h"
#include "support/text.h"

namespace corvel {
namespace {

using Bytes = std::span<const unsigned char>;

/// A shortened dump of this many bytes or more shows only the first and the last ones.
constexpr std::size_t shortened_from = 40;

constexpr std::size_t line_bytes = 16;

Bytes bytes_of(const unsigned char *data, int length) { return {data, size_from(length)}; }

void print_hex(Bytes bytes) {
    for (const unsigned char byte : bytes)
        std::printf("%02x", byte);
}

void print_raw(Bytes bytes) {
    if (!bytes.empty()) // an empty block may be a null pointer, which fwrite() must not get
        std::fwrite(bytes.data(), 1, bytes.size(), stdout);
}

/// Prints a block, or only `end_bytes` bytes of its start and of its end.
void print_shortened(Bytes bytes, std::size_t end_bytes, void (*print)(Bytes)) {
    if (bytes.empty()) {
        std::fputs("<empty string>", stdout);
    } else if (bytes.size() < shortened_from) {
        print(bytes);
    } else {
        print(bytes.first(end_bytes));
        std::fputs(" ... ", stdout);
        print(bytes.last(end_bytes));
        std::printf(" [%d bytes]", static_cast<int>(bytes.size()));
    }
}

void print_title(const char *title, std::size_t length) {
    if (title != nullptr)
        std::printf("%s(%d):\n", title, static_cast<int>(length));
}

/// Prints a newline after every 16th byte and at the end, so that an empty line follows a full last
/// line.
void print_hex_lines(Bytes bytes) {
    std::size_t printed = 0;
    for (const unsigned char byte : bytes) {
        std::printf("%02x ", byte);
        if (++printed % line_bytes == 0)
            std::putchar('\n');
    }
    std::putchar('\n');
}

/// Appends hardware addresses: a colon between two bytes, a space instead after every sixth.
void append_addresses(char *string, Bytes bytes) {
    char *out = string + std::strlen(string);
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
    print_raw(bytes);
    std::putchar('\n');
}

} // namespace corvel

extern "C" {

using namespace corvel;

// Its output is that of DFPrintf(): nothing.
void DPrint_hex_string(const unsigned char *, int) {}

void print_hex_string(const unsigned char *data, int len) {
    print_shortened(bytes_of(data, len), 10, print_hex);
}

void print_to_string(const unsigned char *data, int len) {
    print_shortened(bytes_of(data, len), 20, print_raw);
}

void print_string(const unsigned char *data, int len) {
    std::putchar('\n');
    print_hex_lines(bytes_of(data, len));
}

void print_hex_array(const char *title, const unsigned char *data, int len) {
    const Bytes bytes = bytes_of(data, len);
    print_title(title, bytes.size());
    print_hex_lines(bytes);
}

void print_string_array(const char *title, const unsigned char *data, int len) {
    print_raw_dump(title, bytes_of(data, len));
}

int print_byte_to_string(char *dst, const unsigned char *data, int len) {
    append_addresses(dst, bytes_of(data, len));
    return 0;
}

} // extern "C"
