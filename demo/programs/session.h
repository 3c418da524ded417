/* SPDX-License-Identifier: MIT */
/**
 * @file session.h
 * @brief Who is logged in.
 *
 * A session is a random number that the browser keeps in a cookie, and a file of that name on the
 * device. The file's content is the user's name, its time of change the session's last use. It is
 * in memory: a restart of the device ends all sessions.
 */
#ifndef SESSION_H
#define SESSION_H

#include "site.h"

/** The user whose session the request's cookie names; null if it names none that is alive. */
const char *session_user(void);

/** Has the session of session_user() live on from now. */
void extend_session(void);

/**
 * Begins a session and prints the header line with its cookie, which therefore comes in front of
 * the answer's own head. The session that the request came with ends, and this one takes its place.
 */
void begin_session(const char *user);

/** As begin_session(), for the user of the request's session: whoever knows its number is out. */
void renew_session(void);

/** Ends the request's session, if there is one, and prints the header line that takes its cookie
 * away. */
void end_session(void);

/** Ends the sessions that the user of this one has elsewhere. */
void end_other_sessions(void);

/**
 * Tells whether a path leads to a page of this site: only to such a one does a login lead on. It
 * consists of characters that neither end a header line nor need escaping.
 */
int is_local_path(const char *path);

#endif
