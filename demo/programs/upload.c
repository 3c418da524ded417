/* SPDX-License-Identifier: MIT */
/*
 * Receives an upgrade image, checks it, stages it, and redirects the browser to the upgrade page.
 * If the image cannot be written, the response shows the results of the check.
 */
#include "firmware.h"

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

/*
 * Replaces the C library's function. libcorvel calls it before it reads a large upload, so that the
 * device can settle. With UPLOAD_PAUSE=no it returns at once, for tests of the simulated device.
 */
unsigned int sleep(unsigned int seconds) {
    const char *pause = getenv("UPLOAD_PAUSE");
    struct timespec left = {(time_t)seconds, 0};
    if (pause && STRCMP(pause, "no") == 0)
        return 0;
    while (nanosleep(&left, &left) != 0 && errno == EINTR)
        continue;
    return 0;
}

/* Returns the number of files, or -1 if the upload is incomplete. Frees the upload itself, which is
 * as large as the files. */
static int receive(prop_file files[CORVEL_UPLOAD_FILES]) {
    int length = 0;
    int boundary_length = 0;
    char *boundary = NULL;
    const int output = mute_output(); /* process_file() prints bytes of a part without a type */
    char *upload = read_queue_for_upload1(&length, &boundary, &boundary_length);
    const int count = upload ? process_file(upload, length, boundary, files) : 0;
    unmute_output(output);
    free(upload);
    free(boundary);
    return upload ? count : -1;
}

static const char *file_complaint(int count) {
    if (count < 0)
        return "The upload is incomplete.";
    if (count == 0)
        return "The form contained no file. Choose an image first.";
    return count > 1 ? "The form contained several files. Choose one image." : NULL;
}

/* The client chooses the name. Its directories are removed, and a name that cannot be stored in a
 * property file is replaced. */
static void take_name(const char *path, char *name, size_t size) {
    const char *start = path;
    for (const char *at = path; *at; at++)
        if (*at == '/' || *at == '\\')
            start = at + 1;
    snprintf(name, size, "%s", text_complaint(start) ? "image" : start);
}

static int write_image(const prop_file *image) {
    mkdir("/tmp/firmware", 0700);
    FILE *file = fopen(STAGED_IMAGE, "wb");
    if (!file)
        return 0;
    const int whole = fwrite(image->data, 1, image->size, file) == image->size;
    return fclose(file) == 0 && whole;
}

static int stage(const prop_file *image) {
    upgrade_record record = {.state = "staged"};
    take_name(image->filename, record.file, sizeof record.file);
    if (write_image(image) && save_upgrade(&record))
        return 1;
    remove(STAGED_IMAGE);
    return 0;
}

/* Discards the previous image before the new one is received. */
static void forget_staged(void) {
    const upgrade_record nothing = {.state = ""};
    remove(STAGED_IMAGE);
    save_upgrade(&nothing);
}

static void show_refusal(const prop_file *image, const image_report *report) {
    char name[96];
    str_node *fields = NULL;
    take_name(image->filename, name, sizeof name);
    add_message(&fields, "", 0);
    add_html(&fields, "file", name);
    add_html(&fields, "complaint", report->complaint);
    add_sections(&fields, report);
    add_findings(&fields, report);
    add_str(&fields, "some_found", report->count || *report->failed ? "" : "hidden");
    print_upgrade_page("422 Unprocessable Content", "upgrade-refused", "", &fields);
}

static void take(const prop_file *image) {
    image_report report;
    check_image((const unsigned char *)image->data, image->size, &report);
    if (*report.complaint)
        show_refusal(image, &report);
    else if (stage(image))
        print_redirect("/cgi-bin/upgrade");
    else
        refuse("507 Insufficient Storage", "The device does not have enough memory for the image.");
}

int main(void) {
    signal(SIGPIPE, SIG_IGN); /* a response to a client that has disconnected is lost */
    accept_upload();
    lock_upgrade();
    const boot_state boot = read_boot_state();
    if (boot.next >= 0 && boot.next != boot.running)
        refuse("409 Conflict", "Restart the router to complete the last upgrade first.");

    forget_staged();
    prop_file files[CORVEL_UPLOAD_FILES] = {0};
    const int count = receive(files);
    const char *complaint = file_complaint(count);
    if (complaint)
        refuse("400 Bad Request", complaint);
    take(&files[0]);
    free_prop_file(files, count);
    return EXIT_SUCCESS;
}
