// SPDX-License-Identifier: MIT
// A reader of multipart/form-data (RFC 7578) as a stream.
#ifndef CORVEL_PAGE_MULTIPART_H
#define CORVEL_PAGE_MULTIPART_H

#include <cstddef>
#include <cstdint>
#include <string_view>

#include <corvel_page.h>

#include "page/body.h"
#include "page/buffer.h"
#include "support/handles.h"

namespace corvel {

/// The separator between the parts of a multipart body: an optional line ending, two hyphens and
/// the boundary of the content type.
class Delimiter {
  public:
    /// Takes the boundary from a content type; there is none if the type is not multipart/form-data
    /// or its boundary is missing, longer than 200 characters or contains control characters.
    explicit Delimiter(std::string_view content_type);

    [[nodiscard]] bool is_multipart() const { return is_multipart_; }
    [[nodiscard]] bool is_valid() const { return size_ > 4; }

    /// The separator after a CR LF, or after a LF alone.
    [[nodiscard]] std::string_view after_crlf() const { return {text_, size_}; }
    [[nodiscard]] std::string_view after_lf() const { return {text_ + 1, size_ - 1}; }
    [[nodiscard]] std::string_view without_line_ending() const { return {text_ + 2, size_ - 2}; }

  private:
    bool is_multipart_ = false;
    std::size_t size_ = 0;
    char text_[4 + 200] = {};
};

/// The input of the reader: a part of the body in a window of fixed size.
class Window {
  public:
    static constexpr std::size_t capacity = 16384;

    Window(Body &body, std::uint64_t total_max)
        : body_(body), left_(total_max), bytes_(allocate<char>(capacity)) {}

    [[nodiscard]] bool has_memory() const { return bytes_ != nullptr; }
    [[nodiscard]] std::string_view held() const { return {bytes_.get() + start_, end_ - start_}; }
    void skip(std::size_t count) { start_ += count; }
    /// Puts bytes before the body.
    void prepend(std::string_view bytes);
    /// Reads further bytes after those held. False at the end of the body, at the limit, if nothing
    /// arrives, or if the window is full.
    bool fill();
    /// Whether at least @p count bytes are held, after reading as many.
    bool ensure(std::size_t count);
    /// Why there are no further bytes.
    [[nodiscard]] corvel_upload_result reason() const;

  private:
    Body &body_;
    std::uint64_t left_; ///< Bytes of the body that may still be read.
    bool is_too_large_ = false;
    HeapBlock<char> bytes_;
    std::size_t start_ = 0;
    std::size_t end_ = 0;
};

/// The header of a part, parsed in place.
class PartHeader {
  public:
    explicit PartHeader(std::size_t limit) : lines_(limit) {}

    /// The header lines as received, each with its line ending.
    Buffer &lines() { return lines_; }
    /// Parses the lines. False if they are malformed or name no field.
    bool parse();
    [[nodiscard]] const corvel_part &part() const { return part_; }

  private:
    bool parse_line(char *line, std::size_t size);
    bool parse_disposition(char *value, char *end);

    Buffer lines_;
    corvel_part part_{};
};

} // namespace corvel

#endif
