// SPDX-License-Identifier: MIT
// What every writer of a configuration file does with the file and its companions.
#ifndef CORVEL_CONFIG_COMPANION_FILES_H
#define CORVEL_CONFIG_COMPANION_FILES_H

#include <array>
#include <cstddef>
#include <fcntl.h>
#include <span>
#include <string_view>
#include <sys/stat.h>

#include "support/descriptor.h"
#include "support/text.h"

namespace corvel {

constexpr std::string_view copy_suffix = ".cgi";
constexpr std::string_view lock_suffix = ".lck";

/// Builds the path of a file's companion: the path with a suffix. False if the path is empty or the
/// result does not fit the buffer.
template <std::size_t size>
bool build_companion_path(std::array<char, size> &companion, std::string_view path,
                          std::string_view suffix) {
    if (path.empty() || path.size() + suffix.size() >= size)
        return false;
    const std::size_t length = store(companion, path);
    store(std::span(companion).subspan(length), suffix);
    return true;
}

/// Opens a regular file for reading. Other files cannot be read: a FIFO could block the writer, and
/// a device could supply bytes without end. Not inlined, to keep the code small.
[[gnu::noinline]] inline Descriptor open_regular(const char *path) {
    Descriptor file(open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat status;
    if (file && (fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)))
        return Descriptor(-1);
    return file;
}

} // namespace corvel

#endif
