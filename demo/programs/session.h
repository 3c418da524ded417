/* SPDX-License-Identifier: MIT */
/**
 * @file session.h
 * @brief Login sessions.
 *
 * A session is a random number that the browser keeps in a cookie, and a file of that name on the
 * device. The file contains the user's name; its modification time is the time of the session's
 * last use. The files are in memory: a restart of the device ends all sessions.
 */
#ifndef SESSION_H
#define SESSION_H

#include "site.h"

/** Returns the user of the request's session; null if the request has no valid session. */
const char *session_user(void);

/** Sets the time of last use of the request's session to now. */
void extend_session(void);

/**
 * Starts a session and prints the header line that sets its cookie. Call it before the rest of the
 * response's header is printed. The session of the request ends and is replaced by the new one.
 */
void begin_session(const char *user);

/** As begin_session(), for the user of the request's session, whose number becomes invalid. */
void renew_session(void);

/** Ends the request's session, if any, and prints the header line that deletes its cookie. */
void end_session(void);

/** Ends all other sessions of the user of the request's session. */
void end_other_sessions(void);

/**
 * True if a path names a page of this site. A login redirects only to such a path. It consists of
 * characters that neither end a header line nor need escaping.
 */
int is_local_path(const char *path);

#endif
