/* SPDX-License-Identifier: MIT */
/*
 * The boot loader: selects the set by the boot environment, and writes the kernel's command line
 * with that set's root file system. Without an environment it starts set A.
 */
#define _GNU_SOURCE
#include "firmware.h"

#include <stdlib.h>
#include <string.h>

/* Prints the command line with its root device replaced. */
static void print_with_root(FILE *file, const char *line, unsigned int partition) {
    static const char key[] = "root=";
    const char *root = strstr(line, key);
    const char *rest = root ? strchrnul(root, ' ') : line;
    const int before = root ? (int)(root - line) : 0;
    fprintf(file, "%.*s%s31:%u %s\n", before, line, key, partition, rest + (*rest == ' '));
}

int main(void) {
    get_bootparam();
    const char *arguments = get_env("bootargs");
    FILE *file = fopen(COMMAND_LINE, "w");
    if (!file)
        return EXIT_FAILURE;
    print_with_root(file, arguments ? arguments : "", root_partition(bootparam));
    return fclose(file) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
