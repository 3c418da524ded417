// SPDX-License-Identifier: MIT
#ifndef CORVEL_NET_LEASE_LIST_H
#define CORVEL_NET_LEASE_LIST_H

#include <corvel.h>

#include <cstdlib>

namespace corvel {

/// Builds a list of lease records from its first to its last.
class LeaseList {
  public:
    /// Begins at the caller's head pointer, which is null.
    explicit LeaseList(lease_entry **head) : end_(head) {}

    /// A new last record, filled with zeros; null if there is no memory. A record that extends
    /// lease_entry keeps what it adds in the same block.
    template <typename Record = lease_entry> Record *append() {
        auto *const entry = static_cast<Record *>(std::calloc(1, sizeof(Record)));
        if (entry == nullptr)
            return nullptr;
        *end_ = entry;
        end_ = &entry->next;
        ++count_;
        return entry;
    }

    [[nodiscard]] int count() const { return count_; }

  private:
    lease_entry **end_;
    int count_ = 0;
};

} // namespace corvel

#endif
