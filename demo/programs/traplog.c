/* SPDX-License-Identifier: MIT */
/*
 * Writes the traps that the device sends to a log. It runs as long as the device, and ends only if
 * it cannot receive. Its first line after each start of the device is the start itself.
 */
#define _GNU_SOURCE
#include "firmware.h"
#include "trap.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

enum { trap_type = 17 };

typedef struct message {
    struct nlmsghdr header;
    char record[trap_size];
} message;

/* The kernel also sends messages to the socket: length and type identify a trap. With MSG_TRUNC,
 * recv() returns the full length of a message that does not fit the buffer. */
static int is_trap(const message *received, ssize_t length) {
    return length == sizeof *received && received->header.nlmsg_len == sizeof *received &&
           received->header.nlmsg_type == trap_type;
}

/* Control characters are replaced, so that each trap is exactly one line of the log. */
static void take_text(const message *received, char text[trap_size + 1]) {
    memcpy(text, received->record, trap_size);
    text[trap_size] = '\0';
    for (char *at = text; *at; at++)
        if (iscntrl((unsigned char)*at))
            *at = '?';
}

/* The older log is replaced when the current one is full: at least its size is kept. */
static void append_to_log(const char *text) {
    char line[trap_time_size + line_size] = "";
    const time_t now = time(NULL);
    struct tm utc;
    struct stat status;
    if (stat(TRAP_LOG, &status) == 0 && status.st_size >= longest_trap_log)
        rename(TRAP_LOG, OLD_TRAP_LOG);
    const int log = open(TRAP_LOG, O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fstat(log, &status) != 0)
        return;
    if (gmtime_r(&now, &utc))
        strftime(line, sizeof line, TRAP_TIME_FORMAT, &utc);
    const size_t length = strlen(line);
    snprintf(line + length, sizeof line - length, " %s\n", text);
    if (write(log, line, strlen(line)) != (ssize_t)strlen(line))
        ftruncate(log, status.st_size); /* no room: an incomplete line would join the next one */
    close(log);
}

/* The mark in /run distinguishes the start of the device from one of this program alone. */
static void log_start(void) {
    char text[line_size];
    char version[CORVEL_FIRMWARE_VERSION_SIZE];
    corvel_boot boot;
    const int mark = open("/run/traplog", O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    corvel_boot_read(&upgrade_rules, &boot);
    corvel_firmware_version(boot.running, version);
    if (mark < 0)
        snprintf(text, sizeof text, "%s: The log was interrupted", event_names[SYSTEM_EVENT]);
    else
        snprintf(text, sizeof text, "%s: Started with set %s, %s", event_names[SYSTEM_EVENT],
                 set_letter(boot.running), *version ? version : "without a version");
    append_to_log(text);
    close(mark);
}

int main(void) {
    message received;
    char text[trap_size + 1];
    const int sender = open_socket_for_trap();
    if (sender <= 0)
        return EXIT_FAILURE;
    log_start();
    for (;;) {
        const ssize_t length = recv(sender, &received, sizeof received, MSG_TRUNC);
        if (length < 0 && errno != EINTR && errno != ENOBUFS)
            return EXIT_FAILURE;
        if (is_trap(&received, length)) {
            take_text(&received, text);
            append_to_log(text);
        }
    }
}
