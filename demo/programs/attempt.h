/* SPDX-License-Identifier: MIT */
/**
 * @file attempt.h
 * @brief Password checks with a delay against guessing.
 */
#ifndef ATTEMPT_H
#define ATTEMPT_H

typedef enum verdict { password_right, password_wrong, too_many_attempts } verdict;

/**
 * Checks a password. Each further wrong password in a row increases the delay before the response
 * and before the next check, regardless of the client. Only a few programs may wait at once;
 * further ones return too_many_attempts immediately.
 *
 * From the check until this program ends, no other program checks a password.
 *
 * @param user     the name as received. May be null.
 * @param password the password as received. May be null.
 * @param refusal  text of the trap that reports a wrong password, before the delay; null for none.
 */
verdict check_password(const char *user, const char *password, const char *refusal);

#endif
