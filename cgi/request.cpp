// SPDX-License-Identifier: MIT
#include <corvel.h>

#include <algorithm>
#include <array>
#include <strings.h>
#include <unistd.h>

#include "cgi/request_body.h"
#include "support/handles.h"
#include "support/text.h"

namespace corvel {
namespace {

/// The value of a character in the arithmetic of two digits. It is signed, as plain char is on the
/// board.
constexpr int digit_value(char digit) {
    const int code = static_cast<signed char>(digit);
    return code < 'A' ? code - '0' : (code & ~0x20) - 'A' + 10;
}

constexpr signed char byte_of_digits(char high, char low) {
    return static_cast<signed char>(digit_value(high) * 16 + digit_value(low));
}

/// How the characters of a form are read: `+` is a space, even after a `%`, and a decoded NUL ends
/// the string.
struct FormRules {
    static constexpr char read(char character) { return character == '+' ? ' ' : character; }
    static constexpr bool ends_at(char decoded) { return decoded == '\0'; }
};

/// How the characters of a URL are read: unchanged, and to the end.
struct UrlRules {
    static constexpr char read(char character) { return character; }
    static constexpr bool ends_at(char) { return false; }
};

/// Decodes each `%` that two characters follow. The result is no longer than the string and may
/// overwrite it. Returns the end of the result.
template <typename Rules> char *decode(std::string_view text, char *out) {
    for (std::size_t at = 0; at < text.size(); ++at) {
        char character = Rules::read(text[at]);
        if (character == '%' && text.size() - at > 2) {
            character = static_cast<char>(
                byte_of_digits(Rules::read(text[at + 1]), Rules::read(text[at + 2])));
            if (Rules::ends_at(character))
                break;
            at += 2;
        }
        *out++ = character;
    }
    return out;
}

/// Decodes a word into a scratch buffer. The word is first truncated to fit.
std::string_view decode_word(std::string_view word, std::span<char> scratch) {
    const char *const end = decode<FormRules>(front(word, scratch.size() - 1), scratch.data());
    return {scratch.data(), static_cast<std::size_t>(end - scratch.data())};
}

/// Reads the pairs of a urlencoded string, as words that are not decoded yet.
class PairReader {
  public:
    explicit PairReader(std::string_view text) : rest_(text), more_(true) {}

    /// False at the end of the string.
    bool next(std::string_view &name, std::string_view &value) {
        if (!more_)
            return false;
        const bool has_value = take_word('=', name);
        if (!has_value && name.empty())
            return false;
        value = {};
        if (has_value)
            take_word('&', value);
        return true;
    }

  private:
    /// Reads up to a stop character. False if the string ends first.
    bool take_word(char stop, std::string_view &word) {
        const std::size_t length = rest_.find(stop);
        word = front(rest_, length);
        more_ = length != std::string_view::npos;
        rest_ = after(rest_, word.size() + 1);
        return more_;
    }

    std::string_view rest_;
    bool more_;
};

/// Decodes pairs into the rows of a table. Requests carry secrets, so the scratch buffers are heap
/// blocks that are wiped.
class PairDecoder {
  public:
    explicit PairDecoder(prop_entry *table) : table_(table) {}

    /// False if the scratch buffers could not be allocated.
    [[nodiscard]] bool ready() const { return name_ && value_; }

    /// Appends the pairs of a string to the table. A pair whose strings cannot be allocated is left
    /// out.
    void decode(std::string_view text) {
        PairReader reader(text);
        std::string_view name;
        std::string_view value;
        while (reader.next(name, value)) {
            HeapBlock<char> name_copy = copy_of(decode_word(name, name_.bytes()));
            if (!name_copy)
                continue;
            HeapBlock<char> value_copy = copy_of(decode_word(value, value_.bytes()));
            if (!value_copy)
                continue;
            table_[count_].name = name_copy.release();
            table_[count_].value = value_copy.release();
            ++count_;
        }
    }

    [[nodiscard]] int count() const { return count_; }

