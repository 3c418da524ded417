/* SPDX-License-Identifier: MIT */
#define _GNU_SOURCE
#include "settings.h"

#include "client_table.h"

#include <fcntl.h>
#include <string.h>
#include <sys/file.h>
#include <unistd.h>

const settings_file lan_file = {"/etc/config/lan.conf", '=', "version_lan"};
const settings_file wireless_file = {"/etc/config/wireless.conf", '=', "version_wireless"};
const settings_file global_file = {"/etc/config/global.conf", ' ', "version_global"};
const settings_file clients_file = {CLIENT_NAMES, '=', NULL};
const settings_file factory_file = {"/etc/factory.conf", ' ', NULL};
const settings_file applied_file = {"/var/log/applied.conf", ' ', NULL};

/* A setting in a form. */
typedef struct field {
    const setting *setting;
    const char *value; /* stored, or sent by the form; empty if it is missing */
    const char *error; /* null if the value is valid */
    bool is_sent;
    bool is_new;     /* the sent value differs from the stored one */
    bool is_changed; /* another value has been saved since the form was made */
} field;

struct form {
    const settings_page *page;
    field fields[most_settings];
    size_t count;
    const settings_file *files[most_files];
    corvel_settings *loaded[most_files];
    size_t file_count;
    const corvel_settings *backup; /* the source of the values, instead of the request; or null */
};

/* Loading and showing. */

static corvel_settings *file_of(struct form *form, const field *wanted) {
    size_t number = 0;
    while (number < form->file_count && form->files[number] != wanted->setting->file)
        number++;
    if (number == form->file_count) {
        const settings_file *file = wanted->setting->file;
        form->files[number] = file;
        form->loaded[number] = corvel_settings_load(file->path, file->separator, NULL);
        form->file_count++;
    }
    return form->loaded[number];
}

static const char *stored_value(struct form *form, const field *wanted) {
    const char *value = corvel_setting(file_of(form, wanted), wanted->setting->name);
    return value ? value : "";
}

/* Loads the values that the request does not contain. */
static void load(struct form *form) {
    for (size_t i = 0; i < form->count; i++)
        if (!form->fields[i].is_sent)
            form->fields[i].value = stored_value(form, &form->fields[i]);
}

static void unload(struct form *form) {
    while (form->file_count > 0)
        corvel_settings_free(form->loaded[--form->file_count]);
}

static void begin(struct form *form, const settings_page *page) {
    *form = (struct form){.page = page, .count = page->count};
    for (size_t i = 0; i < form->count; i++)
        form->fields[i].setting = &page->settings[i];
    load(form);
}

static bool is_set(struct form *form, const field *each) { return *stored_value(form, each) != 0; }

/* A secret is not part of an answer, not even of one to the request that contains it. */
static void put_value(struct page *page, struct form *form, const field *shown) {
    char name[line_size];
    if (!shown->setting->is_secret) {
        put(page, shown->setting->name, shown->value);
        return;
    }
    snprintf(name, sizeof name, "set_%s", shown->setting->name);
    put(page, name, is_set(form, shown) ? "1" : "");
}

static void put_error(struct page *page, struct form *form, const field *shown) {
    const char *stored = stored_value(form, shown);
    char name[line_size];
    char error[2 * line_size] = "";
    if (shown->error)
        snprintf(error, sizeof error, "%s", shown->error);
    else if (shown->setting->is_secret && shown->is_sent)
        snprintf(error, sizeof error, "Enter it again: it has not been saved.");
    else if (shown->is_changed && shown->setting->is_hidden)
        snprintf(error, sizeof error, "Another value has been saved.");
    else if (shown->is_changed)
        snprintf(error, sizeof error, "The saved value is: %s", *stored ? stored : "empty");
    snprintf(name, sizeof name, "error_%s", shown->setting->name);
    corvel_data_set(page->data, name, error);
}

/* Adds the versions of the files: a form that is shown again keeps those that it was made from,
 * unless it tells what has changed since. */
static void put_versions(struct page *page, const struct form *form, bool is_kept) {
    for (size_t i = 0; i < form->file_count; i++) {
        const char *name = form->files[i]->version;
        const char *sent = is_kept ? corvel_field(page->request, name) : NULL;
        corvel_data_set(page->data, name, sent ? sent : corvel_settings_version(form->loaded[i]));
    }
}

static void show_form(struct page *page, struct form *form, int status, const char *message) {
    corvel_answer_status(page->answer, status);
    open_object(page, "settings");
    for (size_t i = 0; i < form->count; i++)
        put_value(page, form, &form->fields[i]);
    close_part(page);
    for (size_t i = 0; i < form->count; i++)
        put_error(page, form, &form->fields[i]);
    put_versions(page, form, status == CORVEL_HTTP_UNPROCESSABLE_CONTENT);
    corvel_data_set(page->data, "message", message);
    form->page->add(page, form);
    show(page, form->page->name);
}

