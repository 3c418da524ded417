/* SPDX-License-Identifier: MIT */
/*
 * The password page: users change their own passwords. A change ends the user's other sessions.
 * Users who still have the factory's password choose their own here before they can use any other
 * page.
 */
#include "password_rules.h"
#include "site.h"

#include <string.h>

static void show_form(struct page *page, int status, const char *message) {
    corvel_answer_status(page->answer, status);
    put(page, "message", message);
    show(page, page->is_first_step ? "password-first" : "password");
}

static void handle_get(struct page *page) {
    const char *saved = corvel_field(page->request, "saved");
    show_form(page, CORVEL_HTTP_OK,
              saved ? "Password changed. All your other sessions have been logged out." : "");
}

/* Whether the new password is the current one. The old one, which is compared later, is that; it is
 * null if it is the factory's, which is no secret. */
static bool is_current(const char *user, const char *old, const char *new) {
    return old ? strcmp(new, old) == 0 : login_auth(user, new) == CORVEL_LOGIN_ACCEPTED;
}

/* The password becomes part of a line that chpasswd reads. */
static const char *new_password_complaint(const char *user, const char *old, const char *new) {
    const size_t length = strlen(new);
    if (length < shortest_password || length > longest_password)
        return "Use 8 to 63 characters.";
    if (corvel_check_text(new, shortest_password, longest_password))
        return "A password cannot contain this character.";
    if (is_current(user, old, new))
        return "This is the current password.";
    return weak_password_complaint(new, user);
}

/* Checks what can be checked before the old password. */
static bool check(struct page *page, const char *old, const char *new, const char *again) {
    const char *complaint = new_password_complaint(corvel_session_user(page->session), old, new);
    const bool is_repeated = strcmp(new, again) == 0;
    put(page, "error_new", complaint);
    put(page, "error_again", is_repeated ? NULL : "The two passwords differ.");
    return !complaint && is_repeated;
}

static void change(struct page *page, const char *new) {
    const char *user = corvel_session_user(page->session);
    ignore_disconnection(); /* an interruption could leave a password file, or old sessions */
    if (login_chpwd(user, new) != CORVEL_PASSWORD_CHANGED) {
        show_form(page, CORVEL_HTTP_INTERNAL_SERVER_ERROR, "The password could not be changed.");
        return;
    }
    corvel_session_end_all(NULL, user, page->session);
    corvel_session_renew(page->session, page->answer);
    log_event(page, PASSWORD_EVENT, "Password changed");
    corvel_answer_redirect(page->answer,
                           page->is_first_step ? "/cgi-bin/status" : "/cgi-bin/password?saved=1");
}

/* Guessing the old password at an unattended browser is slowed down as at the login. */
static void change_if_right(struct page *page, const char *old, const char *new) {
    unsigned seconds = 0;
    switch (corvel_login(page->request, NULL, corvel_session_user(page->session), old, &seconds)) {
    case CORVEL_LOGIN_RIGHT:
        change(page, new);
        break;
    case CORVEL_LOGIN_WRONG:
        log_event(page, PASSWORD_EVENT, "Password not changed: wrong current password");
        put(page, "error_old", "This is not your password.");
        show_form(page, CORVEL_HTTP_FORBIDDEN, "The password has not been changed. See below.");
        break;
    case CORVEL_LOGIN_WAIT:
        ask_to_wait(page, seconds);
        show_form(page, CORVEL_HTTP_TOO_MANY_REQUESTS,
                  "Too many login attempts. Try again in a few seconds.");
        break;
    default:
        show_form(page, CORVEL_HTTP_SERVICE_UNAVAILABLE, "The attempt could not be recorded.");
    }
}

static void handle_post(struct page *page) {
    const char *old = page->is_first_step ? NULL : corvel_field(page->request, "old");
    const char *new = corvel_field(page->request, "new");
    const char *again = corvel_field(page->request, "again");
    if (!new || !again || (!old && !page->is_first_step))
        show_form(page, CORVEL_HTTP_BAD_REQUEST,
                  "The request does not contain the fields of this form.");
    else if (!check(page, old, new, again))
        show_form(page, CORVEL_HTTP_UNPROCESSABLE_CONTENT,
                  "The password has not been changed. See below.");
    else if (page->is_first_step)
        change(page, new);
    else
        change_if_right(page, old, new);
}

int main(void) {
    return serve(&(site_page){
        .name = "password", .get = handle_get, .post = handle_post, .is_first_step = true});
}
