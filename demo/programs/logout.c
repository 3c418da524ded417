/* SPDX-License-Identifier: MIT */
/* Ends the session. Only a form's button does this: programs that follow links do not end it. */
#include "site.h"

#include <stdlib.h>

int main(void) {
    if (!accept_request())
        refuse("405 Method Not Allowed", "Use the button to log out.");
    corvel_answer *answer = corvel_answer_new(own_request(), NULL);
    corvel_session_end(own_session(), answer);
    redirect(answer, "/cgi-bin/login");
    return EXIT_SUCCESS;
}
