// SPDX-License-Identifier: MIT
#ifndef CORVEL_FIRMWARE_BOOT_ARGUMENTS_H
#define CORVEL_FIRMWARE_BOOT_ARGUMENTS_H

namespace corvel {

/// save_param(), with its messages and results.
int save_variable(const char *path, const char *name, const char *value);

} // namespace corvel

#endif
