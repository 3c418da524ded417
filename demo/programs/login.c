/* SPDX-License-Identifier: MIT */
/*
 * The login page. A correct login starts a session and redirects to the requested page. A failed
 * login gives the same message regardless of the reason.
 */
#include "site.h"

static const char *next_page(const struct page *page) {
    const char *next = corvel_field(page->request, "next");
    return corvel_is_local_path(next) ? next : "/cgi-bin/status";
}

static void show_login(struct page *page, int status, const char *message) {
    corvel_answer_status(page->answer, status);
    put(page, "message", message);
    put(page, "user", corvel_field(page->request, "user"));
    put(page, "next", next_page(page));
    show(page, "login");
}

static void handle_get(struct page *page) { show_login(page, CORVEL_HTTP_OK, ""); }

static void welcome(struct page *page, const char *user) {
    page->session = corvel_session_start(page->request, page->answer, NULL, user);
    if (!page->session) {
        show_login(page, CORVEL_HTTP_SERVICE_UNAVAILABLE, "The session could not be started.");
        return;
    }
    log_event(page, LOGIN_EVENT, "Logged in");
    corvel_answer_redirect(page->answer, next_page(page));
}

static void handle_post(struct page *page) {
    const char *user = corvel_field(page->request, "user");
    const char *password = corvel_field(page->request, "password");
    unsigned seconds = 0;
    switch (corvel_login(page->request, NULL, user, password, &seconds)) {
    case CORVEL_LOGIN_RIGHT:
        welcome(page, user);
        break;
    case CORVEL_LOGIN_WRONG:
        log_event(page, LOGIN_EVENT, "Wrong user name or password");
        show_login(page, CORVEL_HTTP_FORBIDDEN, "The user name or the password is wrong.");
        break;
    case CORVEL_LOGIN_WAIT:
        ask_to_wait(page, seconds);
        show_login(page, CORVEL_HTTP_TOO_MANY_REQUESTS,
                   "Too many login attempts. Try again in a few seconds.");
        break;
    default:
        show_login(page, CORVEL_HTTP_SERVICE_UNAVAILABLE, "The attempt could not be recorded.");
    }
}

int main(void) {
    return serve(
        &(site_page){.name = "login", .get = handle_get, .post = handle_post, .is_public = true});
}
