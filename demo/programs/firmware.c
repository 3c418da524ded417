/* SPDX-License-Identifier: MIT */
#define _GNU_SOURCE
#include "firmware.h"

#include <fcntl.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

static const settings_file mtd_file = {"/etc/mtd", ' '};
static const settings_file record_file = {"/run/upgrade.conf", ' '};

/* The library's log messages. */

enum { kept_messages = 16, message_size = 120 };

static char messages[kept_messages][message_size];
static unsigned int message_count;

/* Replaces the C library's function, which libcorvel calls: the device has no system log, and the
 * page shows the messages. Only the last ones are kept. */
void syslog(int priority, const char *format, ...) __attribute__((__format__(__printf__, 2, 3)));
void syslog(int priority, const char *format, ...) {
    char *message = messages[message_count++ % kept_messages];
    va_list values;
    (void)priority;
    va_start(values, format);
    vsnprintf(message, message_size, format, values);
    va_end(values);
    message[strcspn(message, "\n")] = '\0';
}

static const char *message_at(unsigned int index) { return messages[index % kept_messages]; }

static unsigned int first_message(void) {
    return message_count > kept_messages ? message_count - kept_messages : 0;
}

/* Finds the name of the last section that the parser has logged; empty if there is none. */
static void find_last_section(char name[32]) {
    *name = '\0';
    for (unsigned int i = first_message(); i < message_count; i++)
        sscanf(message_at(i), "find firmware (%31[^)])", name);
}

/* The flash and its two sets. */

typedef struct partition {
    char name[32];
    uint32_t size; /* 0 if there is no such partition */
} partition;

static partition find_partition(unsigned int number) {
    char device[32];
    char line[value_size];
    partition found = {"", 0};
    prop_table mtd = load_settings(&mtd_file);
    snprintf(device, sizeof device, "mtdblock%u", number);
    sscanf(get_setting(device, line, &mtd), "%x %31s", &found.size, found.name);
    free_table(&mtd);
    return found;
}

unsigned int set_partition(int set, unsigned int which) {
    static const char *const signatures[][2] = {
        [set_a] = {"root", "kern"},
        [set_b] = {"rfs1", "knl1"},
    };
    return (unsigned int)get_tbl_ids(get_tbl_id((const unsigned char *)signatures[set][which]));
}

int open_partition(unsigned int number) {
    char path[32];
    snprintf(path, sizeof path, "/dev/mtdblock%u", number);
    return open(path, O_RDONLY | O_CLOEXEC);
}

/* Returns the set with this root device; -1 if it is the root device of neither set. */
static int find_set(const char *device) {
    for (int set = set_a; set <= set_b; set++) {
        char number[32];
        char path[32];
        snprintf(number, sizeof number, "31:%u", set_partition(set, 0));
        snprintf(path, sizeof path, "/dev/mtdblock%u", set_partition(set, 0));
        if (STRCMP(device, number) == 0 || STRCMP(device, path) == 0)
            return set;
    }
    return -1;
}

/* Terminates each word of a command line with a NUL. A space in double quotes does not separate
 * words. */
static void split_words(char *line, size_t size) {
    int quoted = 0;
    for (size_t i = 0; i < size; i++) {
        quoted ^= line[i] == '"';
        if (!quoted && (line[i] == ' ' || line[i] == '\n'))
            line[i] = '\0';
    }
}

/* Returns the set of the root device in the kernel's command line; -1 if it is of neither set. As
 * in the kernel, the last "root=" before "--" counts. */
static int read_running_set(void) {
    static char line[65536];
    const ssize_t size = open_read_close(COMMAND_LINE, line, sizeof line);
    int set = -1;
    if (size <= 0 || (size_t)size == sizeof line)
        return -1;
    line[size] = '\0';
    split_words(line, (size_t)size);
    for (const char *word = line; word < line + size && STRCMP(word, "--") != 0;
         word += strlen(word) + 1)
        if (strncmp(word, "root=", 5) == 0)
            set = find_set(word + 5);
    return set;
}

