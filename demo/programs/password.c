/* SPDX-License-Identifier: MIT */
/* The password page: users change their own passwords. A change ends the user's other sessions. */
#include "trap.h"

#include <ctype.h>
#include <stdlib.h>
#include <string.h>

enum { shortest_password = 8, longest_password = 63 };

/* The form's fields and their errors. No response contains a password. */
typedef struct form {
    const char *old;
    const char *new;
    const char *again;
    const char *old_error;
    const char *new_error;
    const char *again_error;
} form;

static const char *user(void) { return corvel_session_user(own_session()); }

static void show(const char *status, const char *message, const form *sent) {
    str_node *fields = NULL;
    add_html(&fields, "message", message);
    add_html(&fields, "name", user());
    add_html(&fields, "user", user());
    add_html(&fields, "error_old", sent->old_error);
    add_html(&fields, "error_new", sent->new_error);
    add_html(&fields, "error_again", sent->again_error);
    print_page(status, "password", "Password", &fields);
}

/* The password becomes part of a line that chpasswd reads. */
static const char *new_password_complaint(const char *password) {
    const size_t length = strlen(password);
    if (length < shortest_password || length > longest_password)
        return "Use 8 to 63 characters.";
    for (const char *at = password; *at; at++)
        if (iscntrl((unsigned char)*at))
            return "A password cannot contain this character.";
    return "";
}

/* Checks what can be checked before the old password. */
static int check(form *sent) {
    sent->new_error = new_password_complaint(sent->new);
    if (STRCMP(sent->new, sent->again) != 0)
        sent->again_error = "The two passwords differ.";
    if (!*sent->new_error && STRCMP(sent->new, sent->old) == 0)
        sent->new_error = "This is the current password.";
    return !*sent->new_error && !*sent->again_error;
}

static void change(const form *sent) {
    char text[trap_size];
    ignore_disconnection(); /* an interruption could leave a password file, or old sessions */
    if (login_chpwd(user(), sent->new) != CORVEL_PASSWORD_CHANGED) {
        show("500 Internal Server Error", "The password could not be changed.", sent);
        return;
    }
    corvel_answer *answer = corvel_answer_new(own_request(), NULL);
    corvel_session_end_all(NULL, user(), own_session());
    corvel_session_renew(own_session(), answer);
    snprintf(text, sizeof text, "password changed: %s", user());
    send_trap(text);
    redirect(answer, "/cgi-bin/password?saved=1");
}

/* Guessing the old password at an unattended browser is slowed down as at the login. */
static void change_if_right(form *sent) {
    unsigned seconds = 0;
    switch (corvel_login(own_request(), NULL, user(), sent->old, &seconds)) {
    case CORVEL_LOGIN_RIGHT:
        change(sent);
        break;
    case CORVEL_LOGIN_WRONG:
        sent->old_error = "This is not your password.";
        show("403 Forbidden", "The password has not been changed. See below.", sent);
        break;
    case CORVEL_LOGIN_WAIT:
        print_retry_after(seconds);
        show("429 Too Many Requests", "Too many login attempts. Try again in a few seconds.", sent);
        break;
    default:
        show("503 Service Unavailable", "The attempt could not be recorded.", sent);
    }
}

static void handle_post(void) {
    form sent = {find_field("old"), find_field("new"), find_field("again"), "", "", ""};
    if (!sent.old || !sent.new || !sent.again)
        show("400 Bad Request", "The request does not contain the fields of this form.", &sent);
    else if (!check(&sent))
        show("422 Unprocessable Content", "The password has not been changed. See below.", &sent);
    else
        change_if_right(&sent);
    corvel_request_free(own_request()); /* wipes the password */
}

int main(void) {
    if (accept_request()) {
        handle_post();
    } else {
        const form nothing = {"", "", "", "", "", ""};
        show("200 OK",
             find_field("saved") ? "Password changed. All your other sessions have been logged out."
                                 : "",
             &nothing);
    }
    return EXIT_SUCCESS;
}
