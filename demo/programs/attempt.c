/* SPDX-License-Identifier: MIT */
#define _GNU_SOURCE
#include "attempt.h"
#include "site.h"
#include "trap.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

/* The record of wrong passwords is in a file. Locks on bytes of the file represent the places of
 * waiting programs and the turn. They are released when the program ends for any reason. */

enum { places = 4, turn = places, longest_delay = 8000, forgotten_after = 15 * 60 * 1000 };

typedef struct attempts {
    int failures;    /* in a row */
    long long until; /* when the next password may be checked, in milliseconds */
} attempts;

static long long now(void) {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1000LL + time.tv_nsec / 1000000;
}

static void sleep_until(long long then) {
    const struct timespec time = {(time_t)(then / 1000), (long)(then % 1000) * 1000000};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, NULL) == EINTR)
        continue;
}

static int lock_byte(int file, int operation, off_t byte) {
    struct flock lock = {.l_type = F_WRLCK, .l_whence = SEEK_SET, .l_start = byte, .l_len = 1};
    int result;
    do
        result = fcntl(file, operation, &lock);
    while (result != 0 && errno == EINTR);
    return result == 0;
}

static int take_place(int file) {
    for (int place = 0; place < places; place++)
        if (lock_byte(file, F_OFD_SETLK, place))
            return 1;
    return 0;
}

static attempts load_attempts(int file) {
    attempts known = {0, 0};
    char text[64] = "";
    if (pread(file, text, sizeof text - 1, 0) > 0)
        sscanf(text, "%d %lld", &known.failures, &known.until);
    if (now() - known.until > forgotten_after)
        known.failures = 0;
    if (known.until > now() + longest_delay) /* not a time that this program writes */
        known.until = now() + longest_delay;
    return known;
}

/* The record has a fixed length, so that one write replaces it. */
static void save_attempts(int file, const attempts *known) {
    char text[64];
    const int length = snprintf(text, sizeof text, "%11d %20lld\n", known->failures, known->until);
    if (pwrite(file, text, (size_t)length, 0) != length)
        refuse("503 Service Unavailable", "The attempt could not be recorded.");
}

static long long delay_after(int failures) {
    return failures < 4 ? 1000LL << (failures - 1) : longest_delay;
}

/* A form can contain any user name. A truncated name could be that of another user. */
static int is_right(const char *user, const char *password) {
    return user && password && strlen(user) <= longest_value && strlen(password) <= longest_value &&
           !text_complaint(user) && login_auth(user, password) == CORVEL_LOGIN_ACCEPTED;
}

/*
 * An attempt counts as a failure until the password has proved right: closing the connection, which
 * ends this program, does not avoid the delay. The response to a wrong password is sent at a fixed
 * time after the start of the check, so that it does not reveal which users exist.
 *
 * The program keeps the turn until it ends. By then a login has its session, and a change of
 * password is complete.
 */
verdict check_password(const char *user, const char *password, const char *refusal) {
    const int file = open("/run/login", O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (file < 0)
        refuse("503 Service Unavailable", "The attempt could not be recorded.");
    if (!take_place(file))
        return too_many_attempts;
    lock_byte(file, F_OFD_SETLKW, turn);
    attempts known = load_attempts(file);
    sleep_until(known.until);

    known.failures++;
    known.until = now() + delay_after(known.failures);
    save_attempts(file, &known);
    if (is_right(user, password)) {
        save_attempts(file, &(attempts){0, 0});
        return password_right;
    }
    if (refusal)
        send_trap(refusal);
    sleep_until(known.until);
    return password_wrong;
}
