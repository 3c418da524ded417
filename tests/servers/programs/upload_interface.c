/* SPDX-License-Identifier: MIT */
/* The page of upload_page.c, on the interface alone: at most four files, and no fields. */
#include <corvel.h>

#include "interface.h"

#define DIRECTORY "../../received"

/** Reads the files of the upload. Returns their number; -1 if no complete upload arrived. */
static int receive(prop_file files[CORVEL_UPLOAD_FILES]) {
    char *boundary = NULL;
    int length = 0;
    int boundary_length = 0;
    int count = -1;
    const int response = hide_output(); /* process_file() prints bytes of the request */
    char *upload = read_queue_for_upload1(&length, &boundary, &boundary_length);

    if (upload)
        count = process_file(upload, length, boundary, files);
    show_output(response);
    free(upload);
    free(boundary);
    return count;
}

static int store(const prop_file *file, int number) {
    char path[64];
    FILE *stored;
    int done;

    snprintf(path, sizeof path, DIRECTORY "/%d", number);
    stored = fopen(path, "wx");
    done = stored && fwrite(file->data, 1, file->size, stored) == file->size;
    return stored && fclose(stored) == 0 && done;
}

static void show(const prop_file *files, int count) {
    printf("Content-Type: application/json\r\nCache-Control: no-store\r\n\r\n{\"files\":[");
    for (int file = 0; file < count; file++) {
        printf(file > 0 ? ",{\"name\":" : "{\"name\":");
        print_json(files[file].filename);
        printf(",\"type\":");
        print_json(files[file].content_type);
        printf(",\"size\":%u}", (unsigned int)files[file].size);
    }
    printf("]}");
}

int main(void) {
    static prop_file files[CORVEL_UPLOAD_FILES]; /* all zero */
    int stored = 0;
    int count;

    alarm(600); /* ends the program if the body does not arrive */
    count = receive(files);
    if (count < 0) {
        refuse("400 Bad Request");
        return 0;
    }
    while (stored < count && store(&files[stored], stored))
        stored++;
    if (stored == count)
        show(files, count);
    else
        printf("Status: 500 Internal Server Error\r\n\r\n");
    free_prop_file(files, count);
    return 0;
}
