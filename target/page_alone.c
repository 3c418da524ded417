/* SPDX-License-Identifier: MIT */
/* Prints the page of page.c without the library, and waits in the same way. */
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
