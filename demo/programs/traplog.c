/* SPDX-License-Identifier: MIT */
/*
 * Writes the traps that the device sends to a log. It runs as long as the device, and ends only if
 * it cannot receive.
 */
#define _GNU_SOURCE
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

static void append_to_log(const char *text) {
    char moment[trap_time_size] = "";
    const time_t now = time(NULL);
    struct tm local;
    struct stat status;
    if (stat(TRAP_LOG, &status) == 0 && status.st_size >= longest_trap_log)
        rename(TRAP_LOG, OLD_TRAP_LOG);
    const int log = open(TRAP_LOG, O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (log < 0)
        return;
    if (localtime_r(&now, &local))
        strftime(moment, sizeof moment, "%Y-%m-%d %H:%M:%S", &local);
    dprintf(log, "%s %s\n", moment, text);
    close(log);
}

int main(void) {
    message received;
    char text[trap_size + 1];
    const int sender = open_socket_for_trap();
    if (sender <= 0)
        return EXIT_FAILURE;
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
