/* SPDX-License-Identifier: MIT */
/**
 * The C library's functions that a test program stands in for, and the switches of the stand-ins.
 * Tests use them through stand_in.h.
 *
 * The stand-ins are C, not C++: there the definitions agree with every C library's declarations,
 * whatever exception specifications those carry.
 */
#ifndef CORVEL_TESTS_STAND_IN_CALLS_H
#define CORVEL_TESTS_STAND_IN_CALLS_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

enum stand_in_call {
    /** malloc, calloc and realloc counted together. */
    call_allocation,
    call_malloc,
    call_calloc,
    call_realloc,
    call_free,
    call_fopen,
    call_fdopen,
    call_fclose,
    call_fflush,
    call_fgets,
    call_getline,
    call_fgetc,
    call_fread,
    call_fwrite,
    call_fputs,
    call_fputc,
    call_fprintf,
    call_printf,
    call_puts,
    call_putchar,
    call_open,
    call_close,
    call_read,
    call_write,
    call_fstat,
    call_fchmod,
    call_fchown,
    call_unlink,
    call_rename,
    call_lockf,
    call_popen,
    call_pclose,
    call_system,
    call_sleep,
    call_lseek,
    call_sync,
    call_syslog,
    stand_in_call_count
};

struct stand_in_switch {
    unsigned long seen;    /**< The calls since the program started. */
    unsigned long fail_at; /**< The call (as counted by `seen`) that fails; 0 means none. */
    int keeps_failing;     /**< All later calls fail as well. */
    int error;             /**< What errno becomes. */
    unsigned long failed;  /**< The calls that failed. */
};

extern struct stand_in_switch stand_in_switches[stand_in_call_count];

/** Allocations made inside the C library, by fopen for example, are neither counted nor failed. */
extern int stand_in_spare_c_library;

/** What is told of each descriptor that open() or fopen() returned, where it is not null. */
extern void (*stand_in_opened)(int descriptor, const char *path);

/** Where it is not 0, allocating no bytes gives a null pointer, as in some C libraries. */
extern int stand_in_no_empty_blocks;

/** What is called instead of system() where it is not null. */
extern int (*stand_in_system)(const char *command);

/** What is called instead of sync() where it is not null. */
extern void (*stand_in_sync)(void);

/** What is given each message to the system log, formatted, where it is not null: the log itself
 * gets nothing then. */
extern void (*stand_in_syslog)(int priority, const char *message);

/** Where it is not 0, the call that makes it 0 sends stand_in_signal to the process before it has
 * any effect. Calls that only allocate or free memory are not counted. */
extern unsigned long stand_in_calls_to_signal;
/** SIGKILL, as if the device lost its power there, unless it is changed. */
extern int stand_in_signal;

/** Remembers each block that is allocated from now on. */
void stand_in_start_tracking(void);
/** Remembers no further blocks; those remembered are still crossed out when they are freed. */
void stand_in_pause_tracking(void);
/** Forgets all blocks. */
void stand_in_stop_tracking(void);
/** The number of remembered blocks that are not freed. */
size_t stand_in_live_blocks(void);

#ifdef __cplusplus
}
#endif

#endif
