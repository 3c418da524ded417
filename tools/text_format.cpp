// SPDX-License-Identifier: MIT
#include "tools/text_format.h"

#include <cstdarg>
#include <cstdio>

namespace corvel::tools {

std::string format(const char *text, ...) {
    std::va_list values;
    va_start(values, text);
    std::va_list again;
    va_copy(again, values);
    const int length = std::vsnprintf(nullptr, 0, text, values);
    va_end(values);
    std::string result(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
    std::vsnprintf(result.data(), result.size() + 1, text, again);
    va_end(again);
    return result;
}

std::string printable(std::span<const unsigned char> bytes) {
    std::string result;
    for (const unsigned char byte : bytes) {
        if (byte == '\\')
            result += "\\\\";
        else if (byte >= ' ' && byte <= '~')
            result += static_cast<char>(byte);
        else
            result += format("\\x%02x", byte);
    }
    return result;
}

std::string printable(std::string_view bytes) {
    return printable(
        std::span(reinterpret_cast<const unsigned char *>(bytes.data()), bytes.size()));
}

std::string bytes_text(std::size_t count) {
    return format("%zu byte%s", count, count == 1 ? "" : "s");
}

} // namespace corvel::tools
