/* SPDX-License-Identifier: MIT */
#define _GNU_SOURCE
#include "internet.h"

#include "kernel_table.h"
#include "site.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <string.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

/* What is searched in a table of the kernel, and what is found. */
typedef struct search {
    int interface;
    struct in_addr address;
    bool is_found;
    uint32_t value;
} search;

static bool has_address(const struct nlmsghdr *entry, size_t header_size, unsigned type,
                        const search *wanted) {
    const void *address = kernel_attribute(entry, header_size, type, sizeof wanted->address);
    return address && memcmp(address, &wanted->address, sizeof wanted->address) == 0;
}

static void find_state(void *context, const struct nlmsghdr *entry) {
    const struct ndmsg *header = kernel_entry(entry);
    search *wanted = context;
    if (header->ndm_family != AF_INET || header->ndm_ifindex != wanted->interface ||
        !has_address(entry, sizeof *header, NDA_DST, wanted))
        return;
    wanted->is_found = true;
    wanted->value = header->ndm_state;
}

/* A gateway that nobody has asked for is not known to be silent. */
static bool is_silent(const char *gateway) {
    search wanted = {.interface = (int)if_nametoindex(PROVIDER)};
    inet_pton(AF_INET, gateway, &wanted.address);
    visit_kernel_table(RTM_GETNEIGH, find_state, &wanted);
    return wanted.is_found && (wanted.value & (NUD_FAILED | NUD_INCOMPLETE)) != 0;
}

static void find_age(void *context, const struct nlmsghdr *entry) {
    const struct ifaddrmsg *header = kernel_entry(entry);
    search *wanted = context;
    const struct ifa_cacheinfo *times =
        kernel_attribute(entry, sizeof *header, IFA_CACHEINFO, sizeof *times);
    if (header->ifa_family != AF_INET || !times ||
        !has_address(entry, sizeof *header, IFA_LOCAL, wanted))
        return;
    wanted->is_found = true;
    wanted->value = times->cstamp / 100; /* seconds of the monotonic clock */
}

/* Writes when the kernel was given the address, without the seconds: the two clocks differ by a
 * fraction of a second from one request to the next. */
static void write_since(const char *ipv4, char since[CORVEL_TIME_TEXT_SIZE]) {
    search wanted = {.is_found = false};
    inet_pton(AF_INET, ipv4, &wanted.address);
    visit_kernel_table(RTM_GETADDR, find_age, &wanted);
    *since = '\0';
    if (wanted.is_found) {
        corvel_date_text(time(NULL) - (monotonic_time() - (time_t)wanted.value), since);
        since[strcspn(since, ":") + 3] = '\0';
    }
}

static bool has_link(void) {
    struct ifreq request = {.ifr_name = PROVIDER};
    const int any = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const bool is_known = ioctl(any, SIOCGIFFLAGS, &request) == 0;
    close(any);
    return is_known && request.ifr_flags & IFF_UP && request.ifr_flags & IFF_RUNNING;
}

static const char *state_of(const internet *now) {
    if (!has_link())
        return "Not connected: no cable, or the other end is off";
    if (!*now->ipv4)
        return "Not connected: no address";
    if (!*now->gateway)
        return "Not connected: no gateway";
    return is_silent(now->gateway) ? "Not connected: the gateway does not answer" : "Connected";
}

char *clear_missing(char *text, const char *placeholder) {
    if (strcmp(text, placeholder) == 0)
        *text = '\0';
    return text;
}

internet read_internet(void) {
    internet now;
    memset(&now, 0, sizeof now);
    getHWip(PROVIDER, CORVEL_ADDRESS_IPV4, now.ipv4, sizeof now.ipv4);
    getHWip(PROVIDER, CORVEL_ADDRESS_IPV6, now.ipv6, sizeof now.ipv6);
    const int output = mute_output(); /* getDefGw() prints if it cannot read the routes */
    getDefGw(PROVIDER, now.gateway);
    unmute_output(output);
    clear_missing(now.ipv4, "0.0.0.0");
    clear_missing(now.ipv6, "::");
    clear_missing(now.gateway, "0.0.0.0");
    now.state = state_of(&now);
    if (*now.ipv4)
        write_since(now.ipv4, now.since);
    return now;
}
