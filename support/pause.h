// SPDX-License-Identifier: MIT
#ifndef CORVEL_SUPPORT_PAUSE_H
#define CORVEL_SUPPORT_PAUSE_H

#include <cerrno>
#include <ctime>

namespace corvel {

/// Waits for less than a second, regardless of signals that are handled in that time.
inline void pause_milliseconds(long milliseconds) {
    timespec left = {0, milliseconds * 1'000'000};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

} // namespace corvel

#endif
