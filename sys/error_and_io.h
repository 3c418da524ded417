// SPDX-License-Identifier: MIT
#ifndef CORVEL_SYS_ERROR_AND_IO_H
#define CORVEL_SYS_ERROR_AND_IO_H

#include <corvel.h>

#include <cstddef>

namespace corvel {

/// Prints a message on standard error, in a line of its own behind what standard output holds, and
/// ends the process.
[[noreturn]] void die(const char *format, ...) CORVEL_PRINTF_LIKE(1, 2);

/// A heap block that has grown or shrunk; where there is no memory the process ends.
void *resize_or_die(void *block, std::size_t size);

} // namespace corvel

#endif
