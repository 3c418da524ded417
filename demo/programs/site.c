/* SPDX-License-Identifier: MIT */
#define _GNU_SOURCE
#include "site.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

const settings_file lan_file = {"/etc/config/lan.conf", '='};
const settings_file wireless_file = {"/etc/config/wireless.conf", '='};
const settings_file global_file = {"/etc/config/global.conf", ' '};
const settings_file factory_file = {"/etc/factory.conf", ' '};
const settings_file applied_file = {"/var/log/applied.conf", ' '};

/* The pages that have an entry in the frame's navigation. */
static const char *const navigation[] = {"status",  "clients", "network", "device",
                                         "upgrade", "traps",   "password"};

static const char *environment(const char *name) {
    const char *value = getenv(name);
    return value ? value : "";
}

static void print_head(const char *status, const char *type) {
    printf("Status: %s\r\nContent-Type: %s; charset=utf-8\r\nCache-Control: no-store\r\n\r\n",
           status, type);
}

void refuse(const char *status, const char *reason) {
    str_node *fields = NULL;
    add_html(&fields, "reason", reason);
    print_page(status, "refused", "Request refused", &fields);
    exit(EXIT_SUCCESS);
}

void refuse_status(int status, const char *reason) {
    char text[16];
    snprintf(text, sizeof text, "%d", status);
    refuse(text, reason);
}

/* Requests: accepting and decoding. */

corvel_request *own_request(void) {
    static corvel_request *request;
    if (!request)
        request = corvel_request_begin();
    return request;
}

corvel_session *own_session(void) {
    static corvel_session *session;
    static int is_known;
    if (!is_known)
        session = corvel_session_find(own_request(), NULL);
    is_known = 1;
    return session;
}

void redirect(corvel_answer *answer, const char *path) {
    corvel_answer_redirect(answer, path);
    corvel_answer_send(answer);
    corvel_answer_free(answer);
}

void print_retry_after(unsigned seconds) { printf("Retry-After: %u\r\n", seconds); }

static int is_get(void) {
    const char *method = environment("REQUEST_METHOD");
    return STRCMP(method, "GET") == 0 || STRCMP(method, "HEAD") == 0;
}

/* Prints a path that corvel_is_local_path() accepts as a value of a URL's query. */
static void print_query_value(const char *text) {
    for (; *text; text++)
        printf(strchr("?&=%+#", *text) ? "%%%02X" : "%c", (unsigned)*text);
}

/* After the login the requested page is shown; a submitted form is lost. */
static void send_to_login(void) {
    char page[value_size];
    const char *query = environment("QUERY_STRING");
    const int length =
        snprintf(page, sizeof page, "%s%s%s", environment("SCRIPT_NAME"), *query ? "?" : "", query);
    printf("Status: 303 See Other\r\nCache-Control: no-store\r\nLocation: /cgi-bin/login");
    if (is_get() && length < (int)sizeof page && corvel_is_local_path(page)) {
        printf("?next=");
        print_query_value(page);
    }
    printf("\r\n\r\n");
}

/* This is the first check of a request, before its body is read. */
static void require_login(void) {
    const int is_refreshing = isajax_get();
    if (own_session() && !is_refreshing)
        corvel_session_touch(own_session());
    if (own_session())
        return;
    if (is_refreshing) {
        print_head("401 Unauthorized", "application/json");
        printf("{\"error\":\"login\"}\n");
    } else {
        send_to_login();
    }
    exit(EXIT_SUCCESS);
}

int accept_stranger(void) {
    /* The largest form may consist of pairs of two bytes, `=` and `&`. */
    const corvel_request_rules rules = {.methods = CORVEL_GET | CORVEL_POST,
                                        .body_max = longest_body,
                                        .pairs_max = longest_body,
                                        .memory_max = 4194304};
    const int status = corvel_request_read(own_request(), &rules);
    if (status != CORVEL_HTTP_OK)
        refuse_status(status, corvel_request_complaint(own_request()));
    return corvel_method(own_request()) == CORVEL_POST;
}

static void check_token(const char *token) {
    if (!corvel_session_check(own_session(), token))
        refuse("403 Forbidden", "The form is outdated. Reload the page and try again.");
}

int accept_request(void) {
    require_login();
    const int is_post = accept_stranger();
    if (is_post)
        check_token(find_field("token"));
    return is_post;
}

void accept_upload(void) {
    const corvel_request_rules rules = {.methods = CORVEL_POST, .types = CORVEL_MULTIPART};
    require_login();
    const int status = corvel_request_read(own_request(), &rules);
    if (status != CORVEL_HTTP_OK)
        refuse_status(status, corvel_request_complaint(own_request()));
    check_token(corvel_query(own_request(), "token"));
}

