// SPDX-License-Identifier: MIT
#include <corvel.h>

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <net/if_arp.h>
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

    /// Whether its hardware address is known.
    [[nodiscard]] bool is_complete() const { return (flags & ATF_COM) != 0; }
};

/// Parses IP address, hardware type, flags, hardware address, mask and device. Returns no value if
/// one of the first four is missing or malformed; a missing device is "-".
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

/// A hardware address as it is in the records of the list.
class StrippedMac {
  public:
    explicit StrippedMac(std::string_view mac) { strip_separators(mac, digits_); }
    /// Twelve characters, padded with NULs, and a NUL.
    [[nodiscard]] const char *digits() const { return digits_; }

    [[nodiscard]] bool is_of(const lease_entry &entry) const {
        return std::strncmp(entry.mac, digits_, sizeof entry.mac) == 0;
    }

  private:
    char digits_[CORVEL_MAC_STRIPPED_SIZE];
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

/// The 96 bits of a hardware address's characters, mixed by a bijection: different addresses have
/// different bits, and the first bits depend on all characters, so that the addresses of one maker
/// differ early.
class MacBits {
  public:
    static constexpr std::size_t size = sizeof(std::uint64_t) + sizeof(std::uint32_t);

    explicit MacBits(const StrippedMac &mac) {
        std::memcpy(&high_, mac.digits(), sizeof high_);
        std::memcpy(&low_, mac.digits() + sizeof high_, sizeof low_);
        high_ = (high_ ^ low_ * 0xBF58476D1CE4E5B9U) * 0x9E3779B97F4A7C15U;
    }

    /// Removes the first two bits and returns them.
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

/// A digital search tree of the records, by hardware address. No path is longer than 48 steps, one
/// for each pair of bits, even if a stranger chooses the addresses. The records themselves are the
/// nodes, so no other memory is needed.
class MacIndex {
  public:
    /// The pointer to the record of an address: null if there is none, and the place to insert it.
    IndexedEntry *&place_of(const StrippedMac &mac) {
        MacBits bits(mac);
        IndexedEntry **place = &root_;
        // Both are padded with NULs, so memcmp() will do, which the compiler expands inline.
        while (*place != nullptr && std::memcmp((*place)->mac, mac.digits(), MacBits::size) != 0)
            place = &(*place)->children[bits.take()];
        return *place;
    }

  private:
    IndexedEntry *root_ = nullptr;
};

/// Stores a number as "%x" prints it, truncated to fit. snprintf() would take a seventh of the time
/// of reading a neighbour.
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
        store(entry->mac, std::string_view(mac.digits()));
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

using namespace corvel;

int get_arp_cache(const char *ifname, lease_entry **head) {
    return read_neighbours(text_of(ifname), head);
}

int search_by_mac(const lease_entry *head, const char *mac) {
    return find_mac(head, StrippedMac(text_of(mac)));
}

void dump_macip(const lease_entry *head) {
    std::puts("dump mac ip");
    for (; head != nullptr; head = head->next)
        print_record(*head);
    std::puts("---------------------------");
}

} // extern "C"
