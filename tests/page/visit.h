/* SPDX-License-Identifier: MIT */
/**
 * A request with cookies and an address, and its answer, of which only the cookies count.
 *
 *     Visit visit({.cookies = "session=..."});
 *     corvel_session_start(visit.request, visit.answer, &rules, "admin");
 *     EXPECT_THAT(visit.cookie(), "session=...; Path=/");
 */
#ifndef CORVEL_TESTS_PAGE_VISIT_H
#define CORVEL_TESTS_PAGE_VISIT_H

#include <corvel_page.h>

#include "tests/support/environment.h"
#include "tests/support/output_capture.h"

#include <string>

namespace corvel_test {

/** What the web server passes to the program. */
struct Client {
    std::string cookies;
    std::string address = "192.168.1.2";
    bool uses_tls = false;
};

class Visit {
  public:
    explicit Visit(const Client &client)
        : cookies_("HTTP_COOKIE", client.cookies), address_("REMOTE_ADDR", client.address),
          https_("HTTPS", client.uses_tls ? "on" : "off"), method_("REQUEST_METHOD", "GET"),
          request(corvel_request_begin()), answer(corvel_answer_new(request, nullptr)) {}
    Visit() : Visit({.cookies = ""}) {}
    Visit(const Visit &) = delete;
    Visit &operator=(const Visit &) = delete;
    ~Visit() {
        corvel_answer_free(answer);
        corvel_request_free(request);
    }

    /** Sends the answer. @return the value of its Set-Cookie field; empty if there is none. */
    [[nodiscard]] std::string cookie() const {
        const std::string header = capture_stdout([this] { corvel_answer_send(answer); });
        const std::string name = "Set-Cookie: ";
        const std::size_t at = header.find(name);
        if (at == std::string::npos)
            return "";
        const std::size_t start = at + name.size();
        return header.substr(start, header.find('\r', start) - start);
    }

  private:
    EnvironmentVariable cookies_;
    EnvironmentVariable address_;
    EnvironmentVariable https_;
    EnvironmentVariable method_;

  public:
    corvel_request *const request;
    corvel_answer *const answer;
};

} // namespace corvel_test

#endif
