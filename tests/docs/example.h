/* SPDX-License-Identifier: MIT */
/**
 * @file example.h
 * @brief A header with all markup that manual pages show.
 *
 * It is never compiled. Rules for all functions:
 *  - A count below zero counts as zero.
 */

/**
 * @defgroup shelf Shelves
 *
 * A shelf is a `"`, a `'='`, a `%s`, a `"%d"`, a `%2F` or an `&amp;`.
 * @{
 */

/** The most books on a shelf. */
#define EXAMPLE_MOST 12

/** The larger one of two numbers. @param a a number. @param b another one. */
#define EXAMPLE_LARGER(a, b) ((a) > (b) ? (a) : (b))

enum {
    EXAMPLE_SHELVED = 0, /**< The book is on the shelf. */
    EXAMPLE_FULL = 121   /**< There is no room; see #EXAMPLE_MOST. */
};

/** What shelve() returns. */
enum example_reason {
    EXAMPLE_NONE,     /**< No reason. */
    EXAMPLE_OTHER = 9 /**< Another reason. */
};

/** Compares two books. */
typedef int (*example_order)(const void *, const void *);

/**
 * One book.
 *
 * Zero it first.
 */
typedef struct book {
    char title[255];   /**< The title. */
    struct book *next; /**< The following book, or null. */
    int (*read)(int);  /**< Reads the page of a number. */
} book;

/** The shelf in use, after find_shelf(). */
extern unsigned char shelf_in_use[EXAMPLE_MOST];

/**
 * Puts a book on a shelf. Never removes one.
 *
 * An *italic* word, a **bold** one, `-1`, a backslash `\`, malloc(), unshelve(), shelve(),
 * [a page](https://example.org/a) and book::title. The form of @p name:
 * @verbatim
   .title
       'part'
   @endverbatim
 *
 * 1. Look:
 *    - left
 *    - right
 *
 *    Then think.
 * 2. Act.
 *
 * | Key | Value  |
 * |-----|--------|
 * | `a` | second |
 *
 * @param[in,out] shelf the shelf: @p count books of 8 bytes.
 *                      May be null.
 * @param         name  the title.
 * @param         count the number of books.
 * @param         order the order.
 *
 * @return the state of the shelf.
 * @retval EXAMPLE_SHELVED the book is there.
 * @retval -1              there is no shelf.
 *
 * @par Errors
 * A null pointer is:
 *  - refused
 *
 * @par Order of books
 * By title.
 * @pre There is a shelf.
 * @note Shelves are slow: no. -1, no. 10, no. 11, no. 12, no. 13, no. 14, no. 15, no. 16, no. 17
 *       and no. 18.
 * @warning Shelves fall.
 * @since 1.1
 *
 * Two books:
 * @code
 * if (!shelve(shelf, "a\n", 1, NULL)) // at most `EXAMPLE_MOST`
 *     'x';
 * @endcode
 *
 * @see unshelve(), the guide
 */
int shelve(book *shelf, const char *name, unsigned int count,
           int (*order)(const void *, const void *), ...);

/** @return the number of books that were removed. */
int unshelve(void);

/** @} */

/**
 * Finds a shelf: see the group @ref shelf.
 *
 * @code
 * find_shelf("a");
 * @endcode
 */
char *find_shelf(const char name[32]);