/* Does not use get_bootparam(), which returns 0 for set B and if the environment is unreadable. */
static int read_next_set(void) {
    const int output = mute_output();
    const char *stored =
        init_env(ENVIRONMENT_DEVICE) == CORVEL_ENV_GOOD ? get_env("bootparam") : NULL;
    unmute_output(output);
    return stored ? (int)(strtol(stored, NULL, 10) % 2) : -1;
}

boot_state read_boot_state(void) {
    const int running = read_running_set();
    const int next = read_next_set();
    const boot_state state = {running >= 0 ? running : next, next};
    return state;
}

/* True if env_image_mem is a list of variables. */
static int is_variable_list(void) {
    const unsigned char *entry = env_image_mem + CORVEL_ENV_SIZE - CORVEL_ENV_DATA_SIZE;
    const unsigned char *end = env_image_mem + sizeof env_image_mem;
    if (!*entry)
        return 0;
    while (entry < end && *entry) {
        const unsigned char *nul = memchr(entry, '\0', (size_t)(end - entry));
        if (!nul || !memchr(entry, '=', (size_t)(nul - entry)))
            return 0;
        entry = nul + 1;
    }
    return entry < end;
}

/* True if a variable may be stored. The boot loader ignores an environment whose CRC is wrong.
 * Saving stores a valid CRC and makes every variable effective again, so the environment must at
 * least be a list of variables. */
static int is_environment_usable(void) {
    const int output = mute_output();
    const int result = init_env(ENVIRONMENT_DEVICE);
    unmute_output(output);
    return result == CORVEL_ENV_GOOD || (result == CORVEL_ENV_BAD_CRC && is_variable_list());
}

int make_boot(int set) {
    if (!is_environment_usable())
        return 0;
    const int output = mute_output();
    save_param(ENVIRONMENT_DEVICE, "bootparam", set == set_a ? "0" : "1");
    unmute_output(output);
    return read_next_set() == set;
}

/* Returns the offset of the version in a root file system: it is the first line or, if the root
 * file system is a squashfs, the line that follows it. The size of a squashfs is at offset 40 of
 * its header, in little-endian order; the partition has less than 4 GiB. */
static off_t version_offset(int device) {
    enum { size_at = 40, size_bytes = 4 };
    unsigned char header[size_at + size_bytes];
    off_t offset = 0;
    if (pread(device, header, sizeof header, 0) != (ssize_t)sizeof header ||
        memcmp(header, "hsqs", 4) != 0)
        return 0;
    for (size_t i = sizeof header; i-- > size_at;)
        offset = offset << 8 | header[i];
    return offset;
}

void read_version(int set, char version[version_size]) {
    const int device = open_partition(set_partition(set, 0));
    const ssize_t length = pread(device, version, version_size - 1, version_offset(device));
    close(device);
    version[length > 0 ? length : 0] = '\0';
    char *end = strchr(version, '\n');
    if (end)
        *end = '\0';
    if (!end || text_complaint(version))
        *version = '\0';
}

/* Checking an image. */

const unsigned char *map_image(size_t *size) {
    const int file = open(STAGED_IMAGE, O_RDONLY | O_CLOEXEC);
    struct stat status;
    void *image = MAP_FAILED;
    if (file >= 0 && fstat(file, &status) == 0 && status.st_size > 0) {
        *size = (size_t)status.st_size;
        image = mmap(NULL, *size, PROT_READ, MAP_PRIVATE, file, 0);
    }
    close(file);
    return image == MAP_FAILED ? NULL : image;
}

char *section_name(const img_info *section, char name[32]) {
    const char *start = strrchr(section->name, '/');
    start = start ? start + 1 : section->name;
    snprintf(name, 32, "%.*s", (int)strcspn(start, "."), start);
    return name;
}

