/* SPDX-License-Identifier: MIT */
/*
 * The device page: the values set in the factory, and the names that the owner gives the device.
 *
 * The names are in the global file, which has lines of the form NAME "value". Each name that the
 * form sends is saved with save_global_conf().
 */
#include "site.h"
#include "trap.h"

#include <ctype.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>

typedef const char *check(const char *value);

typedef struct setting {
    const char *name; /* in the file, the form, the template and the JSON document */
    check *complaint;
    char value[value_size];
    const char *error;
} setting;

static const char *host_name_complaint(const char *value) {
    const size_t length = strlen(value);
    if (length < 1 || length > 63)
        return "Use 1 to 63 characters.";
    if (value[0] == '-' || value[length - 1] == '-')
        return "The first and last character cannot be a hyphen.";
    for (const char *at = value; *at; at++)
        if (!isalnum((unsigned char)*at) && *at != '-')
            return "Use letters, digits and hyphens.";
    return NULL;
}

static setting settings[] = {
    {"HOST_NAME", host_name_complaint, "", NULL},
    {"DESCRIPTION", text_complaint, "", NULL},
    {"CONTACT", text_complaint, "", NULL},
};
enum { setting_count = sizeof settings / sizeof *settings };

static const char *const factory_names[] = {"MODEL", "SERIAL", "HARDWARE"};
enum { factory_count = sizeof factory_names / sizeof *factory_names };

static void load(void) {
    const int lock = lock_settings(LOCK_SH);
    prop_table stored = load_settings(&global_file);
    unlock_settings(lock);
    for (int i = 0; i < setting_count; i++)
        get_setting(settings[i].name, settings[i].value, &stored);
    free_table(&stored);
}

static void show(const char *status, const char *message) {
    char value[value_size];
    str_node *fields = NULL;
    prop_table factory = load_settings(&factory_file);
    for (int i = 0; i < factory_count; i++)
        add_html(&fields, factory_names[i], get_setting(factory_names[i], value, &factory));
    free_table(&factory);

    add_html(&fields, "message", message);
    for (int i = 0; i < setting_count; i++) {
        char error[value_size];
        snprintf(error, sizeof error, "error_%s", settings[i].name);
        add_html(&fields, settings[i].name, settings[i].value);
        add_html(&fields, error, settings[i].error ? settings[i].error : "");
    }
    print_page(status, "device", "Device", &fields);
}

/* Prints two sections: the settings from a field list, the factory's values from a table. */
static void show_json(void) {
    char value[value_size];
    str_node *fields = NULL;
    for (int i = 0; i < setting_count; i++)
        add_json(&fields, settings[i].name, settings[i].value);
    prop_table factory = load_settings(&factory_file);
    prop_table escaped = new_table(factory_count);
    for (int i = 0; i < factory_count; i++)
        insert_json(&escaped, factory_names[i], get_setting(factory_names[i], value, &factory));

    print_json_head();
    printf("{\n");
    printjson_hdr("settings");
    list2json_data(fields);
    printjson_tail();
    printf(",\n");
    printjson_hdr("factory");
    prop2json(escaped.rows, escaped.count);
    printjson_tail();
    printf("\n}\n");

    free_table(&escaped);
    free_table(&factory);
    free_list(&fields);
}

/* Changes the settings that the request contains. Returns their number. */
static int take(void) {
    int taken = 0;
    for (int i = 0; i < setting_count; i++) {
        const char *sent = find_field(settings[i].name);
        if (!sent)
            continue;
        snprintf(settings[i].value, sizeof settings[i].value, "%s", sent);
        settings[i].error = settings[i].complaint(sent);
        taken++;
    }
    return taken;
}

static int has_errors(void) {
    for (int i = 0; i < setting_count; i++)
        if (settings[i].error)
            return 1;
    return 0;
}

static void save(void) {
    const int lock = lock_settings(LOCK_EX);
    prop_table stored = load_settings(&global_file);
    for (int i = 0; i < setting_count; i++) {
        const char *sent = find_field(settings[i].name);
        if (sent)
            save_global(settings[i].name, sent, &stored);
    }
    unlock_settings(lock);
    free_table(&stored);
    save_config();
}

static void handle_post(void) {
    load();
    if (take() == 0)
        show("400 Bad Request", "The request contains no setting of this page.");
    else if (has_errors())
        show("422 Unprocessable Content", "The settings have not been saved. See below.");
    else {
        save();
        print_redirect("/cgi-bin/device?saved=1");
        send_trap("settings saved: device");
    }
}

static void handle_get(void) {
    load();
    if (isajax_get()) {
        show_json();
        return;
    }
    show("200 OK", find_field("saved") ? "Saved." : "");
}

int main(void) {
    if (accept_request())
        handle_post();
    else
        handle_get();
    return EXIT_SUCCESS;
}
