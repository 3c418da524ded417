/* SPDX-License-Identifier: MIT */
/**
 * The functions of the C library that test programs replace, and the switches of the replacements
 * (stand-ins). Tests use them through stand_in.h.
 *
 * The stand-ins are C, not C++, so that the definitions agree with the declarations of every C
 * library, whether or not they say that a function throws no exception.
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
    call_pipe2,
    call_dup2,
    call_setgroups,
    call_setresgid,
    call_setresuid,
    call_prctl,
    stand_in_call_count
};

struct stand_in_switch {
    unsigned long seen;    /**< Number of calls since the program started. */
    unsigned long fail_at; /**< Number of the call (counted by `seen`) that fails; 0 means none. */
    int keeps_failing;     /**< Whether all later calls fail too. */
    int error;             /**< The value of errno after a failure. */
    unsigned long failed;  /**< Number of calls that failed. */
};

extern struct stand_in_switch stand_in_switches[stand_in_call_count];

/** If not 0, allocations inside the C library, for example by fopen, are neither counted nor
 * failed. */
extern int stand_in_spare_c_library;

/** If not null, called for each descriptor that open() or fopen() opens. */
extern void (*stand_in_opened)(int descriptor, const char *path);

/** If not null, called by each call before it has any effect. */
extern void (*stand_in_reached)(enum stand_in_call call);

/** If not 0, allocating zero bytes returns a null pointer, as in some C libraries. */
extern int stand_in_no_empty_blocks;

/** If not null, called instead of system(). */
extern int (*stand_in_system)(const char *command);

/** If not null, called instead of sync(). */
extern void (*stand_in_sync)(void);

/** If not null, called with each formatted message instead of writing it to the system log. */
extern void (*stand_in_syslog)(int priority, const char *message);

/** If not 0, decremented by each call; the call that makes it 0 sends stand_in_signal to the
 * process before it has any effect. Calls that only allocate or free memory are not counted. */
extern unsigned long stand_in_calls_to_signal;
/** SIGKILL by default, as if the device lost power. */
extern int stand_in_signal;

/** Starts recording allocated blocks. */
void stand_in_start_tracking(void);
/** Stops recording allocated blocks; recorded blocks are still removed when they are freed. */
void stand_in_pause_tracking(void);
/** Removes all recorded blocks. */
void stand_in_stop_tracking(void);
/** The number of recorded blocks that have not been freed. */
size_t stand_in_live_blocks(void);

#ifdef __cplusplus
}
#endif

#endif
