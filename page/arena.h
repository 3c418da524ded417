// SPDX-License-Identifier: MIT
#ifndef CORVEL_PAGE_ARENA_H
#define CORVEL_PAGE_ARENA_H

#include <cstddef>
#include <cstdlib>

namespace corvel {

/// Memory within a limit that is released as a whole. After the first failure, because of the limit
/// or because memory is exhausted, every later allocation fails.
class Arena {
  public:
    explicit Arena(std::size_t limit) : left_(limit) {}
    Arena(const Arena &) = delete;
    Arena &operator=(const Arena &) = delete;
    ~Arena() {
        while (chunks_ != nullptr) {
            Chunk *const next = chunks_->next;
            std::free(chunks_);
            chunks_ = next;
        }
    }

    /// Allocates zeros that are aligned for pointers and sizes. Null on failure.
    void *allocate(std::size_t size) {
        constexpr std::size_t alignment = sizeof(Chunk);
        if (failed_ || size > left_) {
            failed_ = true;
            return nullptr;
        }
        size = (size + alignment - 1) / alignment * alignment;
        if (size > chunk_size / 4)
            return add_chunk(size);
        if (size > room_) {
            start_ = add_chunk(chunk_size);
            room_ = start_ != nullptr ? chunk_size : 0;
        }
        if (start_ == nullptr)
            return nullptr;
        void *const block = start_;
        start_ += size;
        room_ -= size;
        return block;
    }

    void fail() { failed_ = true; }
    [[nodiscard]] bool failed() const { return failed_; }

  private:
    struct Chunk {
        Chunk *next;
    };
    static constexpr std::size_t chunk_size = 2000;

    char *add_chunk(std::size_t size) {
        const std::size_t counted = size < left_ ? size : left_;
        auto *const chunk = static_cast<Chunk *>(std::calloc(1, sizeof(Chunk) + size));
        failed_ = chunk == nullptr;
        if (failed_)
            return nullptr;
        left_ -= counted;
        chunk->next = chunks_;
        chunks_ = chunk;
        return reinterpret_cast<char *>(chunk + 1);
    }

    std::size_t left_;
    Chunk *chunks_ = nullptr;
    char *start_ = nullptr;
    std::size_t room_ = 0;
    bool failed_ = false;
};

} // namespace corvel

#endif
