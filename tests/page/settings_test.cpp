/* SPDX-License-Identifier: MIT */
#include "tests/page/settings_helpers.h"

#include "tests/config/writers.h"
#include "tests/support/child_process.h"
#include "tests/support/descriptors.h"
#include "tests/support/guarded_memory.h"
#include "tests/support/stand_in.h"
#include "tests/support/temporary_directory.h"

#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace {

using namespace corvel_test;
namespace fs = std::filesystem;
using Pairs = std::vector<std::pair<std::string, std::string>>;

/** A directory with a file "conf". */
class SettingsTest : public testing::Test {
  protected:
    [[nodiscard]] std::string path() const { return directory_.path("conf"); }
    [[nodiscard]] std::string content() const { return directory_.read("conf"); }
    void write(std::string_view content) const { directory_.write("conf", content); }
    /** The content after setting one name to a value and saving. */
    std::string after_set(std::string_view before, const std::string &name,
                          const std::string &value, char separator = '=') const {
        write(before);
        const Settings settings(path(), separator);
        EXPECT_EQ(settings.set(name, value), "");
        EXPECT_GE(settings.save(), 0);
        EXPECT_EQ(value_for_library(separator, path(), name), value);
        return content();
    }

    TemporaryDirectory directory_;
};

// Loading.

class corvel_settings_load : public SettingsTest {};

TEST_F(corvel_settings_load, ReadsWhatLoadPropAndGetPropRead) {
    const std::vector<std::string> files = {
        "",
        "\n",
        "A=1\n",
        "A=\"a b\"\n# C=1\n C=2\n#D=1\n  E  = 3 \nF=x=y\n",
        "A=1\nA=2\n",
        "A=1\nB=2",
        "=1\nsetenv X=1\n",
        "DESCRIPTION=\"use setenv X=1\"\n",
        "A=\"\"\nB=\"\nC=\"a\nD=a\"\nE=\"\"a\"\"\n",
        "A=\"\\\"\\\\\\$\\`\\n\"\n",
        std::string("A=1\0B=2\nC=3\n", 12),
        "A=" + std::string(250, 'a') + "\nB=1\n",
        "A=\"" + std::string(254, 'a') + "\"\nB=\"" + std::string(253, 'b') +
            "\"\nC=" + std::string(300, 'c') + "\n",
        "A=" + std::string(1020, 'a') + "\nB=1\n",
        "A=" + std::string(1021, 'a') + "\nB=1\n",
        "A=" + std::string(1021, 'a') + "B=1\nC=1\n",
        "A=" + std::string(5000, '=') + "\nC=1\n",
        std::string(1023, '='),
        "A 1\nB\t2\nsetenv C 3\nsetenv D\t4\n",
        "A=1\r\nB=\"2\"\r\n",
    };
    for (const std::string &file : files) {
        write(file);
        for (const char separator : {'=', ' ', '\t', 'x', '\0'}) {
            std::vector<prop_entry> table(file.size() + 1);
            const int count =
                load_prop(static_cast<signed char>(separator), path().c_str(), table.data());
            const Settings settings(path(), separator);
            const Pairs pairs = settings.pairs();
            ASSERT_EQ(pairs.size(), static_cast<std::size_t>(count)) << file;
            for (std::size_t i = 0; i < pairs.size(); ++i) {
                EXPECT_EQ(pairs[i].first, table[i].name) << file;
                EXPECT_EQ(settings.value(pairs[i].first),
                          value_for_library(separator, path(), pairs[i].first))
                    << file;
                std::array<char, CORVEL_GET_PROP_SIZE> value{};
                get_prop(table[i].name, value.data(), &table[i], 1);
                EXPECT_EQ(pairs[i].second, strip_escape(value.data(), value.data())) << file;
            }
            free_prop(table.data(), count);
        }
    }
}

