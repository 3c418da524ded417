// SPDX-License-Identifier: MIT
// The checks of values against models on std::string.
//
// Input: four strings, each but the last followed by a NUL; the first is checked by everything, all
// four are a range.
#include "corvel_page.h"
#include "fuzz/harness.h"

#include <algorithm>
#include <arpa/inet.h>
#include <climits>
#include <cstring>
#include <optional>

namespace {

using namespace corvel_fuzz;

constexpr const char *letters = "abcdefghijklmnopqrstuvwxyz0123456789-";

bool is_number(const std::string &text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

std::optional<long long> number_of(const std::string &text) {
    if (!is_number(text) || (text.size() > 1 && text[0] == '0'))
        return std::nullopt;
    return text.size() > 18 ? LLONG_MAX : std::stoll(text);
}

std::vector<std::string> split(const std::string &text, char separator) {
    std::vector<std::string> parts(1);
    for (const char character : text) {
        if (character == separator)
            parts.emplace_back();
        else
            parts.back() += character;
    }
    return parts;
}

std::optional<std::uint32_t> ipv4_of(const std::string &text) {
    const std::vector<std::string> parts = split(text, '.');
    std::uint32_t address = 0;
    for (const std::string &part : parts) {
        const auto number = number_of(part);
        if (!number || *number > 255)
            return std::nullopt;
        address = address * 256 + static_cast<std::uint32_t>(*number);
    }
    return parts.size() == 4 ? std::optional(address) : std::nullopt;
}

std::uint32_t mask_of(unsigned prefix) {
    return static_cast<std::uint32_t>(0xFFFFFFFF00000000ULL >> prefix);
}

std::optional<unsigned> netmask_of(const std::string &text) {
    const auto mask = ipv4_of(text);
    for (unsigned prefix = 0; mask && prefix <= 32; ++prefix)
        if (*mask == mask_of(prefix))
            return prefix;
    return std::nullopt;
}

bool is_label(const std::string &label) {
    return !label.empty() && label.size() <= 63 && label.front() != '-' && label.back() != '-' &&
           lower_case(label).find_first_not_of(letters) == std::string::npos;
}

bool is_host_name(const std::string &text) {
    const std::vector<std::string> labels = split(text, '.');
    return text.size() <= 253 && std::all_of(labels.begin(), labels.end(), is_label) &&
           !is_number(labels.back());
}

bool is_mac(const std::string &text) {
    if (text.size() != 17)
        return false;
    for (std::size_t i = 0; i < text.size(); ++i)
        if (i % 3 == 2 ? text[i] != ':' : std::strchr("0123456789abcdefABCDEF", text[i]) == nullptr)
            return false;
    return true;
}

/** A model of UTF-8 by the value of each character. */
bool is_clean_utf8(const std::string &text) {
    for (std::size_t i = 0; i < text.size();) {
        const unsigned first = static_cast<unsigned char>(text[i]);
        const std::size_t length = first < 0x80    ? 1
                                   : first >= 0xF0 ? 4
                                   : first >= 0xE0 ? 3
                                   : first >= 0xC0 ? 2
                                                   : 0;
        if (length == 0 || first >= 0xF8 || i + length > text.size())
            return false;
        unsigned code = length == 1 ? first : first & (0x7FU >> length);
        for (std::size_t k = 1; k < length; ++k) {
            const unsigned next = static_cast<unsigned char>(text[i + k]);
            if ((next & 0xC0U) != 0x80)
                return false;
            code = code << 6 | (next & 0x3FU);
        }
        constexpr unsigned least[] = {0, 0x20, 0xA0, 0x800, 0x10000};
        if (code < least[length] || code == 0x7F || (code >= 0xD800 && code < 0xE000) ||
            code > 0x10FFFF)
            return false;
        i += length;
    }
    return true;
}

void check_numbers(const std::string &text, const char *value) {
    const bool negative = text.starts_with('-');
    const auto magnitude = number_of(negative ? text.substr(1) : text);
    const bool is_valid = magnitude && !(negative && *magnitude == 0);
    const long long number = is_valid ? (negative ? -*magnitude : *magnitude) : 0;
    long result = 77;
    const bool accepted = corvel_check_integer(value, -1000, 1000000, &result) == nullptr;
    check_equal(accepted, is_valid && number >= -1000 && number <= 1000000, "an integer");
    check_equal(result, accepted ? number : 77, "the integer");
    unsigned port = 77;
    const bool is_port = corvel_check_port(value, &port) == nullptr;
    check_equal(is_port, is_valid && number > 0 && number < 65536, "a port");
    check_equal(port, is_port ? number : 77, "the port");
    // With the limits of long, what is accepted is what is written the same way.
    if (corvel_check_integer(value, LONG_MIN, LONG_MAX, &result) == nullptr)
        check_equal(std::to_string(result), text, "an integer has one spelling");
}

void check_addresses(const std::string &text, const char *value) {
    std::uint32_t address = 77;
    check_equal(corvel_check_ipv4(value, &address) == nullptr, ipv4_of(text).has_value(), "IPv4");
    check_equal(address, ipv4_of(text).value_or(77), "the address");
    unsigned prefix = 77;
    check_equal(corvel_check_netmask(value, &prefix) == nullptr, netmask_of(text).has_value(),
                "netmask");
    check_equal(prefix, netmask_of(text).value_or(77), "the prefix of the netmask");
    unsigned char bytes[16] = {};
    unsigned char expected[16] = {};
    check_equal(corvel_check_ipv6(value, bytes) == nullptr,
                inet_pton(AF_INET6, value, expected) == 1, "IPv6");

    const std::size_t slash = text.find('/');
    const auto network = ipv4_of(text.substr(0, slash));
    const auto length =
        slash == std::string::npos ? std::nullopt : number_of(text.substr(slash + 1));
    const bool is_network = network && length && *length <= 32 &&
                            (*network & ~mask_of(static_cast<unsigned>(*length))) == 0;
    check_equal(corvel_check_prefix(value, &address, &prefix) == nullptr, is_network, "prefix");
    if (is_network) {
        check_equal(address, *network, "the network");
        check_equal(prefix, *length, "the length of the prefix");
    }
}

void check_names(const std::string &text, const char *value) {
    check_equal(corvel_check_host_name(value) == nullptr, is_host_name(text), "host name");
    unsigned char mac[6] = {};
    check_equal(corvel_check_mac(value, mac) == nullptr, is_mac(text), "MAC address");
    if (is_mac(text))
        check_equal(
            lower_case(hexadecimal(std::string_view(reinterpret_cast<char *>(mac), 6), ":")),
            lower_case(text), "the MAC address");
    check_equal(corvel_check_text(value, 2, 40) == nullptr,
                text.size() >= 2 && text.size() <= 40 && is_clean_utf8(text), "text");
    check_equal(corvel_check_text(value, 0, SIZE_MAX) == nullptr, is_clean_utf8(text), "any text");
    const char *const choices[] = {"on", "off", value, nullptr};
    std::size_t index = 77;
    check(corvel_check_choice(value, choices, &index) == nullptr, "a choice");
    check_equal(choices[index], text, "the choice");
}

void check_range(const std::string texts[4]) {
    const auto first = ipv4_of(texts[0]);
    const auto last = ipv4_of(texts[1]);
    const auto own = ipv4_of(texts[2]);
    const auto prefix = netmask_of(texts[3]);
    bool expected = first && last && own && prefix && *first <= *last;
    if (expected) {
        const std::uint32_t lowest = *own & mask_of(*prefix);
        const std::uint32_t highest = lowest | ~mask_of(*prefix);
        const std::uint32_t kept = *prefix < 31 ? 1 : 0;
        expected = *first >= lowest + kept && *last <= highest - kept;
    }
    check_equal(corvel_check_range(texts[0].c_str(), texts[1].c_str(), texts[2].c_str(),
                                   texts[3].c_str()) == nullptr,
                expected, "range");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    Input input(data, size);
    std::string texts[4];
    for (std::string &text : texts)
        text = input.text();
    const auto value = exact_copy(texts[0]);
    if (!texts[0].empty()) {
        check_numbers(texts[0], value.get());
        check_addresses(texts[0], value.get());
        check_names(texts[0], value.get());
    }
    check_range(texts);
    return 0;
}
