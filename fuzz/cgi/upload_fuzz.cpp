// SPDX-License-Identifier: MIT
// Splitting of uploads against a model on positions in a std::string, written from the documented
// rules; and uploads built from the input, whose files must be extracted unchanged.
//
// Input: content length NUL boundary NUL body. A content length "=" is the size of the body, "-" is
// not set. In the body the boundary is preceded by two dashes, as in a request.
#include "corvel.h"
#include "fuzz/harness.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <syslog.h>
#include <unistd.h>

namespace {

using namespace corvel_fuzz;

constexpr std::size_t most_files = CORVEL_UPLOAD_FILES;
constexpr std::size_t shortest_upload = 22;
constexpr std::size_t longest_name = CORVEL_UPLOAD_NAME_SIZE - 1;
constexpr std::size_t longest_type = CORVEL_UPLOAD_TYPE_SIZE - 1;
constexpr std::size_t longest_value = CORVEL_UPLOAD_HEADER_MAX;
constexpr std::size_t dump_size = 32;
constexpr std::size_t longest_overrun = CORVEL_UPLOAD_LINE_REACH;
constexpr int most_scans = 64;
constexpr int largest_upload = CORVEL_UPLOAD_MAX;
constexpr int largest_without_pause = CORVEL_UPLOAD_MAX_UNPAUSED;
constexpr int largest_length = 1 << 20;

// Longer ones find no more defects and take time.
constexpr std::size_t largest_boundary = 400;
constexpr std::size_t largest_body = 16384;

// Set while a request is read: receives the calls of sleep().
thread_local std::string *events = nullptr;

struct Request {
    std::string length;
    std::string boundary;
    std::string body;
};

/** The strings of a record. */
struct Texts {
    std::string filename;
    std::string content_type;
    std::string transfer_encoding;
};

struct Part {
    int code;
    std::size_t cursor;
    std::size_t start;
    std::size_t size;
};

struct File {
    Texts texts;
    std::string content;
};

// ------------------------------------------------------------------------------------ the model

/** Reads the header whose key starts before a limit. Moves the cursor to the end of its line, which
 *  is searched for up to longest_overrun bytes after the limit. */
bool read_header(const std::string &bytes, const std::string &key, char separator,
                 std::size_t limit, std::size_t &cursor, std::string &value) {
    const std::size_t place = bytes.find(key, cursor);
    const std::size_t end = place + key.size();
    if (place == std::string::npos || place >= limit || end >= bytes.size() ||
        bytes[end] != separator)
        return false;
    cursor =
        std::min({bytes.find_first_of("\r\n", end + 1), limit + longest_overrun, bytes.size()});
    value = bytes.substr(end + 1, cursor - end - 1);
    std::erase(value, '"');
    value.resize(std::min(value.size(), longest_value));
    return true;
}

Part expected_part(const std::string &bytes, std::size_t cursor, const std::string &boundary,
                   Texts &texts, std::string &output) {
    const std::size_t first = boundary.empty() ? std::string::npos : bytes.find(boundary, cursor);
    if (first == std::string::npos)
        return {CORVEL_PART_NO_START, bytes.size(), 0, 0};
    const std::size_t next = bytes.find(boundary, first + boundary.size());
    if (next == std::string::npos)
        return {CORVEL_PART_NO_END, bytes.size(), 0, 0};
    std::size_t header = first;
    std::string value;
    if (!read_header(bytes, "filename", '=', next, header, value))
        return {CORVEL_PART_NO_FILENAME, next, 0, 0};
    texts.filename = cut(value, longest_name);
    if (!read_header(bytes, "Content-Type", ':', next, header, value)) {
        output += bytes.substr(header, dump_size) + "\n";
        return {CORVEL_PART_NO_TYPE, next, 0, 0};
    }
    texts.content_type = cut(value, longest_type);
    const bool second = read_header(bytes, "Content-Type", ':', next, header, value);
    if (second)
        texts.content_type = cut(value, longest_type);
    const bool encoded = read_header(bytes, "Content-Transfer-Encoding", ':', next, header, value);
    if (second || encoded)
        texts.transfer_encoding = value;
    const std::size_t start = std::min(header + 4, bytes.size());
    return {CORVEL_PART_FILE, next - 2, start, next >= start + 2 ? next - 2 - start : 0};
}

std::vector<File> expected_files(const std::string &bytes, const std::string &boundary,
                                 std::string &output) {
    std::vector<File> files;
    Texts texts;
    for (std::size_t cursor = 0;
         bytes.size() - cursor >= shortest_upload && files.size() < most_files;) {
        const Part part = expected_part(bytes, cursor, boundary, texts, output);
        cursor = part.cursor;
        if (part.code != CORVEL_PART_FILE || as_text(texts.filename).empty())
            continue;
        files.push_back({texts, bytes.substr(part.start, part.size)});
        texts = {};
    }
    return files;
}

// --------------------------------------------------------------------------------------- checks

/** A block of exactly these bytes, without a terminator. */
class Block {
  public:
    explicit Block(std::string_view bytes) : bytes_(new char[bytes.size()]), size_(bytes.size()) {
        std::copy(bytes.begin(), bytes.end(), bytes_.get());
    }
    [[nodiscard]] char *start() const { return bytes_.get(); }
    [[nodiscard]] char *end() const { return bytes_.get() + size_; }