const char *find_field(const char *name) { return corvel_field(own_request(), name); }

prop_table new_table(size_t capacity) {
    prop_table table = {calloc(capacity, sizeof(prop_entry)), 0};
    if (!table.rows) {
        printf("Status: 503 Service Unavailable\r\n\r\n");
        exit(EXIT_SUCCESS);
    }
    return table;
}

void free_table(prop_table *table) {
    free_prop(table->rows, table->count);
    free(table->rows);
    *table = (prop_table){NULL, 0};
}

/* Settings: load, find, save, and their lock. */

/* A row takes at least two characters of the file: the separator and the newline. */
prop_table load_settings(const settings_file *file) {
    struct stat status;
    if (stat(file->path, &status) != 0)
        return new_table(1);
    prop_table settings = new_table((size_t)status.st_size / 2 + 1);
    settings.count = load_prop(file->separator, file->path, settings.rows);
    return settings;
}

/* O_CLOEXEC: a program that is started later must not inherit the lock. */
int lock_settings(int operation) {
    const int lock = open("/var/lock/settings", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (lock < 0 || flock(lock, operation) != 0)
        refuse("503 Service Unavailable", "The settings could not be locked.");
    if (operation == LOCK_EX)
        ignore_disconnection();
    return lock;
}

void ignore_disconnection(void) {
    signal(SIGTERM, SIG_IGN);
    signal(SIGPIPE, SIG_IGN);
}

void unlock_settings(int lock) { close(lock); }

char *get_setting(const char *name, char value[value_size], const prop_table *settings) {
    char stored[value_size] = "";
    get_prop(name, stored, settings->rows, settings->count);
    return strip_escape(stored, value);
}

/*
 * save_global_conf() appends a line without quotes, so that a quote at either end of the value
 * would be removed when it is read. The second call replaces the appended line by one with quotes.
 */
void save_global(const char *name, const char *value, const prop_table *settings) {
    char present[value_size];
    char escaped[2 * value_size];
    add_escape(value, escaped);
    if (!get_prop(name, present, settings->rows, settings->count))
        save_global_conf(global_file.separator, global_file.path, "", name, "");
    save_global_conf(global_file.separator, global_file.path, "", name, escaped);
}

/* Strings: validation, and escaping for HTML and JSON. */

/* Returns the number of bytes of the first UTF-8 character of a string, 0 if it is malformed. */
static size_t utf8_length(const char *text) {
    const unsigned char *byte = (const unsigned char *)text;
    unsigned char lowest = 0x80;
    unsigned char highest = 0xBF;
    size_t length = 4;
    if (byte[0] < 0x80)
        return 1;
    if (byte[0] < 0xC2 || byte[0] > 0xF4)
        return 0;
    if (byte[0] < 0xE0)
        length = 2;
    else if (byte[0] < 0xF0)
        length = 3;
    if (byte[0] == 0xE0)
        lowest = 0xA0; /* smaller bytes: an overlong encoding */
    else if (byte[0] == 0xED)
        highest = 0x9F; /* greater bytes: a UTF-16 surrogate */
    else if (byte[0] == 0xF0)
        lowest = 0x90;
    else if (byte[0] == 0xF4)
        highest = 0x8F; /* greater bytes: beyond the last code point */
    if (byte[1] < lowest || byte[1] > highest)
        return 0;
    for (size_t i = 2; i < length; i++)
        if ((byte[i] & 0xC0) != 0x80)
            return 0;
    return length;
}

static int is_control(char character) {
    return (unsigned char)character < 0x20 || character == 0x7F;
}

const char *text_complaint(const char *value) {
    const char *complaint = corvel_check_text(value, 0, longest_value);
    if (!complaint && strstr(value, "setenv "))
        complaint = "The word setenv followed by a space cannot be stored.";
    return complaint;
}

/* Returns the string that replaces the character, or null to keep it. */
typedef const char *escape(const char *character);

/* `$` is escaped too: print_html() would fill a marker inside a value. */
static const char *html_escape(const char *character) {
    switch (*character) {
    case '&':
        return "&amp;";
    case '<':
        return "&lt;";
    case '>':
        return "&gt;";
    case '"':
        return "&quot;";
    case '\'':
        return "&#39;";
    case '$':
        return "&#36;";
    default:
        return utf8_length(character) ? NULL : "\xEF\xBF\xBD";
    }
}

static const char *json_escape(const char *character) {
    static char code[sizeof "\\u0000"];
    if (*character == '"')
        return "\\\"";
    if (*character == '\\')
        return "\\\\";
    if (is_control(*character)) {
        snprintf(code, sizeof code, "\\u%04x", (unsigned)(unsigned char)*character);
        return code;
    }
    return utf8_length(character) ? NULL : "\\ufffd";
}

/* Escapes a string. Truncates it after the last complete character or escape that fits. */
static void copy_escaped(const char *text, escape *escape_of, char *copy, size_t size) {
    size_t used = 0;
    while (*text) {
        const char *escaped = escape_of(text);
        const size_t taken = utf8_length(text) ? utf8_length(text) : 1;
        const size_t length = escaped ? strlen(escaped) : taken;
        if (used + length >= size)
            break;
        memcpy(copy + used, escaped ? escaped : text, length);
        used += length;
        text += taken;
    }
    copy[used] = '\0';
}

void escape_html(const char *text, char *copy, size_t size) {
    copy_escaped(text, html_escape, copy, size);
}

void add_html(str_node **fields, const char *name, const char *value) {
    char escaped[sizeof(((str_node *)0)->value)];
    escape_html(value, escaped, sizeof escaped);
    add_str(fields, name, escaped);
}

void add_json(str_node **fields, const char *name, const char *value) {
    char escaped[sizeof(((str_node *)0)->value)];
    copy_escaped(value, json_escape, escaped, sizeof escaped);
    add_str(fields, name, escaped);
}

/*
 * prop2json() removes one quote from each end of a value. The value is stored in additional quotes,
 * so that it keeps its own.
 */
void insert_json(prop_table *table, const char *name, const char *value) {
    char escaped[value_size - sizeof "\"\""];
    char quoted[value_size];
    copy_escaped(value, json_escape, escaped, sizeof escaped);
    snprintf(quoted, sizeof quoted, "\"%s\"", escaped);
    table->count = ins_prop(name, quoted, table->rows, table->count);
}

/* Responses. */

void print_template(const char *name, str_node **fields) {
    char path[256];
    snprintf(path, sizeof path, "/www/templates/%s.html", name);
    print_html(path, fields);
}

/* Adds the field for the forms of a user who is logged in. */
static void add_token(str_node **fields) {
    if (own_session())
        add_str(fields, "token", corvel_session_token(own_session()));
}

/* The navigation is shown only to users who are logged in. */
static void print_navigation(const char *page) {
    str_node *fields = NULL;
    for (size_t i = 0; i < sizeof navigation / sizeof *navigation; i++)
        add_str(&fields, navigation[i], STRCMP(page, navigation[i]) ? "" : "aria-current=\"page\"");
    add_html(&fields, "user", corvel_session_user(own_session()));
    add_token(&fields);
    print_template("frame-pages", &fields);
    free_list(&fields);
}

void print_page_start(const char *status, const char *page, const char *head, const char *title) {
    char model[value_size];
    str_node *fields = NULL;
    prop_table factory = load_settings(&factory_file);
    add_html(&fields, "title", title);
    add_str(&fields, "head", head);
    add_html(&fields, "model", get_setting("MODEL", model, &factory));
    free_table(&factory);

    print_head(status, "text/html");
    print_template("frame-top", &fields);
    if (own_session())
        print_navigation(page);
    print_template("frame-content", &fields);
    free_list(&fields);
}

void print_page_end(void) { print_template("frame-bottom", &(str_node *){NULL}); }

void print_page(const char *status, const char *page, const char *title, str_node **fields) {
    print_page_part(status, page, NULL, "", title, fields);
}

void print_page_part(const char *status, const char *page, const char *part, const char *head,
                     const char *title, str_node **fields) {
    add_token(fields);
    print_page_start(status, page, head, title);
    print_template(page, fields);
    if (part)
        print_template(part, fields);
    print_page_end();
    free_list(fields);
}

void print_json_head(void) { print_head("200 OK", "application/json"); }

void print_json_object(int number, str_node **fields) {
    if (number > 0)
        printf(",\n");
    printjson_hdr1();
    list2json_data(*fields);
    printjson_tail0();
    free_list(fields);
}

void print_json_objects_end(void) {
    printf("\n");
    printjson_tail1();
}

void print_redirect(const char *path) {
    printf("Status: 303 See Other\r\nLocation: %s\r\nCache-Control: no-store\r\n\r\n", path);
}

int mute_output(void) {
    fflush(stdout);
    const int output = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (output < 0 || nowhere < 0 || dup2(nowhere, STDOUT_FILENO) < 0)
        exit(EXIT_FAILURE); /* the discarded output may contain a stranger's bytes */
    close(nowhere);
    return output;
}

void unmute_output(int output) {
    fflush(stdout);
    if (dup2(output, STDOUT_FILENO) < 0)
        exit(EXIT_FAILURE);
    close(output);
}
