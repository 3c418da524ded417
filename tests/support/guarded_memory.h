/* SPDX-License-Identifier: MIT */
/**
 * Arguments and buffers next to an inaccessible page, so that an access outside them terminates the
 * process in every build. Other bytes in the same pages have the value 0xA5.
 *
 *     const GuardedBlock block("abc");               // three bytes, not NUL-terminated
 *     GuardedString text("name=value");              // a string that a function changes in place
 *     GuardedInput input;                            // one argument at a time, without a new
 * mmap() const GuardedOutput out(18);                   // a buffer that a function fills
 *     EXPECT_EQ(getHWaddr(input.hold("lo"), out.start()), out.start());
 *     EXPECT_TRUE(out.preceding_bytes_intact());
 */
#ifndef CORVEL_TESTS_GUARDED_MEMORY_H
#define CORVEL_TESTS_GUARDED_MEMORY_H

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>

namespace corvel_test {

/** Whole pages between two inaccessible pages. */
class GuardedPages {
  public:
    static constexpr char filler = '\xA5';

    /** Maps more than @p least bytes. */
    explicit GuardedPages(std::size_t least) {
        const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        size_ = (least / page + 1) * page;
        mapped_ = size_ + 2 * page;
        void *const memory = mmap(nullptr, mapped_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED)
            std::abort();
        memory_ = static_cast<char *>(memory);
        start_ = memory_ + page;
        if (mprotect(start_, size_, PROT_READ | PROT_WRITE) != 0)
            std::abort();
        std::memset(start_, filler, size_);
    }
    GuardedPages(const GuardedPages &) = delete;
    GuardedPages &operator=(const GuardedPages &) = delete;
    ~GuardedPages() { munmap(memory_, mapped_); }

    [[nodiscard]] char *start() const { return start_; }
    [[nodiscard]] char *end() const { return start_ + size_; }
    [[nodiscard]] std::size_t size() const { return size_; }

    /** The last @p size bytes. */
    [[nodiscard]] char *last(std::size_t size) const {
        if (size > size_)
            std::abort();
        return end() - size;
    }

  private:
    std::size_t size_ = 0;
    std::size_t mapped_ = 0;
    char *memory_ = nullptr;
    char *start_ = nullptr;
};

/** The inaccessible page that a block adjoins. */
enum class GuardPage { after, before };

/** A block of exactly the given bytes. */
class GuardedBlock {
  public:
    explicit GuardedBlock(std::string_view bytes, GuardPage guard = GuardPage::after)
        : size_(bytes.size()), pages_(size_),
          start_(guard == GuardPage::after ? pages_.last(size_) : pages_.start()) {
        bytes.copy(start_, size_);
    }

    [[nodiscard]] char *start() const { return start_; }
    [[nodiscard]] char *end() const { return start_ + size_; }
    [[nodiscard]] std::size_t size() const { return size_; }
    [[nodiscard]] std::string_view bytes() const { return {start_, size_}; }

  private:
    std::size_t size_;
    GuardedPages pages_;
    char *start_;
};

/** One argument at a time, at the end of the same memory, of at most a page. */
class GuardedInput {
  public:
    /** Holds a string with its terminator. */
    const char *hold(std::string_view text) {
        char *const start = pages_.last(text.size() + 1);
        text.copy(start, text.size());
        start[text.size()] = '\0';
        return start;
    }
    /** Holds bytes without a terminator. */
    const unsigned char *hold_bytes(std::string_view bytes) {
        char *const start = pages_.last(bytes.size());
        bytes.copy(start, bytes.size());
        return reinterpret_cast<const unsigned char *>(start);
    }

  private:
    GuardedPages pages_{1};
};

/** A buffer that a function writes to. */
class GuardedOutput {
  public:
    /** A buffer of @p size bytes, each with the value @p fill. */
    explicit GuardedOutput(std::size_t size, char fill = '#') : pages_(size) { renew(size, fill); }

    /** Makes another buffer in the same memory, of at most a page. */
    char *renew(std::size_t size, char fill = '#') {
        start_ = pages_.last(size);
        std::memset(pages_.start(), GuardedPages::filler, pages_.size());
        std::memset(start_, fill, size);
        return start_;
    }
    [[nodiscard]] char *start() const { return start_; }
    [[nodiscard]] unsigned char *bytes_start() const {
        return reinterpret_cast<unsigned char *>(start_);
    }
    [[nodiscard]] std::size_t size() const {
        return static_cast<std::size_t>(pages_.end() - start_);
    }
    [[nodiscard]] std::string bytes() const { return {start_, size()}; }
    /** Whether no byte before the buffer, in the same pages, has changed. */
    [[nodiscard]] bool preceding_bytes_intact() const {
        const std::string_view preceding(pages_.start(), pages_.size() - size());
        return preceding.find_first_not_of(GuardedPages::filler) == std::string_view::npos;
    }

  private:
    GuardedPages pages_;
    char *start_ = nullptr;
};

/** A string in a buffer of its own, to be changed in place. */
class GuardedString {
  public:
    /** Holds @p text in a buffer for @p characters, or for those of the text if they are more, and
     * a terminator. The rest of the buffer has the value 0xA5. */
    explicit GuardedString(std::string_view text, std::size_t characters = 0)
        : buffer_(std::max(characters, text.size()) + 1, GuardedPages::filler) {
        text.copy(buffer_.start(), text.size());
        buffer_.start()[text.size()] = '\0';
    }

    [[nodiscard]] char *text() const { return buffer_.start(); }
    [[nodiscard]] std::size_t size() const { return buffer_.size(); }
    [[nodiscard]] bool preceding_bytes_intact() const { return buffer_.preceding_bytes_intact(); }

  private:
    GuardedOutput buffer_;
};

} // namespace corvel_test

#endif
