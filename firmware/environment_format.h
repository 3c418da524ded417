// SPDX-License-Identifier: MIT
// An image of the boot loader's environment: a CRC-32 and the data that it covers. The data is a
// list of entries `name=value`, each terminated by a NUL; an empty entry ends the list.
#ifndef CORVEL_FIRMWARE_ENVIRONMENT_FORMAT_H
#define CORVEL_FIRMWARE_ENVIRONMENT_FORMAT_H

#include <corvel.h>

#include <cstddef>
#include <span>

namespace corvel {

inline constexpr std::size_t environment_crc_size = 4;
inline constexpr std::size_t environment_data_size = CORVEL_ENV_DATA_SIZE;

using EnvironmentImage = std::span<unsigned char, CORVEL_ENV_SIZE>;

/// The CRC, a big-endian word.
constexpr std::span<unsigned char, environment_crc_size> environment_crc(EnvironmentImage image) {
    return image.first<environment_crc_size>();
}

constexpr std::span<unsigned char, environment_data_size> environment_data(EnvironmentImage image) {
    return image.last<environment_data_size>();
}

} // namespace corvel

#endif
