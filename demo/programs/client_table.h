/* SPDX-License-Identifier: MIT */
/**
 * @file client_table.h
 * @brief The devices of the user's network: what the DHCP server, the kernel and the user know of
 *        each, joined by hardware address.
 */
#ifndef CLIENT_TABLE_H
#define CLIENT_TABLE_H

#include <corvel.h>
#include <net/if.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <time.h>

/** The names that the user has given: the hardware address with colons, and the name. */
#define CLIENT_NAMES "/etc/config/clients.conf"

enum {
    /** Bytes of a name, without the terminating NUL. */
    longest_client_name = 40,
    /** Seconds since a client was seen last, up to which it is online. */
    online_seconds = 300
};

/** A client. Texts that are not known are empty. */
typedef struct client {
    uint64_t key;              /**< The hardware address as a number; 0 if it is not known. */
    char mac[CORVEL_MAC_SIZE]; /**< The hardware address with colons, in upper case. */
    char name[longest_client_name + 1];
    char host[CORVEL_LEASE_HOST_SIZE]; /**< The name that it has told the DHCP server. */
    char ipv4[64];                     /**< Addresses, separated by newlines. */
    char ipv6[192];
    char interface[IF_NAMESIZE];
    bool has_lease;
    bool never_ends;  /**< The lease is one without end. */
    time_t lease_end; /**< Of the IPv4 lease or, if there is none, of an IPv6 lease. */
    bool is_online;   /**< The kernel has heard of it in the last online_seconds. */
} client;

typedef struct client_table {
    client *rows;
    size_t count;
} client_table;

/** Reads all clients, in no particular order. The caller calls free_clients(). */
client_table read_clients(void);

void free_clients(client_table *table);

#endif
