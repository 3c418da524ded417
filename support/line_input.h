// SPDX-License-Identifier: MIT
// Text files are read in lines of at most 1023 characters; a longer line comes in pieces.
#ifndef CORVEL_SUPPORT_LINE_INPUT_H
#define CORVEL_SUPPORT_LINE_INPUT_H

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <span>

namespace corvel {

/// The buffer for one line: 1023 characters and the terminator.
inline constexpr std::size_t line_size = 1024;

/// The text of one read, its line end included, as it stands in the buffer that was read into.
struct Line {
    std::span<char> text;
    /// The file ended behind this text: it is a last line without a line end.
    bool cut_off;
};

/// Reads on to the next line end. False when nothing more comes, be it the end or an error. A NUL
/// in the file ends the line's text; the rest of that line is passed over.
inline bool read_line(std::FILE *stream, std::span<char, line_size> buffer, Line &line) {
    if (std::fgets(buffer.data(), static_cast<int>(line_size), stream) == nullptr)
        return false;
    line = {buffer.first(std::strlen(buffer.data())), std::feof(stream) != 0};
    return true;
}

} // namespace corvel

#endif
