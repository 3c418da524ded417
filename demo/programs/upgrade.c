/* SPDX-License-Identifier: MIT */
/*
 * The upgrade page: shows the two sets, the received image and the progress of writing. Its forms
 * write or discard the staged image, and restart the device.
 *
 * A separate process writes the image, so that it continues if the browser disconnects. If this
 * process is killed, its lock is released and the record is still in the state "writing". The
 * running set is unchanged, and it is still the set that boots.
 */
#define _GNU_SOURCE
#include "firmware.h"
#include "trap.h"

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

enum {
    /* Bytes per write: an erase block of the flash. */
    piece_size = 65536
};

/*
 * Replaces the C library's function. libcorvel calls it after every write; the original would flush
 * all disks of the machine that runs the simulation. This one takes about the time that a flash
 * needs to write an erase block.
 */
void sync(void) {
    const struct timespec block = {0, 10000000};
    nanosleep(&block, NULL);
}

/* Writing. Each step returns the reason of its failure, or null. */

static const char *write_section(const img_info *section, upgrade_record *record) {
    section_name(section, record->section);
    for (uint32_t done = 0; done < section->len;) {
        const uint32_t rest = section->len - done;
        const uint32_t piece = rest < piece_size ? rest : piece_size;
        if (!flash_write(section->mtdev, section->data + done,
                         (int)(section_offset(section) + done), piece))
            return "The flash could not be written.";
        done += piece;
        record->written += piece;
        save_upgrade(record);
    }
    return NULL;
}

/* A set is made to boot only if the flash contains exactly the image's data. */
static const char *verify_section(const img_info *section) {
    const int device = open_partition(section->mtd_ids);
    const off_t offset = (off_t)section_offset(section);
    unsigned char piece[65536];
    uint32_t done = 0;
    while (done < section->len) {
        const uint32_t rest = section->len - done;
        const size_t wanted = rest < sizeof piece ? rest : sizeof piece;
        if (pread(device, piece, wanted, offset + (off_t)done) != (ssize_t)wanted ||
            memcmp(piece, section->data + done, wanted) != 0)
            break;
        done += (uint32_t)wanted;
    }
    close(device);
    return done < section->len ? "The flash does not contain the data that was written." : NULL;
}

/* Partitions of a set exist twice; those of the set that is not running are written first. */
static int is_of_a_set(const img_info *section) {
    return section->mtd_ids >= set_partition(set_a, 0) &&
           section->mtd_ids <= set_partition(set_b, 1);
}

static const char *write_all(const image_report *report, upgrade_record *record) {
    const boot_state boot = read_boot_state();
    const char *failure = NULL;
    /* Until everything is written, the running set must boot, even after a power loss. */
    if (boot.next < 0 && !make_boot(boot.running))
        return "The boot environment could not be written.";
    for (int i = 0; i < 2 * report->count && !failure; i++) {
        const img_info *section = &report->sections[i % report->count];
        if (!is_written(section) || is_of_a_set(section) != (i < report->count))
            continue;
        failure = write_section(section, record);
        if (!failure)
            failure = verify_section(section);
    }
    if (failure)
        return failure;
    return make_boot(boot.running == set_a ? set_b : set_a) ? NULL
                                                            : "The boot set could not be changed.";
}

static uint32_t bytes_to_write(const image_report *report) {
    uint32_t total = 0;
    for (int i = 0; i < report->count; i++)
        total += is_written(&report->sections[i]) ? report->sections[i].len : 0;
    return total;
}

static const char *write_image(upgrade_record *record) {
    static image_report report;
    size_t size = 0;
    const unsigned char *image = map_image(&size);
    if (!image)
        return "The image no longer exists.";
    check_image(image, size, &report);
    if (*report.complaint)
        return report.complaint;
    record->total = bytes_to_write(&report);
    return write_all(&report, record);
}

