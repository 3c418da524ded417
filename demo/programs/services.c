/* SPDX-License-Identifier: MIT */
#define _GNU_SOURCE
#include "services.h"

#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

const service services[service_count] = {
    {"Web server", "lighttpd"}, {"DHCP and name server", "dnsmasq"}, {"Event log", "traplog"}};

/* Returns the time between the kernel's start and that of a process, in seconds; negative if there
 * is no such process. It is the 22nd field of the line; the second one, the program's name in
 * parentheses, can contain anything. */
static long long start_of(int pid) {
    char path[32];
    char line[1024];
    snprintf(path, sizeof path, "/proc/%d/stat", pid);
    read_text(path, line, sizeof line);
    const char *at = strrchr(line, ')');
    for (int field = 2; at && field < 22; field++)
        at = strchr(at + 1, ' ');
    return at ? strtoll(at, NULL, 10) / sysconf(_SC_CLK_TCK) : -1;
}

/* The file can be older than the device's start, and its number that of another process. */
service_state find_service(const service *found) {
    service_state state = {0, 0};
    char path[64];
    char line[128 + 1] = "";
    struct timespec now;
    snprintf(path, sizeof path, "/run/%s.pid", found->program);
    const int pid = getPid(path);
    if (pid <= 0)
        return state;
    read_cmdline(line, sizeof line - 1, (unsigned)pid);
    const long long started = start_of(pid);
    if (strstr(line, found->program) && started >= 0 && clock_gettime(CLOCK_BOOTTIME, &now) == 0) {
        state.pid = pid;
        state.seconds = now.tv_sec - started;
    }
    return state;
}
