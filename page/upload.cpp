// SPDX-License-Identifier: MIT
#include <corvel_page.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

#include "page/multipart.h"
#include "page/request.h"
#include "support/descriptor.h"
#include "support/text.h"

using namespace corvel;

namespace corvel {
namespace {

corvel_upload_limits with_defaults(const corvel_upload_limits *given) {
    corvel_upload_limits limits = given != nullptr ? *given : corvel_upload_limits{};
    if (limits.parts_max == 0)
        limits.parts_max = 64;
    if (limits.header_max == 0)
        limits.header_max = 8192;
    if (limits.field_max == 0)
        limits.field_max = 16384;
    if (limits.file_max == 0)
        limits.file_max = 16777216;
    if (limits.total_max == 0)
        limits.total_max = 16777216 + 65536;
    return limits;
}

/// Reads a multipart body: fields become the request's, files go to the sink.
class UploadReader {
  public:
    UploadReader(corvel_request &request, Body &body, const Delimiter &delimiter,
                 const corvel_upload_limits &limits, const corvel_upload_sink &sink)
        : request_(request), delimiter_(delimiter), limits_(limits), sink_(sink),
          window_(body, limits.total_max), header_(limits.header_max), field_(limits.field_max) {}

    corvel_upload_result read();

  private:
    enum class Next { part, end, failed };

    Next skip_preamble();
    Next next_after_delimiter();
    bool read_header();
    bool begin_content();
    bool read_content();
    bool end_content();
    bool skip_content_without_line();
    [[nodiscard]] bool is_delimiter(std::size_t size) const;
    bool emit(std::size_t size);
    bool fail(corvel_upload_result result) {
        result_ = result;
        return false;
    }
    Next failed(corvel_upload_result result) {
        result_ = result;
        return Next::failed;
    }
    [[nodiscard]] bool is_file() const { return header_.part().filename != nullptr; }

