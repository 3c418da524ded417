// SPDX-License-Identifier: MIT
// The addresses of an interface as the kernel reports them, printed; and the kernel's table of IPv6
// addresses: any bytes instead of it, and tables as the kernel prints them, against the numbers
// that they were printed from.
//
// Input: a byte (flags) a byte (size of the caller's buffer) an interface NUL, 16 bytes (the
// kernel's reply), then the table's lines or, depending on the flags, a group of 20 bytes for each
// address.
#include "corvel.h"
#include "fuzz/fixed_file.h"
#include "fuzz/net/scanned_line.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <net/if.h>
#include <sys/ioctl.h>

namespace {

using namespace corvel_fuzz;

constexpr std::size_t address_size = CORVEL_ADDRESS_SIZE;
constexpr unsigned longest_prefix = 8 * address_size;
constexpr std::size_t group_size = address_size + 4;
constexpr std::string_view digits = "0123456789abcdefABCDEF";

// Flags of an input.
constexpr unsigned char from_the_kernel = 0x01;
constexpr unsigned char no_interface = 0x02;
constexpr unsigned char no_reply = 0x04;

constexpr std::array interfaces = {"eth0", "eth0.1", "br-lan", "ppp0", "fifteen-letters"};

struct Address {
    std::string bytes;
    std::uint32_t prefix_length;
    std::uint32_t scope;
    std::string interface;
};

struct Table {
    std::string text;
    std::vector<Address> addresses;
};

// The flags, the interface and the reply of the replaced ioctl().
unsigned char reply_flags = 0;
std::string requested;
std::string reply;

// ----------------------------------------------------------------------------------- the models

std::string bytes_of(const std::string &text) {
    std::string bytes;
    for (std::size_t i = 0; i + 2 <= text.size(); i += 2)
        bytes += static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16));
    return bytes;
}

std::vector<Address> scanned(std::string_view table) {
    std::vector<Address> addresses;
    for (const Piece &piece : pieces_of(table)) {
        ScannedLine line(as_text(piece.text));
        const std::string address = line.word();
        const auto index = line.hexadecimal();
        const auto prefix_length = index ? line.hexadecimal() : std::nullopt;
        const auto scope = prefix_length ? line.hexadecimal() : std::nullopt;
        const auto flags = scope ? line.hexadecimal() : std::nullopt;
        if (flags && address.size() == 2 * address_size && *prefix_length <= longest_prefix &&
            address.find_first_not_of(digits) == std::string::npos)
            addresses.push_back({bytes_of(address), *prefix_length, *scope, line.word()});
    }
    return addresses;
}

/** A table of one address for each group of bytes of the input. */
Table printed(Input input) {
    constexpr std::array<unsigned char, 4> scopes = {0x00, 0x10, 0x20, 0x40};
    Table table;
    const std::string bytes = input.rest();
    for (std::size_t at = 0; at + group_size <= bytes.size(); at += group_size) {
        std::array<unsigned char, 4> number{};
        std::memcpy(number.data(), &bytes[at + address_size], number.size());
        Address address{bytes.substr(at, address_size), number[0] % (longest_prefix + 1U),
                        scopes[number[1] % scopes.size()],
                        interfaces[number[2] % interfaces.size()]};
        std::array<char, 40> line{};
        for (const char c : address.bytes) {
            std::snprintf(line.data(), line.size(), "%02x", static_cast<unsigned char>(c));
            table.text += line.data();
        }
        std::snprintf(line.data(), line.size(), " %02x %02x %02x %02x %8s\n", number[3] + 1U,
                      address.prefix_length, address.scope, number[3], address.interface.c_str());
        table.text += line.data();
        table.addresses.push_back(std::move(address));
    }
    return table;
}

bool exists(const std::string &interface) {
    return (reply_flags & no_interface) == 0 && !interface.empty() && interface.size() < IFNAMSIZ;
}

bool replies(const std::string &interface) {
    return exists(interface) && (reply_flags & no_reply) == 0;
}

const Address *address_of(const std::vector<Address> &addresses, const std::string &interface) {
    if (!exists(interface))
        return nullptr;
    const auto found = std::find_if(addresses.begin(), addresses.end(), [&](const Address &each) {
        return each.interface == interface && (each.scope & 0xF0) == 0;
    });
    return found == addresses.end() ? nullptr : &*found;
}

std::string ipv6_text(const Address *address, std::size_t size) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (address == nullptr || address->prefix_length == 0)
        return std::string(cut("::", size - 1));
    inet_ntop(AF_INET6, address->bytes.data(), text.data(), text.size());
    const std::size_t used = std::strlen(text.data());
    if (used >= size)
        return std::string(cut("::", size - 1));
    const std::size_t room = std::min(size - used, size - std::min<std::size_t>(size, 4));
    const std::string prefix = "/" + std::to_string(address->prefix_length);
    return text.data() + std::string(cut(prefix, room == 0 ? 0 : room - 1));
}

/** Part of the kernel's reply; zeros if there is none. */
std::string replied_bytes(bool replied, std::size_t start, std::size_t size) {
    return replied ? reply.substr(start, size) : std::string(size, '\0');
}

std::string ipv4_text(bool replied) {
    return dotted_quad(replied_bytes(replied, 4, 4)); // after the address family and the port
}

