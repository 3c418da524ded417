// SPDX-License-Identifier: MIT
#ifndef CORVEL_FIRMWARE_BOOT_PARAMETER_H
#define CORVEL_FIRMWARE_BOOT_PARAMETER_H

#include <cstdint>

namespace corvel {

/// Reads which set runs; the result leads from set A's partitions to those of the idle set.
std::uint32_t load_boot_parameter();

} // namespace corvel

#endif
