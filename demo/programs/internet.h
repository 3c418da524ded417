/* SPDX-License-Identifier: MIT */
/**
 * @file internet.h
 * @brief The connection to the provider, as far as the router can see it.
 */
#ifndef INTERNET_H
#define INTERNET_H

#include <corvel.h>
#include <corvel_page.h>

/** The interface to the provider. */
#define PROVIDER "wan0"

typedef struct internet {
    const char *state;                 /**< "Connected", or "Not connected" with the reason. */
    char since[CORVEL_TIME_TEXT_SIZE]; /**< When the address was set, to the minute; or empty. */
    char ipv4[CORVEL_IPV4_SIZE];       /**< Of the interface; empty if it has none. */
    char ipv6[CORVEL_IPV6_SIZE];
    char gateway[CORVEL_IPV4_SIZE]; /**< Empty without a default route. */
} internet;

internet read_internet(void);

/** Replaces the library's placeholder for a missing address by an empty string. Returns the text.
 */
char *clear_missing(char *text, const char *placeholder);

#endif
