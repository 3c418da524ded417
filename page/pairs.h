// SPDX-License-Identifier: MIT
#ifndef CORVEL_PAGE_PAIRS_H
#define CORVEL_PAGE_PAIRS_H

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace corvel {

/// The names and values of a form or query, within a number of pairs and of bytes. Several pairs
/// may have the same name. Their order is kept. Strings stay where they are until the object is
/// destroyed, which overwrites them before their memory is released.
class Pairs {
  public:
    enum class Added { stored, too_many, too_large, no_memory, contains_nul };

    Pairs();
    Pairs(const Pairs &) = delete;
    Pairs &operator=(const Pairs &) = delete;
    ~Pairs();

    /// Sets the limits, before the first pair is added. Without them, memory is the limit.
    void limit(std::size_t pairs_max, std::size_t memory_max) {
        pairs_max_ = pairs_max;
        memory_max_ = memory_max;
    }

    /// Copies a pair. If it is not stored, the pairs stay as they are.
    Added add(std::string_view name, std::string_view value);

    /// Decodes application/x-www-form-urlencoded and adds its pairs, up to the first that is not
    /// stored. `+` is a space, and a percent sign without two hexadecimal digits is kept. A pair
    /// without `=` has an empty value; an empty string between two `&` is no pair.
    Added add_encoded(std::string_view form);

    [[nodiscard]] std::size_t count() const { return count_; }
    /// Bytes allocated.
    [[nodiscard]] std::size_t memory() const { return memory_; }
    /// Null after the last pair.
    [[nodiscard]] const char *name(std::size_t position) const;
    [[nodiscard]] const char *value(std::size_t position) const;
    /// Returns the value with an index among those of a name, null if there are fewer. The first
    /// call after a change sorts an index of the names, in n log n time for any names.
    [[nodiscard]] const char *find(const char *name, std::size_t index) const;

  private:
    struct Chunk;
    /// The pair at a position, and which pair is at this position if they are sorted by name.
    struct Slot {
        const char *name; ///< Its value follows the terminating NUL.
        std::uint32_t sorted;
    };

    Added make_room(std::size_t pairs, std::size_t bytes);
    Added add_slots(std::size_t pairs);
    Added add_chunk(std::size_t bytes);
    Added commit(char *name_end, char *end);
    [[nodiscard]] bool is_before(std::size_t left, std::size_t right) const;
    void sift_down(std::size_t top, std::size_t count) const;
    void sort() const;

    std::size_t pairs_max_ = SIZE_MAX;
    std::size_t memory_max_ = SIZE_MAX;
    std::size_t memory_ = 0;
    Chunk *chunks_ = nullptr;
    char *next_ = nullptr; ///< The unused bytes of the last chunk.
    std::size_t room_ = 0;
    Slot *slots_ = nullptr;
    std::size_t capacity_ = 0;
    std::size_t count_ = 0;
    mutable bool is_sorted_ = true;
};

} // namespace corvel

#endif
