// SPDX-License-Identifier: MIT
#ifndef CORVEL_FIRMWARE_BOOT_ENVIRONMENT_H
#define CORVEL_FIRMWARE_BOOT_ENVIRONMENT_H

#include <corvel.h>

#include <cstddef>
#include <fcntl.h>

#include "support/descriptor.h"
#include "support/text.h"

namespace corvel {

/// Opens the environment's file. Descriptor 0 counts as a failure and is not closed.
inline Descriptor open_environment(const char *path, int flags) {
    const int descriptor = open(text_or_empty(path), flags | O_CLOEXEC, 0644);
    return Descriptor(descriptor > 0 ? descriptor : -1);
}

/// Reads the first bytes of a file into env_image_mem. Does not make the image current. On failure,
/// prints the reason, with the size of an image as `size_text`, and returns false.
bool read_environment_image(const char *path, const char *size_text);

/// Makes an image current, even if its CRC is bad. Returns whether the CRC is good.
bool use_environment_image(void *image);

/// Does what init_env() does; same result.
int load_environment(const char *path);

/// The value of a variable in the current image, or null.
char *find_variable(const char *name);

/// Sets a variable in the current image, or deletes it if the value is null; false on failure.
bool set_variable(const char *name, const char *value);

} // namespace corvel

#endif
