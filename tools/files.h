// SPDX-License-Identifier: MIT
#ifndef CORVEL_TOOLS_FILES_H
#define CORVEL_TOOLS_FILES_H

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <sys/types.h>
#include <vector>

namespace corvel::tools {

using Bytes = std::vector<unsigned char>;

/// The same for all names of a file.
struct FileIdentity {
    dev_t device;
    ino_t inode;

    bool operator==(const FileIdentity &) const = default;
};

struct File {
    Bytes content;
    FileIdentity identity;
};

/// Whether a file argument is standard input or standard output.
bool is_standard_stream(const std::string &path);

/// A whole file, or as much of it as is needed to see that it is longer than `limit`: then the
/// content has `limit` + 1 bytes. A device is refused before it is opened: opening alone can have
/// an effect.
File read_file(const std::string &path, std::size_t limit);

/// The rest of standard input, from its descriptor, where the argument is "-"; otherwise as
/// read_file().
File read_argument(const std::string &path, std::size_t limit);

/// The regular file to which write_argument() would write, if it exists.
std::optional<FileIdentity> target_of_argument(const std::string &path);

/// Where the argument is "-", writes to standard output. Otherwise puts a file with this content in
/// its place, or leaves the old one: the content is written beside it, synced, and renamed. A file
/// that is replaced keeps its mode and, as far as possible, its owner; a link keeps pointing to it.
/// Only a regular file is replaced.
void write_argument(const std::string &path, std::span<const unsigned char> content);

} // namespace corvel::tools

#endif
