/* SPDX-License-Identifier: MIT */
/**
 * @file corvel_page.h
 * @brief libcorvel_page: the page kit, for new pages of a router's web management.
 *
 * A page is a CGI program. It begins a request, states what it accepts, reads the request, checks
 * its fields, reads or saves settings, and sends one answer:
 *
 * @code
 * corvel_request *const request = corvel_request_begin();
 * const corvel_request_rules rules = {.methods = CORVEL_GET | CORVEL_POST};
 * corvel_answer *const answer = corvel_answer_new(request, NULL);
 * const int status = corvel_request_read(request, &rules);
 * if (status != CORVEL_HTTP_OK)
 *     corvel_answer_error(answer, status, corvel_request_complaint(request));
 * else
 *     corvel_answer_html(answer, corvel_field(request, "name"));
 * corvel_answer_send(answer);
 * corvel_answer_free(answer);
 * corvel_request_free(request);
 * @endcode
 *
 * These conventions hold for every function, unless its own description says otherwise:
 *  - A string is a sequence of bytes terminated by a NUL byte. A null pointer passed where a string
 *    is read counts as a missing value, which is never accepted by a check and is written as
 *    nothing.
 *  - A function that takes a handle accepts a null pointer: it does nothing and returns its failure
 *    value. The result of a `..._new`, `..._begin` or `..._load` function can be passed on
 * unchecked.
 *  - A string that a function returns belongs to the handle that it was read from and is valid
 * until that handle is changed or freed.
 *  - Everything allocated is released by the handle's `..._free` function. There is no global
 * state.
 *  - Sizes are in bytes. A size includes the terminating NUL, a length does not.
 *  - Several threads may use the kit at once if each has its own handles.
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
#else
#define CORVEL_PAGE_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/**
 * @defgroup page_request Requests
 * @brief Reading a request: what a page accepts, and the decoded fields. Source: page/request.cpp.
 * @{
 */

/** A request, from the environment and the standard input of a CGI program. */
typedef struct corvel_request corvel_request;

/** Methods of a request, combined by bitwise or. */
enum {
    CORVEL_GET = 1, /**< GET, and HEAD, whose answer is sent without its body. */
    CORVEL_POST = 2,
    CORVEL_PUT = 4,
    CORVEL_DELETE = 8
};

/** Content types of a request's body, combined by bitwise or. */
enum {
    CORVEL_FORM = 1,      /**< application/x-www-form-urlencoded */
    CORVEL_MULTIPART = 2, /**< multipart/form-data, read by corvel_upload_read() */
    CORVEL_JSON_TEXT = 4, /**< application/json, returned by corvel_request_body() */
    CORVEL_ANY_TYPE = 8   /**< Any other type, returned by corvel_request_body() */
};

/** HTTP statuses that the kit itself produces. */
enum {
    CORVEL_HTTP_OK = 200,
    CORVEL_HTTP_SEE_OTHER = 303,
    CORVEL_HTTP_NOT_MODIFIED = 304,
    CORVEL_HTTP_BAD_REQUEST = 400,
    CORVEL_HTTP_FORBIDDEN = 403,
    CORVEL_HTTP_NOT_FOUND = 404,
    CORVEL_HTTP_METHOD_NOT_ALLOWED = 405,
    CORVEL_HTTP_REQUEST_TIMEOUT = 408,
    CORVEL_HTTP_CONFLICT = 409,
    CORVEL_HTTP_LENGTH_REQUIRED = 411,
    CORVEL_HTTP_CONTENT_TOO_LARGE = 413,
    CORVEL_HTTP_UNSUPPORTED_MEDIA_TYPE = 415,
    CORVEL_HTTP_UNPROCESSABLE_CONTENT = 422,
    CORVEL_HTTP_TOO_MANY_REQUESTS = 429,
    CORVEL_HTTP_INTERNAL_SERVER_ERROR = 500,
    CORVEL_HTTP_SERVICE_UNAVAILABLE = 503
};

/** What a page accepts. A member that is 0 has the default stated here. */
typedef struct corvel_request_rules {
    unsigned methods;         /**< CORVEL_GET... Default: CORVEL_GET. */
    unsigned types;           /**< CORVEL_FORM... of a body. Default: CORVEL_FORM. */
    size_t body_max;          /**< Bytes of a body. Default: 65,536. */
    size_t pairs_max;         /**< Pairs of the query, and of the form. Default: 1,024. */
    size_t memory_max;        /**< Bytes allocated for the request. Default: 262,144. */
    unsigned body_seconds;    /**< Time for the body to arrive. Default: 30. */
    bool accept_other_sites;  /**< Accept a POST, PUT or DELETE that a page of another site sent. */
    const char *const *hosts; /**< Names in `Host`, ended by a null pointer; null accepts any. */
} corvel_request_rules;

