/* SPDX-License-Identifier: MIT */
/*
 * Changes, adds or removes one variable of the boot environment: a form, a question that shows the
 * old and the new value, and the change. Variables that decide what starts are refused.
 *
 * If the power fails while the environment is written, the next start restores the copy that the
 * last one has made.
 */
#include "firmware.h"
#include "variables.h"

#include <string.h>
#include <unistd.h>

/* Room that is left for an upgrade, which refuses to start without it. */
enum { room_for_an_upgrade = 512 };

static const char *or_empty(const char *text) { return text ? text : ""; }

static const char *sent(const struct page *page, const char *name) {
    return or_empty(corvel_field(page->request, name));
}

/* Returns the bytes of the loaded list of variables. */
static size_t used_bytes(void) {
    size_t position = 0;
    variable each;
    while (next_variable(&position, &each))
        continue;
    return position;
}

static const char *value_complaint(const char *name, const char *value) {
    if (corvel_check_text(value, 0, longest_variable_value))
        return "Use at most 200 characters, without control characters.";
    if (!get_env(name) && !*value)
        return "There is no variable of this name to remove.";
    return used_bytes() + strlen(name) + strlen(value) + room_for_an_upgrade > CORVEL_ENV_DATA_SIZE
               ? "The boot environment has no room for this value."
               : NULL;
}

/* The name can be entered unless it is that of a variable. */
static void show_form(struct page *page, int status, const char *value) {
    const char *name = sent(page, "name");
    corvel_answer_status(page->answer, status);
    put(page, "name", name);
    put(page, "value", value);
    put(page, "is_set", get_env(name) ? "1" : "");
    show(page, "variable");
}

/* Loads the environment; refuses one that is damaged. */
static bool load(struct page *page) {
    if (load_variables())
        return true;
    corvel_answer_error(page->answer, CORVEL_HTTP_CONFLICT,
                        "The boot environment is damaged. Restart the router to repair it.");
    return false;
}

static void handle_get(struct page *page) {
    const char *name = corvel_field(page->request, "name");
    const char *complaint = name ? variable_name_complaint(name) : NULL;
    if (complaint)
        corvel_answer_error(page->answer, CORVEL_HTTP_UNPROCESSABLE_CONTENT, complaint);
    else if (load(page))
        show_form(page, CORVEL_HTTP_OK, name ? or_empty(get_env(name)) : "");
}

static void ask(struct page *page, const char *name, const char *value) {
    put(page, "name", name);
    put(page, "value", value);
    put(page, "old", or_empty(get_env(name)));
    show(page, "variable-confirm");
}

/* Writes the environment and reads it again: save_param() does not report a failed write. */
static bool save(const char *name, const char *value) {
    const int output = mute_output(); /* save_param() prints if it fails */
    const int result = save_param(ENVIRONMENT_DEVICE, name, *value ? value : NULL);
    unmute_output(output);
    return result == 0 && load_variables() && strcmp(or_empty(get_env(name)), value) == 0;
}

static void change(struct page *page, const char *name, const char *value) {
    if (strcmp(or_empty(get_env(name)), sent(page, "old")) != 0) {
        corvel_answer_error(page->answer, CORVEL_HTTP_CONFLICT,
                            "The variable has been changed elsewhere since you opened this page.");
    } else if (!save(name, value)) {
        corvel_answer_error(page->answer, CORVEL_HTTP_INTERNAL_SERVER_ERROR,
                            "The boot environment could not be written.");
    } else {
        log_event(page, SYSTEM_EVENT, "Boot variable %s %s", name, *value ? "changed" : "removed");
        corvel_answer_redirect(page->answer, "/cgi-bin/system?done=changed");
    }
}

static void check_and_change(struct page *page) {
    const char *name = sent(page, "name");
    const char *value = sent(page, "value");
    const char *about_name = variable_name_complaint(name);
    const char *about_value = about_name ? NULL : value_complaint(name, value);
    put(page, "error_name", about_name);
    put(page, "error_value", about_value);
    if (about_name || about_value)
        show_form(page, CORVEL_HTTP_UNPROCESSABLE_CONTENT, value);
    else if (corvel_field(page->request, "old"))
        change(page, name, value);
    else
        ask(page, name, value);
}

/* The lock keeps an upgrade from writing the environment at the same time. */
static void handle_post(struct page *page) {
    ignore_disconnection();
    const int lock = lock_upgrade(page);
    if (lock < 0)
        return;
    if (load(page))
        check_and_change(page);
    close(lock);
}

int main(void) {
    return serve(&(site_page){.name = "system", .get = handle_get, .post = handle_post});
}
