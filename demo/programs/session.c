/* SPDX-License-Identifier: MIT */
#define _GNU_SOURCE
#include "session.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

enum {
    id_bytes = 32,
    id_length = 2 * id_bytes,
    user_size = longest_value + 1,
    most_sessions = 16,
    idle_seconds = 15 * 60
};

static const char hex_digits[] = "0123456789abcdef";

/* A session as read from its file. */
typedef struct session {
    char id[id_length + 1]; /* empty if there is no such session */
    char user[user_size];
    struct timespec used;
} session;

/* The files. All names are relative to the directory, and only names that are ids are used. */

static int open_directory(void) {
    return open("/run/sessions", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

/* Only one program at a time creates files or removes those of other sessions. */
static int lock_directory(void) {
    const int directory = open_directory();
    flock(directory, LOCK_EX);
    return directory;
}

static int is_id(const char *text) {
    return strlen(text) == id_length && strspn(text, hex_digits) == id_length;
}

/* If the time of the last use is in the future, the clock has been set back: the session ends. */
static int is_alive(const struct stat *status) {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return status->st_mtime <= now.tv_sec && now.tv_sec - status->st_mtime <= idle_seconds;
}

/* The file consists of one line, the name of a user who must still exist. */
static int read_user(int file, char user[user_size]) {
    char line[user_size + 1] = "";
    const ssize_t length = full_read(file, line, user_size);
    const size_t name_length = strcspn(line, "\n");
    if (line[name_length] != '\n' || length != (ssize_t)name_length + 1)
        return 0;
    line[name_length] = '\0';
    safe_strncpy(user, line, user_size);
    return getpwnam(user) != NULL;
}

/* Reads a session. Removes its file if it has expired or is invalid. */
static session read_session(int directory, const char *id) {
    session found = {.id = ""};
    struct stat status;
    const int file = is_id(id) ? openat(directory, id, O_RDONLY | O_NOFOLLOW | O_CLOEXEC) : -1;
    if (file < 0)
        return found;
    if (fstat(file, &status) == 0 && S_ISREG(status.st_mode) && is_alive(&status) &&
        read_user(file, found.user)) {
        memcpy(found.id, id, sizeof found.id);
        found.used = status.st_mtim;
    } else {
        unlinkat(directory, id, 0);
    }
    close(file);
    return found;
}

/* Calls a function for each session. */
static void visit_sessions(int directory, void (*visit)(int directory, const session *each)) {
    DIR *files = fdopendir(dup(directory));
    if (!files)
        return;
    rewinddir(files);
    for (const struct dirent *file = readdir(files); file; file = readdir(files)) {
        const session each = read_session(directory, file->d_name);
        if (*each.id)
            visit(directory, &each);
    }
    closedir(files);
}

/* The session of the request. */

/* Reads the id from a cookie, NAME=VALUE; empty if it is not a session cookie. */
static void read_cookie(const char *cookie, char id[id_length + 1]) {
    static const char name[] = "session=";
    const size_t name_length = strlen(name);
    *id = '\0';
    if (strncmp(cookie, name, name_length) == 0 && strcspn(cookie + name_length, ";") == id_length)
        snprintf(id, id_length + 1, "%s", cookie + name_length);
}

/*
 * Other servers on the same address can set cookies of this name, too, and make the browser send
 * them first. They are skipped: the first cookie that names an existing session is used.
 */
static session find_own(void) {
    session found = {.id = ""};
    const char *at = getenv("HTTP_COOKIE");
    const int directory = open_directory();
    for (at = at ? at : ""; *at && !*found.id; at += strcspn(at, ";")) {
        char id[id_length + 1];
        at += strspn(at, "; ");
        read_cookie(at, id);
        found = read_session(directory, id);
    }
    close(directory);
    return found;
}

static session *own_session(void) {
    static session own;
    static int is_known;
    if (!is_known)
        own = find_own();
    is_known = 1;
    return &own;
}

const char *session_user(void) { return *own_session()->id ? own_session()->user : NULL; }

void extend_session(void) {
    const int directory = open_directory();
    utimensat(directory, own_session()->id, NULL, AT_SYMLINK_NOFOLLOW);
    close(directory);
}

static void remove_own(int directory) {
    if (*own_session()->id)
        unlinkat(directory, own_session()->id, 0);
    *own_session()->id = '\0';
}

void end_session(void) {
    const int directory = open_directory();
    remove_own(directory);
    close(directory);
    printf("Set-Cookie: session=; Path=/; HttpOnly; SameSite=Strict; Max-Age=0\r\n");
}

static void remove_other(int directory, const session *each) {
    if (STRCMP(each->user, own_session()->user) == 0 && STRCMP(each->id, own_session()->id) != 0)
        unlinkat(directory, each->id, 0);
}

void end_other_sessions(void) {
    const int directory = lock_directory();
    visit_sessions(directory, remove_other);
    close(directory);
}

/* A new session. */

static session oldest;
static int session_count;

static int is_earlier(struct timespec one, struct timespec other) {
    return one.tv_sec != other.tv_sec ? one.tv_sec < other.tv_sec : one.tv_nsec < other.tv_nsec;
}

static void count_session(int directory, const session *each) {
    (void)directory;
    if (session_count++ == 0 || is_earlier(each->used, oldest.used))
        oldest = *each;
}

/* Repeated logins do not exhaust memory: the least recently used sessions are removed. */
static void make_room(int directory) {
    for (;;) {
        session_count = 0;
        visit_sessions(directory, count_session);
        if (session_count < most_sessions || unlinkat(directory, oldest.id, 0) != 0)
            return;
    }
}

static int make_id(char id[id_length + 1]) {
    unsigned char bytes[id_bytes];
    if (getrandom(bytes, sizeof bytes, 0) != sizeof bytes)
        return 0;
    for (size_t i = 0; i < sizeof bytes; i++)
        snprintf(id + 2 * i, 3, "%02x", bytes[i]);
    return 1;
}

static int write_session(int directory, const char *id, const char *user) {
    const int file =
        openat(directory, id, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (file < 0)
        return 0;
    const int whole = dprintf(file, "%s\n", user) == (int)strlen(user) + 1;
    if (!whole)
        unlinkat(directory, id, 0);
    close(file);
    return whole;
}

void begin_session(const char *user) {
    char id[id_length + 1];
    const int directory = lock_directory();
    remove_own(directory);
    make_room(directory);
    if (!make_id(id) || !write_session(directory, id, user))
        refuse("503 Service Unavailable", "The session could not be started.");
    close(directory);
    memcpy(own_session()->id, id, sizeof id);
    safe_strncpy(own_session()->user, user, user_size);
    printf("Set-Cookie: session=%s; Path=/; HttpOnly; SameSite=Strict\r\n", id);
}

void renew_session(void) {
    const session former = *own_session();
    begin_session(former.user);
}

int is_local_path(const char *path) {
    static const char pages[] = "/cgi-bin/";
    static const char allowed[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                  "0123456789/-_.?&=";
    return strncmp(path, pages, strlen(pages)) == 0 && strlen(path) <= longest_value &&
           strspn(path, allowed) == strlen(path);
}
