/* SPDX-License-Identifier: MIT */
/**
 * @file corvel_page.h
 * @brief libcorvel_page: the page kit, for new pages of a router's web management.
 *
 * A page is a CGI program. It begins a request, states what it accepts, reads the request, checks
 * its fields, reads or saves settings, and sends one answer:
 *
 * @code
 * static corvel_request_rules rules; // zeroed: every member has its default
 * corvel_request *const request = corvel_request_begin();
 * corvel_answer *const answer = corvel_answer_new(request, NULL);
 * rules.methods = CORVEL_GET | CORVEL_POST;
 * const int status = corvel_request_read(request, &rules);
 * if (status != CORVEL_HTTP_OK)
 *     corvel_answer_error(answer, status, corvel_request_complaint(request));
 * else
 *     corvel_answer_html(answer, corvel_field(request, "name"));
 * corvel_answer_send(answer);
 * corvel_answer_free(answer);
 * corvel_request_free(request);
 * // $ REQUEST_METHOD=GET QUERY_STRING=name=%3CRouter%3E ./example | tail -n 1
 * // &lt;Router&gt;
 * // $ REQUEST_METHOD=TRACE ./example | head -n 1 | tr -d '\r'
 * // Status: 405 Method Not Allowed
 * @endcode
 *
 * These conventions hold for every function, unless its own description says otherwise:
 *  - A string is a sequence of bytes terminated by a NUL byte. A null pointer passed where a string
 *    is read counts as a missing value, which is never accepted by a check and is written as
 *    nothing.
 *  - A function that takes a handle accepts a null pointer: it does nothing and returns its failure
 *    value. The result of a `..._new`, `..._begin` or `..._load` function can be passed on
 *    unchecked.
 *  - A string that a function returns belongs to the handle that it was read from and is valid
 *    until that handle is changed or freed.
 *  - Everything allocated is released by the handle's `..._free` function. There is no global
 *    state.
 *  - Sizes are in bytes. A size includes the terminating NUL, a length does not.
 *  - Several threads may use the kit at once if each has its own handles.
 *
 * The examples are bodies of main(), each compiled and run by the project's tests. Where an example
 * ends with lines that begin with `$`, these are the shell commands that run it, with their output.
 */
#ifndef CORVEL_PAGE_H
#define CORVEL_PAGE_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <time.h>

#if defined(__GNUC__)
/** Marks what the shared library exports; everything else in it is hidden. */
#define CORVEL_PAGE_API __attribute__((__visibility__("default")))
/**
 * Makes the compiler check the calls of a function like printf().
 *
 * @param format the position of the format among the function's parameters, from 1.
 * @param first  the position of the first value to print.
 */
#define CORVEL_PAGE_PRINTF_LIKE(format, first)                                                     \
    __attribute__((__format__(__printf__, format, first)))
#else
#define CORVEL_PAGE_API
#define CORVEL_PAGE_PRINTF_LIKE(format, first)
#endif

