/* SPDX-License-Identifier: MIT */
/* The log page: the traps that the device has sent, newest first. */
#define _GNU_SOURCE
#include "trap.h"

#include <fcntl.h>
#include <string.h>
#include <unistd.h>

enum { most_traps = 100 };

static void put_trap(struct page *page, const char *line) {
    char moment[trap_time_size];
    const size_t length = strlen(line);
    const size_t split = length < trap_time_size ? length : trap_time_size - 1;
    snprintf(moment, sizeof moment, "%.*s", (int)split, line);
    open_row(page);
    put(page, "time", moment);
    put(page, "text", line + split + (line[split] == ' '));
    close_part(page);
}

/* Adds the lines of a log, last line first. @return the number of wanted lines still missing. */
static int put_log(struct page *page, const char *path, int wanted) {
    static char log[longest_trap_log + line_size];
    const int file = open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (file < 0)
        return wanted;
    ssize_t length = read_close(file, log, sizeof log - 1);
    while (wanted > 0 && length > 0) {
        log[--length] = '\0'; /* the newline */
        const char *before = memrchr(log, '\n', (size_t)length);
        const char *line = before ? before + 1 : log;
        put_trap(page, line);
        length = line - log;
        wanted--;
    }
    return wanted;
}

static void show_log(struct page *page) {
    open_list(page, "traps");
    const int left = put_log(page, TRAP_LOG, most_traps);
    put_log(page, OLD_TRAP_LOG, left);
    close_part(page);
    show(page, "traps");
}

int main(void) { return serve(&(site_page){.name = "traps", .get = show_log}); }
