/* SPDX-License-Identifier: MIT */
#include <corvel.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <sys/resource.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>
#include <vector>
#ifdef __GLIBC__
#include <malloc.h>
#endif

#include "tests/cgi/http_receiver.h"
#include "tests/cgi/multipart.h"
#include "tests/support/child_process.h"
#include "tests/support/environment.h"
#include "tests/support/guarded_memory.h"
#include "tests/support/output_capture.h"
#include "tests/support/stand_in.h"
#include "tests/support/temporary_directory.h"

#if defined(__SANITIZE_ADDRESS__)
#define UNDER_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define UNDER_SANITIZER 1
#endif
#endif
#ifndef UNDER_SANITIZER
#define UNDER_SANITIZER 0
#endif

namespace corvel_test {
namespace {

using std::string_literals::operator""s;
using std::string_view_literals::operator""sv;

constexpr bool under_sanitizer = UNDER_SANITIZER == 1;
constexpr std::size_t mebibyte = 1024 * 1024;
constexpr std::size_t largest_upload = CORVEL_UPLOAD_MAX;

std::string every_byte() {
    std::string bytes;
    for (int value = 0; value < 256; ++value)
        bytes += static_cast<char>(value);
    return bytes;
}

std::string repeated(std::string_view text, std::size_t size) {
    std::string whole;
    whole.reserve(size + text.size());
    while (whole.size() < size)
        whole += text;
    whole.resize(size);
    return whole;
}

std::string random_bytes(std::mt19937 &random, std::size_t size) {
    std::string bytes(size, '\0');
    for (char &byte : bytes)
        byte = static_cast<char>(random());
    return bytes;
}

/** Interrupts sleep() by SIGALRM after a time and then at intervals, unless the interval is 0. */
class Alarms {
  public:
    Alarms(std::chrono::milliseconds first, std::chrono::milliseconds interval) {
        struct sigaction action {};
        action.sa_handler = [](int) {
        };
        sigaction(SIGALRM, &action, nullptr);
        const itimerval timer{time_of(interval), time_of(first)};
        setitimer(ITIMER_REAL, &timer, nullptr);
    }
    Alarms(const Alarms &) = delete;
    Alarms &operator=(const Alarms &) = delete;
    ~Alarms() {
        const itimerval none{};
        setitimer(ITIMER_REAL, &none, nullptr);
    }

