// SPDX-License-Identifier: MIT
#ifndef CORVEL_PAGE_BUFFER_H
#define CORVEL_PAGE_BUFFER_H

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "support/text.h"

namespace corvel {

/// A string of bytes that grows up to a limit. The first append that fails, because of the limit or
/// because memory is exhausted, leaves the content as it is and makes every later one fail.
class Buffer {
  public:
    explicit Buffer(std::size_t limit) : limit_(at_most(limit, SIZE_MAX / 4)) {}
    Buffer(const Buffer &) = delete;
    Buffer &operator=(const Buffer &) = delete;
    ~Buffer() { std::free(start_); }

    bool append(std::string_view bytes);
    bool append(const char *string);
    /// Appends what printf() would print.
    [[gnu::format(printf, 2, 3)]] void print(const char *format, ...);

    /// Removes the content and forgets a failure.
    void clear() {
        size_ = 0;
        failed_ = false;
    }
    /// Removes bytes that are in the content.
    void remove(std::size_t start, std::size_t size);

    [[nodiscard]] bool failed() const { return failed_; }
    [[nodiscard]] std::size_t size() const { return size_; }
    [[nodiscard]] char *data() { return start_; }
    [[nodiscard]] std::string_view bytes() const { return {start_, size_}; }

  private:
    char *extend(std::size_t more);

    std::size_t limit_;
    char *start_ = nullptr;
    std::size_t size_ = 0;
    std::size_t capacity_ = 0; ///< Without the byte for the NUL that print() writes.
    bool failed_ = false;
};

} // namespace corvel

#endif
