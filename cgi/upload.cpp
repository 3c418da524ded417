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

constexpr std::string_view boundary_key = "boundary=";
constexpr std::string_view boundary_start = "--";

/// How far after the next boundary the end of a header's line is searched for. A caller's loop over
/// an upload without line endings would otherwise read the rest of the upload for each part.
constexpr std::size_t longest_overrun = CORVEL_UPLOAD_LINE_REACH;

/// The largest rest of an upload that is not searched for another part.
constexpr std::size_t largest_tail = 21;

constexpr std::size_t dump_size = 32;

constexpr std::size_t line_ending_size = 2;

/// The bytes from one position of the upload to another.
constexpr std::string_view between(const char *start, const char *end) {
    return {start, static_cast<std::size_t>(end - start)};
}

/// The first occurrence of a pattern in a block, or null. An empty pattern never occurs.
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

/// Stores the value of a header in a record's field: at most CORVEL_UPLOAD_HEADER_MAX characters,
/// not counting double quotes, which are removed. Not inlined, to keep the code small.
[[gnu::noinline]] void store_value(std::span<char> field, std::string_view value) {
    const std::size_t limit = std::min<std::size_t>(CORVEL_UPLOAD_HEADER_MAX, field.size() - 1);
    std::size_t length = 0;
    for (const char character : value) {
        if (length == limit)
            break;
        if (character != '"')
            field[length++] = character;
    }
    field[length] = '\0';
}

/// Reads the parts of an upload in turn.
class PartReader {
  public:
    PartReader(std::string_view upload, std::string_view boundary)
        : rest_(upload), boundary_(boundary), end_(upload.data() + upload.size()),
          line_end_(upload.data()) {}

    /// Finds the next part, which extends from its boundary to the next one. Stores the headers of
    /// a file in the record. Not inlined, to keep the code small.
    [[gnu::noinline]] corvel_part_result next(prop_file &record, std::string_view &content) {
        cursor_ = find_bytes(rest_, boundary_);
        rest_ = between(end_, end_);
        if (cursor_ == nullptr)
            return CORVEL_PART_NO_START;
        next_boundary_ = find_bytes(after(between(cursor_, end_), boundary_.size()), boundary_);
        if (next_boundary_ == nullptr)
            return CORVEL_PART_NO_END;
        rest_ = between(next_boundary_, end_);
        const corvel_part_result result = take_headers(record);
        if (result != CORVEL_PART_FILE)
            return result;
        content = content_after_headers();
        // The next search starts at the line ending before the boundary.
        rest_ = between(next_boundary_ - line_ending_size, end_);
        return CORVEL_PART_FILE;
    }

    /// What is left of the upload after the last part.
    [[nodiscard]] std::string_view rest() const { return rest_; }

  private:
    corvel_part_result take_headers(prop_file &record) {
        std::string_view value;
        if (!take_header("filename", '=', value))
            return CORVEL_PART_NO_FILENAME;
        store_value(record.filename, value);
        if (!take_header("Content-Type", ':', value)) {
            dump_rest();
            return CORVEL_PART_NO_TYPE;
        }
        store_value(record.content_type, value);
        // Nothing marks the end of the headers: a key that is missing is searched for in the whole
        // content. This is done once for both keys.
        if (find("Content-T") == nullptr)
            return CORVEL_PART_FILE;
        const bool has_second_type = take_header("Content-Type", ':', value);
        if (has_second_type)
            store_value(record.content_type, value);
        // Without an encoding, a second type is stored as the encoding as well.
        if (take_header("Content-Transfer-Encoding", ':', value) || has_second_type)
            store_value(record.transfer_encoding, value);
        return CORVEL_PART_FILE;
    }

    /// Finds the next occurrence of a key and moves the cursor to the end of its line. False, with
    /// nothing changed, if there is none or if the separator does not follow immediately.
    bool take_header(std::string_view key, char separator, std::string_view &value) {
        const char *const found = find(key);
        if (found == nullptr)
            return false;
        const std::string_view rest = after(between(found, end_), key.size());
        if (!rest.starts_with(separator))
            return false;
        cursor_ = line_end(rest.data() + 1);
        value = between(rest.data() + 1, cursor_);
        return true;
    }

    /// The first occurrence of a key that starts between the cursor and the next boundary, or null.
    /// It may run into the boundary. Keys are short and their first character is rare, so that
    /// find(), which searches for that character, is faster than memmem().
    [[nodiscard]] const char *find(std::string_view key) const {
        if (cursor_ >= next_boundary_)
            return nullptr;
        const std::string_view searched =
            front(between(cursor_, end_), between(cursor_, next_boundary_).size() + key.size() - 1);
        const std::size_t position = searched.find(key);
        return position != std::string_view::npos ? cursor_ + position : nullptr;
    }

