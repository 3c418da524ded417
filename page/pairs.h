// SPDX-License-Identifier: MIT
#ifndef CORVEL_PAGE_PAIRS_H
#define CORVEL_PAGE_PAIRS_H

#include <cstddef>
#include <string_view>

#include "page/buffer.h"

namespace corvel {

/// The names and values of a form or query, within a number of pairs and of bytes. Several pairs
/// may have the same name. Their order is kept. Values are overwritten before their memory is
/// released.
class Pairs {
  public:
    enum class Added { stored, too_many, too_large, no_memory, contains_nul };

    Pairs(std::size_t pairs_max, std::size_t memory_max);
    Pairs(const Pairs &) = delete;
    Pairs &operator=(const Pairs &) = delete;
    ~Pairs();

    Added add(std::string_view name, std::string_view value);

    [[nodiscard]] std::size_t count() const;
    [[nodiscard]] const char *name(std::size_t position) const;
    [[nodiscard]] const char *value(std::size_t position) const;
    /// Returns the value with an index among those of a name, null if there are fewer. The first
    /// call sorts an index of the names, in n log n time for any names.
    [[nodiscard]] const char *find(std::string_view name, std::size_t index) const;
};

} // namespace corvel

#endif
