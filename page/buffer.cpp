// SPDX-License-Identifier: MIT
#include "page/buffer.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "support/text.h"

namespace corvel {

bool Buffer::append(std::string_view bytes) {
    char *const end = extend(bytes.size());
    if (end == nullptr)
        return false;
    if (!bytes.empty())
        std::memcpy(end, bytes.data(), bytes.size());
    return true;
}

bool Buffer::append(const char *string) { return append({string, std::strlen(string)}); }

void Buffer::print(const char *format, ...) {
    std::va_list values;
    std::va_list again;
    va_start(values, format);
    va_copy(again, values);
    const int length = std::vsnprintf(nullptr, 0, format, values);
    failed_ = failed_ || length < 0;
    char *const end = extend(size_from(length));
    if (end != nullptr)
        std::vsnprintf(end, size_from(length) + 1, format, again);
    va_end(again);
    va_end(values);
}

void Buffer::remove(std::size_t start, std::size_t size) {
    size_ -= size;
    std::memmove(start_ + start, start_ + start + size, size_ - start);
}

/// Adds bytes to the content. Returns the first of them; null on failure. The capacity doubles, so
/// that the time is linear in the size.
char *Buffer::extend(std::size_t more) {
    failed_ = failed_ || more > limit_ - size_;
    if (failed_)
        return nullptr;
    const std::size_t size = size_ + more;
    if (size > capacity_ || start_ == nullptr) {
        const std::size_t capacity = at_most(2 * size + 256, limit_);
        auto *const larger = static_cast<char *>(std::realloc(start_, capacity + 1));
        failed_ = larger == nullptr;
        if (failed_)
            return nullptr;
        start_ = larger;
        capacity_ = capacity;
    }
    char *const end = start_ + size_;
    size_ = size;
    return end;
}

} // namespace corvel
