/* SPDX-License-Identifier: MIT */
/**
 * @file trap.h
 * @brief What is told, as traps, to whoever watches the device.
 *
 * On this device a trap's record is a text with zeros behind it. `traplog` listens and writes what
 * it hears into a log.
 */
#ifndef TRAP_H
#define TRAP_H

#include "site.h"

enum { trap_size = 156 };

/** The log, one trap a line: "2026-01-31 12:00:00 text". */
#define TRAP_LOG "/var/log/traps.log"

/** What the log becomes when it has grown too long. */
#define OLD_TRAP_LOG "/var/log/traps.log.old"

enum {
    /** What the log may grow to. */
    longest_trap_log = 65536,
    /** Bytes of a line's time, terminator included. */
    trap_time_size = sizeof "2026-01-31 12:00:00"
};

#ifdef __cplusplus
extern "C" {
#endif

/** Sends a trap: a text of at most 155 characters; more are cut off. That nobody listens, or that
 * it can't be sent, is no reason not to do what is told about. */
void send_trap(const char *text);

#ifdef __cplusplus
}
#endif

#endif
