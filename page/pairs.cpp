// SPDX-License-Identifier: MIT
#include "page/pairs.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "page/syntax.h"
#include "support/handles.h"
#include "support/text.h"

namespace corvel {
namespace {

constexpr std::size_t smallest_chunk = 256;
constexpr std::size_t fewest_slots = 16;

/// Decodes a name or a value. Returns the end of the result, which is no longer than the text.
char *decode(std::string_view text, char *out) {
    for (; !text.empty(); text.remove_prefix(1)) {
        char character = text[0] == '+' ? ' ' : text[0];
        const int byte = character == '%' && text.size() > 2 ? hex_byte(text.data() + 1) : -1;
        if (byte >= 0) {
            character = static_cast<char>(byte);
            text.remove_prefix(2);
        }
        *out++ = character;
    }
    return out;
}

} // namespace

/// A block of strings.
struct Pairs::Chunk {
    Chunk *previous;
    std::size_t size; ///< Including this head.
};

Pairs::Pairs() = default;

Pairs::~Pairs() {
    while (chunks_ != nullptr) {
        Chunk *const chunk = chunks_;
        chunks_ = chunk->previous;
        wipe_and_free(chunk, chunk->size);
    }
    std::free(slots_);
}

/// Makes room for further slots. The capacity doubles, so that the time is linear.
Pairs::Added Pairs::add_slots(std::size_t pairs) {
    if (pairs > pairs_max_ - count_)
        return Added::too_many;
    if (pairs <= capacity_ - count_)
        return Added::stored;
    const std::size_t doubled = std::min(std::max(fewest_slots, 2 * capacity_), pairs_max_);
    const std::size_t added = std::max(count_ + pairs, doubled) - capacity_;
    if (added > (memory_max_ - memory_) / sizeof(Slot))
        return Added::too_large;
    void *const larger = std::realloc(slots_, (capacity_ + added) * sizeof(Slot));
    if (larger == nullptr)
        return Added::no_memory;
    slots_ = static_cast<Slot *>(larger);
    capacity_ += added;
    memory_ += added * sizeof(Slot);
    return Added::stored;
}

Pairs::Added Pairs::add_chunk(std::size_t bytes) {
    const std::size_t size = sizeof(Chunk) + std::max(bytes, smallest_chunk);
    if (size < bytes || size > memory_max_ - memory_)
        return Added::too_large;
    auto *const chunk = static_cast<Chunk *>(std::malloc(size));
    if (chunk == nullptr)
        return Added::no_memory;
    *chunk = {chunks_, size};
    chunks_ = chunk;
    next_ = reinterpret_cast<char *>(chunk + 1);
    room_ = size - sizeof(Chunk);
    memory_ += size;
    return Added::stored;
}

/// Makes room for further pairs whose strings have so many bytes with their terminating NULs.
Pairs::Added Pairs::make_room(std::size_t pairs, std::size_t bytes) {
    const Added added = add_slots(pairs);
    if (added != Added::stored || bytes <= room_)
        return added;
    return add_chunk(bytes);
}

/// Stores the pair whose name and value are at the start of the unused bytes, up to the ends of
/// each, where there is room for a NUL.
Pairs::Added Pairs::commit(char *name_end, char *end) {
    *name_end = '\0';
    *end = '\0';
    if (next_ + std::strlen(next_) != name_end || name_end + 1 + std::strlen(name_end + 1) != end)
        return Added::contains_nul;
    slots_[count_++].name = next_;
    room_ -= static_cast<std::size_t>(end + 1 - next_);
    next_ = end + 1;
    is_sorted_ = false;
    return Added::stored;
}

Pairs::Added Pairs::add(std::string_view name, std::string_view value) {
    const Added added = make_room(1, name.size() + value.size() + 2);
    if (added != Added::stored)
        return added;
    char *const name_end = std::copy(name.begin(), name.end(), next_);
    return commit(name_end, std::copy(value.begin(), value.end(), name_end + 1));
}

Pairs::Added Pairs::add_encoded(std::string_view form) {
    if (form.empty())
        return Added::stored;
    const auto separators = static_cast<std::size_t>(std::count(form.begin(), form.end(), '&'));
    const std::size_t pairs = std::min(separators + 1, pairs_max_ - count_);
    Added added = make_room(pairs, form.size() + 2 * pairs);
    while (added == Added::stored && !form.empty()) {
        const std::string_view pair = front(form, form.find('&'));
        form = after(form, pair.size() + 1);
        if (pair.empty())
            continue;
        if (count_ == pairs_max_)
            return Added::too_many;
        const std::string_view name = front(pair, pair.find('='));
        char *const name_end = decode(name, next_);
        added = commit(name_end, decode(after(pair, name.size() + 1), name_end + 1));
    }
    return added;
}

const char *Pairs::name(std::size_t position) const {
    return position < count_ ? slots_[position].name : nullptr;
}

const char *Pairs::value(std::size_t position) const {
    const char *const text = name(position);
    return text != nullptr ? text + std::strlen(text) + 1 : nullptr;
}

/// Whether a pair is before another one in the order of names; equal names are in their own order.
bool Pairs::is_before(std::size_t left, std::size_t right) const {
    const int order = std::strcmp(slots_[left].name, slots_[right].name);
    return order != 0 ? order < 0 : left < right;
}

/// Moves the pair at the top of a heap down to its place.
void Pairs::sift_down(std::size_t top, std::size_t count) const {
    for (std::size_t child = 2 * top + 1; child < count; child = 2 * top + 1) {
        if (child + 1 < count && is_before(slots_[child].sorted, slots_[child + 1].sorted))
            ++child;
        if (!is_before(slots_[top].sorted, slots_[child].sorted))
            return;
        std::swap(slots_[top].sorted, slots_[child].sorted);
        top = child;
    }
}

/// Heapsort: n log n comparisons for any names, without further memory.
void Pairs::sort() const {
    for (std::size_t i = 0; i < count_; ++i)
        slots_[i].sorted = static_cast<std::uint32_t>(i);
    for (std::size_t top = count_ / 2; top-- > 0;)
        sift_down(top, count_);
    for (std::size_t end = count_; end-- > 1;) {
        std::swap(slots_[0].sorted, slots_[end].sorted);
        sift_down(0, end);
    }
    is_sorted_ = true;
}

const char *Pairs::find(const char *name, std::size_t index) const {
    if (!is_sorted_)
        sort();
    std::size_t first = 0;
    std::size_t end = count_;
    while (first < end) {
        const std::size_t middle = (first + end) / 2;
        if (std::strcmp(slots_[slots_[middle].sorted].name, name) < 0)
            first = middle + 1;
        else
            end = middle;
    }
    if (index >= count_ - first)
        return nullptr;
    const std::size_t position = slots_[first + index].sorted;
    return std::strcmp(slots_[position].name, name) == 0 ? value(position) : nullptr;
}

} // namespace corvel