TEST_F(corvel_settings_load, ReportsWhyItFails) {
    const struct {
        std::string path;
        corvel_settings_result result;
    } cases[] = {
        {directory_.path("missing"), CORVEL_SETTINGS_UNREADABLE},
        {directory_.path("missing/conf"), CORVEL_SETTINGS_UNREADABLE},
        {directory_.path(), CORVEL_SETTINGS_UNREADABLE},
        {"", CORVEL_SETTINGS_UNREADABLE},
        {std::string(1018, 'x'), CORVEL_SETTINGS_UNREADABLE},
    };
    for (const auto &[bad_path, result] : cases) {
        const Settings settings(bad_path);
        EXPECT_EQ(settings.get(), nullptr) << bad_path;
        EXPECT_EQ(settings.result(), result) << bad_path;
    }
    corvel_settings_result result = CORVEL_SETTINGS_SAVED;
    EXPECT_EQ(::corvel_settings_load(nullptr, '=', &result), nullptr);
    EXPECT_EQ(result, CORVEL_SETTINGS_UNREADABLE);
    EXPECT_EQ(::corvel_settings_load(nullptr, '=', nullptr), nullptr);
}

TEST_F(corvel_settings_load, RefusesAFifoADeviceAndADirectoryWithoutWaiting) {
    ASSERT_EQ(mkfifo(path().c_str(), 0600), 0);
    EXPECT_EQ(Settings(path()).result(), CORVEL_SETTINGS_UNREADABLE);
    EXPECT_EQ(Settings("/dev/zero").result(), CORVEL_SETTINGS_UNREADABLE);
    EXPECT_EQ(Settings(directory_.path()).result(), CORVEL_SETTINGS_UNREADABLE);
}

TEST_F(corvel_settings_load, AcceptsAPathOf1017Bytes) {
    const TemporaryDirectory other;
    std::string longest = other.path("");
    while (longest.size() < 1017 - 201)
        longest += std::string(199, 'd') + '/';
    ASSERT_TRUE(fs::create_directories(longest));
    longest += std::string(1017 - longest.size(), 'f');
    write_file(longest, "A=1\n");
    const Settings settings(longest);
    ASSERT_NE(settings.get(), nullptr);
    EXPECT_EQ(settings.set("A", "2"), "");
    EXPECT_EQ(settings.save(), CORVEL_SETTINGS_SAVED);
    EXPECT_EQ(read_file(longest), "A=\"2\"\n");
}

TEST_F(corvel_settings_load, ReadsAFileOfTheLargestSizeAndRefusesALargerOne) {
    std::string file = "A=1\n";
    while (file.size() < CORVEL_SETTINGS_MAX)
        file += '\n';
    write(file);
    {
        const Settings settings(path());
        EXPECT_EQ(settings.value("A"), "1");
        // The same size.
        EXPECT_EQ(settings.set("A", "222"), "The file is too large.");
        EXPECT_EQ(settings.value("A"), "1");
        EXPECT_EQ(settings.remove("A"), "");
        EXPECT_EQ(settings.save(), CORVEL_SETTINGS_SAVED);
    }
    write(file + '\n');
    EXPECT_EQ(Settings(path()).result(), CORVEL_SETTINGS_UNREADABLE);
}

TEST_F(corvel_settings_load, LeavesNothingOpenAndCreatesNothing) {
    write("A=1\n");
    const DescriptorWatch watch;
    {
        const Settings settings(path());
        EXPECT_EQ(settings.result(), CORVEL_SETTINGS_UNCHANGED);
    }
    EXPECT_EQ(directory_.names(), std::vector<std::string>{"conf"});
}

