/* SPDX-License-Identifier: MIT */
/* Ends the session. Only a form's button does this: programs that follow links do not end it. */
#include "session.h"

#include <stdlib.h>

int main(void) {
    if (!accept_request())
        refuse("405 Method Not Allowed", "Use the button to log out.");
    end_session();
    print_redirect("/cgi-bin/login");
    return EXIT_SUCCESS;
}
