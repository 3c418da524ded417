/* SPDX-License-Identifier: MIT */
/**
 * @file password_rules.h
 * @brief Which passwords the site refuses.
 */
#ifndef PASSWORD_RULES_H
#define PASSWORD_RULES_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

/** The length of a password, in bytes. */
enum { shortest_password = 8, longest_password = 63 };

/** Whether the user's password is the factory's: its hash is the one in
 * /etc/factory/accounts/etc/shadow. */
bool has_factory_password(const char *user);

/**
 * Checks whether a password is easy to guess: a common one, little more than a name of the device
 * or of the user, or repeated or sequential characters.
 *
 * @param[in] password at most longest_password bytes.
 * @param[in] user     null if the password belongs to no user.
 * @return a message for the user, or null if the password is accepted.
 */
const char *weak_password_complaint(const char *password, const char *user);

#ifdef __cplusplus
}
#endif

#endif
