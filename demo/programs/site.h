/* SPDX-License-Identifier: MIT */
/**
 * @file site.h
 * @brief Functions shared by the pages of the administration site.
 *
 * Every page is a separate CGI program, which describes itself by a site_page and calls serve(). It
 * responds to three kinds of requests: to a GET with its filled template, to a GET with `?Ajax=1`
 * with a JSON document of the same values, and to a POST by performing the form's action.
 */
#ifndef SITE_H
#define SITE_H

#include <corvel.h>
#include <corvel_page.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    /** Bytes of a line for the user, including the terminating NUL. */
    line_size = 256,
    /** The largest form that is accepted, in bytes. */
    longest_body = 65536
};

/** A request and the answer to it. */
struct page {
    corvel_request *request;
    corvel_session *session; /**< Null if the user is not logged in. */
    bool is_first_step;      /**< The user still has the factory's password. */
    corvel_answer *answer;
    corvel_data *data; /**< The values of the page's template. */
    bool is_json;      /**< The answer is the JSON document. */
    const char *list;  /**< The list that open_list() has begun. */
    corvel_data *row;  /**< Its open row; null if there is none. */
};

/** What a page's program does. A function that is null makes its method an unsupported one. */
typedef struct site_page {
    const char *name;               /**< The page's entry in the navigation. */
    void (*get)(struct page *page); /**< Answers a GET. */
    /** Answers a POST, whose form or query contains the token of the session. */
    void (*post)(struct page *page);
    bool is_public; /**< Answers users who are not logged in, too. There is no token then. */
    bool is_upload; /**< A POST is an upload, with its token in the query. */
    /** Answers users who still have the factory's password, too. All other pages lead them to the
     * password page. */
    bool is_first_step;
} site_page;

/**
 * Answers the request. The page's functions are called only for requests of users who are logged in
 * and for forms of at most longest_body bytes that a page of this site has sent. Users who still
 * have the factory's password are led to the page where they choose their own first. An automatic
 * refresh, a GET with `?Ajax=1`, does not extend the session.
 *
 * @return the program's exit status.
 */
int serve(const site_page *site);

/**
 * Adds a value to the open row, or else to the page, of the template or of the JSON document.
 * Values are escaped when they are printed.
 */
void put(struct page *page, const char *name, const char *value);

/** Begins an object of the JSON document. The template finds its values among those of the page. */
void open_object(struct page *page, const char *name);

/** Begins a list. The template has a section of this name, which is repeated for each row. */
void open_list(struct page *page, const char *name);

/** Begins a row of the list. */
void open_row(struct page *page);

/** Ends the object, list or row that was begun last. */
void close_part(struct page *page);

/** Adds a number as put() does. */
void put_number(struct page *page, const char *name, long long number);

/** Completes the answer with a template, or with the JSON document. */
void show(struct page *page, const char *template_name);

/** Kinds of events, by which the log can be filtered. */
typedef enum event_kind {
    LOGIN_EVENT,    /**< Logins, refused ones, and logouts. */
    PASSWORD_EVENT, /**< Changes of passwords, and refused ones. */
    SETTINGS_EVENT, /**< Changed settings. */
    FIRMWARE_EVENT, /**< Uploads and upgrades. */
    SYSTEM_EVENT    /**< Starts and restarts, and what else happens to the whole device. */
} event_kind;

/**
 * Records an event in the log: "Network saved (admin, 192.168.1.20)". The user and the address of
 * the client are appended; a text that is too long is truncated. Failures are ignored, since the
 * event has taken place. Never pass a secret, nor what a stranger has typed as a user name, which
 * may be a password.
 *
 * @param page   the request that has caused the event; null if there is none.
 * @param kind   the kind of the event.
 * @param format a format as for printf(): a sentence for the user, without a period.
 */
void log_event(const struct page *page, event_kind kind, const char *format, ...)
    CORVEL_PAGE_PRINTF_LIKE(3, 4);

/** Reads a file as a string of less than `size` bytes; an empty one if it cannot be read. */
void read_text(const char *path, char *text, size_t size);

/** Makes the answer one for a client that has to wait before it tries another password. */
void ask_to_wait(struct page *page, unsigned seconds);

/**
 * Ignores the signals that the web server sends when the browser closes the connection, so that the
 * program completes its work.
 */
void ignore_disconnection(void);

/**
 * Discards standard output, which is the response, while library functions print to it.
 *
 * @return a descriptor to pass to unmute_output().
 */
int mute_output(void);
void unmute_output(int output);

#ifdef __cplusplus
}
#endif

#endif