  private:
    std::unique_ptr<char[]> bytes_;
    std::size_t size_;
};

/** A field of a record contains a string, which may contain NULs. */
void check_field(const char *field, const std::string &text, const char *relation) {
    check_equal({field, text.size() + 1}, {text.c_str(), text.size() + 1}, relation);
}

void check_texts(const prop_file &record, const Texts &texts) {
    check_field(record.filename, texts.filename, "file name");
    check_field(record.content_type, texts.content_type, "content type");
    check_field(record.transfer_encoding, texts.transfer_encoding, "transfer encoding");
}

void check_parts(const std::string &bytes, const std::string &boundary) {
    const Block block(bytes);
    prop_file record{};
    Texts texts;
    std::string expected_output;
    char *cursor = block.start();
    begin_capture();
    for (int i = 0; i < most_scans; ++i) {
        const auto at = static_cast<std::size_t>(cursor - block.start());
        const Part expected = expected_part(bytes, at, boundary, texts, expected_output);
        char *data = nullptr;
        unsigned int size = 0;
        const int code =
            getDisposition_file(&data, &size, &cursor, block.end(), boundary.c_str(), &record);
        check_equal(code, expected.code, "code of a part");
        check_equal(cursor - block.start(), static_cast<long long>(expected.cursor),
                    "cursor after a part");
        check_texts(record, texts);
        if (code == CORVEL_PART_NO_START || code == CORVEL_PART_NO_END)
            break;
        if (code != CORVEL_PART_FILE)
            continue;
        check_equal(size, static_cast<long long>(expected.size), "size of a content");
        check_equal(data - block.start(), static_cast<long long>(expected.start),
                    "position of a content");
    }
    check_equal(end_capture(), expected_output, "the dump of parts");
}

void check_files(const std::string &bytes, const std::string &boundary) {
    std::string expected_output;
    const std::vector<File> expected = expected_files(bytes, boundary, expected_output);
    const Block block(bytes);
    std::array<prop_file, most_files> records{};
    begin_capture();
    const int count = process_file(block.start(), static_cast<int>(bytes.size()), boundary.c_str(),
                                   records.data());
    check_equal(end_capture(), expected_output, "the dump of an upload");
    check_equal(count, static_cast<long long>(expected.size()), "count of files");
    for (std::size_t i = 0; i < expected.size(); ++i) {
        check_texts(records[i], expected[i].texts);
        check_equal({records[i].data, records[i].size}, expected[i].content, "content of a file");
    }
    check_equal({block.start(), bytes.size()}, bytes, "the upload is unchanged");
    check_equal(free_prop_file(records.data(), count), 1, "free_prop_file");
    check(std::all_of(records.begin(), records.end(),
                      [](const prop_file &record) { return record.data == nullptr; }),
          "no content is left");
}

/** Whether an upload is accepted and read completely. */
bool is_taken(const Request &request, int length) {
    return request.length != "-" && length >= 0 && length <= largest_upload &&
           static_cast<std::size_t>(length) <= request.body.size();
}

std::string expected_events(const Request &request, int length) {
    const bool pauses =
        request.length != "-" && length > largest_without_pause && length <= largest_upload;
    return pauses ? "sleep(5) sleep(5) " : "";
}

std::vector<std::string> environment_of(const Request &request) {
    std::vector<std::string> entries = {
        "REQUEST_METHOD=POST", "CONTENT_TYPE=multipart/form-data; boundary=" + request.boundary};
    if (request.length != "-")
        entries.push_back("CONTENT_LENGTH=" + request.length);
    return entries;
}

void check_upload_reader(const Request &request, bool own_buffer) {
    const int length = decimal_value(request.length);
    const std::string text = "--" + request.boundary;
    const auto buffer = padded_copy("", text.size() + 1);
    char *boundary = own_buffer ? buffer.get() : nullptr;
    int total = 0;
    int boundary_length = 0;
    std::string seen;
    feed_standard_input(request.body);
    events = &seen;
    char *const upload = read_queue_for_upload1(&total, &boundary, &boundary_length);
    events = nullptr;
    check_equal(seen, expected_events(request, length), "pause and log");
    check_equal(boundary, text, "boundary text");
    check_equal(boundary_length, static_cast<long long>(text.size()), "length of the boundary");
    check((upload != nullptr) == is_taken(request, length),
          "an upload is read completely or not at all");
    if (upload != nullptr) {
        std::string whole = text + "\n" + request.body.substr(0, static_cast<std::size_t>(length));
        whole.back() = '\0';
        check_equal(total, static_cast<long long>(whole.size()) - 1, "total length");
        check_equal({upload, whole.size()}, whole, "bytes of the upload");
    }
    std::free(upload);
    if (!own_buffer)
        std::free(boundary);
}

void check_body_reader(const Request &request) {
    const int announced = decimal_value(request.length);
    if (announced > largest_length)
        return; // the result is the same, but only after memory was allocated for it
    int length = -1;
    feed_standard_input(request.body);
    char *const body = read_queue_for_upload(&length);
    const bool expected = request.length != "-" && announced >= 0 &&
                          static_cast<std::size_t>(announced) <= request.body.size();
    check((body != nullptr) == expected, "a body is read completely or not at all");
    if (body != nullptr) {
        check_equal(length, announced, "length of a body");
        const std::string whole = request.body.substr(0, static_cast<std::size_t>(length));
        check_equal({body, whole.size() + 1}, {whole.c_str(), whole.size() + 1}, "body");
    }
    std::free(body);
}

/** Makes a string one that is extracted unchanged as a file's content. */
std::string as_content(std::string text, const std::string &boundary) {
    for (const std::string &part : {boundary, std::string("Content-T")})
        for (std::size_t at = 0; (at = text.find(part)) != std::string::npos;)
            text.erase(at, 1);
    return text;
}

/** Two files of an upload with two files and a field are extracted unchanged. */
void check_built_upload(const Request &request) {
    // The boundary must contain no character that starts a header's name or a line ending.
    std::string boundary = "--\x01" + request.boundary;
    std::erase_if(boundary, [](char c) { return std::strchr("fC\r\n", c) != nullptr; });
    const std::string line = boundary + "\r\n";
    const std::string disposition = "Content-Disposition: form-data; name=\"n\"";
    const std::string content = as_content(request.body, boundary);
    const std::string other = as_content(request.length + "\r\n", boundary);
    std::string upload = boundary + "\n";
    upload += line + disposition + "; filename=\"1\"\r\nContent-Type: t\r\n\r\n" + content + "\r\n";
    upload += line + disposition + "\r\n\r\nvalue\r\n";
    upload += line + disposition + "; filename=\"2\"\r\nContent-Type: u\r\n\r\n" + other + "\r\n";
    upload += boundary + "--";
    const Block block(upload);
    std::array<prop_file, most_files> records{};
    check_equal(process_file(block.start(), static_cast<int>(upload.size()), boundary.c_str(),
                             records.data()),
                2, "count of files of a client");
    check_equal({records[0].data, records[0].size}, content, "first content of a client");
    check_equal({records[1].data, records[1].size}, other, "second content of a client");
    check_equal(records[1].content_type, " u", "type of a client's file");
    free_prop_file(records.data(), 2);
}

void check_search(const std::string &bytes, const std::string &pattern) {
    const auto length = static_cast<int>(pattern.size());
    const Block block(bytes);
    // A match that extends past the end is still in the block.
    const std::size_t end = bytes.size() - std::min(bytes.size(), pattern.size());
    const std::size_t place = pattern.empty() ? std::string::npos : bytes.find(pattern);
    const char *const found =
        hex_search(block.start(), block.start() + end, pattern.data(), length);
    check((found != nullptr) == (place < end), "a pattern is found or not");
    check(found == nullptr || found == block.start() + place, "position of a pattern");
}

void check_strip(const std::string &text, char one, char other) {
    const Block block(text);
    int length = static_cast<int>(text.size());
    const char *const start = strip_r(block.start(), &length, one, other);
    const char unwanted[] = {one, other};
    const std::string_view whole(text);
    const std::size_t first = whole.find_first_not_of({unwanted, 2});
    const std::size_t last = whole.find_last_not_of({unwanted, 2});
    const std::string_view expected =
        first == std::string_view::npos ? "" : whole.substr(first, last + 1 - first);
    check(length >= 0, "length of a stripped text");
    check_equal({start, static_cast<std::size_t>(length)}, expected, "strip_r");
}

Request request_of(Input &input) {
    Request request = {};
    request.length = input.text();
    request.boundary = cut(input.text(), largest_boundary);
    request.body = cut(input.rest(), largest_body);
    if (request.length == "=")
        request.length = std::to_string(request.body.size());
    return request;
}

std::string upload_of(const Request &request) {
    const std::string whole = "--" + request.boundary + "\n" + request.body;
    return whole.substr(0, whole.size() - 1);
}

void wait_for(unsigned int seconds) {
    timespec left{static_cast<time_t>(seconds), 0};
    while (nanosleep(&left, &left) != 0)
        continue;
}

} // namespace

extern "C" {

/** Replaces the C library's function, which the fuzzer's own threads call as well. */
unsigned int sleep(unsigned int seconds) {
    if (events != nullptr)
        *events += "sleep(" + std::to_string(seconds) + ") ";
    else
        wait_for(seconds);
    return 0;
}

void syslog(int, const char *fmt, ...) { check(false, fmt); }

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    Input input(data, size);
    const Request request = request_of(input);
    const std::string text = "--" + request.boundary;
    const std::string upload = upload_of(request);
    in_different_surroundings([&] {
        check_parts(upload, text);
        check_files(upload, text);
        return std::string();
    });
    // Any bytes as the boundary, even those of a header, or none.
    check_parts(request.body, request.boundary);
    check_files(request.body, request.boundary);
    check_built_upload(request);
    {
        const Environment environment(environment_of(request));
        check_upload_reader(request, false);
        check_upload_reader(request, true);
        check_body_reader(request);
    }
    check_search(request.body, request.boundary);
    check_strip(request.body, request.boundary.empty() ? '\r' : request.boundary.front(), '\n');
    return 0;
}

} // extern "C"
