/* SPDX-License-Identifier: MIT */
/** What each page on the interface needs besides the library; the page kit includes all of it. */
#ifndef CORVEL_TESTS_SERVERS_INTERFACE_H
#define CORVEL_TESTS_SERVERS_INTERFACE_H

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

/** Redirects standard output to /dev/null. Returns the descriptor of the response. */
static inline int hide_output(void) {
    int response;
    int nowhere;
    fflush(stdout);
    response = dup(STDOUT_FILENO);
    nowhere = open("/dev/null", O_WRONLY);
    if (response < 0 || nowhere < 0 || dup2(nowhere, STDOUT_FILENO) < 0)
        exit(EXIT_FAILURE);
    close(nowhere);
    return response;
}

/** Undoes hide_output(). */
static inline void show_output(int response) {
    fflush(stdout);
    if (dup2(response, STDOUT_FILENO) < 0)
        exit(EXIT_FAILURE);
    close(response);
}

static inline unsigned long announced_length(void) {
    const char *length = getenv("CONTENT_LENGTH");
    return length ? strtoul(length, NULL, 10) : 0;
}

/** Reads the rest of the body, at most 64 MiB, and prints the status. */
static inline void refuse(const char *status) {
    static char piece[16384];
    unsigned long left = announced_length();
    if (left > 67108864)
        left = 67108864;
    while (left > 0) {
        const size_t got = fread(piece, 1, left < sizeof piece ? left : sizeof piece, stdin);
        if (got == 0)
            break;
        left -= got;
    }
    printf("Status: %s\r\n\r\n", status);
}

/** Prints a string of JSON. */
static inline void print_json(const char *text) {
    putchar('"');
    for (; *text; text++) {
        if ((unsigned char)*text < ' ') {
            printf("\\u%04x", (unsigned int)*text);
            continue;
        }
        if (*text == '"' || *text == '\\')
            putchar('\\');
        putchar(*text);
    }
    putchar('"');
}

#endif
