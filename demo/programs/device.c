/* SPDX-License-Identifier: MIT */
/* The settings of the device page: the values set in the factory, the names that the owner gives
 * the device, and the time zone. */
#include "settings.h"
#include "time_zone.h"

#include <string.h>

/* One part of a host name. */
static const char *host_name_complaint(const char *value) {
    if (strlen(value) > 63 || strchr(value, '.') || corvel_check_host_name(value))
        return "Use 1 to 63 letters, digits and hyphens, not only digits, and no hyphen at the "
               "ends.";
    return NULL;
}

static void add_time_zones(struct page *page, const char *chosen) {
    for (size_t i = 0; i < time_zone_count; i++) {
        corvel_data *option = corvel_data_add(page->data, "time_zones");
        corvel_data_set(option, "value", time_zones[i].rule);
        corvel_data_set(option, "text", time_zones[i].places);
        corvel_data_set(option, "chosen", strcmp(time_zones[i].rule, chosen) == 0 ? "1" : "");
    }
}

static void add_more(struct page *page, const struct form *form) {
    static const char *const names[] = {"MODEL", "SERIAL", "HARDWARE"};
    add_time_zones(page, form_value(form, "TIME_ZONE"));
    put_file(page, "factory", &factory_file, names, sizeof names / sizeof *names);
}

static const setting settings[] = {
    {"HOST_NAME", &global_file, host_name_complaint, NULL, false, false},
    {"DESCRIPTION", &global_file, text_complaint, NULL, false, false},
    {"CONTACT", &global_file, text_complaint, NULL, false, false},
    {"TIME_ZONE", &global_file, time_zone_complaint, NULL, true, false},
};

const settings_page device_settings = {"device", settings, sizeof settings / sizeof *settings, NULL,
                                       add_more};