/** Begins a request: reads the environment, not the body. @return null if memory is exhausted. */
CORVEL_PAGE_API corvel_request *corvel_request_begin(void);

/**
 * Checks the request and reads its body. If the request is refused, the body is read to its end and
 * discarded, so that the web server delivers the answer.
 *
 * @return CORVEL_HTTP_OK, or the status to answer with.
 */
CORVEL_PAGE_API int corvel_request_read(corvel_request *request, const corvel_request_rules *rules);

/** Returns the reason for the last refusal, a sentence for the user; empty if there is none. */
CORVEL_PAGE_API const char *corvel_request_complaint(const corvel_request *request);

/** Releases the request; values of a form are overwritten first, since they can be passwords. */
CORVEL_PAGE_API void corvel_request_free(corvel_request *request);

/** Returns CORVEL_GET, CORVEL_POST..., or 0 for any other method. */
CORVEL_PAGE_API unsigned corvel_method(const corvel_request *request);
/** Returns PATH_INFO, decoded; empty if there is none or if it contains control characters. */
CORVEL_PAGE_API const char *corvel_path(const corvel_request *request);
/** Returns the value of a cookie, or null. @p index selects one of several with the same name. */
CORVEL_PAGE_API const char *corvel_cookie(const corvel_request *request, const char *name,
                                          size_t index);
/** Returns the client's address as text; empty if the server gives none. */
CORVEL_PAGE_API const char *corvel_client_address(const corvel_request *request);
/** True if the request arrived by TLS. */
CORVEL_PAGE_API bool corvel_is_secure(const corvel_request *request);
/** Returns the body of a request that is not a form, and its size. */
CORVEL_PAGE_API const char *corvel_request_body(const corvel_request *request, size_t *size);
/** @} */

/**
 * @defgroup page_field Fields
 * @brief The fields of a form or query, and checks of their values. Source: page/field.cpp.
 * @{
 */
/** Returns the first value of a form's field (of the query's, for a GET); null if it is missing. */
CORVEL_PAGE_API const char *corvel_field(const corvel_request *request, const char *name);
/** Returns a value of the query, for any method; null if it is missing. */
CORVEL_PAGE_API const char *corvel_query(const corvel_request *request, const char *name);
/** Returns the value with an index among those of a name, such as of check boxes; else null. */
CORVEL_PAGE_API const char *corvel_field_at(const corvel_request *request, const char *name,
                                            size_t index);
/** Returns the number of pairs of the form. */
CORVEL_PAGE_API size_t corvel_field_count(const corvel_request *request);
/** Returns the name and the value of a pair by its position; false after the last one. */
CORVEL_PAGE_API bool corvel_field_pair(const corvel_request *request, size_t position,
                                       const char **name, const char **value);

/*
 * Checks. Each returns null if the value is valid, and otherwise a message for the user, a string
 * literal. A null pointer and an empty value are never valid.
 */
CORVEL_PAGE_API const char *corvel_check_text(const char *value, size_t min, size_t max);
CORVEL_PAGE_API const char *corvel_check_integer(const char *value, long min, long max,
                                                 long *number);
CORVEL_PAGE_API const char *corvel_check_ipv4(const char *value, uint32_t *address);
CORVEL_PAGE_API const char *corvel_check_ipv6(const char *value, unsigned char address[16]);
CORVEL_PAGE_API const char *corvel_check_netmask(const char *value, unsigned *prefix);
CORVEL_PAGE_API const char *corvel_check_prefix(const char *value, uint32_t *network,
                                                unsigned *prefix);
CORVEL_PAGE_API const char *corvel_check_range(const char *first, const char *last,
                                               const char *address, const char *netmask);
CORVEL_PAGE_API const char *corvel_check_mac(const char *value, unsigned char mac[6]);
CORVEL_PAGE_API const char *corvel_check_host_name(const char *value);
CORVEL_PAGE_API const char *corvel_check_port(const char *value, unsigned *port);
CORVEL_PAGE_API const char *corvel_check_choice(const char *value, const char *const choices[],
                                                size_t *index);
