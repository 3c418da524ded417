// SPDX-License-Identifier: MIT
#ifndef CORVEL_NET_LEASE_LIST_H
#define CORVEL_NET_LEASE_LIST_H

#include <corvel.h>

#include <cstdlib>

namespace corvel {

/// Builds a list of lease records in order.
class LeaseList {
  public:
    /// The list starts at the caller's head pointer, which is null.
    explicit LeaseList(lease_entry **head) : end_(head) {}

    /// Appends a record of zeros; null if there is no memory. The members that `Record` adds to
    /// lease_entry are in the same block.
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
