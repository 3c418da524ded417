// SPDX-License-Identifier: MIT
#ifndef CORVEL_SYS_PROCESS_LOOKUP_H
#define CORVEL_SYS_PROCESS_LOOKUP_H

#include <string_view>

namespace corvel {

/// The first process that has a name, 0 if none has.
int first_process(std::string_view name);

/// The number that a pid file begins with, -1 if the file can't be read.
int recorded_process(const char *path);

} // namespace corvel

#endif
