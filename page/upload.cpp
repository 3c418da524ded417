// SPDX-License-Identifier: MIT
#include <corvel_page.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

#include "page/buffer.h"
#include "page/contained_process.h"
#include "page/multipart.h"
#include "page/request.h"
#include "page/string_list.h"
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

/// Bytes of the strings of a record: those of a part can be one longer than its header lines, for
/// the type that a part without one has.
constexpr std::size_t longest_record = MultipartReader::window_size + 64;

/// Takes the parts of an upload: fields become the request's, files go to the page's sink. Enforces
/// the limits of parts.
class Delivery {
  public:
    Delivery(corvel_request &request, const corvel_upload_limits &limits,
             const corvel_upload_sink &sink)
        : request_(request), limits_(limits), sink_(sink) {}

    /// A sink that passes every part to this object.
    corvel_upload_sink sink();
    /// Why a part was refused; CORVEL_UPLOAD_DONE if none was.
    [[nodiscard]] corvel_upload_result result() const { return result_; }

  private:
    bool begin(const corvel_part &part);
    bool take(std::string_view bytes);
    bool end();
    bool fail(corvel_upload_result result) {
        result_ = result;
        return false;
    }

    corvel_request &request_;
    const corvel_upload_limits &limits_;
    const corvel_upload_sink &sink_;
    corvel_upload_result result_ = CORVEL_UPLOAD_DONE;
    std::size_t parts_ = 0;
    bool is_file_ = false;
    std::uint64_t left_ = 0; ///< Bytes that the part may still have.
    Buffer field_{SIZE_MAX}; ///< The name, a NUL, and the value.
};

corvel_upload_sink Delivery::sink() {
    return {this,
            [](void *own, const corvel_part *part) {
                return static_cast<Delivery *>(own)->begin(*part);
            },
            [](void *own, const void *bytes, std::size_t size) {
                return static_cast<Delivery *>(own)->take({static_cast<const char *>(bytes), size});
            },
            [](void *own) {
                return static_cast<Delivery *>(own)->end();
            }};
}

bool Delivery::begin(const corvel_part &part) {
    if (++parts_ > limits_.parts_max)
        return fail(CORVEL_UPLOAD_TOO_MANY_PARTS);
    is_file_ = part.filename != nullptr;
    left_ = is_file_ ? limits_.file_max : limits_.field_max;
    field_.clear();
    if (!is_file_)
        return field_.append({part.name, std::strlen(part.name) + 1}) ||
               fail(CORVEL_UPLOAD_NO_MEMORY);
    return sink_.begin == nullptr || sink_.begin(sink_.context, &part) ||
           fail(CORVEL_UPLOAD_STOPPED);
}

bool Delivery::take(std::string_view bytes) {
    if (bytes.size() > left_)
        return fail(is_file_ ? CORVEL_UPLOAD_FILE_TOO_LARGE : CORVEL_UPLOAD_FIELD_TOO_LARGE);
    left_ -= bytes.size();
    if (!is_file_)
        return field_.append(bytes) || fail(CORVEL_UPLOAD_NO_MEMORY);
    return sink_.data == nullptr || sink_.data(sink_.context, bytes.data(), bytes.size()) ||
           fail(CORVEL_UPLOAD_STOPPED);
}

