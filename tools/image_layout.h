// SPDX-License-Identifier: MIT
// The limits of an image that is sent to a device as an upload.
#ifndef CORVEL_TOOLS_IMAGE_LAYOUT_H
#define CORVEL_TOOLS_IMAGE_LAYOUT_H

#include <corvel.h>

#include <cstddef>

namespace corvel::tools {

/// The maximum size of an upload to a device.
inline constexpr std::size_t image_size_limit = CORVEL_UPLOAD_MAX;

/// Bytes of an upload reserved for the boundaries and headers around the file; more than browsers
/// use.
inline constexpr std::size_t upload_framing_size = 1024;

} // namespace corvel::tools

#endif
