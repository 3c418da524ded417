/* SPDX-License-Identifier: MIT */
/*
 * The status page: an overview of the internet connection, the router and the user's network, and
 * the device's interfaces, as the kernel reports them.
 */
#define _GNU_SOURCE
#include "client_table.h"
#include "firmware.h"
#include "internet.h"

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

/* What the configuration client has applied. The server runs without a range, too: it resolves
 * names. */
static void put_network(struct page *page, const corvel_settings *applied) {
    const char *range = corvel_setting(applied, "DHCP");
    const bool is_off = range && strcmp(range, "off") == 0;
    put(page, "dnsmasq", is_off ? "Switched off" : app_isrun("dnsmasq") ? "Running" : "Stopped");
}

/* The record is "off", or the channel, which is 0 if the radio chooses it, and the name. */
static void put_radio(struct page *page, const corvel_settings *applied) {
    const char *radio = corvel_setting(applied, "WLAN");
    const char *name = radio ? strchr(radio, ' ') : NULL;
    char text[line_size] = "Off";
    if (name && *radio == '0')
        snprintf(text, sizeof text, "On, automatic channel");
    else if (name)
        snprintf(text, sizeof text, "On, channel %.*s", (int)(name - radio), radio);
    put(page, "radio", text);
    put(page, "ssid", name ? name + 1 : "");
}

static void put_clients(struct page *page) {
    client_table table = read_clients();
    size_t online = 0;
    char text[line_size];
    for (size_t i = 0; i < table.count; i++)
        online += table.rows[i].is_online;
    snprintf(text, sizeof text, "%zu online, %zu known", online, table.count);
    put(page, "clients", text);
    free_clients(&table);
}

/* Seconds since the router's start. Where the machine does not start with the router, a file has
 * the machine's uptime at that moment. */
static int seconds_up(void) {
    char started[32];
    read_text("/run/started", started, sizeof started);
    return monotonic_time() - (int)strtol(started, NULL, 10);
}

/* Minutes, not seconds: the answer to a poll stays the same until one has passed. */
static void put_uptime(struct page *page) {
    const int minutes = seconds_up() / 60;
    const int hours = minutes / 60;
    char text[line_size];
    if (hours >= 24)
        snprintf(text, sizeof text, "%d d %d h %02d min", hours / 24, hours % 24, minutes % 60);
    else
        snprintf(text, sizeof text, "%d h %02d min", hours, minutes % 60);
    put(page, "uptime", text);
}

static void put_load(struct page *page) {
    double load = 0;
    char text[line_size] = "";
    if (getloadavg(&load, 1) == 1)
        snprintf(text, sizeof text, "%.1f in the last minute", load);
    put(page, "load", text);
}

/* The number of a line such as "MemTotal: 2048 kB", in MiB; 0 if there is no such line. */
static unsigned long mebibytes(const char *lines, const char *name) {
    const char *line = strstr(lines, name);
    return line ? strtoul(line + strlen(name), NULL, 10) / 1024 : 0;
}

static void put_memory(struct page *page) {
    char lines[4096];
    char text[line_size] = "";
    read_text("/proc/meminfo", lines, sizeof lines);
    const unsigned long total = mebibytes(lines, "MemTotal:");
    if (total > 0)
        snprintf(text, sizeof text, "%lu %% of %lu MiB in use",
                 100 - 100 * mebibytes(lines, "MemAvailable:") / total, total);
    put(page, "memory", text);
}

static void put_internet(struct page *page) {
    char dns[dns_size];
    const internet now = read_internet();
    read_dns(dns);
    put(page, "internet", now.state);
    put(page, "since", now.since);
    put(page, "address", now.ipv4);
    put(page, "address6", now.ipv6);
    put(page, "gateway", now.gateway);
    put(page, "dns", dns);
}

static void put_firmware(struct page *page) {
    char version[CORVEL_FIRMWARE_VERSION_SIZE];
    corvel_boot boot;
    corvel_boot_read(&upgrade_rules, &boot);
    put(page, "version", corvel_firmware_version(boot.running, version));
    put(page, "bootset", set_letter(boot.running));
}

static void put_system(struct page *page) {
    corvel_settings *applied = corvel_settings_load("/var/log/applied.conf", ' ', NULL);
    open_object(page, "system");
    put_internet(page);
    put_firmware(page);
    put_uptime(page);
    put_load(page);
    put_memory(page);
    put_clients(page);
    put_radio(page, applied);
    put_network(page, applied);
    close_part(page);
    corvel_settings_free(applied);
}

static void put_interface(struct page *page, const char *name) {
    char ipv4[CORVEL_IPV4_SIZE];
    char netmask[CORVEL_IPV4_SIZE];
    char mac[CORVEL_MAC_SIZE];
    char ipv6[CORVEL_IPV6_SIZE];
    open_row(page);
    put(page, "name", name);
    put(page, "ipv4",
        clear_missing(getHWip(name, CORVEL_ADDRESS_IPV4, ipv4, sizeof ipv4), "0.0.0.0"));
    put(page, "netmask",
        clear_missing(getHWip(name, CORVEL_ADDRESS_NETMASK, netmask, sizeof netmask), "0.0.0.0"));
    put(page, "mac", clear_missing(getHWaddr(name, mac), "00:00:00:00:00:00"));
    put(page, "ipv6", clear_missing(getHWip(name, CORVEL_ADDRESS_IPV6, ipv6, sizeof ipv6), "::"));
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
    if (page->is_json)
        corvel_answer_conditional(page->answer);
    put_system(page);
    put_interfaces(page);
    show(page, "status");
}

int main(void) { return serve(&(site_page){.name = "status", .get = show_status}); }
