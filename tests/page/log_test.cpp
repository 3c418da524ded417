// SPDX-License-Identifier: MIT
// Messages to the system log, received from its socket.
#include <corvel_page.h>

#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include "support/descriptor.h"
#include "tests/support/private_root.h"

using namespace corvel_test;

namespace {

/** The receiver of the system log in a private root. */
class SystemLog {
  public:
    SystemLog() : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, "/dev/log");
        EXPECT_EQ(bind(socket_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0)
            << strerror(errno);
    }
    /** The next message as it was sent; empty if there is none. */
    std::string message() {
        char text[4096];
        const ssize_t size = recv(socket_.get(), text, sizeof text, 0);
        return {text, size < 0 ? 0 : static_cast<std::size_t>(size)};
    }

  private:
    corvel::Descriptor socket_;
};

/** The message that is logged for a string from a stranger, without its header. */
std::string logged(const std::string &text) {
    SystemLog log;
    corvel_log(CORVEL_LOG_NOTICE, "[%s]", text.c_str());
    std::string message = log.message();
    unlink("/dev/log");
    closelog();
    if (message.ends_with('\n')) // from some C libraries
        message.pop_back();
    const std::size_t start = message.find('[');
    return start == std::string::npos ? message : message.substr(start);
}

TEST(corvel_log, SendsTheLevelWithTheFacilityOfThePage) {
    in_private_root([] {
        SystemLog log;
        corvel_log(CORVEL_LOG_ERROR, "one %d", 1);
        corvel_log(CORVEL_LOG_DEBUG, "two");
        const std::string first = log.message();
        EXPECT_EQ(first.substr(0, 4), "<11>");
        EXPECT_NE(first.find(": one 1"), std::string::npos) << first;
        EXPECT_EQ(log.message().substr(0, 4), "<15>");
    });
}

TEST(corvel_log, EscapesControlCharactersAndMalformedUtf8) {
    in_private_root([] {
        EXPECT_EQ(logged("a\nb\r\x1B[0m\x7F"), "[a\\x0ab\\x0d\\x1b[0m\\x7f]");
        EXPECT_EQ(logged("caf\xC3\xA9"), "[caf\xC3\xA9]");
        EXPECT_EQ(logged("\xC2\x85|\xFF|\xC3"), "[\\xc2\\x85|\\xff|\\xc3]");
    });
}

TEST(corvel_log, TruncatesALongMessageAfterAWholeCharacter) {
    in_private_root([] {
        const std::string longest = logged(std::string(2000, 'x'));
        EXPECT_EQ(longest, "[" + std::string(894, 'x'));
        const std::string escaped = logged(std::string(2000, '\n'));
        EXPECT_EQ(escaped.size(), 893U);
        EXPECT_EQ(escaped.substr(escaped.size() - 4), "\\x0a");
    });
}

TEST(corvel_log, LosesAMessageSilentlyIfNobodyReceivesIt) {
    in_private_root([] { corvel_log(CORVEL_LOG_ERROR, "nobody"); });
}

} // namespace
