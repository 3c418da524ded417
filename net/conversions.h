// SPDX-License-Identifier: MIT
#ifndef CORVEL_NET_CONVERSIONS_H
#define CORVEL_NET_CONVERSIONS_H

#include <corvel.h>

#include <arpa/inet.h>
#include <span>
#include <string_view>

#include "support/hexadecimal.h"

namespace corvel {

using MacAddress = std::span<const unsigned char, CORVEL_MAC_BYTES>;

/// A hardware address as "00:11:22:AA:BB:CC", NUL-terminated.
using ColonForm = std::span<char, CORVEL_MAC_SIZE>;

/// A hardware address as "001122AABBCC", NUL-terminated.
using StrippedForm = std::span<char, CORVEL_MAC_STRIPPED_SIZE>;

inline void print_colon_form(MacAddress mac, ColonForm text) {
    char *out = text.data();
    for (const unsigned char byte : mac) {
        out = put_hex(out, byte);
        *out++ = ':';
    }
    text.back() = '\0';
}

inline void print_stripped_form(MacAddress mac, StrippedForm text) {
    char *out = text.data();
    for (const unsigned char byte : mac)
        out = put_hex(out, byte);
    *out = '\0';
}

/// Removes the separators, any characters, from a hardware address and converts it to upper case.
/// If the string is too short, the rest of the result is NULs.
void strip_separators(std::string_view text, StrippedForm stripped);

/// Prints an IPv4 address, which is in network byte order, as a dotted quad.
inline void print_dotted_quad(const void *address, std::span<char, INET_ADDRSTRLEN> text) {
    inet_ntop(AF_INET, address, text.data(), INET_ADDRSTRLEN);
}

} // namespace corvel

#endif
