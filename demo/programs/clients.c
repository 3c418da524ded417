/* SPDX-License-Identifier: MIT */
/*
 * The clients page: the leases of the DHCP server and the kernel's neighbours. Each list is
 * completed with data of the other: a lease has the name and the time left, a neighbour the
 * interface.
 */
#define _GNU_SOURCE
#include "site.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

enum {
    stripped_size = CORVEL_MAC_STRIPPED_SIZE,
    mac_size = CORVEL_MAC_SIZE,
    /* A lease that never expires has the expiry time 0, which is more than ten years ago. */
    never = -315360000
};

typedef struct client {
    char host[sizeof(((lease_entry *)0)->hostname)];
    char ip[sizeof(((lease_entry *)0)->ip)];
    char stripped[stripped_size]; /* the hardware address without colons; empty if unknown */
    char interface[IF_NAMESIZE];
    char expires[CORVEL_TIME_TEXT_SIZE];
    long left; /* seconds */
} client;

typedef struct client_table {
    client *rows;
    int count;
} client_table;

/* Reading. */

static client *add_client(client_table *table) {
    client *rows = xrealloc(table->rows, ((size_t)table->count + 1) * sizeof *rows);
    client *added = &rows[table->count++];
    table->rows = rows;
    memset(added, 0, sizeof *added);
    return added;
}

static void take_expiry(client *taken, const char *seconds) {
    taken->left = strtol(seconds, NULL, 10);
    if (taken->left < never)
        snprintf(taken->expires, sizeof taken->expires, "never");
    else if (taken->left < 0)
        snprintf(taken->expires, sizeof taken->expires, "expired");
    else
        corvel_duration_text(taken->left, taken->expires);
    if (taken->left < never)
        taken->left = -never;
}

/* The DHCP server writes an asterisk instead of an unknown name. */
static client_table read_leases(void) {
    client_table table = {NULL, 0};
    lease_entry *leases = NULL;
    get_leases(&leases);
    for (const lease_entry *each = leases; each; each = each->next) {
        if (!*each->ip) /* a line about the server itself */
            continue;
        client *lease = add_client(&table);
        safe_strncpy(lease->ip, each->ip, sizeof lease->ip);
        if (STRCMP(each->hostname, "*") != 0)
            safe_strncpy(lease->host, each->hostname, sizeof lease->host);
        if (strlen(each->mac) == mac_size - 1)
            mac2hexStrip(each->mac, lease->stripped);
        take_expiry(lease, each->expires);
    }
    free_leaselist(&leases);
    return table;
}

static client *find_lease(const client_table *leases, const char *stripped) {
    for (int i = 0; i < leases->count; i++)
        if (STRCMP(leases->rows[i].stripped, stripped) == 0)
            return &leases->rows[i];
    return NULL;
}

static void take_neighbour(client_table *table, client_table *leases, const lease_entry *found,
                           const char *interface) {
    client *neighbour = add_client(table);
    client *lease = find_lease(leases, found->mac);
    if (lease) {
        safe_strncpy(lease->interface, interface, sizeof lease->interface);
        *neighbour = *lease;
    }
    safe_strncpy(neighbour->ip, found->ip, sizeof neighbour->ip);
    safe_strncpy(neighbour->stripped, found->mac, sizeof neighbour->stripped);
    safe_strncpy(neighbour->interface, interface, sizeof neighbour->interface);
}

/* A neighbour's record does not name its interface: the neighbours of each interface are read
 * separately. */
static client_table read_neighbours(client_table *leases) {
    client_table table = {NULL, 0};
    struct if_nameindex *interfaces = if_nameindex();
    for (const struct if_nameindex *each = interfaces; each && each->if_name; each++) {
        lease_entry *found = NULL;
        get_arp_cache(each->if_name, &found);
        for (const lease_entry *one = found; one; one = one->next)
            take_neighbour(&table, leases, one, each->if_name);
        free_leaselist(&found);
    }
    if (interfaces)
        if_freenameindex(interfaces);
    return table;
}

