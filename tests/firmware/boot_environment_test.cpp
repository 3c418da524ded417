/* SPDX-License-Identifier: MIT */
#include <corvel.h>

#include "tests/firmware/current_image.h"
#include "tests/firmware/environment_image.h"
#include "tests/support/child_process.h"
#include "tests/support/descriptors.h"
#include "tests/support/golden_files.h"
#include "tests/support/next_definition.h"
#include "tests/support/output_capture.h"
#include "tests/support/stand_in.h"
#include "tests/support/temporary_directory.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <iterator>
#include <optional>
#include <random>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

/** The number of calls of memcpy() with overlapping blocks, which are undefined behaviour. */
unsigned long overlapping_copies;

} // namespace

#ifndef __SANITIZE_ADDRESS__ // AddressSanitizer replaces memcpy() and reports such calls itself

extern "C" void *memcpy(void *to, const void *from, std::size_t size) C_LIBRARY_NOEXCEPT {
    const auto start = reinterpret_cast<std::uintptr_t>(to);
    const auto source = reinterpret_cast<std::uintptr_t>(from);
    if (start < source + size && source < start + size)
        ++overlapping_copies;
    return std::memmove(to, from, size);
}

#endif

namespace {

using namespace corvel_test;
using namespace std::string_literals;
namespace fs = std::filesystem;

constexpr const char *bad_crc = "Warning - bad CRC\n";
constexpr const char *too_short = "Err: envimage size is less then CONFIG_ENV_SIZE(0x10000)\n";
constexpr std::size_t data_size = EnvironmentImage::data_size;
constexpr std::array guards = {GuardPage::after, GuardPage::before};

/** The results of calls before any image is current: the object is initialised before the tests. */
const struct BeforeAnyImage {
    char *value = get_env("a");
    int set = -1;
    int deleted = -1;
    int set_bad_name = -1;
    int printed = -1;
    std::string output = capture_stdout([this] {
        set = set_env("a", "1");
        deleted = set_env("a", nullptr);
        set_bad_name = set_env("a=", "1");
        printed = print_env();
    });
    bool image_is_zero = std::all_of(std::begin(env_image_mem), std::end(env_image_mem),
                                     [](unsigned char byte) { return byte == 0; });
} before_any_image;

/** The result of a call and what it prints. */
struct Outcome {
    int result;
    std::string output;
    bool operator==(const Outcome &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Outcome &outcome) {
    return out << outcome.result << " and \"" << outcome.output.substr(0, 200) << '"';
}

Outcome outcome_of(const std::function<int()> &call) {
    Outcome outcome{-99, ""};
    outcome.output = capture_stdout([&] { outcome.result = call(); });
    return outcome;
}

Outcome init(const std::string &path) {
    return outcome_of([&path] { return init_env(path.c_str()); });
}

Outcome set(const char *name, const char *value) {
    return outcome_of([=] { return set_env(name, value); });
}

Outcome printed() {
    return outcome_of([] { return print_env(); });
}

std::string overflow(const std::string &name) {
    return "## Error: environment overflow, \"" + name + "\" deleted\n";
}

// --- Without a current image ---

TEST(NoCurrentImage, ContainsNoVariableAndCannotBeEdited) {
    EXPECT_EQ(before_any_image.value, nullptr);
    EXPECT_EQ(before_any_image.set, 1);
    EXPECT_EQ(before_any_image.deleted, 1);
    EXPECT_EQ(before_any_image.set_bad_name, 1);
    EXPECT_EQ(before_any_image.printed, 0);
    EXPECT_EQ(before_any_image.output, "");
    EXPECT_TRUE(before_any_image.image_is_zero);
}

// --- init_env ---

TEST(init_env, ReadsAValidImageAndMakesItCurrent) {
    const TemporaryDirectory directory;
    const EnvironmentImage image({"bootdelay=1", "bootargs=console=ttyS0 root=31:2"});
    directory.write("env", image.bytes());
    const std::vector<int> descriptors = open_descriptors();
    EXPECT_EQ(init(directory.path("env")), (Outcome{CORVEL_ENV_GOOD, ""}));
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(memory_image(), image.bytes());
    EXPECT_STREQ(get_env("bootargs"), "console=ttyS0 root=31:2");
    EXPECT_EQ(get_env("bootdelay"), reinterpret_cast<char *>(env_image_mem) + 4 + 10);
    EXPECT_EQ(directory.read("env"), image.bytes());
}

TEST(init_env, OpensAndReadsTheFileOnce) {
    const TemporaryDirectory directory;
    directory.write("env", EnvironmentImage({}).bytes());
    const CountCalls opened(call_open);
    const CountCalls reads(call_read);
    EXPECT_EQ(init_env(directory.path("env").c_str()), CORVEL_ENV_GOOD);
    EXPECT_EQ(opened.count(), 1U);
    EXPECT_EQ(reads.count(), 1U);
}

TEST(init_env, IgnoresBytesAfterTheImage) {
    const TemporaryDirectory directory;
    directory.write("env", EnvironmentImage({"a=1"}).bytes() + "more");
    EXPECT_EQ(init(directory.path("env")), (Outcome{CORVEL_ENV_GOOD, ""}));
    EXPECT_STREQ(get_env("a"), "1");
}

TEST(init_env, MakesAnImageWithABadCrcCurrent) {
    const TemporaryDirectory directory;
    directory.write("env", EnvironmentImage::of_data("a=1\0\0"s, 0x12345678).bytes());
    const std::vector<int> descriptors = open_descriptors();
    EXPECT_EQ(init(directory.path("env")), (Outcome{CORVEL_ENV_BAD_CRC, bad_crc}));
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_STREQ(get_env("a"), "1");
    EXPECT_EQ(set_env("b", "2"), 0);
    EXPECT_EQ(outcome_of([] { return set_env_ptr(env_image_mem); }),
              (Outcome{CORVEL_ENV_GOOD, ""}));
}

TEST(init_env, RefusesAFileThatIsTooShort) {
    const TemporaryDirectory directory;
    const CurrentImage other(EnvironmentImage({"other=still"}).bytes());
    const std::string good = EnvironmentImage({"a=1"}).bytes();
    const std::vector<int> descriptors = open_descriptors();
    for (const std::size_t size : {0U, 1U, 4U, 65535U}) {
        directory.write("env", good.substr(0, size));
        EXPECT_EQ(init(directory.path("env")), (Outcome{CORVEL_ENV_UNREADABLE, too_short})) << size;
        EXPECT_STREQ(get_env("other"), "still") << "the current image stays current";
    }
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST(init_env, RefusesAFileThatCannotBeOpened) {
    const TemporaryDirectory directory;
    const CurrentImage other(EnvironmentImage({"other=still"}).bytes());
    const std::string path = directory.path("missing");
    EXPECT_EQ(init(path),
              (Outcome{CORVEL_ENV_UNREADABLE, "Err: can not open file " + path + "\n"}));
    EXPECT_FALSE(directory.exists("missing"));
    EXPECT_EQ(outcome_of([] { return init_env(nullptr); }),
              (Outcome{CORVEL_ENV_UNREADABLE, "Err: can not open file \n"}));
    EXPECT_STREQ(get_env("other"), "still");
}

TEST(init_env, RefusesAFileWithoutReadPermission) {
    expect_as_ordinary_user([] {
        const TemporaryDirectory directory;
        directory.write("env", EnvironmentImage({}).bytes());
        fs::permissions(directory.path("env"), fs::perms::none);
        const std::string path = directory.path("env");
        EXPECT_EQ(init(path),
                  (Outcome{CORVEL_ENV_UNREADABLE, "Err: can not open file " + path + "\n"}));
    });
}

TEST(init_env, RefusesADirectory) {
    const TemporaryDirectory directory;
    const std::vector<int> descriptors = open_descriptors();
    EXPECT_EQ(init(directory.path()), (Outcome{CORVEL_ENV_UNREADABLE, too_short}));
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST(init_env, RefusesAFileIfReadingFails) {
    const TemporaryDirectory directory;
    directory.write("env", EnvironmentImage({}).bytes());
    const std::vector<int> descriptors = open_descriptors();
    Outcome outcome{};
    outcome.output = capture_stdout([&] {
        const FailCall failing(call_read, 1);
        outcome.result = init_env(directory.path("env").c_str());
    });
    EXPECT_EQ(outcome, (Outcome{CORVEL_ENV_UNREADABLE, too_short}));
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST(init_env, TreatsDescriptorZeroAsAFailure) {
    const TemporaryDirectory directory;
    directory.write("env", EnvironmentImage({}).bytes());
    const std::string path = directory.path("env");
    const ChildResult child = run_in_child([&path] {
        close(STDIN_FILENO);
        const int result = init_env(path.c_str());
        // The file stays open, as descriptor 0.
        return result == CORVEL_ENV_UNREADABLE && fcntl(STDIN_FILENO, F_GETFD) != -1 ? 0 : 1;
    });
    EXPECT_EQ(child.out, "Err: can not open file " + path + "\n");
    EXPECT_EQ(child.exit_status, 0);
}

// --- set_env_ptr ---

TEST(set_env_ptr, ChecksTheCrcOfTheWholeDataArea) {
    const std::string good = EnvironmentImage({"a=1"}).bytes();
    for (std::size_t at = 0; at < good.size(); at += at < 64 || at > 65400 ? 1 : 251) {
        std::string bytes = good;
        bytes[at] = static_cast<char>(bytes[at] ^ 1 << at % 8);
        const CurrentImage image(bytes);
        ASSERT_EQ(image.load_result(), CORVEL_ENV_BAD_CRC) << at;
        ASSERT_EQ(image.load_output(), bad_crc) << at;
        ASSERT_EQ(image.bytes(), bytes) << at;
    }
    const CurrentImage image(good);
    EXPECT_EQ(image.load_result(), CORVEL_ENV_GOOD);
    EXPECT_EQ(image.load_output(), "");
}

TEST(set_env_ptr, AcceptsAnImageAtAnyAddress) {
    std::string memory(EnvironmentImage::size + 8, 'x');
    for (std::size_t at = 0; at < 8; ++at) {
        EnvironmentImage image({"a=1"});
        memory.replace(at, EnvironmentImage::size, image.bytes());
        EXPECT_EQ(set_env_ptr(memory.data() + at), CORVEL_ENV_GOOD);
        EXPECT_EQ(set_env("b", "2"), image.set("b", "2"));
        EXPECT_EQ(memory.substr(at, EnvironmentImage::size), image.bytes());
    }
}

TEST(set_env_ptr, ReplacesTheCurrentImage) {
    const CurrentImage first(EnvironmentImage({"a=first"}).bytes());
    const CurrentImage second(EnvironmentImage({"a=second"}).bytes());
    EXPECT_STREQ(get_env("a"), "second");
    EXPECT_EQ(set_env("a", nullptr), 0);
    EXPECT_EQ(first.bytes(), EnvironmentImage({"a=first"}).bytes());
}

// --- get_env ---

TEST(get_env, FindsAVariableByItsWholeName) {
    const CurrentImage image(
        EnvironmentImage({"bootdelay=1", "bootargs=console=ttyS0 root=31:2", "abc=2", "ab=3"})
            .bytes());
    EXPECT_STREQ(get_env("bootargs"), "console=ttyS0 root=31:2");
    EXPECT_STREQ(get_env("bootdelay"), "1");
    EXPECT_STREQ(get_env("ab"), "3");
    EXPECT_STREQ(get_env("abc"), "2");
    for (const char *name : {"boot", "bootdelay1", "bootdelays", "a", "bc", "delay", "1", "console",
                             "BOOTDELAY", " ab", "ab "})
        EXPECT_EQ(get_env(name), nullptr) << name;
}

TEST(get_env, ComparesANameUpToItsFirstEqualsSign) {
    const CurrentImage image(
        EnvironmentImage({"bootdelay=1", "bootargs=root=31:2", "=nameless"}).bytes());
    EXPECT_STREQ(get_env("bootdelay="), "1");
    EXPECT_STREQ(get_env("bootdelay=x"), "1");
    EXPECT_STREQ(get_env("bootargs=root="), "root=31:2");
    EXPECT_STREQ(get_env("="), "nameless");
    EXPECT_STREQ(get_env("=x"), "nameless");
    EXPECT_EQ(get_env("boot="), nullptr);
}

TEST(get_env, FindsAVariableWithoutANameByTheEmptyName) {
    const CurrentImage image(EnvironmentImage({"a=1", "=nameless"}).bytes());
    EXPECT_STREQ(get_env(""), "nameless");
    EXPECT_STREQ(get_env(nullptr), "nameless");
    const CurrentImage other(EnvironmentImage({"a=1"}).bytes());
    EXPECT_EQ(get_env(""), nullptr);
    EXPECT_EQ(get_env(nullptr), nullptr);
}

TEST(get_env, FindsTheFirstOfSeveralEntries) {
    const CurrentImage image(EnvironmentImage({"a=1", "b=2", "a=3"}).bytes());
    EXPECT_STREQ(get_env("a"), "1");
}

TEST(get_env, FindsAnEmptyValueButNoEntryWithoutAnEqualsSign) {
    const CurrentImage image(EnvironmentImage({"flag", "empty=", "last=1"}).bytes());
    EXPECT_STREQ(get_env("empty"), "");
    EXPECT_EQ(get_env("flag"), nullptr);
    EXPECT_EQ(get_env("flag="), nullptr);
    EXPECT_STREQ(get_env("last"), "1");
}

TEST(get_env, StopsAtTheEmptyEntry) {
    const CurrentImage image(EnvironmentImage::of_data("a=1\0\0b=2\0\0"s).bytes());
    EXPECT_EQ(get_env("b"), nullptr);
    const CurrentImage empty(EnvironmentImage::of_data("\0b=2\0\0"s).bytes());
    EXPECT_EQ(get_env("b"), nullptr);
}

TEST(get_env, ComparesBytesAbove127) {
    const CurrentImage image(EnvironmentImage({"\x80\xFF=\xFE"}).bytes());
    EXPECT_STREQ(get_env("\x80\xFF"), "\xFE");
    EXPECT_EQ(get_env("\x80"), nullptr);
}

/** Returns an image whose data is one long entry followed by the given bytes. */
EnvironmentImage ending_with(const std::string &end) {
    return EnvironmentImage::of_data("long=" + std::string(data_size - 6 - end.size(), 'l') + '\0' +
                                     end);
}

TEST(get_env, FindsAnEntryAtTheEndOfTheImage) {
    for (const GuardPage guard : guards) {
        const CurrentImage two_nuls(ending_with("end=v\0\0"s).bytes(), guard);
        EXPECT_EQ(two_nuls.offset_of("end"), data_size - 3);
        const CurrentImage one_nul(ending_with("end=v\0"s).bytes(), guard);
        EXPECT_EQ(one_nul.offset_of("end"), data_size - 2);
        EXPECT_STREQ(get_env("end"), "v");
        const CurrentImage empty_value(ending_with("end=\0"s).bytes(), guard);
        EXPECT_EQ(empty_value.offset_of("end"), data_size - 1);
    }
}

TEST(get_env, IgnoresAnUnterminatedEntry) {
    for (const GuardPage guard : guards)
        for (const std::string end : {"end=v", "end=", "end", "e", "=", "end=vend"}) {
            const CurrentImage image(ending_with(end).bytes(), guard);
            for (const char *name : {"end", "end=", "e", "", "=", "ende", "end=v", "longer"})
                EXPECT_EQ(get_env(name), nullptr) << name << " in " << end;
            EXPECT_EQ(image.offset_of("long"), 5U);
        }
}

// --- set_env ---

TEST(set_env, AppendsAVariableToTheList) {
    EnvironmentImage model({});
    const CurrentImage image(model.bytes());
    for (const auto &[name, value] : std::vector<std::pair<std::string, std::string>>{
             {"a", "1"}, {"b", "2"}, {"a", "1"}, {"a", "longer"}, {"c", ""}, {"b", "x=y z"}}) {
        EXPECT_EQ(set(name.c_str(), value.c_str()), (Outcome{model.set(name, value), ""}));
        EXPECT_EQ(image.bytes(), model.bytes());
    }
    EXPECT_EQ(model.data().substr(0, 20), "a=longer\0c=\0b=x=y z\0"s);
    EXPECT_EQ(std::string(image.data(), 21), "a=longer\0c=\0b=x=y z\0\0"s);
}

TEST(set_env, KeepsOneEntryForAVariableThatIsSetTwice) {
    const CurrentImage image(EnvironmentImage({"z=0"}).bytes());
    EXPECT_EQ(set_env("a", "1"), 0);
    EXPECT_EQ(set_env("a", "1"), 0);
    EXPECT_EQ(printed(), (Outcome{8, "z=0\na=1\n"}));
}

TEST(set_env, UpdatesTheCrc) {
    const CurrentImage image(EnvironmentImage({"a=1"}).bytes());
    EXPECT_EQ(set_env("b", "2"), 0);
    EXPECT_EQ(image.bytes().substr(0, 4), stored(reference_crc(image.bytes().substr(4))));
}

TEST(set_env, LeavesTheFreeSpaceUnchanged) {
    for (const char fill : {'\xFF', '\0', 'x'}) {
        EnvironmentImage model({"a=1"}, fill);
        const CurrentImage image(model.bytes());
        EXPECT_EQ(set_env("b", "2"), model.set("b", "2"));
        EXPECT_EQ(set_env("a", nullptr), model.set("a", std::nullopt));
        EXPECT_EQ(image.bytes(), model.bytes());
        // The following entry moves to the start; the rest of the old list stays.
        EXPECT_EQ(std::string(image.data(), 10), "b=2\0\0=2\0\0"s + fill);
    }
}

TEST(set_env, DeletesTheFirstAMiddleAndTheLastEntry) {
    const std::vector<std::string> entries = {"first=1", "middle=22", "last=333"};
    for (const char *name : {"first", "middle", "last"}) {
        EnvironmentImage model(entries);
        const CurrentImage image(model.bytes());
        EXPECT_EQ(set(name, nullptr), (Outcome{model.set(name, std::nullopt), ""}));
        EXPECT_EQ(image.bytes(), model.bytes()) << name;
        EXPECT_EQ(get_env(name), nullptr);
        EXPECT_EQ(image.bytes().substr(0, 4), stored(reference_crc(image.bytes().substr(4))));
    }
    const CurrentImage image(EnvironmentImage(entries).bytes());
    set_env("last", nullptr);
    EXPECT_EQ(std::string(image.data(), 20), "first=1\0middle=22\0\0a"s);
}

TEST(set_env, ReplacesTheOnlyEntryByTwoNulsOnDeletion) {
    const CurrentImage image(EnvironmentImage({"a=1"}).bytes());
    EXPECT_EQ(set_env("a", nullptr), 0);
    EXPECT_EQ(std::string(image.data(), 5), "\0\0001\0\0"s);
    EXPECT_EQ(printed(), (Outcome{0, ""}));
}

TEST(set_env, OnlyUpdatesTheCrcIfThereIsNothingToDelete) {
    EnvironmentImage model = EnvironmentImage::of_data("a=1\0\0"s, 0xDEADBEEF);
    const CurrentImage image(model.bytes());
    EXPECT_EQ(image.load_result(), CORVEL_ENV_BAD_CRC);
    EXPECT_EQ(set("missing", nullptr), (Outcome{0, ""}));
    EXPECT_EQ(image.bytes(), EnvironmentImage({"a=1"}).bytes());
}

TEST(set_env, ReplacesOnlyTheFirstOfSeveralEntries) {
    EnvironmentImage model({"a=1", "b=2", "a=3"});
    const CurrentImage image(model.bytes());
    EXPECT_EQ(set_env("a", "4"), model.set("a", "4"));
    EXPECT_EQ(image.bytes(), model.bytes());
    EXPECT_EQ(printed().output, "b=2\na=3\na=4\n");
}

TEST(set_env, RefusesAnEqualsSignInAName) {
    for (const std::string name : {"a=", "=", "a=b", "new=", "=a", "a=\"%s"}) {
        for (const char *value : {"2", static_cast<const char *>(nullptr)}) {
            // Not even a wrong CRC is corrected.
            const std::string before = EnvironmentImage::of_data("a=1\0\0"s, 7).bytes();
            const CurrentImage image(before);
            EXPECT_EQ(set(name.c_str(), value),
                      (Outcome{1, "## Error: illegal character '=' in variable name \"" + name +
                                      "\"\n"}));
            EXPECT_EQ(image.bytes(), before);
        }
    }
}

TEST(set_env, SetsAndDeletesTheEmptyName) {
    EnvironmentImage model({"a=1"});
    const CurrentImage image(model.bytes());
    EXPECT_EQ(set_env(nullptr, "v"), model.set("", "v"));
    EXPECT_EQ(image.bytes(), model.bytes());
    EXPECT_STREQ(get_env(""), "v");
    EXPECT_EQ(set_env("", nullptr), model.set("", std::nullopt));
    EXPECT_EQ(image.bytes(), model.bytes());
}

TEST(set_env, FillsTheImageToItsLastByte) {
    for (const GuardPage guard : guards) {
        EnvironmentImage model({});
        const CurrentImage image(model.bytes(), guard);
        const std::string fitting(data_size - 4, 'v');
        EXPECT_EQ(set("a", fitting.c_str()), (Outcome{model.set("a", fitting), ""}));
        EXPECT_EQ(image.bytes(), model.bytes());
        EXPECT_EQ(image.bytes().substr(EnvironmentImage::size - 3), "v\0\0"s);
        EXPECT_EQ(printed(), (Outcome{CORVEL_ENV_DATA_SIZE - 1, "a=" + fitting + "\n"}));
        EXPECT_EQ(set("b", ""), (Outcome{1, overflow("b")}));
        EXPECT_EQ(image.bytes(), model.bytes());
        EXPECT_EQ(set("a", fitting.c_str()), (Outcome{model.set("a", fitting), ""}));
        EXPECT_EQ(image.bytes(), model.bytes());
        EXPECT_EQ(set("a", nullptr), (Outcome{model.set("a", std::nullopt), ""}));
        EXPECT_EQ(image.bytes(), model.bytes());
    }
}

TEST(set_env, FillsTheImageAfterOtherEntries) {
    for (std::size_t left = 0; left < 12; ++left) {
        // After the first entry there are the empty entry and `left` more bytes.
        const std::string first = "f=" + std::string(data_size - 4 - left, 'f');
        for (std::size_t length = 0; length < 12; ++length) {
            EnvironmentImage model({first});
            const CurrentImage image(model.bytes());
            const std::string value(length, 'v');
            const bool fits = length + 4 <= left + 1;
            EXPECT_EQ(set("n", value.c_str()), (fits ? Outcome{0, ""} : Outcome{1, overflow("n")}))
                << left << ", " << length;
            EXPECT_EQ(model.set("n", value), fits ? 0 : 1);
            EXPECT_EQ(image.bytes(), model.bytes());
        }
    }
}

TEST(set_env, DeletesTheOldValueButLeavesTheCrcStaleOnOverflow) {
    EnvironmentImage model({"a=1", "b=2", "c=3"});
    const CurrentImage image(model.bytes());
    const std::string crc_before(image.bytes().substr(0, 4));
    const std::string too_long(data_size - 8 - 3, 'v');
    EXPECT_EQ(set("b", too_long.c_str()), (Outcome{1, overflow("b")}));
    EXPECT_EQ(model.set("b", too_long), 1);
    EXPECT_EQ(image.bytes(), model.bytes());
    EXPECT_EQ(image.bytes().substr(0, 4), crc_before);
    EXPECT_EQ(printed().output, "a=1\nc=3\n");
    EXPECT_EQ(outcome_of([&image] { return set_env_ptr(image.data() - 4); }),
              (Outcome{CORVEL_ENV_BAD_CRC, bad_crc}));
    // A value shorter by one character fits, and the CRC is updated.
    const std::string fitting = too_long.substr(1);
    EXPECT_EQ(set("b", fitting.c_str()), (Outcome{model.set("b", fitting), ""}));
    EXPECT_EQ(image.bytes(), model.bytes());
    EXPECT_TRUE(model.crc_is_good());
}

TEST(set_env, ChangesNothingIfANewVariableDoesNotFit) {
    const std::string before = EnvironmentImage::of_data("a=1\0\0"s, 7).bytes();
    const CurrentImage image(before);
    const std::string value(data_size, 'v');
    EXPECT_EQ(set("b", value.c_str()), (Outcome{1, overflow("b")}));
    EXPECT_EQ(image.bytes(), before);
    const std::string name(2 * data_size, 'n');
    EXPECT_EQ(set(name.c_str(), ""), (Outcome{1, overflow(name)}));
    EXPECT_EQ(image.bytes(), before);
}

TEST(set_env, AddsNothingToAnUnterminatedList) {
    for (const std::string &data : {std::string(data_size, '\xFF'), std::string(data_size, 'a'),
                                    ending_with("end=v").data(), ending_with("end=v\0"s).data()}) {
        EnvironmentImage model = EnvironmentImage::of_data(data);
        for (const GuardPage guard : guards) {
            const CurrentImage image(model.bytes(), guard);
            EXPECT_EQ(set("n", ""), (Outcome{1, overflow("n")}));
            EXPECT_EQ(set("", ""), (Outcome{1, overflow("")}));
            EXPECT_EQ(image.bytes(), model.bytes());
        }
    }
}

TEST(set_env, TerminatesAnUnterminatedListOnDeletion) {
    for (const std::string &end : {"end=v"s, "end=v\0"s, "x"s, "\xFF\xFF"s}) {
        for (const GuardPage guard : guards) {
            EnvironmentImage model =
                EnvironmentImage::of_data("a=1\0"s + ending_with(end).data().substr(4));
            const CurrentImage image(model.bytes(), guard);
            EXPECT_EQ(set("a", nullptr), (Outcome{model.set("a", std::nullopt), ""}));
            EXPECT_EQ(image.bytes(), model.bytes());
            EXPECT_TRUE(model.end_of_list());
        }
    }
}

TEST(set_env, AcceptsAValueThatPointsIntoTheImage) {
    EnvironmentImage model({"a=1", "b=value of b", "c=3"});
    const CurrentImage image(model.bytes());
    EXPECT_EQ(set_env("new", get_env("b")), model.set("new", "value of b"));
    EXPECT_EQ(image.bytes(), model.bytes());
    EXPECT_EQ(set_env("c", get_env("b")), model.set("c", "value of b"));
    EXPECT_EQ(image.bytes(), model.bytes());
    EXPECT_EQ(set_env("tail", get_env("b") + 9), model.set("tail", "b"));
    EXPECT_EQ(image.bytes(), model.bytes());
    EXPECT_EQ(set_env("tail", get_env("tail")), model.set("tail", "b"));
    EXPECT_EQ(image.bytes(), model.bytes());
}

TEST(set_env, StaysInsideTheImageIfDeletionMovesTheValue) {
    for (const GuardPage guard : guards) {
        for (const char *name : {"a", "b", "c", "new"}) {
            for (std::size_t at = 0; at < 40; ++at) {
                const CurrentImage image(
                    EnvironmentImage({"a=first value", "b=22", "c=last value"}, '\0').bytes(),
                    guard);
                // Regardless of the value that results, the list and its CRC are valid.
                EXPECT_EQ(set(name, image.data() + at), (Outcome{0, ""}));
                EXPECT_NE(get_env(name), nullptr);
                const EnvironmentImage after =
                    EnvironmentImage::of_data(std::string(image.bytes().substr(4)));
                EXPECT_EQ(image.bytes(), after.bytes());
                EXPECT_TRUE(after.end_of_list());
                EXPECT_EQ(printed().output, after.listing());
            }
        }
    }
}

TEST(set_env, CopiesOverlappingBlocksCorrectly) {
    EnvironmentImage model = EnvironmentImage::of_data("a=1\0b=22\0c=333\0\0free space\0"s);
    const CurrentImage image(model.bytes());
    overlapping_copies = 0;
    // The entries after a deleted one move over it.
    EXPECT_EQ(set_env("a", nullptr), model.set("a", std::nullopt));
    EXPECT_EQ(image.bytes(), model.bytes());
    // The new value overlaps the bytes that it is copied from.
    const std::size_t value = model.data().find("space");
    EXPECT_EQ(set_env("newer", image.data() + value), model.set("newer", "space"));
    EXPECT_EQ(image.bytes(), model.bytes());
    EXPECT_EQ(overlapping_copies, 0U);
}

// --- print_env ---

TEST(print_env, PrintsEachWholeEntryOnItsOwnLine) {
    std::vector<std::string> entries;
    for (const std::size_t length : {1U, 2U, 14U, 15U, 16U, 17U, 31U, 32U, 33U, 48U, 1000U})
        entries.push_back("n" + std::string(length - 1, 'v'));
    entries.insert(entries.end(), {"a=1", "flag", "=", "\x80\xFF=\xFE\t%s\n"});
    const EnvironmentImage image(entries);
    const CurrentImage current(image.bytes());
    EXPECT_EQ(printed(), (Outcome{static_cast<int>(*image.end_of_list()), image.listing()}));
}

TEST(print_env, ReturnsTheOffsetOfTheEmptyEntry) {
    const CurrentImage none(EnvironmentImage({}).bytes());
    EXPECT_EQ(printed(), (Outcome{0, ""}));
    const CurrentImage two(EnvironmentImage({"a=1", "b=2"}).bytes());
    EXPECT_EQ(printed(), (Outcome{8, "a=1\nb=2\n"}));
}

TEST(print_env, StopsAtTheEndOfTheImage) {
    for (const GuardPage guard : guards) {
        const CurrentImage erased(EnvironmentImage::of_data("").bytes(), guard);
        EXPECT_EQ(printed(), (Outcome{CORVEL_ENV_DATA_SIZE,
                                      std::string(CORVEL_ENV_DATA_SIZE, '\xFF') + "\n"}));
        const CurrentImage one_nul(ending_with("end=v\0"s).bytes(), guard);
        EXPECT_EQ(printed().result, CORVEL_ENV_DATA_SIZE);
        const CurrentImage two_nuls(ending_with("end=v\0\0"s).bytes(), guard);
        EXPECT_EQ(printed().result, CORVEL_ENV_DATA_SIZE - 1);
    }
}

// --- Any image ---

std::string random_data(std::mt19937 &random, unsigned values) {
    std::string data(data_size, '\0');
    for (char &byte : data)
        byte = static_cast<char>(random() % values);
    return data;
}

std::string repeated(const std::string &piece) {
    std::string data;
    while (data.size() < data_size)
        data += piece;
    data.resize(data_size);
    return data;
}

/** Returns data that flash can contain, from valid lists to random bytes. */
std::vector<std::string> contents_of_flash() {
    std::mt19937 random(7);
    std::vector<std::string> contents = {
        std::string(data_size, '\xFF'),
        std::string(data_size, '\0'),
        std::string(data_size, '='),
        std::string(data_size, 'a'),
        std::string(data_size - 1, 'a') + '\0',
        '\0' + std::string(data_size - 1, 'a'),
        "a=1" + std::string(data_size - 3, '\0'),
        "=" + std::string(data_size - 1, '\0'),
        "=\0"s + std::string(data_size - 2, '\xFF'),
        ending_with("a=1").data(),
        ending_with("a=1\0"s).data(),
        ending_with("a=1\0\0"s).data(),
        ending_with("a=").data(),
        ending_with("a").data(),
        EnvironmentImage({"a=1", "b=2"}).data(),
    };
    for (const char *piece : {"a", "=", "a=", "ab="})
        for (const int nuls : {1, 2})
            contents.push_back(repeated(piece + std::string(static_cast<std::size_t>(nuls), '\0')));
    // The more NULs and equals signs occur, the longer the lists.
    for (const unsigned values : {256U, 98U, 62U, 3U, 2U})
        contents.push_back(random_data(random, values));
    for (int i = 0; i < 12; ++i) {
        std::string data = random_data(random, 256);
        std::replace_if(
            data.begin(), data.end(), [](char byte) { return (byte & 3) == 0; }, 'a');
        std::replace_if(
            data.begin(), data.end(), [](char byte) { return (byte & 31) == 1; }, '=');
        std::replace_if(
            data.begin(), data.end(), [](char byte) { return (byte & 31) == 2; }, '\0');
        for (std::size_t at = 1; at < data.size(); ++at)
            if (data[at] == '\0' && data[at - 1] == '\0')
                data[at] = 'a';
        contents.push_back(data);
    }
    return contents;
}

TEST(AnyImage, IsSearchedEditedAndPrintedWithinItsBounds) {
    const std::string long_value(1000, 'v');
    const std::vector<std::pair<const char *, const char *>> edits = {{"a", nullptr},
                                                                      {"new", "1"},
                                                                      {"a", "1"},
                                                                      {"", nullptr},
                                                                      {"", ""},
                                                                      {"=", "1"},
                                                                      {"ab", "x"},
                                                                      {"a", ""},
                                                                      {"a", nullptr},
                                                                      {"\xFF", "\xFF"},
                                                                      {"new", nullptr},
                                                                      {"aa", nullptr},
                                                                      {"ab", long_value.c_str()}};
    int number = 0;
    for (const std::string &data : contents_of_flash()) {
        const GuardPage guard = guards[static_cast<std::size_t>(number) % 2];
        EnvironmentImage model = EnvironmentImage::of_data(data, 0x5A5A5A5A);
        const CurrentImage image(model.bytes(), guard);
        EXPECT_EQ(image.load_result(), CORVEL_ENV_BAD_CRC);
        EXPECT_EQ(image.load_output(), bad_crc);
        for (const auto &[name, value] : edits) {
            for (const char *wanted : {"a", "ab", "", "=", "new", "aaa=", "\xFF", "a=1"}) {
                const auto expected = model.get(wanted);
                ASSERT_EQ(image.offset_of(wanted),
                          expected ? std::optional(expected->offset) : std::nullopt)
                    << wanted << " in content " << number;
                if (expected) {
                    ASSERT_EQ(get_env(wanted), expected->text);
                }
            }
            const auto wanted = value == nullptr ? std::nullopt : std::optional<std::string>(value);
            ASSERT_EQ(set(name, value).result, model.set(name, wanted))
                << name << " in content " << number;
            ASSERT_EQ(image.bytes(), model.bytes()) << name << " in content " << number;
        }
        const std::size_t end = model.end_of_list().value_or(data_size);
        ASSERT_EQ(printed(), (Outcome{static_cast<int>(end), model.listing()}))
            << "content " << number;
        ASSERT_EQ(image.bytes(), model.bytes());
        ++number;
    }
}

// --- Random edits ---

/** Sets or deletes a variable at random; some of the values fill much of the image. */
std::pair<std::string, std::optional<std::string>> random_edit(std::mt19937 &random) {
    static const std::vector<std::string> stems = {"boot", "bootargs", "b", "ipaddr", "\xC3\xA9"};
    std::string name = stems[random() % stems.size()];
    if (random() % 4 != 0)
        name += std::to_string(random() % 12);
    if (random() % 5 < 2)
        return {name, std::nullopt};
    const std::size_t limit = random() % 20 == 0 ? 40000 : random() % 5 == 0 ? 3000 : 60;
    std::string value(random() % limit, '\0');
    for (char &byte : value)
        byte = static_cast<char>(1 + random() % 255);
    return {name, value};
}

class RandomEdits : public testing::TestWithParam<unsigned> {};

TEST_P(RandomEdits, AgreeWithTheModelByteForByte) {
    std::mt19937 random(GetParam());
    EnvironmentImage model({"bootparam=0"}, static_cast<char>(random()));
    const CurrentImage image(model.bytes(), guards[GetParam() % 2]);
    int overflows = 0;
    for (int step = 0; step < 2000; ++step) {
        const auto &[name, value] = random_edit(random);
        const int expected = model.set(name, value);
        const Outcome outcome = set(name.c_str(), value ? value->c_str() : nullptr);
        ASSERT_EQ(outcome, (Outcome{expected, expected == 0 ? "" : overflow(name)})) << step;
        ASSERT_EQ(image.bytes(), model.bytes()) << step;
        overflows += expected;
        const auto &[other, unused] = random_edit(random);
        const auto found = model.get(other);
        ASSERT_EQ(image.offset_of(other.c_str()),
                  found ? std::optional(found->offset) : std::nullopt)
            << step;
    }
    EXPECT_EQ(printed().output, model.listing());
    EXPECT_GT(overflows, 10) << "the image was never full";
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomEdits, testing::Values(1U, 2U, 3U, 4U));

// --- Golden files ---

/** Returns a whole environment image; the files omit the erased flash at its end. */
std::string golden_environment(const std::string &name) {
    std::string image = golden(name);
    image.resize(EnvironmentImage::size, '\xFF');
    return image;
}

TEST(GoldenEnvironment, IsReadAsListed) {
    const TemporaryDirectory directory;
    directory.write("env", golden_environment("environment.head"));
    EXPECT_EQ(init(directory.path("env")), (Outcome{CORVEL_ENV_GOOD, ""}));
    EXPECT_EQ(printed().output, golden("environment.txt"));
    EXPECT_STREQ(get_env("latin"), "\xE9\x80\xFF");
    EXPECT_STREQ(get_env("empty"), "");
}

TEST(GoldenEnvironment, IsEditedToTheSameBytes) {
    const TemporaryDirectory directory;
    directory.write("env", golden_environment("environment.head"));
    const std::string path = directory.path("env");
    EXPECT_EQ(init(path), (Outcome{CORVEL_ENV_GOOD, ""}));
    EXPECT_EQ(set_env("bootdelay", nullptr), 0);
    EXPECT_EQ(
        set_env("bootargs", "console=ttyS0,115200 root=31:4 rootfstype=squashfs init=/sbin/init"),
        0);
    EXPECT_EQ(save_param(path.c_str(), "bootparam", "1"), 0);
    EXPECT_EQ(directory.read("env"), golden_environment("environment-edited.head"));
}

} // namespace
