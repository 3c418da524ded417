// SPDX-License-Identifier: MIT
// What builder and inspector both have to know about an image.
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

/// What a device recognises in one image, the version section included.
inline constexpr std::size_t most_sections = 4;

/// What an upload to a device may hold.
inline constexpr std::size_t image_size_limit = std::size_t{16} << 20;

/// Room in that for the boundaries and the headers around a file, more than browsers need.
inline constexpr std::size_t upload_framing_size = 1024;

/// The version section says what the image is; it is written nowhere.
constexpr bool is_version(const sign_tbl_entry &partition) {
    return partition.mtd_id == no_partition;
}

/// The sum that a payload's checksum byte makes 0.
inline unsigned char sum_of(std::span<const unsigned char> bytes) {
    return static_cast<unsigned char>(std::accumulate(bytes.begin(), bytes.end(), 0U));
}

} // namespace corvel::tools

#endif
