/* SPDX-License-Identifier: MIT */
/*
 * What the emulator refuses and the tests need, put right between the programs and the C library: a
 * library of its own, so that a test's stand-in for the same function hands its calls on to here.
 * The file emulator-limits says what there is and why.
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

/* Finds the definition that one of these hides, once. */
#define NEXT_DEFINITION(function)                                                                  \
    static __typeof__(&(function)) next;                                                           \
    if (next == NULL) {                                                                            \
        void *const definition = dlsym(RTLD_NEXT, #function);                                      \
        memcpy(&next, &definition, sizeof definition);                                             \
    }

/* The protocols of the traps, and of messages that the emulator passes on as they are. */
enum { traps = 16, plain_messages = 15 };

int socket(int family, int type, int protocol) {
    NEXT_DEFINITION(socket);
    return next(family, type,
                family == AF_NETLINK && protocol == traps ? plain_messages : protocol);
}

/* Whether the files in /proc/net are a test's own. */
static int network_tables_are_covered(void) {
    struct statfs system;
    return statfs("/proc/self/net", &system) == 0 && system.f_type != PROC_SUPER_MAGIC;
}

/* By this other name the emulator shows the file as it is. */
static const char *real_path(const char *path) {
    return strcmp(path, "/proc/net/route") == 0 && network_tables_are_covered()
               ? "/proc/self/net/route"
               : path;
}

int open(const char *path, int flags, ...) {
    va_list values;
    NEXT_DEFINITION(open);
    va_start(values, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(values, mode_t) : 0;
    va_end(values);
    return next(real_path(path), flags, mode);
}
