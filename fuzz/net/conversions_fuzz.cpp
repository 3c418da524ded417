// SPDX-License-Identifier: MIT
// Bytes to hexadecimal digits and back, hardware addresses through their three forms and back,
// against models on std::string; the names of radios and networks; the number in a file.
//
// Input: a length (two bytes) a radio (two bytes) a network (two bytes), a string NUL, then bytes.
#include "corvel.h"
#include "fuzz/harness.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>
#include <cstring>

namespace {

using namespace corvel_fuzz;

constexpr std::size_t stripped_size = CORVEL_MAC_STRIPPED_SIZE;
constexpr std::size_t digit_count = CORVEL_MAC_STRIPPED_SIZE - 1;
constexpr std::string_view lower_digits = "0123456789abcdef";
constexpr std::string_view upper_digits = "0123456789ABCDEF";

const unsigned char *unsigned_bytes(const std::unique_ptr<char[]> &block) {
    return reinterpret_cast<const unsigned char *>(block.get());
}

/** A block of exactly these bytes, without a terminator. */
std::unique_ptr<char[]> bare_copy(std::string_view bytes) {
    auto copy = std::make_unique<char[]>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), copy.get());
    return copy;
}

// ----------------------------------------------------------------------------------- the models

int digit_value(char c) {
    const std::size_t lower = lower_digits.find(c);
    const std::size_t value = lower != std::string_view::npos ? lower : upper_digits.find(c);
    return value != std::string_view::npos ? static_cast<int>(value) : -1;
}

/** The bytes of pairs of digits. A character that is not a digit counts as -1. */
std::string decoded(std::string_view text) {
    std::string bytes;
    for (std::size_t i = 0; i + 2 <= text.size(); i += 2)
        bytes += static_cast<char>(digit_value(text[i]) * 16 + digit_value(text[i + 1]));
    return bytes;
}

/** The bytes of the pairs of digits before the first pair that is malformed. */
std::string strictly_decoded(std::string_view text) {
    std::string bytes;
    for (std::size_t i = 0; i + 2 <= text.size(); i += 2) {
        if (digit_value(text[i]) < 0 || digit_value(text[i + 1]) < 0)
            break;
        bytes += decoded(text.substr(i, 2));
    }
    return bytes;
}

/** The result of mac2hexStrip(), padded with NULs. */
std::string stripped(std::string_view mac) {
    std::string text = stripped_mac(mac);
    text.resize(stripped_size);
    return text;
}

std::string with_colons(const std::string &text) {
    std::string result;
    for (std::size_t i = 0; i < text.size(); i += 2) {
        if (i != 0)
            result += ':';
        result.append(text.substr(i, 2));
    }
    return text.size() % 2 == 0 ? result : result + '\0';
}

// ----------------------------------------------------------------------------------- the checks

std::string check_to_text(std::string_view bytes) {
    const auto source = bare_copy(bytes);
    const auto count = static_cast<unsigned>(bytes.size());
    std::string expected = hexadecimal(bytes);
    const auto out = unterminated_block(expected.size() + 1);
    out[0] = '\0'; // for no bytes nothing is written
    check(ascii2hex(unsigned_bytes(source), count, out.get()) == out.get(),
          "ascii2hex returns out");
    check_equal(out.get(), expected, "ascii2hex");
    char *const allocated = ascii2hex(unsigned_bytes(source), count, nullptr);
    check_equal(allocated, expected, "ascii2hex into a block that it allocates");
    free_buffer(allocated, static_cast<std::uint32_t>(expected.size()));
    return expected;
}

void check_strict(const std::string &text, int length) {
    const std::string digits = text.substr(0, static_cast<std::size_t>(std::max(length, 0)));
    const std::size_t pairs = static_cast<std::size_t>(std::max(length, 0)) / 2;
    const std::string bytes = strictly_decoded(digits);
    const auto out = padded_copy(std::string(pairs, '#'), pairs + 1);
    const int result =
        str2byte(exact_copy(text).get(), length, reinterpret_cast<unsigned char *>(out.get()));
    check_equal(result, bytes.size() == pairs ? 0 : -1, "str2byte");
    std::string expected(pairs, '#');
    expected.replace(0, bytes.size(), bytes);
    check_equal({out.get(), pairs + 1}, expected + '\0', "the bytes that str2byte writes");
}

void check_unchecked(const std::string &text) {
    const std::string expected = decoded(text);
    const auto out = unterminated_block(expected.size() + 1);
    out[0] = '\0';
    check(hex2ascii(exact_copy(text).get(), out.get()) == out.get(), "hex2ascii returns out");
    check_equal({out.get(), expected.size() + 1}, expected + '\0', "hex2ascii");
}

/** Printed bytes are read back in either case and by either function. */
void check_there_and_back(const std::string &bytes) {
    const std::string text = check_to_text(bytes);
    for (const std::string &form : {text, lower_case(text)}) {
        const auto strict = std::make_unique<unsigned char[]>(bytes.size());
        check_equal(str2byte(form.c_str(), static_cast<int>(form.size()), strict.get()), 0,
                    "printed bytes are digits");
        check_equal({reinterpret_cast<const char *>(strict.get()), bytes.size()}, bytes,
                    "bytes are read back from their digits");
        const auto unchecked = unterminated_block(bytes.size() + 1);
        unchecked[0] = '\0';
        hex2ascii(form.c_str(), unchecked.get());
        check_equal({unchecked.get(), bytes.size()}, bytes, "bytes are read back without a check");
    }
}

