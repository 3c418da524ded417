/* SPDX-License-Identifier: MIT */
/*
 * Each source adds rows of its own: the leases, the kernel's neighbours by get_arp_cache(), and by
 * rtnetlink, which also has those of IPv6 and the time at which each was seen. Rows with the same
 * hardware address are then joined. A lease of an IPv6 address does not name the hardware address.
 * It is found by the address among the neighbours, by the lease's identifier, which most clients
 * derive from the hardware address, or by the host name.
 */
#define _GNU_SOURCE
#include "client_table.h"

#include "internet.h"
#include "kernel_table.h"

#include <arpa/inet.h>
#include <corvel_page.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

/* A lease that never ends has the expiry 0, which is more than ten years ago. */
static const long never = -315360000;

/* Rows. */

static client *add_row(client_table *table) {
    /* There is room for the next row unless the number of rows is a power of two, or 0. */
    if ((table->count & (table->count - 1)) == 0)
        table->rows = xrealloc(table->rows, (2 * table->count + 1) * sizeof *table->rows);
    client *added = &table->rows[table->count++];
    memset(added, 0, sizeof *added);
    return added;
}

/* The last four bytes of the address are the highest of the key: most identifiers of IPv6 leases
 * are these bytes, so that a table that is sorted by key can be searched for both. */
static void set_mac(client *row, const unsigned char mac[6]) {
    row->key = 0;
    for (int i = 0; i < 6; i++)
        row->key = row->key << 8 | mac[(i + 2) % 6];
    snprintf(row->mac, sizeof row->mac, "%02X:%02X:%02X:%02X:%02X:%02X", mac[0], mac[1], mac[2],
             mac[3], mac[4], mac[5]);
}

static bool has_address(const char *list, const char *address) {
    const size_t length = strlen(address);
    for (const char *at = list; at; at = strchr(at, '\n')) {
        at += *at == '\n';
        if (strncmp(at, address, length) == 0 && (at[length] == '\0' || at[length] == '\n'))
            return true;
    }
    return false;
}

/* Adds an address to a list, if it is not in it and there is room. */
static void add_address(char *list, size_t size, const char *address) {
    const size_t used = strlen(list);
    if (*address && !has_address(list, address) && used + strlen(address) + 2 <= size)
        snprintf(list + used, size - used, "%s%s", used ? "\n" : "", address);
}

static void copy_if_empty(char *to, const char *from, size_t size) {
    if (!*to)
        safe_strncpy(to, from, size);
}

static void join(client *to, const client *from) {
    copy_if_empty(to->name, from->name, sizeof to->name);
    copy_if_empty(to->host, from->host, sizeof to->host);
    copy_if_empty(to->interface, from->interface, sizeof to->interface);
    /* An address in use counts, and one that was leased or is the only one. */
    if (!*to->ipv4 || from->is_online || from->has_lease)
        add_address(to->ipv4, sizeof to->ipv4, from->ipv4);
    add_address(to->ipv6, sizeof to->ipv6, from->ipv6);
    if (!to->has_lease && from->has_lease) {
        to->has_lease = true;
        to->never_ends = from->never_ends;
        to->lease_end = from->lease_end;
    }
    to->is_online |= from->is_online;
}

/* Leases. */

static void set_end(client *row, const char *seconds, time_t now) {
    const long left = strtol(seconds, NULL, 10);
    row->has_lease = true;
    row->never_ends = left < never;
    row->lease_end = now + left;
}

/* Reads the leases of a file within one second, so that their ends are exact. */
static lease_entry *read_within_second(time_t *now) {
    for (int tries = 3;; tries--) {
        lease_entry *leases = NULL;
        *now = time(NULL);
        get_leases(&leases);
        if (tries == 0 || time(NULL) == *now)
            return leases;
        free_leaselist(&leases);
    }
}

/* The DHCP server writes an asterisk instead of an unknown name, and a line about itself without an
 * address. The leases of IPv6 addresses, whose identifier is kept as the key, are rows of their
 * own. */
