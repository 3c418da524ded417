// SPDX-License-Identifier: MIT
// What an upgrade writes, as an image contains it.
#ifndef CORVEL_PAGE_UPGRADE_IMAGE_H
#define CORVEL_PAGE_UPGRADE_IMAGE_H

#include <corvel_page.h>

#include <cstdint>
#include <string_view>

#include "page/flash.h"

namespace corvel {

/// One half of a set: its partition and what is to be written there.
struct Half {
    const char *name = nullptr; ///< Null if the image does not contain it.
    unsigned partition = 0;
    FlashBytes data;
};

/// The halves of a complete set, the root file system first.
struct UpgradeImage {
    int set = CORVEL_FIRMWARE_UNKNOWN; ///< The set that it is for.
    Half halves[halves_of_set];
    std::string_view version;
    const char *failed = nullptr; ///< The section that is refused.
};

/// Bytes of each partition of the set that is written.
using PartitionSizes = std::uint32_t[halves_of_set];

/// Checks an image for a set. What is found is stored, up to the first fault. The result points
/// into the image. Every image that is accepted is one that parse_firmware() accepts.
corvel_upgrade_result inspect_image(FlashBytes bytes, int set, const PartitionSizes &sizes,
                                    UpgradeImage &image);

} // namespace corvel

#endif
