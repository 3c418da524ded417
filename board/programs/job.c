/* SPDX-License-Identifier: MIT */
/*
 * Does one job on the board, so that the power can be cut during it, or its instructions and memory
 * can be measured.
 *
 * usage: job measure COMMAND [ARGUMENT...]   prints the ticks of the processor's counter from the
 *                                            start of the command to its end, and its peak memory
 *        job nothing
 *        job env NAME VALUE                  sets a variable of the boot environment
 *        job save_prop FILE NAME VALUE       changes a settings file
 *        job settings_save FILE NAME VALUE   the same through the page kit
 *        job crc IMAGE | crc_alone IMAGE     the CRC of a file; with a table, without the library
 *        job check IMAGE                     checks an upgrade image
 *        job form COUNT | form_alone COUNT   decodes COUNT pairs of a form
 *        job json COUNT | json_alone COUNT   prints COUNT fields as JSON
 */
#define _GNU_SOURCE
#include <corvel.h>
#include <corvel_page.h>

#include <fcntl.h>
#include <inttypes.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

enum { most_pairs = 1024 };

/* --- Measuring --- */

/* The processor's counter, which every process can read; elsewhere, the clock. */
static uint32_t ticks(void) {
#ifdef __mips__
    uint32_t count;
    __asm__ volatile(".set push\n.set mips32r2\nrdhwr %0, $2\n.set pop" : "=r"(count));
    return count;
#else
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (uint32_t)now.tv_sec * 1000000000U + (uint32_t)now.tv_nsec;
#endif
}

