/* SPDX-License-Identifier: MIT */
/**
 * @file settings.h
 * @brief Forms whose fields are settings in files.
 *
 * The form contains the versions of the files that it was made from. If one of them was changed
 * since, nothing is saved, and the form is shown again with the user's entries and the saved values
 * that differ from them. A request without versions, of a program that changes single settings, is
 * saved in any case.
 */
#ifndef SETTINGS_H
#define SETTINGS_H

#include "site.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    /** The longest value that is stored, in bytes. */
    longest_value = 80,
    /** The number of settings, and of their files, that a form can have. */
    most_settings = 24,
    most_files = 4
};

/** A property file of the device. */
typedef struct settings_file {
    const char *path;
    char separator;      /**< Between names and values. */
    const char *version; /**< The form's field for the version of the file. */
} settings_file;

extern const settings_file lan_file;      /**< LAN and DHCP server, NAME="value". */
extern const settings_file wireless_file; /**< The wireless network, NAME="value". */
extern const settings_file global_file;   /**< Settings of the whole device, NAME "value". */
extern const settings_file clients_file;  /**< Names of clients, ADDRESS="name". */
extern const settings_file factory_file;  /**< Values set in the factory, setenv NAME value. */
extern const settings_file applied_file;  /**< Written by the configuration client, NAME value. */

/** A setting. It has the same name in the file, the form, the template and the JSON document. */
typedef struct setting {
    const char *name;
    const settings_file *file;
    /** Returns a message for the user, or null if the value is valid. */
    const char *(*complaint)(const char *value);
    /** The setting that switches this one off if it is 0; null if there is none. While a
     * setting is switched off, an invalid entry is ignored instead of refused. */
    const char *power;
    bool is_hidden; /**< Whether the saved value is not told beside another entry. */
    /** The value can be replaced, but is never part of an answer: `set_NAME` is 1 if there is one.
     * An empty entry leaves it unchanged. */
    bool is_secret;
} setting;

struct form;

/** A page with a form of settings. */
typedef struct settings_page {
    const char *name; /**< Of the page and its template. */
    const setting *settings;
    size_t count; /**< At most most_settings. */
    /** Checks the values, each of which is valid by itself, against each other. May be null. */
    void (*check)(struct form *form);
    /** Adds what the page shows in addition. */
    void (*add)(struct page *page, const struct form *form);
} settings_page;

extern const settings_page network_settings;
extern const settings_page device_settings;

/** Answers a GET. */
void show_settings(struct page *page, const settings_page *site);

/** Answers a POST. */
void save_settings(struct page *page, const settings_page *site);

/** Whether a setting is the name of a client: its own name is a hardware address. */
bool is_client(const char *name);

/**
 * Answers the upload of a backup: checks its settings as those of the page's form, and saves all of
 * them or none, and the names of clients, which the caller has checked, with them. What the backup
 * does not contain is left unchanged.
 */
void restore_settings(struct page *page, const settings_page *site, const corvel_settings *backup);

/** Returns the value of a setting, which must exist: stored, or sent by the form. */
const char *form_value(const struct form *form, const char *name);

/** Whether the value of a switch is 0. */
bool is_switched_off(const struct form *form, const char *power);

/** States why a value is refused. */
void set_form_error(struct form *form, const char *name, const char *message);

/** Adds an object with settings of a file that is no form's. */
void put_file(struct page *page, const char *object, const settings_file *file,
              const char *const names[], size_t count);

/** Checks a text of at most longest_value bytes. */
const char *text_complaint(const char *value);

#ifdef __cplusplus
}
#endif

#endif
