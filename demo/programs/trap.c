/* SPDX-License-Identifier: MIT */
#define _GNU_SOURCE
#include "trap.h"

#include <stdarg.h>
#include <string.h>
#include <unistd.h>

/* A user's name and an IPv6 address, with what surrounds them. */
enum { source_size = sizeof " (, )" + 32 + 45 };

const char *const event_names[event_kinds] = {"Login", "Password", "Settings", "Firmware",
                                              "System"};

static void send_trap(const char record[trap_size]) {
    const int output = mute_output();
    const int receiver = open_socket_for_trap();
    if (receiver > 0) {
        send_trap_msg(receiver, record);
        close(receiver);
    }
    unmute_output(output);
}

/* Truncates a text, not within a character of UTF-8, and marks that. */
static void shorten(char *text, size_t length) {
    static const char mark[] = "...";
    if (strlen(text) <= length)
        return;
    length -= strlen(mark);
    while (length > 0 && ((unsigned char)text[length] & 0xC0U) == 0x80)
        length--;
    memcpy(text + length, mark, sizeof mark);
}

/* Writes who has caused an event: " (admin, 192.168.1.20)". */
static void write_source(const struct page *page, char source[source_size]) {
    const char *user = page ? corvel_session_user(page->session) : NULL;
    const char *address = page ? corvel_client_address(page->request) : "";
    *source = '\0';
    if (user || *address)
        snprintf(source, source_size, " (%.32s%s%.45s)", user ? user : "",
                 user && *address ? ", " : "", address);
}

void log_event(const struct page *page, event_kind kind, const char *format, ...) {
    char record[trap_size];
    char source[source_size];
    char text[line_size];
    va_list values;
    va_start(values, format);
    vsnprintf(text, sizeof text, format, values);
    va_end(values);
    write_source(page, source);
    shorten(text, sizeof record - 1 - strlen(event_names[kind]) - strlen(": ") - strlen(source));
    memset(record, 0, sizeof record);
    stpcpy(stpcpy(stpcpy(stpcpy(record, event_names[kind]), ": "), text), source);
    send_trap(record);
}
