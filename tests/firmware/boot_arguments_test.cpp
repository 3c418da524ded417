/* SPDX-License-Identifier: MIT */
#include <corvel.h>

#include "tests/firmware/current_image.h"
#include "tests/firmware/environment_image.h"
#include "tests/support/child_process.h"
#include "tests/support/descriptors.h"
#include "tests/support/guarded_memory.h"
#include "tests/support/next_definition.h"
#include "tests/support/output_capture.h"
#include "tests/support/stand_in.h"
#include "tests/support/temporary_directory.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

/** Replaces fsync(). */
std::function<int(int)> instead_of_fsync;

} // namespace

extern "C" int fsync(int descriptor) {
    static auto *const next = corvel_test::next_definition<int(int)>("fsync");
    return instead_of_fsync ? instead_of_fsync(descriptor) : next(descriptor);
}

namespace {

using namespace corvel_test;
using namespace std::string_literals;
namespace fs = std::filesystem;

constexpr const char *too_short = "Err: envimage size is less then CONFIG_ENV_SIZE(65536)\n";

/** The result of save_param() before any image is current, or 99 if it created the file. */
const int saved_before_any_image = [] {
    const TemporaryDirectory directory;
    const int result = save_param(directory.path("env").c_str(), "a", "1");
    return directory.exists("env") ? 99 : result;
}();

// --- parse_bootargs_get_val ---

/** Returns the value found, or "(null)". */
std::string value_of(const char *arguments, const char *key) {
    const std::unique_ptr<char, decltype(&std::free)> value(parse_bootargs_get_val(arguments, key),
                                                            &std::free);
    return value ? value.get() : "(null)";
}

TEST(parse_bootargs_get_val, CopiesTheValueBetweenTheKeyAndTheNextSpace) {
    const char *arguments = "console=ttyS0 root=31:2 rootfstype=squashfs";
    EXPECT_EQ(value_of(arguments, "root="), "31:2");
    EXPECT_EQ(value_of(arguments, "console="), "ttyS0");
    EXPECT_EQ(value_of("a= b=1 ", "a="), "");
    EXPECT_EQ(value_of("a=1\tb=2 c", "a="), "1\tb=2");
}

TEST(parse_bootargs_get_val, FindsNoValueThatNoSpaceFollows) {
    EXPECT_EQ(value_of("console=ttyS0 root=31:2", "root="), "(null)");
    EXPECT_EQ(value_of("root=", "root="), "(null)");
    EXPECT_EQ(value_of("root=31:2 ", "root="), "31:2");
}

TEST(parse_bootargs_get_val, FindsTheKeyInsideALongerWord) {
    EXPECT_EQ(value_of("nfsroot=host root=31:2 x", "root="), "host");
    EXPECT_EQ(value_of("rootroot=1 x", "root="), "1");
    EXPECT_EQ(value_of("roroot=1 x", "root="), "1");
    EXPECT_EQ(value_of("console=ttyS0 x", "sole="), "ttyS0");
}

TEST(parse_bootargs_get_val, UsesOnlyTheFirstOccurrence) {
    EXPECT_EQ(value_of("a=1 a=2 ", "a="), "1");
    // A space follows the first occurrence, even though only after the second one.
    EXPECT_EQ(value_of("a=a= b", "a="), "a=");
}

TEST(parse_bootargs_get_val, FindsNothingIfTheKeyOrTheLineIsMissing) {
    EXPECT_EQ(value_of("console=ttyS0 x", "root="), "(null)");
    EXPECT_EQ(value_of("roo", "root="), "(null)");
    EXPECT_EQ(value_of("", "root="), "(null)");
    EXPECT_EQ(value_of(nullptr, "root="), "(null)");
    EXPECT_EQ(value_of(nullptr, nullptr), "(null)");
}

TEST(parse_bootargs_get_val, ReturnsTheFirstWordForAnEmptyKey) {
    EXPECT_EQ(value_of("first second", ""), "first");
    EXPECT_EQ(value_of("first second", nullptr), "first");
    EXPECT_EQ(value_of("single", ""), "(null)");
}

TEST(parse_bootargs_get_val, CopiesLongValues) {
    const std::string value(100000, 'v');
    EXPECT_EQ(value_of(("root=" + value + " x").c_str(), "root="), value);
}

/** So many partial matches that comparing each of them to its end would take an hour. */
TEST(parse_bootargs_get_val, SearchesALongLineInLinearTime) {
    const std::size_t length = 8000000;
    const std::string line(2 * length, 'a');
    const std::string key = std::string(length, 'a') + '=';
    EXPECT_EQ(value_of((line + "b ").c_str(), key.c_str()), "(null)");
    EXPECT_EQ(value_of((line + "=1 x").c_str(), key.c_str()), "1");
}

TEST(parse_bootargs_get_val, ReadsNothingAfterTheLine) {
    for (const std::string line : {"root=1 x", "root=1", "root=", "root", "x r", " ", ""}) {
        const GuardedBlock block(line + '\0');
        const GuardedBlock key("root=\0"s);
        EXPECT_EQ(value_of(block.start(), key.start()), line == "root=1 x" ? "1" : "(null)");
    }
}

TEST(parse_bootargs_get_val, ReturnsNullWithoutMemory) {
    const unsigned long failures = for_each_allocation_failure([](AllocationTrial &trial) {
        char *const value = trial.run([] { return parse_bootargs_get_val("a=1 b", "a="); });
        EXPECT_EQ(value == nullptr, trial.failed());
        std::free(value);
    });
    EXPECT_EQ(failures, 1U);
}

// --- get_rootid ---

/** Returns what get_rootid() prints; its result is always 0. */
std::string output_of_get_rootid(const std::string &path) {
    const std::vector<int> descriptors = open_descriptors();
    std::string output =
        capture_stdout([&path] { EXPECT_EQ(get_rootid(path.c_str()), 0U) << path; });
    EXPECT_EQ(open_descriptors(), descriptors);
    return output;
}

std::string output_of_get_rootid(const EnvironmentImage &image) {
    const TemporaryDirectory directory;
    directory.write("env", image.bytes());
    return output_of_get_rootid(directory.path("env"));
}

TEST(get_rootid, PrintsThePositionAndReturnsZero) {
    EXPECT_EQ(output_of_get_rootid(
                  EnvironmentImage({"bootargs=console=ttyS0 root=31:2 rootfstype=squashfs"})),
              "pos=31:2\n");
    EXPECT_STREQ(get_env("bootargs"), "console=ttyS0 root=31:2 rootfstype=squashfs");
}

TEST(get_rootid, ReturnsZeroForAnyValue) {
    for (const std::string value : {"31:2", ":5", "5", "5:", "31:7:8", "::9", "", "x:-3", "%s:%n"})
        EXPECT_EQ(output_of_get_rootid(EnvironmentImage({"bootargs=root=" + value + " x"})),
                  "pos=" + value + "\n");
}

TEST(get_rootid, PrintsNothingWithoutAPosition) {
    EXPECT_EQ(output_of_get_rootid(EnvironmentImage({"bootargs=console=ttyS0 root=31:2"})), "");
    EXPECT_EQ(output_of_get_rootid(EnvironmentImage({"bootargs=console=ttyS0 x"})), "");
    EXPECT_EQ(output_of_get_rootid(EnvironmentImage({"bootargs="})), "");
    EXPECT_EQ(output_of_get_rootid(EnvironmentImage({"bootdelay=1"})), "");
    EXPECT_EQ(output_of_get_rootid(EnvironmentImage({})), "");
}

TEST(get_rootid, RefusesAnImageWithABadCrcButMakesItCurrent) {
    EXPECT_EQ(output_of_get_rootid(EnvironmentImage::of_data("bootargs=root=31:2 x\0\0"s, 1)),
              "Warning - bad CRC\nErr: invalid image\n");
    EXPECT_STREQ(get_env("bootargs"), "root=31:2 x");
}

TEST(get_rootid, RefusesFilesThatContainNoImage) {
    const TemporaryDirectory directory;
    const CurrentImage other(EnvironmentImage({"other=still"}).bytes());
    EXPECT_EQ(output_of_get_rootid(directory.path("missing")),
              "Err: can not open file " + directory.path("missing") + "\n");
    for (const std::size_t size : {0U, 4U, 65535U}) {
        directory.write("env", EnvironmentImage({}).bytes().substr(0, size));
        EXPECT_EQ(output_of_get_rootid(directory.path("env")), too_short) << size;
    }
    EXPECT_EQ(output_of_get_rootid(directory.path()), too_short);
    EXPECT_STREQ(get_env("other"), "still");
    EXPECT_EQ(capture_stdout([] { EXPECT_EQ(get_rootid(nullptr), 0U); }),
              "Err: can not open file \n");
}

TEST(get_rootid, TreatsDescriptorZeroAsAFailure) {
    const TemporaryDirectory directory;
    directory.write("env", EnvironmentImage({"bootargs=root=31:2 x"}).bytes());
    const std::string path = directory.path("env");
    const ChildResult child = run_in_child([&path] {
        close(STDIN_FILENO);
        return static_cast<int>(get_rootid(path.c_str()));
    });
    EXPECT_EQ(child.out, "Err: can not open file " + path + "\n");
    EXPECT_EQ(child.exit_status, 0);
}

TEST(get_rootid, FreesTheValueAndReturnsZeroWithoutMemory) {
    const TemporaryDirectory directory;
    directory.write("env", EnvironmentImage({"bootargs=root=31:2 x"}).bytes());
    const std::string path = directory.path("env");
    const unsigned long failures = for_each_allocation_failure(
        [&path](AllocationTrial &trial) {
            const std::string output = capture_stdout(
                [&] { EXPECT_EQ(trial.run([&] { return get_rootid(path.c_str()); }), 0U); });
            EXPECT_EQ(output, trial.failed() ? "" : "pos=31:2\n");
        },
        Allocations::outside_c_library);
    EXPECT_EQ(failures, 1U);
}

// --- save_param ---

/** Loads an image into env_image_mem. */
void load(const EnvironmentImage &image) {
    const std::string bytes = image.bytes();
    std::copy(bytes.begin(), bytes.end(), env_image_mem);
    ASSERT_EQ(set_env_ptr(env_image_mem), image.crc_is_good() ? 0 : 1);
}

TEST(save_param, FailsWithoutACurrentImage) { EXPECT_EQ(saved_before_any_image, -1); }

TEST(save_param, SetsTheVariableAndWritesTheImage) {
    const TemporaryDirectory directory;
    EnvironmentImage model({"a=1", "bootparam=0"});
    load(model);
    const std::vector<int> descriptors = open_descriptors();
    const CountCalls writes(call_write);
    EXPECT_EQ(save_param(directory.path("env").c_str(), "a", "2"), model.set("a", "2"));
    EXPECT_EQ(writes.count(), 1U);
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(directory.read("env"), model.bytes());
    EXPECT_EQ(memory_image(), model.bytes());
}

TEST(save_param, DeletesTheVariableForANullValue) {
    const TemporaryDirectory directory;
    EnvironmentImage model({"a=1", "b=2"});
    load(model);
    EXPECT_EQ(save_param(directory.path("env").c_str(), "a", nullptr),
              model.set("a", std::nullopt));
    EXPECT_EQ(directory.read("env"), model.bytes());
}

TEST(save_param, PrintsNothing) {
    const TemporaryDirectory directory;
    load(EnvironmentImage({}));
    EXPECT_EQ(capture_stdout([&] { save_param(directory.path("env").c_str(), "a", "1"); }), "");
}

TEST(save_param, CreatesTheFileWithMode0644AndReplacesItsContents) {
    const TemporaryDirectory directory;
    EnvironmentImage model({});
    load(model);
    const mode_t mask = umask(0);
    save_param(directory.path("new").c_str(), "a", "1");
    umask(mask);
    EXPECT_EQ(fs::status(directory.path("new")).permissions(), fs::perms{0644});
    directory.write("old", std::string(100000, 'x'));
    fs::permissions(directory.path("old"), fs::perms{0600});
    save_param(directory.path("old").c_str(), "a", "1");
    EXPECT_EQ(fs::status(directory.path("old")).permissions(), fs::perms{0600});
    model.set("a", "1");
    EXPECT_EQ(directory.read("new"), model.bytes());
    EXPECT_EQ(directory.read("old"), model.bytes());
}

TEST(save_param, WritesTheLoadedImageRegardlessOfTheCurrentOne) {
    const TemporaryDirectory directory;
    const EnvironmentImage loaded({"loaded=1"});
    load(loaded);
    const CurrentImage other(EnvironmentImage({"other=1"}).bytes());
    EXPECT_EQ(save_param(directory.path("env").c_str(), "a", "1"), 0);
    EXPECT_EQ(directory.read("env"), loaded.bytes());
    EXPECT_STREQ(get_env("a"), "1");
}

TEST(save_param, LeavesTheFileUnchangedIfTheVariableCannotBeSet) {
    const TemporaryDirectory directory;
    directory.write("env", "as it was");
    const std::string path = directory.path("env");
    load(EnvironmentImage({"a=1"}));
    EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(save_param(path.c_str(), "a=", "1"), -1); }),
              "## Error: illegal character '=' in variable name \"a=\"\n");
    const std::string too_long(65536, 'v');
    EXPECT_EQ(
        capture_stdout([&] { EXPECT_EQ(save_param(path.c_str(), "a", too_long.c_str()), -1); }),
        "## Error: environment overflow, \"a\" deleted\n");
    EXPECT_EQ(directory.read("env"), "as it was");
    EXPECT_EQ(get_env("a"), nullptr);
}

