/* SPDX-License-Identifier: MIT */
/**
 * @file trap.h
 * @brief Traps: notifications to processes that monitor the device.
 *
 * On this device a trap's record is a string, padded with NULs: the name of a kind of event, a
 * colon, a space and the text of log_event(). `traplog` receives traps and writes them to a log.
 */
#ifndef TRAP_H
#define TRAP_H

#include "site.h"

enum { trap_size = CORVEL_TRAP_SIZE };

/** The log, one trap a line: "2026-01-31T12:00:00Z text". The time is UTC. */
#define TRAP_LOG "/var/log/traps.log"

/** The previous log: the log is renamed to this path when it has reached its size limit. */
#define OLD_TRAP_LOG "/var/log/traps.log.old"

enum {
    /** Size in bytes from which the log is renamed. */
    longest_trap_log = 65536,
    /** Bytes of a line's time, including the terminating NUL. */
    trap_time_size = sizeof "2026-01-31T12:00:00Z"
};

/** The format of a line's time for strftime() and strptime(). */
#define TRAP_TIME_FORMAT "%Y-%m-%dT%H:%M:%SZ"

#ifdef __cplusplus
extern "C" {
#endif

/** Number of kinds of events. */
enum { event_kinds = SYSTEM_EVENT + 1 };

/** The names of the kinds, in the log and in the page's query. */
extern const char *const event_names[event_kinds];

#ifdef __cplusplus
}
#endif

#endif
