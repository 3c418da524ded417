/* SPDX-License-Identifier: MIT */
#include "support/kill_points.h"

#include "support/temporary_folder.h"

#include <algorithm>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using namespace corvel_test;

TEST(KillPoints, EndTheRunAtEachOfItsSystemCallsInTurn) {
    const TemporaryFolder folder;
    const std::string first = folder.path("1");
    const std::string second = folder.path("2");
    std::vector<std::size_t> files;
    const unsigned long points = for_each_kill_point(
        [&] {
            folder.remove("1");
            folder.remove("2");
        },
        [&] {
            // Two system calls each.
            close(open(first.c_str(), O_CREAT | O_WRONLY, 0600));
            close(open(second.c_str(), O_CREAT | O_WRONLY, 0600));
        },
        [&](unsigned long) { files.push_back(folder.names().size()); });
    ASSERT_EQ(files.size(), points + 1);
    // A call at whose entry the run ends has no effect. Around the four calls there are those that
    // stop the process itself.
    EXPECT_EQ(files.front(), 0U);
    EXPECT_EQ(files.back(), 2U);
    EXPECT_TRUE(std::is_sorted(files.begin(), files.end()));
    EXPECT_EQ(std::count(files.begin(), files.end(), 1U), 2);
}

} // namespace
