/* SPDX-License-Identifier: MIT */
/* Decodes the request's only field and fills the page named by the first argument. */
#include "corvel.h"

int main(int argc, char **argv) {
    prop_entry table[16];
    char address[CORVEL_GET_PROP_SIZE] = "";
    str_node *fields = NULL;
    int count;

    if (argc < 2)
        return 2;
    count = process_queue_get(table);
    get_prop("address", address, table, count);
    fputs("Content-Type: text/html\n\n", stdout);
    add_str(&fields, "address", address);
    print_html(argv[1], &fields);
    free_list(&fields);
    free_prop(table, count);
    return 0;
}
