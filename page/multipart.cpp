// SPDX-License-Identifier: MIT
#include "page/multipart.h"

#include <cstring>
#include <strings.h>

#include "support/hexadecimal.h"
#include "support/text.h"

namespace corvel {
namespace {

bool is_blank(char character) { return character == ' ' || character == '\t'; }

bool is_named(std::string_view text, std::string_view name) {
    return text.size() == name.size() && strncasecmp(text.data(), name.data(), name.size()) == 0;
}

/// The text from one position to another, without spaces and tabs at either end.
std::string_view trimmed(const char *start, const char *end) {
    while (start != end && is_blank(*start))
        ++start;
    while (start != end && is_blank(end[-1]))
        --end;
    return {start, static_cast<std::size_t>(end - start)};
}

/// The parameters of a header field's value, `; name=value; name="value"`.
class Parameters {
  public:
    Parameters(char *start, char *end) : at_(start), end_(end) {}

    /// Reads the next parameter; false after the last one or if it is malformed. A value in quotes
    /// is unescaped in place: a backslash before a quote or a backslash is removed, any other is
    /// kept, since some clients send the path of a file with backslashes.
    bool next() {
        skip_blanks();
        if (at_ == end_)
            return false;
        if (*at_++ != ';')
            return fail();
        skip_blanks();
        if (at_ == end_)
            return false; // a semicolon after the last parameter
        char *const name_start = at_;
        while (at_ != end_ && *at_ != '=' && *at_ != ';')
            ++at_;
        if (at_ == end_ || *at_ == ';')
            return fail();
        name_ = trimmed(name_start, at_++);
        skip_blanks();
        return at_ != end_ && *at_ == '"' ? read_quoted() : read_token();
    }

    [[nodiscard]] bool failed() const { return failed_; }
    [[nodiscard]] std::string_view name() const { return name_; }
    [[nodiscard]] char *value() const { return value_; }
    [[nodiscard]] std::size_t size() const { return size_; }

  private:
    void skip_blanks() {
        while (at_ != end_ && is_blank(*at_))
            ++at_;
    }
    bool fail() {
        failed_ = true;
        return false;
    }
    bool read_quoted() {
        value_ = ++at_;
        size_ = 0;
        for (; at_ != end_ && *at_ != '"'; ++at_) {
            const bool escapes =
                *at_ == '\\' && end_ - at_ > 1 && (at_[1] == '"' || at_[1] == '\\');
            if (escapes)
                ++at_;
            value_[size_++] = *at_;
        }
        if (at_ == end_)
            return fail();
        ++at_;
        return true;
    }
    bool read_token() {
        value_ = at_;
        while (at_ != end_ && *at_ != ';')
            ++at_;
        size_ = trimmed(value_, at_).size();
        return true;
    }

