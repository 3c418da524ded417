/* SPDX-License-Identifier: MIT */
/*
 * The upgrade page: shows the two sets, the received image and the progress of writing. Its forms
 * write or discard the staged image, cancel receiving and writing, restart the device, and start
 * the set that is not running.
 *
 * A separate process writes the image, so that it continues if the browser disconnects. If it is
 * killed, the running set is unchanged and still boots.
 */
#define _GNU_SOURCE
#include "firmware.h"

#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

/* The state of the upgrade. */

typedef struct upgrade {
    corvel_boot boot;
    corvel_upgrade_status status;
    bool is_locked;
    bool is_staged;
    bool is_writing;
    bool is_receiving;
    bool is_busy; /* with a step that takes a moment */
} upgrade;

/* The lock is checked first: a process records its result before it releases the lock. It removes
 * the image last, and until then the image is still being written; then it only has to end. */
static upgrade read_upgrade(void) {
    upgrade now = {.is_locked = is_upgrade_locked()};
    now.is_staged = access(STAGED_IMAGE, F_OK) == 0;
    now.is_receiving = now.is_locked && access(RECEIVED_IMAGE, F_OK) == 0;
    corvel_upgrade_read(&upgrade_rules, &now.status);
    corvel_boot_read(&upgrade_rules, &now.boot);
    const bool has_result =
        now.status.state == CORVEL_UPGRADE_WRITTEN || now.status.state == CORVEL_UPGRADE_FAILED;
    now.is_writing = now.status.state == CORVEL_UPGRADE_WRITING ||
                     (has_result && now.is_locked && now.is_staged);
    now.is_busy = now.is_locked && !now.is_writing && !now.is_receiving && !has_result;
    return now;
}

static const char *state_name(const upgrade *now) {
    if (now->is_writing)
        return "writing";
    if (now->is_receiving)
        return "receiving";
    if (now->is_busy)
        return "busy";
    if (is_restart_pending(&now->boot))
        return "written";
    if (now->status.state == CORVEL_UPGRADE_INTERRUPTED)
        return "interrupted";
    if (now->is_staged)
        return "staged";
    return now->status.state == CORVEL_UPGRADE_FAILED ? "failed" : "";
}

/* Reads a line of a file, 0 for the first one. */
static void read_line_of(const char *path, int number, char line[line_size]) {
    FILE *file = fopen(path, "r");
    *line = '\0';
    for (int i = 0; file && i <= number; i++)
        if (!fgets(line, line_size, file))
            *line = '\0';
    line[strcspn(line, "\n")] = '\0';
    if (file)
        fclose(file);
}

static void read_line(const char *path, char line[line_size]) { read_line_of(path, 0, line); }

/* Identifies the staged image: empty without one. */
static void read_image_id(char id[line_size]) {
    struct stat file;
    *id = '\0';
    if (stat(STAGED_IMAGE, &file) == 0)
        snprintf(id, line_size, "%llx-%llx-%lx", (unsigned long long)file.st_ino,
                 (unsigned long long)file.st_mtim.tv_sec, (unsigned long)file.st_mtim.tv_nsec);
}

/* What is happening, for the user. */

typedef struct phase {
    const char *text;
    int percent; /* negative if it is not known */
} phase;

static int percent_of(uint64_t done, uint64_t total) {
    return total > 0 && done < total ? (int)(done * 100 / total) : -1;
}

static phase phase_of_receiving(void) {
    struct stat file;
    char announced[line_size];
    read_line(UPLOAD_RECORD, announced);
    const uint64_t total = strtoull(announced, NULL, 10);
    const uint64_t received = stat(RECEIVED_IMAGE, &file) == 0 ? (uint64_t)file.st_size : 0;
    const uint64_t form_max = 4096; /* what is in the form beside the image, and in a buffer */
    return received + form_max < total
               ? (phase){"The image is being received", percent_of(received, total)}
               : (phase){"Checking the image", -1};
}

/* Each partition's first erase block is written after everything else. */
static phase phase_of_writing(const corvel_upgrade_status *status) {
    const uint32_t first_blocks = 2 * 65536;
    const int percent = percent_of(status->written, status->total);
    if (status->written == 0)
        return (phase){"Erasing the old version", 0};
    if (percent < 0)
        return (phase){"Checking what was written", -1};
    if (status->total - status->written < first_blocks)
        return (phase){"Writing the start of both sections", percent};
    return (phase){strncmp(status->section, "Rootfs", strlen("Rootfs")) == 0
                       ? "Writing section 1 of 2, the root file system"
                       : "Writing section 2 of 2, the kernel",
                   percent};
}