    /// The first line ending at or after the start of a value, or the place where the search for it
    /// stops. A search continues where the previous one stopped, since each value starts after the
    /// previous one: a body of boundaries in a single line is not read again for each of them.
    const char *line_end(const char *value) {
        const char *const limit =
            next_boundary_ + front(between(next_boundary_, end_), longest_overrun).size();
        line_end_ = std::max(line_end_, value);
        if (line_end_ < limit)
            line_end_ = line_end_of(between(line_end_, limit));
        return std::min(line_end_, limit);
    }

    /// The content: from after the empty line that follows the last header to before the line
    /// ending that precedes the next boundary.
    [[nodiscard]] std::string_view content_after_headers() const {
        const std::string_view rest = after(between(cursor_, end_), 2 * line_ending_size);
        return front(rest, size_from(next_boundary_ - line_ending_size - rest.data()));
    }

    void dump_rest() const {
        const std::string_view shown = front(between(cursor_, end_), dump_size);
        print_raw_dump(nullptr,
                       {reinterpret_cast<const unsigned char *>(shown.data()), shown.size()});
    }

    std::string_view rest_;
    std::string_view boundary_;
    const char *end_;
    const char *cursor_ = nullptr; ///< The part's boundary, then the end of the last header's line.
    const char *next_boundary_ = nullptr;
    const char *line_end_; ///< There is no line ending between the last value and here.
};

/// Stores a copy of the content in a record. False if memory cannot be allocated.
bool store_content(prop_file &record, std::string_view content) {
    HeapBlock<char> data = allocate<char>(std::max<std::size_t>(content.size(), 1));
    if (!data)
        return false;
    std::memcpy(data.get(), content.data(), content.size());
    record.data = data.release();
    record.size = static_cast<std::uint32_t>(content.size());
    return true;
}

int read_files(std::string_view upload, std::string_view boundary, prop_file *files) {
    std::size_t count = 0;
    std::string_view content;
    PartReader parts(upload, boundary);
    while (parts.rest().size() > largest_tail && count < CORVEL_UPLOAD_FILES)
        if (parts.next(files[count], content) == CORVEL_PART_FILE &&
            files[count].filename[0] != '\0' && store_content(files[count], content))
            ++count;
    return static_cast<int>(count);
}

/// Writes the boundary of a content type to `boundary`, which is allocated if it is null. Returns
/// its length; 0 if the content type has no boundary or memory cannot be allocated.
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

/// Gives other processes ten seconds before memory for a large upload is allocated.
unsigned int pause_before_upload() {
    sleep(5);
    return sleep(5);
}

/// Reads an upload: the boundary, a newline and the body, whose last byte a NUL overwrites. Null if
/// memory cannot be allocated or the body is short.
HeapBlock<char> read_upload(std::string_view boundary, std::size_t length) {
    HeapBlock<char> upload = allocate<char>(boundary.size() + 1 + length);
    if (!upload)
        return nullptr;
    std::memcpy(upload.get(), boundary.data(), boundary.size());
    char *const newline = upload.get() + boundary.size();
    *newline = '\n';
    if (read_body_into({newline + 1, length}) != length)
        return nullptr;
    newline[length] = '\0';
    return upload;
}

/// The string without any of two characters at its ends.
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

/// Whether a pattern is at a position. Reads no further than the first difference.
bool is_pattern_at(const char *position, std::string_view pattern) {
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
    HeapBlock<char> body = allocate<char>(size + 1);
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
    if (announced < 0 || announced > CORVEL_UPLOAD_MAX)
        return nullptr;
    if (announced > CORVEL_UPLOAD_MAX_UNPAUSED)
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
    const std::string_view wanted(pattern, size_from(length));
    const std::string_view block = between(start, end);
    const char *found = find_bytes(block, wanted);
    // Matches that start before the end and run past it follow all others.
    const std::size_t tail = at_most(block.size(), wanted.size());
    for (std::size_t at = block.size() - tail; found == nullptr && at != block.size(); ++at)
        if (is_pattern_at(start + at, wanted))
            found = start + at;
    return const_cast<char *>(found);
}

int getDisposition_file(char **data, unsigned int *size, char **cursor, char *end,
                        const char *boundary, prop_file *record) {
    PartReader parts(between(*cursor < end ? *cursor : end, end), text_of(boundary));
    std::string_view content;
    const corvel_part_result result = parts.next(*record, content);
    *cursor = const_cast<char *>(parts.rest().data());
    if (result == CORVEL_PART_FILE) {
        *data = const_cast<char *>(content.data());
        *size = static_cast<unsigned int>(content.size());
    }
    return result;
}

char *strip_r(char *text, int *length, char one, char other) {
    const std::string_view kept = trimmed({text, size_from(*length)}, one, other);
    *length = static_cast<int>(kept.size());
    return const_cast<char *>(kept.data());
}

int process_file(char *upload, int length, const char *boundary, prop_file *files) {
    return read_files({upload, size_from(length)}, text_of(boundary), files);
}

int free_prop_file(prop_file *files, int count) {
    for (int file = 0; file < count; ++file)
        std::free(std::exchange(files[file].data, nullptr));
    return 1;
}

} // extern "C"
