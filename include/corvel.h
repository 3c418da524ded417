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
 *    texts and a list's records with malloc() and releases them in free_prop() and free_list().
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
 * At most `value_size` - 1 characters are kept: 256. Not for rows of a request: see there.
 *
 * @return the index of the row, or @p count if no row has the name.
 */
CORVEL_API int set_prop(const char *name, const char *value, prop_entry *table, int count);

/**
 * Sets a value, adding a row at index @p count if no row has the name.
 *
 * An existing value is zeroed whole before it is written, and keeps 256 characters; a new row keeps
 * 257 characters. Not for rows of a request: see there.
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
 * Whatever the lock file is worth, the copy is locked as well (flock()) until it has become the
 * file: two writers that overlap write one after the other.
 *
 * The new file has the mode and, as far as the process may set them, the owner and the group of the
 * old one. Without the owner, set-id bits go; another group gets no more than everybody. If the old
 * file can't be read, or the copy can't be written whole (a full disk), the old file stays as
 * it is and no copy is left behind, except one that a writer which died has written: it may be all
 * there is, and nobody but you renames it back. Symbolic links at the companions' names are not
 * followed: with one in the copy's place nothing is saved, with one in the lock's place without a
 * lock. A path whose companions' names do not fit their buffers (1024 bytes; 255 for the copy in
 * save_global_conf()) leaves everything untouched.
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
 * without a name; the lock on the copy then keeps the two apart.
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
 * size fields alone; free_prop() releases the texts. The table must have room for every pair. Zero
 * the array first: set_prop() and ins_prop() rely on the sizes, and change nothing in a row whose
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

/**
 * @defgroup upload Upload intake
 *
 * A multipart upload is read whole, with its boundary in front so that the first part is found like
 * every other one, and then cut into its files. Header names are matched with their case, anywhere
 * between two boundaries: a content that holds "Content-Type:" is taken for a header, too.
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
 * @param boundary        the address of a pointer: to a buffer that takes the boundary text, or a
 *                        null pointer, which is set to a new block that the caller frees. It may be
 *                        set even where the result is null.
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
 * @param boundary     the address of a pointer: to a buffer that holds the boundary text, or a null
 *                     pointer, which is set to a new block that the caller frees.
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
 * first. Where a header's line does not end, the buffer is read to its end. A value is what follows
 * up to the line end, without double quotes, cut at 256 characters and at what the record's field
 * holds. The content lies between the blank line behind the last header and the line end in front
 * of the next boundary.
 *
 * @param data     receives where the content begins, in the buffer.
 * @param size     receives the content's length; 0 where the headers run into the boundary.
 * @param cursor   where to begin; moves to two bytes in front of the next boundary if a file was
 *                 found, to the next boundary for -3 and -4, otherwise to the end.
 * @param end      the end of the buffer; nothing behind it is read.
 * @param boundary the boundary text; an empty one stands nowhere.
 * @param record   its three texts are written as far as the headers are there.
 * @return 0 if a file was found; -1 if there is no boundary, -2 if no second one, -3 without
 *         `filename=`, -4 without `Content-Type:` (the next 32 bytes at most are then printed to
 *         standard output).
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
 * @param upload   what read_queue_for_upload1() returned.
 * @param length   its total length.
 * @param boundary the boundary text.
 * @param files    four records.
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
 * @param data   the bytes.
 * @param length their number; 0 or less gives 0.
 * @return the CRC-32.
 */
CORVEL_API uint32_t crc32(const unsigned char *data, int length);

/**
 * Reads an environment image from a file or device and makes it current.
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
 * @param name  the name.
 * @param value the value; null deletes the variable, which need not be there. Not a value that
 *              get_env() returned: the old entry is removed first, which moves what follows it.
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
 * with init_env() first.
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
 * system and kernel: an upgrade writes the one that does not run and then makes it boot.
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

/** The set that runs: 0 for A, 1 for B. Updated by get_bootparam() only. */
extern CORVEL_API int bootparam;

/**
 * Loads the environment from "/dev/mtdblock1" and reads from its variable "bootparam" which set
 * runs, into the object of that name. Logs "bootparam=%d\n".
 *
 * @return what is added to the block-device index of set A to reach the idle set: 2 if A runs, 0 if
 *         B runs. 0 also on every failure and for a negative odd number, with `bootparam` as it
 *         was.
 */
CORVEL_API uint32_t get_bootparam(void);

/**
 * Makes the other set boot: stores it in the environment that get_bootparam() loaded and writes
 * that to "/dev/mtdblock1". Call it when the new set is written, in the same process.
 *
 * @return what save_param() returned: 0 or (uint32_t)-1.
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
 * @param offset where to, from the device's start.
 * @param len    their number.
 * @return 1 if all were written, else 0.
 */
CORVEL_API int flash_write(const char *path, const void *buf, int offset, unsigned int len);

/**
 * Copies a file byte by byte. Write errors are not noticed.
 *
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

#ifdef __cplusplus
}
#endif

#endif