static phase phase_of(const upgrade *now) {
    if (now->is_writing)
        return phase_of_writing(&now->status);
    if (now->is_receiving)
        return phase_of_receiving();
    return (phase){now->is_busy ? "Waiting for the previous step to end" : "", -1};
}

/* Returns how long a file has not been changed. */
static long long seconds_since_change(const char *path) {
    struct stat file;
    const long long now = (long long)time(NULL);
    return stat(path, &file) == 0 && now > file.st_mtime ? now - (long long)file.st_mtime : 0;
}

static void put_phase(struct page *page, const upgrade *now) {
    const phase current = phase_of(now);
    char percent[16] = "";
    char wait[line_size] = "Please wait";
    const long long seconds =
        seconds_since_change(now->is_writing ? UPGRADE_RECORD : RECEIVED_IMAGE);
    if (seconds > 0)
        snprintf(wait, sizeof wait, "Please wait: %lld s", seconds);
    if (current.percent >= 0)
        snprintf(percent, sizeof percent, "%d", current.percent);
    put(page, page->is_json ? "PHASE" : "phase", current.text);
    put(page, page->is_json ? "PERCENT" : "percent", percent);
    put(page, page->is_json ? "WAIT" : "wait", wait);
}

/* Called by the process that writes the image. */
static bool finish(void *context, const corvel_upgrade_status *status) {
    if (status->state == CORVEL_UPGRADE_WRITTEN)
        log_event(context, FIRMWARE_EVENT, "Set %s written", set_letter(status->set));
    else if (status->state == CORVEL_UPGRADE_FAILED)
        log_event(context, FIRMWARE_EVENT, "Set %s not written: %s", set_letter(status->set),
                  corvel_upgrade_complaint(status->result));
    if (status->state != CORVEL_UPGRADE_WRITING)
        discard_image();
    return true;
}

/* Responses. */

/* The values with which the page notices that it is outdated. */
static void show_step(struct page *page, const upgrade *now, const char *template_name, int step) {
    char image[line_size];
    read_image_id(image);
    put(page, "state", state_name(now));
    put(page, "image", image);
    put(page, "kept", set_letter(now->boot.running));
    put(page, "other", set_letter(other_set(now->boot.running)));
    show_upgrade(page, template_name, step);
}

static void show_choice(struct page *page, const upgrade *now) {
    char message[line_size] = "";
    if (now->status.state == CORVEL_UPGRADE_FAILED)
        snprintf(message, sizeof message, "%s The running set is unchanged and still boots.",
                 corvel_upgrade_complaint(now->status.result));
    if (now->status.state == CORVEL_UPGRADE_INTERRUPTED)
        snprintf(message, sizeof message,
                 "Writing was interrupted. The running set is unchanged and still boots.");
    put_message(page, message, true);
    put(page, "is_idle", "1");
    show_step(page, now, "upgrade-choose", 1);
}

/* What the image replaces. */
static void put_versions(struct page *page, const corvel_upgrade_report *report, int running) {
    char version[CORVEL_FIRMWARE_VERSION_SIZE];
    put(page, "replaced", corvel_firmware_version(report->set, version));
    put(page, "running_version", corvel_firmware_version(running, version));
    const int order = *report->version && *version ? strverscmp(report->version, version) : 1;
    put(page, "is_same", order == 0 ? "1" : "");
    put(page, "is_older", order < 0 ? "1" : "");
}

static void show_check(struct page *page, const upgrade *now) {
    corvel_upgrade_report report;
    char name[line_size];
    const corvel_upgrade_result result =
        corvel_upgrade_check(&upgrade_rules, STAGED_IMAGE, &report);
    const bool is_cut_off = now->status.state == CORVEL_UPGRADE_INTERRUPTED;
    put_report(page, &report, result);
    put_versions(page, &report, now->boot.running);
    read_line(IMAGE_NAME, name);
    put(page, "file", name);
    put_message(page,
                result != CORVEL_UPGRADE_DONE ? corvel_upgrade_complaint(result)
                : is_cut_off ? "Writing was interrupted. The running set is unchanged and still "
                               "boots. You can write the image again."
                             : "",
                true);
    show_step(page, now, "upgrade-check", 2);
}

