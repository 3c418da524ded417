// SPDX-License-Identifier: MIT
#ifndef CORVEL_SUPPORT_DESCRIPTOR_H
#define CORVEL_SUPPORT_DESCRIPTOR_H

#include <unistd.h>
#include <utility>

namespace corvel {

/// An open file descriptor, or none.
class Descriptor {
  public:
    /// Takes what open() or socket() returned.
    explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
    Descriptor(Descriptor &&other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
    Descriptor &operator=(Descriptor &&) = delete;
    ~Descriptor() {
        if (descriptor_ >= 0)
            close(descriptor_);
    }

    explicit operator bool() const { return descriptor_ >= 0; }
    [[nodiscard]] int get() const { return descriptor_; }

  private:
    int descriptor_;
};

} // namespace corvel

#endif
