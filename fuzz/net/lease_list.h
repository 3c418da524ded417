/* SPDX-License-Identifier: MIT */
/** Lists of lease records, and their expected contents. */
#ifndef CORVEL_FUZZ_NET_LEASE_LIST_H
#define CORVEL_FUZZ_NET_LEASE_LIST_H

#include "corvel.h"
#include "fuzz/harness.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace corvel_fuzz {

/** The strings of a record, perhaps longer than their fields. */
struct Record {
    std::string ip{};
    std::string hardware_type{};
    std::string mac{};
    std::string expires{};
    std::string hostname{};
};

using Records = std::vector<Record>;

/** A list that is released with the object. */
class List {
  public:
    List() = default;
    List(const List &) = delete;
    List &operator=(const List &) = delete;
    ~List() {
        free_leaselist(&head);
        check(head == nullptr, "a released list is empty");
    }

    lease_entry *head = nullptr;
};

/** The string, truncated to fit, and zeros to the end of the field. */
template <std::size_t size>
void check_field(const char (&field)[size], std::string_view text, const char *relation) {
    std::string expected(cut(text, size - 1));
    expected.resize(size);
    check_equal({field, size}, expected, relation);
}

inline void check_record(const lease_entry &entry, const Record &expected) {
    check_equal(entry.reserved, 0, "the reserved number");
    check_field(entry.ip, expected.ip, "ip");
    check_field(entry.hwtype, expected.hardware_type, "hwtype");
    check_field(entry.mac, expected.mac, "mac");
    check_field(entry.expires, expected.expires, "expires");
    check_field(entry.hostname, expected.hostname, "hostname");
}

/** The list contains exactly these records, in this order. */
inline void check_list(const lease_entry *entry, const Records &expected) {
    for (const Record &record : expected) {
        check(entry != nullptr, "no record is missing");
        check_record(*entry, record);
        entry = entry->next;
    }
    check(entry == nullptr, "there is no other record");
}

/** Every byte of a list's records except their links. */
inline std::string bytes_of(const lease_entry *entry) {
    std::string bytes;
    for (; entry != nullptr; entry = entry->next)
        bytes.append(reinterpret_cast<const char *>(entry), offsetof(lease_entry, next));
    return bytes;
}

} // namespace corvel_fuzz

#endif
