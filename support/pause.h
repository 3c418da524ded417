// SPDX-License-Identifier: MIT
#ifndef CORVEL_SUPPORT_PAUSE_H
#define CORVEL_SUPPORT_PAUSE_H

#include <cerrno>
#include <ctime>

namespace corvel {

/// Waits for up to a second, however many signals are handled meanwhile.
inline void pause_milliseconds(long milliseconds) {
    timespec left = {0, milliseconds * 1'000'000};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

} // namespace corvel

#endif
