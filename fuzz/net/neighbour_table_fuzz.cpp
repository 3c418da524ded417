// SPDX-License-Identifier: MIT
// The kernel's neighbour table: any bytes instead of it, against the conversions of sscanf(); and
// tables as the kernel prints them, against the numbers that they were printed from.
//
// Input: a byte (flags) an interface NUL a hardware address NUL, then the table's lines or,
// depending on the flags, a group of six bytes for each neighbour.
#include "corvel.h"
#include "fuzz/fixed_file.h"
#include "fuzz/net/lease_list.h"
#include "fuzz/net/scanned_line.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>

namespace {

using namespace corvel_fuzz;

constexpr std::size_t longest_line = 127;
constexpr std::string_view heading =
    "IP address       HW type     Flags       HW address            Mask     Device\n";

// Flags of an input.
constexpr unsigned char from_the_kernel = 0x01;

constexpr std::array interfaces = {"eth0", "eth0.1", "br-lan", "wlan0", "fifteen-letters"};

/** A record, and the device through which its neighbour is connected. */
struct Neighbour {
    Record record;
    std::string device;
};

using Neighbours = std::vector<Neighbour>;

struct Table {
    std::string text;
    Neighbours complete; /**< Those with a hardware address, in the table's order. */
};

std::string hexadecimal(std::uint32_t number) {
    std::array<char, 9> text{};
    std::snprintf(text.data(), text.size(), "%x", number);
    return text.data();
}

/** The neighbours of any table, up to the first malformed line. */
Neighbours scanned(std::string_view table) {
    Neighbours neighbours;
    std::vector<Piece> pieces = pieces_of(table, longest_line);
    for (std::size_t i = 1; i < pieces.size(); ++i) {
        ScannedLine line(as_text(pieces[i].text));
        const std::string ip = line.word();
        const auto type = line.literal("0x") ? line.hexadecimal() : std::nullopt;
        const auto flags = type && line.literal("0x") ? line.hexadecimal() : std::nullopt;
        const std::string mac = flags ? line.word() : "";
        if (mac.empty())
            break;
        line.word();
        const std::string device = line.word();
        if ((*flags & 2) != 0)
            neighbours.push_back(
                {{.ip = ip, .hardware_type = hexadecimal(*type), .mac = stripped_mac(mac)},
                 device.empty() ? "-" : device});
    }
    return neighbours;
}

/** A table of one neighbour for each group of bytes of the input. */
Table printed(Input input) {
    Table table{std::string(heading), {}};
    const std::string bytes = input.rest();
    for (std::size_t at = 0; at + 6 <= bytes.size(); at += 6) {
        std::array<unsigned, 6> number{};
        std::transform(&bytes[at], &bytes[at] + 6, number.begin(),
                       [](char c) { return static_cast<unsigned char>(c); });
        const std::string ip =
            "10." + std::to_string(number[0]) + "." + std::to_string(number[1]) + ".255";
        const unsigned type = number[2] > SCHAR_MAX ? number[2] * 0x01010101U : number[2];
        const char *device = interfaces[number[5] % interfaces.size()];
        std::array<char, CORVEL_MAC_SIZE> mac{};
        std::snprintf(mac.data(), mac.size(), "0a:bc:de:f0:%02x:%02x", number[4] % 4, number[4]);
        std::array<char, 160> line{};
        std::snprintf(line.data(), line.size(), "%-16s 0x%-10x0x%-10x%s     *        %s\n",
                      ip.c_str(), type, number[3], mac.data(), device);
        table.text += line.data();
        if ((number[3] & 2) != 0)
            table.complete.push_back(
                {{.ip = ip, .hardware_type = hexadecimal(type), .mac = stripped_mac(mac.data())},
                 device});
    }
    return table;
}

/** The neighbours at one interface, or at all if it is empty; of those with equal hardware
 * addresses the first. */
Records wanted(const Neighbours &neighbours, const std::string &interface) {
    Records records;
    for (const auto &[record, device] : neighbours) {
        const auto same = [&mac = record.mac](const Record &each) {
            return each.mac == mac;
        };
        if ((interface.empty() || interface == device) &&
            std::none_of(records.begin(), records.end(), same))
            records.push_back(record);
    }
    return records;
}

int position_of(const Records &records, std::string_view mac) {
    const auto found = std::find_if(records.begin(), records.end(),
                                    [&](const Record &each) { return each.mac == mac; });
    return found == records.end() ? 0 : static_cast<int>(found - records.begin()) + 1;
}

std::string with_separators(std::string mac) {
    for (std::size_t i = 2; i < mac.size(); i += 3)
        mac.insert(i, 1, '-');
    return mac;
}

std::string dump_of(const Records &records) {
    std::string text = "dump mac ip\n";
    for (const Record &record : records)
        text += record.ip + "\t" + record.mac + "\t\t\n";
    return text + "---------------------------\n";
}

/** Every record is found at its position, by its address in colon form with other separators. */
void check_search(const lease_entry *head, const Records &records, const std::string &mac) {
    check_equal(search_by_mac(head, exact_copy(mac).get()),
                position_of(records, as_text(stripped_mac(mac))), "search_by_mac");
    check_equal(search_by_mac(nullptr, exact_copy(mac).get()), 0, "an empty list has no address");
    for (const Record &record : records)
        check_equal(search_by_mac(head, exact_copy(with_separators(record.mac)).get()),
                    position_of(records, record.mac), "a record is found");
}

std::string check_interface(const Neighbours &neighbours, const std::string &interface,
                            const std::string &mac) {
    const Records expected = wanted(neighbours, interface);
    List list;
    check_equal(get_arp_cache(exact_copy(interface).get(), &list.head),
                static_cast<long long>(expected.size()), "get_arp_cache returns the count");
    check_list(list.head, expected);
    check_search(list.head, expected, mac);
    check_equal(output_of([&] { dump_macip(list.head); }), dump_of(expected), "dump_macip");
    return bytes_of(list.head);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static FixedFile file("/proc/net/arp");
    Input input(data, size);
    const unsigned char flags = input.byte();
    const std::string interface = input.text();
    const std::string mac = input.text();
    Table table;
    if ((flags & from_the_kernel) != 0) {
        table = printed(input);
    } else {
        table.text = input.rest();
        table.complete = scanned(table.text);
    }
    file.fill(table.text);
    in_different_surroundings([&] { return check_interface(table.complete, interface, mac); });
    check_interface(table.complete, "", mac);
    check_interface(table.complete, interfaces[0], mac);
    file.remove();
    check_interface({}, interface, mac);
    return 0;
}
