/* SPDX-License-Identifier: MIT */
/* Ends the session. Only a form's button does this: programs that follow links do not end it. */
#include "site.h"

static void log_out(struct page *page) {
    log_event(page, LOGIN_EVENT, "Logged out");
    corvel_session_end(page->session, page->answer);
    corvel_answer_redirect(page->answer, "/cgi-bin/login");
}

int main(void) {
    return serve(&(site_page){.name = "logout", .post = log_out, .is_first_step = true});
}
