// SPDX-License-Identifier: MIT
#include <corvel.h>

#include <arpa/inet.h>
#include <array>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <optional>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "net/conversions.h"
#include "net/interface_name.h"
#include "support/descriptor.h"
#include "support/line_input.h"
#include "support/line_scanner.h"
#include "support/text.h"

namespace corvel {
namespace {

constexpr const char *ipv6_table = "/proc/net/if_inet6";

constexpr const char *no_ipv6_address = "::";

constexpr std::size_t address_size = CORVEL_ADDRESS_SIZE;

/// A line of the kernel's table of IPv6 addresses.
struct Ipv6Line {
    std::array<unsigned char, address_size> address;
    std::uint32_t prefix_length;
    std::uint32_t scope;
    std::string_view interface;

    /// The scope is 0 for a global address; link-local, host and site-local addresses have another.
    [[nodiscard]] bool is_global() const { return (scope & 0xF0) == 0; }
};

/// Parses address, index, prefix length, scope and flags, all hexadecimal, and interface. Returns
/// no value for a malformed line.
std::optional<Ipv6Line> parse_ipv6_line(std::string_view text) {
    LineScanner scanner(text);
    const std::string_view digits = scanner.word();
    Ipv6Line line{};
    if (digits.size() != address_size * 2 ||
        !parse_hex(digits.data(), address_size, line.address.data()))
        return {};
    const auto index = scanner.hexadecimal();
    const auto prefix_length = scanner.hexadecimal();
    const auto scope = scanner.hexadecimal();
    const auto flags = scanner.hexadecimal();
    line.interface = scanner.word();
    if (!index || !prefix_length || !scope || !flags || *prefix_length > address_size * 8)
        return {};
    line.prefix_length = *prefix_length;
    line.scope = *scope;
    return line;
}

/// Finds the interface's first global IPv6 address. Returns its prefix length, 0 if there is none.
int find_ipv6_address(std::string_view interface, void *result) {
    const Descriptor table = open_for_reading(ipv6_table);
    if (!table)
        return 0;
    LineReader reader(table.get());
    for (Line line; reader.next(line);) {
        const std::optional<Ipv6Line> entry = parse_ipv6_line(line.text());
        if (entry && entry->interface == interface && entry->is_global()) {
            std::memcpy(result, entry->address.data(), address_size);
            return static_cast<int>(entry->prefix_length);
        }
    }
    return 0;
}

/// Copies the address out of an IPv4 socket address.
void copy_ipv4_address(const sockaddr &address, void *result) {
    std::memcpy(result,
                address.sa_data + offsetof(sockaddr_in, sin_addr) - offsetof(sockaddr, sa_data),
                sizeof(in_addr));
}

int find_address(std::string_view interface, unsigned selector, void *result) {
    const Descriptor kernel(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request{};
    if (!kernel || !is_interface_name(interface))
        return 0;
    store(request.ifr_name, interface);
    if (ioctl(kernel.get(), SIOCGIFFLAGS, &request) < 0)
        return 0;
    switch (selector) {
    case CORVEL_ADDRESS_IPV4:
        if (ioctl(kernel.get(), SIOCGIFADDR, &request) != 0)
            return 0;
        copy_ipv4_address(request.ifr_addr, result);
        return 1;
    case CORVEL_ADDRESS_NETMASK:
        if (ioctl(kernel.get(), SIOCGIFNETMASK, &request) < 0)
            return 0;
        copy_ipv4_address(request.ifr_netmask, result);
        return 1;
    case CORVEL_ADDRESS_HARDWARE:
        if (ioctl(kernel.get(), SIOCGIFHWADDR, &request) < 0)
            return 0;
        std::memcpy(result, &request.ifr_hwaddr, sizeof request.ifr_hwaddr);
        return 1;
    case CORVEL_ADDRESS_IPV6:
        return find_ipv6_address(interface, result);
    default:
        return 0;
    }
}

/// The interface's hardware address; all zeros if there is none.
std::array<unsigned char, CORVEL_MAC_BYTES> mac_of(const char *interface) {
    sockaddr address{};
    std::array<unsigned char, CORVEL_MAC_BYTES> mac{};
    if (find_address(text_of(interface), CORVEL_ADDRESS_HARDWARE, &address) != 0)
        std::memcpy(mac.data(), address.sa_data, mac.size());
    return mac;
}

/// Prints address and prefix length, each truncated to fit. The prefix length, with its slash and
/// its terminator, gets at most the size of the whole buffer less four bytes.
void print_ipv6_address(const unsigned char *address, int prefix_length, std::span<char> text) {
    if (inet_ntop(AF_INET6, address, text.data(), static_cast<socklen_t>(text.size())) == nullptr) {
        store(text, no_ipv6_address);
        return;
    }
    const std::size_t used = std::strlen(text.data());
    const std::size_t room = at_most(text.size() - used, text.size() - at_most(4, text.size()));
    std::snprintf(text.data() + used, room, "/%d", prefix_length);
}

void print_address(std::string_view interface, unsigned selector, std::span<char> text) {
    unsigned char address[address_size] = {};
    const int found = find_address(interface, selector, address);
    if (selector == CORVEL_ADDRESS_IPV6) {
        if (found > 0)
            print_ipv6_address(address, found, text);
        else
            store(text, no_ipv6_address);
        return;
    }
    char quad[INET_ADDRSTRLEN];
    print_dotted_quad(address, quad); // 0.0.0.0 if none was found
    store(text, quad);
}

} // namespace
} // namespace corvel

extern "C" {

using namespace corvel;

int getInAddr(const char *ifname, unsigned int selector, void *result) {
    return find_address(text_of(ifname), selector, result);
}

char *getHWaddr(const char *ifname, char *out) {
    print_colon_form(mac_of(ifname), ColonForm(out, CORVEL_MAC_SIZE));
    return out;
}

char *getHWaddr0(const char *ifname, char *out) {
    print_stripped_form(mac_of(ifname), StrippedForm(out, CORVEL_MAC_STRIPPED_SIZE));
    return out;
}

char *getHWip(const char *ifname, unsigned int selector, char *out, int len) {
    if (len > 0)
        print_address(text_of(ifname), selector, {out, size_from(len)});
    return out;
}

} // extern "C"