/* Without JavaScript the page reloads itself until the step ends. */
static void show_progress(struct page *page, const upgrade *now) {
    put_phase(page, now);
    put(page, "heading",
        now->is_writing     ? "Writing"
        : now->is_receiving ? "Receiving an image"
                            : "Please wait");
    put(page, "is_writing", now->is_writing ? "1" : "");
    put(page, "can_cancel", now->is_writing || now->is_receiving ? "1" : "");
    put(page, "refresh", "1");
    show_step(page, now, "upgrade-progress", now->is_writing ? 3 : 1);
}

static void show_restart(struct page *page, const upgrade *now) {
    char version[CORVEL_FIRMWARE_VERSION_SIZE];
    char message[line_size];
    const char *started = corvel_query(page->request, "started");
    snprintf(message, sizeof message,
             "The router has not started set %s. It continues with set %s.",
             set_letter(now->boot.next), set_letter(now->boot.running));
    if (started && strcmp(started, set_letter(now->boot.next)) == 0)
        put_message(page, message, true);
    else if (now->status.state == CORVEL_UPGRADE_WRITTEN)
        put_message(page, "The upgrade has been written and verified.", false);
    put(page, "new_version", corvel_firmware_version(now->boot.next, version));
    put(page, "next_set", set_letter(now->boot.next));
    show_step(page, now, "upgrade-restart", 4);
}

/* After a restart that was to start this set. */
static void show_started(struct page *page, const upgrade *now, const char *expected) {
    char version[CORVEL_FIRMWARE_VERSION_SIZE];
    char message[line_size] = "";
    const bool is_other = strcmp(expected, set_letter(other_set(now->boot.running))) == 0;
    if (is_other)
        snprintf(message, sizeof message,
                 "The router has not started set %s. It continues with set %s.", expected,
                 set_letter(now->boot.running));
    put_message(page, message, true);
    put(page, "is_idle", "1");
    put(page, "is_start", "1");
    put(page, "running_version", corvel_firmware_version(now->boot.running, version));
    put(page, "other_version", corvel_firmware_version(other_set(now->boot.running), version));
    show_step(page, now, "upgrade-started", 5);
}

/* Asks before the other set is started. */
static void show_start(struct page *page, const upgrade *now) {
    char version[CORVEL_FIRMWARE_VERSION_SIZE];
    const int set = other_set(now->boot.running);
    const set_condition condition = condition_of(set, &now->boot);
    put(page, "is_start", "1");
    put(page, "running_version", corvel_firmware_version(now->boot.running, version));
    put(page, "other_version", corvel_firmware_version(set, version));
    put(page, "can_start_other", condition.can_start ? "1" : "");
    put(page, "reason", condition.note);
    show_step(page, now, "upgrade-start", 0);
}

static void show_page(struct page *page, const upgrade *now) {
    const char *started = corvel_query(page->request, "started");
    if (now->is_writing || now->is_receiving || now->is_busy)
        show_progress(page, now);
    else if (is_restart_pending(&now->boot))
        show_restart(page, now);
    else if (now->is_staged)
        show_check(page, now);
    else if (corvel_query(page->request, "start"))
        show_start(page, now);
    else if (started)
        show_started(page, now, started);
    else
        show_choice(page, now);
}

