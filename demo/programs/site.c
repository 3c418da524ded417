/* SPDX-License-Identifier: MIT */
#define _GNU_SOURCE
#include "site.h"

#include "password_rules.h"
#include "time_zone.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static const corvel_site own_site = {.templates = "/www/templates", .error_template = "refused"};

static const char *environment(const char *name) {
    const char *value = getenv(name);
    return value ? value : "";
}

/* Requests. */

/* After the login the page is shown with its query, which is null if the page only takes forms. */
static void redirect_to_login(corvel_answer *answer, const char *query) {
    char path[line_size];
    char encoded[CORVEL_URL_SIZE(sizeof path)];
    char target[sizeof encoded + line_size] = "/cgi-bin/login";
    if (query) {
        const int length = snprintf(path, sizeof path, "%s%s%s", environment("SCRIPT_NAME"),
                                    *query ? "?" : "", query);
        if (length < (int)sizeof path && corvel_is_local_path(path)) {
            corvel_url_encode(path, encoded, sizeof encoded);
            snprintf(target, sizeof target, "/cgi-bin/login?next=%s", encoded);
        }
    }
    corvel_answer_redirect(answer, target);
}

/* Leads a client that may not use the page to the login or to the choice of a password. The answer
 * is not one to the request, whose body would be read first: the client gets it before it has sent
 * its upload. */
static void send_elsewhere(const struct page *page, const site_page *site) {
    corvel_answer *answer = corvel_answer_new(NULL, &own_site);
    if (page->is_json) {
        corvel_answer_status(answer, page->session ? CORVEL_HTTP_FORBIDDEN : 401);
        corvel_json_open_object(answer, NULL);
        corvel_json_string(answer, "error", page->session ? "password" : "login");
        corvel_json_close(answer);
    } else if (page->session) {
        corvel_answer_redirect(answer, "/cgi-bin/password");
    } else {
        const bool is_get = corvel_method(page->request) == CORVEL_GET;
        redirect_to_login(answer, is_get ? environment("QUERY_STRING") : site->get ? "" : NULL);
    }
    corvel_answer_send(answer);
    corvel_answer_free(answer);
}

static int read_request(const struct page *page, const site_page *site) {
    /* The largest form may consist of pairs of two bytes, `=` and `&`. */
    const corvel_request_rules rules = {.methods = (site->get ? CORVEL_GET : 0U) |
                                                   (site->post ? CORVEL_POST : 0U),
                                        .types = site->is_upload ? CORVEL_MULTIPART : CORVEL_FORM,
                                        .body_max = longest_body,
                                        .pairs_max = longest_body,
                                        .memory_max = 4194304};
    return corvel_request_read(page->request, &rules);
}

static bool has_token(const struct page *page, const site_page *site) {
    const char *token = site->is_upload ? corvel_query(page->request, "token")
                                        : corvel_field(page->request, "token");
    return site->is_public || corvel_session_check(page->session, token);
}

static void answer_request(struct page *page, const site_page *site) {
    const int status = read_request(page, site);
    if (status != CORVEL_HTTP_OK) {
        corvel_answer_error(page->answer, status, corvel_request_complaint(page->request));
    } else if (corvel_method(page->request) == CORVEL_GET) {
        if (page->is_json)
            corvel_json_open_object(page->answer, NULL);
        site->get(page);
    } else if (has_token(page, site)) {
        site->post(page);
    } else {
        corvel_answer_error(page->answer, CORVEL_HTTP_FORBIDDEN,
                            "The form is outdated. Reload the page and try again.");
    }
}

/* The name that the router has in the network. */
static void put_host_name(corvel_data *frame) {
    char name[HOST_NAME_MAX + 1] = "";
    gethostname(name, sizeof name - 1);
    corvel_data_set(frame, "host", name);
}

/* The functions that the program calls, which the build has found out. */
static void put_functions(corvel_data *frame) {
    char path[line_size];
    char names[4096];
    snprintf(path, sizeof path, "/www/made-with/%s", program_invocation_short_name);
    read_text(path, names, sizeof names);
    corvel_data_set(frame, "functions", names);
}

