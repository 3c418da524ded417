/* SPDX-License-Identifier: MIT */
/** Multipart bodies, the requests that contain them, and the files that are read from them. */
#ifndef CORVEL_TESTS_MULTIPART_H
#define CORVEL_TESTS_MULTIPART_H

#include <corvel.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <initializer_list>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/environment.h"
#include "tests/support/stand_in.h"

namespace corvel_test {

/** One part of a body: its header lines, without the empty line after them, and its content. */
struct Part {
    std::string headers;
    std::string content;
};

inline Part file_part(const std::string &name, std::string content,
                      const std::string &type = "application/octet-stream") {
    return {"Content-Disposition: form-data; name=\"image\"; filename=\"" + name +
                "\"\r\nContent-Type: " + type,
            std::move(content)};
}

inline Part field_part(const std::string &name, std::string value) {
    return {"Content-Disposition: form-data; name=\"" + name + "\"", std::move(value)};
}

/** A body as a client sends it. */
inline std::string body_of(std::string_view boundary, const std::vector<Part> &parts) {
    const std::string line = "--" + std::string(boundary);
    std::string body;
    for (const Part &part : parts)
        body += line + "\r\n" + part.headers + "\r\n\r\n" + part.content + "\r\n";
    return body + line + "--\r\n";
}

/** The upload that read_queue_for_upload1() makes of a body: the boundary, a newline, and the body
 * without its last byte. */
inline std::string upload_of(std::string_view boundary, std::string_view body) {
    return "--" + std::string(boundary) + "\n" + std::string(body.substr(0, body.size() - 1));
}

/** A stored file. */
struct StoredFile {
    std::string name;
    std::string content;
    std::string type = " application/octet-stream";
    std::string encoding{};

    friend bool operator==(const StoredFile &, const StoredFile &) = default;
    friend std::ostream &operator<<(std::ostream &out, const StoredFile &file) {
        return out << "{name \"" << file.name << "\", type \"" << file.type << "\", encoding \""
                   << file.encoding << "\", " << file.content.size() << " bytes \""
                   << file.content.substr(0, 200) << "\"}";
    }
};

using StoredFiles = std::vector<StoredFile>;

/** The records of one upload; the destructor frees their contents. */
class FileRecords {
  public:
    FileRecords() = default;
    FileRecords(const FileRecords &) = delete;
    FileRecords &operator=(const FileRecords &) = delete;
    ~FileRecords() { free_prop_file(records_.data(), static_cast<int>(records_.size())); }

    prop_file *data() { return records_.data(); }
    prop_file &operator[](std::size_t index) { return records_[index]; }

    [[nodiscard]] StoredFiles stored(int count) const {
        StoredFiles files;
        for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i)
            files.push_back({records_[i].filename, std::string(records_[i].data, records_[i].size),
                             records_[i].content_type, records_[i].transfer_encoding});
        return files;
    }

  private:
    std::array<prop_file, CORVEL_UPLOAD_FILES> records_{};
};

/** The files that process_file() reads from a block. */
inline StoredFiles files_in(char *block, std::size_t size, const std::string &boundary_text) {
    FileRecords records;
    return records.stored(
        process_file(block, static_cast<int>(size), boundary_text.c_str(), records.data()));
}

/** The files that process_file() reads from the upload of a body. */
inline StoredFiles files_of(std::string_view boundary, std::string_view body) {
    const std::string upload = upload_of(boundary, body);
    // On the heap, where a sanitizer detects a read after the end of the block.
    const std::unique_ptr<char[]> block(new char[upload.size()]);
    upload.copy(block.get(), upload.size());
    return files_in(block.get(), upload.size(), "--" + std::string(boundary));
}

inline StoredFiles files_of(std::string_view boundary, const std::vector<Part> &parts) {
    return files_of(boundary, body_of(boundary, parts));
}

/** The input from the web server. Without a `length`, CONTENT_LENGTH is that of the body. */
struct UploadRequest {
    std::optional<std::string> method = "POST";
    std::optional<std::string> type = "multipart/form-data; boundary=b";
    std::string body{};
    std::optional<std::string> length{};
    bool has_length = true;
};

/** Provides an upload to a CGI program during its lifetime, in which sleep() returns at once. */
class UploadEnvironment {
  public:
    explicit UploadEnvironment(const UploadRequest &request,
                               StandardInput::Kind kind = StandardInput::Kind::file)
        : method_("REQUEST_METHOD", request.method), type_("CONTENT_TYPE", request.type),
          length_("CONTENT_LENGTH", length_of(request)), input_(request.body, kind),
          no_pause_(call_sleep, 1, EINTR, FailCall::from_then_on) {}

  private:
    static std::optional<std::string> length_of(const UploadRequest &request) {
        if (!request.has_length)
            return std::nullopt;
        return request.length.value_or(std::to_string(request.body.size()));
    }

    EnvironmentVariable method_;
    EnvironmentVariable type_;
    EnvironmentVariable length_;
    StandardInput input_;
    FailCall no_pause_;
};

/** A heap block that a function returned. */
using OwnedText = std::unique_ptr<char, void (*)(void *)>;

inline OwnedText owned(char *block) { return {block, std::free}; }

/** The results of read_queue_for_upload1(). */
struct ReadUpload {
    OwnedText bytes = owned(nullptr);
    OwnedText boundary = owned(nullptr);
    int total = -7;
    int boundary_length = -7;

    [[nodiscard]] std::string_view view() const {
        return {bytes.get(), static_cast<std::size_t>(total)};
    }
};

inline ReadUpload read_upload() {
    ReadUpload upload;
    char *boundary = nullptr;
    upload.bytes = owned(read_queue_for_upload1(&upload.total, &boundary, &upload.boundary_length));
    upload.boundary = owned(boundary);
    return upload;
}

/** The files of a request that is read from standard input, as a CGI program does it. */
inline StoredFiles files_received(const UploadRequest &request,
                                  StandardInput::Kind kind = StandardInput::Kind::file) {
    const UploadEnvironment environment(request, kind);
    const ReadUpload upload = read_upload();
    if (upload.bytes == nullptr)
        return {{"no upload", ""}};
    return files_in(upload.bytes.get(), static_cast<std::size_t>(upload.total),
                    upload.boundary.get());
}

} // namespace corvel_test

#endif
