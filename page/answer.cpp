// SPDX-License-Identifier: MIT
#include "page/answer.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <strings.h>

#include "page/output.h"
#include "page/request.h"
#include "page/sha256.h"
#include "page/syntax.h"
#include "page/template.h"
#include "support/text.h"

namespace corvel {
namespace {

/// The statuses of HTTP and their names. The first one of a class also names the unknown ones. One
/// string, since an array of pointers would need a relocation for each.
constexpr char statuses[] = "200 OK\0"
                            "201 Created\0"
                            "202 Accepted\0"
                            "204 No Content\0"
                            "300 Multiple Choices\0"
                            "301 Moved Permanently\0"
                            "302 Found\0"
                            "303 See Other\0"
                            "304 Not Modified\0"
                            "307 Temporary Redirect\0"
                            "308 Permanent Redirect\0"
                            "400 Bad Request\0"
                            "401 Unauthorized\0"
                            "403 Forbidden\0"
                            "404 Not Found\0"
                            "405 Method Not Allowed\0"
                            "406 Not Acceptable\0"
                            "408 Request Timeout\0"
                            "409 Conflict\0"
                            "410 Gone\0"
                            "411 Length Required\0"
                            "412 Precondition Failed\0"
                            "413 Content Too Large\0"
                            "414 URI Too Long\0"
                            "415 Unsupported Media Type\0"
                            "422 Unprocessable Content\0"
                            "423 Locked\0"
                            "429 Too Many Requests\0"
                            "431 Request Header Fields Too Large\0"
                            "500 Internal Server Error\0"
                            "501 Not Implemented\0"
                            "502 Bad Gateway\0"
                            "503 Service Unavailable\0"
                            "504 Gateway Timeout\0"
                            "507 Insufficient Storage\0";

constexpr int status_min = 200;
constexpr int status_max = 599;
constexpr int error_min = 400;

/// The name of a status, such as "Not Found".
const char *status_name(int status) {
    const char *name = "";
    for (const char *each = statuses; *each != '\0'; each += std::strlen(each) + 1) {
        const long number = std::strtol(each, nullptr, 10);
        if (number == status || number == status - status % 100)
            name = each + 4;
    }
    return name;
}

// Same-origin, not no-referrer: browsers would send a form with "Origin: null", which a check of
// the origin refuses.
constexpr char default_fields[] = "Content-Type: text/html; charset=utf-8\r\n"
                                  "Cache-Control: no-store\r\n"
                                  "X-Content-Type-Options: nosniff\r\n"
                                  "X-Frame-Options: DENY\r\n"
                                  "Referrer-Policy: same-origin\r\n";

constexpr char default_policy[] = "default-src 'self'; base-uri 'none'; form-action 'self'; "
                                  "frame-ancestors 'none'; object-src 'none'";

/// What is sent if there was no memory for the answer.
constexpr char answer_without_memory[] = "Status: 503 Service Unavailable\r\n"
                                         "Content-Type: text/plain; charset=utf-8\r\n"
                                         "Cache-Control: no-store\r\n"
                                         "X-Content-Type-Options: nosniff\r\n"
                                         "Content-Length: 29\r\n"
                                         "\r\n"
                                         "The device is out of memory.\n";

/// True if a string consists of letters, digits and some other characters.
bool consists_of(const char *text, const char *others) {
    return text[span_of(text, others)] == '\0';
}

/// True for the name of a header field or cookie.
bool is_token(const char *text) {
    return text != nullptr && *text != '\0' && consists_of(text, "!#$%&'*+-.^_`|~");
}

/// Fields that only functions of their own set.
bool is_reserved(const char *name) {
    return index_ignoring_case(
               "Status\0Content-Type\0Content-Length\0Transfer-Encoding\0Set-Cookie\0", name) >= 0;
}

using Compare = int (*)(const char *, const char *, std::size_t);

/// Removes the line that starts as the one at @p last does, up to a delimiter that @p last
/// contains. Returns where @p last is then.
std::size_t remove_earlier(Buffer &lines, std::size_t last, char delimiter, Compare compare) {
    const char *const key = lines.data() + last;
    const auto key_size = lines.bytes().find(delimiter, last) + 1 - last;
    std::size_t end = 0;
    for (std::size_t start = 0; start < last; start = end) {
        end = lines.bytes().find('\n', start) + 1;
        if (compare(lines.data() + start, key, key_size) != 0)
            continue;
        lines.remove(start, end - start);
        return last - (end - start);
    }
    return last;
}

/// Sets a header field; an empty value removes it.
void set_field(corvel_answer &answer, const char *name, const char *value) {
    Buffer &fields = answer.fields;
    const std::size_t end = fields.size();
    fields.print("%s: %s\r\n", name, value);
    if (fields.failed())
        return;
    const std::size_t start = remove_earlier(fields, end, ':', strncasecmp);
    if (*value == '\0')
        fields.remove(start, fields.size() - start);
}

/// Sets the default fields, which needs no more memory than when it was done first.
void reset_fields(corvel_answer &answer) {
    answer.fields.clear();
    answer.fields.print(default_fields);
    set_field(answer, "Content-Security-Policy", answer.site.content_security_policy);
}

/// Replaces everything but the cookies by an empty answer of a status.
void replace(corvel_answer &answer, int status) {
    reset_fields(answer);
    answer.body.clear();
    answer.status = status;
    answer.json = {};
    answer.is_final = true;
}

/// Fills the site's error page. False if there is none or it cannot be filled.
bool append_site_error(corvel_answer &answer, const char *name, const char *reason) {
    if (answer.site.error_template == nullptr)
        return false;
    corvel_data *const data = corvel_data_new();
    corvel_data_set_integer(data, "status", answer.status);
    corvel_data_set(data, "title", name);
    corvel_data_set(data, "reason", reason);
    const bool filled = fill_template(answer, answer.site.error_template, data);
    corvel_data_free(data);
    return filled;
}

/// Makes the answer an error page. Without memory for one, its body is empty.
void replace_by_error(corvel_answer &answer, int status, const char *reason) {
    replace(answer, status);
    const char *const name = status_name(status);
    if (append_site_error(answer, name, reason))
        return;
    Buffer &body = answer.body;
    body.clear();
    body.print("<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
               "<title>%d %s</title>\n</head>\n<body>\n<h1>%d %s</h1>\n<p>",
               status, name, status, name);
    append_html(body, text_or_empty(reason));
    body.print("</p>\n</body>\n</html>\n");
    if (body.failed())
        body.clear();
}

/// Replaces an answer that cannot be sent as the page made it.
void replace_if_failed(corvel_answer &answer) {
    if (answer.json.depth != 0)
        misuse(&answer, "A JSON array or object is not closed.");
    if (answer.body.failed() || answer.fields.failed() || answer.cookies.failed())
        misuse(&answer, "The answer is too large, or memory is exhausted.");
    if (!answer.is_misused)
        return;
    if (answer.cookies.failed())
        answer.cookies.clear();
    answer.is_misused = false;
    replace_by_error(answer, CORVEL_HTTP_INTERNAL_SERVER_ERROR,
                     "The page could not be made. The system log contains the reason.");
}

/// True if an If-None-Match field contains an entity tag. Weak tags count as strong ones. Reading
/// stops at the first malformed tag.
bool contains_tag(const char *list, const char *wanted) {
    static constexpr char separators[] = ", \t\n\v\f\r";
    list += std::strspn(list, separators);
    if (*list == '*')
        return true;
    for (;;) {
        if (list[0] == 'W' && list[1] == '/')
            list += 2;
        if (std::strncmp(list, wanted, std::strlen(wanted)) == 0)
            return true;
        const char *const end = *list == '"' ? std::strchr(list + 1, '"') : nullptr;
        if (end == nullptr)
            return false;
        list = end + 1 + std::strspn(end + 1, separators);
    }
}

/// Makes a conditional answer a 304 if the browser has its body already.
void apply_condition(corvel_answer &answer) {
    if (!answer.is_conditional || answer.status != CORVEL_HTTP_OK ||
        corvel_method(answer.request) != CORVEL_GET)
        return;
    // The hash of the body, in quotes.
    char tag[1 + Sha256::text_size + 1];
    Sha256 hash;
    hash.update(answer.body.bytes());
    hash.digest_text(tag + 1);
    tag[0] = '"';
    tag[sizeof tag - 2] = '"';
    tag[sizeof tag - 1] = '\0';
    set_field(answer, "ETag", tag);
    if (!contains_tag(text_or_empty(environment(answer.request, "HTTP_IF_NONE_MATCH")), tag))
        return;
    answer.status = CORVEL_HTTP_NOT_MODIFIED;
    set_field(answer, "Content-Type", "");
}

/// True for a status whose answers have a body, even if it is empty.
bool has_content(int status) { return status != 204 && status != CORVEL_HTTP_NOT_MODIFIED; }

bool send(const corvel_answer &answer) {
    StandardOutput out;
    // The status is the first line: some web servers read it only there.
    out.print("Status: %d %s\r\n", answer.status, status_name(answer.status));
    out.put(answer.fields.bytes());
    out.put(answer.cookies.bytes());
    if (has_content(answer.status))
        out.print("Content-Length: %zu\r\n", answer.body.size());
    out.print("\r\n");
    const char *const method = text_or_empty(environment(answer.request, "REQUEST_METHOD"));
    if (has_content(answer.status) && std::strcmp(method, "HEAD") != 0)
        out.put(answer.body.bytes());
    return out.finish();
}

bool send_without_memory() {
    StandardOutput out;
    out.put(answer_without_memory);
    out.finish();
    return false;
}

} // namespace

Buffer *body_of(corvel_answer *answer) {
    if (answer == nullptr || answer->is_final)
        return nullptr;
    if (answer->json.depth == 0 && !answer->json.is_body)
        return &answer->body;
    misuse(answer, "Something other than JSON was appended to a JSON body.");
    return nullptr;
}

void misuse(corvel_answer *answer, const char *reason) {
    if (answer == nullptr || answer->is_misused)
        return;
    corvel_log(CORVEL_LOG_ERROR, "%s", reason);
    answer->is_misused = true;
}

} // namespace corvel

