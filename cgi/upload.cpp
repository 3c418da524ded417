// SPDX-License-Identifier: MIT
#include <corvel.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <syslog.h>
#include <unistd.h>

#include "cgi/request_body.h"
#include "support/handles.h"
#include "support/text.h"
#include "sys/diagnostic_dumps.h"

namespace corvel {
namespace {

constexpr int largest_upload = 16 * 1024 * 1024;
constexpr int largest_without_pause = 6144;

constexpr std::string_view boundary_key = "boundary=";
constexpr std::string_view boundary_start = "--";

constexpr std::size_t most_files = 4;

/// How far into the following parts the end of a header's line is looked for. A caller's loop over
/// an upload without line endings would otherwise read the whole rest of it for each part.
constexpr std::size_t longest_overrun = 16384;

/// With no more than this left behind the cursor there is no further part.
constexpr std::size_t shortest_part = 21;

constexpr std::size_t dump_size = 32;

/// What lies between two positions of the upload.
constexpr std::string_view between(const char *start, const char *end) {
    return {start, static_cast<std::size_t>(end - start)};
}

/// Where a pattern first stands in a block, or null. An empty pattern stands nowhere.
const char *find_bytes(std::string_view block, std::string_view pattern) {
    if (pattern.empty())
        return nullptr;
    return static_cast<const char *>(
        memmem(block.data(), block.size(), pattern.data(), pattern.size()));
}

/// The first line ending in a block, or the block's end.
const char *line_end_of(std::string_view block) {
    const std::string_view line = front(block, block.find('\n'));
    return line.data() + front(line, line.find('\r')).size();
}

/// Where the lines of an upload end. What was searched last is kept: a body of boundaries in a
/// single line is not read again for each of them.
class LineEnds {
  public:
    /// The first line ending from a position on, or the limit.
    const char *from(const char *position, const char *limit) {
        if (searched_ == nullptr || position < start_ || position > searched_)
            start_ = searched_ = position;
        if (searched_ < limit)
            searched_ = line_end_of(between(searched_, limit));
        return std::min(searched_, limit);
    }

  private:
    // No line ends between the two.
    const char *start_ = nullptr;
    const char *searched_ = nullptr;
};

/// The value of a header: at most its first 256 characters.
class HeaderValue {
  public:
    /// Takes the text without its double quotes.
    void take(std::string_view text) {
        length_ = 0;
        for (const char character : text) {
            if (length_ == value_.size())
                return;
            if (character != '"')
                value_[length_++] = character;
        }
    }

    [[nodiscard]] std::string_view text() const { return {value_.data(), length_}; }

  private:
    std::array<char, 256> value_;
    std::size_t length_ = 0;
};

/// One part of the upload, from its boundary to the next one, while its headers are read.
class PartHeaders {
  public:
    PartHeaders(const char *start, const char *next_boundary, const char *end, LineEnds &line_ends)
        : cursor_(start), search_start_(start), next_boundary_(next_boundary), end_(end),
          line_limit_(next_boundary + front(between(next_boundary, end), longest_overrun).size()),
          line_ends_(line_ends) {}

    /// Finds a key from the cursor on, in front of the next boundary and with the separator right
    /// behind it; takes its value and moves the cursor to the end of its line. False, and nothing
    /// changed, if the first such key has another character behind it or there is none.
    bool take(std::string_view key, char separator, HeaderValue &value) {
        const char *const found = find(std::max(cursor_, search_start_), key);
        if (found == nullptr)
            return false;
        const std::string_view rest = after(between(found, end_), key.size());
        if (!rest.starts_with(separator))
            return false;
        cursor_ = line_ends_.from(rest.data() + 1, line_limit_);
        value.take(between(rest.data() + 1, cursor_));
        return true;
    }

    /// Has take() pass over what is in front of the first place where keys that begin with `start`
    /// can stand. The headers end nowhere: keys that are not there are looked for in the whole
    /// content, and that is done once for all of them.
    void pass_over_to(std::string_view start) {
        const char *const found = find(cursor_, start);
        search_start_ = found != nullptr ? found : next_boundary_;
    }

    /// The content: from behind the blank line that follows the last header taken to in front of
    /// the line end that precedes the next boundary.
    [[nodiscard]] std::string_view content() const {
        const std::string_view rest = after(between(cursor_, end_), 4);
        const auto room = next_boundary_ - rest.data();
        return front(rest, room > 2 ? static_cast<std::size_t>(room - 2) : 0);
    }

