/* SPDX-License-Identifier: MIT */
/* What the header warns of: results that are safe for the library and wrong for a careless caller.
 */
#include <corvel.h>

#include "tests/firmware/environment_image.h"
#include "tests/support/child_process.h"
#include "tests/support/environment.h"
#include "tests/support/output_capture.h"
#include "tests/support/temporary_directory.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace corvel_test;
using namespace std::string_literals;

class SavedEnvironment : public testing::Test {
  protected:
    void SetUp() override {
        folder.write("env", EnvironmentImage({"bootargs=x", "keep=me"}).bytes());
    }

    int load(const char *name) {
        int result = 0;
        static_cast<void>(capture_stdout([&] { result = init_env(folder.path(name).c_str()); }));
        return result;
    }

    int save(const char *name, const char *value) {
        int result = 0;
        static_cast<void>(
            capture_stdout([&] { result = save_param(folder.path("env").c_str(), name, value); }));
        return result;
    }

    /** The stored value of a variable; empty if there is none. */
    std::string stored(const char *name) {
        EXPECT_EQ(load("env"), 0);
        const char *const value = get_env(name);
        return value != nullptr ? value : "";
    }

    TemporaryDirectory folder;
    const std::string large = std::string(70000, 'x');
};

TEST_F(SavedEnvironment, IsAMixtureAfterAShortFileWasLoaded) {
    folder.write("short", "\0\0\0\0other=1\0"s);
    ASSERT_EQ(load("env"), 0);
    ASSERT_EQ(load("short"), -1);
    ASSERT_EQ(save("added", "1"), 0);
    EXPECT_EQ(stored("other"), "1");
    EXPECT_EQ(stored("bootargs"), "");
}

TEST_F(SavedEnvironment, BecomesGoodByASaveThoughItsCrcWasBad) {
    std::string bytes = EnvironmentImage({"bootargs=x"}).bytes();
    bytes.back() ^= 1;
    folder.write("env", bytes);
    ASSERT_EQ(load("env"), 1);
    ASSERT_EQ(save("added", "1"), 0);
    EXPECT_EQ(stored("bootargs"), "x");
}

TEST_F(SavedEnvironment, IsAsItWasAfterAnOverflow) {
    ASSERT_EQ(load("env"), 0);
    EXPECT_EQ(save("keep", large.c_str()), -1);
    EXPECT_EQ(stored("keep"), "me");
}

TEST_F(SavedEnvironment, LosesTheVariableByTheNextSaveAfterAnOverflow) {
    ASSERT_EQ(load("env"), 0);
    EXPECT_EQ(save("keep", large.c_str()), -1);
    EXPECT_EQ(save("other", "1"), 0);
    EXPECT_EQ(stored("keep"), "");
    EXPECT_EQ(stored("other"), "1");
}

TEST(FlashWrite, TakesANegativeOffsetForTheStart) {
    const TemporaryDirectory folder;
    folder.write("device", "0123456789");
    EXPECT_EQ(flash_write(folder.path("device").c_str(), "XX", -5, 2), 1);
    EXPECT_EQ(folder.read("device"), "XX23456789");
}

TEST(FileCopy, EmptiesAFileThatIsCopiedOntoItself) {
    const TemporaryDirectory folder;
    folder.write("file", "content");
    std::filesystem::create_hard_link(folder.path("file"), folder.path("second"));
    EXPECT_EQ(file_copy(folder.path("second").c_str(), folder.path("file").c_str()), 0);
    EXPECT_EQ(folder.read("file"), "");
    EXPECT_EQ(folder.read("second"), "");
}

TEST(FileCopy, FollowsALinkAtTheCopy) {
    const TemporaryDirectory folder;
    folder.write("file", "content");
    folder.write("victim", "precious");
    std::filesystem::create_symlink("victim", folder.path("link"));
    EXPECT_EQ(file_copy(folder.path("file").c_str(), folder.path("link").c_str()), 0);
    EXPECT_EQ(folder.read("victim"), "content");
}