static void write_in_background(upgrade_record *record) {
    setsid();
    const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; stream++)
        dup2(nowhere, stream);

    const char *failure = write_image(record);
    snprintf(record->state, sizeof record->state, "%s", failure ? "failed" : "written");
    snprintf(record->reason, sizeof record->reason, "%s", failure ? failure : "");
    remove(STAGED_IMAGE);
    save_upgrade(record);
    if (!failure)
        send_trap(read_boot_state().next == set_a ? "firmware written: set A"
                                                  : "firmware written: set B");
}

/* Responses. */

static int is_pending(boot_state boot) { return boot.next >= 0 && boot.next != boot.running; }

static int is_in_state(const upgrade_record *record, const char *state) {
    return STRCMP(record->state, state) == 0;
}

/* If the writing process was killed, the image still exists and can be written again. */
static int is_staged(const upgrade_record *record) {
    return is_in_state(record, "staged") || is_in_state(record, "writing");
}

static int percent(const upgrade_record *record) {
    return record->total ? (int)((uint64_t)record->written * 100 / record->total) : 0;
}

static void add_set_name(str_node **fields, const char *name, int set) {
    add_str(fields, name, set_letter(set));
}

static void show_choice(const upgrade_record *record) {
    str_node *fields = NULL;
    const int failed = is_in_state(record, "failed");
    char message[value_size] = "";
    if (failed)
        snprintf(message, sizeof message, "%s The running set is unchanged and still boots.",
                 record->reason);
    add_message(&fields, message, failed);
    print_upgrade_page("200 OK", "upgrade-choose", "", &fields);
}

static void show_check(const upgrade_record *record, boot_state boot) {
    str_node *fields = NULL;
    image_report report;
    size_t size = 0;
    const unsigned char *image = map_image(&size);
    if (!image) {
        show_choice(record);
        return;
    }
    check_image(image, size, &report);
    const int cut_off = is_in_state(record, "writing");
    add_message(&fields,
                *report.complaint ? report.complaint
                : cut_off ? "Writing was interrupted. The running set is unchanged and still "
                            "boots. You can write the image again."
                          : "",
                *report.complaint || cut_off);
    add_html(&fields, "file", record->file);
    add_sections(&fields, &report);
    add_set_name(&fields, "idle", boot.running == set_a ? set_b : set_a);
    add_set_name(&fields, "kept", boot.running);
    print_upgrade_page("200 OK", "upgrade-check", "", &fields);
}

/* Without JavaScript the page reloads itself until the image is written. */
static void show_writing(const upgrade_record *record) {
    str_node *fields = NULL;
    char number[16];
    add_message(&fields, "", 0);
    snprintf(number, sizeof number, "%d", percent(record));
    add_str(&fields, "percent", number);
    add_str(&fields, "shown_percent", number);
    add_html(&fields, "section", record->section);
    print_upgrade_page("200 OK", "upgrade-writing",
                       "<noscript><meta http-equiv=\"refresh\" content=\"1\"></noscript>", &fields);
}

static void show_restart(boot_state boot) {
    str_node *fields = NULL;
    char version[version_size];
    read_version(boot.next, version);
    add_message(&fields, "The upgrade has been written and verified.", 0);
    add_html(&fields, "new_version", version);
    add_set_name(&fields, "next", boot.next);
    add_set_name(&fields, "kept", boot.running);
    print_upgrade_page("200 OK", "upgrade-restart", "", &fields);
}

static void show_receiving(void) {
    str_node *fields = NULL;
    add_message(&fields, "An image is being received.", 0);
    print_upgrade_page("200 OK", "upgrade-choose", "", &fields);
}

/* The lock is checked before the record is read: a process saves the record before it releases the
 * lock. */
static void show_page(void) {
    const int locked = is_upgrade_locked();
    const upgrade_record record = load_upgrade();
    const boot_state boot = read_boot_state();
    if (locked && is_in_state(&record, "writing"))
        show_writing(&record);
    else if (locked)
        show_receiving();
    else if (is_pending(boot))
        show_restart(boot);
    else if (is_staged(&record))
        show_check(&record, boot);
    else
        show_choice(&record);
}