void show_settings(struct page *page, const settings_page *site) {
    struct form form;
    begin(&form, site);
    show_form(page, &form, CORVEL_HTTP_OK, corvel_field(page->request, "saved") ? "Saved." : "");
    unload(&form);
}

static size_t find_field(const struct form *form, const char *name) {
    size_t found = 0;
    while (found + 1 < form->count && strcmp(form->page->settings[found].name, name) != 0)
        found++;
    return found;
}

const char *form_value(const struct form *form, const char *name) {
    return form->fields[find_field(form, name)].value;
}

void set_form_error(struct form *form, const char *name, const char *message) {
    form->fields[find_field(form, name)].error = message;
}

void put_file(struct page *page, const char *object, const settings_file *file,
              const char *const names[], size_t count) {
    corvel_settings *loaded = corvel_settings_load(file->path, file->separator, NULL);
    open_object(page, object);
    for (size_t i = 0; i < count; i++)
        put(page, names[i], corvel_setting(loaded, names[i]));
    close_part(page);
    corvel_settings_free(loaded);
}

const char *text_complaint(const char *value) { return corvel_check_text(value, 0, longest_value); }

/* Saving. */

/* Makes the changes of one request in all files atomic for other requests and for the restart of
 * the device. O_CLOEXEC: a program that is started later must not inherit the lock. Negative if
 * that failed, with the answer made. */
