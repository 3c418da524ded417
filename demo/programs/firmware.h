/* SPDX-License-Identifier: MIT */
/**
 * @file firmware.h
 * @brief What the programs of the firmware upgrade share.
 *
 * The flash has two sets of root file system and kernel, A and B: numbers 0 and 1, as in the boot
 * environment's variable "bootparam". An upgrade goes through these hands: `upload` receives an
 * image, checks it and stages it; `upgrade` shows what it would write where, writes it into the set
 * that does not run, makes that set boot, and restarts the device; `bootloader` starts the set.
 */
#ifndef FIRMWARE_H
#define FIRMWARE_H

#include "site.h"

#include <stdint.h>

enum {
    set_a = 0,
    set_b = 1,
    /** What an image's records need room for. */
    record_count = 5,
    /** Bytes of a root file system's version, terminator included. */
    version_size = 64
};

/** The device that the boot environment is on. */
#define ENVIRONMENT_DEVICE "/dev/mtdblock1"

/** The image that was received, in memory only, until it is written or given up. */
#define STAGED_IMAGE "/tmp/firmware/image.bin"

/** The kernel's command line, which the boot loader has made. */
#define COMMAND_LINE "/run/cmdline"

/** The number of a set's partition: 0 for its root file system, 1 for its kernel. */
static inline unsigned int set_partition(int set, unsigned int which) {
    return (set == set_a ? 2U : 4U) + which;
}

/** A set's letter; empty for -1, an unknown set. */
static inline const char *set_letter(int set) {
    return set == set_a ? "A" : set == set_b ? "B" : "";
}

/** Which set runs and which one boots next. */
typedef struct boot_state {
    int running; /**< The set in the kernel's command line; `next` if it names none. */
    int next;    /**< -1 if the boot environment can't be read or names no set. */
} boot_state;

boot_state read_boot_state(void);

/** Stores which set boots and reads it back. @return whether the set will boot. */
int make_boot(int set);

/** Reads a set's version: the line that its root file system begins with; empty if there is none.
 */
void read_version(int set, char version[version_size]);

/** Opens a partition for reading as the kernel would name it, "/dev/mtdblock" and a number. */
int open_partition(unsigned int number);

/** What is known about an image once it has been checked. */
typedef struct image_report {
    img_info sections[record_count]; /**< They point into the image. */
    int count;                       /**< How many were recognised, also where it is refused. */
    int result;                      /**< What parse_firmware() made of it. */
    char failed[32];                 /**< The section to blame; empty if it is none of them. */
    char complaint[160];             /**< Why the image can't be written; empty if it can. */
} image_report;

/**
 * Checks an image: first as parse_firmware() does, then whether an upgrade with it is safe. It has
 * to bring both halves of the set that does not run, nothing for the one that does, and a CRC. The
 * records are directed to the set that does not run, also if the boot environment can't be read.
 */
void check_image(const unsigned char *image, size_t size, image_report *report);

/** A section's name, cut out of its record's. @return @p name. */
char *section_name(const img_info *section, char name[32]);

/** Where in its partition a section belongs. */
static inline uint32_t section_offset(const img_info *section) { return section->burnAddr; }

/** Whether a section is written: the version section is not. */
static inline int is_written(const img_info *section) { return section->mtd_ids != 255; }

/** Adds the fields "message" and "tone": what stands above the sets, as a complaint or not. */
void add_message(str_node **fields, const char *message, int bad);

/** Adds the field "sections": the rows of a table, one a section, as HTML. */
void add_sections(str_node **fields, const image_report *report);

/** Adds the fields "result" and "log": parse_firmware()'s result and what it has logged. */
void add_findings(str_node **fields, const image_report *report);

/** How far an upgrade has come. It is forgotten when the device restarts. */
typedef struct upgrade_record {
    char state[16];   /**< Empty, or "staged", "writing", "written" or "failed". */
    char file[96];    /**< The image's file name. */
    char section[32]; /**< The section that is being written. */
    char reason[160]; /**< Why it failed. */
    uint32_t written; /**< Bytes. */
    uint32_t total;   /**< Bytes. */
} upgrade_record;

upgrade_record load_upgrade(void);

/** Saves the record. A reader sees the old one or the new one. @return whether it was saved. */
int save_upgrade(const upgrade_record *record);

/**
 * Begins an upgrade's step, which no other may meet. Refuses the request if one goes on.
 *
 * @return a lock that ends with the process, and with the last of those that it has forked.
 */
int lock_upgrade(void);

/** Whether a step of an upgrade goes on. */
int is_upgrade_locked(void);

/** Prints what the upgrade's pages have in common and the step's own part, see print_page_part().
 */
void print_upgrade_page(const char *status, const char *part, const char *head, str_node **fields);

#endif
