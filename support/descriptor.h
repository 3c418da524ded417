// SPDX-License-Identifier: MIT
#ifndef CORVEL_SUPPORT_DESCRIPTOR_H
#define CORVEL_SUPPORT_DESCRIPTOR_H

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "support/text.h"

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
    int release() { return std::exchange(descriptor_, -1); }

  private:
    int descriptor_;
};

/// Opens a file for reading. A folder, which open() would open all the same, is refused.
inline Descriptor open_for_reading(const char *path) {
    Descriptor file(open(text_or_empty(path), O_RDONLY | O_CLOEXEC));
    struct stat status;
    if (!file || fstat(file.get(), &status) != 0 || S_ISDIR(status.st_mode))
        return Descriptor(-1);
    return file;
}

/// Opens the environment's file. Descriptor 0 counts as a failure, and stays open.
inline Descriptor open_environment(const char *path, int flags) {
    const int descriptor = open(text_or_empty(path), flags | O_CLOEXEC, 0644);
    return Descriptor(descriptor > 0 ? descriptor : -1);
}

} // namespace corvel

#endif
