/* SPDX-License-Identifier: MIT */
/*
 * A small CGI program that uses the library: it prints a page with one value of a property file.
 * page_alone.c prints the same page without the library. Before it exits it waits for the end of
 * its input, so that its resident memory can be measured.
 *
 * usage: page DIRECTORY, which contains the files lan.conf and lan.html
 */
#include <corvel.h>

#include <unistd.h>

int main(int argc, char **argv) {
    prop_entry settings[16];
    char address[256] = "";
    str_node *page = NULL;
    int count;
    if (argc != 2 || chdir(argv[1]) != 0)
        return 2;
    count = load_prop('=', "lan.conf", settings);
    get_prop("IPADDR", address, settings, count);
    add_str(&page, "IPADDR", address);
    printf("Content-Type: text/html\r\n\r\n");
    print_html("lan.html", &page);
    free_list(&page);
    free_prop(settings, count);
    fflush(stdout);
    while (getchar() != EOF) {
    }
    return 0;
}
