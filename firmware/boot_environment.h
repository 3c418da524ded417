// SPDX-License-Identifier: MIT
#ifndef CORVEL_FIRMWARE_BOOT_ENVIRONMENT_H
#define CORVEL_FIRMWARE_BOOT_ENVIRONMENT_H

#include <corvel.h>

#include <cstddef>
#include <fcntl.h>

#include "support/descriptor.h"
#include "support/text.h"

namespace corvel {

/// Opens the environment's file. Descriptor 0 counts as a failure, and stays open.
inline Descriptor open_environment(const char *path, int flags) {
    const int descriptor = open(text_or_empty(path), flags | O_CLOEXEC, 0644);
    return Descriptor(descriptor > 0 ? descriptor : -1);
}

/// What became of reading an environment image.
enum class ImageRead { done, cannot_open, too_short };

/// Reads a file's first bytes into env_image_mem, which does not become current by that.
ImageRead read_environment_image(const char *path);

/// Makes an image current; true if its CRC is good.
bool use_environment_image(void *image);

/// init_env(), with its messages and results.
int load_environment(const char *path);

/// The value of a variable in the current image, or null.
char *find_variable(const char *name);

/// Sets a variable in the current image, or deletes it if the value is null; false on failure.
bool set_variable(const char *name, const char *value);

} // namespace corvel

#endif