/* A complaint is about a section, or about the image as a whole. */
static void complain(image_report *report, const char *complaint) {
    const int about_section = *report->failed != '\0';
    snprintf(report->complaint, sizeof report->complaint, "%s%s%s",
             about_section ? report->failed : "", about_section ? ": " : "", complaint);
}

static int is_about_section(int result) {
    return result == CORVEL_IMAGE_BAD_CHECKSUM || result == CORVEL_IMAGE_SECTION_TOO_LARGE;
}

/* Sets the complaint for a result of parse_firmware() that refuses an image. */
static void explain_result(image_report *report) {
    static const char *const texts[] = {
        [CORVEL_IMAGE_SECTION_PAST_END] =
            "A section exceeds the end of the file: the image is truncated or no upgrade image.",
        [CORVEL_IMAGE_BAD_CHECKSUM] =
            "the checksum of this section is wrong. The image is damaged.",
        [CORVEL_IMAGE_SECTION_TOO_LARGE] = "this section is larger than its partition.",
        [CORVEL_IMAGE_TOO_MANY_SECTIONS] = "The image has more than four sections.",
        [CORVEL_IMAGE_BAD_CRC] = "The CRC at the end of the image is wrong. The image is damaged.",
    };
    if (is_about_section(report->result))
        find_last_section(report->failed);
    complain(report, report->result == CORVEL_IMAGE_BAD_CRC && report->count == 0
                         ? "The file is not an upgrade image: it has no section for this device."
                         : texts[report->result]);
}

static int sections_for(const image_report *report, unsigned int number) {
    int count = 0;
    for (int i = 0; i < report->count; i++)
        count += report->sections[i].mtd_ids == number;
    return count;
}

/* A section may declare that it is not to be verified. The checks that the parser then omits are
 * made here. */
static const char *section_complaint(const image_report *report, const img_info *section,
                                     int running) {
    const partition target = find_partition(section->mtd_ids);
    if (sections_for(report, section->mtd_ids) > 1)
        return "two sections are for this partition.";
    if (!is_written(section))
        return NULL;
    if (section->mtd_ids == set_partition(running, 0) ||
        section->mtd_ids == set_partition(running, 1))
        return "this section would overwrite the running set.";
    if (STRCMP(target.name, "Boot-env") == 0)
        return "this section would replace the boot environment.";
    if (section->len > target.size || section_offset(section) > target.size - section->len)
        return "this section does not fit into its partition.";
    return NULL;
}

/* The parser accepts an image with any sections, and one without a CRC. After an upgrade the other
 * set boots, so the image must contain a complete set and leave the running set unchanged. */
static void check_upgrade(image_report *report, boot_state boot) {
    const int idle = boot.running == set_a ? set_b : set_a;
    if (is_written(&report->sections[report->count - 1])) {
        complain(report, "The image does not end with a version section, and thus has no CRC.");
        return;
    }
    for (int i = 0; i < report->count; i++) {
        const img_info *section = &report->sections[i];
        const char *complaint = section_complaint(report, section, boot.running);
        if (complaint) {
            section_name(section, report->failed);
            complain(report, complaint);
            return;
        }
    }
    if (!sections_for(report, set_partition(idle, 0)) ||
        !sections_for(report, set_partition(idle, 1)))
        complain(report, "The image must contain both a root file system and a kernel.");
}

/* Corrects the partitions: if the boot environment cannot be read, parse_firmware() assumes that
 * set B is running. */
static void direct_to_set(image_report *report, int set) {
    for (int i = 0; i < report->count; i++) {
        img_info *section = &report->sections[i];
        for (unsigned int which = 0; which < 2; which++)
            if (section->base_mtd_id == set_partition(set_a, which))
                section->mtd_ids = set_partition(set, which);
        snprintf(section->mtdev, sizeof section->mtdev, "/dev/mtdblock%u", section->mtd_ids);
    }
}