    char *at_;
    char *end_;
    bool failed_ = false;
    std::string_view name_;
    char *value_ = nullptr;
    std::size_t size_ = 0;
};

/// Decodes percent signs in place and returns the new size.
std::size_t decode_percent(char *text, std::size_t size) {
    std::size_t used = 0;
    for (std::size_t i = 0; i < size; ++i) {
        const bool encodes = text[i] == '%' && size - i > 2 && hex_value(text[i + 1]) >= 0 &&
                             hex_value(text[i + 2]) >= 0;
        if (!encodes) {
            text[used++] = text[i];
            continue;
        }
        text[used++] = static_cast<char>(hex_value(text[i + 1]) * 16 + hex_value(text[i + 2]));
        i += 2;
    }
    return used;
}

/// Decodes `UTF-8'language'text` of `filename*` in place. Null if it has another form or charset.
char *decode_extended(char *value, std::size_t &size) {
    const std::string_view text(value, size);
    const std::size_t charset = text.find('\'');
    const std::size_t language =
        after(text, charset == std::string_view::npos ? text.size() : charset + 1).find('\'');
    if (language == std::string_view::npos || !is_named(front(text, charset), "UTF-8"))
        return nullptr;
    const std::size_t start = charset + 1 + language + 1;
    size = decode_percent(value + start, size - start);
    return value + start;
}

/// The file's own name, after the directories that some clients send with it.
const char *without_directories(const char *name) {
    for (const char *at = name; *at != '\0'; ++at) {
        if (*at == '/' || *at == '\\')
            name = at + 1;
    }
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0 ? "" : name;
}

/// Joins each line that starts with a space or tab to the line before it.
void unfold(char *text, std::size_t size) {
    for (std::size_t i = 0; i + 1 < size; ++i) {
        if (text[i] != '\n' || !is_blank(text[i + 1]))
            continue;
        text[i] = ' ';
        if (i > 0 && text[i - 1] == '\r')
            text[i - 1] = ' ';
    }
}

} // namespace

Delimiter::Delimiter(std::string_view content_type) {
    const std::string_view type = front(content_type, content_type.find(';'));
    is_multipart_ =
        is_named(trimmed(type.data(), type.data() + type.size()), "multipart/form-data");
    const std::string_view given = after(content_type, type.size());
    char copy[1024];
    if (!is_multipart_ || given.size() > sizeof copy)
        return;
    std::memcpy(copy, given.data(), given.size());
    Parameters parameters(copy, copy + given.size());
    while (parameters.next()) {
        if (!is_named(parameters.name(), "boundary"))
            continue;
        const std::string_view boundary(parameters.value(), parameters.size());
        bool is_usable = !boundary.empty() && boundary.size() <= sizeof text_ - 4;
        for (const char character : boundary)
            is_usable = is_usable && static_cast<unsigned char>(character) >= ' ';
        if (!is_usable)
            return;
        std::memcpy(text_, "\r\n--", 4);
        std::memcpy(text_ + 4, boundary.data(), boundary.size());
        size_ = 4 + boundary.size();
        return;
    }
}

void Window::prepend(std::string_view bytes) {
    std::memcpy(bytes_.get(), bytes.data(), bytes.size());
    start_ = 0;
    end_ = bytes.size();
}

bool Window::fill() {
    if (start_ != 0)
        std::memmove(bytes_.get(), bytes_.get() + start_, end_ - start_);
    end_ -= start_;
    start_ = 0;
    if (end_ == capacity)
        return false;
    if (left_ == 0) {
        char extra = 0;
        is_too_large_ = body_.read(&extra, 1) != 0;
        return false;
    }
    const std::uint64_t room = capacity - end_;
    const auto wanted = static_cast<std::size_t>(room < left_ ? room : left_);
    const std::size_t count = body_.read(bytes_.get() + end_, wanted);
    end_ += count;
    left_ -= count;
    return count != 0;
}

bool Window::ensure(std::size_t count) {
    while (end_ - start_ < count) {
        if (!fill())
            return false;
    }
    return true;
}

corvel_upload_result Window::reason() const {
    if (is_too_large_)
        return CORVEL_UPLOAD_TOO_LARGE;
    return body_.state() == Body::State::timed_out ? CORVEL_UPLOAD_TIMEOUT
                                                   : CORVEL_UPLOAD_INCOMPLETE;
}

bool PartHeader::parse() {
    part_ = {};
    char *const text = lines_.data();
    const std::size_t size = lines_.size();
    if (size == 0 || std::memchr(text, '\0', size) != nullptr)
        return false;
    unfold(text, size);
    for (char *line = text; line != text + size;) {
        auto *const newline = static_cast<char *>(
            std::memchr(line, '\n', static_cast<std::size_t>(text + size - line)));
        if (newline == nullptr)
            return false;
        char *const end = newline != line && newline[-1] == '\r' ? newline - 1 : newline;
        if (!parse_line(line, static_cast<std::size_t>(end - line)))
            return false;
        line = newline + 1;
    }
    if (part_.type == nullptr)
        part_.type = "text/plain";
    return part_.name != nullptr;
}

/// The byte at @p line + @p size belongs to the line ending: it is overwritten with the terminator
/// of the line's last value.
bool PartHeader::parse_line(char *line, std::size_t size) {
    auto *const colon = static_cast<char *>(std::memchr(line, ':', size));
    if (colon == nullptr)
        return size == 0;
    const std::string_view name = trimmed(line, colon);
    char *const end = line + size;
    if (is_named(name, "content-disposition"))
        return part_.name == nullptr && parse_disposition(colon + 1, end);
    const std::string_view value = trimmed(colon + 1, end);
    if (is_named(name, "content-transfer-encoding"))
        return is_named(value, "7bit") || is_named(value, "8bit") || is_named(value, "binary");
    if (is_named(name, "content-type")) {
        char *const type = colon + 1 + (value.data() - (colon + 1));
        type[value.size()] = '\0';
        part_.type = type;
    }
    return true;
}

bool PartHeader::parse_disposition(char *value, char *end) {
    char *parameters_start = value;
    while (parameters_start != end && *parameters_start != ';')
        ++parameters_start;
    if (!is_named(trimmed(value, parameters_start), "form-data"))
        return false;
    const char *extended_filename = nullptr;
    Parameters parameters(parameters_start, end);
    char *terminated = nullptr; // the end of the value before, which is terminated once it was read
    const auto terminate = [&terminated] {
        if (terminated != nullptr)
            *terminated = '\0';
    };
    while (parameters.next()) {
        terminate();
        char *start = parameters.value();
        std::size_t size = parameters.size();
        if (is_named(parameters.name(), "name")) {
            if (part_.name != nullptr)
                return false;
            part_.name = start;
        } else if (is_named(parameters.name(), "filename")) {
            part_.filename = start;
        } else if (is_named(parameters.name(), "filename*")) {
            char *const decoded = decode_extended(start, size);
            if (decoded != nullptr && std::memchr(decoded, '\0', size) != nullptr)
                return false;
            extended_filename = decoded;
            start = decoded != nullptr ? decoded : start;
        }
        terminated = start + size;
    }
    terminate();
    if (extended_filename != nullptr)
        part_.filename = extended_filename;
    if (part_.filename != nullptr)
        part_.filename = without_directories(part_.filename);
    return !parameters.failed();
}

} // namespace corvel
