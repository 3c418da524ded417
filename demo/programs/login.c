/* SPDX-License-Identifier: MIT */
/*
 * The login page. A correct login starts a session and redirects to the requested page. A failed
 * login gives the same message regardless of the reason.
 */
#include "trap.h"

#include <stdlib.h>

static void show(const char *status, const char *message, const char *user, const char *next) {
    str_node *fields = NULL;
    add_html(&fields, "message", message);
    add_html(&fields, "user", user ? user : "");
    add_str(&fields, user && *user ? "focus_password" : "focus_user", "autofocus");
    add_str(&fields, user && *user ? "focus_user" : "focus_password", "");
    add_html(&fields, "next", next);
    print_page(status, "login", "Log in", &fields);
}

static const char *next_page(void) {
    const char *next = find_field("next");
    return next && corvel_is_local_path(next) ? next : "/cgi-bin/status";
}

static void welcome(const char *user, const char *next) {
    char text[trap_size];
    corvel_answer *answer = corvel_answer_new(own_request(), NULL);
    corvel_session *session = corvel_session_start(own_request(), answer, NULL, user);
    if (!session)
        refuse("503 Service Unavailable", "The session could not be started.");
    corvel_session_free(session);
    snprintf(text, sizeof text, "login: %s", user);
    send_trap(text); /* the web server can end this program when it has the answer */
    redirect(answer, next);
}

static void handle_post(void) {
    const char *user = find_field("user");
    const char *next = next_page();
    unsigned seconds = 0;
    switch (corvel_login(own_request(), NULL, user, find_field("password"), &seconds)) {
    case CORVEL_LOGIN_RIGHT:
        welcome(user, next);
        break;
    case CORVEL_LOGIN_WRONG:
        send_trap("login refused");
        show("403 Forbidden", "The user name or the password is wrong.", user, next);
        break;
    case CORVEL_LOGIN_WAIT:
        print_retry_after(seconds);
        show("429 Too Many Requests", "Too many login attempts. Try again in a few seconds.", user,
             next);
        break;
    default:
        show("503 Service Unavailable", "The attempt could not be recorded.", user, next);
    }
    corvel_request_free(own_request()); /* wipes the password */
}

int main(void) {
    if (accept_stranger()) {
        handle_post();
    } else {
        show("200 OK", "", "", next_page());
    }
    return EXIT_SUCCESS;
}
