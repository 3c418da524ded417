/* SPDX-License-Identifier: MIT */
/*
 * Initialises a device whose flash is erased: writes set A and a boot environment. If the partition
 * of the boot environment is not erased, nothing is written.
 */
#include "firmware.h"

#include <stdlib.h>
#include <string.h>

static int is_erased(const unsigned char *bytes, size_t size) {
    for (size_t i = 0; i < size; i++)
        if (bytes[i] != 0xFF)
            return 0;
    return 1;
}

static int write_text(const char *device, const char *text) {
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
    return write_text("/dev/mtdblock0", "Corvel R1 boot loader\n") &&
                   write_text("/dev/mtdblock2", "Corvel R1 1.0.0\n") &&
                   write_text("/dev/mtdblock3", "Corvel R1 kernel 1.0.0\n") && write_environment()
               ? EXIT_SUCCESS
               : EXIT_FAILURE;
}