/** Converts an address from bytes to all forms and back. */
void check_address(const std::string &bytes) {
    const auto source = bare_copy(bytes);
    const std::string colon_form = iw_pr_ether(unsigned_bytes(source));
    check_equal(colon_form, with_colons(hexadecimal(bytes)), "iw_pr_ether");
    const auto text = unterminated_block(stripped_size);
    for (const std::string &form : {colon_form, lower_case(colon_form)})
        check_equal(mac2hexStrip(form.c_str(), text.get()), hexadecimal(bytes), "mac2hexStrip");
    const auto again = padded_copy("", CORVEL_MAC_SIZE);
    check_equal(HexStrip2mac(text.get(), again.get()), colon_form, "HexStrip2mac");
    std::array<unsigned char, CORVEL_MAC_BYTES> mac{};
    check_equal(ascii2mac(text.get(), mac.data()), bytes[0] & 1,
                "ascii2mac returns whether it is a group address");
    check_equal({reinterpret_cast<const char *>(mac.data()), mac.size()}, bytes,
                "an address is read back from its stripped form");
    check_equal(mac2hexStrip(again.get(), again.get()), text.get(), "mac2hexStrip in place");
}

void check_forms(const std::string &text) {
    const auto strip = unterminated_block(stripped_size);
    check(mac2hexStrip(exact_copy(text).get(), strip.get()) == strip.get(),
          "mac2hexStrip returns out");
    check_equal({strip.get(), stripped_size}, stripped(text), "mac2hexStrip");

    const std::string colons = with_colons(text);
    const auto out = unterminated_block(colons.size() + 1);
    check(HexStrip2mac(exact_copy(text).get(), out.get()) == out.get(), "HexStrip2mac returns out");
    check_equal({out.get(), colons.size() + 1}, colons + '#', "HexStrip2mac");

    std::array<unsigned char, CORVEL_MAC_BYTES> mac = {'#', '#', '#', '#', '#', '#'};
    std::string expected = "######";
    if (text.size() == digit_count) {
        for (std::size_t i = 0; i < CORVEL_MAC_BYTES; ++i)
            expected[i] =
                static_cast<char>(digit_value(text[i * 2]) * 16 | digit_value(text[i * 2 + 1]));
    }
    check_equal(ascii2mac(exact_copy(text).get(), mac.data()),
                text.size() == digit_count ? expected[0] & 1 : 1, "ascii2mac");
    check_equal({reinterpret_cast<const char *>(mac.data()), mac.size()}, expected,
                "the bytes that ascii2mac writes");
}

template <typename Print> void check_name(const std::string &expected, Print print) {
    const auto out = unterminated_block(expected.size() + 1);
    check(print(out.get()) == out.get(), "a name's buffer is returned");
    check_equal(out.get(), expected, "a name");
}

void check_names(int radio, int network, const std::string &suffix) {
    const std::string r = std::to_string(static_cast<unsigned char>(radio));
    const std::string n = std::to_string(static_cast<unsigned char>(network));
    const std::string radio_key = "WIFI" + r + "_" + suffix;
    const std::string network_key = "WIFI" + r + "_WLAN" + n + "_" + suffix;
    const char *const s = suffix.c_str();
    check_name("wifi" + r + "_wlan" + n, [&](char *o) { return gen_wlan_name(radio, network, o); });
    check_name("WIFI" + r + "_WLAN" + n,
               [&](char *o) { return gen_wlan_name0(radio, network, o); });
    check_name("wifi" + r, [&](char *o) { return gen_radio_name(radio, o); });
    check_name("{" + radio_key + "}", [&](char *o) { return gen_radio_key(radio, s, o); });
    check_name(radio_key, [&](char *o) { return gen_radio_key0(radio, s, o); });
    check_name("{" + network_key + "}",
               [&](char *o) { return gen_wlan_key(radio, network, s, o); });
    check_name(network_key, [&](char *o) { return gen_wlan_key0(radio, network, s, o); });
    check_name(std::to_string(radio * network),
               [&](char *o) { return in2str(o, radio * network); });
}

void check_file(const std::string &bytes, int size) {
    static const MemoryFile file;
    file.fill(bytes);
    float number = 0.01F;
    static_cast<void>(std::sscanf(bytes.c_str(), "%f", &number));
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%f", static_cast<double>(number));
    const auto length = static_cast<std::size_t>(std::max(size, 0));
    const auto out = padded_copy("#", length);
    const std::string expected(length == 0 ? "#" : cut(text.data(), length - 1));
    check(get_val_from_file(file.path(), out.get(), size) == out.get(),
          "get_val_from_file returns out");
    check_equal(out.get(), expected, "get_val_from_file");
}

void check_characters() {
    for (int c = SCHAR_MIN; c <= SCHAR_MAX; ++c) {
        const auto character = static_cast<char>(c);
        check_equal(hex2int(character), digit_value(character), "hex2int");
        check_equal(chUpcase(static_cast<signed char>(c)), c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c,
                    "chUpcase");
    }
}

int index_of(Input &input) {
    const auto high = static_cast<signed char>(input.byte());
    return high * 256 + input.byte();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    Input input(data, size);
    const int length = index_of(input);
    const int radio = index_of(input);
    const int network = index_of(input);
    const std::string text = input.text();
    const std::string bytes = input.rest();
    in_different_surroundings([&] {
        check_unchecked(text);
        check_strict(text, length);
        check_strict(text, static_cast<int>(text.size()));
        check_forms(text);
        check_names(radio, network, text);
        check_file(bytes, length % 64);
        return check_to_text(bytes);
    });
    check_there_and_back(bytes);
    std::string address = bytes;
    address.resize(CORVEL_MAC_BYTES);
    check_address(address);
    check_characters();
    return 0;
}
