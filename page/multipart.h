// SPDX-License-Identifier: MIT
// A reader of multipart/form-data (RFC 7578) as a stream.
#ifndef CORVEL_PAGE_MULTIPART_H
#define CORVEL_PAGE_MULTIPART_H

#include <cstddef>
#include <cstdint>
#include <string_view>

#include <corvel_page.h>

#include "page/body.h"
#include "support/handles.h"

namespace corvel {

/// Reads a body and passes its parts, fields and files alike, to a sink, none of whose functions is
/// null. The body passes through a window of fixed size.
class MultipartReader {
  public:
    /// Bytes of the window, of a part's header lines at most, and of a piece of content at most.
    static constexpr std::size_t window_size = 16384;

    MultipartReader(Body &body, const corvel_upload_limits &limits, const corvel_upload_sink &sink)
        : body_(body), sink_(sink), header_max_(at_most(limits.header_max, window_size)),
          left_(limits.total_max), window_(allocate<char>(window_size)) {}

    /// Reads the body, whose content type contains the boundary, until its end or a failure.
    corvel_upload_result read(const char *content_type);

  private:
    static constexpr std::size_t longest_boundary = 200;

    bool take_boundary(const char *content_type);
    bool skip_preamble();
    bool begin_part();
    bool skip_epilogue();
    bool read_header();
    bool begin_content(std::size_t size, std::size_t skipped);
    bool read_content();
    bool skip_content_without_line();
    [[nodiscard]] bool is_delimiter(std::size_t size) const;
    bool emit(std::size_t size);

    [[nodiscard]] std::string_view held() const { return {window_.get() + start_, end_ - start_}; }
    bool fill();
    bool ensure(std::size_t count);
    bool fail(corvel_upload_result result) {
        result_ = result;
        return false;
    }

    Body &body_;
    const corvel_upload_sink &sink_;
    std::size_t header_max_;
    std::uint64_t left_; ///< Bytes of the body that may still be read.
    HeapBlock<char> window_;
    std::size_t start_ = 0; ///< The bytes held are between start and end.
    std::size_t end_ = 0;
    /// The delimiter after the line ending that the first delimiter's line has: content in which
    /// the boundary follows the other one is content.
    std::string_view separator_;
    corvel_upload_result result_ = CORVEL_UPLOAD_DONE;
    /// CR LF, two hyphens and the boundary.
    std::size_t delimiter_size_ = 0;
    char delimiter_[4 + longest_boundary] = {};
};

/// Whether a name that a client gave to a file contains no directory.
bool is_plain_filename(const char *name);

} // namespace corvel

#endif
