/* SPDX-License-Identifier: MIT */
/**
 * @file firmware.h
 * @brief Functions shared by the programs of the firmware upgrade.
 *
 * The flash has two sets of a root file system and a kernel, A and B: numbers 0 and 1, as in the
 * boot environment's variable "bootparam". `upload` receives an image, checks it and stages it.
 * `upgrade` shows its sections and their partitions, writes it to the set that is not running,
 * makes that set boot, and restarts the device. `bootloader` starts the set.
 */
#ifndef FIRMWARE_H
#define FIRMWARE_H

#include "site.h"

#include <stdint.h>

enum {
    set_a = CORVEL_SET_A,
    set_b = CORVEL_SET_B,
    /** The number of records that parse_firmware() needs room for. */
    record_count = CORVEL_IMAGE_RECORDS,
    /** Bytes of a root file system's version, including the terminating NUL. */
    version_size = 64
};

/** The device that contains the boot environment. */
#define ENVIRONMENT_DEVICE "/dev/mtdblock1"

/** The received image, on a file system in memory, until it is written or discarded. */
#define STAGED_IMAGE "/tmp/firmware/image.bin"

/** The kernel's command line, written by the boot loader. */
#define COMMAND_LINE "/run/cmdline"

/** Returns the number of a set's partition. @p which is 0 for the root file system, 1 for the
 * kernel. */
unsigned int set_partition(int set, unsigned int which);

/** Returns a set's letter; an empty string for -1, an unknown set. */
static inline const char *set_letter(int set) {
    return set == set_a ? "A" : set == set_b ? "B" : "";
}

/** The set that is running and the set that boots next. */
typedef struct boot_state {
    int running; /**< The set named by the kernel's command line; `next` if it names none. */
    int next;    /**< -1 if the boot environment cannot be read or names no set. */
} boot_state;

boot_state read_boot_state(void);

/** Stores the set that boots next, and reads it again. @return true if the set will boot. */
int make_boot(int set);

/** Reads a set's version, the first line of its root file system, or the line that follows it if
 * the root file system is a squashfs; empty if there is none. */
void read_version(int set, char version[version_size]);

/** Opens the partition "/dev/mtdblock" with this number for reading. */
int open_partition(unsigned int number);

/** Maps the staged image until the process ends. @return null if there is none or it is empty. */
const unsigned char *map_image(size_t *size);

/** The results of checking an image. */
typedef struct image_report {
    img_info sections[record_count]; /**< They point into the image. */
    int count;                       /**< Sections recognised, even if the image is refused. */
    int result;                      /**< The result of parse_firmware(). */
    char failed[32];                 /**< The invalid section; empty if no section is invalid. */
    char complaint[160];             /**< Why the image cannot be written; empty if it can. */
} image_report;

/**
 * Checks an image with parse_firmware(), and then checks that an upgrade with it is safe: it must
 * contain a root file system and a kernel for the set that is not running, nothing for the running
 * set, and a CRC. The records are directed to the set that is not running, even if the boot
 * environment cannot be read.
 */
void check_image(const unsigned char *image, size_t size, image_report *report);

/** Extracts a section's name from the name in its record. @return @p name. */
char *section_name(const img_info *section, char name[32]);

/** Returns a section's offset in its partition. */
static inline uint32_t section_offset(const img_info *section) { return section->burnAddr; }

/** True if a section is written to the flash; false for the version section. */
static inline int is_written(const img_info *section) {
    return section->mtd_ids != CORVEL_NOT_WRITTEN;
}

/** Adds the fields "message" and "tone": the message above the sets, and whether it is an error. */
void add_message(str_node **fields, const char *message, int bad);

/** Adds the field "sections": the rows of a table as HTML, one per section. */
void add_sections(str_node **fields, const image_report *report);

/** Adds the fields "result" and "log": parse_firmware()'s result and log messages. */
void add_findings(str_node **fields, const image_report *report);

/** The progress of an upgrade. It is lost when the device restarts. */
typedef struct upgrade_record {
    char state[16];   /**< Empty, or "staged", "writing", "written" or "failed". */
    char file[96];    /**< The image's file name. */
    char section[32]; /**< The section that is being written. */
    char reason[160]; /**< The reason of a failure. */
    uint32_t written; /**< Bytes. */
    uint32_t total;   /**< Bytes. */
} upgrade_record;

upgrade_record load_upgrade(void);

/** Replaces the saved record atomically. @return true if it was saved. */
int save_upgrade(const upgrade_record *record);

/**
 * Acquires the lock for a step of an upgrade. If another step holds it, refuses the request.
 *
 * @return the lock. It is released when this process and all processes forked from it have ended.
 */
int lock_upgrade(void);

/** True if a step of an upgrade is in progress. */
int is_upgrade_locked(void);

/** Prints the common part of the upgrade's pages and the step's own part, see print_page_part(). */
void print_upgrade_page(const char *status, const char *part, const char *head, str_node **fields);

#endif
