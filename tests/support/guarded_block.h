/* SPDX-License-Identifier: MIT */
/** A block of bytes that ends, or begins, where its memory does: one byte further and the process
 *  dies, in every build. */
#ifndef CORVEL_TESTS_GUARDED_BLOCK_H
#define CORVEL_TESTS_GUARDED_BLOCK_H

#include <cstddef>
#include <cstdlib>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>

namespace corvel_test {

/** Where a block meets memory that can neither be read nor written. */
enum class Fence { after, before };

/** A block of exactly the bytes that it is given, which need not end with a NUL. */
class GuardedBlock {
  public:
    explicit GuardedBlock(std::string_view bytes, Fence fence = Fence::after)
        : size_(bytes.size()) {
        const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        const std::size_t usable = (size_ / page + 1) * page;
        mapped_ = usable + 2 * page;
        void *const memory = mmap(nullptr, mapped_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED)
            std::abort();
        memory_ = static_cast<char *>(memory);
        if (mprotect(memory_ + page, usable, PROT_READ | PROT_WRITE) != 0)
            std::abort();
        start_ = memory_ + page + (fence == Fence::after ? usable - size_ : 0);
        bytes.copy(start_, size_);
    }
    GuardedBlock(const GuardedBlock &) = delete;
    GuardedBlock &operator=(const GuardedBlock &) = delete;
    ~GuardedBlock() { munmap(memory_, mapped_); }

    [[nodiscard]] char *start() const { return start_; }
    [[nodiscard]] char *end() const { return start_ + size_; }
    [[nodiscard]] std::size_t size() const { return size_; }
    [[nodiscard]] std::string_view bytes() const { return {start_, size_}; }

  private:
    std::size_t size_;
    std::size_t mapped_ = 0;
    char *memory_ = nullptr;
    char *start_ = nullptr;
};

} // namespace corvel_test

#endif
