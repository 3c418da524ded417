/* SPDX-License-Identifier: MIT */
/**
 * @file attempt.h
 * @brief The checking of passwords.
 */
#ifndef ATTEMPT_H
#define ATTEMPT_H

typedef enum verdict { password_right, password_wrong, too_many_attempts } verdict;

/**
 * Checks a password, and slows down who guesses: behind each wrong one in a row it takes longer
 * until the answer comes and until the next one is looked at, whoever sends it. Few may wait at
 * once; nobody waits behind them.
 *
 * From a password that was looked at until the program ends, no other program looks at one.
 *
 * @param user     the name, as it was sent. May be null.
 * @param password the password, as it was sent. May be null.
 * @param refusal  the trap that tells of a wrong one, also where nobody waits for the answer; null
 *                 for none.
 */
verdict check_password(const char *user, const char *password, const char *refusal);

#endif
