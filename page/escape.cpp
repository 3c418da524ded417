// SPDX-License-Identifier: MIT
#include "page/escape.h"

#include "page/utf8.h"
#include "support/hexadecimal.h"
#include "support/text.h"

namespace corvel {
namespace {

constexpr std::string_view replacement_character = "\xEF\xBF\xBD";

/// Bytes of the longest escape that is not a literal: \u and four digits.
constexpr std::size_t code_size = 6;

/// Returns what replaces a well-formed character, empty to keep it: a literal, or @p code, which
/// starts with `\u00`.
using Escape = std::string_view (*)(std::string_view character, char code[code_size]);

std::string_view html_escape(std::string_view character, char * /*code*/) {
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
        return {};
    default:
        return is_control(character) ? replacement_character : std::string_view();
    }
}

std::string_view json_escape(std::string_view character, char code[code_size]) {
    const auto byte = static_cast<unsigned char>(character.front());
    if (byte == '"')
        return "\\\"";
    if (byte == '\\')
        return "\\\\";
    if (byte == '<')
        return "\\u003c";
    if (character == "\u2028")
        return "\\u2028";
    if (character == "\u2029")
        return "\\u2029";
    if (byte >= ' ')
        return {};
    put_hex(code + 4, byte);
    return {code, code_size};
}

/// Characters that are kept are appended together, not one by one.
void append_escaped(Buffer &out, std::string_view text, Escape escape) {
    char code[code_size] = {'\\', 'u', '0', '0'};
    std::string_view kept = text;
    while (!text.empty()) {
        const std::size_t length = utf8_length(text);
        const std::string_view escaped =
            length == 0 ? replacement_character : escape(front(text, length), code);
        const std::string_view rest = after(text, length == 0 ? 1 : length);
        if (!escaped.empty()) {
            out.append(front(kept, kept.size() - text.size()));
            out.append(escaped);
            kept = rest;
        }
        text = rest;
    }
    out.append(kept);
}

} // namespace

void append_html(Buffer &out, std::string_view text) { append_escaped(out, text, html_escape); }

void append_json_string(Buffer &out, std::string_view text) {
    out.append('"');
    append_escaped(out, text, json_escape);
    out.append('"');
}

} // namespace corvel
