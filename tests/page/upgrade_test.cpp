// SPDX-License-Identifier: MIT
// Upgrades of a device whose flash is files in a private root. After each run a model of the boot
// loader starts the device: it reads `bootparam` from the environment if its CRC is right, and
// starts set A otherwise.
#include <corvel_page.h>

#include <corvel.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "tests/firmware/flash.h"
#include "tests/firmware/upgrade_image.h"
#include "tests/support/child_process.h"
#include "tests/support/descriptors.h"
#include "tests/support/kill_points.h"
#include "tests/support/next_definition.h"
#include "tests/support/output_capture.h"
#include "tests/support/private_root.h"
#include "tests/support/stand_in.h"
#include "tests/support/temporary_directory.h"

using namespace corvel_test;

namespace {

std::function<ssize_t(int, const void *, std::size_t, off_t)> instead_of_pwrite;
std::function<int(int)> instead_of_fsync;
bool fork_fails;

} // namespace

extern "C" pid_t fork() C_LIBRARY_NOEXCEPT {
    static auto *const next = next_definition<pid_t()>("fork");
    return fork_fails ? -1 : next();
}

extern "C" ssize_t pwrite(int file, const void *bytes, std::size_t size, off_t offset) {
    static auto *const next =
        next_definition<ssize_t(int, const void *, std::size_t, off_t)>("pwrite");
    return instead_of_pwrite ? instead_of_pwrite(file, bytes, size, offset)
                             : next(file, bytes, size, offset);
}

extern "C" int fsync(int file) {
    static auto *const next = next_definition<int(int)>("fsync");
    return instead_of_fsync ? instead_of_fsync(file) : next(file);
}

