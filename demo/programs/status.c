/* SPDX-License-Identifier: MIT */
/* The status page: the device's interfaces, as the kernel reports them, and the system's state. */
#define _GNU_SOURCE
#include "firmware.h"

#include <net/if.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

/* The list of name servers is HTML: each address is followed by this string. */
static const char dns_end[] = "&nbsp;&nbsp;&nbsp;&nbsp;";

enum {
    /* A larger resolver file is ignored. */
    longest_resolver_file = 4096,
    /* A line has at least 11 characters, "nameserver" and the newline, and 24 more in the list. */
    dns_size = 4 * longest_resolver_file
};

/* Replaces the library's placeholder for a missing address by an empty string. */
static const char *or_nothing(const char *text, const char *placeholder) {
    return STRCMP(text, placeholder) == 0 ? "" : text;
}

/* Converts the list of name servers to plain text: an address may contain any characters of the
 * file, and is later escaped like every other value. */
static void read_dns(char text[dns_size]) {
    char list[dns_size] = "";
    struct stat status;
    *text = '\0';
    if (stat("/etc/resolv.conf", &status) != 0 || status.st_size > longest_resolver_file)
        return;
    get_dns(list);
    char *out = text;
    for (char *at = list, *end = strstr(at, dns_end); end; end = strstr(at, dns_end)) {
        *end = '\0';
        out = stpcpy(stpcpy(out, out == text ? "" : ", "), at);
        at = end + strlen(dns_end);
    }
}

static str_node *system_fields(add_field *add) {
    str_node *fields = NULL;
    char gateway[CORVEL_IPV4_SIZE];
    char dns[dns_size];
    char uptime[CORVEL_TIME_TEXT_SIZE];
    read_dns(dns);
    const int output = mute_output(); /* getDefGw() prints if it cannot read the routes */
    getDefGw("wan0", gateway);
    unmute_output(output);
    /* If a name is a prefix of another, the longer one is added first: a marker is filled with the
     * first field that matches. */
    add(&fields, "dnsmasq", app_isrun("dnsmasq") ? "running" : "stopped");
    add(&fields, "gateway", or_nothing(gateway, "0.0.0.0"));
    add(&fields, "dns", dns);
    add(&fields, "bootset", set_letter(read_boot_state().running));
    add(&fields, "uptime", corvel_duration_text(monotonic_time(), uptime));
    return fields;
}

static str_node *interface_fields(const char *name, add_field *add) {
    str_node *fields = NULL;
    char ipv4[CORVEL_IPV4_SIZE];
    char netmask[CORVEL_IPV4_SIZE];
    char mac[CORVEL_MAC_SIZE];
    char ipv6[CORVEL_IPV6_SIZE];
    add(&fields, "name", name);
    add(&fields, "ipv4",
        or_nothing(getHWip(name, CORVEL_ADDRESS_IPV4, ipv4, sizeof ipv4), "0.0.0.0"));
    add(&fields, "netmask",
        or_nothing(getHWip(name, CORVEL_ADDRESS_NETMASK, netmask, sizeof netmask), "0.0.0.0"));
    add(&fields, "mac", or_nothing(getHWaddr(name, mac), "00:00:00:00:00:00"));
    add(&fields, "ipv6", or_nothing(getHWip(name, CORVEL_ADDRESS_IPV6, ipv6, sizeof ipv6), "::"));
    return fields;
}

static void print_row(int number, const char *name) {
    str_node *fields = interface_fields(name, add_html);
    (void)number;
    add_html(&fields, "key", name);
    print_template("status-interface", &fields);
    free_list(&fields);
}

static void print_object(int number, const char *name) {
    str_node *fields = interface_fields(name, add_json);
    print_json_object(number, &fields);
}

static int by_name(const void *one, const void *other) {
    return strcmp(((const struct if_nameindex *)one)->if_name,
                  ((const struct if_nameindex *)other)->if_name);
}

/* The loopback interface is not shown. */
static void print_interfaces(void (*print)(int number, const char *name)) {
    struct if_nameindex *all = if_nameindex();
    size_t count = 0;
    int number = 0;
    while (all && all[count].if_name)
        count++;
    if (all)
        qsort(all, count, sizeof *all, by_name);
    for (size_t i = 0; i < count; i++)
        if (STRCMP(all[i].if_name, "lo") != 0)
            print(number++, all[i].if_name);
    if (all)
        if_freenameindex(all);
}

static void show_page(void) {
    str_node *fields = system_fields(add_html);
    print_page_start("200 OK", "status", "", "Status");
    print_template("status", &fields);
    print_interfaces(print_row);
    print_template("status-end", &fields);
    print_page_end();
    free_list(&fields);
}

static void show_json(void) {
    str_node *fields = system_fields(add_json);
    print_json_head();
    printf("{\n");
    printjson_hdr("system");
    list2json_data(fields);
    printjson_tail();
    printf(",\n");
    printjson_hdr0("interfaces");
    print_interfaces(print_object);
    print_json_objects_end();
    printf("\n}\n");
    free_list(&fields);
}

int main(void) {
    if (accept_request())
        refuse("405 Method Not Allowed", "This page only supports viewing.");
    if (isajax_get())
        show_json();
    else
        show_page();
    return EXIT_SUCCESS;
}