TEST_F(corvel_settings_load, FailsCleanlyWhereAnAllocationFails) {
    write("A=1\n# c\nB=2\n");
    const std::string name = path();
    const unsigned long failures = for_each_allocation_failure([&](AllocationTrial &trial) {
        corvel_settings_result result = CORVEL_SETTINGS_SAVED;
        corvel_settings *const settings =
            trial.run([&] { return ::corvel_settings_load(name.c_str(), '=', &result); });
        if (trial.failed())
            EXPECT_EQ(result, CORVEL_SETTINGS_NO_MEMORY);
        else
            EXPECT_EQ(result, CORVEL_SETTINGS_UNCHANGED);
        EXPECT_EQ(settings == nullptr, trial.failed());
        corvel_settings_free(settings);
    });
    EXPECT_EQ(failures, 3U);
}

TEST_F(corvel_settings_load, FailsWhereReadingFails) {
    write("A=1\n");
    const FailCall no_status(call_fstat, 2);
    EXPECT_EQ(Settings(path()).result(), CORVEL_SETTINGS_UNREADABLE);
}

TEST_F(corvel_settings_load, RestoresAFileThatADeadWriterRemoved) {
    directory_.write("conf.cgi", "A=1\n");
    const Settings settings(path());
    EXPECT_EQ(settings.result(), CORVEL_SETTINGS_RESTORED);
    EXPECT_EQ(settings.value("A"), "1");
    EXPECT_EQ(content(), "A=1\n");
    EXPECT_FALSE(directory_.exists("conf.cgi"));
}

// Getting.

class corvel_setting : public SettingsTest {};

TEST_F(corvel_setting, AcceptsNullPointers) {
    write("A=1\n");
    const Settings settings(path());
    const char *name = "unchanged";
    EXPECT_EQ(::corvel_setting(nullptr, "A"), nullptr);
    EXPECT_EQ(::corvel_setting(settings.get(), nullptr), nullptr);
    EXPECT_EQ(::corvel_setting(settings.get(), "a"), nullptr);
    EXPECT_FALSE(corvel_setting_pair(nullptr, 0, &name, &name));
    EXPECT_FALSE(corvel_setting_pair(settings.get(), 1, &name, &name));
    EXPECT_STREQ(name, "unchanged");
    EXPECT_TRUE(corvel_setting_pair(settings.get(), 0, nullptr, nullptr));
    EXPECT_STREQ(::corvel_settings_version(nullptr), "");
    corvel_settings_free(nullptr);
}

// Setting.

class corvel_setting_set : public SettingsTest {};

TEST_F(corvel_setting_set, ReplacesTheValueAndKeepsEverythingElse) {
    EXPECT_EQ(after_set("# A=0\n\nA=1\n\n  # end\nB=2\n", "A", "x"),
              "# A=0\n\nA=\"x\"\n\n  # end\nB=2\n");
    EXPECT_EQ(after_set("  A =1\n", "A", "x"), "  A =\"x\"\n");
    EXPECT_EQ(after_set("setenv A 1\n", "A", "x y", ' '), "setenv A \"x y\"\n");
    EXPECT_EQ(after_set("  setenv A=1\n", "A", "x"), "  setenv A=\"x\"\n");
    EXPECT_EQ(after_set("A\t1\nB 2\n", "A", "x", '\t'), "A\t\"x\"\nB 2\n");
    EXPECT_EQ(after_set(std::string("\0\xFF\n=\nA=1\0z\nB=\r\n", 15), "A", "x"),
              std::string("\0\xFF\n=\nA=\"x\"\nB=\r\n", 15));
}

TEST_F(corvel_setting_set, AppendsANewLine) {
    EXPECT_EQ(after_set("", "A", "x"), "A=\"x\"\n");
    EXPECT_EQ(after_set("# A\nB=1\n", "A", "x"), "# A\nB=1\nA=\"x\"\n");
    EXPECT_EQ(after_set("B 1\n", "A", "", ' '), "B 1\nA \"\"\n");
    EXPECT_EQ(after_set("B\t1\n", "A", "x", '\t'), "B\t1\nA\t\"x\"\n");
}