/* The values of the site's frame. The navigation is shown only to users who are logged in. */
static corvel_data *frame_of(const struct page *page, const char *name) {
    char entry[line_size];
    corvel_data *frame = corvel_data_new();
    corvel_settings *factory = corvel_settings_load("/etc/factory.conf", ' ', NULL);
    corvel_data_set(frame, "model", corvel_setting(factory, "MODEL"));
    corvel_settings_free(factory);
    snprintf(entry, sizeof entry, "on_%s", name);
    corvel_data_set(frame, entry, "1");
    if (page->session && !page->is_json) {
        put_host_name(frame);
        put_functions(frame);
    }
    corvel_data_set(frame, "account", corvel_session_user(page->session));
    corvel_data_set(frame, "token", corvel_session_token(page->session));
    corvel_data_set(frame, "first_step", page->is_first_step ? "1" : NULL);
    return frame;
}

static void answer_in_frame(struct page *page, const site_page *site) {
    corvel_data *frame = frame_of(page, site->name);
    page->answer = corvel_answer_new(page->request, &own_site);
    page->data = corvel_data_new();
    corvel_answer_values(page->answer, frame);
    answer_request(page, site);
    corvel_answer_send(page->answer);
    corvel_answer_free(page->answer);
    corvel_data_free(page->data);
    corvel_data_free(frame);
}

/* What a stranger sends is parsed by a process without privileges, as far as that is possible: a
 * user namespace with a single user has no other one, and not every kernel filters system calls. */
static const corvel_containment containment = {.accept_less = true};

int serve(const site_page *site) {
    use_time_zone();
    struct page page = {.request = corvel_request_begin_contained(&containment)};
    page.is_json = !site->is_public && corvel_method(page.request) == CORVEL_GET && isajax_get();
    page.session = corvel_session_find(page.request, NULL);
    page.is_first_step = page.session && has_factory_password(corvel_session_user(page.session));
    if (!site->is_public && (!page.session || (page.is_first_step && !site->is_first_step))) {
        send_elsewhere(&page, site);
    } else {
        if (!page.is_json)
            corvel_session_touch(page.session);
        answer_in_frame(&page, site);
    }
    corvel_session_free(page.session);
    corvel_request_free(page.request); /* wipes passwords */
    return EXIT_SUCCESS;
}

/* Answers. */

void put(struct page *page, const char *name, const char *value) {
    if (page->is_json)
        corvel_json_string(page->answer, name, value);
    else
        corvel_data_set(page->row ? page->row : page->data, name, value);
}

void open_object(struct page *page, const char *name) {
    if (page->is_json)
        corvel_json_open_object(page->answer, name);
}

void open_list(struct page *page, const char *name) {
    page->list = name;
    if (page->is_json)
        corvel_json_open_array(page->answer, name);
}

void open_row(struct page *page) {
    if (page->is_json)
        corvel_json_open_object(page->answer, NULL);
    else
        page->row = corvel_data_add(page->data, page->list);
}

void close_part(struct page *page) {
    page->row = NULL;
    if (page->is_json)
        corvel_json_close(page->answer);
}

void show(struct page *page, const char *template_name) {
    if (page->is_json)
        corvel_json_close(page->answer);
    else
        corvel_answer_template(page->answer, template_name, page->data);
}

void put_number(struct page *page, const char *name, long long number) {
    char text[32];
    snprintf(text, sizeof text, "%lld", number);
    put(page, name, text);
}

void read_text(const char *path, char *text, size_t size) {
    const ssize_t length = open_read_close(path, text, size - 1);
    text[length > 0 ? length : 0] = '\0';
}

void ask_to_wait(struct page *page, unsigned seconds) {
    char text[16];
    snprintf(text, sizeof text, "%u", seconds);
    corvel_answer_status(page->answer, CORVEL_HTTP_TOO_MANY_REQUESTS);
    corvel_answer_header(page->answer, "Retry-After", text);
}

void ignore_disconnection(void) {
    signal(SIGTERM, SIG_IGN);
    signal(SIGPIPE, SIG_IGN);
}

int mute_output(void) {
    fflush(stdout);
    const int output = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (output < 0 || nowhere < 0 || dup2(nowhere, STDOUT_FILENO) < 0)
        exit(EXIT_FAILURE); /* the discarded output may contain a stranger's bytes */
    close(nowhere);
    return output;
}

void unmute_output(int output) {
    fflush(stdout);
    if (dup2(output, STDOUT_FILENO) < 0)
        exit(EXIT_FAILURE);
    close(output);
}
