// SPDX-License-Identifier: MIT
#ifndef CORVEL_SYS_PROCESS_LOOKUP_H
#define CORVEL_SYS_PROCESS_LOOKUP_H

#include <string_view>

namespace corvel {

/// The first process with this name; 0 if there is none.
int first_process(std::string_view name);

/// The number at the start of a pid file, 0 if there is none; -1 if the file cannot be read.
int recorded_process(const char *path);

} // namespace corvel

#endif
