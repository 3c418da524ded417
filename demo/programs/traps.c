/* SPDX-License-Identifier: MIT */
/*
 * The log page: the events of the device, newest first, page by page, selected by kind and by text.
 */
#define _GNU_SOURCE
#include "trap.h"

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

enum { entries_of_page = 100, longest_log = 2 * (longest_trap_log + line_size) };

/* What the query asks for. */
typedef struct selection {
    const char *kind; /* the name of a kind, or empty for all */
    const char *text; /* which the entry contains, regardless of case */
    long page;        /* from 1 */
} selection;

/* An entry of the log. */
typedef struct entry {
    const char *time; /* as in the log; empty if the line has none */
    const char *kind; /* "Other" if another program has sent the trap */
    const char *text;
} entry;

static const char other[] = "Other";

/* Reading. */

/* Of a file that another program has made larger, the end is read. */
static size_t read_file(int file, char *to) {
    lseek(file, -(off_t)(longest_log / 2), SEEK_END);
    const ssize_t size = file < 0 ? 0 : read_close(file, to, longest_log / 2);
    return size < 0 ? 0 : (size_t)size;
}

static int open_log(const char *path) { return open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC); }

static bool is_same(int one, int other_one) {
    struct stat status;
    struct stat other_status;
    return fstat(one, &status) == 0 && fstat(other_one, &other_status) == 0 &&
           status.st_ino == other_status.st_ino;
}

/* Reads the previous log and the current one, as a string. If the current one becomes the previous
 * one between the two calls of open(), they are opened again. */
static void read_log(char log[longest_log + 1]) {
    int current = open_log(TRAP_LOG);
    int previous = open_log(OLD_TRAP_LOG);
    if (is_same(current, previous)) {
        close(current);
        current = open_log(TRAP_LOG);
    }
    size_t size = read_file(previous, log);
    size += read_file(current, log + size);
    log[size] = '\0';
}

/* Selecting. */

/* The name of the kind that a text begins with, and the rest of the text. */
static const char *take_kind(const char **text) {
    for (int i = 0; i < event_kinds; i++) {
        const size_t length = strlen(event_names[i]);
        if (strncmp(*text, event_names[i], length) == 0 && strncmp(*text + length, ": ", 2) == 0) {
            *text += length + 2;
            return event_names[i];
        }
    }
    return other;
}

static entry parse(const char *line) {
    entry parsed = {.time = "", .text = line};
    if (strlen(line) >= trap_time_size && line[trap_time_size - 1] == ' ') {
        parsed.time = line;
        parsed.text = line + trap_time_size;
    }
    parsed.kind = take_kind(&parsed.text);
    return parsed;
}

static bool is_selected(const entry *found, const selection *wanted) {
    return (!*wanted->kind || strcmp(found->kind, wanted->kind) == 0) &&
           strcasestr(found->text, wanted->text);
}

/* Responses. */

/* The time is shown in the zone of the device. */
static void put_entry(struct page *page, const entry *shown) {
    char time[CORVEL_TIME_TEXT_SIZE] = "";
    struct tm utc = {0};
    if (strptime(shown->time, TRAP_TIME_FORMAT, &utc))
        corvel_date_text(timegm(&utc), time);
    open_row(page);
    put(page, "time", time);
    put(page, "kind", shown->kind);
    put(page, "text", shown->text);
    close_part(page);
}

/* Shows the entries of the page. Returns the number of those that the selection contains. */
static long put_entries(struct page *page, char *log, const selection *wanted) {
    const long first = (wanted->page - 1) * entries_of_page;
    long count = 0;
    open_list(page, "traps");
    for (size_t size = strlen(log); size > 0;) {
        size -= log[size - 1] == '\n';
        log[size] = '\0';
        const char *before = memrchr(log, '\n', size);
        const char *line = before ? before + 1 : log;
        const entry found = parse(line);
        size = (size_t)(line - log);
        if (is_selected(&found, wanted) && ++count > first && count <= first + entries_of_page)
            put_entry(page, &found);
    }
    close_part(page);
    return count;
}

/* Adds the query of another page of the same selection. */
static void put_link(struct page *page, const char *name, const selection *wanted, long number) {
    char encoded[CORVEL_URL_SIZE(line_size)];
    char query[sizeof encoded + line_size];
    corvel_url_encode(wanted->text, encoded, sizeof encoded);
    snprintf(query, sizeof query, "kind=%s&text=%s&page=%ld", wanted->kind, encoded, number);
    put(page, name, query);
}

static void put_position(struct page *page, const selection *wanted, long count) {
    const long first = (wanted->page - 1) * entries_of_page + 1;
    const long last = first + entries_of_page - 1;
    const long pages = (count + entries_of_page - 1) / entries_of_page;
    open_object(page, "log");
    put_number(page, "count", count);
    put_number(page, "first", first);
    put_number(page, "last", last < count ? last : count);
    if (wanted->page > 1)
        put_link(page, "newer", wanted, wanted->page > pages ? 1 : wanted->page - 1);
    if (wanted->page < pages)
        put_link(page, "older", wanted, wanted->page + 1);
    close_part(page);
    if (first <= count)
        corvel_data_set(page->data, "found", "1");
    if (*wanted->kind || *wanted->text)
        corvel_data_set(page->data, "filtered", "1");
}

static void put_kind(struct page *page, const char *name, const char *chosen) {
    corvel_data *option = corvel_data_add(page->data, "kinds");
    corvel_data_set(option, "value", name);
    if (strcmp(name, chosen) == 0)
        corvel_data_set(option, "chosen", "1");
}

/* The filter shows what it was sent. */
static void put_filter(struct page *page, const selection *wanted) {
    for (int i = 0; i < event_kinds; i++)
        put_kind(page, event_names[i], wanted->kind);
    put_kind(page, other, wanted->kind);
    corvel_data_set(page->data, "wanted", wanted->text);
}

static const char *field_or(const struct page *page, const char *name, const char *otherwise) {
    const char *value = corvel_field(page->request, name);
    return value ? value : otherwise;
}

/* An unknown kind counts as all; a page that does not exist as the first. */
static selection read_selection(const struct page *page) {
    selection wanted = {.text = field_or(page, "text", ""), .kind = "", .page = 1};
    const char *kind = field_or(page, "kind", "");
    for (int i = 0; i < event_kinds; i++)
        if (strcmp(kind, event_names[i]) == 0)
            wanted.kind = event_names[i];
    if (strcmp(kind, other) == 0)
        wanted.kind = other;
    if (corvel_check_text(wanted.text, 0, line_size - 1))
        wanted.text = "";
    corvel_check_integer(field_or(page, "page", "1"), 1, longest_log, &wanted.page);
    return wanted;
}

static void show_log(struct page *page) {
    static char log[longest_log + 1];
    const selection wanted = read_selection(page);
    read_log(log);
    put_filter(page, &wanted);
    put_position(page, &wanted, put_entries(page, log, &wanted));
    show(page, "traps");
}

int main(void) { return serve(&(site_page){.name = "traps", .get = show_log}); }
