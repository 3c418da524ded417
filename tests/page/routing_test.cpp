/* SPDX-License-Identifier: MIT */
/** Routes: which function answers a path and a method. */
#include "tests/page/page_request.h"
#include "tests/support/output_capture.h"
#include "tests/support/stand_in.h"

#include <span>

namespace corvel_test {
namespace {

/** The name of the function that was called, with the parts of the path. */
using Calls = std::string;

void note(const char *name, const corvel_request *request, void *context) {
    auto &calls = *static_cast<Calls *>(context);
    calls += name;
    for (std::size_t i = 0; corvel_path_part(request, i) != nullptr; ++i)
        calls += std::string(":") + corvel_path_part(request, i);
    const char *const field = corvel_field(request, "a");
    calls += field != nullptr ? std::string(" a=") + field : "";
}

template <char name> void answer(corvel_request *request, corvel_answer *, void *context) {
    const char text[] = {name, '\0'};
    note(text, request, context);
}

corvel_route route(const char *path, unsigned methods,
                   void (*function)(corvel_request *, corvel_answer *, void *)) {
    return {path, Rules{.methods = methods}.value(), function};
}

const corvel_route routes[] = {
    route("/", 0, answer<'a'>),
    route("/clients", 0, answer<'b'>),
    route("/clients/", CORVEL_GET, answer<'c'>),
    route("/clients/{}", CORVEL_GET | CORVEL_POST, answer<'d'>),
    route("/clients/{}", CORVEL_DELETE, answer<'e'>),
    route("/clients/new", CORVEL_GET, answer<'f'>),
    route("/clients/new", CORVEL_PUT, answer<'g'>),
    route("/{}/x/{}", CORVEL_GET, answer<'h'>),
    route("no-slash", CORVEL_GET, answer<'i'>),
    route(nullptr, CORVEL_GET, answer<'j'>),
    route("", CORVEL_GET, answer<'k'>),
    route("/null", CORVEL_GET, nullptr),
    route("/{}more", CORVEL_GET, answer<'l'>),
};

struct Outcome {
    Calls calls;
    std::string output; // of an answer that the kit made
};

Outcome dispatch(const CgiRequest &cgi, std::span<const corvel_route> table = routes) {
    const PageRequest request(cgi);
    corvel_answer *const made = corvel_answer_new(request, nullptr);
    Outcome outcome;
    corvel_dispatch(request, made, table.data(), table.size(), &outcome.calls);
    if (outcome.calls.empty())
        outcome.output = capture_stdout([&] { corvel_answer_send(made); });
    corvel_answer_free(made);
    EXPECT_EQ(CgiSurroundings::unread_input(), "");
    return outcome;
}

Calls called(const std::string &path) { return dispatch(get().with("PATH_INFO", path)).calls; }

bool contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

TEST(corvel_dispatch, CallsTheFunctionOfThePath) {
    EXPECT_EQ(called("/"), "a");
    EXPECT_EQ(called("/clients"), "b");
    EXPECT_EQ(called("/clients/"), "c");
}

TEST(corvel_dispatch, TakesNoPathAsASlash) {
    EXPECT_EQ(called(""), "a");
    EXPECT_EQ(dispatch(get()).calls, "a");
}

TEST(corvel_dispatch, MatchesOneComponentWithBraces) {
    EXPECT_EQ(called("/clients/7"), "d:7");
    EXPECT_EQ(called("/clients/a b%2F"), "d:a b%2F");
    EXPECT_EQ(called("/clients/{}"), "d:{}");
    EXPECT_EQ(called("/clients/..."), "d:...");
    EXPECT_EQ(called("/one/x/two"), "h:one:two");
    EXPECT_EQ(called("/{}more"), "l");
}

TEST(corvel_dispatch, MatchesNoEmptyComponentAndNoOtherDirectoryWithBraces) {
    for (const char *path :
         {"//x/two", "/one/x/", "/./x/two", "/../x/two", "/one/x/..", "one/x/two", "xx/x/two",
          "/one/x/.", "/clients/.", "/clients/..", "/clients//"}) {
        EXPECT_EQ(called(path), "") << path;
    }
}

TEST(corvel_dispatch, SelectsTheFirstRouteWithThePathAndTheMethod) {
    EXPECT_EQ(called("/clients/new"), "d:new");
    const CgiRequest request = get().with("PATH_INFO", "/clients/new");
    EXPECT_EQ(dispatch(request.with("REQUEST_METHOD", "POST")).calls, "d:new");
    EXPECT_EQ(dispatch(request.with("REQUEST_METHOD", "DELETE")).calls, "e:new");
    EXPECT_EQ(dispatch(request.with("REQUEST_METHOD", "PUT")).calls, "g");
    EXPECT_EQ(dispatch(request.with("REQUEST_METHOD", "HEAD")).calls, "d:new");
}

TEST(corvel_dispatch, ReadsTheRequestByTheRulesOfTheRoute) {
    EXPECT_EQ(dispatch(post("a=1").with("PATH_INFO", "/clients/7")).calls, "d:7 a=1");
    EXPECT_EQ(dispatch(get("a=2").with("PATH_INFO", "/clients/7")).calls, "d:7 a=2");
    const Outcome refused = dispatch(post("a=1", "text/plain").with("PATH_INFO", "/clients/7"));
    EXPECT_EQ(refused.calls, "");
    EXPECT_TRUE(contains(refused.output, "Status: 415")) << refused.output;
    EXPECT_TRUE(contains(refused.output, "This page does not accept data of this type."));
}

TEST(corvel_dispatch, AnswersNotFoundIfNoRouteHasThePath) {
    for (const char *path : {"/x", "/clients/7/8", "/clientss", "/client", "/null", "/no-slash",
                             "/one/x", "/one/y/two", "/xmore"}) {
        const Outcome outcome = dispatch(post("a=1").with("PATH_INFO", path));
        EXPECT_EQ(outcome.calls, "") << path;
        EXPECT_TRUE(contains(outcome.output, "Status: 404")) << path;
        EXPECT_TRUE(contains(outcome.output, "There is no page at this address."));
    }
}

TEST(corvel_dispatch, AnswersWithTheMethodsOfThePath) {
    const std::pair<const char *, const char *> allowed[] = {
        {"/clients", "GET, HEAD"},
        {"/clients/7", "GET, HEAD, POST, DELETE"},
        {"/clients/new", "GET, HEAD, POST, PUT, DELETE"}};
    for (const auto &[path, methods] : allowed) {
        const Outcome outcome =
            dispatch(post("a=1").with("REQUEST_METHOD", "PATCH").with("PATH_INFO", path));
        EXPECT_EQ(outcome.calls, "");
        EXPECT_TRUE(contains(outcome.output, "Status: 405")) << path;
        EXPECT_TRUE(contains(outcome.output, std::string("Allow: ") + methods + "\r\n"))
            << outcome.output;
        EXPECT_TRUE(contains(outcome.output, "This page does not support the request"));
    }
}

TEST(corvel_dispatch, AnswersAPathWithControlCharacters) {
    EXPECT_TRUE(contains(dispatch(get().with("PATH_INFO", "/clients/\n")).output, "Status: 400"));
}

TEST(corvel_dispatch, AnswersNotFoundWithoutRoutes) {
    EXPECT_TRUE(contains(dispatch(get(), {}).output, "Status: 404"));
    const PageRequest request(get());
    corvel_dispatch(request, nullptr, nullptr, 3, nullptr);
}

TEST(corvel_dispatch, AnswersThatMemoryIsExhausted) {
    const unsigned long failures = for_each_allocation_failure([](AllocationTrial &trial) {
        const PageRequest request(get("a=1").with("PATH_INFO", "/clients/7"));
        corvel_answer *const made = corvel_answer_new(request, nullptr);
        Calls calls;
        trial.run([&] {
            corvel_dispatch(request, made, routes, std::size(routes), &calls);
            return 0;
        });
        if (trial.failed()) {
            const std::string output = capture_stdout([&] { corvel_answer_send(made); });
            EXPECT_TRUE(contains(output, "Status: 503")) << output;
        }
        EXPECT_EQ(calls, trial.failed() ? "" : "d:7 a=1");
        corvel_answer_free(made);
    });
    EXPECT_GE(failures, 4U); // two for the part of the path, two for the query
}

TEST(corvel_dispatch, CallsNoFunctionForAnotherMethodThatWasReadBefore) {
    const PageRequest request(post("a=1").with("PATH_INFO", "/clients"));
    corvel_answer *const made = corvel_answer_new(request, nullptr);
    Calls calls;
    EXPECT_EQ(request.read(), CORVEL_HTTP_OK);
    corvel_dispatch(request, made, routes, std::size(routes), &calls);
    EXPECT_EQ(calls, "");
    EXPECT_TRUE(contains(capture_stdout([&] { corvel_answer_send(made); }), "Status: 405"));
    corvel_answer_free(made);
}

TEST(corvel_dispatch, AnswersANullRequest) {
    const CgiSurroundings surroundings(post("a=1"));
    corvel_answer *const made = corvel_answer_new(nullptr, nullptr);
    corvel_dispatch(nullptr, made, routes, std::size(routes), nullptr);
    EXPECT_TRUE(contains(capture_stdout([&] { corvel_answer_send(made); }), "Status: 503"));
    corvel_answer_free(made);
    EXPECT_EQ(CgiSurroundings::unread_input(), "");
}

TEST(corvel_path_part, IsNullIfTheRouteHasFewer) {
    EXPECT_EQ(corvel_path_part(nullptr, 0), nullptr);
    EXPECT_EQ(corvel_path_part(PageRequest(get()), 0), nullptr);
    EXPECT_EQ(corvel_path_part(PageRequest(get()), SIZE_MAX), nullptr);
}

} // namespace
} // namespace corvel_test
