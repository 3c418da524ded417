// SPDX-License-Identifier: MIT
#ifndef CORVEL_SUPPORT_DESCRIPTOR_H
#define CORVEL_SUPPORT_DESCRIPTOR_H

#include <cerrno>
#include <cstddef>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>
#include <utility>

#include "support/text.h"

namespace corvel {

/// Owns an open file descriptor, or holds none.
class Descriptor {
  public:
    /// Takes the result of open() or socket(); a negative one is no descriptor.
    explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
    Descriptor(Descriptor &&other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
    Descriptor &operator=(Descriptor &&other) noexcept {
        std::swap(descriptor_, other.descriptor_);
        return *this;
    }
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

/// Opens a file for reading. A directory, which open() accepts, fails with EISDIR. On failure,
/// errno is set.
inline Descriptor open_for_reading(const char *path) {
    Descriptor file(open(text_or_empty(path), O_RDONLY | O_CLOEXEC));
    struct stat status;
    // If fstat() fails because a size or a date overflows its type, the file is still usable.
    if (file && fstat(file.get(), &status) == 0 && S_ISDIR(status.st_mode)) {
        errno = EISDIR;
        return Descriptor(-1);
    }
    return file;
}

/// Whether two statuses are of one file.
inline bool is_same_file(const struct stat &one, const struct stat &other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

/// Whether a path names the file with this status. A symbolic link at the end of the path is not
/// followed.
inline bool is_at(const struct stat &file, const char *path) {
    struct stat named;
    return lstat(path, &named) == 0 && is_same_file(named, file);
}

/// Reads until the block is full, the file ends or an error occurs. Returns the number of bytes
/// read, or -1 if an error occurs before the first byte. Interruption by a signal is an error.
inline ssize_t read_fully(int descriptor, void *block, std::size_t size) {
    std::size_t total = 0;
    while (total < size) {
        const ssize_t length = read(descriptor, static_cast<char *>(block) + total, size - total);
        if (length < 0 && total == 0)
            return length;
        if (length <= 0)
            break;
        total += static_cast<std::size_t>(length);
    }
    return static_cast<ssize_t>(total);
}

} // namespace corvel

#endif