#ifdef __cplusplus
extern "C" {
#endif

/**
 * @defgroup page_request Requests
 * @brief Reading a request: what a page accepts, and the decoded fields. Source: page/request.cpp.
 *
 * corvel_request_begin() copies the method and the cookies, so that a page can look for a session
 * before it reads anything else. corvel_request_read() then checks the request by the page's rules,
 * reads its body and decodes it.
 *
 * Everything else in the environment is read with getenv() when it is needed, and the strings are
 * those of the environment: a page must not change the variables of CGI while it has a request. It
 * does not call functions of corvel.h that read requests, such as process_queue(): they remove
 * variables, and they read the same body.
 * @{
 */

/** A request, from the environment and the standard input of a CGI program. */
typedef struct corvel_request corvel_request;

/** Methods of a request, combined by bitwise or. */
enum {
    CORVEL_GET = 1,   /**< GET, and HEAD, whose answer is sent without its body. */
    CORVEL_POST = 2,  /**< POST */
    CORVEL_PUT = 4,   /**< PUT */
    CORVEL_DELETE = 8 /**< DELETE */
};

/** Content types of a request's body, combined by bitwise or. */
enum {
    CORVEL_FORM = 1,      /**< application/x-www-form-urlencoded */
    CORVEL_MULTIPART = 2, /**< multipart/form-data, read by corvel_upload_read() */
    CORVEL_JSON_TEXT = 4, /**< application/json, returned by corvel_request_body() */
    CORVEL_ANY_TYPE = 8   /**< Every type not combined with it, returned by corvel_request_body() */
};

/** Statuses of HTTP that the pages of a device need. */
enum {
    CORVEL_HTTP_OK = 200,                     /**< OK */
    CORVEL_HTTP_SEE_OTHER = 303,              /**< See Other */
    CORVEL_HTTP_NOT_MODIFIED = 304,           /**< Not Modified */
    CORVEL_HTTP_BAD_REQUEST = 400,            /**< Bad Request */
    CORVEL_HTTP_FORBIDDEN = 403,              /**< Forbidden */
    CORVEL_HTTP_NOT_FOUND = 404,              /**< Not Found */
    CORVEL_HTTP_METHOD_NOT_ALLOWED = 405,     /**< Method Not Allowed */
    CORVEL_HTTP_REQUEST_TIMEOUT = 408,        /**< Request Timeout */
    CORVEL_HTTP_CONFLICT = 409,               /**< Conflict */
    CORVEL_HTTP_LENGTH_REQUIRED = 411,        /**< Length Required */
    CORVEL_HTTP_CONTENT_TOO_LARGE = 413,      /**< Content Too Large */
    CORVEL_HTTP_UNSUPPORTED_MEDIA_TYPE = 415, /**< Unsupported Media Type */
    CORVEL_HTTP_UNPROCESSABLE_CONTENT = 422,  /**< Unprocessable Content */
    CORVEL_HTTP_TOO_MANY_REQUESTS = 429,      /**< Too Many Requests */
    CORVEL_HTTP_INTERNAL_SERVER_ERROR = 500,  /**< Internal Server Error */
    CORVEL_HTTP_SERVICE_UNAVAILABLE = 503     /**< Service Unavailable */
};

/** What a page accepts. A member that is 0 has the default stated here. */
typedef struct corvel_request_rules {
    unsigned methods; /**< CORVEL_GET and others. Default: CORVEL_GET. */
    unsigned types;   /**< CORVEL_FORM and others, for a body. Default: CORVEL_FORM. */
    /**
     * Bytes of a body. Default: 65,536. It does not count for multipart/form-data, which has limits
     * of its own: see #corvel_upload_limits.
     */
    size_t body_max;
    size_t pairs_max; /**< Pairs of the query, and of the form. Default: 1,024. */
    /**
     * Bytes that are allocated for the body, the query and the form together. Default: twice
     * `body_max` and 131,072 more, enough for any body of that size with 1,024 pairs.
     */
    size_t memory_max;
    /**
     * Seconds to wait for the body, at most 86,400. Default: 30. A longer body has this time for
     * each 65,536 bytes. A body that is discarded has ten times as long.
     */
    unsigned body_seconds;
    bool accept_other_sites; /**< Accept a POST, PUT or DELETE that a page of another site sent. */
    /**
     * The names of this device, ended by a null pointer; null accepts any name. Without them, a
     * page of another site that makes its own name lead to this device (DNS rebinding) can read
     * this device's pages as if they were its own. The names are compared regardless of case,
     * without the port. A request to an address, such as 192.168.1.1, is always accepted.
     */
    const char *const *hosts;
} corvel_request_rules;

/**
 * Begins a request: reads the environment, not the body.
 *
 * @return the request, to be released with corvel_request_free(); null if memory is exhausted. A
 *         null request can be passed on: corvel_request_read() then returns
 *         CORVEL_HTTP_SERVICE_UNAVAILABLE.
 * @see corvel_request_read(), corvel_request_free()
 */
CORVEL_PAGE_API corvel_request *corvel_request_begin(void);

/** How a request is contained. A member that is 0 has the default stated here. */
typedef struct corvel_containment {
    unsigned user;  /**< User ID of the process. Default: 65534, that of nobody. */
    unsigned group; /**< Its group ID. Default: 65534. */
    /**
     * Seconds that the process may compute, and seconds that it may take longer than the body, by
     * the rules of the request. Default: 10.
     */
    unsigned seconds;
    /** Bytes of its address space, with those that the page uses. Default: 64 MiB. */
    size_t memory_max;
    /**
     * Go on without a restriction that is not possible here; otherwise the request is refused. For
     * a page that does not run as root, and for a kernel without filters of system calls.
     */
    bool accept_less;
} corvel_containment;

/**
 * Begins a request that is contained: cookies, query, form, body and upload are parsed by processes
 * without privileges, so that a mistake in a parser does not give the device to a stranger.
 *
 * The rest of the page is the same. The functions that parse, which are this one,
 * corvel_request_read() and corvel_upload_read(), each start a process for their duration. It is a
 * copy of the page's process that has given up
 *  - all descriptors but standard input and a pipe to the page,
 *  - the page's user, groups and capabilities, and the ability to gain privileges,
 *  - files, further processes, core dumps, being traced, and more memory and processor time than
 *    stated,
 *  - all system calls but those with which it reads, writes, waits, asks for the time, allocates
 *    memory that is not executable, and ends; for any other one the kernel ends it.
 *
 * It passes on fields, cookies and the content of files in records with a length, which the page's
 * process checks against the limits that it was given. Of the request, the page's process itself
 * looks only at the method, the length, and what the page asks for: corvel_path(),
 * corvel_client_address(), corvel_is_secure() and the conditions of corvel_answer_conditional().
 *
 * If the process cannot be started or restricted, crashes, takes too long or sends something else
 * than these records, the request is refused with CORVEL_HTTP_INTERNAL_SERVER_ERROR and a complaint
 * that does not give the reason, an upload with CORVEL_UPLOAD_NOT_CONTAINED; the system log
 * contains the reason. No process is left when a function returns.
 *
 * A function of this kind takes the time of a fork() longer, and a page must not wait for children
 * that it has not started. Values that are passed on take memory in both processes, and in the
 * page's up to three times what corvel_request_rules::memory_max states.
 *
 * @code
 * static corvel_containment containment;
 * containment.accept_less = true; // for this example, which can be run by any user
 * corvel_request *const request = corvel_request_begin_contained(&containment);
 * if (corvel_request_read(request, NULL) == CORVEL_HTTP_OK)
 *     puts(corvel_field(request, "name"));
 * corvel_request_free(request);
 * // $ REQUEST_METHOD=GET QUERY_STRING=name=router ./example
 * // router
 * @endcode
 *
 * @param[in] how the containment; null for all defaults.
 * @return as corvel_request_begin().
 * @see corvel_request_read(), corvel_upload_read()
 */
CORVEL_PAGE_API corvel_request *corvel_request_begin_contained(const corvel_containment *how);

/**
 * Checks the request, reads its body and decodes the query and the form.
 *
 * The body of a refused request, and that of a GET, is read to its end and discarded: some web
 * servers deliver no answer of a program that leaves a part of the body unread. No byte after the
 * announced length is read. Without CONTENT_LENGTH, a request with HTTP_TRANSFER_ENCODING has a
 * body that ends with the input, and any other request has none. busybox httpd does not decode such
 * a body: it is refused if SERVER_SOFTWARE starts with "busybox".
 *
 * A POST, PUT or DELETE changes something and is refused if a page of another site sent it. The
 * browser tells: by Sec-Fetch-Site, which must be `same-origin` or `none`; if that is missing by
 * Origin, and else by Referer, which must have the host and port of Host, and https if the request
 * arrived by TLS. An Origin of `null` is that of another site. A request without any of the three
 * was not sent by a browser and is accepted. A page must therefore not set the referrer policy
 * `no-referrer`, which makes browsers send an Origin of `null`.
 *
 * The query of every request is decoded, and the body of CORVEL_FORM: `+` is a space, and `%` with
 * two hexadecimal digits a byte; any other `%` is kept. A pair without `=` has an empty value.
 * Pairs with an empty name and pairs with the same name are kept. The strings are not checked to be
 * UTF-8: see corvel_check_text().
 *
 * Only the first call for a request reads; a later one returns the same result.
 *
 * @param[in,out] request the request.
 * @param[in]     rules   what the page accepts; null for all defaults.
 *
 * @retval CORVEL_HTTP_OK                     the request is accepted.
 * @retval CORVEL_HTTP_BAD_REQUEST            the length of the body is malformed or missing, the
 *                                            body ends early, PATH_INFO contains a control
 *                                            character, or a field contains a NUL.
 * @retval CORVEL_HTTP_FORBIDDEN              a page of another site sent the request, or it was
 *                                            sent to a name that is not in `hosts`.
 * @retval CORVEL_HTTP_METHOD_NOT_ALLOWED     the method is not in `methods`.
 * @retval CORVEL_HTTP_REQUEST_TIMEOUT        the body did not arrive in `body_seconds`.
 * @retval CORVEL_HTTP_CONTENT_TOO_LARGE      the body, the pairs or the memory for them exceed
 *                                            `body_max`, `pairs_max` or `memory_max`.
 * @retval CORVEL_HTTP_UNSUPPORTED_MEDIA_TYPE there is a body, and its type is not in `types`.
 * @retval CORVEL_HTTP_SERVICE_UNAVAILABLE    memory is exhausted.
 * @retval CORVEL_HTTP_INTERNAL_SERVER_ERROR  the process of a contained request has failed: see
 *                                            corvel_request_begin_contained().
 *
 * @see corvel_request_complaint(), corvel_dispatch()
 */
CORVEL_PAGE_API int corvel_request_read(corvel_request *request, const corvel_request_rules *rules);

/**
 * Returns why corvel_request_read() refused the request.
 *
 * @param[in] request the request.
 * @return a sentence for the user, a string literal; empty if the request was not refused. For a
 *         null request, that memory is exhausted.
 * @see corvel_answer_error()
 */
CORVEL_PAGE_API const char *corvel_request_complaint(const corvel_request *request);

/**
 * Releases a request. Its body and fields are overwritten first, since they can be passwords.
 *
 * @param[in] request the request; null is ignored.
 * @see corvel_request_begin()
 */
CORVEL_PAGE_API void corvel_request_free(corvel_request *request);

/**
 * Returns the method of a request.
 *
 * @param[in] request the request.
 * @return CORVEL_GET for GET and HEAD, CORVEL_POST, CORVEL_PUT or CORVEL_DELETE; 0 for any other
 *         method, and for one that is not in upper case.
 * @see ::corvel_request_rules
 */
CORVEL_PAGE_API unsigned corvel_method(const corvel_request *request);

/**
 * Returns the path after the name of the program (PATH_INFO), which the web server has decoded.
 *
 * @param[in] request the request.
 * @return the path; empty if there is none or if it contains control characters. It is not checked
 *         otherwise: it can contain `..` and malformed UTF-8.
 * @see corvel_dispatch()
 */
CORVEL_PAGE_API const char *corvel_path(const corvel_request *request);

/**
 * Returns the value of a cookie.
 *
 * Another server on the same host, even on another port, can set cookies of the same name, and the
 * browser may send them first. Try each index until the value is one that this device has made.
 *
 * @param[in] request the request.
 * @param[in] name    the name, compared exactly.
 * @param[in] index   0 for the first cookie of that name, in the order of the request.
 * @return the value without the double quotes around it, if any; null if there are fewer cookies of
 *         that name.
 * @see corvel_answer_cookie(), corvel_session_find()
 */
CORVEL_PAGE_API const char *corvel_cookie(const corvel_request *request, const char *name,
                                          size_t index);

/**
 * Returns the address of the client (REMOTE_ADDR). What a proxy states in a header field is not
 * considered, since any client can send such a field.
 *
 * @param[in] request the request.
 * @return the address as the web server writes it; empty if the server gives none.
 * @see corvel_login()
 */
CORVEL_PAGE_API const char *corvel_client_address(const corvel_request *request);

/**
 * Returns whether the request arrived by TLS.
 *
 * @param[in] request the request.
 * @return true if the variable HTTPS is set and neither empty nor `off`.
 * @see corvel_answer_cookie()
 */
CORVEL_PAGE_API bool corvel_is_secure(const corvel_request *request);

/**
 * Returns the body of an accepted request that is neither a form nor an upload.
 *
 * @param[in]  request the request.
 * @param[out] size    receives the number of bytes, without the NUL after them; may be null.
 * @return the bytes, which can contain NULs, and a NUL after them. Empty if there is no such body.
 * @see corvel_request_read()
 */
CORVEL_PAGE_API const char *corvel_request_body(const corvel_request *request, size_t *size);
/** @} */

/**
 * @defgroup page_field Fields
 * @brief The fields of a form or query, and checks of their values. Source: page/field.cpp.
 *
 * A field is missing if the form has no pair of its name: a check box that is not checked, or a
 * request that another program made. The fields of a refused request are all missing.
 *
 * Each check returns null if the value is valid, and otherwise a message for the user, a string
 * literal. A null pointer is never valid, so that the value of corvel_field() can be passed on, and
 * an empty value only where that is stated. Results are stored only if the value is valid; a null
 * pointer receives none. What is accepted has one spelling, without spaces at its ends, and can be
 * stored as it is.
 *
 * @code
 * corvel_request *const request = corvel_request_begin();
 * const char *complaint = NULL;
 * unsigned port = 0;
 * if (corvel_request_read(request, NULL) != CORVEL_HTTP_OK)
 *     complaint = corvel_request_complaint(request);
 * else
 *     complaint = corvel_check_port(corvel_field(request, "port"), &port);
 * if (complaint)
 *     printf("%s\n", complaint);
 * else
 *     printf("port %u\n", port);
 * corvel_request_free(request);
 * // $ REQUEST_METHOD=GET QUERY_STRING='port=8080' ./example
 * // port 8080
 * // $ REQUEST_METHOD=GET QUERY_STRING='port=' ./example
 * // Enter a value.
 * // $ REQUEST_METHOD=GET ./example
 * // This field is missing.
 * @endcode
 * @{
 */

/**
 * Returns the first value of a field: of the form, or for a GET of the query.
 *
 * @param[in] request the request.
 * @param[in] name    the name, compared exactly.
 * @return the value, valid until the request is freed; null if the field is missing.
 * @see corvel_field_at(), corvel_query(), corvel_check_text()
 */
CORVEL_PAGE_API const char *corvel_field(const corvel_request *request, const char *name);

/**
 * Returns the first value of a name in the query, for any method.
 *
 * @param[in] request the request.
 * @param[in] name    the name, compared exactly.
 * @return the value, valid until the request is freed; null if it is missing.
 * @see corvel_field()
 */
CORVEL_PAGE_API const char *corvel_query(const corvel_request *request, const char *name);

/**
 * Returns one of several values of a field, such as of check boxes.
 *
 * @param[in] request the request.
 * @param[in] name    the name, compared exactly.
 * @param[in] index   0 for the first value, in the order of the form.
 * @return the value, valid until the request is freed; null if the field has fewer values.
 * @see corvel_field(), corvel_field_count()
 */
CORVEL_PAGE_API const char *corvel_field_at(const corvel_request *request, const char *name,
                                            size_t index);

/**
 * Returns the number of pairs of the form, or for a GET of the query.
 *
 * @param[in] request the request.
 * @return the number of pairs.
 * @see corvel_field_pair()
 */
CORVEL_PAGE_API size_t corvel_field_count(const corvel_request *request);

/**
 * Returns a pair of the form, or for a GET of the query.
 *
 * @param[in]  request  the request.
 * @param[in]  position 0 for the first pair, in the order of the form.
 * @param[out] name     receives the name, valid until the request is freed; may be null.
 * @param[out] value    receives the value, valid until the request is freed; may be null.
 * @retval true  the pair is stored.
 * @retval false there are fewer pairs; nothing is stored.
 * @see corvel_field_count(), corvel_field()
 */
CORVEL_PAGE_API bool corvel_field_pair(const corvel_request *request, size_t position,
                                       const char **name, const char **value);

/**
 * Checks a text: UTF-8 without control characters, so that it ends neither a line nor a string in a
 * file.
 *
 * @param[in] value the value; an empty one is valid if @p min is 0.
 * @param[in] min   the shortest length, in bytes.
 * @param[in] max   the greatest length, in bytes.
 * @return null if the value is valid, otherwise a message.
 * @see corvel_check_choice(), corvel_setting_set()
 */
CORVEL_PAGE_API const char *corvel_check_text(const char *value, size_t min, size_t max);

/**
 * Checks a decimal number: digits without leading zeros, which other programs would read as an
 * octal number, and with a minus sign before them if it is negative.
 *
 * @param[in]  value  the value.
 * @param[in]  min    the smallest number.
 * @param[in]  max    the greatest number.
 * @param[out] number receives the number; may be null.
 * @return null if the value is valid, otherwise a message.
 * @see corvel_check_port()
 */
CORVEL_PAGE_API const char *corvel_check_integer(const char *value, long min, long max,
                                                 long *number);

/**
 * Checks an IPv4 address: four decimal numbers from 0 to 255 without leading zeros.
 *
 * @param[in]  value   the value.
 * @param[out] address receives the address in the host's byte order: 0xC0A80101 for 192.168.1.1;
 *                     may be null.
 * @return null if the value is valid, otherwise a message.
 * @see corvel_check_netmask(), corvel_check_range()
 */
CORVEL_PAGE_API const char *corvel_check_ipv4(const char *value, uint32_t *address);

/**
 * Checks an IPv6 address without a zone.
 *
 * @param[in]  value   the value. This is the only check that accepts several spellings of a value.
 * @param[out] address receives the 16 bytes of the address; may be null.
 * @return null if the value is valid, otherwise a message.
 * @see corvel_check_ipv4()
 */
CORVEL_PAGE_API const char *corvel_check_ipv6(const char *value, unsigned char address[16]);

/**
 * Checks an IPv4 netmask, from 0.0.0.0 to 255.255.255.255.
 *
 * @param[in]  value  the value.
 * @param[out] prefix receives the length of the prefix, 0 to 32: 24 for 255.255.255.0; may be null.
 * @return null if the value is valid, otherwise a message.
 * @see corvel_check_prefix()
 */
CORVEL_PAGE_API const char *corvel_check_netmask(const char *value, unsigned *prefix);

/**
 * Checks an IPv4 network with the length of its prefix, such as 192.168.1.0/24. The bits after the
 * prefix must be 0.
 *
 * @param[in]  value   the value.
 * @param[out] network receives the address in the host's byte order; may be null.
 * @param[out] prefix  receives the length of the prefix, 0 to 32; may be null.
 * @return null if the value is valid, otherwise a message.
 * @see corvel_check_ipv4(), corvel_check_netmask()
 */
CORVEL_PAGE_API const char *corvel_check_prefix(const char *value, uint32_t *network,
                                                unsigned *prefix);

/**
 * Checks a range of IPv4 addresses, such as those that a DHCP server gives away: it must be within
 * a network, without the network's first and last address if it has more than two. It can contain
 * @p address.
 *
 * @param[in] first   the first address of the range.
 * @param[in] last    the last address of the range.
 * @param[in] address any address of the network, such as that of the device.
 * @param[in] netmask the netmask of the network.
 * @return null if the range is valid, otherwise a message, which is about the first of the four
 *         values that is not valid by itself, or about the range.
 * @see corvel_check_ipv4(), corvel_check_netmask()
 */
CORVEL_PAGE_API const char *corvel_check_range(const char *first, const char *last,
                                               const char *address, const char *netmask);

/**
 * Checks a MAC address: six pairs of hexadecimal digits of either case, separated by colons.
 *
 * @param[in]  value the value.
 * @param[out] mac   receives the 6 bytes of the address; may be null.
 * @return null if the value is valid, otherwise a message.
 * @see corvel_check_host_name()
 */
CORVEL_PAGE_API const char *corvel_check_mac(const char *value, unsigned char mac[6]);

/**
 * Checks a host name: up to 253 letters of ASCII, digits and hyphens, in parts separated by dots. A
 * part has up to 63 characters and no hyphen at its ends. The last part does not consist of digits,
 * so that the name is not taken for an address.
 *
 * @param[in] value the value.
 * @return null if the value is valid, otherwise a message.
 * @see corvel_check_ipv4(), corvel_check_ipv6()
 */
CORVEL_PAGE_API const char *corvel_check_host_name(const char *value);

/**
 * Checks a port of TCP or UDP: a decimal number from 1 to 65535 without leading zeros.
 *
 * @param[in]  value the value.
 * @param[out] port  receives the port; may be null.
 * @return null if the value is valid, otherwise a message.
 * @see corvel_check_integer()
 */
CORVEL_PAGE_API const char *corvel_check_port(const char *value, unsigned *port);

/**
 * Checks that a value is one of a list.
 *
 * @param[in]  value   the value; an empty one is valid if the list contains it.
 * @param[in]  choices the list, ended by a null pointer; null is an empty list.
 * @param[out] index   receives the position of the first string of the list that equals the value;
 *                     may be null.
 * @return null if the value is valid, otherwise a message.
 * @see corvel_check_text()
 */
CORVEL_PAGE_API const char *corvel_check_choice(const char *value, const char *const choices[],
                                                size_t *index);
/** @} */

/**
 * @defgroup page_answer Answers
 * @brief The answer to a request: status, header fields, body. Source: page/answer.cpp.
 *
 * An answer is kept in memory until it is sent, so that it can still become an error page. The
 * browser gets a complete answer even if something goes wrong before that: if memory is exhausted,
 * if the body is longer than #CORVEL_ANSWER_MAX, or if a function was misused (a header field with
 * a newline, JSON that is not closed, a malformed template), corvel_answer_send() sends an error
 * page of status 500 instead, and the system log contains the reason. No function that fills an
 * answer therefore returns a failure.
 *
 * @code
 * static corvel_site site;
 * site.templates = "templates";
 * corvel_request *const request = corvel_request_begin();
 * corvel_answer *const answer = corvel_answer_new(request, &site);
 * corvel_data *const data = corvel_data_new();
 * corvel_data_set(data, "name", "<Router>");
 * corvel_answer_template(answer, "status", data);
 * corvel_answer_send(answer);
 * corvel_data_free(data);
 * corvel_answer_free(answer);
 * corvel_request_free(request);
 * // $ mkdir templates && echo '<h1>{{name}}</h1>' > templates/status.html
 * // $ REQUEST_METHOD=GET ./example | tail -n 1
 * // <h1>&lt;Router&gt;</h1>
 * @endcode
 * @{
 */
/** An answer. */
typedef struct corvel_answer corvel_answer;

/** Values for a template: names with strings, and names with repeated sections. */
typedef struct corvel_data corvel_data;

/**
 * What the answers of a site have in common. A null member has the default stated here. The strings
 * are not copied: they must stay valid until the answer is freed.
 */
typedef struct corvel_site {
    /** Directory of the templates. Only root may be able to write there: symbolic links are
     * followed. Default: the working directory. */
    const char *templates;
    /** Name of the template of error pages, see corvel_answer_error(). Default: a plain page that
     * needs no file. */
    const char *error_template;
    /** The field Content-Security-Policy of every answer; an empty string omits it. Default:
     * "default-src 'self'; base-uri 'none'; form-action 'self'; frame-ancestors 'none'; object-src
     * 'none'". */
    const char *content_security_policy;
} corvel_site;

/** Bytes of an answer's body at most; a longer one is answered by status 500. */
#define CORVEL_ANSWER_MAX 4194304

/** Characters of a local path at most, see corvel_is_local_path(). */
#define CORVEL_LOCAL_PATH_MAX 2048

/**
 * Creates an answer: status 200, an empty body, and the fields
 *  - `Content-Type: text/html; charset=utf-8`
 *  - `Cache-Control: no-store`
 *  - `X-Content-Type-Options: nosniff`
 *  - `X-Frame-Options: DENY`
 *  - `Referrer-Policy: same-origin`
 *  - `Content-Security-Policy`, see corvel_site
 *
 * @param[in] request the request. Null if corvel_request_begin() failed: the answer then has its
 *                    body even if the method is HEAD. Must stay valid until the answer is freed.
 * @param[in] site    what the site's answers have in common; null for all defaults. It is copied,
 *                    but not its strings.
 * @return the answer, for corvel_answer_free(); null if memory is exhausted. All functions accept
 *         null, and corvel_answer_send() then sends a plain answer of status 503.
 * @see corvel_answer_send(), corvel_answer_free()
 */
CORVEL_PAGE_API corvel_answer *corvel_answer_new(const corvel_request *request,
                                                 const corvel_site *site);

/**
 * Releases an answer. If it was not sent, nothing is sent.
 *
 * @param[in] answer the answer; null is ignored.
 * @see corvel_answer_new()
 */
CORVEL_PAGE_API void corvel_answer_free(corvel_answer *answer);

/**
 * States values that every template of the answer can use, error pages too: the user's name, the
 * device's model. A name is looked up there last.
 *
 * @param[in,out] answer the answer.
 * @param[in]     values the values; null, the result of a corvel_data_new() that failed, is a
 *                       misuse. They are not copied and must stay valid until the answer is freed.
 * @see corvel_data_new(), corvel_answer_template()
 */
CORVEL_PAGE_API void corvel_answer_values(corvel_answer *answer, const corvel_data *values);

/**
 * Sets the status. Ignored after corvel_answer_error() and corvel_answer_redirect().
 *
 * @param[in,out] answer the answer.
 * @param[in]     status the status, 200 to 599; any other is a misuse. An answer of status 204 or
 *                       304 is sent without a body.
 * @see corvel_answer_error()
 */
CORVEL_PAGE_API void corvel_answer_status(corvel_answer *answer, int status);

/**
 * Sets the content type. Ignored after corvel_answer_error() and corvel_answer_redirect().
 *
 * @param[in,out] answer the answer.
 * @param[in]     type   the type, such as "text/csv; charset=utf-8". A null pointer, an empty
 *                       string or one with control characters is a misuse.
 * @see corvel_answer_write()
 */
CORVEL_PAGE_API void corvel_answer_type(corvel_answer *answer, const char *type);

/**
 * Sets a header field. It replaces a default or earlier field of that name in any case of letters.
 * Effective for an error page or redirection too if called after the function that makes it:
 *
 * @code
 * corvel_answer *const answer = corvel_answer_new(NULL, NULL);
 * corvel_answer_error(answer, CORVEL_HTTP_TOO_MANY_REQUESTS, "Please wait for a minute.");
 * corvel_answer_header(answer, "Retry-After", "60");
 * corvel_answer_send(answer);
 * corvel_answer_free(answer);
 * // $ ./example | grep Retry | tr -d '\r'
 * // Retry-After: 60
 * @endcode
 *
 * @param[in,out] answer the answer.
 * @param[in]     name   the name: letters, digits, the backquote and any of `!#$%&'*+-.^_|~`. Any
 *                       other name is a misuse, and so are the names that other functions set:
 *                       Status, Content-Type, Content-Length, Transfer-Encoding and Set-Cookie.
 * @param[in]     value  the value; a null pointer or an empty string removes the field. A value
 *                       with a control character, such as a newline, is a misuse. All fields
 *                       together can have 16,384 bytes.
 * @see corvel_answer_type(), corvel_answer_cookie()
 */
CORVEL_PAGE_API void corvel_answer_header(corvel_answer *answer, const char *name,
                                          const char *value);

/**
 * Sets a cookie with the attributes `Path=/`, `HttpOnly` and `SameSite=Strict`, and `Secure` if the
 * request arrived by TLS. It replaces an earlier cookie of the answer that has the same name. An
 * error page or redirection keeps the cookies that were set before. All cookies together can have
 * 16,384 bytes.
 *
 * @param[in,out] answer  the answer.
 * @param[in]     name    the name: letters, digits, the backquote and any of `!#$%&'*+-.^_|~`. Any
 *                        other is a misuse.
 * @param[in]     value   the value: printable ASCII characters except the space, `"`, `,`, `;` and
 *                        the backslash; any other character is a misuse. A null pointer removes the
 *                        cookie from the browser.
 * @param[in]     max_age seconds until the browser removes the cookie, 0 to remove it at once; a
 *                        negative number keeps it until the browser is closed.
 * @see corvel_cookie(), corvel_session_start()
 */
CORVEL_PAGE_API void corvel_answer_cookie(corvel_answer *answer, const char *name,
                                          const char *value, long max_age);

/**
 * Appends bytes to the body as they are, NUL bytes included. Nothing is escaped: for text in HTML
 * use corvel_answer_html(). Ignored after corvel_answer_error() and corvel_answer_redirect(); a
 * misuse in a JSON body.
 *
 * @param[in,out] answer the answer.
 * @param[in]     bytes  the bytes; null appends nothing.
 * @param[in]     size   the number of bytes.
 * @see corvel_answer_html(), corvel_answer_type()
 */
CORVEL_PAGE_API void corvel_answer_write(corvel_answer *answer, const void *bytes, size_t size);

/**
 * Appends a string to the body, escaped for the text of an HTML element and for an attribute in
 * either kind of quotes. Not for an attribute without quotes, nor for a script or style element.
 *
 * `&`, `<`, `>`, `"` and `'` become character references. Each byte that is not part of a
 * well-formed UTF-8 character, and each control character except tab, newline, form feed and
 * carriage return, becomes U+FFFD. Ignored after corvel_answer_error() and
 * corvel_answer_redirect(); a misuse in a JSON body.
 *
 * @param[in,out] answer the answer.
 * @param[in]     text   the string.
 * @see corvel_answer_template(), corvel_answer_write()
 */
CORVEL_PAGE_API void corvel_answer_html(corvel_answer *answer, const char *text);

/**
 * Replaces the answer by a redirection of status 303: the browser requests the path by GET. The
 * body becomes empty and the header fields become the defaults again; only cookies are kept. What
 * is appended afterwards is ignored.
 *
 * @param[in,out] answer the answer.
 * @param[in]     path   a path of this site, with a query if needed. One that
 *                       corvel_is_local_path() does not accept is a misuse, so that a path out of a
 *                       request cannot lead to another site.
 * @see corvel_is_local_path()
 */
CORVEL_PAGE_API void corvel_answer_redirect(corvel_answer *answer, const char *path);

/**
 * Replaces the answer by an error page. The header fields become the defaults again; only cookies
 * are kept. What is appended afterwards is ignored.
 *
 * The page is the site's error template, filled with the values `status` ("404"), `title` ("Not
 * Found") and `reason`, and with those of corvel_answer_values(). If it cannot be filled, the log
 * contains the reason, and the page is a plain one of the kit. If memory is exhausted, it is empty.
 *
 * @param[in,out] answer the answer.
 * @param[in]     status the status, 400 to 599; any other is a misuse.
 * @param[in]     reason a sentence for the user, which is escaped; null if there is none.
 * @see corvel_request_complaint()
 */
CORVEL_PAGE_API void corvel_answer_error(corvel_answer *answer, int status, const char *reason);

/**
 * Makes the answer conditional, for data that a page polls: if the browser has the same body
 * already, the answer is a 304 without a body. The browser may store the answer for that:
 * Cache-Control becomes "private, no-cache".
 *
 * The entity tag (ETag) is the SHA-256 of the body, computed by corvel_answer_send(). It is
 * compared with those of If-None-Match, in which weak tags count as strong ones and `*` matches any
 * body. There is no condition if the method is not GET or HEAD, or if the status is not 200.
 * Ignored after corvel_answer_error() and corvel_answer_redirect().
 *
 * @param[in,out] answer the answer.
 * @see corvel_answer_header()
 */
CORVEL_PAGE_API void corvel_answer_conditional(corvel_answer *answer);

/**
 * Sends the answer on standard output, with its Content-Length, and without its body if the method
 * is HEAD. A page does its work before that: afterwards, it cannot tell the browser of a failure,
 * and the web server may end it or let the browser wait until it has ended. The answer can be sent
 * once. What was printed to `stdout` before and is still in the stream's buffer follows the answer:
 * a page prints nothing itself.
 *
 * What is left of the request's body is read and discarded before: some web servers deliver no
 * answer of a program that has not read all of it.
 *
 * If nobody reads standard output any more, as after the browser has closed the connection, the
 * result is false; SIGPIPE does not end the program. Writing ends also if the reader accepts
 * nothing for 60 seconds.
 *
 * @param[in,out] answer the answer. For a null pointer, a plain answer of status 503 is sent.
 * @return true if an answer was written completely, the page's own or the one of status 500 that
 *         replaces it; false if not all of it could be written, if @p answer is null, or if it was
 *         sent already.
 * @see corvel_answer_new()
 */
CORVEL_PAGE_API bool corvel_answer_send(corvel_answer *answer);

/**
 * Checks if a string is a path of this site that needs no escaping in a header field: it starts
 * with one `/`, not two, consists of letters, digits and "/-._~?&=%+,:@#", and has at most
 * #CORVEL_LOCAL_PATH_MAX characters.
 *
 * @param[in] path the path, with a query and a fragment if it has them.
 * @return true if it is; false for null.
 * @see corvel_answer_redirect()
 */
CORVEL_PAGE_API bool corvel_is_local_path(const char *path);

/**
 * Encodes a string as the value of a query, or as a component of a path, such as for
 * corvel_answer_redirect() or a link. Letters, digits and `-._~` are kept; each other byte becomes
 * `%` and two hexadecimal digits. Source: page/escape.cpp.
 *
 * @code
 * char name[CORVEL_URL_SIZE(20)];
 * char path[96];
 * corvel_answer *const answer = corvel_answer_new(NULL, NULL);
 * corvel_url_encode("Wi-Fi & guests", name, sizeof name);
 * snprintf(path, sizeof path, "/networks?name=%s", name);
 * corvel_answer_redirect(answer, path);
 * corvel_answer_send(answer);
 * corvel_answer_free(answer);
 * // $ ./example | grep Location | tr -d '\r'
 * // Location: /networks?name=Wi-Fi%20%26%20guests
 * @endcode
 *
 * @param[in]  text the string.
 * @param[out] url  receives the result. It is empty if it would not fit, or if @p text is null.
 * @param[in]  size the size of @p url in bytes, at least 1; CORVEL_URL_SIZE() of the string's
 * length is always enough.
 * @return the length of the result; 0 if it is empty.
 * @see corvel_is_local_path()
 */
CORVEL_PAGE_API size_t corvel_url_encode(const char *text, char *url, size_t size);

/** Bytes of the encoding of a string of at most @p length bytes, with the NUL. */
#define CORVEL_URL_SIZE(length) (3 * (length) + 1)
/** @} */

/**
 * @defgroup page_json JSON
 * @brief A JSON text, written value by value; always valid. Source: page/json.cpp.
 *
 * The values are appended to the body of an answer. If the body is empty before the first one, the
 * whole body is one JSON value, and the content type becomes "application/json" unless the page has
 * set another. Otherwise each value is embedded in what was appended before, such as a script
 * element of type "application/json": `<` is escaped, so that no string ends the element.
 *
 * @code
 * corvel_answer *const answer = corvel_answer_new(NULL, NULL);
 * corvel_json_open_object(answer, NULL);
 * corvel_json_string(answer, "name", "Router \"A\"");
 * corvel_json_open_array(answer, "ports");
 * for (int port = 1; port <= 4; port++)
 *     corvel_json_integer(answer, NULL, port);
 * corvel_json_close(answer);
 * corvel_json_close(answer);
 * corvel_answer_send(answer);
 * corvel_answer_free(answer);
 * // $ ./example | tail -n 1
 * // {"name":"Router \"A\"","ports":[1,2,3,4]}
 * @endcode
 *
 * In all these functions, @p name is the name of a member if the innermost open value is an object,
 * and null in an array and outside. Names and strings may contain any bytes: a byte that is not
 * part of a well-formed UTF-8 character becomes U+FFFD. Two members of an object may have the same
 * name, although readers do not expect that.
 *
 * A misuse is answered by status 500 (see @ref page_answer): a name that is missing or superfluous,
 * a close without an open, a value that is not closed when the answer is sent, a second value in a
 * body that is JSON as a whole, other text in such a body or in an open value, and more than 32
 * arrays and objects in one another. After corvel_answer_error() and corvel_answer_redirect() all
 * values are ignored.
 * @{
 */
/**
 * Opens an object.
 *
 * @param[in,out] answer the answer.
 * @param[in]     name   the name of the member; null outside an object.
 * @see corvel_json_close(), corvel_json_string()
 */
CORVEL_PAGE_API void corvel_json_open_object(corvel_answer *answer, const char *name);

/**
 * Opens an array.
 *
 * @param[in,out] answer the answer.
 * @param[in]     name   the name of the member; null outside an object.
 * @see corvel_json_close(), corvel_json_string()
 */
CORVEL_PAGE_API void corvel_json_open_array(corvel_answer *answer, const char *name);

/**
 * Closes the innermost open object or array.
 *
 * @param[in,out] answer the answer.
 * @see corvel_json_open_object(), corvel_json_open_array()
 */
CORVEL_PAGE_API void corvel_json_close(corvel_answer *answer);

/**
 * Appends a string.
 *
 * @param[in,out] answer the answer.
 * @param[in]     name   the name of the member; null outside an object.
 * @param[in]     value  the string; a null pointer is written as `null`.
 * @see corvel_json_open_object(), corvel_json_null()
 */
CORVEL_PAGE_API void corvel_json_string(corvel_answer *answer, const char *name, const char *value);

/**
 * Appends an integer, exactly. JavaScript reads those beyond 2 to the power of 53 with a rounding
 * error.
 *
 * @param[in,out] answer the answer.
 * @param[in]     name   the name of the member; null outside an object.
 * @param[in]     value  the number.
 * @see corvel_json_decimal()
 */
CORVEL_PAGE_API void corvel_json_integer(corvel_answer *answer, const char *name, long long value);

/**
 * Appends a number with a decimal point in any locale, and with as many digits, 15 to 17, as are
 * needed to read the same number again.
 *
 * @param[in,out] answer the answer.
 * @param[in]     name   the name of the member; null outside an object.
 * @param[in]     value  the number; NaN and infinity, which JSON does not have, are written as
 *                       `null`.
 * @see corvel_json_integer()
 */
CORVEL_PAGE_API void corvel_json_decimal(corvel_answer *answer, const char *name, double value);

/**
 * Appends `true` or `false`.
 *
 * @param[in,out] answer the answer.
 * @param[in]     name   the name of the member; null outside an object.
 * @param[in]     value  the value.
 * @see corvel_json_null()
 */
CORVEL_PAGE_API void corvel_json_boolean(corvel_answer *answer, const char *name, bool value);

/**
 * Appends `null`.
 *
 * @param[in,out] answer the answer.
 * @param[in]     name   the name of the member; null outside an object.
 * @see corvel_json_string()
 */
CORVEL_PAGE_API void corvel_json_null(corvel_answer *answer, const char *name);
/** @} */

/**
 * @defgroup page_html HTML templates
 * @brief HTML templates whose values are escaped. Sources: page/template.cpp, page/data.cpp.
 *
 * A template is the file NAME.html in the site's directory of templates. It is copied, except for
 * its tags:
 *
 * | tag                     | result                                                            |
 * | ----------------------- | ----------------------------------------------------------------- |
 * | `{{name}}`              | The value, escaped as by corvel_answer_html().                    |
 * | `{{&name}}`             | The value as it is: it must be HTML already.                      |
 * | `{{#name}}...{{/name}}` | Once for each corvel_data_add() of that name. If there is none:   |
 * |                         | once if the name has a value that is not empty, otherwise nothing.|
 * | `{{^name}}...{{/name}}` | Once if `{{#name}}` results in nothing, otherwise nothing.        |
 * | `{{>name}}`             | Another template, filled with the same values.                    |
 * | `{{! comment }}`        | Nothing. The comment ends at the first `}}`.                      |
 *
 * A name is 1 to 64 letters, digits, hyphens and underscores, and is compared exactly; spaces and
 * tabs around it are ignored. It is looked up in the values of the innermost repetition, then in
 * those around it, then in those of corvel_answer_values(); the first that has the name, with a
 * value or as a section, is used. A name that is not found has an empty value.
 *
 * What was inserted is never scanned again: a value that contains a tag is printed. The time is
 * linear in the size of the templates and of the result. A literal `{{` is written as
 * `&#123;&#123;`.
 *
 * A malformed template is answered by status 500, and the log contains the line and the reason: a
 * tag or section that is not closed, a tag without a valid name, sections that overlap, more than
 * 16 sections in one another, more than 8 templates in one another, or more than 1,048,576 tags
 * and repetitions carried out.
 *
 * @code
 * corvel_answer *const answer = corvel_answer_new(NULL, NULL);
 * corvel_data *const data = corvel_data_new();
 * for (int port = 1; port <= 4; port++) {
 *     corvel_data *const row = corvel_data_add(data, "ports");
 *     corvel_data_set_integer(row, "number", port);
 * }
 * corvel_answer_template(answer, "ports", data);
 * corvel_answer_send(answer);
 * corvel_data_free(data);
 * corvel_answer_free(answer);
 * // $ echo '<ul>{{#ports}}<li>Port {{number}}{{/ports}}</ul>' > ports.html
 * // $ ./example | tail -n 1
 * // <ul><li>Port 1<li>Port 2<li>Port 3<li>Port 4</ul>
 * @endcode
 * @{
 */
/** Bytes of a template at most. */
#define CORVEL_TEMPLATE_MAX 262144

/** Bytes of memory that the values for a template can take, their names included. */
#define CORVEL_DATA_MAX 4194304

/**
 * Creates an empty set of values.
 *
 * @return the values, for corvel_data_free(); null if memory is exhausted. All functions accept
 *         null, and a template that is to be filled with it is answered by status 500.
 * @see corvel_data_set(), corvel_data_free()
 */
CORVEL_PAGE_API corvel_data *corvel_data_new(void);

/**
 * Releases values and all repetitions that were added to them.
 *
 * @param[in] data the result of corvel_data_new(); null and a result of corvel_data_add() are
 *                 ignored.
 * @see corvel_data_new()
 */
CORVEL_PAGE_API void corvel_data_free(corvel_data *data);

/**
 * Sets a value, which replaces an earlier one of that name. If that fails, because memory or
 * #CORVEL_DATA_MAX is exhausted or the name is malformed, every template that is to be filled with
 * these values is answered by status 500: a page never silently lacks a value.
 *
 * @param[in,out] data  the values.
 * @param[in]     name  the name, copied. It is the page's own: many names out of a request could be
 *                      chosen such that looking them up takes long.
 * @param[in]     value the value, copied; null sets an empty one.
 * @see corvel_data_add(), corvel_answer_template()
 */
CORVEL_PAGE_API void corvel_data_set(corvel_data *data, const char *name, const char *value);

/**
 * Sets a value to a number in decimal digits, as corvel_data_set() does.
 *
 * @param[in,out] data  the values.
 * @param[in]     name  the name, copied.
 * @param[in]     value the number.
 * @see corvel_data_set()
 */
CORVEL_PAGE_API void corvel_data_set_integer(corvel_data *data, const char *name, long long value);

/**
 * Adds one repetition of a section, after those added before. It fails as corvel_data_set() does.
 *
 * @param[in,out] data    the values, of the whole template or of a repetition.
 * @param[in]     section the name of the section, copied.
 * @return the values of the repetition, which are released together with @p data; null if that
 *         failed.
 * @see corvel_data_set(), corvel_answer_template()
 */
CORVEL_PAGE_API corvel_data *corvel_data_add(corvel_data *data, const char *section);

/**
 * Appends a filled template to the body. If that fails, the answer is sent with status 500 and the
 * log contains the reason. Ignored after corvel_answer_error() and corvel_answer_redirect(); a
 * misuse in a JSON body.
 *
 * @param[in,out] answer the answer.
 * @param[in]     name   the name of the template, without directory and without ".html"; a name
 *                       that could not be that of a tag is a misuse, so that no name leaves the
 *                       directory. The file can have #CORVEL_TEMPLATE_MAX bytes.
 * @param[in]     data   the values, of corvel_data_new() or corvel_data_add(). Null, the result of
 *                       a call that failed, is a misuse: a template without values takes an empty
 *                       set.
 * @see corvel_data_new(), corvel_answer_values()
 */
CORVEL_PAGE_API void corvel_answer_template(corvel_answer *answer, const char *name,
                                            const corvel_data *data);
/** @} */

/**
 * @defgroup page_settings Settings
 * @brief Settings files: load, change, save, recover. Source: page/settings.cpp.
 * @{
 */
/**
 * The settings of one file, as loaded, with the changes made since.
 *
 * The file is one that load_prop() reads and save_prop() writes. The kit's programs and those that
 * use these functions can work on the same files at the same time: they exclude each other by the
 * same lock file. Three companions of a file have fixed names: `FILE.lck` is the lock file,
 * `FILE.cgi` the next version while it is written, and `FILE.kept` the last version that is known
 * to be whole, for corvel_settings_recover(). (`FILE.kept~` is the next kept version while it is
 * written.)
 *
 * @code
 * corvel_settings *const lan = corvel_settings_load("lan.conf", '=', NULL);
 * const char *complaint = corvel_setting_set(lan, "HOSTNAME", "router $1");
 * if (!complaint)
 *     corvel_settings_status(corvel_settings_save(&lan, 1), &complaint);
 * puts(*complaint ? complaint : "saved");
 * corvel_settings_free(lan);
 * // $ echo 'HOSTNAME="old"' > lan.conf
 * // $ ./example && cat lan.conf
 * // saved
 * // HOSTNAME="router \$1"
 * @endcode
 */
typedef struct corvel_settings corvel_settings;

/** Bytes of a file's version as text, with the NUL: hexadecimal SHA-256. */
#define CORVEL_SETTINGS_VERSION_SIZE 65

/** Bytes of a settings file at most. A larger one cannot be read. */
#define CORVEL_SETTINGS_MAX 262144

/** Results of the functions for settings files. Negative ones are failures. */
typedef enum corvel_settings_result {
    CORVEL_SETTINGS_SAVED = 0,       /**< The new content is on the device. */
    CORVEL_SETTINGS_UNCHANGED = 1,   /**< There was nothing to write or to restore. */
    CORVEL_SETTINGS_RESTORED = 2,    /**< The file was missing or damaged and was restored. */
    CORVEL_SETTINGS_OUTDATED = -1,   /**< A file changed since its version was taken. */
    CORVEL_SETTINGS_BUSY = -2,       /**< Another writer was at work for too long. */
    CORVEL_SETTINGS_UNREADABLE = -3, /**< A file is missing or cannot be read. */
    CORVEL_SETTINGS_UNWRITABLE = -4, /**< A file cannot be written: no space, no permission. */
    CORVEL_SETTINGS_NO_MEMORY = -5,  /**< Memory is exhausted. */
    CORVEL_SETTINGS_DAMAGED = -6     /**< The file is damaged and there is nothing to restore. */
} corvel_settings_result;

/**
 * Loads a settings file.
 *
 * If the file is missing, a writer may be between removing the old version and renaming the new
 * one, as save_prop() does: the function waits until it has finished (five seconds at most), or, if
 * it has died, restores the file as corvel_settings_recover() does. A file that is there is not
 * checked for damage.
 *
 * @param[in]  path      the file; at most 1,017 bytes.
 * @param[in]  separator `=` or a space, between names and values; any other character is a tab.
 * @param[out] result    CORVEL_SETTINGS_UNCHANGED, CORVEL_SETTINGS_RESTORED if the file had to be
 *                       restored, or the reason for the failure: CORVEL_SETTINGS_UNREADABLE, also
 *                       if the file is larger than CORVEL_SETTINGS_MAX or not a regular file,
 *                       CORVEL_SETTINGS_NO_MEMORY, or any failure of corvel_settings_recover(); may
 *                       be null.
 * @return the settings, to be released with corvel_settings_free(); null on failure. Every function
 *         accepts the null pointer.
 * @see corvel_setting(), corvel_settings_save(), corvel_settings_status()
 */
CORVEL_PAGE_API corvel_settings *corvel_settings_load(const char *path, char separator,
                                                      corvel_settings_result *result);

/**
 * Releases the settings. Their memory is overwritten first, since they can contain passwords.
 *
 * @param[in] settings the settings; null is ignored.
 * @see corvel_settings_load()
 */
CORVEL_PAGE_API void corvel_settings_free(corvel_settings *settings);

/**
 * Finds a setting.
 *
 * It is what get_prop() returns for the name after load_prop(), without the escaping that
 * strip_escape() removes: the first line with the name counts, a value is truncated to 255
 * characters before its quotes are removed, and a last line without a newline does not count.
 *
 * @param[in] settings the settings.
 * @param[in] name     the name.
 * @return the value, valid until the settings are changed or freed; null if there is no such
 *         setting.
 * @see corvel_setting_pair(), corvel_setting_set()
 */
CORVEL_PAGE_API const char *corvel_setting(const corvel_settings *settings, const char *name);

/**
 * Sets a setting in memory; corvel_settings_save() writes it.
 *
 * The value is escaped with add_escape() and written in double quotes, on every line with the name
 * or, if there is none, on a new line at the end of the file. Everything else stays as it is, byte
 * by byte: other lines, comments, their order, and what precedes the separator on a changed line. A
 * last line without a newline gets one. A setting that has the value already is not touched.
 *
 * The file would not hold a value that
 *  - contains a control character, such as a newline;
 *  - has more than 253 bytes, where each `"`, `\`, `$` and `` ` `` counts as two;
 *  - contains "setenv ", unless the line starts with it: load_prop() ignores all up to there.
 *
 * Nor can it be changed on a line with other words before the separator than the name and "setenv".
 *
 * @param[in,out] settings the settings.
 * @param[in]     name     the name: ASCII letters, digits and `_-.:/@+[]`.
 * @param[in]     value    the value. A null pointer, a missing field, is refused.
 * @return null, or a message for the user: why the file cannot hold the value, or that memory is
 *         exhausted. The settings are then as before.
 * @see corvel_setting_remove(), corvel_settings_save()
 */
CORVEL_PAGE_API const char *corvel_setting_set(corvel_settings *settings, const char *name,
                                               const char *value);

/**
 * Removes every line of a setting in memory. A missing setting is no failure.
 *
 * @param[in,out] settings the settings.
 * @param[in]     name     the name.
 * @return null, or a message for the user as for corvel_setting_set(); the settings are then as
 *         before.
 * @see corvel_setting_set()
 */
CORVEL_PAGE_API const char *corvel_setting_remove(corvel_settings *settings, const char *name);

/**
 * Returns the setting at a position. Settings have the order of their lines; of several lines with
 * one name, each is a setting.
 *
 * @param[in]  settings the settings.
 * @param[in]  position the position, from 0.
 * @param[out] name     receives the name; may be null.
 * @param[out] value    receives the value, as for corvel_setting(); may be null.
 * @return false, with nothing stored, if there are at most @p position settings.
 * @see corvel_setting()
 */
CORVEL_PAGE_API bool corvel_setting_pair(const corvel_settings *settings, size_t position,
                                         const char **name, const char **value);

/**
 * Returns the version of the file that was loaded or last saved, for a hidden field of the form:
 * the SHA-256 of the file's content. It is as good as the content for somebody who guesses the rest
 * of it, so it is for those who may change the settings.
 *
 * @param[in] settings the settings.
 * @return CORVEL_SETTINGS_VERSION_SIZE bytes; the empty string for a null pointer.
 * @see corvel_settings_expect()
 */
CORVEL_PAGE_API const char *corvel_settings_version(const corvel_settings *settings);

/**
 * States the version that the user's form was made from. The next save fails if the file has
 * another one, so that it does not undo a change that the user has not seen.
 *
 * @param[in,out] settings the settings.
 * @param[in]     version  the form's field. A null pointer, a missing field, is never the file's
 *                         version.
 * @see corvel_settings_version(), corvel_settings_save()
 */
CORVEL_PAGE_API void corvel_settings_expect(corvel_settings *settings, const char *version);

/**
 * Saves the changed files of a list. The others are checked like these, but not written.
 *
 * The files are locked in the order of their paths. If each still has the content that it was
 * loaded with, regardless of the program that may have changed it, and the version stated by
 * corvel_settings_expect(), all new versions are written next to the files, with owner, group and
 * mode of these (an access control list is not copied, and never grants more), and flushed to the
 * device. Only then they are renamed over the files one after the other: a file is never missing,
 * and whoever reads it gets the old version or the new one, never a part. If the program dies or
 * power is lost in between, some files are new and some are old, each of them whole. Each file's
 * kept version is replaced together with it.
 *
 * A writer that keeps the lock is waited for, five seconds for each file; one that has no access to
 * the lock file, half a second.
 *
 * @param[in,out] files the settings. A null pointer among them fails the save. The same settings
 *                      may occur twice, but not two settings of the same path.
 * @param[in]     count their number.
 * @return
 *  - CORVEL_SETTINGS_SAVED: all files are on the device. Their versions are the new ones.
 *  - CORVEL_SETTINGS_UNCHANGED: no setting differs from the files.
 *  - CORVEL_SETTINGS_OUTDATED: a file has another version, or two settings have the same path.
 *  - CORVEL_SETTINGS_BUSY: another writer was at work for too long.
 *  - CORVEL_SETTINGS_UNREADABLE: a file is missing or cannot be read, or was not loaded.
 *  - CORVEL_SETTINGS_UNWRITABLE, CORVEL_SETTINGS_NO_MEMORY.
 *
 * On failure no file is changed, unless a rename or the flushing of a directory fails: then, with
 * CORVEL_SETTINGS_UNWRITABLE, some files may be new.
 * @see corvel_settings_expect(), corvel_settings_status()
 */
CORVEL_PAGE_API corvel_settings_result corvel_settings_save(corvel_settings *const files[],
                                                            size_t count);

/**
 * Restores a file whose writer was interrupted. To be called for each file at the device's start,
 * before the first program that uses it; the command `corvel-settings recover` does so.
 *
 * save_prop() and save_global_conf() write the new version as `FILE.cgi`, close it, remove the
 * file, and rename the new version. Nothing is flushed. Therefore:
 *  - A writer that was killed leaves the file, or a complete `FILE.cgi` without the file: it was
 *    closed before the file was removed.
 *  - A power loss can leave either with only its first bytes, or with zeros instead of some.
 *
 * The file is damaged if it is empty, contains a NUL byte, does not end with a newline, or has
 * fewer lines than `FILE.kept` while each of them has the same name as the line at its place there:
 * those writers neither remove nor reorder lines. A file that equals `FILE.kept` is whole. A
 * missing or damaged file is replaced by `FILE.cgi` if that is not damaged, otherwise by
 * `FILE.kept`. Then the file's content becomes `FILE.kept`.
 *
 * What cannot be known: if there is no kept version, as at the first start, a file of which only
 * whole lines were lost counts as whole. A line appended by save_global_conf() since the file was
 * kept can be lost unnoticed. And a program that removes the last lines of a file, or the file,
 * without this library must remove `FILE.kept` first, or they come back.
 *
 * Writers are excluded as by corvel_settings_save(), so that it may be called at any time.
 *
 * @param[in] path      the file; at most 1,017 bytes.
 * @param[in] separator as for corvel_settings_load().
 * @return
 *  - CORVEL_SETTINGS_UNCHANGED: the file is whole.
 *  - CORVEL_SETTINGS_RESTORED: it is whole again.
 *  - CORVEL_SETTINGS_DAMAGED: it is damaged, and there is no other version. It stays as it is.
 *  - CORVEL_SETTINGS_UNREADABLE: it is missing and there is no other version, or it cannot be read,
 *    is larger than CORVEL_SETTINGS_MAX or not a regular file.
 *  - CORVEL_SETTINGS_BUSY: another writer was at work for too long. Nothing was changed.
 *  - CORVEL_SETTINGS_UNWRITABLE: the file or its kept version could not be written.
 *  - CORVEL_SETTINGS_NO_MEMORY: memory is exhausted.
 * @see corvel_settings_load()
 */
CORVEL_PAGE_API corvel_settings_result corvel_settings_recover(const char *path, char separator);

/**
 * Returns the HTTP status that belongs to a result, and a sentence for the user.
 *
 * @param[in]  result    a result of corvel_settings_load() or corvel_settings_save().
 * @param[out] complaint receives the sentence, a string literal, empty for a success; may be null.
 * @return CORVEL_HTTP_OK for a success, CORVEL_HTTP_CONFLICT for CORVEL_SETTINGS_OUTDATED,
 *         CORVEL_HTTP_SERVICE_UNAVAILABLE for CORVEL_SETTINGS_BUSY and CORVEL_SETTINGS_NO_MEMORY,
 *         and CORVEL_HTTP_INTERNAL_SERVER_ERROR for the other failures.
 * @see corvel_answer_error()
 */
CORVEL_PAGE_API int corvel_settings_status(corvel_settings_result result, const char **complaint);
/** @} */

/**
 * @defgroup page_upload Uploads
 * @brief Multipart forms of any size, read as a stream. Source: page/upload.cpp.
 * @{
 */
/** A part of a multipart form. Its strings are valid until the function that received it returns.
 */
typedef struct corvel_part {
    const char *name;     /**< The field's name, as sent; browsers send `"` in it as `%22`. */
    const char *filename; /**< The file's name, without directories; null for a field. Empty if the
                               browser sent a file field in which no file was selected. */
    const char *type;     /**< The content type; "text/plain" if the part has none. */
} corvel_part;

/** What an upload may contain. A member that is 0 has the default stated here. */
typedef struct corvel_upload_limits {
    size_t parts_max;  /**< Parts, fields and files together. Default: 64. */
    size_t header_max; /**< Bytes of a part's header lines, at most 16,384. Default: 8,192. */
    size_t field_max;  /**< Bytes of a field's value. Default: 16,384. */
    uint64_t file_max; /**< Bytes of a file. Default: 16 MiB. */
    /** Bytes of the body, with what precedes the first part and follows the last. Default: 16 MiB
     * and 64 KiB. */
    uint64_t total_max;
} corvel_upload_limits;

/**
 * Where the files of an upload go. The functions are called for one file after the other: once
 * `begin`, `data` for each piece of at most 16,384 bytes, once `end`. Each may be null. One that
 * returns false ends the upload; `end` is not called for a file that is not complete.
 */
typedef struct corvel_upload_sink {
    void *context; /**< Passed to each function. */
    /** A file begins. The strings of the part are valid during the call. */
    bool (*begin)(void *context, const corvel_part *part);
    /** A piece of the file. */
    bool (*data)(void *context, const void *bytes, size_t size);
    /** The file is complete. */
    bool (*end)(void *context);
} corvel_upload_sink;

/** The results of reading an upload. */
typedef enum corvel_upload_result {
    CORVEL_UPLOAD_DONE = 0,              /**< All parts have been read. */
    CORVEL_UPLOAD_NOT_MULTIPART = -1,    /**< The request was not accepted as multipart/form-data,
                                              or its body has been read before. */
    CORVEL_UPLOAD_BAD_BOUNDARY = -2,     /**< The content type has no boundary, or one of more than
                                              200 characters. */
    CORVEL_UPLOAD_MALFORMED = -3,        /**< A part has no name, its header is malformed, a field
                                              contains a NUL, or a part is encoded in another way
                                              than 7bit, 8bit or binary. */
    CORVEL_UPLOAD_INCOMPLETE = -4,       /**< The body ends before the last boundary. */
    CORVEL_UPLOAD_TOO_MANY_PARTS = -5,   /**< There are more than parts_max parts. */
    CORVEL_UPLOAD_HEADER_TOO_LARGE = -6, /**< A part's header lines exceed header_max. */
    CORVEL_UPLOAD_FIELD_TOO_LARGE = -7,  /**< A field exceeds field_max, or all fields together the
                                              limits of the request. */
    CORVEL_UPLOAD_FILE_TOO_LARGE = -8,   /**< A file exceeds file_max. */
    CORVEL_UPLOAD_TOO_LARGE = -9,     /**< The body exceeds total_max. If its length is announced,
                                           no part of it has been stored or passed on. */
    CORVEL_UPLOAD_STOPPED = -10,      /**< A function of the sink returned false. */
    CORVEL_UPLOAD_TIMEOUT = -11,      /**< Nothing arrived for the time that the request's rules
                                           permit. */
    CORVEL_UPLOAD_NO_MEMORY = -12,    /**< Memory is exhausted. */
    CORVEL_UPLOAD_NO_SPACE = -13,     /**< The file could not be created or written. */
    CORVEL_UPLOAD_NO_FILE = -14,      /**< No file was sent in that field. */
    CORVEL_UPLOAD_NOT_CONTAINED = -15 /**< The process of a contained request could not be
                                           started, or has failed; the system log contains the
                                           reason. */
} corvel_upload_result;

/**
 * Reads the body of a request that was accepted with CORVEL_MULTIPART (RFC 7578).
 *
 * Fields become fields of the request, for corvel_field(); files go to the sink, each byte as it
 * was sent. Parts may have any order, any or no content type and further header lines; names may be
 * in quotes or not, and `filename*` is preferred to `filename`. Lines that end with LF alone are
 * accepted if the first boundary's line does. The functions allocate at most 48 KiB beyond what the
 * request holds, however large the upload is.
 *
 * Regardless of the result, the body has then been read to its end, and the rest after a failure
 * discarded, so that the web server delivers the answer. Discarding takes at most ten times as long
 * as `body_seconds` of the request's rules permits. On a failure, parts that came before it have
 * been stored and passed on.
 *
 * @param[in,out] request the request.
 * @param[in]     limits  null for the defaults.
 * @param[in]     sink    null to discard the files.
 * @return the result; corvel_upload_status() has the answer for it.
 * @see corvel_upload_save(), corvel_upload_status()
 */
CORVEL_PAGE_API corvel_upload_result corvel_upload_read(corvel_request *request,
                                                        const corvel_upload_limits *limits,
                                                        const corvel_upload_sink *sink);

/**
 * As corvel_upload_read(), with the file of one field written into a new file of mode 0600. Other
 * files are discarded, also further ones of the same field. On any failure there is no new file,
 * and where the file system has unnamed files (O_TMPFILE) and /proc is mounted, none either if the
 * process is killed: the file then gets its name when it is complete.
 *
 * The name of the file, which the client has chosen, becomes the value of the field, for
 * corvel_field(). Show it to the user, but do not open a file of that name.
 *
 * @code
 * static corvel_request_rules rules;
 * rules.methods = CORVEL_POST;
 * rules.types = CORVEL_MULTIPART;
 * corvel_request *const request = corvel_request_begin();
 * const char *complaint = NULL;
 * if (corvel_request_read(request, &rules) != CORVEL_HTTP_OK)
 *     complaint = corvel_request_complaint(request);
 * else
 *     corvel_upload_status(corvel_upload_save(request, NULL, "file", "received"), &complaint);
 * puts(*complaint ? complaint : corvel_field(request, "file"));
 * corvel_request_free(request);
 * // $ printf '%s\r\n' --b 'Content-Disposition: form-data; name="file"; filename="a.txt"' '' \
 * //   hello --b-- > body
 * // $ REQUEST_METHOD=POST CONTENT_TYPE='multipart/form-data; boundary=b' \
 * //   CONTENT_LENGTH=$(wc -c < body) ./example < body && cat received
 * // a.txt
 * // hello
 * @endcode
 *
 * @param[in,out] request the request.
 * @param[in]     limits  null for the defaults.
 * @param[in]     field   the name of the field.
 * @param[in]     path    the new file; it must not exist.
 * @return the result; CORVEL_UPLOAD_NO_FILE if the field is missing or no file was selected in it.
 * @see corvel_upload_read(), corvel_upload_status()
 */
CORVEL_PAGE_API corvel_upload_result corvel_upload_save(corvel_request *request,
                                                        const corvel_upload_limits *limits,
                                                        const char *field, const char *path);

/**
 * Returns the HTTP status to answer a result with.
 *
 * @param[in] result    what corvel_upload_read() or corvel_upload_save() returned.
 * @param[in] complaint receives a sentence for the user, a string literal, empty for
 *                      CORVEL_UPLOAD_DONE; may be null.
 * @return CORVEL_HTTP_OK for CORVEL_UPLOAD_DONE; CORVEL_HTTP_CONTENT_TOO_LARGE if a limit is
 *         exceeded; CORVEL_HTTP_UNSUPPORTED_MEDIA_TYPE for CORVEL_UPLOAD_NOT_MULTIPART;
 *         CORVEL_HTTP_REQUEST_TIMEOUT for CORVEL_UPLOAD_TIMEOUT; CORVEL_HTTP_SERVICE_UNAVAILABLE
 *         for CORVEL_UPLOAD_NO_MEMORY and CORVEL_UPLOAD_NO_SPACE;
 *         CORVEL_HTTP_INTERNAL_SERVER_ERROR for CORVEL_UPLOAD_STOPPED and
 *         CORVEL_UPLOAD_NOT_CONTAINED; CORVEL_HTTP_BAD_REQUEST for the other failures.
 * @see corvel_answer_error()
 */
CORVEL_PAGE_API int corvel_upload_status(corvel_upload_result result, const char **complaint);
/** @} */

/**
 * @defgroup page_session Sessions and login
 * @brief Who a request is from, and slowing down guesses. Sources: page/session.cpp,
 * page/login.cpp.
 *
 * A session is a random identifier of 256 bits that the browser keeps in a cookie, and a file in a
 * directory on the device. The file is named by the SHA-256 of the identifier and contains the user
 * and the time of the login: nobody can take a session over by reading the directory. Its
 * modification time is the time of the session's last use.
 *
 * All times count from the start of the device and are not affected if the clock is set. A restart
 * of the device ends all sessions, and all delays of logins, even if the files survive it.
 *
 * The functions of this group need /proc, where they read the identifier of the device's start;
 * without it nobody can log in. The kernel must be Linux 3.17 or later.
 *
 * A page that only a logged-in user may use:
 *
 * @code
 * static corvel_request_rules rules;
 * rules.methods = CORVEL_GET | CORVEL_POST;
 * corvel_request *const request = corvel_request_begin();
 * corvel_answer *const answer = corvel_answer_new(request, NULL);
 * const int status = corvel_request_read(request, &rules);
 * corvel_session *const session = corvel_session_find(request, NULL);
 * if (status != CORVEL_HTTP_OK)
 *     corvel_answer_error(answer, status, corvel_request_complaint(request));
 * else if (session == NULL)
 *     corvel_answer_redirect(answer, "/login");
 * else if (corvel_method(request) == CORVEL_POST &&
 *          !corvel_session_check(session, corvel_field(request, "token")))
 *     corvel_answer_error(answer, CORVEL_HTTP_FORBIDDEN, "Reload the page and try again.");
 * else if (corvel_session_touch(session))
 *     corvel_answer_html(answer, corvel_session_user(session));
 * corvel_answer_send(answer);
 * corvel_session_free(session);
 * corvel_answer_free(answer);
 * corvel_request_free(request);
 * // $ REQUEST_METHOD=GET ./example | grep Location | tr -d '\r'
 * // Location: /login
 * @endcode
 * @{
 */
/** The longest name of a user, and the longest password, in bytes. */
#define CORVEL_USER_MAX 255

/** Sessions that one directory holds at most, those of all users together. */
#define CORVEL_SESSIONS_MAX 128

/**
 * How a site keeps its sessions. A member that is 0 or null has the default stated here. All pages
 * of a site must use the same rules: a login removes the files of the sessions that have expired
 * by its own.
 */
typedef struct corvel_session_rules {
    /**
     * The directory of the sessions' files. Default: "/run/sessions". It is created, with mode
     * 0700, by the first login. An existing one must belong to the effective user and have no
     * permissions for others, and it must not be a symbolic link: otherwise no session is found or
     * started. It should be in memory, and must not contain anything else whose name has 64
     * characters.
     */
    const char *directory;
    /** The name of the cookie, at most 63 characters. Default: "session". */
    const char *cookie;
    /** A session ends if it is not used for this time. Default: 900, 15 minutes. */
    unsigned idle_seconds;
    /** A session ends this time after the login in any case. Default: 43,200, 12 hours. */
    unsigned lifetime_seconds;
    /** The number of sessions of one user. Default: 8. */
    unsigned sessions_max;
    /**
     * Whether a user still exists; if not, the sessions end. Default: whether the user is in the
     * system's account database, with a line of at most 1,024 bytes.
     */
    bool (*user_exists)(const char *user);
} corvel_session_rules;

/** The session of a request. */
typedef struct corvel_session corvel_session;

/**
 * Finds the session of a request.
 *
 * Servers at other ports of the same host can set cookies of the same name. They are skipped: the
 * first cookie that names a valid session counts. The session does not count as used: call
 * corvel_session_touch(), but not for requests that a page repeats by itself.
 *
 * @param[in] request the request. It need not have been read.
 * @param[in] rules   the rules; a null pointer for the defaults. They are not needed afterwards.
 * @return the session, to be released by corvel_session_free(); null if the request has no valid
 *         session, if memory is exhausted, or if the directory or a file cannot be read.
 * @see corvel_session_touch(), corvel_session_check(), corvel_session_start()
 */
CORVEL_PAGE_API corvel_session *corvel_session_find(const corvel_request *request,
                                                    const corvel_session_rules *rules);

/**
 * Releases what belongs to the handle. The session itself goes on.
 *
 * @param[in] session the session; null is ignored.
 * @see corvel_session_end()
 */
CORVEL_PAGE_API void corvel_session_free(corvel_session *session);

/**
 * Returns the user of a session.
 *
 * @param[in] session the session.
 * @return the name; null after corvel_session_end(), and for a null pointer.
 * @see corvel_session_find()
 */
CORVEL_PAGE_API const char *corvel_session_user(const corvel_session *session);

/**
 * Returns the token for the forms of a session, for a hidden field. A page of another site cannot
 * know it. It is the same for all forms until corvel_session_renew().
 *
 * @param[in] session the session.
 * @return 64 hexadecimal digits; null after corvel_session_end(), and for a null pointer.
 * @see corvel_session_check()
 */
CORVEL_PAGE_API const char *corvel_session_token(const corvel_session *session);

/**
 * Compares the token of a form with that of the session, in constant time.
 *
 * @param[in] session the session.
 * @param[in] token   the token that was received; a null pointer is never right.
 * @return true if it is the session's; false also after corvel_session_end().
 * @see corvel_session_token()
 */
CORVEL_PAGE_API bool corvel_session_check(const corvel_session *session, const char *token);

/**
 * Sets the time of a session's last use to now.
 *
 * @param[in,out] session the session.
 * @return false if that failed, as it does if the session has been ended in the meantime.
 * @see corvel_session_find()
 */
CORVEL_PAGE_API bool corvel_session_touch(corvel_session *session);

/**
 * Starts a session after a login and sets its cookie, which the browser keeps until it is closed.
 * The session that the request had so far ends; if the call fails, it may have ended, too.
 *
 * If the user has ::corvel_session_rules.sessions_max sessions, the one that was not used for the
 * longest time ends. Sessions of other users never end by this: if the directory is full and the
 * user has none in it, the call fails. A call waits for others for at most five seconds.
 *
 * @param[in]     request the request.
 * @param[in,out] answer  receives the cookie.
 * @param[in]     rules   the rules; a null pointer for the defaults. They are not needed
 *                        afterwards.
 * @param[in]     user    the user: a name of at most #CORVEL_USER_MAX bytes.
 * @return the session, to be released by corvel_session_free(); null if the user does not exist, if
 *         memory is exhausted, if a file or the directory cannot be used, or if the kernel has no
 *         random bytes yet. A page answers that with status 503.
 * @see corvel_login(), corvel_session_renew()
 */
CORVEL_PAGE_API corvel_session *corvel_session_start(const corvel_request *request,
                                                     corvel_answer *answer,
                                                     const corvel_session_rules *rules,
                                                     const char *user);

/**
 * Gives a session another identifier and token, and sets its cookie. The former identifier is no
 * longer valid. Call it after a change of password. The session's lifetime still counts from the
 * login.
 *
 * @param[in,out] session the session.
 * @param[in,out] answer  receives the cookie.
 * @return false if that failed, as it does if the session has been ended in the meantime; the
 *         session is unchanged then.
 * @see corvel_session_end_all()
 */
CORVEL_PAGE_API bool corvel_session_renew(corvel_session *session, corvel_answer *answer);

/**
 * Ends a session and removes its cookie from the browser.
 *
 * @param[in,out] session the session. It has no user and no token afterwards, and must still be
 *                        released.
 * @param[in,out] answer  receives the removal of the cookie; may be null.
 * @return false if the session could not be ended; the cookie stays then.
 * @see corvel_session_end_all()
 */
CORVEL_PAGE_API bool corvel_session_end(corvel_session *session, corvel_answer *answer);

/**
 * Ends all sessions of a user, such as after a change of password:
 *
 * @code
 * corvel_request *const request = corvel_request_begin();
 * corvel_answer *const answer = corvel_answer_new(request, NULL);
 * corvel_session *const session = corvel_session_find(request, NULL);
 * if (session != NULL &&
 *     login_chpwd(corvel_session_user(session), "new password") == CORVEL_PASSWORD_CHANGED) {
 *     corvel_session_end_all(NULL, corvel_session_user(session), session);
 *     corvel_session_renew(session, answer);
 * }
 * corvel_session_free(session);
 * corvel_answer_free(answer);
 * corvel_request_free(request);
 * @endcode
 *
 * @note A login that has checked the former password but not yet started its session is not ended.
 *
 * @param[in] rules the rules; a null pointer for the defaults.
 * @param[in] user  the user.
 * @param[in] kept  a session that does not end; may be null.
 * @return the number of sessions that ended; -1 if the user is null or if not all of them could be
 *         ended.
 * @see corvel_session_renew()
 */
CORVEL_PAGE_API int corvel_session_end_all(const corvel_session_rules *rules, const char *user,
                                           const corvel_session *kept);

/** How wrong passwords are slowed down. A member that is 0 or null has the default stated here. */
typedef struct corvel_login_rules {
    /**
     * The file of the attempts, 16,432 bytes. Default: "/run/logins". It is created with mode 0600.
     * An existing one must be such a file or empty, belong to the effective user, have no
     * permissions for others and no second name, and must not be a symbolic link: otherwise every
     * login fails.
     */
    const char *record;
    /** Wrong passwords in a row that have no delay. Default: 3. */
    unsigned free_attempts;
    /** The longest delay, in seconds, at most 86,400. Default: 60. */
    unsigned longest_seconds;
    /**
     * Checks a password. Neither parameter is null, the user is not empty, and neither is longer
     * than #CORVEL_USER_MAX or contains control characters. Default: login_auth(), and the same
     * effort for a user that does not exist.
     */
    bool (*check)(const char *user, const char *password);
} corvel_login_rules;

/** The results of corvel_login(). */
typedef enum corvel_login_verdict {
    CORVEL_LOGIN_RIGHT = 0,  /**< The password is right. */
    CORVEL_LOGIN_WRONG = -1, /**< The user does not exist, or the password is wrong. */
    CORVEL_LOGIN_WAIT = -2,  /**< The client has to wait; nothing was checked. */
    CORVEL_LOGIN_FAILED = -3 /**< The attempt could not be recorded; nothing was checked. */
} corvel_login_verdict;

/**
 * Checks a password for the client of a request. Wrong passwords slow their client down, not
 * others.
 *
 * A client is an IPv4 address or the first 64 bits of an IPv6 address. After the free attempts,
 * each wrong password in a row doubles the time until the client may try again: 1, 2, 4 seconds and
 * so on, or up to a second more. Until then the result is CORVEL_LOGIN_WAIT, at once, for any
 * password. An attempt counts as wrong until the password has proved right, so that closing the
 * connection gains nothing, and of several requests of a client at once only one is checked. A
 * right password forgets the wrong ones; so do 15 minutes after the time when the client may try
 * again.
 *
 * At most two checks run at once, and one more for clients that have logged in since the device's
 * start. Others wait up to ten seconds for their turn. The attempts of 1,024 clients are recorded.
 * If there are more, those that may try again for the longest time are forgotten first, and
 * clients that have logged in last. Whoever has thousands of addresses can therefore guess as often
 * as two checks at once permit: only a good password helps against that.
 *
 * The time does not reveal whether a user exists if the hashes of all users are made by the same
 * method. Behind a proxy, the web server must set the address of the actual client.
 *
 * @code
 * static corvel_request_rules rules;
 * rules.methods = CORVEL_POST;
 * corvel_request *const request = corvel_request_begin();
 * corvel_answer *const answer = corvel_answer_new(request, NULL);
 * const int status = corvel_request_read(request, &rules);
 * unsigned seconds = 0;
 * if (status != CORVEL_HTTP_OK) {
 *     corvel_answer_error(answer, status, corvel_request_complaint(request));
 * } else {
 *     const char *const user = corvel_field(request, "user");
 *     char text[16];
 *     switch (corvel_login(request, NULL, user, corvel_field(request, "password"), &seconds)) {
 *     case CORVEL_LOGIN_RIGHT:
 *         corvel_session_free(corvel_session_start(request, answer, NULL, user));
 *         corvel_answer_redirect(answer, "/");
 *         break;
 *     case CORVEL_LOGIN_WAIT:
 *         corvel_answer_error(answer, CORVEL_HTTP_TOO_MANY_REQUESTS, "Try again later.");
 *         snprintf(text, sizeof text, "%u", seconds);
 *         corvel_answer_header(answer, "Retry-After", text);
 *         break;
 *     case CORVEL_LOGIN_WRONG:
 *         corvel_answer_error(answer, CORVEL_HTTP_FORBIDDEN, "Wrong user or password.");
 *         break;
 *     default:
 *         corvel_answer_error(answer, CORVEL_HTTP_SERVICE_UNAVAILABLE, "Try again later.");
 *     }
 * }
 * corvel_answer_send(answer);
 * corvel_answer_free(answer);
 * corvel_request_free(request);
 * // $ REQUEST_METHOD=GET ./example | head -n 1 | tr -d '\r'
 * // Status: 405 Method Not Allowed
 * @endcode
 *
 * @note With the default check, only one thread at a time may call this: login_auth() is not safe
 *       for several.
 *
 * @param[in]  request  the request.
 * @param[in]  rules    the rules; a null pointer for the defaults.
 * @param[in]  user     the user as received. A null pointer, an empty name, control characters or
 *                      more than #CORVEL_USER_MAX bytes count as wrong, without a check.
 * @param[in]  password the password as received; counts as wrong like the user, except that it may
 *                      be empty.
 * @param[out] seconds  receives the time until the client may try again, rounded up; 0 if it may at
 *                      once. May be null.
 * @retval CORVEL_LOGIN_RIGHT  the password is right.
 * @retval CORVEL_LOGIN_WRONG  the user does not exist, or the password is wrong.
 * @retval CORVEL_LOGIN_WAIT   the client has to wait; nothing was checked. A page answers with
 *                             CORVEL_HTTP_TOO_MANY_REQUESTS and the header field Retry-After.
 * @retval CORVEL_LOGIN_FAILED the request is null, or the file could not be used; nothing was
 *                             checked.
 * @see corvel_session_start()
 */
CORVEL_PAGE_API corvel_login_verdict corvel_login(const corvel_request *request,
                                                  const corvel_login_rules *rules, const char *user,
                                                  const char *password, unsigned *seconds);
/** @} */

/**
 * @defgroup page_upgrade Upgrades
 * @brief Firmware upgrades after which one of the two sets always boots. Sources: page/upgrade.cpp,
 * page/upgrade_image.cpp, page/flash.cpp.
 *
 * The flash has two sets of a root file system and a kernel: set A on the block devices
 * "/dev/mtdblock2" and "/dev/mtdblock3", set B on "/dev/mtdblock4" and "/dev/mtdblock5". The boot
 * environment on "/dev/mtdblock1" names the set that boots. An upgrade writes the set that does not
 * run, in this order, and waits for the device after each step:
 *
 *  1. If the environment names no set, it is made to name the running one.
 *  2. The first 4 KiB of both partitions are erased, which marks the set as incomplete.
 *  3. Both partitions are written but for their first 64 KiB (an erase block); then these, the
 *     kernel's last.
 *  4. The partitions are read and compared with the image, and the image is checked again.
 *  5. The environment is written once: with the set that boots, and with the SHA-256 of the content
 *     of both sets in the variables "firmware_a" and "firmware_b".
 *
 * The running set is never written. If the device loses power or the process is killed before step
 * 5, the running set boots; if that happens during step 5, either set boots and both are complete:
 * the boot loader starts set A if the CRC of the environment is wrong. A set whose content is not
 * the one recorded in the environment is incomplete, also after a restart, and
 * corvel_boot_select() does not select it.
 *
 * @code
 * corvel_upgrade_report report;
 * const corvel_upgrade_result result = corvel_upgrade_check(NULL, "/tmp/image.bin", &report);
 * if (result != CORVEL_UPGRADE_DONE)
 *     corvel_log(CORVEL_LOG_ERROR, "%s %s", report.failed, corvel_upgrade_complaint(result));
 * else if (corvel_upgrade_start(NULL, "/tmp/image.bin", NULL, NULL) == CORVEL_UPGRADE_DONE)
 *     corvel_log(CORVEL_LOG_NOTICE, "writing version %s", report.version);
 * @endcode
 *
 * @note These functions use the environment of libcorvel: they replace the content of
 *       `env_image_mem` and make it the current image. Only one thread of a process may call them.
 *       They print nothing. The functions of libcorvel that write the flash do not know the lock of
 *       these functions: do not use both on one device.
 * @{
 */

/** The two sets of a root file system and a kernel; the values are those of `bootparam`. */
typedef enum corvel_firmware {
    CORVEL_FIRMWARE_UNKNOWN = -1, /**< No set is named. */
    CORVEL_FIRMWARE_A = 0,        /**< Block devices 2 and 3. */
    CORVEL_FIRMWARE_B = 1         /**< Block devices 4 and 5. */
} corvel_firmware;

/** Where a device keeps what an upgrade needs. A null member has the default stated here. */
typedef struct corvel_upgrade_rules {
    const char *command_line; /**< The kernel's command line. Default: "/proc/cmdline". */
    /**
     * File of the progress, and the lock of everything that writes the flash; created with mode
     * 0600. An existing one must be a regular file of the effective user without permissions for
     * others and without a second name. It must be in a directory that only root can write to and
     * that is empty after a restart. Default: "/run/upgrade".
     */
    const char *record;
} corvel_upgrade_rules;

/** Which set runs and which one boots. */
typedef struct corvel_boot {
    /**
     * The running set, a value of ::corvel_firmware: the one whose root file system is the
     * kernel's `root=` ("31:2", "/dev/mtdblock2" or "1f02" for set A, with 4 for set B). If the
     * command line names no set: the one that ran when the record file was last written; if there
     * is no record, @p next.
     */
    int running;
    /** The set that the environment names; unknown if its CRC is wrong or it names none. */
    int next;
    /**
     * True if the environment can be changed: it is a list of `name=value`. The CRC may be wrong,
     * except that of an empty list; an upgrade that starts then makes all its variables effective
     * again.
     */
    bool can_change;
} corvel_boot;

/** What is known of the content of a set. */
typedef enum corvel_firmware_state {
    CORVEL_FIRMWARE_COMPLETE = 0,   /**< The content is what the last upgrade recorded. */
    CORVEL_FIRMWARE_INCOMPLETE = 1, /**< Half written, damaged, erased, or written by others. */
    CORVEL_FIRMWARE_UNRECORDED = 2  /**< Nothing is recorded, as on a new device. */
} corvel_firmware_state;

/** Bytes of a version, with the NUL. */
#define CORVEL_FIRMWARE_VERSION_SIZE 64

/** The results of checking and writing an upgrade; see corvel_upgrade_complaint(). */
typedef enum corvel_upgrade_result {
    CORVEL_UPGRADE_DONE = 0, /**< The image is accepted, the set is written, or is selected. */

    /* The device is not ready. */
    CORVEL_UPGRADE_NO_RUNNING_SET = -1,   /**< Nothing names the running set. */
    CORVEL_UPGRADE_NO_ENVIRONMENT = -2,   /**< The boot environment cannot be read or changed. */
    CORVEL_UPGRADE_ENVIRONMENT_FULL = -3, /**< It has less than 165 bytes of room. */
    CORVEL_UPGRADE_RESTART_FIRST = -4,    /**< The set that boots next is not the running one. */
    CORVEL_UPGRADE_BUSY = -5,             /**< Another process writes the flash. */
    CORVEL_UPGRADE_NO_RECORD = -6,        /**< The record file cannot be created or written. */
    CORVEL_UPGRADE_NO_PROCESS = -7,       /**< The process that writes could not be started. */

    /* The image is refused. */
    CORVEL_UPGRADE_NO_IMAGE = -8,         /**< No file, empty, above 16 MiB, or no known section. */
    CORVEL_UPGRADE_TRUNCATED = -9,        /**< A section extends past the end of the file. */
    CORVEL_UPGRADE_SECTION_DAMAGED = -10, /**< The sum or the padding of a section is wrong. */
    CORVEL_UPGRADE_TOO_LARGE = -11,       /**< A section is larger than its partition. */
    CORVEL_UPGRADE_EMPTY = -12,           /**< A section is empty or starts with erased flash. */
    CORVEL_UPGRADE_TWICE = -13,           /**< Two sections are for one partition. */
    CORVEL_UPGRADE_RUNNING_SET = -14,     /**< A section is for the running set. */
    CORVEL_UPGRADE_OTHER_PARTITION = -15, /**< A section is for a partition of no set. */
    CORVEL_UPGRADE_NO_VERSION = -16,      /**< The image does not end with a version section. */
    CORVEL_UPGRADE_BAD_CRC = -17,         /**< The CRC at the end of the image is wrong. */
    CORVEL_UPGRADE_HALF_A_SET = -18,      /**< The root file system or the kernel is missing. */

    /* Writing failed, or the set cannot be selected. */
    CORVEL_UPGRADE_UNREADABLE = -19,    /**< A partition cannot be read. */
    CORVEL_UPGRADE_UNWRITABLE = -20,    /**< A partition cannot be written. */
    CORVEL_UPGRADE_UNVERIFIED = -21,    /**< A partition does not contain what was written. */
    CORVEL_UPGRADE_CANCELLED = -22,     /**< The progress function or another request ended it. */
    CORVEL_UPGRADE_NOT_SWITCHED = -23,  /**< The boot environment could not be written. */
    CORVEL_UPGRADE_SET_INCOMPLETE = -24 /**< The set to select is not ::CORVEL_FIRMWARE_COMPLETE. */
} corvel_upgrade_result;

/** A section of an image that is written to the flash. */
typedef struct corvel_upgrade_section {
    const char *name;    /**< Its name in the image, such as "Rootfs". */
    const char *target;  /**< The name of its partition, such as "Rootfs-1". */
    unsigned int device; /**< The number of its block device: 4 for "/dev/mtdblock4". */
    uint32_t size;       /**< Bytes that are written. */
} corvel_upgrade_section;

/** What corvel_upgrade_check() has found, up to the first fault. */
typedef struct corvel_upgrade_report {
    int set;            /**< The set that the image would be written to, or unknown. */
    size_t count;       /**< Sections found, 0 to 2. */
    const char *failed; /**< The name of the section that is refused; empty if none is. */
    corvel_upgrade_section sections[2];         /**< The root file system first. */
    char version[CORVEL_FIRMWARE_VERSION_SIZE]; /**< UTF-8 text without controls; may be empty. */
} corvel_upgrade_report;

/** The states of an upgrade. */
typedef enum corvel_upgrade_state {
    CORVEL_UPGRADE_IDLE = 0,       /**< No upgrade since the start of the device. */
    CORVEL_UPGRADE_WRITING = 1,    /**< The set is being written. */
    CORVEL_UPGRADE_WRITTEN = 2,    /**< The set is complete and boots next. */
    CORVEL_UPGRADE_FAILED = 3,     /**< The upgrade ended early. */
    CORVEL_UPGRADE_INTERRUPTED = 4 /**< The process that wrote the set was killed. */
} corvel_upgrade_state;

/** The progress of an upgrade. */
typedef struct corvel_upgrade_status {
    corvel_upgrade_state state;   /**< What is happening. */
    corvel_upgrade_result result; /**< Why it failed, in the state CORVEL_UPGRADE_FAILED. */
    int set;                      /**< The set that is written, a value of ::corvel_firmware. */
    const char *section; /**< The name of the partition that is written; empty before the first. */
    uint32_t written;    /**< Bytes that are on the device. */
    uint32_t total;      /**< Bytes to write. */
} corvel_upgrade_status;

/**
 * A function that an upgrade calls after each 64 KiB, before it writes the boot environment, and
 * once at its end with a state other than CORVEL_UPGRADE_WRITING.
 *
 * @param[in,out] context what was passed with the function.
 * @param[in]     status  the progress; valid during the call.
 * @return false to cancel the upgrade. Ignored at the end.
 */
typedef bool corvel_upgrade_progress(void *context, const corvel_upgrade_status *status);

/**
 * Determines which set runs and which one boots. Nothing is written.
 *
 * Between an upgrade and the restart these are different sets.
 *
 * @param[in]  rules the device; null for all defaults.
 * @param[out] boot  the sets.
 * @see corvel_boot_select()
 */
CORVEL_PAGE_API void corvel_boot_read(const corvel_upgrade_rules *rules, corvel_boot *boot);

/**
 * Selects the set that boots next.
 *
 * The running set can always be selected, which takes an upgrade back before the restart. The other
 * set must be complete: its content is read and compared with the hash in the environment, which
 * takes some seconds on a small device. If the environment names the set already, nothing is
 * written.
 *
 * @param[in] rules the device; null for all defaults.
 * @param[in] set   a value of ::corvel_firmware.
 * @return a value of ::corvel_upgrade_result.
 * @retval CORVEL_UPGRADE_DONE             the set boots next.
 * @retval CORVEL_UPGRADE_NO_RUNNING_SET   nothing names the running set.
 * @retval CORVEL_UPGRADE_NO_ENVIRONMENT   the environment cannot be read or changed.
 * @retval CORVEL_UPGRADE_ENVIRONMENT_FULL the environment has no room.
 * @retval CORVEL_UPGRADE_BUSY             an upgrade is in progress.
 * @retval CORVEL_UPGRADE_NO_RECORD        the record file cannot be created or written.
 * @retval CORVEL_UPGRADE_SET_INCOMPLETE   the set is not known to be complete, or is no set.
 * @retval CORVEL_UPGRADE_NOT_SWITCHED     the environment could not be written.
 * @see corvel_boot_read(), corvel_firmware_check()
 */
CORVEL_PAGE_API corvel_upgrade_result corvel_boot_select(const corvel_upgrade_rules *rules,
                                                         int set);

/**
 * Determines whether a set is complete: its content is read and compared with the hash in the
 * environment, unless the set is marked as incomplete.
 *
 * The running set can be ::CORVEL_FIRMWARE_UNRECORDED: the first upgrade records it.
 *
 * @param[in] set a value of ::corvel_firmware.
 * @return what is known of the set.
 * @retval CORVEL_FIRMWARE_COMPLETE   it contains what was recorded.
 * @retval CORVEL_FIRMWARE_INCOMPLETE it is marked as incomplete, contains something else, or cannot
 *                                    be read.
 * @retval CORVEL_FIRMWARE_UNRECORDED nothing is recorded, the CRC of the environment is wrong, or
 *                                    @p set is no set.
 * @see corvel_upgrade_check()
 */
CORVEL_PAGE_API corvel_firmware_state corvel_firmware_check(int set);

/**
 * Reads the version of a set: the first line of its root file system or, if that is a squashfs, the
 * line after it. It is UTF-8 text of at most 63 bytes without control characters.
 *
 * @param[in]  set     a value of ::corvel_firmware.
 * @param[out] version the version; empty if there is none.
 * @return @p version.
 * @see corvel_boot_read()
 */
CORVEL_PAGE_API char *corvel_firmware_version(int set, char version[CORVEL_FIRMWARE_VERSION_SIZE]);

/**
 * Checks whether an upgrade with an image is safe. Nothing is written.
 *
 * An image is accepted if it consists of a root file system and a kernel for the set that does not
 * run, of sections with unknown signatures, which are skipped, and of a version section at its end
 * with the right CRC. Each section must fit its partition and have the right sum; a section that
 * states that its sum is not to be verified is protected by the CRC alone. The CRC detects damage;
 * it does not show who made the image.
 *
 * The image is mapped into memory, not copied.
 *
 * @param[in]  rules  the device; null for all defaults.
 * @param[in]  path   the image, a regular file; a symbolic link is not followed.
 * @param[out] report what was found, even if the image is refused; may be null.
 * @return a value of ::corvel_upgrade_result.
 * @retval CORVEL_UPGRADE_DONE       the image can be written.
 * @retval CORVEL_UPGRADE_UNREADABLE a partition of the other set cannot be opened.
 * @retval others                    the device is not ready, or the image is refused.
 * @see corvel_upgrade_write(), corvel_upgrade_complaint()
 */
CORVEL_PAGE_API corvel_upgrade_result corvel_upgrade_check(const corvel_upgrade_rules *rules,
                                                           const char *path,
                                                           corvel_upgrade_report *report);

/**
 * Checks an image and writes it to the set that does not run, which then boots next. Returns when
 * that is done.
 *
 * What happens is recorded for corvel_upgrade_read(), and one line is written to the system log. If
 * a check fails, neither flash nor record change. If writing fails, the running set still boots;
 * the upgrade can be repeated. After CORVEL_UPGRADE_NOT_SWITCHED, corvel_boot_read() shows which
 * set boots.
 *
 * @warning Do not write to the file of the image before the function returns: the process is killed
 *          if the file becomes shorter. It may be removed or replaced by another file of its name.
 *
 * @param[in]     rules    the device; null for all defaults.
 * @param[in]     path     the image, a regular file; a symbolic link is not followed.
 * @param[in]     progress called after each 64 KiB and at the end; may be null.
 * @param[in,out] context  passed to @p progress.
 * @return a value of ::corvel_upgrade_result.
 * @retval CORVEL_UPGRADE_DONE      the set is written and verified, and boots next.
 * @retval CORVEL_UPGRADE_CANCELLED the upgrade was cancelled.
 * @retval others                   the device is not ready, the image is refused, or writing
 *                                  failed.
 * @see corvel_upgrade_check(), corvel_upgrade_start()
 */
CORVEL_PAGE_API corvel_upgrade_result corvel_upgrade_write(const corvel_upgrade_rules *rules,
                                                           const char *path,
                                                           corvel_upgrade_progress *progress,
                                                           void *context);

/**
 * As corvel_upgrade_write(), in a process of its own that continues after the request. Returns when
 * the image has been checked and the process has been started.
 *
 * The process is a child with a session of its own and with its standard streams on "/dev/null". It
 * keeps other open files of the caller, and locks on them, until it ends.
 *
 * @param[in]     rules    the device; null for all defaults.
 * @param[in]     path     the image, a regular file; a symbolic link is not followed.
 * @param[in]     progress called in the child after each 64 KiB and at the end, when it may remove
 *                         the image; may be null.
 * @param[in,out] context  passed to @p progress.
 * @return a value of ::corvel_upgrade_result.
 * @retval CORVEL_UPGRADE_DONE       the set is being written; see corvel_upgrade_read().
 * @retval CORVEL_UPGRADE_NO_PROCESS the process could not be started.
 * @retval others                    the device is not ready, or the image is refused.
 * @see corvel_upgrade_write(), corvel_upgrade_read(), corvel_upgrade_cancel()
 */
CORVEL_PAGE_API corvel_upgrade_result corvel_upgrade_start(const corvel_upgrade_rules *rules,
                                                           const char *path,
                                                           corvel_upgrade_progress *progress,
                                                           void *context);

/**
 * Reads the progress of the upgrade that is in progress, or of the last one since the start of the
 * device. Any process may do that at any time.
 *
 * @param[in]  rules  the device; null for all defaults.
 * @param[out] status the progress; CORVEL_UPGRADE_IDLE and zeros if there is no record.
 * @see corvel_upgrade_start()
 */
CORVEL_PAGE_API void corvel_upgrade_read(const corvel_upgrade_rules *rules,
                                         corvel_upgrade_status *status);

/**
 * Requests the end of the upgrade in progress, which notices that after the next 64 KiB. It is then
 * CORVEL_UPGRADE_FAILED with CORVEL_UPGRADE_CANCELLED. An upgrade that has begun to write the boot
 * environment is completed.
 *
 * @param[in] rules the device; null for all defaults.
 * @return false if no upgrade is in progress.
 * @see corvel_upgrade_start()
 */
CORVEL_PAGE_API bool corvel_upgrade_cancel(const corvel_upgrade_rules *rules);

/**
 * Returns a result as a sentence for the user.
 *
 * @param[in] result a value of ::corvel_upgrade_result.
 * @return a string literal; empty for CORVEL_UPGRADE_DONE. If it begins with "This section", it is
 *         about the section that corvel_upgrade_report::failed names.
 * @see corvel_upgrade_check()
 */
CORVEL_PAGE_API const char *corvel_upgrade_complaint(corvel_upgrade_result result);
/** @} */

/**
 * @defgroup page_support Routing, dates, log
 * @brief The rest that pages need. Sources: page/routing.cpp, page/dates.cpp, page/log.cpp.
 * @{
 */
/** A path of a program, and the function that answers its requests. */
typedef struct corvel_route {
    /**
     * The path, as corvel_path() returns it, such as "/clients/{}". A component that is `{}`
     * matches any one component that is not empty, `.` or `..`. A path that ends with a slash is
     * another one than that without it.
     */
    const char *path;
    corvel_request_rules rules; /**< What corvel_request_read() accepts. */
    /** Answers the request, which is accepted. A route with a null pointer is skipped. */
    void (*answer)(corvel_request *request, corvel_answer *answer, void *context);
} corvel_route;

/**
 * Selects the first route that has the request's path and method, reads the request by its rules,
 * and calls its function. If there is no such route, or if the request is refused, it makes the
 * answer: CORVEL_HTTP_NOT_FOUND if no route has the path, CORVEL_HTTP_METHOD_NOT_ALLOWED with the
 * methods of the path's routes in the header field Allow, or what corvel_request_read() returns. In
 * any case the page sends the answer. Call it once for a request.
 *
 * @param[in,out] request the request. If it has no path, the path is "/".
 * @param[in,out] answer  the answer.
 * @param[in]     routes  the routes.
 * @param[in]     count   the number of routes.
 * @param[in]     context is passed to the function.
 *
 * @see corvel_path_part()
 */
CORVEL_PAGE_API void corvel_dispatch(corvel_request *request, corvel_answer *answer,
                                     const corvel_route routes[], size_t count, void *context);

/**
 * Returns a component of the path that a `{}` of the selected route has matched.
 *
 * @param[in] request the request.
 * @param[in] index   0 for the first `{}`.
 * @return the component, which contains no slash and is not empty, `.` or `..`; null if the route
 *         has fewer, or if corvel_dispatch() has selected none.
 * @see corvel_dispatch()
 */
CORVEL_PAGE_API const char *corvel_path_part(const corvel_request *request, size_t index);

/** Bytes of a date as HTTP writes it, with the NUL: "Sun, 06 Nov 1994 08:49:37 GMT". */
#define CORVEL_HTTP_DATE_SIZE 30

/**
 * Formats a time as HTTP does, in any locale and time zone. Source: page/dates.cpp.
 *
 * @param[in]  time seconds since 1970-01-01 UTC; an earlier time is formatted as 0, a time after
 *                  the year 9999 as its last second.
 * @param[out] text receives the date.
 * @return @p text.
 * @see corvel_parse_http_date()
 */
CORVEL_PAGE_API char *corvel_http_date(time_t time, char text[CORVEL_HTTP_DATE_SIZE]);

/**
 * Reads a date in any of the three forms that HTTP permits: "Sun, 06 Nov 1994 08:49:37 GMT",
 * "Sunday, 06-Nov-94 08:49:37 GMT" and "Sun Nov  6 08:49:37 1994". The day of the week is not
 * compared with the date. A year of two digits that would be more than 50 years ahead is 100 years
 * earlier.
 *
 * @param[in]  text the date, without surrounding whitespace.
 * @param[out] time receives the seconds since 1970-01-01 UTC, negative for the years 1601 to 1969;
 *                  unchanged if the date is malformed.
 * @return false if the date is malformed, does not exist or is before 1601.
 * @see corvel_http_date()
 */
CORVEL_PAGE_API bool corvel_parse_http_date(const char *text, time_t *time);

/** Bytes of a duration or a date for people, with the NUL. */
#define CORVEL_TIME_TEXT_SIZE 40

/**
 * Formats a duration for people: "04:05:06", or "3 d 04:05:06" from one day on.
 *
 * @param[in]  seconds the duration; a negative one is formatted as 0.
 * @param[out] text    receives the duration.
 * @return @p text.
 * @see corvel_date_text()
 */
CORVEL_PAGE_API char *corvel_duration_text(long long seconds, char text[CORVEL_TIME_TEXT_SIZE]);

/**
 * Formats a time for people, in local time: "2026-11-22 09:30:00".
 *
 * @param[in]  time seconds since 1970-01-01 UTC.
 * @param[out] text receives the date; empty if its year has more digits than a C `int` can count.
 * @return @p text.
 * @see corvel_http_date(), corvel_duration_text()
 */
CORVEL_PAGE_API char *corvel_date_text(time_t time, char text[CORVEL_TIME_TEXT_SIZE]);

/** Levels of a log message; the values are those of syslog(). */
typedef enum corvel_log_level {
    CORVEL_LOG_ERROR = 3,   /**< The page could not do its work. */
    CORVEL_LOG_WARNING = 4, /**< Something is wrong that did not stop the page. */
    CORVEL_LOG_NOTICE = 5,  /**< Something that the owner may want to know, such as a login. */
    CORVEL_LOG_INFO = 6,    /**< Normal operation. */
    CORVEL_LOG_DEBUG = 7    /**< For developers. */
} corvel_log_level;

/**
 * Writes one line to the system log, with the facility and the name that the page has given to
 * openlog(), if any. Source: page/log.cpp.
 *
 * Control characters and bytes that are not UTF-8 are written as `\\xHH`, so that a stranger's text
 * neither starts a line of its own nor controls a terminal that shows the log. The line is
 * truncated to 895 bytes, after a whole character. If no logging daemon runs, the message is
 * lost.
 *
 * @param[in] level  the level, with which the daemon can filter.
 * @param[in] format a format as for printf(), without a newline.
 * @see ::corvel_log_level
 */
CORVEL_PAGE_API void corvel_log(corvel_log_level level, const char *format, ...)
    CORVEL_PAGE_PRINTF_LIKE(2, 3);
/** @} */

#ifdef __cplusplus
}
#endif

#endif
