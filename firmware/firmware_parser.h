// SPDX-License-Identifier: MIT
#ifndef CORVEL_FIRMWARE_FIRMWARE_PARSER_H
#define CORVEL_FIRMWARE_FIRMWARE_PARSER_H

#include <corvel.h>

#include <cstdint>
#include <span>

namespace corvel {

/// Does what parse_firmware() does, without the boot environment: `shift` leads from set A's
/// partitions to those of the idle set. Returns the result code; `count` receives the number of
/// records filled, also on failure.
int parse_image(std::span<const unsigned char> image, std::uint32_t shift, img_info *records,
                int &count);

} // namespace corvel

#endif