/** @} */

/**
 * @defgroup page_answer Answers
 * @brief The answer to a request: status, headers, body. Source: page/answer.cpp.
 * @{
 */
/** An answer; its body is kept in memory until it is sent. */
typedef struct corvel_answer corvel_answer;

/** What the answers of a site have in common. A null member has the default stated here. */
typedef struct corvel_site {
    const char *templates;      /**< Directory of the templates. Default: the working directory. */
    const char *error_template; /**< Template of error pages. Default: a plain page of the kit. */
    const char *content_security_policy; /**< Default: "default-src 'self'" and stricter rules. */
} corvel_site;

/** Body bytes that an answer keeps at most; a longer one is answered by status 500. */
#define CORVEL_ANSWER_MAX 4194304

CORVEL_PAGE_API corvel_answer *corvel_answer_new(const corvel_request *request,
                                                 const corvel_site *site);
CORVEL_PAGE_API void corvel_answer_free(corvel_answer *answer);
CORVEL_PAGE_API void corvel_answer_status(corvel_answer *answer, int status);
/** Sets the content type. Default: "text/html; charset=utf-8". */
CORVEL_PAGE_API void corvel_answer_type(corvel_answer *answer, const char *type);
/** Sets a header field, instead of a default of that name; a null value removes it. */
CORVEL_PAGE_API void corvel_answer_header(corvel_answer *answer, const char *name,
                                          const char *value);
/** Adds a Set-Cookie header field: HttpOnly, SameSite=Strict, Path=/, and Secure if TLS is used. */
CORVEL_PAGE_API void corvel_answer_cookie(corvel_answer *answer, const char *name,
                                          const char *value, long max_age);
/** Appends bytes as they are. */
CORVEL_PAGE_API void corvel_answer_write(corvel_answer *answer, const void *bytes, size_t size);
/** Appends a string escaped for HTML text and quoted attributes; malformed UTF-8 becomes U+FFFD. */
CORVEL_PAGE_API void corvel_answer_html(corvel_answer *answer, const char *text);
/** Replaces the answer by a redirection (303) to a path of this site. */
CORVEL_PAGE_API void corvel_answer_redirect(corvel_answer *answer, const char *path);
/** Replaces the answer by an error page in the site's design. */
CORVEL_PAGE_API void corvel_answer_error(corvel_answer *answer, int status, const char *reason);
/** Adds an ETag, so that the answer is a 304 if the browser has this body already. */
CORVEL_PAGE_API void corvel_answer_conditional(corvel_answer *answer);
/** Sends the answer on standard output, once. @return false if not all of it could be written. */
CORVEL_PAGE_API bool corvel_answer_send(corvel_answer *answer);
/** True if a path is one of this site: it starts with one `/`, and needs no escaping. */
CORVEL_PAGE_API bool corvel_is_local_path(const char *path);
/** @} */

/**
 * @defgroup page_json JSON
 * @brief A JSON body, written in order; always valid. Source: page/json.cpp.
 *
 * @p name is the member's name in an object and null in an array and at the top.
 * @{
 */
CORVEL_PAGE_API void corvel_json_open_object(corvel_answer *answer, const char *name);
CORVEL_PAGE_API void corvel_json_open_array(corvel_answer *answer, const char *name);
CORVEL_PAGE_API void corvel_json_close(corvel_answer *answer);
CORVEL_PAGE_API void corvel_json_string(corvel_answer *answer, const char *name, const char *value);
CORVEL_PAGE_API void corvel_json_integer(corvel_answer *answer, const char *name, long long value);
CORVEL_PAGE_API void corvel_json_decimal(corvel_answer *answer, const char *name, double value);
CORVEL_PAGE_API void corvel_json_boolean(corvel_answer *answer, const char *name, bool value);
CORVEL_PAGE_API void corvel_json_null(corvel_answer *answer, const char *name);
/** @} */

/**
 * @defgroup page_template Templates
 * @brief HTML templates whose values are escaped. Source: page/template.cpp.
 *
 * `{{name}}` inserts a value escaped for HTML text and quoted attributes, `{{&name}}` one that is
 * HTML already; `{{#name}}...{{/name}}` is repeated for each corvel_data_add() of that name,
 * `{{^name}}...{{/name}}` is kept if there is none, `{{>name}}` inserts another template, and
 * `{{! ... }}` is a comment. What was inserted is never scanned again. An unknown name is empty.
 * @{
 */
