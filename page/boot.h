// SPDX-License-Identifier: MIT
// Times that stay right if the wall clock is set, which happens on a router soon after its start:
// they count from the start of the device and are valid together with its boot identifier only.
#ifndef CORVEL_PAGE_BOOT_H
#define CORVEL_PAGE_BOOT_H

#include <cstdint>
#include <ctime>

namespace corvel {

/// The identifier that the kernel chooses at each start of the device.
struct BootId {
    char text[36];

    bool operator==(const BootId &) const = default;
};

/// False if it cannot be read.
bool read_boot_id(BootId &id);

/// The time since the start of the device.
timespec boot_time();

/// Whole seconds since the start of the device.
std::uint32_t boot_seconds();

} // namespace corvel

#endif
