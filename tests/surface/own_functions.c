/* SPDX-License-Identifier: MIT */
/*
 * A CGI program that defines functions with the names of library functions. The library must not
 * call them: each one aborts the program.
 *
 * usage: own_functions DIRECTORY, which contains the files "conf", "page", "env" and "image";
 * standard input is the body of a form, followed by that of an upload
 */
#define _GNU_SOURCE
#include <corvel.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

uint32_t crc32(const unsigned char *data, int length) { (void)data, (void)length, abort(); }

void *xmalloc(size_t size) { (void)size, abort(); }

void *xrealloc(void *block, size_t size) { (void)block, (void)size, abort(); }

char *safe_strncpy(char *dst, const char *src, size_t size) {
    (void)dst, (void)src, (void)size, abort();
}

char *my_getug(char *buf, char *name, long id, int bufsize, char prefix) {
    (void)buf, (void)name, (void)id, (void)bufsize, (void)prefix, abort();
}

ssize_t full_read(int fd, void *buf, size_t len) { (void)fd, (void)buf, (void)len, abort(); }

ssize_t open_read_close(const char *path, void *buf, size_t len) {
    (void)path, (void)buf, (void)len, abort();
}

void read_cmdline(char *buf, int size, unsigned int pid) {
    (void)buf, (void)size, (void)pid, abort();
}

int *find_pid_by_name(const char *name) { (void)name, abort(); }

int hex2int(char digit) { (void)digit, abort(); }

signed char chUpcase(signed char character) { (void)character, abort(); }

char *mac2hexStrip(const char *text, char *out) { (void)text, (void)out, abort(); }

int getInAddr(const char *ifname, unsigned int selector, void *result) {
    (void)ifname, (void)selector, (void)result, abort();
}

int getDefaultRoute(const char *ifname, uint32_t *gw) { (void)ifname, (void)gw, abort(); }

int search_by_mac(const lease_entry *head, const char *mac) { (void)head, (void)mac, abort(); }

void add_lease(lease_entry *entry, const unsigned char *record) {
    (void)entry, (void)record, abort();
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

uint32_t get_bootparam(void) { abort(); }

int init_env(const char *path) { (void)path, abort(); }

int set_env_ptr(void *image) { (void)image, abort(); }

char *get_env(const char *name) { (void)name, abort(); }

int set_env(const char *name, const char *value) { (void)name, (void)value, abort(); }

int save_param(const char *path, const char *name, const char *value) {
    (void)path, (void)name, (void)value, abort();
}

char *parse_bootargs_get_val(const char *args, const char *key) { (void)args, (void)key, abort(); }

uint32_t get_sign_tbl_size(void) { abort(); }

uint32_t get_tbl_id(const unsigned char *sig) { (void)sig, abort(); }

int get_tbl_ids(unsigned int index) { (void)index, abort(); }

int dump_img_info(int count, const img_info *records) { (void)count, (void)records, abort(); }

int get_vhash(const char *content_type, char **boundary) {
    (void)content_type, (void)boundary, abort();
}

unsigned int killDaemon(void) { abort(); }

char *hex_search(const char *start, const char *end, const char *pattern, int length) {
    (void)start, (void)end, (void)pattern, (void)length, abort();
}

char *strip_r(char *text, int *length, char one, char other) {
    (void)text, (void)length, (void)one, (void)other, abort();
}

int getDisposition_file(char **data, unsigned int *size, char **cursor, char *end,
                        const char *boundary, prop_file *record) {
    (void)data, (void)size, (void)cursor, (void)end, (void)boundary, (void)record, abort();
}

void print_string_array(const char *title, const unsigned char *data, int len) {
    (void)title, (void)data, (void)len, abort();
}

/* Replacements of functions of the C library, which the library does call. */
static const char *environment;

int open(const char *path, int flags, ...) {
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0) {
        va_list values;
        va_start(values, flags);
        mode = va_arg(values, mode_t);
        va_end(values);
    }
    if (strcmp(path, "/dev/mtdblock1") == 0)
        path = environment;
    return (int)syscall(SYS_openat, AT_FDCWD, path, flags, mode);
}

unsigned int sleep(unsigned int seconds) { return (void)seconds, 0; }

void syslog(int priority, const char *format, ...) { (void)priority, (void)format; }

/* Whether the dynamic linker resolves the name to this program's function. */
static int is_found_first(const char *name, int (*function)(void)) {
    void *found = dlsym(RTLD_DEFAULT, name);
    void *own = NULL;
    memcpy(&own, &function, sizeof own);
    return found == own;
}

static void edit_and_save(const char *path) {
    prop_entry table[16] = {{0, 0, NULL, NULL}};
    char value[CORVEL_GET_PROP_SIZE];
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
    char value[CORVEL_GET_PROP_SIZE];
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

static void receive_upload(void) {
    prop_file files[CORVEL_UPLOAD_FILES] = {{"", "", "", NULL, 0}};
    char *boundary = NULL;
    int length = 0;
    int total = 0;
    char *upload;
    setenv("CONTENT_TYPE", "multipart/form-data; boundary=b", 1);
    setenv("CONTENT_LENGTH", "7102", 1);
    upload = read_queue_for_upload1(&total, &boundary, &length);
    if (upload == NULL)
        abort();
    printf("%d file, ", process_file(upload, total, boundary, files));
    printf("%u bytes\n", files[0].size);
    free_prop_file(files, 4);
    free(upload);
    free(boundary);
}

static void upgrade(const char *path) {
    static unsigned char image[1024];
    img_info records[CORVEL_IMAGE_RECORDS];
    FILE *file = fopen(path, "rb");
    int code = -1;
    int count;
    if (file == NULL)
        abort();
    count =
        parse_firmware(image, (unsigned int)fread(image, 1, sizeof image, file), records, &code);
    fclose(file);
    printf("%d records, code %d\n", count, code);
    get_rootid(environment);
    save_bootparam();
}

/* The results depend on the machine and are not checked. */
static void read_device_state(const char *lease_file) {
    char text[64];
    unsigned char byte = 0;
    lease_entry *list = NULL;
    getHWip("lo", CORVEL_ADDRESS_IPV4, text, sizeof text);
    getHWaddr("lo", text);
    getDefGw("lo", text);
    get_arp_cache("", &list);
    free_leaselist(&list);
    get_udhpd_leases(&list, lease_file);
    free_leaselist(&list);
    is_runing("own_functions");
    my_getpwuid(text, 0, sizeof text);
    read_close(open(lease_file, O_RDONLY), text, sizeof text);
    str2byte("0a", 2, &byte);
    free(ascii2hex(&byte, 1, NULL));
}

int main(int argc, char **argv) {
    static char environment_path[4096];
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
    receive_upload();
    snprintf(path, sizeof path, "%s/image", argv[1]);
    snprintf(environment_path, sizeof environment_path, "%s/env", argv[1]);
    environment = environment_path;
    upgrade(path);
    read_device_state(path);
    return 0;
}