TEST(save_param, SetsTheVariableInMemoryIfTheFileCannotBeOpened) {
    const TemporaryDirectory directory;
    for (const std::string &path : {directory.path("missing/env"), directory.path(), ""s}) {
        EnvironmentImage model({"a=1"});
        load(model);
        EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(save_param(path.c_str(), "a", "2"), 0); }),
                  "Err: open file " + path + " failed\n");
        model.set("a", "2");
        EXPECT_EQ(memory_image(), model.bytes());
    }
    EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(save_param(nullptr, "a", "2"), 0); }),
              "Err: open file  failed\n");
}

TEST(save_param, TreatsDescriptorZeroAsAFailure) {
    const TemporaryDirectory directory;
    load(EnvironmentImage({"a=1"}));
    const std::string path = directory.path("env");
    const ChildResult child = run_in_child([&path] {
        close(STDIN_FILENO);
        return save_param(path.c_str(), "a", "2");
    });
    EXPECT_EQ(child.out, "Err: open file " + path + " failed\n");
    EXPECT_EQ(child.exit_status, 0);
    EXPECT_EQ(directory.read("env"), "");
}

TEST(save_param, IgnoresWriteErrors) {
    const TemporaryDirectory directory;
    load(EnvironmentImage({"a=1"}));
    const std::string path = directory.path("env");
    const std::vector<int> descriptors = open_descriptors();
    const std::string output = capture_stdout([&path] {
        const FailCall failing(call_write, 1, ENOSPC);
        EXPECT_EQ(save_param(path.c_str(), "a", "2"), 0);
        EXPECT_EQ(failing.failures(), 1U);
    });
    EXPECT_EQ(output, "");
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST(save_param, FlushesTheFileToItsDeviceBeforeClosingIt) {
    const TemporaryDirectory directory;
    EnvironmentImage model({"a=1"});
    load(model);
    model.set("a", "2");
    const std::string path = directory.path("env");
    std::vector<std::string> flushed;
    for (const int result : {0, -1}) {
        const Instead in_place_of_fsync(instead_of_fsync, [&](int descriptor) {
            // The file is still open.
            EXPECT_EQ(fs::read_symlink("/proc/self/fd/" + std::to_string(descriptor)), path);
            flushed.push_back(directory.read("env"));
            errno = EIO;
            return result;
        });
        const std::vector<int> descriptors = open_descriptors();
        EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(save_param(path.c_str(), "a", "2"), 0); }), "");
        EXPECT_EQ(open_descriptors(), descriptors);
    }
    EXPECT_EQ(flushed, (std::vector<std::string>{model.bytes(), model.bytes()}));
    EXPECT_EQ(directory.read("env"), model.bytes());
}

TEST(save_param, PreservesAnyBytesOfTheImage) {
    const TemporaryDirectory directory;
    const std::string path = directory.path("env");
    std::string counting;
    for (std::size_t i = 0; i < EnvironmentImage::data_size; ++i)
        counting += static_cast<char>(i % 251);
    for (const std::string &data : {std::string(EnvironmentImage::data_size, '\xFF'),
                                    std::string(EnvironmentImage::data_size, '\0'), counting}) {
        EnvironmentImage model = EnvironmentImage::of_data(data, 0);
        load(model);
        EXPECT_EQ(save_param(path.c_str(), "missing", nullptr), model.set("missing", std::nullopt));
        EXPECT_EQ(directory.read("env"), model.bytes());
        EXPECT_EQ(init_env(path.c_str()), 0);
        EXPECT_EQ(memory_image(), model.bytes());
    }
}

} // namespace
