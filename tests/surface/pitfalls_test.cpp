/* SPDX-License-Identifier: MIT */
/* What the header warns of: results that are safe for the library but wrong for a careless caller.
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

/** A file with an environment image, and the calls that load and save it. */
class SavedEnvironment {
  public:
    SavedEnvironment() { write("env", EnvironmentImage({"bootargs=x", "keep=me"}).bytes()); }

    void write(const char *name, std::string_view bytes) const { directory_.write(name, bytes); }

    [[nodiscard]] int load(const char *name) const {
        int result = 0;
        static_cast<void>(
            capture_stdout([&] { result = init_env(directory_.path(name).c_str()); }));
        return result;
    }

    [[nodiscard]] int save(const char *name, const char *value) const {
        int result = 0;
        static_cast<void>(capture_stdout(
            [&] { result = save_param(directory_.path("env").c_str(), name, value); }));
        return result;
    }

    /** The stored value of a variable; empty if there is none. */
    [[nodiscard]] std::string stored(const char *name) const {
        EXPECT_EQ(load("env"), CORVEL_ENV_GOOD);
        const char *const value = get_env(name);
        return value != nullptr ? value : "";
    }

  private:
    TemporaryDirectory directory_;
};

/** Longer than an environment image. */
const std::string too_long(70000, 'x');

TEST(init_env, MixesAShortFileWithTheCurrentImage) {
    const SavedEnvironment env;
    env.write("short", "\0\0\0\0other=1\0"s);
    ASSERT_EQ(env.load("env"), CORVEL_ENV_GOOD);
    ASSERT_EQ(env.load("short"), CORVEL_ENV_UNREADABLE);
    ASSERT_EQ(env.save("added", "1"), 0);
    EXPECT_EQ(env.stored("other"), "1");
    EXPECT_EQ(env.stored("bootargs"), "");
}

TEST(save_param, StoresAGoodCrcEvenIfItWasBad) {
    const SavedEnvironment env;
    std::string bytes = EnvironmentImage({"bootargs=x"}).bytes();
    bytes.back() ^= 1;
    env.write("env", bytes);
    ASSERT_EQ(env.load("env"), CORVEL_ENV_BAD_CRC);
    ASSERT_EQ(env.save("added", "1"), 0);
    EXPECT_EQ(env.stored("bootargs"), "x");
}

TEST(save_param, LeavesTheFileUnchangedIfTheImageOverflows) {
    const SavedEnvironment env;
    ASSERT_EQ(env.load("env"), CORVEL_ENV_GOOD);
    EXPECT_EQ(env.save("keep", too_long.c_str()), -1);
    EXPECT_EQ(env.stored("keep"), "me");
}

TEST(save_param, RemovesTheVariableByTheNextSaveAfterAnOverflow) {
    const SavedEnvironment env;
    ASSERT_EQ(env.load("env"), CORVEL_ENV_GOOD);
    EXPECT_EQ(env.save("keep", too_long.c_str()), -1);
    EXPECT_EQ(env.save("other", "1"), 0);
    EXPECT_EQ(env.stored("keep"), "");
    EXPECT_EQ(env.stored("other"), "1");
}

TEST(flash_write, TreatsANegativeOffsetAsZero) {
    const TemporaryDirectory directory;
    directory.write("device", "0123456789");
    EXPECT_EQ(flash_write(directory.path("device").c_str(), "XX", -5, 2), 1);
    EXPECT_EQ(directory.read("device"), "XX23456789");
}

TEST(file_copy, EmptiesAFileThatIsCopiedToItself) {
    const TemporaryDirectory directory;
    directory.write("file", "content");
    std::filesystem::create_hard_link(directory.path("file"), directory.path("second"));
    EXPECT_EQ(file_copy(directory.path("second").c_str(), directory.path("file").c_str()), 0);
    EXPECT_EQ(directory.read("file"), "");
    EXPECT_EQ(directory.read("second"), "");
}

TEST(file_copy, FollowsASymbolicLinkAtTheDestination) {
    const TemporaryDirectory directory;
    directory.write("file", "content");
    directory.write("victim", "precious");
    std::filesystem::create_symlink("victim", directory.path("link"));
    EXPECT_EQ(file_copy(directory.path("file").c_str(), directory.path("link").c_str()), 0);
    EXPECT_EQ(directory.read("victim"), "content");
}

int rows_of(const std::string &query) {
    const EnvironmentVariable variable("QUERY_STRING", query);
    std::array<prop_entry, 16> rows{};
    const int count = process_query_string(rows.data());
    free_prop(rows.data(), count);
    return count;
}

/** The maximum number of rows that a query of this length fills. */
int maximum_rows(std::size_t length) {
    const std::string characters = "=&a%+";
    std::string query(length, characters.front());
    int maximum = rows_of(query);
    for (std::size_t at = 0; at < length;) {
        // The next query, as if the characters were digits of a number.
        const std::size_t digit = (characters.find(query[at]) + 1) % characters.size();
        query[at] = characters[digit];
        at = digit == 0 ? at + 1 : 0;
        maximum = std::max(maximum, rows_of(query));
    }
    return maximum;
}

TEST(process_query_string, FillsAtMostHalfAsManyRowsAsBytesRoundedUp) {
    for (std::size_t length = 0; length <= 6; ++length)
        EXPECT_EQ(maximum_rows(length), static_cast<int>((length + 1) / 2)) << length;
}

TEST(load_prop, FillsAtMostHalfAsManyRowsAsBytes) {
    const TemporaryDirectory directory;
    std::array<prop_entry, 16> rows{};
    directory.write("file", "=\n=\n=\n=");
    const int count = load_prop('=', directory.path("file").c_str(), rows.data());
    EXPECT_EQ(count, 3);
    free_prop(rows.data(), count);
}

/** The write end of the pipe to which the signal handler writes. */
int reports = -1;

void report(int) { static_cast<void>(write(reports, "s", 1) < 0); }

/** Waits until a child is asleep or has exited. */
void wait_until_idle(pid_t child) {
    const std::string path = "/proc/" + std::to_string(child) + "/stat";
    std::string status;
    do
        status = read_file(path);
    while ("SZ"s.find(status.at(status.rfind(')') + 2)) == std::string::npos);
}

/**
 * Whether read_queue() reads the whole body if the second half arrives only after many signals were
 * handled. If it fails, the reader exits and the loop ends.
 */
bool reads_whole_body_despite_signals(int flags) {
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
    EXPECT_EQ(write(body[1], "efgh", 4), 4); // cannot fail: this process has the other end open too
    close(body[1]);
    const bool read_whole = wait_for_child(reader).exit_status == 0;
    close(body[0]);
    close(reported[0]);
    return read_whole;
}

TEST(read_queue, FailsIfASignalInterruptsTheRead) {
    EXPECT_FALSE(reads_whole_body_despite_signals(0));
}

TEST(read_queue, ContinuesAfterASignalWithRestart) {
    EXPECT_TRUE(reads_whole_body_despite_signals(SA_RESTART));
}

} // namespace
