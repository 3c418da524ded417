// SPDX-License-Identifier: MIT
// zlib's CRC-32. zlib is loaded, not linked: the library has a function of the same name.
#pragma once

#include <cstdint>
#include <span>

namespace bench {

std::uint32_t zlib_crc32(std::span<const unsigned char> bytes);

} // namespace bench