std::string mac_text(bool replied, const char *separator) {
    return hexadecimal(replied_bytes(replied, 2, CORVEL_MAC_BYTES), separator);
}

// ----------------------------------------------------------------------------------- the checks

void check_bytes(const std::string &interface, unsigned selector, int expected,
                 std::string_view bytes) {
    const auto result = unterminated_block(address_size);
    std::string whole(result.get(), address_size);
    whole.replace(0, bytes.size(), bytes);
    check_equal(getInAddr(exact_copy(interface).get(), selector, result.get()), expected,
                "getInAddr");
    check_equal({result.get(), address_size}, whole, "the bytes that getInAddr writes");
}

std::string address_text(const char *interface, unsigned selector, std::size_t size,
                         std::string_view expected) {
    const auto out = unterminated_block(size);
    check(getHWip(interface, selector, out.get(), static_cast<int>(size)) == out.get(),
          "getHWip returns out");
    check_equal(out.get(), expected, "getHWip");
    return out.get();
}

std::string check_interface(const std::string &interface, const std::vector<Address> &addresses,
                            std::size_t size) {
    requested = interface;
    const auto name = exact_copy(interface);
    const bool replied = replies(interface);
    const std::string_view ipv4 = std::string_view(reply).substr(4, 4);
    check_bytes(interface, CORVEL_ADDRESS_IPV4, replied, replied ? ipv4 : "");
    check_bytes(interface, CORVEL_ADDRESS_NETMASK, replied, replied ? ipv4 : "");
    check_bytes(interface, CORVEL_ADDRESS_HARDWARE, replied, replied ? reply : "");
    check_bytes(interface, 2, 0, "");
    check_bytes(interface, 5, 0, "");
    const Address *const address = address_of(addresses, interface);
    check_bytes(interface, CORVEL_ADDRESS_IPV6,
                address != nullptr ? static_cast<int>(address->prefix_length) : 0,
                address != nullptr ? address->bytes : "");

    const auto mac = unterminated_block(CORVEL_MAC_SIZE);
    check_equal(getHWaddr(name.get(), mac.get()), mac_text(replied, ":"), "getHWaddr");
    const auto plain_mac = unterminated_block(CORVEL_MAC_STRIPPED_SIZE);
    check_equal(getHWaddr0(name.get(), plain_mac.get()), mac_text(replied, ""), "getHWaddr0");
    std::string text =
        address_text(name.get(), CORVEL_ADDRESS_IPV6, size, ipv6_text(address, size)) +
        address_text(name.get(), CORVEL_ADDRESS_IPV6, CORVEL_IPV6_SIZE,
                     ipv6_text(address, CORVEL_IPV6_SIZE)) +
        address_text(name.get(), CORVEL_ADDRESS_IPV4, size, cut(ipv4_text(replied), size - 1)) +
        address_text(name.get(), CORVEL_ADDRESS_NETMASK, INET_ADDRSTRLEN, ipv4_text(replied)) +
        address_text(nullptr, CORVEL_ADDRESS_NETMASK, INET_ADDRSTRLEN, "0.0.0.0") +
        address_text(nullptr, CORVEL_ADDRESS_IPV6, CORVEL_IPV6_SIZE, "::");
    std::array<char, 1> untouched = {'#'};
    getHWip(name.get(), CORVEL_ADDRESS_IPV6, untouched.data(), 0);
    getHWip(name.get(), CORVEL_ADDRESS_IPV4, untouched.data(), -1);
    check(untouched[0] == '#', "a buffer of no bytes is unchanged");
    return text;
}

} // namespace

extern "C" {

/** The kernel: has the requested interface or not, and returns the reply. */
int ioctl(int /*fd*/, unsigned long request, ...) {
    va_list values;
    va_start(values, request);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): va_start() goes unseen
    auto *const interface = va_arg(values, ifreq *);
    va_end(values);
    check_equal(interface->ifr_name, requested, "the requested interface");
    const bool known = request == SIOCGIFFLAGS || request == SIOCGIFADDR ||
                       request == SIOCGIFNETMASK || request == SIOCGIFHWADDR;
    check(known, "the kind of request");
    if ((reply_flags & (request == SIOCGIFFLAGS ? no_interface : no_reply)) != 0) {
        errno = ENODEV;
        return -1;
    }
    std::memcpy(&interface->ifr_addr, reply.data(), address_size);
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static FixedFile file("/proc/net/if_inet6");
    Input input(data, size);
    reply_flags = input.byte();
    const std::size_t buffer_size = input.byte() % 64 + 1U;
    const std::string interface = input.text();
    reply.clear();
    for (std::size_t i = 0; i < address_size; ++i)
        reply += static_cast<char>(input.byte());
    Table table;
    if ((reply_flags & from_the_kernel) != 0) {
        table = printed(input);
    } else {
        table.text = input.rest();
        table.addresses = scanned(table.text);
    }
    file.fill(table.text);
    in_different_surroundings(
        [&] { return check_interface(interface, table.addresses, buffer_size); });
    check_interface(interfaces[0], table.addresses, buffer_size);
    check_interface(interfaces[4], table.addresses, buffer_size);
    file.remove();
    check_interface(interface, {}, buffer_size);
    return 0;
}

} // extern "C"