static int measure(char **command) {
    struct rusage used;
    int status = 0;
    const uint32_t start = ticks();
    pid_t child;
    if (posix_spawn(&child, command[0], NULL, NULL, command, environ) != 0 ||
        wait4(child, &status, 0, &used) != child)
        return EXIT_FAILURE;
    fprintf(stderr, "%" PRIu32 " %ld\n", ticks() - start, used.ru_maxrss);
    return status == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

/* --- Files --- */

static const unsigned char *map_file(const char *path, unsigned int *size) {
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    struct stat status;
    if (file < 0 || fstat(file, &status) != 0)
        return NULL;
    void *const content = mmap(NULL, (size_t)status.st_size, PROT_READ, MAP_PRIVATE, file, 0);
    *size = (unsigned int)status.st_size;
    return content == MAP_FAILED ? NULL : content;
}

static int crc(char **words) {
    unsigned int size = 0;
    const unsigned char *const content = map_file(words[0], &size);
    if (!content)
        return EXIT_FAILURE;
    printf("%08" PRIx32 "\n", crc32(content, (int)size));
    return EXIT_SUCCESS;
}

static int crc_alone(char **words) {
    static uint32_t table[256];
    unsigned int size = 0;
    const unsigned char *const content = map_file(words[0], &size);
    uint32_t value = UINT32_MAX;
    if (!content)
        return EXIT_FAILURE;
    for (uint32_t i = 0; i < 256; i++) {
        table[i] = i;
        for (int bit = 0; bit < 8; bit++)
            table[i] = (table[i] >> 1) ^ ((table[i] & 1) != 0 ? UINT32_C(0xEDB88320) : 0);
    }
    for (unsigned int i = 0; i < size; i++)
        value = (value >> 8) ^ table[(value ^ content[i]) & 0xFF];
    printf("%08" PRIx32 "\n", ~value);
    return EXIT_SUCCESS;
}

static int check(char **words) {
    img_info records[CORVEL_IMAGE_RECORDS];
    unsigned int size = 0;
    int result = CORVEL_IMAGE_BAD_CRC;
    const unsigned char *const content = map_file(words[0], &size);
    if (!content)
        return EXIT_FAILURE;
    printf("%d\n", parse_firmware(content, size, records, &result));
    return result == CORVEL_IMAGE_ACCEPTED ? EXIT_SUCCESS : EXIT_FAILURE;
}

/* --- Settings --- */

static int env(char **words) {
    if (init_env("/dev/mtdblock1") != CORVEL_ENV_GOOD)
        return EXIT_FAILURE;
    return save_param("/dev/mtdblock1", words[0], words[1]) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

static int save_with_prop(char **words) {
    prop_entry row = {(uint32_t)strlen(words[1]) + 1, CORVEL_PROP_VALUE_SIZE, words[1], words[2]};
    return save_prop('=', words[0], &row, 1) == 1 ? EXIT_SUCCESS : EXIT_FAILURE;
}

static int save_with_kit(char **words) {
    corvel_settings *settings = corvel_settings_load(words[0], '=', NULL);
    const int saved = corvel_setting_set(settings, words[1], words[2]) == NULL &&
                      corvel_settings_save(&settings, 1) == CORVEL_SETTINGS_SAVED;
    corvel_settings_free(settings);
    return saved ? EXIT_SUCCESS : EXIT_FAILURE;
}

/* --- Forms and JSON --- */

static int count_of(char **words) {
    const long count = strtol(words[0], NULL, 10);
    return count > 0 && count <= most_pairs ? (int)count : 0;
}

/* A form whose values contain what browsers encode. */
static char *form_of(int count) {
    char *form = NULL;
    size_t size = 0;
    FILE *const stream = open_memstream(&form, &size);
    for (int i = 0; stream && i < count; i++)
        fprintf(stream, "%sFIELD_%d=a+value%%2C+%d%%21", i != 0 ? "&" : "", i, i);
    if (!stream || fclose(stream) != 0)
        return NULL;
    return form;
}

static int form(char **words) {
    static prop_entry pairs[most_pairs];
    const int wanted = count_of(words);
    char *const query = form_of(wanted);
    if (!query || setenv("REQUEST_METHOD", "GET", 1) != 0 || setenv("QUERY_STRING", query, 1) != 0)
        return EXIT_FAILURE;
    const int count = process_queue_get(pairs);
    free_prop(pairs, count);
    free(query);
    return count == wanted ? EXIT_SUCCESS : EXIT_FAILURE;
}

static int hexadecimal(char digit) {
    return digit <= '9' ? digit - '0' : (digit | 0x20) - 'a' + 10;
}

/* Decodes a string in place. */
static void decode(char *text) {
    char *end = text;
    for (; *text; text++) {
        const int is_escape = *text == '%' && text[1] && text[2];
        *end++ = *text == '+' ? ' '
                 : is_escape  ? (char)(hexadecimal(text[1]) * 16 + hexadecimal(text[2]))
                              : *text;
        if (is_escape)
            text += 2;
    }
    *end = '\0';
}

static int form_alone(char **words) {
    const int wanted = count_of(words);
    char *const query = form_of(wanted);
    int count = 0;
    if (!query)
        return EXIT_FAILURE;
    for (char *rest = query, *pair; (pair = strsep(&rest, "&")) != NULL; count++) {
        char *value = pair;
        char *const name = strsep(&value, "=");
        char *const kept_name = strdup(name);
        char *const kept_value = strdup(value ? value : "");
        if (kept_name && kept_value) {
            decode(kept_name);
            decode(kept_value);
        }
        free(kept_name);
        free(kept_value);
    }
    free(query);
    return count == wanted ? EXIT_SUCCESS : EXIT_FAILURE;
}

static int json(char **words) {
    str_node *fields = NULL;
    for (int i = count_of(words); i > 0; i--) {
        char name[32];
        snprintf(name, sizeof name, "FIELD_%d", i);
        add_str(&fields, name, "a value of a field");
    }
    list2json(fields, "fields");
    free_list(&fields);
    return EXIT_SUCCESS;
}

static int json_alone(char **words) {
    const char *separator = "{\"fields\":[{";
    for (int i = count_of(words); i > 0; i--, separator = ",")
        printf("%s\"FIELD_%d\":\"%s\"", separator, i, "a value of a field");
    puts("}]}");
    return EXIT_SUCCESS;
}

static int nothing(char **words) {
    (void)words;
    return EXIT_SUCCESS;
}

/* --- The table of jobs --- */

static const struct {
    const char *name;
    int words;
    int (*run)(char **words);
} jobs[] = {
    {"nothing", 0, nothing},
    {"env", 2, env},
    {"save_prop", 3, save_with_prop},
    {"settings_save", 3, save_with_kit},
    {"crc", 1, crc},
    {"crc_alone", 1, crc_alone},
    {"check", 1, check},
    {"form", 1, form},
    {"form_alone", 1, form_alone},
    {"json", 1, json},
    {"json_alone", 1, json_alone},
};

int main(int argc, char **argv) {
    if (argc > 2 && strcmp(argv[1], "measure") == 0)
        return measure(argv + 2);
    for (size_t i = 0; argc > 1 && i < sizeof jobs / sizeof *jobs; i++)
        if (strcmp(argv[1], jobs[i].name) == 0 && argc - 2 == jobs[i].words)
            return jobs[i].run(argv + 2);
    fputs("usage: job NAME [ARGUMENT...]\n", stderr);
    return 2;
}
