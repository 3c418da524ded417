/* SPDX-License-Identifier: MIT */
/**
 * @file time_zone.h
 * @brief The time zone: a setting that takes effect in all times that pages show.
 *
 * A zone is stored as POSIX writes it, with its rule for summer time, so that the device needs no
 * database of zones. The configuration client copies the setting to a file in memory.
 */
#ifndef TIME_ZONE_H
#define TIME_ZONE_H

#include "site.h"

typedef struct time_zone {
    const char *rule;
    const char *places; /**< For the user. */
} time_zone;

enum { time_zone_count = 29 };
extern const time_zone time_zones[time_zone_count];

/** Makes the saved zone that of the program. Without one it is UTC. */
void use_time_zone(void);

/** Returns a message for the user unless the rule is that of a zone, or empty. */
const char *time_zone_complaint(const char *rule);

#endif
