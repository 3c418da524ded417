/* SPDX-License-Identifier: MIT */
/** Answers of the page kit, as sent on standard output and as read by independent parsers. */
#ifndef CORVEL_TESTS_SENT_ANSWER_H
#define CORVEL_TESTS_SENT_ANSWER_H

#include <corvel_page.h>

#include <cstdio>
#include <functional>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/environment.h"
#include "tests/support/output_capture.h"
#include "tests/support/temporary_directory.h"

namespace corvel_test {

/** An answer as bytes, divided at the empty line. */
struct SentAnswer {
    std::string head; /**< With the line ending of its last field. */
    std::string body;

    explicit SentAnswer(const std::string &bytes) {
        const std::size_t end = bytes.find("\r\n\r\n");
        if (end == std::string::npos)
            throw std::runtime_error("no header: " + bytes);
        head = bytes.substr(0, end + 2);
        body = bytes.substr(end + 4);
    }

    [[nodiscard]] std::string status() const { return values("Status").at(0); }

    /** The values of a field, in order. */
    [[nodiscard]] std::vector<std::string> values(const std::string &name) const {
        std::vector<std::string> found;
        const std::string key = name + ": ";
        for (std::size_t line = 0; line < head.size();) {
            const std::size_t end = head.find("\r\n", line);
            if (head.compare(line, key.size(), key) == 0)
                found.push_back(head.substr(line + key.size(), end - line - key.size()));
            line = end + 2;
        }
        return found;
    }
};

/** An answer and its request, of a method. */
class PageAnswer {
  public:
    explicit PageAnswer(const corvel_site *site = nullptr, const std::string &method = "GET")
        : method_("REQUEST_METHOD", method), request_(corvel_request_begin()),
          answer_(corvel_answer_new(request_, site)) {}
    ~PageAnswer() {
        corvel_answer_free(answer_);
        corvel_request_free(request_);
    }
    PageAnswer(const PageAnswer &) = delete;
    PageAnswer &operator=(const PageAnswer &) = delete;

    [[nodiscard]] corvel_answer *get() const { return answer_; }

    /** Sends the answer, which must succeed. */
    [[nodiscard]] SentAnswer send() const {
        bool sent = false;
        const std::string bytes = capture_stdout([&] { sent = corvel_answer_send(answer_); });
        EXPECT_TRUE(sent);
        return SentAnswer(bytes);
    }

  private:
    EnvironmentVariable method_;
    corvel_request *request_;
    corvel_answer *answer_;
};

/** What a page with the default site sends. */
inline SentAnswer answer_of(const std::function<void(corvel_answer *)> &page,
                            const std::string &method = "GET") {
    const PageAnswer answer(nullptr, method);
    page(answer.get());
    return answer.send();
}

/** The output of tests/page/validator.py, run by the system's Python, which has the packages. */
inline std::string validated(const std::string &arguments) {
    const std::string script = CORVEL_SOURCE_DIR "/tests/page/validator.py";
    std::FILE *const peer =
        popen(("PATH=/usr/bin:$PATH python3 '" + script + "' " + arguments + " 2>&1").c_str(), "r");
    if (peer == nullptr)
        throw std::runtime_error("cannot start python3");
    std::string output;
    char byte = 0;
    while (std::fread(&byte, 1, 1, peer) == 1)
        output += byte;
    pclose(peer);
    return output;
}

/** The value of a JSON text in ASCII without spaces, as a JSON parser reads it. */
inline std::string parsed_json(std::string_view text) {
    const TemporaryDirectory directory;
    directory.write("text.json", text);
    std::string value = validated("json '" + directory.path("text.json") + "'");
    if (value.ends_with('\n'))
        value.pop_back();
    return value;
}

/** Documents as an HTML5 parser reads them: for each [[error...], [[tag, {attribute...}, text]...]]
 * as JSON in ASCII. */
inline std::vector<std::string> parsed_html(const std::vector<std::string> &documents) {
    const TemporaryDirectory directory;
    std::string arguments = "html";
    for (std::size_t i = 0; i < documents.size(); ++i) {
        directory.write(std::to_string(i), documents[i]);
        arguments += " '" + directory.path(std::to_string(i)) + "'";
    }
    std::vector<std::string> lines;
    const std::string output = validated(arguments);
    for (std::size_t start = 0; start < output.size();) {
        const std::size_t end = output.find('\n', start);
        lines.push_back(output.substr(start, end - start));
        start = end == std::string::npos ? output.size() : end + 1;
    }
    return lines;
}

} // namespace corvel_test

#endif
