/* SPDX-License-Identifier: MIT */
/** Texts and buffers that end where their memory does, many one after the other in one memory: one
 *  byte further and the process dies. */
#ifndef CORVEL_TESTS_FENCED_H
#define CORVEL_TESTS_FENCED_H

#include "tests/support/guarded_block.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

namespace corvel_test {

constexpr std::size_t longest_fenced = 4095;

/** Holds one text at a time. */
class FencedText {
  public:
    /** The text and its terminator. */
    const char *hold(std::string_view text) {
        char *const start = block_.end() - text.size() - 1;
        text.copy(start, text.size());
        start[text.size()] = '\0';
        return start;
    }
    /** The bytes without a terminator. */
    const unsigned char *hold_bytes(std::string_view bytes) {
        char *const start = block_.end() - bytes.size();
        bytes.copy(start, bytes.size());
        return reinterpret_cast<const unsigned char *>(start);
    }

  private:
    GuardedBlock block_{std::string(longest_fenced + 1, '\xA5')};
};

/** What a function writes to. */
class FencedRoom {
  public:
    /** Room for @p size bytes, each with the value @p fill. */
    explicit FencedRoom(std::size_t size, char fill = '#') { renew(size, fill); }

    char *renew(std::size_t size, char fill = '#') {
        size_ = size;
        std::memset(block_.start(), guard, block_.size());
        std::memset(start(), fill, size_);
        return start();
    }
    [[nodiscard]] char *start() const { return block_.end() - size_; }
    [[nodiscard]] unsigned char *bytes_start() const {
        return reinterpret_cast<unsigned char *>(start());
    }
    [[nodiscard]] std::string bytes() const { return {start(), size_}; }
    /** Whether the bytes in front of the room are as they were. */
    [[nodiscard]] bool front_is_intact() const {
        return std::all_of(block_.start(), start(), [](char byte) { return byte == guard; });
    }

  private:
    static constexpr char guard = '\xA5';
    GuardedBlock block_{std::string(512, guard)};
    std::size_t size_ = 0;
};

} // namespace corvel_test

#endif
