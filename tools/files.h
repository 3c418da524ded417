// SPDX-License-Identifier: MIT
#ifndef CORVEL_TOOLS_FILES_H
#define CORVEL_TOOLS_FILES_H

#include <cstddef>
#include <span>
#include <string>
#include <vector>

namespace corvel::tools {

using Bytes = std::vector<unsigned char>;

/// A whole file, or as much of it as is needed to see that it is longer than `limit`: then the
/// result has `limit` + 1 bytes.
Bytes read_file(const std::string &path, std::size_t limit);

/// Puts a file with this content in its place, or leaves what is there: the content is written
/// beside it, synced, and renamed. A file that is replaced keeps its mode and, as far as possible,
/// its owner; a link keeps pointing to it. What is no plain file is refused.
void replace_file(const std::string &path, std::span<const unsigned char> content);

} // namespace corvel::tools

#endif
