// SPDX-License-Identifier: MIT
#ifndef CORVEL_FIRMWARE_BOOT_ARGUMENTS_H
#define CORVEL_FIRMWARE_BOOT_ARGUMENTS_H

namespace corvel {

/// Does what save_param() does; same result.
int save_variable(const char *path, const char *name, const char *value);

} // namespace corvel

#endif
