/* SPDX-License-Identifier: MIT */
/*
 * Corrects functions of the C library that the tests need and the emulator does not support. This
 * is a separate library, so that a test's stand-in for the same function passes its calls on to
 * this one. The file emulator-limits describes each case.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <stdarg.h>
#include <stddef.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/vfs.h>

/* Finds the next definition of a function, once. */
#define NEXT_DEFINITION(function)                                                                  \
    static __typeof__(&(function)) next;                                                           \
    if (next == NULL) {                                                                            \
        void *const definition = dlsym(RTLD_NEXT, #function);                                      \
        memcpy(&next, &definition, sizeof definition);                                             \
    }

/* The protocol of the traps, and a protocol whose messages the emulator passes on unchanged. */
enum { traps = 16, plain_messages = 15 };

int socket(int family, int type, int protocol) {
    NEXT_DEFINITION(socket);
    return next(family, type,
                family == AF_NETLINK && protocol == traps ? plain_messages : protocol);
}

/* Whether a test has mounted its own files over /proc/net. */
static int network_tables_are_covered(void) {
    struct statfs system;
    return statfs("/proc/self/net", &system) == 0 && system.f_type != PROC_SUPER_MAGIC;
}

/* The emulator passes the file on unchanged under this other name. */
static const char *real_path(const char *path) {
    return strcmp(path, "/proc/net/route") == 0 && network_tables_are_covered()
               ? "/proc/self/net/route"
               : path;
}

int open(const char *path, int flags, ...) {
    va_list values;
    NEXT_DEFINITION(open);
    va_start(values, flags);
    const int creates = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
    const mode_t mode = creates ? va_arg(values, mode_t) : 0;
    va_end(values);
    return next(real_path(path), flags, mode);
}
