// SPDX-License-Identifier: MIT
// Parsing an upload: one form field and one file of N KiB, from the body in memory to a heap copy
// of the file, including the release of all memory.
//
// The content is random, or consists of copies of the boundary line that differ from it in the last
// character. The library starts with the block returned by read_queue_for_upload1(). The peer reads
// the same body through an input class, which makes one more copy of the body; libcgicc has no
// interface that avoids it.
//
// The limit searches for the boundary with memmem() and copies the content with memcpy() into a new
// block.
#include "bench/harness.h"

#include <corvel.h>

#include <cgicc/CgiInput.h>
#include <cgicc/Cgicc.h>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <random>

namespace {

enum class Content { random, near_boundaries };

constexpr std::string_view boundary = "----WebKitFormBoundary7MA4YWxkTrZu0gW5";
constexpr std::string_view boundary_text = "------WebKitFormBoundary7MA4YWxkTrZu0gW5";
constexpr std::string_view field_headers =
    "\r\nContent-Disposition: form-data; name=\"action\"\r\n\r\nupgrade\r\n";
constexpr std::string_view file_headers =
    "\r\nContent-Disposition: form-data; name=\"image\"; filename=\"image.bin\"\r\n"
    "Content-Type: application/octet-stream\r\n\r\n";

std::string random_bytes(std::size_t size) {
    std::mt19937 generator(1);
    std::string bytes(size, '\0');
    for (char &byte : bytes)
        byte = static_cast<char>(generator());
    return bytes;
}

std::string boundary_copies(std::size_t size) {
    std::string copy = "\r\n" + std::string(boundary_text);
    copy.back() = '6';
    std::string bytes;
    while (bytes.size() < size)
        bytes += copy;
    bytes.resize(size);
    return bytes;
}

/// The body of an upload and the content of its file.
class Upload {
  public:
    Upload(Content content, std::size_t size)
        : content_(content == Content::random ? random_bytes(size) : boundary_copies(size)) {
        const std::string line(boundary_text);
        body_ = line;
        body_ += field_headers;
        body_ += line;
        body_ += file_headers;
        body_ += content_;
        body_ += "\r\n" + line + "--\r\n";
    }

    [[nodiscard]] const std::string &body() const { return body_; }
    [[nodiscard]] const std::string &content() const { return content_; }

    /// The block that read_queue_for_upload1() returns for it.
    [[nodiscard]] std::string block() const { return std::string(boundary_text) + '\n' + body_; }

    /// The length passed to process_file(): without the last byte of the block.
    [[nodiscard]] int length() const {
        return static_cast<int>(boundary_text.size() + body_.size());
    }

  private:
    std::string content_;
    std::string body_;
};

/// A CGI program parses one upload, in a heap that has no pages yet: their allocation by the kernel
/// is part of the job. Therefore the pages of free blocks are released before each run.
void give_back_free_pages() { malloc_trim(0); }

std::size_t size_of(const benchmark::State &state) {
    return static_cast<std::size_t>(state.range(0)) * 1024;
}

void report_rate(benchmark::State &state) {
    state.SetBytesProcessed(state.iterations() * state.range(0) * 1024);
}

template <Content content> void corvel(benchmark::State &state) {
    const Upload upload(content, size_of(state));
    std::string block = upload.block();
    const std::string boundary_line(boundary_text);
    prop_file files[CORVEL_UPLOAD_FILES] = {};

    const int found = process_file(block.data(), upload.length(), boundary_line.c_str(), files);
    bench::require(found == 1 &&
                       std::string_view(files[0].data, files[0].size) == upload.content() &&
                       std::strcmp(files[0].filename, "image.bin") == 0,
                   "process_file() returns a wrong file");
    free_prop_file(files, found);

    bench::measure(
        state, give_back_free_pages,
        [&] {
            const int count =
                process_file(block.data(), upload.length(), boundary_line.c_str(), files);
            free_prop_file(files, count);
        },
        [] {});
    report_rate(state);
}

/// A request whose body is in memory.
class RequestFromMemory : public cgicc::CgiInput {
  public:
    explicit RequestFromMemory(const std::string &body) : body_(body) {}

    std::size_t read(char *data, std::size_t length) override {
        const std::size_t count = body_.copy(data, length, position_);
        position_ += count;
        return count;
    }

    std::string getenv(const char *name) override {
        const std::string_view variable = name;
        if (variable == "REQUEST_METHOD")
            return "POST";
        if (variable == "CONTENT_TYPE")
            return "multipart/form-data; boundary=" + std::string(boundary);
        if (variable == "CONTENT_LENGTH")
            return std::to_string(body_.size());
        return "";
    }

  private:
    const std::string &body_;
    std::size_t position_ = 0;
};

template <Content content> void cgicc_library(benchmark::State &state) {
    const Upload upload(content, size_of(state));
    {
        RequestFromMemory request(upload.body());
        const cgicc::Cgicc form(&request);
        bench::require(form.getFiles().size() == 1 &&
                           form.getFiles().front().getData() == upload.content() &&
                           form.getFiles().front().getFilename() == "image.bin",
                       "libcgicc returns a wrong file");
    }
    bench::measure(
        state, give_back_free_pages,
        [&upload] {
            RequestFromMemory request(upload.body());
            const cgicc::Cgicc form(&request);
            benchmark::DoNotOptimize(form.getFiles().data());
        },
        [] {});
    report_rate(state);
}

template <Content content> void limit(benchmark::State &state) {
    const Upload upload(content, size_of(state));
    const std::string block = upload.block();
    const std::size_t start = block.find(upload.content());
    bench::measure(
        state, give_back_free_pages,
        [&block, start] {
            const char *const data = block.data() + start;
            const auto *const end = static_cast<const char *>(
                memmem(data, block.size() - start, boundary_text.data(), boundary_text.size()));
            const auto size = static_cast<std::size_t>(end - data) - 2;
            auto *const copy = static_cast<char *>(std::malloc(size));
            std::memcpy(copy, data, size);
            benchmark::DoNotOptimize(copy);
            benchmark::ClobberMemory();
            std::free(copy);
        },
        [] {});
    report_rate(state);
}

const std::vector<bench::Size> sizes = {{1024}, {4096}, {15360}};

template <Content content> std::vector<bench::Side> sides() {
    return {{"corvel", corvel<content>},
            {"libcgicc", cgicc_library<content>},
            {"limit", limit<content>}};
}

const bench::Job random_job("parse an upload, random", sizes, sides<Content::random>());
const bench::Job near_job("parse an upload, near-boundaries", sizes,
                          sides<Content::near_boundaries>());

} // namespace
