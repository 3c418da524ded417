// SPDX-License-Identifier: MIT
// Owning types for heap blocks and streams.
#ifndef CORVEL_SUPPORT_HANDLES_H
#define CORVEL_SUPPORT_HANDLES_H

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <string_view>
#include <utility>

#include "support/text.h"

namespace corvel {

struct HeapRelease {
    void operator()(void *block) const { std::free(block); }
};

/// Owns a block of the C heap.
template <typename Element> using HeapBlock = std::unique_ptr<Element, HeapRelease>;

/// Allocates `count` elements, uninitialized; null if memory cannot be allocated.
template <typename Element> HeapBlock<Element> allocate(std::size_t count) {
    return HeapBlock<Element>(static_cast<Element *>(std::malloc(count * sizeof(Element))));
}

/// A NUL-terminated copy of a string; null if memory cannot be allocated.
inline HeapBlock<char> copy_of(std::string_view text) {
    HeapBlock<char> copy = allocate<char>(text.size() + 1);
    if (copy)
        store({copy.get(), text.size() + 1}, text);
    return copy;
}

/// Overwrites a block with zeros. The compiler cannot remove the stores: the assembly statement may
/// read them.
inline void wipe(void *block, std::size_t size) {
    std::memset(block, 0, size);
    __asm__ volatile("" : : "r"(block) : "memory");
}

/// Overwrites a block of the C heap with zeros and frees it. A null pointer is ignored.
inline void wipe_and_free(void *block, std::size_t size) {
    if (block == nullptr)
        return;
    wipe(block, size);
    std::free(block);
}

/// Owns a block of the C heap and wipes it before freeing it; null if memory could not be
/// allocated.
class WipedBlock {
  public:
    WipedBlock() = default;
    WipedBlock(char *block, std::size_t size) : block_(block), size_(size) {}
    explicit WipedBlock(std::size_t size) : WipedBlock(allocate<char>(size).release(), size) {}
    WipedBlock(WipedBlock &&other) noexcept : WipedBlock(other.release(), other.size_) {}
    WipedBlock &operator=(WipedBlock &&) = delete;
    ~WipedBlock() { wipe_and_free(block_, size_); }

    explicit operator bool() const { return block_ != nullptr; }
    [[nodiscard]] char *get() const { return block_; }
    [[nodiscard]] std::span<char> bytes() const { return {block_, size_}; }
    /// Wipes only the first `size` bytes: the others were never written.
    void wipe_only(std::size_t size) { size_ = size; }
    char *release() { return std::exchange(block_, nullptr); }

  private:
    char *block_ = nullptr;
    std::size_t size_ = 0;
};

struct StreamClose {
    void operator()(std::FILE *stream) const { std::fclose(stream); }
};

/// Owns a stream opened with fopen() or fdopen().
using Stream = std::unique_ptr<std::FILE, StreamClose>;

struct PipeClose {
    void operator()(std::FILE *stream) const { pclose(stream); }
};

/// Owns a stream opened with popen().
using Pipe = std::unique_ptr<std::FILE, PipeClose>;

} // namespace corvel

#endif
