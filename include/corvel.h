/* SPDX-License-Identifier: MIT */
/**
 * @file corvel.h
 * @brief libcorvel: the library under the web-management CGI programs of small Linux routers.
 *
 * A web server starts one CGI program per request. The program decodes the request into a property
 * table, reads and rewrites the device's property files, and responds with a filled HTML template
 * or with JSON on standard output. Every function does its work synchronously and returns; nothing
 * runs in the background and there are no threads. save_config() is the exception: it starts
 * another program.
 *
 * These conventions hold for every function, unless its own description says otherwise:
 *  - A string is a sequence of bytes terminated by a NUL byte. A null pointer passed where a string
 *    is read counts as the empty string. Bytes above 127 have no special meaning.
 *  - Sizes and lengths are in bytes. A size includes the terminating NUL, a length does not.
 *  - Results are counts, 0/1 flags or small codes; a result pointer is null on failure.
 *  - A negative count or length counts as zero.
 *  - A string that is longer than the field that keeps it is truncated and terminated. Output is
 *    never truncated.
 *  - The caller owns every table (array and count) and every list. The library allocates a table's
 *    strings and a list's records with malloc() and releases them in free_prop(), free_list() and
 *    free_leaselist().
 *  - No function may be called from several threads at once.
 *  - Standard output is the response of a CGI program, and some functions print messages on it:
 *    init_env(), set_env_ptr(), set_env(), save_param(), get_rootid(), get_bootparam(),
 *    save_bootparam(), parse_firmware(), getDisposition_file(), process_file(), getDefaultRoute(),
 *    getDefGw() and open_socket_for_trap(). Flush it, redirect its descriptor to /dev/null, call
 *    the function, flush it again and restore the descriptor.
 *  - Only xmalloc(), xrealloc(), find_pid_by_name(), app_isrun(), is_runing(), get_leases(),
 *    my_getug(), my_getpwuid() and bb_error_msg_and_die() can end the process: see there. Any other
 *    function that runs out of memory reports a failure or a shorter result.
 *
 * The examples are bodies of main(), each compiled and run by the project's tests. Where an example
 * ends with lines that begin with `$`, these are the shell commands that run it, with their output.
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
/**
 * Makes the compiler check the calls of a function like printf().
 *
 * @param format the position of the format among the function's parameters, from 1.
 * @param first  the position of the first value to print, 0 for a function that takes a va_list.
 */
#define CORVEL_PRINTF_LIKE(format, first) __attribute__((__format__(__printf__, format, first)))
/** Tells the compiler that a function never returns. */
#define CORVEL_NORETURN __attribute__((__noreturn__))
#else
#define CORVEL_API
#define CORVEL_PRINTF_LIKE(format, first)
#define CORVEL_NORETURN
#endif

