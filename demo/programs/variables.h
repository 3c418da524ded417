/* SPDX-License-Identifier: MIT */
/**
 * @file variables.h
 * @brief The variables of the boot environment.
 */
#ifndef VARIABLES_H
#define VARIABLES_H

#include "site.h"

/** The device with the boot environment. */
#define ENVIRONMENT_DEVICE "/dev/mtdblock1"

enum {
    /** The longest name and the longest value that a page sets, in bytes. */
    longest_variable_name = 32,
    longest_variable_value = 200
};

typedef struct variable {
    char name[64];     /**< Truncated to fit. */
    const char *value; /**< In the environment. */
} variable;

/** Reads the environment. Returns false if it is damaged or cannot be read. */
bool load_variables(void);

/**
 * Finds the next variable in the loaded environment.
 *
 * @param[in,out] position 0 for the first variable; receives the position of the next one.
 * @return false if there are no more.
 */
bool next_variable(size_t *position, variable *found);

/** Whether a variable decides what starts. Pages show such a variable, but do not change it. */
bool decides_start(const char *name);

/** Returns a message for the user if a page cannot change or add a variable of this name. */
const char *variable_name_complaint(const char *name);

#endif
