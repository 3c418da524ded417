// SPDX-License-Identifier: MIT
#include "firmware/image_format.h"

#include <corvel.h>

#include <cstring>

namespace corvel {
namespace {

/// Whether the partitions from the boot loader to ART cover the 16 MiB of flash without gaps.
constexpr bool partitions_tile_the_flash() {
    constexpr std::uint32_t flash_size = 0x1000000;
    std::uint32_t offset = 0;
    for (const sign_tbl_entry &row : sign_tbl) {
        if (is_version(row))
            break;
        if (row.flash_offset != offset)
            return false;
        offset += row.max_size;
    }
    return offset == flash_size;
}

static_assert(partitions_tile_the_flash());

} // namespace

const sign_tbl_entry *find_partition(const void *signature) {
    for (const sign_tbl_entry &row : sign_tbl)
        if (std::memcmp(row.signature, signature, row.sign_len) == 0)
            return &row;
    return nullptr;
}

} // namespace corvel

extern "C" {

using namespace corvel;

uint32_t get_sign_tbl_size(void) { return sign_tbl.size(); }

uint32_t get_tbl_id(const unsigned char *sig) {
    const sign_tbl_entry *const row = find_partition(sig);
    return row != nullptr ? row->id : CORVEL_NO_PARTITION;
}

int get_tbl_ids(unsigned int index) {
    return static_cast<int>(index < sign_tbl.size() ? sign_tbl[index].mtd_id : CORVEL_NOT_WRITTEN);
}

} // extern "C"
