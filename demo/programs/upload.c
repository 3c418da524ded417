/* SPDX-License-Identifier: MIT */
/*
 * Receives an upgrade image, checks it, stages it, and redirects the browser to the upgrade page.
 * If the image cannot be written, the response shows the results of the check.
 */
#include "firmware.h"

#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

/* The file that is being received. */
typedef struct intake {
    FILE *file;
    char name[line_size];  /* as the client names it */
    const char *complaint; /* of a refused part; null if no part was refused */
    const char *id;        /* of the upload; may be null */
    int lock;
    bool is_cancelled; /* the file was removed; the next one is another upload's */
} intake;

/* Records the upload for those who watch its progress. */
static void record_upload(const char *id) {
    const char *length = getenv("CONTENT_LENGTH");
    FILE *file = fopen(UPLOAD_RECORD, "w");
    if (!file)
        return;
    fprintf(file, "%s\n%s\n", length ? length : "", corvel_check_text(id, 1, 40) ? "" : id);
    fclose(file);
}

static bool begin(void *context, const corvel_part *part) {
    intake *in = context;
    if (in->file)
        in->complaint = "The form contained several files. Choose one image.";
    if (in->complaint || strcmp(part->name, "image") != 0)
        return !in->complaint;
    snprintf(in->name, sizeof in->name, "%s",
             corvel_check_text(part->filename, 1, 80) ? "image" : part->filename);
    if (!*part->filename)
        return true; /* no file was selected */
    mkdir("/tmp/firmware", 0700);
    record_upload(in->id);
    in->file = fopen(RECEIVED_IMAGE, "wb");
    return in->file != NULL;
}

/* A form in another window cancels the upload. The rest of the body is received without the lock.
 */
static bool is_cancelled(intake *in) {
    struct stat file;
    if (fstat(fileno(in->file), &file) != 0 || file.st_nlink > 0)
        return false;
    in->complaint = "The upload was cancelled in another window.";
    in->is_cancelled = true;
    unlock_upgrade(in->lock);
    return true;
}

static bool take_data(void *context, const void *bytes, size_t size) {
    intake *in = context;
    return !in->file || (!is_cancelled(in) && fwrite(bytes, 1, size, in->file) == size);
}

/* Receives the image into its file. Returns the status. */
static int receive(const struct page *page, intake *in) {
    const corvel_upload_limits limits = {.file_max = CORVEL_UPLOAD_MAX};
    const corvel_upload_sink sink = {in, begin, take_data, NULL};
    const char *complaint = NULL;
    const corvel_upload_result result = corvel_upload_read(page->request, &limits, &sink);
    const int status = corvel_upload_status(result, &complaint);
    const bool is_whole = in->file && fclose(in->file) == 0;
    if (in->complaint)
        return in->is_cancelled ? CORVEL_HTTP_CONFLICT : CORVEL_HTTP_BAD_REQUEST;
    in->complaint = complaint;
    if (result == CORVEL_UPLOAD_FILE_TOO_LARGE || result == CORVEL_UPLOAD_TOO_LARGE)
        in->complaint = "The file is larger than 16 MiB, so it is not an image for this router.";
    if (status == CORVEL_HTTP_OK && !in->file) {
        in->complaint = "The form contained no file. Choose an image first.";
        return CORVEL_HTTP_BAD_REQUEST;
    }
    if (status == CORVEL_HTTP_OK && !is_whole) {
        in->complaint = "The device does not have enough memory for the image.";
        return CORVEL_HTTP_SERVICE_UNAVAILABLE;
    }
    return status;
}

static bool stage(const char *name) {
    FILE *file = fopen(IMAGE_NAME, "w");
    if (!file)
        return false;
    const bool is_written = fputs(name, file) >= 0;
    return fclose(file) == 0 && is_written && rename(RECEIVED_IMAGE, STAGED_IMAGE) == 0;
}

static void take(struct page *page, const intake *in) {
    corvel_upgrade_report report;
    const corvel_upgrade_result result =
        corvel_upgrade_check(&upgrade_rules, RECEIVED_IMAGE, &report);
    if (result != CORVEL_UPGRADE_DONE) {
        discard_image();
        log_event(page, FIRMWARE_EVENT, "Upload refused: %s", corvel_upgrade_complaint(result));
        corvel_answer_status(page->answer, CORVEL_HTTP_UNPROCESSABLE_CONTENT);
        put(page, "file", in->name);
        put(page, "state", "refused");
        put_report(page, &report, result);
        show_upgrade(page, "upgrade-refused", 2);
    } else if (stage(in->name)) {
        corvel_answer_redirect(page->answer, "/cgi-bin/upgrade");
    } else {
        discard_image();
        corvel_answer_error(page->answer, CORVEL_HTTP_SERVICE_UNAVAILABLE,
                            "The image could not be stored.");
    }
}

static void refuse_size(struct page *page, const intake *in) {
    discard_image();
    log_event(page, FIRMWARE_EVENT, "Upload refused: %s", in->complaint);
    corvel_answer_status(page->answer, CORVEL_HTTP_CONTENT_TOO_LARGE);
    put(page, "file", *in->name ? in->name : "This file");
    put(page, "complaint", in->complaint);
    put(page, "state", "refused");
    show_upgrade(page, "upgrade-refused", 2);
}

static void receive_and_take(struct page *page, int lock) {
    intake in = {.lock = lock, .id = corvel_query(page->request, "id")};
    corvel_boot boot;
    corvel_boot_read(&upgrade_rules, &boot);
    if (is_restart_pending(&boot)) {
        corvel_answer_error(page->answer, CORVEL_HTTP_CONFLICT,
                            corvel_upgrade_complaint(CORVEL_UPGRADE_RESTART_FIRST));
        return;
    }
    discard_image(); /* the previous one */
    const int status = receive(page, &in);
    if (status == CORVEL_HTTP_OK) {
        take(page, &in);
    } else if (status == CORVEL_HTTP_CONTENT_TOO_LARGE) {
        refuse_size(page, &in);
    } else {
        if (!in.is_cancelled)
            discard_image();
        log_event(page, FIRMWARE_EVENT, "Upload refused: %s", in.complaint);
        corvel_answer_error(page->answer, status, in.complaint);
    }
}

static void handle_post(struct page *page) {
    ignore_disconnection(); /* an incomplete image would stay in memory */
    const int lock = lock_upgrade(page);
    if (lock < 0)
        return;
    receive_and_take(page, lock);
    close(lock);
}

int main(void) {
    return serve(&(site_page){.name = "upgrade", .post = handle_post, .is_upload = true});
}