int rows_of(const std::string &query) {
    const EnvironmentVariable variable("QUERY_STRING", query);
    std::array<prop_entry, 16> rows{};
    const int count = process_query_string(rows.data());
    free_prop(rows.data(), count);
    return count;
}

/** The most rows that a query of this length takes. */
int most_rows(std::size_t length) {
    const std::string characters = "=&a%+";
    std::string query(length, characters.front());
    int most = rows_of(query);
    for (std::size_t at = 0; at < length;) {
        // Counts up, the characters being the digits.
        const std::size_t digit = (characters.find(query[at]) + 1) % characters.size();
        query[at] = characters[digit];
        at = digit == 0 ? at + 1 : 0;
        most = std::max(most, rows_of(query));
    }
    return most;
}

TEST(ProcessQueryString, FillsAtMostOneRowForTwoBytesAndOneForTheLast) {
    for (std::size_t length = 0; length <= 6; ++length)
        EXPECT_EQ(most_rows(length), static_cast<int>((length + 1) / 2)) << length;
}

TEST(LoadProp, FillsAtMostOneRowForTwoBytes) {
    const TemporaryDirectory folder;
    std::array<prop_entry, 16> rows{};
    folder.write("file", "=\n=\n=\n=");
    const int count = load_prop('=', folder.path("file").c_str(), rows.data());
    EXPECT_EQ(count, 3);
    free_prop(rows.data(), count);
}

/** The write end of a pipe that a handler reports to. */
int reports = -1;

void report(int) { static_cast<void>(write(reports, "s", 1) < 0); }

/** Waits until a child waits for something, or has ended. */
void wait_until_idle(pid_t child) {
    const std::string path = "/proc/" + std::to_string(child) + "/stat";
    std::string status;
    do
        status = read_file(path);
    while ("SZ"s.find(status.at(status.rfind(')') + 2)) == std::string::npos);
}

/**
 * Whether a body is read that stops half-way until many signals have been handled. A reader that
 * gives up ends, and so do the reports.
 */
bool survives_signals(int flags) {
    std::array<int, 2> body{};
    std::array<int, 2> reported{};
    EXPECT_EQ(pipe(body.data()), 0);
    EXPECT_EQ(pipe(reported.data()), 0);
    const EnvironmentVariable method("REQUEST_METHOD", "POST");
    const EnvironmentVariable length("CONTENT_LENGTH", "8");
    const pid_t reader = fork();
    if (reader == 0) {
        struct sigaction action {};
        action.sa_handler = report;
        action.sa_flags = flags;
        sigaction(SIGUSR1, &action, nullptr);
        dup2(body[0], STDIN_FILENO);
        close(body[1]);
        close(reported[0]);
        reports = reported[1];
        report(0);
        char *const text = read_queue();
        const bool whole = text != nullptr && std::string_view(text) == "abcdefgh";
        std::free(text);
        end_child(whole ? 0 : 1);
    }
    close(reported[1]);
    EXPECT_EQ(write(body[1], "abcd", 4), 4);
    char byte = 0;
    for (int signals = 0; signals < 100 && read(reported[0], &byte, 1) == 1; ++signals) {
        wait_until_idle(reader);
        kill(reader, SIGUSR1);
    }
    EXPECT_EQ(write(body[1], "efgh", 4), 4); // this process has the other end as well
    close(body[1]);
    const bool read_whole = wait_for_child(reader).exit_status == 0;
    close(body[0]);
    close(reported[0]);
    return read_whole;
}

TEST(ReadQueue, RefusesABodyThatASignalInterrupts) { EXPECT_FALSE(survives_signals(0)); }

TEST(ReadQueue, ReadsOnAfterASignalWithRestart) { EXPECT_TRUE(survives_signals(SA_RESTART)); }

} // namespace
