// SPDX-License-Identifier: MIT
#include <corvel.h>

#include <array>

#include "support/text.h"

namespace corvel {
namespace {

/// Characters that are special inside a double-quoted shell string.
constexpr bool is_special(char character) {
    return character == '"' || character == '\\' || character == '$' || character == '`';
}

char *escape(const char *source, char *destination) {
    char *out = destination;
    for (const char character : text_of(source)) {
        if (is_special(character))
            *out++ = '\\';
        *out++ = character;
    }
    *out = '\0';
    return destination;
}

/// The destination may be the source: what is written is never longer than what has been read.
char *unescape(const char *source, char *destination) {
    const char *in = text_or_empty(source);
    char *out = destination;
    while (*in != '\0') {
        if (*in == '\\' && is_special(in[1]))
            ++in;
        *out++ = *in++;
    }
    *out = '\0';
    return destination;
}

/// Translates as much of a string as fits together with its terminator. An entity is never
/// truncated. Returns the number of characters written.
std::size_t translate_quotes(std::string_view text,
                             std::span<char, CORVEL_ATTRIBUTE_SIZE> translated) {
    std::size_t used = 0;
    for (const char &character : text) {
        const std::string_view replacement =
            character == '"' ? std::string_view("&quot;") : std::string_view(&character, 1);
        if (replacement.size() > translated.size() - 1 - used)
            break;
        std::memcpy(&translated[used], replacement.data(), replacement.size());
        used += replacement.size();
    }
    return used;
}

} // namespace
} // namespace corvel

using namespace corvel;

extern "C" {

unsigned int STRCMP(const char *a, const char *b) { return text_of(a) == text_of(b) ? 0 : 1; }

char *strip(char *str, signed char ch) {
    const std::string_view text = text_of(str);
    if (text.empty())
        return str;
    const char *const start = stripped(text, static_cast<char>(ch)).data();
    if (text.ends_with(static_cast<char>(ch)))
        str[text.size() - 1] = '\0';
    return const_cast<char *>(start);
}

char *add_escape(const char *src, char *dst) { return escape(src, dst); }

char *str_regular(const char *src, char *dst) { return escape(src, dst); }

char *strip_escape(const char *src, char *dst) { return unescape(src, dst); }

char *translate_control_code(char *str) {
    const std::string_view text = text_of(str);
    if (text.find('"') == std::string_view::npos)
        return str;
    std::array<char, CORVEL_ATTRIBUTE_SIZE> translated;
    const std::size_t length = translate_quotes(text, translated);
    std::memcpy(str, translated.data(), length);
    str[length] = '\0';
    return str;
}

void DFPrintf(FILE *, const char *, ...) {}

} // extern "C"
