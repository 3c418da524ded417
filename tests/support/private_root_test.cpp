/* SPDX-License-Identifier: MIT */
#include "tests/support/private_root.h"

#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <set>
#include <sstream>
#include <string>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using namespace corvel_test;

class PrivateRoot : public testing::TestWithParam<RootMaker> {};

INSTANTIATE_TEST_SUITE_P(Makers, PrivateRoot, testing::ValuesIn(root_makers()),
                         [](const auto &maker) {
                             return maker.param == RootMaker::current_user ? "CurrentUser"
                                                                           : "OrdinaryUser";
                         });

TEST_P(PrivateRoot, RunsTheBodyAsRootWithAShellAndCommands) {
    in_private_root(
        [] {
            EXPECT_EQ(geteuid(), 0U);
            EXPECT_EQ(std::system("test \"$(echo yes)\" = yes && ls / >/dev/null"), 0);
        },
        GetParam());
}

TEST_P(PrivateRoot, HasItsOwnEmptyDirectories) {
    in_private_root(
        [] {
            for (const char *directory : {"/etc", "/sbin", "/tmp", "/var/config", "/var/run"}) {
                EXPECT_TRUE(fs::is_directory(fs::symlink_status(directory))) << directory;
                EXPECT_TRUE(fs::is_empty(directory)) << directory;
                write_file(std::string(directory) + "/own", "text");
                EXPECT_EQ(read_file(std::string(directory) + "/own"), "text");
            }
        },
        GetParam());
    EXPECT_FALSE(fs::exists("/sbin/own"));
    EXPECT_FALSE(fs::exists("/etc/own"));
}

TEST_P(PrivateRoot, MakesTheMachinesFilesReadOnly) {
    in_private_root(
        [] {
            EXPECT_THROW(write_file("/usr/own", "text"), std::exception);
            EXPECT_THROW(write_file("/bin/own", "text"), std::exception);
        },
        GetParam());
}

TEST_P(PrivateRoot, SeesOnlyItsOwnProcesses) {
    in_private_root(
        [] {
            std::set<std::string> processes;
            for (const auto &entry : fs::directory_iterator("/proc")) {
                const std::string name = entry.path().filename().string();
                if (name.find_first_not_of("0123456789") == std::string::npos)
                    processes.insert(name);
            }
            EXPECT_EQ(processes, (std::set<std::string>{"1", std::to_string(getpid())}));
        },
        GetParam());
}

TEST_P(PrivateRoot, HasANetworkWithOnlyTheLoopbackInterface) {
    in_private_root(
        [] {
            std::istringstream table(read_file("/proc/net/dev"));
            std::set<std::string> names;
            for (std::string line; std::getline(table, line);)
                if (const std::size_t end = line.find(':'); end != std::string::npos)
                    names.insert(line.substr(line.find_first_not_of(' '),
                                             end - line.find_first_not_of(' ')));
            EXPECT_EQ(names, std::set<std::string>{"lo"});
        },
        GetParam());
}

TEST_P(PrivateRoot, HasTheUsualDevices) {
    in_private_root(
        [] {
            write_file("/dev/null", "gone");
            EXPECT_EQ(read_file("/dev/null"), "");
            EXPECT_EQ(std::system("echo text | cat /dev/stdin >/tmp/copy"), 0);
            EXPECT_EQ(read_file("/tmp/copy"), "text\n");
        },
        GetParam());
}

TEST_P(PrivateRoot, RunsAProgramPlacedAtAFixedPath) {
    in_private_root(
        [] {
            write_program("/sbin/tool", "#!/bin/sh\necho ran >/tmp/trace\n");
            EXPECT_EQ(std::system("/sbin/tool"), 0);
            EXPECT_EQ(read_file("/tmp/trace"), "ran\n");
        },
        GetParam());
    EXPECT_FALSE(fs::exists("/sbin/tool"));
}

TEST_P(PrivateRoot, HasSmallDisksThatFillUp) {
    in_private_root(
        [] {
            mount_small_disk("/mnt/small", 65536);
            EXPECT_NO_THROW(write_file("/mnt/small/fits", std::string(30000, 'x')));
            EXPECT_THROW(write_file("/mnt/small/large", std::string(100000, 'x')), std::exception);
        },
        GetParam());
}

TEST_P(PrivateRoot, PropagatesFailuresOfAssertions) {
    const RootMaker maker = GetParam();
    const ChildResult child = run_in_child([maker] {
        return status_of_assertions(
            [maker] { in_private_root([] { EXPECT_EQ(1, 2) << "seen inside"; }, maker); });
    });
    EXPECT_EQ(child.exit_status, 1);
    EXPECT_NE(child.out.find("seen inside"), std::string::npos) << child.out;
}

TEST_P(PrivateRoot, PropagatesExceptions) {
    const auto failing = [] {
        in_private_root([] { static_cast<void>(read_file("/not/there")); }, GetParam());
    };
    EXPECT_NONFATAL_FAILURE(failing(), "/not/there");
}

TEST_P(PrivateRoot, ReportsABodyTerminatedByASignal) {
    const auto failing = [] {
        in_private_root([] { std::abort(); }, GetParam());
    };
    EXPECT_NONFATAL_FAILURE(failing(), "status 134");
}

} // namespace
