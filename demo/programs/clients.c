/* SPDX-License-Identifier: MIT */
/*
 * The clients page: one table of all devices in the user's network, sorted by any column, and the
 * details of one of them with a form for its name.
 */
#define _GNU_SOURCE
#include "client_table.h"
#include "site.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

/* The name that the user knows the client by. */
static const char *name_of(const client *shown) { return *shown->name ? shown->name : shown->host; }

/* Sorting: by one column, and by address where that column is equal. */

typedef int comparison(const client *one, const client *other);

/* The first address of the list; clients without an IPv4 address follow the others. */
static uint32_t first_address(const client *sorted) {
    char text[INET_ADDRSTRLEN];
    struct in_addr address = {0};
    snprintf(text, sizeof text, "%.*s", (int)strcspn(sorted->ipv4, "\n"), sorted->ipv4);
    return inet_pton(AF_INET, text, &address) == 1 ? ntohl(address.s_addr) : UINT32_MAX;
}

static int by_ip(const client *one, const client *other) {
    const uint32_t first = first_address(one);
    const uint32_t second = first_address(other);
    return first == second ? strcmp(one->ipv6, other->ipv6) : first < second ? -1 : 1;
}

/* Clients without a name follow those with a name. */
static int by_name(const client *one, const client *other) {
    const int missing = !*name_of(one) - !*name_of(other);
    return missing ? missing : strcasecmp(name_of(one), name_of(other));
}

static int by_mac(const client *one, const client *other) { return strcmp(one->mac, other->mac); }

/* Clients that are online come first. */
static int by_state(const client *one, const client *other) {
    return other->is_online - one->is_online;
}

/* Clients without a lease come first, and those whose lease never ends last. */
static int by_end(const client *one, const client *other) {
    const int rank = one->has_lease + one->never_ends - other->has_lease - other->never_ends;
    return rank ? rank : (one->lease_end > other->lease_end) - (one->lease_end < other->lease_end);
}

static const struct column {
    const char *name; /* in the query, the page and the JSON */
    const char *heading;
    comparison *compare;
    const char *link; /* the page that the entries lead to, with the client's address */
} columns[] = {{"name", "Name", by_name, "/cgi-bin/clients?client="},
               {"state", "State", by_state, NULL},
               {"ip", "IP addresses", by_ip, NULL},
               {"mac", "MAC", by_mac, NULL},
               {"ends", "Lease ends", by_end, NULL}};
enum { column_count = sizeof columns / sizeof *columns };

static const struct column *sorted = &columns[2];
static int is_descending;

/* The query contains a column's name, preceded by a hyphen for descending order. */
static void choose_order(const struct page *page) {
    const char *asked = corvel_query(page->request, "sort");
    const int hyphen = asked && *asked == '-';
    for (int i = 0; asked && i < column_count; i++)
        if (strcmp(asked + hyphen, columns[i].name) == 0) {
            sorted = &columns[i];
            is_descending = hyphen;
        }
}

static int compare(const void *one, const void *other) {
    const int order = sorted->compare(one, other);
    const int full = order ? order : by_ip(one, other);
    return is_descending ? -full : full;
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
        corvel_data_set(column, "link", columns[i].link);
        corvel_data_set(column, "order", order);
        corvel_data_set(column, "direction",
                        !is_sorted      ? "none"
                        : is_descending ? "descending"
                                        : "ascending");
    }
}

/* An end is a date, not the time left: the answer to a poll stays the same until it changes. */
static const char *end_of(const client *shown, char text[CORVEL_TIME_TEXT_SIZE]) {
    if (!shown->has_lease)
        return "";
    if (shown->never_ends)
        return "Never";
    return shown->lease_end < time(NULL) ? "Ended" : corvel_date_text(shown->lease_end, text);
}

static void put_client(struct page *page, const client *shown) {
    char addresses[sizeof shown->ipv4 + sizeof shown->ipv6];
    char end[CORVEL_TIME_TEXT_SIZE];
    snprintf(addresses, sizeof addresses, "%s%s%s", shown->ipv4,
             *shown->ipv4 && *shown->ipv6 ? "\n" : "", shown->ipv6);
    put(page, "name", *name_of(shown) ? name_of(shown) : "Unnamed");
    put(page, "state", shown->is_online ? "Online" : "Offline");
    put(page, "ip", addresses);
    put(page, "mac", shown->mac);
    put(page, "ends", end_of(shown, end));
}

