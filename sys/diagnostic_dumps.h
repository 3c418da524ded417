// SPDX-License-Identifier: MIT
#ifndef CORVEL_SYS_DIAGNOSTIC_DUMPS_H
#define CORVEL_SYS_DIAGNOSTIC_DUMPS_H

#include <span>

namespace corvel {

/// Prints an optional title line, then the bytes as they are and a newline.
void print_raw_dump(const char *title, std::span<const unsigned char> bytes);

} // namespace corvel

#endif
