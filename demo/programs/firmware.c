/* SPDX-License-Identifier: MIT */
#define _GNU_SOURCE
#include "firmware.h"

#include <fcntl.h>
#include <string.h>
#include <unistd.h>

const corvel_upgrade_rules upgrade_rules = {.command_line = COMMAND_LINE, .record = UPGRADE_RECORD};

const char *set_letter(int set) {
    return set == CORVEL_FIRMWARE_A ? "A" : set == CORVEL_FIRMWARE_B ? "B" : "";
}

bool is_restart_pending(const corvel_boot *boot) {
    return boot->next != CORVEL_FIRMWARE_UNKNOWN && boot->next != boot->running;
}

void discard_image(void) {
    remove(RECEIVED_IMAGE);
    remove(STAGED_IMAGE);
    remove(IMAGE_NAME);
    remove(UPLOAD_RECORD);
}

/* What was found in an image. */

static void put_size(corvel_data *row, uint32_t bytes) {
    char text[32];
    if (bytes < 1024)
        snprintf(text, sizeof text, "%u bytes", bytes);
    else if (bytes < 1024 * 1024)
        snprintf(text, sizeof text, "%.1f KiB", bytes / 1024.0);
    else
        snprintf(text, sizeof text, "%.1f MiB", bytes / 1048576.0);
    corvel_data_set(row, "size", text);
}

void put_report(struct page *page, const corvel_upgrade_report *report,
                corvel_upgrade_result result) {
    const char *complaint = corvel_upgrade_complaint(result);
    char text[line_size];
    for (size_t i = 0; i < report->count; i++) {
        corvel_data *row = corvel_data_add(page->data, "sections");
        corvel_data_set(row, "section", report->sections[i].name);
        corvel_data_set(row, "target", report->sections[i].target);
        corvel_data_set_integer(row, "device", report->sections[i].device);
        put_size(row, report->sections[i].size);
    }
    snprintf(text, sizeof text, "%s%s%s", report->failed, *report->failed ? ": " : "", complaint);
    put(page, "found", report->count || *report->failed ? "1" : "");
    put(page, "failed", report->failed);
    put(page, "failure", complaint);
    put(page, "complaint", text);
    put(page, "image_version", report->version);
    put(page, "written_set", set_letter(report->set));
}

/* The common part of the upgrade's pages. */

void put_message(struct page *page, const char *message, bool is_bad) {
    put(page, "message", message);
    put(page, "bad", is_bad ? "1" : "");
}

/* The sets. */

static bool is_erased(unsigned int partition, off_t offset, size_t size) {
    unsigned char bytes[16];
    char path[32];
    bool is_erased = true;
    snprintf(path, sizeof path, "/dev/mtdblock%u", partition);
    const int device = open(path, O_RDONLY | O_CLOEXEC);
    for (size_t i = 0; is_erased && i < size; i += sizeof bytes)
        is_erased = pread(device, bytes, sizeof bytes, offset + (off_t)i) == sizeof bytes &&
                    bytes[0] == 0xFF && memcmp(bytes, bytes + 1, sizeof bytes - 1) == 0;
    close(device);
    return is_erased;
}

/* An upgrade erases the first 4 KiB of both partitions, and then writes the root file system from
 * its second erase block on. */
static set_condition condition_of_incomplete(int set) {
    enum { mark_size = 16, erased_size = 4096, block_size = 65536 };
    const unsigned int root = root_partition(set);
    if (is_erased(root, 0, erased_size + block_size))
        return (set_condition){"Empty", "This set contains no firmware.", false};
    if (is_erased(root, 0, mark_size) || is_erased(root + 1, 0, mark_size))
        return (set_condition){"Half-written",
                               "An upgrade of this set was not completed, so it cannot be started. "
                               "The next upgrade writes it again.",
                               false};
    return (set_condition){"Damaged",
                           "The content of this set is not what was written, so it cannot be "
                           "started. The next upgrade writes it again.",
                           false};
}