static void put_table(struct page *page, const client_table *table) {
    open_list(page, "clients");
    for (size_t i = 0; i < table->count; i++) {
        open_row(page);
        put_client(page, &table->rows[i]);
        close_part(page);
    }
    close_part(page);
}

/* Shows one of the clients in detail. A form that was refused keeps its entry. */
static void put_details(struct page *page, const client_table *table, const char *mac,
                        const char *entry) {
    const client *shown = NULL;
    for (size_t i = 0; mac && *mac && i < table->count; i++)
        if (strcasecmp(table->rows[i].mac, mac) == 0)
            shown = &table->rows[i];
    if (!shown)
        return;
    page->row = corvel_data_add(page->data, "details");
    put_client(page, shown);
    put(page, "host", shown->host);
    put(page, "interface", shown->interface);
    put(page, "known", shown->name);
    put(page, "entry", entry ? entry : shown->name);
    page->row = NULL;
}

static void show_clients(struct page *page, const char *mac, const char *entry) {
    client_table table = read_clients();
    choose_order(page);
    if (table.count > 0)
        qsort(table.rows, table.count, sizeof *table.rows, compare);
    if (page->is_json) {
        corvel_answer_conditional(page->answer);
    } else {
        put_columns(page);
        put_details(page, &table, mac, entry);
    }
    put_table(page, &table);
    show(page, "clients");
    free_clients(&table);
}

static void handle_get(struct page *page) {
    if (!page->is_json)
        put(page, "message", corvel_query(page->request, "saved") ? "Saved." : "");
    show_clients(page, corvel_query(page->request, "client"), NULL);
}

/* Names. */

static const char *name_complaint(const char *name) {
    return corvel_check_text(name, 0, longest_client_name)
               ? "Use at most 40 characters. Accented characters count as two or more."
               : NULL;
}

/* Stores a name; an empty one removes it. Returns a message for the user, or null. */
static const char *set_name(corvel_settings *names, const char *mac, const char *name) {
    return *name ? corvel_setting_set(names, mac, name) : corvel_setting_remove(names, mac);
}

static void save_name(struct page *page, const char *mac, const char *name) {
    const char *complaint = NULL;
    /* A device that has been upgraded may not have the file yet. */
    close(open(CLIENT_NAMES, O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    corvel_settings *names = corvel_settings_load(CLIENT_NAMES, '=', NULL);
    int status = CORVEL_HTTP_UNPROCESSABLE_CONTENT;
    if (names)
        complaint = set_name(names, mac, name);
    if (!complaint)
        status = corvel_settings_status(corvel_settings_save(&names, 1), &complaint);
    corvel_settings_free(names);
    if (status != CORVEL_HTTP_OK) {
        corvel_answer_error(page->answer, status, complaint);
        return;
    }
    log_event(page, SETTINGS_EVENT, "Name of %s changed to \"%s\"", mac, name);
    corvel_answer_redirect(page->answer, "/cgi-bin/clients?saved=1");
}

/* The address is stored in upper case, as the table shows it. */
static void handle_post(struct page *page) {
    unsigned char bytes[6];
    char mac[CORVEL_MAC_SIZE];
    const char *sent = corvel_field(page->request, "client");
    const char *name = corvel_field(page->request, "name");
    if (!name || corvel_check_mac(sent, bytes)) {
        corvel_answer_error(page->answer, CORVEL_HTTP_BAD_REQUEST,
                            "The request does not name a client.");
        return;
    }
    safe_strncpy(mac, sent, sizeof mac);
    for (char *at = mac; *at; at++)
        *at = (char)chUpcase((signed char)*at);
    const char *complaint = name_complaint(name);
    if (complaint) {
        corvel_answer_status(page->answer, CORVEL_HTTP_UNPROCESSABLE_CONTENT);
        put(page, "error_name", complaint);
        put(page, "message", "The name has not been saved. See below.");
        show_clients(page, mac, name);
    } else {
        ignore_disconnection();
        save_name(page, mac, name);
    }
}

int main(void) {
    return serve(&(site_page){.name = "clients", .get = handle_get, .post = handle_post});
}
