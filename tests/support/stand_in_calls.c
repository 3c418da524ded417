/* SPDX-License-Identifier: MIT */
/* RTLD_NEXT, dladdr(), popen() and lockf() are only declared on request. */
#define _GNU_SOURCE

#include "tests/support/stand_in_calls.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <syslog.h>
#include <unistd.h>

struct stand_in_switch stand_in_switches[stand_in_call_count];
int stand_in_spare_c_library;
void (*stand_in_opened)(int descriptor, const char *path);
void (*stand_in_reached)(enum stand_in_call call);
int stand_in_no_empty_blocks;
int (*stand_in_system)(const char *command);
void (*stand_in_sync)(void);
void (*stand_in_syslog)(int priority, const char *message);
unsigned long stand_in_calls_to_signal;
int stand_in_signal = SIGKILL;

/* A stand-in forwards the call to the next definition in the program's search order: that of the C
 * library, or of a sanitizer loaded before it. */
#define NEXT_DEFINITION(name)                                                                      \
    static __typeof__(&name) next;                                                                 \
    if (next == NULL)                                                                              \
    find_next(#name, &next, sizeof next)

/* Volatile, since dlsym() is declared as a function that never calls back. */
static volatile int searching;

static void find_next(const char *name, void *pointer, size_t size) {
    void *definition;
    searching = 1;
    definition = dlsym(RTLD_NEXT, name);
    searching = 0;
    if (definition == NULL) {
        static const char message[] = "stand-in: no next definition\n";
        if (write(STDERR_FILENO, message, sizeof message - 1) < 0)
            _exit(126);
        _exit(126);
    }
    memcpy(pointer, &definition, size);
}

/* The dynamic linker may allocate during the search; it gets blocks of this arena, which are never
 * freed. */
static union {
    char bytes[65536];
    long double alignment;
} arena;
static size_t arena_used;

static void *from_arena(size_t size) {
    const size_t start = arena_used;
    if (size > sizeof arena.bytes - arena_used)
        return NULL;
    arena_used += (size + 15) / 16 * 16;
    return arena.bytes + start;
}

static int in_arena(const void *block) {
    const uintptr_t address = (uintptr_t)block;
    const uintptr_t start = (uintptr_t)arena.bytes;
    return address >= start && address < start + sizeof arena.bytes;
}

static void note(enum stand_in_call call) {
    ++stand_in_switches[call].seen;
    if (stand_in_reached != NULL)
        stand_in_reached(call);
    if (stand_in_calls_to_signal != 0 && call > call_free && --stand_in_calls_to_signal == 0)
        kill(getpid(), stand_in_signal);
}

static int fails(enum stand_in_call call) {
    struct stand_in_switch *const own = &stand_in_switches[call];
    note(call);
    if (own->fail_at == 0 || own->seen < own->fail_at ||
        (own->seen > own->fail_at && !own->keeps_failing))
        return 0;
    ++own->failed;
    errno = own->error;
    return 1;
}

/* Blocks that are allocated and not yet freed: a hash table with linear probing. A removed entry is
 * replaced by a mark, so that the entries after it are still found. */
enum { table_size = 1 << 18 };
static void *live_blocks[table_size];
static char removed_mark;
static size_t live_count;
static size_t entries_used;
static int tracking;

static size_t slot_of(const void *block) {
    return (size_t)(((uintptr_t)block >> 4) * 2654435761U) % table_size;
}

static void remember(void *block) {
    size_t slot = slot_of(block);
    if (!tracking || block == NULL)
        return;
    if (++entries_used > table_size / 2) {
        static const char message[] = "stand-in: too many blocks to record\n";
        if (write(STDERR_FILENO, message, sizeof message - 1) < 0)
            _exit(126);
        _exit(126);
    }
    while (live_blocks[slot] != NULL)
        slot = (slot + 1) % table_size;
    live_blocks[slot] = block;
    ++live_count;
}

static void cross_out(const void *block) {
    size_t slot = slot_of(block);
    if (live_count == 0 || block == NULL)
        return;
    for (; live_blocks[slot] != NULL; slot = (slot + 1) % table_size) {
        if (live_blocks[slot] == block) {
            live_blocks[slot] = &removed_mark;
            --live_count;
            return;
        }
    }
}

void stand_in_start_tracking(void) { tracking = 1; }

void stand_in_pause_tracking(void) { tracking = 0; }

void stand_in_stop_tracking(void) {
    tracking = 0;
    if (entries_used != 0)
        memset(live_blocks, 0, sizeof live_blocks);
    entries_used = 0;
    live_count = 0;
}

size_t stand_in_live_blocks(void) { return live_count; }

/* Whether a return address is in the C library. */
static int in_c_library(void *address) {
    static void *library;
    Dl_info place;
    if (library == NULL) {
        void *function;
        searching = 1;
        function = dlsym(RTLD_NEXT, "abs");
        if (function != NULL && dladdr(function, &place) != 0)
            library = place.dli_fbase;
        searching = 0;
    }
    return dladdr(address, &place) != 0 && place.dli_fbase == library;
}

/* An allocation function of the C library may call others by name: such a call is part of the one
 * already counted. */
static int within_allocation;

static int allocation_fails(enum stand_in_call call, void *caller) {
    const int armed =
        stand_in_switches[call].fail_at != 0 || stand_in_switches[call_allocation].fail_at != 0;
    if (armed && stand_in_spare_c_library && in_c_library(caller))
        return 0;
    const int one_of_all = fails(call_allocation);
    return fails(call) || one_of_all;
}

void *malloc(size_t size) {
    if (searching)
        return from_arena(size);
    NEXT_DEFINITION(malloc);
    if (within_allocation)
        return next(size);
    if (allocation_fails(call_malloc, __builtin_return_address(0)))
        return NULL;
    if (stand_in_no_empty_blocks && size == 0)
        return NULL;
    void *const block = next(size);
    remember(block);
    return block;
}

void *calloc(size_t count, size_t size) {
    /* The arena is initially zero, and each part of it is used once. */
    if (searching)
        return size != 0 && count > SIZE_MAX / size ? NULL : from_arena(count * size);
    NEXT_DEFINITION(calloc);
    if (allocation_fails(call_calloc, __builtin_return_address(0)))
        return NULL;
    if (stand_in_no_empty_blocks && (count == 0 || size == 0))
        return NULL;
    within_allocation = 1;
    void *const block = next(count, size);
    within_allocation = 0;
    remember(block);
    return block;
}

void *realloc(void *old, size_t size) {
    NEXT_DEFINITION(realloc);
    if (in_arena(old)) {
        const size_t room = (size_t)(arena.bytes + sizeof arena.bytes - (char *)old);
        void *const copy = malloc(size);
        if (copy != NULL)
            memcpy(copy, old, size < room ? size : room);
        return copy;
    }
    if (allocation_fails(call_realloc, __builtin_return_address(0)))
        return NULL;
    cross_out(old);
    within_allocation = 1;
    void *const block = next(old, size);
    within_allocation = 0;
    remember(block != NULL || size == 0 ? block : old);
    return block;
}

void free(void *block) {
    /* During the search, the dynamic linker may free the message of an earlier error. */
    if (searching || in_arena(block))
        return;
    NEXT_DEFINITION(free);
    if (within_allocation) {
        next(block);
        return;
    }
    note(call_free);
    cross_out(block);
    next(block);
}

/* Streams on which a call was made to fail: ferror() must report that. */
static FILE *failed_streams[16];

static int note_failure(FILE *stream) {
    const int error = errno;
    for (size_t i = 0; i < sizeof failed_streams / sizeof *failed_streams; ++i) {
        if (failed_streams[i] == NULL || failed_streams[i] == stream) {
            failed_streams[i] = stream;
            break;
        }
    }
    errno = error;
    return EOF;
}

static void forget_failure(const FILE *stream) {
    for (size_t i = 0; i < sizeof failed_streams / sizeof *failed_streams; ++i)
        if (failed_streams[i] == stream)
            failed_streams[i] = NULL;
}

int ferror(FILE *stream) {
    NEXT_DEFINITION(ferror);
    for (size_t i = 0; i < sizeof failed_streams / sizeof *failed_streams; ++i)
        if (failed_streams[i] == stream)
            return 1;
    return next(stream);
}

FILE *fopen(const char *path, const char *mode) {
    NEXT_DEFINITION(fopen);
    FILE *const stream = fails(call_fopen) ? NULL : next(path, mode);
    if (stream != NULL && stand_in_opened != NULL)
        stand_in_opened(fileno(stream), path);
    return stream;
}

FILE *fdopen(int descriptor, const char *mode) {
    NEXT_DEFINITION(fdopen);
    return fails(call_fdopen) ? NULL : next(descriptor, mode);
}

/* The stream is closed and its descriptor freed even if closing fails, as in the C library. */
int fclose(FILE *stream) {
    NEXT_DEFINITION(fclose);
    const int failing = fails(call_fclose);
    const int error = errno;
    forget_failure(stream);
    const int result = next(stream);
    if (!failing)
        return result;
    errno = error;
    return EOF;
}

int fflush(FILE *stream) {
    NEXT_DEFINITION(fflush);
    return fails(call_fflush) ? note_failure(stream) : next(stream);
}

char *fgets(char *buffer, int size, FILE *stream) {
    NEXT_DEFINITION(fgets);
    if (!fails(call_fgets))
        return next(buffer, size, stream);
    note_failure(stream);
    return NULL;
}

ssize_t getline(char **line, size_t *size, FILE *stream) {
    NEXT_DEFINITION(getline);
    return fails(call_getline) ? note_failure(stream) : next(line, size, stream);
}

int fgetc(FILE *stream) {
    NEXT_DEFINITION(fgetc);
    return fails(call_fgetc) ? note_failure(stream) : next(stream);
}

int getc(FILE *stream) { return fgetc(stream); }

size_t fread(void *buffer, size_t size, size_t count, FILE *stream) {
    NEXT_DEFINITION(fread);
    if (!fails(call_fread))
        return next(buffer, size, count, stream);
    note_failure(stream);
    return 0;
}

size_t fwrite(const void *buffer, size_t size, size_t count, FILE *stream) {
    NEXT_DEFINITION(fwrite);
    if (!fails(call_fwrite))
        return next(buffer, size, count, stream);
    note_failure(stream);
    return 0;
}

int fputs(const char *text, FILE *stream) {
    NEXT_DEFINITION(fputs);
    return fails(call_fputs) ? note_failure(stream) : next(text, stream);
}

int fputc(int character, FILE *stream) {
    NEXT_DEFINITION(fputc);
    return fails(call_fputc) ? note_failure(stream) : next(character, stream);
}

int putc(int character, FILE *stream) { return fputc(character, stream); }

__attribute__((format(printf, 2, 0))) static int print_on(FILE *stream, const char *format,
                                                          va_list values) {
    NEXT_DEFINITION(vfprintf);
    return next(stream, format, values);
}

__attribute__((format(printf, 2, 3))) int fprintf(FILE *stream, const char *format, ...) {
    va_list values;
    if (fails(call_fprintf))
        return note_failure(stream);
    va_start(values, format);
    const int result = print_on(stream, format, values);
    va_end(values);
    return result;
}

__attribute__((format(printf, 1, 2))) int printf(const char *format, ...) {
    va_list values;
    if (fails(call_printf))
        return note_failure(stdout);
    va_start(values, format);
    const int result = print_on(stdout, format, values);
    va_end(values);
    return result;
}

int puts(const char *text) {
    NEXT_DEFINITION(puts);
    return fails(call_puts) ? note_failure(stdout) : next(text);
}

int putchar(int character) {
    NEXT_DEFINITION(putchar);
    return fails(call_putchar) ? note_failure(stdout) : next(character);
}

int open(const char *path, int flags, ...) {
    NEXT_DEFINITION(open);
    va_list values;
    if (fails(call_open))
        return -1;
    va_start(values, flags);
    const int creates = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
    const mode_t mode = creates ? va_arg(values, mode_t) : 0;
    va_end(values);
    const int descriptor = next(path, flags, mode);
    if (descriptor >= 0 && stand_in_opened != NULL)
        stand_in_opened(descriptor, path);
    return descriptor;
}

int close(int descriptor) {
    NEXT_DEFINITION(close);
    const int failing = fails(call_close);
    const int error = errno;
    const int result = next(descriptor);
    if (!failing)
        return result;
    errno = error;
    return -1;
}

ssize_t read(int descriptor, void *buffer, size_t size) {
    NEXT_DEFINITION(read);
    return fails(call_read) ? -1 : next(descriptor, buffer, size);
}

ssize_t write(int descriptor, const void *buffer, size_t size) {
    NEXT_DEFINITION(write);
    return fails(call_write) ? -1 : next(descriptor, buffer, size);
}

int fstat(int descriptor, struct stat *status) {
    NEXT_DEFINITION(fstat);
    return fails(call_fstat) ? -1 : next(descriptor, status);
}

int fchmod(int descriptor, mode_t mode) {
    NEXT_DEFINITION(fchmod);
    return fails(call_fchmod) ? -1 : next(descriptor, mode);
}

int fchown(int descriptor, uid_t user, gid_t group) {
    NEXT_DEFINITION(fchown);
    return fails(call_fchown) ? -1 : next(descriptor, user, group);
}

int unlink(const char *path) {
    NEXT_DEFINITION(unlink);
    return fails(call_unlink) ? -1 : next(path);
}

int rename(const char *from, const char *to) {
    NEXT_DEFINITION(rename);
    return fails(call_rename) ? -1 : next(from, to);
}

int lockf(int descriptor, int command, off_t size) {
    NEXT_DEFINITION(lockf);
    return fails(call_lockf) ? -1 : next(descriptor, command, size);
}

FILE *popen(const char *command, const char *mode) {
    NEXT_DEFINITION(popen);
    return fails(call_popen) ? NULL : next(command, mode);
}

int pclose(FILE *stream) {
    NEXT_DEFINITION(pclose);
    const int failing = fails(call_pclose);
    const int error = errno;
    const int result = next(stream);
    if (!failing)
        return result;
    errno = error;
    return -1;
}

int system(const char *command) {
    NEXT_DEFINITION(system);
    if (fails(call_system))
        return -1;
    return stand_in_system != NULL ? stand_in_system(command) : next(command);
}

unsigned int sleep(unsigned int seconds) {
    NEXT_DEFINITION(sleep);
    return fails(call_sleep) ? 0 : next(seconds);
}

off_t lseek(int descriptor, off_t offset, int whence) {
    NEXT_DEFINITION(lseek);
    return fails(call_lseek) ? -1 : next(descriptor, offset, whence);
}

/* sync() cannot fail. */
void sync(void) {
    NEXT_DEFINITION(sync);
    note(call_sync);
    if (stand_in_sync != NULL)
        stand_in_sync();
    else
        next();
}

__attribute__((format(printf, 2, 0))) static void log_values(int priority, const char *format,
                                                             va_list values) {
    NEXT_DEFINITION(vsyslog);
    next(priority, format, values);
}

/* Nor can syslog(). */
__attribute__((format(printf, 2, 3))) void syslog(int priority, const char *format, ...) {
    char message[1024];
    va_list values;
    note(call_syslog);
    va_start(values, format);
    if (stand_in_syslog != NULL) {
        vsnprintf(message, sizeof message, format, values);
        stand_in_syslog(priority, message);
    } else {
        log_values(priority, format, values);
    }
    va_end(values);
}

int pipe2(int ends[2], int flags) {
    NEXT_DEFINITION(pipe2);
    return fails(call_pipe2) ? -1 : next(ends, flags);
}

int dup2(int descriptor, int copy) {
    NEXT_DEFINITION(dup2);
    return fails(call_dup2) ? -1 : next(descriptor, copy);
}

int setgroups(size_t count, const gid_t *groups) {
    NEXT_DEFINITION(setgroups);
    return fails(call_setgroups) ? -1 : next(count, groups);
}

int setresgid(gid_t real, gid_t effective, gid_t saved) {
    NEXT_DEFINITION(setresgid);
    return fails(call_setresgid) ? -1 : next(real, effective, saved);
}

int setresuid(uid_t real, uid_t effective, uid_t saved) {
    NEXT_DEFINITION(setresuid);
    return fails(call_setresuid) ? -1 : next(real, effective, saved);
}

int prctl(int option, ...) {
    NEXT_DEFINITION(prctl);
    unsigned long arguments[4];
    va_list values;
    if (fails(call_prctl))
        return -1;
    va_start(values, option);
    for (size_t i = 0; i < sizeof arguments / sizeof *arguments; ++i)
        arguments[i] = va_arg(values, unsigned long);
    va_end(values);
    return next(option, arguments[0], arguments[1], arguments[2], arguments[3]);
}
