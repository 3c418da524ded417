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

/* The server runs without a range, too: it resolves names. */
static const char *dhcp_state(void) {
    corvel_settings *applied = corvel_settings_load("/var/log/applied.conf", ' ', NULL);
    const char *range = corvel_setting(applied, "DHCP");
    const bool is_off = range && strcmp(range, "off") == 0;
    corvel_settings_free(applied);
    return is_off ? "switched off" : app_isrun("dnsmasq") ? "running" : "stopped";
}

/* Seconds since the router's start. Where the machine does not start with the router, a file has
 * the machine's uptime at that moment. */
static int seconds_up(void) {
    char started[32] = "";
    const ssize_t size = open_read_close("/run/started", started, sizeof started - 1);
    started[size > 0 ? size : 0] = '\0';
    return monotonic_time() - (int)strtol(started, NULL, 10);
}

static void put_system(struct page *page) {
    char gateway[CORVEL_IPV4_SIZE];
    char dns[dns_size];
    char uptime[CORVEL_TIME_TEXT_SIZE];
    corvel_boot boot;
    read_dns(dns);
    corvel_boot_read(&upgrade_rules, &boot);
    const int output = mute_output(); /* getDefGw() prints if it cannot read the routes */
    getDefGw("wan0", gateway);
    unmute_output(output);
    open_object(page, "system");
    put(page, "dnsmasq", dhcp_state());
    put(page, "gateway", or_nothing(gateway, "0.0.0.0"));
    put(page, "dns", dns);
    put(page, "bootset", set_letter(boot.running));
    put(page, "uptime", corvel_duration_text(seconds_up(), uptime));
    close_part(page);
}

static void put_interface(struct page *page, const char *name) {
    char ipv4[CORVEL_IPV4_SIZE];
    char netmask[CORVEL_IPV4_SIZE];
    char mac[CORVEL_MAC_SIZE];
    char ipv6[CORVEL_IPV6_SIZE];
    open_row(page);
    put(page, "name", name);
    put(page, "ipv4", or_nothing(getHWip(name, CORVEL_ADDRESS_IPV4, ipv4, sizeof ipv4), "0.0.0.0"));
    put(page, "netmask",
        or_nothing(getHWip(name, CORVEL_ADDRESS_NETMASK, netmask, sizeof netmask), "0.0.0.0"));
    put(page, "mac", or_nothing(getHWaddr(name, mac), "00:00:00:00:00:00"));
    put(page, "ipv6", or_nothing(getHWip(name, CORVEL_ADDRESS_IPV6, ipv6, sizeof ipv6), "::"));
    close_part(page);
}

static int by_name(const void *one, const void *other) {
    return strcmp(((const struct if_nameindex *)one)->if_name,
                  ((const struct if_nameindex *)other)->if_name);
}

/* The loopback interface is not shown. */
static void put_interfaces(struct page *page) {
    struct if_nameindex *all = if_nameindex();
    size_t count = 0;
    while (all && all[count].if_name)
        count++;
    if (all)
        qsort(all, count, sizeof *all, by_name);
    open_list(page, "interfaces");
    for (size_t i = 0; i < count; i++)
        if (STRCMP(all[i].if_name, "lo") != 0)
            put_interface(page, all[i].if_name);
    close_part(page);
    if (all)
        if_freenameindex(all);
}

static void show_status(struct page *page) {
    put_system(page);
    put_interfaces(page);
    show(page, "status");
}

int main(void) { return serve(&(site_page){.name = "status", .get = show_status}); }
