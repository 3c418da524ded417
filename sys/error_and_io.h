// SPDX-License-Identifier: MIT
#ifndef CORVEL_SYS_ERROR_AND_IO_H
#define CORVEL_SYS_ERROR_AND_IO_H

#include <corvel.h>

#include <cstddef>

namespace corvel {

/// Flushes standard output, prints a message line on standard error and ends the process.
[[noreturn]] void die(const char *format, ...) CORVEL_PRINTF_LIKE(1, 2);

/// Resizes a heap block. If there is no memory, ends the process.
void *resize_or_die(void *block, std::size_t size);

} // namespace corvel

#endif