using namespace corvel;

extern "C" {

corvel_answer *corvel_answer_new(const corvel_request *request, const corvel_site *site) {
    void *const memory = std::malloc(sizeof(corvel_answer));
    if (memory == nullptr)
        return nullptr;
    auto *const answer = new (memory) corvel_answer;
    answer->request = request;
    if (site != nullptr)
        answer->site = *site;
    if (answer->site.templates == nullptr)
        answer->site.templates = ".";
    const char *&policy = answer->site.content_security_policy;
    if (policy == nullptr)
        policy = default_policy;
    if (has_control_character(policy)) {
        misuse(answer, "The content security policy contains a control character.");
        policy = default_policy;
    }
    reset_fields(*answer);
    if (!answer->fields.failed())
        return answer;
    corvel_answer_free(answer);
    return nullptr;
}

void corvel_answer_free(corvel_answer *answer) {
    if (answer == nullptr)
        return;
    answer->~corvel_answer();
    std::free(answer);
}

void corvel_answer_values(corvel_answer *answer, const corvel_data *values) {
    if (values == nullptr)
        misuse(answer, "The values of the answer are missing.");
    if (answer != nullptr)
        answer->values = values;
}

void corvel_answer_status(corvel_answer *answer, int status) {
    if (answer == nullptr || answer->is_final)
        return;
    if (status < status_min || status > status_max)
        misuse(answer, "The status of the answer is invalid.");
    else
        answer->status = status;
}

void corvel_answer_type(corvel_answer *answer, const char *type) {
    if (answer == nullptr || answer->is_final)
        return;
    type = text_or_empty(type);
    if (*type == '\0' || has_control_character(type)) {
        misuse(answer, "The content type of the answer is invalid.");
        return;
    }
    answer->has_type = true;
    set_field(*answer, "Content-Type", type);
}

void corvel_answer_header(corvel_answer *answer, const char *name, const char *value) {
    if (answer == nullptr)
        return;
    value = text_or_empty(value);
    if (!is_token(name) || is_reserved(name) || has_control_character(value))
        misuse(answer, "The name or value of a header field is invalid.");
    else
        set_field(*answer, name, value);
}

void corvel_answer_cookie(corvel_answer *answer, const char *name, const char *value,
                          long max_age) {
    if (answer == nullptr)
        return;
    if (value == nullptr)
        max_age = 0;
    value = text_or_empty(value);
    if (!is_token(name) || !consists_of(value, "!#$%&'()*+-./:<=>?@[]^_`{|}~")) {
        misuse(answer, "The name or value of a cookie is invalid.");
        return;
    }
    char age[40] = "";
    if (max_age >= 0)
        std::snprintf(age, sizeof age, "; Max-Age=%ld", max_age);
    Buffer &cookies = answer->cookies;
    const std::size_t end = cookies.size();
    cookies.print("Set-Cookie: %s=%s; Path=/; HttpOnly; SameSite=Strict%s%s\r\n", name, value,
                  corvel_is_secure(answer->request) ? "; Secure" : "", age);
    if (!cookies.failed())
        remove_earlier(cookies, end, '=', std::strncmp);
}

void corvel_answer_write(corvel_answer *answer, const void *bytes, size_t size) {
    Buffer *const body = body_of(answer);
    if (body != nullptr && bytes != nullptr)
        body->append({static_cast<const char *>(bytes), size});
}

void corvel_answer_html(corvel_answer *answer, const char *text) {
    Buffer *const body = body_of(answer);
    if (body != nullptr)
        append_html(*body, text_or_empty(text));
}

void corvel_answer_redirect(corvel_answer *answer, const char *path) {
    if (answer == nullptr)
        return;
    if (!corvel_is_local_path(path)) {
        misuse(answer, "The target of a redirection is not a path of this site.");
        return;
    }
    replace(*answer, CORVEL_HTTP_SEE_OTHER);
    set_field(*answer, "Location", path);
}

void corvel_answer_error(corvel_answer *answer, int status, const char *reason) {
    if (answer == nullptr)
        return;
    if (status < error_min || status > status_max)
        misuse(answer, "The status of an error page is invalid.");
    else
        replace_by_error(*answer, status, reason);
}

void corvel_answer_conditional(corvel_answer *answer) {
    if (answer == nullptr || answer->is_final)
        return;
    answer->is_conditional = true;
    set_field(*answer, "Cache-Control", "private, no-cache");
}

bool corvel_answer_send(corvel_answer *answer) {
    if (answer == nullptr)
        return send_without_memory();
    if (answer->is_sent) {
        misuse(answer, "The answer was sent twice.");
        return false;
    }
    replace_if_failed(*answer);
    apply_condition(*answer);
    replace_if_failed(*answer);
    answer->is_sent = true;
    discard_body(answer->request);
    return send(*answer);
}

bool corvel_is_local_path(const char *path) {
    return path != nullptr && path[0] == '/' && path[1] != '/' &&
           consists_of(path, "/-._~?&=%+,:@#") && std::strlen(path) <= CORVEL_LOCAL_PATH_MAX;
}

} // extern "C"
