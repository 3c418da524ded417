// SPDX-License-Identifier: MIT
#include "page/answer.h"

#include <cstdio>
#include <cstring>
#include <iterator>
#include <new>
#include <strings.h>

#include "page/output.h"
#include "page/request.h"
#include "page/sha256.h"
#include "page/template.h"
#include "support/text.h"

namespace corvel {
namespace {

/// The statuses of HTTP and their names. The first one of a class also names the unknown ones.
constexpr std::string_view statuses =
    "\n200 OK\n201 Created\n202 Accepted\n204 No Content"
    "\n300 Multiple Choices\n301 Moved Permanently\n302 Found\n303 See Other"
    "\n304 Not Modified\n307 Temporary Redirect\n308 Permanent Redirect"
    "\n400 Bad Request\n401 Unauthorized\n403 Forbidden\n404 Not Found"
    "\n405 Method Not Allowed\n406 Not Acceptable\n408 Request Timeout\n409 Conflict\n410 Gone"
    "\n411 Length Required\n412 Precondition Failed\n413 Content Too Large\n414 URI Too Long"
    "\n415 Unsupported Media Type\n422 Unprocessable Content\n423 Locked"
    "\n429 Too Many Requests\n431 Request Header Fields Too Large"
    "\n500 Internal Server Error\n501 Not Implemented\n502 Bad Gateway"
    "\n503 Service Unavailable\n504 Gateway Timeout\n507 Insufficient Storage\n";

constexpr int status_min = 200;
constexpr int status_max = 599;
constexpr int error_min = 400;

/// A status as three digits.
class StatusDigits {
  public:
    explicit StatusDigits(int status) { std::snprintf(digits_, sizeof digits_, "%d", status); }
    [[nodiscard]] std::string_view text() const { return {digits_, 3}; }
    [[nodiscard]] const char *string() const { return digits_; }