/* Reads the whole set, once in a request. */
static corvel_firmware_state check_set(int set) {
    static int checked = CORVEL_FIRMWARE_UNKNOWN;
    static corvel_firmware_state state;
    if (checked != set)
        state = corvel_firmware_check(set);
    checked = set;
    return state;
}

set_condition condition_of(int set, const corvel_boot *boot) {
    corvel_upgrade_status status;
    corvel_upgrade_read(&upgrade_rules, &status);
    if (set == boot->running)
        return (set_condition){"Running", "", false};
    if (set == boot->next)
        return (set_condition){"Starts next", "", false};
    if (set == status.set && status.state == CORVEL_UPGRADE_WRITING)
        return (set_condition){"Being written", "", false};
    switch (check_set(set)) {
    case CORVEL_FIRMWARE_COMPLETE:
        return (set_condition){"Ready", "", true};
    case CORVEL_FIRMWARE_INCOMPLETE:
        return condition_of_incomplete(set);
    default:
        return (set_condition){"Not verified",
                               "Whether this set is complete is not known, so it cannot be "
                               "started. The next upgrade writes it again.",
                               false};
    }
}

static void put_set(struct page *page, int set, const corvel_boot *boot) {
    const set_condition condition = condition_of(set, boot);
    char version[CORVEL_FIRMWARE_VERSION_SIZE];
    open_row(page);
    put(page, "set", set_letter(set));
    put(page, "version", corvel_firmware_version(set, version));
    put(page, "badge", condition.badge);
    put(page, "note", condition.note);
    put(page, "can_start", condition.can_start ? "1" : "");
    put(page, "running", set == boot->running ? "1" : "");
    put(page, "next", set == boot->next && set != boot->running ? "1" : "");
    close_part(page);
}

/* The steps before the current one are done. */
static void put_steps(struct page *page, int current) {
    static const char *const steps[] = {"Choose", "Check", "Write", "Restart"};
    open_list(page, "steps");
    for (int i = 1; i <= 4; i++) {
        open_row(page);
        put(page, "step", steps[i - 1]);
        put(page, "done", i < current ? "1" : "");
        put(page, "current", i == current ? "1" : "");
        close_part(page);
    }
    close_part(page);
}

void show_upgrade(struct page *page, const char *template_name, int step) {
    corvel_boot boot;
    corvel_boot_read(&upgrade_rules, &boot);
    open_list(page, "sets");
    put_set(page, CORVEL_FIRMWARE_A, &boot);
    put_set(page, CORVEL_FIRMWARE_B, &boot);
    close_part(page);
    put_steps(page, step);
    show(page, template_name);
}

/* The lock of the steps: an open file description lock, which a forked process shares, and which
 * can be tested without being acquired. */

static int open_lock(void) { return open("/run/upgrade.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0600); }

int lock_upgrade(struct page *page) {
    const int lock = open_lock();
    struct flock whole = {.l_type = F_WRLCK, .l_whence = SEEK_SET};
    if (fcntl(lock, F_OFD_SETLK, &whole) == 0)
        return lock;
    close(lock);
    corvel_answer_status(page->answer, CORVEL_HTTP_CONFLICT);
    put(page, "refresh", "5; url=/cgi-bin/upgrade");
    show_upgrade(page, "upgrade-busy", 1);
    return -1;
}

void unlock_upgrade(int lock) {
    struct flock whole = {.l_type = F_UNLCK, .l_whence = SEEK_SET};
    fcntl(lock, F_OFD_SETLK, &whole);
}

bool is_upgrade_locked(void) {
    const int lock = open_lock();
    struct flock whole = {.l_type = F_WRLCK, .l_whence = SEEK_SET};
    const bool is_known = fcntl(lock, F_OFD_GETLK, &whole) == 0;
    close(lock);
    return is_known && whole.l_type != F_UNLCK;
}