  private:
    prop_entry *table_;
    int count_ = 0;
    WipedBlock name_{CORVEL_REQUEST_NAME_SIZE};
    WipedBlock value_{CORVEL_REQUEST_VALUE_SIZE};
};

/// The body of a request other than GET: CONTENT_LENGTH bytes and a NUL. Null if there is none.
WipedBlock read_body() {
    const int announced = announced_length();
    if (std::getenv("REQUEST_METHOD") == nullptr || is_method("GET") || announced <= 0)
        return {};
    const auto length = static_cast<std::size_t>(announced);
    WipedBlock body(length + 1);
    if (!body)
        return {};
    const std::size_t received = read_body_into(body.bytes().first(length));
    if (received != length) {
        // The rest was never written. Wiping it would make the kernel supply its memory.
        body.wipe_only(received);
        return {};
    }
    body.get()[length] = '\0';
    return body;
}

/// Only this much of get_val_awk()'s buffer is zeroed before it is filled again.
constexpr std::size_t zeroed_size = 255;

void forget_query() {
    unsetenv("QUERY_STRING");
    unsetenv("HTTP_REFERER");
}

} // namespace
} // namespace corvel

using namespace corvel;

extern "C" {

char *read_queue(void) { return read_body().release(); }

int free_buff(void *block, uint32_t size) {
    wipe_and_free(block, size);
    return 0;
}

int process_queue(prop_entry *table) {
    PairDecoder decoder(table);
    if (!decoder.ready())
        return 0;
    const WipedBlock body = read_body();
    if (!body && is_method("GET"))
        return 0;
    decoder.decode(text_of(body.get()));
    decoder.decode(text_of(std::getenv("QUERY_STRING")));
    forget_query();
    return decoder.count();
}

int process_queue_get(prop_entry *table) {
    if (is_method("POST"))
        return 0;
    PairDecoder decoder(table);
    if (!decoder.ready())
        return 0;
    decoder.decode(text_of(std::getenv("QUERY_STRING")));
    forget_query();
    return decoder.count();
}

int process_query_string(prop_entry *table) {
    PairDecoder decoder(table);
    if (!decoder.ready())
        return 0;
    decoder.decode(text_of(std::getenv("QUERY_STRING")));
    return decoder.count();
}

char *makeword(char *dst, const char *src, char stop, char **rest) {
    const char *const start = text_or_empty(src);
    const char *end = start;
    // The rest of the string is not read: callers take word after word.
    while (*end != '\0' && *end != stop)
        ++end;
    *rest = *end != '\0' ? const_cast<char *>(end) + 1 : nullptr;
    const std::string_view word(start, static_cast<std::size_t>(end - start));
    store({dst, word.size() + 1}, word);
    return dst;
}

char *plustospace(char *text) {
    const std::string_view view = text_of(text);
    std::transform(view.begin(), view.end(), text, FormRules::read);
    return text;
}

char *unescape_url(char *text) {
    if (text != nullptr)
        *decode<UrlRules>(text, text) = '\0';
    return text;
}

signed char x2c(const char *digits) {
    const char *const high = text_or_empty(digits);
    return byte_of_digits(*high, *high != '\0' ? high[1] : '\0');
}

int get_http_methmod(const char *method) {
    return strcasecmp(text_or_empty(method), "POST") == 0 ? 1 : 0;
}

int isajax_get(void) {
    const std::string_view query = text_of(std::getenv("QUERY_STRING"));
    if (!is_method("GET") || query.find("Ajax") == std::string_view::npos)
        return 0;
    PairReader reader(query);
    std::array<char, CORVEL_REQUEST_NAME_SIZE> name_buffer;
    std::array<char, CORVEL_REQUEST_VALUE_SIZE> value_buffer;
    std::string_view name;
    std::string_view value;
    for (int pair = 0; pair < CORVEL_AJAX_PAIRS && reader.next(name, value); ++pair)
        if (decode_word(name, name_buffer) == "Ajax")
            return decimal_value(stripped(decode_word(value, value_buffer), '"'));
    return 0;
}

int isnormal_post(int argc, char **argv, const char *expected) {
    if (text_of(std::getenv("REQUEST_METHOD")) != "POST" || argc < 2)
        return 0;
    return text_of(argv[1]) == text_of(expected) ? 1 : 0;
}

int myprintevn(void) {
    int result = 0;
    for (char **entry = environ; entry != nullptr && *entry != nullptr; ++entry)
        result = std::puts(*entry);
    return result;
}

char *get_val_awk(const char *command) {
    static std::array<char, CORVEL_GET_VAL_AWK_SIZE> first_line;
    const Pipe pipe(popen(text_or_empty(command), "r"));
    if (!pipe)
        return first_line.data();
    std::memset(first_line.data(), 0, zeroed_size);
    std::fgets(first_line.data(), first_line.size(), pipe.get());
    return first_line.data();
}

} // extern "C"
