/* SPDX-License-Identifier: MIT */
#include <corvel.h>

#include "tests/support/child_process.h"
#include "tests/support/descriptors.h"
#include "tests/support/guarded_memory.h"
#include "tests/support/named_process.h"
#include "tests/support/output_capture.h"
#include "tests/support/private_root.h"
#include "tests/support/stand_in.h"
#include "tests/support/temporary_directory.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <type_traits>
#include <unistd.h>
#include <vector>

namespace corvel_test {
namespace {

using namespace std::string_literals;

/** Expects that a child prints exactly this message and exits with this status. */
void expect_death(const std::string &message, int exit_status, const std::function<void()> &body) {
    const ChildResult child = run_in_child([&body] {
        body();
        return 99;
    });
    EXPECT_EQ(child.err, message);
    EXPECT_EQ(child.out, "");
    EXPECT_EQ(child.exit_status, exit_status);
}

// --- bb_verror_msg ---

__attribute__((format(printf, 1, 2))) void print_error(const char *format, ...) {
    std::va_list values;
    va_start(values, format);
    bb_verror_msg(format, values);
    va_end(values);
}

TEST(bb_verror_msg, PrintsTheMessageAfterTheProgramsNameWithoutANewline) {
    EXPECT_EQ(capture_stderr([] { print_error("no %s in %d %c%%", "lease", -7, 'x'); }),
              "unknown app: no lease in -7 x%");
    EXPECT_EQ(capture_stderr([] { print_error("%s", ""); }), "unknown app: ");
    EXPECT_EQ(capture_stdout([] { print_error("%s", "text"); }), "");
}

TEST(bb_verror_msg, PrintsMessagesOfAnyLength) {
    const std::string text(100000, 'x');
    EXPECT_EQ(capture_stderr([&] { print_error("%s!", text.c_str()); }),
              "unknown app: " + text + "!");
}

TEST(bb_verror_msg, FlushesStandardOutputFirst) {
    const ChildResult child = run_in_child([] {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        std::printf("page");
        print_error("%s", "message");
        std::printf(" never flushed");
        _exit(0);
    });
    EXPECT_EQ(child.err, "pageunknown app: message");
}

// The compiler would reject these formats.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"

TEST(bb_verror_msg, KeepsErrnoForTheMessageIfFlushingFails) {
    const ChildResult child = run_in_child([] {
        std::printf("page");
        close(STDOUT_FILENO);
        errno = ENOENT;
        print_error("open: %m");
    });
    EXPECT_EQ(child.err, "unknown app: open: No such file or directory");
}

TEST(bb_verror_msg, TreatsANullPointerAsTheEmptyMessage) {
    EXPECT_EQ(capture_stderr([] { print_error(nullptr); }), "unknown app: ");
}

#pragma GCC diagnostic pop

// --- bb_error_msg_and_die ---

TEST(bb_error_msg_and_die, PrintsOneLineAfterTheBufferedOutput) {
    const ChildResult child = run_in_child([] {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        std::printf("half a page");
        bb_error_msg_and_die("no %s, %ld", "lease", LONG_MIN);
    });
    EXPECT_EQ(child.err, "half a pageunknown app: no lease, " + std::to_string(LONG_MIN) + "\n");
    EXPECT_EQ(child.exit_status, 1);
}

TEST(bb_error_msg_and_die, ExitsWithTheStatusThatTheProgramSet) {
    EXPECT_EQ(bb_default_error_retval, 1);
    for (const int status : {0, 1, 42, 255}) {
        expect_death("unknown app: gone\n", status, [status] {
            bb_default_error_retval = status;
            bb_error_msg_and_die("gone");
        });
    }
}

TEST(bb_error_msg_and_die, RunsTheExitHandlers) {
    const ChildResult child = run_in_child([] {
        std::atexit([] { std::fputs("cleared up\n", stderr); });
        bb_error_msg_and_die("gone");
    });
    EXPECT_EQ(child.err, "unknown app: gone\ncleared up\n");
}

// --- xmalloc ---

TEST(xmalloc, AllocatesABlockThatFreeTakes) {
    const std::size_t sizes[] = {1, 16, 100000};
    for (const std::size_t size : sizes) {
        auto *const block = static_cast<char *>(xmalloc(size));
        ASSERT_NE(block, nullptr);
        std::memset(block, 'x', size);
        std::free(block);
    }
}

TEST(xmalloc, DiesWithoutMemory) {
    EXPECT_STREQ(bb_msg_memory_exhausted, "memory exhausted");
    expect_death("unknown app: memory exhausted\n", 1, [] {
        const FailCall failing(call_malloc, 1, ENOMEM);
        xmalloc(1);
    });
}

TEST(xmalloc, DiesWithTheMessageAndTheStatusThatTheProgramSet) {
    expect_death("unknown app: 100% full %s\n", 3, [] {
        bb_msg_memory_exhausted = "100% full %s";
        bb_default_error_retval = 3;
        const FailCall failing(call_malloc, 1, ENOMEM);
        xmalloc(1);
    });
}

TEST(xmalloc, NeverDiesForNoBytes) {
    std::free(xmalloc(0));
    const FailCall failing(call_malloc, 1, ENOMEM);
    EXPECT_EQ(xmalloc(0), nullptr);
    EXPECT_EQ(failing.failures(), 1U);
}

// --- xrealloc ---

TEST(xrealloc, AllocatesGrowsAndShrinksABlockAndKeepsItsContent) {
    auto *block = static_cast<char *>(xrealloc(nullptr, 4));
    ASSERT_NE(block, nullptr);
    std::memcpy(block, "abc", 4);
    block = static_cast<char *>(xrealloc(block, 100000));
    EXPECT_STREQ(block, "abc");
    block = static_cast<char *>(xrealloc(block, 2));
    EXPECT_EQ(std::string(block, 2), "ab");
    std::free(block);
}

TEST(xrealloc, DiesWithoutMemory) {
    for (const bool has_block : {false, true}) {
        expect_death("unknown app: memory exhausted\n", 1, [has_block] {
            void *const block = has_block ? std::malloc(4) : nullptr;
            const FailCall failing(call_realloc, 1, ENOMEM);
            xrealloc(block, 8);
        });
    }
    expect_death("unknown app: none left\n", 5, [] {
        bb_msg_memory_exhausted = "none left";
        bb_default_error_retval = 5;
        const FailCall failing(call_realloc, 1, ENOMEM);
        xrealloc(nullptr, 8);
    });
}

TEST(xrealloc, NeverDiesForNoBytes) {
    std::free(xrealloc(nullptr, 0));
    void *const block = std::malloc(4);
    {
        const FailCall failing(call_realloc, 1, ENOMEM);
        EXPECT_EQ(xrealloc(block, 0), nullptr);
        EXPECT_EQ(failing.failures(), 1U);
    }
    std::free(block);
}

// --- safe_strncpy ---

/** Returns a buffer of exactly @p size bytes, filled with '#', after the copy. */
std::string copied(std::string_view source, std::size_t size) {
    const GuardedBlock buffer(std::string(size, '#'));
    const GuardedBlock text(source);
    EXPECT_EQ(safe_strncpy(buffer.start(), text.start(), size), buffer.start());
    return std::string(buffer.bytes());
}

TEST(safe_strncpy, TruncatesAStringToFit) {
    EXPECT_EQ(copied("abcdef\0"s, 4), "abc\0"s);
    EXPECT_EQ(copied("abcdef\0"s, 6), "abcde\0"s);
    EXPECT_EQ(copied("abcdef\0"s, 7), "abcdef\0"s);
    EXPECT_EQ(copied("abcdef\0"s, 2), "a\0"s);
    EXPECT_EQ(copied("abcdef\0"s, 1), "\0"s);
}

TEST(safe_strncpy, FillsTheRestWithZeros) {
    EXPECT_EQ(copied("abc\0"s, 10), "abc"s + std::string(7, '\0'));
    EXPECT_EQ(copied("\0"s, 5), std::string(5, '\0'));
    EXPECT_EQ(copied("a\0b\0"s, 5), "a"s + std::string(4, '\0'));
}

TEST(safe_strncpy, ReadsNoMoreOfTheStringThanItCopies) {
    expect_in_child([] {
        EXPECT_EQ(copied("abc", 4), "abc\0"s);
        EXPECT_EQ(copied("abcdef", 4), "abc\0"s);
        EXPECT_EQ(copied("", 1), "\0"s);
    });
}

TEST(safe_strncpy, WritesNothingIfTheSizeIsZero) {
    EXPECT_EQ(copied("abc\0"s, 0), "");
    EXPECT_EQ(safe_strncpy(nullptr, "abc", 0), nullptr);
}

// --- my_getug ---

/** Returns a buffer of exactly @p size bytes, filled with '#', after my_getug(). */
std::string written(const char *user, long id, int size) {
    const GuardedBlock buffer(std::string(static_cast<std::size_t>(size), '#'));
    std::string copy = user != nullptr ? user : "";
    char *const result =
        my_getug(buffer.start(), user != nullptr ? copy.data() : nullptr, id, size, 'u');
    EXPECT_EQ(result, user != nullptr ? buffer.start() : nullptr);
    return std::string(buffer.bytes());
}

TEST(my_getug, WritesATruncatedNameFollowedByZeros) {
    EXPECT_EQ(written("admin", 7, 10), "admin\0\0\0\0\0"s);
    EXPECT_EQ(written("admin", 7, 6), "admin\0"s);
    EXPECT_EQ(written("admin", 7, 5), "admi\0"s);
    EXPECT_EQ(written("admin", 7, 1), "\0"s);
    EXPECT_EQ(written("", 7, 3), "\0\0\0"s);
}

TEST(my_getug, ReadsNoMoreOfANameThanItCopies) {
    expect_in_child([] {
        const GuardedBlock user("admin");
        char buffer[6] = "";
        EXPECT_EQ(my_getug(buffer, user.start(), 7, sizeof buffer, 'u'), buffer);
        EXPECT_STREQ(buffer, "admin");
    });
}

TEST(my_getug, WritesATruncatedNumberIfThereIsNoName) {
    EXPECT_EQ(written(nullptr, 12345, 6), "12345\0"s);
    EXPECT_EQ(written(nullptr, 12345, 4), "123\0"s);
    EXPECT_EQ(written(nullptr, 12345, 1), "\0"s);
    EXPECT_EQ(written(nullptr, -5, 3), "-5\0"s);
    EXPECT_STREQ(written(nullptr, LONG_MIN, 30).c_str(), std::to_string(LONG_MIN).c_str());
}

TEST(my_getug, DiesForANegativeSizeAndNoName) {
    for (const int size : {-1, INT_MIN}) {
        expect_death("unknown app: unknown uid 1000\n", 1,
                     [size] { my_getug(nullptr, nullptr, 1000, size, 'u'); });
        expect_death("unknown app: unknown gid -1\n", 4, [size] {
            bb_default_error_retval = 4;
            my_getug(nullptr, nullptr, -1, size, 'g');
        });
    }
    expect_death("unknown app: unknown %id " + std::to_string(LONG_MAX) + "\n", 1,
                 [] { my_getug(nullptr, nullptr, LONG_MAX, -1, '%'); });
}

TEST(my_getug, ReturnsTheNameAndWritesNothingInEveryOtherCase) {
    std::string user = "admin";
    char buffer[] = "####";
    for (const int size : {0, -1, INT_MIN})
        EXPECT_EQ(my_getug(buffer, user.data(), 7, size, 'u'), user.data());
    EXPECT_EQ(my_getug(buffer, nullptr, 7, 0, 'u'), nullptr);
    EXPECT_STREQ(buffer, "####");
}

// --- my_getpwuid ---

TEST(my_getpwuid, LooksUpTheUser) {
    in_private_root([] {
        write_file("/etc/passwd", "root:x:0:0::/:/bin/sh\nadmin:x:12344:7::/:/bin/sh\n");
        char buffer[16] = "###############";
        EXPECT_EQ(my_getpwuid(buffer, 12344, sizeof buffer), buffer);
        EXPECT_EQ(std::string(buffer, sizeof buffer), "admin" + std::string(11, '\0'));
        EXPECT_EQ(my_getpwuid(buffer, 0, 3), buffer);
        EXPECT_STREQ(buffer, "ro");
        EXPECT_STREQ(my_getpwuid(nullptr, 12344, 0), "admin");
        EXPECT_STREQ(my_getpwuid(nullptr, 12344, -1), "admin");
    });
}

TEST(my_getpwuid, WritesTheNumberOrDiesForAnUnknownUser) {
    in_private_root([] {
        write_file("/etc/passwd", "root:x:0:0::/:/bin/sh\n");
        char buffer[16] = "";
        EXPECT_EQ(my_getpwuid(buffer, 12345, 16), nullptr);
        EXPECT_STREQ(buffer, "12345");
        EXPECT_EQ(my_getpwuid(buffer, 1234567890, 16), nullptr);
        EXPECT_STREQ(buffer, "1234567890");
        EXPECT_EQ(my_getpwuid(buffer, -1, 16), nullptr);
        EXPECT_STREQ(buffer, "-1");
        EXPECT_EQ(my_getpwuid(buffer, 12345, 4), nullptr);
        EXPECT_STREQ(buffer, "123");
        EXPECT_EQ(my_getpwuid(buffer, 12345, 0), nullptr);
        EXPECT_STREQ(buffer, "123");
        expect_death("unknown app: unknown uid 12345\n", 1,
                     [] { my_getpwuid(nullptr, 12345, -1); });
    });
}

// --- full_read ---

static_assert(std::is_same_v<decltype(full_read(0, nullptr, 0)), ssize_t>);

/** The receiving end of a connection on which each read() returns one piece, then end of file. */
class Pieces {
  public:
    explicit Pieces(const std::vector<std::string> &pieces) {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
        for (const std::string &piece : pieces)
            EXPECT_EQ(write(ends[1], piece.data(), piece.size()),
                      static_cast<ssize_t>(piece.size()));
        close(ends[1]);
        end = ends[0];
    }
    Pieces(const Pieces &) = delete;
    Pieces &operator=(const Pieces &) = delete;
    ~Pieces() { close(end); }

