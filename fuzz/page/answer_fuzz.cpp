// SPDX-License-Identifier: MIT
// The header of an answer, its cookies, redirections and entity tags: no string adds a line, and an
// invalid string is answered by status 500.
//
// Input: strings with a NUL after each: the text of the body, a field's name and value, a cookie's
// name and value, a path, If-None-Match, and a reason.
#include "fuzz/page/page_answer.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include <syslog.h>

namespace {

using namespace corvel_fuzz;

bool has_control(std::string_view text) {
    return std::any_of(text.begin(), text.end(), [](char character) {
        return static_cast<unsigned char>(character) < 0x20 || character == 0x7F;
    });
}

std::size_t lines_of(std::string_view head) {
    return static_cast<std::size_t>(std::count(head.begin(), head.end(), '\n'));
}

corvel_answer *new_answer() { return corvel_answer_new(nullptr, nullptr); }

void check_field(const std::string &name, const std::string &value) {
    corvel_answer *const answer = new_answer();
    const std::size_t plain = 8;
    corvel_answer_header(answer, exact_copy(name).get(), exact_copy(value).get());
    const Sent sent = send(answer);
    corvel_answer_free(answer);
    check(lines_of(sent.head) <= plain + 1, "a field is one line");
    if (has_control(name) || has_control(value))
        check(sent.is_status("500"), "a control character is refused");
    if (sent.is_status("200") && !value.empty())
        check(sent.head.find("\r\n" + name + ": " + value + "\r\n") != std::string::npos,
              "an accepted field is sent as it is");
}

void check_cookie(const std::string &name, const std::string &value) {
    corvel_answer *const answer = new_answer();
    corvel_answer_cookie(answer, exact_copy(name).get(), exact_copy(value).get(), -1);
    const Sent sent = send(answer);
    corvel_answer_free(answer);
    if (value.find_first_of("; ,\"\\") != std::string::npos || has_control(name + value))
        check(sent.is_status("500"), "a separator in a cookie is refused");
    if (sent.is_status("200"))
        check(sent.head.find("\r\nSet-Cookie: " + name + "=" + value +
                             "; Path=/; HttpOnly; SameSite=Strict\r\n") != std::string::npos,
              "an accepted cookie is sent as it is");
    else
        check(sent.head.find("Set-Cookie") == std::string::npos, "no other cookie is sent");
}

void check_path(const std::string &path) {
    const bool is_local = corvel_is_local_path(exact_copy(path).get());
    if (is_local)
        check(path[0] == '/' && path.size() <= CORVEL_LOCAL_PATH_MAX && path[1] != '/' &&
                  path.find('\\') == std::string::npos && !has_control(path),
              "a local path stays on the site");
    corvel_answer *const answer = new_answer();
    corvel_answer_redirect(answer, exact_copy(path).get());
    const Sent sent = send(answer);
    corvel_answer_free(answer);
    check(sent.is_status(is_local ? "303" : "500"), "only a local path is redirected to");
    const bool has_location = sent.head.find("\r\nLocation: " + path + "\r\n") != std::string::npos;
    check(has_location == is_local, "the location is the path");
}

void check_url(const std::string &text) {
    const std::size_t size = CORVEL_URL_SIZE(text.size());
    const std::unique_ptr<char[]> url(new char[size]);
    const std::size_t length = corvel_url_encode(exact_copy(text).get(), url.get(), size);
    std::string decoded;
    for (const char *at = url.get(); *at != '\0'; ++at) {
        const bool is_code = *at == '%';
        decoded +=
            is_code ? static_cast<char>(std::stoi(std::string(at + 1, 2), nullptr, 16)) : *at;
        at += is_code ? 2 : 0;
    }
    check(length == std::strlen(url.get()), "the length of a value of a URL is returned");
    check_equal(decoded, text, "the value of a URL is that of the string");
    check(length == 0 || length > CORVEL_LOCAL_PATH_MAX - 1 ||
              corvel_is_local_path(("/" + std::string(url.get())).c_str()),
          "a value of a URL can be a part of a path");
    if (length != 0)
        check(corvel_url_encode(text.c_str(), url.get(), length) == 0, "a value is not truncated");
}

void check_html(const std::string &text, const std::string &reason) {
    corvel_answer *const answer = new_answer();
    corvel_answer_html(answer, exact_copy(text).get());
    check_equal(send(answer).body, html_of(text), "the text escaped for HTML");
    corvel_answer_free(answer);
    corvel_answer *const error = new_answer();
    corvel_answer_error(error, 404, exact_copy(reason).get());
    const Sent sent = send(error);
    check(sent.is_status("404") &&
              sent.body.find("<p>" + html_of(reason) + "</p>") != std::string::npos,
          "an error page has the reason, escaped");
    corvel_answer_free(error);
}

/** The tag of a body that was sent before. */
std::string tag_of(const Sent &sent) {
    const std::size_t start = sent.head.find("ETag: ") + 6;
    return sent.head.substr(start, sent.head.find("\r\n", start) - start);
}

void check_condition(const std::string &text, const std::string &tags) {
    const auto send_with = [&](const std::string &list) {
        const Environment environment({"REQUEST_METHOD=GET", "HTTP_IF_NONE_MATCH=" + list});
        corvel_request *const request = corvel_request_begin();
        corvel_answer *const answer = corvel_answer_new(request, nullptr);
        corvel_answer_html(answer, text.c_str());
        corvel_answer_conditional(answer);
        Sent sent = send(answer);
        corvel_answer_free(answer);
        corvel_request_free(request);
        return sent;
    };
    const std::string tag = tag_of(send_with(""));
    check(tag.size() == 66, "a conditional answer has a tag");
    const Sent sent = send_with(tags);
    check(sent.is_status("200") || sent.is_status("304"), "a condition has two results");
    if (sent.is_status("304"))
        check(sent.body.empty() &&
                  (tags.find('*') != std::string::npos || tags.find(tag) != std::string::npos),
              "a 304 needs a tag that matches");
    check(send_with("\"a\", W/\"b,\" ," + tag + tags).is_status("304"), "a list is searched");
}

} // namespace

/** The messages are not of interest, and writing them takes most of the time. */
extern "C" void syslog(int /*priority*/, const char * /*format*/, ...) {}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    Input input(data, size);
    const std::string text = input.text();
    const std::string name = input.text();
    const std::string value = input.text();
    check_field(name, value);
    check_cookie(input.text(), input.text());
    const std::string path = input.text();
    check_path(path);
    check_url(path);
    check_condition(text, input.text());
    check_html(text, input.text());
    return 0;
}