  private:
    char digits_[12];
};

/// The name of a status, such as "Not Found".
std::string_view status_name(int status) {
    const StatusDigits digits(status);
    std::size_t place = 0;
    do
        place = statuses.find('\n', place) + 1;
    while (place < statuses.size() && !after(statuses, place).starts_with(digits.text()));
    if (place >= statuses.size())
        return status_name(status / 100 * 100);
    const std::string_view rest = after(statuses, place + 4);
    return front(rest, rest.find('\n'));
}

// Same-origin, not no-referrer: browsers would send a form with "Origin: null", which a check of
// the origin refuses.
constexpr std::string_view default_fields = "Content-Type: text/html; charset=utf-8\r\n"
                                            "Cache-Control: no-store\r\n"
                                            "X-Content-Type-Options: nosniff\r\n"
                                            "X-Frame-Options: DENY\r\n"
                                            "Referrer-Policy: same-origin\r\n";

constexpr char default_policy[] = "default-src 'self'; base-uri 'none'; form-action 'self'; "
                                  "frame-ancestors 'none'; object-src 'none'";

/// What is sent if there was no memory for the answer.
constexpr std::string_view answer_without_memory = "Status: 503 Service Unavailable\r\n"
                                                   "Content-Type: text/plain; charset=utf-8\r\n"
                                                   "Cache-Control: no-store\r\n"
                                                   "X-Content-Type-Options: nosniff\r\n"
                                                   "Content-Length: 29\r\n"
                                                   "\r\n"
                                                   "The device is out of memory.\n";

bool is_alphanumeric(char character) {
    const char lower = static_cast<char>(character | 0x20);
    return (lower >= 'a' && lower <= 'z') || is_digit(character);
}

/// True if a string consists of letters, digits and some other characters, and is not empty.
bool consists_of(std::string_view text, std::string_view others) {
    std::string_view rest = text;
    while (!rest.empty() &&
           (is_alphanumeric(rest.front()) || others.find(rest.front()) != std::string_view::npos))
        rest.remove_prefix(1);
    return rest.empty() && !text.empty();
}

/// True for the name of a header field or cookie.
bool is_token(std::string_view text) { return consists_of(text, "!#$%&'*+-.^_`|~"); }

/// True for the value of a header field: no control characters.
bool is_field_value(std::string_view text) {
    while (!text.empty() && static_cast<unsigned char>(text.front()) >= ' ' &&
           text.front() != '\x7F')
        text.remove_prefix(1);
    return text.empty();
}

/// True for the value of a cookie; it may be empty.
bool is_cookie_value(std::string_view text) {
    return text.empty() || consists_of(text, "!#$%&'()*+-./:<=>?@[]^_`{|}~");
}

/// Fields that only functions of their own set.
bool is_reserved(const char *name) {
    static constexpr const char *names[] = {"Status", "Content-Type", "Content-Length",
                                            "Transfer-Encoding", "Set-Cookie"};
    std::size_t at = 0;
    while (at < std::size(names) && strcasecmp(name, names[at]) != 0)
        ++at;
    return at < std::size(names);
}

void set_field(corvel_answer &answer, std::string_view name, std::string_view value) {
    answer.fields.append(name);
    answer.fields.append(value.empty() ? ":" : ": ");
    answer.fields.append(value);
    answer.fields.append("\r\n");
}

/// Sets the default fields, which needs no more memory than when it was done first.
void reset_fields(corvel_answer &answer) {
    answer.fields.clear();
    answer.fields.append(default_fields);
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

/// Appends an error page by the site's template. False if there is none or it cannot be filled.
bool append_site_error(corvel_answer &answer, const char *name, const char *reason) {
    if (answer.site.error_template == nullptr)
        return false;
    corvel_data *const data = corvel_data_new();
    corvel_data_set(data, "status", StatusDigits(answer.status).string());
    corvel_data_set(data, "title", name);
    corvel_data_set(data, "reason", reason);
    const bool filled = fill_template(answer.body, answer.site.templates,
                                      answer.site.error_template, data, answer.values);
    corvel_data_free(data);
    return filled;
}

void append_plain_error(Buffer &body, int status, std::string_view name, const char *reason) {
    const StatusDigits digits(status);
    const auto append_title = [&] {
        body.append(digits.text());
        body.append(' ');
        body.append(name);
    };
    body.append("<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n<title>");
    append_title();
    body.append("</title>\n</head>\n<body>\n<h1>");
    append_title();
    body.append("</h1>\n<p>");
    append_html(body, text_of(reason));
    body.append("</p>\n</body>\n</html>\n");
}

/// Makes the answer an error page. Without memory for one, its body is empty.
void replace_by_error(corvel_answer &answer, int status, const char *reason) {
    replace(answer, status);
    char name[48];
    store(name, status_name(status));
    if (append_site_error(answer, name, reason))
        return;
    answer.body.clear();
    append_plain_error(answer.body, status, name, reason);
    if (answer.body.failed())
        answer.body.clear();
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

bool is_method(const corvel_answer &answer, const char *method) {
    return text_of(environment(answer.request, "REQUEST_METHOD")) == method;
}

/// An entity tag: the hash of the body, in quotes.
class EntityTag {
  public:
    explicit EntityTag(std::string_view body) {
        Sha256 hash;
        hash.update(body);
        hash.digest_text(text_ + 1);
        text_[0] = '"';
        text_[sizeof text_ - 1] = '"';
    }
    [[nodiscard]] std::string_view text() const { return {text_, sizeof text_}; }

  private:
    char text_[1 + Sha256::text_size];
};

void skip_separators(std::string_view &list) {
    while (!list.empty() && (list.front() == ',' || is_space(list.front())))
        list.remove_prefix(1);
}

/// True if an If-None-Match field contains an entity tag. Weak tags count as strong ones. Reading
/// stops at the first malformed tag.
bool contains_tag(std::string_view list, std::string_view wanted) {
    skip_separators(list);
    if (list.starts_with('*'))
        return true;
    while (!list.empty()) {
        if (list.starts_with("W/"))
            list.remove_prefix(2);
        const std::size_t end = list.find('"', 1);
        if (end == std::string_view::npos || list.front() != '"')
            return false;
        if (front(list, end + 1) == wanted)
            return true;
        list = after(list, end + 1);
        skip_separators(list);
    }
    return false;
}

/// Makes a conditional answer a 304 if the browser has its body already.
void apply_condition(corvel_answer &answer) {
    if (!answer.is_conditional || answer.status != CORVEL_HTTP_OK ||
        corvel_method(answer.request) != CORVEL_GET)
        return;
    const EntityTag tag(answer.body.bytes());
    set_field(answer, "ETag", tag.text());
    if (!contains_tag(text_of(environment(answer.request, "HTTP_IF_NONE_MATCH")), tag.text()))
        return;
    answer.status = CORVEL_HTTP_NOT_MODIFIED;
    set_field(answer, "Content-Type", {});
}

/// True for a status whose answers have a body, even if it is empty.
bool has_content(int status) { return status != 204 && status != CORVEL_HTTP_NOT_MODIFIED; }

std::string_view take_line(std::string_view &lines) {
    const std::string_view line = front(lines, lines.find('\n') + 1);
    lines = after(lines, line.size());
    return line;
}

using Compare = int (*)(const char *, const char *, std::size_t);

/// True if one of the lines starts with a key.
bool contains_key(std::string_view lines, std::string_view key, Compare compare) {
    while (!lines.empty()) {
        const std::string_view line = take_line(lines);
        if (line.size() > key.size() && compare(line.data(), key.data(), key.size()) == 0)
            return true;
    }
    return false;
}

void put_fields(StandardOutput &out, std::string_view lines) {
    while (!lines.empty()) {
        const std::string_view line = take_line(lines);
        const std::string_view key = front(line, line.find(':') + 1);
        if (line.size() > key.size() + 2 && !contains_key(lines, key, strncasecmp))
            out.put(line);
    }
}

void put_cookies(StandardOutput &out, std::string_view lines) {
    while (!lines.empty()) {
        const std::string_view line = take_line(lines);
        if (contains_key(lines, front(line, line.find('=') + 1), std::strncmp))
            continue;
        out.put("Set-Cookie: ");
        out.put(line);
    }
}

/// The status is the first line: some web servers read it only there.
void put_header(StandardOutput &out, const corvel_answer &answer) {
    out.put("Status: ");
    out.put(StatusDigits(answer.status).text());
    out.put(" ");
    out.put(status_name(answer.status));
    out.put("\r\n");
    put_fields(out, answer.fields.bytes());
    put_cookies(out, answer.cookies.bytes());
    if (has_content(answer.status)) {
        char length[24];
        std::snprintf(length, sizeof length, "%zu", answer.body.size());
        out.put("Content-Length: ");
        out.put(length);
        out.put("\r\n");
    }
    out.put("\r\n");
}

bool send(const corvel_answer &answer) {
    StandardOutput out;
    put_header(out, answer);
    if (has_content(answer.status) && !is_method(answer, "HEAD"))
        out.put(answer.body.bytes());
    return out.finish();
}

bool send_without_memory() {
    StandardOutput out;
    out.put(answer_without_memory);
    out.finish();
    return false;
}

corvel_site with_defaults(const corvel_site *site) {
    corvel_site result = site != nullptr ? *site : corvel_site{};
    if (result.templates == nullptr)
        result.templates = ".";
    if (result.content_security_policy == nullptr)
        result.content_security_policy = default_policy;
    return result;
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
    auto *const answer = new (memory) corvel_answer(request, with_defaults(site));
    if (!is_field_value(answer->site.content_security_policy)) {
        misuse(answer, "The content security policy contains a control character.");
        answer->site.content_security_policy = default_policy;
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
    if (text_of(type).empty() || !is_field_value(type)) {
        misuse(answer, "The content type of the answer is invalid.");
        return;
    }
    answer->has_type = true;
    set_field(*answer, "Content-Type", type);
}

void corvel_answer_header(corvel_answer *answer, const char *name, const char *value) {
    if (answer == nullptr)
        return;
    if (!is_token(text_of(name)) || is_reserved(text_or_empty(name)) ||
        !is_field_value(text_of(value)))
        misuse(answer, "The name or value of a header field is invalid.");
    else
        set_field(*answer, name, text_of(value));
}

void corvel_answer_cookie(corvel_answer *answer, const char *name, const char *value,
                          long max_age) {
    if (answer == nullptr)
        return;
    if (!is_token(text_of(name)) || !is_cookie_value(text_of(value))) {
        misuse(answer, "The name or value of a cookie is invalid.");
        return;
    }
    char attributes[96];
    const char *const secure = corvel_is_secure(answer->request) ? "; Secure" : "";
    int length = std::snprintf(attributes, sizeof attributes,
                               "; Path=/; HttpOnly; SameSite=Strict%s", secure);
    if (max_age >= 0 || value == nullptr)
        length += std::snprintf(attributes + length, sizeof attributes - size_from(length),
                                "; Max-Age=%ld", value != nullptr ? max_age : 0);
    answer->cookies.append(name);
    answer->cookies.append('=');
    answer->cookies.append(text_of(value));
    answer->cookies.append({attributes, size_from(length)});
    answer->cookies.append("\r\n");
}

void corvel_answer_write(corvel_answer *answer, const void *bytes, size_t size) {
    Buffer *const body = body_of(answer);
    if (body != nullptr && bytes != nullptr)
        body->append({static_cast<const char *>(bytes), size});
}

void corvel_answer_html(corvel_answer *answer, const char *text) {
    Buffer *const body = body_of(answer);
    if (body != nullptr)
        append_html(*body, text_of(text));
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
    const std::string_view text = text_of(path, CORVEL_LOCAL_PATH_MAX + 1);
    return text.starts_with('/') && !text.starts_with("//") &&
           text.size() <= CORVEL_LOCAL_PATH_MAX && consists_of(text, "/-._~?&=%+,:@#");
}

} // extern "C"