static void show_json(struct page *page, const upgrade *now) {
    char id[line_size];
    char image[line_size];
    char upload[line_size];
    char version[CORVEL_FIRMWARE_VERSION_SIZE];
    read_line("/run/boot_id", id);
    read_line_of(UPLOAD_RECORD, 1, upload);
    open_object(page, "upgrade");
    put(page, "STATE", state_name(now));
    read_image_id(image);
    put(page, "IMAGE", image);
    put(page, "UPLOAD", upload);
    put_phase(page, now);
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

/* The form can contain the image that the user has seen. Without it, any image is meant. */
static bool is_outdated(struct page *page) {
    char image[line_size];
    const char *seen = corvel_field(page->request, "image");
    read_image_id(image);
    if (!seen || strcmp(seen, image) == 0)
        return false;
    corvel_answer_error(page->answer, CORVEL_HTTP_CONFLICT,
                        "The image has been replaced or discarded in another window.");
    return true;
}

static void answer_result(struct page *page, corvel_upgrade_result result) {
    if (result == CORVEL_UPGRADE_DONE)
        corvel_answer_redirect(page->answer, "/cgi-bin/upgrade");
    else
        corvel_answer_error(page->answer, CORVEL_HTTP_CONFLICT, corvel_upgrade_complaint(result));
}

static void write_image(struct page *page) {
    corvel_boot boot;
    corvel_boot_read(&upgrade_rules, &boot);
    if (is_outdated(page))
        return;
    if (access(STAGED_IMAGE, F_OK) != 0 || is_restart_pending(&boot)) {
        corvel_answer_error(page->answer, CORVEL_HTTP_CONFLICT, "There is no image to write.");
        return;
    }
    answer_result(page, corvel_upgrade_start(&upgrade_rules, STAGED_IMAGE, finish, page));
}

static void discard(struct page *page) {
    if (is_outdated(page))
        return;
    discard_image();
    corvel_answer_redirect(page->answer, "/cgi-bin/upgrade");
}

/* The answer is sent first: the web server ends with the device. It ends this program, too, when it
 * has the answer. The page finds out which set has been started. */
static void restart(struct page *page) {
    char id[line_size];
    char refresh[line_size];
    corvel_boot boot;
    corvel_upgrade_status status;
    corvel_boot_read(&upgrade_rules, &boot);
    corvel_upgrade_read(&upgrade_rules, &status);
    const char *set = set_letter(is_restart_pending(&boot) ? boot.next : boot.running);
    ignore_disconnection();
    log_event(page, SYSTEM_EVENT, "Restart requested");
    read_line("/run/boot_id", id);
    snprintf(refresh, sizeof refresh, "5; url=/cgi-bin/upgrade?started=%s", set);
    put_message(page, "The router is restarting.", false);
    put(page, "state", "restarting");
    put(page, "is_start", status.state == CORVEL_UPGRADE_WRITTEN ? "" : "1");
    put(page, "boot_id", id);
    put(page, "next_set", set);
    put(page, "refresh", refresh);
    show_upgrade(page, "upgrade-restarting", 5);
    corvel_answer_send(page->answer);
    if (system("/sbin/reboot </dev/null >/dev/null 2>&1") != 0)
        perror("/sbin/reboot");
}

static corvel_upgrade_result select_set(const struct page *page, int set) {
    const corvel_upgrade_result result = corvel_boot_select(&upgrade_rules, set);
    if (result == CORVEL_UPGRADE_DONE)
        log_event(page, FIRMWARE_EVENT, "Set %s starts next", set_letter(set));
    return result;
}

/* Takes back an upgrade that has been written: the running set is started again. */
static void keep(struct page *page) {
    corvel_boot boot;
    corvel_boot_read(&upgrade_rules, &boot);
    answer_result(page, select_set(page, boot.running));
}

static void start_other(struct page *page) {
    corvel_boot boot;
    corvel_boot_read(&upgrade_rules, &boot);
    const int set = other_set(boot.running);
    if (is_restart_pending(&boot)) {
        answer_result(page, CORVEL_UPGRADE_RESTART_FIRST);
        return;
    }
    const corvel_upgrade_result result = select_set(page, set);
    if (result == CORVEL_UPGRADE_DONE)
        restart(page);
    else if (result == CORVEL_UPGRADE_SET_INCOMPLETE)
        corvel_answer_error(page->answer, CORVEL_HTTP_CONFLICT, condition_of(set, &boot).note);
    else
        answer_result(page, result);
}

/* The program that receives an image notices that its file has been removed. */
static void cancel(struct page *page) {
    if (corvel_upgrade_cancel(&upgrade_rules) ||
        (is_upgrade_locked() && remove(RECEIVED_IMAGE) == 0))
        corvel_answer_redirect(page->answer, "/cgi-bin/upgrade");
    else
        corvel_answer_error(page->answer, CORVEL_HTTP_CONFLICT,
                            "No image is being received or written.");
}

static const struct action {
    const char *name;
    void (*perform)(struct page *page);
    bool is_locked;
} actions[] = {{"write", write_image, true}, {"discard", discard, true},
               {"restart", restart, true},   {"keep", keep, true},
               {"start", start_other, true}, {"cancel", cancel, false}};

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
