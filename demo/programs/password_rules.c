/* SPDX-License-Identifier: MIT */
#define _GNU_SOURCE
#include "password_rules.h"

#include <corvel_page.h>
#include <ctype.h>
#include <shadow.h>
#include <stdio.h>
#include <string.h>

bool has_factory_password(const char *user) {
    FILE *file = fopen("/etc/factory/accounts/etc/shadow", "re");
    const struct spwd *entry = NULL;
    char hash[256] = "";
    if (!file)
        return false;
    do
        entry = fgetspent(file);
    while (entry && strcmp(entry->sp_namp, user) != 0);
    if (entry)
        snprintf(hash, sizeof hash, "%s", entry->sp_pwdp);
    fclose(file);
    entry = *hash ? getspnam(user) : NULL;
    return entry && strcmp(entry->sp_pwdp, hash) == 0;
}

/* The list. */

/* The length without digits and punctuation at the end. */
static size_t length_of_word(const char *password) {
    size_t length = strlen(password);
    while (length > 0 && (isdigit((unsigned char)password[length - 1]) ||
                          ispunct((unsigned char)password[length - 1])))
        length--;
    return length;
}

static bool is_common(const char *password) {
    const size_t length = length_of_word(password);
    FILE *file = fopen("/etc/weak-passwords", "re");
    char line[longest_password + 2];
    bool is_found = false;
    if (!file)
        return false;
    while (!is_found && fgets(line, sizeof line, file)) {
        line[strcspn(line, "\n")] = '\0';
        is_found = *line && (strcasecmp(line, password) == 0 ||
                             (strlen(line) == length && strncasecmp(line, password, length) == 0));
    }
    fclose(file);
    return is_found;
}

/* Names. */

enum { shortest_name = 3 };

/* Whether the password without a name that it contains is too short for a password. */
static bool is_built_on(const char *password, const char *name) {
    return name && strlen(name) >= shortest_name && strcasestr(password, name) &&
           strlen(password) - strlen(name) < shortest_password;
}

static bool is_built_on_setting(const char *password, const char *path, const char *setting) {
    corvel_settings *loaded = corvel_settings_load(path, ' ', NULL);
    const char *name = corvel_setting(loaded, setting);
    char word[longest_password + 1];
    bool is_built = is_built_on(password, name);
    /* A model has several words. */
    while (name && !is_built && *name) {
        const size_t length = strcspn(name, " ");
        snprintf(word, sizeof word, "%.*s", (int)(length < sizeof word ? length : 0), name);
        is_built = is_built_on(password, word);
        name += length + strspn(name + length, " ");
    }
    corvel_settings_free(loaded);
    return is_built;
}

/* Repeated and sequential characters, such as "aaaa1111" and "abcd4321". */

/* The number of characters that neither repeat nor continue what precedes them. */
static unsigned count_new_characters(const char *password) {
    unsigned count = 0;
    for (size_t i = 0; password[i]; i++) {
        const int step = i > 0 ? password[i] - password[i - 1] : 0;
        count += i == 0 || step < -1 || step > 1;
    }
    return count;
}

static unsigned count_different_characters(const char *password) {
    unsigned count = 0;
    for (size_t i = 0; password[i]; i++)
        count += strchr(password, password[i]) == password + i;
    return count;
}

const char *weak_password_complaint(const char *password, const char *user) {
    enum { fewest = 4 };
    if (count_new_characters(password) < fewest || count_different_characters(password) < fewest)
        return "Do not use only repeated or sequential characters.";
    if (is_common(password))
        return "This is one of the passwords that are tried first.";
    if (is_built_on(password, user) ||
        is_built_on_setting(password, "/etc/factory.conf", "MODEL") ||
        is_built_on_setting(password, "/etc/config/global.conf", "HOST_NAME"))
        return "Do not build it on the name of the router or of the user.";
    return NULL;
}
