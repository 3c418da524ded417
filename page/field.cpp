// SPDX-License-Identifier: MIT
#include <arpa/inet.h>
#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "page/pairs.h"
#include "page/request.h"
#include "page/syntax.h"
#include "page/utf8.h"
#include "support/text.h"

using namespace corvel;

namespace corvel {
namespace {

constexpr char digits[] = "0123456789";

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

/// Reads a number at the start of a string, without leading zeros, which other programs would read
/// as an octal number. Returns the end; null if there is no such number or if it exceeds @p max,
/// which is at most 65,535.
const char *parse_number(const char *text, unsigned max, unsigned &number) {
    number = 0;
    const char *end = text;
    for (; is_digit(*end) && number <= max; ++end)
        number = number * 10 + static_cast<unsigned>(*end - '0');
    const bool has_zeros = *text == '0' && end - text > 1;
    return end == text || has_zeros || number > max ? nullptr : end;
}

/// Reads an IPv4 address at the start of a string. Returns the end; null if there is none.
const char *parse_ipv4(const char *text, std::uint32_t &address) {
    for (int dots = 3; dots >= 0; --dots) {
        unsigned byte = 0;
        text = parse_number(text, 255, byte);
        if (text == nullptr || (dots != 0 && *text++ != '.'))
            return nullptr;
        address = address << 8 | byte;
    }
    return text;
}

constexpr std::uint32_t mask_of(unsigned prefix) {
    return prefix == 0 ? 0 : UINT32_MAX << (32 - prefix);
}

/// The length of the part of a host name that a string starts with (RFC 1123); 0 if there is none.
std::size_t label_length(const char *name) {
    const std::size_t length = span_of(name, "-");
    const bool is_label = length != 0 && length <= 63 && name[0] != '-' && name[length - 1] != '-';
    return is_label ? length : 0;
}

bool is_host_name(const char *name) {
    if (std::strlen(name) > 253)
        return false;
    for (;;) {
        const std::size_t length = label_length(name);
        if (length == 0)
            return false;
        // If the last part consisted of digits, the name would be taken for an address.
        if (name[length] == '\0')
            return name[std::strspn(name, digits)] != '\0';
        if (name[length] != '.')
            return false;
        name += length + 1;
    }
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
    const char *const start = value + (is_negative ? 1 : 0);
    const std::size_t length = std::strspn(start, digits);
    const bool has_zeros = *start == '0' && (length > 1 || is_negative);
    if (length == 0 || start[length] != '\0' || has_zeros)
        return "Enter a whole number.";
    errno = 0;
    const long result = std::strtol(value, nullptr, 10);
    const bool fits = errno == 0;
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
    unsigned number = 0;
    const char *const end = parse_number(value, 65535, number);
    if (end == nullptr || *end != '\0' || number == 0)
        return "Enter a port from 1 to 65535.";
    give(port, number);
    return nullptr;
}

const char *corvel_check_ipv4(const char *value, uint32_t *address) {
    if (const char *const complaint = complaint_about(value))
        return complaint;
    std::uint32_t result = 0;
    const char *const end = parse_ipv4(value, result);
    if (end == nullptr || *end != '\0')
        return "Enter an IPv4 address, such as 192.168.1.1.";
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
    std::uint32_t mask = 0;
    const char *const end = parse_ipv4(value, mask);
    const auto length = static_cast<unsigned>(std::countl_one(mask));
    if (end == nullptr || *end != '\0' || mask != mask_of(length))
        return "Enter a netmask, such as 255.255.255.0.";
    give(prefix, length);
    return nullptr;
}

const char *corvel_check_prefix(const char *value, uint32_t *network, unsigned *prefix) {
    if (const char *const complaint = complaint_about(value))
        return complaint;
    std::uint32_t address = 0;
    unsigned length = 0;
    const char *end = parse_ipv4(value, address);
    if (end != nullptr && *end == '/')
        end = parse_number(end + 1, 32, length);
    if (end == nullptr || *end != '\0' || std::strchr(value, '/') == nullptr)
        return "Enter a network and the length of its prefix, such as 192.168.1.0/24.";
    if ((address & ~mask_of(length)) != 0)
        return "The address has bits after the prefix that are not 0.";
    give(network, address);
    give(prefix, length);
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
        const int byte = hex_byte(value);
        if (byte < 0 || value[2] != (i < 5 ? ':' : '\0'))
            return "Enter a MAC address, such as 00:11:22:AA:BB:CC.";
        result[i] = static_cast<unsigned char>(byte);
    }
    if (mac != nullptr)
        std::memcpy(mac, result, sizeof result);
    return nullptr;
}

const char *corvel_check_host_name(const char *value) {
    if (const char *const complaint = complaint_about(value))
        return complaint;
    return is_host_name(value)
               ? nullptr
               : "Enter a host name: letters, digits and hyphens, in parts separated by dots.";
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
