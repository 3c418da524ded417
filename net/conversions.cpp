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

/// A letter from a to z in upper case; any other character as it is.
constexpr char upper_case(char character) {
    return character >= 'a' && character <= 'z' ? static_cast<char>(character - 'a' + 'A')
                                                : character;
}

/// Two digits as a number. One that is no digit takes part as -1.
constexpr int unchecked_pair(char high, char low) { return hex_value(high) * 16 + hex_value(low); }

/// Only the low byte of an index counts.
constexpr int low_byte(int index) { return index & 0xFF; }

/// The number that a file begins with; null if the file can't be read.
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
    const std::string_view mac = front(text, 17);
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

int hex2int(char digit) { return corvel::hex_value(digit); }

char *ascii2hex(const unsigned char *bytes, unsigned int n, char *out) {
    // More than the caller is told to release: the terminator stays inside of the block. Where the
    // size overflows, calloc() notices.
    if (out == nullptr)
        out = static_cast<char *>(std::calloc(std::size_t{n} / 2 + 1, 4));
    if (out == nullptr)
        return nullptr;
    char *end = out;
    for (std::size_t i = 0; i < n; ++i)
        end = corvel::put_hex(end, bytes[i]);
    if (n != 0)
        *end = '\0';
    return out;
}

char *hex2ascii(const char *hex, char *out) {
    const std::string_view text = corvel::text_of(hex);
    for (std::size_t pair = 0; pair < text.size() / 2; ++pair)
        out[pair] = static_cast<char>(corvel::unchecked_pair(text[pair * 2], text[pair * 2 + 1]));
    out[text.size() / 2] = '\0';
    return out;
}

int str2byte(const char *hex, int len, unsigned char *out) {
    const std::size_t pairs = len > 0 ? static_cast<std::size_t>(len) / 2 : 0;
    return corvel::parse_hex(corvel::text_or_empty(hex), pairs, out) ? 0 : -1;
}

unsigned int ascii2mac(const char *text, unsigned char *mac) {
    const std::string_view digits = corvel::text_of(text);
    if (digits.size() != 12)
        return 1;
    // Joined with OR, unlike unchecked_pair(): they differ where the low digit is none.
    for (std::size_t i = 0; i < 6; ++i)
        mac[i] = static_cast<unsigned char>(corvel::hex_value(digits[i * 2]) * 16 |
                                            corvel::hex_value(digits[i * 2 + 1]));
    return mac[0] & 1U;
}

char *iw_pr_ether(const unsigned char *mac) {
    static char text[64];
    corvel::print_colon_form(corvel::MacAddress(mac, 6), corvel::ColonForm(text, 18));
    return text;
}

char *in2str(char *out, int value) {
    std::sprintf(out, "%d", value);
    return out;
}

signed char chUpcase(signed char character) {
    return static_cast<signed char>(corvel::upper_case(static_cast<char>(character)));
}

char *mac2hexStrip(const char *text, char *out) {
    char stripped[13];
    corvel::strip_separators(corvel::text_of(text), stripped);
    std::memcpy(out, stripped, sizeof stripped);
    return out;
}

char *HexStrip2mac(const char *text, char *out) {
    const std::string_view digits = corvel::text_of(text);
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
    const std::optional<float> number = corvel::first_number(path);
    if (number && size > 0)
        std::snprintf(out, static_cast<std::size_t>(size), "%f", static_cast<double>(*number));
    return out;
}

char *gen_wlan_name(int radio, int network, char *out) {
    std::sprintf(out, "wifi%d_wlan%d", corvel::low_byte(radio), corvel::low_byte(network));
    return out;
}

char *gen_wlan_name0(int radio, int network, char *out) {
    std::sprintf(out, "WIFI%d_WLAN%d", corvel::low_byte(radio), corvel::low_byte(network));
    return out;
}

char *gen_radio_name(int radio, char *out) {
    std::sprintf(out, "wifi%d", corvel::low_byte(radio));
    return out;
}

char *gen_radio_key(int radio, const char *suffix, char *out) {
    std::sprintf(out, "{WIFI%d_%s}", corvel::low_byte(radio), corvel::text_or_empty(suffix));
    return out;
}

char *gen_radio_key0(int radio, const char *suffix, char *out) {
    std::sprintf(out, "WIFI%d_%s", corvel::low_byte(radio), corvel::text_or_empty(suffix));
    return out;
}

char *gen_wlan_key(int radio, int network, const char *suffix, char *out) {
    std::sprintf(out, "{WIFI%d_WLAN%d_%s}", corvel::low_byte(radio), corvel::low_byte(network),
                 corvel::text_or_empty(suffix));
    return out;
}

char *gen_wlan_key0(int radio, int network, const char *suffix, char *out) {
    std::sprintf(out, "WIFI%d_WLAN%d_%s", corvel::low_byte(radio), corvel::low_byte(network),
                 corvel::text_or_empty(suffix));
    return out;
}

} // extern "C"
