/* SPDX-License-Identifier: MIT */
/*
 * The state of the router as a text file, for whoever helps its owner. It contains no secrets: no
 * settings, accounts or sessions, and of the boot environment only variables of known meaning.
 */
#define _GNU_SOURCE
#include "flash_map.h"
#include "services.h"
#include "trap.h"
#include "variables.h"

#include <net/if.h>
#include <stdarg.h>
#include <string.h>
#include <sys/utsname.h>
#include <time.h>

enum { longest_file = longest_trap_log + line_size };

/* Text. */

/* Replaces what would control a terminal. */
static void write_text(struct page *page, char *text, size_t length) {
    for (size_t i = 0; i < length; i++)
        if ((unsigned char)text[i] < ' ' && text[i] != '\n' && text[i] != '\t')
            text[i] = '?';
    corvel_answer_write(page->answer, text, length);
}

__attribute__((format(printf, 2, 3))) static void print(struct page *page, const char *format,
                                                        ...) {
    char text[1024];
    va_list values;
    va_start(values, format);
    const int length = vsnprintf(text, sizeof text, format, values);
    va_end(values);
    write_text(page, text, length < (int)sizeof text ? (size_t)length : sizeof text - 1);
}

static void begin(struct page *page, const char *title) { print(page, "\n== %s ==\n", title); }

static void print_file(struct page *page, const char *title, const char *path) {
    static char text[longest_file];
    const ssize_t size = open_read_close(path, text, sizeof text);
    begin(page, title);
    write_text(page, text, size > 0 ? (size_t)size : 0);
}

/* Versions and services. */

static void print_set(struct page *page, int set, const corvel_boot *boot) {
    static const char *const states[] = {"complete", "incomplete", "not recorded"};
    char version[CORVEL_FIRMWARE_VERSION_SIZE];
    corvel_firmware_version(set, version);
    print(page, "Set %s: %s, %s%s%s\n", set_letter(set), *version ? version : "no version",
          states[corvel_firmware_check(set)], set == boot->running ? ", running" : "",
          set == boot->next ? ", starts next" : "");
}

static void print_versions(struct page *page) {
    static const char *const names[] = {"MODEL", "HARDWARE", "SERIAL"};
    char date[CORVEL_TIME_TEXT_SIZE];
    char uptime[CORVEL_TIME_TEXT_SIZE];
    struct utsname system;
    corvel_boot boot;
    corvel_settings *factory = corvel_settings_load("/etc/factory.conf", ' ', NULL);
    print(page, "== Versions ==\n");
    for (size_t i = 0; i < sizeof names / sizeof *names; i++) {
        const char *value = corvel_setting(factory, names[i]);
        print(page, "%s: %s\n", names[i], value ? value : "");
    }
    corvel_settings_free(factory);
    corvel_boot_read(&upgrade_rules, &boot);
    print_set(page, CORVEL_FIRMWARE_A, &boot);
    print_set(page, CORVEL_FIRMWARE_B, &boot);
    if (uname(&system) == 0)
        print(page, "Kernel: %s %s\n", system.release, system.machine);
    print(page, "Time: %s\nKernel running for: %s\n", corvel_date_text(time(NULL), date),
          corvel_duration_text(monotonic_time(), uptime));
}

static void print_services(struct page *page) {
    char duration[CORVEL_TIME_TEXT_SIZE];
    begin(page, "Services");
    for (size_t i = 0; i < service_count; i++) {
        const service_state state = find_service(&services[i]);
        print(page, "%s: %s%s\n", services[i].program, state.pid ? "running for " : "not running",
              state.pid ? corvel_duration_text(state.seconds, duration) : "");
    }
}

/* The network. */

static void print_interface(struct page *page, const char *name) {
    char ipv4[CORVEL_IPV4_SIZE];
    char netmask[CORVEL_IPV4_SIZE];
    char mac[CORVEL_MAC_SIZE];
    char ipv6[CORVEL_IPV6_SIZE];
    lease_entry *found = NULL;
    print(page, "%s: %s, %s/%s, %s\n", name, getHWaddr(name, mac),
          getHWip(name, CORVEL_ADDRESS_IPV4, ipv4, sizeof ipv4),
          getHWip(name, CORVEL_ADDRESS_NETMASK, netmask, sizeof netmask),
          getHWip(name, CORVEL_ADDRESS_IPV6, ipv6, sizeof ipv6));
    get_arp_cache(name, &found);
    for (const lease_entry *each = found; each; each = each->next)
        print(page, "  neighbour %s %s\n", each->ip, each->mac);
    free_leaselist(&found);
}

static void print_leases(struct page *page) {
    lease_entry *leases = NULL;
    begin(page, "Leases");
    get_leases(&leases);
    for (const lease_entry *each = leases; each; each = each->next)
        print(page, "%s %s %s, expires in %s s\n", each->ip, each->mac, each->hostname,
              each->expires);
    free_leaselist(&leases);
}

static void print_network(struct page *page) {
    struct if_nameindex *interfaces = if_nameindex();
    begin(page, "Interfaces");
    for (const struct if_nameindex *each = interfaces; each && each->if_name; each++)
        print_interface(page, each->if_name);
    if (interfaces)
        if_freenameindex(interfaces);
    print_file(page, "Routes", "/proc/net/route");
    print_file(page, "IPv6 routes", "/proc/net/ipv6_route");
    print_file(page, "Name servers", "/etc/resolv.conf");
    print_leases(page);
}

/* The flash. */

/* The first bytes of a set's partitions tell what was written there. */
static void print_partition(struct page *page, const partition *shown) {
    unsigned char bytes[16];
    char text[3 * sizeof bytes + 1] = "";
    char path[32];
    snprintf(path, sizeof path, "/dev/mtdblock%u", shown->number);
    if (set_of_partition(shown->number) != CORVEL_FIRMWARE_UNKNOWN &&
        open_read_close(path, bytes, sizeof bytes) == (ssize_t)sizeof bytes)
        print_byte_to_string(text, bytes, sizeof bytes);
    print(page, "%s %s, %u KiB%s%s\n", path, shown->name, shown->size / 1024,
          *text ? ", first bytes " : "", text);
}

static void print_flash(struct page *page) {
    partition partitions[most_partitions];
    const size_t count = read_partitions(partitions);
    begin(page, "Flash");
    for (size_t i = 0; i < count; i++)
        print_partition(page, &partitions[i]);
}

static void print_environment(struct page *page) {
    static const char *const known[] = {"baudrate", "bootdelay", NULL};
    size_t position = 0;
    variable each;
    begin(page, "Boot environment");
    if (!load_variables())
        print(page, "damaged\n");
    else
        while (next_variable(&position, &each)) {
            const bool is_known =
                decides_start(each.name) || corvel_check_choice(each.name, known, NULL) == NULL;
            print(page, "%s=%s\n", each.name, is_known ? each.value : "(not shown)");
        }
}

static void handle_get(struct page *page) {
    if (page->is_json) {
        show(page, NULL);
        return;
    }
    corvel_answer_type(page->answer, "text/plain; charset=utf-8");
    corvel_answer_header(page->answer, "Content-Disposition",
                         "attachment; filename=\"diagnostics.txt\"");
    print_versions(page);
    print_services(page);
    print_network(page);
    print_flash(page);
    print_environment(page);
    print_file(page, "Memory", "/proc/meminfo");
    print_file(page, "Log", TRAP_LOG);
}

int main(void) { return serve(&(site_page){.name = "system", .get = handle_get}); }
