/* SPDX-License-Identifier: MIT */
/* The page of page.c, printed without the library; it waits in the same way. */
#include <stdio.h>
#include <unistd.h>

int main(int argc, char **argv) {
    if (argc != 2 || chdir(argv[1]) != 0)
        return 2;
    printf("Content-Type: text/html\r\n\r\n");
    printf("<input name=\"IPADDR\" value=\"192.168.1.1\">\n");
    fflush(stdout);
    while (getchar() != EOF) {
    }
    return 0;
}
