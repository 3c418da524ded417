// SPDX-License-Identifier: MIT
#include "page/buffer.h"

#include <cstring>

namespace corvel {

bool Buffer::append(std::string_view bytes) {
    if (failed_ || !reserve(bytes.size()))
        return false;
    if (!bytes.empty())
        std::memcpy(start_ + size_, bytes.data(), bytes.size());
    size_ += bytes.size();
    return true;
}

/// Makes room for further bytes. The capacity doubles, so that the time is linear in the size.
bool Buffer::reserve(std::size_t more) {
    failed_ = more > limit_ - size_;
    if (failed_)
        return false;
    if (more <= capacity_ - size_)
        return true;
    std::size_t capacity = capacity_ < 256 ? 256 : capacity_;
    while (capacity - size_ < more)
        capacity = capacity > limit_ / 2 ? limit_ : capacity * 2;
    auto *const larger = static_cast<char *>(std::realloc(start_, capacity));
    failed_ = larger == nullptr;
    if (failed_)
        return false;
    start_ = larger;
    capacity_ = capacity;
    return true;
}

} // namespace corvel
