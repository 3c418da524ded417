/* SPDX-License-Identifier: MIT */
/*
 * The upgrade page: shows the two sets, the received image and the progress of writing. Its forms
 * write or discard the staged image, cancel the writing, and restart the device.
 *
 * A separate process writes the image, so that it continues if the browser disconnects. If it is
 * killed, the running set is unchanged and still boots.
 */
#define _GNU_SOURCE
#include "firmware.h"
#include "trap.h"

#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

/*
 * Replaces the C library's function, which the page kit calls after every write to the flash. This
 * one takes about the time that a flash needs to write an erase block.
 */
int fsync(int fd) {
    const struct timespec block = {0, 10000000};
    (void)fd;
    nanosleep(&block, NULL);
    return 0;
}

/* The state of the upgrade. */

typedef struct upgrade {
    corvel_boot boot;
    corvel_upgrade_status status;
    bool is_locked;
    bool is_staged;
    bool is_writing;
} upgrade;

/* The lock is checked first: a process records its result before it releases the lock. It removes
 * the image last, and until then the image is still being written. */
static upgrade read_upgrade(void) {
    upgrade now = {.is_locked = is_upgrade_locked()};
    now.is_staged = access(STAGED_IMAGE, F_OK) == 0;
    corvel_upgrade_read(&upgrade_rules, &now.status);
    corvel_boot_read(&upgrade_rules, &now.boot);
    const bool has_result =
        now.status.state == CORVEL_UPGRADE_WRITTEN || now.status.state == CORVEL_UPGRADE_FAILED;
    now.is_writing = now.status.state == CORVEL_UPGRADE_WRITING ||
                     (has_result && now.is_locked && now.is_staged);
    return now;
}

static const char *state_name(const upgrade *now) {
    if (now->is_writing)
        return "writing";
    if (now->status.state == CORVEL_UPGRADE_INTERRUPTED)
        return "interrupted";
    if (now->is_staged)
        return "staged";
    if (now->status.state == CORVEL_UPGRADE_FAILED)
        return "failed";
    return now->status.state == CORVEL_UPGRADE_WRITTEN ? "written" : "";
}

/* Called by the process that writes the image. */
static bool finish(void *context, const corvel_upgrade_status *status) {
    (void)context;
    if (status->state == CORVEL_UPGRADE_WRITTEN)
        send_trap(status->set == CORVEL_FIRMWARE_A ? "firmware written: set A"
                                                   : "firmware written: set B");
    if (status->state != CORVEL_UPGRADE_WRITING)
        discard_image();
    return true;
}

/* Responses. */

static void show_choice(struct page *page, const upgrade *now) {
    char message[line_size] = "";
    if (now->status.state == CORVEL_UPGRADE_FAILED)
        snprintf(message, sizeof message, "%s The running set is unchanged and still boots.",
                 corvel_upgrade_complaint(now->status.result));
    put_message(page, message, true);
    show_upgrade(page, "upgrade-choose", 1);
}

static void read_line(const char *path, char line[line_size]) {
    FILE *file = fopen(path, "r");
    *line = '\0';
    if (file && fgets(line, line_size, file))
        line[strcspn(line, "\n")] = '\0';
    if (file)
        fclose(file);
}

static void show_check(struct page *page, const upgrade *now) {
    corvel_upgrade_report report;
    char name[line_size];
    const corvel_upgrade_result result =
        corvel_upgrade_check(&upgrade_rules, STAGED_IMAGE, &report);
    const bool is_cut_off = now->status.state == CORVEL_UPGRADE_INTERRUPTED;
    put_report(page, &report, result);
    read_line(IMAGE_NAME, name);
    put(page, "file", name);
    put(page, "kept", set_letter(now->boot.running));
    put_message(page,
                result != CORVEL_UPGRADE_DONE ? corvel_upgrade_complaint(result)
                : is_cut_off ? "Writing was interrupted. The running set is unchanged and still "
                               "boots. You can write the image again."
                             : "",
                true);
    show_upgrade(page, "upgrade-check", 2);
}

/* Without JavaScript the page reloads itself until the image is written. */
static void show_writing(struct page *page, const upgrade *now) {
    const uint64_t total = now->status.total ? now->status.total : 1;
    corvel_data_set_integer(page->data, "percent",
                            (long long)(now->status.written * UINT64_C(100) / total));
    put(page, "section", now->status.section);
    put(page, "refresh", "1");
    show_upgrade(page, "upgrade-writing", 3);
}

static void show_restart(struct page *page, const upgrade *now) {
    char version[CORVEL_FIRMWARE_VERSION_SIZE];
    put_message(page, "The upgrade has been written and verified.", false);
    put(page, "new_version", corvel_firmware_version(now->boot.next, version));
    put(page, "next_set", set_letter(now->boot.next));
    put(page, "kept", set_letter(now->boot.running));
    show_upgrade(page, "upgrade-restart", 4);
}