static void read_boot_id(char id[value_size]) {
    FILE *file = fopen("/run/boot_id", "r");
    *id = '\0';
    if (file && fgets(id, value_size, file))
        id[strcspn(id, "\n")] = '\0';
    if (file)
        fclose(file);
}

static void add_number(str_node **fields, const char *name, uint32_t number) {
    char text[16];
    snprintf(text, sizeof text, "%u", number);
    add_json(fields, name, text);
}

static void add_versions(str_node **fields) {
    char version[version_size];
    read_version(set_a, version);
    add_json(fields, "VERSION_A", version);
    read_version(set_b, version);
    add_json(fields, "VERSION_B", version);
}

static void show_json(void) {
    const int locked = is_upgrade_locked();
    const upgrade_record record = load_upgrade();
    const boot_state boot = read_boot_state();
    const int cut_off = is_in_state(&record, "writing") && !locked;
    char id[value_size];
    str_node *fields = NULL;
    read_boot_id(id);
    add_json(&fields, "STATE", cut_off ? "interrupted" : record.state);
    add_json(&fields, "SECTION", record.section);
    add_json(&fields, "REASON", record.reason);
    add_number(&fields, "WRITTEN", record.written);
    add_number(&fields, "TOTAL", record.total);
    add_set_name(&fields, "RUNNING", boot.running);
    add_set_name(&fields, "NEXT", boot.next);
    add_versions(&fields);
    add_json(&fields, "BOOT_ID", id);
    print_json_head();
    list2json(fields, "upgrade");
    free_list(&fields);
}

/* Forms. Each action holds the lock, so that no image is written or received, and no restart
 * begins, at the same time. */

static void begin_writing(void) {
    upgrade_record record = load_upgrade();
    if (!is_staged(&record) || is_pending(read_boot_state()))
        refuse("409 Conflict", "There is no image to write.");
    snprintf(record.state, sizeof record.state, "writing");
    record.written = 0;
    record.total = 0;
    if (!save_upgrade(&record))
        refuse("503 Service Unavailable", "The upgrade could not be started.");
    fflush(stdout);
    const pid_t writer = fork();
    if (writer == 0) {
        write_in_background(&record);
        _exit(EXIT_SUCCESS);
    }
    if (writer < 0)
        refuse("503 Service Unavailable", "The upgrade could not be started.");
    print_redirect("/cgi-bin/upgrade");
}

static void discard(void) {
    const upgrade_record nothing = {.state = ""};
    remove(STAGED_IMAGE);
    save_upgrade(&nothing);
    print_redirect("/cgi-bin/upgrade");
}

static void restart(void) {
    char id[value_size];
    str_node *fields = NULL;
    read_boot_id(id);
    add_message(&fields, "The router is restarting.", 0);
    add_html(&fields, "boot_id", id);
    print_upgrade_page("200 OK", "upgrade-restarting",
                       "<noscript><meta http-equiv=\"refresh\" "
                       "content=\"5; url=/cgi-bin/upgrade?restarted=1\"></noscript>",
                       &fields);
    fflush(stdout);
    if (system("/sbin/reboot </dev/null >/dev/null 2>&1") != 0)
        perror("/sbin/reboot");
}

static void handle_post(void) {
    const char *asked = find_field("action");
    lock_upgrade();
    if (asked && STRCMP(asked, "write") == 0)
        begin_writing();
    else if (asked && STRCMP(asked, "discard") == 0)
        discard();
    else if (asked && STRCMP(asked, "restart") == 0)
        restart();
    else
        refuse("400 Bad Request", "The request contains no action of this page.");
}

int main(void) {
    if (accept_request())
        handle_post();
    else if (isajax_get())
        show_json();
    else
        show_page();
    return EXIT_SUCCESS;
}
