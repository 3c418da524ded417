// SPDX-License-Identifier: MIT
// Multipart forms: any body ends with a result and has been read to its end; a body composed of
// parts arrives with the same bytes.
#include <corvel_page.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include "fuzz/harness.h"

using namespace corvel_fuzz;

namespace {

struct Part {
    std::string content;
    bool is_file;
};

struct Received {
    std::vector<std::string> files;
    std::size_t ended = 0;
};

corvel_upload_sink sink_for(Received &received) {
    return {&received,
            [](void *self, const corvel_part *part) {
                check(part->name != nullptr && part->filename != nullptr && part->type != nullptr,
                      "a file has name, file name and type");
                static_cast<Received *>(self)->files.emplace_back();
                return true;
            },
            [](void *self, const void *bytes, std::size_t size) {
                check(size != 0, "no empty piece");
                static_cast<Received *>(self)->files.back().append(static_cast<const char *>(bytes),
                                                                   size);
                return true;
            },
            [](void *self) {
                ++static_cast<Received *>(self)->ended;
                return true;
            }};
}

/// Makes the bytes standard input, as a web server does that keeps the body in a file.
void provide(const std::string &body) {
    static const int file = memfd_create("body", MFD_CLOEXEC);
    if (ftruncate(file, 0) != 0 || lseek(file, 0, SEEK_SET) != 0 ||
        write(file, body.data(), body.size()) != static_cast<ssize_t>(body.size()) ||
        lseek(file, 0, SEEK_SET) != 0 || dup2(file, STDIN_FILENO) < 0)
        std::abort();
    setenv("CONTENT_LENGTH", std::to_string(body.size()).c_str(), 1);
}

corvel_upload_result read_upload(const std::string &body, Received &received,
                                 std::vector<std::string> &fields) {
    provide(body);
    corvel_request *const request = corvel_request_begin();
    corvel_request_rules rules{};
    rules.methods = CORVEL_POST;
    rules.types = CORVEL_MULTIPART;
    rules.body_max = std::size_t{1} << 20;
    corvel_upload_result result = CORVEL_UPLOAD_NOT_MULTIPART;
    if (corvel_request_read(request, &rules) == CORVEL_HTTP_OK) {
        const corvel_upload_sink sink = sink_for(received);
        result = corvel_upload_read(request, nullptr, &sink);
        char byte = 0;
        check(read(STDIN_FILENO, &byte, 1) == 0, "the body is read to its end");
    }
    const char *name = nullptr;
    const char *value = nullptr;
    for (std::size_t i = 0; corvel_field_pair(request, i, &name, &value); ++i)
        fields.emplace_back(value);
    corvel_request_free(request);
    return result;
}

void try_any(const std::string &body) {
    Received received;
    std::vector<std::string> fields;
    const corvel_upload_result result = read_upload(body, received, fields);
    check(result <= 0 && result >= CORVEL_UPLOAD_NO_FILE, "a documented result");
    check(received.ended <= received.files.size() && received.files.size() <= received.ended + 1,
          "each file but the last is complete");
    if (result == CORVEL_UPLOAD_DONE)
        check(received.ended == received.files.size(), "each file is complete");
}

/// The parts of a body, with CR LF or LF line endings; no content may contain a delimiter.
void try_parts(Input &input) {
    const std::string ending = input.byte() % 2 == 0 ? "\r\n" : "\n";
    std::vector<Part> parts;
    for (std::size_t count = input.byte() % 6U; count != 0; --count) {
        const bool is_file = input.byte() % 2 == 0;
        parts.push_back({input.text(), is_file});
    }
    std::string body;
    std::vector<std::string> files;
    std::vector<std::string> fields;
    for (const auto &[content, is_file] : parts) {
        if ((ending + content).find(ending + "--b") != std::string::npos || content.size() > 16384)
            return;
        for (const std::string &piece :
             {std::string("--b"), ending, std::string("Content-Disposition: form-data; name=x"),
              std::string(is_file ? "; filename=y" : ""), ending, ending, content, ending})
            body += piece;
        (is_file ? files : fields).push_back(content);
    }
    Received received;
    std::vector<std::string> got;
    const corvel_upload_result result = read_upload(body + "--b--", received, got);
    check_equal(result, CORVEL_UPLOAD_DONE, "a composed body is read");
    check(received.files == files && got == fields, "the bytes are the same");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    setenv("REQUEST_METHOD", "POST", 1);
    setenv("CONTENT_TYPE", "multipart/form-data; boundary=b", 1);
    Input input(data, size);
    if (input.byte() % 2 == 0)
        try_any(input.rest());
    else
        try_parts(input);
    return 0;
}