#ifdef __cplusplus
extern "C" {
#endif

/**
 * @defgroup text_primitives Text primitives
 * Small functions that work on the caller's buffers and allocate nothing.
 * @{
 */

/** Bytes of the buffer in which translate_control_code() builds its result. */
#define CORVEL_ATTRIBUTE_SIZE 200

/**
 * Tests whether two strings differ.
 *
 * @note This is a test of equality only: the result is never negative and gives no order.
 *
 * @code
 * assert(STRCMP("lan", "lan") == 0);
 * assert(STRCMP("lan", "wan") == 1);
 * assert(STRCMP("wan", "lan") == 1);
 * @endcode
 *
 * @param[in] a a string.
 * @param[in] b the string to compare it with.
 * @return whether they differ.
 * @retval 0 the strings are identical.
 * @retval 1 the strings differ.
 */
CORVEL_API unsigned int STRCMP(const char *a, const char *b);

/**
 * Removes at most one given character from each end of a string, in place.
 *
 * @note The two ends are tested independently: an opening quote is removed even if the closing one
 *       is missing, and `""a""` becomes `"a"`. A string of exactly one @p ch becomes empty.
 *
 * @code
 * char quoted[] = "\"10.0.0.1\"";
 * assert(strcmp(strip(quoted, '"'), "10.0.0.1") == 0);
 *
 * char twice[] = "\"\"a\"\"";
 * assert(strcmp(strip(twice, '"'), "\"a\"") == 0);
 * @endcode
 *
 * @param[in,out] str the string; its last character may be overwritten with a NUL. May be null.
 * @param[in]     ch  the character to remove, compared as a signed char.
 * @return the start of the stripped string: @p str or the character after it. It points into
 *         @p str and must not be freed. Null only if @p str is null.
 * @see strip_r()
 */
CORVEL_API char *strip(char *str, signed char ch);

/**
 * Copies a string and inserts a backslash before each double quote, backslash, dollar sign and
 * backquote.
 *
 * These are the characters that keep their meaning between the double quotes of a shell string; no
 * other character is escaped.
 *
 * @code
 * char escaped[2 * sizeof "pa$$word"];
 * assert(strcmp(add_escape("pa$$word", escaped), "pa\\$\\$word") == 0);
 * assert(strcmp(strip_escape(escaped, escaped), "pa$$word") == 0);
 * @endcode
 *
 * @param[in]  src the string; must not overlap @p dst.
 * @param[out] dst the escaped string: up to twice the length of @p src plus one byte.
 * @return @p dst.
 * @see strip_escape()
 */
CORVEL_API char *add_escape(const char *src, char *dst);

/**
 * Does the same as add_escape(), under another name.
 *
 * @param[in]  src the string; must not overlap @p dst.
 * @param[out] dst the escaped string: up to twice the length of @p src plus one byte.
 * @return @p dst.
 * @see add_escape()
 */
CORVEL_API char *str_regular(const char *src, char *dst);

/**
 * Undoes add_escape(): removes each backslash that precedes a double quote, backslash, dollar
 * sign or backquote.
 *
 * A backslash before any other character, or at the very end, is copied unchanged.
 *
 * @param[in]  src the string.
 * @param[out] dst the result: at most the length of @p src plus one byte. May be @p src itself.
 * @return @p dst.
 * @see add_escape()
 */
CORVEL_API char *strip_escape(const char *src, char *dst);

/**
 * Replaces each double quote by `&quot;`, in place, so that a string is safe inside a double-quoted
 * HTML attribute.
 *
 * No other character is translated. The result is built in CORVEL_ATTRIBUTE_SIZE bytes, the NUL
 * included: a longer one is truncated before the first character, or whole `&quot;`, that no longer
 * fits.
 *
 * @note A string without a double quote is left unchanged, regardless of its length.
 *
 * @code
 * char name[CORVEL_ATTRIBUTE_SIZE] = "the \"blue\" room";
 * translate_control_code(name);
 * assert(strcmp(name, "the &quot;blue&quot; room") == 0);
 * @endcode
 *
 * @param[in,out] str the string, in a buffer that holds the result: up to CORVEL_ATTRIBUTE_SIZE
 *                    bytes if it contains a double quote. May be null.
 * @return @p str.
 */
CORVEL_API char *translate_control_code(char *str);

/**
 * Takes the arguments of fprintf() and prints nothing: the disabled debug print.
 *
 * The library's listing functions call it; what they pass never reaches the output.
 *
 * @param[in] stream not used.
 * @param[in] fmt    not used; the compiler checks the values that follow against it.
 */
CORVEL_API void DFPrintf(FILE *stream, const char *fmt, ...) CORVEL_PRINTF_LIKE(2, 3);

/** @} */

/**
 * @defgroup property_table Property table
 *
 * A property file is a text file of lines of at most CORVEL_LINE_SIZE - 1 characters (1023), the
 * newline included; a longer line is read in pieces of 1023 characters, each as a line of its own.
 * The caller names the separator of the whole file: `'='`, `' '`, or anything else for a tab. For
 * each line:
 *  - A line that begins with `#` is a comment. A line with spaces before the `#` is an ordinary
 *    line.
 *  - If the string "setenv " occurs anywhere, reading continues after its first occurrence.
 *  - The first separator splits the rest. A line without one yields no row.
 *  - The name is the first word before the separator; the value is everything after it: quotes,
 *    spaces and a carriage return included. A value is truncated at 257 characters.
 *  - A last line without a newline is not read, unless it is a whole piece of 1023 characters.
 *  - A NUL ends the line; the rest of the line is skipped.
 *
 * Therefore a value that contains "setenv " is not read back under its name: the line is read from
 * after that string. A program that saves values from a request must refuse such a value, and one
 * with a newline, which would become a line of its own.
 *
 * Names are compared byte by byte. If several rows have the same name, the first one counts.
 * @{
 */

/**
 * Bytes of a buffer for one line of a property file or template: 1023 characters, the newline
 * included, and a NUL.
 */
#define CORVEL_LINE_SIZE 1024
/** `value_size` of a row that the library fills: a value has at most this many characters. */
#define CORVEL_PROP_VALUE_SIZE 257
/** Bytes that get_prop() may write: a value of at most 255 characters and a NUL. */
#define CORVEL_GET_PROP_SIZE 256

/**
 * One row of a property table: a name and its value.
 *
 * A property table is an array of rows that the caller declares, together with an `int` count of
 * the rows in use, which the caller keeps and passes to every call. The library never grows the
 * array and cannot know its capacity: provide a row for every line of the file, every pair of the
 * request and every row still to be inserted.
 */
typedef struct prop_entry {
    uint32_t name_size;  /**< Bytes at `name`: the length of the name plus one. In a row that
                              get_pr() or load_prop() filled, see get_pr(). */
    uint32_t value_size; /**< CORVEL_PROP_VALUE_SIZE. The block at `value` has one byte more, which
                              is always zero. The request decoders leave both sizes unchanged. */
    char *name;          /**< The name, on the heap. */
    char *value;         /**< The value as it is in the file, quotes included, on the heap. */
} prop_entry;

/**
 * Loads a property file into a table.
 *
 * @code
 * prop_entry rows[16];
 * const int count = load_prop('=', "lan.conf", rows);
 * char address[CORVEL_GET_PROP_SIZE] = "192.168.1.1"; // the default
 * get_prop("IPADDR", address, rows, count);
 * printf("%d rows, %s\n", count, address);
 * free_prop(rows, count);
 * // $ printf '#LAN\nNAME=lan\nsetenv IPADDR="10.0.0.1"\nno separator\n' >lan.conf
 * // $ ./example
 * // 2 rows, 10.0.0.1
 * @endcode
 *
 * @param[in]  sep   the separator: `'='`, `' '`, or any other character for a tab.
 * @param[in]  path  the file.
 * @param[out] table the caller's array, with room for every line of the file; filled from its first
 *                   row. Its size is not known here: rows after its end would be written. A row
 *                   takes at least 2 bytes of the file, so half the file's size in bytes is always
 *                   enough.
 * @return the number of rows filled. A row whose strings cannot be allocated is omitted.
 * @retval 0 the file cannot be opened, is a directory or has no row.
 * @see get_pr(), get_prop(), free_prop(), save_prop()
 */
CORVEL_API int load_prop(signed char sep, const char *path, prop_entry *table);

/**
 * Reads one line of a property file into a row.
 *
 * @code
 * char line[] = "  SSID  =\"My network\"";
 * prop_entry row;
 * assert(get_pr('=', line, &row) == 1);
 * assert(strcmp(row.name, "SSID") == 0);
 * assert(strcmp(row.value, "\"My network\"") == 0);
 * assert(row.name_size == sizeof "  SSID  "); // all characters before the separator count
 * free_prop(&row, 1);
 * @endcode
 *
 * @param[in]     sep  the separator, as in load_prop().
 * @param[in,out] line the line without its newline. It is split at the separator, which is
 *                     overwritten with a NUL.
 * @param[out]    row  the row to fill; its previous content is overwritten, not freed. `name_size`
 *                     becomes the length of everything before the separator plus one, not just of
 *                     the word that is the name.
 * @return whether the row was filled.
 * @retval 1 the row was filled.
 * @retval 0 the line is a comment or has no separator, or memory ran out: the row is unchanged and
 *           nothing leaks.
 * @see load_prop()
 */
CORVEL_API int get_pr(signed char sep, char *line, prop_entry *row);

/**
 * Looks up a value and removes one double quote from each of its ends.
 *
 * @code
 * prop_entry rows[2];
 * int count = ins_prop("SSID", "\"My network\"", rows, 0);
 * char value[CORVEL_GET_PROP_SIZE] = "default";
 * assert(get_prop("CHANNEL", value, rows, count) == NULL);
 * assert(strcmp(value, "default") == 0);
 * assert(get_prop("SSID", value, rows, count) == value);
 * assert(strcmp(value, "My network") == 0);
 * free_prop(rows, count);
 * @endcode
 *
 * @param[in]  name  the name.
 * @param[out] dst   the value: CORVEL_GET_PROP_SIZE bytes. A value of 256 or more characters is
 *                   truncated to its first 255 before the quotes are removed. Unchanged if no row
 *                   has the name.
 * @param[in]  table the rows.
 * @param[in]  count the number of rows.
 * @return @p dst, or null if no row has the name.
 * @see set_prop(), strip()
 */
CORVEL_API char *get_prop(const char *name, char *dst, const prop_entry *table, int count);

/**
 * Changes the value of the first row that has a name; never adds a row.
 *
 * At most `value_size` - 1 characters are kept: 256. No more than `value_size` bytes of the value
 * are read.
 *
 * @note Do not use it for rows that a request decoder filled: see @ref request.
 *
 * @code
 * prop_entry rows[1];
 * const int count = ins_prop("MTU", "1500", rows, 0);
 * assert(set_prop("MTU", "1492", rows, count) == 0);
 * assert(strcmp(rows[0].value, "1492") == 0);
 * assert(set_prop("SSID", "x", rows, count) == count); // no such row
 * free_prop(rows, count);
 * @endcode
 *
 * @param[in]     name  the name.
 * @param[in]     value the new value.
 * @param[in,out] table the rows.
 * @param[in]     count the number of rows.
 * @return the index of the row, or @p count if no row has the name.
 * @see ins_prop()
 */
CORVEL_API int set_prop(const char *name, const char *value, prop_entry *table, int count);

/**
 * Sets a value, and adds a row at index @p count if no row has the name.
 *
 * The whole block of an existing value is zeroed before the value is written, and at most 256
 * characters are kept; a new row keeps at most CORVEL_PROP_VALUE_SIZE characters (257). No more
 * bytes of the value are read than the block of the row's value holds.
 *
 * @note Do not use it for rows that a request decoder filled: see @ref request.
 *
 * @code
 * prop_entry rows[2];
 * int count = 0;
 * count = ins_prop("MTU", "1500", rows, count);
 * count = ins_prop("SSID", "My network", rows, count);
 * count = ins_prop("MTU", "1492", rows, count);
 * assert(count == 2);
 * assert(strcmp(rows[0].value, "1492") == 0);
 * free_prop(rows, count);
 * @endcode
 *
 * @param[in]     name  the name.
 * @param[in]     value the value.
 * @param[in,out] table the rows, with room for one more.
 * @param[in]     count the number of rows.
 * @return the new count: @p count if a row has the name or the new row could not be allocated,
 *         @p count + 1 if a row was added.
 * @see set_prop(), ins_pr()
 */
CORVEL_API int ins_prop(const char *name, const char *value, prop_entry *table, int count);

/**
 * Fills one row.
 *
 * @code
 * prop_entry row;
 * assert(ins_pr("NAME", "lan", &row, 0) == 1);
 * assert(row.name_size == sizeof "NAME" && row.value_size == CORVEL_PROP_VALUE_SIZE);
 * free_prop(&row, 1);
 * @endcode
 *
 * @param[in]  name  the name.
 * @param[in]  value the value; truncated at CORVEL_PROP_VALUE_SIZE characters (257), of which the
 * last need not be followed by a NUL.
 * @param[out] row   the row; its previous content is overwritten, not freed.
 * @param[in]  count not used.
 * @return whether the row was filled.
 * @retval 1 the row was filled.
 * @retval 0 memory ran out: the row is unchanged.
 * @see ins_prop()
 */
CORVEL_API int ins_pr(const char *name, const char *value, prop_entry *row, int count);

/**
 * Passes each row to DFPrintf(), so prints nothing.
 *
 * @param[in] table the rows.
 * @param[in] count the number of rows.
 * @return 0.
 * @see DFPrintf()
 */
CORVEL_API int dump_prop(const prop_entry *table, int count);

/**
 * Frees the strings of every row and sets their pointers to null.
 *
 * The sizes stay unchanged. Calling it twice is harmless.
 *
 * @param[in,out] table the rows; the array itself is not freed.
 * @param[in]     count the number of rows.
 * @return 1.
 */
CORVEL_API int free_prop(prop_entry *table, int count);

/** @} */

/**
 * @defgroup configuration_saving Configuration saving
 *
 * Both writers, save_prop() and save_global_conf(), lock the companion file `path` + ".lck", write
 * the whole new content into a copy, `path` + ".cgi", remove `path` and rename the copy to `path`.
 *
 * **Promises.** A process that dies leaves the old file whole or, if it has already removed that,
 * the copy whole. Writers that can open the lock file do not rewrite the file at the same time.
 * While there is no file at `path`, nothing but the lock file is touched, so that a copy that may
 * be the only one left stays. Each copy is a new file (mode 0600), which no other process has open.
 * A writer waits for the lock file as long as another process holds it, for half a second for a
 * lock file that it has no permission to open or a copy that is in use, and for nothing else.
 *
 * **Mode and owner.** The new file has the mode and, as far as the process may set them, the owner
 * and group of the old one. If the owner cannot be kept, set-user-ID and set-group-ID bits are
 * dropped. If the group cannot be kept, its permissions are reduced to those of others.
 *
 * **Failures.** If `path` cannot be read or is not a regular file, if the copy cannot be written
 * whole (a full disk) or if the mode cannot be set, the old file stays unchanged and the copy is
 * removed. A file that already has the copy's name, such as a copy that a killed process left, is
 * removed first; a symbolic link there is not followed, and if there is a directory, nothing is
 * saved. If the name of a companion file does not fit its buffer (CORVEL_PATH_SIZE bytes;
 * CORVEL_GLOBAL_CONF_COPY_SIZE for the copy in save_global_conf()), every file is left untouched.
 *
 * **The lock file** is created with mode 0600. One that root creates belongs to the owner of `path`
 * or, while there is only the copy, of the copy; one that root creates while there is neither stays
 * root's. It is emptied, unless it has a second name: keep nothing in it. It counts as a lock file
 * that cannot be opened if it is a symbolic link or not a regular file, or if its owner is none of
 * the effective user, root, the owner of `path` and the owner of the directory: these are trusted.
 * Each of them can hold its lock, and so make every writer wait. A lock file that is removed or
 * replaced 100 times while a writer waits for its lock counts as one that cannot be opened, too.
 *
 * **Without the lock file**, a writer proceeds, but saves nothing if another writer is at work on
 * the copy or has replaced it, or if anything but a regular file has the copy's name. A writer with
 * the lock file waits for half a second for a writer without it. Then it saves nothing or, if the
 * owner of the copy is not trusted, replaces the copy: if that owner's writer is alive, both the
 * file and the copy may be lost. A writer that looks for the file at the moment when a writer
 * without the lock file has removed it saves nothing.
 *
 * **Not promised.**
 *  - Threads: a lock belongs to the process, so two threads must not save the same file at once. No
 *    thread may open and close the lock file during a save; a second name of the lock file must be
 *    neither `path` nor the copy.
 *  - Readers take no lock: between the removal and the renaming there is no file at `path`.
 *  - A symbolic link at `path` is replaced by a file; the file that it pointed to stays unchanged.
 *  - An access control list is not kept. If the old file has one, the group's permissions are
 *    reduced to those of others, since its mode shows the list's mask in their place.
 *  - Nothing is flushed to the device: after a power loss the file may be empty or missing. Call
 *    sync() where that matters.
 *
 * A copy without a file is all that a killed process left: with the writers stopped, rename it to
 * `path`. A copy next to a file is worthless; the next save removes it.
 *
 * Lines are read as described for the @ref property_table "property table": a line of more than
 * 1023 characters is read in pieces, a last line without a newline is dropped, and after a NUL no
 * key is looked for. A line's key is everything before the first separator, or the whole line if
 * it has none; a prefix such as "setenv " belongs to the key.
 * @{
 */

/** Bytes that hold the name of a companion file, the NUL included. */
#define CORVEL_PATH_SIZE 1024
/** Bytes that hold the copy's name in save_global_conf(), the NUL included. */
#define CORVEL_GLOBAL_CONF_COPY_SIZE 255

/**
 * Rewrites the lines of a property file whose keys are names of table rows.
 *
 * Such a line becomes: name, separator, `"`, value, `"`. All other lines are copied; rows without a
 * line are not added. The lock file stays.
 *
 * @note
 *  - The value is written exactly as it is in the table: neither escaped nor stripped, and checked
 *    neither for "setenv " nor for a newline.
 *  - If several rows have the name, the last one is written.
 *  - The last character of each line read is replaced by a newline, regardless of what it is: a
 *    piece of an overlong line loses its 1023rd character.
 *
 * @code
 * prop_entry rows[4];
 * int count = ins_prop("IPADDR", "10.0.0.1", rows, 0);
 * count = ins_prop("GATEWAY", "10.0.0.254", rows, count); // not in the file: not added
 * save_prop('=', "lan.conf", rows, count);
 * free_prop(rows, count);
 * // $ printf 'NAME=lan\nIPADDR="192.168.1.1"\n' >lan.conf
 * // $ ./example
 * // $ cat lan.conf
 * // NAME=lan
 * // IPADDR="10.0.0.1"
 * @endcode
 *
 * @param[in] sep   the separator, used as given.
 * @param[in] path  the file. If it cannot be read it is left unchanged, and it is never created.
 * @param[in] table the rows.
 * @param[in] count the number of rows.
 * @return 1, even if nothing was written: read the file again to see what it contains.
 * @see load_prop(), save_global_conf(), save_config()
 */
CORVEL_API int save_prop(signed char sep, const char *path, const prop_entry *table, int count);

/**
 * Sets one setting in a property file, and adds a line if no line has the name as its key.
 *
 * A line that is replaced becomes: prefix, name, separator, `"`, value, `"`. A line that is added
 * becomes: prefix, name, separator, value, without quotes.
 *
 * The lock file is removed at the end, unless another writer has taken it; one that was never
 * locked stays.
 *
 * @note
 *  - With a prefix that is not empty, a line that was written before never matches, so each call
 *    adds a line.
 *  - The key of a line without the separator includes the newline, so that no usual name matches
 *    it.
 *  - A last line without a newline is dropped even if it is the line for @p name, which then
 *    disappears.
 *
 * @code
 * save_global_conf('=', "global.conf", "", "MODE", "bridge"); // replaces a line
 * save_global_conf('=', "global.conf", "", "DEBUG", "1");     // adds one
 * // $ printf 'MODE=router\n' >global.conf
 * // $ ./example
 * // $ cat global.conf
 * // MODE="bridge"
 * // DEBUG=1
 * @endcode
 *
 * @param[in] sep    the separator: `'='`, `' '`, or any other character for a tab.
 * @param[in] path   the file. If it cannot be read it is left unchanged, and it is never created.
 * @param[in] prefix a string that is written before the name; may be empty.
 * @param[in] name   the name.
 * @param[in] value  the value, written unchanged.
 * @return 1, even if nothing was written: read the file again to see what it contains.
 * @see save_prop()
 */
CORVEL_API int save_global_conf(signed char sep, const char *path, const char *prefix,
                                const char *name, const char *value);

/**
 * Starts the configuration client in the background: system("/sbin/configclient  &").
 *
 * @note The client inherits the program's open descriptors. As long as it holds standard output,
 *       the web server does not see the end of the response: redirect the descriptor to /dev/null
 *       for this call, with FD_CLOEXEC on the duplicate that is kept.
 *
 * @return the result of system(): the shell's wait status, or -1 if no process could be created.
 */
CORVEL_API int save_config(void);

/**
 * Computes the prefix length of a dotted netmask.
 *
 * Each of the four octets (its decimal value, low 8 bits) adds 8 minus the number of its trailing
 * zero bits. For an octet of a valid mask that is the number of its one bits. A missing octet adds
 * nothing.
 *
 * @code
 * assert(calc_netpriexlength("255.255.255.0") == 24);
 * assert(calc_netpriexlength("255.255") == 16);
 * assert(calc_netpriexlength("1.0.0.0") == 8); // not a valid mask
 * @endcode
 *
 * @param[in] mask the netmask, such as "255.255.255.0".
 * @return the prefix length, 0 to 32.
 */
CORVEL_API int calc_netpriexlength(const char *mask);

/** @} */

/**
 * @defgroup field_list Field list
 * Names and values in insertion order, from which pages and JSON are printed.
 * @{
 */

/** Bytes of a field's name: 254 characters and a NUL. */
#define CORVEL_FIELD_NAME_SIZE 255
/** Bytes of a field's value: 4096 characters and a NUL. */
#define CORVEL_FIELD_VALUE_SIZE 4097

/**
 * One field of a field list: a name of at most 254 characters, a value of at most 4096.
 *
 * A list is held through a pointer to its first record; a null pointer is the empty list. Order is
 * insertion order, and names need not be unique. The name is at the record's first byte, so a
 * record's address is also the address of its name.
 */
typedef struct str_node {
    char name[CORVEL_FIELD_NAME_SIZE];   /**< The field's name. */
    char value[CORVEL_FIELD_VALUE_SIZE]; /**< The field's value. */
    struct str_node *next;               /**< The next record, or null. */
} str_node;

/**
 * Allocates a block whose bytes are all zero.
 *
 * @code
 * char *block = (char *)get_buffer(4);
 * assert(block != NULL && memcmp(block, "\0\0\0\0", 4) == 0);
 * strcpy(block, "key");
 * free_buffer(block, 4); // overwrites it with zeros first
 * @endcode
 *
 * @param[in] size its size in bytes.
 * @return the block, which the caller releases with free_buffer() or free(); null if memory ran
 *         out.
 */
CORVEL_API void *get_buffer(uint32_t size);

/**
 * Overwrites a block with zeros and frees it.
 *
 * @param[in] block the block; null is ignored.
 * @param[in] size  the number of bytes to overwrite, at most the size of the block.
 * @return 0.
 * @see get_buffer()
 */
CORVEL_API int free_buffer(void *block, uint32_t size);

/**
 * Appends a field to a list.
 *
 * The whole list is walked each time.
 *
 * @code
 * str_node *fields = NULL;
 * add_str(&fields, "title", "Status");
 * add_str(&fields, "host", "router");
 * assert(strcmp(fields->name, "title") == 0);
 * assert(strcmp(fields->next->value, "router") == 0);
 * free_list(&fields);
 * assert(fields == NULL);
 * @endcode
 *
 * @param[in,out] head  the address of the list's head pointer.
 * @param[in]     name  the name; truncated at 254 characters.
 * @param[in]     value the value; truncated at 4096 characters.
 * @return the new record if the list was empty, otherwise the new record's value; null if memory
 *         ran out, in which case the list is unchanged. The list owns both.
 * @see free_list(), print_html(), list2json()
 */
CORVEL_API void *add_str(str_node **head, const char *name, const char *value);

/**
 * Frees every record of a list.
 *
 * @param[in,out] head the address of the list's head pointer, which is null afterwards.
 */
CORVEL_API void free_list(str_node **head);

/**
 * Removes and frees the first field that has a name.
 *
 * Nothing happens if no field has it.
 *
 * @code
 * str_node *fields = NULL;
 * add_str(&fields, "a", "1");
 * add_str(&fields, "b", "2");
 * delete_string(&fields, "a");
 * assert(strcmp(fields->name, "b") == 0 && fields->next == NULL);
 * delete_string(&fields, fields->name); // the record's own name
 * assert(fields == NULL);
 * @endcode
 *
 * @param[in,out] head the address of the list's head pointer.
 * @param[in]     name the name; may be that of the record itself.
 */
CORVEL_API void delete_string(str_node **head, const char *name);

/**
 * Finds the first field whose name is a prefix of a string.
 *
 * @note The first field in list order is found, not the longest name, and nothing needs to follow
 *       the name: of `ip` and `ipaddr`, in that order, `ipaddr` finds `ip`. An empty name is a
 *       prefix of any string.
 *
 * @code
 * str_node *fields = NULL;
 * add_str(&fields, "ip", "10.0.0.1");
 * add_str(&fields, "ipaddr", "never found");
 * assert(find_keyword("ipaddr is set", fields) == fields);
 * assert(find_keyword("mask", fields) == NULL);
 * free_list(&fields);
 * @endcode
 *
 * @param[in] text the string.
 * @param[in] head the list; may be null.
 * @return the record, which the list owns; null if there is none.
 */
CORVEL_API str_node *find_keyword(const char *text, str_node *head);

/**
 * Replaces a marker, `$` followed by the record's name, by the record's value, in place.
 *
 * @code
 * str_node *fields = NULL;
 * char text[32] = "$host.lan";
 * add_str(&fields, "host", "router");
 * change_keyword(text, find_keyword(text + 1, fields));
 * assert(strcmp(text, "router.lan") == 0);
 * free_list(&fields);
 * @endcode
 *
 * @param[in,out] text   the string, starting at the `$`, in a buffer with room for the result.
 * @param[in]     record the record whose name follows the `$`.
 * @return @p text.
 */
CORVEL_API char *change_keyword(char *text, const str_node *record);

/** @} */

/**
 * @defgroup request Request decoding
 *
 * The decoders turn a URL-encoded request into rows of a property table, in request order; pairs
 * with the same name are not merged. They set each row's name and value to heap copies of the
 * decoded strings and leave the two size fields unchanged; free_prop() releases the strings. The
 * table must have room for every pair, since its size is not known here: a body or a query of n
 * bytes has at most (n + 1) / 2. Zero the array first: set_prop() and ins_prop() rely on the sizes;
 * they change nothing in a row whose size is 0, but write out of bounds if it is uninitialized.
 *
 * A name ends at `=` only (`flag&x=1` is one pair, named `flag&x`), a value at `&`. A word is
 * truncated at 127 characters (name) or 255 (value) before it is decoded; the rest of it is
 * skipped. A last word without `=` is stored with an empty value, but an empty one (after a
 * trailing `&`, or of an empty query) is not stored. `+` becomes a space; then `%` and the two
 * characters after it, hexadecimal digits or not, become one byte; a `%` with fewer than two
 * characters after it is kept. A decoded NUL ends the string.
 *
 * A program that responds without having read the body must read the rest of it first: otherwise
 * some web servers, such as nginx with fcgiwrap, send an error (502) in place of the response.
 * @{
 */

/** Bytes that hold a request's name: 127 characters and a NUL. */
#define CORVEL_REQUEST_NAME_SIZE 128
/** Bytes that hold a request's value: 255 characters and a NUL. */
#define CORVEL_REQUEST_VALUE_SIZE 256
/** The number of pairs among which isajax_get() looks for its field. */
#define CORVEL_AJAX_PAIRS 2048
/** Bytes of the buffer that get_val_awk() returns. */
#define CORVEL_GET_VAL_AWK_SIZE 4096

/**
 * Reads the request body from standard input: exactly CONTENT_LENGTH bytes.
 *
 * It waits for them without a limit. A signal whose handler was installed without SA_RESTART ends
 * the wait, and the body is refused; with SA_RESTART the wait continues. To bound a slow body, call
 * alarm(): without a handler it ends the process, and with one that has no SA_RESTART the program
 * can still respond. The same holds for the other functions that read a body.
 *
 * There is no upper limit on the length.
 *
 * @code
 * char *body = read_queue();
 * assert(body != NULL);
 * printf("%s\n", body);
 * free_buff(body, (uint32_t)strlen(body));
 * // $ printf 'a=1&b=2' | REQUEST_METHOD=POST CONTENT_LENGTH=7 ./example
 * // a=1&b=2
 * @endcode
 *
 * @return the body followed by a NUL, in a heap block of CONTENT_LENGTH + 1 bytes that the caller
 *         releases with free_buff(). Null if REQUEST_METHOD or CONTENT_LENGTH is not set, if the
 *         method is GET in any case of letters, if the length is 0 or negative, if memory ran out,
 *         or if fewer bytes arrive.
 * @see process_queue(), read_queue_for_upload()
 */
CORVEL_API char *read_queue(void);

/**
 * Does the same as free_buffer(), under another name.
 *
 * @param[in] block the block; null is ignored.
 * @param[in] size  the number of bytes to overwrite, at most the size of the block.
 * @return 0.
 * @see free_buffer()
 */
CORVEL_API int free_buff(void *block, uint32_t size);

/**
 * Decodes a POST: the pairs of the body, then those of QUERY_STRING.
 *
 * QUERY_STRING and HTTP_REFERER are removed from the environment, except after a GET, which yields
 * nothing here.
 *
 * @code
 * static prop_entry form[16]; // all zero
 * const int count = process_queue(form);
 * for (int i = 0; i < count; ++i)
 *     printf("%s: %s\n", form[i].name, form[i].value);
 * free_prop(form, count);
 * // $ export REQUEST_METHOD=POST CONTENT_LENGTH=14 QUERY_STRING=page=lan
 * //   printf 'name=My+net%%21' | ./example
 * // name: My net!
 * // page: lan
 * @endcode
 *
 * @param[out] table the rows to fill, from the first one. For a body of m bytes and a query of n,
 *                   at most (m + 1) / 2 + (n + 1) / 2 are written.
 * @return the number of pairs stored. A pair whose strings cannot be allocated is omitted.
 * @retval 0 there are no pairs, the request is a GET without a body, or the scratch buffers cannot
 *           be allocated.
 * @see process_queue_get(), get_prop(), free_prop()
 */
CORVEL_API int process_queue(prop_entry *table);

/**
 * Decodes a GET: the pairs of QUERY_STRING.
 *
 * QUERY_STRING and HTTP_REFERER are removed from the environment.
 *
 * @code
 * static prop_entry query[8]; // all zero
 * setenv("REQUEST_METHOD", "GET", 1);
 * setenv("QUERY_STRING", "id=7&flag", 1);
 * const int count = process_queue_get(query);
 * assert(count == 2 && getenv("QUERY_STRING") == NULL);
 * assert(strcmp(query[0].value, "7") == 0);
 * assert(strcmp(query[1].name, "flag") == 0 && query[1].value[0] == '\0');
 * free_prop(query, count);
 * @endcode
 *
 * @param[out] table the rows to fill, from the first one: at most (n + 1) / 2 for a query of n
 *                   bytes.
 * @return the number of pairs stored. A pair whose strings cannot be allocated is omitted.
 * @retval 0 there are no pairs, the request is a POST in any case of letters, which leaves the
 *           environment unchanged, or the scratch buffers cannot be allocated.
 * @see process_queue(), process_query_string()
 */
CORVEL_API int process_queue_get(prop_entry *table);

/**
 * Decodes the pairs of QUERY_STRING, regardless of the method, and leaves the environment
 * unchanged.
 *
 * @code
 * static prop_entry query[8]; // all zero
 * setenv("QUERY_STRING", "x=%41%zz%4", 1); // neither "zz" nor a single character is refused
 * const int count = process_query_string(query);
 * assert(count == 1 && getenv("QUERY_STRING") != NULL);
 * assert(strcmp(query[0].value, "A\x53%4") == 0);
 * free_prop(query, count);
 * @endcode
 *
 * @param[out] table the rows to fill, from the first one: at most (n + 1) / 2 for a query of n
 *                   bytes.
 * @return the number of pairs stored. A pair whose strings cannot be allocated is omitted.
 * @retval 0 there are no pairs, or the scratch buffers cannot be allocated.
 * @see process_queue_get()
 */
CORVEL_API int process_query_string(prop_entry *table);

/**
 * Copies a string up to a stop character.
 *
 * What follows the stop character is not read: a loop that takes all words of a string takes time
 * in proportion to its length.
 *
 * @code
 * char word[sizeof "lan,wan"];
 * char *rest = NULL;
 * makeword(word, "lan,wan", ',', &rest);
 * assert(strcmp(word, "lan") == 0 && strcmp(rest, "wan") == 0);
 * makeword(word, rest, ',', &rest);
 * assert(strcmp(word, "wan") == 0 && rest == NULL);
 * @endcode
 *
 * @param[out] dst  the word, terminated; must hold the whole of it. May be @p src.
 * @param[in]  src  the string.
 * @param[in]  stop the stop character.
 * @param[out] rest the position after the stop character, or null if the string ended first.
 * @return @p dst.
 */
CORVEL_API char *makeword(char *dst, const char *src, char stop, char **rest);

/**
 * Replaces every `+` by a space, in place.
 *
 * @param[in,out] text the string.
 * @return @p text.
 * @see unescape_url()
 */
CORVEL_API char *plustospace(char *text);

/**
 * Decodes `%` and the two characters after it into one byte, in place.
 *
 * @code
 * char text[] = "a+b%26c%";
 * unescape_url(plustospace(text));
 * assert(strcmp(text, "a b&c%") == 0);
 * @endcode
 *
 * @param[in,out] text the string. A `%` with fewer than two characters after it is kept.
 * @return @p text.
 * @see x2c(), plustospace()
 */
CORVEL_API char *unescape_url(char *text);

/**
 * Computes the byte that two hexadecimal digits represent.
 *
 * Nothing is validated: a character below 'A' counts as its code minus '0', any other as its code
 * without bit 0x20, minus 55. The sum of 16 times the first and the second is reduced to 8 bits.
 * Characters above 127 count as negative.
 *
 * @code
 * assert(x2c("4a") == 'J' && x2c("4A") == 'J');
 * assert(x2c("zz") == 0x53); // not digits: 16 * 35 + 35, low 8 bits
 * @endcode
 *
 * @param[in] digits two characters; if the first is a NUL, the second is not read and counts as
 *                   NUL.
 * @return the byte, signed.
 */
CORVEL_API signed char x2c(const char *digits);

/**
 * Tests whether a request method is POST, in any case of letters.
 *
 * @param[in] method the method's name; may be null.
 * @return whether it is POST.
 * @retval 1 the method is "POST".
 * @retval 0 it is another one, or null.
 */
CORVEL_API int get_http_methmod(const char *method);

/**
 * Detects an Ajax GET: returns the number in the query string's field "Ajax".
 *
 * The field's name must be in the query string as it is, not encoded. Only the first
 * CORVEL_AJAX_PAIRS pairs are searched. The environment is left unchanged.
 *
 * @code
 * setenv("REQUEST_METHOD", "GET", 1);
 * setenv("QUERY_STRING", "page=lan&Ajax=2", 1);
 * assert(isajax_get() == 2);
 * setenv("REQUEST_METHOD", "POST", 1);
 * assert(isajax_get() == 0);
 * @endcode
 *
 * @return the field's value, one double quote removed from each end, as atoi() reads it, limited to
 *         the range of an int.
 * @retval 0 the method is not GET, there is no such field, it is not a number, or it is 0.
 */
CORVEL_API int isajax_get(void);

/**
 * Tests whether REQUEST_METHOD is exactly "POST" and the program's first argument is the expected
 * one.
 *
 * @code
 * char *arguments[] = {argv[0], argv[0], NULL};
 * setenv("REQUEST_METHOD", "POST", 1);
 * assert(isnormal_post(2, arguments, argv[0]) == 1);
 * assert(isnormal_post(2, arguments, "save") == 0);
 * setenv("REQUEST_METHOD", "post", 1);
 * assert(isnormal_post(2, arguments, argv[0]) == 0);
 * @endcode
 *
 * @param[in] argc     the number of arguments, the program's name included.
 * @param[in] argv     the arguments.
 * @param[in] expected the string that argv[1] must equal.
 * @return whether both hold.
 * @retval 1 both hold.
 * @retval 0 one of them does not, or there is no argv[1].
 */
CORVEL_API int isnormal_post(int argc, char **argv, const char *expected);

/**
 * Prints the environment to standard output, one entry a line.
 *
 * @return the result of the last puts(); 0 if the environment is empty.
 */
CORVEL_API int myprintevn(void);

/**
 * Runs a shell command and returns the first line of its output, newline included.
 *
 * @warning The command is passed to the shell unchanged: never build it from a request.
 *
 * @code
 * assert(strcmp(get_val_awk("echo up; echo second line"), "up\n") == 0);
 * assert(strcmp(get_val_awk("true"), "") == 0); // no output
 * @endcode
 *
 * @param[in] command the command.
 * @return a static buffer of CORVEL_GET_VAL_AWK_SIZE bytes that all calls share, with at most 4095
 *         characters of the line; empty if the command printed nothing. If the command cannot be
 *         started, the buffer is unchanged.
 */
CORVEL_API char *get_val_awk(const char *command);

/** @} */

/**
 * @defgroup page_template Page templates
 * Responses from template files that contain markers, and hidden form inputs.
 * @{
 */

/**
 * Copies a template file to standard output and fills its markers from a field list.
 *
 * A marker is a `$` followed by a field's name; there is no closing delimiter and no escape. Lines
 * are read in pieces of at most 1023 characters, each filled on its own: a marker that is split
 * between two pieces is not recognized. For each `$`, from left to right, the string after it is
 * looked up as find_keyword() does. A field that is found replaces the marker and is removed from
 * the list, so that it fills only the first marker that names it; otherwise the `$` stays. The
 * search continues one character after the position of the `$`: a marker inside a value is filled
 * too, unless the value begins with it, and after an empty value one character is skipped.
 *
 * The filled form of a line may have any length. Each `$` costs a walk through the remaining
 * fields.
 *
 * @note
 *  - Nothing is escaped: escape values for HTML before they are added to the list.
 *  - A NUL in a line ends it: the rest of the line is not printed, and neither is its newline.
 *  - Only if memory for values inside values runs out, a value is written unchanged, its own
 *    markers unfilled.
 *
 * @code
 * str_node *fields = NULL;
 * add_str(&fields, "name", "router");
 * print_html("page.html", &fields);
 * assert(fields == NULL); // the only field was used
 * // $ printf '<h1>$name</h1>\n<p>$name</p>\n' >page.html
 * // $ ./example
 * // <h1>router</h1>
 * // <p>$name</p>
 * @endcode
 *
 * @param[in]     path the template.
 * @param[in,out] list the address of the list's head pointer, or null for no fields. The caller
 *                     frees the fields that are left in the list.
 * @return 0, even if the template cannot be opened: then nothing is printed and the list is
 *         unchanged.
 * @see add_str(), find_keyword(), free_list()
 */
CORVEL_API int print_html(const char *path, str_node **list);

/**
 * Passes each field to DFPrintf(), so prints nothing.
 *
 * @param[in] list the list; may be null.
 * @return 0.
 * @see DFPrintf()
 */
CORVEL_API int print_list(const str_node *list);

/**
 * Prints a hidden form input for each field.
 *
 * Its value is the marker `$name`, for print_html() to fill later, not the field's value.
 *
 * @code
 * str_node *fields = NULL;
 * add_str(&fields, "page", "lan");
 * generate_hidder_from_list(fields);
 * free_list(&fields);
 * // $ ./example
 * // <input type="hidden" name="page" value="$page">
 * @endcode
 *
 * @param[in] list the list; may be null.
 * @return 0.
 * @see generate_hidder_from_prop()
 */
CORVEL_API int generate_hidder_from_list(const str_node *list);

/**
 * Prints a hidden form input for each row, and then each row's name in double quotes.
 *
 * The value of an input is the string `${name}`. Each name is followed by a comma and is on a line
 * of its own.
 *
 * @code
 * prop_entry rows[1];
 * const int count = ins_prop("MTU", "1500", rows, 0);
 * generate_hidder_from_prop(rows, count);
 * free_prop(rows, count);
 * // $ ./example
 * // <input type="hidden" name="MTU" value="${MTU}">
 * // "MTU",
 * @endcode
 *
 * @param[in] table the rows.
 * @param[in] count the number of rows.
 * @return 0.
 * @see generate_hidder_from_list()
 */
CORVEL_API int generate_hidder_from_prop(const prop_entry *table, int count);

/** @} */

/**
 * @defgroup json_output JSON output
 *
 * A document is one object of sections; a section is a named array that contains one object of
 * pairs. Names and values are written unchanged, without escaping: the caller escapes a value that
 * contains a double quote, a backslash or a control character, or the document cannot be parsed. A
 * value that add_escape() made is no exception: JSON has no backslash before a dollar sign or a
 * backquote.
 * @{
 */

/**
 * Prints the start of a section: tab, the name in double quotes, ": [" and a newline.
 *
 * @param[in] name the section's name.
 * @return the result of printf().
 * @see printjson_hdr()
 */
CORVEL_API int printjson_hdr0(const char *name);

/**
 * Prints a tab and "{".
 *
 * @return the result of printf().
 * @see printjson_hdr()
 */
CORVEL_API int printjson_hdr1(void);

/**
 * Prints what printjson_hdr0() and then printjson_hdr1() print: opens a section.
 *
 * @code
 * str_node *fields = NULL;
 * add_str(&fields, "state", "up");
 * puts("{");
 * printjson_hdr("wan");
 * list2json_data(fields);
 * printjson_tail();
 * puts("\n}");
 * free_list(&fields);
 * // $ ./example | tr -d '\n\t'
 * // {"wan": [{"state":"up"}]}
 * @endcode
 *
 * @param[in] name the section's name.
 * @return the result of the second printf().
 * @see printjson_tail()
 */
CORVEL_API int printjson_hdr(const char *name);

/**
 * Prints "}".
 *
 * @return the result of putchar().
 * @see printjson_tail()
 */
CORVEL_API int printjson_tail0(void);

/**
 * Prints a tab and "]".
 *
 * @return the result of printf().
 * @see printjson_tail()
 */
CORVEL_API int printjson_tail1(void);

/**
 * Closes a section: prints newline, tab, "}", newline, tab, "]".
 *
 * @return the result of the last printf().
 * @see printjson_hdr()
 */
CORVEL_API int printjson_tail(void);

/**
 * Prints the fields of a list as pairs: tab, "name":"value".
 *
 * A comma and a newline separate two pairs; nothing precedes the first or follows the last.
 *
 * @param[in] list the fields; may be null.
 * @see printjson_hdr(), list2json()
 */
CORVEL_API void list2json_data(const str_node *list);

/**
 * Prints a whole document of one section, without a newline after the final "}".
 *
 * @code
 * str_node *fields = NULL;
 * add_str(&fields, "state", "up");
 * add_str(&fields, "mtu", "1500");
 * list2json(fields, "wan");
 * free_list(&fields);
 * // $ ./example | tr -d '\n\t'
 * // {"wan": [{"state":"up","mtu":"1500"}]}
 * @endcode
 *
 * @param[in] list the fields; for null an empty object is printed.
 * @param[in] name the section's name.
 * @return the result of the last printf().
 * @see add_str(), prop2json()
 */
CORVEL_API int list2json(const str_node *list, const char *name);

/**
 * Prints the rows of a table as pairs, as list2json_data() does, one double quote removed from each
 * end of each value.
 *
 * @note Do not use it for a file whose values were saved with add_escape(): print a field list of
 *       values from which get_prop() removed the quotes and strip_escape() the backslashes, escaped
 *       for JSON by your own code.
 *
 * @code
 * prop_entry rows[2];
 * int count = ins_prop("SSID", "\"My network\"", rows, 0);
 * count = ins_prop("CHANNEL", "11", rows, count);
 * prop2json(rows, count);
 * free_prop(rows, count);
 * // $ ./example | tr -d '\n\t'
 * // "SSID":"My network","CHANNEL":"11"
 * @endcode
 *
 * @param[in] table the rows.
 * @param[in] count the number of rows.
 * @return 0.
 * @see list2json_data()
 */
CORVEL_API int prop2json(const prop_entry *table, int count);

/** @} */

/**
 * @defgroup upload Upload intake
 *
 * A multipart upload is read whole, preceded by its boundary so that the first part is found like
 * every other one, and then split into its files. Header names are matched case-sensitively,
 * anywhere between two boundaries: a content that contains "Content-Type:" loses its start, that
 * line included. A part without that header, as some clients send a file, is skipped, and the
 * content of a part with further headers after it begins within these.
 *
 * getDisposition_file() and process_file() print bytes that the client chose, even for a form
 * without a file: keep standard output out of the response while they run.
 * @{
 */

/** The largest upload that read_queue_for_upload1() accepts, in bytes: 16 MiB. */
#define CORVEL_UPLOAD_MAX 16777216
/** The largest upload in bytes for which read_queue_for_upload1() does not pause. */
#define CORVEL_UPLOAD_MAX_UNPAUSED 6144
/** The number of records that process_file() takes, and the most files that it stores. */
#define CORVEL_UPLOAD_FILES 4
/** Bytes of an uploaded file's name. */
#define CORVEL_UPLOAD_NAME_SIZE 255
/** Bytes of an uploaded file's content type. */
#define CORVEL_UPLOAD_TYPE_SIZE 255
/** Bytes of an uploaded file's transfer encoding. */
#define CORVEL_UPLOAD_ENCODING_SIZE 258
/** The most characters of a part's header value that are kept, if the record's field holds them. */
#define CORVEL_UPLOAD_HEADER_MAX 256

/** The bytes from the next boundary on in which the end of a part's header line is looked for. */
#define CORVEL_UPLOAD_LINE_REACH 16384

/** One file of an upload. The record contains its strings; only the content is on the heap. */
typedef struct prop_file {
    /** The file's name as the client sent it: never trust its path. */
    char filename[CORVEL_UPLOAD_NAME_SIZE];
    /** The content type, with the space that follows the colon. */
    char content_type[CORVEL_UPLOAD_TYPE_SIZE];
    /** The transfer encoding, if one was sent. */
    char transfer_encoding[CORVEL_UPLOAD_ENCODING_SIZE];
    char *data;    /**< The content; released by free_prop_file(). */
    uint32_t size; /**< The content's length in bytes. */
} prop_file;

/** The results of getDisposition_file(). */
enum corvel_part_result {
    CORVEL_PART_FILE = 0,         /**< A file was found. */
    CORVEL_PART_NO_START = -1,    /**< There is no boundary at or after the cursor. */
    CORVEL_PART_NO_END = -2,      /**< There is no second boundary. */
    CORVEL_PART_NO_FILENAME = -3, /**< The part has no `filename=`: it is a form field. */
    CORVEL_PART_NO_TYPE = -4      /**< The part has no `Content-Type:`. */
};

/**
 * Reads a request body of any length from standard input.
 *
 * @code
 * int length = -1;
 * char *body = read_queue_for_upload(&length);
 * assert(body != NULL && length == 5);
 * assert(memcmp(body, "a\0b=c", 6) == 0); // and a NUL
 * free(body);
 * // $ printf 'a\000b=c' | REQUEST_METHOD=PUT CONTENT_LENGTH=5 ./example
 * @endcode
 *
 * @param[out] length CONTENT_LENGTH, written before the body is read.
 * @return the body followed by a NUL, in a heap block that the caller frees; an empty string for a
 *         length of 0. Null if REQUEST_METHOD or CONTENT_LENGTH is not set, for a GET in any case
 *         of letters, for a negative length, if memory ran out, or if fewer bytes than announced
 *         arrive.
 * @see read_queue(), read_queue_for_upload1()
 */
CORVEL_API char *read_queue_for_upload(int *length);

/**
 * Reads a multipart body of at most CORVEL_UPLOAD_MAX bytes from standard input.
 *
 * Before it reads more than CORVEL_UPLOAD_MAX_UNPAUSED bytes it pauses for ten seconds, see
 * killDaemon(). If REQUEST_METHOD is not set, "Web: no found REQUEST_METHOD" is written to the
 * system log.
 *
 * @code
 * int total = 0;
 * int boundary_length = 0;
 * char *boundary = NULL; // set, and freed by the caller, even if the result is null
 * char *upload = read_queue_for_upload1(&total, &boundary, &boundary_length);
 * static prop_file files[CORVEL_UPLOAD_FILES]; // all zero
 * const int count = upload != NULL ? process_file(upload, total, boundary, files) : 0;
 * for (int i = 0; i < count; ++i)
 *     printf("%s, %u bytes,%s\n", files[i].filename, (unsigned)files[i].size,
 *            files[i].content_type);
 * free_prop_file(files, count);
 * free(upload);
 * free(boundary);
 * // $ printf '%s\r\n' --b 'Content-Disposition: form-data; name="f"; filename="a.txt"' \
 * //       'Content-Type: text/plain' '' hello --b-- >body
 * // $ export REQUEST_METHOD=POST CONTENT_LENGTH=$(wc -c <body)
 * //   export CONTENT_TYPE='multipart/form-data; boundary=b'
 * //   ./example <body
 * // a.txt, 5 bytes, text/plain
 * @endcode
 *
 * @param[out]    total           the length of what process_file() examines: CONTENT_LENGTH plus
 *                                the boundary's length.
 * @param[in,out] boundary        the address of a null pointer, which is set to a new block that
 *                                the caller frees, even if the result is null. A pointer to a
 *                                buffer of the caller is accepted, too, but the client chooses the
 *                                length, which is not checked: the buffer must hold as many bytes
 *                                as CONTENT_TYPE.
 * @param[out]    boundary_length the length of the boundary string.
 * @return the boundary string, a newline and the body, in a heap block that the caller frees; the
 *         body's last byte is replaced by a NUL. Null if REQUEST_METHOD, CONTENT_TYPE, its boundary
 *         or CONTENT_LENGTH is missing, for a GET, for a length that is negative or above
 *         CORVEL_UPLOAD_MAX, if memory ran out, or if fewer bytes than announced arrive.
 * @see process_file(), get_vhash()
 */
CORVEL_API char *read_queue_for_upload1(int *total, char **boundary, int *boundary_length);

/**
 * Writes the boundary string: "--" and everything that follows "boundary=" in the content type.
 *
 * @code
 * char *boundary = NULL;
 * assert(get_vhash("multipart/form-data; boundary=Xy1", &boundary) == 5);
 * assert(strcmp(boundary, "--Xy1") == 0);
 * free(boundary);
 * @endcode
 *
 * @param[in]     content_type the content type.
 * @param[in,out] boundary     the address of a null pointer, which is set to a new block that the
 *                             caller frees. A pointer to a buffer of the caller is accepted, too;
 *                             it must hold 3 bytes more than what follows "boundary=", which is not
 *                             checked.
 * @return the length of the boundary string.
 * @retval 0 there is no "boundary=", or memory ran out.
 */
CORVEL_API int get_vhash(const char *content_type, char **boundary);

/**
 * Pauses twice for five seconds, so that a busy device settles before a large upload.
 *
 * @return the result of the second sleep().
 */
CORVEL_API unsigned int killDaemon(void);

/**
 * Finds bytes in a block.
 *
 * @code
 * const char block[] = "a\0bcd";
 * assert(hex_search(block, block + 5, "\0b", 2) == block + 1);
 * assert(hex_search(block, block + 5, "x", 1) == NULL);
 * assert(hex_search(block, block + 4, "cd", 2) == block + 3); // may run past the end
 * @endcode
 *
 * @param[in] start   the block.
 * @param[in] end     its end. A match that begins before it may extend past it: bytes after the end
 *                    are read as far as they agree with the pattern.
 * @param[in] pattern the bytes to find.
 * @param[in] length  their number; 0 finds nothing.
 * @return the first position, or null.
 */
CORVEL_API char *hex_search(const char *start, const char *end, const char *pattern, int length);

/**
 * Reads the next part of an upload.
 *
 * The content is between the empty line after the last header and the line ending before the next
 * boundary. A header's value is everything up to the line ending, without double quotes, truncated
 * at CORVEL_UPLOAD_HEADER_MAX characters and at what the record's field holds.
 *
 * @note
 *  - The first occurrence of a header's name counts, and the separator must follow it immediately.
 *  - A second Content-Type replaces the first, and also sets the transfer encoding if no such
 *    header follows. Without either, the record's transfer encoding is left unchanged: zero the
 *    records first.
 *  - A line that ends neither in the part nor in the CORVEL_UPLOAD_LINE_REACH bytes from the next
 *    boundary on ends after those bytes.
 *
 * @code
 * char upload[] = "--b\r\nContent-Disposition: form-data; filename=\"a.txt\"\r\n"
 *                 "Content-Type: text/plain\r\n\r\nhello\r\n--b--\r\n";
 * char *const end = upload + strlen(upload);
 * char *cursor = upload;
 * char *data = NULL;
 * unsigned int size = 0;
 * static prop_file record; // all zero
 * assert(getDisposition_file(&data, &size, &cursor, end, "--b", &record) == CORVEL_PART_FILE);
 * assert(size == 5 && memcmp(data, "hello", 5) == 0);
 * assert(strcmp(record.filename, "a.txt") == 0);
 * assert(strcmp(record.content_type, " text/plain") == 0);
 * assert(getDisposition_file(&data, &size, &cursor, end, "--b", &record) == CORVEL_PART_NO_END);
 * @endcode
 *
 * @param[out]    data     where the content begins, in the buffer.
 * @param[out]    size     the content's length in bytes; 0 if the headers run into the boundary.
 * @param[in,out] cursor   where to begin. It moves to two bytes before the next boundary if a file
 *                         was found, to the next boundary for CORVEL_PART_NO_FILENAME and
 *                         CORVEL_PART_NO_TYPE, otherwise to the end.
 * @param[in]     end      the end of the buffer; nothing after it is read.
 * @param[in]     boundary the boundary string; an empty one is never found.
 * @param[in,out] record   its three strings are written as far as the headers are present.
 * @return a value of ::corvel_part_result.
 * @retval CORVEL_PART_FILE        a file was found.
 * @retval CORVEL_PART_NO_START    there is no boundary at or after the cursor.
 * @retval CORVEL_PART_NO_END      there is no second boundary.
 * @retval CORVEL_PART_NO_FILENAME the part has no `filename=`.
 * @retval CORVEL_PART_NO_TYPE     the part has no `Content-Type:`; up to 32 bytes after the file
 *                                 name, which the client chose, are printed on standard output.
 * @see process_file()
 */
CORVEL_API int getDisposition_file(char **data, unsigned int *size, char **cursor, char *end,
                                   const char *boundary, prop_file *record);

/**
 * Trims two characters from both ends of a block of characters.
 *
 * @code
 * char text[] = "\r\na\nb\r\n";
 * int length = (int)strlen(text);
 * const char *rest = strip_r(text, &length, '\r', '\n');
 * assert(length == 3 && memcmp(rest, "a\nb", 3) == 0);
 * @endcode
 *
 * @param[in]     text   the characters; not changed.
 * @param[in,out] length their number; receives the remaining number.
 * @param[in]     one    a character to trim.
 * @param[in]     other  another one.
 * @return where the remaining characters begin, in @p text.
 * @see strip()
 */
CORVEL_API char *strip_r(char *text, int *length, char one, char other);

/**
 * Copies the files of an upload into records.
 *
 * Parts without a file name are skipped, as is a file for whose content memory ran out. For an
 * example see read_queue_for_upload1().
 *
 * @note For a part without `Content-Type:`, bytes that the client chose are printed on standard
 *       output, as getDisposition_file() does.
 *
 * @param[in]  upload   the result of read_queue_for_upload1().
 * @param[in]  length   its total length.
 * @param[in]  boundary the boundary string.
 * @param[out] files    CORVEL_UPLOAD_FILES records, all zero: a field whose header is missing is
 *                      not written, and the strings of records after the last file may be. The
 *                      caller releases the contents with free_prop_file().
 * @return the number of files stored, 0 to CORVEL_UPLOAD_FILES; further files are ignored.
 * @see free_prop_file()
 */
CORVEL_API int process_file(char *upload, int length, const char *boundary, prop_file *files);

/**
 * Frees the content of each record and sets its pointer to null.
 *
 * @param[in,out] files the records; the array itself is not freed.
 * @param[in]     count the number of records.
 * @return 1.
 */
CORVEL_API int free_prop_file(prop_file *files, int count);

/** @} */

/**
 * @defgroup crc32 CRC-32
 * The checksum of environment and upgrade images.
 * @{
 */

/**
 * Computes the standard CRC-32 (that of Ethernet and zip files), always from the start.
 *
 * @warning zlib has a function of this name with other parameters, and its deflate() and inflate()
 *          call whichever of the two the program finds first: with this one they crash or write
 *          wrong checksums. In a program that also uses zlib, directly or through another library,
 *          link `-Wl,--no-as-needed -lz` before `-lcorvel`, or a copy of the static library that
 *          `objcopy --localize-symbol=crc32` has made; call only zlib's function; and include
 *          `zlib.h` and this header in different source files.
 *
 * @code
 * assert(crc32((const unsigned char *)"123456789", 9) == 0xCBF43926);
 * assert(crc32((const unsigned char *)"", 0) == 0);
 * @endcode
 *
 * @param[in] data   the bytes.
 * @param[in] length their number; 0 or less gives 0.
 * @return the CRC-32.
 */
CORVEL_API uint32_t crc32(const unsigned char *data, int length);

/** @} */

/**
 * @defgroup boot_environment Boot environment
 *
 * The boot loader's environment image has CORVEL_ENV_SIZE bytes: the CRC-32 of everything that
 * follows (big-endian), then CORVEL_ENV_DATA_SIZE bytes of entries `name=value`, each terminated by
 * a NUL, the list by one more. Regardless of what the image contains, nothing outside of it is read
 * or written; an image whose list has no end has no room for a new entry. Messages are printed on
 * standard output.
 * @{
 */

/** The size of an environment image in bytes: 65,536. */
#define CORVEL_ENV_SIZE 0x10000
/** The bytes of an environment image that contain entries: 65,532. */
#define CORVEL_ENV_DATA_SIZE (CORVEL_ENV_SIZE - 4)

/** The results of init_env(); set_env_ptr() returns one of the first two. */
enum corvel_env_result {
    CORVEL_ENV_GOOD = 0,       /**< The image is current and its CRC is right. */
    CORVEL_ENV_BAD_CRC = 1,    /**< The image is current although its CRC is wrong. */
    CORVEL_ENV_UNREADABLE = -1 /**< The image could not be read whole and did not become current. */
};

/** The image that init_env() and get_rootid() read into and save_param() writes. */
extern CORVEL_API unsigned char env_image_mem[CORVEL_ENV_SIZE];

/**
 * Reads an environment image from a file or device and makes it current.
 *
 * Prints "Err: can not open file %s\n" or "Warning - bad CRC\n" or, for a file that is too short,
 * "Err: envimage size is less then CONFIG_ENV_SIZE(0x10000)\n".
 *
 * @warning Save nothing unless the result is CORVEL_ENV_GOOD. After any other result env_image_mem
 *          may be damaged or a mixture: a short file overwrites only its first bytes, and the image
 *          that was current before stays current. save_param() gives it a right CRC, so that the
 *          boot loader accepts all of it.
 *
 * @code
 * if (init_env("env.bin") != CORVEL_ENV_GOOD)
 *     puts("nothing may be saved");
 * // $ printf 'too short' >env.bin
 * // $ ./example
 * // Err: envimage size is less then CONFIG_ENV_SIZE(0x10000)
 * // nothing may be saved
 * @endcode
 *
 * @param[in] path the file.
 * @return a value of ::corvel_env_result.
 * @retval CORVEL_ENV_GOOD       the image is current and its CRC is right.
 * @retval CORVEL_ENV_BAD_CRC    the image is current although its CRC is wrong.
 * @retval CORVEL_ENV_UNREADABLE the file cannot be opened, gets descriptor 0 (which then stays
 *                               open), or one read does not return CORVEL_ENV_SIZE bytes.
 * @see get_env(), save_param()
 */
CORVEL_API int init_env(const char *path);

/**
 * Makes an image current, and prints "Warning - bad CRC\n" if its CRC is wrong.
 *
 * @code
 * unsigned char *image = (unsigned char *)calloc(1, CORVEL_ENV_SIZE);
 * assert(image != NULL && set_env_ptr(image) == CORVEL_ENV_BAD_CRC);
 * assert(set_env("ipaddr", "10.0.0.1") == 0); // updates the CRC
 * assert(set_env_ptr(image) == CORVEL_ENV_GOOD);
 * assert(strcmp(get_env("ipaddr"), "10.0.0.1") == 0);
 * set_env_ptr(env_image_mem); // before the image is freed
 * free(image);
 * // $ ./example
 * // Warning - bad CRC
 * // Warning - bad CRC
 * @endcode
 *
 * @param[in] image CORVEL_ENV_SIZE bytes that stay the caller's; used until another image becomes
 *                  current. Not null.
 * @return a value of ::corvel_env_result.
 * @retval CORVEL_ENV_GOOD    the CRC is right.
 * @retval CORVEL_ENV_BAD_CRC the CRC is wrong.
 */
CORVEL_API int set_env_ptr(void *image);

/**
 * Looks up a variable in the current image.
 *
 * The first entry of that name counts. A name that contains a `=` matches an entry that agrees with
 * it up to there.
 *
 * @param[in] name the name.
 * @return its value, terminated, inside the image; null if there is no such variable or no current
 *         image.
 * @see init_env(), set_env()
 */
CORVEL_API char *get_env(const char *name);

/**
 * Sets a variable of the current image, or deletes it, and updates the CRC.
 *
 * The old entry is removed and the new one appended to the list.
 *
 * Each message is on a line of its own. For a name with a `=`, which changes nothing:
 * `## Error: illegal character '=' in variable name "%s"`. If there is no room, when the old value
 * is gone and the CRC outdated: `## Error: environment overflow, "%s" deleted`.
 *
 * @warning After an overflow, load the image again with init_env() before anything else is set: the
 *          next set_env() or save_param() that succeeds updates the CRC, and the variable is lost.
 *
 * @code
 * set_env_ptr(env_image_mem); // all zero: an empty list, with a wrong CRC
 * assert(set_env("bootdelay", "3") == 0);
 * assert(set_env("bootdelay", "5") == 0);
 * assert(strcmp(get_env("bootdelay"), "5") == 0);
 * assert(set_env("bootdelay", NULL) == 0 && get_env("bootdelay") == NULL);
 * assert(set_env("a=b", "1") == 1);
 * // $ ./example
 * // Warning - bad CRC
 * // ## Error: illegal character '=' in variable name "a=b"
 * @endcode
 *
 * @param[in] name  the name; must not be inside the image, as a value that get_env() returned is:
 *                  the old entry is removed first, which moves what follows it.
 * @param[in] value the value; null deletes the variable, which need not exist. Must not be inside
 *                  the image either.
 * @return whether it failed.
 * @retval 0 the variable is set or deleted.
 * @retval 1 the name contains a `=`, there is no room, or there is no current image.
 * @see save_param()
 */
CORVEL_API int set_env(const char *name, const char *value);

/**
 * Prints the entries of the current image, one a line.
 *
 * @return the offset in the data area at which the list ends.
 */
CORVEL_API int print_env(void);

/** @} */

/**
 * @defgroup boot_arguments Boot arguments
 * The kernel's command line, and changes of the stored boot environment.
 * @{
 */

/**
 * Copies a value out of a kernel command line: everything between the key and the next space.
 *
 * @code
 * const char *line = "console=ttyS0 root=31:2 quiet";
 * char *root = parse_bootargs_get_val(line, "root=");
 * assert(root != NULL && strcmp(root, "31:2") == 0);
 * free(root);
 * assert(parse_bootargs_get_val("console=ttyS0 root=31:2", "root=") == NULL); // no space follows
 * @endcode
 *
 * @param[in] args the command line; may be null.
 * @param[in] key  the key with its `=`. It may match inside a longer word.
 * @return a new string that the caller frees. Null if the key is not found, if no space follows
 *         (the last value of a line is not found), or if memory ran out.
 */
CORVEL_API char *parse_bootargs_get_val(const char *args, const char *key);

/**
 * Reads an environment image and prints the position of the root device, "pos=%s\n".
 *
 * Prints "Err: can not open file %s\n", "Err: envimage size is less then CONFIG_ENV_SIZE(65536)\n",
 * or "Warning - bad CRC\n" and "Err: invalid image\n".
 *
 * @param[in] path the file; the image becomes current if it can be read whole.
 * @return the number that the position has from its colon on: always 0.
 */
CORVEL_API uint32_t get_rootid(const char *path);

/**
 * Sets or deletes a variable in the current image and writes env_image_mem to a file.
 *
 * The file is flushed to its device with fsync() before it is closed. If it cannot be opened,
 * `Err: open file %s failed` and a newline are printed.
 *
 * @warning Load env_image_mem with init_env() first, and save only if that returned
 *          CORVEL_ENV_GOOD. See there, and at set_env() for the image in memory after a result of
 *          -1.
 *
 * @code
 * if (init_env("env.bin") == CORVEL_ENV_GOOD)
 *     save_param("env.bin", "bootdelay", "3");
 * init_env("env.bin"); // read it again to see what is stored
 * print_env();
 * // $ { printf '\121\013\146\277'; head -c 65532 /dev/zero; } >env.bin # an empty list
 * // $ ./example
 * // bootdelay=3
 * @endcode
 *
 * @param[in] path  the file; created with mode 0644 if it is missing.
 * @param[in] name  the name.
 * @param[in] value the value, or null to delete the variable.
 * @return whether the variable could be set.
 * @retval 0  the variable is set, even if the file could not be written: read it again with
 *            init_env() to see what is stored.
 * @retval -1 the variable could not be set.
 * @see set_env(), init_env()
 */
CORVEL_API int save_param(const char *path, const char *name, const char *value);

/** @} */

/**
 * @defgroup image_format Image format
 *
 * An upgrade image is a chain of sections, each a 20-byte header and a payload for one partition;
 * its last four bytes are the CRC-32 of everything before them. A section's first four bytes, its
 * signature, select a row of the partition table. The flash contains two sets of root file system
 * and kernel: set A ("root", "kern") and set B ("rfs1", "knl1").
 * @{
 */

/** The number of rows of the partition table. */
#define CORVEL_PARTITIONS 10
/** Bytes of a section's signature. */
#define CORVEL_SIGNATURE_SIZE 4
/** The result of get_tbl_id() for a signature that no row has. */
#define CORVEL_NO_PARTITION 255
/** Not the index of a block device: a section or partition with it must not be written anywhere. */
#define CORVEL_NOT_WRITTEN 255

/**
 * Returns the number of rows of the partition table.
 *
 * @return CORVEL_PARTITIONS.
 */
CORVEL_API uint32_t get_sign_tbl_size(void);

/**
 * Looks up a section's signature in the partition table.
 *
 * @code
 * const uint32_t row = get_tbl_id((const unsigned char *)"kern");
 * assert(row != CORVEL_NO_PARTITION);
 * assert(get_tbl_ids(row) == 3); // /dev/mtdblock3
 * assert(get_tbl_id((const unsigned char *)"none") == CORVEL_NO_PARTITION);
 * @endcode
 *
 * @param[in] sig CORVEL_SIGNATURE_SIZE bytes.
 * @return the row's index, from 0.
 * @retval CORVEL_NO_PARTITION no row has the signature.
 * @see get_tbl_ids()
 */
CORVEL_API uint32_t get_tbl_id(const unsigned char *sig);

/**
 * Returns the block-device index of a row of the partition table.
 *
 * @code
 * for (unsigned int row = 0; row < get_sign_tbl_size(); ++row)
 *     if (get_tbl_ids(row) == CORVEL_NOT_WRITTEN)
 *         printf("row %u is the version section\n", row);
 * // $ ./example
 * // row 9 is the version section
 * @endcode
 *
 * @param[in] index the row's index, from 0.
 * @return the index of the block device.
 * @retval CORVEL_NOT_WRITTEN the row is that of the version section, or does not exist.
 * @see get_tbl_id()
 */
CORVEL_API int get_tbl_ids(unsigned int index);

/** @} */

/**
 * @defgroup boot_parameter Boot parameter
 * Which of the two sets of root file system and kernel boots.
 * @{
 */

/** The two sets of root file system and kernel, as values of ::bootparam. */
enum corvel_boot_set {
    CORVEL_SET_A = 0, /**< Block devices 2 and 3. */
    CORVEL_SET_B = 1  /**< Block devices 4 and 5. */
};

/**
 * The set that boots according to the environment: a value of ::corvel_boot_set.
 *
 * Updated by get_bootparam() only. It is the set that runs until save_bootparam(), which leaves the
 * object unchanged. After that, the next get_bootparam() or parse_firmware() sets it to the other
 * set, which does not run before the restart: a second upgrade would be written over the running
 * set.
 */
extern CORVEL_API int bootparam;

/**
 * Reads which set runs from the boot environment on "/dev/mtdblock1".
 *
 * The variable "bootparam" of the environment is stored in the object ::bootparam; "bootparam=%d\n"
 * is logged.
 *
 * @return the offset to add to a block-device index of set A to get that of the idle set.
 * @retval 2 set A runs.
 * @retval 0 set B runs, or it failed, or the number is negative and odd. On failure and for such a
 *           number ::bootparam is unchanged: then nothing is known about the set that runs.
 * @see save_bootparam()
 */
CORVEL_API uint32_t get_bootparam(void);

/**
 * Makes the other set boot: changes the environment that get_bootparam() loaded and writes it to
 * "/dev/mtdblock1".
 *
 * Call it when the new set has been written, in the same process, and not if get_bootparam()
 * failed: see init_env().
 *
 * @return the result of save_param().
 * @retval 0            the environment was changed, even if it could not be written: read it again
 *                      to see what is stored.
 * @retval (uint32_t)-1 the variable could not be set.
 * @see get_bootparam()
 */
CORVEL_API uint32_t save_bootparam(void);

/** @} */

/**
 * @defgroup firmware_parser Firmware upgrade
 *
 * An upgrade must write the set that does not run and then make it boot, but these functions take
 * the running set from the environment's variable "bootparam" alone. If that cannot be read,
 * parse_firmware() directs "root" and "kern" to set A, even if set A runs; "rfs1" and "knl1" always
 * go to set B; and an image need not contain a whole set. A safe program takes the running set from
 * the kernel's command line and checks all of this, as the program in the guide does.
 * @{
 */

/** The number of records that parse_firmware() takes. */
#define CORVEL_IMAGE_RECORDS 5
/** The most sections that an accepted image may contain, the version section included. */
#define CORVEL_IMAGE_MAX_SECTIONS 4
/** Bytes of a staging file's name. */
#define CORVEL_IMAGE_NAME_SIZE 256
/** Bytes of a block device's name. */
#define CORVEL_IMAGE_DEVICE_SIZE 32

/** What one section of an upgrade image asks to be written, and where. */
typedef struct img_info {
    /** The staging file: "/tmp/firmware/", partition name, ".bin". */
    char name[CORVEL_IMAGE_NAME_SIZE];
    const unsigned char *data; /**< The bytes to write; they are inside the caller's image. */
    uint32_t burnAddr;         /**< The flash address, for the boot loader's partition; else 0. */
    uint32_t len;              /**< The number of bytes at `data`. */
    uint32_t mtd_ids;          /**< Index of the block device, or CORVEL_NOT_WRITTEN. */
    /** The block device: "/dev/mtdblock" and `mtd_ids`. */
    char mtdev[CORVEL_IMAGE_DEVICE_SIZE];
    uint32_t base_mtd_id; /**< The index before the shift to the idle set. */
} img_info;

/** What parse_firmware() stores as its result. */
enum corvel_image_result {
    /** The image is accepted. */
    CORVEL_IMAGE_ACCEPTED = 0,
    /** A section extends past the end by more than four bytes. Missing bytes count as zero. */
    CORVEL_IMAGE_SECTION_PAST_END = 1,
    /** The checksum of a payload is not zero. */
    CORVEL_IMAGE_BAD_CHECKSUM = 2,
    /** A section is larger than its partition. */
    CORVEL_IMAGE_SECTION_TOO_LARGE = 3,
    /** More than CORVEL_IMAGE_MAX_SECTIONS sections are recognized. */
    CORVEL_IMAGE_TOO_MANY_SECTIONS = 4,
    /** The CRC does not match, or no section is recognized. */
    CORVEL_IMAGE_BAD_CRC = 5
};

/**
 * Checks an upgrade image and lists what is to be written; writes nothing itself.
 *
 * Nothing outside the image is read, and no record extends outside it. Progress and failures are
 * written to the system log.
 *
 * @note An image has a CRC only if the last section recognized is a version section; otherwise none
 *       is checked.
 *
 * @code
 * const unsigned char image[32] = "none of the signatures is here";
 * img_info records[CORVEL_IMAGE_RECORDS];
 * int result = CORVEL_IMAGE_ACCEPTED;
 * const int count = parse_firmware(image, sizeof image, records, &result);
 * for (int i = 0; i < count; ++i)
 *     if (records[i].mtd_ids != CORVEL_NOT_WRITTEN)
 *         printf("%u bytes to %s\n", (unsigned)records[i].len, records[i].mtdev);
 * if (count == 0)
 *     fprintf(stderr, "refused: %d\n", result); // standard output is the response
 * // $ ./example 2>&1 >/dev/null
 * // refused: 1
 * @endcode
 *
 * @param[in]  image   the image; the records point into it, so it must outlive them.
 * @param[in]  total   its length in bytes.
 * @param[out] records CORVEL_IMAGE_RECORDS records.
 * @param[out] result  a value of ::corvel_image_result.
 * @return the number of records, 1 to CORVEL_IMAGE_MAX_SECTIONS.
 * @retval 0 the image is refused: flash nothing, even if records were filled.
 * @see get_bootparam(), flash_write(), save_bootparam()
 */
CORVEL_API int parse_firmware(const unsigned char *image, unsigned int total, img_info *records,
                              int *result);

/**
 * Writes records to the system log.
 *
 * @param[in] count   the number of records.
 * @param[in] records the records.
 * @return 0.
 */
CORVEL_API int dump_img_info(int count, const img_info *records);

/**
 * Writes bytes to a device, in one call, and then calls sync().
 *
 * @note A negative offset counts as 0: the bytes are written at the start.
 *
 * @code
 * assert(flash_write("flash", "new", 4, 3) == 1);
 * assert(flash_write("missing", "new", 0, 3) == 0); // never created
 * // $ printf '0123456789\n' >flash
 * // $ ./example
 * // $ cat flash
 * // 0123new789
 * @endcode
 *
 * @param[in] path   the device; never created.
 * @param[in] buf    the bytes.
 * @param[in] offset where to write them, in bytes from the device's start.
 * @param[in] len    their number.
 * @return whether all were written.
 * @retval 1 all bytes were written.
 * @retval 0 the device cannot be opened, or not all bytes were written.
 */
CORVEL_API int flash_write(const char *path, const void *buf, int offset, unsigned int len);

/**
 * Copies a file byte by byte.
 *
 * @note
 *  - Write errors are not noticed.
 *  - If @p dst is the same file as @p src, by another name or a link, the content is lost.
 *
 * @code
 * assert(file_copy("a", "b") == 0);
 * assert(file_copy("missing", "b") == -1); // b is not emptied
 * // $ echo content >a
 * // $ ./example
 * // $ cat b
 * // content
 * @endcode
 *
 * @param[in] src the file. A directory counts as an empty file.
 * @param[in] dst the copy; emptied first, or its target if it is a symbolic link.
 * @return whether both files could be opened.
 * @retval 0  both could be opened.
 * @retval -1 one of them could not.
 */
CORVEL_API int file_copy(const char *src, const char *dst);

/** @} */

/**
 * @defgroup conversions Conversions
 *
 * Hexadecimal strings, hardware (MAC) addresses, and the names of wireless radios and networks. A
 * hardware address has a colon form (17 characters, `00:1A:2B:3C:4D:5E`), a stripped form (12
 * characters, `001A2B3C4D5E`) and a binary form (6 bytes). What is written is upper case.
 *
 * No function knows the size of a buffer that it writes to: each states how many bytes it needs.
 *
 * Of the indices of radios and networks only the low byte counts: 0 to 255.
 * @{
 */

/** Bytes of a hardware address in binary form. */
#define CORVEL_MAC_BYTES 6
/** Bytes of a hardware address in colon form, the NUL included. */
#define CORVEL_MAC_SIZE 18
/** Bytes of a hardware address in stripped form, the NUL included. */
#define CORVEL_MAC_STRIPPED_SIZE 13
/** Bytes that in2str() may write. */
#define CORVEL_DECIMAL_SIZE 12
/** Bytes that gen_wlan_name() and gen_wlan_name0() may write. */
#define CORVEL_WLAN_NAME_SIZE 16
/** Bytes that gen_radio_name() may write. */
#define CORVEL_RADIO_NAME_SIZE 8

/**
 * Returns the value of a hexadecimal digit of either case.
 *
 * @param[in] digit the digit.
 * @return its value, 0 to 15.
 * @retval -1 the character is not a hexadecimal digit.
 */
CORVEL_API int hex2int(char digit);

/**
 * Writes bytes as a hexadecimal string.
 *
 * @code
 * const unsigned char bytes[] = {0x1A, 0x2B};
 * char text[2 * sizeof bytes + 1];
 * assert(strcmp(ascii2hex(bytes, sizeof bytes, text), "1A2B") == 0);
 *
 * char *block = ascii2hex(bytes, sizeof bytes, NULL);
 * assert(block != NULL && strcmp(block, "1A2B") == 0);
 * free_buffer(block, 2 * sizeof bytes);
 * @endcode
 *
 * @param[in]  bytes the bytes.
 * @param[in]  n     their number.
 * @param[out] out   the string: 2 * @p n + 1 bytes. Nothing is written if @p n is 0. If null, a new
 *                   block is returned, which the caller releases with free_buffer() and a size of
 *                   2 * @p n.
 * @return the string; null if memory ran out.
 * @see hex2ascii(), str2byte()
 */
CORVEL_API char *ascii2hex(const unsigned char *bytes, unsigned int n, char *out);

/**
 * Converts a hexadecimal string into characters, without any check.
 *
 * @note A character that is not a hexadecimal digit counts as -1, which gives a wrong character. A
 *       last digit without a pair is dropped. A pair that is zero ends the string early for whoever
 *       reads it as one.
 *
 * @code
 * char text[3] = ""; // an empty string to begin with
 * assert(strcmp(hex2ascii("4f4B5", text), "OK") == 0);
 * @endcode
 *
 * @param[in]     hex the string.
 * @param[in,out] out the characters and a NUL: half the length of @p hex plus one byte. Must
 *                    contain an empty string, and not overlap @p hex.
 * @return @p out.
 * @see str2byte()
 */
CORVEL_API char *hex2ascii(const char *hex, char *out);

/**
 * Converts a hexadecimal string into bytes, and refuses any other character.
 *
 * @code
 * unsigned char bytes[2] = {0, 0};
 * assert(str2byte("1a2B", 4, bytes) == 0 && bytes[0] == 0x1A && bytes[1] == 0x2B);
 * assert(str2byte("ffxx", 4, bytes) == -1 && bytes[0] == 0xFF && bytes[1] == 0x2B);
 * @endcode
 *
 * @param[in]  hex the string; not read past its end, regardless of @p len.
 * @param[in]  len its length in characters. A last character without a pair is ignored.
 * @param[out] out @p len / 2 bytes, and no NUL.
 * @return whether all pairs are hexadecimal digits.
 * @retval 0  all pairs are converted.
 * @retval -1 a pair contains another character; the bytes of the pairs before it are stored.
 */
CORVEL_API int str2byte(const char *hex, int len, unsigned char *out);

/**
 * Converts a hardware address from stripped into binary form.
 *
 * The digits are not checked.
 *
 * @code
 * unsigned char mac[CORVEL_MAC_BYTES];
 * assert(ascii2mac("001A2B3C4D5E", mac) == 0);
 * assert(strcmp(iw_pr_ether(mac), "00:1A:2B:3C:4D:5E") == 0);
 * assert(ascii2mac("FFFFFFFFFFFF", mac) == 1); // the broadcast address
 * @endcode
 *
 * @param[in]  text the address.
 * @param[out] mac  CORVEL_MAC_BYTES bytes; unchanged if the string does not have 12 characters.
 * @return whether the address is not that of a single station.
 * @retval 0 it is the address of a station.
 * @retval 1 it is a group address (broadcast is one), or the string does not have 12 characters.
 * @see mac2hexStrip(), iw_pr_ether()
 */
CORVEL_API unsigned int ascii2mac(const char *text, unsigned char *mac);

/**
 * Writes a hardware address in colon form.
 *
 * @param[in] mac the address: CORVEL_MAC_BYTES bytes.
 * @return the string, in a buffer of the library that the next call overwrites.
 * @see ascii2mac()
 */
CORVEL_API char *iw_pr_ether(const unsigned char *mac);

/**
 * Writes a number in decimal.
 *
 * @param[out] out   the string: up to CORVEL_DECIMAL_SIZE bytes.
 * @param[in]  value the number.
 * @return @p out.
 */
CORVEL_API char *in2str(char *out, int value);

/**
 * Returns the upper case of a letter.
 *
 * @param[in] character a character.
 * @return the upper case of a letter from a to z; any other character unchanged.
 */
CORVEL_API signed char chUpcase(signed char character);

/**
 * Converts a hardware address from colon into stripped form.
 *
 * Neither digits nor separators, which may be any character, are checked.
 *
 * @code
 * char mac[CORVEL_MAC_SIZE] = "00:1a:2b:3c:4d:5e";
 * assert(strcmp(mac2hexStrip(mac, mac), "001A2B3C4D5E") == 0);
 * @endcode
 *
 * @param[in]  text the address. Characters missing from 17 count as NUL.
 * @param[out] out  the stripped form: CORVEL_MAC_STRIPPED_SIZE bytes. May be @p text itself.
 * @return @p out.
 * @see HexStrip2mac()
 */
CORVEL_API char *mac2hexStrip(const char *text, char *out);

/**
 * Converts a hardware address from stripped into colon form: inserts a colon after every two
 * characters but the last two.
 *
 * The case of letters is kept.
 *
 * @note The result is not terminated: zero CORVEL_MAC_SIZE bytes before the call.
 *
 * @code
 * char mac[CORVEL_MAC_SIZE] = {0}; // no NUL is written
 * assert(strcmp(HexStrip2mac("001A2B3C4D5E", mac), "00:1A:2B:3C:4D:5E") == 0);
 * @endcode
 *
 * @param[in]  text the address; if its length is odd, a NUL completes it.
 * @param[out] out  17 bytes for 12 characters, and no NUL. Must not overlap @p text.
 * @return @p out.
 * @see mac2hexStrip()
 */
CORVEL_API char *HexStrip2mac(const char *text, char *out);

/**
 * Writes the number at the start of a file, with six decimal places.
 *
 * It is read in single precision: about seven digits are significant.
 *
 * @code
 * char text[16] = "unknown"; // kept if there is no file
 * assert(strcmp(get_val_from_file("load", text, sizeof text), "0.250000") == 0);
 * assert(strcmp(get_val_from_file("empty", text, sizeof text), "0.010000") == 0);
 * // $ echo '0.25 0.10 0.05' >load; : >empty
 * // $ ./example
 * @endcode
 *
 * @param[in]  path the file; may be null.
 * @param[out] out  the number, truncated to fit; "0.010000" if the file does not begin with one.
 *                  Unchanged if the file cannot be opened or is a directory.
 * @param[in]  size the bytes at @p out.
 * @return @p out.
 */
CORVEL_API char *get_val_from_file(const char *path, char *out, int size);

/**
 * Writes the name of a wireless network: "wifi0_wlan1".
 *
 * @param[in]  radio   index of the radio, 0 to 255.
 * @param[in]  network index of its network, 0 to 255.
 * @param[out] out     the name: up to CORVEL_WLAN_NAME_SIZE bytes.
 * @return @p out.
 * @see gen_wlan_name0(), gen_wlan_key()
 */
CORVEL_API char *gen_wlan_name(int radio, int network, char *out);

/**
 * Writes the name of a wireless network in upper case: "WIFI0_WLAN1".
 *
 * @param[in]  radio   index of the radio, 0 to 255.
 * @param[in]  network index of its network, 0 to 255.
 * @param[out] out     the name: up to CORVEL_WLAN_NAME_SIZE bytes.
 * @return @p out.
 * @see gen_wlan_name()
 */
CORVEL_API char *gen_wlan_name0(int radio, int network, char *out);

/**
 * Writes the name of a radio: "wifi0".
 *
 * @param[in]  radio index of the radio, 0 to 255.
 * @param[out] out   the name: up to CORVEL_RADIO_NAME_SIZE bytes.
 * @return @p out.
 */
CORVEL_API char *gen_radio_name(int radio, char *out);

/**
 * Writes a radio's key in braces: "{WIFI0_suffix}".
 *
 * @param[in]  radio  index of the radio, 0 to 255.
 * @param[in]  suffix the setting.
 * @param[out] out    the key: up to 11 bytes and the length of the suffix.
 * @return @p out.
 * @see gen_radio_key0()
 */
CORVEL_API char *gen_radio_key(int radio, const char *suffix, char *out);

/**
 * Writes a radio's key: "WIFI0_suffix".
 *
 * @param[in]  radio  index of the radio, 0 to 255.
 * @param[in]  suffix the setting.
 * @param[out] out    the key: up to 9 bytes and the length of the suffix.
 * @return @p out.
 * @see gen_radio_key()
 */
CORVEL_API char *gen_radio_key0(int radio, const char *suffix, char *out);

/**
 * Writes a network's key in braces: "{WIFI0_WLAN1_suffix}".
 *
 * @param[in]  radio   index of the radio, 0 to 255.
 * @param[in]  network index of its network, 0 to 255.
 * @param[in]  suffix  the setting.
 * @param[out] out     the key: up to 19 bytes and the length of the suffix.
 * @return @p out.
 * @see gen_wlan_key0()
 */
CORVEL_API char *gen_wlan_key(int radio, int network, const char *suffix, char *out);

/**
 * Writes a network's key: "WIFI0_WLAN1_suffix".
 *
 * @code
 * char key[17 + sizeof "SSID"];
 * assert(strcmp(gen_wlan_key0(0, 1, "SSID", key), "WIFI0_WLAN1_SSID") == 0);
 * @endcode
 *
 * @param[in]  radio   index of the radio, 0 to 255.
 * @param[in]  network index of its network, 0 to 255.
 * @param[in]  suffix  the setting.
 * @param[out] out     the key: up to 17 bytes and the length of the suffix.
 * @return @p out.
 * @see gen_wlan_key()
 */
CORVEL_API char *gen_wlan_key0(int radio, int network, const char *suffix, char *out);

/** @} */

/**
 * @defgroup interface_address Interface addresses
 *
 * What the kernel knows about a network interface. An interface that is down is reported, too. A
 * missing name, and one of 16 characters or more, is that of an interface that does not exist. For
 * a name with a colon, such as eth0:1, the kernel uses the part before the colon, except for an
 * IPv4 address or netmask, where it uses the whole name.
 * @{
 */

/** What getInAddr() and getHWip() can be asked for. */
enum corvel_address {
    CORVEL_ADDRESS_IPV4 = 0,     /**< The IPv4 address. */
    CORVEL_ADDRESS_NETMASK = 1,  /**< The IPv4 netmask. */
    CORVEL_ADDRESS_HARDWARE = 3, /**< The hardware address; for getInAddr() only. */
    CORVEL_ADDRESS_IPV6 = 4      /**< The first global IPv6 address in the kernel's table. */
};

/** The most bytes that getInAddr() writes. */
#define CORVEL_ADDRESS_SIZE 16
/** Bytes that suffice for an IPv4 address as a string. */
#define CORVEL_IPV4_SIZE 16
/** Bytes that suffice for an IPv6 address with its prefix length as a string. */
#define CORVEL_IPV6_SIZE 64

/**
 * Reads an address of an interface, in network byte order.
 *
 * @note For CORVEL_ADDRESS_IPV6 a return of 0 is ambiguous, since a prefix length can be 0: check
 *       whether @p result was written.
 *
 * @code
 * unsigned char address[CORVEL_ADDRESS_SIZE];
 * assert(getInAddr("none0", CORVEL_ADDRESS_IPV4, address) == 0);
 * if (getInAddr("lo", CORVEL_ADDRESS_HARDWARE, address))
 *     assert(memcmp(address + 2, "\0\0\0\0\0\0", CORVEL_MAC_BYTES) == 0);
 * @endcode
 *
 * @param[in]  ifname   the interface.
 * @param[in]  selector a value of ::corvel_address.
 * @param[out] result   4 bytes for CORVEL_ADDRESS_IPV4 and CORVEL_ADDRESS_NETMASK; 16 for
 *                      CORVEL_ADDRESS_HARDWARE: the address family (2 bytes in the machine's byte
 *                      order) and 14 bytes of data, of which the first CORVEL_MAC_BYTES are the
 *                      address; 16 for CORVEL_ADDRESS_IPV6. Unchanged on failure.
 * @return 1, or for CORVEL_ADDRESS_IPV6 the prefix length (0 to 128).
 * @retval 0 there is no such interface, it has no such address, or the selector is another value.
 * @see getHWip(), getHWaddr()
 */
CORVEL_API int getInAddr(const char *ifname, unsigned int selector, void *result);

/**
 * Writes an interface's hardware address in colon form.
 *
 * @code
 * char mac[CORVEL_MAC_SIZE];
 * assert(strcmp(getHWaddr("none0", mac), "00:00:00:00:00:00") == 0);
 * @endcode
 *
 * @param[in]  ifname the interface; may be null.
 * @param[out] out    the address: CORVEL_MAC_SIZE bytes; "00:00:00:00:00:00" on any failure.
 * @return @p out.
 * @see getHWaddr0()
 */
CORVEL_API char *getHWaddr(const char *ifname, char *out);

/**
 * Writes an interface's hardware address in stripped form.
 *
 * @param[in]  ifname the interface; may be null.
 * @param[out] out    the address: CORVEL_MAC_STRIPPED_SIZE bytes; "000000000000" on any failure.
 * @return @p out.
 * @see getHWaddr()
 */
CORVEL_API char *getHWaddr0(const char *ifname, char *out);

/**
 * Writes an interface's address as a string.
 *
 * For CORVEL_ADDRESS_IPV4 and CORVEL_ADDRESS_NETMASK: the dotted address, or "0.0.0.0" on any
 * failure. For CORVEL_ADDRESS_IPV6: the address with its prefix length, as in "2001:db8::1/64", or
 * "::" on any failure and for a prefix length of 0.
 *
 * @note
 *  - For CORVEL_ADDRESS_HARDWARE the string is not an address; for any other selector it is
 *    "0.0.0.0".
 *  - The prefix length with its slash and NUL is truncated to @p len - 4 bytes.
 *
 * @code
 * char address[CORVEL_IPV6_SIZE];
 * assert(strcmp(getHWip("none0", CORVEL_ADDRESS_NETMASK, address, CORVEL_IPV4_SIZE), "0.0.0.0") ==
 * 0); assert(strcmp(getHWip("none0", CORVEL_ADDRESS_IPV6, address, sizeof address), "::") == 0);
 * @endcode
 *
 * @param[in]  ifname   the interface; may be null.
 * @param[in]  selector a value of ::corvel_address.
 * @param[out] out      the string, truncated to fit; CORVEL_IPV4_SIZE bytes suffice for IPv4,
 *                      CORVEL_IPV6_SIZE for IPv6. "::" if the IPv6 address does not fit.
 * @param[in]  len      the bytes at @p out; nothing is written for 0 or less.
 * @return @p out.
 * @see getInAddr()
 */
CORVEL_API char *getHWip(const char *ifname, unsigned int selector, char *out, int len);

/** @} */

/**
 * @defgroup routes_and_dns Routes and DNS
 * Gateways of the kernel's routing table, and the name servers of /etc/resolv.conf.
 * @{
 */

/**
 * Finds the gateway of an interface.
 *
 * It is that of the interface's first route that is up, leads through a gateway and is not a host
 * route; that need not be the default route.
 *
 * @note If the kernel's table cannot be opened, "Open %s file error." and a newline are printed on
 *       standard output, which in a CGI program is the response.
 *
 * @param[in]  ifname the interface.
 * @param[out] gw     the address in network byte order; unchanged if there is none.
 * @return whether there is a gateway.
 * @retval 1 a gateway was found.
 * @retval 0 there is none, or the table cannot be opened.
 * @see getDefGw()
 */
CORVEL_API int getDefaultRoute(const char *ifname, uint32_t *gw);

/**
 * Writes the gateway of an interface as a string.
 *
 * Finds it, and prints messages, as getDefaultRoute() does.
 *
 * @code
 * char gateway[CORVEL_IPV4_SIZE];
 * assert(strcmp(getDefGw("none0", gateway), "0.0.0.0") == 0);
 * @endcode
 *
 * @param[in]  ifname the interface; may be null.
 * @param[out] out    the address: up to CORVEL_IPV4_SIZE bytes; "0.0.0.0" if there is none.
 * @return @p out.
 * @see getDefaultRoute()
 */
CORVEL_API char *getDefGw(const char *ifname, char *out);

/**
 * Appends the name servers of /etc/resolv.conf to a string.
 *
 * They are appended in the file's order, each followed by `&nbsp;&nbsp;&nbsp;&nbsp;`. Lines are
 * read in pieces of 254 characters.
 *
 * @param[in,out] out a string, with room after it for each address and 24 characters more, and for
 *                    a NUL.
 * @return @p out. If the file cannot be opened or is a directory, @p out is unchanged, and the four
 *         entities are returned as a string of the library, which must not be modified.
 */
CORVEL_API char *get_dns(char *out);

/** @} */

/**
 * @defgroup leases Leases
 *
 * Lists of lease_entry records in the order of their file. Pass a reader the address of a null
 * pointer, which becomes the head of the list; the caller releases the list with free_leaselist(),
 * even if reading stopped because memory ran out.
 * @{
 */

/** Bytes of a lease's IP address. */
#define CORVEL_LEASE_IP_SIZE 128
/** Bytes of a neighbor's hardware type. */
#define CORVEL_LEASE_TYPE_SIZE 8
/** Bytes of a lease's hardware address. */
#define CORVEL_LEASE_MAC_SIZE 32
/** Bytes of a lease's seconds. */
#define CORVEL_LEASE_EXPIRES_SIZE 16
/** Bytes of a lease's host name. */
#define CORVEL_LEASE_HOST_SIZE 128
/** Bytes of a record of a binary lease file. */
#define CORVEL_LEASE_RECORD_SIZE 24

/** A DHCP lease or a neighbor. The function that fills it determines the form of its addresses. */
typedef struct lease_entry {
    int32_t reserved;                        /**< Not used: 0. */
    char ip[CORVEL_LEASE_IP_SIZE];           /**< The IP address. */
    char hwtype[CORVEL_LEASE_TYPE_SIZE];     /**< A neighbor's hardware type in hexadecimal: "1" for
                                                  Ethernet. */
    char mac[CORVEL_LEASE_MAC_SIZE];         /**< The hardware address. */
    char expires[CORVEL_LEASE_EXPIRES_SIZE]; /**< A lease's seconds in decimal; empty for a
                                                  neighbor. */
    char hostname[CORVEL_LEASE_HOST_SIZE];   /**< The host's name as the server knows it, or
                                                  empty. */
    struct lease_entry *next;                /**< The next record, or null. */
} lease_entry;

/**
 * Returns the seconds of the monotonic clock.
 *
 * @return the seconds.
 */
CORVEL_API int monotonic_time(void);

/**
 * Fills a record from one record of a binary lease file.
 *
 * That consists of 16 bytes of hardware address, of which 6 are used, 4 bytes of IPv4 address, and
 * 4 bytes of expiry, a big-endian number of seconds that is written unchanged.
 *
 * @code
 * const unsigned char record[CORVEL_LEASE_RECORD_SIZE] = {
 *     0, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, // the hardware address
 *     10, 0, 0, 7,                                                   // the IP address
 *     0, 0, 0x0E, 0x10};                                             // 3600 seconds
 * static lease_entry lease;
 * add_lease(&lease, record);
 * assert(strcmp(lease.mac, "00:1A:2B:3C:4D:5E") == 0);
 * assert(strcmp(lease.ip, "10.0.0.7") == 0 && strcmp(lease.expires, "3600") == 0);
 * @endcode
 *
 * @param[out] entry  the record; `ip`, `mac` (colon form) and `expires` are written.
 * @param[in]  record CORVEL_LEASE_RECORD_SIZE bytes.
 * @see get_udhpd_leases()
 */
CORVEL_API void add_lease(lease_entry *entry, const unsigned char *record);

/**
 * Reads a binary lease file; see add_lease().
 *
 * A record with a hardware address of zeros is an empty slot and is skipped; an incomplete last one
 * is ignored. If the file cannot be opened or is a directory, "could not open input file" is
 * printed with perror().
 *
 * @note The layout is that of an old udhcpd: 24 bytes a lease and nothing else. A current one
 *       writes 8 bytes and then 36 a lease, from which this function makes wrong records. The size
 *       of such a file is never a multiple of CORVEL_LEASE_RECORD_SIZE.
 *
 * @param[out] head the address of a null pointer; receives the list.
 * @param[in]  path the file.
 * @return the number of records.
 * @see get_leases(), free_leaselist()
 */
CORVEL_API int get_udhpd_leases(lease_entry **head, const char *path);

/**
 * Reads a text lease file, one lease a line: expiry in seconds since the epoch, hardware address,
 * IP address, host name, client identifier.
 *
 * `mac`, `ip` and `hostname` are copied unchanged; `expires` is the time that is left, negative for
 * a lease that has ended. Every line is a record, even an empty one: a missing word is empty, a
 * missing expiry counts as 0. Words are truncated at 31 characters, the host name at 127; lines are
 * read in pieces of 1023 characters. A last line without a newline is not read. If the file cannot
 * be opened or is a directory, "could not open input file" is printed with perror().
 *
 * @note Check each record of a file that dnsmasq wrote: a host without a name has the name "*"; a
 *       lease without end has the expiry 0, so that `expires` is a large negative number; the line
 *       "duid" with an identifier gives a record without an `ip`; and the lines after it are leases
 *       of IPv6 addresses, with a number in `mac`.
 *
 * @code
 * lease_entry *leases = NULL;
 * get_dnsmasq_leases(&leases, "leases");
 * for (const lease_entry *lease = leases; lease != NULL; lease = lease->next)
 *     if (lease->ip[0] != '\0') // not the line "duid"
 *         printf("%s is %s\n", lease->ip, lease->hostname);
 * free_leaselist(&leases);
 * // $ echo '2000000000 00:1a:2b:3c:4d:5e 10.0.0.7 laptop 01:00:1a:2b:3c:4d:5e' >leases
 * //   echo 'duid 00:01:00:01' >>leases
 * //   ./example
 * // 10.0.0.7 is laptop
 * @endcode
 *
 * @param[out] head the address of a null pointer; receives the list.
 * @param[in]  path the file.
 * @return 0, regardless of what was read: examine the list.
 * @see get_dhcpv6_leases(), get_leases(), free_leaselist()
 */
CORVEL_API int get_dnsmasq_leases(lease_entry **head, const char *path);

/**
 * Reads a DHCPv6 server's lease file as get_dnsmasq_leases() does, from other words of a line.
 *
 * The second word is the hardware identifier, the fourth the host name, the fifth the expiry, the
 * eighth the address. An IPv6 address of more than 31 characters is truncated, too.
 *
 * @param[out] head the address of a null pointer; receives the list.
 * @param[in]  path the file.
 * @return 0, regardless of what was read: examine the list.
 * @see get_dnsmasq_leases(), free_leaselist()
 */
CORVEL_API int get_dhcpv6_leases(lease_entry **head, const char *path);

/**
 * Reads the leases of the DHCP server that runs.
 *
 * If /var/run/udhcpd.pid contains a number above 0, SIGUSR1 is sent to the process that has this id
 * now, which makes the server write its leases, and /var/config/udhcpd.leases is read with
 * get_udhpd_leases() at once: it may still be the previous one. Otherwise, if a process named
 * dnsmasq runs, /var/config/dnsmasq.leases is read with get_dnsmasq_leases().
 *
 * @note
 *  - Whether the process is the server is not checked. A stale file sends the signal to another
 *    program; a file that contains 1 sends it to process 1, which may take it for the order to halt
 *    the device: check the file with getPid() first.
 *  - dnsmasq is looked for with app_isrun(): where it does not run, a few bytes are never freed,
 *    and if /proc cannot be opened, the program ends.
 *
 * @param[out] head the address of a null pointer; receives the list.
 * @return the result of the reader; 0 if no server runs.
 * @see get_udhpd_leases(), get_dnsmasq_leases(), free_leaselist()
 */
CORVEL_API int get_leases(lease_entry **head);

/**
 * Zeroes and frees every record of a list.
 *
 * @param[in,out] head the address of the list's head pointer, which is null afterwards.
 */
CORVEL_API void free_leaselist(lease_entry **head);

/** @} */

/**
 * @defgroup neighbour_table Neighbors
 * The kernel's table of IPv4 neighbors, in lists of lease_entry records; see @ref leases.
 * @{
 */

/**
 * Reads the kernel's IPv4 neighbor table.
 *
 * A record's `ip`, `hwtype` and `mac` (stripped form) are set for each neighbor whose hardware
 * address is known. Of several lines with the same hardware address the first counts. Reading stops
 * at the first malformed line; lines are read in pieces of 127 characters.
 *
 * @code
 * lease_entry *neighbors = NULL;
 * assert(get_arp_cache("none0", &neighbors) == 0); // no such interface: no neighbors
 * free_leaselist(&neighbors);
 * @endcode
 *
 * @param[in]  ifname the interface whose neighbors are wanted; empty for all.
 * @param[out] head   the address of a null pointer; receives the list, which the caller releases
 *                    with free_leaselist().
 * @return the number of records.
 * @retval 0 there is none, the table cannot be read, or memory ran out.
 * @see search_by_mac()
 */
CORVEL_API int get_arp_cache(const char *ifname, lease_entry **head);

/**
 * Finds a hardware address among neighbors.
 *
 * @note Records of leases, which contain it in another form, are not found.
 *
 * @code
 * static lease_entry neighbors[2];
 * strcpy(neighbors[0].mac, "001A2B3C4D5E");
 * strcpy(neighbors[1].mac, "001A2B3C4D5F");
 * neighbors[0].next = &neighbors[1];
 * assert(search_by_mac(neighbors, "00:1a:2b:3c:4d:5f") == 2);
 * assert(search_by_mac(neighbors, "00:00:00:00:00:01") == 0);
 * @endcode
 *
 * @param[in] head the list; may be null.
 * @param[in] mac  the address in colon form; see mac2hexStrip().
 * @return the position of the first record that has it, from 1.
 * @retval 0 no record has it.
 * @see get_arp_cache()
 */
CORVEL_API int search_by_mac(const lease_entry *head, const char *mac);

/**
 * Prints a list on standard output, for debugging.
 *
 * It prints the line "dump mac ip", a line of IP address, hardware address and expiry for each
 * record, each followed by a tab, and a line of dashes.
 *
 * @param[in] head the list; may be null.
 */
CORVEL_API void dump_macip(const lease_entry *head);

/** @} */

/**
 * @defgroup error_and_io Errors and input
 * Fatal errors, in one line on standard error; checked allocation; files that are read whole.
 * @{
 */

/**
 * The exit status of bb_error_msg_and_die(), and so of every function that ends the process: 1,
 * unless the program sets it.
 */
extern CORVEL_API int bb_default_error_retval;

/** "memory exhausted": the message with which xmalloc() and xrealloc() end the process. */
extern CORVEL_API const char *bb_msg_memory_exhausted;

/**
 * Flushes standard output and prints "unknown app: " and a message on standard error, without a
 * newline.
 *
 * @param[in] fmt the message, a format as for printf().
 * @param[in] ap  the values to print.
 * @see bb_error_msg_and_die()
 */
CORVEL_API void bb_verror_msg(const char *fmt, va_list ap) CORVEL_PRINTF_LIKE(1, 0);

/**
 * Prints a message as bb_verror_msg() does, followed by a newline, and exits with
 * ::bb_default_error_retval.
 *
 * @code
 * bb_default_error_retval = 3;
 * bb_error_msg_and_die("no radio %d", 2);
 * // $ ./example 2>&1 || echo "exit status $?"
 * // unknown app: no radio 2
 * // exit status 3
 * @endcode
 *
 * @param[in] fmt the message, a format as for printf(), followed by the values to print.
 */
CORVEL_API CORVEL_NORETURN void bb_error_msg_and_die(const char *fmt, ...) CORVEL_PRINTF_LIKE(1, 2);

/**
 * Allocates memory like malloc(), and ends the process if memory ran out.
 *
 * The message is ::bb_msg_memory_exhausted; see bb_error_msg_and_die().
 *
 * @param[in] size the bytes wanted.
 * @return the block, which the caller frees; for a size of 0 possibly null.
 */
CORVEL_API void *xmalloc(size_t size);

/**
 * Changes the size of a block like realloc(), and ends the process if memory ran out.
 *
 * The message is ::bb_msg_memory_exhausted; see bb_error_msg_and_die().
 *
 * @param[in] block the block, or null.
 * @param[in] size  the bytes wanted.
 * @return the block, which the caller frees; for a size of 0 possibly null.
 */
CORVEL_API void *xrealloc(void *block, size_t size);

/**
 * Copies a string, truncated to fit, and fills the rest of the buffer with zeros.
 *
 * @code
 * char name[6];
 * assert(strcmp(safe_strncpy(name, "wireless", sizeof name), "wirel") == 0);
 * safe_strncpy(name, "lan", sizeof name);
 * assert(memcmp(name, "lan\0\0", sizeof name) == 0);
 * @endcode
 *
 * @param[out] dst  @p size bytes; must not overlap @p src.
 * @param[in]  src  the string. Nothing after its first @p size - 1 characters is read.
 * @param[in]  size the bytes at @p dst: at least 1. For 0 nothing is written.
 * @return @p dst.
 */
CORVEL_API char *safe_strncpy(char *dst, const char *src, size_t size);

/**
 * Writes the name of a user or a group, or its number if it has no name.
 *
 * @code
 * char text[16];
 * char name[] = "admin";
 * assert(my_getug(text, name, 500, sizeof text, 'u') == text && strcmp(text, "admin") == 0);
 * assert(my_getug(text, NULL, 500, sizeof text, 'u') == NULL && strcmp(text, "500") == 0);
 * @endcode
 *
 * @param[out] buf     the name or number, truncated to fit.
 * @param[in]  name    the name; null if there is none.
 * @param[in]  id      the number.
 * @param[in]  bufsize the bytes at @p buf. If it is negative and @p name is null, the process ends
 *                     with "unknown %cid %ld", the prefix and the number; see
 *                     bb_error_msg_and_die().
 * @param[in]  prefix  `u` or `g`.
 * @return @p buf if it contains the name, null if it contains the number. If @p bufsize is 0, or
 *         negative and @p name is not null: @p name, and nothing is written.
 * @see my_getpwuid()
 */
CORVEL_API char *my_getug(char *buf, char *name, long id, int bufsize, char prefix);

/**
 * Writes the name of a user, or the number if there is no such user, as my_getug() does with the
 * prefix `u`.
 *
 * @param[out] buf     the name or number, truncated to fit.
 * @param[in]  uid     the user's number.
 * @param[in]  bufsize the bytes at @p buf, as in my_getug(): a negative size ends the process if
 *                     there is no such user.
 * @return as my_getug(). A name that is returned and not in @p buf is the C library's: the next
 *         look-up of a user overwrites it.
 * @see my_getug()
 */
CORVEL_API char *my_getpwuid(char *buf, long uid, int bufsize);

/**
 * Reads from a descriptor until all bytes are read or the input ends.
 *
 * @param[in]  fd  the descriptor.
 * @param[out] buf up to @p len bytes, and no NUL.
 * @param[in]  len the bytes wanted.
 * @return the number of bytes read. After an error, which includes an interruption by a signal, the
 *         number of bytes read before it.
 * @retval -1 an error, before anything was read.
 * @see read_close(), open_read_close()
 */
CORVEL_API ssize_t full_read(int fd, void *buf, size_t len);

/**
 * Reads as full_read() does and closes the descriptor.
 *
 * @param[in]  fd  the descriptor.
 * @param[out] buf up to @p len bytes, and no NUL.
 * @param[in]  len the bytes wanted.
 * @return as full_read().
 * @see full_read()
 */
CORVEL_API ssize_t read_close(int fd, void *buf, size_t len);

/**
 * Opens a file and reads it as full_read() does.
 *
 * @code
 * char text[16];
 * const ssize_t length = open_read_close("version", text, sizeof text - 1);
 * assert(length == 4);
 * text[length] = '\0'; // not written by the call
 * assert(strcmp(text, "1.2\n") == 0);
 * assert(open_read_close("missing", text, sizeof text) < 0);
 * // $ echo 1.2 >version
 * // $ ./example
 * @endcode
 *
 * @param[in]  path the file.
 * @param[out] buf  up to @p len bytes, and no NUL.
 * @param[in]  len  the bytes wanted.
 * @return as full_read(); negative also if the file cannot be opened.
 * @see full_read()
 */
CORVEL_API ssize_t open_read_close(const char *path, void *buf, size_t len);

/** @} */

/**
 * @defgroup process_lookup Process lookup
 *
 * A process has a name if two conditions hold: the first word of its short name, which the kernel
 * truncates to 15 characters, equals the first 15 characters of that name; and the first 49
 * characters of its command line contain the whole name. Kernel threads have no command line and so
 * no name.
 *
 * If /proc cannot be opened, the functions that look for processes end the process with "Cannot
 * open /proc"; see bb_error_msg_and_die().
 * @{
 */

/**
 * Reads a process's command line as one line: every byte below 32 becomes a space.
 *
 * @code
 * char line[64 + 1] = "";
 * read_cmdline(line, sizeof line - 1, (unsigned int)getpid());
 * printf("%s\n", line);
 * // $ ./example lan wan | tr -s ' ' | sed 's/ $//'
 * // ./example lan wan
 * @endcode
 *
 * @param[out] buf  up to @p size bytes and a NUL: @p size + 1 bytes. Unchanged if nothing can be
 *                  read.
 * @param[in]  size the most bytes to read.
 * @param[in]  pid  the process.
 */
CORVEL_API void read_cmdline(char *buf, int size, unsigned int pid);

/**
 * Finds the processes that have a name, in the order in which /proc lists them.
 *
 * @code
 * int *pids = find_pid_by_name("no-such-name");
 * assert(pids[0] == -1);
 * free(pids);
 * @endcode
 *
 * @param[in] name the name.
 * @return their ids followed by a 0, or just -1 if there is none: an array that the caller frees.
 *         Ends the process if memory runs out or /proc cannot be opened.
 * @see app_isrun(), is_runing()
 */
CORVEL_API int *find_pid_by_name(const char *name);

/**
 * Finds a process that has a name.
 *
 * @note If there is none, the few bytes of find_pid_by_name()'s result are never freed.
 *
 * @param[in] name the name.
 * @return the id of the first process that has it. Ends the process as find_pid_by_name() does.
 * @retval 0 there is none.
 * @see is_runing()
 */
CORVEL_API int app_isrun(const char *name);

/**
 * Finds a process that has a name as app_isrun() does, but skips the calling process.
 *
 * @code
 * if (is_runing("example"))
 *     puts("another instance runs");
 * // $ ./example
 * @endcode
 *
 * @param[in] name the name.
 * @return the id of the first other process that has it. Ends the process as find_pid_by_name()
 *         does.
 * @retval 0 there is none.
 * @see app_isrun()
 */
CORVEL_API int is_runing(const char *name);

/**
 * Reads a process id from a file; whether the process exists is not checked.
 *
 * @code
 * assert(getPid("udhcpd.pid") == 417);
 * assert(getPid("missing") == -1);
 * // $ echo 417 >udhcpd.pid
 * // $ ./example
 * @endcode
 *
 * @param[in] path the file.
 * @return the number at the start of the file.
 * @retval 0  the file does not begin with a number, or the number is 0.
 * @retval -1 the file cannot be opened or is a directory.
 */
CORVEL_API int getPid(const char *path);

/** @} */

/**
 * @defgroup accounts Accounts
 * Passwords of the system's own accounts.
 * @{
 */

/** The results of login_auth(). */
enum corvel_login_result {
    CORVEL_LOGIN_ACCEPTED = 0, /**< The password is right. */
    CORVEL_LOGIN_REFUSED = -1  /**< It is not, or it could not be checked. */
};

/** The results of login_chpwd(). */
enum corvel_password_result {
    /** The command accepted this user and this password. */
    CORVEL_PASSWORD_CHANGED = 0,
    /** The command failed; with most shells also if it is missing or was killed. */
    CORVEL_PASSWORD_COMMAND_FAILED = 121,
    /** The shell could not be started or was killed, or its exit status is unavailable. */
    CORVEL_PASSWORD_SHELL_FAILED = 122,
    /** Nothing was run: the user, the password, the file or the lock. */
    CORVEL_PASSWORD_REFUSED = 123
};

/**
 * Checks a password against the system's account database.
 *
 * Only root can do this: the effective user counts, so that the program may be set-user-ID root.
 * The password field of the password file must not be empty, and not begin with `!` or `*`; the
 * hash is that of the shadow file, whose line must fit 256 bytes.
 *
 * @note An expired account passes: only the password is compared, not the dates of the shadow file.
 * @note It takes longer for a user that exists, and does not slow down someone who guesses
 *       passwords: the program has to do that.
 *
 * @code
 * assert(login_auth("no-such-user", "secret") == CORVEL_LOGIN_REFUSED);
 * @endcode
 *
 * @param[in] user     the user.
 * @param[in] password the password, in plain text.
 * @return a value of ::corvel_login_result.
 * @retval CORVEL_LOGIN_ACCEPTED the password is right.
 * @retval CORVEL_LOGIN_REFUSED  it is not, or it could not be checked, for any reason.
 * @see login_chpwd()
 */
CORVEL_API int login_auth(const char *user, const char *password);

/**
 * Sets a user's password with the command "/bin/chpasswd -m < /tmp/.chpwd.txt".
 *
 * The user's name and the password are written to /tmp/.chpwd.txt, and the command is run through
 * the shell. The file is new, readable by its owner alone, and removed before the call returns; a
 * file that already has its name is removed, too. A signal that ends the program in between leaves
 * the file there.
 *
 * The command has the rights that the shell leaves it: many shells drop those of a set-user-ID
 * program, which results in CORVEL_PASSWORD_COMMAND_FAILED. Such a program must make root its real
 * user first.
 *
 * Programs that call this at the same time share the one file. For its whole duration a call holds
 * a lock on /var/run/chpwd.lck, so that the command processes the line of its own call:
 * CORVEL_PASSWORD_CHANGED means that it accepted this user and this password. A call waits for
 * another one for at most 15 seconds. The lock file is empty, is never removed, belongs to root and
 * has mode 0600. It is created if it is missing, and so is its directory, to which only root may
 * have write permission: it is in memory on most devices, even if the root file system is
 * read-only. Without the lock nothing is run: if the file cannot be opened or locked, is a link,
 * has a second name or another owner, or can be opened by others, the result is
 * CORVEL_PASSWORD_REFUSED. A program that is killed during the call releases the lock, but its
 * command may still be running.
 *
 * @code
 * // A colon would end the user's name in the command's input.
 * assert(login_chpwd("ad:min", "secret") == CORVEL_PASSWORD_REFUSED);
 * assert(login_chpwd("admin", "two\nlines") == CORVEL_PASSWORD_REFUSED);
 * @endcode
 *
 * @param[in] user     the user. Refused if it contains a colon or a newline.
 * @param[in] password the password, in plain text. Refused if it contains a newline.
 * @return a value of ::corvel_password_result.
 * @retval CORVEL_PASSWORD_CHANGED        the command accepted this user and this password.
 * @retval CORVEL_PASSWORD_COMMAND_FAILED the command failed; with most shells also if it is missing
 *                                        or was killed.
 * @retval CORVEL_PASSWORD_SHELL_FAILED   the shell could not be started or was killed, or its exit
 *                                        status is unavailable, for example because SIGCHLD is
 *                                        ignored.
 * @retval CORVEL_PASSWORD_REFUSED        nothing was run: the user or the password is refused, the
 *                                        file could not be created or not be written whole, or the
 *                                        lock could not be taken.
 * @see login_auth()
 */
CORVEL_API int login_chpwd(const char *user, const char *password);

/** @} */

/**
 * @defgroup trap_socket Traps
 * Notifications of CORVEL_TRAP_SIZE bytes, sent over netlink protocol 16 to the kernel and
 * multicast group 1.
 * @{
 */

/** Bytes of a notification. */
#define CORVEL_TRAP_SIZE 156
/** Bytes of the netlink message that contains a notification. */
#define CORVEL_TRAP_MESSAGE_SIZE 172

/**
 * Opens a socket for send_trap_msg(), which is itself a member of the multicast group.
 *
 * The caller closes it; programs that the caller starts do not inherit it. A thread can have only
 * one at a time: the port of a second one is already in use.
 *
 * @note
 *  - If the socket cannot be bound, "bind failure:%s!" and a newline are printed on standard
 *    output, with the reason, and the socket stays open.
 *  - A descriptor of 0 counts as a failure although it stays open; `errno` does not explain it.
 *
 * @code
 * const int traps = open_socket_for_trap();
 * if (traps > 0)
 *     close(traps);
 * else
 *     fprintf(stderr, "no traps: %s\n", strerror(-traps));
 * // $ ./example >/dev/null 2>&1
 * @endcode
 *
 * @return the descriptor, above 0; on failure the negative `errno`.
 * @see send_trap_msg()
 */
CORVEL_API int open_socket_for_trap(void);

/**
 * Sends a notification as a netlink message.
 *
 * The message has CORVEL_TRAP_MESSAGE_SIZE bytes, type 17, sequence number 1, and the id of the
 * process as that of its sender. On failure "unable to send message" is printed with perror().
 *
 * @param[in] sockfd the socket that open_socket_for_trap() returned.
 * @param[in] record CORVEL_TRAP_SIZE bytes, sent unchanged.
 * @return the bytes sent, CORVEL_TRAP_MESSAGE_SIZE; negative on failure.
 * @see open_socket_for_trap()
 */
CORVEL_API int send_trap_msg(int sockfd, const void *record);

/** @} */

/**
 * @defgroup diagnostic_dumps Diagnostic dumps
 *
 * Dumps of bytes to standard output, which in a CGI program is the response: for debugging only.
 * print_byte_to_string() writes to a string instead.
 * @{
 */

/**
 * Passes what print_hex_string() prints to DFPrintf(), so prints nothing.
 *
 * @param[in] data the bytes.
 * @param[in] len  their number.
 * @see print_hex_string()
 */
CORVEL_API void DPrint_hex_string(const unsigned char *data, int len);

/**
 * Prints bytes in lower-case hexadecimal, without a newline.
 *
 * Fewer than 40 bytes are printed whole, otherwise the first and the last 10 and the length;
 * "<empty string>" is printed for none.
 *
 * @code
 * print_hex_string((const unsigned char *)"corvel", 6);
 * puts("");
 * unsigned char zeros[64] = {0};
 * print_hex_string(zeros, sizeof zeros);
 * // $ ./example
 * // 636f7276656c
 * // 00000000000000000000 ... 00000000000000000000 [64 bytes]
 * @endcode
 *
 * @param[in] data the bytes.
 * @param[in] len  their number.
 * @see print_to_string()
 */
CORVEL_API void print_hex_string(const unsigned char *data, int len);

/**
 * Prints bytes unchanged, shortened as print_hex_string() does, with 20 bytes at each end.
 *
 * @param[in] data the bytes.
 * @param[in] len  their number.
 * @see print_hex_string()
 */
CORVEL_API void print_to_string(const unsigned char *data, int len);

/**
 * Prints a newline and then bytes in hexadecimal, 16 a line.
 *
 * A full last line is followed by an empty one.
 *
 * @param[in] data the bytes.
 * @param[in] len  their number.
 * @see print_hex_array()
 */
CORVEL_API void print_string(const unsigned char *data, int len);

/**
 * Prints a title line and bytes as print_string() does, without the first newline.
 *
 * @code
 * print_hex_array("record", (const unsigned char *)"corvel", 6);
 * // $ ./example | sed 's/ $//'
 * // record(6):
 * // 63 6f 72 76 65 6c
 * @endcode
 *
 * @param[in] title printed as "title(len):" on a line of its own, unless it is null.
 * @param[in] data  the bytes.
 * @param[in] len   their number.
 */
CORVEL_API void print_hex_array(const char *title, const unsigned char *data, int len);

/**
 * Prints a title line, the bytes unchanged and a newline.
 *
 * @param[in] title printed as "title(len):" on a line of its own, unless it is null.
 * @param[in] data  the bytes.
 * @param[in] len   their number.
 */
CORVEL_API void print_string_array(const char *title, const unsigned char *data, int len);

/**
 * Appends bytes to a string in upper-case hexadecimal, as hardware addresses.
 *
 * A colon separates two bytes; a space, instead of a colon, follows every sixth byte if there are
 * more.
 *
 * @code
 * char text[8 + 3 * 7] = "macs: ";
 * print_byte_to_string(text, (const unsigned char *)"\x00\x1A\x2B\x3C\x4D\x5E\x6F", 7);
 * assert(strcmp(text, "macs: 00:1A:2B:3C:4D:5E 6F") == 0);
 * @endcode
 *
 * @param[in,out] dst  a terminated string with room for three characters a byte.
 * @param[in]     data the bytes.
 * @param[in]     len  their number.
 * @return 0.
 */
CORVEL_API int print_byte_to_string(char *dst, const unsigned char *data, int len);

/** @} */

#ifdef __cplusplus
}
#endif

#endif
