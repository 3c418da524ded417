// SPDX-License-Identifier: MIT
#ifndef CORVEL_FIRMWARE_IMAGE_FORMAT_H
#define CORVEL_FIRMWARE_IMAGE_FORMAT_H

#include <array>
#include <cstddef>
#include <cstdint>

namespace corvel {

/// A section with this `mtd_id` has no payload checksum and no size limit; a partition with it is
/// not written anywhere.
inline constexpr std::uint32_t no_partition = 255;

/// One partition of the flash.
struct sign_tbl_entry {
    const char *signature;
    const char *name;
    std::uint32_t id;
    std::uint32_t sign_len;
    std::uint32_t strip_header;
    std::uint32_t max_size;
    std::uint32_t flash_offset;
    std::uint32_t mtd_id;
};

inline constexpr std::array<sign_tbl_entry, 10> sign_tbl = {{
    {"boot", "Boot", 0, 4, 1, 0x40000, 0x0, 0},
    {"benv", "Boot-env", 1, 4, 1, 0x10000, 0x40000, 1},
    {"root", "Rootfs", 2, 4, 1, 0x650000, 0x50000, 2},
    {"kern", "Linux_kernel", 3, 4, 1, 0x100000, 0x6a0000, 3},
    {"rfs1", "Rootfs-1", 4, 4, 1, 0x650000, 0x7a0000, 4},
    {"knl1", "Linux_kernel-1", 5, 4, 1, 0x100000, 0xdf0000, 5},
    {"log0", "Log", 6, 4, 1, 0xf0000, 0xef0000, 6},
    {"conf", "Config", 7, 4, 0, 0x10000, 0xfe0000, 7},
    {"artp", "ART", 8, 4, 1, 0x10000, 0xff0000, 8},
    {"Ver0", "Ver0", 9, 4, 0, 0x5c, 0xffffffff, no_partition},
}};

/// The row whose signature stands at `signature`, or null.
const sign_tbl_entry *find_partition(const unsigned char *signature);

} // namespace corvel

#endif