    corvel_request &request_;
    const Delimiter &delimiter_;
    const corvel_upload_limits &limits_;
    const corvel_upload_sink &sink_;
    Window window_;
    PartHeader header_;
    Buffer field_;
    /// The delimiter after the line ending that the first delimiter's line has: content in which
    /// the boundary follows the other one is content.
    std::string_view separator_;
    std::uint64_t content_size_ = 0;
    corvel_upload_result result_ = CORVEL_UPLOAD_DONE;
};

corvel_upload_result UploadReader::read() {
    if (!window_.has_memory())
        return CORVEL_UPLOAD_NO_MEMORY;
    std::size_t parts = 0;
    Next next = skip_preamble();
    for (; next == Next::part; next = next_after_delimiter()) {
        if (++parts > limits_.parts_max)
            return CORVEL_UPLOAD_TOO_MANY_PARTS;
        if (!read_header() || !begin_content() || !read_content() || !end_content())
            break;
    }
    return result_;
}

/// Skips what precedes the first delimiter, which a line ending or the start of the body precedes.
UploadReader::Next UploadReader::skip_preamble() {
    window_.prepend("\n");
    const std::string_view separator = delimiter_.after_lf();
    for (;;) {
        const std::string_view held = window_.held();
        const std::size_t found = held.find(separator);
        if (found != std::string_view::npos) {
            window_.skip(found + separator.size());
            return next_after_delimiter();
        }
        window_.skip(held.size() - at_most(held.size(), separator.size() - 1));
        if (!window_.fill())
            return failed(window_.reason());
    }
}

/// Reads the rest of a delimiter's line: two hyphens at the end of the body, or spaces and a line
/// ending before a part.
UploadReader::Next UploadReader::next_after_delimiter() {
    if (!window_.ensure(2))
        return failed(window_.reason());
    if (front(window_.held(), 2) == "--")
        return Next::end;
    char before = '\0';
    for (;;) {
        if (!window_.ensure(1))
            return failed(window_.reason());
        const char character = window_.held().front();
        window_.skip(1);
        if (character == '\n')
            break;
        if (before == '\r' || (character != '\r' && character != ' ' && character != '\t'))
            return failed(CORVEL_UPLOAD_MALFORMED);
        before = character;
    }
    if (separator_.empty())
        separator_ = before == '\r' ? delimiter_.after_crlf() : delimiter_.after_lf();
    return Next::part;
}

/// Reads the header lines of a part up to the empty line after them.
bool UploadReader::read_header() {
    Buffer &lines = header_.lines();
    lines.clear();
    std::size_t line_size = 0;
    for (;;) {
        const std::string_view held = window_.held();
        const std::size_t newline = held.find('\n');
        const std::string_view taken =
            front(held, newline == std::string_view::npos ? newline : newline + 1);
        if (taken.size() > limits_.header_max - lines.size())
            return fail(CORVEL_UPLOAD_HEADER_TOO_LARGE);
        if (!lines.append(taken))
            return fail(CORVEL_UPLOAD_NO_MEMORY);
        line_size += taken.size();
        window_.skip(taken.size());
        if (newline != std::string_view::npos) {
            const std::string_view line = after(lines.bytes(), lines.size() - line_size);
            if (line == "\n" || line == "\r\n")
                return header_.parse() || fail(CORVEL_UPLOAD_MALFORMED);
            line_size = 0;
        } else if (!window_.fill()) {
            return fail(window_.reason());
        }
    }
}

bool UploadReader::begin_content() {
    field_.clear();
    content_size_ = 0;
    if (is_file() && sink_.begin != nullptr && !sink_.begin(sink_.context, &header_.part()))
        return fail(CORVEL_UPLOAD_STOPPED);
    return true;
}

/// Passes on the first bytes of the window.
bool UploadReader::emit(std::size_t size) {
    const std::string_view bytes = front(window_.held(), size);
    if (bytes.empty())
        return true;
    const std::uint64_t limit = is_file() ? limits_.file_max : limits_.field_max;
    if (bytes.size() > limit - content_size_)
        return fail(is_file() ? CORVEL_UPLOAD_FILE_TOO_LARGE : CORVEL_UPLOAD_FIELD_TOO_LARGE);
    content_size_ += bytes.size();
    if (is_file()) {
        if (sink_.data != nullptr && !sink_.data(sink_.context, bytes.data(), bytes.size()))
            return fail(CORVEL_UPLOAD_STOPPED);
    } else if (!field_.append(bytes)) {
        return fail(CORVEL_UPLOAD_NO_MEMORY);
    }
    window_.skip(bytes.size());
    return true;
}

/// Whether a delimiter of @p size bytes at the start of the window is one: what follows it ends its
/// line or the body. Otherwise it is content that starts like a delimiter.
bool UploadReader::is_delimiter(std::size_t size) const {
    const std::string_view following = after(window_.held(), size);
    return following[0] == ' ' || following[0] == '\t' || following[0] == '\n' ||
           front(following, 2) == "\r\n" || front(following, 2) == "--";
}

/// Skips the delimiter of a part without any content, which can directly follow the empty line
/// after the header: its line ending is that of the empty line.
bool UploadReader::skip_content_without_line() {
    const std::string_view line = delimiter_.without_line_ending();
    if (!window_.ensure(line.size() + 2) || front(window_.held(), line.size()) != line ||
        !is_delimiter(line.size()))
        return false;
    window_.skip(line.size());
    return true;
}

/// The separator contains a line ending at its start only, so that no occurrence overlaps another.
bool UploadReader::read_content() {
    if (skip_content_without_line())
        return true;
    for (;;) {
        const std::string_view held = window_.held();
        const std::size_t found = held.find(separator_);
        if (found == std::string_view::npos) {
            if (!emit(held.size() - at_most(held.size(), separator_.size() - 1)))
                return false;
            if (!window_.fill())
                return fail(window_.reason());
            continue;
        }
        if (!emit(found))
            return false;
        if (!window_.ensure(separator_.size() + 2))
            return fail(window_.reason());
        if (is_delimiter(separator_.size())) {
            window_.skip(separator_.size());
            return true;
        }
        if (!emit(separator_.size()))
            return false;
    }
}

bool UploadReader::end_content() {
    if (is_file()) {
        if (sink_.end != nullptr && !sink_.end(sink_.context))
            return fail(CORVEL_UPLOAD_STOPPED);
        return true;
    }
    switch (add_field(&request_, header_.part().name, field_.bytes())) {
    case CORVEL_HTTP_OK:
        return true;
    case CORVEL_HTTP_BAD_REQUEST:
        return fail(CORVEL_UPLOAD_MALFORMED);
    case CORVEL_HTTP_CONTENT_TOO_LARGE:
        return fail(CORVEL_UPLOAD_FIELD_TOO_LARGE);
    default:
        return fail(CORVEL_UPLOAD_NO_MEMORY);
    }
}

/// A file that receives the content of one field's file.
class SavedFile {
  public:
    SavedFile(const char *field, const char *path) : field_(field), path_(path) {}
    SavedFile(const SavedFile &) = delete;
    SavedFile &operator=(const SavedFile &) = delete;
    /// Removes the file unless it is complete.
    ~SavedFile() {
        if (file_.get() >= 0 && !is_complete_)
            unlink(path_);
    }

    static bool begin(void *file, const corvel_part *part) {
        return static_cast<SavedFile *>(file)->begin(*part);
    }
    static bool data(void *file, const void *bytes, std::size_t size) {
        return static_cast<SavedFile *>(file)->write(static_cast<const char *>(bytes), size);
    }
    static bool end(void *file) {
        static_cast<SavedFile *>(file)->is_receiving_ = false;
        return true;
    }