/** Values for a template: names with strings, and names with repeated sections. */
typedef struct corvel_data corvel_data;
CORVEL_PAGE_API corvel_data *corvel_data_new(void);
CORVEL_PAGE_API void corvel_data_free(corvel_data *data);
/** Sets a value; it is copied. */
CORVEL_PAGE_API void corvel_data_set(corvel_data *data, const char *name, const char *value);
CORVEL_PAGE_API void corvel_data_set_integer(corvel_data *data, const char *name, long long value);
/** Adds one repetition of a section and returns its values; they belong to @p data. */
CORVEL_PAGE_API corvel_data *corvel_data_add(corvel_data *data, const char *section);
/** Appends a filled template of the site to an answer. */
CORVEL_PAGE_API void corvel_answer_template(corvel_answer *answer, const char *name,
                                            const corvel_data *data);
/** @} */

/**
 * @defgroup page_settings Settings
 * @brief Settings files: load, change, save, recover. Source: page/settings.cpp.
 * @{
 */
/** The settings of one file, as loaded, with the changes made since. */
typedef struct corvel_settings corvel_settings;

/** Bytes of a file's version as text, with the NUL: hexadecimal SHA-256. */
#define CORVEL_SETTINGS_VERSION_SIZE 65

typedef enum corvel_settings_result {
    CORVEL_SETTINGS_SAVED = 0,       /**< The new content is on the device. */
    CORVEL_SETTINGS_UNCHANGED = 1,   /**< There was nothing to write. */
    CORVEL_SETTINGS_OUTDATED = -1,   /**< A file changed since its version was taken. */
    CORVEL_SETTINGS_BUSY = -2,       /**< Another writer kept its lock for too long. */
    CORVEL_SETTINGS_UNREADABLE = -3, /**< A file cannot be read. */
    CORVEL_SETTINGS_UNWRITABLE = -4, /**< A file cannot be written: no space, no permission. */
    CORVEL_SETTINGS_NO_MEMORY = -5
} corvel_settings_result;

CORVEL_PAGE_API corvel_settings *corvel_settings_load(const char *path, char separator,
                                                      corvel_settings_result *result);
CORVEL_PAGE_API void corvel_settings_free(corvel_settings *settings);
/** Returns a setting without the file's quotes and escaping; null if it is missing. */
CORVEL_PAGE_API const char *corvel_setting(const corvel_settings *settings, const char *name);
/** Sets a setting in memory. @return null, or why the file cannot hold it, for the user. */
CORVEL_PAGE_API const char *corvel_setting_set(corvel_settings *settings, const char *name,
                                               const char *value);
CORVEL_PAGE_API void corvel_setting_remove(corvel_settings *settings, const char *name);
/** Returns the name and value at a position; false after the last one. */
CORVEL_PAGE_API bool corvel_setting_pair(const corvel_settings *settings, size_t position,
                                         const char **name, const char **value);
/** Returns the version of the file's content as loaded, for a form's hidden field. */
CORVEL_PAGE_API const char *corvel_settings_version(const corvel_settings *settings);
/** States the version that the form was made from; saving fails if the file has another. */
CORVEL_PAGE_API void corvel_settings_expect(corvel_settings *settings, const char *version);
/** Saves the changed files of a list, all of them locked, in sorted order. */
CORVEL_PAGE_API corvel_settings_result corvel_settings_save(corvel_settings *const files[],
                                                            size_t count);
/** Restores a file whose writer was interrupted. Call it for each file at the device's start. */
CORVEL_PAGE_API corvel_settings_result corvel_settings_recover(const char *path, char separator);
/** @} */

/**
 * @defgroup page_upload Uploads
 * @brief Multipart forms of any size, read as a stream. Source: page/upload.cpp.
 * @{
 */
/** A part of a multipart form. */
typedef struct corvel_part {
    const char *name;     /**< The field's name. */
    const char *filename; /**< The file's name, without directories; null for a field. */
    const char *type;     /**< The content type; "text/plain" if the part has none. */
} corvel_part;

/** What an upload may contain. A member that is 0 has the default stated here. */
typedef struct corvel_upload_limits {
    size_t parts_max;      /**< Parts. Default: 64. */
    size_t header_max;     /**< Bytes of a part's header lines. Default: 8,192. */
    size_t field_max;      /**< Bytes of a field. Default: 65,536. */
    uint64_t file_max;     /**< Bytes of a file. Default: 16 MiB. */
    uint64_t total_max;    /**< Bytes of the body. Default: 16 MiB and 64 KiB. */
    unsigned body_seconds; /**< Longest pause between two bytes. Default: 30. */
} corvel_upload_limits;

