/* SPDX-License-Identifier: MIT */
/* Does the same as with_corvel.c with the C library alone: the minimum cost of such a program. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int digit(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return 0;
}

static void decode(const char *source, char *target, size_t size) {
    size_t used = 0;

    for (; *source != '\0' && *source != '&' && used + 1 < size; ++source) {
        if (*source == '%' && source[1] != '\0' && source[2] != '\0') {
            target[used++] = (char)(digit(source[1]) * 16 + digit(source[2]));
            source += 2;
        } else {
            target[used++] = *source == '+' ? ' ' : *source;
        }
    }
    target[used] = '\0';
}

int main(int argc, char **argv) {
    static const char name[] = "address=";
    static const char marker[] = "$address";
    const char *query = getenv("QUERY_STRING");
    char address[256] = "";
    char line[1024];
    FILE *page;

    if (argc < 2)
        return 2;
    if (query != NULL && strncmp(query, name, sizeof name - 1) == 0)
        decode(query + sizeof name - 1, address, sizeof address);
    printf("Content-Type: text/html\n\n");
    page = fopen(argv[1], "r");
    if (page == NULL)
        return 1;
    while (fgets(line, sizeof line, page) != NULL) {
        const char *found = strstr(line, marker);
        if (found == NULL)
            fputs(line, stdout);
        else
            printf("%.*s%s%s", (int)(found - line), line, address, found + sizeof marker - 1);
    }
    fclose(page);
    return 0;
}