static void read_leases(client_table *table, client_table *six) {
    time_t now = 0;
    lease_entry *leases = read_within_second(&now);
    for (const lease_entry *each = leases; each; each = each->next) {
        unsigned char mac[6];
        if (!*each->ip)
            continue;
        const bool is_six = strchr(each->ip, ':') != NULL;
        client *row = add_row(is_six ? six : table);
        if (is_six)
            row->key = (uint64_t)strtoul(each->mac, NULL, 10) << 16;
        else if (!corvel_check_mac(each->mac, mac))
            set_mac(row, mac);
        safe_strncpy(is_six ? row->ipv6 : row->ipv4, each->ip, sizeof row->ipv4);
        if (strcmp(each->hostname, "*") != 0)
            safe_strncpy(row->host, each->hostname, sizeof row->host);
        set_end(row, each->expires, now);
    }
    free_leaselist(&leases);
}

/* Neighbours. */

/* A neighbour's record does not name its interface: the neighbours of each are read separately. */
static void read_arp_cache(client_table *table) {
    struct if_nameindex *interfaces = if_nameindex();
    for (const struct if_nameindex *each = interfaces; each && each->if_name; each++) {
        lease_entry *found = NULL;
        if (strcmp(each->if_name, PROVIDER) != 0)
            get_arp_cache(each->if_name, &found);
        for (const lease_entry *one = found; one; one = one->next) {
            client *row = add_row(table);
            unsigned char mac[6] = {0};
            str2byte(one->mac, CORVEL_MAC_STRIPPED_SIZE - 1, mac);
            set_mac(row, mac);
            safe_strncpy(row->ipv4, one->ip, sizeof row->ipv4);
            safe_strncpy(row->interface, each->if_name, sizeof row->interface);
        }
        free_leaselist(&found);
    }
    if (interfaces)
        if_freenameindex(interfaces);
}

static bool is_seen(const struct nlmsghdr *entry, unsigned state) {
    const struct nda_cacheinfo *ages =
        kernel_attribute(entry, sizeof(struct ndmsg), NDA_CACHEINFO, sizeof *ages);
    if (state & (NUD_REACHABLE | NUD_DELAY | NUD_PROBE))
        return true;
    return state & NUD_STALE && ages &&
           ages->ndm_confirmed < (unsigned)online_seconds * (unsigned)sysconf(_SC_CLK_TCK);
}

/* Link-local addresses are not shown, but their owners are seen, too. On a bridge, the router can
 * be its own neighbour. */
static void take_neighbour(void *context, const struct nlmsghdr *entry) {
    const struct ndmsg *header = kernel_entry(entry);
    const bool is_six = header->ndm_family == AF_INET6;
    const unsigned char *mac = kernel_attribute(entry, sizeof *header, NDA_LLADDR, 6);
    const unsigned char *address =
        kernel_attribute(entry, sizeof *header, NDA_DST, is_six ? 16 : 4);
    char name[IF_NAMESIZE] = "";
    char own[CORVEL_MAC_SIZE];
    client seen = {.is_online = true};
    if (!mac || !address || !if_indextoname((unsigned)header->ndm_ifindex, name) ||
        strcmp(name, PROVIDER) == 0 || !is_seen(entry, header->ndm_state))
        return;
    set_mac(&seen, mac);
    if (strcasecmp(getHWaddr(name, own), seen.mac) == 0)
        return;
    safe_strncpy(seen.interface, name, sizeof seen.interface);
    if (!is_six)
        inet_ntop(AF_INET, address, seen.ipv4, sizeof seen.ipv4);
    else if (!(address[0] == 0xFE && (address[1] & 0xC0U) == 0x80))
        inet_ntop(AF_INET6, address, seen.ipv6, sizeof seen.ipv6);
    *add_row(context) = seen;
}

/* Joining. */

static int order_of(uint64_t one, uint64_t other) { return (one > other) - (one < other); }

