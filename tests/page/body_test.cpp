/* SPDX-License-Identifier: MIT */
/** How long corvel_request_read() waits for a body, and what it does if reading fails. */
#include "tests/page/page_request.h"
#include "tests/support/child_process.h"
#include "tests/support/next_definition.h"
#include "tests/support/stand_in.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <fcntl.h>
#include <functional>
#include <poll.h>

/** The time passes only while poll() waits. Then this function is called, with the milliseconds
 * that poll() may wait; it returns those that pass. */
static std::function<int(int)> while_waiting;
static std::int64_t passed = 0; // milliseconds
static int polls_that_fail = 0;
static int error_of_poll = 0;

extern "C" int poll(pollfd *files, nfds_t count, int timeout) {
    static auto *const next = corvel_test::next_definition<int(pollfd *, nfds_t, int)>("poll");
    if (polls_that_fail != 0) {
        --polls_that_fail;
        errno = error_of_poll;
        return -1;
    }
    const int ready = next(files, count, while_waiting ? 0 : timeout);
    if (!while_waiting || ready != 0)
        return ready;
    passed += while_waiting(timeout);
    return next(files, count, 0);
}

extern "C" int clock_gettime(clockid_t clock, timespec *time) C_LIBRARY_NOEXCEPT {
    static auto *const next =
        corvel_test::next_definition<int(clockid_t, timespec *)>("clock_gettime");
    if (!while_waiting)
        return next(clock, time);
    time->tv_sec = static_cast<time_t>(1000 + passed / 1000);
    time->tv_nsec = static_cast<long>(passed % 1000 * 1'000'000);
    return 0;
}

namespace corvel_test {
namespace {

/** Standard input is a pipe into which bytes come as time passes. */
class SlowClient {
  public:
    SlowClient() {
        std::array<int, 2> ends{};
        if (pipe(ends.data()) != 0 || dup2(ends[0], STDIN_FILENO) != STDIN_FILENO)
            std::abort();
        close(ends[0]);
        pipe_ = ends[1];
        passed = 0;
    }
    SlowClient(const SlowClient &) = delete;
    SlowClient &operator=(const SlowClient &) = delete;
    ~SlowClient() {
        while_waiting = nullptr;
        stop();
    }

