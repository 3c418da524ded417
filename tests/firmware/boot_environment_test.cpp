/* SPDX-License-Identifier: MIT */
#include <corvel.h>

#include "tests/firmware/current_image.h"
#include "tests/firmware/environment_image.h"
#include "tests/support/child_process.h"
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

/** The calls of memcpy() whose blocks overlap, which it need not copy right. */
unsigned long overlapping_copies;

} // namespace

#ifndef __SANITIZE_ADDRESS__ // AddressSanitizer has its own, which ends the program

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
constexpr std::array fences = {Fence::after, Fence::before};

/** The answers of a process in which no image was ever current: taken before the first test. */
const struct BeforeAnyImage {
    char *value = get_env("a");
    int set = -1;
    int deleted = -1;
    int set_bad_name = -1;
    int printed = -1;
    std::string said = capture_stdout([this] {
        set = set_env("a", "1");
        deleted = set_env("a", nullptr);
        set_bad_name = set_env("a=", "1");
        printed = print_env();
    });
    bool image_is_zero = std::all_of(std::begin(env_image_mem), std::end(env_image_mem),
                                     [](unsigned char byte) { return byte == 0; });
} before_any_image;

std::size_t open_descriptors() {
    const auto entries = fs::directory_iterator("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

/** A call's result and what it printed. */
struct Answer {
    int result;
    std::string said;
    bool operator==(const Answer &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Answer &answer) {
    return out << answer.result << " and \"" << answer.said.substr(0, 200) << '"';
}

Answer answer_of(const std::function<int()> &call) {
    Answer answer{-99, ""};
    answer.said = capture_stdout([&] { answer.result = call(); });
    return answer;
}

Answer init(const std::string &path) {
    return answer_of([&path] { return init_env(path.c_str()); });
}

Answer set(const char *name, const char *value) {
    return answer_of([=] { return set_env(name, value); });
}

Answer printed() {
    return answer_of([] { return print_env(); });
}

std::string overflow(const std::string &name) {
    return "## Error: environment overflow, \"" + name + "\" deleted\n";
}

std::string_view memory_image() {
    return {reinterpret_cast<const char *>(env_image_mem), sizeof env_image_mem};
}

TEST(NoCurrentImage, AnswersAndPrintsNothing) {
    EXPECT_EQ(before_any_image.value, nullptr);
    EXPECT_EQ(before_any_image.set, 1);
    EXPECT_EQ(before_any_image.deleted, 1);
    EXPECT_EQ(before_any_image.set_bad_name, 1);
    EXPECT_EQ(before_any_image.printed, 0);
    EXPECT_EQ(before_any_image.said, "");
    EXPECT_TRUE(before_any_image.image_is_zero);
}

TEST(InitEnv, ReadsAGoodImageAndMakesItCurrent) {
    const TemporaryDirectory folder;
    const EnvironmentImage image({"bootdelay=1", "bootargs=console=ttyS0 root=31:2"});
    folder.write("env", image.bytes());
    const std::size_t descriptors = open_descriptors();
    EXPECT_EQ(init(folder.path("env")), (Answer{0, ""}));
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(memory_image(), image.bytes());
    EXPECT_STREQ(get_env("bootargs"), "console=ttyS0 root=31:2");
    EXPECT_EQ(get_env("bootdelay"), reinterpret_cast<char *>(env_image_mem) + 4 + 10);
    EXPECT_EQ(folder.read("env"), image.bytes());
}

TEST(InitEnv, ReadsOnce) {
    const TemporaryDirectory folder;
    folder.write("env", EnvironmentImage({}).bytes());
    const CountCalls opened(call_open);
    const CountCalls reads(call_read);
    EXPECT_EQ(init_env(folder.path("env").c_str()), 0);
    EXPECT_EQ(opened.count(), 1U);
    EXPECT_EQ(reads.count(), 1U);
}

TEST(InitEnv, IgnoresWhatALargerFileHoldsBehindTheImage) {
    const TemporaryDirectory folder;
    folder.write("env", EnvironmentImage({"a=1"}).bytes() + "more");
    EXPECT_EQ(init(folder.path("env")), (Answer{0, ""}));
    EXPECT_STREQ(get_env("a"), "1");
}

TEST(InitEnv, KeepsAnImageWithABadCrcCurrent) {
    const TemporaryDirectory folder;
    folder.write("env", EnvironmentImage::of_data("a=1\0\0"s, 0x12345678).bytes());
    const std::size_t descriptors = open_descriptors();
    EXPECT_EQ(init(folder.path("env")), (Answer{1, bad_crc}));
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_STREQ(get_env("a"), "1");
    EXPECT_EQ(set_env("b", "2"), 0);
    EXPECT_EQ(answer_of([] { return set_env_ptr(env_image_mem); }), (Answer{0, ""}));
}

TEST(InitEnv, RefusesAFileThatIsTooShort) {
    const TemporaryDirectory folder;
    const CurrentImage other(EnvironmentImage({"other=still"}).bytes());
    const std::string good = EnvironmentImage({"a=1"}).bytes();
    const std::size_t descriptors = open_descriptors();
    for (const std::size_t size : {0U, 1U, 4U, 65535U}) {
        folder.write("env", good.substr(0, size));
        EXPECT_EQ(init(folder.path("env")), (Answer{-1, too_short})) << size;
        EXPECT_STREQ(get_env("other"), "still") << "what was current stays current";
    }
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST(InitEnv, RefusesAFileThatCannotBeOpened) {
    const TemporaryDirectory folder;
    const CurrentImage other(EnvironmentImage({"other=still"}).bytes());
    const std::string path = folder.path("missing");
    EXPECT_EQ(init(path), (Answer{-1, "Err: can not open file " + path + "\n"}));
    EXPECT_FALSE(folder.exists("missing"));
    EXPECT_EQ(answer_of([] { return init_env(nullptr); }),
              (Answer{-1, "Err: can not open file \n"}));
    EXPECT_STREQ(get_env("other"), "still");
}

TEST(InitEnv, RefusesAFileThatMayNotBeRead) {
    expect_as_ordinary_user([] {
        const TemporaryDirectory folder;
        folder.write("env", EnvironmentImage({}).bytes());
        fs::permissions(folder.path("env"), fs::perms::none);
        const std::string path = folder.path("env");
        EXPECT_EQ(init(path), (Answer{-1, "Err: can not open file " + path + "\n"}));
    });
}

TEST(InitEnv, FindsNoImageInAFolder) {
    const TemporaryDirectory folder;
    const std::size_t descriptors = open_descriptors();
    EXPECT_EQ(init(folder.path()), (Answer{-1, too_short}));
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST(InitEnv, RefusesAFileWhoseReadingFails) {
    const TemporaryDirectory folder;
    folder.write("env", EnvironmentImage({}).bytes());
    const std::size_t descriptors = open_descriptors();
    Answer answer{};
    answer.said = capture_stdout([&] {
        const FailCall failing(call_read, 1);
        answer.result = init_env(folder.path("env").c_str());
    });
    EXPECT_EQ(answer, (Answer{-1, too_short}));
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST(InitEnv, TakesDescriptorZeroForAFailure) {
    const TemporaryDirectory folder;
    folder.write("env", EnvironmentImage({}).bytes());
    const std::string path = folder.path("env");
    const ChildResult child = run_in_child([&path] {
        close(STDIN_FILENO);
        const int result = init_env(path.c_str());
        // It stays open, in the place of standard input.
        return result == -1 && fcntl(STDIN_FILENO, F_GETFD) != -1 ? 0 : 1;
    });
    EXPECT_EQ(child.out, "Err: can not open file " + path + "\n");
    EXPECT_EQ(child.exit_status, 0);
}

TEST(SetEnvPtr, ChecksTheCrcOfTheWholeDataArea) {
    const std::string good = EnvironmentImage({"a=1"}).bytes();
    for (std::size_t at = 0; at < good.size(); at += at < 64 || at > 65400 ? 1 : 251) {
        std::string bytes = good;
        bytes[at] = static_cast<char>(bytes[at] ^ 1 << at % 8);
        const CurrentImage image(bytes);
        ASSERT_EQ(image.loaded(), 1) << at;
        ASSERT_EQ(image.loaded_said(), bad_crc) << at;
        ASSERT_EQ(image.bytes(), bytes) << at;
    }
    const CurrentImage image(good);
    EXPECT_EQ(image.loaded(), 0);
    EXPECT_EQ(image.loaded_said(), "");
}

TEST(SetEnvPtr, TakesAnImageAtAnyAddress) {
    std::string memory(EnvironmentImage::size + 8, 'x');
    for (std::size_t at = 0; at < 8; ++at) {
        EnvironmentImage image({"a=1"});
        memory.replace(at, EnvironmentImage::size, image.bytes());
        EXPECT_EQ(set_env_ptr(memory.data() + at), 0);
        EXPECT_EQ(set_env("b", "2"), image.set("b", "2"));
        EXPECT_EQ(memory.substr(at, EnvironmentImage::size), image.bytes());
    }
}

TEST(SetEnvPtr, ReplacesTheCurrentImage) {
    const CurrentImage first(EnvironmentImage({"a=first"}).bytes());
    const CurrentImage second(EnvironmentImage({"a=second"}).bytes());
    EXPECT_STREQ(get_env("a"), "second");
    EXPECT_EQ(set_env("a", nullptr), 0);
    EXPECT_EQ(first.bytes(), EnvironmentImage({"a=first"}).bytes());
}

TEST(GetEnv, FindsAVariableByItsWholeName) {
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

TEST(GetEnv, ComparesANameUpToItsFirstEqualsSign) {
    const CurrentImage image(
        EnvironmentImage({"bootdelay=1", "bootargs=root=31:2", "=nameless"}).bytes());
    EXPECT_STREQ(get_env("bootdelay="), "1");
    EXPECT_STREQ(get_env("bootdelay=x"), "1");
    EXPECT_STREQ(get_env("bootargs=root="), "root=31:2");
    EXPECT_STREQ(get_env("="), "nameless");
    EXPECT_STREQ(get_env("=x"), "nameless");
    EXPECT_EQ(get_env("boot="), nullptr);
}

TEST(GetEnv, FindsAVariableWithoutANameUnderTheEmptyName) {
    const CurrentImage image(EnvironmentImage({"a=1", "=nameless"}).bytes());
    EXPECT_STREQ(get_env(""), "nameless");
    EXPECT_STREQ(get_env(nullptr), "nameless");
    const CurrentImage other(EnvironmentImage({"a=1"}).bytes());
    EXPECT_EQ(get_env(""), nullptr);
    EXPECT_EQ(get_env(nullptr), nullptr);
}

TEST(GetEnv, TakesTheFirstOfSeveral) {
    const CurrentImage image(EnvironmentImage({"a=1", "b=2", "a=3"}).bytes());
    EXPECT_STREQ(get_env("a"), "1");
}

TEST(GetEnv, GivesAnEmptyValueButNoneForAnEntryWithoutEqualsSign) {
    const CurrentImage image(EnvironmentImage({"flag", "empty=", "last=1"}).bytes());
    EXPECT_STREQ(get_env("empty"), "");
    EXPECT_EQ(get_env("flag"), nullptr);
    EXPECT_EQ(get_env("flag="), nullptr);
    EXPECT_STREQ(get_env("last"), "1");
}

TEST(GetEnv, ReadsNoFurtherThanTheEmptyEntry) {
    const CurrentImage image(EnvironmentImage::of_data("a=1\0\0b=2\0\0"s).bytes());
    EXPECT_EQ(get_env("b"), nullptr);
    const CurrentImage empty(EnvironmentImage::of_data("\0b=2\0\0"s).bytes());
    EXPECT_EQ(get_env("b"), nullptr);
}

TEST(GetEnv, ComparesBytesAbove127) {
    const CurrentImage image(EnvironmentImage({"\x80\xFF=\xFE"}).bytes());
    EXPECT_STREQ(get_env("\x80\xFF"), "\xFE");
    EXPECT_EQ(get_env("\x80"), nullptr);
}

/** An image whose data ends with the given bytes, behind one long entry. */
EnvironmentImage ending_with(const std::string &end) {
    return EnvironmentImage::of_data("long=" + std::string(data_size - 6 - end.size(), 'l') + '\0' +
                                     end);
}

TEST(GetEnv, FindsWhatStandsAtTheVeryEnd) {
    for (const Fence fence : fences) {
        const CurrentImage two_nuls(ending_with("end=v\0\0"s).bytes(), fence);
        EXPECT_EQ(two_nuls.offset_of("end"), data_size - 3);
        const CurrentImage one_nul(ending_with("end=v\0"s).bytes(), fence);
        EXPECT_EQ(one_nul.offset_of("end"), data_size - 2);
        EXPECT_STREQ(get_env("end"), "v");
        const CurrentImage empty_value(ending_with("end=\0"s).bytes(), fence);
        EXPECT_EQ(empty_value.offset_of("end"), data_size - 1);
    }
}

TEST(GetEnv, FindsNothingInAnEntryThatHasNoEnd) {
    for (const Fence fence : fences)
        for (const std::string end : {"end=v", "end=", "end", "e", "=", "end=vend"}) {
            const CurrentImage image(ending_with(end).bytes(), fence);
            for (const char *name : {"end", "end=", "e", "", "=", "ende", "end=v", "longer"})
                EXPECT_EQ(get_env(name), nullptr) << name << " in " << end;
            EXPECT_EQ(image.offset_of("long"), 5U);
        }
}

TEST(SetEnv, PutsAVariableAtTheEndOfTheList) {
    EnvironmentImage model({});
    const CurrentImage image(model.bytes());
    for (const auto &[name, value] : std::vector<std::pair<std::string, std::string>>{
             {"a", "1"}, {"b", "2"}, {"a", "1"}, {"a", "longer"}, {"c", ""}, {"b", "x=y z"}}) {
        EXPECT_EQ(set(name.c_str(), value.c_str()), (Answer{model.set(name, value), ""}));
        EXPECT_EQ(image.bytes(), model.bytes());
    }
    EXPECT_EQ(model.data().substr(0, 20), "a=longer\0c=\0b=x=y z\0"s);
    EXPECT_EQ(std::string(image.data(), 21), "a=longer\0c=\0b=x=y z\0\0"s);
}

TEST(SetEnv, LeavesOneEntryForAVariableThatIsSetTwice) {
    const CurrentImage image(EnvironmentImage({"z=0"}).bytes());
    EXPECT_EQ(set_env("a", "1"), 0);
    EXPECT_EQ(set_env("a", "1"), 0);
    EXPECT_EQ(printed(), (Answer{8, "z=0\na=1\n"}));
}

TEST(SetEnv, KeepsTheCrcGood) {
    const CurrentImage image(EnvironmentImage({"a=1"}).bytes());
    EXPECT_EQ(set_env("b", "2"), 0);
    EXPECT_EQ(image.bytes().substr(0, 4), stored(reference_crc(image.bytes().substr(4))));
}

TEST(SetEnv, TouchesNoFreeSpace) {
    for (const char fill : {'\xFF', '\0', 'x'}) {
        EnvironmentImage model({"a=1"}, fill);
        const CurrentImage image(model.bytes());
        EXPECT_EQ(set_env("b", "2"), model.set("b", "2"));
        EXPECT_EQ(set_env("a", nullptr), model.set("a", std::nullopt));
        EXPECT_EQ(image.bytes(), model.bytes());
        // The first entry moved over; what is left of the old list stays.
        EXPECT_EQ(std::string(image.data(), 10), "b=2\0\0=2\0\0"s + fill);
    }
}

TEST(SetEnv, DeletesTheFirstAMiddleAndTheLastEntry) {
    const std::vector<std::string> entries = {"first=1", "middle=22", "last=333"};
    for (const char *name : {"first", "middle", "last"}) {
        EnvironmentImage model(entries);
        const CurrentImage image(model.bytes());
        EXPECT_EQ(set(name, nullptr), (Answer{model.set(name, std::nullopt), ""}));
        EXPECT_EQ(image.bytes(), model.bytes()) << name;
        EXPECT_EQ(get_env(name), nullptr);
        EXPECT_EQ(image.bytes().substr(0, 4), stored(reference_crc(image.bytes().substr(4))));
    }
    const CurrentImage image(EnvironmentImage(entries).bytes());
    set_env("last", nullptr);
    EXPECT_EQ(std::string(image.data(), 20), "first=1\0middle=22\0\0a"s);
}

TEST(SetEnv, LeavesTwoNulsWhereTheOnlyEntryWas) {
    const CurrentImage image(EnvironmentImage({"a=1"}).bytes());
    EXPECT_EQ(set_env("a", nullptr), 0);
    EXPECT_EQ(std::string(image.data(), 5), "\0\0001\0\0"s);
    EXPECT_EQ(printed(), (Answer{0, ""}));
}

TEST(SetEnv, OnlyUpdatesTheCrcWhereThereIsNothingToDelete) {
    EnvironmentImage model = EnvironmentImage::of_data("a=1\0\0"s, 0xDEADBEEF);
    const CurrentImage image(model.bytes());
    EXPECT_EQ(image.loaded(), 1);
    EXPECT_EQ(set("missing", nullptr), (Answer{0, ""}));
    EXPECT_EQ(image.bytes(), EnvironmentImage({"a=1"}).bytes());
}

TEST(SetEnv, ReplacesOnlyTheFirstOfSeveral) {
    EnvironmentImage model({"a=1", "b=2", "a=3"});
    const CurrentImage image(model.bytes());
    EXPECT_EQ(set_env("a", "4"), model.set("a", "4"));
    EXPECT_EQ(image.bytes(), model.bytes());
    EXPECT_EQ(printed().said, "b=2\na=3\na=4\n");
}

TEST(SetEnv, RefusesAnEqualsSignInAName) {
    for (const std::string name : {"a=", "=", "a=b", "new=", "=a", "a=\"%s"}) {
        for (const char *value : {"2", static_cast<const char *>(nullptr)}) {
            // Not even a wrong CRC is put right.
            const std::string before = EnvironmentImage::of_data("a=1\0\0"s, 7).bytes();
            const CurrentImage image(before);
            EXPECT_EQ(
                set(name.c_str(), value),
                (Answer{1, "## Error: illegal character '=' in variable name \"" + name + "\"\n"}));
            EXPECT_EQ(image.bytes(), before);
        }
    }
}

TEST(SetEnv, SetsAndDeletesTheEmptyName) {
    EnvironmentImage model({"a=1"});
    const CurrentImage image(model.bytes());
    EXPECT_EQ(set_env(nullptr, "v"), model.set("", "v"));
    EXPECT_EQ(image.bytes(), model.bytes());
    EXPECT_STREQ(get_env(""), "v");
    EXPECT_EQ(set_env("", nullptr), model.set("", std::nullopt));
    EXPECT_EQ(image.bytes(), model.bytes());
}

TEST(SetEnv, FillsTheImageToItsLastByte) {
    for (const Fence fence : fences) {
        EnvironmentImage model({});
        const CurrentImage image(model.bytes(), fence);
        const std::string fitting(data_size - 4, 'v');
        EXPECT_EQ(set("a", fitting.c_str()), (Answer{model.set("a", fitting), ""}));
        EXPECT_EQ(image.bytes(), model.bytes());
        EXPECT_EQ(image.bytes().substr(65533), "v\0\0"s);
        EXPECT_EQ(printed(), (Answer{65531, "a=" + fitting + "\n"}));
        EXPECT_EQ(set("b", ""), (Answer{1, overflow("b")}));
        EXPECT_EQ(image.bytes(), model.bytes());
        EXPECT_EQ(set("a", fitting.c_str()), (Answer{model.set("a", fitting), ""}));
        EXPECT_EQ(image.bytes(), model.bytes());
        EXPECT_EQ(set("a", nullptr), (Answer{model.set("a", std::nullopt), ""}));
        EXPECT_EQ(image.bytes(), model.bytes());
    }
}

TEST(SetEnv, FillsTheImageBehindOtherEntries) {
    for (std::size_t left = 0; left < 12; ++left) {
        // What is left behind the first entry is the place of the empty one and `left` more.
        const std::string first = "f=" + std::string(data_size - 4 - left, 'f');
        for (std::size_t length = 0; length < 12; ++length) {
            EnvironmentImage model({first});
            const CurrentImage image(model.bytes());
            const std::string value(length, 'v');
            const bool fits = length + 4 <= left + 1;
            EXPECT_EQ(set("n", value.c_str()), (fits ? Answer{0, ""} : Answer{1, overflow("n")}))
                << left << ", " << length;
            EXPECT_EQ(model.set("n", value), fits ? 0 : 1);
            EXPECT_EQ(image.bytes(), model.bytes());
        }
    }
}

TEST(SetEnv, DropsTheOldValueAndKeepsTheStaleCrcOnAnOverflow) {
    EnvironmentImage model({"a=1", "b=2", "c=3"});
    const CurrentImage image(model.bytes());
    const std::string crc_before(image.bytes().substr(0, 4));
    const std::string too_long(data_size - 8 - 3, 'v');
    EXPECT_EQ(set("b", too_long.c_str()), (Answer{1, overflow("b")}));
    EXPECT_EQ(model.set("b", too_long), 1);
    EXPECT_EQ(image.bytes(), model.bytes());
    EXPECT_EQ(image.bytes().substr(0, 4), crc_before);
    EXPECT_EQ(printed().said, "a=1\nc=3\n");
    EXPECT_EQ(answer_of([&image] { return set_env_ptr(image.data() - 4); }), (Answer{1, bad_crc}));
    // One character less fits, and puts the CRC right.
    const std::string fitting = too_long.substr(1);
    EXPECT_EQ(set("b", fitting.c_str()), (Answer{model.set("b", fitting), ""}));
    EXPECT_EQ(image.bytes(), model.bytes());
    EXPECT_TRUE(model.crc_is_good());
}

TEST(SetEnv, ChangesNothingWhereANewVariableDoesNotFit) {
    const std::string before = EnvironmentImage::of_data("a=1\0\0"s, 7).bytes();
    const CurrentImage image(before);
    const std::string value(data_size, 'v');
    EXPECT_EQ(set("b", value.c_str()), (Answer{1, overflow("b")}));
    EXPECT_EQ(image.bytes(), before);
    const std::string name(2 * data_size, 'n');
    EXPECT_EQ(set(name.c_str(), ""), (Answer{1, overflow(name)}));
    EXPECT_EQ(image.bytes(), before);
}

TEST(SetEnv, HasNoRoomWhereTheListHasNoEnd) {
    for (const std::string &data : {std::string(data_size, '\xFF'), std::string(data_size, 'a'),
                                    ending_with("end=v").data(), ending_with("end=v\0"s).data()}) {
        EnvironmentImage model = EnvironmentImage::of_data(data);
        for (const Fence fence : fences) {
            const CurrentImage image(model.bytes(), fence);
            EXPECT_EQ(set("n", ""), (Answer{1, overflow("n")}));
            EXPECT_EQ(set("", ""), (Answer{1, overflow("")}));
            EXPECT_EQ(image.bytes(), model.bytes());
        }
    }
}

TEST(SetEnv, EndsAListWithoutAnEndWhenItDeletesFromIt) {
    for (const std::string &end : {"end=v"s, "end=v\0"s, "x"s, "\xFF\xFF"s}) {
        for (const Fence fence : fences) {
            EnvironmentImage model =
                EnvironmentImage::of_data("a=1\0"s + ending_with(end).data().substr(4));
            const CurrentImage image(model.bytes(), fence);
            EXPECT_EQ(set("a", nullptr), (Answer{model.set("a", std::nullopt), ""}));
            EXPECT_EQ(image.bytes(), model.bytes());
            EXPECT_TRUE(model.end_of_list());
        }
    }
}

TEST(SetEnv, TakesAValueThatPointsIntoTheImage) {
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

TEST(SetEnv, StaysInsideWithAValueThatItsOwnDeletionMoves) {
    for (const Fence fence : fences) {
        for (const char *name : {"a", "b", "c", "new"}) {
            for (std::size_t at = 0; at < 40; ++at) {
                const CurrentImage image(
                    EnvironmentImage({"a=first value", "b=22", "c=last value"}, '\0').bytes(),
                    fence);
                // Whatever text stands there in the end, the list and its CRC are whole.
                EXPECT_EQ(set(name, image.data() + at), (Answer{0, ""}));
                EXPECT_NE(get_env(name), nullptr);
                const EnvironmentImage after =
                    EnvironmentImage::of_data(std::string(image.bytes().substr(4)));
                EXPECT_EQ(image.bytes(), after.bytes());
                EXPECT_TRUE(after.end_of_list());
                EXPECT_EQ(printed().said, after.listing());
            }
        }
    }
}

TEST(SetEnv, CopiesOverlappingBytesAsSuch) {
    EnvironmentImage model = EnvironmentImage::of_data("a=1\0b=22\0c=333\0\0free space\0"s);
    const CurrentImage image(model.bytes());
    overlapping_copies = 0;
    // What follows a removed entry moves over it.
    EXPECT_EQ(set_env("a", nullptr), model.set("a", std::nullopt));
    EXPECT_EQ(image.bytes(), model.bytes());
    // The place of the new value overlaps what it is copied from.
    const std::size_t value = model.data().find("space");
    EXPECT_EQ(set_env("newer", image.data() + value), model.set("newer", "space"));
    EXPECT_EQ(image.bytes(), model.bytes());
    EXPECT_EQ(overlapping_copies, 0U);
}

TEST(PrintEnv, PrintsEachEntryWholeOnALineOfItsOwn) {
    std::vector<std::string> entries;
    for (const std::size_t length : {1U, 2U, 14U, 15U, 16U, 17U, 31U, 32U, 33U, 48U, 1000U})
        entries.push_back("n" + std::string(length - 1, 'v'));
    entries.insert(entries.end(), {"a=1", "flag", "=", "\x80\xFF=\xFE\t%s\n"});
    const EnvironmentImage image(entries);
    const CurrentImage current(image.bytes());
    EXPECT_EQ(printed(), (Answer{static_cast<int>(*image.end_of_list()), image.listing()}));
}

TEST(PrintEnv, GivesTheOffsetOfTheEmptyEntry) {
    const CurrentImage none(EnvironmentImage({}).bytes());
    EXPECT_EQ(printed(), (Answer{0, ""}));
    const CurrentImage two(EnvironmentImage({"a=1", "b=2"}).bytes());
    EXPECT_EQ(printed(), (Answer{8, "a=1\nb=2\n"}));
}

TEST(PrintEnv, EndsWhereTheImageEnds) {
    for (const Fence fence : fences) {
        const CurrentImage erased(EnvironmentImage::of_data("").bytes(), fence);
        EXPECT_EQ(printed(),
                  (Answer{CORVEL_ENV_DATA_SIZE, std::string(CORVEL_ENV_DATA_SIZE, '\xFF') + "\n"}));
        const CurrentImage one_nul(ending_with("end=v\0"s).bytes(), fence);
        EXPECT_EQ(printed().result, CORVEL_ENV_DATA_SIZE);
        const CurrentImage two_nuls(ending_with("end=v\0\0"s).bytes(), fence);
        EXPECT_EQ(printed().result, 65531);
    }
}

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

/** Contents that flash can have, from good lists to noise. */
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
    // The more often NULs and equals signs occur, the longer the lists.
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

TEST(AnyImage, IsSearchedEditedAndPrintedInsideAlone) {
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
        const Fence fence = fences[static_cast<std::size_t>(number) % 2];
        EnvironmentImage model = EnvironmentImage::of_data(data, 0x5A5A5A5A);
        const CurrentImage image(model.bytes(), fence);
        EXPECT_EQ(image.loaded(), 1);
        EXPECT_EQ(image.loaded_said(), bad_crc);
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
        ASSERT_EQ(printed(), (Answer{static_cast<int>(end), model.listing()}))
            << "content " << number;
        ASSERT_EQ(image.bytes(), model.bytes());
        ++number;
    }
}

/** A random set or delete; now and then with a value that fills much of the image. */
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
    const CurrentImage image(model.bytes(), fences[GetParam() % 2]);
    int overflows = 0;
    for (int step = 0; step < 2000; ++step) {
        const auto &[name, value] = random_edit(random);
        const int expected = model.set(name, value);
        const Answer answer = set(name.c_str(), value ? value->c_str() : nullptr);
        ASSERT_EQ(answer, (Answer{expected, expected == 0 ? "" : overflow(name)})) << step;
        ASSERT_EQ(image.bytes(), model.bytes()) << step;
        overflows += expected;
        const auto &[other, unused] = random_edit(random);
        const auto found = model.get(other);
        ASSERT_EQ(image.offset_of(other.c_str()),
                  found ? std::optional(found->offset) : std::nullopt)
            << step;
    }
    EXPECT_EQ(printed().said, model.listing());
    EXPECT_GT(overflows, 10) << "the image was never full";
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomEdits, testing::Values(1U, 2U, 3U, 4U));

/** A whole environment image; the files leave out the erased flash at its end. */
std::string golden_environment(const std::string &name) {
    std::string image = golden(name);
    image.resize(EnvironmentImage::size, '\xFF');
    return image;
}

TEST(GoldenEnvironment, IsReadAlike) {
    const TemporaryDirectory folder;
    folder.write("env", golden_environment("environment.head"));
    EXPECT_EQ(init(folder.path("env")), (Answer{0, ""}));
    EXPECT_EQ(printed().said, golden("environment.txt"));
    EXPECT_STREQ(get_env("latin"), "\xE9\x80\xFF");
    EXPECT_STREQ(get_env("empty"), "");
}

TEST(GoldenEnvironment, IsWrittenAlike) {
    const TemporaryDirectory folder;
    folder.write("env", golden_environment("environment.head"));
    const std::string path = folder.path("env");
    EXPECT_EQ(init(path), (Answer{0, ""}));
    EXPECT_EQ(set_env("bootdelay", nullptr), 0);
    EXPECT_EQ(
        set_env("bootargs", "console=ttyS0,115200 root=31:4 rootfstype=squashfs init=/sbin/init"),
        0);
    EXPECT_EQ(save_param(path.c_str(), "bootparam", "1"), 0);
    EXPECT_EQ(folder.read("env"), golden_environment("environment-edited.head"));
}

} // namespace
