/* SPDX-License-Identifier: MIT */
#include "tests/support/kill_points.h"

#include "tests/support/temporary_directory.h"

#include <algorithm>
#include <chrono>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using namespace corvel_test;

TEST(KillPoints, KillTheRunAtEachOfItsSystemCallsInTurn) {
    const TemporaryDirectory directory;
    const std::string first = directory.path("1");
    const std::string second = directory.path("2");
    std::vector<std::size_t> files;
    const unsigned long points = for_each_kill_point(
        [&] {
            directory.remove("1");
            directory.remove("2");
        },
        [&] {
            // Two system calls each.
            close(open(first.c_str(), O_CREAT | O_WRONLY, 0600));
            close(open(second.c_str(), O_CREAT | O_WRONLY, 0600));
        },
        [&](unsigned long) { files.push_back(directory.names().size()); });
    ASSERT_EQ(files.size(), points + 1);
    // A call has no effect if the run is killed at its entry. Before and after the four calls are
    // those that stop the process itself.
    EXPECT_EQ(files.front(), 0U);
    EXPECT_EQ(files.back(), 2U);
    EXPECT_TRUE(std::is_sorted(files.begin(), files.end()));
    EXPECT_EQ(std::count(files.begin(), files.end(), 1U), 2);
}

TEST(PausePoints, RunAnotherProcessAtEachSystemCallOfTheRunInTurn) {
    const TemporaryDirectory directory;
    const std::string first = directory.path("1");
    const std::string second = directory.path("2");
    const std::string seen = directory.path("seen");
    std::vector<std::size_t> files;
    const unsigned long points = for_each_pause_point(
        [&] {
            for (const std::string &name : directory.names())
                directory.remove(name);
        },
        [&] {
            close(open(first.c_str(), O_CREAT | O_WRONLY, 0600));
            close(open(second.c_str(), O_CREAT | O_WRONLY, 0600));
        },
        [&] { write_file(seen, std::to_string(directory.names().size())); }, AfterPause::go_on,
        [&](unsigned long) {
            files.push_back(std::stoul(directory.read("seen")));
            EXPECT_EQ(directory.names(), (std::vector<std::string>{"1", "2", "seen"}));
        });
    ASSERT_EQ(files.size(), points + 1);
    EXPECT_EQ(files.front(), 0U);
    EXPECT_EQ(files.back(), 2U);
    EXPECT_EQ(std::count(files.begin(), files.end(), 1U), 2);
}

TEST(PausePoints, DoNotWaitForAProcessThatWaitsForThePausedOne) {
    const TemporaryDirectory directory;
    directory.write("lock", "");
    const std::string lock = directory.path("lock");
    const auto hold = [&lock](const std::string &made) {
        const int file = open(lock.c_str(), O_RDWR | O_CLOEXEC);
        if (lockf(file, F_LOCK, 0) == 0)
            write_file(made, "");
        close(file);
    };
    for (const AfterPause after : {AfterPause::go_on, AfterPause::die})
        for_each_pause_point(
            [&] {
                directory.remove("1");
                directory.remove("2");
            },
            [&] { hold(directory.path("1")); }, [&] { hold(directory.path("2")); }, after,
            [&](unsigned long n) {
                EXPECT_TRUE(directory.exists("2")) << n;
                EXPECT_TRUE(after == AfterPause::die || directory.exists("1")) << n;
            },
            std::chrono::milliseconds(10));
}

} // namespace