static void show_page(struct page *page, const upgrade *now) {
    if (now->is_writing) {
        show_writing(page, now);
    } else if (now->is_locked) {
        put_message(page, "An image is being received.", false);
        show_upgrade(page, "upgrade-choose", 1);
    } else if (is_restart_pending(&now->boot)) {
        show_restart(page, now);
    } else if (now->is_staged) {
        show_check(page, now);
    } else {
        show_choice(page, now);
    }
}

static void put_number(struct page *page, const char *name, uint32_t number) {
    char text[16];
    snprintf(text, sizeof text, "%u", number);
    put(page, name, text);
}

static void show_json(struct page *page, const upgrade *now) {
    char id[line_size];
    char version[CORVEL_FIRMWARE_VERSION_SIZE];
    read_line("/run/boot_id", id);
    open_object(page, "upgrade");
    put(page, "STATE", state_name(now));
    put(page, "SECTION", now->status.section);
    put(page, "REASON", corvel_upgrade_complaint(now->status.result));
    put_number(page, "WRITTEN", now->status.written);
    put_number(page, "TOTAL", now->status.total);
    put(page, "RUNNING", set_letter(now->boot.running));
    put(page, "NEXT", set_letter(now->boot.next));
    put(page, "VERSION_A", corvel_firmware_version(CORVEL_FIRMWARE_A, version));
    put(page, "VERSION_B", corvel_firmware_version(CORVEL_FIRMWARE_B, version));
    put(page, "BOOT_ID", id);
    close_part(page);
    show(page, NULL);
}

static void handle_get(struct page *page) {
    const upgrade now = read_upgrade();
    if (page->is_json)
        show_json(page, &now);
    else
        show_page(page, &now);
}

/* Forms. Each action but cancelling holds the lock, so that no image is written or received, and no
 * restart begins, at the same time. */

static void write_image(struct page *page) {
    corvel_boot boot;
    corvel_boot_read(&upgrade_rules, &boot);
    corvel_upgrade_result result = CORVEL_UPGRADE_NO_IMAGE;
    if (access(STAGED_IMAGE, F_OK) != 0 || is_restart_pending(&boot)) {
        corvel_answer_error(page->answer, CORVEL_HTTP_CONFLICT, "There is no image to write.");
        return;
    }
    result = corvel_upgrade_start(&upgrade_rules, STAGED_IMAGE, finish, NULL);
    if (result == CORVEL_UPGRADE_DONE)
        corvel_answer_redirect(page->answer, "/cgi-bin/upgrade");
    else
        corvel_answer_error(page->answer, CORVEL_HTTP_CONFLICT, corvel_upgrade_complaint(result));
}

static void discard(struct page *page) {
    discard_image();
    corvel_answer_redirect(page->answer, "/cgi-bin/upgrade");
}

/* The answer is sent first: the web server ends with the device. It ends this program, too, when it
 * has the answer. */
static void restart(struct page *page) {
    char id[line_size];
    ignore_disconnection();
    read_line("/run/boot_id", id);
    put_message(page, "The router is restarting.", false);
    put(page, "boot_id", id);
    put(page, "refresh", "5; url=/cgi-bin/upgrade?restarted=1");
    show_upgrade(page, "upgrade-restarting", 5);
    corvel_answer_send(page->answer);
    if (system("/sbin/reboot </dev/null >/dev/null 2>&1") != 0)
        perror("/sbin/reboot");
}

static void cancel(struct page *page) {
    if (corvel_upgrade_cancel(&upgrade_rules))
        corvel_answer_redirect(page->answer, "/cgi-bin/upgrade");
    else
        corvel_answer_error(page->answer, CORVEL_HTTP_CONFLICT, "No image is being written.");
}

static const struct action {
    const char *name;
    void (*perform)(struct page *page);
    bool is_locked;
} actions[] = {{"write", write_image, true},
               {"discard", discard, true},
               {"restart", restart, true},
               {"cancel", cancel, false}};

static void perform_locked(struct page *page, const struct action *action) {
    const int lock = lock_upgrade(page);
    if (lock < 0)
        return;
    action->perform(page);
    close(lock);
}

static void handle_post(struct page *page) {
    const char *asked = corvel_field(page->request, "action");
    const struct action *action = NULL;
    for (size_t i = 0; asked && i < sizeof actions / sizeof *actions; i++)
        if (strcmp(asked, actions[i].name) == 0)
            action = &actions[i];
    if (!action)
        corvel_answer_error(page->answer, CORVEL_HTTP_BAD_REQUEST,
                            "The request contains no action of this page.");
    else if (action->is_locked)
        perform_locked(page, action);
    else
        action->perform(page);
}

int main(void) {
    return serve(&(site_page){.name = "upgrade", .get = handle_get, .post = handle_post});
}