/** Where the files of an upload go. A function that returns false ends the upload. */
typedef struct corvel_upload_sink {
    void *context;
    bool (*begin)(void *context, const corvel_part *part);
    bool (*data)(void *context, const void *bytes, size_t size);
    bool (*end)(void *context);
} corvel_upload_sink;

typedef enum corvel_upload_result {
    CORVEL_UPLOAD_DONE = 0,
    CORVEL_UPLOAD_NOT_MULTIPART = -1,
    CORVEL_UPLOAD_BAD_BOUNDARY = -2,
    CORVEL_UPLOAD_MALFORMED = -3,  /**< A part without header, name or end. */
    CORVEL_UPLOAD_INCOMPLETE = -4, /**< The body ends before the last boundary. */
    CORVEL_UPLOAD_TOO_MANY_PARTS = -5,
    CORVEL_UPLOAD_HEADER_TOO_LARGE = -6,
    CORVEL_UPLOAD_FIELD_TOO_LARGE = -7,
    CORVEL_UPLOAD_FILE_TOO_LARGE = -8,
    CORVEL_UPLOAD_TOO_LARGE = -9,
    CORVEL_UPLOAD_STOPPED = -10, /**< The sink returned false. */
    CORVEL_UPLOAD_TIMEOUT = -11,
    CORVEL_UPLOAD_NO_MEMORY = -12,
    CORVEL_UPLOAD_NO_SPACE = -13, /**< The file could not be written. */
    CORVEL_UPLOAD_NO_FILE = -14   /**< The form has no file of that name. */
} corvel_upload_result;

/** Reads the body of an accepted request; fields become the request's, files go to the sink. */
CORVEL_PAGE_API corvel_upload_result corvel_upload_read(corvel_request *request,
                                                        const corvel_upload_limits *limits,
                                                        const corvel_upload_sink *sink);
/** As corvel_upload_read(), with the file of one field written into a new file. */
CORVEL_PAGE_API corvel_upload_result corvel_upload_save(corvel_request *request,
                                                        const corvel_upload_limits *limits,
                                                        const char *field, const char *path);
/** Returns the HTTP status that belongs to a result, and a sentence for the user. */
CORVEL_PAGE_API int corvel_upload_status(corvel_upload_result result, const char **complaint);
/** @} */

/**
 * @defgroup page_session Sessions and login
 * @brief Who a request is from, and slowing down guesses. Sources: page/session.cpp,
 * page/login.cpp.
 * @{
 */
/** How a site keeps its sessions. A member that is 0 has the default stated here. */
typedef struct corvel_session_rules {
    const char *directory;     /**< Files of the sessions, mode 0700. Default: "/run/sessions". */
    const char *cookie;        /**< Name of the cookie. Default: "session". */
    unsigned idle_seconds;     /**< A session ends after this time without a request: 900. */
    unsigned lifetime_seconds; /**< A session ends after this time in any case: 43,200. */
    unsigned sessions_max;     /**< Sessions of one user; the oldest is replaced. Default: 8. */
} corvel_session_rules;

/** The session of a request. */
typedef struct corvel_session corvel_session;

/** Finds the request's session; null if it has none that is valid. */
CORVEL_PAGE_API corvel_session *corvel_session_find(const corvel_request *request,
                                                    const corvel_session_rules *rules);
CORVEL_PAGE_API void corvel_session_free(corvel_session *session);
CORVEL_PAGE_API const char *corvel_session_user(const corvel_session *session);
/** Returns the token for the forms of this session. */
CORVEL_PAGE_API const char *corvel_session_token(const corvel_session *session);
/** True if a form's token is that of the session. */
CORVEL_PAGE_API bool corvel_session_check(const corvel_session *session, const char *token);
/** Sets the time of the last request to now. */
CORVEL_PAGE_API bool corvel_session_touch(corvel_session *session);
/** Starts a session and sets its cookie; the request's former session ends. */
CORVEL_PAGE_API corvel_session *corvel_session_start(const corvel_request *request,
                                                     corvel_answer *answer,
                                                     const corvel_session_rules *rules,
                                                     const char *user);