static int lock_settings(struct page *page) {
    const int lock = open("/var/lock/settings", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (lock >= 0 && flock(lock, LOCK_EX) == 0)
        return lock;
    close(lock);
    corvel_answer_error(page->answer, CORVEL_HTTP_SERVICE_UNAVAILABLE,
                        "The settings could not be locked.");
    return -1;
}

/* Takes the settings and versions that the request contains. Returns the number of settings. */
static size_t take(const struct page *page, struct form *form) {
    size_t taken = 0;
    for (size_t i = 0; i < form->count; i++) {
        const setting *each = form->fields[i].setting;
        const char *sent = form->backup ? corvel_setting(form->backup, each->name)
                                        : corvel_field(page->request, each->name);
        taken += sent != NULL;
        if (sent && each->is_secret && !*sent)
            sent = NULL;
        if (sent)
            form->fields[i].value = sent;
        form->fields[i].is_sent = sent != NULL;
    }
    for (size_t i = 0; i < form->file_count; i++) {
        const char *version = corvel_field(page->request, form->files[i]->version);
        if (version)
            corvel_settings_expect(form->loaded[i], version);
    }
    return taken;
}

static bool has_errors(const struct form *form) {
    for (size_t i = 0; i < form->count; i++)
        if (form->fields[i].error)
            return true;
    return false;
}

bool is_switched_off(const struct form *form, const char *power) {
    return strcmp(form_value(form, power), "0") == 0;
}

static void check_field(struct form *form, field *checked) {
    const char *power = checked->setting->power;
    if (checked->setting->is_secret && !checked->is_sent && is_set(form, checked))
        return; /* the user could not see what the complaint is about */
    checked->error = checked->setting->complaint(checked->value);
    if (checked->error && power && is_switched_off(form, power)) {
        checked->is_sent = false;
        checked->value = stored_value(form, checked);
        checked->error = NULL;
    }
}

/* Checks the values, each by itself and then together. */
static bool check(struct form *form) {
    for (size_t i = 0; i < form->count; i++)
        check_field(form, &form->fields[i]);
    if (!has_errors(form) && form->page->check)
        form->page->check(form);
    return !has_errors(form);
}

/* Whether a value of the request differs from the stored one, or was made from another version. */
static bool has_changes(const struct page *page, struct form *form) {
    for (size_t i = 0; i < form->file_count; i++) {
        const char *version = corvel_field(page->request, form->files[i]->version);
        if (version && strcmp(version, corvel_settings_version(form->loaded[i])) != 0)
            return true;
    }
    for (size_t i = 0; i < form->count; i++) {
        const field *each = &form->fields[i];
        if (each->is_sent && strcmp(each->value, stored_value(form, each)) != 0)
            return true;
    }
    return false;
}

/* Sets the values of the request in memory. */
static bool set(struct form *form) {
    for (size_t i = 0; i < form->count; i++) {
        field *each = &form->fields[i];
        if (!each->is_sent)
            continue;
        each->is_new = strcmp(each->value, stored_value(form, each)) != 0;
        each->error = corvel_setting_set(file_of(form, each), each->setting->name, each->value);
    }
    load(form); /* the change may have moved the values */
    return !has_errors(form);
}

/* Shows the form with the values of the request, and where the saved ones differ. */
static void show_conflict(struct page *page, struct form *form) {
    unload(form);
    load(form);
    for (size_t i = 0; i < form->count; i++) {
        field *each = &form->fields[i];
        each->is_changed = strcmp(each->value, stored_value(form, each)) != 0;
    }
    show_form(page, form, CORVEL_HTTP_CONFLICT,
              "The settings have been changed elsewhere since you opened this page. Your entries "
              "have not been saved. Where the saved settings differ from them, this is noted "
              "below. Save again to replace the saved settings.");
}

/* One event for each changed setting, with its value if that may be shown. */
static void log_changes(const struct page *page, const struct form *form) {
    for (size_t i = 0; i < form->count; i++) {
        const field *each = &form->fields[i];
        if (each->is_new && each->setting->is_secret)
            log_event(page, SETTINGS_EVENT, "%s changed", each->setting->name);
        else if (each->is_new)
            log_event(page, SETTINGS_EVENT, "%s changed to \"%s\"", each->setting->name,
                      each->value);
    }
}

/* Without changes nothing is saved: even the lock files would wear the flash. */
static void save(struct page *page, struct form *form, bool is_changed) {
    char text[line_size];
    const char *complaint = NULL;
    const corvel_settings_result result = is_changed
                                              ? corvel_settings_save(form->loaded, form->file_count)
                                              : CORVEL_SETTINGS_UNCHANGED;
    const int status = corvel_settings_status(result, &complaint);
    if (result == CORVEL_SETTINGS_OUTDATED) {
        show_conflict(page, form);
    } else if (status != CORVEL_HTTP_OK) {
        corvel_answer_error(page->answer, status, complaint);
    } else {
        save_config();
        log_changes(page, form);
        snprintf(text, sizeof text, "/cgi-bin/%s?saved=1", form->page->name);
        corvel_answer_redirect(page->answer, text);
    }
}

void save_settings(struct page *page, const settings_page *site) {
    struct form form;
    const int lock = lock_settings(page);
    if (lock < 0)
        return;
    ignore_disconnection();
    begin(&form, site);
    const size_t taken = take(page, &form);
    const bool is_valid = taken != 0 && check(&form);
    const bool is_changed = is_valid && has_changes(page, &form);
    if (taken == 0)
        show_form(page, &form, CORVEL_HTTP_BAD_REQUEST,
                  "The request contains no setting of this page.");
    else if (!is_valid || !set(&form))
        show_form(page, &form, CORVEL_HTTP_UNPROCESSABLE_CONTENT,
                  "The settings have not been saved. See below.");
    else
        save(page, &form, is_changed);
    unload(&form);
    close(lock);
}

/* Restoring. */

static void refuse_backup(struct page *page, const struct form *form) {
    corvel_answer_status(page->answer, CORVEL_HTTP_UNPROCESSABLE_CONTENT);
    open_list(page, "faults");
    for (size_t i = 0; i < form->count; i++)
        if (form->fields[i].error) {
            open_row(page);
            put(page, "name", form->fields[i].setting->name);
            put(page, "fault", form->fields[i].error);
            close_part(page);
        }
    close_part(page);
    show(page, "backup-refused");
}

bool is_client(const char *name) { return corvel_check_mac(name, NULL) == NULL; }

/* Sets the names of clients in memory, to be saved with the settings of the form. */
static void set_client_names(struct form *form) {
    const char *name = NULL;
    const char *value = NULL;
    corvel_settings *names = NULL;
    for (size_t i = 0; corvel_setting_pair(form->backup, i, &name, &value); i++) {
        if (!is_client(name))
            continue;
        if (!names) {
            names = corvel_settings_load(clients_file.path, clients_file.separator, NULL);
            form->loaded[form->file_count++] = names;
        }
        corvel_setting_set(names, name, value);
    }
}

static void save_backup(struct page *page, struct form *form) {
    const char *complaint = NULL;
    set_client_names(form);
    const int status =
        corvel_settings_status(corvel_settings_save(form->loaded, form->file_count), &complaint);
    if (status != CORVEL_HTTP_OK) {
        corvel_answer_error(page->answer, status, complaint);
    } else {
        save_config();
        log_event(page, SETTINGS_EVENT, "Settings restored from a backup");
        log_changes(page, form);
        corvel_answer_redirect(page->answer, "/cgi-bin/system?done=restored");
    }
}

void restore_settings(struct page *page, const settings_page *site, const corvel_settings *backup) {
    struct form form;
    const int lock = lock_settings(page);
    if (lock < 0)
        return;
    ignore_disconnection();
    begin(&form, site);
    form.backup = backup;
    take(page, &form);
    if (check(&form) && set(&form))
        save_backup(page, &form);
    else
        refuse_backup(page, &form);
    unload(&form);
    close(lock);
}
