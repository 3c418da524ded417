// SPDX-License-Identifier: MIT
#include <corvel.h>

#include <cstdio>
#include <cstring>
#include <net/route.h>
#include <optional>

#include "net/conversions.h"
#include "net/interface_name.h"
#include "support/descriptor.h"
#include "support/line_input.h"
#include "support/line_scanner.h"
#include "support/text.h"

namespace corvel {
namespace {

constexpr const char *routing_table = "/proc/net/route";
constexpr const char *resolver_file = "/etc/resolv.conf";
constexpr std::size_t resolver_line_limit = 254;
constexpr std::size_t word_limit = 128;

/// Follows each name server on the page.
constexpr std::string_view gap = "&nbsp;&nbsp;&nbsp;&nbsp;";

/// A line of the routing table.
struct Route {
    std::string_view interface;
    std::uint32_t gateway; // in network byte order: the kernel prints this word as a number
    std::uint32_t flags;

    /// Whether the route is up, uses a gateway and does not lead to a single host.
    [[nodiscard]] bool leads_to_gateway() const {
        return (flags & (RTF_UP | RTF_GATEWAY | RTF_HOST)) == (RTF_UP | RTF_GATEWAY);
    }
};

/// Parses interface, destination, gateway, flags, three numbers, mask and two numbers, and ignores
/// the rest. Returns no value if one is missing or malformed, as in the heading.
std::optional<Route> parse_route(std::string_view line) {
    LineScanner scanner(line);
    const std::string_view interface = scanner.word();
    scanner.word(); // destination
    const std::string_view gateway = front(scanner.word(), word_limit);
    const std::optional<std::uint32_t> flags = scanner.hexadecimal();
    if (!flags || !scanner.skip_decimal() || !scanner.skip_decimal() || !scanner.skip_decimal() ||
        scanner.word().empty() || !scanner.skip_decimal() || !scanner.skip_decimal())
        return {};
    return Route{interface, LineScanner(gateway).hexadecimal().value_or(0), *flags};
}

std::optional<std::uint32_t> find_gateway(std::string_view interface) {
    const Descriptor table = open_for_reading(routing_table);
    if (!table) {
        std::printf("Open %s file error.\n", routing_table);
        return {};
    }
    if (!is_interface_name(interface))
        return {};
    LineReader reader(table.get());
    for (Line line; reader.next(line);) {
        const std::optional<Route> route = parse_route(line.text());
        if (route && route->leads_to_gateway() && route->interface == interface)
            return route->gateway;
    }
    return {};
}

/// Stores a string and a NUL at `end`. Returns the position of the NUL.
char *append(char *end, std::string_view text) {
    std::memcpy(end, text.data(), text.size());
    end[text.size()] = '\0';
    return end + text.size();
}

void append_name_servers(int descriptor, char *out) {
    char *end = out + std::strlen(out);
    LineReader reader(descriptor, resolver_line_limit);
    for (Line line; reader.next(line);) {
        LineScanner scanner(line.text());
        if (scanner.word() == "nameserver")
            end = append(append(end, scanner.word()), gap);
    }
}

} // namespace
} // namespace corvel

extern "C" {

using namespace corvel;

int getDefaultRoute(const char *ifname, uint32_t *gw) {
    const std::optional<std::uint32_t> gateway = find_gateway(text_of(ifname));
    if (gateway)
        *gw = *gateway;
    return gateway ? 1 : 0;
}

char *getDefGw(const char *ifname, char *out) {
    const std::uint32_t gateway =
        ifname != nullptr ? find_gateway(ifname).value_or(0) : std::uint32_t{0};
    print_dotted_quad(&gateway, std::span<char, INET_ADDRSTRLEN>(out, INET_ADDRSTRLEN));
    return out;
}

char *get_dns(char *out) {
    const Descriptor file = open_for_reading(resolver_file);
    if (!file)
        return const_cast<char *>(gap.data()); // callers must not write to it
    append_name_servers(file.get(), out);
    return out;
}

} // extern "C"