bool Delivery::end() {
    if (is_file_)
        return sink_.end == nullptr || sink_.end(sink_.context) || fail(CORVEL_UPLOAD_STOPPED);
    const std::string_view name = field_.bytes().data();
    switch (add_field(&request_, name, after(field_.bytes(), name.size() + 1))) {
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

/// A sink that sends the parts as records.
corvel_upload_sink sink_of(RecordWriter &writer) {
    return {&writer,
            [](void *to, const corvel_part *part) {
                static_cast<RecordWriter *>(to)->send(RecordKind::part, part->name, part->filename,
                                                      part->type);
                return true;
            },
            [](void *to, const void *bytes, std::size_t size) {
                static_cast<RecordWriter *>(to)->send(RecordKind::content,
                                                      {static_cast<const char *>(bytes), size});
                return true;
            },
            [](void *to) {
                static_cast<RecordWriter *>(to)->send(RecordKind::part_end, nullptr, nullptr);
                return true;
            }};
}

/// Receives the parts of an upload and passes them to a sink. After the sink has refused one, the
/// others are received and ignored, so that the process reads the body to its end.
class PartReceiver {
  public:
    PartReceiver(ContainedProcess &process, const corvel_upload_sink &sink)
        : process_(process), sink_(sink) {}

    corvel_upload_result receive();

  private:
    bool is_in_order() const;
    bool pass();

    ContainedProcess &process_;
    const corvel_upload_sink &sink_;
    bool is_open_ = false; ///< Whether a part has begun.
};

/// Whether the last record can follow the one before it, and contains what it has to.
bool PartReceiver::is_in_order() const {
    if (process_.kind() != RecordKind::part)
        return is_open_ && (process_.kind() == RecordKind::part_end ||
                            (process_.kind() == RecordKind::content && !process_.bytes().empty()));
    const char *const filename = process_.text(1);
    return !is_open_ && process_.text(0) != nullptr && process_.text(2) != nullptr &&
           (filename == nullptr || is_plain_filename(filename));
}

bool PartReceiver::pass() {
    if (process_.kind() == RecordKind::content)
        return sink_.data(sink_.context, process_.bytes().data(), process_.bytes().size());
    is_open_ = process_.kind() == RecordKind::part;
    if (!is_open_)
        return sink_.end(sink_.context);
    const corvel_part part = {process_.text(0), process_.text(1), process_.text(2)};
    return sink_.begin(sink_.context, &part);
}

corvel_upload_result PartReceiver::receive() {
    bool is_refused = false;
    while (process_.next()) {
        if (is_refused)
            continue;
        if (is_in_order())
            is_refused = !pass();
        else
            process_.refuse_record();
    }
    if (is_refused)
        return CORVEL_UPLOAD_STOPPED;
    // Each number that remains is a result.
    const auto result =
        static_cast<corvel_upload_result>(-static_cast<int>(process_.outcome() & 15U));
    const bool is_complete = process_.is_complete() && (result != CORVEL_UPLOAD_DONE || !is_open_);
    return is_complete ? result : CORVEL_UPLOAD_NOT_CONTAINED;
}

corvel_upload_result read_contained(const corvel_containment &containment, Body &body,
                                    const char *type, const corvel_upload_limits &limits,
                                    const corvel_upload_sink &sink) {
    ContainedProcess process(containment, body, limits.total_max, longest_record);
    if (process.is_child()) {
        RecordWriter writer(process);
        const corvel_upload_result result =
            MultipartReader(body, limits, sink_of(writer)).read(type);
        writer.end(0U - static_cast<unsigned>(result));
    }
    return PartReceiver(process, sink).receive();
}

/// A file that receives the content of one field's file. Where the file system permits, it has no
/// name until it is complete, so that nothing is left even if the process is killed.
class SavedFile {
  public:
    SavedFile(corvel_request *request, const char *field, const char *path)
        : request_(request), field_(field), path_(path) {}
    SavedFile(const SavedFile &) = delete;
    SavedFile &operator=(const SavedFile &) = delete;
    /// Removes the file unless it is complete.
    ~SavedFile() {
        if (file_ && is_named_ && !is_complete_)
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
        if (!file_)
            return CORVEL_UPLOAD_NO_FILE;
        is_complete_ =
            is_named_ || linkat(AT_FDCWD, own_link().path, AT_FDCWD, path_, AT_SYMLINK_FOLLOW) == 0;
        return is_complete_ ? CORVEL_UPLOAD_DONE : CORVEL_UPLOAD_NO_SPACE;
    }

  private:
    /// A field without a file is sent with an empty name. Of several files, the first is taken.
    bool begin(const corvel_part &part) {
        is_receiving_ = !file_ && std::strcmp(part.name, field_) == 0 && *part.filename != '\0';
        if (!is_receiving_)
            return true;
        if (add_field(request_, field_, part.filename) != CORVEL_HTTP_OK)
            return false;
        return create_unnamed() || create_named();
    }
    /// The link with which the kernel shows an open file.
    struct OwnLink {
        char path[32];
    };
    [[nodiscard]] OwnLink own_link() const {
        OwnLink link;
        std::snprintf(link.path, sizeof link.path, "/proc/self/fd/%d", file_.get());
        return link;
    }
    /// False if the file system has no unnamed files, or /proc, which naming one takes, is missing.
    bool create_unnamed() {
        const char *const slash = std::strrchr(path_, '/');
        char directory[PATH_MAX];
        const auto length = static_cast<int>(slash != nullptr ? slash + 1 - path_ : 0);
        std::snprintf(directory, sizeof directory, "%.*s.", length, path_);
        file_ = Descriptor(open(directory, O_WRONLY | O_TMPFILE | O_CLOEXEC, 0600));
        if (file_ && access(own_link().path, F_OK) != 0)
            file_ = Descriptor(-1);
        return static_cast<bool>(file_);
    }
    bool create_named() {
        file_ = Descriptor(open(path_, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        is_named_ = static_cast<bool>(file_);
        return is_named_;
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

    corvel_request *request_;
    const char *field_;
    const char *path_;
    Descriptor file_{-1};
    bool is_named_ = false;
    bool is_receiving_ = false;
    bool is_complete_ = false;
};

/// The status for each result, in the order of their numbers.
constexpr std::uint16_t statuses[] = {CORVEL_HTTP_OK,
                                      CORVEL_HTTP_UNSUPPORTED_MEDIA_TYPE,
                                      CORVEL_HTTP_BAD_REQUEST,
                                      CORVEL_HTTP_BAD_REQUEST,
                                      CORVEL_HTTP_BAD_REQUEST,
                                      CORVEL_HTTP_CONTENT_TOO_LARGE,
                                      CORVEL_HTTP_CONTENT_TOO_LARGE,
                                      CORVEL_HTTP_CONTENT_TOO_LARGE,
                                      CORVEL_HTTP_CONTENT_TOO_LARGE,
                                      CORVEL_HTTP_CONTENT_TOO_LARGE,
                                      CORVEL_HTTP_INTERNAL_SERVER_ERROR,
                                      CORVEL_HTTP_REQUEST_TIMEOUT,
                                      CORVEL_HTTP_SERVICE_UNAVAILABLE,
                                      CORVEL_HTTP_SERVICE_UNAVAILABLE,
                                      CORVEL_HTTP_BAD_REQUEST,
                                      CORVEL_HTTP_INTERNAL_SERVER_ERROR};

constexpr char complaints[] = "\0"
                              "This address accepts uploads of forms only.\0"
                              "The upload has no valid boundary.\0"
                              "The upload is malformed.\0"
                              "The upload ended before it was complete.\0"
                              "The upload has too many parts.\0"
                              "A part of the upload has too large a header.\0"
                              "A field of the form is too large.\0"
                              "The file is too large.\0"
                              "The upload is too large.\0"
                              "The upload could not be processed.\0"
                              "The upload did not arrive in time.\0"
                              "There is not enough memory for the upload.\0"
                              "There is no room for the uploaded file.\0"
                              "No file was selected.\0"
                              "The upload could not be processed.";

} // namespace
} // namespace corvel

corvel_upload_result corvel_upload_read(corvel_request *request, const corvel_upload_limits *limits,
                                        const corvel_upload_sink *sink) {
    Body *const body = body_of(request);
    if (body == nullptr)
        return CORVEL_UPLOAD_NOT_MULTIPART;
    const corvel_upload_limits complete = with_defaults(limits);
    const corvel_upload_sink nowhere{};
    Delivery delivery(*request, complete, sink != nullptr ? *sink : nowhere);
    const corvel_upload_sink parts = delivery.sink();
    const char *const type = content_type(request);
    const corvel_containment *const containment = containment_of(request);
    const corvel_upload_result result =
        containment != nullptr ? read_contained(*containment, *body, type, complete, parts)
                               : MultipartReader(*body, complete, parts).read(type);
    // The rest of the body is discarded in any case, so that the web server delivers the answer.
    body->discard();
    return delivery.result() != CORVEL_UPLOAD_DONE ? delivery.result() : result;
}

corvel_upload_result corvel_upload_save(corvel_request *request, const corvel_upload_limits *limits,
                                        const char *field, const char *path) {
    SavedFile file(request, text_or_empty(field), text_or_empty(path));
    const corvel_upload_sink sink = {&file, SavedFile::begin, SavedFile::data, SavedFile::end};
    return file.finish(corvel_upload_read(request, limits, &sink));
}

int corvel_upload_status(corvel_upload_result result, const char **complaint) {
    auto index = 0 - static_cast<unsigned>(result);
    if (index >= sizeof statuses / sizeof *statuses)
        index = 0 - static_cast<unsigned>(CORVEL_UPLOAD_STOPPED);
    if (complaint != nullptr)
        *complaint = string_in_list(complaints, static_cast<int>(index));
    return statuses[index];
}