  private:
    static timeval time_of(std::chrono::milliseconds time) {
        return {time.count() / 1000, time.count() % 1000 * 1000};
    }
};

/** The result of a sleep(5) that a signal interrupts within its first second. */
constexpr unsigned int left_of_five_seconds = 4;

// --- read_queue_for_upload ---

/** The body that read_queue_for_upload() returns, no value if null; stores the length. */
std::optional<std::string> body_read(const UploadRequest &request, int &length,
                                     StandardInput::Kind kind = StandardInput::Kind::file) {
    const UploadEnvironment environment(request, kind);
    const OwnedText body = owned(read_queue_for_upload(&length));
    if (body == nullptr)
        return std::nullopt;
    EXPECT_EQ(body.get()[length], '\0');
    return std::string(body.get(), static_cast<std::size_t>(length));
}

std::optional<std::string> body_read(const UploadRequest &request) {
    int length = 0;
    return body_read(request, length);
}

TEST(read_queue_for_upload, ReadsTheWholeBodyAndStoresItsLength) {
    for (const std::string &body :
         {"x"s, "a=1&b=2"s, every_byte(), std::string(1000, '\0'), std::string(300000, 'b')}) {
        int length = -7;
        EXPECT_EQ(body_read({.body = body}, length), body);
        EXPECT_EQ(length, static_cast<int>(body.size()));
        EXPECT_EQ(body_read({.body = body}, length, StandardInput::Kind::pipe), body);
    }
}

TEST(read_queue_for_upload, ReturnsTheEmptyStringForALengthThatIsZeroOrNotANumber) {
    for (const char *length : {"0", "-0", "+0", "000", "", " ", "abc", "x2", "- 2", "+-2", ".5"}) {
        int stored = -7;
        EXPECT_EQ(body_read({.body = "ab", .length = length}, stored), "") << length;
        EXPECT_EQ(stored, 0) << length;
    }
}

TEST(read_queue_for_upload, ReadsTheLengthAsAtoiDoes) {
    for (const char *length : {"2", " 2", "\t\n\v\f\r 2", "+2", "2 ", "2abc", "2.9", "0002"})
        EXPECT_EQ(body_read({.body = "abc", .length = length}), "ab") << length;
}

TEST(read_queue_for_upload, ReadsTheBodyForEveryMethodExceptGet) {
    for (const char *method : {"POST", "post", "PUT", "GETS", "", "GE"})
        EXPECT_EQ(body_read({.method = method, .body = "ab"}), "ab") << method;
    for (const char *method : {"GET", "get", "Get", "gEt"})
        EXPECT_EQ(body_read({.method = method, .body = "ab"}), std::nullopt) << method;
}

TEST(read_queue_for_upload, RequiresAMethodAndALengthButNoContentType) {
    EXPECT_EQ(body_read({.method = std::nullopt, .body = "ab"}), std::nullopt);
    EXPECT_EQ(body_read({.body = "ab", .has_length = false}), std::nullopt);
    EXPECT_EQ(body_read({.type = std::nullopt, .body = "ab"}), "ab");
}

TEST(read_queue_for_upload, RefusesANegativeLengthWithoutReading) {
    for (const char *length :
         {"-1", "-2", "-2147483648", "-2147483649", "-99999999999999999999", "-4294967294"}) {
        const UploadEnvironment environment({.body = "ab", .length = length});
        const CountCalls reads(call_fread);
        const CountCalls allocations(call_allocation);
        int stored = 0;
        char *const body = read_queue_for_upload(&stored);
        EXPECT_EQ(allocations.count(), 0U) << length;
        EXPECT_EQ(reads.count(), 0U) << length;
        EXPECT_EQ(body, nullptr) << length;
    }
}

TEST(read_queue_for_upload, RefusesAShortBodyAndStoresItsLength) {
    for (const char *length : {"3", "100", "6145", "20000000"}) {
        int stored = -7;
        EXPECT_EQ(body_read({.body = "ab", .length = length}, stored), std::nullopt) << length;
        EXPECT_EQ(stored, std::atoi(length));
    }
}

TEST(read_queue_for_upload, ReadsABodyLargerThanAnUploadWithoutAPause) {
    const UploadEnvironment environment({.body = std::string(largest_upload + 1, 'b')});
    const CountCalls sleeps(call_sleep);
    int length = 0;
    const OwnedText body = owned(read_queue_for_upload(&length));
    ASSERT_NE(body, nullptr);
    EXPECT_EQ(length, static_cast<int>(largest_upload + 1));
    EXPECT_EQ(sleeps.count(), 0U);
}

// The allocator of a sanitizer fills every block.
#if !UNDER_SANITIZER
TEST(read_queue_for_upload, DoesNotReduceALengthLargerThanAnInt) {
    for (const char *length : {"2147483647", "2147483648", "4294967298", "99999999999999999999"})
        EXPECT_EQ(body_read({.body = "ab", .length = length}), std::nullopt) << length;
}
#endif

TEST(read_queue_for_upload, LeaksNothingIfOutOfMemory) {
    const unsigned long failures = for_each_allocation_failure(
        [](AllocationTrial &trial) {
            const UploadEnvironment environment({.body = "ab"});
            int length = 0;
            const OwnedText body = owned(trial.run([&] { return read_queue_for_upload(&length); }));
            EXPECT_EQ(body == nullptr, trial.failed());
            EXPECT_EQ(length, 2);
        },
        Allocations::outside_c_library);
    EXPECT_EQ(failures, 1U);
}

TEST(read_queue_for_upload, LeaksNothingForAShortBody) {
    stand_in_stop_tracking();
    const UploadEnvironment environment({.body = "ab", .length = "3"});
    int length = 0;
    static_cast<void>(std::ungetc(std::getchar(), stdin)); // allocates the buffer of the stream
    stand_in_start_tracking();
    EXPECT_EQ(read_queue_for_upload(&length), nullptr);
    stand_in_pause_tracking();
    EXPECT_EQ(stand_in_live_blocks(), 0U);
    stand_in_stop_tracking();
}

// --- read_queue_for_upload1 ---

TEST(read_queue_for_upload1, PrependsTheBoundaryAndReplacesTheLastByteByANul) {
    const std::string body = body_of("b", {file_part("a", every_byte())});
    for (const auto kind : {StandardInput::Kind::file, StandardInput::Kind::pipe}) {
        const UploadEnvironment environment({.body = body}, kind);
        const ReadUpload upload = read_upload();
        ASSERT_NE(upload.bytes, nullptr);
        EXPECT_STREQ(upload.boundary.get(), "--b");
        EXPECT_EQ(upload.boundary_length, 3);
        EXPECT_EQ(upload.total, static_cast<int>(body.size()) + 3);
        EXPECT_EQ(upload.view(), upload_of("b", body));
        EXPECT_EQ(upload.bytes.get()[upload.total], '\0');
    }
}

TEST(read_queue_for_upload1, ReturnsOnlyTheBoundaryForALengthOfZero) {
    for (const char *length : {"0", "-0", "", "abc", " "}) {
        const UploadEnvironment environment({.body = "ab", .length = length});
        const ReadUpload upload = read_upload();
        ASSERT_NE(upload.bytes, nullptr) << length;
        EXPECT_EQ(upload.total, 3) << length;
        EXPECT_STREQ(upload.bytes.get(), "--b") << length;
    }
}

TEST(read_queue_for_upload1, ReturnsTheBoundaryAndANewlineForABodyOfOneByte) {
    const UploadEnvironment environment({.body = "x"});
    const ReadUpload upload = read_upload();
    ASSERT_NE(upload.bytes, nullptr);
    EXPECT_EQ(upload.total, 4);
    EXPECT_STREQ(upload.bytes.get(), "--b\n");
}

TEST(read_queue_for_upload1, WritesTheBoundaryToAGivenBuffer) {
    const UploadEnvironment environment({.body = "body"});
    const GuardedBlock buffer("!!!!"s);
    char *boundary = buffer.start();
    int total = 0;
    int length = 0;
    const OwnedText upload = owned(read_queue_for_upload1(&total, &boundary, &length));
    EXPECT_STREQ(upload.get(), "--b\nbod");
    EXPECT_EQ(boundary, buffer.start());
    EXPECT_STREQ(boundary, "--b");
}

bool is_taken(const UploadRequest &request) {
    const UploadEnvironment environment(request);
    return read_upload().bytes != nullptr;
}

TEST(read_queue_for_upload1, RequiresAMethodATypeABoundaryAndALength) {
    EXPECT_TRUE(is_taken({.body = "ab"}));
    EXPECT_FALSE(is_taken({.method = std::nullopt, .body = "ab"}));
    EXPECT_FALSE(is_taken({.type = std::nullopt, .body = "ab"}));
    EXPECT_FALSE(is_taken({.type = "multipart/form-data", .body = "ab"}));
    EXPECT_FALSE(is_taken({.type = "", .body = "ab"}));
    EXPECT_FALSE(is_taken({.body = "ab", .has_length = false}));
    for (const char *method : {"GET", "get", "Get"})
        EXPECT_FALSE(is_taken({.method = method, .body = "ab"})) << method;
    for (const char *method : {"post", "PUT", "", "GETS"})
        EXPECT_TRUE(is_taken({.method = method, .body = "ab"})) << method;
}

TEST(read_queue_for_upload1, RefusesAShortBody) {
    EXPECT_TRUE(is_taken({.body = "ab", .length = "2"}));
    EXPECT_FALSE(is_taken({.body = "ab", .length = "3"}));
    EXPECT_FALSE(is_taken({.body = "", .length = "1"}));
    EXPECT_FALSE(is_taken({.body = "ab", .length = "16777216"}));
}

TEST(read_queue_for_upload1, RefusesAnInvalidLengthWithoutReadingOrPausing) {
    for (const char *length :
         {"-1", "-3", "-16777216", "-2147483648", "-2147483649", "-99999999999999999999",
          "16777217", "2147483647", "2147483648", "4294967298", "18446744073709551618"}) {
        const UploadEnvironment environment({.body = "ab", .length = length});
        const CountCalls reads(call_fread);
        const CountCalls sleeps(call_sleep);
        const CountCalls allocations(call_malloc);
        const ReadUpload upload = read_upload();
        EXPECT_EQ(allocations.count(), 0U) << length;
        EXPECT_EQ(reads.count(), 0U) << length;
        EXPECT_EQ(sleeps.count(), 0U) << length;
        EXPECT_EQ(upload.bytes, nullptr) << length;
        EXPECT_EQ(std::getchar(), 'a') << length;
    }
}

TEST(read_queue_for_upload1, StoresTheBoundaryEvenIfTheLengthIsInvalidOrMissing) {
    for (const std::optional<std::string> &value :
         std::vector<std::optional<std::string>>{"-1", "16777217", std::nullopt}) {
        const UploadEnvironment environment(
            {.body = "ab", .length = value, .has_length = value.has_value()});
        char *boundary = nullptr;
        int total = -7;
        int length = -7;
        EXPECT_EQ(read_queue_for_upload1(&total, &boundary, &length), nullptr);
        const OwnedText block = owned(boundary);
        EXPECT_STREQ(boundary, "--b");
        EXPECT_EQ(length, 3) << value.value_or("none");
        EXPECT_EQ(total, -7) << value.value_or("none");
    }
}

TEST(read_queue_for_upload1, AcceptsUpTo16Mebibytes) {
    std::string body = body_of("b", {file_part("image", "")});
    const std::string content = repeated(every_byte(), largest_upload - body.size());
    body = body_of("b", {file_part("image", content)});
    ASSERT_EQ(body.size(), 16777216U);
    EXPECT_EQ(files_received({.body = body}), (StoredFiles{{"image", content}}));
    body += "\n";
    const UploadEnvironment environment({.body = body});
    EXPECT_EQ(read_upload().bytes, nullptr);
    EXPECT_EQ(std::getchar(), '-');
}

TEST(read_queue_for_upload1, PausesForMoreThan6Kibibytes) {
    const auto sleeps_for = [](const std::string &length) {
        const UploadEnvironment environment(
            {.body = std::string(static_cast<std::size_t>(std::stoi(length)), 'x'),
             .length = length});
        const CountCalls sleeps(call_sleep);
        EXPECT_NE(read_upload().bytes, nullptr) << length;
        return sleeps.count();
    };
    EXPECT_EQ(sleeps_for("0"), 0U);
    EXPECT_EQ(sleeps_for("6143"), 0U);
    EXPECT_EQ(sleeps_for("6144"), 0U);
    EXPECT_EQ(sleeps_for("6145"), 2U);
    EXPECT_EQ(sleeps_for("16777216"), 2U);
}

/** A handler that exits with 3 if a read or an allocation follows its first call. */
struct sigaction action_during_sleep() {
    struct sigaction action {};
    action.sa_handler = [](int) {
        static const unsigned long reads = stand_in_switches[call_fread].seen;
        static const unsigned long blocks = stand_in_switches[call_malloc].seen;
        if (stand_in_switches[call_fread].seen != reads ||
            stand_in_switches[call_malloc].seen != blocks)
            _exit(3);
    };
    return action;
}

TEST(read_queue_for_upload1, PausesBeforeAllocatingOrReading) {
    expect_in_child([] {
        const UploadRequest request{.body = std::string(6145, 'x')};
        const EnvironmentVariable method("REQUEST_METHOD", request.method);
        const EnvironmentVariable type("CONTENT_TYPE", request.type);
        const EnvironmentVariable length("CONTENT_LENGTH", "6145");
        const StandardInput input(request.body);
        const CountCalls sleeps(call_sleep);
        const CountCalls reads(call_fread);
        const Alarms alarms(std::chrono::milliseconds(100), std::chrono::milliseconds(100));
        const struct sigaction action = action_during_sleep();
        sigaction(SIGALRM, &action, nullptr);
        EXPECT_NE(read_upload().bytes, nullptr);
        EXPECT_EQ(sleeps.count(), 2U);
        EXPECT_EQ(reads.count(), 1U);
    });
}

TEST(read_queue_for_upload1, LeaksNothingIfOutOfMemory) {
    const unsigned long failures = for_each_allocation_failure(
        [](AllocationTrial &trial) {
            const UploadEnvironment environment({.body = "body"});
            int total = 0;
            int length = 0;
            char *boundary = nullptr;
            const OwnedText upload = owned(
                trial.run([&] { return read_queue_for_upload1(&total, &boundary, &length); }));
            const OwnedText its_boundary = owned(boundary);
            EXPECT_EQ(upload == nullptr, trial.failed());
            EXPECT_EQ(boundary == nullptr, trial.n() == 1);
        },
        Allocations::outside_c_library);
    EXPECT_EQ(failures, 2U);
}

TEST(read_queue_for_upload1, LeavesOnlyTheBoundaryAllocatedForAShortBody) {
    const UploadEnvironment environment({.body = "ab", .length = "3"});
    static_cast<void>(std::ungetc(std::getchar(), stdin)); // allocates the buffer of the stream
    char *boundary = nullptr;
    int total = 0;
    int length = 0;
    stand_in_stop_tracking();
    stand_in_start_tracking();
    EXPECT_EQ(read_queue_for_upload1(&total, &boundary, &length), nullptr);
    stand_in_pause_tracking();
    EXPECT_EQ(stand_in_live_blocks(), 1U);
    std::free(boundary);
    EXPECT_EQ(stand_in_live_blocks(), 0U);
    stand_in_stop_tracking();
}

TEST(read_queue_for_upload1, LogsAMissingMethodAndNothingElse) {
    const RecordSyslog log;
    EXPECT_FALSE(is_taken({.method = std::nullopt}));
    const std::vector<RecordSyslog::Message> expected{{LOG_ERR, "Web: no found REQUEST_METHOD"}};
    EXPECT_EQ(RecordSyslog::messages(), expected);
    for (const UploadRequest &request : std::vector<UploadRequest>{{.method = "GET"},
                                                                   {.type = std::nullopt},
                                                                   {.type = "multipart/form-data"},
                                                                   {.has_length = false},
                                                                   {.length = "-1"},
                                                                   {.length = "16777217"},
                                                                   {.length = "5"}})
        EXPECT_FALSE(is_taken(request));
    EXPECT_EQ(body_read({.method = std::nullopt}), std::nullopt);
    EXPECT_EQ(RecordSyslog::messages(), expected) << "nothing else is logged";
}

// --- get_vhash ---

/** The boundary of a content type, in a new block; no value if there is none. */
std::optional<std::string> boundary_of(const char *type) {
    char *boundary = nullptr;
    const int length = get_vhash(type, &boundary);
    const OwnedText block = owned(boundary);
    if (length == 0)
        return std::nullopt;
    EXPECT_EQ(std::strlen(boundary), static_cast<std::size_t>(length)) << type;
    return boundary;
}

TEST(get_vhash, ReturnsEverythingAfterTheParametersName) {
    EXPECT_EQ(boundary_of("multipart/form-data; boundary=abc"), "--abc");
    EXPECT_EQ(boundary_of("multipart/form-data; boundary=----WebKit0"), "------WebKit0");
    EXPECT_EQ(boundary_of("boundary=a; charset=utf-8"), "--a; charset=utf-8");
    EXPECT_EQ(boundary_of("boundary=\"a b\""), "--\"a b\"");
    EXPECT_EQ(boundary_of("boundary= a \r\n"), "-- a \r\n");
    EXPECT_EQ(boundary_of("boundary=\xff\x80"), "--\xff\x80");
    EXPECT_EQ(boundary_of("boundary=boundary=x"), "--boundary=x");
    EXPECT_EQ(boundary_of("xboundary=1 boundary=2"), "--1 boundary=2");
}

TEST(get_vhash, ReturnsOnlyTheDashesForAnEmptyParameter) {
    EXPECT_EQ(boundary_of("multipart/form-data; boundary="), "--");
}

TEST(get_vhash, ReturnsZeroIfTheContentTypeHasNoBoundary) {
    for (const char *type : {"", "multipart/form-data", "multipart/form-data; boundary", "boundary",
                             "Boundary=a", "BOUNDARY=a", "boundary =a", "oundary=a"})
        EXPECT_EQ(boundary_of(type), std::nullopt) << type;
    EXPECT_EQ(boundary_of(nullptr), std::nullopt);
}

TEST(get_vhash, WritesToAGivenBuffer) {
    for (std::size_t size = 0; size <= 300; ++size) {
        const std::string parameter(size, 'p');
        const GuardedBlock buffer(std::string(size + 3, '!'));
        char *boundary = buffer.start();
        const int length = get_vhash(("boundary=" + parameter).c_str(), &boundary);
        EXPECT_EQ(length, static_cast<int>(size) + 2);
        EXPECT_EQ(boundary, buffer.start());
        EXPECT_EQ(boundary, "--" + parameter);
    }
}

TEST(get_vhash, AllocatesNothingForAGivenBuffer) {
    char buffer[] = "!!!!!!";
    char *boundary = buffer;
    const CountCalls allocations(call_allocation);
    EXPECT_EQ(get_vhash("boundary=abc", &boundary), 5);
    EXPECT_EQ(allocations.count(), 0U);
    EXPECT_STREQ(buffer, "--abc");
}

TEST(get_vhash, ReturnsZeroIfOutOfMemory) {
    const unsigned long failures = for_each_allocation_failure([](AllocationTrial &trial) {
        char *boundary = nullptr;
        const int length = trial.run([&] { return get_vhash("boundary=abc", &boundary); });
        EXPECT_EQ(length, trial.failed() ? 0 : 5);
        EXPECT_EQ(boundary == nullptr, trial.failed());
        std::free(boundary);
    });
    EXPECT_EQ(failures, 1U);
}

// --- killDaemon ---

TEST(killDaemon, SleepsTwiceAndReturnsTheResultOfTheSecondSleep) {
    expect_in_child([] {
        const Alarms alarms(std::chrono::milliseconds(100), std::chrono::milliseconds(100));
        const CountCalls sleeps(call_sleep);
        EXPECT_EQ(killDaemon(), left_of_five_seconds);
        EXPECT_EQ(sleeps.count(), 2U);
    });
    const FailCall no_pause(call_sleep, 1, EINTR, FailCall::from_then_on);
    EXPECT_EQ(killDaemon(), 0U);
    EXPECT_EQ(no_pause.failures(), 2U);
}

/** The signal arrives half a second after the first five seconds. */
TEST(killDaemon, SleepsFiveSecondsFirst) {
    expect_in_child([] {
        const Alarms alarms(std::chrono::milliseconds(5500), std::chrono::milliseconds(0));
        EXPECT_EQ(killDaemon(), left_of_five_seconds);
    });
}

// --- hex_search ---

/** The offset of the pattern's first match that starts in the first `limit` bytes of the block. */
std::optional<std::ptrdiff_t> found_in(const GuardedBlock &block, std::size_t limit,
                                       std::string_view pattern) {
    const char *const found = hex_search(block.start(), block.start() + limit, pattern.data(),
                                         static_cast<int>(pattern.size()));
    if (found == nullptr)
        return std::nullopt;
    return found - block.start();
}

std::optional<std::ptrdiff_t> found_in(std::string_view bytes, std::string_view pattern) {
    const GuardedBlock block(bytes);
    return found_in(block, block.size(), pattern);
}

TEST(hex_search, FindsTheFirstMatch) {
    EXPECT_EQ(found_in("abcabc", "abc"), 0);
    EXPECT_EQ(found_in("xxabc", "abc"), 2);
    EXPECT_EQ(found_in("aabaab", "ab"), 1);
    EXPECT_EQ(found_in("x", "x"), 0);
    EXPECT_EQ(found_in("abc", "abd"), std::nullopt);
    EXPECT_EQ(found_in("a\0b\0c"s, "\0c"s), 3);
    EXPECT_EQ(found_in("\xff\xfe", "\xfe"), 1);
}

TEST(hex_search, FindsNothingInAnEmptyBlockAndNoEmptyPattern) {
    EXPECT_EQ(found_in("", "a"), std::nullopt);
    EXPECT_EQ(found_in("abc", ""), std::nullopt);
    const GuardedBlock block("abc");
    EXPECT_EQ(hex_search(block.start(), block.end(), "a", -1), nullptr);
    EXPECT_EQ(hex_search(block.start(), block.end(), "a", INT_MIN), nullptr);
    EXPECT_EQ(hex_search(block.start(), block.end(), nullptr, 0), nullptr);
    EXPECT_EQ(hex_search(nullptr, block.end(), "a", 1), nullptr);
    EXPECT_EQ(hex_search(block.end(), block.start(), "a", 1), nullptr);
}

TEST(hex_search, FindsAMatchThatExtendsAfterTheEnd) {
    const GuardedBlock block("xxabcd");
    EXPECT_EQ(found_in(block, 3, "abcd"), 2);
    EXPECT_EQ(found_in(block, 5, "abcd"), 2);
    EXPECT_EQ(found_in(block, 2, "abcd"), std::nullopt);
    EXPECT_EQ(found_in(block, 1, "xxabcd"), 0);
}

TEST(hex_search, ReadsAfterTheEndOnlyWhileThePatternMatches) {
    const GuardedBlock block("ababaX");
    // At the third byte, the last byte of the pattern would be the first after the block's memory.
    EXPECT_EQ(found_in(block, 5, "abaY"), std::nullopt);
    EXPECT_EQ(found_in(block, 6, "ababab"), std::nullopt);
    EXPECT_EQ(found_in(block, 6, std::string(100000, 'z')), std::nullopt);
    EXPECT_EQ(found_in(block, 6, "X"), 5);
}

TEST(hex_search, AgreesWithStringFind) {
    std::mt19937 random(1);
    for (int round = 0; round < 20000; ++round) {
        std::string bytes(1 + random() % 24, '\0');
        for (char &byte : bytes)
            byte = "ab"[random() % 2];
        const std::size_t at = random() % bytes.size();
        std::string pattern = bytes.substr(at, 1 + random() % 6);
        if (random() % 2 == 0)
            pattern.back() = "abc"[random() % 3];
        const std::size_t limit = random() % (bytes.size() + 1);
        const std::size_t offset = bytes.find(pattern);
        std::optional<std::ptrdiff_t> expected;
        if (offset < limit)
            expected = static_cast<std::ptrdiff_t>(offset);
        // No pattern contains the last byte of the block, so that no match extends after it.
        const GuardedBlock block(bytes + "!");
        ASSERT_EQ(found_in(block, limit, pattern), expected)
            << bytes << " up to " << limit << ", " << pattern;
    }
}

// --- getDisposition_file ---

/** The results of getDisposition_file(); positions are offsets in the block. */
struct PartRead {
    int code;
    std::ptrdiff_t cursor;
    std::string content{};
    prop_file record{};
    std::string output{};
};

/** Reads a part from a block whose end is the end of its memory. */
PartRead part_of(std::string_view bytes, const char *boundary, std::size_t from = 0) {
    const GuardedBlock block(bytes);
    PartRead part{};
    std::memset(&part.record, '!', sizeof part.record);
    char *const untouched = block.start() + 1;
    char *data = untouched;
    unsigned int size = 4711;
    char *cursor = block.start() + from;
    part.output = capture_stdout([&] {
        part.code = getDisposition_file(&data, &size, &cursor, block.end(), boundary, &part.record);
    });
    part.cursor = cursor - block.start();
    if (part.code == 0) {
        EXPECT_GE(data, block.start());
        EXPECT_LE(data, block.end());
        EXPECT_LE(size, static_cast<std::size_t>(block.end() - data));
        part.content.assign(data, size);
    }
    return part;
}

std::ptrdiff_t offset_of(std::string_view text, std::string_view pattern, std::size_t from = 0) {
    return static_cast<std::ptrdiff_t>(text.find(pattern, from));
}

TEST(getDisposition_file, ReadsAFileAndItsHeaders) {
    const std::string bytes =
        "--b\r\nContent-Disposition: form-data; name=\"x\"; filename=\"a\"\r\n"
        "Content-Type: t/u\r\nContent-Transfer-Encoding: binary\r\n\r\n"
        "content\r\n--b--";
    const PartRead part = part_of(bytes, "--b");
    EXPECT_EQ(part.code, CORVEL_PART_FILE);
    EXPECT_EQ(part.content, "content");
    EXPECT_STREQ(part.record.filename, "a");
    EXPECT_STREQ(part.record.content_type, " t/u");
    EXPECT_STREQ(part.record.transfer_encoding, " binary");
    EXPECT_EQ(part.cursor, offset_of(bytes, "\r\n--b--"));
    EXPECT_EQ(part.output, "");
}

TEST(getDisposition_file, LeavesTheEncodingUnchangedIfThereIsNone) {
    const PartRead part = part_of("--bfilename=a\nContent-Type:t\n\r\n\rc\r\n--b", "--b");
    EXPECT_EQ(part.code, CORVEL_PART_FILE);
    EXPECT_EQ(part.content, "c");
    EXPECT_EQ(part.record.transfer_encoding[0], '!');
    EXPECT_EQ(part.record.transfer_encoding[CORVEL_UPLOAD_ENCODING_SIZE - 1], '!');
}

TEST(getDisposition_file, FindsNoPartWithoutABoundary) {
    for (const char *bytes : {"", "-", "--", "filename=a\r\nContent-Type: t\r\n\r\nx", "---a--"}) {
        const PartRead part = part_of(bytes, "--b");
        EXPECT_EQ(part.code, CORVEL_PART_NO_START) << bytes;
        EXPECT_EQ(part.cursor, static_cast<std::ptrdiff_t>(std::strlen(bytes)));
        EXPECT_EQ(part.output, "");
    }
    EXPECT_EQ(part_of("--b..--b", "--b", 6).code, CORVEL_PART_NO_START);
    EXPECT_EQ(part_of("--b..--b", "--b", 6).cursor, 8);
}

TEST(getDisposition_file, FindsNoPartWithoutAClosingBoundary) {
    for (const char *bytes : {"--b", "--b-", "x--b--", "--bfilename=a\nContent-Type:t\n\n\n\n--"}) {
        const PartRead part = part_of(bytes, "--b");
        EXPECT_EQ(part.code, CORVEL_PART_NO_END) << bytes;
        EXPECT_EQ(part.cursor, static_cast<std::ptrdiff_t>(std::strlen(bytes)));
    }
    EXPECT_EQ(part_of("aaa", "aa").code, CORVEL_PART_NO_END) << "boundaries do not overlap";
    EXPECT_EQ(part_of("aaaa", "aa").code, CORVEL_PART_NO_FILENAME);
}

TEST(getDisposition_file, SkipsAPartWithoutAFileName) {
    for (const char *headers :
         {"", "\r\n", "name=\"field\"\r\n\r\nvalue", "Filename=a\nContent-Type:t\n",
          "FILENAME=a\nContent-Type:t\n", "filename*=utf-8''a\nContent-Type:t\n",
          "filename =a\nContent-Type:t\n", "filename\nContent-Type:t\n",
          "name=\"filename\"; filename=\"a\"\nContent-Type:t\n", "filenam=e"}) {
        const std::string bytes = "--b" + std::string(headers) + "--b..";
        const PartRead part = part_of(bytes, "--b");
        EXPECT_EQ(part.code, CORVEL_PART_NO_FILENAME) << headers;
        EXPECT_EQ(part.cursor, offset_of(bytes, "--b", 3)) << headers;
        EXPECT_EQ(part.record.filename[0], '!');
        EXPECT_EQ(part.output, "");
    }
}

TEST(getDisposition_file, TakesNoHeaderFromTheNextPart) {
    const std::string bytes = "--bx--bfilename=a\nContent-Type:t\n\r\n\rc\r\n--b";
    EXPECT_EQ(part_of(bytes, "--b").code, CORVEL_PART_NO_FILENAME);
    EXPECT_EQ(part_of(bytes, "--b").cursor, 4);
    EXPECT_EQ(part_of(bytes, "--b", 4).code, CORVEL_PART_FILE);
    EXPECT_EQ(part_of("--bfilename=a\n--bContent-Type:t\n\r\n\rc\r\n--b", "--b").code,
              CORVEL_PART_NO_TYPE);
}

TEST(getDisposition_file, SkipsAndDumpsAPartWithoutAContentType) {
    for (const std::string &headers :
         {"filename=a\r\n\r\ncontent"s, "filename=a\ncontent-type: t\n"s,
          "filename=a\nContent-Type =t\n"s, "filename=a\nContent-Type\n Content-Type:t\n"s,
          "Content-Type: t\r\nfilename=a\r\n\r\ncontent of more than thirty-two bytes"s,
          "filename=a\n\0\xff\r\n"s}) {
        const std::string bytes = "--b" + headers + "\r\n--b--\r\n";
        const PartRead part = part_of(bytes, "--b");
        EXPECT_EQ(part.code, CORVEL_PART_NO_TYPE) << headers;
        EXPECT_EQ(part.cursor, offset_of(bytes, "--b", 3)) << headers;
        EXPECT_STREQ(part.record.filename, "a");
        EXPECT_EQ(part.record.content_type[0], '!');
        const std::size_t line_end = bytes.find_first_of("\r\n", bytes.find("filename"));
        EXPECT_EQ(part.output, bytes.substr(line_end, 32) + "\n") << headers;
    }
}

TEST(getDisposition_file, DumpsNothingAfterTheEndOfTheBlock) {
    for (std::size_t extra = 0; extra <= 40; ++extra) {
        const std::string bytes = "--bfilename=a\r--b" + std::string(extra, 'x');
        const std::string shown = bytes.substr(bytes.find('\r'), 32);
        const PartRead part = part_of(bytes, "--b");
        EXPECT_EQ(part.code, CORVEL_PART_NO_TYPE);
        EXPECT_EQ(part.output, shown + "\n");
    }
    EXPECT_EQ(part_of("--bfilename=a--b", "--b").output, "\n");
}

TEST(getDisposition_file, RemovesDoubleQuotesFromHeaderValues) {
    const PartRead part =
        part_of("--bfilename=\"a\"; \"b\"\"\"c\"\"\r\nContent-Type: \"t\"; x=\"y\"\r\n"
                "Content-Transfer-Encoding:\"\"\r\n\r\nc\"c\r\n--b",
                "--b");
    EXPECT_EQ(part.code, CORVEL_PART_FILE);
    EXPECT_STREQ(part.record.filename, "a; bc");
    EXPECT_STREQ(part.record.content_type, " t; x=y");
    EXPECT_STREQ(part.record.transfer_encoding, "");
    EXPECT_EQ(part.content, "c\"c");
}

/** A part in which each header value has `size` characters. */
std::string part_with_values_of(std::size_t size, std::string_view quotes = "") {
    const auto value = [&](char c) {
        return std::string(quotes) + std::string(size, c);
    };
    return "--bfilename=" + value('f') + "\r\nContent-Type:" + value('t') +
           "\r\nContent-Transfer-Encoding:" + value('e') + "\r\n\r\ncontent\r\n--b";
}

TEST(getDisposition_file, TruncatesHeaderValuesAndSkipsTheRestOfTheirLines) {
    for (const std::size_t size :
         {0U, 1U, 253U, 254U, 255U, 256U, 257U, 258U, 259U, 1000U, 100000U}) {
        for (const char *quotes : {"", "\"\"\"", "\""}) {
            const PartRead part = part_of(part_with_values_of(size, quotes), "--b");
            ASSERT_EQ(part.code, CORVEL_PART_FILE) << size;
            EXPECT_EQ(part.record.filename,
                      std::string(std::min<std::size_t>(size, CORVEL_UPLOAD_NAME_SIZE - 1), 'f'));
            EXPECT_EQ(part.record.content_type,
                      std::string(std::min<std::size_t>(size, CORVEL_UPLOAD_TYPE_SIZE - 1), 't'));
            EXPECT_EQ(part.record.transfer_encoding,
                      std::string(std::min<std::size_t>(size, CORVEL_UPLOAD_HEADER_MAX), 'e'));
            EXPECT_EQ(part.content, "content") << size;
        }
    }
}

TEST(getDisposition_file, AcceptsNulsAndHighBytesInHeaderValues) {
    const PartRead part =
        part_of("--bfilename=a\xff\0b\r\nContent-Type:\0t\r\n\r\nc\r\n--b"s, "--b");
    EXPECT_EQ(part.code, CORVEL_PART_FILE);
    EXPECT_EQ(std::string_view(part.record.filename, 5), "a\xff\0b\0"sv);
    EXPECT_EQ(std::string_view(part.record.content_type, 3), "\0t\0"sv);
}

TEST(getDisposition_file, ShiftsTheContentForOtherLineEndings) {
    // Four bytes count as the empty line and two as the line ending before the boundary.
    const PartRead part = part_of("--b\nfilename=a\nContent-Type: t\n\ncontent\n--b", "--b");
    EXPECT_EQ(part.code, CORVEL_PART_FILE);
    EXPECT_EQ(part.content, "nten");
    EXPECT_EQ(part_of("--b\rfilename=a\rContent-Type: t\r\rcontent\r--b", "--b").content, "nten");
}

TEST(getDisposition_file, ReturnsTheContentBetweenTheEmptyLineAndTheLastLineEnding) {
    const std::string headers = "--bfilename=a\r\nContent-Type:t";
    for (const std::string &content :
         {""s, "c"s, "\r"s, "\n"s, "\r\n"s, "\r\n\r\n"s, "\r\n\r"s, "-"s, "--"s, "\r\n-"s,
          "\r\n--"s, "--a"s, "\0"s, "\r\n--\nb"s, every_byte() + every_byte()}) {
        const PartRead part = part_of(headers + "\r\n\r\n" + content + "\r\n--b", "--b");
        EXPECT_EQ(part.code, CORVEL_PART_FILE);
        EXPECT_EQ(part.content, content);
    }
}

TEST(getDisposition_file, ReturnsNoContentIfTheHeadersExtendToTheBoundary) {
    for (const char *between :
         {"", "\r", "\r\n", "\r\n\r", "\r\n\r\n", "\r\n\r\n\r", "\r\n\r\n\r\n"}) {
        const std::string bytes = "--bfilename=a\r\nContent-Type:t" + std::string(between) + "--b";
        const PartRead part = part_of(bytes, "--b");
        EXPECT_EQ(part.code, CORVEL_PART_FILE);
        EXPECT_EQ(part.content, "");
        EXPECT_EQ(part.cursor, offset_of(bytes, "--b", 3) - 2);
    }
    EXPECT_EQ(part_of("--bfilename=a\r\nContent-Type:t\r\n\r\nc\r\n--b", "--b").content, "c");
}

TEST(getDisposition_file, ReadsAHeaderLineThatExtendsAfterTheBoundary) {
    const std::string bytes = "--bfilename=a\r\nContent-Type:t--bmore\r\n\r\nx--b";
    const PartRead part = part_of(bytes, "--b");
    EXPECT_EQ(part.code, CORVEL_PART_FILE);
    EXPECT_STREQ(part.record.content_type, "t--bmore");
    EXPECT_EQ(part.content, "");
    EXPECT_EQ(part.cursor, offset_of(bytes, "--bmore") - 2);
    const PartRead unnamed = part_of("--bfilename=a--bmore\r\nContent-Type:t\r\n\r\nx--b", "--b");
    EXPECT_EQ(unnamed.code, CORVEL_PART_NO_TYPE);
    EXPECT_EQ(unnamed.cursor, 13);
    EXPECT_STREQ(unnamed.record.filename, "a--bmore");
    EXPECT_EQ(unnamed.output, "\r\nContent-Type:t\r\n\r\nx--b\n");
}

/** The line may extend up to 16 KiB after the boundary, over further boundaries. */
TEST(getDisposition_file, ReadsAHeaderLineThatExtendsOverManyBoundaries) {
    for (const std::size_t size : {0U, 254U, 255U, 256U, 257U, 10000U}) {
        const std::string line = repeated("--bx", size);
        const PartRead part = part_of("--bfilename=a--b" + line + "\r\nafter", "--b");
        EXPECT_EQ(part.code, CORVEL_PART_NO_TYPE);
        EXPECT_EQ(part.cursor, 13);
        EXPECT_EQ(part.record.filename, ("a--b" + line).substr(0, CORVEL_UPLOAD_NAME_SIZE - 1));
        EXPECT_EQ(part.output, "\r\nafter\n") << size;
    }
}

// A sanitizer checks all bytes that a search may read, not those that it reads.
#if !UNDER_SANITIZER
/**
 * Reads a part from a block whose given end is a mebibyte after the end of its memory.
 *
 * @return the code, or 1 if a signal terminated the call, and the offset of the cursor.
 */
std::pair<int, std::ptrdiff_t> code_of_part_before_a_gap(const std::string &bytes) {
    const GuardedBlock block(bytes);
    std::ptrdiff_t offset = 0;
    const auto body = [&] {
        prop_file record{};
        char *data = nullptr;
        unsigned int size = 0;
        char *cursor = block.start();
        const int code =
            getDisposition_file(&data, &size, &cursor, block.end() + mebibyte, "--b", &record);
        offset = cursor - block.start();
        return code;
    };
    const ChildResult child = run_in_child([&] { return -body(); });
    if (child.signal != 0)
        return {1, 0};
    static_cast<void>(capture_stdout(body));
    return {-child.exit_status, offset};
}

/** Therefore a loop over an upload without line endings takes time in proportion to its length. */
TEST(getDisposition_file, SearchesTheEndOfAHeaderLineIn16KibibytesAfterTheBoundary) {
    const std::string rest(CORVEL_UPLOAD_LINE_REACH + 32, 'x'); // searched, and dumped
    EXPECT_EQ(code_of_part_before_a_gap("--bfilename=a--b" + rest),
              (std::pair{int{CORVEL_PART_NO_TYPE}, std::ptrdiff_t{13}}));
    EXPECT_EQ(code_of_part_before_a_gap("--bfilename=a\nContent-Type:t--b" + rest),
              (std::pair{int{CORVEL_PART_FILE}, std::ptrdiff_t{26}}));
}
#endif

TEST(getDisposition_file, EndsAHeaderLine16KibibytesAfterTheBoundary) {
    const std::string start = "--bfilename=a";
    const std::string boundary_and_16_kibibytes =
        "--b" + std::string(CORVEL_UPLOAD_LINE_REACH - 3, 'x');
    const std::string next = "0123456789abcdef0123456789ABCDEF";
    EXPECT_EQ(part_of(start + boundary_and_16_kibibytes + next + "!\n", "--b").output, next + "\n");
    EXPECT_EQ(part_of(start + boundary_and_16_kibibytes.substr(0, CORVEL_UPLOAD_LINE_REACH - 1) +
                          "\n" + next,
                      "--b")
                  .output,
              "\n" + next.substr(0, 31) + "\n");
    const PartRead part = part_of(start + "\nContent-Type:t" + boundary_and_16_kibibytes, "--b");
    EXPECT_EQ(part.code, CORVEL_PART_FILE);
    EXPECT_EQ(part.content, "");
}

TEST(getDisposition_file, RemovesAnyNumberOfQuotesAfterTheBoundary) {
    for (const std::size_t size : {1U, 255U, 256U, 257U, 10000U}) {
        const PartRead part = part_of(
            "--bfilename=\nContent-Type:t--b" + std::string(size, '"') + "value\r\nafter", "--b");
        EXPECT_EQ(part.code, CORVEL_PART_FILE);
        EXPECT_STREQ(part.record.content_type, "t--bvalue") << size;
    }
}

TEST(getDisposition_file, ReadsTheWholeValueOfAKeyInTheBoundary) {
    const std::string value(300, 'v');
    const PartRead part = part_of("filename=a\nfilename=" + value + "\r\n", "filename=");
    EXPECT_EQ(part.code, CORVEL_PART_NO_TYPE);
    EXPECT_STREQ(part.record.filename, "a");
    const PartRead far = part_of("ilename=.filename=" + value + "\r\n", "ilename=");
    EXPECT_EQ(far.code, CORVEL_PART_NO_TYPE);
    EXPECT_EQ(far.record.filename, value.substr(0, CORVEL_UPLOAD_NAME_SIZE - 1));
}

TEST(getDisposition_file, FindsAKeyThatExtendsIntoTheNextBoundary) {
    const std::string bytes = "=x.filename=x";
    // The "=" of the second boundary is also the separator of the key.
    const PartRead part = part_of(bytes, "=x");
    EXPECT_EQ(part.code, CORVEL_PART_NO_TYPE);
    EXPECT_STREQ(part.record.filename, "x");
}

TEST(getDisposition_file, IgnoresAKeyAtTheStartOfTheNextBoundary) {
    const char *const type = "Content-Type:b";
    EXPECT_EQ(part_of("Content-Type:b filename=a\r\nContent-Type:b", type).code,
              CORVEL_PART_NO_TYPE);
    const PartRead second =
        part_of("Content-Type:b filename=a\r\nContent-Type: t\r\n\r\nc\r\nContent-Type:b", type);
    EXPECT_STREQ(second.record.content_type, " t");
    EXPECT_EQ(second.content, "c");
    const PartRead encoded = part_of("Content-Transfer-Encoding:b filename=a\r\nContent-Type: t"
                                     "\r\n\r\nc\r\nContent-Transfer-Encoding:b",
                                     "Content-Transfer-Encoding:b");
    EXPECT_EQ(encoded.record.transfer_encoding[0], '!') << "unchanged";
    EXPECT_EQ(encoded.content, "c");
}

TEST(getDisposition_file, FindsAKeyThatStartsJustBeforeTheNextBoundary) {
    // The boundary is the key without its first character.
    const PartRead part = part_of("ontent-Type: filename=a\nContent-Type: t\n", "ontent-Type:");
    EXPECT_EQ(part.code, CORVEL_PART_FILE);
    EXPECT_STREQ(part.record.content_type, " t");
}

TEST(getDisposition_file, FindsNoBoundaryIfTheCursorIsAtOrAfterTheEnd) {
    const std::string bytes = "--bfilename=a\r\nContent-Type:t\r\n\r\nc\r\n--b";
    for (const std::size_t beyond : {0U, 1U, 2U, 1000000U}) {
        const PartRead part = part_of(bytes, "--b", bytes.size() + beyond);
        EXPECT_EQ(part.code, CORVEL_PART_NO_START) << beyond;
        EXPECT_EQ(part.cursor, static_cast<std::ptrdiff_t>(bytes.size())) << beyond;
    }
    // Boundaries between the given end and the end of the memory are not found.
    const GuardedBlock block("xx bfilename=ab");
    char *cursor = block.start() + 3;
    char *data = nullptr;
    unsigned int size = 0;
    prop_file record{};
    EXPECT_EQ(getDisposition_file(&data, &size, &cursor, block.start() + 2, "b", &record),
              CORVEL_PART_NO_START);
    EXPECT_EQ(cursor, block.start() + 2);
}

TEST(getDisposition_file, AcceptsHeadersInTheBoundary) {
    const PartRead part = part_of("filename=aContent-Type:t\r\n\r\n\r\nfilename=a", "filename=a");
    EXPECT_EQ(part.code, CORVEL_PART_NO_TYPE) << "the content type is on the line of the file name";
    EXPECT_STREQ(part.record.filename, "aContent-Type:t");
    const PartRead file =
        part_of("filename=a\nContent-Type:t\r\n\r\nc\r\nfilename=a", "filename=a");
    EXPECT_EQ(file.code, CORVEL_PART_FILE);
    EXPECT_EQ(file.content, "c");
}

TEST(getDisposition_file, FindsNoEmptyBoundary) {
    const std::string bytes = "filename=a\r\nContent-Type:t\r\n\r\nc\r\n";
    for (const char *boundary : {"", static_cast<const char *>(nullptr)}) {
        const PartRead part = part_of(bytes, boundary);
        EXPECT_EQ(part.code, CORVEL_PART_NO_START);
        EXPECT_EQ(part.cursor, static_cast<std::ptrdiff_t>(bytes.size()));
    }
}

TEST(getDisposition_file, StartsTheNextPartAtTheClosingBoundary) {
    const std::string body = upload_of(
        "b", body_of("b", {field_part("f", "v"), file_part("1", "one"), file_part("2", "two")}));
    const GuardedBlock block(body);
    char *cursor = block.start();
    char *data = nullptr;
    unsigned int size = 0;
    prop_file record{};
    std::vector<int> codes;
    StoredFiles files;
    for (int i = 0; i < 8; ++i) {
        codes.push_back(getDisposition_file(&data, &size, &cursor, block.end(), "--b", &record));
        if (codes.back() == 0)
            files.push_back({record.filename, std::string(data, size)});
    }
    // The first part is between the prepended boundary and the first one of the body.
    EXPECT_EQ(codes,
              (std::vector<int>{CORVEL_PART_NO_FILENAME, CORVEL_PART_NO_FILENAME, CORVEL_PART_FILE,
                                CORVEL_PART_FILE, CORVEL_PART_NO_END, CORVEL_PART_NO_START,
                                CORVEL_PART_NO_START, CORVEL_PART_NO_START}));
    EXPECT_EQ(files, (StoredFiles{{"1", "one"}, {"2", "two"}}));
    EXPECT_EQ(cursor, block.end());
}

// --- strip_r ---

std::string stripped(std::string_view text, char one, char other) {
    const GuardedBlock block(text);
    int length = static_cast<int>(text.size());
    const char *const start = strip_r(block.start(), &length, one, other);
    EXPECT_EQ(block.bytes(), text);
    EXPECT_GE(start, block.start());
    EXPECT_LE(start, block.end());
    EXPECT_GE(length, 0);
    return {start, static_cast<std::size_t>(length)};
}

TEST(strip_r, RemovesBothCharactersFromBothEnds) {
    EXPECT_EQ(stripped("\r\na\r\nb\r\n", '\r', '\n'), "a\r\nb");
    EXPECT_EQ(stripped("xyyxaxy", 'x', 'y'), "a");
    EXPECT_EQ(stripped("a", 'x', 'y'), "a");
    EXPECT_EQ(stripped("xxa", 'x', 'x'), "a");
    EXPECT_EQ(stripped("\0a\0"s, '\0', 'x'), "a");
    EXPECT_EQ(stripped("\xff-\x80", '\xff', '\x80'), "-");
}

TEST(strip_r, ReturnsAnEmptyResultIfThereIsNoOtherCharacter) {
    for (const char *text : {"", "x", "y", "xy", "yyyyyyyy", "xyxyx"})
        EXPECT_EQ(stripped(text, 'x', 'y'), "") << text;
}

TEST(strip_r, TreatsANegativeLengthAsZero) {
    const GuardedBlock block("");
    for (int length : {-1, -5, INT_MIN}) {
        EXPECT_EQ(strip_r(block.start(), &length, 'x', 'y'), block.start());
        EXPECT_EQ(length, 0);
    }
}

TEST(strip_r, ReadsOnlyTheGivenLength) {
    const GuardedBlock block("xaxx");
    int length = 2;
    EXPECT_EQ(strip_r(block.start(), &length, 'x', 'x'), block.start() + 1);
    EXPECT_EQ(length, 1);
}

// --- process_file ---

TEST(process_file, ReturnsFilesOfAnyBytes) {
    std::mt19937 random(2);
    const std::string bytes = every_byte();
    for (const std::string &content :
         {""s, "\0"s, "\0\0\0\0"s, bytes, bytes + bytes, std::string(bytes.rbegin(), bytes.rend()),
          "\r\n"s, "\r\n\r\n\r\n"s, random_bytes(random, 100000), std::string(70000, '-'),
          repeated("\r\n--", 70000), repeated("\r\n--boundar", 70000),
          "\r\n--Boundary\r\n--boundarx\r\n-boundary\r\n- -boundary"s,
          "Content-Disposition: form-data; name=\"x\"; filename=\"other\"\r\n\r\ntext"s,
          "filename=\"other\"\r\n"s, "content-type: text/plain\r\n"s, "Content-Typ: x\r\n"s})
        EXPECT_EQ(files_of("boundary", {file_part("name", content)}),
                  (StoredFiles{{"name", content}}));
}

TEST(process_file, AcceptsContentThatBeginsAndEndsLikeTheBoundary) {
    const std::string text = "\r\n--boundary";
    for (std::size_t size = 0; size < text.size(); ++size) {
        const std::string near = text.substr(0, size);
        for (const std::string &content : {near, "x" + near, near + "x", near + near})
            EXPECT_EQ(files_of("boundary", {file_part("name", content)}),
                      (StoredFiles{{"name", content}}))
                << content;
    }
}

TEST(process_file, EndsTheContentAtABoundaryInside) {
    EXPECT_EQ(files_of("b", {file_part("name", "before\r\n--bafter")}),
              (StoredFiles{{"name", "before"}}));
    EXPECT_EQ(files_of("b", {file_part("name", "xx--bafter")}), (StoredFiles{{"name", ""}}));
}

TEST(process_file, SkipsFieldsBeforeAndAfterFiles) {
    EXPECT_EQ(files_of("b", {field_part("before", "1"), file_part("name", "content"),
                             field_part("after", "2")}),
              (StoredFiles{{"name", "content"}}));
    EXPECT_EQ(files_of("b", {field_part("only", "1")}), StoredFiles());
    EXPECT_EQ(files_of("b", std::vector<Part>{}), StoredFiles());
}

TEST(process_file, SkipsFilesWithoutAName) {
    EXPECT_EQ(files_of("b", {file_part("", "nothing")}), StoredFiles());
    EXPECT_EQ(files_of("b", {file_part("", "nothing"), file_part("name", "content"),
                             file_part("\"\"", "nothing"), file_part("last", "")}),
              (StoredFiles{{"name", "content"}, {"last", ""}}));
}

TEST(process_file, SkipsFilesWithoutAType) {
    const Part untyped{"Content-Disposition: form-data; name=\"x\"; filename=\"untyped\"", "c"};
    StoredFiles files;
    const std::string output = capture_stdout([&] {
        files = files_of("b", {untyped, file_part("name", "content"), untyped});
    });
    EXPECT_EQ(files, (StoredFiles{{"name", "content"}}));
    EXPECT_EQ(output, "\r\n\r\nc\r\n--b\r\nContent-Disposition:\n"
                      "\r\n\r\nc\r\n--b--\r\n");
}

TEST(process_file, StoresAtMostFourFiles) {
    std::vector<Part> parts;
    StoredFiles expected;
    for (std::size_t count = 1; count <= 9; ++count) {
        const std::string name = "file" + std::to_string(count);
        parts.push_back(file_part(name, std::string(count, 'c')));
        if (count <= CORVEL_UPLOAD_FILES)
            expected.push_back({name, std::string(count, 'c')});
        EXPECT_EQ(files_of("b", parts), expected);
    }
}

TEST(process_file, AcceptsBoundariesOfAnyLength) {
    std::mt19937 random(3);
    const std::string_view alphabet =
        "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ'()+_,-./:=? ";
    for (std::size_t size = 1; size <= 200; ++size) {
        std::string boundary(size, '\0');
        for (char &c : boundary)
            c = alphabet[random() % alphabet.size()];
        const std::string near = "\r\n--" + boundary.substr(0, size - 1);
        const std::vector<Part> parts = {file_part("1", near), file_part("2", near + near),
                                         field_part("f", "v")};
        const StoredFiles expected{{"1", near}, {"2", near + near}};
        EXPECT_EQ(files_of(boundary, parts), expected) << boundary;
        EXPECT_EQ(files_received({.type = "multipart/form-data; boundary=" + boundary,
                                  .body = body_of(boundary, parts)}),
                  expected)
            << boundary;
    }
}

TEST(process_file, AcceptsABoundaryOfDashes) {
    for (std::size_t size = 0; size <= 70; ++size) {
        const std::string boundary(size, '-');
        const std::string content = size == 0 ? "c-c" : "c" + boundary + "-c";
        EXPECT_EQ(files_of(boundary, {file_part("name", content)}),
                  (StoredFiles{{"name", content}}))
            << size;
    }
}

TEST(process_file, FindsNothingForAnEmptyBoundary) {
    const GuardedBlock block(upload_of("b", body_of("b", {file_part("name", "content")})));
    EXPECT_EQ(files_in(block.start(), block.size(), ""), StoredFiles());
    FileRecords records;
    EXPECT_EQ(process_file(block.start(), static_cast<int>(block.size()), nullptr, records.data()),
              0);
}

TEST(process_file, FindsNothingForALengthOfZeroOrLess) {
    const GuardedBlock block("");
    FileRecords records;
    for (const int length : {0, -1, INT_MIN})
        EXPECT_EQ(process_file(block.start(), length, "--b", records.data()), 0);
    EXPECT_EQ(process_file(nullptr, 0, "--b", records.data()), 0);
}

TEST(process_file, IgnoresAnUploadOf21Bytes) {
    const auto output_for = [](std::size_t padding) {
        const std::string bytes = "bfilename=\r" + std::string(padding, 'x') + "b";
        const GuardedBlock block(bytes);
        return capture_stdout([&] { files_in(block.start(), block.size(), "b"); });
    };
    EXPECT_EQ(output_for(9), "");
    EXPECT_EQ(output_for(10), "\rxxxxxxxxxxb\n");
}

TEST(process_file, RequiresAByteAfterTheLastBoundary) {
    // The last byte of the body is not part of the upload; here it is the last of the boundary.
    std::string body = body_of("b", {file_part("name", "content")});
    body.resize(body.size() - 4);
    EXPECT_EQ(files_of("b", body), StoredFiles());
    EXPECT_EQ(files_of("b", body + "-"), (StoredFiles{{"name", "content"}}));
}

TEST(process_file, TakesASecondContentTypeFromTheContent) {
    EXPECT_EQ(files_of("b", {file_part("name", "first\r\nContent-Type: text/html\r\nrest")}),
              (StoredFiles{{"name", "st", " text/html", " text/html"}}));
    EXPECT_EQ(files_of("b", {file_part("name", "in a line Content-Type:\"x\"y\n....rest")}),
              (StoredFiles{{"name", ".rest", "xy", "xy"}}));
    EXPECT_EQ(files_of("b", {file_part("name", "Content-Type:1\r\nContent-Type:2\r\n\r\nrest")}),
              (StoredFiles{{"name", "ntent-Type:2\r\n\r\nrest", "1", "1"}}));
}

TEST(process_file, TakesTheTransferEncodingFromTheContent) {
    EXPECT_EQ(
        files_of("b", {file_part("name", "x\r\nContent-Transfer-Encoding: base64\r\n\r\nrest")}),
        (StoredFiles{{"name", "rest", " application/octet-stream", " base64"}}));
}

TEST(process_file, TakesBothTypeAndEncodingFromTheContent) {
    const std::string type = "Content-Type: a\r\n";
    const std::string encoding = "Content-Transfer-Encoding: b\r\n";
    EXPECT_EQ(files_of("b", {file_part("name", type + encoding + "\r\nrest")}),
              (StoredFiles{{"name", "rest", " a", " b"}}));
    // If the type follows the encoding, it is read last and replaces the encoding.
    EXPECT_EQ(files_of("b", {file_part("name", encoding + type + "\r\nrest")}),
              (StoredFiles{{"name", "rest", " a", " a"}}));
}

TEST(process_file, LosesTheEncodingHeaderToATypeInTheContent) {
    const Part part{"Content-Disposition: form-data; filename=\"name\"\r\nContent-Type: t\r\n"
                    "Content-Transfer-Encoding: 8bit",
                    "Content-Type: u\r\n..rest"};
    EXPECT_EQ(files_of("b", {part}), (StoredFiles{{"name", "rest", " u", " u"}}));
}

TEST(process_file, UsesOnlyTheFirstOccurrenceOfAHeaderName) {
    EXPECT_EQ(files_of("b", {file_part("name", "Content-Type;\r\nContent-Type: u\r\n\r\nrest")}),
              (StoredFiles{{"name", "Content-Type;\r\nContent-Type: u\r\n\r\nrest"}}));
    const std::string encodings =
        "Content-Transfer-Encoding;\r\nContent-Transfer-Encoding: u\r\n\r\nrest";
    EXPECT_EQ(files_of("b", {file_part("name", encodings)}), (StoredFiles{{"name", encodings}}));
    const std::string mixed = "Content-Type;Content-Transfer-Encoding: u\r\n\r\nrest";
    EXPECT_EQ(files_of("b", {file_part("name", mixed)}),
              (StoredFiles{{"name", "rest", " application/octet-stream", " u"}}));
}

TEST(process_file, ReusesTheRecordOfASkippedFile) {
    Part unnamed = file_part("", "nothing");
    unnamed.headers += "\r\nContent-Transfer-Encoding: left over";
    // The record keeps the encoding if the next file has none.
    EXPECT_EQ(files_of("b", {unnamed, file_part("name", "content"), file_part("next", "")}),
              (StoredFiles{{"name", "content", " application/octet-stream", " left over"},
                           {"next", ""}}));
}

TEST(process_file, SkipsAFileThatCannotBeAllocated) {
    StoredFiles all;
    std::vector<Part> parts;
    for (const char *name : {"1", "2", "3", "4", "5"}) {
        parts.push_back(file_part(name, "content of " + std::string(name)));
        all.push_back({name, "content of " + std::string(name)});
    }
    const std::string upload = upload_of("b", body_of("b", parts));
    const unsigned long failures = for_each_allocation_failure([&](AllocationTrial &trial) {
        const GuardedBlock block(upload);
        FileRecords records;
        const int count = trial.run([&] {
            return process_file(block.start(), static_cast<int>(block.size()), "--b",
                                records.data());
        });
        StoredFiles expected = all;
        expected.erase(expected.begin() + static_cast<std::ptrdiff_t>(trial.n() - 1));
        EXPECT_EQ(records.stored(count), expected);
    });
    EXPECT_EQ(failures, 4U);
}

TEST(process_file, AllocatesABlockForAnEmptyFile) {
    const GuardedBlock block(upload_of("b", body_of("b", {file_part("name", "")})));
    FileRecords records;
    EXPECT_EQ(process_file(block.start(), static_cast<int>(block.size()), "--b", records.data()),
              1);
    EXPECT_EQ(records[0].size, 0U);
    EXPECT_NE(records[0].data, nullptr);
}

TEST(process_file, LeavesUnusedRecordsUnchanged) {
    const GuardedBlock block(upload_of("b", body_of("b", {file_part("name", "content")})));
    prop_file records[CORVEL_UPLOAD_FILES];
    std::memset(static_cast<void *>(records), '!', sizeof records);
    EXPECT_EQ(process_file(block.start(), static_cast<int>(block.size()), "--b", records), 1);
    EXPECT_EQ(free_prop_file(records, 1), 1);
    const auto *const bytes = reinterpret_cast<const char *>(&records[1]);
    EXPECT_TRUE(std::all_of(bytes, bytes + 3 * sizeof *records, [](char c) { return c == '!'; }));
}

TEST(process_file, LeavesTheUploadUnchanged) {
    const std::string upload =
        upload_of("b", body_of("b", {file_part("name", every_byte()), field_part("f", "v")}));
    const GuardedBlock block(upload);
    files_in(block.start(), block.size(), "--b");
    EXPECT_EQ(block.bytes(), upload);
}

/** Every file whose closing boundary is in the block is found, and nothing outside the block is
 * accessed. */
TEST(process_file, AcceptsAnUploadTruncatedAnywhere) {
    const std::vector<Part> parts = {field_part("f", "v"), file_part("1", every_byte()),
                                     file_part("2", ""), file_part("3", "\r\n--")};
    const std::string upload = upload_of("b", body_of("b", parts));
    for (std::size_t size = 0; size <= upload.size(); ++size) {
        StoredFiles expected;
        std::size_t end = upload.find("\r\n--b", upload.find("name=\"f\""));
        for (std::size_t i = 1; i < parts.size(); ++i) {
            end = upload.find("\r\n--b", end + 1);
            if (end + 5 <= size)
                expected.push_back({std::to_string(i), parts[i].content});
        }
        for (const GuardPage guard : {GuardPage::after, GuardPage::before}) {
            const GuardedBlock block(upload.substr(0, size), guard);
            StoredFiles files;
            ASSERT_EQ(capture_stdout([&] { files = files_in(block.start(), size, "--b"); }), "");
            ASSERT_EQ(files, expected) << "truncated at " << size;
        }
    }
}

/** With each byte removed or replaced in turn, nothing outside the block is accessed. */
TEST(process_file, AcceptsAnUploadDamagedAnywhere) {
    const std::string upload =
        upload_of("b", body_of("b", {field_part("f", "v"), file_part("1", "one"),
                                     file_part("2", "Content-Type: t\r\n\r\n")}));
    const auto files_of_damaged = [](const std::string &bytes) {
        std::size_t count = 0;
        for (const GuardPage guard : {GuardPage::after, GuardPage::before}) {
            const GuardedBlock block(bytes, guard);
            static_cast<void>(capture_stdout(
                [&] { count = files_in(block.start(), block.size(), "--b").size(); }));
        }
        return count;
    };
    EXPECT_EQ(files_of_damaged(upload), 2U);
    for (std::size_t at = 0; at < upload.size(); ++at) {
        std::string without = upload;
        EXPECT_LE(files_of_damaged(without.erase(at, 1)), 2U);
        for (const char c : {'\0', '\r', '\n', '-', '"', '='}) {
            std::string other = upload;
            other[at] = c;
            EXPECT_LE(files_of_damaged(other), 2U);
        }
    }
}

/** Random content of pieces that resemble boundaries and headers, without the boundary. */
std::string awkward_content(std::mt19937 &random, const std::string &boundary) {
    const std::string line = "\r\n--" + boundary;
    const std::vector<std::string> pieces = {"\r",        "\n",
                                             "\r\n",      "-",
                                             "--",        "\0"s,
                                             "\xff",      "\"",
                                             ":",         "x",
                                             boundary,    line.substr(0, line.size() - 1),
                                             "filename=", "Content-Disposition: form-data"};
    std::string content;
    for (std::size_t left = random() % 40; left != 0; --left)
        content += random() % 8 == 0 ? random_bytes(random, random() % 300)
                                     : pieces[random() % pieces.size()];
    for (std::size_t at = 0; (at = content.find("--" + boundary)) != std::string::npos;)
        content.erase(at, 1);
    return content;
}

Part random_part(std::mt19937 &random, const std::string &boundary) {
    const std::string name(random() % 20, static_cast<char>('a' + random() % 26));
    const std::string content = awkward_content(random, boundary);
    if (random() % 4 == 0)
        return field_part("field", content);
    return file_part(name, content, "kind/" + std::to_string(random() % 100));
}

std::string random_boundary(std::mt19937 &random) {
    std::string boundary(1 + random() % 70, '\0');
    for (char &c : boundary)
        c = "-0aZ'_"[random() % 6];
    // The package interprets whitespace or dashes at the end differently.
    return boundary + "z";
}

std::string listed(const StoredFiles &files) {
    std::string list;
    for (const StoredFile &file : files)
        list += file.name + "\n" + file.type.substr(1) + "\n" +
                std::to_string(file.content.size()) + "\n" + file.content;
    return list;
}

std::string python_peer() { return "python3 '" CORVEL_SOURCE_DIR "/tests/cgi/multipart_peer.py'"; }

TEST(process_file, AgreesWithPythonsEmailPackage) {
    constexpr int bodies = 500;
    const TemporaryDirectory directory;
    std::mt19937 random(5);
    std::vector<std::string> expected;
    std::size_t files_seen = 0;
    for (int i = 0; i < bodies; ++i) {
        const std::string boundary = random_boundary(random);
        std::vector<Part> parts;
        for (std::size_t left = 1 + random() % 6; left != 0; --left)
            parts.push_back(random_part(random, boundary));
        const std::string name = std::to_string(i);
        directory.write(name + ".body", body_of(boundary, parts));
        directory.write(name + ".type", "multipart/form-data; boundary=\"" + boundary + "\"");
        StoredFiles files;
        // A field whose content includes "filename=" is dumped.
        static_cast<void>(capture_stdout([&] { files = files_of(boundary, parts); }));
        files_seen += files.size();
        expected.push_back(listed(files));
    }
    const std::string command = python_peer() + " parse '" + directory.path() + "'";
    ASSERT_EQ(std::system(command.c_str()), 0);
    for (int i = 0; i < bodies; ++i)
        EXPECT_EQ(directory.read(std::to_string(i) + ".parsed"),
                  expected[static_cast<std::size_t>(i)])
            << directory.read(std::to_string(i) + ".body");
    EXPECT_GT(files_seen, static_cast<std::size_t>(bodies));
}

// --- free_prop_file ---

TEST(free_prop_file, FreesEachContentOnce) {
    prop_file files[3] = {};
    stand_in_stop_tracking();
    stand_in_start_tracking();
    for (prop_file &file : files)
        file.data = static_cast<char *>(std::malloc(8));
    stand_in_pause_tracking();
    EXPECT_EQ(stand_in_live_blocks(), 3U);
    EXPECT_EQ(free_prop_file(files, 0), 1);
    EXPECT_EQ(free_prop_file(files, -1), 1);
    EXPECT_EQ(free_prop_file(files, INT_MIN), 1);
    EXPECT_EQ(stand_in_live_blocks(), 3U);
    EXPECT_EQ(free_prop_file(files, 2), 1);
    EXPECT_EQ(stand_in_live_blocks(), 1U);
    EXPECT_EQ(files[0].data, nullptr);
    EXPECT_EQ(files[1].data, nullptr);
    EXPECT_NE(files[2].data, nullptr);
    EXPECT_EQ(free_prop_file(files, 3), 1);
    EXPECT_EQ(free_prop_file(files, 3), 1);
    EXPECT_EQ(stand_in_live_blocks(), 0U);
    stand_in_stop_tracking();
    EXPECT_EQ(free_prop_file(nullptr, 0), 1);
}

// --- Real clients ---

StoredFiles files_in_request(const ReceivedRequest &request) {
    EXPECT_EQ(request.client_status, 0) << request.client_output;
    EXPECT_NE(request.body, "") << request.client_output;
    return files_received({.type = request.type, .body = request.body});
}

ReceivedRequest curl(const std::string &forms) {
    const HttpReceiver receiver;
    return receiver.receive_from(
        "curl --disable --noproxy '*' --silent --show-error --max-time 20 " + forms +
        " http://127.0.0.1:" + receiver.port() + "/");
}

TEST(RealClient, CurlSendsFilesOfAnyBytes) {
    const TemporaryDirectory directory;
    std::mt19937 random(4);
    const std::string large = random_bytes(random, 300000);
    directory.write("bytes", every_byte());
    directory.write("empty", "");
    directory.write("page", "<b>text</b>\n");
    directory.write("large.bin", large);
    const auto form = [&](const std::string &name) {
        return " -F 'image=@" + directory.path(name) + "'";
    };
    EXPECT_EQ(files_in_request(curl(" -F before=1" + form("bytes") + " -F after=2" + form("empty") +
                                    form("large.bin") + form("page") + "';type=text/html'")),
              (StoredFiles{{"bytes", every_byte()},
                           {"empty", ""},
                           {"large.bin", large},
                           {"page", "<b>text</b>\n", " text/html"}}));
    EXPECT_EQ(files_in_request(curl(" -F only=field")), StoredFiles());
}

TEST(RealClient, CurlSendsNamesAndEncodings) {
    const TemporaryDirectory directory;
    directory.write("f", "\0\1\2\3\4\5"s);
    const std::string file = " -F 'image=@" + directory.path("f");
    EXPECT_EQ(files_in_request(curl(file + ";filename=a b;c.bin'" + file +
                                    ";filename=../../etc/passwd'" + file + ";encoder=base64'")),
              (StoredFiles{{"a b", "\0\1\2\3\4\5"s},
                           {"../../etc/passwd", "\0\1\2\3\4\5"s},
                           {"f", "AAECAwQF", " application/octet-stream", " base64"}}));
    EXPECT_EQ(files_in_request(curl(file + ";filename=\"\"'")), StoredFiles());
}

TEST(RealClient, CurlSendsFiveFilesOfWhichFourAreStored) {
    const TemporaryDirectory directory;
    std::string forms;
    StoredFiles expected;
    for (const char *name : {"1", "2", "3", "4", "5"}) {
        directory.write(name, name);
        forms += " -F 'image=@" + directory.path(name) + "'";
        expected.push_back({name, name});
    }
    expected.pop_back();
    EXPECT_EQ(files_in_request(curl(forms)), expected);
}

ReceivedRequest python(const std::string &layout) {
    const HttpReceiver receiver;
    return receiver.receive_from(python_peer() + " send " + receiver.port() + " " + layout);
}

TEST(RealClient, PythonSendsEncodedFiles) {
    const std::string type = " application/octet-stream";
    EXPECT_EQ(
        files_in_request(python("disposition-first")),
        (StoredFiles{{"first.bin", "AAECAwQF\r\n", type, " base64"},
                     {"second.bin", std::string(76, '/') + "\r\n" + std::string(4, '/') + "\r\n",
                      type, " base64"}}));
}

/** A content type before the file name is not found. */
TEST(RealClient, PythonSendsTheTypeBeforeTheDispositionAndThePartIsSkipped) {
    StoredFiles files;
    const std::string output =
        capture_stdout([&] { files = files_in_request(python("type-first")); });
    EXPECT_EQ(files, StoredFiles());
    EXPECT_EQ(output.substr(0, 33),
              "\r\n\r\nAAECAwQF\r\n\r\n--==============="s.substr(0, 32) + "\n");
}

// --- Memory and time ---

// The measurement would include the memory of a sanitizer.
#if !UNDER_SANITIZER
/** The growth, in bytes, of the peak memory of a child that runs @p body. */
long peak_growth(const std::function<void()> &body) {
#ifdef __GLIBC__
    malloc_trim(0); // free memory of earlier tests would be reused and not be measured
#endif
    const ChildResult child = run_in_child([&] {
        rusage before{};
        rusage after{};
        getrusage(RUSAGE_SELF, &before);
        body();
        getrusage(RUSAGE_SELF, &after);
        std::printf("%ld", (after.ru_maxrss - before.ru_maxrss) * 1024);
    });
    EXPECT_EQ(child.exit_status, 0);
    return std::atol(child.out.c_str());
}

/** The memory that any child touches: code that it runs first, its stack, a stream. */
constexpr long little_memory = mebibyte;

/** The memory that an emulator needs to describe mapped memory that is never touched. */
constexpr long emulator_memory([[maybe_unused]] long mapped) {
#ifdef CORVEL_EMULATOR
    return mapped / 128;
#else
    return 0;
#endif
}

TEST(UploadMemory, IsThatOfTheBodyAndOneCopyOfEachFile) {
    const auto growth_for = [](std::size_t files) {
        std::vector<Part> parts;
        for (std::size_t i = 0; i < files; ++i)
            parts.push_back(file_part("name", std::string((largest_upload - 1000) / files, 'c')));
        const UploadEnvironment environment({.body = body_of("b", parts)});
        parts.clear();
        return peak_growth([] {
            const ReadUpload upload = read_upload();
            FileRecords records;
            if (process_file(upload.bytes.get(), upload.total, upload.boundary.get(),
                             records.data()) < 1)
                _exit(1);
        });
    };
    for (const std::size_t files : {1U, 4U}) {
        const long growth = growth_for(files);
        EXPECT_LT(growth, 2 * static_cast<long>(largest_upload) + little_memory) << files;
        EXPECT_GT(growth, 2 * static_cast<long>(largest_upload) - little_memory) << files;
    }
}

TEST(UploadMemory, IsNotTouchedForBytesThatAreMissing) {
    const UploadEnvironment environment({.body = "a few bytes", .length = "16777216"});
    EXPECT_LT(peak_growth([] {
                  if (read_upload().bytes != nullptr)
                      _exit(1);
              }),
              little_memory);
    const UploadEnvironment raw({.body = "a few bytes", .length = "1000000000"});
    EXPECT_LT(peak_growth([] {
                  int length = 0;
                  if (read_queue_for_upload(&length) != nullptr)
                      _exit(1);
              }),
              little_memory + emulator_memory(1000000000));
}
#endif

/** An upload for which the time could grow faster than its length. */
struct CostlyUpload {
    const char *name;
    std::string boundary;
    std::string piece;   /**< Repeated in the body. */
    std::string opening; /**< Precedes the repetitions. */
};

void PrintTo(const CostlyUpload &upload, std::ostream *out) { *out << upload.name; }

class CostlyUploads : public testing::TestWithParam<CostlyUpload> {};

/** The largest upload, or a smaller one with a sanitizer, which is many times slower. */
constexpr std::size_t costly_size = under_sanitizer ? mebibyte : largest_upload;
constexpr rlim_t seconds_allowed = 10;

TEST_P(CostlyUploads, TakeTimeInProportionToTheirLength) {
    const CostlyUpload &costly = GetParam();
    const std::string boundary_text = "--" + costly.boundary;
    std::string upload = boundary_text + "\n" + costly.opening;
    upload += repeated(costly.piece, costly_size - upload.size());
    const ChildResult child = run_in_child([&] {
        const rlimit limit{seconds_allowed, seconds_allowed + 1};
        setrlimit(RLIMIT_CPU, &limit);
        FileRecords records;
        process_file(upload.data(), static_cast<int>(upload.size()), boundary_text.c_str(),
                     records.data());
    });
    EXPECT_EQ(child.signal, 0) << "takes more than " << seconds_allowed << " seconds";
    EXPECT_EQ(child.exit_status, 0);
}

const std::string dashes(200, '-');
const std::string letters(200, 'a');

INSTANTIATE_TEST_SUITE_P(
    process_file, CostlyUploads,
    testing::Values(
        CostlyUpload{"DashesAndABoundaryThatEndsInAnX", dashes + "X", "-", ""},
        CostlyUpload{"DashesAndABoundaryThatBeginsWithAnX", "X" + dashes, "-", ""},
        CostlyUpload{"DashesAndABoundaryWithAnXInside", dashes + "X" + dashes, "-", ""},
        CostlyUpload{"DashesAndALongBoundary", repeated("-", 4000) + "X", "-", ""},
        CostlyUpload{"NearCopiesOfTheBoundary", letters + "X", letters + "Y", ""},
        CostlyUpload{"NearCopiesThatDifferAtTheStart", letters + "XX", "--b" + letters + "XX", ""},
        CostlyUpload{"BoundariesOnly", "b", "--b", ""},
        CostlyUpload{"FilesOnOneLine", "b", "--bfilename=a", ""},
        CostlyUpload{"FilesWithoutAType", "b", "--bfilename=a\r\n", ""},
        CostlyUpload{"FilesWithoutAName", "b", "--bfilename=\nContent-Type:t\r\n", ""},
        CostlyUpload{"FilesWhoseNameIsQuotes", "b", "--bfilename=\"\"\"\nContent-Type:t\n", ""},
        CostlyUpload{"TypesThatExtendIntoTheNextPart", "b",
                     "--bfilename=\nContent-Type:\nContent-Type:", ""},
        CostlyUpload{"EncodingsThatExtendIntoTheNextPart", "b",
                     "--bfilename=\nContent-Type:\nContent-Transfer-Encoding:", ""},
        CostlyUpload{"NearFileNames", "b", "filenam", ""},
        CostlyUpload{"NearTypes", "b", "Content-T", "--b\r\nfilename=a\r\nContent-Type: t\r\n\r\n"},
        CostlyUpload{"NearTypesAndABoundaryAtTheEnd", "b", "Content-TyContent-TransferC",
                     "--b\r\nfilename=a\r\nContent-Type: t\r\n\r\n"}),
    [](const testing::TestParamInfo<CostlyUpload> &costly) {
        return std::string(costly.param.name);
    });

} // namespace
} // namespace corvel_test
