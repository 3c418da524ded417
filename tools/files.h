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

/// Identifies a file regardless of the name used: equal for all hard links to it.
struct FileIdentity {
    dev_t device;
    ino_t inode;

    bool operator==(const FileIdentity &) const = default;
};

struct File {
    Bytes content;
    FileIdentity identity;
};

/// Whether a file argument is "-", that is, standard input or standard output.
bool is_standard_stream(const std::string &path);

/// Reads a whole file. If it is longer than `limit`, reading stops and the content has `limit` + 1
/// bytes. A device is refused before it is opened, since opening alone can have an effect.
File read_file(const std::string &path, std::size_t limit);

/// If the argument is "-", reads the rest of standard input through its descriptor; otherwise the
/// same as read_file().
File read_argument(const std::string &path, std::size_t limit);

/// The regular file that write_argument() would replace, if it exists.
std::optional<FileIdentity> target_of_argument(const std::string &path);

/// If the argument is "-", writes to standard output. Otherwise replaces the file atomically: the
/// content is written to a temporary file in the same directory, synced and renamed, and on failure
/// the old file is unchanged. The new file keeps the old one's mode and, if possible, its owner. A
/// symbolic link is followed and kept. Only a regular file is replaced.
void write_argument(const std::string &path, std::span<const unsigned char> content);

} // namespace corvel::tools

#endif
