// SPDX-License-Identifier: MIT
#include <corvel.h>

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <optional>
#include <span>

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
    /// Twelve characters, NULs where the address has fewer, and a NUL.
    [[nodiscard]] const char *text() const { return text_; }

    /// In one call, since a search does little else.
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

/// A record as a node of the index.
struct IndexedEntry : lease_entry {
    IndexedEntry *children[4];
};

/// The bits of a hardware address. The first ones depend on all characters, so that usual addresses
/// differ early; all 96 determine the address, so that different addresses have different bits.
class MacBits {
  public:
    static constexpr std::size_t size = sizeof(std::uint64_t) + sizeof(std::uint32_t);

    explicit MacBits(const StrippedMac &mac) {
        std::memcpy(&high_, mac.text(), sizeof high_);
        std::memcpy(&low_, mac.text() + sizeof high_, sizeof low_);
        high_ = (high_ ^ low_ * 0xBF58476D1CE4E5B9U) * 0x9E3779B97F4A7C15U;
    }

    /// Takes the first two bits off.
    unsigned take() {
        const auto bits = static_cast<unsigned>(high_ >> 62);
        high_ = high_ << 2 | low_ >> 30;
        low_ <<= 2;
        return bits;
    }

  private:
    std::uint64_t high_;
    std::uint32_t low_;
};

/// The records by hardware address: a digital search tree. No path in it is longer than an address
/// has pairs of bits, whoever chose the addresses, and its nodes are the records themselves, so
/// that it needs no memory of its own that could run out.
class MacIndex {
  public:
    /// Where the record of an address is, or is to be put.
    IndexedEntry *&place_of(const StrippedMac &mac) {
        MacBits bits(mac);
        IndexedEntry **place = &root_;
        // A record of this list has NULs after its address: twelve bytes are compared inline.
        while (*place != nullptr && std::memcmp((*place)->mac, mac.text(), MacBits::size) != 0)
            place = &(*place)->children[bits.take()];
        return *place;
    }

  private:
    IndexedEntry *root_ = nullptr;
};

/// As "%x" prints it, truncated to fit. snprintf() would take a seventh of a neighbour's time.
void store_hexadecimal(std::span<char> field, std::uint32_t number) {
    char digits[8];
    const char *const end = std::to_chars(std::begin(digits), std::end(digits), number, 16).ptr;
    store(field, {digits, end});
}

int read_neighbours(std::string_view interface, lease_entry **head) {
    const Descriptor table = open_for_reading(neighbour_table);
    if (!table)
        return 0;
    LineReader reader(table.get(), line_length);
    Line line;
    reader.next(line); // the heading
    LeaseList list(head);
    MacIndex index;
    while (reader.next(line)) {
        const std::optional<Neighbour> neighbour = parse_neighbour(line.text());
        if (!neighbour)
            break;
        if (!neighbour->is_complete() || (!interface.empty() && neighbour->device != interface))
            continue;
        const StrippedMac mac(neighbour->mac);
        IndexedEntry *&entry = index.place_of(mac);
        if (entry != nullptr)
            continue;
        entry = list.append<IndexedEntry>();
        if (entry == nullptr)
            return 0;
        store(entry->ip, neighbour->ip);
        store_hexadecimal(entry->hwtype, neighbour->hardware_type);
        store(entry->mac, std::string_view(mac.text()));
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
