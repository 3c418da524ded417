// SPDX-License-Identifier: MIT
// zlib's CRC-32. zlib is loaded at run time, not linked: libcorvel exports a function of the same
// name.
#pragma once

#include <cstdint>
#include <span>

namespace bench {

std::uint32_t zlib_crc32(std::span<const unsigned char> bytes);

} // namespace bench
