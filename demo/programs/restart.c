/* SPDX-License-Identifier: MIT */
/*
 * Restarts the router after a confirmation, on request with the factory's settings. A file tells
 * the next start to restore them, which removes that file last: an interrupted reset is repeated.
 */
#include "firmware.h"
#include "settings.h"

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#define RESET_REQUEST "/etc/config/reset"

static bool is_reset(const struct page *page) {
    const char *action = corvel_field(page->request, "action");
    return action && strcmp(action, "reset") == 0;
}

static void put_reset(struct page *page) {
    corvel_settings *factory = corvel_settings_load("/etc/factory/config/lan.conf", '=', NULL);
    put(page, "reset", "1");
    put(page, "address", corvel_setting(factory, "LAN_ADDRESS"));
    corvel_settings_free(factory);
}

static void ask(struct page *page) {
    if (is_reset(page))
        put_reset(page);
    show(page, "restart");
}

/* Returns false if the request for a reset could not be stored. */
static bool request_reset(void) {
    const int file = open(RESET_REQUEST, O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const int directory = open("/etc/config", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool is_stored = file >= 0 && fsync(file) == 0 && fsync(directory) == 0;
    close(file);
    close(directory);
    if (!is_stored)
        unlink(RESET_REQUEST);
    return is_stored;
}

/* The answer is sent first: the web server ends with the device. It ends this program, too, when it
 * has the answer. */
static void restart(struct page *page) {
    ignore_disconnection();
    put(page, "refresh", "20; url=/cgi-bin/system");
    show(page, "restarting");
    corvel_answer_send(page->answer);
    if (system("/sbin/reboot </dev/null >/dev/null 2>&1") != 0)
        perror("/sbin/reboot");
}

static bool has_action(const struct page *page) {
    static const char *const actions[] = {"restart", "reset", NULL};
    return corvel_check_choice(corvel_field(page->request, "action"), actions, NULL) == NULL;
}

/* The lock keeps an upgrade from being interrupted. */
static void handle_post(struct page *page) {
    if (!has_action(page)) {
        corvel_answer_error(page->answer, CORVEL_HTTP_BAD_REQUEST,
                            "The request contains no action of this page.");
        return;
    }
    const int lock = lock_upgrade(page);
    if (lock < 0)
        return;
    if (is_reset(page) && !request_reset()) {
        corvel_answer_error(page->answer, CORVEL_HTTP_INTERNAL_SERVER_ERROR,
                            "The reset could not be prepared. Nothing has been changed.");
    } else {
        log_event(page, SYSTEM_EVENT,
                  is_reset(page) ? "Factory reset requested" : "Restart requested");
        if (is_reset(page))
            put_reset(page);
        restart(page);
    }
    close(lock);
}

int main(void) { return serve(&(site_page){.name = "system", .get = ask, .post = handle_post}); }
