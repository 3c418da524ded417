/* SPDX-License-Identifier: MIT */
/**
 * @file site.h
 * @brief Functions shared by the pages of the administration site.
 *
 * Every page is a separate CGI program that responds to three kinds of requests: to a GET with the
 * filled template, to a GET with `?Ajax=1` with JSON, and to a POST by performing the form's
 * action. The functions here accept or refuse requests, load, save and lock the settings files,
 * print the frame of a page, and escape values for HTML and JSON.
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
    /** Bytes of a value that get_prop() returns, including the terminating NUL. */
    value_size = CORVEL_GET_PROP_SIZE,
    /** The longest value that is stored, in bytes. */
    longest_value = 80,
    /** The largest form that is accepted, in bytes. */
    longest_body = 65536,
    /** The largest upload that is accepted, in bytes. */
    longest_upload = CORVEL_UPLOAD_MAX
};

/** A property file of the device, and the separator between its names and values. */
typedef struct settings_file {
    const char *path;
    signed char separator;
} settings_file;

extern const settings_file lan_file;      /**< LAN and DHCP server, NAME="value". */
extern const settings_file wireless_file; /**< The wireless network, NAME="value". */
extern const settings_file global_file;   /**< Settings of the whole device, NAME "value". */
extern const settings_file factory_file;  /**< Values set in the factory, setenv NAME value. */
extern const settings_file applied_file;  /**< Written by the configuration client, NAME value. */

/** A property table and the number of its rows in use. */
typedef struct prop_table {
    prop_entry *rows;
    int count;
} prop_table;

/**
 * Accepts a request from a user who is logged in: a GET, a HEAD, or a POST of a form of at most
 * longest_body bytes that was sent by a page of this site and has the token of the session.
 * Responds to any other request and ends the program. A GET with `?Ajax=1` is a page's automatic
 * refresh: it does not extend the session.
 *
 * @return 1 for a POST, 0 for a GET.
 */
int accept_request(void);

/** As accept_request(), but accepts users who are not logged in. */
int accept_stranger(void);

/**
 * Accepts an upload that was sent by a page of this site for a user who is logged in, and that has
 * the token of the session in its query. Responds to any other request and ends the program.
 * corvel_upload_read() reads the body.
 */
void accept_upload(void);

/** Returns the request. */
corvel_request *own_request(void);

/** Returns the session of the request; null if it has none. */
corvel_session *own_session(void);

/** Sends an answer that consists of a redirection, and of the cookies that it already has. */
void redirect(corvel_answer *answer, const char *path);

/** Prints the header line for a client that has to wait before it tries another password. */
void print_retry_after(unsigned seconds);

/** Prints a page that gives the reason why the request was refused, and ends the program. */
void refuse(const char *status, const char *reason) __attribute__((__noreturn__));

/** As refuse(), for a status of the page kit. */
void refuse_status(int status, const char *reason) __attribute__((__noreturn__));

/** Returns a field of the form, or of a GET's query; null if there is no such field. */
const char *find_field(const char *name);

/** Loads a settings file with any number of lines. */
prop_table load_settings(const settings_file *file);

/** Returns an empty table with room for @p capacity rows. */
prop_table new_table(size_t capacity);

/** Frees a table and the strings in it. */
void free_table(prop_table *table);

/**
 * Locks all settings, for reading (LOCK_SH) or for changing (LOCK_EX).
 *
 * The library locks each file only while it rewrites it. This lock makes the reads or changes of
 * one request in several files atomic, and a reader never runs between the removal of a file and
 * the renaming of its copy.
 *
 * With LOCK_EX it also calls ignore_disconnection().
 *
 * @return the lock to pass to unlock_settings().
 */
int lock_settings(int operation);

/**
 * Ignores the signals that the web server sends when the browser closes the connection, so that the
 * program completes its work.
 */
void ignore_disconnection(void);

/** Releases the lock acquired by lock_settings(). */
void unlock_settings(int lock);

/**
 * Finds a setting and removes the escaping of the stored value.
 *
 * @param value receives the value; empty if there is no such setting.
 * @return @p value.
 */
char *get_setting(const char *name, char value[value_size], const prop_table *settings);

/**
 * Saves one setting of the global file. @p settings contains the file's current lines.
 */
void save_global(const char *name, const char *value, const prop_table *settings);

/**
 * Checks whether a form's value may be stored in a file and shown on a page. It must
 *  - be well-formed UTF-8 without control characters, so that it ends neither a line nor a JSON
 *    string;
 *  - have at most longest_value bytes;
 *  - not contain "setenv ", since load_prop() ignores everything up to the end of that string in a
 *    line.
 *
 * @return null if the value is valid, otherwise a message for the user.
 */
const char *text_complaint(const char *value);

/** Escapes a string for HTML text and quoted attributes. Truncates it to @p size bytes. */
void escape_html(const char *text, char *copy, size_t size);

/** Adds a field to a template's list. Escapes its value for HTML text and quoted attributes. */
void add_html(str_node **fields, const char *name, const char *value);

/** Adds a field to a list that is printed as JSON. Escapes its value for JSON. */
void add_json(str_node **fields, const char *name, const char *value);

/** Adds a row to a table that is printed as JSON. Escapes its value for JSON. @p table must have
 * room for the row. */
void insert_json(prop_table *table, const char *name, const char *value);

/**
 * Prints the response's header and a complete page: a template in the site's frame.
 *
 * @param status   the HTTP status, such as "200 OK".
 * @param page     the name of the page, of its template and of its entry in the navigation.
 * @param title    the page's title.
 * @param fields   the fields of the template; freed.
 */
void print_page(const char *status, const char *page, const char *title, str_node **fields);

/**
 * As print_page(), for a page with a part that varies: the part's template follows the page's
 * template, and both are filled with the same fields.
 *
 * @param head a line for the document's head, or an empty string.
 */
void print_page_part(const char *status, const char *page, const char *part, const char *head,
                     const char *title, str_node **fields);

/**
 * Prints the response's header and the frame up to the page's content, for a page that prints a
 * template for each of its rows.
 *
 * @param page the name of the page's entry in the navigation.
 * @param head a line for the document's head, or an empty string.
 */
void print_page_start(const char *status, const char *page, const char *head, const char *title);

/** Fills a template and prints it. Fields that no marker uses remain in the list. */
void print_template(const char *name, str_node **fields);

/** Prints the end of the frame. */
void print_page_end(void);

/** Prints the header of a JSON response. */
void print_json_head(void);

/**
 * Prints one object of a JSON section with any number of objects. The section starts with
 * printjson_hdr0() and ends with print_json_objects_end().
 *
 * @param number the object's number, from 0.
 * @param fields the object's pairs; freed.
 */
void print_json_object(int number, str_node **fields);
void print_json_objects_end(void);

/** Prints a response that redirects the browser to a path of this site with a GET. */
void print_redirect(const char *path);

/** A function that adds a field to a list: add_html() or add_json(). */
typedef void add_field(str_node **fields, const char *name, const char *value);

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
