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
 *  - The caller owns every table (array and count) and every list. The library allocates the texts
 *    in them with malloc() and releases them in free_prop() and free_list().
 *  - No function may be called from several threads at once.
 */
#ifndef CORVEL_H
#define CORVEL_H

#include <stdint.h>
#include <stdio.h>

#if defined(__GNUC__)
/** Marks what the shared library exports; everything else in it is hidden. */
#define CORVEL_API __attribute__((__visibility__("default")))
/** Has the compiler check a printf-like call: position of the format and of its first value. */
#define CORVEL_PRINTF_LIKE(text, first) __attribute__((__format__(__printf__, text, first)))
#else
#define CORVEL_API
#define CORVEL_PRINTF_LIKE(text, first)
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
    uint32_t value_size; /**< Bytes at `value`: 257. One more byte lies behind them, always zero. */
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
 * At most `value_size` - 1 characters are kept: 256. A row from the request decoder has whatever
 * `value_size` the caller put there; with 0 nothing is written.
 *
 * @return the index of the row, or @p count if no row has the name.
 */
CORVEL_API int set_prop(const char *name, const char *value, prop_entry *table, int count);

/**
 * Sets a value, adding a row at index @p count if no row has the name.
 *
 * An existing value is zeroed whole before it is written, and keeps 256 characters; a new row keeps
 * 257 characters.
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
 * @param value the value; cut at 257 characters.
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
 * Both writers lock the companion file `path` + ".lck", write the whole new content into `path` +
 * ".cgi", remove `path` and rename the copy to `path`. A process that dies on the way leaves either
 * the old file whole or the copy whole. Between the removal and the renaming there is no file at
 * `path`; readers take no lock.
 *
 * The new file has the mode and, as far as the process may set it, the owner of the old one. If the
 * old file can't be read, or the copy can't be written whole (a full disk), the old file stays as
 * it is and no copy is left behind. A path whose companions' names do not fit their buffers (1024
 * bytes; 255 for the copy in save_global_conf()) leaves everything untouched.
 *
 * Lines are read as described under Property table: a line of more than 1023 characters is taken in
 * pieces, a NUL ends a line, and a last line without a line end is dropped. A line's key is the
 * text in front of the first separator, or the whole line if it has none; a prefix such as "setenv
 * " belongs to the key.
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
 * The lock file is created if it is missing (mode 0600) and stays. If it can't be opened the file
 * is rewritten without a lock.
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
 * The lock file is removed at the end. A writer that opened it just before holds a lock on a file
 * without a name, so that two writers can overlap at that moment; programs that save the same file
 * with this function at high rates need a lock of their own around it.
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
 * size fields alone; free_prop() releases the texts. The table must have room for every pair.
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
 * @param table the rows to fill, from the first one.
 * @return the number of pairs stored; 0 for a GET without a body, or if the scratch buffers can't
 *         be allocated. A pair whose texts can't be allocated is left out.
 */
CORVEL_API int process_queue(prop_entry *table);

/**
 * Decodes a GET: the pairs of QUERY_STRING. QUERY_STRING and HTTP_REFERER are removed from the
 * environment.
 *
 * @param table the rows to fill, from the first one.
 * @return the number of pairs stored; 0 for a POST in whatever case, which touches nothing, or if
 *         the scratch buffers can't be allocated.
 */
CORVEL_API int process_queue_get(prop_entry *table);

/**
 * Decodes the pairs of QUERY_STRING, whatever the method, and leaves the environment alone.
 *
 * @param table the rows to fill, from the first one.
 * @return the number of pairs stored.
 */
CORVEL_API int process_query_string(prop_entry *table);

/**
 * Copies a text up to a stop character.
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
 * the range of an int; 0 if the method is not GET, or there is no such field, or it is not a
 * number.
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
 * A line's filled form may have any length. Only where memory for values inside values runs out, a
 * value is written as it stands, its markers not filled.
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
 * backslash or a control character is escaped by the caller or the document does not parse.
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
 * @return 0.
 */
CORVEL_API int prop2json(const prop_entry *table, int count);

/** @} */

#ifdef __cplusplus
}
#endif

#endif
