/* SPDX-License-Identifier: MIT */
/** What the fuzz targets of answers share: the sent answer, and a plain model of UTF-8. */
#ifndef CORVEL_FUZZ_PAGE_ANSWER_H
#define CORVEL_FUZZ_PAGE_ANSWER_H

#include "corvel_page.h"
#include "fuzz/harness.h"

#include <string>
#include <string_view>

namespace corvel_fuzz {

/** An answer, divided at the empty line. */
struct Sent {
    std::string head;
    std::string body;

    bool is_status(std::string_view status) const {
        return head.starts_with("Status: " + std::string(status) + " ");
    }
};

/** Sends an answer and checks that its header is well-formed and states the length of its body. */
inline Sent send(corvel_answer *answer) {
    bool sent = false;
    const std::string bytes = output_of([&] { sent = corvel_answer_send(answer); });
    check(sent, "an answer can be sent");
    const std::size_t end = bytes.find("\r\n\r\n");
    check(end != std::string::npos, "an answer has a header");
    Sent result{bytes.substr(0, end + 2), bytes.substr(end + 4)};
    for (std::size_t i = 0; i < result.head.size(); ++i) {
        const auto byte = static_cast<unsigned char>(result.head[i]);
        const bool ends_line = result.head.compare(i, 2, "\r\n") == 0;
        check(byte >= ' ' || ends_line, "a header has no control characters");
        i += ends_line ? 1 : 0;
    }
    const std::string length = "\r\nContent-Length: " + std::to_string(result.body.size()) + "\r\n";
    const bool has_length = result.head.find("\r\nContent-Length: ") != std::string::npos;
    check(has_length ? result.head.ends_with(length) : result.body.empty(),
          "a header states the length of the body");
    return result;
}

/** The first character of a string, which is not empty, and its code point. */
struct Character {
    std::size_t length; /**< 1 if it is malformed. */
    long code;          /**< -1 if it is malformed. */
};

inline Character first_character(std::string_view text) {
    const auto byte = [&](std::size_t i) {
        return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
    };
    const unsigned first = byte(0);
    if (first < 0x80)
        return {1, static_cast<long>(first)};
    const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC0 || first >= 0xF8)
        return {1, -1};
    long code = static_cast<long>(first) & (0xFF >> (length + 1));
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0) != 0x80)
            return {1, -1};
        code = code * 64 + static_cast<long>(byte(i) & 0x3F);
    }
    const long least = length == 2 ? 0x80 : length == 3 ? 0x800 : 0x10000;
    const bool is_surrogate = code >= 0xD800 && code < 0xE000;
    if (code < least || code > 0x10FFFF || is_surrogate)
        return {1, -1};
    return {length, code};
}

/** A plain model of the escaping for HTML. */
inline std::string html_of(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const auto [length, code] = first_character(text);
        const bool is_control = code < 0x20 || (code >= 0x7F && code < 0xA0);
        if (code == '&')
            result += "&amp;";
        else if (code == '<')
            result += "&lt;";
        else if (code == '>')
            result += "&gt;";
        else if (code == '"')
            result += "&quot;";
        else if (code == '\'')
            result += "&#39;";
        else if (is_control && code != '\t' && code != '\n' && code != '\f' && code != '\r')
            result += "\xEF\xBF\xBD";
        else
            result += text.substr(0, length);
        text.remove_prefix(length);
    }
    return result;
}

} // namespace corvel_fuzz

#endif
