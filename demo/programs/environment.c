/* SPDX-License-Identifier: MIT */
/*
 * Keeps a copy of the boot environment's variables among the settings, and restores it. The flash
 * contains the environment once: if the power is cut while it is written, its CRC is wrong. The
 * boot loader then starts set A or, if that is damaged, set B. The restored environment selects the
 * set that is running, so that the other one can be overwritten by an upgrade.
 *
 * Runs at each start, before anything changes the environment. The copy is written only if the
 * variables have changed.
 */
#define _GNU_SOURCE
#include <corvel.h>

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#define ENVIRONMENT "/dev/mtdblock1"
#define COPY "/etc/config/environment"
#define NEW_COPY COPY ".new"
#define COMMAND_LINE "/run/cmdline"

static const unsigned char *variables(void) {
    return env_image_mem + CORVEL_ENV_SIZE - CORVEL_ENV_DATA_SIZE;
}

/* Returns the length of a list of variables, with the NUL that ends it; 0 if it has no end. */
static size_t list_length(const unsigned char *list, size_t size) {
    for (size_t i = 0; i + 1 < size; i++)
        if (list[i] == '\0' && list[i + 1] == '\0')
            return i + 2;
    return 0;
}

static size_t read_copy(unsigned char *list, size_t size) {
    const int file = open(COPY, O_RDONLY | O_CLOEXEC);
    const ssize_t length = file >= 0 ? read(file, list, size) : -1;
    close(file);
    return length > 0 && list_length(list, (size_t)length) == (size_t)length ? (size_t)length : 0;
}

static int keep(void) {
    static unsigned char copy[CORVEL_ENV_DATA_SIZE];
    const size_t length = list_length(variables(), CORVEL_ENV_DATA_SIZE);
    if (length == 0)
        return EXIT_FAILURE;
    if (read_copy(copy, sizeof copy) == length && memcmp(copy, variables(), length) == 0)
        return EXIT_SUCCESS;
    const int file = open(NEW_COPY, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (file < 0)
        return EXIT_FAILURE;
    const int is_written = write(file, variables(), length) == (ssize_t)length && fsync(file) == 0;
    if (close(file) != 0 || !is_written || rename(NEW_COPY, COPY) != 0) {
        unlink(NEW_COPY);
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}

/* Without a copy, the start after the first one was interrupted: the environment is erased, so that
 * it is initialised again. Variables that are complete are left to be saved with a valid CRC. */
static int erase(void) {
    if (list_length(variables(), CORVEL_ENV_DATA_SIZE) > 2)
        return EXIT_FAILURE;
    memset(env_image_mem, 0xFF, sizeof env_image_mem);
    return flash_write(ENVIRONMENT, (const char *)env_image_mem, 0, sizeof env_image_mem)
               ? EXIT_SUCCESS
               : EXIT_FAILURE;
}

/* Returns the value of bootparam that selects the running set; null if that is unknown. */
static const char *running_set(void) {
    static const char *const signatures[] = {"root", "rfs1"};
    static const char *const values[] = {"0", "1"};
    static char line[4096];
    const char *root = NULL;
    const ssize_t size = open_read_close(COMMAND_LINE, line, sizeof line - 1);
    line[size > 0 ? size : 0] = '\0';
    for (const char *next = line; (next = strstr(next, "root=31:")) != NULL; next++)
        root = next;
    for (size_t set = 0; root && set < 2; set++)
        if (strtol(root + strlen("root=31:"), NULL, 10) ==
            get_tbl_ids(get_tbl_id((const unsigned char *)signatures[set])))
            return values[set];
    return NULL;
}

static int restore(void) {
    static unsigned char copy[CORVEL_ENV_DATA_SIZE];
    const size_t length = read_copy(copy, sizeof copy);
    if (length == 0)
        return erase();
    memset(env_image_mem, 0, sizeof env_image_mem);
    memcpy(env_image_mem + CORVEL_ENV_SIZE - CORVEL_ENV_DATA_SIZE, copy, length);
    set_env_ptr(env_image_mem);
    const char *const running = running_set();
    const char *const kept = get_env("bootparam");
    return save_param(ENVIRONMENT, "bootparam",
                      running ? running
                      : kept  ? kept
                              : "0") == 0 &&
                   init_env(ENVIRONMENT) == CORVEL_ENV_GOOD
               ? EXIT_SUCCESS
               : EXIT_FAILURE;
}

int main(void) {
    const int state = init_env(ENVIRONMENT);
    return state == CORVEL_ENV_GOOD      ? keep()
           : state == CORVEL_ENV_BAD_CRC ? restore()
                                         : EXIT_FAILURE;
}
