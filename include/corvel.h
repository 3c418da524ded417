/* SPDX-License-Identifier: MIT */
/**
 * @file corvel.h
 * @brief libcorvel: what the web-management CGI programs of a small Linux router stand on.
 *
 * A web server starts one CGI program per request. The program decodes the request into a property
 * table, reads and rewrites the device's property files, and answers with a filled HTML template or
 * with JSON on standard output. Every function works synchronously and returns; nothing runs in the
 * background and there are no threads.
 *
 * Conventions that hold for every function, unless its own text says otherwise:
 *  - A "text" is a sequence of bytes ended by a NUL byte. A null pointer passed where a text is
 *    read counts as the empty text. Bytes above 127 have no special meaning.
 *  - Results are counts, 0/1 flags or small codes; a result pointer is null on failure.
 *  - A count or length below zero counts as zero.
 *  - A text that is longer than the field that keeps it is cut to fit and terminated. Output is
 *    never cut.
 *  - The caller owns every table (array and count) and every list. The library allocates a table's
 *    texts and a list's records with malloc() and releases them in free_prop(), free_list() and
 *    free_leaselist().
 *  - No function may be called from several threads at once.
 *  - Standard output is the response of a CGI program, and some functions print messages on it:
 *    init_env(), set_env_ptr(), set_env(), save_param(), get_rootid(), get_bootparam(),
 *    save_bootparam(), parse_firmware(), getDisposition_file(), process_file(), getDefaultRoute(),
 *    getDefGw() and open_socket_for_trap(). Flush it, redirect its descriptor to /dev/null, call
 *    the function, flush it again and restore the descriptor.
 *  - Only xmalloc(), xrealloc(), find_pid_by_name(), app_isrun(), is_runing(), get_leases(),
 *    my_getug() and my_getpwuid() can end the process: see there. Any other function that runs out
 *    of memory reports a failure or a shorter result.
 */
#ifndef CORVEL_H
#define CORVEL_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>

/** The first number of the version; it changes with the binary interface. */
#define CORVEL_VERSION_MAJOR 1
/** The second number of the version; it changes when something is added to the interface. */
#define CORVEL_VERSION_MINOR 0
/** The third number of the version; it changes with any other release. */
#define CORVEL_VERSION_PATCH 0

#if defined(__GNUC__)
/** Marks what the shared library exports; everything else in it is hidden. */
#define CORVEL_API __attribute__((__visibility__("default")))
/** Has the compiler check a printf-like call: position of the format and of its first value. */
#define CORVEL_PRINTF_LIKE(text, first) __attribute__((__format__(__printf__, text, first)))
/** Tells the compiler that a function never returns. */
#define CORVEL_NORETURN __attribute__((__noreturn__))
#else
#define CORVEL_API
#define CORVEL_PRINTF_LIKE(text, first)
#define CORVEL_NORETURN
#endif

