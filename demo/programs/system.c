/* SPDX-License-Identifier: MIT */
/* The system page: services, the flash and the boot environment. What changes the router is on
 * pages of its own: `restart`, `variable`, `backup`. */
#define _GNU_SOURCE
#include "flash_map.h"
#include "services.h"
#include "variables.h"

#include <string.h>
#include <time.h>

static void put_service(struct page *page, const service *shown) {
    const service_state state = find_service(shown);
    char since[CORVEL_TIME_TEXT_SIZE] = "";
    char duration[CORVEL_TIME_TEXT_SIZE] = "";
    if (state.pid) {
        corvel_date_text(time(NULL) - state.seconds, since);
        corvel_duration_text(state.seconds, duration);
    }
    open_row(page);
    put(page, "name", shown->name);
    put(page, "state", state.pid ? "Running" : "Not running");
    put(page, "since", since);
    put(page, "duration", duration);
    close_part(page);
}

static void put_services(struct page *page) {
    open_list(page, "services");
    for (size_t i = 0; i < service_count; i++)
        put_service(page, &services[i]);
    close_part(page);
}

static const char *use_of(int set, const corvel_boot *boot) {
    return set == CORVEL_FIRMWARE_UNKNOWN ? ""
           : set == boot->running         ? "running"
           : set == boot->next            ? "starts next"
                                          : "not running";
}

static void put_partition(struct page *page, const partition *shown, const corvel_boot *boot) {
    const int set = set_of_partition(shown->number);
    char text[line_size];
    open_row(page);
    snprintf(text, sizeof text, "mtdblock%u", shown->number);
    put(page, "device", text);
    put(page, "name", shown->name);
    snprintf(text, sizeof text, "%u KiB", shown->size / 1024);
    put(page, "size", text);
    snprintf(text, sizeof text, "%s%s%s", set_letter(set), *set_letter(set) ? ", " : "",
             use_of(set, boot));
    put(page, "set", text);
    close_part(page);
}

static void put_flash(struct page *page) {
    partition partitions[most_partitions];
    const size_t count = read_partitions(partitions);
    corvel_boot boot;
    corvel_boot_read(&upgrade_rules, &boot);
    open_list(page, "flash");
    for (size_t i = 0; i < count; i++)
        put_partition(page, &partitions[i], &boot);
    close_part(page);
}

static void put_environment(struct page *page) {
    size_t position = 0;
    variable shown;
    const bool is_good = load_variables();
    open_list(page, "environment");
    while (is_good && next_variable(&position, &shown)) {
        open_row(page);
        put(page, "name", shown.name);
        put(page, "value", shown.value);
        if (!page->is_json && !variable_name_complaint(shown.name))
            put(page, "can_change", "1");
        close_part(page);
    }
    close_part(page);
    if (!page->is_json)
        put(page, "damaged", is_good ? "" : "1");
}

static void put_message_of(struct page *page) {
    static const char *const names[] = {"changed", "restored", NULL};
    static const char *const messages[] = {"The variable has been changed.",
                                           "The settings have been restored."};
    size_t number = 0;
    if (corvel_check_choice(corvel_field(page->request, "done"), names, &number) == NULL)
        put(page, "message", messages[number]);
}

static void show_system(struct page *page) {
    put_services(page);
    put_flash(page);
    put_environment(page);
    if (!page->is_json)
        put_message_of(page);
    show(page, "system");
}

int main(void) { return serve(&(site_page){.name = "system", .get = show_system}); }