TEST_F(corvel_setting_set, ChangesEveryLineOfTheName) {
    EXPECT_EQ(after_set("A=1\nB=1\nA=2\n", "A", "x"), "A=\"x\"\nB=1\nA=\"x\"\n");
    EXPECT_EQ(after_set("A=x\nB=1\nA=2\n", "A", "x"), "A=\"x\"\nB=1\nA=\"x\"\n");
}

TEST_F(corvel_setting_set, LeavesASettingThatHasTheValue) {
    EXPECT_EQ(after_set("A=x\nA='x'", "A", "x"), "A=x\nA='x'");
    EXPECT_EQ(after_set("A=\"x\"\n", "A", "x"), "A=\"x\"\n");
}

TEST_F(corvel_setting_set, EndsALastLineWithoutANewline) {
    EXPECT_EQ(after_set("B=1\nC=2", "A", "x"), "B=1\nC=2\nA=\"x\"\n");
    EXPECT_EQ(after_set("A=1\nC=2", "A", "x"), "A=\"x\"\nC=2\n");
    // It is the line of the name itself.
    EXPECT_EQ(after_set("B=1\nA=2", "A", "x"), "B=1\nA=\"x\"\n");
}

TEST_F(corvel_setting_set, ReplacesALongLineAsAWhole) {
    EXPECT_EQ(after_set("A=" + std::string(3000, 'a') + "\nB=1\n", "A", "x"), "A=\"x\"\nB=1\n");
    // load_prop() takes the second piece for a line of its own.
    EXPECT_EQ(
        after_set(std::string(1023, 'a') + "A=1" + std::string(3000, 'a') + "\nB=1\n", "A", "x"),
        std::string(1023, 'a') + "A=\"x\"\nB=1\n");
    EXPECT_EQ(after_set(std::string(1023, 'a'), "A", "x"), std::string(1023, 'a') + "\nA=\"x\"\n");
}

TEST_F(corvel_setting_set, EscapesWhatIsSpecialBetweenQuotes) {
    EXPECT_EQ(after_set("A=1\n", "A", "\"\\$`'"), "A=\"\\\"\\\\\\$\\`'\"\n");
    for (const std::string value : {"\"", "\"\"", "\\", "\\\\", "\\\"", "\" \"", " ", "=", "#",
                                    "a\\nb", "\xC3\xA4", "\xFF", "$(reboot)", "`reboot`"})
        after_set("A=1\n", "A", value);
}

TEST_F(corvel_setting_set, AgreesWithTheShell) {
    for (const std::string value :
         {"plain", "a b", "\"", "\\", "\\\\", "$HOME", "`id`", "$(id)", "'", "a\\nb", "!"}) {
        after_set("A=1\n", "A", value);
        const ChildResult child = run_in_child([&] {
            execl("/bin/sh", "sh", "-c", R"(. "$1" && printf %s "$A")", "sh", path().c_str(),
                  nullptr);
        });
        EXPECT_EQ(child.out, value);
    }
}