/* Sorting: by one column, and by address where that column is equal. */

typedef int comparison(const client *one, const client *other);

static int by_ip(const client *one, const client *other) {
    struct in_addr one_address = {0};
    struct in_addr other_address = {0};
    inet_pton(AF_INET, one->ip, &one_address);
    inet_pton(AF_INET, other->ip, &other_address);
    return memcmp(&one_address, &other_address, sizeof one_address);
}

/* Clients without a name follow those with a name. */
static int by_host(const client *one, const client *other) {
    const int missing = !*one->host - !*other->host;
    return missing ? missing : strcasecmp(one->host, other->host);
}

static int by_mac(const client *one, const client *other) {
    return strcmp(one->stripped, other->stripped);
}

static int by_expiry(const client *one, const client *other) {
    return (one->left > other->left) - (one->left < other->left);
}

static int by_interface(const client *one, const client *other) {
    return strcmp(one->interface, other->interface);
}

static const struct column {
    const char *name; /* in the query, the page and the JSON */
    const char *heading;
    comparison *compare;
} columns[] = {{"host", "Host", by_host},
               {"ip", "IP", by_ip},
               {"mac", "MAC", by_mac},
               {"expires", "Time left", by_expiry},
               {"interface", "Interface", by_interface}};
enum { column_count = sizeof columns / sizeof *columns };

static const struct column *sorted = &columns[1];
static int is_descending;

/* The query contains a column's name, preceded by a hyphen for descending order. */
static void choose_order(const struct page *page) {
    const char *asked = corvel_field(page->request, "sort");
    const int hyphen = asked && *asked == '-';
    for (int i = 0; asked && i < column_count; i++)
        if (STRCMP(asked + hyphen, columns[i].name) == 0) {
            sorted = &columns[i];
            is_descending = hyphen;
        }
}

static int compare(const void *one, const void *other) {
    const int order = sorted->compare(one, other);
    const int full = order ? order : by_ip(one, other);
    return is_descending ? -full : full;
}

static void sort(client_table *table) {
    if (table->count > 0)
        qsort(table->rows, (size_t)table->count, sizeof *table->rows, compare);
}

/* Responses. */

/* A click on the heading of the sorted column reverses the order. */
static void put_columns(struct page *page) {
    for (int i = 0; i < column_count; i++) {
        const bool is_sorted = sorted == &columns[i];
        const bool is_reversed = is_sorted && !is_descending;
        char order[32];
        snprintf(order, sizeof order, "%s%s", is_reversed ? "-" : "", columns[i].name);
        corvel_data *column = corvel_data_add(page->data, "columns");
        corvel_data_set(column, "column", columns[i].name);
        corvel_data_set(column, "heading", columns[i].heading);
        corvel_data_set(column, "order", order);
        corvel_data_set(column, "direction",
                        !is_sorted      ? "none"
                        : is_descending ? "descending"
                                        : "ascending");
    }
}

static void put_client(struct page *page, const client *shown) {
    char mac[mac_size] = ""; /* HexStrip2mac() writes no terminator */
    open_row(page);
    put(page, "host", shown->host);
    put(page, "ip", shown->ip);
    put(page, "mac", HexStrip2mac(shown->stripped, mac));
    put(page, "expires", shown->expires);
    put(page, "interface", shown->interface);
    close_part(page);
}

static void put_table(struct page *page, const char *name, client_table *table) {
    sort(table);
    open_list(page, name);
    for (int i = 0; i < table->count; i++)
        put_client(page, &table->rows[i]);
    close_part(page);
}

static void show_clients(struct page *page) {
    choose_order(page);
    client_table leases = read_leases();
    client_table neighbours = read_neighbours(&leases);
    put_columns(page);
    put_table(page, "leases", &leases);
    put_table(page, "neighbours", &neighbours);
    show(page, "clients");
    free(neighbours.rows);
    free(leases.rows);
}

int main(void) { return serve(&(site_page){.name = "clients", .get = show_clients}); }
