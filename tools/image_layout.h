// SPDX-License-Identifier: MIT
// Properties of an image that both the builder and the inspection use.
#ifndef CORVEL_TOOLS_IMAGE_LAYOUT_H
#define CORVEL_TOOLS_IMAGE_LAYOUT_H

#include <corvel.h>

#include <cstddef>
#include <cstdint>
#include <numeric>
#include <span>

#include "firmware/image_format.h"

namespace corvel::tools {

/// The maximum size of an upload to a device.
inline constexpr std::size_t image_size_limit = CORVEL_UPLOAD_MAX;

/// Bytes of an upload reserved for the boundaries and headers around the file; more than browsers
/// use.
inline constexpr std::size_t upload_framing_size = 1024;

/// The sum modulo 256, which is 0 for a payload with its checksum byte.
inline unsigned char sum_of(std::span<const unsigned char> bytes) {
    return static_cast<unsigned char>(std::accumulate(bytes.begin(), bytes.end(), 0U));
}

} // namespace corvel::tools

#endif
