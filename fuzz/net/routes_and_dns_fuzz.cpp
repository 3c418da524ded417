// SPDX-License-Identifier: MIT
// The kernel's routing table and the resolver's configuration: any bytes instead of both, against
// the conversions of sscanf(); and tables as the kernel prints them, against the numbers that they
// were printed from.
//
// Input: a byte (flags) an interface NUL the string to append to NUL, then the files' lines or,
// depending on the flags, a group of six bytes for each route.
#include "corvel.h"
#include "fuzz/fixed_file.h"
#include "fuzz/net/scanned_line.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>

namespace {

using namespace corvel_fuzz;

constexpr std::size_t longest_name = 15;
constexpr std::size_t longest_resolver_line = 254;
constexpr std::string_view gap = "&nbsp;&nbsp;&nbsp;&nbsp;";
constexpr std::string_view heading =
    "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT";

// Flags of an input.
constexpr unsigned char from_the_kernel = 0x01;

constexpr std::array interfaces = {"eth0", "eth0.1", "br-lan", "ppp0", "fifteen-letters"};

struct Route {
    std::string interface;
    std::uint32_t gateway;
    std::uint32_t flags;
};

struct Table {
    std::string text;
    std::vector<Route> routes;
};

/** The route of a line; empty unless its first ten words are well-formed. */
std::optional<Route> route_of(std::string_view text) {
    ScannedLine line(text);
    Route route{line.word(), 0, 0};
    line.word();
    route.gateway = ScannedLine(line.word().substr(0, 128)).hexadecimal().value_or(0);
    const auto flags = line.hexadecimal();
    bool whole = flags.has_value();
    for (int number = 0; number < 3; ++number)
        whole = whole && line.decimal();
    whole = whole && !line.word().empty();
    for (int number = 0; number < 2; ++number)
        whole = whole && line.decimal();
    if (!whole)
        return std::nullopt;
    route.flags = *flags;
    return route;
}

std::vector<Route> scanned(std::string_view table) {
    std::vector<Route> routes;
    for (const Piece &piece : pieces_of(table)) {
        if (auto route = route_of(as_text(piece.text)))
            routes.push_back(std::move(*route));
    }
    return routes;
}

/** A table of one route for each group of bytes of the input. */
Table printed(Input input) {
    const auto add_line = [](std::string &text, const char *line) {
        std::array<char, 160> padded{};
        std::snprintf(padded.data(), padded.size(), "%-127s\n", line);
        text += padded.data();
    };
    Table table;
    add_line(table.text, std::string(heading).c_str());
    const std::string bytes = input.rest();
    for (std::size_t at = 0; at + 6 <= bytes.size(); at += 6) {
        Route route{interfaces[static_cast<unsigned char>(bytes[at]) % interfaces.size()], 0,
                    static_cast<unsigned char>(bytes[at + 1])};
        std::memcpy(&route.gateway, &bytes[at + 2], sizeof route.gateway);
        std::array<char, 160> line{};
        std::snprintf(line.data(), line.size(),
                      "%s\t%08X\t%08X\t%04X\t%d\t%u\t%d\t%08X\t%d\t%u\t%u", route.interface.c_str(),
                      ~route.gateway, route.gateway, route.flags, 0, 0U,
                      static_cast<signed char>(bytes[at]), 0xFFU, 1500, 0U, 0U);
        add_line(table.text, line.data());
        table.routes.push_back(std::move(route));
    }
    return table;
}

std::optional<std::uint32_t> gateway_of(const std::vector<Route> &routes,
                                        const std::string &interface) {
    if (interface.empty() || interface.size() > longest_name)
        return std::nullopt;
    for (const Route &route : routes) {
        const bool up = (route.flags & 1) != 0;
        const bool over_gateway = (route.flags & 2) != 0;
        const bool to_host = (route.flags & 4) != 0;
        if (up && over_gateway && !to_host && route.interface == interface)
            return route.gateway;
    }
    return std::nullopt;
}

std::string name_servers(std::string_view file) {
    std::string text;
    for (const Piece &piece : pieces_of(file, longest_resolver_line)) {
        ScannedLine line(as_text(piece.text));
        if (line.word() == "nameserver")
            text.append(line.word()).append(gap);
    }
    return text;
}

std::string check_gateway(const std::vector<Route> &routes, const std::string &interface,
                          const std::string &message) {
    const std::optional<std::uint32_t> expected = gateway_of(routes, interface);
    std::uint32_t gateway = 0x12345678;
    int found = 0;
    check_equal(output_of([&] { found = getDefaultRoute(exact_copy(interface).get(), &gateway); }),
                message, "the output of getDefaultRoute");
    check_equal(found, expected.has_value(), "getDefaultRoute");
    check_equal(gateway, expected.value_or(0x12345678), "the gateway");

    const std::uint32_t address = expected.value_or(0);
    std::string text = dotted_quad({reinterpret_cast<const char *>(&address), sizeof address});
    const auto out = unterminated_block(INET_ADDRSTRLEN);
    check_equal(output_of([&] {
                    check(getDefGw(exact_copy(interface).get(), out.get()) == out.get(),
                          "getDefGw returns out");
                }),
                message, "the output of getDefGw");
    check_equal(out.get(), text, "getDefGw");
    getDefGw(nullptr, out.get());
    check_equal(out.get(), "0.0.0.0", "a null pointer as interface has no gateway");
    return text;
}

std::string check_name_servers(std::string_view file, const std::string &before) {
    std::string expected = before + name_servers(file);
    const auto out = block_to_append_to(before, expected.size() + 1);
    check(get_dns(out.get()) == out.get(), "get_dns returns out");
    check_equal(out.get(), expected, "get_dns");
    return expected;
}

/** The servers are in the file's order, also between two other lines. */
void check_order(FixedFile &resolver, const std::string &file) {
    if (!file.empty() && !file.ends_with('\n'))
        return;
    resolver.fill("nameserver first\n" + file + "search nameserver\nnameserver last");
    const std::string expected =
        "first" + std::string(gap) + name_servers(file) + "last" + std::string(gap);
    const auto out = block_to_append_to("", expected.size() + 1);
    get_dns(out.get());
    check_equal(out.get(), expected, "the servers are in the file's order");
}

void check_missing_files(FixedFile &table, FixedFile &resolver, const std::string &interface,
                         const std::string &before) {
    table.remove();
    resolver.remove();
    check_gateway({}, interface, "Open /proc/net/route file error.\n");
    const auto out = exact_copy(before);
    const char *const result = get_dns(out.get());
    check(result != out.get(), "get_dns returns its own string");
    check_equal(result, gap, "get_dns without a file");
    check_equal(out.get(), before, "out is unchanged");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static FixedFile routing_table("/proc/net/route");
    static FixedFile resolver("/etc/resolv.conf");
    Input input(data, size);
    const unsigned char flags = input.byte();
    const std::string interface = input.text();
    const std::string before = input.text();
    Table table;
    if ((flags & from_the_kernel) != 0) {
        table = printed(input);
    } else {
        table.text = input.rest();
        table.routes = scanned(table.text);
    }
    routing_table.fill(table.text);
    resolver.fill(table.text);
    in_different_surroundings([&] {
        return check_gateway(table.routes, interface, "") + check_name_servers(table.text, before);
    });
    for (const char *each : interfaces)
        check_gateway(table.routes, each, "");
    check_order(resolver, table.text);
    check_missing_files(routing_table, resolver, interface, before);
    return 0;
}