TEST_F(corvel_setting_set, RefusesWhatTheFileWouldNotHold) {
    const std::string before = "A=1\nsetenv B=2\nexport C=3\nD=4 setenv E=5\n";
    write(before);
    const Settings settings(path());
    const struct {
        std::string name;
        std::string value;
        std::string message;
    } cases[] = {
        {"A", "a\nb", "This contains a character that cannot be stored."},
        {"A", "a\rb", "This contains a character that cannot be stored."},
        {"A", "\t", "This contains a character that cannot be stored."},
        {"A", "\x1F", "This contains a character that cannot be stored."},
        {"A", "\x7F", "This contains a character that cannot be stored."},
        {"A", std::string(254, 'a'), "This is too long."},
        {"A", std::string(127, '"'), "This is too long."},
        {"A", std::string(100'000, 'a'), "This is too long."},
        {"A", "x setenv y", "The settings file cannot store this."},
        {"NEW", "setenv ", "The settings file cannot store this."},
        {"", "x", "This name cannot be stored."},
        {"#A", "x", "This name cannot be stored."},
        {"A B", "x", "This name cannot be stored."},
        {" A", "x", "This name cannot be stored."},
        {"A=", "x", "This name cannot be stored."},
        {"A\n", "x", "This name cannot be stored."},
        {"A;reboot", "x", "This name cannot be stored."},
        {"$A", "x", "This name cannot be stored."},
        {"\xC3\xA4", "x", "This name cannot be stored."},
        {std::string(1100, 'n'), "x", "The settings file cannot store this."},
        {"export", "x", "The settings file cannot store this."},
        {"E", "x", "The settings file cannot store this."},
    };
    for (const auto &[name, value, message] : cases) {
        EXPECT_EQ(settings.set(name, value), message) << name << " " << value;
        EXPECT_EQ(settings.value("A"), "1");
    }
    EXPECT_STREQ(::corvel_setting_set(settings.get(), "A", nullptr), "This is missing.");
    EXPECT_STREQ(::corvel_setting_set(settings.get(), nullptr, "x"), "This name cannot be stored.");
    EXPECT_STREQ(::corvel_setting_set(nullptr, "A", "x"), "The settings cannot be read.");
    EXPECT_EQ(settings.save(), CORVEL_SETTINGS_UNCHANGED);
    EXPECT_EQ(content(), before);
}

TEST_F(corvel_setting_set, AcceptsTheLongestValues) {
    after_set("A=1\n", "A", std::string(253, 'a'));
    after_set("A=1\n", "A", std::string(126, '"') + "a");
    after_set("A 1\n", "A", std::string(126, '\\'), ' ');
    // After "setenv " at the start of the line, it is a value like any other.
    after_set("setenv B=2\n", "B", "x setenv y");
    after_set("", "letters.digits_09-:/@+[]", "x");
}

TEST_F(corvel_setting_set, ReadsNothingAfterItsStrings) {
    write("A=1\n");
    const Settings settings(path());
    GuardedString name("A");
    GuardedString value(std::string(253, 'v'));
    EXPECT_EQ(::corvel_setting_set(settings.get(), name.text(), value.text()), nullptr);
    EXPECT_STREQ(::corvel_setting(settings.get(), name.text()), value.text());
}

TEST_F(corvel_setting_set, ChangesNothingWhereAnAllocationFails) {
    write("A=1\n");
    const unsigned long failures = for_each_allocation_failure([&](AllocationTrial &trial) {
        const Settings settings(path());
        const char *const message =
            trial.run([&] { return ::corvel_setting_set(settings.get(), "A", "2"); });
        EXPECT_STREQ(message, trial.failed() ? "There is not enough memory." : nullptr);
        EXPECT_EQ(settings.value("A"), trial.failed() ? "1" : "2");
    });
    EXPECT_EQ(failures, 2U);
}

// Removing.

class corvel_setting_remove : public SettingsTest {};

TEST_F(corvel_setting_remove, RemovesEveryLineOfTheNameAndNothingElse) {
    write("# A\nA=1\nB=2\n  setenv A =3\nAA=4\n" + std::string(1023, 'c') + "A=5\nD=6\n");
    const Settings settings(path());
    EXPECT_EQ(settings.remove("A"), "");
    EXPECT_EQ(settings.value("A"), std::nullopt);
    EXPECT_EQ(settings.value("AA"), "4");
    EXPECT_EQ(settings.save(), CORVEL_SETTINGS_SAVED);
    EXPECT_EQ(content(), "# A\nB=2\nAA=4\n" + std::string(1023, 'c') + "\nD=6\n");
}

TEST_F(corvel_setting_remove, LeavesTheFileWhereTheSettingIsMissing) {
    write("A=1\nB=2");
    const Settings settings(path());
    EXPECT_EQ(settings.remove("C"), "");
    EXPECT_EQ(::corvel_setting_remove(settings.get(), nullptr), nullptr);
    EXPECT_EQ(settings.save(), CORVEL_SETTINGS_UNCHANGED);
    EXPECT_EQ(content(), "A=1\nB=2");
    EXPECT_STREQ(::corvel_setting_remove(nullptr, "A"), "The settings cannot be read.");
}

TEST_F(corvel_setting_remove, RefusesALineWithOtherWords) {
    write("export A=1\n");
    const Settings settings(path());
    EXPECT_EQ(settings.remove("export"), "The settings file cannot store this.");
    EXPECT_EQ(settings.save(), CORVEL_SETTINGS_UNCHANGED);
}

TEST_F(corvel_setting_remove, CanEmptyTheFile) {
    write("A=1\n");
    const Settings settings(path());
    EXPECT_EQ(settings.remove("A"), "");
    EXPECT_EQ(settings.save(), CORVEL_SETTINGS_SAVED);
    EXPECT_EQ(content(), "");
    EXPECT_EQ(corvel_settings_recover(path().c_str(), '='), CORVEL_SETTINGS_UNCHANGED);
}

// The other direction: what the library's functions write, the kit reads.

TEST_F(corvel_setting, ReadsWhatTheLibrarysFunctionsWrite) {
    for (const std::string value : {"", "x", "\"", "\\", "$`\"\\", "a b", " ", "\\\\\"", "'"}) {
        write("A=1\nB=1\n");
        const std::string raw = escaped(value);
        set_with_save_prop(path(), "A", raw);
        EXPECT_EQ(Settings(path()).value("A"), value);
        set_with_save_global_conf(path(), "B", raw);
        EXPECT_EQ(Settings(path()).value("B"), value);
        // A table that was loaded keeps its quotes and gets others around them.
        EXPECT_EQ(set_with_kit(path(), "A", value + "1"), CORVEL_SETTINGS_SAVED);
        set_with_save_global_conf(path(), "B", "2");
        EXPECT_EQ(value_for_library('=', path(), "A"), value + "1");
        EXPECT_EQ(Settings(path()).value("B"), "2");
    }
}

// The version.

class corvel_settings_version : public SettingsTest {};

TEST_F(corvel_settings_version, IsTheHashOfTheFile) {
    write("abc");
    const Settings settings(path());
    EXPECT_EQ(settings.version(),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(settings.set("A", "x"), "");
    EXPECT_EQ(settings.version(), Settings(path()).version());
    EXPECT_EQ(settings.save(), CORVEL_SETTINGS_SAVED);
    EXPECT_EQ(settings.version(), Settings(path()).version());
    EXPECT_NE(settings.version(),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(corvel_settings_status, BelongsToTheResult) {
    for (int result = CORVEL_SETTINGS_DAMAGED; result <= CORVEL_SETTINGS_RESTORED; ++result) {
        const char *complaint = nullptr;
        const auto named = static_cast<corvel_settings_result>(result);
        const int status = corvel_settings_status(named, &complaint);
        EXPECT_EQ(corvel_settings_status(named, nullptr), status);
        EXPECT_EQ(status == CORVEL_HTTP_OK, result >= 0);
        EXPECT_EQ(std::strlen(complaint) == 0, result >= 0);
    }
    EXPECT_EQ(corvel_settings_status(CORVEL_SETTINGS_OUTDATED, nullptr), CORVEL_HTTP_CONFLICT);
    EXPECT_EQ(corvel_settings_status(CORVEL_SETTINGS_BUSY, nullptr),
              CORVEL_HTTP_SERVICE_UNAVAILABLE);
    EXPECT_EQ(corvel_settings_status(CORVEL_SETTINGS_NO_MEMORY, nullptr),
              CORVEL_HTTP_SERVICE_UNAVAILABLE);
    EXPECT_EQ(corvel_settings_status(CORVEL_SETTINGS_DAMAGED, nullptr),
              CORVEL_HTTP_INTERNAL_SERVER_ERROR);
}

} // namespace
