/* SPDX-License-Identifier: MIT */
/*
 * Initialises a device without a boot environment: writes set A and a boot environment. A partition
 * that is not erased is left unchanged; if that of the boot environment is not erased, so are all
 * others.
 */
#include "firmware.h"

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

/* The device that contains the boot environment. */
#define ENVIRONMENT_DEVICE "/dev/mtdblock1"

static int is_erased(const unsigned char *bytes, size_t size) {
    for (size_t i = 0; i < size; i++)
        if (bytes[i] != 0xFF)
            return 0;
    return 1;
}

static int is_partition_erased(unsigned int number) {
    unsigned char bytes[4096];
    char path[32];
    ssize_t length;
    int erased = 1;
    snprintf(path, sizeof path, "/dev/mtdblock%u", number);
    const int device = open(path, O_RDONLY | O_CLOEXEC);
    if (device < 0)
        return 0;
    while (erased && (length = read(device, bytes, sizeof bytes)) != 0)
        erased = length > 0 && is_erased(bytes, (size_t)length);
    close(device);
    return erased;
}

/* Writes the first contents of a partition, if it is erased. */
static int fill(unsigned int number, const char *text) {
    char device[32];
    if (!is_partition_erased(number))
        return 1;
    snprintf(device, sizeof device, "/dev/mtdblock%u", number);
    return flash_write(device, text, 0, (unsigned int)strlen(text));
}

/* Starts with an empty list of variables: zeros only. */
static int write_environment(void) {
    memset(env_image_mem, 0, sizeof env_image_mem);
    set_env_ptr(env_image_mem);
    return set_env("bootdelay", "2") == 0 && set_env("baudrate", "115200") == 0 &&
           set_env("bootargs", "console=ttyS0,115200 root=31:2 rootfstype=squashfs ro") == 0 &&
           save_param(ENVIRONMENT_DEVICE, "bootparam", "0") == 0;
}

/* The environment is written last: if the program is interrupted, the next start repeats it. */
int main(void) {
    if (init_env(ENVIRONMENT_DEVICE) == CORVEL_ENV_UNREADABLE)
        return EXIT_FAILURE;
    if (!is_erased(env_image_mem, sizeof env_image_mem))
        return EXIT_SUCCESS;
    return fill(0, "Corvel R1 boot loader\n") &&
                   fill(root_partition(CORVEL_FIRMWARE_A), "Corvel R1 1.0.0\n") &&
                   fill(root_partition(CORVEL_FIRMWARE_A) + 1, "Corvel R1 kernel 1.0.0\n") &&
                   write_environment()
               ? EXIT_SUCCESS
               : EXIT_FAILURE;
}
