// SPDX-License-Identifier: MIT
#include <corvel.h>

#include <bitset>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>

#include "net/conversions.h"
#include "net/lease_list.h"
#include "support/descriptor.h"
#include "support/line_input.h"
#include "support/line_scanner.h"
#include "support/text.h"

namespace corvel {
namespace {

constexpr const char *neighbour_table = "/proc/net/arp";
constexpr std::size_t line_length = 127;

struct Neighbour {
    std::string_view ip;
    std::uint32_t hardware_type;
    std::uint32_t flags;
    std::string_view mac;
    std::string_view device;

    /// Its hardware address is known.
    [[nodiscard]] bool is_complete() const { return (flags & 2) != 0; }
};

/// IP address, hardware type, flags, hardware address, mask, device. None if the line holds less
/// than the first four.
std::optional<Neighbour> parse_neighbour(std::string_view line) {
    LineScanner scanner(line);
    Neighbour neighbour{};
    neighbour.ip = scanner.word();
    const auto type = scanner.skip("0x") ? scanner.hexadecimal() : std::nullopt;
    const auto flags = type && scanner.skip("0x") ? scanner.hexadecimal() : std::nullopt;
    neighbour.mac = scanner.word();
    if (!flags || neighbour.mac.empty())
        return {};
    neighbour.hardware_type = *type;
    neighbour.flags = *flags;
    scanner.word(); // mask
    const std::string_view device = scanner.word();
    neighbour.device = device.empty() ? "-" : device;
    return neighbour;
}

/// A hardware address as the records of the list hold it.
class StrippedMac {
  public:
    explicit StrippedMac(std::string_view text) { strip_separators(text, text_); }
    [[nodiscard]] std::string_view text() const { return text_of(text_); }

    /// In one call, since of a long list nothing else is looked at.
    [[nodiscard]] bool is_of(const lease_entry &entry) const {
        return std::strncmp(entry.mac, text_, sizeof entry.mac) == 0;
    }

  private:
    char text_[13];
};

/// The position of the first record with a hardware address, from 1; 0 if there is none.
int find_mac(const lease_entry *entry, const StrippedMac &mac) {
    for (int position = 1; entry != nullptr; ++position, entry = entry->next) {
        if (mac.is_of(*entry))
            return position;
    }
    return 0;
}

/// Says of nearly every new hardware address that it is new, which spares looking through the list.
/// Each address marks four places; one that finds a place unmarked has not been there before.
class SeenMacs {
  public:
    /// Whether the address may have been there before; from now on it has.
    bool test_and_set(std::string_view mac) {
        // 2^64 over the golden ratio spreads each digit over the bits that are used.
        std::uint64_t hash = 0;
        for (const char digit : mac)
            hash = (hash ^ static_cast<unsigned char>(digit)) * 0x9E3779B97F4A7C15U;
        bool before = true;
        for (const int shift : {8, 21, 34, 47}) {
            const auto place = static_cast<std::size_t>(hash >> shift) % places;
            before = before && marks_[place];
            marks_[place] = true;
        }
        return before;
    }

  private:
    static constexpr std::size_t places = 131072;
    std::bitset<places> marks_;
};

int read_neighbours(std::string_view interface, lease_entry **head) {
    const Descriptor table = open_for_reading(neighbour_table);
    if (!table)
        return 0;
    LineReader reader(table.get(), line_length);
    Line line;
    reader.next(line); // the heading
    LeaseList list(head);
    SeenMacs seen;
    while (reader.next(line)) {
        const std::optional<Neighbour> neighbour = parse_neighbour(line.text());
        if (!neighbour)
            break;
        if (!neighbour->is_complete() || (!interface.empty() && neighbour->device != interface))
            continue;
        const StrippedMac mac(neighbour->mac);
        if (seen.test_and_set(mac.text()) && find_mac(*head, mac) != 0)
            continue;
        lease_entry *const entry = list.append();
        if (entry == nullptr)
            return 0;
        store(entry->ip, neighbour->ip);
        std::snprintf(entry->hwtype, sizeof entry->hwtype, "%x", neighbour->hardware_type);
        store(entry->mac, mac.text());
    }
    return list.count();
}

void print_field(std::string_view text) {
    std::printf("%.*s\t", static_cast<int>(text.size()), text.data());
}

void print_record(const lease_entry &entry) {
    print_field(text_in(entry.ip));
    print_field(text_in(entry.mac));
    print_field(text_in(entry.expires));
    std::putchar('\n');
}

} // namespace
} // namespace corvel

extern "C" {

int get_arp_cache(const char *ifname, lease_entry **head) {
    return corvel::read_neighbours(corvel::text_of(ifname), head);
}

int search_by_mac(const lease_entry *head, const char *mac) {
    return corvel::find_mac(head, corvel::StrippedMac(corvel::text_of(mac)));
}

void dump_macip(const lease_entry *head) {
    std::puts("dump mac ip");
    for (; head != nullptr; head = head->next)
        corvel::print_record(*head);
    std::puts("---------------------------");
}

} // extern "C"
