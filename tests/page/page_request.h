/* SPDX-License-Identifier: MIT */
/**
 * A request as a page of the kit sees it: the environment, standard input and the handle.
 *
 *     PageRequest request(post("name=value"));
 *     ASSERT_EQ(request.read(), CORVEL_HTTP_OK);
 *     EXPECT_STREQ(corvel_field(request, "name"), "value");
 */
#ifndef CORVEL_TESTS_PAGE_REQUEST_H
#define CORVEL_TESTS_PAGE_REQUEST_H

#include <corvel_page.h>

#include "tests/support/environment.h"

#include <algorithm>
#include <deque>
#include <gtest/gtest.h>
#include <map>
#include <optional>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace corvel_test {

constexpr const char *form_type = "application/x-www-form-urlencoded";

/** A corvel_request_rules whose members can be initialized by name without all the others. */
struct Rules {
    unsigned methods = 0;
    unsigned types = 0;
    std::size_t body_max = 0;
    std::size_t pairs_max = 0;
    std::size_t memory_max = 0;
    unsigned body_seconds = 0;
    bool accept_other_sites = false;
    const char *const *hosts = nullptr;

    [[nodiscard]] corvel_request_rules value() const {
        return {methods,    types,        body_max,           pairs_max,
                memory_max, body_seconds, accept_other_sites, hosts};
    }
};

/** What the web server passes to a CGI program. */
struct CgiRequest {
    /** Variables by name; without a value, a variable is not set. */
    std::map<std::string, std::optional<std::string>> variables;
    std::string input;
    StandardInput::Kind kind = StandardInput::Kind::file;

    [[nodiscard]] CgiRequest with(const std::string &name,
                                  const std::optional<std::string> &value) const {
        CgiRequest changed = *this;
        changed.variables[name] = value;
        return changed;
    }
    [[nodiscard]] CgiRequest through_pipe() const {
        CgiRequest changed = *this;
        changed.kind = StandardInput::Kind::pipe;
        return changed;
    }
};

inline CgiRequest get(const std::string &query = "") {
    return {{{"REQUEST_METHOD", "GET"}, {"QUERY_STRING", query}}, ""};
}

inline CgiRequest post(const std::string &body, const std::string &type = form_type) {
    return {{{"REQUEST_METHOD", "POST"},
             {"CONTENT_TYPE", type},
             {"CONTENT_LENGTH", std::to_string(body.size())}},
            body};
}

/** A POST whose length the web server does not know, because the client sends it in chunks. */
inline CgiRequest chunked_post(const std::string &body, const std::string &type = form_type) {
    return post(body, type)
        .with("CONTENT_LENGTH", std::nullopt)
        .with("HTTP_TRANSFER_ENCODING", "chunked");
}

/** Sets the environment and standard input, which are restored at the end. */
class CgiSurroundings {
  public:
    explicit CgiSurroundings(const CgiRequest &request) : input_(request.input, request.kind) {
        for (const char *name :
             {"REQUEST_METHOD", "CONTENT_TYPE", "CONTENT_LENGTH", "QUERY_STRING", "PATH_INFO",
              "REMOTE_ADDR", "HTTPS", "HTTP_HOST", "HTTP_ORIGIN", "HTTP_REFERER", "HTTP_COOKIE",
              "HTTP_SEC_FETCH_SITE", "HTTP_TRANSFER_ENCODING", "SERVER_SOFTWARE"})
            variables_.emplace_back(name, std::nullopt);
        for (const auto &[name, value] : request.variables)
            variables_.emplace_back(name, value);
    }
    CgiSurroundings(const CgiSurroundings &) = delete;
    CgiSurroundings &operator=(const CgiSurroundings &) = delete;
    ~CgiSurroundings() {
        while (!variables_.empty())
            variables_.pop_back();
    }

    /** Reads what the page has left of standard input. */
    [[nodiscard]] static std::string unread_input() {
        std::string unread(1U << 20U, '\0');
        std::size_t size = 0;
        for (ssize_t count = 1; count > 0;
             size += static_cast<std::size_t>(std::max<ssize_t>(count, 0)))
            count = ::read(STDIN_FILENO, unread.data() + size, unread.size() - size);
        unread.resize(size);
        return unread;
    }

  private:
    StandardInput input_;
    std::deque<EnvironmentVariable> variables_;
};

/** A request that has begun. */
class PageRequest : public CgiSurroundings {
  public:
    explicit PageRequest(const CgiRequest &request)
        : CgiSurroundings(request), request_(corvel_request_begin()) {}
    ~PageRequest() { corvel_request_free(request_); }
    PageRequest(const PageRequest &) = delete;
    PageRequest &operator=(const PageRequest &) = delete;

    // NOLINTNEXTLINE(google-explicit-constructor): passed to the functions under test
    operator corvel_request *() const { return request_; }

    /** Reads the request by rules that accept a GET and a POST, or by others. */
    [[nodiscard]] int read() const { return read(Rules{.methods = CORVEL_GET | CORVEL_POST}); }
    [[nodiscard]] int read(const Rules &rules) const {
        const corvel_request_rules value = rules.value();
        return corvel_request_read(request_, &value);
    }
    [[nodiscard]] std::string complaint() const { return corvel_request_complaint(request_); }

  private:
    corvel_request *request_;
};

using FieldPairs = std::vector<std::pair<std::string, std::string>>;

inline FieldPairs fields_of(const corvel_request *request) {
    FieldPairs pairs;
    const char *name = nullptr;
    const char *value = nullptr;
    for (std::size_t i = 0; corvel_field_pair(request, i, &name, &value); ++i)
        pairs.emplace_back(name, value);
    return pairs;
}

} // namespace corvel_test

#endif