    [[nodiscard]] std::string_view rest() const { return between(cursor_, end_); }

  private:
    /// The first place of a key that begins in front of the next boundary; it may run into it. Keys
    /// are short and their first character is rare: a search for that character is the fastest.
    [[nodiscard]] const char *find(const char *start, std::string_view key) const {
        if (start >= next_boundary_)
            return nullptr;
        const std::string_view searched =
            front(between(start, end_), between(start, next_boundary_).size() + key.size() - 1);
        const std::size_t position = searched.find(key);
        return position != std::string_view::npos ? start + position : nullptr;
    }

    const char *cursor_;
    const char *search_start_;
    const char *next_boundary_;
    const char *end_;
    const char *line_limit_;
    LineEnds &line_ends_;
};

enum PartResult : int {
    file_found = 0,
    no_boundary = -1,
    no_closing_boundary = -2,
    no_file_name = -3,
    no_content_type = -4,
};

PartResult read_headers(PartHeaders &headers, prop_file &record) {
    HeaderValue value;
    if (!headers.take("filename", '=', value))
        return no_file_name;
    store(record.filename, value.text());
    if (!headers.take("Content-Type", ':', value)) {
        const std::string_view shown = front(headers.rest(), dump_size);
        print_raw_dump(nullptr,
                       {reinterpret_cast<const unsigned char *>(shown.data()), shown.size()});
        return no_content_type;
    }
    store(record.content_type, value.text());
    headers.pass_over_to("Content-T");
    const bool second_type = headers.take("Content-Type", ':', value);
    if (second_type)
        store(record.content_type, value.text());
    // A second type without an encoding behind it is taken for the encoding, too.
    if (headers.take("Content-Transfer-Encoding", ':', value) || second_type)
        store(record.transfer_encoding, value.text());
    return file_found;
}

/// Reads the next part of `rest`, which moves on behind it.
PartResult read_part(std::string_view &rest, std::string_view boundary, LineEnds &line_ends,
                     prop_file &record, std::string_view &content) {
    const char *const end = rest.data() + rest.size();
    const char *const start = find_bytes(rest, boundary);
    rest = after(rest, rest.size());
    if (start == nullptr)
        return no_boundary;
    const char *const next = find_bytes(after(between(start, end), boundary.size()), boundary);
    if (next == nullptr)
        return no_closing_boundary;
    rest = between(next, end);
    PartHeaders headers(start, next, end, line_ends);
    const PartResult result = read_headers(headers, record);
    if (result != file_found)
        return result;
    content = headers.content();
    // The next part is looked for from the line end in front of its boundary.
    rest = between(next - 2, end);
    return file_found;
}

/// Gives a record a copy of its content; false if there is no memory.
bool store_content(prop_file &record, std::string_view content) {
    auto *const data = static_cast<char *>(std::malloc(std::max<std::size_t>(content.size(), 1)));
    if (data == nullptr)
        return false;
    std::memcpy(data, content.data(), content.size());
    record.data = data;
    record.size = static_cast<std::uint32_t>(content.size());
    return true;
}

int read_files(std::string_view upload, std::string_view boundary, prop_file *files) {
    std::size_t count = 0;
    std::string_view content;
    LineEnds line_ends;
    while (upload.size() > shortest_part && count < most_files)
        if (read_part(upload, boundary, line_ends, files[count], content) == file_found &&
            files[count].filename[0] != '\0' && store_content(files[count], content))
            ++count;
    return static_cast<int>(count);
}

/// Writes the boundary text of a content type, into a new block if there is none yet. Returns its
/// length; 0 if the content type names no boundary or there is no memory.
std::size_t make_boundary(std::string_view content_type, char *&boundary) {
    const std::size_t key = content_type.find(boundary_key);
    if (key == std::string_view::npos)
        return 0;
    const std::string_view parameter = after(content_type, key + boundary_key.size());
    const std::size_t size = boundary_start.size() + parameter.size() + 1;
    if (boundary == nullptr)
        boundary = static_cast<char *>(std::calloc(1, size));
    if (boundary == nullptr)
        return 0;
    store({boundary, size}, boundary_start);
    store({boundary + boundary_start.size(), parameter.size() + 1}, parameter);
    return size - 1;
}

/// Gives what else runs on the device ten seconds before memory is taken for a large upload.
unsigned int pause_before_upload() {
    sleep(5);
    return sleep(5);
}

/// The boundary, a line end and the body. The NUL behind it takes the place of the last byte.
HeapBlock<char> read_upload(std::string_view boundary, std::size_t length) {
    HeapBlock<char> upload(static_cast<char *>(std::malloc(boundary.size() + 1 + length)));
    if (!upload)
        return nullptr;
    std::memcpy(upload.get(), boundary.data(), boundary.size());
    char *const line_end = upload.get() + boundary.size();
    *line_end = '\n';
    if (read_body_into({line_end + 1, length}) != length)
        return nullptr;
    line_end[length] = '\0';
    return upload;
}

/// The text without two characters at its ends.
std::string_view trimmed(std::string_view text, char one, char other) {
    const auto unwanted = [one, other](char character) {
        return character == one || character == other;
    };
    while (!text.empty() && unwanted(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && unwanted(text.back()))
        text.remove_suffix(1);
    return text;
}

/// Whether a pattern stands at a position, reading no further than to the first difference.
bool stands_at(const char *position, std::string_view pattern) {
    std::size_t length = 0;
    while (length < pattern.size() && position[length] == pattern[length])
        ++length;
    return length == pattern.size();
}

} // namespace
} // namespace corvel

using namespace corvel;

extern "C" {

char *read_queue_for_upload(int *length) {
    const int announced = announced_length();
    if (std::getenv("REQUEST_METHOD") == nullptr || is_method("GET") || announced < 0)
        return nullptr;
    *length = announced;
    const auto size = static_cast<std::size_t>(announced);
    HeapBlock<char> body(static_cast<char *>(std::malloc(size + 1)));
    if (!body || read_body_into({body.get(), size}) != size)
        return nullptr;
    body.get()[size] = '\0';
    return body.release();
}

char *read_queue_for_upload1(int *total, char **boundary, int *boundary_length) {
    if (std::getenv("REQUEST_METHOD") == nullptr) {
        syslog(LOG_ERR, "Web: no found REQUEST_METHOD");
        return nullptr;
    }
    const char *const content_type = std::getenv("CONTENT_TYPE");
    if (is_method("GET") || content_type == nullptr)
        return nullptr;
    const std::size_t length = make_boundary(content_type, *boundary);
    if (length == 0)
        return nullptr;
    *boundary_length = static_cast<int>(length);
    const int announced = announced_length();
    if (announced < 0 || announced > largest_upload)
        return nullptr;
    if (announced > largest_without_pause)
        pause_before_upload();
    *total = announced + *boundary_length;
    return read_upload({*boundary, length}, static_cast<std::size_t>(announced)).release();
}

int get_vhash(const char *content_type, char **boundary) {
    return static_cast<int>(make_boundary(text_of(content_type), *boundary));
}

unsigned int killDaemon(void) { return pause_before_upload(); }

char *hex_search(const char *start, const char *end, const char *pattern, int length) {
    if (start == nullptr || start >= end)
        return nullptr;
    const std::string_view wanted(pattern, length > 0 ? static_cast<std::size_t>(length) : 0);
    const std::string_view block = between(start, end);
    const char *found = find_bytes(block, wanted);
    // A match may begin in front of the end and run past it; all of those come last.
    const std::size_t tail = at_most(block.size(), wanted.size());
    for (std::size_t at = block.size() - tail; found == nullptr && at != block.size(); ++at)
        if (stands_at(start + at, wanted))
            found = start + at;
    return const_cast<char *>(found);
}

int getDisposition_file(char **data, unsigned int *size, char **cursor, char *end,
                        const char *boundary, prop_file *record) {
    std::string_view rest = between(*cursor < end ? *cursor : end, end);
    std::string_view content;
    LineEnds line_ends;
    const PartResult result = read_part(rest, text_of(boundary), line_ends, *record, content);
    *cursor = const_cast<char *>(rest.data());
    if (result == file_found) {
        *data = const_cast<char *>(content.data());
        *size = static_cast<unsigned int>(content.size());
    }
    return result;
}

char *strip_r(char *text, int *length, char one, char other) {
    const std::string_view kept =
        trimmed({text, *length > 0 ? static_cast<std::size_t>(*length) : 0}, one, other);
    *length = static_cast<int>(kept.size());
    return const_cast<char *>(kept.data());
}

int process_file(char *upload, int length, const char *boundary, prop_file *files) {
    return read_files({upload, length > 0 ? static_cast<std::size_t>(length) : 0},
                      text_of(boundary), files);
}

int free_prop_file(prop_file *files, int count) {
    for (int file = 0; file < count; ++file)
        std::free(std::exchange(files[file].data, nullptr));
    return 1;
}

} // extern "C"