namespace {

constexpr int A = CORVEL_FIRMWARE_A;
constexpr int B = CORVEL_FIRMWARE_B;
constexpr int unknown = CORVEL_FIRMWARE_UNKNOWN;

// Two erase blocks and a part of one; one and a part of one.
constexpr std::size_t root_size = 140'000;
constexpr std::size_t kernel_size = 70'000;
constexpr const char *image_path = "/tmp/image.bin";
constexpr const char *record_path = "/run/upgrade";
constexpr corvel_upgrade_rules rules = {"/tmp/cmdline", nullptr};

unsigned root_of(int set) { return set == A ? 2 : 4; }
int other(int set) { return set == A ? B : A; }

/** The content of a partition: its version, then bytes that differ from place to place. */
std::string content(const std::string &version, std::size_t size) {
    std::string bytes = version + "\n";
    std::uint32_t state = reference_crc(version);
    while (bytes.size() < size) {
        state = state * 1664525 + 1013904223;
        bytes += static_cast<char>(state >> 24);
    }
    return bytes;
}

std::string new_root(std::size_t size = root_size - 1000) { return content("root new", size); }
std::string new_kernel(std::size_t size = kernel_size - 1000) {
    return content("kernel new", size);
}

Section root_section(const std::string &signature = "root") { return {signature, new_root()}; }
Section kernel_section(const std::string &signature = "kern") { return {signature, new_kernel()}; }
std::string new_image() { return upgrade_image({root_section(), kernel_section()}); }

std::string in_partition(const std::string &data, std::size_t size) {
    return data + std::string(size - data.size(), '\xFF');
}

std::string command_line(int set) {
    return "console=ttyS0 root=31:" + std::to_string(root_of(set)) + " rootfstype=squashfs\n";
}

using Contents = std::map<unsigned, std::string>;

Contents flash() {
    Contents contents;
    for (unsigned index = 0; index < 9; ++index)
        contents[index] = read_file(block_device(index));
    return contents;
}

Contents set_in(const Contents &contents, int set) {
    return {{0, contents.at(root_of(set))}, {1, contents.at(root_of(set) + 1)}};
}

/** The content of a set's partitions by its version, "old" or "new". */
Contents set_of(const std::string &version) {
    const bool is_new = version == "new";
    return {{0, in_partition(is_new ? new_root() : content("root old", 130'000), root_size)},
            {1, in_partition(is_new ? new_kernel() : content("kernel old", 68'000), kernel_size)}};
}

/** The version of a set on the flash: "old", "new", or "incomplete". */
std::string version_on(const Contents &contents, int set) {
    static const Contents old_set = set_of("old");
    static const Contents new_set = set_of("new");
    const Contents found = set_in(contents, set);
    return found == old_set ? "old" : found == new_set ? "new" : "incomplete";
}

/** The value of a variable in an environment with a right CRC. */
std::optional<std::string> variable(const std::string &environment, const std::string &name) {
    if (environment.size() != CORVEL_ENV_SIZE ||
        environment.substr(0, 4) != stored(reference_crc(environment.substr(4))))
        return std::nullopt;
    for (std::size_t at = 4; environment[at] != '\0';) {
        const std::string entry = &environment[at];
        if (entry.starts_with(name + "="))
            return entry.substr(name.size() + 1);
        at += entry.size() + 1;
    }
    return std::nullopt;
}

/** The set that the boot loader starts. */
int booted(const Contents &contents) {
    const std::optional<std::string> value = variable(contents.at(1), "bootparam");
    return value && std::stoi(*value) % 2 == 1 ? B : A;
}

/** How a device is before an upgrade. */
struct Device {
    int running = A;
    std::string environment = EnvironmentImage({"bootdelay=1", "bootparam=0"}).bytes();
    std::string line = command_line(A);
    std::string other_set = "erased";
    std::string image = new_image();
    bool is_recorded = false; /**< An earlier upgrade has written the other set. */
};

Device running_b() {
    return {B, EnvironmentImage({"bootparam=1", "bootdelay=1"}).bytes(), command_line(B)};
}

void write_set(int set, const std::string &version) {
    const Contents halves = set_of(version);
    write_file(block_device(root_of(set)), halves.at(0));
    write_file(block_device(root_of(set) + 1), halves.at(1));
}

void install(const Device &device) {
    for (const unsigned index : {0U, 6U, 7U, 8U})
        write_file(block_device(index), content("partition " + std::to_string(index), 1000));
    write_file(environment_device, device.environment);
    write_set(device.running, "old");
    if (device.other_set == "old") {
        write_set(other(device.running), "old");
    } else {
        const unsigned root = root_of(other(device.running));
        write_file(block_device(root), std::string(root_size, '\xFF'));
        write_file(block_device(root + 1), std::string(kernel_size, '\xFF'));
    }
    write_file("/tmp/cmdline", device.line);
    write_file(image_path, device.image);
    unlink(record_path);
}

/** Runs a piece of a test on a device. */
void on(const Device &device, const std::function<void()> &body) {
    in_private_root([&] {
        mkdir("/run", 0755);
        install(device);
        body();
    });
}

corvel_upgrade_result upgrade(corvel_upgrade_progress *progress = nullptr,
                              void *context = nullptr) {
    return corvel_upgrade_write(&rules, image_path, progress, context);
}

corvel_boot boot() {
    corvel_boot found;
    corvel_boot_read(&rules, &found);
    return found;
}

corvel_upgrade_status status() {
    corvel_upgrade_status found;
    corvel_upgrade_read(&rules, &found);
    return found;
}

corvel_upgrade_result check(corvel_upgrade_report *report = nullptr) {
    return corvel_upgrade_check(&rules, image_path, report);
}

/** The device starts again: files in memory are gone, and the kernel is that of the booted set. */
void restart() {
    unlink(record_path);
    write_file("/tmp/cmdline", command_line(booted(flash())));
}

// --- Which set runs
// -------------------------------------------------------------------------------

TEST(corvel_boot_read, NamesTheRunningSetByTheCommandLine) {
    on({}, [] {
        const std::vector<std::pair<std::string, int>> lines = {
            {"root=31:2\n", A},
            {"root=31:4", B},
            {"ro root=/dev/mtdblock4 quiet\n", B},
            {"root=/dev/mtdblock2\n", A},
            {"root=1f04\n", B},
            {"root=31:2 root=31:4\n", B},
            {"root=31:4 -- root=31:2\n", B},
            {"root=31:4 x=\"y root=31:2 z\"\n", B},
            {"root=\"31:4\"\n", B},
            {"nfsroot=31:2\troot=31:4\n", B},
            {"x\"root=31:2\" \"root=31:4\"\n", B},
            {"root=31:4 \"x -- root=31:2\"\n", B},
            {std::string(16'000, 'x') + " root=31:4\n", B},
            // No set is named: the environment counts, which names A.
            {"root=31:4 root=/dev/nfs\n", A},
            {"root=31:40\n", A},
            {"root=31:5\n", A},
            {"root=31:4" + std::string(100, '0') + "\n", A},
            {"quiet\n", A},
            {"", A},
            {"root=31:4 " + std::string(16'384 - 10, 'x'), A},
            {"root=31:4 " + std::string(70'000, 'x') + "\n", A},
        };
        for (const auto &[line, set] : lines) {
            write_file("/tmp/cmdline", line);
            EXPECT_EQ(boot().running, set) << line.substr(0, 80);
            EXPECT_EQ(boot().next, A);
        }
    });
}

TEST(corvel_boot_read, ReadsTheEnvironmentIfThereIsNoCommandLine) {
    on(running_b(), [] {
        unlink("/tmp/cmdline");
        EXPECT_EQ(boot().running, B);
        write_environment({"bootdelay=1"});
        EXPECT_EQ(boot().running, unknown);
        EXPECT_EQ(boot().next, unknown);
    });
}

TEST(corvel_boot_read, ReadsTheKernelsOwnCommandLineByDefault) {
    on(running_b(), [] {
        ASSERT_EQ(mount("/tmp/cmdline", "/proc/cmdline", nullptr, MS_BIND, nullptr), 0);
        write_environment({"bootparam=0"});
        corvel_boot found;
        corvel_boot_read(nullptr, &found);
        EXPECT_EQ(found.running, B);
        EXPECT_EQ(found.next, A);
        const corvel_upgrade_rules defaults = {};
        corvel_boot_read(&defaults, &found);
        EXPECT_EQ(found.running, B);
    });
}

TEST(corvel_boot_read, ReadsTheSetThatBootsFromAGoodEnvironmentOnly) {
    struct Case {
        std::string environment;
        int next;
        bool can_change;
    };
    const std::string noise = "noise" + std::string(65'527, '\0');
    const std::vector<Case> cases = {
        {EnvironmentImage({"bootparam=1"}).bytes(), B, true},
        {EnvironmentImage({"bootparam=2"}).bytes(), A, true},
        {EnvironmentImage({"bootparam=x"}).bytes(), A, true},
        {EnvironmentImage({"bootparam=-1"}).bytes(), unknown, true},
        {EnvironmentImage({"xbootparam=1"}).bytes(), unknown, true},
        {EnvironmentImage({}).bytes(), unknown, true},
        {EnvironmentImage::of_data(EnvironmentImage({"bootparam=1"}).data(), 1).bytes(), unknown,
         true},
        {EnvironmentImage::of_data(EnvironmentImage({}).data(), 1).bytes(), unknown, false},
        {EnvironmentImage::of_data(noise, 1).bytes(), unknown, false},
        {EnvironmentImage::of_data(noise).bytes(), unknown, false},
        {EnvironmentImage::of_data(std::string(65'532, '=')).bytes(), unknown, false},
        {std::string(65'536, '\xFF'), unknown, false},
        {std::string(65'536, '\0'), unknown, false},
        {EnvironmentImage({"bootparam=1"}).bytes().substr(0, 65'535), unknown, false},
        {"", unknown, false},
    };
    on({}, [&cases] {
        for (std::size_t i = 0; i < cases.size(); ++i) {
            write_file(environment_device, cases[i].environment);
            EXPECT_EQ(capture_stdout([&] {
                          EXPECT_EQ(boot().next, cases[i].next) << i;
                          EXPECT_EQ(boot().can_change, cases[i].can_change) << i;
                      }),
                      "")
                << i;
            EXPECT_EQ(boot().running, A);
            EXPECT_EQ(read_file(environment_device), cases[i].environment);
        }
        unlink(environment_device);
        EXPECT_EQ(boot().next, unknown);
        EXPECT_FALSE(boot().can_change);
    });
}

TEST(corvel_boot_read, RemembersTheRunningSetUntilTheRestart) {
    Device device;
    device.line = "root=/dev/root\n";
    on(device, [] {
        EXPECT_EQ(boot().running, A);
        ASSERT_EQ(upgrade(), CORVEL_UPGRADE_DONE);
        EXPECT_EQ(boot().running, A);
        EXPECT_EQ(boot().next, B);
        const Contents before = flash();
        EXPECT_EQ(upgrade(), CORVEL_UPGRADE_RESTART_FIRST);
        EXPECT_EQ(flash(), before);
        unlink(record_path); // the restart
        EXPECT_EQ(boot().running, B);
    });
}

TEST(corvel_boot_read, IgnoresARecordOfAnotherUserAndALink) {
    Device device;
    device.line = "quiet\n";
    on(device, [] {
        ASSERT_EQ(upgrade(), CORVEL_UPGRADE_DONE);
        ASSERT_EQ(boot().running, A);
        ASSERT_EQ(chown(record_path, ordinary_user_id, 0), 0);
        EXPECT_EQ(boot().running, B);
        ASSERT_EQ(chown(record_path, 0, 0), 0);
        ASSERT_EQ(rename(record_path, "/tmp/record"), 0);
        ASSERT_EQ(symlink("/tmp/record", record_path), 0);
        EXPECT_EQ(boot().running, B);
        EXPECT_EQ(corvel_boot_select(&rules, A), CORVEL_UPGRADE_NO_RECORD);
    });
}

// --- Checking an image
// ----------------------------------------------------------------------------

TEST(corvel_upgrade_check, ReportsWhatWouldBeWritten) {
    on({}, [] {
        const Contents before = flash();
        corvel_upgrade_report report;
        EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(check(&report), CORVEL_UPGRADE_DONE); }), "");
        EXPECT_EQ(report.set, B);
        EXPECT_EQ(report.count, 2U);
        EXPECT_STREQ(report.failed, "");
        EXPECT_STREQ(report.sections[0].name, "Rootfs");
        EXPECT_STREQ(report.sections[0].target, "Rootfs-1");
        EXPECT_EQ(report.sections[0].device, 4U);
        EXPECT_EQ(report.sections[0].size, new_root().size());
        EXPECT_STREQ(report.sections[1].name, "Linux_kernel");
        EXPECT_STREQ(report.sections[1].target, "Linux_kernel-1");
        EXPECT_EQ(report.sections[1].device, 5U);
        EXPECT_EQ(report.sections[1].size, new_kernel().size());
        EXPECT_STREQ(report.version, "1.2.3");
        EXPECT_EQ(flash(), before);
        EXPECT_NE(access(record_path, F_OK), 0);
    });
    on(running_b(), [] {
        corvel_upgrade_report report;
        EXPECT_EQ(check(&report), CORVEL_UPGRADE_DONE);
        EXPECT_EQ(report.set, A);
        EXPECT_STREQ(report.sections[0].target, "Rootfs");
        EXPECT_EQ(report.sections[1].device, 3U);
    });
}

TEST(corvel_upgrade_check, ShowsTheTextAtTheStartOfTheVersionSection) {
    const std::vector<std::pair<std::string, std::string>> versions = {
        {"", ""},     {std::string("R1 \xC3\xA9\0\0", 7), "R1 \xC3\xA9"}, {"a\nb", "a"},
        {"\xFF", ""}, {std::string(100, 'v'), std::string(63, 'v')},
    };
    on({}, [&versions] {
        for (const auto &[text, shown] : versions) {
            write_file(image_path, upgrade_image({root_section(), kernel_section()}, text));
            corvel_upgrade_report report;
            EXPECT_EQ(check(&report), CORVEL_UPGRADE_DONE);
            EXPECT_EQ(report.version, shown);
        }
    });
}

TEST(corvel_upgrade_check, AcceptsAnImageOfTheOtherSetsOwnSections) {
    Device device;
    device.image = upgrade_image({kernel_section(), root_section("rfs1")});
    on(device, [] { EXPECT_EQ(check(), CORVEL_UPGRADE_DONE); });
    device.image = upgrade_image({root_section("rfs1"), kernel_section("knl1")});
    on(device, [] { EXPECT_EQ(check(), CORVEL_UPGRADE_DONE); });
}

TEST(corvel_upgrade_check, SkipsSectionsWithUnknownSignatures) {
    Device device;
    device.image = upgrade_image(
        {{"note", "hello"}, root_section(), {"more", std::string(70'000, 'x')}, kernel_section()});
    on(device, [] { EXPECT_EQ(check(), CORVEL_UPGRADE_DONE); });
}

TEST(corvel_upgrade_check, AcceptsASectionThatFillsItsPartition) {
    Device device;
    device.image = upgrade_image({{"root", new_root(root_size)},
                                  {"kern", new_kernel(kernel_size), 0, 0, std::string(9, 'p')}});
    on(device, [] { EXPECT_EQ(check(), CORVEL_UPGRADE_DONE); });
}

TEST(corvel_upgrade_check, DoesNotNeedTheSumOfASectionThatIsNotToBeVerified) {
    Device device;
    const std::string data = new_root(5000);
    const std::string root = raw_section("root", 0, 255, 0, 5001, data + "?");
    device.image = with_crc(root + kernel_section().bytes() + version_section());
    on(device, [] { EXPECT_EQ(check(), CORVEL_UPGRADE_DONE); });
}

struct Refusal {
    std::string image;
    corvel_upgrade_result result;
    std::string failed = {};
};

std::vector<Refusal> refusals() {
    const std::string root = root_section().bytes();
    const std::string kernel = kernel_section().bytes();
    const std::string end = version_section();
    const std::string good = new_image();
    std::string damaged = good;
    damaged[1000] ^= 1;
    std::string wrong_crc = good;
    wrong_crc.back() ^= 1;
    std::string last_wrong = good;
    last_wrong[good.size() - 7] ^= 1; // in the version, which has no sum
    return {
        {"", CORVEL_UPGRADE_NO_IMAGE},
        {"x", CORVEL_UPGRADE_NO_IMAGE},
        {std::string(20, '\0'), CORVEL_UPGRADE_NO_IMAGE},
        {std::string(50'000, '\0'), CORVEL_UPGRADE_NO_IMAGE},
        {std::string(21, '\xFF'), CORVEL_UPGRADE_NO_IMAGE},
        {Section{"note", "hello"}.bytes(), CORVEL_UPGRADE_NO_IMAGE},
        {good.substr(0, 1000), CORVEL_UPGRADE_TRUNCATED},
        {good.substr(0, root.size() + 100), CORVEL_UPGRADE_TRUNCATED},
        {good.substr(0, good.size() - 1), CORVEL_UPGRADE_TRUNCATED},
        {damaged, CORVEL_UPGRADE_SECTION_DAMAGED, "Rootfs"},
        {with_crc(raw_section("root", 0, 0, 5, 5, std::string("abc\0\xDA", 5)) + kernel + end),
         CORVEL_UPGRADE_SECTION_DAMAGED, "Rootfs"},
        {with_crc(raw_section("root", 0, 255, 0xFFFFFFFF, 5, "abcde") + kernel + end),
         CORVEL_UPGRADE_SECTION_DAMAGED, "Rootfs"},
        {upgrade_image({{"root", new_root(root_size + 1)}, kernel_section()}),
         CORVEL_UPGRADE_TOO_LARGE, "Rootfs"},
        {with_crc(
             root +
             raw_section("kern", 0, 255, 0, kernel_size + 2, std::string(kernel_size + 2, 'k')) +
             end),
         CORVEL_UPGRADE_TOO_LARGE, "Linux_kernel"},
        {upgrade_image({root_section(), {"kern", ""}}), CORVEL_UPGRADE_EMPTY, "Linux_kernel"},
        {upgrade_image({{"root", std::string(100, '\xFF')}, kernel_section()}),
         CORVEL_UPGRADE_EMPTY, "Rootfs"},
        {with_crc(root + root + kernel + end), CORVEL_UPGRADE_TWICE, "Rootfs"},
        {with_crc(root + kernel + root_section("rfs1").bytes() + end), CORVEL_UPGRADE_TWICE,
         "Rootfs-1"},
        {with_crc(Section{"boot", "x"}.bytes() + root + kernel + end),
         CORVEL_UPGRADE_OTHER_PARTITION, "Boot"},
        {with_crc(root + kernel + Section{"benv", "bootparam=1"}.bytes() + end),
         CORVEL_UPGRADE_OTHER_PARTITION, "Boot-env"},
        {with_crc(Section{"log0", "x"}.bytes() + end), CORVEL_UPGRADE_OTHER_PARTITION, "Log"},
        {with_crc(Section{"conf", "x"}.bytes() + end), CORVEL_UPGRADE_OTHER_PARTITION, "Config"},
        {with_crc(Section{"artp", "x"}.bytes() + end), CORVEL_UPGRADE_OTHER_PARTITION, "ART"},
        {root + kernel, CORVEL_UPGRADE_NO_VERSION},
        {with_crc(root + kernel + end + end), CORVEL_UPGRADE_NO_VERSION},
        {with_crc(root + end + kernel), CORVEL_UPGRADE_NO_VERSION},
        {good + "x", CORVEL_UPGRADE_NO_VERSION},
        {with_crc(root + kernel + raw_section("Ver0", 0, 9, 0, 7, std::string(7, '\0'))),
         CORVEL_UPGRADE_NO_VERSION},
        {root + kernel + raw_section("Ver0", 0, 255, 0, 3, "abc"), CORVEL_UPGRADE_NO_VERSION},
        {wrong_crc, CORVEL_UPGRADE_BAD_CRC},
        {last_wrong, CORVEL_UPGRADE_BAD_CRC},
        {with_crc(end), CORVEL_UPGRADE_HALF_A_SET},
        {with_crc(root + end), CORVEL_UPGRADE_HALF_A_SET},
        {with_crc(kernel + end), CORVEL_UPGRADE_HALF_A_SET},
    };
}

TEST(corvel_upgrade_check, RefusesWrongImagesAndNamesTheSection) {
    const std::vector<Refusal> cases = refusals();
    on({}, [&cases] {
        for (std::size_t i = 0; i < cases.size(); ++i) {
            write_file(image_path, cases[i].image);
            const Contents before = flash();
            corvel_upgrade_report report;
            EXPECT_EQ(check(&report), cases[i].result) << i;
            EXPECT_EQ(report.failed, cases[i].failed) << i;
            EXPECT_EQ(upgrade(), cases[i].result) << i;
            EXPECT_EQ(corvel_upgrade_start(&rules, image_path, nullptr, nullptr), cases[i].result);
            EXPECT_EQ(flash(), before) << i;
            EXPECT_EQ(status().state, CORVEL_UPGRADE_IDLE) << i;
        }
    });
}

TEST(corvel_upgrade_check, RefusesSectionsForTheRunningSet) {
    Device device = running_b();
    device.image = upgrade_image({root_section("rfs1"), kernel_section("knl1")});
    on(device, [] {
        corvel_upgrade_report report;
        EXPECT_EQ(check(&report), CORVEL_UPGRADE_RUNNING_SET);
        EXPECT_STREQ(report.failed, "Rootfs-1");
        EXPECT_EQ(report.count, 0U);
        write_file(image_path, upgrade_image({root_section(), kernel_section("knl1")}));
        EXPECT_EQ(check(&report), CORVEL_UPGRADE_RUNNING_SET);
        EXPECT_STREQ(report.failed, "Linux_kernel-1");
        EXPECT_EQ(report.count, 1U);
    });
}

TEST(corvel_upgrade_check, RefusesASectionAboveTheSizeOfTheDesignEvenIfTheDeviceIsLarger) {
    constexpr std::size_t largest = 0x100000;
    Device device;
    device.image = upgrade_image({root_section(), {"kern", new_kernel(largest)}});
    on(device, [] {
        ASSERT_EQ(truncate("/dev/mtdblock5", 2 * largest), 0);
        EXPECT_EQ(check(), CORVEL_UPGRADE_DONE);
        write_file(image_path, upgrade_image({root_section(), {"kern", new_kernel(largest + 1)}}));
        EXPECT_EQ(check(), CORVEL_UPGRADE_TOO_LARGE);
    });
}

TEST(corvel_upgrade_check, TakesRegularFilesOfAtMost16MiBOnly) {
    on({}, [] {
        ASSERT_EQ(truncate(image_path, 0x1000000), 0);
        EXPECT_EQ(check(), CORVEL_UPGRADE_NO_VERSION);
        ASSERT_EQ(truncate(image_path, 0x1000001), 0);
        EXPECT_EQ(check(), CORVEL_UPGRADE_NO_IMAGE);
        write_file("/tmp/real", new_image());
        unlink(image_path);
        EXPECT_EQ(check(), CORVEL_UPGRADE_NO_IMAGE);
        ASSERT_EQ(symlink("/tmp/real", image_path), 0);
        EXPECT_EQ(check(), CORVEL_UPGRADE_NO_IMAGE);
        unlink(image_path);
        ASSERT_EQ(mkfifo(image_path, 0600), 0);
        EXPECT_EQ(check(), CORVEL_UPGRADE_NO_IMAGE);
        EXPECT_EQ(corvel_upgrade_check(&rules, nullptr, nullptr), CORVEL_UPGRADE_NO_IMAGE);
        EXPECT_EQ(corvel_upgrade_check(&rules, "/tmp", nullptr), CORVEL_UPGRADE_NO_IMAGE);
        EXPECT_EQ(corvel_upgrade_check(&rules, "/tmp/real", nullptr), CORVEL_UPGRADE_DONE);
    });
}

TEST(corvel_upgrade_check, RefusesADeviceThatIsNotReady) {
    on({}, [] {
        corvel_upgrade_report report;
        write_environment({"bootparam=1"});
        EXPECT_EQ(check(&report), CORVEL_UPGRADE_RESTART_FIRST);
        EXPECT_EQ(report.set, unknown);
        EXPECT_EQ(report.count, 0U);
        write_environment({"bootdelay=1"});
        write_file("/tmp/cmdline", "root=/dev/nfs\n");
        EXPECT_EQ(check(), CORVEL_UPGRADE_NO_RUNNING_SET);
        write_file("/tmp/cmdline", command_line(A));
        EXPECT_EQ(check(), CORVEL_UPGRADE_DONE);
        write_file(environment_device, std::string(65'536, '\xFF'));
        EXPECT_EQ(check(), CORVEL_UPGRADE_NO_ENVIRONMENT);
        unlink(environment_device);
        EXPECT_EQ(check(), CORVEL_UPGRADE_NO_ENVIRONMENT);
    });
}

TEST(corvel_upgrade_check, NeedsRoomForThreeVariablesInTheEnvironment) {
    on({}, [] {
        // The entry, its NUL, and 165 bytes less one, and 165 bytes.
        const std::size_t longest = CORVEL_ENV_DATA_SIZE - 1 - 165;
        write_environment({"x=" + std::string(longest - 1, 'x')});
        EXPECT_EQ(check(), CORVEL_UPGRADE_ENVIRONMENT_FULL);
        EXPECT_EQ(upgrade(), CORVEL_UPGRADE_ENVIRONMENT_FULL);
        write_environment({"x=" + std::string(longest - 2, 'x')});
        EXPECT_EQ(check(), CORVEL_UPGRADE_DONE);
        EXPECT_EQ(capture_stdout([] { EXPECT_EQ(upgrade(), CORVEL_UPGRADE_DONE); }), "");
        EXPECT_EQ(boot().next, B);
    });
}

TEST(corvel_upgrade_check, RefusesIfAPartitionOfTheOtherSetCannotBeOpened) {
    on({}, [] {
        for (const char *const path : {"/dev/mtdblock4", "/dev/mtdblock5"}) {
            install({});
            unlink(path);
            EXPECT_EQ(check(), CORVEL_UPGRADE_UNREADABLE);
            EXPECT_EQ(upgrade(), CORVEL_UPGRADE_UNREADABLE);
        }
    });
}

TEST(corvel_upgrade_check, CopiesNothing) {
    on({}, [] {
        const CountCalls allocated(call_allocation);
        EXPECT_EQ(check(), CORVEL_UPGRADE_DONE);
        EXPECT_EQ(allocated.count(), 0U);
        const DescriptorWatch watch;
        EXPECT_EQ(check(), CORVEL_UPGRADE_DONE);
    });
}

// --- Writing
// --------------------------------------------------------------------------------------

TEST(corvel_upgrade_write, WritesTheOtherSetWhichThenBoots) {
    for (const Device &device : {Device{}, running_b()}) {
        on(device, [&device] {
            const Contents before = flash();
            const RecordSyslog no_socket;
            const DescriptorWatch watch;
            EXPECT_EQ(capture_stdout([] { EXPECT_EQ(upgrade(), CORVEL_UPGRADE_DONE); }), "");
            const Contents after = flash();
            EXPECT_EQ(version_on(after, device.running), "old");
            EXPECT_EQ(version_on(after, other(device.running)), "new");
            EXPECT_EQ(booted(after), other(device.running));
            for (const unsigned index : {0U, 6U, 7U, 8U})
                EXPECT_EQ(after.at(index), before.at(index)) << index;
            EXPECT_EQ(variable(after.at(1), "bootdelay"), "1");
            EXPECT_EQ(boot().running, device.running);
            EXPECT_EQ(boot().next, other(device.running));
            EXPECT_EQ(status().state, CORVEL_UPGRADE_WRITTEN);
            EXPECT_EQ(status().result, CORVEL_UPGRADE_DONE);
        });
    }
}

TEST(corvel_upgrade_write, GoesFromSetToSet) {
    on({}, [] {
        ASSERT_EQ(upgrade(), CORVEL_UPGRADE_DONE);
        restart();
        EXPECT_EQ(boot().running, B);
        ASSERT_EQ(upgrade(), CORVEL_UPGRADE_DONE);
        restart();
        EXPECT_EQ(boot().running, A);
        EXPECT_EQ(version_on(flash(), A), "new");
        ASSERT_EQ(upgrade(), CORVEL_UPGRADE_DONE);
        EXPECT_EQ(booted(flash()), B);
    });
}

TEST(corvel_upgrade_write, RecordsTheHashesOfBothSets) {
    on({}, [] {
        ASSERT_EQ(upgrade(), CORVEL_UPGRADE_DONE);
        for (const char *const name : {"firmware_a", "firmware_b"}) {
            const std::optional<std::string> value = variable(read_file(environment_device), name);
            ASSERT_TRUE(value);
            EXPECT_EQ(value->size(), 64U);
        }
        EXPECT_EQ(corvel_firmware_check(A), CORVEL_FIRMWARE_COMPLETE);
        EXPECT_EQ(corvel_firmware_check(B), CORVEL_FIRMWARE_COMPLETE);
    });
}

TEST(corvel_upgrade_write, RepairsAnEnvironmentWithAWrongCrcBeforeItWritesTheSet) {
    for (const int running : {A, B}) {
        Device device = running == A ? Device{} : running_b();
        for (const EnvironmentImage &environment :
             {EnvironmentImage::of_data(EnvironmentImage({"x=1", "bootparam=1"}).data(), 1),
              EnvironmentImage({"x=1"}), EnvironmentImage({"x=1", "bootparam=-1"}),
              EnvironmentImage({"x=1", "bootparam=-1", "bootparam=-3"})}) {
            device.environment = environment.bytes();
            on(device, [running] {
                int next_at_first = unknown;
                const auto look = [](void *context, const corvel_upgrade_status *at) {
                    if (at->written != 0 && *static_cast<int *>(context) == unknown)
                        *static_cast<int *>(context) = booted(flash());
                    return true;
                };
                EXPECT_EQ(upgrade(look, &next_at_first), CORVEL_UPGRADE_DONE);
                EXPECT_EQ(next_at_first, running);
                EXPECT_EQ(booted(flash()), other(running));
                EXPECT_EQ(variable(read_file(environment_device), "x"), "1");
            });
        }
    }
}

/** What is on the device at each report. */
struct Step {
    corvel_upgrade_state state;
    std::string section;
    std::uint32_t written;
    std::uint32_t total;
    bool root_is_marked;
    bool kernel_is_marked;
    int next;
    bool operator==(const Step &) const = default;
    friend std::ostream &operator<<(std::ostream &out, const Step &step) {
        return out << step.state << " " << step.section << " " << step.written << " of "
                   << step.total << (step.root_is_marked ? " root marked" : "")
                   << (step.kernel_is_marked ? " kernel marked" : "") << " next " << step.next;
    }
};

bool is_marked(const std::string &partition) {
    return partition.starts_with(std::string(4096, '\xFF'));
}

bool note_step(void *steps, const corvel_upgrade_status *at) {
    const Contents now = flash();
    static_cast<std::vector<Step> *>(steps)->push_back({at->state, at->section, at->written,
                                                        at->total, is_marked(now.at(4)),
                                                        is_marked(now.at(5)), booted(now)});
    const corvel_upgrade_status recorded = status();
    EXPECT_EQ(recorded.state, at->state);
    EXPECT_EQ(recorded.written, at->written);
    EXPECT_EQ(recorded.total, at->total);
    EXPECT_EQ(recorded.set, B);
    EXPECT_STREQ(recorded.section, at->section);
    return true;
}

TEST(corvel_upgrade_write, WritesTheFirstBlocksLastAndSwitchesAfterThem) {
    Device device;
    device.other_set = "old";
    on(device, [] {
        std::vector<Step> steps;
        ASSERT_EQ(upgrade(note_step, &steps), CORVEL_UPGRADE_DONE);
        const corvel_upgrade_state writing = CORVEL_UPGRADE_WRITING;
        const std::uint32_t root = root_size - 1000;
        const std::uint32_t kernel = kernel_size - 1000;
        const std::uint32_t block = 65'536;
        const std::uint32_t all = root + kernel;
        const std::vector<Step> expected = {
            {writing, "Rootfs-1", block, all, true, true, A},
            {writing, "Rootfs-1", root - block, all, true, true, A},
            {writing, "Linux_kernel-1", all - 2 * block, all, true, true, A},
            {writing, "Rootfs-1", all - block, all, false, true, A},
            {writing, "Linux_kernel-1", all, all, false, false, A},
            {writing, "Linux_kernel-1", all, all, false, false, A},
            {CORVEL_UPGRADE_WRITTEN, "Linux_kernel-1", all, all, false, false, B},
        };
        EXPECT_EQ(steps, expected);
    });
}

TEST(corvel_upgrade_write, EndsIfTheProgressFunctionReturnsFalse) {
    for (std::size_t end = 1; end <= 6; ++end) {
        on({}, [end] {
            std::size_t calls = end;
            const auto count = [](void *context, const corvel_upgrade_status *at) {
                std::size_t &left = *static_cast<std::size_t *>(context);
                return at->state != CORVEL_UPGRADE_WRITING || --left != 0;
            };
            EXPECT_EQ(upgrade(count, &calls), CORVEL_UPGRADE_CANCELLED);
            EXPECT_EQ(calls, 0U);
            EXPECT_EQ(booted(flash()), A);
            EXPECT_EQ(status().state, CORVEL_UPGRADE_FAILED);
            EXPECT_EQ(status().result, CORVEL_UPGRADE_CANCELLED);
            EXPECT_NE(corvel_firmware_check(B), CORVEL_FIRMWARE_COMPLETE);
            EXPECT_EQ(upgrade(), CORVEL_UPGRADE_DONE);
            EXPECT_EQ(version_on(flash(), B), "new");
        });
    }
}

TEST(corvel_upgrade_write, DoesNotSwitchIfTheImageChangesMeanwhile) {
    on({}, [] {
        const auto change = [](void *, const corvel_upgrade_status *at) {
            if (at->written == 65'536) {
                const int file = open(image_path, O_WRONLY);
                EXPECT_EQ(pwrite(file, "?", 1, 1000), 1);
                close(file);
            }
            return true;
        };
        EXPECT_EQ(upgrade(change), CORVEL_UPGRADE_SECTION_DAMAGED);
        EXPECT_EQ(booted(flash()), A);
    });
}

TEST(corvel_upgrade_write, ContinuesIfTheFileOfTheImageIsRemoved) {
    on({}, [] {
        const auto remove_it = [](void *, const corvel_upgrade_status *) {
            unlink(image_path);
            return true;
        };
        EXPECT_EQ(upgrade(remove_it), CORVEL_UPGRADE_DONE);
        EXPECT_EQ(version_on(flash(), B), "new");
    });
}

TEST(corvel_upgrade_write, LeavesTheRestOfAPartitionAlone) {
    Device device;
    device.other_set = "old";
    device.image = upgrade_image({{"root", new_root(70'000)}, {"kern", new_kernel(5)}});
    on(device, [] {
        ASSERT_EQ(upgrade(), CORVEL_UPGRADE_DONE);
        const Contents after = flash();
        EXPECT_EQ(after.at(4), new_root(70'000) + set_of("old").at(0).substr(70'000));
        EXPECT_EQ(after.at(5).substr(0, 5), new_kernel().substr(0, 5));
        EXPECT_EQ(after.at(5).substr(4096), set_of("old").at(1).substr(4096));
        EXPECT_EQ(corvel_firmware_check(B), CORVEL_FIRMWARE_COMPLETE);
    });
}

TEST(corvel_upgrade_write, ReportsAPartitionThatCannotBeWritten) {
    on({}, [] {
        mount_small_disk("/mnt", 1 << 20);
        for (const char *const path : {"/dev/mtdblock4", "/dev/mtdblock5"}) {
            install({});
            // A full disk: the size of the partition is there, its blocks are not.
            const std::string full = std::string("/mnt/") + (path + 5);
            write_file(full, "");
            ASSERT_EQ(truncate(full.c_str(), 150'000), 0);
            unlink(path);
            ASSERT_EQ(symlink(full.c_str(), path), 0);
            std::string filler;
            for (std::size_t size = 1 << 20; size != 0; size /= 2) {
                try {
                    write_file("/mnt/filler" + std::to_string(size), std::string(size, 'x'));
                } catch (const std::exception &) {
                    continue;
                }
            }
            EXPECT_EQ(upgrade(), CORVEL_UPGRADE_UNWRITABLE) << path;
            EXPECT_EQ(booted(flash()), A);
            EXPECT_EQ(version_on(flash(), A), "old");
            EXPECT_EQ(status().state, CORVEL_UPGRADE_FAILED);
            EXPECT_EQ(status().result, CORVEL_UPGRADE_UNWRITABLE);
            EXPECT_NE(corvel_firmware_check(B), CORVEL_FIRMWARE_COMPLETE);
            unlink(path);
        }
    });
}

TEST(corvel_upgrade_write, NoticesAFlashThatDoesNotKeepWhatIsWritten) {
    on({}, [] {
        instead_of_pwrite = [](int file, const void *bytes, std::size_t size, off_t offset) {
            static auto *const next =
                next_definition<ssize_t(int, const void *, std::size_t, off_t)>("pwrite");
            std::string kept(static_cast<const char *>(bytes), size);
            if (offset == 65'536)
                kept[100] ^= 1;
            return next(file, kept.data(), size, offset);
        };
        EXPECT_EQ(upgrade(), CORVEL_UPGRADE_UNVERIFIED);
        instead_of_pwrite = nullptr;
        EXPECT_EQ(booted(flash()), A);
    });
}

TEST(corvel_upgrade_write, NeedsARecord) {
    on({}, [] {
        const Contents before = flash();
        const corvel_upgrade_rules nowhere = {"/tmp/cmdline", "/missing/upgrade"};
        EXPECT_EQ(corvel_upgrade_write(&nowhere, image_path, nullptr, nullptr),
                  CORVEL_UPGRADE_NO_RECORD);
        EXPECT_EQ(corvel_upgrade_start(&nowhere, image_path, nullptr, nullptr),
                  CORVEL_UPGRADE_NO_RECORD);
        ASSERT_EQ(mkdir(record_path, 0700), 0);
        EXPECT_EQ(upgrade(), CORVEL_UPGRADE_NO_RECORD);
        rmdir(record_path);
        ASSERT_EQ(mkfifo(record_path, 0600), 0);
        EXPECT_EQ(upgrade(), CORVEL_UPGRADE_NO_RECORD);
        EXPECT_EQ(flash(), before);
        const corvel_upgrade_rules elsewhere = {"/tmp/cmdline", "/tmp/record"};
        EXPECT_EQ(corvel_upgrade_write(&elsewhere, image_path, nullptr, nullptr),
                  CORVEL_UPGRADE_DONE);
        struct stat record {};
        ASSERT_EQ(stat("/tmp/record", &record), 0);
        EXPECT_EQ(record.st_mode & 0777U, 0600U);
    });
}

TEST(corvel_upgrade_write, LogsTheResult) {
    on({}, [] {
        const RecordSyslog log;
        ASSERT_EQ(upgrade(), CORVEL_UPGRADE_DONE);
        ASSERT_EQ(RecordSyslog::messages().size(), 1U);
        EXPECT_EQ(RecordSyslog::messages()[0].text, "firmware upgrade of set B: written");
        EXPECT_EQ(RecordSyslog::messages()[0].priority, CORVEL_LOG_NOTICE);
    });
}

/** During its lifetime, no flush takes time: whether a process is killed or an operation fails, the
 * files have what has been written. */
class QuickFlush {
  public:
    QuickFlush() {
        instead_of_fsync = [](int) {
            return 0;
        };
    }
    ~QuickFlush() { instead_of_fsync = nullptr; }
    QuickFlush(const QuickFlush &) = delete;
    QuickFlush &operator=(const QuickFlush &) = delete;
};

/** The devices from which every interruption is tried. */
std::vector<Device> interrupted_devices() {
    Device a;
    Device b = running_b();
    a.other_set = b.other_set = "old";
    Device damaged_a = a;
    Device damaged_b = b;
    a.is_recorded = b.is_recorded = true;
    damaged_a.environment =
        EnvironmentImage::of_data(EnvironmentImage({"bootparam=0"}).data(), 1).bytes();
    damaged_b.environment =
        EnvironmentImage::of_data(EnvironmentImage({"bootparam=1"}).data(), 1).bytes();
    Device nothing_b = damaged_b;
    nothing_b.environment = EnvironmentImage({"bootdelay=1"}).bytes();
    return {a, b, damaged_a, damaged_b, nothing_b};
}

/** Runs a piece of a test on such a device, with the records of the earlier upgrade. */
void on_interrupted(const Device &given, const std::function<void(const Device &)> &body) {
    on(given, [&] {
        Device device = given;
        if (given.is_recorded) {
            write_file(image_path, upgrade_image({{"root", content("root old", 130'000)},
                                                  {"kern", content("kernel old", 68'000)}}));
            ASSERT_EQ(upgrade(), CORVEL_UPGRADE_DONE);
            ASSERT_EQ(corvel_boot_select(&rules, given.running), CORVEL_UPGRADE_DONE);
            device.environment = read_file(environment_device);
            install(device);
            ASSERT_EQ(corvel_firmware_check(other(given.running)), CORVEL_FIRMWARE_COMPLETE);
        }
        body(device);
    });
}

/**
 * What holds after any interruption: the running set is untouched; a complete set boots, unless the
 * environment was damaged while B was running, when the device starts the other set anyway; and a
 * set that counts as complete is complete.
 */
void expect_whole(const Device &device, const std::string &where) {
    const Contents now = flash();
    EXPECT_EQ(version_on(now, device.running), "old") << where;
    const int set = booted(now);
    const bool is_lost_before = device.running == B && boot().next == unknown;
    EXPECT_TRUE(version_on(now, set) != "incomplete" || is_lost_before)
        << where << ": set " << set << " boots";
    for (const int each : {A, B})
        EXPECT_TRUE(corvel_firmware_check(each) != CORVEL_FIRMWARE_COMPLETE ||
                    version_on(now, each) != "incomplete")
            << where << ": set " << each << " looks complete";
    EXPECT_TRUE(set == device.running || version_on(now, set) == "new" || is_lost_before) << where;
}

/** The same after the upgrade has been repeated. */
void expect_repeatable(const Device &device, const std::string &where) {
    const corvel_upgrade_result result = upgrade();
    if (boot().next == other(device.running) && result == CORVEL_UPGRADE_RESTART_FIRST)
        return;
    EXPECT_EQ(result, CORVEL_UPGRADE_DONE) << where;
    EXPECT_EQ(version_on(flash(), other(device.running)), "new") << where;
    EXPECT_EQ(booted(flash()), other(device.running)) << where;
}

TEST(corvel_upgrade_write, MayBeKilledAtEachSystemCall) {
    const QuickFlush quick;
    for (const Device &given : interrupted_devices()) {
        on_interrupted(given, [&](const Device &device) {
            const unsigned long points =
                for_each_kill_point([&] { install(device); }, [] { upgrade(); },
                                    [&](unsigned long n) {
                                        const std::string where = "call " + std::to_string(n);
                                        expect_whole(device, where);
                                        EXPECT_NE(status().state, CORVEL_UPGRADE_FAILED) << where;
                                        if (n % 8 == 0)
                                            expect_repeatable(device, where);
                                    });
            EXPECT_GT(points, 80U);
        });
    }
}

/** Runs an upgrade in a process that dies within its n-th write to the flash, of which a part
 * arrives. The blocks that a write touches have been erased before. False if there is no such
 * write. */
bool upgrade_torn(unsigned long n, std::size_t (*arrives)(std::size_t)) {
    const pid_t child = fork();
    if (child == 0) {
        instead_of_pwrite = [writes = 0UL, n, arrives](int file, const void *bytes,
                                                       std::size_t size, off_t offset) mutable {
            static auto *const next =
                next_definition<ssize_t(int, const void *, std::size_t, off_t)>("pwrite");
            if (size < 100 || ++writes != n)
                return next(file, bytes, size, offset);
            struct stat status {};
            fstat(file, &status);
            const auto start = offset / 65'536 * 65'536;
            const auto end = std::min<off_t>(start + 65'536, status.st_size);
            const std::string erased(static_cast<std::size_t>(end - start), '\xFF');
            next(file, erased.data(), erased.size(), start);
            next(file, bytes, arrives(size), offset);
            _exit(9);
        };
        upgrade();
        _exit(0);
    }
    return wait_for_child(child).exit_status == 9;
}

TEST(corvel_upgrade_write, MayLosePowerWithinEachWrite) {
    const QuickFlush quick;
    const std::vector<std::size_t (*)(std::size_t)> parts = {
        [](std::size_t) { return std::size_t{0}; }, [](std::size_t) { return std::size_t{1}; },
        [](std::size_t size) { return size / 2; },  [](std::size_t size) { return size - 1; },
        [](std::size_t size) { return size; },
    };
    for (const Device &given : interrupted_devices()) {
        on_interrupted(given, [&](const Device &device) {
            for (const auto &part : parts) {
                unsigned long n = 1;
                for (;; ++n) {
                    install(device);
                    if (!upgrade_torn(n, part))
                        break;
                    const std::string where =
                        "write " + std::to_string(n) + ", " + std::to_string(part(1000));
                    expect_whole(device, where);
                    restart();
                    // If the environment is lost, it takes more than an upgrade to repair it.
                    if (boot().can_change && booted(flash()) == device.running)
                        expect_repeatable(device, where);
                    EXPECT_NE(version_on(flash(), booted(flash())), "incomplete") << where;
                }
                EXPECT_GE(n, 8U);
            }
        });
    }
}

TEST(corvel_upgrade_write, MayFailAtEachFileOperation) {
    const QuickFlush quick;
    for (const Device &given : interrupted_devices()) {
        on_interrupted(given, [&](const Device &device) {
            for (const stand_in_call call : {call_open, call_read, call_lseek, call_fstat}) {
                for (const FailCall::Duration duration : {FailCall::once, FailCall::from_then_on}) {
                    // Most operations are reads of one piece after another.
                    for (unsigned long n = 1;; n += n < 20 ? 1 : 5) {
                        install(device);
                        const RecordSyslog no_socket;
                        const DescriptorWatch watch;
                        corvel_upgrade_result result = CORVEL_UPGRADE_DONE;
                        unsigned long failures = 0;
                        {
                            const FailCall fail(call, n, EIO, duration);
                            result = upgrade();
                            failures = fail.failures();
                        }
                        if (failures == 0) {
                            EXPECT_GE(n, 4U);
                            break;
                        }
                        const std::string where =
                            "call " + std::to_string(call) + ", number " + std::to_string(n);
                        expect_whole(device, where);
                        EXPECT_TRUE(result != CORVEL_UPGRADE_DONE ||
                                    booted(flash()) == other(device.running))
                            << where;
                        ASSERT_LT(n, 500U);
                    }
                }
            }
        });
    }
}

TEST(corvel_upgrade_write, MayFailOrStopShortAtEachWriteAndFlush) {
    const QuickFlush quick;
    for (const Device &given : interrupted_devices()) {
        on_interrupted(given, [&](const Device &device) {
            static auto *const next =
                next_definition<ssize_t(int, const void *, std::size_t, off_t)>("pwrite");
            // A short write is continued, an interrupted one repeated; others fail.
            for (const int error : {0, EINTR, EIO, ENOSPC}) {
                for (unsigned long n = 1;; ++n) {
                    install(device);
                    unsigned long writes = 0;
                    instead_of_pwrite = [&](int file, const void *bytes, std::size_t size,
                                            off_t offset) -> ssize_t {
                        if (size < 100 || ++writes != n)
                            return next(file, bytes, size, offset);
                        errno = error;
                        return error == 0 ? next(file, bytes, size / 3, offset) : -1;
                    };
                    const corvel_upgrade_result result = upgrade();
                    instead_of_pwrite = nullptr;
                    if (writes < n)
                        break;
                    const std::string where =
                        "error " + std::to_string(error) + ", write " + std::to_string(n);
                    expect_whole(device, where);
                    EXPECT_EQ(result == CORVEL_UPGRADE_DONE, error == 0 || error == EINTR) << where;
                }
            }
            for (unsigned long n = 1;; ++n) {
                install(device);
                unsigned long flushes = 0;
                instead_of_fsync = [&](int) {
                    errno = EIO;
                    return ++flushes == n ? -1 : 0;
                };
                const corvel_upgrade_result result = upgrade();
                instead_of_fsync = nullptr;
                if (flushes < n) {
                    EXPECT_GE(n, 8U);
                    break;
                }
                expect_whole(device, "flush " + std::to_string(n));
                EXPECT_NE(result, CORVEL_UPGRADE_DONE);
            }
        });
    }
}

TEST(corvel_upgrade_write, ErasesAndWritesEachBlockAsSeldomAsPossible) {
    Device device;
    device.other_set = "old";
    on(device, [] {
        unsigned long writes = 0;
        instead_of_pwrite = [&writes](int file, const void *bytes, std::size_t size, off_t offset) {
            static auto *const next =
                next_definition<ssize_t(int, const void *, std::size_t, off_t)>("pwrite");
            writes += size >= 100;
            return next(file, bytes, size, offset);
        };
        ASSERT_EQ(upgrade(), CORVEL_UPGRADE_DONE);
        EXPECT_EQ(writes, 8U); // two marks, five blocks, one environment
        EXPECT_EQ(upgrade(), CORVEL_UPGRADE_RESTART_FIRST);
        EXPECT_EQ(writes, 8U);
        instead_of_pwrite = nullptr;
    });
}

// --- Writing in another process
// -------------------------------------------------------------------

/** Waits until a condition holds, at most for ten seconds. */
bool eventually(const std::function<bool()> &condition) {
    for (int tries = 0; tries < 1000; ++tries) {
        if (condition())
            return true;
        usleep(10'000);
    }
    return false;
}

/** Ignores the process that it is called in and stops at the first block until a file exists. */
bool wait_for_file(void *, const corvel_upgrade_status *at) {
    if (at->state == CORVEL_UPGRADE_WRITING && at->written == 65'536) {
        write_file("/tmp/writer", std::to_string(getpid()));
        while (access("/tmp/go", F_OK) != 0)
            usleep(1000);
    }
    return true;
}

pid_t start_and_wait() {
    unlink("/tmp/writer");
    unlink("/tmp/go");
    EXPECT_EQ(corvel_upgrade_start(&rules, image_path, wait_for_file, nullptr),
              CORVEL_UPGRADE_DONE);
    EXPECT_TRUE(eventually([] {
        struct stat status {};
        return stat("/tmp/writer", &status) == 0 && status.st_size > 0;
    }));
    return std::stoi(read_file("/tmp/writer"));
}

TEST(corvel_upgrade_start, WritesTheSetAfterTheRequestHasEnded) {
    on({}, [] {
        // The reader of the request's output sees its end while the set is being written.
        const ChildResult request = run_in_child([] {
            std::printf("answer");
            EXPECT_EQ(corvel_upgrade_start(&rules, image_path, wait_for_file, nullptr),
                      CORVEL_UPGRADE_DONE);
        });
        EXPECT_EQ(request.out, "answer");
        EXPECT_EQ(request.err, "");
        EXPECT_EQ(status().state, CORVEL_UPGRADE_WRITING);
        EXPECT_EQ(booted(flash()), A);
        write_file("/tmp/go", "");
        EXPECT_TRUE(eventually([] { return status().state != CORVEL_UPGRADE_WRITING; }));
        EXPECT_EQ(status().state, CORVEL_UPGRADE_WRITTEN);
        EXPECT_EQ(version_on(flash(), B), "new");
        EXPECT_EQ(booted(flash()), B);
    });
}

TEST(corvel_upgrade_start, LeavesTheTerminalAndTheStandardStreamsOfTheRequest) {
    on({}, [] {
        const auto look = [](void *, const corvel_upgrade_status *at) {
            if (at->state != CORVEL_UPGRADE_WRITING) {
                char target[64] = "";
                std::string seen = getsid(0) == getpid() ? "own session" : "session";
                for (const char *const stream :
                     {"/proc/self/fd/0", "/proc/self/fd/1", "/proc/self/fd/2"}) {
                    const ssize_t length = readlink(stream, target, sizeof target);
                    seen += " " +
                            std::string(target, length < 0 ? 0 : static_cast<std::size_t>(length));
                }
                write_file("/tmp/seen.new", seen);
                rename("/tmp/seen.new", "/tmp/seen");
            }
            return true;
        };
        ASSERT_EQ(corvel_upgrade_start(&rules, image_path, look, nullptr), CORVEL_UPGRADE_DONE);
        ASSERT_TRUE(eventually([] { return access("/tmp/seen", F_OK) == 0; }));
        EXPECT_EQ(read_file("/tmp/seen"), "own session /dev/null /dev/null /dev/null");
    });
}

TEST(corvel_upgrade_start, ExcludesOtherWriters) {
    on({}, [] {
        start_and_wait();
        const Contents before = flash();
        EXPECT_EQ(corvel_upgrade_start(&rules, image_path, nullptr, nullptr), CORVEL_UPGRADE_BUSY);
        EXPECT_EQ(upgrade(), CORVEL_UPGRADE_BUSY);
        EXPECT_EQ(corvel_boot_select(&rules, A), CORVEL_UPGRADE_BUSY);
        EXPECT_EQ(check(), CORVEL_UPGRADE_DONE);
        EXPECT_EQ(flash(), before);
        write_file("/tmp/go", "");
        EXPECT_TRUE(eventually([] { return status().state == CORVEL_UPGRADE_WRITTEN; }));
    });
}

TEST(corvel_upgrade_start, ReportsIfNoProcessCanBeStarted) {
    on({}, [] {
        const Contents before = flash();
        {
            const FailCall no_null_device(call_open, 1, ENOENT);
            EXPECT_EQ(corvel_upgrade_start(&rules, image_path, nullptr, nullptr),
                      CORVEL_UPGRADE_NO_PROCESS);
        }
        EXPECT_EQ(status().state, CORVEL_UPGRADE_IDLE);
        fork_fails = true;
        const RecordSyslog no_socket;
        const DescriptorWatch watch;
        EXPECT_EQ(corvel_upgrade_start(&rules, image_path, nullptr, nullptr),
                  CORVEL_UPGRADE_NO_PROCESS);
        fork_fails = false;
        EXPECT_EQ(status().state, CORVEL_UPGRADE_FAILED);
        EXPECT_EQ(status().result, CORVEL_UPGRADE_NO_PROCESS);
        EXPECT_EQ(flash(), before);
        EXPECT_EQ(upgrade(), CORVEL_UPGRADE_DONE);
    });
}

TEST(corvel_upgrade_read, TellsAnInterruptedUpgradeFromOneInProgress) {
    on({}, [] {
        EXPECT_EQ(status().state, CORVEL_UPGRADE_IDLE);
        EXPECT_EQ(status().set, unknown);
        EXPECT_STREQ(status().section, "");
        const pid_t writer = start_and_wait();
        EXPECT_EQ(status().state, CORVEL_UPGRADE_WRITING);
        EXPECT_EQ(status().set, B);
        EXPECT_STREQ(status().section, "Rootfs-1");
        EXPECT_EQ(status().written, 65'536U);
        EXPECT_EQ(status().total, new_root().size() + new_kernel().size());
        kill(writer, SIGKILL);
        EXPECT_TRUE(eventually([] { return status().state == CORVEL_UPGRADE_INTERRUPTED; }));
        EXPECT_EQ(status().written, 65'536U);
        EXPECT_EQ(corvel_firmware_check(B), CORVEL_FIRMWARE_INCOMPLETE);
        restart();
        EXPECT_EQ(boot().running, A);
        EXPECT_EQ(corvel_firmware_check(B), CORVEL_FIRMWARE_INCOMPLETE);
        EXPECT_EQ(upgrade(), CORVEL_UPGRADE_DONE);
    });
}

TEST(corvel_upgrade_read, IgnoresADamagedRecord) {
    on({}, [] {
        ASSERT_EQ(upgrade(), CORVEL_UPGRADE_DONE);
        std::string record = read_file(record_path);
        record[3] ^= 4;
        write_file(record_path, record);
        EXPECT_EQ(status().state, CORVEL_UPGRADE_IDLE);
        write_file(record_path, std::string(200, '\0'));
        EXPECT_EQ(status().state, CORVEL_UPGRADE_IDLE);
        write_file(record_path, "short");
        EXPECT_EQ(status().state, CORVEL_UPGRADE_IDLE);
    });
}

TEST(corvel_upgrade_cancel, EndsTheUpgradeOfAnotherProcess) {
    on({}, [] {
        EXPECT_FALSE(corvel_upgrade_cancel(&rules));
        start_and_wait();
        EXPECT_TRUE(corvel_upgrade_cancel(&rules));
        write_file("/tmp/go", "");
        EXPECT_TRUE(eventually([] { return status().state == CORVEL_UPGRADE_FAILED; }));
        EXPECT_EQ(status().result, CORVEL_UPGRADE_CANCELLED);
        EXPECT_EQ(status().written, 65'536U);
        EXPECT_EQ(booted(flash()), A);
        EXPECT_FALSE(corvel_upgrade_cancel(&rules));
        // The request does not outlive the upgrade. The writer releases the lock after its record.
        EXPECT_TRUE(eventually([] { return upgrade() == CORVEL_UPGRADE_DONE; }));
        EXPECT_FALSE(corvel_upgrade_cancel(&rules));
    });
}

// --- Selecting and showing sets
// -------------------------------------------------------------------

TEST(corvel_boot_select, TakesAnUpgradeBackBeforeTheRestart) {
    on({}, [] {
        ASSERT_EQ(upgrade(), CORVEL_UPGRADE_DONE);
        EXPECT_EQ(
            capture_stdout([] { EXPECT_EQ(corvel_boot_select(&rules, A), CORVEL_UPGRADE_DONE); }),
            "");
        EXPECT_EQ(booted(flash()), A);
        EXPECT_EQ(version_on(flash(), B), "new");
        EXPECT_EQ(corvel_boot_select(&rules, B), CORVEL_UPGRADE_DONE);
        EXPECT_EQ(booted(flash()), B);
    });
}

TEST(corvel_boot_select, ReturnsToTheFormerSet) {
    on({}, [] {
        ASSERT_EQ(upgrade(), CORVEL_UPGRADE_DONE);
        restart();
        ASSERT_EQ(boot().running, B);
        const DescriptorWatch watch;
        EXPECT_EQ(corvel_boot_select(&rules, A), CORVEL_UPGRADE_DONE);
        EXPECT_EQ(booted(flash()), A);
        EXPECT_EQ(version_on(flash(), A), "old");
        EXPECT_EQ(upgrade(), CORVEL_UPGRADE_RESTART_FIRST);
    });
}

TEST(corvel_boot_select, RemembersTheRunningSet) {
    Device device;
    device.line = "root=/dev/root\n";
    on(device, [] {
        ASSERT_EQ(upgrade(), CORVEL_UPGRADE_DONE);
        unlink(record_path); // the restart
        ASSERT_EQ(boot().running, B);
        ASSERT_EQ(corvel_boot_select(&rules, A), CORVEL_UPGRADE_DONE);
        EXPECT_EQ(boot().running, B);
        EXPECT_EQ(boot().next, A);
        EXPECT_EQ(upgrade(), CORVEL_UPGRADE_RESTART_FIRST);
    });
}

TEST(corvel_boot_select, RefusesASetThatIsNotKnownToBeComplete) {
    Device device;
    device.other_set = "old";
    on(device, [] {
        const Contents before = flash();
        EXPECT_EQ(corvel_boot_select(&rules, B), CORVEL_UPGRADE_SET_INCOMPLETE);
        EXPECT_EQ(corvel_boot_select(&rules, 2), CORVEL_UPGRADE_SET_INCOMPLETE);
        EXPECT_EQ(corvel_boot_select(&rules, -1), CORVEL_UPGRADE_SET_INCOMPLETE);
        EXPECT_EQ(flash(), before);
        ASSERT_EQ(upgrade(), CORVEL_UPGRADE_DONE);
        restart();
        for (const unsigned index : {2U, 3U}) {
            for (const std::size_t place : {std::size_t{66'000}, kernel_size - 1}) {
                const std::string good = read_file(block_device(index));
                std::string damaged = good;
                damaged[place] ^= 1;
                write_file(block_device(index), damaged);
                EXPECT_EQ(corvel_boot_select(&rules, A), CORVEL_UPGRADE_SET_INCOMPLETE);
                EXPECT_EQ(booted(flash()), B);
                write_file(block_device(index), good);
            }
        }
        EXPECT_EQ(corvel_boot_select(&rules, A), CORVEL_UPGRADE_DONE);
    });
}

TEST(corvel_boot_select, RepairsTheEnvironmentForTheRunningSet) {
    Device device = running_b();
    device.environment =
        EnvironmentImage::of_data(EnvironmentImage({"bootparam=0"}).data(), 1).bytes();
    on(device, [] {
        EXPECT_EQ(corvel_boot_select(&rules, B), CORVEL_UPGRADE_DONE);
        EXPECT_EQ(booted(flash()), B);
        EXPECT_EQ(boot().next, B);
    });
}

TEST(corvel_boot_select, RefusesADeviceThatIsNotReady) {
    on({}, [] {
        write_file(environment_device, std::string(65'536, '\xFF'));
        EXPECT_EQ(corvel_boot_select(&rules, A), CORVEL_UPGRADE_NO_ENVIRONMENT);
        write_environment({"x=1"});
        write_file("/tmp/cmdline", "");
        unlink(record_path);
        EXPECT_EQ(corvel_boot_select(&rules, A), CORVEL_UPGRADE_NO_RUNNING_SET);
        write_environment({"bootparam=0", "x=" + std::string(65'400, 'x')});
        EXPECT_EQ(corvel_boot_select(&rules, A), CORVEL_UPGRADE_ENVIRONMENT_FULL);
        const corvel_upgrade_rules nowhere = {"/tmp/cmdline", "/missing/upgrade"};
        EXPECT_EQ(corvel_boot_select(&nowhere, A), CORVEL_UPGRADE_NO_RECORD);
    });
}

TEST(corvel_boot_select, ReportsAnEnvironmentThatCannotBeWrittenAndWritesNoneTwice) {
    on({}, [] {
        ASSERT_EQ(upgrade(), CORVEL_UPGRADE_DONE);
        instead_of_fsync = [](int) {
            return -1;
        };
        EXPECT_EQ(corvel_boot_select(&rules, B), CORVEL_UPGRADE_DONE); // named already
        EXPECT_EQ(corvel_boot_select(&rules, A), CORVEL_UPGRADE_NOT_SWITCHED);
        instead_of_fsync = nullptr;
    });
}

TEST(corvel_boot_select, MayBeKilledAtEachSystemCall) {
    on({}, [] {
        const unsigned long points = for_each_kill_point(
            [] {
                install({});
                write_set(B, "new");
                write_environment({"bootparam=1"});
            },
            [] { corvel_boot_select(&rules, A); },
            [](unsigned long n) {
                EXPECT_NE(version_on(flash(), booted(flash())), "incomplete") << n;
            });
        EXPECT_GT(points, 10U);
    });
}

TEST(corvel_firmware_check, KnowsNothingOfANewDevice) {
    Device device;
    device.other_set = "old";
    on(device, [] {
        EXPECT_EQ(corvel_firmware_check(A), CORVEL_FIRMWARE_UNRECORDED);
        EXPECT_EQ(corvel_firmware_check(B), CORVEL_FIRMWARE_UNRECORDED);
        EXPECT_EQ(corvel_firmware_check(2), CORVEL_FIRMWARE_UNRECORDED);
        EXPECT_EQ(corvel_firmware_check(-1), CORVEL_FIRMWARE_UNRECORDED);
    });
    on({}, [] { EXPECT_EQ(corvel_firmware_check(B), CORVEL_FIRMWARE_INCOMPLETE); });
}

TEST(corvel_firmware_check, ComparesTheWholeContent) {
    on({}, [] {
        ASSERT_EQ(upgrade(), CORVEL_UPGRADE_DONE);
        const Contents good = flash();
        EXPECT_EQ(
            capture_stdout([] { EXPECT_EQ(corvel_firmware_check(B), CORVEL_FIRMWARE_COMPLETE); }),
            "");
        for (const unsigned index : {4U, 5U}) {
            for (const std::size_t place : {std::size_t{0}, std::size_t{65'536}, kernel_size - 1}) {
                std::string damaged = good.at(index);
                damaged[place] ^= 1;
                write_file(block_device(index), damaged);
                EXPECT_EQ(corvel_firmware_check(B), CORVEL_FIRMWARE_INCOMPLETE) << index;
            }
            std::string erased = good.at(index);
            erased.replace(0, 16, 16, '\xFF');
            write_file(block_device(index), erased);
            EXPECT_EQ(corvel_firmware_check(B), CORVEL_FIRMWARE_INCOMPLETE);
            write_file(block_device(index), good.at(index));
        }
        EXPECT_EQ(corvel_firmware_check(B), CORVEL_FIRMWARE_COMPLETE);
        std::string environment = good.at(1);
        environment[65'535] ^= 1;
        write_file(environment_device, environment);
        EXPECT_EQ(corvel_firmware_check(B), CORVEL_FIRMWARE_UNRECORDED);
        write_file(environment_device, good.at(1));
        unlink("/dev/mtdblock5");
        EXPECT_EQ(corvel_firmware_check(B), CORVEL_FIRMWARE_INCOMPLETE);
    });
}

TEST(corvel_firmware_version, IsTheFirstLineOfTheRootFileSystem) {
    const std::vector<std::pair<std::string, std::string>> contents = {
        {"R1 2.0\nrest", "R1 2.0"},
        {"R1 \xC3\xA9\n", "R1 \xC3\xA9"},
        {"no newline", ""},
        {std::string(62, 'x') + "\n", std::string(62, 'x')},
        {std::string(63, 'x') + "\n", std::string(63, 'x')},
        {std::string(64, 'x') + "\n", ""},
        {"\n", ""},
        {"a\tb\n", ""},
        {std::string("a\0b\n", 4), ""},
        {"a\xFF\n", ""},
        {std::string(100, '\xFF'), ""},
        {"hsqs\x01\x02\n", ""},
        {"", ""},
    };
    on({}, [&contents] {
        char version[CORVEL_FIRMWARE_VERSION_SIZE];
        for (const auto &[bytes, expected] : contents) {
            write_file(block_device(4), bytes);
            EXPECT_EQ(corvel_firmware_version(B, version), version);
            EXPECT_EQ(version, expected) << bytes;
        }
        EXPECT_STREQ(corvel_firmware_version(A, version), "root old");
        EXPECT_STREQ(corvel_firmware_version(2, version), "");
        EXPECT_STREQ(corvel_firmware_version(-1, version), "");
        unlink("/dev/mtdblock2");
        EXPECT_STREQ(corvel_firmware_version(A, version), "");
    });
}

/// A squashfs that states this size in its header, 64 bits in little-endian order.
std::string squashfs(std::uint64_t size) {
    std::string bytes = std::string("hsqs") + std::string(36, 'x');
    for (int i = 0; i < 8; ++i)
        bytes += static_cast<char>(size >> (8 * i) & 0xFF);
    return bytes.append(256, '\n');
}

TEST(corvel_firmware_version, IsTheLineAfterASquashfs) {
    const std::vector<std::pair<std::string, std::string>> contents = {
        {squashfs(304) + "R1 2.0\nrest", "R1 2.0"},
        {squashfs(304) + std::string(70'000, 'x') + "\n", ""},
        {squashfs(304) + "no newline", ""},
        {squashfs(304 + 0x10000) + std::string(0x10000, 'x') + "R1 2.1\n", "R1 2.1"},
        {squashfs(304), ""},
        {squashfs(0xFFFFFFFF) + "R1 2.0\n", ""},
        {squashfs(304).substr(0, 43) + "\n", ""},
    };
    on({}, [&contents] {
        char version[CORVEL_FIRMWARE_VERSION_SIZE];
        for (const auto &[bytes, expected] : contents) {
            write_file(block_device(4), bytes);
            EXPECT_EQ(corvel_firmware_version(B, version), version);
            EXPECT_EQ(version, expected);
        }
    });
}

TEST(corvel_upgrade_complaint, IsASentenceForEachResult) {
    std::set<std::string> texts;
    for (int each = CORVEL_UPGRADE_SET_INCOMPLETE; each < CORVEL_UPGRADE_DONE; ++each) {
        const std::string text = corvel_upgrade_complaint(static_cast<corvel_upgrade_result>(each));
        EXPECT_TRUE(text.ends_with('.')) << each;
        texts.insert(text);
    }
    EXPECT_EQ(texts.size(), 24U);
    EXPECT_STREQ(corvel_upgrade_complaint(CORVEL_UPGRADE_DONE), "");
    EXPECT_STREQ(corvel_upgrade_complaint(CORVEL_UPGRADE_NO_RUNNING_SET),
                 "Neither the kernel's command line nor the boot environment names the running "
                 "set.");
    EXPECT_STREQ(corvel_upgrade_complaint(CORVEL_UPGRADE_BUSY), "Another upgrade is in progress.");
    EXPECT_STREQ(corvel_upgrade_complaint(CORVEL_UPGRADE_NO_IMAGE),
                 "The file is not an upgrade image for this device.");
    EXPECT_STREQ(corvel_upgrade_complaint(CORVEL_UPGRADE_TOO_LARGE),
                 "This section is larger than its partition.");
    EXPECT_STREQ(corvel_upgrade_complaint(CORVEL_UPGRADE_OTHER_PARTITION),
                 "This section is neither a root file system nor a kernel.");
    EXPECT_STREQ(corvel_upgrade_complaint(CORVEL_UPGRADE_BAD_CRC),
                 "The CRC of the image is wrong. The image is damaged.");
    EXPECT_STREQ(corvel_upgrade_complaint(CORVEL_UPGRADE_SET_INCOMPLETE),
                 "The other set is not known to be complete.");
}

} // namespace