#ifdef __cplusplus
extern "C" {
#endif

/**
 * @defgroup records Records
 * @{
 */

/**
 * One row of a property table: a name and its value.
 *
 * A property table is an array of rows that the caller declares, together with an `int` count of
 * the rows in use that the caller keeps and passes to every call. The library never grows the
 * array and can't know its capacity: provide a row for every line of the file, every pair of the
 * request and every row still to be inserted.
 */
typedef struct prop_entry {
    uint32_t name_size;  /**< Bytes at `name`: the length of the name's text plus one. */
    uint32_t value_size; /**< Bytes at `value`: 257, and one more behind them that is always zero.
                              In a row of a request, whatever the caller put there. */
    char *name;          /**< The name; on the heap. */
    char *value;         /**< The value as it stands in the file, quotes included; on the heap. */
} prop_entry;

/**
 * One field of a field list: a name of at most 254 characters, a value of at most 4096.
 *
 * A list is held through a pointer to its first record; a null pointer is the empty list. Order is
 * insertion order, and names need not be unique. The name is the record's first byte, so a record's
 * own address may stand for its name.
 */
typedef struct str_node {
    char name[255];        /**< The field's name. */
    char value[4097];      /**< The field's value. */
    struct str_node *next; /**< The following record, or null. */
} str_node;

/** One file of an upload. The record holds its texts; only the content is on the heap. */
typedef struct prop_file {
    char filename[255];     /**< The file's name as the client sent it: never trust its path. */
    char content_type[255]; /**< The content type, with the blank that follows the colon. */
    char transfer_encoding[258]; /**< The transfer encoding, if one was sent. */
    char *data;                  /**< The content; released by free_prop_file(). */
    uint32_t size;               /**< The content's length in bytes. */
} prop_file;

/** What one section of an upgrade image asks to be written, and where. */
typedef struct img_info {
    char name[256];            /**< The staging file: "/tmp/firmware/", partition name, ".bin". */
    const unsigned char *data; /**< The bytes to write; they lie in the caller's image. */
    uint32_t burnAddr;         /**< The flash address, for the boot loader's partition; else 0. */
    uint32_t len;              /**< The number of bytes at `data`. */
    uint32_t mtd_ids;          /**< Index of the block device; 255: not to be written at all. */
    char mtdev[32];            /**< The block device: "/dev/mtdblock" and `mtd_ids`. */
    uint32_t base_mtd_id;      /**< The index before the shift to the idle set. */
} img_info;

/** A DHCP lease or a neighbour. Which spelling an address has depends on who filled the record. */
typedef struct lease_entry {
    int32_t reserved;         /**< Not used: 0. */
    char ip[128];             /**< The IP address. */
    char hwtype[8];           /**< A neighbour's hardware type in hexadecimal: "1" for Ethernet. */
    char mac[32];             /**< The hardware address. */
    char expires[16];         /**< A lease's seconds in decimal; empty for a neighbour. */
    char hostname[128];       /**< The host's name as the server knows it, or empty. */
    struct lease_entry *next; /**< The following record, or null. */
} lease_entry;

/** @} */

/**
 * @defgroup text Text primitives
 * Small routines that work on the caller's buffers and allocate nothing.
 * @{
 */

/**
 * Tells whether two texts differ.
 *
 * A test of equality only: the result is never negative and gives no order.
 *
 * @return 0 if the texts are identical, 1 otherwise.
 */
CORVEL_API unsigned int STRCMP(const char *a, const char *b);

/**
 * Removes at most one @p ch from each end of a text, in place.
 *
 * The two ends are tested independently, so an opening quote goes even where the closing one is
 * missing; `""a""` becomes `"a"`. A text that is just one @p ch becomes empty.
 *
 * @param str the text; its last character may be overwritten. May be null.
 * @param ch  the character, compared as a signed char.
 * @return the start of the stripped text: @p str or the character behind it. It points into
 *         @p str and must not be freed. Null only if @p str is null.
 */
CORVEL_API char *strip(char *str, signed char ch);

/**
 * Copies a text and puts a backslash in front of each `"`, `\`, `$` and backquote: the characters
 * that keep their meaning between the double quotes of a shell string, and no others.
 *
 * @param src the text; must not overlap @p dst.
 * @param dst receives the escaped text: up to twice the length of @p src plus one byte.
 * @return @p dst.
 */
CORVEL_API char *add_escape(const char *src, char *dst);

/** Another name for add_escape(): the same arguments, the same result. */
CORVEL_API char *str_regular(const char *src, char *dst);

/**
 * Undoes add_escape(): drops each backslash that stands before `"`, `\`, `$` or a backquote. A
 * backslash before any other character, or at the very end, is copied as it is.
 *
 * @param src the text.
 * @param dst receives the result: at most the length of @p src plus one byte. May be @p src itself.
 * @return @p dst.
 */
CORVEL_API char *strip_escape(const char *src, char *dst);

/**
 * Makes a text safe inside a double-quoted HTML attribute: each `"` becomes `&quot;`, in place. No
 * other character is translated.
 *
 * The result is built in 200 bytes, terminator included. Where it would be longer, it is cut in
 * front of the first character (or whole `&quot;`) that no longer fits. A text without a double
 * quote is left as it is, whatever its length.
 *
 * @param str the text, in a buffer that holds the result: up to 200 bytes if there is a double
 *            quote in it. May be null.
 * @return @p str.
 */
CORVEL_API char *translate_control_code(char *str);

/**
 * The switched-off debug print: takes the arguments of fprintf() and prints nothing.
 *
 * The library's listing routines call it; what they pass never reaches the output.
 */
CORVEL_API void DFPrintf(FILE *stream, const char *fmt, ...) CORVEL_PRINTF_LIKE(2, 3);

/** @} */

/**
 * @defgroup property_table Property table
 *
 * A property file is a text file of lines of at most 1023 characters, the line end included; a
 * longer line is taken in pieces of 1023 characters, each as a line of its own. The caller names
 * the separator of the whole file: `'='`, `' '`, or anything else for a tab. Of each line:
 *  - A line that begins with `#` is a comment; blanks in front of the `#` make it an ordinary line.
 *  - If the text "setenv " occurs anywhere, reading goes on behind its first occurrence.
 *  - The first separator splits the rest. A line without one yields no row.
 *  - The name is the first word in front of the separator, the value all that stands behind it:
 *    quotes, blanks and a carriage return included. A value is cut at 257 characters.
 *  - A last line that has no line end is not read, unless it is a whole piece of 1023 characters.
 *  - A NUL ends the line; the rest of it is passed over.
 *
 * A value that holds "setenv " therefore does not come back under its name, but as whatever stands
 * behind that text: a program that saves values from a request refuses such a value, and one with a
 * line end, which would be a line of its own.
 *
 * Names are compared byte by byte. Where a name stands in several rows, the first one counts.
 * @{
 */

/**
 * Loads a property file into a table.
 *
 * @param sep   the separator: `'='`, `' '`, anything else means tab.
 * @param path  the file.
 * @param table the caller's array, with room for every line of the file; filled from its first row.
 *              Its size is not known here: rows after its end would be written. A row takes at
 *              least 2 bytes of the file, so half the file's size in bytes is always enough.
 * @return the number of rows filled; 0 if the file can't be opened or is a folder. A row whose
 *         texts can't be allocated is left out.
 */
CORVEL_API int load_prop(signed char sep, const char *path, prop_entry *table);

/**
 * Reads one line of a property file into a row.
 *
 * @param sep  the separator, as in load_prop().
 * @param line the line without its line end. Cut at the separator: a NUL is written over it.
 * @param row  the row to fill; whatever it held is overwritten, not freed. `name_size` becomes the
 *             length of all that stands in front of the separator plus one, not just of the word
 *             that is the name.
 * @return 1 if the row was filled; 0 for a comment, a line without the separator, or an allocation
 *         failure, in which case the row is left as it was and nothing leaks.
 */
CORVEL_API int get_pr(signed char sep, char *line, prop_entry *row);

/**
 * Looks a value up and removes one double quote from each of its ends.
 *
 * @param name  the name.
 * @param dst   receives the value: 256 bytes. A value of 256 or more characters is cut to its first
 *              255 before the quotes are removed. Untouched if there is no such name.
 * @param table the rows.
 * @param count the number of rows.
 * @return @p dst, or null if no row has the name.
 */
CORVEL_API char *get_prop(const char *name, char *dst, const prop_entry *table, int count);

/**
 * Changes the value of the first row that has the name. Never adds a row.
 *
 * At most `value_size` - 1 characters are kept: 256. No more than `value_size` bytes of the value
 * are read. Not for rows of a request: see there.
 *
 * @return the index of the row, or @p count if no row has the name.
 */
CORVEL_API int set_prop(const char *name, const char *value, prop_entry *table, int count);

/**
 * Sets a value, adding a row at index @p count if no row has the name.
 *
 * An existing value is zeroed whole before it is written, and keeps 256 characters; a new row keeps
 * 257 characters. No more bytes of the value are read than the row's value holds. Not for rows of a
 * request: see there.
 *
 * @param table the rows, with room for one more.
 * @return the new count: @p count if the name was there or the row could not be allocated,
 *         @p count + 1 if a row was added.
 */
CORVEL_API int ins_prop(const char *name, const char *value, prop_entry *table, int count);

/**
 * Fills one row.
 *
 * @param name  the name.
 * @param value the value; cut at 257 characters, of which the last need not be followed by a NUL.
 * @param row   the row; whatever it held is overwritten, not freed.
 * @param count not used.
 * @return 1, or 0 on an allocation failure, in which case the row is left as it was.
 */
CORVEL_API int ins_pr(const char *name, const char *value, prop_entry *row, int count);

/**
 * Hands each row to DFPrintf(): prints nothing.
 *
 * @return 0.
 */
CORVEL_API int dump_prop(const prop_entry *table, int count);

/**
 * Frees the texts of every row and sets their pointers to null; the sizes stay. Calling it twice is
 * harmless.
 *
 * @return 1.
 */
CORVEL_API int free_prop(prop_entry *table, int count);

/** @} */

/**
 * @defgroup configuration_saving Configuration saving
 *
 * Both writers lock the companion file `path` + ".lck", write the whole new content into a copy,
 * `path` + ".cgi", remove `path` and rename the copy to `path`.
 *
 * **What is promised.** A process that dies leaves the old file whole or, if it has removed that
 * already, the copy whole. Writers that can open the lock file do not rewrite the file at the same
 * time. While there is no file at `path`, nothing but the lock file is touched, so that a copy that
 * may be the only one left stays. Each copy is a new file (mode 0600), which no other process has
 * open. A writer waits for the lock file as long as another process holds it, for half a second for
 * a lock file that it has no permission to open or a copy that is in use, and for nothing else.
 *
 * **Mode and owner.** The new file has the mode and, as far as the process may set them, the owner
 * and group of the old one. Without the owner, set-id bits are dropped. If the group cannot be
 * kept, its permissions are reduced to those of others.
 *
 * **Failures.** If `path` cannot be read or is no regular file, if the copy cannot be written whole
 * (a full disk) or if the mode cannot be set, the old file stays as it is and the copy is removed.
 * What is at the copy's name before, such as a copy that a killed process left, is removed first;
 * symbolic links there are not followed, and with a directory there nothing is saved. A path whose
 * companions' names do not fit their buffers (1024 bytes; 255 for the copy in save_global_conf())
 * leaves every file untouched.
 *
 * **The lock file** is created with mode 0600. One that root creates belongs to the owner of `path`
 * or, while there is only the copy, of the copy; one that root creates while there is neither stays
 * root's. It is emptied, unless it has a second name: keep nothing in it. It counts as one that
 * cannot be opened if it is a symbolic link or no regular file, or if its owner is none of the
 * effective user, root, the owner of `path` and the owner of the directory: these are trusted. Each
 * of them can hold its lock, and so make every writer wait. A lock file that is removed or replaced
 * 100 times while a writer waits for its lock counts as one that cannot be opened, too.
 *
 * **Without the lock file**, a writer proceeds, but saves nothing if another one is at work on the
 * copy, has replaced it, or if there is anything else but a regular file at the copy's name. A
 * writer with the lock file waits for half a second for one without it. Then it saves nothing or,
 * if the owner of the copy is not trusted, replaces the copy: if that owner's writer is alive, both
 * the file and the copy may be lost. A writer that looks for the file at the moment in which one
 * without the lock file has removed it saves nothing.
 *
 * **What is not promised.**
 *  - Threads: a lock belongs to the process, so two threads may not save the same file at once. No
 *    thread may open and close the lock file during a save; a second name of the lock file must be
 *    neither `path` nor the copy.
 *  - Readers take no lock: between the removal and the renaming there is no file at `path`.
 *  - A symbolic link at `path` is replaced by a file; the file that it led to stays as it was.
 *  - An access control list is not kept. If the old file has one, the group's permissions are
 *    reduced to those of others, since its mode shows the list's mask in their place.
 *  - Nothing is flushed to the device: after a power loss the file may be empty or missing. Call
 *    sync() where that matters.
 *
 * A copy without a file is all that a killed process left: with the writers stopped, rename it to
 * `path`. A copy beside a file is worth nothing; the next save removes it.
 *
 * Lines are read as described under Property table: a line of more than 1023 characters is taken in
 * pieces, a last line without a line end is dropped, and behind a NUL no key is looked for. A
 * line's key is the text in front of the first separator, or the whole line if it has none; a
 * prefix such as "setenv " belongs to the key.
 * @{
 */

/**
 * Rewrites the lines of a property file whose keys are names of table rows.
 *
 * Such a line becomes: name, separator, `"`, value, `"`. The value is written as it stands in the
 * table: neither escaped nor stripped. Where several rows have the name, the last one is written.
 * All other lines are copied; rows without a line are not added. Of each line read, the last
 * character is replaced by a line end, whatever it is: a piece of an over-long line loses its
 * 1023rd character. The value is neither checked for "setenv " nor for a line end.
 *
 * The lock file stays.
 *
 * @param sep   the separator, used as given.
 * @param path  the file; one that can't be read is left as it is, and none is created.
 * @param table the rows.
 * @param count the number of rows.
 * @return 1, whether or not anything was written.
 */
CORVEL_API int save_prop(signed char sep, const char *path, const prop_entry *table, int count);

/**
 * Sets one setting in a property file, adding a line if no line has the name as its key.
 *
 * A line that is replaced becomes: prefix, name, separator, `"`, value, `"`; a line that is added:
 * prefix, name, separator, value, without quotes. With a prefix that is not empty, a line that was
 * written before never matches, so each call adds one. The key of a line without the
 * separator includes the line end, so that no usual name matches it. A last line without a line end
 * is dropped even if it is the one for @p name, which then disappears.
 *
 * The lock file is removed at the end, unless another writer has taken it; one that was never
 * locked stays.
 *
 * @param sep    `'='`, `' '`, anything else means tab.
 * @param path   the file; one that can't be read is left as it is, and none is created.
 * @param prefix text written in front of the name; may be empty.
 * @param name   the name.
 * @param value  the value, written as it stands.
 * @return 1, whether or not anything was written.
 */
CORVEL_API int save_global_conf(signed char sep, const char *path, const char *prefix,
                                const char *name, const char *value);

/**
 * Starts the configuration client in the background: system("/sbin/configclient  &").
 *
 * The client inherits the program's open descriptors. As long as it holds standard output, the web
 * server does not see the end of the response: redirect the descriptor to /dev/null for this call,
 * with FD_CLOEXEC on the copy that is kept.
 *
 * @return what system() returned.
 */
CORVEL_API int save_config(void);

/**
 * Counts the prefix length of a dotted netmask.
 *
 * Each of the four octets (its decimal value, low 8 bits) adds 8 less the number of its trailing
 * zero bits: its count of one bits, for an octet of a valid mask. An octet that is not there adds
 * nothing.
 *
 * @param mask the netmask, such as "255.255.255.0".
 * @return the prefix length, 0 to 32.
 */
CORVEL_API int calc_netpriexlength(const char *mask);

/** @} */

/**
 * @defgroup request Request decoding
 *
 * The decoders turn a urlencoded request into rows of a property table, in request order, nothing
 * merged. They set each row's name and value to heap copies of the decoded texts and leave the two
 * size fields alone; free_prop() releases the texts. The table must have room for every pair, since
 * its size is not known here: a body or a query of n bytes has at most (n + 1) / 2. Zero the array
 * first: set_prop() and ins_prop() rely on the sizes, and change nothing in a row whose
 * size is 0, but write anywhere if it is left undefined.
 *
 * A name ends at `=` only (`flag&x=1` is one pair, named `flag&x`), a value at `&`. A word is cut
 * at 127 characters (name) or 255 (value) before it is decoded; the rest of it is skipped. A last
 * word without `=` is stored with an empty value, but an empty one (behind a trailing `&`, or an
 * empty query) is not stored. `+` becomes a blank, then `%` and the two characters behind it, be
 * they hexadecimal digits or not, become one byte; a `%` that has less than two characters behind
 * it is kept. A decoded NUL ends the text.
 * @{
 */

/**
 * Reads the request body from standard input: exactly CONTENT_LENGTH bytes.
 *
 * It waits for them without a limit. A signal whose handler was installed without SA_RESTART ends
 * the wait, and the body is refused; with SA_RESTART the wait goes on. To bound a slow body, call
 * alarm(): without a handler it ends the process, and with one that has no SA_RESTART the program
 * can still respond. The same holds for the other functions that read a body.
 *
 * @return the body and a NUL behind it, in a heap block of CONTENT_LENGTH + 1 bytes that the caller
 *         releases with free_buff(). Null if REQUEST_METHOD or CONTENT_LENGTH is not set, if the
 *         method is GET in whatever case, if the length is 0 or negative, if there is no memory, or
 *         if fewer bytes arrive. There is no upper limit.
 */
CORVEL_API char *read_queue(void);

/** Another name for free_buffer(). */
CORVEL_API int free_buff(void *block, uint32_t size);

/**
 * Decodes a POST: the body's pairs, then those of QUERY_STRING.
 *
 * QUERY_STRING and HTTP_REFERER are removed from the environment, except after a GET, which yields
 * nothing here.
 *
 * @param table the rows to fill, from the first one. For a body of m bytes and a query of n, at
 *              most (m + 1) / 2 + (n + 1) / 2 are written.
 * @return the number of pairs stored; 0 for a GET without a body, or if the scratch buffers can't
 *         be allocated. A pair whose texts can't be allocated is left out.
 */
CORVEL_API int process_queue(prop_entry *table);

/**
 * Decodes a GET: the pairs of QUERY_STRING. QUERY_STRING and HTTP_REFERER are removed from the
 * environment.
 *
 * @param table the rows to fill, from the first one: at most (n + 1) / 2 for a query of n bytes.
 * @return the number of pairs stored; 0 for a POST in whatever case, which touches nothing, or if
 *         the scratch buffers can't be allocated.
 */
CORVEL_API int process_queue_get(prop_entry *table);

/**
 * Decodes the pairs of QUERY_STRING, whatever the method, and leaves the environment alone.
 *
 * @param table the rows to fill, from the first one: at most (n + 1) / 2 for a query of n bytes.
 * @return the number of pairs stored.
 */
CORVEL_API int process_query_string(prop_entry *table);

/**
 * Copies a text up to a stop character. What follows the stop character is not read: a loop that
 * takes all words of a text takes time in proportion to its length.
 *
 * @param dst  receives the word, terminated; must hold the whole of it. May be @p src.
 * @param src  the text.
 * @param stop the stop character.
 * @param rest receives the position behind the stop character, or null if the text ended first.
 * @return @p dst.
 */
CORVEL_API char *makeword(char *dst, const char *src, char stop, char **rest);

/**
 * Replaces every `+` by a blank, in place.
 *
 * @return @p text.
 */
CORVEL_API char *plustospace(char *text);

/**
 * Decodes `%` and the two characters behind it into one byte, in place. See x2c().
 *
 * @return @p text.
 */
CORVEL_API char *unescape_url(char *text);

/**
 * Computes the byte that two hexadecimal digits stand for.
 *
 * Nothing is validated: a character below 'A' counts as its code less '0', any other as its code
 * without bit 0x20, less 55; the sum of 16 times the first and the second is kept to 8 bits.
 * Characters above 127 count as negative.
 *
 * @param digits two characters; if the first is a NUL the second is not read and counts as NUL.
 * @return the byte, signed.
 */
CORVEL_API signed char x2c(const char *digits);

/**
 * Tells a POST from everything else, in whatever case.
 *
 * @param method the method's name; may be null.
 * @return 1 for "POST", else 0.
 */
CORVEL_API int get_http_methmod(const char *method);

/**
 * Tells an Ajax GET: the number in the query string's field "Ajax".
 *
 * The name must stand in the query string as it is, not encoded. The first 2048 pairs are looked
 * at. The environment is left alone.
 *
 * @return the field's value, one double quote removed from each end, as atoi() reads it, held to
 *         the range of an int; 0 if the method is not GET, or there is no such field, or it is not
 *         a number.
 */
CORVEL_API int isajax_get(void);

/**
 * Tells whether REQUEST_METHOD is exactly "POST" and the program's first argument is the expected
 * one.
 *
 * @param argc     the number of arguments, the program's name included.
 * @param argv     the arguments.
 * @param expected the text that argv[1] must equal.
 * @return 1 or 0.
 */
CORVEL_API int isnormal_post(int argc, char **argv, const char *expected);

/**
 * Prints the environment to standard output, an entry a line.
 *
 * @return what the last puts() returned; 0 if the environment is empty.
 */
CORVEL_API int myprintevn(void);

/**
 * Runs a shell command and returns its first line, line end included.
 *
 * The command is given to the shell as it stands: never build it from a request.
 *
 * @param command the command.
 * @return a static buffer of 4096 bytes that every call shares, holding at most 4095 characters of
 *         the line; empty if the command printed nothing. If the command can't be started, the
 *         buffer is left as it was.
 */
CORVEL_API char *get_val_awk(const char *command);

/** @} */

/**
 * @defgroup field_list Field list
 * @{
 */

/**
 * Allocates a block whose bytes are all zero.
 *
 * @param size its size in bytes.
 * @return the block, to be released with free_buffer() or free(); null if there is no memory.
 */
CORVEL_API void *get_buffer(uint32_t size);

/**
 * Overwrites a block with zeros and frees it.
 *
 * @param block the block; null is ignored.
 * @param size  the number of bytes to overwrite, at most the size of the block.
 * @return 0.
 */
CORVEL_API int free_buffer(void *block, uint32_t size);

/**
 * Appends a field to a list. Walks the whole list each time.
 *
 * @param head  the address of the list's head pointer.
 * @param name  the name; cut at 254 characters.
 * @param value the value; cut at 4096 characters.
 * @return if the list was empty the new record, otherwise the new record's value text; null if
 *         there is no memory, in which case the list is unchanged.
 */
CORVEL_API void *add_str(str_node **head, const char *name, const char *value);

/**
 * Frees every record of a list.
 *
 * @param head the address of the list's head pointer, which is null afterwards.
 */
CORVEL_API void free_list(str_node **head);

/**
 * Removes and frees the first field whose name equals a text. Nothing happens if there is none.
 *
 * @param head the address of the list's head pointer.
 * @param name the name; may be the record itself.
 */
CORVEL_API void delete_string(str_node **head, const char *name);

/**
 * Finds the first field whose name stands at the very start of a text.
 *
 * The first field in list order wins, not the longest name, and nothing needs to follow the name:
 * of `ip` and `ipaddr`, in that order, `ipaddr` finds `ip`. An empty name matches any text.
 *
 * @param text the text.
 * @param head the list; may be null.
 * @return the record, or null if there is none.
 */
CORVEL_API str_node *find_keyword(const char *text, str_node *head);

/**
 * Replaces a marker, `$` and the record's name behind it, by the record's value, in place.
 *
 * @param text   where the `$` stands, in a buffer with room for the text as it becomes.
 * @param record the record whose name follows the `$`.
 * @return @p text.
 */
CORVEL_API char *change_keyword(char *text, const str_node *record);

/** @} */

/**
 * @defgroup page_template Page templates
 * @{
 */

/**
 * Copies a template file to standard output and fills its markers from a field list.
 *
 * A marker is a `$` and a field's name; there is no closing delimiter and no escape. Lines are read
 * in pieces of at most 1023 characters, each filled on its own: a marker that is cut in two is not
 * recognised. For each `$`, from left to right, find_keyword() looks the text behind it up. A field
 * that is found takes the place of the marker and is removed from the list, so that it fills only
 * the first marker that names it; otherwise the `$` stays. The search goes on one character behind
 * where the `$` stood: a marker inside a value is filled as well, unless the value begins with it,
 * and behind an empty value one character is passed over.
 *
 * A NUL in a line ends it: the rest of the line is not printed, and neither is its line end.
 *
 * A line's filled form may have any length. Each `$` costs a walk through the fields that are left.
 * Only where memory for values inside values runs out, a value is written as it stands, its markers
 * not filled.
 *
 * @param path the template.
 * @param list the address of the list's head pointer, or null for no fields. What is left in the
 *             list afterwards is the caller's to free.
 * @return 0, whether or not the template could be opened; if not, nothing is printed and the list
 *         is untouched.
 */
CORVEL_API int print_html(const char *path, str_node **list);

/**
 * Hands each field to DFPrintf(): prints nothing.
 *
 * @return 0.
 */
CORVEL_API int print_list(const str_node *list);

/**
 * Prints a hidden form input for each field. Its value is the marker `$name`, for print_html() to
 * fill later, not the field's value.
 *
 * @return 0.
 */
CORVEL_API int generate_hidder_from_list(const str_node *list);

/**
 * Prints a hidden form input for each row, its value the text `${name}`, and then each row's name
 * in double quotes with a comma behind it, a line each.
 *
 * @return 0.
 */
CORVEL_API int generate_hidder_from_prop(const prop_entry *table, int count);

/** @} */

/**
 * @defgroup json JSON output
 *
 * A document is one object of sections; a section is a named array that holds one object of pairs.
 * Names and values are written as they stand, without escaping: a value with a double quote, a
 * backslash or a control character is escaped by the caller or the document does not parse. A value
 * that add_escape() made is no exception: JSON has no backslash before a dollar sign or a
 * backquote.
 * @{
 */

/**
 * Prints a section's head: tab, the name in double quotes, ": [" and a line end.
 *
 * @return what printf() returned.
 */
CORVEL_API int printjson_hdr0(const char *name);

/**
 * Prints tab and "{".
 *
 * @return what printf() returned.
 */
CORVEL_API int printjson_hdr1(void);

/**
 * Prints what printjson_hdr0() and then printjson_hdr1() print.
 *
 * @return what the second printf() returned.
 */
CORVEL_API int printjson_hdr(const char *name);

/**
 * Prints "}".
 *
 * @return what putchar() returned.
 */
CORVEL_API int printjson_tail0(void);

/**
 * Prints tab and "]".
 *
 * @return what printf() returned.
 */
CORVEL_API int printjson_tail1(void);

/**
 * Closes a section: a line end, tab, "}", a line end, tab, "]".
 *
 * @return what the last printf() returned.
 */
CORVEL_API int printjson_tail(void);

/**
 * Prints the fields of a list as pairs: tab, "name":"value". Between two pairs stand a comma and a
 * line end; in front of the first and behind the last, nothing.
 */
CORVEL_API void list2json_data(const str_node *list);

/**
 * Prints a whole document of one section, without a line end behind the final "}".
 *
 * @param list the fields; null prints an empty object.
 * @param name the section's name.
 * @return what the last printf() returned.
 */
CORVEL_API int list2json(const str_node *list, const char *name);

/**
 * Prints the rows of a table as pairs, as list2json_data() does, one double quote removed from each
 * end of each value.
 *
 * Do not use it for a file whose values were saved with add_escape(): print a field list of values
 * that get_prop(), strip_escape() and an escaping for JSON of your own have made.
 *
 * @return 0.
 */
CORVEL_API int prop2json(const prop_entry *table, int count);

/** @} */

/**
 * @defgroup upload Upload intake
 *
 * A multipart upload is read whole, with its boundary in front so that the first part is found like
 * every other one, and then cut into its files. Header names are matched with their case, anywhere
 * between two boundaries: a content that holds "Content-Type:" is taken for a header, too.
 *
 * getDisposition_file() and process_file() print bytes that the client chose, also of a form
 * without a file: keep standard output out of the response while they run.
 * @{
 */

/**
 * Reads a request body of any length from standard input.
 *
 * @param length receives CONTENT_LENGTH, before the body is read.
 * @return the body and a NUL behind it, in a heap block that the caller frees; an empty text for a
 *         length of 0. Null if REQUEST_METHOD or CONTENT_LENGTH is not set, for a GET in whatever
 *         case, a negative length, no memory, or fewer bytes than announced.
 */
CORVEL_API char *read_queue_for_upload(int *length);

/**
 * Reads a multipart body of at most 16,777,216 bytes from standard input. Before one of more than
 * 6,144 bytes it pauses for ten seconds, see killDaemon().
 *
 * Without REQUEST_METHOD, "Web: no found REQUEST_METHOD" goes to the system log.
 *
 * @param total           receives the length of what process_file() is to look at: CONTENT_LENGTH
 *                        plus the boundary's length.
 * @param boundary        the address of a null pointer, which is set to a new block that the caller
 *                        frees, also where the result is null. A pointer to a buffer of the caller
 *                        is taken as well, but the client chooses the length, which is not
 *                        checked: the buffer has to hold as much as CONTENT_TYPE.
 * @param boundary_length receives the length of the boundary text.
 * @return the boundary text, a line end and the body, in a heap block that the caller frees; a NUL
 *         stands in the place of the body's last byte. Null if REQUEST_METHOD, CONTENT_TYPE, its
 *         boundary or CONTENT_LENGTH is missing, for a GET, a length that is negative or too large,
 *         no memory, or fewer bytes than announced.
 */
CORVEL_API char *read_queue_for_upload1(int *total, char **boundary, int *boundary_length);

/**
 * Writes the boundary text: "--" and all that follows "boundary=" in the content type.
 *
 * @param content_type the content type.
 * @param boundary     the address of a null pointer, which is set to a new block that the caller
 *                     frees. A pointer to a buffer of the caller is taken as well; it must hold 3
 *                     bytes more than what follows "boundary=", which is not checked.
 * @return the boundary text's length; 0 if there is no "boundary=" or no memory.
 */
CORVEL_API int get_vhash(const char *content_type, char **boundary);

/**
 * Pauses for twice five seconds, so that a busy device settles before a large upload.
 *
 * @return what the second sleep() returned.
 */
CORVEL_API unsigned int killDaemon(void);

/**
 * Finds bytes in a block.
 *
 * @param start   the block.
 * @param end     its end. A match that begins in front of it may run past it: bytes behind the end
 *                are read as far as they agree with the pattern.
 * @param pattern the bytes.
 * @param length  their number; 0 finds nothing.
 * @return the first position, or null.
 */
CORVEL_API char *hex_search(const char *start, const char *end, const char *pattern, int length);

/**
 * Reads the next part of an upload.
 *
 * Of each header the first place where its name stands counts, and the separator must follow right
 * behind. A second Content-Type takes the place of the first, and that of the transfer encoding if
 * none follows. Without either, the record's transfer encoding is left as it was: zero the records
 * first. A value is what follows up to the line end, without double quotes, cut at 256 characters
 * and at what the record's field holds. A line that does not end in the part or in the 16,384 bytes
 * from the next boundary on ends after those bytes. The content lies between the blank line behind
 * the last header and the line end in front of the next boundary.
 *
 * @param data     receives where the content begins, in the buffer.
 * @param size     receives the content's length; 0 where the headers run into the boundary.
 * @param cursor   where to begin; moves to two bytes in front of the next boundary if a file was
 *                 found, to the next boundary for -3 and -4, otherwise to the end.
 * @param end      the end of the buffer; nothing behind it is read.
 * @param boundary the boundary text; an empty one stands nowhere.
 * @param record   its three texts are written as far as the headers are there.
 * @return 0 if a file was found; -1 if there is no boundary, -2 if no second one, -3 without
 *         `filename=`, -4 without `Content-Type:` (up to 32 bytes after the place of the
 *         file name, which the client chose, are then printed on standard output).
 */
CORVEL_API int getDisposition_file(char **data, unsigned int *size, char **cursor, char *end,
                                   const char *boundary, prop_file *record);

/**
 * Trims two characters from both ends of a text.
 *
 * @param text   the text; not changed.
 * @param length its length; receives the remaining length.
 * @param one    the one character.
 * @param other  the other one.
 * @return where the remaining text begins.
 */
CORVEL_API char *strip_r(char *text, int *length, char one, char other);

/**
 * Cuts the files out of an upload. Parts without a file name are passed over, as is a file for
 * whose content there is no memory.
 *
 * Of a part without `Content-Type:`, bytes that the client chose are printed on standard output, as
 * getDisposition_file() does.
 *
 * @param upload   what read_queue_for_upload1() returned.
 * @param length   its total length.
 * @param boundary the boundary text.
 * @param files    four records, all zero: a field whose header is missing is not written, and the
 *                 texts of records after the last file may be.
 * @return the number of files stored, 0 to 4; later ones are not looked at.
 */
CORVEL_API int process_file(char *upload, int length, const char *boundary, prop_file *files);

/**
 * Frees the content of each record and sets its pointer to null.
 *
 * @return 1.
 */
CORVEL_API int free_prop_file(prop_file *files, int count);

/** @} */

/**
 * @defgroup boot_environment Boot environment
 *
 * The boot loader's environment image has 65,536 bytes: the CRC-32 of all that follows
 * (big-endian), then 65,532 bytes of entries `name=value`, each ended by a NUL, the list by one
 * more. Whatever the image holds, nothing outside of it is read or written; an image whose list has
 * no end has no room for a new entry. Messages go to standard output.
 * @{
 */

/** The size of an environment image in bytes. */
#define CORVEL_ENV_SIZE 0x10000

/** The image that init_env() and get_rootid() read into and save_param() writes. */
extern CORVEL_API unsigned char env_image_mem[CORVEL_ENV_SIZE];

/**
 * Computes the standard CRC-32 (that of Ethernet and zip files), always from the start.
 *
 * zlib has a function of this name with other arguments, and its deflate() and inflate() call
 * whichever of the two the program finds first: with this one they crash or write wrong checksums.
 * In a program that also uses zlib, directly or through another library, link
 * `-Wl,--no-as-needed -lz` before `-lcorvel`, or a copy of the static library that
 * `objcopy --localize-symbol=crc32` has made; call only zlib's function; and include `zlib.h` and
 * this header in different source files.
 *
 * @param data   the bytes.
 * @param length their number; 0 or less gives 0.
 * @return the CRC-32.
 */
CORVEL_API uint32_t crc32(const unsigned char *data, int length);

/**
 * Reads an environment image from a file or device and makes it current.
 *
 * Save nothing unless the result is 0. After a result of 1 or -1, env_image_mem may be damaged or a
 * mixture: a short file overwrites its first bytes only, and the image that was current before
 * stays current. save_param() gives it a good CRC, with which the boot loader believes all of it.
 *
 * Prints "Err: can not open file %s\n" or "Warning - bad CRC\n" or, of a file that is too short,
 * "Err: envimage size is less then CONFIG_ENV_SIZE(0x10000)\n".
 *
 * @param path the file.
 * @return 0; 1 if the CRC is bad (the image is current all the same); -1 if the file can't be
 *         opened, gets descriptor 0 (which then stays open), or one read does not give 65,536
 *         bytes.
 */
CORVEL_API int init_env(const char *path);

/**
 * Makes an image current, and prints "Warning - bad CRC\n" if its CRC is bad.
 *
 * @param image 65,536 bytes that stay the caller's; used until another image becomes current. Not
 *              null.
 * @return 0 if the CRC is good, 1 if not.
 */
CORVEL_API int set_env_ptr(void *image);

/**
 * Looks a variable up in the current image. The first entry of that name counts. A name that holds
 * a `=` matches an entry that agrees with it up to there.
 *
 * @param name the name.
 * @return its value, terminated, inside of the image; null if there is no such variable or no
 *         current image.
 */
CORVEL_API char *get_env(const char *name);

/**
 * Sets a variable of the current image at the end of its list, or deletes it, and updates the CRC.
 *
 * Each message stands in a line of its own. For a name with a `=`, and nothing is changed:
 * `## Error: illegal character '=' in variable name "%s"`. Where there is no room, and the old
 * value is gone and the CRC stale: `## Error: environment overflow, "%s" deleted`.
 *
 * After an overflow, load the image again with init_env() before anything else is set: the next
 * set_env() or save_param() that succeeds updates the CRC, and the variable is lost for good.
 *
 * @param name  the name; must not be inside the image, as a value that get_env() returned is: the
 *              old entry is removed first, which moves what follows it.
 * @param value the value; null deletes the variable, which need not be there. Must not be inside
 *              the image either.
 * @return 0, or 1 on failure or without a current image.
 */
CORVEL_API int set_env(const char *name, const char *value);

/**
 * Prints the entries of the current image, a line each.
 *
 * @return the offset in the data area at which the list ends.
 */
CORVEL_API int print_env(void);

/** @} */

/**
 * @defgroup boot_arguments Boot arguments
 * @{
 */

/**
 * Copies a value out of a kernel command line: what stands between the key and the next blank.
 *
 * @param args the command line; may be null.
 * @param key  the key with its `=`. It may match inside of a longer word.
 * @return a new text that the caller frees; null if the key is not there, if no blank follows (the
 *         last value of a line is not found), or if there is no memory.
 */
CORVEL_API char *parse_bootargs_get_val(const char *args, const char *key);

/**
 * Reads an environment image and prints the position of the root device, "pos=%s\n".
 *
 * Prints "Err: can not open file %s\n", "Err: envimage size is less then CONFIG_ENV_SIZE(65536)\n",
 * or "Warning - bad CRC\n" and "Err: invalid image\n".
 *
 * @param path the file; the image becomes current if it could be read whole.
 * @return the number that the text has from its colon on: always 0.
 */
CORVEL_API uint32_t get_rootid(const char *path);

/**
 * Sets a variable, or deletes it, in the current image and writes env_image_mem to a file: load it
 * with init_env() first, and only if that returns 0 save anything. See there, and at set_env() for
 * what is left in memory after -1. The file is flushed to its device with fsync() before it is
 * closed.
 *
 * @param path  the file; created with mode 0644 if it is missing. If it can't be opened,
 *              `Err: open file %s failed` is printed, and a line end.
 * @param name  the name.
 * @param value the value, or null.
 * @return 0, also where the file could not be written; -1 if the variable could not be set.
 */
CORVEL_API int save_param(const char *path, const char *name, const char *value);

/** @} */

/**
 * @defgroup firmware Firmware upgrade
 *
 * An upgrade image is a chain of sections, each a 20-byte header and a payload for one partition;
 * at the end stands the CRC-32 of all that precedes it. The flash holds two sets of root file
 * system and kernel. An upgrade is to write the one that does not run and then make it boot, but
 * the functions take the running set from the environment's variable "bootparam" alone. If that
 * cannot be read, parse_firmware() directs "root" and "kern" to set A, even if set A runs; "rfs1"
 * and "knl1" always go to set B; and an image need not contain a whole set. A safe program takes
 * the running set from the kernel's command line and checks all of this, as the guide's does.
 * @{
 */

/** The number of rows of the partition table: 10. */
CORVEL_API uint32_t get_sign_tbl_size(void);

/**
 * Looks a section's signature up in the partition table.
 *
 * @param sig four bytes.
 * @return the row's index, or 255.
 */
CORVEL_API uint32_t get_tbl_id(const unsigned char *sig);

/**
 * The block-device index of a row of the partition table.
 *
 * @return the index; 255 for the version section and for a row that does not exist.
 */
CORVEL_API int get_tbl_ids(unsigned int index);

/**
 * The set that boots, according to the environment: 0 for A, 1 for B. Updated by get_bootparam()
 * only. It is the set that runs until save_bootparam(), which leaves the object as it is. After
 * that, the next get_bootparam() or parse_firmware() sets it to the other set, which does not run
 * before the restart: a second upgrade would be written over the running set.
 */
extern CORVEL_API int bootparam;

/**
 * Loads the environment from "/dev/mtdblock1" and reads from its variable "bootparam" which set
 * runs, into the object of that name. Logs "bootparam=%d\n".
 *
 * @return what is added to the block-device index of set A to reach the idle set: 2 if A runs, 0 if
 *         B runs. 0 also on every failure and for a negative odd number, with `bootparam` as it
 *         was: then nothing is known about the set that runs.
 */
CORVEL_API uint32_t get_bootparam(void);

/**
 * Makes the other set boot: stores it in the environment that get_bootparam() loaded and writes
 * that to "/dev/mtdblock1". Call it when the new set is written, in the same process, and not if
 * get_bootparam() failed: see init_env().
 *
 * @return what save_param() returned: 0, also where nothing could be written, or (uint32_t)-1. Read
 *         the environment again to see what is stored.
 */
CORVEL_API uint32_t save_bootparam(void);

/**
 * Checks an upgrade image and lists what is to be written. Writes nothing itself.
 *
 * Nothing outside of the image is read, and no record reaches outside of it. Progress and failures
 * go to the system log.
 *
 * @param image   the image; the records point into it.
 * @param total   its length in bytes.
 * @param records five records.
 * @param result  receives 0 if the image is accepted; 1 if a section runs past the end by more than
 *                four bytes (what is missing counts as zero); 2 if a payload's checksum is not
 *                zero; 3 if a section is larger than its partition; 4 if more than four sections
 *                are recognised; 5 if the CRC does not match or no section is recognised. Where
 *                the last section recognised is no version section, there is no CRC.
 * @return the number of records, or 0 on failure: then flash nothing.
 */
CORVEL_API int parse_firmware(const unsigned char *image, unsigned int total, img_info *records,
                              int *result);

/**
 * Writes records to the system log.
 *
 * @return 0.
 */
CORVEL_API int dump_img_info(int count, const img_info *records);

/**
 * Writes bytes to a device, in one call, and syncs.
 *
 * @param path   the device; never created.
 * @param buf    the bytes.
 * @param offset where to, from the device's start. A negative one counts as 0: the bytes are
 *               written at the start.
 * @param len    their number.
 * @return 1 if all were written, else 0.
 */
CORVEL_API int flash_write(const char *path, const void *buf, int offset, unsigned int len);

/**
 * Copies a file byte by byte. Write errors are not noticed.
 *
 * @param src the file. A directory counts as an empty file.
 * @param dst the copy; emptied first, and if it is a symbolic link its target. If it is the same
 *            file as @p src, by another name or a link, the content is lost.
 * @return 0, or -1 if either file can't be opened.
 */
CORVEL_API int file_copy(const char *src, const char *dst);

/** @} */

/**
 * @defgroup diagnostics Diagnostic dumps
 * Dumps of bytes to standard output, which in a CGI program is the response: for debugging only.
 * @{
 */

/** Hands what print_hex_string() prints to DFPrintf(): prints nothing. */
CORVEL_API void DPrint_hex_string(const unsigned char *data, int len);

/**
 * Prints bytes as lower-case hexadecimal, without a line end: less than 40 bytes whole, otherwise
 * the first and the last 10 and the length; "<empty string>" for none.
 */
CORVEL_API void print_hex_string(const unsigned char *data, int len);

/** Prints bytes as they are, as print_hex_string() does, with 20 at each end. */
CORVEL_API void print_to_string(const unsigned char *data, int len);

/** Prints a line end and then bytes as hexadecimal, 16 a line; a full last line is followed by an
 * empty one. */
CORVEL_API void print_string(const unsigned char *data, int len);

/** Prints "title(len):" in a line of its own unless @p title is null, then bytes as print_string()
 * does, without its first line end. */
CORVEL_API void print_hex_array(const char *title, const unsigned char *data, int len);

/** Prints "title(len):" in a line of its own unless @p title is null, then the bytes as they are
 * and a line end. */
CORVEL_API void print_string_array(const char *title, const unsigned char *data, int len);

/**
 * Appends bytes to a text as upper-case hexadecimal: hardware addresses, with a colon between two
 * bytes and a blank behind every sixth.
 *
 * @param dst  a terminated text with room for three characters a byte.
 * @param data the bytes.
 * @param len  their number.
 * @return 0.
 */
CORVEL_API int print_byte_to_string(char *dst, const unsigned char *data, int len);

/** @} */

/**
 * @defgroup conversions Conversions
 *
 * Hexadecimal text, hardware (MAC) addresses, and the names of wireless radios and networks. A
 * hardware address is spelled in colon form (17 characters, `00:1A:2B:3C:4D:5E`), in stripped form
 * (12 characters, `001A2B3C4D5E`) or in binary form (6 bytes). What is written is upper case.
 *
 * No function knows the size of a buffer that it writes to: each says how much it takes.
 * @{
 */

/** @return the value of a hexadecimal digit of either case, or -1. */
CORVEL_API int hex2int(char digit);

/**
 * Writes bytes as hexadecimal text.
 *
 * @param bytes the bytes.
 * @param n     their number.
 * @param out   receives the text: 2 * @p n + 1 bytes. Nothing is written for no bytes. Null: a new
 *              block is returned, to be released with free_buffer() and a size of 2 * @p n.
 * @return the text; null if there was no memory.
 */
CORVEL_API char *ascii2hex(const unsigned char *bytes, unsigned int n, char *out);

/**
 * Turns hexadecimal text into characters, without any check.
 *
 * A digit that is none counts as -1, which gives a wrong character. An odd last digit is dropped. A
 * pair that is zero ends the text early for whoever reads it as one.
 *
 * @param hex the text.
 * @param out receives the characters and a NUL: half the length of @p hex plus one byte. Must hold
 *            an empty text, and not overlap @p hex.
 * @return @p out.
 */
CORVEL_API char *hex2ascii(const char *hex, char *out);

/**
 * Turns hexadecimal text into bytes, and refuses what is no digit.
 *
 * @param hex the text; not read behind its end, whatever @p len says.
 * @param len its length in characters. An odd last one is ignored.
 * @param out receives @p len / 2 bytes, and no NUL.
 * @return 0, or -1 at the first pair that is not one of digits: the bytes of the pairs before it
 *         are stored then.
 */
CORVEL_API int str2byte(const char *hex, int len, unsigned char *out);

/**
 * Turns a hardware address from stripped into binary form. The digits are not checked.
 *
 * @param text the address.
 * @param mac  receives 6 bytes; untouched if the text has not 12 characters.
 * @return 0 for the address of a station; 1 for a group address (broadcast is one) and for a text
 *         that has not 12 characters.
 */
CORVEL_API unsigned int ascii2mac(const char *text, unsigned char *mac);

/**
 * Writes a hardware address of 6 bytes in colon form.
 *
 * @return the text, in a buffer of the library that the next call overwrites.
 */
CORVEL_API char *iw_pr_ether(const unsigned char *mac);

/**
 * Writes a number in decimal.
 *
 * @param out receives up to 12 bytes.
 * @return @p out.
 */
CORVEL_API char *in2str(char *out, int value);

/** @return the upper case of a letter from a to z; any other character as it is. */
CORVEL_API signed char chUpcase(signed char character);

/**
 * Turns a hardware address from colon into stripped form. Neither digits nor separators, which may
 * be any character, are checked.
 *
 * @param text the address. What is missing of 17 characters counts as NUL.
 * @param out  receives 13 bytes; may be @p text itself.
 * @return @p out.
 */
CORVEL_API char *mac2hexStrip(const char *text, char *out);

/**
 * Turns a hardware address from stripped into colon form: puts a colon between each two characters
 * and their neighbours. The case stays as it is.
 *
 * @param text the address; of an odd length, a NUL completes it.
 * @param out  receives 17 bytes for 12 characters, and no NUL: fill 18 bytes with zeros before.
 *             Must not overlap @p text.
 * @return @p out.
 */
CORVEL_API char *HexStrip2mac(const char *text, char *out);

/**
 * Writes the number that a file begins with, with six decimal places; 0.010000 if there is none. It
 * is read in single precision: about seven digits count.
 *
 * @param path the file; may be null.
 * @param out  receives the text, cut to fit. Untouched if the file can't be opened or is a folder.
 * @param size the bytes at @p out.
 * @return @p out.
 */
CORVEL_API char *get_val_from_file(const char *path, char *out, int size);

/**
 * Writes the name of a wireless network: "wifi0_wlan1".
 *
 * Of indices, here and below, only the low byte counts: 0 to 255.
 *
 * @param radio   index of the radio.
 * @param network index of its network.
 * @param out     receives up to 16 bytes.
 * @return @p out.
 */
CORVEL_API char *gen_wlan_name(int radio, int network, char *out);

/** Writes the name of a wireless network in upper case, "WIFI0_WLAN1": up to 16 bytes. */
CORVEL_API char *gen_wlan_name0(int radio, int network, char *out);

/** Writes the name of a radio, "wifi0": up to 8 bytes. */
CORVEL_API char *gen_radio_name(int radio, char *out);

/** Writes a radio's key in braces, "{WIFI0_suffix}": up to 11 bytes and the suffix. */
CORVEL_API char *gen_radio_key(int radio, const char *suffix, char *out);

/** Writes a radio's key, "WIFI0_suffix": up to 9 bytes and the suffix. */
CORVEL_API char *gen_radio_key0(int radio, const char *suffix, char *out);

/** Writes a network's key in braces, "{WIFI0_WLAN1_suffix}": up to 19 bytes and the suffix. */
CORVEL_API char *gen_wlan_key(int radio, int network, const char *suffix, char *out);

/** Writes a network's key, "WIFI0_WLAN1_suffix": up to 17 bytes and the suffix. */
CORVEL_API char *gen_wlan_key0(int radio, int network, const char *suffix, char *out);

/** @} */

/**
 * @defgroup interface_addresses Interface addresses
 *
 * What the kernel knows of a network interface. One that is down still answers. No name, and one of
 * 16 characters or more, is that of an interface that does not exist. Of a name with a colon the
 * kernel looks at what stands in front of it; for an IPv4 address or netmask, at the whole.
 * @{
 */

/**
 * Asks for an address of an interface, in network byte order.
 *
 * @param ifname   the interface.
 * @param selector 0: IPv4 address. 1: IPv4 netmask. 3: hardware address. 4: global IPv6 address,
 *                 the first one in the kernel's table.
 * @param result   receives 4 bytes for 0 and 1; 16 for 3: the address family (2 bytes, the
 *                 machine's order) and 14 of data, the first 6 of which are the address; 16 for 4.
 *                 Untouched on failure.
 * @return 1, for 4 the prefix length (0 to 128); 0 if there is no such interface or no such address
 *         and for any other selector. A prefix length of 0 looks like a failure, but for @p result.
 */
CORVEL_API int getInAddr(const char *ifname, unsigned int selector, void *result);

/**
 * Writes an interface's hardware address in colon form, or "00:00:00:00:00:00" on any failure.
 *
 * @param ifname the interface; may be null.
 * @param out    receives 18 bytes.
 * @return @p out.
 */
CORVEL_API char *getHWaddr(const char *ifname, char *out);

/** Writes an interface's hardware address in stripped form, or "000000000000": 13 bytes. */
CORVEL_API char *getHWaddr0(const char *ifname, char *out);

/**
 * Writes an interface's address as text.
 *
 * @param ifname   the interface; may be null.
 * @param selector 0: IPv4 address; 1: IPv4 netmask: "0.0.0.0" on any failure. 4: global IPv6
 *                 address with its prefix length, as in "2001:db8::1/64"; "::" on any failure and
 *                 for a prefix length of 0. With 3 the text is no address, with any other selector
 *                 "0.0.0.0".
 * @param out      receives the text, cut to fit; 16 bytes suffice for IPv4, 64 for IPv6. "::" if
 *                 the IPv6 address does not fit.
 * @param len      the bytes at @p out; nothing is written for 0 or less. The prefix length
 *                 with its slash and NUL is cut to @p len - 4 of them.
 * @return @p out.
 */
CORVEL_API char *getHWip(const char *ifname, unsigned int selector, char *out, int len);

/** @} */

/**
 * @defgroup routes_and_dns Routes and DNS
 * @{
 */

/**
 * Finds the gateway of an interface: that of its first route through a gateway that is up and not a
 * host route, be it the default route or not.
 *
 * If the kernel's table can't be opened, "Open %s file error." and a line end are printed on
 * standard output, where the answer to a request goes, too.
 *
 * @param ifname the interface.
 * @param gw     receives the address in network byte order; untouched if there is none.
 * @return 1, or 0 if there is none.
 */
CORVEL_API int getDefaultRoute(const char *ifname, uint32_t *gw);

/**
 * Writes the gateway of an interface as getDefaultRoute() finds it, or "0.0.0.0". Prints what that
 * prints.
 *
 * @param ifname the interface; may be null.
 * @param out    receives up to 16 bytes.
 * @return @p out.
 */
CORVEL_API char *getDefGw(const char *ifname, char *out);

/**
 * Appends the name servers of /etc/resolv.conf to a text, in the file's order and each followed by
 * `&nbsp;&nbsp;&nbsp;&nbsp;`. Lines are taken in pieces of 254 characters.
 *
 * @param out a text, with room behind it for each address and 24 characters more, and for a NUL.
 * @return @p out. If the file can't be opened or is a folder, @p out stays as it is, and the four
 *         entities are returned as a text of the library, which must not be changed.
 */
CORVEL_API char *get_dns(char *out);

/** @} */

/**
 * @defgroup leases Leases and neighbours
 *
 * Lists of lease_entry records in the order of their file. A reader's list begins with a null
 * pointer as its head; the caller releases it with free_leaselist(), also where reading stopped for
 * want of memory.
 * @{
 */

/** @return the seconds of the monotonic clock. */
CORVEL_API int monotonic_time(void);

/**
 * Fills a record from one of a binary lease file: 16 bytes of hardware address, of which 6 are
 * used, 4 of IPv4 address, and 4 of expiry, a big-endian number of seconds that is written as it
 * is.
 *
 * @param entry  the record; `ip`, `mac` (colon form) and `expires` are written.
 * @param record 24 bytes.
 */
CORVEL_API void add_lease(lease_entry *entry, const unsigned char *record);

/**
 * Reads a binary lease file; see add_lease(). A record with a hardware address of zeros is an
 * empty slot; a last one that is cut off is ignored.
 *
 * The layout is that of an old udhcpd: 24 bytes a lease and nothing else. A current one writes 8
 * bytes and then 36 a lease, from which this makes wrong records. The size of such a file is never
 * a multiple of 24.
 *
 * If the file can't be opened or is a folder, "could not open input file" is printed with perror().
 *
 * @param head the address of a null pointer; receives the list.
 * @param path the file.
 * @return the number of records.
 */
CORVEL_API int get_udhpd_leases(lease_entry **head, const char *path);

/**
 * Reads a text lease file, one lease a line: expiry in seconds since the epoch, hardware address,
 * IP address, host name, client identifier.
 *
 * `mac`, `ip` and `hostname` are taken as they are, `expires` is the time that is left and negative
 * for a lease that has ended. Every line is a record, be it empty: a missing word is empty, a
 * missing expiry counts as 0. Words are cut at 31 characters, the host name at 127; lines are taken
 * in pieces of 1023. A last line without a line end is not read.
 *
 * What dnsmasq writes needs a look at each record: a host without a name has the name "*"; a lease
 * without end has the expiry 0, so that `expires` is a large negative number; the line "duid" and
 * an identifier gives a record without an `ip`; and the lines after it are leases of IPv6
 * addresses, with a number in `mac`.
 *
 * If the file can't be opened or is a folder, "could not open input file" is printed with perror().
 *
 * @param head the address of a null pointer; receives the list.
 * @param path the file.
 * @return 0, whatever was read: look at the list.
 */
CORVEL_API int get_dnsmasq_leases(lease_entry **head, const char *path);

/**
 * Reads a DHCPv6 server's lease file as get_dnsmasq_leases() does, from other words of a line: the
 * second is the hardware identifier, the fourth the host name, the fifth the expiry, the eighth the
 * address. An IPv6 address that is spelled with more than 31 characters is cut, too.
 */
CORVEL_API int get_dhcpv6_leases(lease_entry **head, const char *path);

/**
 * Reads the leases of the DHCP server that runs.
 *
 * If /var/run/udhcpd.pid holds a number above 0, the process that has it now is sent SIGUSR1, upon
 * which the server writes its leases, and /var/config/udhcpd.leases is read with get_udhpd_leases()
 * at once: it may still be the one before. Otherwise, if a process named dnsmasq runs,
 * /var/config/dnsmasq.leases is read with get_dnsmasq_leases().
 *
 * Whether the process is the server is not checked. A stale file sends the signal to another
 * program, and one that says 1 to process 1, which may take it for the order to halt the device:
 * look at the file with getPid() first.
 *
 * dnsmasq is looked for with app_isrun(): where it does not run, a few bytes are never freed, and
 * where /proc can't be opened, the program dies.
 *
 * @param head the address of a null pointer; receives the list.
 * @return what the reader returns; 0 if no server runs.
 */
CORVEL_API int get_leases(lease_entry **head);

/** Wipes and frees every record of a list and sets the head to null. */
CORVEL_API void free_leaselist(lease_entry **head);

/**
 * Reads the kernel's IPv4 neighbour table: `ip`, `hwtype` and `mac` (stripped form) of each
 * neighbour whose hardware address is known. Of several lines with one hardware address the first
 * counts. A line of the table that is none ends the reading; lines are taken in pieces of 127
 * characters.
 *
 * @param ifname the interface whose neighbours are wanted; empty for all.
 * @param head   the address of a null pointer; receives the list.
 * @return the number of records; 0 if the table can't be read, and also if memory ran out.
 */
CORVEL_API int get_arp_cache(const char *ifname, lease_entry **head);

/**
 * Looks for a hardware address among neighbours. Lease records, which hold it in another form, are
 * not found.
 *
 * @param head the list; may be null.
 * @param mac  the address in colon form; see mac2hexStrip().
 * @return the position of the first record that has it, from 1; 0 if none has.
 */
CORVEL_API int search_by_mac(const lease_entry *head, const char *mac);

/**
 * Prints a list on standard output: the line "dump mac ip", a line of address, hardware address and
 * expiry for each record, each followed by a tab, and a line of dashes. A debugging aid.
 */
CORVEL_API void dump_macip(const lease_entry *head);

/** @} */

/**
 * @defgroup errors Errors and input
 * What is fatal, in one line on standard error; checked allocation; files read whole.
 * @{
 */

/** The exit status of bb_error_msg_and_die(), and so of all that die: 1, unless a program sets it.
 */
extern CORVEL_API int bb_default_error_retval;

/** "memory exhausted": what xmalloc() and xrealloc() die with. */
extern CORVEL_API const char *bb_msg_memory_exhausted;

/**
 * Flushes standard output and prints "unknown app: " and a message on standard error, without a
 * line end.
 */
CORVEL_API void bb_verror_msg(const char *fmt, va_list ap) CORVEL_PRINTF_LIKE(1, 0);

/**
 * Prints a message as bb_verror_msg() does, and a line end, and exits with bb_default_error_retval.
 */
CORVEL_API CORVEL_NORETURN void bb_error_msg_and_die(const char *fmt, ...) CORVEL_PRINTF_LIKE(1, 2);

/**
 * Allocates like malloc(), and dies with bb_msg_memory_exhausted where there is no memory.
 *
 * @return the block; for a size of 0 perhaps null.
 */
CORVEL_API void *xmalloc(size_t size);

/**
 * Changes the size of a block like realloc(), and dies with bb_msg_memory_exhausted where there is
 * no memory.
 *
 * @return the block; for a size of 0 perhaps null.
 */
CORVEL_API void *xrealloc(void *block, size_t size);

/**
 * Copies a text, cut to fit, and fills what is left of the buffer with zeros.
 *
 * @param dst  receives @p size bytes; must not overlap @p src.
 * @param src  the text. Nothing behind its first @p size - 1 characters is read.
 * @param size the bytes at @p dst: at least 1. For 0 nothing is written.
 * @return @p dst.
 */
CORVEL_API char *safe_strncpy(char *dst, const char *src, size_t size);

/**
 * Writes a user's or a group's name, or its number in the name's place.
 *
 * @param buf     receives the text, cut to fit.
 * @param name    the name; null if there is none.
 * @param id      the number.
 * @param bufsize the bytes at @p buf. If negative and there is no name, it dies with
 *                "unknown %cid %ld": the prefix and the number.
 * @param prefix  `u` or `g`.
 * @return @p buf with the name in it; null if the number was written. If @p bufsize is 0, or
 *         negative and there is a name: @p name, and nothing is written.
 */
CORVEL_API char *my_getug(char *buf, char *name, long id, int bufsize, char prefix);

/**
 * Does what my_getug() does with the name of the user @p uid, if there is one, and `u`. A name that
 * is returned and not in @p buf is the C library's: the next look-up of a user overwrites it.
 */
CORVEL_API char *my_getpwuid(char *buf, long uid, int bufsize);

/**
 * Reads until all bytes or the end has come.
 *
 * @param fd  the descriptor.
 * @param buf receives up to @p len bytes, and no NUL.
 * @param len the bytes wanted.
 * @return the number read. After an error, to which an interruption by a signal belongs: what was
 *         read before it, or -1 if that was nothing.
 */
CORVEL_API ssize_t full_read(int fd, void *buf, size_t len);

/** Reads as full_read() does and closes the descriptor. */
CORVEL_API ssize_t read_close(int fd, void *buf, size_t len);

/** Opens a file and reads it as read_close() does; negative if it can't be opened. */
CORVEL_API ssize_t open_read_close(const char *path, void *buf, size_t len);

/** @} */

/**
 * @defgroup processes Process lookup
 *
 * A process has a name if its short name, which the kernel cuts to 15 characters and of which the
 * first word counts, is that name's first 15, and its command line's first 49 characters hold the
 * whole name. Kernel threads have no command line and so no name.
 *
 * If /proc can't be opened, what looks for processes dies with "Cannot open /proc"; see
 * bb_error_msg_and_die().
 * @{
 */

/**
 * Reads a process's command line as one line: every byte below 32 becomes a blank.
 *
 * @param buf  receives up to @p size bytes and a NUL: @p size + 1 bytes. Untouched if there is
 *             nothing to read.
 * @param size the most bytes to read.
 * @param pid  the process.
 */
CORVEL_API void read_cmdline(char *buf, int size, unsigned int pid);

/**
 * Finds the processes that have a name, in the order in which /proc lists them.
 *
 * @return their ids and a 0 behind them, or just -1 if there is none: an array that the caller
 *         frees.
 */
CORVEL_API int *find_pid_by_name(const char *name);

/**
 * @return the first process that has a name, or 0. Where there is none, the few bytes of
 *         find_pid_by_name()'s result are never freed.
 */
CORVEL_API int app_isrun(const char *name);

/** @return as app_isrun(), but passes the calling process over. */
CORVEL_API int is_runing(const char *name);

/**
 * Reads a process id from a file; that the process lives is not checked.
 *
 * @return the number that the file begins with, 0 if it does not begin with one; -1 if the file
 *         can't be opened or is a folder.
 */
CORVEL_API int getPid(const char *path);

/** @} */

/**
 * @defgroup accounts Accounts
 * @{
 */

/**
 * Checks a password against the system's account database. Only root can: the effective user
 * counts, so that the program may be set-user-ID root.
 *
 * The password file's own password field must be set, and not begin with `!` or `*`; the hash is
 * the shadow file's, whose line must fit 256 bytes.
 *
 * It takes longer for a user that exists, and does not slow down who guesses: that is for the
 * program to do.
 *
 * @return 0 if the password is right, -1 otherwise: whatever the reason.
 */
CORVEL_API int login_auth(const char *user, const char *password);

/**
 * Sets a user's password: writes it, with the user's name, to /tmp/.chpwd.txt and runs
 * "/bin/chpasswd -m < /tmp/.chpwd.txt" through the shell. The file is new, readable by its owner
 * alone, and removed before the call returns; whatever had its name before is removed, too. A
 * signal that ends the program meanwhile leaves it there.
 *
 * The command has the rights that the shell leaves it: many shells give those of a set-user-ID
 * program up, which ends in 121. Such a program has to make root its real user first.
 *
 * Programs that call this at the same time share the one file. For its whole duration a call holds
 * a lock on /var/run/chpwd.lck, so that the command runs on the line of its own call: 0 means that
 * it accepted this user and this password. Another call is waited for, for 15 seconds at most. The
 * lock file is empty, is never removed, belongs to root and has mode 0600. It is created if it is
 * missing, and so is its directory, which only root may be able to write: it is in memory on most
 * devices, also where the root file system is read-only. Without the lock nothing is run: if the
 * file cannot be opened or locked, is a link, has a second name or another owner, or can be opened
 * by others, the result is 123. A program that is killed during the call releases the lock, but its
 * command may still be running.
 *
 * @param user     the user. Refused with 123 if there is a colon or a line end in it.
 * @param password the password, in plain text. Refused with 123 if there is a line end in it.
 * @return 0; 121 if the command failed, and with most shells also if it is not there or was killed;
 *         122 if the shell could not be started or was killed, or if its status is not to be had,
 *         as where SIGCHLD is ignored; 123 if the file could not be made or not be written whole,
 *         or if the lock could not be taken: then nothing was run.
 */
CORVEL_API int login_chpwd(const char *user, const char *password);

/** @} */

/**
 * @defgroup traps Traps
 * Notifications of 156 bytes, sent over netlink protocol 16 to the kernel and multicast group 1.
 * @{
 */

/**
 * Opens a socket for send_trap_msg(), itself a member of the group. The caller closes it; programs
 * that the caller starts do not inherit it. A thread can have one at a time: the port of a second
 * one is taken.
 *
 * If it can't be bound, "bind failure:%s!" and a line end are printed on standard output, with the
 * reason, and it stays open.
 *
 * @return the descriptor, above 0; otherwise the negative `errno`. A descriptor of 0 counts as a
 *         failure, although it stays open and `errno` says nothing of it.
 */
CORVEL_API int open_socket_for_trap(void);

/**
 * Sends a notification: a netlink message of 172 bytes, type 17, sequence number 1, with the
 * process's id as that of its sender.
 *
 * On failure "unable to send message" is printed with perror().
 *
 * @param sockfd the socket.
 * @param record 156 bytes, sent as they are.
 * @return the bytes sent, 172; negative on failure.
 */
CORVEL_API int send_trap_msg(int sockfd, const void *record);

/** @} */

#ifdef __cplusplus
}
#endif

#endif
