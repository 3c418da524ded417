// SPDX-License-Identifier: MIT
#include "net/conversions.h"

#include <corvel.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "support/descriptor.h"
#include "support/handles.h"
#include "support/text.h"

namespace corvel {
namespace {

/// Converts a letter from a to z to upper case, and no other character.
constexpr char upper_case(char character) {
    return character >= 'a' && character <= 'z' ? static_cast<char>(character - 'a' + 'A')
                                                : character;
}

/// The number of two hexadecimal digits. A character that is not a digit counts as -1.
constexpr int unchecked_pair(char high, char low) { return hex_value(high) * 16 + hex_value(low); }

/// Only the low byte of a radio's or network's index is used.
constexpr int low_byte(int index) { return index & 0xFF; }

/// The number at the start of a file, 0.01 if there is none; no value if the file cannot be read.
std::optional<float> first_number(const char *path) {
    Descriptor file = open_for_reading(path);
    const Stream stream(file ? fdopen(file.get(), "r") : nullptr);
    if (!stream)
        return {};
    file.release();
    float number = 0.01F;
    static_cast<void>(std::fscanf(stream.get(), "%f", &number) == 1);
    return number;
}

} // namespace

void strip_separators(std::string_view text, StrippedForm stripped) {
    const std::string_view mac = front(text, CORVEL_MAC_SIZE - 1);
    std::memset(stripped.data(), 0, stripped.size());
    char *out = stripped.data();
    for (std::size_t i = 0; i < mac.size(); i += 3) {
        *out++ = upper_case(mac[i]);
        if (i + 1 < mac.size())
            *out++ = upper_case(mac[i + 1]);
    }
}

} // namespace corvel

extern "C" {

using namespace corvel;

int hex2int(char digit) { return hex_value(digit); }

char *ascii2hex(const unsigned char *bytes, unsigned int n, char *out) {
    // 4 * (n / 2 + 1) is at least 2 * n + 1: the terminator fits. calloc() fails if it overflows.
    if (out == nullptr)
        out = static_cast<char *>(std::calloc(std::size_t{n} / 2 + 1, 4));
    if (out == nullptr)
        return nullptr;
    char *end = out;
    for (std::size_t i = 0; i < n; ++i)
        end = put_hex(end, bytes[i]);
    if (n != 0)
        *end = '\0';
    return out;
}

char *hex2ascii(const char *hex, char *out) {
    const std::string_view text = text_of(hex);
    for (std::size_t pair = 0; pair < text.size() / 2; ++pair)
        out[pair] = static_cast<char>(unchecked_pair(text[pair * 2], text[pair * 2 + 1]));
    out[text.size() / 2] = '\0';
    return out;
}

int str2byte(const char *hex, int len, unsigned char *out) {
    return parse_hex(text_or_empty(hex), size_from(len) / 2, out) ? 0 : -1;
}

unsigned int ascii2mac(const char *text, unsigned char *mac) {
    const std::string_view digits = text_of(text);
    if (digits.size() != CORVEL_MAC_STRIPPED_SIZE - 1)
        return 1;
    // OR, not unchecked_pair(): the results differ if the second character is not a digit.
    for (std::size_t i = 0; i < CORVEL_MAC_BYTES; ++i)
        mac[i] = static_cast<unsigned char>(hex_value(digits[i * 2]) * 16 |
                                            hex_value(digits[i * 2 + 1]));
    return mac[0] & 1U;
}

char *iw_pr_ether(const unsigned char *mac) {
    static char text[64];
    print_colon_form(MacAddress(mac, CORVEL_MAC_BYTES), ColonForm(text, CORVEL_MAC_SIZE));
    return text;
}

char *in2str(char *out, int value) {
    std::sprintf(out, "%d", value);
    return out;
}

signed char chUpcase(signed char character) {
    return static_cast<signed char>(upper_case(static_cast<char>(character)));
}

char *mac2hexStrip(const char *text, char *out) {
    char stripped[CORVEL_MAC_STRIPPED_SIZE];
    strip_separators(text_of(text), stripped);
    std::memcpy(out, stripped, sizeof stripped);
    return out;
}

char *HexStrip2mac(const char *text, char *out) {
    const std::string_view digits = text_of(text);
    char *end = out;
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        *end++ = digits[i];
        *end++ = i + 1 < digits.size() ? digits[i + 1] : '\0';
        if (i + 2 < digits.size())
            *end++ = ':';
    }
    return out;
}

char *get_val_from_file(const char *path, char *out, int size) {
    const std::optional<float> number = first_number(path);
    if (number)
        std::snprintf(out, size_from(size), "%f", static_cast<double>(*number));
    return out;
}

char *gen_wlan_name(int radio, int network, char *out) {
    std::sprintf(out, "wifi%d_wlan%d", low_byte(radio), low_byte(network));
    return out;
}

char *gen_wlan_name0(int radio, int network, char *out) {
    std::sprintf(out, "WIFI%d_WLAN%d", low_byte(radio), low_byte(network));
    return out;
}

char *gen_radio_name(int radio, char *out) {
    std::sprintf(out, "wifi%d", low_byte(radio));
    return out;
}

char *gen_radio_key(int radio, const char *suffix, char *out) {
    std::sprintf(out, "{WIFI%d_%s}", low_byte(radio), text_or_empty(suffix));
    return out;
}

char *gen_radio_key0(int radio, const char *suffix, char *out) {
    std::sprintf(out, "WIFI%d_%s", low_byte(radio), text_or_empty(suffix));
    return out;
}

char *gen_wlan_key(int radio, int network, const char *suffix, char *out) {
    std::sprintf(out, "{WIFI%d_WLAN%d_%s}", low_byte(radio), low_byte(network),
                 text_or_empty(suffix));
    return out;
}

char *gen_wlan_key0(int radio, int network, const char *suffix, char *out) {
    std::sprintf(out, "WIFI%d_WLAN%d_%s", low_byte(radio), low_byte(network),
                 text_or_empty(suffix));
    return out;
}

} // extern "C"
