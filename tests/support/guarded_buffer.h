/* SPDX-License-Identifier: MIT */
/** A text buffer that ends where its memory ends: one byte further and the process dies. */
#ifndef CORVEL_TESTS_GUARDED_BUFFER_H
#define CORVEL_TESTS_GUARDED_BUFFER_H

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace corvel_test {

/**
 * A buffer of exactly the size that was asked for, its last byte in front of a page that can
 * neither be read nor written. Bytes behind the text are filled with 0xA5.
 */
class GuardedBuffer {
  public:
    /** Holds @p text and its terminator, in room for @p characters (at least those of the text). */
    explicit GuardedBuffer(std::string_view text, std::size_t characters = 0)
        : size_((characters > text.size() ? characters : text.size()) + 1) {
        const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        readable_ = (size_ + page - 1) / page * page;
        void *const memory = mmap(nullptr, readable_ + page, PROT_READ | PROT_WRITE,
                                  MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) {
            std::abort();
        }
        mapped_ = readable_ + page;
        memory_ = static_cast<char *>(memory);
        if (mprotect(memory_ + readable_, page, PROT_NONE) != 0) {
            std::abort();
        }
        std::memset(memory_, 0xA5, readable_);
        text.copy(this->text(), text.size());
        this->text()[text.size()] = '\0';
    }
    GuardedBuffer(const GuardedBuffer &) = delete;
    GuardedBuffer &operator=(const GuardedBuffer &) = delete;
    ~GuardedBuffer() { munmap(memory_, mapped_); }

    char *text() { return memory_ + readable_ - size_; }
    std::size_t size() const { return size_; }

    /** Whether the bytes of the page in front of the buffer are as they were. */
    bool front_is_intact() const {
        for (const char *byte = memory_; byte != memory_ + readable_ - size_; ++byte) {
            if (*byte != static_cast<char>(0xA5)) {
                return false;
            }
        }
        return true;
    }

  private:
    std::size_t size_;
    std::size_t readable_ = 0;
    std::size_t mapped_ = 0;
    char *memory_ = nullptr;
};

} // namespace corvel_test

#endif
