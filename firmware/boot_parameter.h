// SPDX-License-Identifier: MIT
#ifndef CORVEL_FIRMWARE_BOOT_PARAMETER_H
#define CORVEL_FIRMWARE_BOOT_PARAMETER_H

#include <cstdint>

namespace corvel {

/// By running set: what leads from set A's partitions (mtd 2 and 3) to the idle set's.
inline constexpr std::uint32_t bootparam_mtd_shift[] = {2, 0};

/// Reads which set runs; the result leads from set A's partitions to those of the idle set.
std::uint32_t load_boot_parameter();

} // namespace corvel

#endif