/* Rows without a hardware address are not joined. Those with a lease come first: their address is
 * the one that is shown first. */
static int by_key_and_lease(const void *one, const void *other) {
    const int order = order_of(((const client *)one)->key, ((const client *)other)->key);
    return order ? order : ((const client *)other)->has_lease - ((const client *)one)->has_lease;
}

static void sort(client_table *table, int (*compare)(const void *, const void *)) {
    if (table->count > 0)
        qsort(table->rows, table->count, sizeof *table->rows, compare);
}

static void join_rows(client_table *table) {
    size_t kept = 0;
    sort(table, by_key_and_lease);
    for (size_t i = 0; i < table->count; i++) {
        if (kept > 0 && table->rows[i].key != 0 && table->rows[i].key == table->rows[kept - 1].key)
            join(&table->rows[kept - 1], &table->rows[i]);
        else
            table->rows[kept++] = table->rows[i];
    }
    table->count = kept;
}

/* IPv6 leases. */

/* A lease's words are truncated at 31 characters. */
enum { longest_lease_word = 31 };

static int by_ipv6(const void *one, const void *other) {
    return strncmp(((const client *)one)->ipv6, ((const client *)other)->ipv6, longest_lease_word);
}

static int by_identifier(const void *one, const void *other) {
    return order_of(((const client *)one)->key >> 16, ((const client *)other)->key >> 16);
}

static int by_host(const void *one, const void *other) {
    return strcasecmp(((const client *)one)->host, ((const client *)other)->host);
}

/* Sets the hardware address of those leases that have none yet and equal a row of the table. */
static void find_owners(client_table *leases, client_table *table,
                        int (*compare)(const void *, const void *)) {
    sort(table, compare);
    for (size_t i = 0; i < leases->count && table->count > 0; i++) {
        client *lease = &leases->rows[i];
        if (*lease->mac || (compare == by_host && !*lease->host))
            continue;
        const client *owner =
            bsearch(lease, table->rows, table->count, sizeof *table->rows, compare);
        if (!owner || owner->key == 0)
            continue;
        lease->key = owner->key;
        memcpy(lease->mac, owner->mac, sizeof lease->mac);
        if (compare == by_ipv6)
            memcpy(lease->ipv6, owner->ipv6, sizeof lease->ipv6); /* which is not truncated */
    }
}

static void add_ipv6_leases(client_table *table, client_table *leases) {
    find_owners(leases, table, by_ipv6);
    find_owners(leases, table, by_identifier);
    find_owners(leases, table, by_host);
    for (size_t i = 0; i < leases->count; i++) {
        client *lease = &leases->rows[i];
        if (!*lease->mac)
            lease->key = 0;
        if (strlen(lease->ipv6) == longest_lease_word)
            safe_strncpy(lease->ipv6 + longest_lease_word, "...", 4);
        *add_row(table) = *lease;
    }
}

/* Names. */

static void read_names(client_table *table) {
    corvel_settings *names = corvel_settings_load(CLIENT_NAMES, '=', NULL);
    const char *address = NULL;
    const char *name = NULL;
    for (size_t i = 0; corvel_setting_pair(names, i, &address, &name); i++) {
        unsigned char mac[6];
        if (corvel_check_mac(address, mac))
            continue;
        client *row = add_row(table);
        set_mac(row, mac);
        safe_strncpy(row->name, name, sizeof row->name);
    }
    corvel_settings_free(names);
}

client_table read_clients(void) {
    client_table table = {NULL, 0};
    client_table leases = {NULL, 0};
    read_leases(&table, &leases);
    read_arp_cache(&table);
    visit_kernel_table(RTM_GETNEIGH, take_neighbour, &table);
    add_ipv6_leases(&table, &leases);
    read_names(&table);
    join_rows(&table);
    free_clients(&leases);
    return table;
}

void free_clients(client_table *table) {
    free(table->rows);
    *table = (client_table){NULL, 0};
}
