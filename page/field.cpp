// SPDX-License-Identifier: MIT
#include <arpa/inet.h>
#include <bit>
#include <climits>
#include <cstdint>
#include <cstring>

#include "page/decimal.h"
#include "page/pairs.h"
#include "page/request.h"
#include "page/utf8.h"
#include "support/hexadecimal.h"
#include "support/text.h"

using namespace corvel;

namespace corvel {
namespace {

constexpr const char *not_ipv4 = "Enter an IPv4 address, such as 192.168.1.1.";
constexpr const char *not_netmask = "Enter a netmask, such as 255.255.255.0.";
constexpr const char *not_prefix = "Enter a network and the length of its prefix, such as "
                                   "192.168.1.0/24.";
constexpr const char *not_mac = "Enter a MAC address, such as 00:11:22:AA:BB:CC.";
constexpr const char *not_host_name =
    "Enter a host name: letters, digits and hyphens, in parts separated by dots.";

/// What is wrong with a value of any kind: that it is missing or empty. Null if it is neither.
const char *complaint_about(const char *value) {
    if (value == nullptr)
        return "This field is missing.";
    return *value == '\0' ? "Enter a value." : nullptr;
}

/// Stores a result that the caller may not want.
template <typename Result> void give(Result *result, Result value) {
    if (result != nullptr)
        *result = value;
}

/// Reads a number without leading zeros, which other programs would read as an octal number.
bool parse_number(std::string_view text, std::uint64_t max, std::uint64_t &number) {
    const bool has_zeros = text.size() > 1 && text[0] == '0';
    return !has_zeros && parse_digits(text, number) && number <= max;
}

bool parse_ipv4(std::string_view text, std::uint32_t &address) {
    address = 0;
    for (int i = 0; i < 4; ++i) {
        const std::string_view number = i < 3 ? front(text, text.find('.')) : text;
        std::uint64_t byte = 0;
        if (!parse_number(number, 255, byte))
            return false;
        address = address << 8 | static_cast<std::uint32_t>(byte);
        text = after(text, number.size() + 1);
    }
    return true;
}

constexpr std::uint32_t mask_of(unsigned prefix) {
    return prefix == 0 ? 0 : UINT32_MAX << (32 - prefix);
}

bool parse_netmask(std::string_view text, unsigned &prefix) {
    std::uint32_t mask = 0;
    const bool is_address = parse_ipv4(text, mask);
    prefix = static_cast<unsigned>(std::countl_one(mask));
    return is_address && mask == mask_of(prefix);
}

bool is_label_character(char character) {
    const char lower = static_cast<char>(character | 0x20);
    return is_digit(character) || character == '-' || (lower >= 'a' && lower <= 'z');
}

/// A part of a host name (RFC 1123).
bool is_label(std::string_view label) {
    for (const char character : label)
        if (!is_label_character(character))
            return false;
    return !label.empty() && label.size() <= 63 && label.front() != '-' && label.back() != '-';
}

/// If the last part consisted of digits, the name would be taken for an address.
bool is_host_name(std::string_view name) {
    std::uint64_t number = 0;
    std::string_view label;
    const bool is_short = name.size() <= 253;
    for (bool is_last = false; !is_last; name = after(name, label.size() + 1)) {
        label = front(name, name.find('.'));
        is_last = label.size() == name.size();
        if (!is_label(label))
            return false;
    }
    return is_short && !parse_digits(label, number);
}

const char *find(const Pairs *pairs, const char *name, std::size_t index) {
    return pairs != nullptr && name != nullptr ? pairs->find(name, index) : nullptr;
}

} // namespace
} // namespace corvel

