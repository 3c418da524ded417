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
    comparison *compare;
} columns[] = {{"host", by_host},
               {"ip", by_ip},
               {"mac", by_mac},
               {"expires", by_expiry},
               {"interface", by_interface}};
enum { column_count = sizeof columns / sizeof *columns };

static const struct column *sorted = &columns[1];
static int is_descending;

/* The query contains a column's name, preceded by a hyphen for descending order. */
static void choose_order(void) {
    const char *asked = find_field("sort");
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

static str_node *client_fields(const client *shown, add_field *add) {
    str_node *fields = NULL;
    char mac[mac_size] = ""; /* HexStrip2mac() writes no terminator */
    add(&fields, "host", shown->host);
    add(&fields, "ip", shown->ip);
    add(&fields, "mac", HexStrip2mac(shown->stripped, mac));
    add(&fields, "expires", shown->expires);
    add(&fields, "interface", shown->interface);
    return fields;
}

static void print_row(const client *shown) {
    str_node *fields = client_fields(shown, add_html);
    char mac[mac_size] = "";
    add_html(&fields, "key", HexStrip2mac(shown->stripped, mac));
    print_template("clients-row", &fields);
    free_list(&fields);
}

/* A click on the heading of the sorted column reverses the order. */
static void print_table(const char *id, const char *heading, const client_table *table) {
    str_node *fields = NULL;
    char name[32];
    char order[32];
    add_html(&fields, "id", id);
    add_html(&fields, "labelled", id);
    add_html(&fields, "table", id);
    add_html(&fields, "title", heading);
    for (int i = 0; i < column_count; i++) {
        const int is_sorted = sorted == &columns[i];
        snprintf(name, sizeof name, "direction_%s", columns[i].name);
        add_str(&fields, name, !is_sorted ? "none" : is_descending ? "descending" : "ascending");
        snprintf(name, sizeof name, "order_%s", columns[i].name);
        snprintf(order, sizeof order, "%s%s", is_sorted && !is_descending ? "-" : "",
                 columns[i].name);
        add_str(&fields, name, order);
    }
    print_template("clients-table", &fields);
    for (int i = 0; i < table->count; i++)
        print_row(&table->rows[i]);
    print_template("clients-table-end", &fields);
    free_list(&fields);
}

static void show_page(const client_table *leases, const client_table *neighbours) {
    print_page_start("200 OK", "clients", "", "Clients");
    print_template("clients", &(str_node *){NULL});
    print_table("leases", "DHCP leases", leases);
    print_table("neighbours", "Neighbours", neighbours);
    print_template("clients-end", &(str_node *){NULL});
    print_page_end();
}

static void print_section(const char *name, const client_table *table) {
    printjson_hdr0(name);
    for (int i = 0; i < table->count; i++) {
        str_node *fields = client_fields(&table->rows[i], add_json);
        print_json_object(i, &fields);
    }
    print_json_objects_end();
}

static void show_json(const client_table *leases, const client_table *neighbours) {
    print_json_head();
    printf("{\n");
    print_section("leases", leases);
    printf(",\n");
    print_section("neighbours", neighbours);
    printf("\n}\n");
}

int main(void) {
    if (accept_request())
        refuse("405 Method Not Allowed", "This page only supports viewing.");
    const int is_json = isajax_get();
    choose_order();
    client_table leases = read_leases();
    client_table neighbours = read_neighbours(&leases);
    sort(&leases);
    sort(&neighbours);
    if (is_json)
        show_json(&leases, &neighbours);
    else
        show_page(&leases, &neighbours);
    free(neighbours.rows);
    free(leases.rows);
    return EXIT_SUCCESS;
}
