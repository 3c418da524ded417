/* SPDX-License-Identifier: MIT */
/*
 * Receives an upgrade image, checks it, and stages it for the upgrade page, which is where the
 * browser goes next. An image that can't be written is refused with all that is known about it.
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
 * Stands in for the C library's function, which the library calls by this name: before it reads a
 * large upload it waits until the device has settled. A test of a simulated device need not wait.
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

/* The files of the upload; the upload itself, as large as they are, is released. */
static int receive(prop_file files[4]) {
    int length = 0;
    int boundary_length = 0;
    char *boundary = NULL;
    const int output = mute_output(); /* a part without a type is dumped there */
    char *upload = read_queue_for_upload1(&length, &boundary, &boundary_length);
    const int count = upload ? process_file(upload, length, boundary, files) : 0;
    unmute_output(output);
    free(upload);
    free(boundary);
    return upload ? count : -1;
}

static const char *file_complaint(int count) {
    if (count < 0)
        return "The upload has not come whole.";
    if (count == 0)
        return "No file has come with the form. Choose an image first.";
    return count > 1 ? "Several files have come with the form. Choose one image." : NULL;
}

/* The name is the client's: what it says about folders is of no use here, and some texts can't be
 * kept in a file of lines. */
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

/* What was staged before is given up for what comes now. */
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
        refuse("507 Insufficient Storage", "The device has not enough memory to keep the image.");
}

int main(void) {
    signal(SIGPIPE, SIG_IGN); /* who goes away while sending is not there to be answered */
    accept_upload();
    lock_upgrade();
    const boot_state boot = read_boot_state();
    if (boot.next >= 0 && boot.next != boot.running)
        refuse("409 Conflict", "The last upgrade has to be started before another one is made.");

    forget_staged();
    prop_file files[4] = {0};
    const int count = receive(files);
    const char *complaint = file_complaint(count);
    if (complaint)
        refuse("400 Bad Request", complaint);
    take(&files[0]);
    free_prop_file(files, count);
    return EXIT_SUCCESS;
}
