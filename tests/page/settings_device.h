/* SPDX-License-Identifier: MIT */
/** A device on which pausing and flushing take no time, and the settings file of a test. It
 * replaces the C library's nanosleep() and fsync(), so that only one source file of a program may
 * include it. */
#ifndef CORVEL_TESTS_SETTINGS_DEVICE_H
#define CORVEL_TESTS_SETTINGS_DEVICE_H

#include <ctime>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/next_definition.h"
#include "tests/support/temporary_directory.h"

/** Whether the pauses are skipped, and how many milliseconds they would have taken. */
static bool skip_pauses = false;
static long milliseconds = 0;

// NOLINTNEXTLINE(misc-definitions-in-headers)
extern "C" int nanosleep(const timespec *length, timespec *left) {
    static auto *const next =
        corvel_test::next_definition<int(const timespec *, timespec *)>("nanosleep");
    milliseconds += length->tv_nsec / 1'000'000 + static_cast<long>(length->tv_sec) * 1000;
    return skip_pauses ? 0 : next(length, left);
}

static std::function<int(int)> instead_of_fsync;

// NOLINTNEXTLINE(misc-definitions-in-headers)
extern "C" int fsync(int file) {
    static auto *const next = corvel_test::next_definition<int(int)>("fsync");
    return instead_of_fsync ? instead_of_fsync(file) : next(file);
}

namespace corvel_test {

/** A directory with the settings file "conf" and its companions. */
class SettingsTest : public testing::Test {
  protected:
    [[nodiscard]] std::string path(const std::string &name = "conf") const {
        return directory_.path(name);
    }
    [[nodiscard]] std::string content() const { return directory_.read("conf"); }
    void clear() const {
        for (const std::string &name : directory_.names())
            directory_.remove(name);
    }
    [[nodiscard]] struct stat status(const std::string &name) const {
        struct stat status {};
        EXPECT_EQ(lstat(path(name).c_str(), &status), 0) << name;
        return status;
    }

    TemporaryDirectory directory_;

  private:
    /** The tests are about processes that die; the state after a power loss is made by the tests.
     */
    void SetUp() override {
        instead_of_fsync = [](int) {
            return 0;
        };
    }
    void TearDown() override { instead_of_fsync = nullptr; }
};

} // namespace corvel_test

#endif
