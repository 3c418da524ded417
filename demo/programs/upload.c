/* SPDX-License-Identifier: MIT */
/*
 * Receives an upgrade image, checks it, stages it, and redirects the browser to the upgrade page.
 * If the image cannot be written, the response shows the results of the check.
 */
#include "firmware.h"

#include <stdbool.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

/* The file that is being received. */
typedef struct intake {
    FILE *file;
    upgrade_record record;
    const char *complaint; /* of a refused part; null if no part was refused */
} intake;

/* The client chooses the name. One that cannot be stored in a property file is replaced. */
static bool begin(void *context, const corvel_part *part) {
    intake *in = context;
    if (in->file)
        in->complaint = "The form contained several files. Choose one image.";
    if (in->complaint || strcmp(part->name, "image") != 0)
        return !in->complaint;
    snprintf(in->record.file, sizeof in->record.file, "%s",
             text_complaint(part->filename) ? "image" : part->filename);
    if (!*part->filename)
        return true; /* no file was selected */
    mkdir("/tmp/firmware", 0700);
    in->file = fopen(STAGED_IMAGE, "wb");
    return in->file != NULL;
}

static bool take_data(void *context, const void *bytes, size_t size) {
    const intake *in = context;
    return !in->file || fwrite(bytes, 1, size, in->file) == size;
}

/* Receives the image into its file. Returns the status; if it is not 200, there is no file. */
static int receive(intake *in) {
    const corvel_upload_limits limits = {.file_max = longest_upload, .total_max = longest_upload};
    const corvel_upload_sink sink = {in, begin, take_data, NULL};
    const char *complaint = NULL;
    int status =
        corvel_upload_status(corvel_upload_read(own_request(), &limits, &sink), &complaint);
    const bool is_whole = in->file && fclose(in->file) == 0;
    if (status == CORVEL_HTTP_OK && !in->file) {
        status = CORVEL_HTTP_BAD_REQUEST;
        complaint = "The form contained no file. Choose an image first.";
    } else if (status == CORVEL_HTTP_OK && !is_whole) {
        status = CORVEL_HTTP_SERVICE_UNAVAILABLE;
        complaint = "The device does not have enough memory for the image.";
    }
    if (in->complaint)
        status = CORVEL_HTTP_BAD_REQUEST;
    else
        in->complaint = complaint;
    if (status != CORVEL_HTTP_OK)
        remove(STAGED_IMAGE);
    return status;
}

/* Discards the previous image before the new one is received. */
static void forget_staged(void) {
    const upgrade_record nothing = {.state = ""};
    remove(STAGED_IMAGE);
    save_upgrade(&nothing);
}

static void show_refusal(const char *name, const image_report *report) {
    str_node *fields = NULL;
    add_message(&fields, "", 0);
    add_html(&fields, "file", name);
    add_html(&fields, "complaint", report->complaint);
    add_sections(&fields, report);
    add_findings(&fields, report);
    add_str(&fields, "some_found", report->count || *report->failed ? "" : "hidden");
    print_upgrade_page("422 Unprocessable Content", "upgrade-refused", "", &fields);
}

static void take(intake *in) {
    image_report report;
    size_t size = 0;
    const unsigned char *image = map_image(&size);
    check_image(image, size, &report);
    snprintf(in->record.state, sizeof in->record.state, "staged");
    if (*report.complaint) {
        remove(STAGED_IMAGE);
        show_refusal(in->record.file, &report);
    } else if (save_upgrade(&in->record)) {
        print_redirect("/cgi-bin/upgrade");
    } else {
        remove(STAGED_IMAGE);
        refuse("503 Service Unavailable", "The upload could not be recorded.");
    }
}

int main(void) {
    ignore_disconnection(); /* an incomplete image would stay in memory */
    accept_upload();
    lock_upgrade();
    const boot_state boot = read_boot_state();
    if (boot.next >= 0 && boot.next != boot.running)
        refuse("409 Conflict", "Restart the router to complete the last upgrade first.");

    forget_staged();
    intake in = {.file = NULL};
    const int status = receive(&in);
    if (status != CORVEL_HTTP_OK)
        refuse_status(status, in.complaint);
    take(&in);
    return EXIT_SUCCESS;
}
