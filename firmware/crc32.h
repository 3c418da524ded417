// SPDX-License-Identifier: MIT
#ifndef CORVEL_FIRMWARE_CRC32_H
#define CORVEL_FIRMWARE_CRC32_H

#include <cstdint>
#include <span>

namespace corvel {

/// The CRC-32 of Ethernet and of zip files: reflected polynomial 0xEDB88320, initial register
/// 0xFFFFFFFF, result inverted. The CRC of no bytes is 0.
std::uint32_t crc32_of(std::span<const unsigned char> bytes);

} // namespace corvel

#endif
