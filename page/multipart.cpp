// SPDX-License-Identifier: MIT
#include "page/multipart.h"

#include <cstring>
#include <strings.h>

#include "page/syntax.h"
#include "support/text.h"

namespace corvel {
namespace {

constexpr const char *blanks = " \t";

bool is(const char *text, const char *expected) { return strcasecmp(text, expected) == 0; }

/// Removes the spaces and tabs at both ends of a string, which is terminated earlier in place.
char *trim(char *text) {
    text += std::strspn(text, blanks);
    std::size_t length = std::strlen(text);
    while (length != 0 && std::strchr(blanks, text[length - 1]) != nullptr)
        --length;
    text[length] = '\0';
    return text;
}

/// Terminates a string at a character, and returns what follows it; the string's end if it does not
/// contain the character.
char *cut(char *text, const char *character) {
    text += std::strcspn(text, character);
    if (*text != '\0')
        *text++ = '\0';
    return text;
}

struct Parameter {
    char *name;
    char *value;
};

/// Removes the quotes around a value in place, and returns what follows the second one; null if it
/// is missing. A backslash before a quote or a backslash is removed, any other is kept, since some
/// clients send the path of a file with backslashes.
char *unquote(char *value) {
    char *out = value;
    char *at = value + 1;
    for (; *at != '"'; *out++ = *at++) {
        if (*at == '\\' && (at[1] == '"' || at[1] == '\\'))
            ++at;
        if (*at == '\0')
            return nullptr;
    }
    *out = '\0';
    return at + 1;
}

/// Takes a parameter, `name=value` or `name="value"`, and the semicolon after it from the start of
/// a string, in place. False at the end of the string; the string is then null if it is malformed.
bool take_parameter(char *&text, Parameter &parameter) {
    text += std::strspn(text, blanks);
    if (*text == '\0')
        return false;
    const std::size_t length = std::strcspn(text, "=;");
    const bool is_complete = text[length] == '=';
    parameter.name = text;
    text = is_complete ? cut(text, "=") : nullptr;
    if (!is_complete)
        return false;
    parameter.name = trim(parameter.name);
    text += std::strspn(text, blanks);
    parameter.value = text;
    if (*text != '"') {
        text = cut(text, ";");
        trim(parameter.value);
        return true;
    }
    text = unquote(text);
    if (text == nullptr)
        return false;
    char *const rest = text + std::strspn(text, blanks);
    text = *rest == '\0' ? rest : rest + 1;
    if (*rest != '\0' && *rest != ';')
        text = nullptr;
    return text != nullptr;
}

/// Decodes `UTF-8'language'text` of `filename*` in place. Null if it has another form or charset.
/// False if it contains a NUL.
bool decode_extended(char *value, const char *&decoded) {
    char *const language = cut(value, "'");
    char *const text = cut(language, "'");
    if (!is(value, "UTF-8") || text == language || text[-1] != '\0')
        return true;
    char *out = text;
    for (const char *at = text; *at != '\0'; ++out) {
        const int byte = *at == '%' && at[1] != '\0' ? hex_byte(at + 1) : -1;
        if (byte == 0)
            return false;
        *out = byte > 0 ? static_cast<char>(byte) : *at;
        at += byte > 0 ? 3 : 1;
    }
    *out = '\0';
    decoded = text;
    return true;
}

/// The file's own name, after the directories that some clients send with it.
const char *without_directories(const char *name) {
    while (const char *const separator = std::strpbrk(name, "/\\"))
        name = separator + 1;
    return is_plain_filename(name) ? name : "";
}

/// Parses the value of Content-Disposition in place. False if it is malformed.
bool parse_disposition(char *value, corvel_part &part) {
    char *rest = cut(value, ";");
    if (part.name != nullptr || !is(trim(value), "form-data"))
        return false;
    const char *decoded = nullptr;
    for (Parameter parameter; take_parameter(rest, parameter);) {
        if (is(parameter.name, "filename"))
            part.filename = parameter.value;
        if (is(parameter.name, "filename*") && !decode_extended(parameter.value, decoded))
            return false;
        if (!is(parameter.name, "name"))
            continue;
        if (part.name != nullptr)
            return false;
        part.name = parameter.value;
    }
    if (decoded != nullptr)
        part.filename = decoded;
    if (part.filename != nullptr)
        part.filename = without_directories(part.filename);
    return rest != nullptr;
}

/// Parses a header line in place. False if it is malformed.
bool parse_line(char *line, corvel_part &part) {
    char *const colon = std::strchr(line, ':');
    if (colon == nullptr)
        return false;
    *colon = '\0';
    const char *const name = trim(line);
    char *const value = trim(colon + 1);
    if (is(name, "content-disposition"))
        return parse_disposition(value, part);
    if (is(name, "content-type"))
        part.type = value;
    return !is(name, "content-transfer-encoding") || is(value, "7bit") || is(value, "8bit") ||
           is(value, "binary");
}

/// Parses header lines in place. Each ends with a newline, and none is empty. A line that starts
/// with a space or tab continues the one before it.
bool parse_header(char *lines, corvel_part &part) {
    while (*lines != '\0') {
        char *end = lines + std::strcspn(lines, "\n");
        for (; end[1] == ' ' || end[1] == '\t'; end += std::strcspn(end, "\n")) {
            *end = ' ';
            if (end[-1] == '\r')
                end[-1] = ' ';
        }
        *end = '\0';
        if (end[-1] == '\r')
            end[-1] = '\0';
        if (!parse_line(lines, part))
            return false;
        lines = end + 1;
    }
    return part.name != nullptr;
}

} // namespace

bool is_plain_filename(const char *name) {
    return std::strpbrk(name, "/\\") == nullptr && std::strcmp(name, ".") != 0 &&
           std::strcmp(name, "..") != 0;
}

/// Reads further bytes after those held.
bool MultipartReader::fill() {
    std::memmove(window_.get(), window_.get() + start_, end_ - start_);
    end_ -= start_;
    start_ = 0;
    const std::size_t count = body_.read(window_.get() + end_, window_size - end_);
    if (count == 0)
        return fail(body_.state() == Body::State::timed_out ? CORVEL_UPLOAD_TIMEOUT
                                                            : CORVEL_UPLOAD_INCOMPLETE);
    if (count > left_)
        return fail(CORVEL_UPLOAD_TOO_LARGE);
    end_ += count;
    left_ -= count;
    return true;
}

/// Reads until so many bytes are held.
bool MultipartReader::ensure(std::size_t count) {
    while (end_ - start_ < count) {
        if (!fill())
            return false;
    }
    return true;
}

bool MultipartReader::take_boundary(const char *content_type) {
    char copy[1024];
    if (std::strlen(content_type) >= sizeof copy)
        return false;
    store(copy, content_type);
    char *rest = cut(copy, ";");
    Parameter parameter;
    do {
        if (!take_parameter(rest, parameter))
            return false;
    } while (!is(parameter.name, "boundary"));
    const std::size_t length = std::strlen(parameter.value);
    if (length == 0 || length > longest_boundary || has_control_character(parameter.value))
        return false;
    std::memcpy(delimiter_, "\r\n--", 4);
    std::memcpy(delimiter_ + 4, parameter.value, length);
    delimiter_size_ = 4 + length;
    return true;
}

corvel_upload_result MultipartReader::read(const char *content_type) {
    if (!take_boundary(content_type))
        return CORVEL_UPLOAD_BAD_BOUNDARY;
    if (body_.left() != Body::unknown_length && body_.left() > left_)
        return CORVEL_UPLOAD_TOO_LARGE;
    if (window_ == nullptr)
        return CORVEL_UPLOAD_NO_MEMORY;
    if (skip_preamble())
        while (begin_part() && read_header() && read_content())
            ;
    return result_;
}

/// Skips what precedes the first delimiter, which a line ending or the start of the body precedes.
bool MultipartReader::skip_preamble() {
    const std::string_view delimiter(delimiter_ + 1, delimiter_size_ - 1);
    *window_ = '\n';
    end_ = 1;
    for (;;) {
        const std::size_t found = held().find(delimiter);
        if (found != std::string_view::npos) {
            start_ += found + delimiter.size();
            return true;
        }
        start_ = end_ - at_most(end_ - start_, delimiter.size() - 1);
        if (!fill())
            return false;
    }
}

/// Reads the rest of a delimiter's line: spaces and a line ending before a part, or two hyphens at
/// the end of the body. False at the end of the body.
bool MultipartReader::begin_part() {
    if (!ensure(2))
        return false;
    if (front(held(), 2) == "--")
        return skip_epilogue();
    bool has_cr = false;
    for (char character = '\0'; character != '\n';) {
        if (!ensure(1))
            return false;
        character = window_.get()[start_++];
        if (character == '\n')
            break;
        if (has_cr || (character != '\r' && character != ' ' && character != '\t'))
            return fail(CORVEL_UPLOAD_MALFORMED);
        has_cr = character == '\r';
    }
    if (separator_.empty())
        separator_ = after({delimiter_, delimiter_size_}, has_cr ? 0 : 1);
    return true;
}

/// Skips what follows the last delimiter, which counts as a part of the body.
bool MultipartReader::skip_epilogue() {
    do {
        start_ = end_;
    } while (fill());
    if (result_ != CORVEL_UPLOAD_TOO_LARGE)
        result_ = CORVEL_UPLOAD_DONE;
    return false;
}

/// Reads the header lines of a part up to the empty line after them, and begins the part.
bool MultipartReader::read_header() {
    std::size_t line = 0;     // where the last line starts
    std::size_t searched = 0; // the bytes of it that contain no newline end here
    for (;;) {
        const std::size_t newline = held().find('\n', searched);
        searched = at_most(newline, held().size());
        if (searched >= header_max_)
            return fail(CORVEL_UPLOAD_HEADER_TOO_LARGE);
        if (newline == std::string_view::npos) {
            if (!fill())
                return false;
            continue;
        }
        if (newline == line || (newline == line + 1 && held()[line] == '\r'))
            return begin_content(line, newline + 1);
        line = searched = newline + 1;
    }
}

/// Parses header lines of a size in the window, and skips them with the empty line. The strings of
/// the part are in the window, where they are until it is filled again.
bool MultipartReader::begin_content(std::size_t size, std::size_t skipped) {
    char *const lines = window_.get() + start_;
    corvel_part part{nullptr, nullptr, "text/plain"};
    lines[size] = '\0';
    if (std::strlen(lines) != size || !parse_header(lines, part))
        return fail(CORVEL_UPLOAD_MALFORMED);
    start_ += skipped;
    return sink_.begin(sink_.context, &part) || fail(CORVEL_UPLOAD_STOPPED);
}

/// Passes on the first bytes of the window.
bool MultipartReader::emit(std::size_t size) {
    if (size != 0 && !sink_.data(sink_.context, held().data(), size))
        return fail(CORVEL_UPLOAD_STOPPED);
    start_ += size;
    return true;
}

/// Whether a delimiter of @p size bytes at the start of the window is one: what follows it ends its
/// line or the body. Otherwise it is content that starts like a delimiter.
bool MultipartReader::is_delimiter(std::size_t size) const {
    const std::string_view following = front(after(held(), size), 2);
    return following[0] == ' ' || following[0] == '\t' || following[0] == '\n' ||
           following == "\r\n" || following == "--";
}

/// Skips the delimiter of a part without any content, which can directly follow the empty line
/// after the header: its line ending is that of the empty line.
bool MultipartReader::skip_content_without_line() {
    const std::string_view line(delimiter_ + 2, delimiter_size_ - 2);
    if (!ensure(line.size() + 2) || !held().starts_with(line) || !is_delimiter(line.size()))
        return false;
    start_ += line.size();
    return true;
}

/// Reads content up to the delimiter after it, and ends the part. The separator contains a line
/// ending at its start only, so that no occurrence overlaps another.
bool MultipartReader::read_content() {
    bool is_read = skip_content_without_line();
    while (!is_read) {
        const std::size_t found = held().find(separator_);
        if (found == std::string_view::npos) {
            if (!emit(held().size() - at_most(held().size(), separator_.size() - 1)) || !fill())
                return false;
            continue;
        }
        if (!emit(found) || !ensure(separator_.size() + 2))
            return false;
        is_read = is_delimiter(separator_.size());
        if (is_read)
            start_ += separator_.size();
        else if (!emit(separator_.size()))
            return false;
    }
    return sink_.end(sink_.context) || fail(CORVEL_UPLOAD_STOPPED);
}

} // namespace corvel
