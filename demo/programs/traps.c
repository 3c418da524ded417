/* SPDX-License-Identifier: MIT */
/* The log page: the traps that the device has sent, newest first. */
#define _GNU_SOURCE
#include "trap.h"

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

enum { most_traps = 100 };

static void print_trap(const char *line) {
    str_node *fields = NULL;
    char moment[trap_time_size];
    const size_t length = strlen(line);
    const size_t split = length < trap_time_size ? length : trap_time_size - 1;
    snprintf(moment, sizeof moment, "%.*s", (int)split, line);
    add_html(&fields, "time", moment);
    add_html(&fields, "text", line + split + (line[split] == ' '));
    print_template("traps-row", &fields);
    free_list(&fields);
}

/* Prints the lines of a log, last line first. @return the number of wanted lines still missing. */
static int print_log(const char *path, int wanted) {
    static char log[longest_trap_log + value_size];
    const int file = open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (file < 0)
        return wanted;
    ssize_t length = read_close(file, log, sizeof log - 1);
    while (wanted > 0 && length > 0) {
        log[--length] = '\0'; /* the newline */
        const char *before = memrchr(log, '\n', (size_t)length);
        const char *line = before ? before + 1 : log;
        print_trap(line);
        length = line - log;
        wanted--;
    }
    return wanted;
}

int main(void) {
    if (accept_request())
        refuse("405 Method Not Allowed", "This page only supports viewing.");
    print_page_start("200 OK", "traps", "", "Log");
    print_template("traps", &(str_node *){NULL});
    const int left = print_log(TRAP_LOG, most_traps);
    print_log(OLD_TRAP_LOG, left);
    print_template("traps-end", &(str_node *){NULL});
    print_page_end();
    return EXIT_SUCCESS;
}
