/* SPDX-License-Identifier: MIT */
/* Reads an upload from standard input and extracts its files, as a CGI program does, and prints its
 * peak resident memory in KiB, before reading and at the end.
 *
 * The peak is the kernel's VmHWM of this process. getrusage() reports a greater value if the
 * program was started by a larger process. */
#include "corvel.h"

#include <stdio.h>
#include <stdlib.h>

/* The pause before a large upload is not measured. */
unsigned int sleep(unsigned int seconds) {
    (void)seconds;
    return 0;
}

static long peak(void) {
    char line[128];
    long kib = -1;
    FILE *status = fopen("/proc/self/status", "r");

    if (status == NULL)
        return -1;
    while (kib < 0 && fgets(line, sizeof line, status) != NULL)
        if (sscanf(line, "VmHWM: %ld kB", &kib) != 1)
            kib = -1;
    fclose(status);
    return kib;
}

int main(void) {
    static prop_file files[CORVEL_UPLOAD_FILES];
    char *boundary = NULL;
    int length = 0;
    int boundary_length = 0;
    const long before = peak();
    char *upload = read_queue_for_upload1(&length, &boundary, &boundary_length);
    const int count = upload != NULL ? process_file(upload, length, boundary, files) : 0;

    if (count != 1)
        return 1;
    printf("%ld %ld %u\n", before, peak(), (unsigned int)files[0].size);
    free_prop_file(files, count);
    free(upload);
    free(boundary);
    return 0;
}