extern "C" {

const char *corvel_field(const corvel_request *request, const char *name) {
    return find(fields_of(request), name, 0);
}

const char *corvel_field_at(const corvel_request *request, const char *name, size_t index) {
    return find(fields_of(request), name, index);
}

const char *corvel_query(const corvel_request *request, const char *name) {
    return find(query_of(request), name, 0);
}

size_t corvel_field_count(const corvel_request *request) {
    const Pairs *const pairs = fields_of(request);
    return pairs != nullptr ? pairs->count() : 0;
}

bool corvel_field_pair(const corvel_request *request, size_t position, const char **name,
                       const char **value) {
    if (position >= corvel_field_count(request))
        return false;
    const Pairs *const pairs = fields_of(request);
    give(name, pairs->name(position));
    give(value, pairs->value(position));
    return true;
}

const char *corvel_check_text(const char *value, size_t min, size_t max) {
    const char *const complaint = complaint_about(value);
    if (complaint != nullptr && (value == nullptr || min != 0))
        return complaint;
    const std::string_view text(value);
    if (text.size() < min)
        return "The text is too short.";
    if (text.size() > max)
        return "The text is too long.";
    for (std::string_view left = text; !left.empty();) {
        const std::size_t length = utf8_length(left);
        if (length == 0 || is_control(left))
            return "The text contains a character that is not permitted.";
        left.remove_prefix(length);
    }
    return nullptr;
}

const char *corvel_check_integer(const char *value, long min, long max, long *number) {
    if (const char *const complaint = complaint_about(value))
        return complaint;
    const bool is_negative = *value == '-';
    std::uint64_t magnitude = 0;
    if (!parse_number(value + (is_negative ? 1 : 0), UINT64_MAX, magnitude) ||
        (is_negative && magnitude == 0))
        return "Enter a whole number.";
    // Negative numbers are counted from -1, so that the smallest fits too.
    const std::uint64_t distance = magnitude - (is_negative ? 1 : 0);
    const bool fits = distance <= std::uint64_t{LONG_MAX};
    const long from_zero = fits ? static_cast<long>(distance) : LONG_MAX;
    const long result = is_negative ? ~from_zero : from_zero;
    if (result < min || (is_negative && !fits))
        return "The number is too small.";
    if (result > max || !fits)
        return "The number is too large.";
    give(number, result);
    return nullptr;
}

const char *corvel_check_port(const char *value, unsigned *port) {
    if (const char *const complaint = complaint_about(value))
        return complaint;
    std::uint64_t number = 0;
    if (!parse_number(value, 65535, number) || number == 0)
        return "Enter a port from 1 to 65535.";
    give(port, static_cast<unsigned>(number));
    return nullptr;
}

const char *corvel_check_ipv4(const char *value, uint32_t *address) {
    if (const char *const complaint = complaint_about(value))
        return complaint;
    std::uint32_t result = 0;
    if (!parse_ipv4(value, result))
        return not_ipv4;
    give(address, result);
    return nullptr;
}

const char *corvel_check_ipv6(const char *value, unsigned char address[16]) {
    if (const char *const complaint = complaint_about(value))
        return complaint;
    unsigned char result[16];
    if (inet_pton(AF_INET6, value, result) != 1)
        return "Enter an IPv6 address, such as fd00::1.";
    if (address != nullptr)
        std::memcpy(address, result, sizeof result);
    return nullptr;
}

const char *corvel_check_netmask(const char *value, unsigned *prefix) {
    if (const char *const complaint = complaint_about(value))
        return complaint;
    unsigned result = 0;
    if (!parse_netmask(value, result))
        return not_netmask;
    give(prefix, result);
    return nullptr;
}

const char *corvel_check_prefix(const char *value, uint32_t *network, unsigned *prefix) {
    if (const char *const complaint = complaint_about(value))
        return complaint;
    const std::string_view text(value);
    const std::string_view address_text = front(text, text.find('/'));
    std::uint32_t address = 0;
    std::uint64_t length = 0;
    if (!parse_ipv4(address_text, address) ||
        !parse_number(after(text, address_text.size() + 1), 32, length))
        return not_prefix;
    if ((address & ~mask_of(static_cast<unsigned>(length))) != 0)
        return "The address has bits after the prefix that are not 0.";
    give(network, address);
    give(prefix, static_cast<unsigned>(length));
    return nullptr;
}

const char *corvel_check_range(const char *first, const char *last, const char *address,
                               const char *netmask) {
    std::uint32_t own = 0;
    std::uint32_t lowest = 0;
    std::uint32_t highest = 0;
    unsigned prefix = 0;
    const char *complaint = corvel_check_ipv4(first, &lowest);
    if (complaint == nullptr)
        complaint = corvel_check_ipv4(last, &highest);
    if (complaint == nullptr)
        complaint = corvel_check_ipv4(address, &own);
    if (complaint == nullptr)
        complaint = corvel_check_netmask(netmask, &prefix);
    if (complaint != nullptr)
        return complaint;
    if (lowest > highest)
        return "The range ends before it starts.";
    const std::uint32_t mask = mask_of(prefix);
    if ((lowest & mask) != (own & mask) || (highest & mask) != (own & mask))
        return "The range is not within the network.";
    if (prefix < 31 && ((lowest & ~mask) == 0 || (highest & ~mask) == ~mask))
        return "The range contains the first or the last address of the network, which no device "
               "can have.";
    return nullptr;
}

const char *corvel_check_mac(const char *value, unsigned char mac[6]) {
    if (const char *const complaint = complaint_about(value))
        return complaint;
    unsigned char result[6];
    for (std::size_t i = 0; i < sizeof result; ++i, value += 3) {
        const int byte = hex_pair(value);
        if (byte < 0 || value[2] != (i < 5 ? ':' : '\0'))
            return not_mac;
        result[i] = static_cast<unsigned char>(byte);
    }
    if (mac != nullptr)
        std::memcpy(mac, result, sizeof result);
    return nullptr;
}

const char *corvel_check_host_name(const char *value) {
    if (const char *const complaint = complaint_about(value))
        return complaint;
    return is_host_name(value) ? nullptr : not_host_name;
}

const char *corvel_check_choice(const char *value, const char *const choices[], size_t *index) {
    if (value == nullptr)
        return complaint_about(value);
    for (std::size_t i = 0; choices != nullptr && choices[i] != nullptr; ++i)
        if (std::strcmp(value, choices[i]) == 0) {
            give(index, i);
            return nullptr;
        }
    return "Choose one of the values that are offered.";
}

} // extern "C"
