// SPDX-License-Identifier: MIT
#ifndef CORVEL_FIRMWARE_FIRMWARE_PARSER_H
#define CORVEL_FIRMWARE_FIRMWARE_PARSER_H

#include <corvel.h>

#include <cstdint>
#include <span>

namespace corvel {

/// parse_firmware() without reading the boot environment: `shift` is the distance from the
/// partitions of set A to those of the idle set. Returns the result code; `count` receives the
/// number of records filled, also on failure. There is room for CORVEL_IMAGE_RECORDS records.
int parse_image(std::span<const unsigned char> image, std::uint32_t shift, img_info *records,
                int &count);

} // namespace corvel

#endif
