// SPDX-License-Identifier: MIT
#ifndef CORVEL_FIRMWARE_BOOT_PARAMETER_H
#define CORVEL_FIRMWARE_BOOT_PARAMETER_H

#include <cstdint>

namespace corvel {

/// By running set: the distance from the partitions of set A (mtd 2 and 3) to those of the idle
/// set.
inline constexpr std::uint32_t bootparam_mtd_shift[] = {2, 0};

/// Reads which set runs into `bootparam`. Returns the distance from the partitions of set A to
/// those of the idle set; 0, and `bootparam` unchanged, if it is unknown.
std::uint32_t load_boot_parameter();

} // namespace corvel

#endif
