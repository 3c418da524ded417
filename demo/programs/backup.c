/* SPDX-License-Identifier: MIT */
/*
 * Backup of the settings: a GET downloads them as a file, a POST restores an uploaded one. The file
 * has the form of a settings file. Its last setting is the number of the others, so that a
 * truncated file is noticed. It contains no secrets: whoever has the file, or a session, does not
 * learn the passphrase, which no page shows.
 */
#define _GNU_SOURCE
#include "client_table.h"
#include "settings.h"

#include <string.h>
#include <time.h>
#include <unistd.h>

/* The setting with the number of the others. */
#define COUNT_NAME "CORVEL_SETTINGS"

/* The backup while it is restored, on a file system in memory. */
#define RECEIVED "/run/backup.conf"

enum {
    longest_backup = 65536,
    /* The settings that a backup can contain, with the names of clients. */
    most_pairs = 500,
    /* The longest value that corvel_setting() returns, in bytes. */
    longest_stored = 255
};

static void check_together(struct form *form) { network_settings.check(form); }

/* The settings of all pages, as those of one form. */
static setting all[most_settings];
static settings_page all_settings = {.name = "backup", .settings = all, .check = check_together};

static void add_settings(const settings_page *page) {
    for (size_t i = 0; i < page->count && all_settings.count < most_settings; i++)
        all[all_settings.count++] = page->settings[i];
}

/* Returns the setting of that name; null if a backup does not contain it. */
static const setting *find(const char *name) {
    for (size_t i = 0; i < all_settings.count; i++)
        if (!all[i].is_secret && strcmp(all[i].name, name) == 0)
            return &all[i];
    return NULL;
}

/* Returns what is wrong with the name of a client. */
static const char *client_complaint(const char *address, const char *name) {
    return is_client(address) ? corvel_check_text(name, 1, longest_client_name)
                              : "This is not a setting of a backup.";
}

/* Making a backup. */

static void write_setting(struct page *page, const char *name, const char *value) {
    char escaped[2 * longest_stored + 1];
    char line[sizeof escaped + line_size];
    const int length = snprintf(line, sizeof line, "%s=\"%s\"\n", name, add_escape(value, escaped));
    corvel_answer_write(page->answer, line, (size_t)length);
}

static void name_file(struct page *page) {
    char text[line_size];
    char date[CORVEL_TIME_TEXT_SIZE];
    corvel_date_text(time(NULL), date);
    snprintf(text, sizeof text, "attachment; filename=\"settings-%.10s.conf\"", date);
    corvel_answer_header(page->answer, "Content-Disposition", text);
    corvel_answer_type(page->answer, "text/plain; charset=utf-8");
}

/* Adds a setting to the file or to the JSON document. */
static void put_setting(struct page *page, const char *name, const char *value) {
    if (page->is_json)
        put(page, name, value);
    else
        write_setting(page, name, value);
}

/* Adds the names of the clients. Returns their number. */
static size_t put_clients(struct page *page) {
    const size_t most = most_pairs - all_settings.count;
    size_t count = 0;
    const char *name = NULL;
    const char *value = NULL;
    corvel_settings *names = corvel_settings_load(clients_file.path, clients_file.separator, NULL);
    for (size_t i = 0; count < most && corvel_setting_pair(names, i, &name, &value); i++)
        if (corvel_setting(names, name) == value && !client_complaint(name, value)) {
            put_setting(page, name, value);
            count++;
        }
    corvel_settings_free(names);
    return count;
}

/* Adds the settings that have a value. Returns their number. */
static size_t put_settings(struct page *page) {
    size_t count = 0;
    for (size_t i = 0; i < all_settings.count; i++) {
        const settings_file *file = all[i].file;
        corvel_settings *loaded = corvel_settings_load(file->path, file->separator, NULL);
        const char *value = corvel_setting(loaded, all[i].name);
        if (value && !all[i].is_secret) {
            put_setting(page, all[i].name, value);
            count++;
        }
        corvel_settings_free(loaded);
    }
    return count;
}

static void make_backup(struct page *page) {
    char text[16];
    const size_t count = put_settings(page) + put_clients(page);
    snprintf(text, sizeof text, "%zu", count);
    put_setting(page, COUNT_NAME, text);
    if (page->is_json)
        show(page, NULL);
    else
        name_file(page);
    log_event(page, SETTINGS_EVENT, "Backup of the settings made");
}

/* Restoring a backup. */

static void put_fault(struct page *page, const char *name, const char *fault) {
    corvel_data *row = corvel_data_add(page->data, "faults");
    corvel_data_set(row, "name", name);
    corvel_data_set(row, "fault", fault);
}

/* Checks the names of the settings. Returns the number of faults. */
static size_t check_names(struct page *page, const corvel_settings *backup) {
    size_t faults = 0;
    size_t count = 0;
    const char *name = NULL;
    const char *value = NULL;
    long announced = 0;
    const char *text = corvel_setting(backup, COUNT_NAME);
    const bool is_announced = corvel_check_integer(text, 1, most_pairs, &announced) == NULL;
    for (; count <= most_pairs && corvel_setting_pair(backup, count, &name, &value); count++) {
        const bool is_first = corvel_setting(backup, name) == value;
        const bool is_known = strcmp(name, COUNT_NAME) == 0 || find(name);
        const char *fault = !is_first  ? "This setting occurs twice."
                            : is_known ? NULL
                                       : client_complaint(name, value);
        if (fault) {
            put_fault(page, name, fault);
            faults++;
        }
    }
    if (!is_announced || announced + 1 != (long)count) {
        put_fault(page, "File", "This is not a complete backup of this router's settings.");
        faults++;
    }
    return faults;
}

static void restore(struct page *page, const corvel_settings *backup) {
    if (!backup) {
        corvel_answer_error(page->answer, CORVEL_HTTP_UNPROCESSABLE_CONTENT,
                            "The file is not a backup.");
    } else if (check_names(page, backup) > 0) {
        corvel_answer_status(page->answer, CORVEL_HTTP_UNPROCESSABLE_CONTENT);
        show(page, "backup-refused");
    } else {
        restore_settings(page, &all_settings, backup);
    }
}

static void receive_and_restore(struct page *page) {
    const corvel_upload_limits limits = {.file_max = longest_backup,
                                         .total_max = longest_backup + 4096};
    const char *complaint = NULL;
    ignore_disconnection();
    unlink(RECEIVED);
    const int status = corvel_upload_status(
        corvel_upload_save(page->request, &limits, "backup", RECEIVED), &complaint);
    if (status != CORVEL_HTTP_OK) {
        corvel_answer_error(page->answer, status, complaint);
        return;
    }
    corvel_settings *backup = corvel_settings_load(RECEIVED, '=', NULL);
    unlink(RECEIVED);
    restore(page, backup);
    corvel_settings_free(backup);
}

int main(void) {
    add_settings(&network_settings);
    add_settings(&device_settings);
    return serve(&(site_page){
        .name = "system", .get = make_backup, .post = receive_and_restore, .is_upload = true});
}
