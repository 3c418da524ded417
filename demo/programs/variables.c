/* SPDX-License-Identifier: MIT */
#define _GNU_SOURCE
#include "variables.h"

#include <string.h>

bool load_variables(void) {
    const int output = mute_output(); /* init_env() prints if the environment is damaged */
    const int state = init_env(ENVIRONMENT_DEVICE);
    unmute_output(output);
    return state == CORVEL_ENV_GOOD;
}

bool next_variable(size_t *position, variable *found) {
    const char *list = (const char *)env_image_mem + CORVEL_ENV_SIZE - CORVEL_ENV_DATA_SIZE;
    while (*position < CORVEL_ENV_DATA_SIZE) {
        const char *entry = list + *position;
        const size_t length = strnlen(entry, CORVEL_ENV_DATA_SIZE - *position);
        const char *equals = memchr(entry, '=', length);
        *position += length + 1;
        if (length == 0 || *position > CORVEL_ENV_DATA_SIZE)
            return false; /* the end of the list, or a last entry without an end */
        if (equals) {
            snprintf(found->name, sizeof found->name, "%.*s", (int)(equals - entry), entry);
            found->value = equals + 1;
            return true;
        }
    }
    return false;
}

bool decides_start(const char *name) {
    static const char *const names[] = {"bootargs",   "bootcmd",    "bootparam",
                                        "firmware_a", "firmware_b", NULL};
    return corvel_check_choice(name, names, NULL) == NULL;
}

const char *variable_name_complaint(const char *name) {
    static const char allowed[] =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_.-";
    const size_t length = name ? strlen(name) : 0;
    if (length == 0 || length > longest_variable_name || strspn(name, allowed) != length)
        return "Use 1 to 32 letters, digits, hyphens, dots and underscores.";
    return decides_start(name) ? "This variable decides what starts. Only an upgrade changes it."
                               : NULL;
}