static const char *device_complaint(boot_state boot) {
    if (boot.running < 0)
        return "Neither the kernel's command line nor the boot environment names the running set.";
    if (!is_environment_usable())
        return "The boot environment cannot be read, so the boot set could not be changed.";
    return boot.next >= 0 && boot.next != boot.running
               ? "Restart the router to complete the last upgrade first."
               : NULL;
}

void check_image(const unsigned char *image, size_t size, image_report *report) {
    memset(report, 0, sizeof *report);
    const boot_state boot = read_boot_state();
    const char *complaint = device_complaint(boot);
    if (complaint) {
        complain(report, complaint);
        return;
    }
    const int output = mute_output();
    message_count = 0;
    parse_firmware(image, (unsigned int)size, report->sections, &report->result);
    unmute_output(output);
    while (report->count < record_count && *report->sections[report->count].name)
        report->count++;
    direct_to_set(report, boot.running == set_a ? set_b : set_a);
    if (report->result == CORVEL_IMAGE_ACCEPTED)
        check_upgrade(report, boot);
    else
        explain_result(report);
}

/* Showing an image's sections and the sets. */

static void print_size(uint32_t bytes, char text[32]) {
    if (bytes < 1024)
        snprintf(text, 32, "%u bytes", bytes);
    else if (bytes < 1024 * 1024)
        snprintf(text, 32, "%.1f KiB", bytes / 1024.0);
    else
        snprintf(text, 32, "%.1f MiB", bytes / 1048576.0);
}

/* Prints a row of the table; its strings need no escaping. */
static size_t print_section(const img_info *section, char *row, size_t size) {
    char name[32];
    char length[32];
    const partition target = find_partition(section->mtd_ids);
    print_size(section->len, length);
    section_name(section, name);
    if (!is_written(section))
        return (size_t)snprintf(
            row, size,
            "<tr><th scope=\"row\">%s</th><td colspan=\"2\">CRC of the image</td>"
            "<td class=\"number\">%s</td></tr>\n",
            name, length);
    return (size_t)snprintf(row, size,
                            "<tr><th scope=\"row\">%s</th><td>%s</td><td>%s</td>"
                            "<td class=\"number\">%s</td></tr>\n",
                            name, target.name, section->mtdev, length);
}

void add_message(str_node **fields, const char *message, int bad) {
    add_html(fields, "message", message);
    add_str(fields, "tone", bad ? "bad" : "");
}

void add_sections(str_node **fields, const image_report *report) {
    char rows[sizeof(((str_node *)0)->value)] = "";
    size_t used = 0;
    for (int i = 0; i < report->count && used < sizeof rows; i++)
        used += print_section(&report->sections[i], rows + used, sizeof rows - used);
    if (is_about_section(report->result) && used < sizeof rows)
        snprintf(rows + used, sizeof rows - used,
                 "<tr class=\"failed\"><th scope=\"row\">%s</th><td colspan=\"3\">%s</td></tr>\n",
                 report->failed,
                 report->result == CORVEL_IMAGE_BAD_CHECKSUM ? "Wrong checksum" : "Too large");
    add_str(fields, "sections", rows);
}

void add_findings(str_node **fields, const image_report *report) {
    char log[kept_messages * message_size] = "";
    char result[16];
    size_t used = 0;
    for (unsigned int i = first_message(); i < message_count && used < sizeof log; i++)
        used += (size_t)snprintf(log + used, sizeof log - used, "%s\n", message_at(i));
    snprintf(result, sizeof result, "%d", report->result);
    add_html(fields, "result", result);
    add_html(fields, "log", log);
}

/* Only the record shows that a set has been written incompletely. */
static int is_incomplete(const upgrade_record *record) {
    return record->written > 0 && STRCMP(record->state, "written") != 0;
}

