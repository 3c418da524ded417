// SPDX-License-Identifier: MIT
#ifndef CORVEL_TOOLS_TEXT_FORMAT_H
#define CORVEL_TOOLS_TEXT_FORMAT_H

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

namespace corvel::tools {

/// Formats as printf does.
[[gnu::format(printf, 1, 2)]] std::string format(const char *text, ...);

/// Escapes untrusted bytes for a terminal: each byte that is not printable ASCII becomes `\xNN`, a
/// backslash `\\`.
std::string printable(std::string_view bytes);
std::string printable(std::span<const unsigned char> bytes);

/// "1 byte", "2 bytes"
std::string bytes_text(std::size_t count);

} // namespace corvel::tools

#endif
