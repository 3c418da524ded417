// SPDX-License-Identifier: MIT
#ifndef CORVEL_SYS_DIAGNOSTIC_DUMPS_H
#define CORVEL_SYS_DIAGNOSTIC_DUMPS_H

#include <span>

namespace corvel {

/// Prints a title line unless the title is null, then the bytes unchanged and a newline.
void print_raw_dump(const char *title, std::span<const unsigned char> bytes);

} // namespace corvel

#endif
