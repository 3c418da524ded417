/* SPDX-License-Identifier: MIT */
/**
 * @file firmware.h
 * @brief Functions shared by the programs of the firmware upgrade.
 *
 * The flash has two sets of a root file system and a kernel, A and B. `upload` receives an image,
 * checks it and stages it. `upgrade` shows its sections and their partitions, writes it to the set
 * that is not running, which then boots, and restarts the device. `bootloader` starts the set.
 */
#ifndef FIRMWARE_H
#define FIRMWARE_H

#include "site.h"

/** The received image, on a file system in memory, until it is written or discarded. */
#define STAGED_IMAGE "/tmp/firmware/image.bin"

/** The image while it is received and checked. */
#define RECEIVED_IMAGE "/tmp/firmware/received"

/** The name of its file on the user's computer. */
#define IMAGE_NAME "/tmp/firmware/name"

/** A line with the number of bytes of the request that contains the image, and one with the id that
 * the browser has given to the upload. */
#define UPLOAD_RECORD "/tmp/firmware/upload"

/** The progress of writing, which the page kit records. */
#define UPGRADE_RECORD "/run/upgrade"

/** The kernel's command line, written by the boot loader. */
#define COMMAND_LINE "/run/cmdline"

extern const corvel_upgrade_rules upgrade_rules;

/** Returns the number of the block device of a set's root file system; the kernel's follows it. */
static inline unsigned int root_partition(int set) { return set == CORVEL_FIRMWARE_A ? 2U : 4U; }

/** Returns a set's letter; an empty string for CORVEL_FIRMWARE_UNKNOWN. */
const char *set_letter(int set);

/** Returns the other set. */
static inline int other_set(int set) {
    return set == CORVEL_FIRMWARE_A ? CORVEL_FIRMWARE_B : CORVEL_FIRMWARE_A;
}

/** True if the set that boots next is not the running one. */
bool is_restart_pending(const corvel_boot *boot);

/** What a user is told of a set. */
typedef struct set_condition {
    const char *badge;
    const char *note; /**< Why the set cannot be started; empty if it runs or can be started. */
    bool can_start;   /**< It is complete, is not running, and does not boot next. */
} set_condition;

/** Determines the condition of a set; `boot` tells which one runs. Takes some seconds on a small
 * device. */
set_condition condition_of(int set, const corvel_boot *boot);

/** Removes the image. */
void discard_image(void);

/** Adds what was found in an image: its sections, and why it is refused. Returns the latter. */
void put_report(struct page *page, const corvel_upgrade_report *report,
                corvel_upgrade_result result);

/** Adds the message above the sets. */
void put_message(struct page *page, const char *message, bool is_bad);

/**
 * Acquires the lock for a step of an upgrade. If another step holds it, completes the answer.
 *
 * @return the lock, to be closed; negative if it is not acquired. A process that is forked has the
 *         lock, too, until it ends.
 */
int lock_upgrade(struct page *page);

/** Releases the lock, for the processes that have been forked, too. */
void unlock_upgrade(int lock);

/** True if a step of an upgrade is in progress. */
bool is_upgrade_locked(void);

/** Shows a step of the upgrade, 1 to 4, with the two sets above it. 5: all steps are done. */
void show_upgrade(struct page *page, const char *template_name, int step);

#endif
