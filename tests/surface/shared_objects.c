/* SPDX-License-Identifier: MIT */
/*
 * A CGI program that shares the data objects `bootparam` and `env_image_mem` with the library: each
 * reads what the other writes, whether the program is position-independent or not. It exits with
 * status 1 at the first failed expectation.
 *
 * usage: shared_objects ENVIRONMENT, a file with a valid image that contains bootparam=1 and ends
 * with 'E'
 */
#define _GNU_SOURCE
#include <corvel.h>

#include <fcntl.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#define EXPECT(condition)                                                                          \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition);                        \
            exit(1);                                                                               \
        }                                                                                          \
    } while (0)

static const char *environment;

/* Opens a file in place of the device that contains the environment. */
int open(const char *path, int flags, ...) {
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0) {
        va_list values;
        va_start(values, flags);
        mode = va_arg(values, mode_t);
        va_end(values);
    }
    if (strcmp(path, "/dev/mtdblock1") == 0)
        path = environment;
    return (int)syscall(SYS_openat, AT_FDCWD, path, flags, mode);
}

/* Writes nothing to the machine's log. */
void syslog(int priority, const char *format, ...);
void syslog(int priority, const char *format, ...) { (void)priority, (void)format; }

/* Loads the file as the current image and returns the value of its variable. */
static char stored_set(void) {
    const char *value;
    EXPECT(init_env(environment) == 0);
    value = get_env("bootparam");
    EXPECT(value != NULL && value[1] == '\0');
    return *value;
}

static void read_what_the_library_writes(void) {
    EXPECT(bootparam == 0);
    EXPECT(env_image_mem[0] == 0 && env_image_mem[CORVEL_ENV_SIZE - 1] == 0);
    EXPECT(get_bootparam() == 0);
    EXPECT(bootparam == 1);
    EXPECT(memcmp(env_image_mem + 4, "bootparam=1", 12) == 0);
    EXPECT(env_image_mem[CORVEL_ENV_SIZE - 1] == 'E');
    EXPECT((unsigned char *)get_env("bootparam") == env_image_mem + 4 + 10);
}

static void write_what_the_library_reads(void) {
    EXPECT(save_bootparam() == 0);
    EXPECT(stored_set() == '0');
    bootparam = 0;
    EXPECT(save_bootparam() == 0);
    EXPECT(stored_set() == '1');
    /* The library reads the variables that the program wrote; the CRC covers the last byte. */
    memcpy(env_image_mem + 4, "program=1\0", 11);
    env_image_mem[CORVEL_ENV_SIZE - 1] = 'P';
    EXPECT(strcmp(get_env("program"), "1") == 0);
    EXPECT(save_param(environment, "saved", "yes") == 0);
    memset(env_image_mem, 0, CORVEL_ENV_SIZE);
    EXPECT(init_env(environment) == 0);
    EXPECT(env_image_mem[CORVEL_ENV_SIZE - 1] == 'P');
    EXPECT(memcmp(env_image_mem + 4, "program=1\0saved=yes\0", 21) == 0);
}

int main(int argc, char **argv) {
    if (argc != 2)
        return 2;
    environment = argv[1];
    read_what_the_library_writes();
    write_what_the_library_reads();
    return 0;
}
