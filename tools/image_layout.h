// SPDX-License-Identifier: MIT
// Properties of an image that both the builder and the inspection use.
#ifndef CORVEL_TOOLS_IMAGE_LAYOUT_H
#define CORVEL_TOOLS_IMAGE_LAYOUT_H

#include <cstddef>
#include <cstdint>
#include <numeric>
#include <span>

#include "firmware/image_format.h"

namespace corvel::tools {

inline constexpr std::size_t header_size = 20;
inline constexpr std::size_t crc_size = 4;

/// The maximum number of known sections in one image, including the version section.
inline constexpr std::size_t most_sections = 4;

/// The maximum size of an upload to a device.
inline constexpr std::size_t image_size_limit = std::size_t{16} << 20;

/// Bytes of an upload reserved for the boundaries and headers around the file; more than browsers
/// use.
inline constexpr std::size_t upload_framing_size = 1024;

/// Whether this is the version section, which describes the image and is not written to flash.
constexpr bool is_version(const sign_tbl_entry &partition) {
    return partition.mtd_id == no_partition;
}

/// The sum modulo 256, which is 0 for a payload with its checksum byte.
inline unsigned char sum_of(std::span<const unsigned char> bytes) {
    return static_cast<unsigned char>(std::accumulate(bytes.begin(), bytes.end(), 0U));
}

} // namespace corvel::tools

#endif
