/* SPDX-License-Identifier: MIT */
/*
 * A CGI program that has functions of its own under names that the library uses as well. The
 * library's functions must not come to call them: each one here ends the program.
 *
 * usage: own_functions FOLDER, with files "conf" and "page" in the folder
 */
#define _GNU_SOURCE
#include <corvel.h>

#include <dlfcn.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

uint32_t crc32(const unsigned char *data, int length) { (void)data, (void)length, abort(); }

/* What the rest of the interface brings; not declared here. */
void *xmalloc(size_t size);
void *xmalloc(size_t size) { (void)size, abort(); }

void *xrealloc(void *block, size_t size);
void *xrealloc(void *block, size_t size) { (void)block, (void)size, abort(); }

int hex2int(char digit);
int hex2int(char digit) { (void)digit, abort(); }

char *safe_strncpy(char *dst, const char *src, size_t size);
char *safe_strncpy(char *dst, const char *src, size_t size) {
    (void)dst, (void)src, (void)size, abort();
}

unsigned int STRCMP(const char *a, const char *b) { (void)a, (void)b, abort(); }

char *strip(char *str, signed char ch) { (void)str, (void)ch, abort(); }

char *add_escape(const char *src, char *dst) { (void)src, (void)dst, abort(); }

void DFPrintf(FILE *stream, const char *fmt, ...) { (void)stream, (void)fmt, abort(); }

int get_pr(signed char sep, char *line, prop_entry *row) {
    (void)sep, (void)line, (void)row, abort();
}

int ins_pr(const char *name, const char *value, prop_entry *row, int count) {
    (void)name, (void)value, (void)row, (void)count, abort();
}

char *makeword(char *dst, const char *src, char stop, char **rest) {
    (void)dst, (void)src, (void)stop, (void)rest, abort();
}

char *plustospace(char *text) { (void)text, abort(); }

char *unescape_url(char *text) { (void)text, abort(); }

signed char x2c(const char *digits) { (void)digits, abort(); }

int get_http_methmod(const char *method) { (void)method, abort(); }

int process_query_string(prop_entry *table) { (void)table, abort(); }

char *read_queue(void) { abort(); }

int free_buff(void *block, uint32_t size) { (void)block, (void)size, abort(); }

void *get_buffer(uint32_t size) { (void)size, abort(); }

int free_buffer(void *block, uint32_t size) { (void)block, (void)size, abort(); }

void delete_string(str_node **head, const char *name) { (void)head, (void)name, abort(); }

str_node *find_keyword(const char *text, str_node *head) { (void)text, (void)head, abort(); }

char *change_keyword(char *text, const str_node *record) { (void)text, (void)record, abort(); }

int printjson_hdr0(const char *name) { (void)name, abort(); }

int printjson_hdr1(void) { abort(); }

int printjson_hdr(const char *name) { (void)name, abort(); }

int printjson_tail0(void) { abort(); }

int printjson_tail1(void) { abort(); }

int printjson_tail(void) { abort(); }

void list2json_data(const str_node *list) { (void)list, abort(); }

/* Whether a call by name from anywhere in the process arrives in this program. */
static int is_found_first(const char *name, int (*function)(void)) {
    void *found = dlsym(RTLD_DEFAULT, name);
    void *own = NULL;
    memcpy(&own, &function, sizeof own);
    return found == own;
}

static void edit_and_save(const char *path) {
    prop_entry table[16] = {{0, 0, NULL, NULL}};
    char value[256];
    int count = load_prop('=', path, table);
    count = ins_prop("B", "2", table, count);
    set_prop("A", "\"new\"", table, count);
    dump_prop(table, count);
    printf("%s\n", get_prop("A", value, table, count));
    prop2json(table, count);
    generate_hidder_from_prop(table, count);
    set_prop("A", "saved", table, count);
    save_prop('=', path, table, count);
    save_global_conf('=', path, "", "C", "3");
    free_prop(table, count);
}

static void show_page(const char *path) {
    str_node *list = NULL;
    add_str(&list, "title", "Page");
    add_str(&list, "text", "Text");
    print_list(list);
    list2json(list, "list");
    print_html(path, &list);
    free_list(&list);
}

static void decode_request(void) {
    prop_entry table[16] = {{0, 0, NULL, NULL}};
    char value[256];
    int count;
    setenv("REQUEST_METHOD", "GET", 1);
    setenv("QUERY_STRING", "Ajax=7&a=b+c%21", 1);
    printf("%d\n", isajax_get());
    count = process_queue_get(table);
    printf("%d %s\n", count, get_prop("a", value, table, count));
    free_prop(table, count);
    setenv("REQUEST_METHOD", "POST", 1);
    setenv("CONTENT_LENGTH", "6", 1);
    count = process_queue(table);
    printf("%d %s\n", count, get_prop("d", value, table, count));
    free_prop(table, count);
}

int main(int argc, char **argv) {
    char path[4096];
    if (argc != 2)
        return 2;
    if (!is_found_first("printjson_tail", printjson_tail) ||
        !is_found_first("printjson_hdr1", printjson_hdr1))
        return 3;
    snprintf(path, sizeof path, "%s/conf", argv[1]);
    edit_and_save(path);
    snprintf(path, sizeof path, "%s/page", argv[1]);
    show_page(path);
    decode_request();
    return 0;
}
