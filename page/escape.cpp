// SPDX-License-Identifier: MIT
#include "page/escape.h"

#include <cstdio>

#include <corvel_page.h>

#include "page/syntax.h"
#include "page/utf8.h"
#include "support/text.h"

namespace corvel {
namespace {

constexpr char replacement_character[] = "\xEF\xBF\xBD";

/// Bytes of the longest escape that is not a literal, `\u` and four digits, with the NUL.
constexpr std::size_t code_size = 7;

/// Returns what replaces a well-formed character: a literal, or @p code; null to keep it.
using Escape = const char *(*)(std::string_view character, char code[code_size]);

const char *html_escape(std::string_view character, char * /*code*/) {
    switch (character.front()) {
    case '&':
        return "&amp;";
    case '<':
        return "&lt;";
    case '>':
        return "&gt;";
    case '"':
        return "&quot;";
    case '\'':
        return "&#39;";
    case '\t':
    case '\n':
    case '\f':
    case '\r':
        return nullptr;
    default:
        return is_control(character) ? replacement_character : nullptr;
    }
}

const char *json_escape(std::string_view character, char code[code_size]) {
    const auto byte = static_cast<unsigned char>(character.front());
    if (byte == '"')
        return "\\\"";
    if (byte == '\\')
        return "\\\\";
    if (byte == '<')
        return "\\u003c";
    if (byte < ' ') {
        std::snprintf(code, code_size, "\\u%04X", byte);
        return code;
    }
    if (character == "\u2028")
        return "\\u2028";
    return character == "\u2029" ? "\\u2029" : nullptr;
}

/// Characters that are kept are appended together, not one by one.
void append_escaped(Buffer &out, const char *string, Escape escape) {
    char code[code_size];
    std::string_view text = string;
    const char *kept = string;
    while (!text.empty()) {
        const char *const start = text.data();
        const std::size_t length = utf8_length(text);
        const char *const escaped =
            length == 0 ? replacement_character : escape({start, length}, code);
        text.remove_prefix(length == 0 ? 1 : length);
        if (escaped == nullptr)
            continue;
        out.append({kept, static_cast<std::size_t>(start - kept)});
        out.append(escaped);
        kept = text.data();
    }
    out.append(kept);
}

} // namespace

void append_html(Buffer &out, const char *text) { append_escaped(out, text, html_escape); }

void append_json_string(Buffer &out, const char *text) {
    out.append("\"");
    append_escaped(out, text, json_escape);
    out.append("\"");
}

} // namespace corvel

size_t corvel_url_encode(const char *text, char *url, size_t size) {
    std::size_t used = 0;
    for (text = corvel::text_or_empty(text); *text != '\0' && used < size; ++text) {
        const char character[] = {*text, '\0'};
        const bool is_kept = corvel::span_of(character, "-._~") != 0;
        used += corvel::size_from(std::snprintf(url + used, size - used, is_kept ? "%c" : "%%%02X",
                                                static_cast<unsigned char>(*text)));
    }
    if (used >= size)
        used = 0;
    if (size != 0)
        url[used] = '\0';
    return used;
}
