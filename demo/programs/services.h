/* SPDX-License-Identifier: MIT */
/**
 * @file services.h
 * @brief The programs that run as long as the device.
 */
#ifndef SERVICES_H
#define SERVICES_H

#include "site.h"

/** A service; `keep` or the program itself writes its process ID to /run/PROGRAM.pid. */
typedef struct service {
    const char *name; /**< For the user. */
    const char *program;
} service;

enum { service_count = 3 };
extern const service services[service_count];

/** What is known of a service. */
typedef struct service_state {
    int pid;           /**< 0 if the service is not running. */
    long long seconds; /**< For how long it has been running. */
} service_state;

/** Determines whether a service is running. */
service_state find_service(const service *found);

#endif