    int end = -1;
};

bool is_open(int descriptor) { return fcntl(descriptor, F_GETFD) != -1; }

TEST(full_read, ReadsUntilAllBytesHaveArrived) {
    const Pieces pieces({"abc", "d", "efgh", "more"});
    char buffer[9] = "########";
    EXPECT_EQ(full_read(pieces.end, buffer, 8), 8);
    EXPECT_STREQ(buffer, "abcdefgh");
    EXPECT_EQ(full_read(pieces.end, buffer, 8), 4);
    EXPECT_STREQ(buffer, "moreefgh");
    EXPECT_EQ(full_read(pieces.end, buffer, 8), 0);
}

TEST(full_read, ReturnsTheBytesBeforeTheEnd) {
    OwnPipe pipe;
    ASSERT_EQ(write(pipe.writing, "abc", 3), 3);
    OwnPipe::close_end(pipe.writing);
    const GuardedBlock buffer("##########");
    EXPECT_EQ(full_read(pipe.reading, buffer.start(), 10), 3);
    EXPECT_EQ(buffer.bytes(), "abc#######");
}

TEST(full_read, ReadsNothingIfTheLengthIsZero) {
    const Pieces pieces({"abc"});
    const CountCalls reads(call_read);
    EXPECT_EQ(full_read(pieces.end, nullptr, 0), 0);
    EXPECT_EQ(full_read(-1, nullptr, 0), 0);
    EXPECT_EQ(reads.count(), 0U);
    char buffer[3];
    EXPECT_EQ(full_read(pieces.end, buffer, 3), 3);
}

TEST(full_read, ReturnsMinusOneForAnErrorBeforeTheFirstByte) {
    char buffer[4] = "###";
    EXPECT_EQ(full_read(-1, buffer, 3), -1);
    EXPECT_EQ(errno, EBADF);
    const TemporaryDirectory directory;
    const int descriptor = open(directory.path().c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(descriptor, 0);
    EXPECT_EQ(full_read(descriptor, buffer, 3), -1);
    EXPECT_EQ(errno, EISDIR);
    close(descriptor);
    EXPECT_STREQ(buffer, "###");
}

TEST(full_read, ReturnsTheBytesBeforeAnError) {
    for (const int error : {EIO, EINTR, EAGAIN}) {
        const Pieces pieces({"abc", "de", "f"});
        char buffer[8] = "#######";
        const FailCall third(call_read, 3, error);
        EXPECT_EQ(full_read(pieces.end, buffer, 7), 5);
        EXPECT_STREQ(buffer, "abcde##");
        EXPECT_EQ(third.failures(), 1U);
        EXPECT_EQ(full_read(pieces.end, buffer, 7), 1);
    }
}

TEST(full_read, DoesNotRetryAfterAnInterruption) {
    expect_in_child([] {
        struct sigaction action {};
        action.sa_handler = [](int) {
        };
        ASSERT_EQ(sigaction(SIGALRM, &action, nullptr), 0);
        // The signal is repeated, so that one is certain to arrive while the call waits.
        const itimerval often{{0, 1000}, {0, 1000}};
        const OwnPipe pipe;
        char buffer[4];
        const CountCalls reads(call_read);
        ASSERT_EQ(setitimer(ITIMER_REAL, &often, nullptr), 0);
        EXPECT_EQ(full_read(pipe.reading, buffer, sizeof buffer), -1);
        EXPECT_EQ(errno, EINTR);
        EXPECT_EQ(reads.count(), 1U);
    });
}

TEST(full_read, LeavesTheDescriptorOpen) {
    const Pieces pieces({"abc"});
    char buffer[8];
    EXPECT_EQ(full_read(pieces.end, buffer, sizeof buffer), 3);
    EXPECT_TRUE(is_open(pieces.end));
}

// --- read_close ---

TEST(read_close, ReadsAllAndClosesTheDescriptor) {
    Pieces pieces({"abc", "de"});
    const GuardedBlock buffer("######");
    EXPECT_EQ(read_close(pieces.end, buffer.start(), 6), 5);
    EXPECT_EQ(buffer.bytes(), "abcde#");
    EXPECT_FALSE(is_open(pieces.end));
    pieces.end = -1;
}

TEST(read_close, ClosesTheDescriptorRegardlessOfTheResult) {
    Pieces nothing({"abc"});
    EXPECT_EQ(read_close(nothing.end, nullptr, 0), 0);
    EXPECT_FALSE(is_open(nothing.end));
    nothing.end = -1;

    const TemporaryDirectory directory;
    const int failing = open(directory.path().c_str(), O_RDONLY | O_CLOEXEC);
    char buffer[4];
    EXPECT_EQ(read_close(failing, buffer, sizeof buffer), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_FALSE(is_open(failing));

    Pieces broken({"abc", "de"});
    {
        const FailCall second(call_read, 2);
        EXPECT_EQ(read_close(broken.end, buffer, sizeof buffer), 3);
    }
    EXPECT_FALSE(is_open(broken.end));
    broken.end = -1;
    EXPECT_EQ(read_close(-1, buffer, sizeof buffer), -1);
}

// --- open_read_close ---

TEST(open_read_close, ReadsAFileWithoutTerminatingIt) {
    const TemporaryDirectory directory;
    directory.write("file", "content\n");
    const std::vector<int> open_before = open_descriptors();
    const GuardedBlock larger("##########");
    EXPECT_EQ(open_read_close(directory.path("file").c_str(), larger.start(), 10), 8);
    EXPECT_EQ(larger.bytes(), "content\n##");
    const GuardedBlock smaller("###");
    EXPECT_EQ(open_read_close(directory.path("file").c_str(), smaller.start(), 3), 3);
    EXPECT_EQ(smaller.bytes(), "con");
    EXPECT_EQ(open_descriptors(), open_before);
}

TEST(open_read_close, ReturnsMinusOneIfTheFileCannotBeOpenedOrRead) {
    const TemporaryDirectory directory;
    directory.write("closed", "content");
    const std::vector<int> open_before = open_descriptors();
    char buffer[4] = "###";
    EXPECT_EQ(open_read_close(directory.path("missing").c_str(), buffer, 3), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(open_read_close(directory.path().c_str(), buffer, 3), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(open_read_close(nullptr, buffer, 3), -1);
    const std::string closed = directory.path("closed");
    ASSERT_EQ(chmod(closed.c_str(), 0), 0);
    expect_as_ordinary_user([&] {
        EXPECT_EQ(open_read_close(closed.c_str(), buffer, 3), -1);
        EXPECT_EQ(errno, EACCES);
    });
    EXPECT_STREQ(buffer, "###");
    EXPECT_EQ(open_descriptors(), open_before);
}

TEST(open_read_close, NeedsOnlyReadPermission) {
    const TemporaryDirectory directory;
    directory.write("file", "content\n");
    ASSERT_EQ(chmod(directory.path("file").c_str(), 0444), 0);
    char buffer[8];
    expect_as_ordinary_user(
        [&] { EXPECT_EQ(open_read_close(directory.path("file").c_str(), buffer, 8), 8); });
    EXPECT_EQ(directory.read("file"), "content\n");
}

} // namespace
} // namespace corvel_test
