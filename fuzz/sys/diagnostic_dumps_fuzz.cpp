// SPDX-License-Identifier: MIT
// Dumps of any bytes against models on std::string, and the dumps read back.
//
// Input: a title NUL the string to append to NUL, then the bytes.
#include "corvel.h"
#include "fuzz/harness.h"

#include <algorithm>

namespace {

using namespace corvel_fuzz;

constexpr std::size_t shortened_from = 40;

struct Bytes {
    const unsigned char *data;
    int length;
};

using Dump = void (*)(const unsigned char *, int);

// ----------------------------------------------------------------------------------- the models

/** Two digits and a space for each byte. */
std::string spaced(std::string_view bytes) {
    return bytes.empty() ? "" : lower_case(hexadecimal(bytes, " ")) + " ";
}

std::string plain(std::string_view bytes) { return std::string(bytes); }

template <typename Spell>
std::string shortened(std::string_view bytes, std::size_t end, Spell spell) {
    if (bytes.empty())
        return "<empty string>";
    if (bytes.size() < shortened_from)
        return spell(bytes);
    return spell(bytes.substr(0, end)) + " ... " + spell(bytes.substr(bytes.size() - end)) + " [" +
           std::to_string(bytes.size()) + " bytes]";
}

/** A line for each 16 bytes, and one for the rest, which may be empty. */
std::string lines_of(std::string_view bytes) {
    std::string text;
    for (; bytes.size() >= 16; bytes.remove_prefix(16))
        text += spaced(bytes.substr(0, 16)) + "\n";
    return text + spaced(bytes) + "\n";
}

std::string title_of(const std::string &title, std::size_t length) {
    return title + "(" + std::to_string(length) + "):\n";
}

/** Hardware addresses: six bytes each, with colons, and spaces between them. */
std::string addresses_of(std::string_view bytes) {
    std::string text;
    for (; !bytes.empty(); bytes.remove_prefix(std::min<std::size_t>(bytes.size(), 6)))
        text += (text.empty() ? "" : " ") + hexadecimal(bytes.substr(0, 6), ":");
    return text;
}

std::string digits_of(std::string_view text) {
    std::string digits(text);
    std::erase_if(digits, [](char c) { return c == ' ' || c == '\n' || c == ':'; });
    return digits;
}

// ----------------------------------------------------------------------------------- the checks

/** The digits of a dump are those of its bytes. */
void check_read_back(std::string_view text, const std::string &bytes) {
    const std::string digits = digits_of(text);
    const auto back = std::make_unique<unsigned char[]>(bytes.size());
    check(digits.size() == 2 * bytes.size(), "a complete dump shows every byte");
    check_equal(str2byte(digits.c_str(), static_cast<int>(digits.size()), back.get()), 0,
                "a complete dump consists of digits");
    check_equal({reinterpret_cast<const char *>(back.get()), bytes.size()}, bytes,
                "bytes are read back from their dump");
}

std::string dump_of(Dump dump, Bytes bytes) {
    return output_of([&] { dump(bytes.data, bytes.length); });
}

std::string check_dumps(Bytes block, const std::string &bytes, const std::string &title) {
    const std::string lines = dump_of(print_string, block);
    check_equal(lines, "\n" + lines_of(bytes), "print_string");
    check_read_back(lines, bytes);
    const std::string short_lines = dump_of(print_hex_string, block);
    check_equal(
        short_lines,
        shortened(bytes, 10, [](std::string_view part) { return lower_case(hexadecimal(part)); }),
        "print_hex_string");
    const std::string short_text = dump_of(print_to_string, block);
    check_equal(short_text, shortened(bytes, 20, plain), "print_to_string");
    check_equal(dump_of(DPrint_hex_string, block), "", "DPrint_hex_string prints nothing");

    const auto name = exact_copy(title);
    const auto titled = [&](auto print, const char *text) {
        return output_of([&] { print(text, block.data, block.length); });
    };
    check_equal(titled(print_hex_array, name.get()),
                title_of(title, bytes.size()) + lines_of(bytes), "print_hex_array");
    check_equal(titled(print_hex_array, nullptr), lines_of(bytes), "print_hex_array, no title");
    check_equal(titled(print_string_array, name.get()),
                title_of(title, bytes.size()) + bytes + "\n", "print_string_array");
    check_equal(titled(print_string_array, nullptr), bytes + "\n", "print_string_array, no title");
    return lines + short_lines + short_text;
}

std::string check_addresses(Bytes block, const std::string &bytes, const std::string &before) {
    const std::string expected = before + addresses_of(bytes);
    const auto text = block_to_append_to(before, expected.size() + 1);
    check_equal(print_byte_to_string(text.get(), block.data, block.length), 0,
                "print_byte_to_string returns 0");
    check_equal(text.get(), expected, "print_byte_to_string");
    check_read_back(text.get() + before.size(), bytes);
    return text.get();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    Input input(data, size);
    const std::string title = input.text();
    const std::string before = input.text();
    const std::string bytes = input.rest();
    const auto block = std::make_unique<unsigned char[]>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), block.get());
    const Bytes whole = {block.get(), static_cast<int>(bytes.size())};
    in_different_surroundings(
        [&] { return check_dumps(whole, bytes, title) + check_addresses(whole, bytes, before); });
    check_dumps({block.get(), 0}, "", title);
    check_dumps({nullptr, -1 - whole.length}, "", title);
    check_addresses({block.get(), -1 - whole.length}, "", before);
    return 0;
}
