// SPDX-License-Identifier: MIT
#include "page/boot.h"

#include <fcntl.h>

#include "support/descriptor.h"

namespace corvel {

bool read_boot_id(BootId &id) {
    const Descriptor file(open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC));
    return file && read_fully(file.get(), id.text, sizeof id.text) == sizeof id.text;
}

timespec boot_time() {
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return now;
}

std::uint32_t boot_seconds() { return static_cast<std::uint32_t>(boot_time().tv_sec); }

} // namespace corvel