    void send(const std::string &bytes) const {
        ASSERT_EQ(write(pipe_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    void stop() {
        if (pipe_ >= 0)
            close(pipe_);
        pipe_ = -1;
    }
    /** Lets a number of milliseconds pass before each of the pieces that a function sends. */
    void send_every(int milliseconds, std::function<void()> send) {
        left_ = milliseconds;
        while_waiting = [this, milliseconds, send = std::move(send)](int timeout) {
            const int step = std::min(left_, timeout);
            left_ -= step;
            if (left_ == 0) {
                left_ = milliseconds;
                send();
            }
            return step;
        };
    }
    /** Sends no more. */
    static void stay_silent() {
        while_waiting = [](int timeout) {
            return timeout;
        };
    }

  private:
    int pipe_ = -1;
    int left_ = 0;
};

const Rules post_rules = {.methods = CORVEL_POST};

CgiRequest announced(const std::string &length) { return post("").with("CONTENT_LENGTH", length); }

void expect_timeout(const Rules &rules, std::int64_t milliseconds) {
    const PageRequest request(announced("10"));
    SlowClient client;
    client.send("a=1");
    SlowClient::stay_silent();
    EXPECT_EQ(request.read(rules), CORVEL_HTTP_REQUEST_TIMEOUT);
    EXPECT_EQ(request.complaint(), "The request did not arrive in time.");
    EXPECT_EQ(corvel_field(request, "a"), nullptr);
    EXPECT_GE(passed, milliseconds);
    EXPECT_LE(passed, milliseconds + 1);
}

TEST(BodyTime, IsThirtySecondsByDefault) { expect_timeout(post_rules, 30'000); }

TEST(BodyTime, IsThatOfTheRules) {
    expect_timeout({.methods = CORVEL_POST, .body_seconds = 1}, 1000);
    expect_timeout({.methods = CORVEL_POST, .body_seconds = 7}, 7000);
    expect_timeout({.methods = CORVEL_POST, .body_seconds = 86'400}, 86'400'000);
}

TEST(BodyTime, IsADayAtMost) {
    expect_timeout({.methods = CORVEL_POST, .body_seconds = 86'401}, 86'400'000);
    expect_timeout({.methods = CORVEL_POST, .body_seconds = UINT32_MAX}, 86'400'000);
}

TEST(BodyTime, IsTheSumOfAllPauses) {
    const PageRequest request(announced("1000"));
    SlowClient client;
    client.send_every(900, [&] { client.send("x"); });
    EXPECT_EQ(request.read(), CORVEL_HTTP_REQUEST_TIMEOUT);
    EXPECT_GE(passed, 30'000);
    EXPECT_LE(passed, 30'900);
}

TEST(BodyTime, IsEnoughForASlowForm) {
    const PageRequest request(announced("30"));
    SlowClient client;
    client.send_every(999, [&] { client.send("x"); });
    EXPECT_EQ(request.read(), CORVEL_HTTP_OK);
    EXPECT_EQ(passed, 29'970);
}

TEST(BodyTime, BeginsAgainForEach64KiB) {
    const Rules rules = {.methods = CORVEL_POST, .types = CORVEL_ANY_TYPE, .body_max = 1'000'000};
    for (const CgiRequest &cgi : {announced("655360"), chunked_post("")}) {
        const PageRequest request(cgi);
        SlowClient client;
        int blocks = 0;
        client.send_every(29'000, [&] {
            if (blocks++ == 10)
                client.stop();
            else
                client.send(std::string(65536, 'x'));
        });
        EXPECT_EQ(request.read(rules), CORVEL_HTTP_OK);
        std::size_t size = 0;
        corvel_request_body(request, &size);
        EXPECT_EQ(size, 655360U);
        EXPECT_GE(passed, 290'000);
    }
}

TEST(BodyTime, CountsBlocksFromTheStartOfTheBody) {
    const Rules rules = {.methods = CORVEL_POST, .types = CORVEL_ANY_TYPE, .body_max = 1'000'000};
    const PageRequest request(announced("196608"));
    SlowClient client;
    // The third piece completes the second block, although it is shorter than a block.
    const std::array<int, 4> times = {10'000, 10'000, 20'000, 20'000};
    std::size_t piece = 0;
    int left = times[0];
    while_waiting = [&](int timeout) {
        const int step = std::min(left, timeout);
        left -= step;
        if (left == 0) {
            client.send(std::string(49152, 'x'));
            left = ++piece < times.size() ? times.at(piece) : 1'000'000;
        }
        return step;
    };
    EXPECT_EQ(request.read(rules), CORVEL_HTTP_OK);
    EXPECT_EQ(passed, 60'000);
}

TEST(BodyTime, DoesNotBeginAgainForLess) {
    const Rules rules = {.methods = CORVEL_POST, .types = CORVEL_ANY_TYPE, .body_max = 1'000'000};
    const PageRequest request(announced("655360"));
    SlowClient client;
    client.send_every(15'500, [&] { client.send(std::string(32767, 'x')); });
    EXPECT_EQ(request.read(rules), CORVEL_HTTP_REQUEST_TIMEOUT);
    EXPECT_GE(passed, 30'000);
    EXPECT_LE(passed, 30'001);
}

TEST(BodyTime, OfABodyThatIsDiscardedIsTenTimesAsLongAtMost) {
    for (const CgiRequest &cgi : {announced("1000000000000"), announced("-1"), chunked_post("")}) {
        const PageRequest request(cgi.with("CONTENT_TYPE", "text/plain"));
        SlowClient client;
        client.send_every(20'000, [&] { client.send(std::string(65536, 'x')); });
        EXPECT_NE(request.read(), CORVEL_HTTP_OK);
        EXPECT_GE(passed, 270'000);
        EXPECT_LE(passed, 300'000);
    }
}

TEST(BodyTime, OfADiscardedBodyEndsWithALongPause) {
    const PageRequest request(announced("10").with("CONTENT_TYPE", "text/plain"));
    const SlowClient client;
    SlowClient::stay_silent();
    EXPECT_EQ(request.read(), CORVEL_HTTP_UNSUPPORTED_MEDIA_TYPE);
    EXPECT_EQ(passed, 30'000);
}

TEST(BodyTime, OfAGetIsBoundedToo) {
    const PageRequest request(announced("10").with("REQUEST_METHOD", "GET"));
    const SlowClient client;
    SlowClient::stay_silent();
    EXPECT_EQ(request.read(Rules{}), CORVEL_HTTP_OK);
    EXPECT_EQ(passed, 30'000);
}

TEST(BodyTime, IsNotSpentWithoutABody) {
    for (const CgiRequest &cgi : {get(), post("")}) {
        const PageRequest request(cgi);
        const SlowClient client;
        SlowClient::stay_silent();
        EXPECT_EQ(request.read(), CORVEL_HTTP_OK);
        EXPECT_EQ(passed, 0);
    }
}

// Failures

TEST(BodyFailure, OfPollByASignalIsNone) {
    for (const int error : {EINTR, EAGAIN}) {
        const PageRequest request(post("a=1"));
        polls_that_fail = 100;
        error_of_poll = error;
        EXPECT_EQ(request.read(), CORVEL_HTTP_OK);
        EXPECT_STREQ(corvel_field(request, "a"), "1");
        EXPECT_EQ(polls_that_fail, 0);
    }
}

TEST(BodyFailure, OfPollRefusesTheRequest) {
    const PageRequest request(post("a=1"));
    polls_that_fail = 1;
    error_of_poll = ENOMEM;
    EXPECT_EQ(request.read(), CORVEL_HTTP_BAD_REQUEST);
    EXPECT_EQ(request.complaint(), "The request is incomplete.");
}

TEST(BodyFailure, OfReadBySignalOrWithoutBlockingIsNone) {
    for (const int error : {EINTR, EAGAIN}) {
        const PageRequest request(post("a=1"));
        const FailCall read(call_read, 1, error);
        EXPECT_EQ(request.read(), CORVEL_HTTP_OK);
        EXPECT_STREQ(corvel_field(request, "a"), "1");
        EXPECT_EQ(read.failures(), 1U);
    }
}

TEST(BodyFailure, OfReadRefusesTheRequest) {
    for (const CgiRequest &cgi : {post("a=1"), chunked_post("a=1")}) {
        const PageRequest request(cgi);
        const FailCall read(call_read, 1, EIO, FailCall::from_then_on);
        EXPECT_EQ(request.read(), CORVEL_HTTP_BAD_REQUEST);
        EXPECT_EQ(request.complaint(), "The request is incomplete.");
    }
}

TEST(BodyFailure, OfAClosedInputRefusesTheRequest) {
    expect_in_child([] {
        const PageRequest request(post("a=1"));
        close(STDIN_FILENO);
        EXPECT_EQ(request.read(), CORVEL_HTTP_BAD_REQUEST);
        open("/dev/null", O_RDONLY);
    });
}

TEST(BodyFailure, OfAnInputThatDoesNotBlockIsNone) {
    const PageRequest request(announced("3"));
    SlowClient client;
    ASSERT_EQ(fcntl(STDIN_FILENO, F_SETFL, O_NONBLOCK), 0);
    client.send_every(500, [&] { client.send("x"); });
    EXPECT_EQ(request.read(), CORVEL_HTTP_OK);
    EXPECT_STREQ(corvel_field(request, "xxx"), "");
}

} // namespace
} // namespace corvel_test
