/* SPDX-License-Identifier: MIT */
/**
 * @file trap.h
 * @brief Traps: notifications to processes that monitor the device.
 *
 * On this device a trap's record is a string, padded with NULs. `traplog` receives traps and writes
 * them to a log.
 */
#ifndef TRAP_H
#define TRAP_H

#include "site.h"

enum { trap_size = CORVEL_TRAP_SIZE };

/** The log, one trap a line: "2026-01-31 12:00:00 text". */
#define TRAP_LOG "/var/log/traps.log"

/** The previous log: the log is renamed to this path when it has reached its size limit. */
#define OLD_TRAP_LOG "/var/log/traps.log.old"

enum {
    /** Size in bytes from which the log is renamed. */
    longest_trap_log = 65536,
    /** Bytes of a line's time, including the terminating NUL. */
    trap_time_size = sizeof "2026-01-31 12:00:00"
};

#ifdef __cplusplus
extern "C" {
#endif

/** Sends a trap: a string, truncated to trap_size - 1 characters. Failures are ignored, since the
 * reported event has taken place. */
void send_trap(const char *text);

#ifdef __cplusplus
}
#endif

#endif
