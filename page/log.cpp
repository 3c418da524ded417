// SPDX-License-Identifier: MIT
#include <corvel_page.h>

#include <cstdarg>
#include <cstdio>
#include <string_view>
#include <syslog.h>

#include "page/utf8.h"
#include "support/text.h"

namespace corvel {
namespace {

/// Leaves room for the header that syslog() adds: some C libraries truncate both at 1,024 bytes.
constexpr std::size_t line_size = 896;
constexpr char hex_digits[] = "0123456789abcdef";

/// Copies a message, with control characters and bytes that are not UTF-8 as `\xHH`, as far as it
/// fits. A stranger's text can then neither start a line of the log nor control a terminal.
void escape_controls(std::string_view message, char line[line_size]) {
    std::size_t used = 0;
    while (!message.empty()) {
        const std::size_t length = utf8_length(message);
        const bool is_shown = length != 0 && !is_control(message);
        const std::size_t taken = length != 0 ? length : 1;
        if (used + (is_shown ? taken : 4 * taken) >= line_size)
            break;
        for (const char byte : front(message, taken)) {
            const auto value = static_cast<unsigned char>(byte);
            if (is_shown) {
                line[used++] = byte;
                continue;
            }
            line[used++] = '\\';
            line[used++] = 'x';
            line[used++] = hex_digits[value / 16];
            line[used++] = hex_digits[value % 16];
        }
        message = after(message, taken);
    }
    line[used] = '\0';
}

} // namespace
} // namespace corvel

void corvel_log(corvel_log_level level, const char *format, ...) {
    char message[corvel::line_size];
    va_list values;
    va_start(values, format);
    const int length = std::vsnprintf(message, sizeof message, format, values);
    va_end(values);
    if (length < 0)
        return;
    char line[corvel::line_size];
    corvel::escape_controls(message, line);
    // LOG_NDELAY is not set: a program that logs nothing opens no socket.
    syslog(static_cast<int>(level), "%s", line);
}
