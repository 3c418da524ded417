/* SPDX-License-Identifier: MIT */
/**
 * @file site.h
 * @brief What the pages of the administration site share.
 *
 * Every page is a CGI program of its own that answers three kinds of requests: a GET with the
 * filled template, a GET with `?Ajax=1` with JSON, and a POST by doing what the form asks. Here is
 * what they have in common: which requests are taken at all, the settings files and the lock on
 * them, the frame around a page, and the escaping of values for a page and for JSON.
 */
#ifndef SITE_H
#define SITE_H

#include <corvel.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    /** Bytes of a value as get_prop() gives it back, terminator included. */
    value_size = 256,
    /**
     * The longest value that a form may send, in bytes. The request decoder cuts a word at 255
     * characters before it decodes it, three for each byte at worst: what it has cut still decodes
     * to 85 bytes or more, so that a value within this limit has never been cut.
     */
    longest_value = 80,
    /** The longest form that is read. */
    longest_body = 65536,
    /** The longest upload that the library takes. */
    longest_upload = 16 * 1024 * 1024,
    /** Bytes of a time span as text, terminator included. */
    duration_size = 40
};

/** A property file of the device, and what separates its names from its values. */
typedef struct settings_file {
    const char *path;
    signed char separator;
} settings_file;

extern const settings_file lan_file;      /**< LAN and DHCP server, NAME="value". */
extern const settings_file wireless_file; /**< The wireless network, NAME="value". */
extern const settings_file global_file;   /**< What belongs to no one part, NAME "value". */
extern const settings_file factory_file;  /**< What the factory wrote, setenv NAME value. */
extern const settings_file applied_file;  /**< What the configuration client applied, NAME value. */

/** A property table and the number of its rows in use. */
typedef struct prop_table {
    prop_entry *rows;
    int count;
} prop_table;

/**
 * Ends the program with an answer of its own unless a page can take the request: from somebody who
 * is logged in, a GET or HEAD, or a POST of a form of bearable size that a page of this very site
 * has sent. A GET with `?Ajax=1` is a page's own refreshing: it does not keep the session alive.
 *
 * @return 1 for a POST, 0 for a GET.
 */
int accept_request(void);

/** As accept_request(), also for somebody who is not logged in. */
int accept_stranger(void);

/**
 * Ends the program with an answer of its own unless the request is an upload, of bearable size,
 * that a page of this very site has sent for somebody who is logged in.
 */
void accept_upload(void);

/** Ends the program with a page that says why a request is not carried out. */
void refuse(const char *status, const char *reason) __attribute__((__noreturn__));

/** Decodes the request: the pairs of a POST, or those of a GET's query. */
prop_table read_request(void);

/**
 * Looks a form's field up. Unlike get_prop(), which is for what stands in files, it leaves the
 * quotes that somebody has typed where they are.
 *
 * @return the field's value, as long as the request's table lives; null if there is no such field.
 */
const char *find_field(const char *name, const prop_table *request);

/** Loads a settings file, however many lines it has. */
prop_table load_settings(const settings_file *file);

/** Makes an empty table with room for @p capacity rows. */
prop_table new_table(size_t capacity);

/** Frees a table and the texts in it. */
void free_table(prop_table *table);

/** As free_table(), for a request that holds a password: wipes its values first. */
void wipe_table(prop_table *table);

/**
 * Locks all settings, for reading (LOCK_SH) or for changing (LOCK_EX).
 *
 * The library locks each file while it is rewritten. This lock is wider: it keeps together what one
 * request reads or changes in several files, and a reader never meets the moment between a file's
 * removal and the renaming of its copy.
 *
 * A program that changes something is not ended by the web server, see finish_what_is_begun().
 *
 * @return the lock, for unlock_settings().
 */
int lock_settings(int operation);

/**
 * From here on the program does not end because the browser has gone away, of which the web server
 * tells it with a signal: what is begun is finished.
 */
void finish_what_is_begun(void);

/** Releases the lock that lock_settings() took. */
void unlock_settings(int lock);

/**
 * Looks a setting up and undoes the escaping that it is stored with.
 *
 * @param value receives the value; empty if there is no such setting.
 * @return @p value.
 */
char *get_setting(const char *name, char value[value_size], const prop_table *settings);

/**
 * Saves one setting of the global file, of which @p settings are the present lines.
 */
void save_global(const char *name, const char *value, const prop_table *settings);

/**
 * Tells whether a form's value may go into a file and onto a page. It has to be
 *  - well-formed UTF-8 without control characters, so that it ends neither a line nor a JSON text;
 *  - no longer than longest_value;
 *  - without "setenv ", behind which load_prop() begins to read a line, wherever in it that stands.
 *
 * @return null if it is so, otherwise what to tell the user.
 */
const char *text_complaint(const char *value);

/** Copies a text escaped for HTML text and quoted attributes; what does not fit is left out. */
void escape_html(const char *text, char *copy, size_t size);

/** Adds a field to a template's list, escaped for HTML text and quoted attributes. */
void add_html(str_node **fields, const char *name, const char *value);

/** Adds a field to a list that is printed as JSON, escaped for it. */
void add_json(str_node **fields, const char *name, const char *value);

/** Adds a row to a table that is printed as JSON, escaped for it; @p table must have room. */
void insert_json(prop_table *table, const char *name, const char *value);

/**
 * Prints the answer's head and a whole page: a template in the site's frame.
 *
 * @param status   the HTTP status, such as "200 OK".
 * @param page     the page's name, which is also its template's and its entry's in the navigation.
 * @param title    the page's title.
 * @param fields   the fields of the template; freed.
 */
void print_page(const char *status, const char *page, const char *title, str_node **fields);

/**
 * As print_page(), for a page of which a part changes: the part's template comes behind the page's
 * own, and both are filled with the same fields.
 *
 * @param head a line for the document's head, or an empty text.
 */
void print_page_part(const char *status, const char *page, const char *part, const char *head,
                     const char *title, str_node **fields);

/**
 * Prints the answer's head and the frame up to where a page's own content begins: for a page of
 * which a part stands there as often as there are rows.
 *
 * @param page the page's entry in the navigation.
 * @param head a line for the document's head, or an empty text.
 */
void print_page_start(const char *status, const char *page, const char *head, const char *title);

/** Fills a template and prints it. What no marker has used is left in the list. */
void print_template(const char *name, str_node **fields);

/** Prints the frame's end. */
void print_page_end(void);

/** Prints the head of a JSON answer. */
void print_json_head(void);

/**
 * Prints one object of a JSON section that has any number of them. The section begins with
 * printjson_hdr0() and ends with print_json_objects_end().
 *
 * @param number the object's number, from 0.
 * @param fields its pairs; freed.
 */
void print_json_object(int number, str_node **fields);
void print_json_objects_end(void);

/** Prints the answer that sends the browser to a path of this site with a GET. */
void print_redirect(const char *path);

/** Adds a field to a list; add_html() and add_json() are such. */
typedef void add_field(str_node **fields, const char *name, const char *value);

/** Writes a time span as hours, minutes and seconds, behind the days if there are any. */
char *format_duration(long seconds, char text[duration_size]);

/**
 * Keeps from standard output, which is the answer, what the library prints there.
 *
 * @return what to give to unmute_output().
 */
int mute_output(void);
void unmute_output(int output);

#ifdef __cplusplus
}
#endif

#endif