static void add_set(str_node **fields, int set, boot_state boot) {
    const upgrade_record record = load_upgrade();
    char version[version_size];
    char name[32];
    const char letter = set == set_a ? 'A' : 'B';
    const char *badge = "Idle";
    const char *role = "";
    if (set == boot.running) {
        badge = "Running";
        role = "data-running";
    } else if (set == boot.next) {
        badge = "Boots next";
        role = "data-next";
    } else if (is_incomplete(&record)) {
        badge = "Incomplete";
    }
    read_version(set, version);

    snprintf(name, sizeof name, "version_%c", letter);
    add_html(fields, name, *version ? version : "No firmware");
    snprintf(name, sizeof name, "badge_%c", letter);
    add_str(fields, name, badge);
    snprintf(name, sizeof name, "role_%c", letter);
    add_str(fields, name, role);
}

/* The steps before the current one are done. */
static void add_steps(str_node **fields, const char *part) {
    static const char *const parts[] = {"upgrade-choose", "upgrade-check", "upgrade-writing",
                                        "upgrade-restart"};
    const char *attribute = "class=\"done\"";
    for (size_t i = 0; i < sizeof parts / sizeof *parts; i++) {
        char name[16];
        const int current = STRCMP(part, parts[i]) == 0;
        snprintf(name, sizeof name, "step_%zu", i + 1);
        add_str(fields, name, current ? "aria-current=\"step\"" : attribute);
        if (current)
            attribute = "";
    }
}

void print_upgrade_page(const char *status, const char *part, const char *head, str_node **fields) {
    const boot_state boot = read_boot_state();
    add_set(fields, set_a, boot);
    add_set(fields, set_b, boot);
    add_steps(fields, STRCMP(part, "upgrade-refused") ? part : "upgrade-check");
    print_page_part(status, "upgrade", part, head, "Firmware", fields);
}

/* The upgrade's record, and the lock of its steps. */

static void get_text(const char *name, char *text, size_t size, const prop_table *table) {
    char value[value_size];
    snprintf(text, size, "%s", get_setting(name, value, table));
}

static uint32_t get_number(const char *name, const prop_table *table) {
    char value[value_size];
    return (uint32_t)strtoul(get_setting(name, value, table), NULL, 10);
}

upgrade_record load_upgrade(void) {
    upgrade_record record;
    prop_table table = load_settings(&record_file);
    get_text("STATE", record.state, sizeof record.state, &table);
    get_text("FILE", record.file, sizeof record.file, &table);
    get_text("SECTION", record.section, sizeof record.section, &table);
    get_text("REASON", record.reason, sizeof record.reason, &table);
    record.written = get_number("WRITTEN", &table);
    record.total = get_number("TOTAL", &table);
    free_table(&table);
    return record;
}

int save_upgrade(const upgrade_record *record) {
    static const char copy[] = "/run/upgrade.new";
    FILE *file = fopen(copy, "w");
    if (!file)
        return 0;
    fprintf(file, "STATE %s\nFILE %s\nSECTION %s\nREASON %s\nWRITTEN %u\nTOTAL %u\n", record->state,
            record->file, record->section, record->reason, record->written, record->total);
    return fclose(file) == 0 && rename(copy, record_file.path) == 0;
}

static int open_lock(void) {
    const int lock = open("/run/upgrade.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (lock < 0)
        refuse("503 Service Unavailable", "The upgrade could not be locked.");
    return lock;
}

/* An open file description lock: a forked process shares it, and it can be tested without being
 * acquired. */
int lock_upgrade(void) {
    const int lock = open_lock();
    struct flock whole = {.l_type = F_WRLCK, .l_whence = SEEK_SET};
    if (fcntl(lock, F_OFD_SETLK, &whole) != 0)
        refuse("409 Conflict", "Another upgrade is in progress. Only one is possible at a time.");
    return lock;
}

int is_upgrade_locked(void) {
    const int lock = open_lock();
    struct flock whole = {.l_type = F_WRLCK, .l_whence = SEEK_SET};
    fcntl(lock, F_OFD_GETLK, &whole);
    close(lock);
    return whole.l_type != F_UNLCK;
}