/** Gives the session a new identifier, as after a change of password. */
CORVEL_PAGE_API bool corvel_session_renew(corvel_session *session, corvel_answer *answer);
/** Ends the session and removes its cookie. */
CORVEL_PAGE_API bool corvel_session_end(corvel_session *session, corvel_answer *answer);
/** Ends all sessions of a user but @p kept, which may be null. @return the number of them, or -1.
 */
CORVEL_PAGE_API int corvel_session_end_all(const corvel_session_rules *rules, const char *user,
                                           const corvel_session *kept);

/** How wrong passwords are slowed down. A member that is 0 has the default stated here. */
typedef struct corvel_login_rules {
    const char *record;       /**< File of the attempts. Default: "/run/logins". */
    unsigned free_attempts;   /**< Wrong passwords of an address without a delay. Default: 3. */
    unsigned longest_seconds; /**< The longest delay of an address. Default: 60. */
    bool (*check)(const char *user, const char *password); /**< Default: login_auth(). */
} corvel_login_rules;

typedef enum corvel_login_result {
    CORVEL_LOGIN_RIGHT = 0,
    CORVEL_LOGIN_WRONG = -1, /**< Wrong name or password. */
    CORVEL_LOGIN_WAIT = -2,  /**< The address has to wait; nothing was checked. */
    CORVEL_LOGIN_FAILED = -3 /**< The attempt could not be recorded; nothing was checked. */
} corvel_login_result;

/** Checks a password for the request's address. @p seconds receives how long it has to wait. */
CORVEL_PAGE_API corvel_login_result corvel_login(const corvel_request *request,
                                                 const corvel_login_rules *rules, const char *user,
                                                 const char *password, unsigned *seconds);
/** @} */

/**
 * @defgroup page_upgrade Upgrades
 * @brief Firmware upgrades that leave a system that runs. Source: page/upgrade.cpp.
 * @{
 */
/* Declared by the module's own section. */
/** @} */

/**
 * @defgroup page_support Routing, dates, log
 * @brief The rest that pages need. Sources: page/routing.cpp, page/dates.cpp, page/log.cpp.
 * @{
 */
/** A path of the program and the function that answers it. */
typedef struct corvel_route {
    const char *path; /**< Such as "/clients/" followed by `*`, which matches one component. */
    corvel_request_rules rules;
    void (*answer)(corvel_request *request, corvel_answer *answer, void *context);
} corvel_route;

/**
 * Selects the route of the request's path and method, reads the request by the route's rules, and
 * calls its function, or answers 404, 405 or what corvel_request_read() returned.
 */
CORVEL_PAGE_API void corvel_dispatch(corvel_request *request, corvel_answer *answer,
                                     const corvel_route routes[], size_t count, void *context);
/** Returns the component of the path that matched the index-th `*`; null if there is none. */
CORVEL_PAGE_API const char *corvel_path_part(const corvel_request *request, size_t index);

/** Bytes of a date as HTTP writes it, with the NUL: "Sun, 06 Nov 1994 08:49:37 GMT". */
#define CORVEL_HTTP_DATE_SIZE 30
CORVEL_PAGE_API char *corvel_http_date(time_t time, char text[CORVEL_HTTP_DATE_SIZE]);
/** Reads a date in any of the three forms of HTTP; false if it is malformed. */
CORVEL_PAGE_API bool corvel_parse_http_date(const char *text, time_t *time);
/** Bytes of a duration or date for people, with the NUL. */
#define CORVEL_TIME_TEXT_SIZE 40
/** Formats a duration as "3 d 04:05:06". */
CORVEL_PAGE_API char *corvel_duration_text(long long seconds, char text[CORVEL_TIME_TEXT_SIZE]);
/** Formats a local date and time as "2026-11-22 09:30:00". */
CORVEL_PAGE_API char *corvel_date_text(time_t time, char text[CORVEL_TIME_TEXT_SIZE]);

/** Levels of a log message; those of syslog. */
typedef enum corvel_log_level {
    CORVEL_LOG_ERROR = 3,
    CORVEL_LOG_WARNING = 4,
    CORVEL_LOG_NOTICE = 5,
    CORVEL_LOG_INFO = 6,
    CORVEL_LOG_DEBUG = 7
} corvel_log_level;
/** Writes one line to the system log; control characters are escaped, so that it stays one line. */
CORVEL_PAGE_API void corvel_log(corvel_log_level level, const char *format, ...)
    __attribute__((__format__(__printf__, 2, 3)));
/** @} */

#ifdef __cplusplus
}
#endif

#endif