    /// The result of the upload for a caller who wants this file.
    corvel_upload_result finish(corvel_upload_result result) {
        if (result == CORVEL_UPLOAD_STOPPED)
            return CORVEL_UPLOAD_NO_SPACE;
        if (result != CORVEL_UPLOAD_DONE)
            return result;
        if (file_.get() < 0)
            return CORVEL_UPLOAD_NO_FILE;
        is_complete_ = true;
        return CORVEL_UPLOAD_DONE;
    }

  private:
    /// A field without a file is sent with an empty name. Of several files, the first is taken.
    bool begin(const corvel_part &part) {
        is_receiving_ =
            file_.get() < 0 && std::strcmp(part.name, field_) == 0 && *part.filename != '\0';
        if (!is_receiving_)
            return true;
        file_ = Descriptor(open(path_, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        return file_.get() >= 0;
    }
    bool write(const char *bytes, std::size_t size) {
        while (is_receiving_ && size != 0) {
            const ssize_t written = ::write(file_.get(), bytes, size);
            if (written < 0 && errno == EINTR)
                continue;
            if (written <= 0)
                return false;
            bytes += written;
            size -= static_cast<std::size_t>(written);
        }
        return true;
    }

    const char *field_;
    const char *path_;
    Descriptor file_{-1};
    bool is_receiving_ = false;
    bool is_complete_ = false;
};

/// The status and the sentence for each result, in the order of their numbers.
struct Outcome {
    int status;
    const char *complaint;
};

constexpr Outcome outcomes[] = {
    {CORVEL_HTTP_OK, ""},
    {CORVEL_HTTP_UNSUPPORTED_MEDIA_TYPE, "This address accepts uploads of forms only."},
    {CORVEL_HTTP_BAD_REQUEST, "The upload has no valid boundary."},
    {CORVEL_HTTP_BAD_REQUEST, "The upload is malformed."},
    {CORVEL_HTTP_BAD_REQUEST, "The upload ended before it was complete."},
    {CORVEL_HTTP_CONTENT_TOO_LARGE, "The upload has too many parts."},
    {CORVEL_HTTP_CONTENT_TOO_LARGE, "A part of the upload has too large a header."},
    {CORVEL_HTTP_CONTENT_TOO_LARGE, "A field of the form is too large."},
    {CORVEL_HTTP_CONTENT_TOO_LARGE, "The file is too large."},
    {CORVEL_HTTP_CONTENT_TOO_LARGE, "The upload is too large."},
    {CORVEL_HTTP_INTERNAL_SERVER_ERROR, "The upload could not be processed."},
    {CORVEL_HTTP_REQUEST_TIMEOUT, "The upload did not arrive in time."},
    {CORVEL_HTTP_SERVICE_UNAVAILABLE, "There is not enough memory for the upload."},
    {CORVEL_HTTP_SERVICE_UNAVAILABLE, "There is no room for the uploaded file."},
    {CORVEL_HTTP_BAD_REQUEST, "No file was selected."},
};

} // namespace
} // namespace corvel

corvel_upload_result corvel_upload_read(corvel_request *request, const corvel_upload_limits *limits,
                                        const corvel_upload_sink *sink) {
    Body *const body = body_of(request);
    if (body == nullptr)
        return CORVEL_UPLOAD_NOT_MULTIPART;
    const Delimiter delimiter(text_of(content_type(request)));
    corvel_upload_result result = CORVEL_UPLOAD_NOT_MULTIPART;
    if (delimiter.is_multipart() && !delimiter.is_valid()) {
        result = CORVEL_UPLOAD_BAD_BOUNDARY;
    } else if (delimiter.is_multipart()) {
        const corvel_upload_limits complete = with_defaults(limits);
        const corvel_upload_sink nowhere{};
        UploadReader reader(*request, *body, delimiter, complete,
                            sink != nullptr ? *sink : nowhere);
        result = reader.read();
    }
    // The rest of the body is discarded in any case, so that the web server delivers the answer.
    body->discard();
    return result;
}

corvel_upload_result corvel_upload_save(corvel_request *request, const corvel_upload_limits *limits,
                                        const char *field, const char *path) {
    SavedFile file(text_or_empty(field), text_or_empty(path));
    const corvel_upload_sink sink = {&file, SavedFile::begin, SavedFile::data, SavedFile::end};
    return file.finish(corvel_upload_read(request, limits, &sink));
}

int corvel_upload_status(corvel_upload_result result, const char **complaint) {
    const int index = -static_cast<int>(result);
    const bool is_known =
        index >= 0 && index < static_cast<int>(sizeof outcomes / sizeof *outcomes);
    const Outcome &outcome = outcomes[is_known ? index : -CORVEL_UPLOAD_STOPPED];
    if (complaint != nullptr)
        *complaint = outcome.complaint;
    return outcome.status;
}
