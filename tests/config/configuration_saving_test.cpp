/* SPDX-License-Identifier: MIT */
#include <corvel.h>

#include "tests/config/property_rows.h"
#include "tests/config/writers.h"
#include "tests/support/child_process.h"
#include "tests/support/kill_points.h"
#include "tests/support/output_capture.h"
#include "tests/support/private_root.h"
#include "tests/support/stand_in.h"
#include "tests/support/temporary_directory.h"

#include <algorithm>
#include <array>
#include <bit>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <limits>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using namespace corvel_test;
using namespace std::string_literals;
namespace fs = std::filesystem;

std::size_t open_descriptors() {
    const auto entries = fs::directory_iterator("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

/** A text of so many characters. */
std::string filler(std::size_t length) { return std::string(length, 'v'); }

/** A file of many lines "NAME_n=n", several times the size of a stream's buffer. */
std::string large_file(const std::string &value_of_name_500) {
    std::string text;
    for (int i = 0; i < 1000; ++i)
        text += "NAME_" + std::to_string(i) + "=" +
                (i == 500 ? value_of_name_500 : std::to_string(i) + filler(20)) + "\n";
    return text;
}

/** What save_prop makes of a file. */
std::string saved(char separator, std::string_view text, const Rows &rows) {
    const TemporaryDirectory folder;
    folder.write("conf", text);
    PropertyTable table(rows);
    EXPECT_EQ(save_prop(static_cast<signed char>(separator), folder.path("conf").c_str(),
                        table.data(), table.count()),
              1);
    EXPECT_EQ(folder.names(), (Names{"conf", "conf.lck"}));
    return folder.read("conf");
}

/** What save_global_conf makes of a file. */
std::string set_in(std::string_view text, char separator, const char *prefix, const char *name,
                   const char *value) {
    const TemporaryDirectory folder;
    folder.write("conf", text);
    EXPECT_EQ(save_global_conf(static_cast<signed char>(separator), folder.path("conf").c_str(),
                               prefix, name, value),
              1);
    EXPECT_EQ(folder.names(), Names{"conf"});
    return folder.read("conf");
}

TEST(SaveProp, RewritesTheLinesWhoseKeysAreNamesOfRows) {
    EXPECT_EQ(saved('=', "A=\"1\"\n# c\nB=2\n", {{"A", "x"}, {"C", "y"}}), "A=\"x\"\n# c\nB=2\n");
}

TEST(SaveProp, CopiesAllOtherLinesUnchanged) {
    const std::string text = "# c=1\n\n  A=1\nA =2\na=3\nAA=4\nB\n \t\r\nC=\x80\xff\x01\n";
    EXPECT_EQ(saved('=', text, {{"A", "x"}}), text);
}

TEST(SaveProp, DoesNotAddRowsThatHaveNoLine) {
    EXPECT_EQ(saved('=', "A=1\n", {{"B", "x"}}), "A=1\n");
    EXPECT_EQ(saved('=', "", {{"B", "x"}}), "");
}

TEST(SaveProp, WritesTheValueAsItStandsInTheTable) {
    EXPECT_EQ(saved('=', "A=1\n", {{"A", "\"q\" $x `y` \\z"}}), "A=\"\"q\" $x `y` \\z\"\n");
    EXPECT_EQ(saved('=', "A=1\n", {{"A", ""}}), "A=\"\"\n");
    EXPECT_EQ(saved('=', "A=1\n", {{"A", " x\t"}}), "A=\" x\t\"\n");
}

TEST(SaveProp, WritesAValueOf257CharactersWhole) {
    EXPECT_EQ(saved('=', "A=1\n", {{"A", filler(257)}}), "A=\"" + filler(257) + "\"\n");
}

TEST(SaveProp, ComparesTheWholeKey) {
    EXPECT_EQ(saved('=', "A=1\nAB=2\n", {{"AB", "x"}}), "A=1\nAB=\"x\"\n");
    EXPECT_EQ(saved('=', " A=1\n", {{" A", "x"}}), " A=\"x\"\n");
    EXPECT_EQ(saved('=', "A =1\n", {{"A ", "x"}}), "A =\"x\"\n");
    EXPECT_EQ(saved('=', "#A=1\n", {{"#A", "x"}}), "#A=\"x\"\n");
}

TEST(SaveProp, EndsTheKeyAtTheFirstSeparator) {
    EXPECT_EQ(saved('=', "A=B=1\n", {{"A=B", "x"}}), "A=B=1\n");
    EXPECT_EQ(saved('=', "A=B=1\n", {{"A", "x"}}), "A=\"x\"\n");
}

TEST(SaveProp, TakesTheWholeLineForTheKeyWhereThereIsNoSeparator) {
    EXPECT_EQ(saved('=', "A\nB C\n", {{"A", "x"}, {"B C", "y"}}), "A=\"x\"\nB C=\"y\"\n");
    EXPECT_EQ(saved('=', "\n", {{"", "x"}}), "=\"x\"\n");
}

TEST(SaveProp, NeverRewritesSetenvLinesWithABlankSeparator) {
    const std::string text = "setenv NAME value\nsetenv B 1\n";
    EXPECT_EQ(saved(' ', text, {{"NAME", "x"}, {"B", "y"}}), text);
    EXPECT_EQ(saved(' ', text, {{"setenv", "x"}}), "setenv \"x\"\nsetenv \"x\"\n");
}

TEST(SaveProp, CountsAPrefixToTheKey) {
    EXPECT_EQ(saved('=', "setenv A=1\n", {{"A", "x"}}), "setenv A=1\n");
    EXPECT_EQ(saved('=', "setenv A=1\n", {{"setenv A", "x"}}), "setenv A=\"x\"\n");
}

TEST(SaveProp, UsesTheSeparatorAsGiven) {
    EXPECT_EQ(saved(' ', "A 1=2\n", {{"A", "x"}}), "A \"x\"\n");
    EXPECT_EQ(saved('\t', "A\t1\n", {{"A", "x"}}), "A\t\"x\"\n");
    EXPECT_EQ(saved(':', "A:1\nA\t1\n", {{"A", "x"}}), "A:\"x\"\nA\t1\n");
    EXPECT_EQ(saved('\xe9',
                    "A\xe9"
                    "1\n",
                    {{"A", "x"}}),
              "A\xe9\"x\"\n");
}

TEST(SaveProp, WritesNoSeparatorWhereItIsANul) {
    EXPECT_EQ(saved('\0', "A\nB=1\n", {{"A", "x"}, {"B", "y"}}), "A\"x\"\nB=1\n");
}

TEST(SaveProp, RewritesEveryLineWithTheKey) {
    EXPECT_EQ(saved('=', "A=1\nB=2\nA=3\n", {{"A", "x"}}), "A=\"x\"\nB=2\nA=\"x\"\n");
}

TEST(SaveProp, WritesTheLastOfSeveralRowsWithTheName) {
    EXPECT_EQ(saved('=', "A=1\nB=2\n", {{"A", "x"}, {"B", "b"}, {"A", "y"}, {"A", "z"}}),
              "A=\"z\"\nB=\"b\"\n");
}

TEST(SaveProp, WritesTheRowsInUseOnly) {
    const TemporaryDirectory folder;
    folder.write("conf", "A=1\nB=2\n");
    PropertyTable table(Rows{{"A", "x"}, {"B", "y"}});
    save_prop('=', folder.path("conf").c_str(), table.data(), 1);
    EXPECT_EQ(folder.read("conf"), "A=\"x\"\nB=2\n");
}

TEST(SaveProp, CopiesTheFileForATableWithoutRows) {
    const TemporaryDirectory folder;
    folder.write("conf", "A=1\nB=2\nC");
    PropertyTable table(Rows{{"A", "x"}});
    for (const int count : {0, -1, std::numeric_limits<int>::min()}) {
        EXPECT_EQ(save_prop('=', folder.path("conf").c_str(), table.data(), count), 1);
        EXPECT_EQ(folder.read("conf"), "A=1\nB=2\n");
    }
    EXPECT_EQ(save_prop('=', folder.path("conf").c_str(), nullptr, 0), 1);
    EXPECT_EQ(folder.read("conf"), "A=1\nB=2\n");
}

TEST(SaveProp, PassesOverRowsThatWereFreed) {
    const TemporaryDirectory folder;
    folder.write("conf", "\nA=1\nB=2\n");
    PropertyTable table(Rows{{"A", "x"}, {"B", "y"}});
    free_prop(table.data(), 1);
    save_prop('=', folder.path("conf").c_str(), table.data(), table.count());
    EXPECT_EQ(folder.read("conf"), "\nA=1\nB=\"y\"\n");
}

TEST(SaveProp, WritesRowsOfARequestThatHaveNoSizes) {
    const TemporaryDirectory folder;
    folder.write("conf", "A=1\nB=2\n");
    std::string name = "A";
    std::string other = "B";
    std::string value = "x";
    const std::array<prop_entry, 2> rows = {
        {{0, 0, name.data(), value.data()}, {0, 0, other.data(), nullptr}}};
    save_prop('=', folder.path("conf").c_str(), rows.data(), 2);
    EXPECT_EQ(folder.read("conf"), "A=\"x\"\nB=\"\"\n");
}

TEST(SaveProp, ReplacesTheCarriageReturnOfALineThatItRewrites) {
    EXPECT_EQ(saved('=', "A=1\r\nB=2\r\n", {{"A", "x"}}), "A=\"x\"\nB=2\r\n");
}

TEST(SaveProp, DropsALastLineWithoutALineEnd) {
    EXPECT_EQ(saved('=', "A=1\nB=2", {{"A", "x"}}), "A=\"x\"\n");
    EXPECT_EQ(saved('=', "A=1\nB=2", {{"B", "x"}}), "A=1\n");
    EXPECT_EQ(saved('=', "B=2", {{"B", "x"}}), "");
}

TEST(SaveProp, CopiesALineOf1022CharactersWhole) {
    const std::string line = "A=" + filler(1020) + "\n";
    EXPECT_EQ(saved('=', line + "B=1\n", {{"B", "x"}}), line + "B=\"x\"\n");
    EXPECT_EQ(saved('=', line, {{"A", "x"}}), "A=\"x\"\n");
}

TEST(SaveProp, ReplacesThe1023rdCharacterOfALongLineByALineEnd) {
    const std::string start = "A=" + filler(1020);
    EXPECT_EQ(saved('=', start + "1\n", {}), start + "\n\n");
    EXPECT_EQ(saved('=', start + "12\n", {}), start + "\n2\n");
    EXPECT_EQ(saved('=', start + "12\n", {{"A", "x"}}), "A=\"x\"\n2\n");
    EXPECT_EQ(saved('=', start + "1B=2\n", {{"B", "x"}}), start + "\nB=\"x\"\n");
}

TEST(SaveProp, TakesALineOf3000CharactersInThreePieces) {
    const std::string first = "A=" + filler(1020);
    const std::string second = "B=" + filler(1020);
    const std::string third = "C=" + filler(952);
    const std::string line = first + "1" + second + "2" + third + "\n";
    ASSERT_EQ(line.size(), 3001U);
    EXPECT_EQ(saved('=', line, {}), first + "\n" + second + "\n" + third + "\n");
    EXPECT_EQ(saved('=', line, {{"B", "x"}}), first + "\nB=\"x\"\n" + third + "\n");
}

TEST(SaveProp, WritesALastPieceOf1023CharactersThoughItHasNoLineEnd) {
    EXPECT_EQ(saved('=', "A=1\n" + filler(1022), {}), "A=1\n");
    EXPECT_EQ(saved('=', "A=1\n" + filler(1023), {}), "A=1\n" + filler(1022) + "\n");
    EXPECT_EQ(saved('=', "A=1\n" + filler(1024), {}), "A=1\n" + filler(1022) + "\n");
}

TEST(SaveProp, FindsNamesAsLongAsALine) {
    const std::string name = filler(1022);
    EXPECT_EQ(saved('=', name + "\n", {{name, "x"}}), name + "=\"x\"\n");
    EXPECT_EQ(saved('=', name + "\n", {{name + "v", "x"}}), name + "\n");
}

TEST(SaveProp, CopiesALineWithANulWhole) {
    EXPECT_EQ(saved('=', "A=12\0xyz\nB=2\n"s, {{"B", "x"}}), "A=12\0xyz\nB=\"x\"\n"s);
    EXPECT_EQ(saved('=', "\0xyz\nB=2\n"s, {{"B", "x"}}), "\0xyz\nB=\"x\"\n"s);
}

TEST(SaveProp, LooksForNoKeyBehindANul) {
    EXPECT_EQ(saved('=', "\0B=2\n"s, {{"B", "x"}}), "\0B=2\n"s);
    EXPECT_EQ(saved('=', "B\0=2\n"s, {{"B", "x"}}), "B=\"x\"\n");
}

TEST(SaveGlobalConf, CopiesALineWithANulWhole) {
    const TemporaryDirectory folder;
    folder.write("conf", "A=1\0x\nB=2\n"s);
    save_global_conf('=', folder.path("conf").c_str(), "", "B", "x");
    EXPECT_EQ(folder.read("conf"), "A=1\0x\nB=\"x\"\n"s);
}

TEST(SaveProp, KeepsTheLockFile) {
    const TemporaryDirectory folder;
    folder.write("conf", "A=1\n");
    save_prop('=', folder.path("conf").c_str(), nullptr, 0);
    struct stat status {};
    ASSERT_EQ(stat(folder.path("conf.lck").c_str(), &status), 0);
    EXPECT_EQ(status.st_size, 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST(SaveProp, EmptiesALockFileThatWasThere) {
    const TemporaryDirectory folder;
    folder.write("conf", "A=1\n");
    folder.write("conf.lck", "text");
    save_prop('=', folder.path("conf").c_str(), nullptr, 0);
    EXPECT_EQ(folder.read("conf.lck"), "");
}

TEST(SaveProp, WritesATableOf2000Rows) {
    Rows rows;
    std::string text;
    std::string expected;
    for (int i = 0; i < 2000; ++i) {
        const std::string number = std::to_string(i);
        rows.emplace_back("NAME_" + number, "new " + number);
        text.append("NAME_").append(number).append("=old\n").append("OTHER_").append(number);
        text.append("=old\n");
        expected.append("NAME_").append(number).append("=\"new ").append(number).append("\"\n");
        expected.append("OTHER_").append(number).append("=old\n");
    }
    EXPECT_EQ(saved('=', text, rows), expected);
    std::reverse(rows.begin(), rows.end());
    EXPECT_EQ(saved('=', text, rows), expected);
}

TEST(SaveProp, GivesBackWhatLoadPropReads) {
    const TemporaryDirectory folder;
    folder.write("conf", "A=\"1\"\nB=\"2\"\n# c\n");
    PropertyTable table;
    table.load('=', folder.path("conf"));
    table.set("B", "it's \\\"new\\\"");
    table.set("A", "1");
    save_prop('=', folder.path("conf").c_str(), table.data(), table.count());
    EXPECT_EQ(folder.read("conf"), "A=\"1\"\nB=\"it's \\\"new\\\"\"\n# c\n");
    PropertyTable again;
    again.load('=', folder.path("conf"));
    EXPECT_EQ(again.rows(), (Rows{{"A", "\"1\""}, {"B", "\"it's \\\"new\\\"\""}}));
}

TEST(SaveGlobalConf, ReplacesALineInQuotes) {
    EXPECT_EQ(set_in("A=1\nNAME=old\nB=2\n", '=', "", "NAME", "v"), "A=1\nNAME=\"v\"\nB=2\n");
}

TEST(SaveGlobalConf, AddsAMissingLineWithoutQuotes) {
    EXPECT_EQ(set_in("A=1\n", '=', "", "NAME", "v"), "A=1\nNAME=v\n");
    EXPECT_EQ(set_in("", '=', "", "NAME", "v"), "NAME=v\n");
    EXPECT_EQ(set_in("A=1\n", '=', "", "NAME", ""), "A=1\nNAME=\n");
}

TEST(SaveGlobalConf, WritesThePrefixInFrontOfTheName) {
    EXPECT_EQ(set_in("NAME=old\n", '=', "setenv ", "NAME", "v"), "setenv NAME=\"v\"\n");
    EXPECT_EQ(set_in("", ' ', "setenv ", "NAME", "v"), "setenv NAME v\n");
}

TEST(SaveGlobalConf, AddsALineOnEachCallWithAPrefix) {
    const TemporaryDirectory folder;
    folder.write("conf", "");
    for (const char *value : {"1", "2", "3"})
        save_global_conf('=', folder.path("conf").c_str(), "setenv ", "NAME", value);
    EXPECT_EQ(folder.read("conf"), "setenv NAME=1\nsetenv NAME=2\nsetenv NAME=3\n");
}

TEST(SaveGlobalConf, FindsAgainWhatItWroteWithoutAPrefix) {
    const TemporaryDirectory folder;
    folder.write("conf", "A=1\n");
    for (const char *value : {"1", "2", "3"})
        save_global_conf('=', folder.path("conf").c_str(), "", "NAME", value);
    EXPECT_EQ(folder.read("conf"), "A=1\nNAME=\"3\"\n");
}

TEST(SaveGlobalConf, SplitsAtEachSeparator) {
    EXPECT_EQ(set_in("N 1\nN=1\nN\t1\n", '=', "", "N", "v"), "N 1\nN=\"v\"\nN\t1\n");
    EXPECT_EQ(set_in("N 1\nN=1\nN\t1\n", ' ', "", "N", "v"), "N \"v\"\nN=1\nN\t1\n");
    EXPECT_EQ(set_in("N 1\nN=1\nN\t1\n", '\t', "", "N", "v"), "N 1\nN=1\nN\t\"v\"\n");
}

TEST(SaveGlobalConf, TakesAnyOtherSeparatorForTheTab) {
    for (const char separator : {':', '0', '\0', '\xe9'}) {
        EXPECT_EQ(set_in("N:1\nN\t1\n", separator, "", "N", "v"), "N:1\nN\t\"v\"\n");
        EXPECT_EQ(set_in("", separator, "", "N", "v"), "N\tv\n");
    }
}

TEST(SaveGlobalConf, ReplacesEveryLineWithTheKey) {
    EXPECT_EQ(set_in("N=1\nA=2\nN=3\n", '=', "", "N", "v"), "N=\"v\"\nA=2\nN=\"v\"\n");
}

TEST(SaveGlobalConf, ComparesTheWholeKey) {
    EXPECT_EQ(set_in("NAME=1\n NAM=2\n#NAM=3\nNAM =4\nnam=5\n", '=', "", "NAM", "v"),
              "NAME=1\n NAM=2\n#NAM=3\nNAM =4\nnam=5\nNAM=v\n");
}

TEST(SaveGlobalConf, NeverFindsALineWithoutTheSeparator) {
    EXPECT_EQ(set_in("NAME\n", '=', "", "NAME", "v"), "NAME\nNAME=v\n");
    EXPECT_EQ(set_in("\n", '=', "", "", "v"), "\n=v\n");
}

TEST(SaveGlobalConf, WritesTheValueAsItStands) {
    EXPECT_EQ(set_in("N=1\n", '=', "", "N", "\"q\" $x `y` \\z"), "N=\"\"q\" $x `y` \\z\"\n");
    EXPECT_EQ(set_in("", '=', "", "N", " \"q\" "), "N= \"q\" \n");
}

TEST(SaveGlobalConf, WritesTextsOfAnyLength) {
    const std::string name = filler(3000);
    const std::string value = filler(100000);
    EXPECT_EQ(set_in("", '=', name.c_str(), name.c_str(), value.c_str()),
              name + name + "=" + value + "\n");
    EXPECT_EQ(set_in("N=1\n", '=', "", "N", value.c_str()), "N=\"" + value + "\"\n");
}

TEST(SaveGlobalConf, TakesNullPointersForTheEmptyText) {
    EXPECT_EQ(set_in("N=1\n", '=', nullptr, "N", nullptr), "N=\"\"\n");
    EXPECT_EQ(set_in("=1\n", '=', nullptr, nullptr, "v"), "=\"v\"\n");
    EXPECT_EQ(set_in("", '=', nullptr, nullptr, nullptr), "=\n");
}

TEST(SaveGlobalConf, DropsALastLineWithoutALineEnd) {
    EXPECT_EQ(set_in("N=1\nA=2", '=', "", "N", "v"), "N=\"v\"\n");
    EXPECT_EQ(set_in("B=1\nA=2", '=', "", "N", "v"), "B=1\nN=v\n");
}

TEST(SaveGlobalConf, LosesTheNameThatALastLineWithoutALineEndHas) {
    EXPECT_EQ(set_in("A=1\nN=2", '=', "", "N", "v"), "A=1\n");
    EXPECT_EQ(set_in("N=1\nN=2", '=', "", "N", "v"), "N=\"v\"\n");
}

TEST(SaveGlobalConf, CopiesLongLinesUnchanged) {
    for (const std::size_t length : {1022U, 1023U, 1024U, 2045U, 2046U, 2047U, 3000U}) {
        const std::string line = "A=" + filler(length - 2) + "\n";
        EXPECT_EQ(set_in(line + "N=1\n", '=', "", "N", "v"), line + "N=\"v\"\n") << length;
    }
}

TEST(SaveGlobalConf, TakesEachPieceOfALongLineForALineOfItsOwn) {
    const std::string start = filler(1023);
    EXPECT_EQ(set_in(start + "N=1\n", '=', "", "N", "v"), start + "N=\"v\"\n");
    EXPECT_EQ(set_in("N=" + filler(1021) + "A=1\n", '=', "", "N", "v"), "N=\"v\"\nA=1\n");
}

TEST(SaveGlobalConf, CopiesALastPieceOf1023CharactersThoughItHasNoLineEnd) {
    EXPECT_EQ(set_in("A=1\n" + filler(1022), '=', "", "A", "v"), "A=\"v\"\n");
    EXPECT_EQ(set_in("A=1\n" + filler(1023), '=', "", "A", "v"), "A=\"v\"\n" + filler(1023));
    EXPECT_EQ(set_in("A=1\n" + filler(1024), '=', "", "A", "v"), "A=\"v\"\n" + filler(1023));
}

TEST(SaveGlobalConf, KeepsCarriageReturnsOfOtherLines) {
    EXPECT_EQ(set_in("N=1\r\nA=2\r\n", '=', "", "N", "v"), "N=\"v\"\nA=2\r\n");
}

TEST(SaveGlobalConf, RemovesTheLockFile) {
    const TemporaryDirectory folder;
    folder.write("conf", "A=1\n");
    folder.write("conf.lck", "text");
    save_global_conf('=', folder.path("conf").c_str(), "", "A", "v");
    EXPECT_EQ(folder.names(), Names{"conf"});
}

INSTANTIATE_TEST_SUITE_P(Writers, BothWriters,
                         testing::Values(save_prop_writer, save_global_conf_writer),
                         name_of_writer);

TEST_P(BothWriters, SaveTheFile) {
    folder_.write("conf", "A=1\nB=2\n");
    save();
    EXPECT_EQ(folder_.read("conf"), "A=\"x\"\nB=2\n");
    EXPECT_EQ(folder_.names(), with_lock_file({"conf"}));
}

TEST_P(BothWriters, PrintNothing) {
    folder_.write("conf", "A=1\n");
    EXPECT_EQ(capture_stdout([&] { save(); }), "");
    folder_.remove("conf");
    EXPECT_EQ(capture_stderr([&] { save(); }), "");
}

TEST_P(BothWriters, SaveALargeFile) {
    folder_.write("conf", "A=1\n" + large_file("1") + "A=2\n");
    save();
    EXPECT_EQ(folder_.read("conf"), "A=\"x\"\n" + large_file("1") + "A=\"x\"\n");
}

TEST_P(BothWriters, DoNotCreateAMissingFile) {
    save();
    EXPECT_EQ(folder_.names(), with_lock_file({}));
}

TEST_P(BothWriters, LeaveAFolderAsItIs) {
    fs::create_directory(path());
    write_file(path() + "/inside", "text");
    save();
    EXPECT_EQ(folder_.names(), with_lock_file({"conf"}));
    EXPECT_EQ(read_file(path() + "/inside"), "text");
}

TEST_P(BothWriters, LeaveAnEmptyFolderAsItIs) {
    fs::create_directory(path());
    save();
    EXPECT_TRUE(fs::is_directory(path()));
    EXPECT_EQ(folder_.names(), with_lock_file({"conf"}));
}

TEST_P(BothWriters, LeaveAFileThatMayNotBeRead) {
    folder_.write("conf", "A=1\n");
    ASSERT_EQ(chmod(path().c_str(), 0), 0);
    expect_as_ordinary_user([&] { save(); });
    ASSERT_EQ(chmod(path().c_str(), 0600), 0);
    EXPECT_EQ(folder_.read("conf"), "A=1\n");
    EXPECT_EQ(folder_.names(), with_lock_file({"conf"}));
}

TEST_P(BothWriters, LeaveTheFileWhereTheCopyCannotBeCreated) {
    folder_.write("conf", "A=1\n");
    fs::create_directory(folder_.path("conf.cgi"));
    save();
    EXPECT_EQ(folder_.read("conf"), "A=1\n");
    EXPECT_TRUE(fs::is_directory(folder_.path("conf.cgi")));
}

TEST_P(BothWriters, LeaveTheFileInAFolderThatMayNotBeWritten) {
    folder_.write("conf", "A=1\n");
    ASSERT_EQ(chmod(folder_.path().c_str(), 0555), 0);
    expect_as_ordinary_user([&] { save(); });
    ASSERT_EQ(chmod(folder_.path().c_str(), 0755), 0);
    EXPECT_EQ(folder_.read("conf"), "A=1\n");
    EXPECT_EQ(folder_.names(), Names{"conf"});
}

TEST_P(BothWriters, KeepTheMode) {
    for (const mode_t wanted : {0600U, 0644U, 0666U, 0755U, 0440U, 04750U, 02755U, 01777U}) {
        folder_.write("conf", "A=1\n");
        ASSERT_EQ(chmod(path().c_str(), wanted), 0);
        save();
        EXPECT_EQ(mode(), wanted);
        EXPECT_EQ(folder_.read("conf"), "A=\"x\"\n");
        folder_.remove("conf");
    }
}

TEST_P(BothWriters, KeepTheSetIdBitsOfAnOrdinaryUsersFile) {
    // The kernel takes them from a file that such a user writes to.
    expect_as_ordinary_user([&] {
        folder_.write("conf", "A=1\n");
        ASSERT_EQ(chmod(path().c_str(), 04750), 0);
        save();
        EXPECT_EQ(mode(), 04750U);
        EXPECT_EQ(folder_.read("conf"), "A=\"x\"\n");
    });
}

TEST_P(BothWriters, KeepTheModeWhateverTheUmaskIs) {
    folder_.write("conf", "A=1\n");
    ASSERT_EQ(chmod(path().c_str(), 0666), 0);
    for (const mode_t mask : {0077U, 0777U, 0U}) {
        const mode_t before = umask(mask);
        save();
        umask(before);
        EXPECT_EQ(mode(), 0666U);
    }
}

TEST_P(BothWriters, KeepTheOwner) {
    folder_.write("conf", "A=1\n");
    // An ordinary user's files have one owner only.
    const uid_t user = geteuid() == 0 ? 1234 : geteuid();
    const gid_t group = geteuid() == 0 ? 5678 : getegid();
    ASSERT_EQ(chown(path().c_str(), user, group), 0);
    ASSERT_EQ(chmod(path().c_str(), 0640), 0);
    save();
    struct stat status {};
    ASSERT_EQ(stat(path().c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, user);
    EXPECT_EQ(status.st_gid, group);
    EXPECT_EQ(status.st_mode & 07777U, 0640U);
    EXPECT_EQ(folder_.read("conf"), "A=\"x\"\n");
}

TEST_P(BothWriters, SaveAFileWhoseOwnerCannotBeKept) {
    folder_.write("conf", "A=1\n");
    ASSERT_EQ(chmod(path().c_str(), 04755), 0);
    const FailCall no_right(call_fchown, 1, EPERM);
    save();
    EXPECT_EQ(no_right.failures(), 1U);
    EXPECT_EQ(folder_.read("conf"), "A=\"x\"\n");
    // Rights that belonged to the old owner are not handed to the new one.
    EXPECT_EQ(mode(), 0755U);
}

TEST_P(BothWriters, SaveAFileOfAnotherOwnerAsAnOrdinaryUser) {
    folder_.write("conf", "A=1\n");
    ASSERT_EQ(chmod(path().c_str(), 0644), 0);
    expect_as_ordinary_user([&] { save(); });
    EXPECT_EQ(folder_.read("conf"), "A=\"x\"\n");
    EXPECT_EQ(mode(), 0644U);
}

TEST_P(BothWriters, GiveAnotherGroupNoMoreThanEverybody) {
    folder_.write("conf", "A=1\n");
    ASSERT_EQ(chmod(path().c_str(), 0674), 0);
    const FailCall no_owner(call_fchown, 1, EPERM, FailCall::from_then_on);
    save();
    EXPECT_EQ(mode(), 0644U);
}

TEST_P(BothWriters, TouchNothingWithoutAPath) {
    ASSERT_EQ(chdir(folder_.path().c_str()), 0);
    folder_.write(".lck", "text");
    GetParam().set("", "A", "x");
    EXPECT_EQ(save_prop('=', nullptr, nullptr, 0), 1);
    EXPECT_EQ(save_global_conf('=', nullptr, "", "A", "x"), 1);
    ASSERT_EQ(chdir("/"), 0);
    EXPECT_EQ(folder_.names(), Names{".lck"});
    EXPECT_EQ(folder_.read(".lck"), "text");
}

/** A path of an exact length to a file "conf", in folders made for it. */
std::string path_of_length(const TemporaryDirectory &folder, std::size_t length) {
    constexpr std::string_view file = "/conf";
    std::string path = folder.path();
    while (path.size() + file.size() < length) {
        const std::size_t left = length - path.size() - file.size();
        // One character alone would be a slash without a name.
        std::size_t step = std::min<std::size_t>(left, 101);
        if (left - step == 1)
            --step;
        path += "/" + filler(step - 1);
        fs::create_directory(path);
    }
    path += file;
    EXPECT_EQ(path.size(), length);
    return path;
}

TEST_P(BothWriters, SaveAFileWhoseCompanionsNamesJustFit) {
    const std::string path = path_of_length(folder_, GetParam().longest_path);
    write_file(path, "A=1\n");
    GetParam().set(path, "A", "x");
    EXPECT_EQ(read_file(path), "A=\"x\"\n");
    EXPECT_FALSE(fs::exists(path + ".cgi"));
    EXPECT_EQ(fs::exists(path + ".lck"), GetParam().keeps_lock_file);
}

TEST_P(BothWriters, TouchNothingWhereTheCompanionsNamesDoNotFit) {
    for (const std::size_t length : {GetParam().longest_path + 1, GetParam().longest_path + 5,
                                     std::size_t{1030}, std::size_t{3000}}) {
        const TemporaryDirectory folder;
        const std::string path = path_of_length(folder, length);
        write_file(path, "A=1\n");
        GetParam().set(path, "A", "x");
        EXPECT_EQ(read_file(path), "A=1\n") << length;
        const auto entries = fs::directory_iterator(fs::path(path).parent_path());
        EXPECT_EQ(std::distance(begin(entries), end(entries)), 1) << length;
    }
}

TEST_P(BothWriters, TouchNoLockFileWhereTheCompanionsNamesDoNotFit) {
    const std::string path = path_of_length(folder_, GetParam().longest_path + 1);
    write_file(path, "A=1\n");
    write_file(path + ".lck", "text");
    GetParam().set(path, "A", "x");
    EXPECT_EQ(read_file(path + ".lck"), "text");
}

TEST_P(BothWriters, CloseEveryFile) {
    folder_.write("conf", "A=1\n");
    const std::size_t before = open_descriptors();
    save();
    folder_.remove("conf");
    save();
    fs::create_directory(path());
    save();
    EXPECT_EQ(open_descriptors(), before);
}

/** The number of calls of a function that a save makes where there is a lock file, if it stays. */
unsigned long calls_of_a_save(stand_in_call call, const TemporaryDirectory &folder,
                              const std::function<void()> &save, const std::string &before) {
    save();
    folder.write("conf", before);
    const CountCalls calls(call);
    save();
    return calls.count();
}

/**
 * Runs a save with each call of a function failing in turn and checks that the file is whole, old
 * or new, and that no copy is left behind.
 *
 * @return how often the file was left as it was.
 */
unsigned long fail_each(stand_in_call call, const TemporaryDirectory &folder,
                        const std::function<void()> &save, const std::string &before,
                        const std::string &after) {
    const unsigned long count = calls_of_a_save(call, folder, save, before);
    EXPECT_EQ(folder.read("conf"), after);
    unsigned long left_alone = 0;
    for (unsigned long n = 1; n <= count; ++n) {
        folder.write("conf", before);
        {
            const FailCall failing(call, n, ENOSPC);
            save();
            EXPECT_EQ(failing.failures(), 1U);
        }
        EXPECT_TRUE(folder.exists("conf")) << "call " << n;
        EXPECT_FALSE(folder.exists("conf.cgi")) << "call " << n;
        const std::string text = folder.exists("conf") ? folder.read("conf") : "";
        EXPECT_TRUE(text == before || text == after) << "call " << n << " left\n" << text;
        left_alone += text == before ? 1U : 0U;
        folder.remove("conf.cgi");
    }
    return left_alone;
}

TEST_P(BothWriters, LeaveTheFileAndNoCopyWhicheverWriteFails) {
    const std::string before = "A=1\n" + large_file("1");
    const std::string after = "A=\"x\"\n" + large_file("1");
    const auto set_a = [&] {
        save();
    };
    unsigned long writes = 0;
    const std::size_t descriptors = open_descriptors();
    for (const stand_in_call call :
         {call_fwrite, call_fputs, call_fputc, call_fprintf, call_write, call_fflush}) {
        const unsigned long count = calls_of_a_save(call, folder_, set_a, before);
        EXPECT_EQ(fail_each(call, folder_, set_a, before, after), count);
        writes += count;
    }
    EXPECT_GT(writes, 1U);
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_P(BothWriters, LeaveTheFileAndNoCopyWhenClosingTheCopyFails) {
    EXPECT_GE(fail_each(
                  call_fclose, folder_, [&] { save(); }, "A=1\nB=2\n", "A=\"x\"\nB=2\n"),
              1U);
}

TEST_P(BothWriters, LeaveTheFileAndNoCopyWhicheverFileCannotBeOpened) {
    for (const stand_in_call call : {call_open, call_fopen, call_fdopen})
        fail_each(
            call, folder_, [&] { save(); }, "A=1\nB=2\n", "A=\"x\"\nB=2\n");
}

TEST_P(BothWriters, LeaveAWholeFileWhicheverRightsCallFails) {
    for (const stand_in_call call : {call_fstat, call_fchmod, call_fchown})
        fail_each(
            call, folder_, [&] { save(); }, "A=1\nB=2\n", "A=\"x\"\nB=2\n");
}

TEST_P(BothWriters, LeaveTheFileAndNoCopyWhicheverReadFails) {
    const std::string before = "A=1\n" + large_file("1");
    const std::string after = "A=\"x\"\n" + large_file("1");
    const std::size_t descriptors = open_descriptors();
    unsigned long reads = 0;
    for (const stand_in_call call : {call_read, call_fgets, call_fread}) {
        const unsigned long count = calls_of_a_save(
            call, folder_, [&] { save(); }, before);
        EXPECT_EQ(fail_each(
                      call, folder_, [&] { save(); }, before, after),
                  count);
        reads += count;
    }
    EXPECT_GT(reads, 1U);
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_P(BothWriters, GoOnReadingAfterASignal) {
    folder_.write("conf", "A=1\nB=2\n");
    const FailCall signal(call_read, 1, EINTR);
    save();
    EXPECT_EQ(folder_.read("conf"), "A=\"x\"\nB=2\n");
}

TEST_P(BothWriters, PutTheCopyInTheFilesPlaceThoughTheFileCannotBeRemovedFirst) {
    folder_.write("conf", "A=1\n");
    const FailCall not_removed(call_unlink, 1, EPERM);
    save();
    EXPECT_EQ(folder_.read("conf"), "A=\"x\"\n");
    EXPECT_FALSE(folder_.exists("conf.cgi"));
}

TEST_P(BothWriters, LeaveTheCopyWholeWhereItCannotBeRenamed) {
    folder_.write("conf", "A=1\n");
    const FailCall not_renamed(call_rename, 1, EIO);
    save();
    EXPECT_FALSE(folder_.exists("conf"));
    EXPECT_EQ(folder_.read("conf.cgi"), "A=\"x\"\n");
}

TEST_P(BothWriters, LeaveTheFileAndNoCopyWhereItCanNeitherBeRemovedNorReplaced) {
    folder_.write("conf", "A=1\n");
    const FailCall not_removed(call_unlink, 1, EPERM);
    const FailCall not_renamed(call_rename, 1, EPERM);
    save();
    EXPECT_EQ(folder_.read("conf"), "A=1\n");
    EXPECT_FALSE(folder_.exists("conf.cgi"));
}

TEST_P(BothWriters, GiveTheSameFileWhicheverAllocationFails) {
    const std::size_t descriptors = open_descriptors();
    for_each_allocation_failure(
        [&](AllocationTrial &trial) {
            folder_.write("conf", "A=1\nB=2\n");
            const std::string conf = path();
            trial.run([&] { GetParam().set(conf, "A", "x"); });
            EXPECT_EQ(folder_.read("conf"), "A=\"x\"\nB=2\n") << "allocation " << trial.n();
            EXPECT_EQ(folder_.names(), with_lock_file({"conf"})) << "allocation " << trial.n();
        },
        Allocations::outside_c_library);
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_P(BothWriters, LeaveAWholeFileWhicheverAllocationOfTheStreamsFails) {
    const std::size_t descriptors = open_descriptors();
    for_each_allocation_failure([&](AllocationTrial &trial) {
        folder_.write("conf", "A=1\nB=2\n");
        const std::string conf = path();
        trial.run([&] { GetParam().set(conf, "A", "x"); });
        const std::string text = folder_.read("conf");
        EXPECT_TRUE(text == "A=\"x\"\nB=2\n" || (trial.failed() && text == "A=1\nB=2\n"))
            << "allocation " << trial.n() << " left\n"
            << text;
        EXPECT_EQ(folder_.names(), with_lock_file({"conf"})) << "allocation " << trial.n();
        folder_.remove("conf.cgi");
    });
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST(SaveProp, GivesTheSameFileForALargeTableWhicheverAllocationFails) {
    const TemporaryDirectory folder;
    const std::string path = folder.path("conf");
    Rows rows = {{"NAME_500", "first"}};
    for (int i = 0; i < 2000; ++i)
        rows.emplace_back("OTHER_" + std::to_string(i), "o");
    rows.emplace_back("NAME_500", "last");
    PropertyTable table(rows);
    for_each_allocation_failure(
        [&](AllocationTrial &trial) {
            folder.write("conf", large_file("1"));
            trial.run([&] { return save_prop('=', path.c_str(), table.data(), table.count()); });
            EXPECT_EQ(folder.read("conf"), large_file("\"last\"")) << "allocation " << trial.n();
        },
        Allocations::outside_c_library);
}

TEST_P(BothWriters, LoseNothingOnAFullDisk) {
    in_private_root([] {
        constexpr std::size_t disk = 96 * 1024;
        mount_small_disk("/mnt/disk", disk);
        const std::string text = "A=1\n" + large_file("1") + large_file("1");
        ASSERT_GT(2 * text.size(), disk);
        write_file("/mnt/disk/conf", text);
        GetParam().set("/mnt/disk/conf", "A", "x");
        EXPECT_EQ(read_file("/mnt/disk/conf"), text);
        EXPECT_FALSE(fs::exists("/mnt/disk/conf.cgi"));
    });
}

TEST_P(BothWriters, LoseNothingOnADiskThatIsFullWhenTheCopyIsClosed) {
    in_private_root([] {
        mount_small_disk("/mnt/disk", 128 * 1024);
        write_file("/mnt/disk/conf", "A=1\nB=2\n");
        EXPECT_THROW(write_file("/mnt/disk/rest", filler(200 * 1024)), std::exception);
        GetParam().set("/mnt/disk/conf", "A", "x");
        EXPECT_EQ(read_file("/mnt/disk/conf"), "A=1\nB=2\n");
        EXPECT_FALSE(fs::exists("/mnt/disk/conf.cgi"));
        fs::remove("/mnt/disk/rest");
        GetParam().set("/mnt/disk/conf", "A", "x");
        EXPECT_EQ(read_file("/mnt/disk/conf"), "A=\"x\"\nB=2\n");
    });
}

TEST_P(BothWriters, LeaveTheFileOrTheCopyWholeWhereverTheProcessIsKilled) {
    const std::string before = "A=1\n" + large_file("1");
    const std::string after = "A=\"x\"\n" + large_file("1");
    std::string last;
    unsigned long copy_alone = 0;
    const unsigned long points = for_each_kill_point(
        [&] {
            for (const std::string &name : folder_.names())
                folder_.remove(name);
            folder_.write("conf", before);
        },
        [&] { save(); },
        [&](unsigned long n) {
            if (!folder_.exists("conf")) {
                ++copy_alone;
                ASSERT_TRUE(folder_.exists("conf.cgi")) << "neither is left at system call " << n;
                ASSERT_EQ(folder_.read("conf.cgi"), after) << "system call " << n;
                return;
            }
            last = folder_.read("conf");
            ASSERT_TRUE(last == before || last == after) << "system call " << n;
            save();
            ASSERT_EQ(folder_.read("conf"), after) << "saving again after system call " << n;
        });
    // The last run was let through.
    EXPECT_EQ(last, after);
    EXPECT_EQ(copy_alone, 1U);
    EXPECT_GT(points, 10U);
    RecordProperty("kill_points", std::to_string(points));
    std::printf("%s: killed at each of %lu system calls\n", GetParam().name.c_str(), points);
}

/** Several processes that save one file; each has a line of its own in it. */
class Savers : public testing::TestWithParam<int> {
  protected:
    static constexpr int rounds_in_all = 1000;
    static constexpr int other_lines = 200;

    static std::string name_of(int process) { return "NAME_" + std::to_string(process); }

    [[nodiscard]] std::string path() const { return folder_.path("conf"); }

    void write_first_version() const {
        std::string text;
        for (int i = 0; i < GetParam(); ++i)
            text += name_of(i) + "=\"0\"\n";
        for (int i = 0; i < other_lines; ++i)
            text += "OTHER_" + std::to_string(i) + "=" + filler(50) + "\n";
        folder_.write("conf", text);
    }

    /** The numbers that the processes wrote last; the test fails if the file is not whole. */
    [[nodiscard]] std::vector<int> numbers_in_file() const {
        PropertyTable table(static_cast<std::size_t>(GetParam() + other_lines + 100));
        table.load('=', path());
        const Rows rows = table.rows();
        std::vector<int> numbers;
        EXPECT_EQ(rows.size(), static_cast<std::size_t>(GetParam() + other_lines));
        for (std::size_t i = 0; i < rows.size(); ++i) {
            const int process = static_cast<int>(i);
            if (process < GetParam()) {
                EXPECT_EQ(rows[i].first, name_of(process));
                numbers.push_back(std::atoi(rows[i].second.c_str() + 1));
            } else {
                EXPECT_EQ(rows[i].first, "OTHER_" + std::to_string(process - GetParam()));
                EXPECT_EQ(rows[i].second, filler(50));
            }
        }
        return numbers;
    }

    /** The same with the writers kept out. */
    [[nodiscard]] std::vector<int> numbers_under_lock() const {
        const int lock = open((path() + ".lck").c_str(), O_RDWR | O_CLOEXEC);
        EXPECT_GE(lock, 0);
        EXPECT_EQ(lockf(lock, F_LOCK, 0), 0);
        const std::vector<int> numbers = numbers_in_file();
        close(lock);
        return numbers;
    }

    /** A reader that takes no lock finds no file for a moment, but never a part of one. */
    void expect_whole_or_missing() const {
        const int descriptor = open(path().c_str(), O_RDONLY | O_CLOEXEC);
        if (descriptor < 0)
            return;
        std::string text(100000, '\0');
        const ssize_t size = read(descriptor, text.data(), text.size());
        close(descriptor);
        ASSERT_GT(size, 0);
        text.resize(static_cast<std::size_t>(size));
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), GetParam() + other_lines);
        EXPECT_EQ(text.back(), '\n');
    }

    void save_rounds(int process) const {
        for (int round = 1; round <= rounds_of_each(); ++round) {
            PropertyTable table(Rows{{name_of(process), std::to_string(round)}});
            ASSERT_EQ(save_prop('=', path().c_str(), table.data(), table.count()), 1);
            expect_whole_or_missing();
            const std::vector<int> numbers = numbers_under_lock();
            ASSERT_GT(numbers.size(), static_cast<std::size_t>(process));
            ASSERT_EQ(numbers[static_cast<std::size_t>(process)], round);
        }
    }

    static int rounds_of_each() { return rounds_in_all / GetParam(); }

    TemporaryDirectory folder_;
};

INSTANTIATE_TEST_SUITE_P(Processes, Savers, testing::Values(2, 4, 8),
                         testing::PrintToStringParamName());

TEST_P(Savers, LoseNoLineAndLeaveNoTornFile) {
    write_first_version();
    std::vector<pid_t> children;
    std::fflush(nullptr);
    for (int process = 0; process < GetParam(); ++process) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            end_child(status_of_assertions([&] { save_rounds(process); }));
        }
        children.push_back(child);
    }
    for (const pid_t child : children)
        expect_success(wait_for_child(child), "a saving process");
    EXPECT_EQ(numbers_in_file(),
              std::vector<int>(static_cast<std::size_t>(GetParam()), rounds_of_each()));
    EXPECT_EQ(folder_.names(), (Names{"conf", "conf.lck"}));
}

TEST(SaveProp, TellsNamesOfOneHashApart) {
    EXPECT_EQ(saved('=', "costarring=1\nliquid=2\n", {{"costarring", "a"}, {"liquid", "b"}}),
              "costarring=\"a\"\nliquid=\"b\"\n");
    EXPECT_EQ(saved('=', "costarring=1\nliquid=2\n", {{"liquid", "b"}, {"liquid", "c"}}),
              "costarring=1\nliquid=\"c\"\n");
}

TEST(BothWritersAtOnce, LoseNoSettingOnOneFile) {
    constexpr int processes = 4;
    constexpr int saves = 50;
    for (int round = 0; round < 5; ++round) {
        const TemporaryDirectory folder;
        std::string lines;
        for (int process = 0; process < processes; ++process)
            lines += "NAME_" + std::to_string(process) + "=0\n";
        folder.write("conf", lines);
        const std::string path = folder.path("conf");
        std::vector<pid_t> children;
        std::fflush(nullptr);
        for (int process = 0; process < processes; ++process) {
            const pid_t child = fork();
            ASSERT_GE(child, 0);
            if (child == 0) {
                std::string name = "NAME_" + std::to_string(process);
                for (int i = 1; i <= saves; ++i) {
                    std::string value = std::to_string(i);
                    prop_entry row = {0, 0, name.data(), value.data()};
                    if (process % 2 == 0)
                        save_prop('=', path.c_str(), &row, 1);
                    else
                        save_global_conf('=', path.c_str(), "", name.c_str(), value.c_str());
                }
                end_child(0);
            }
            children.push_back(child);
        }
        for (const pid_t child : children)
            expect_success(wait_for_child(child), "a saving process");
        std::string expected;
        for (int process = 0; process < processes; ++process)
            expected += "NAME_" + std::to_string(process) + "=\"" + std::to_string(saves) + "\"\n";
        EXPECT_EQ(folder.read("conf"), expected);
        EXPECT_FALSE(folder.exists("conf.cgi"));
    }
}

TEST(SaveConfig, HandsTheCommandLineToTheShell) {
    const RecordSystem record(0);
    save_config();
    EXPECT_EQ(RecordSystem::commands(), Names{"/sbin/configclient  &"});
}

TEST(SaveConfig, ReturnsWhatSystemReturned) {
    for (const int status : {0, 1, 127 << 8, -1}) {
        const RecordSystem record(status);
        EXPECT_EQ(save_config(), status);
    }
}

TEST(SaveConfig, PrintsNothing) {
    const RecordSystem record(0);
    EXPECT_EQ(capture_stdout([] { save_config(); }), "");
}

class SaveConfigInPrivateRoot : public testing::TestWithParam<RootMaker> {};

INSTANTIATE_TEST_SUITE_P(Makers, SaveConfigInPrivateRoot, testing::ValuesIn(root_makers()),
                         [](const auto &maker) {
                             return maker.param == RootMaker::current_user ? "CurrentUser"
                                                                           : "OrdinaryUser";
                         });

TEST_P(SaveConfigInPrivateRoot, StartsTheClientAndReturnsAtOnce) {
    in_private_root(
        [] {
            write_program("/sbin/configclient",
                          "#!/bin/sh\nread -r go </tmp/go\necho \"$# $go\" >/tmp/ran.part\n"
                          "mv /tmp/ran.part /tmp/ran\n");
            ASSERT_EQ(mkfifo("/tmp/go", 0600), 0);
            EXPECT_EQ(save_config(), 0);
            // The client waits for what is written here only after save_config() came back.
            EXPECT_FALSE(fs::exists("/tmp/ran"));
            write_file("/tmp/go", "now\n");
            for (int i = 0; i < 1000 && !fs::exists("/tmp/ran"); ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            EXPECT_EQ(read_file("/tmp/ran"), "0 now\n");
        },
        GetParam());
}

/** 8 less the number of trailing zero bits; 0 for 0. */
int octet_length(int octet) {
    int length = 0;
    for (int value = octet; (value & 0xff) != 0; value <<= 1)
        ++length;
    return length;
}

TEST(CalcNetpriexlength, CountsTheOneBitsOfValidMasks) {
    EXPECT_EQ(calc_netpriexlength("255.255.255.0"), 24);
    EXPECT_EQ(calc_netpriexlength("255.255.255.255"), 32);
    EXPECT_EQ(calc_netpriexlength("255.255.254.0"), 23);
    EXPECT_EQ(calc_netpriexlength("0.0.0.0"), 0);
    EXPECT_EQ(calc_netpriexlength("255.0.255.0"), 16);
    for (int length = 0; length <= 32; ++length) {
        const std::uint64_t mask = 0xffffffff00000000U >> length;
        std::string text;
        for (const int shift : {24, 16, 8, 0})
            text += std::to_string((mask >> shift) & 0xffU) + (shift == 0 ? "" : ".");
        EXPECT_EQ(calc_netpriexlength(text.c_str()), length) << text;
    }
}

TEST(CalcNetpriexlength, CountsEachValueOfEachOctet) {
    for (int octet = 0; octet < 256; ++octet) {
        const std::string text = std::to_string(octet);
        const int length = octet_length(octet);
        EXPECT_EQ(calc_netpriexlength((text + ".0.0.0").c_str()), length) << octet;
        EXPECT_EQ(calc_netpriexlength(("0." + text + ".0.0").c_str()), length) << octet;
        EXPECT_EQ(calc_netpriexlength(("0.0." + text + ".0").c_str()), length) << octet;
        EXPECT_EQ(calc_netpriexlength(("0.0.0." + text).c_str()), length) << octet;
        EXPECT_EQ(calc_netpriexlength(("255.255.255." + text).c_str()), 24 + length) << octet;
    }
    EXPECT_EQ(calc_netpriexlength("129.0.0.0"), 8);
}

TEST(CalcNetpriexlength, KeepsTheLow8BitsOfAnOctet) {
    EXPECT_EQ(calc_netpriexlength("256.0.0.0"), 0);
    EXPECT_EQ(calc_netpriexlength("384.0.0.0"), 1);
    EXPECT_EQ(calc_netpriexlength("511.0.0.0"), 8);
    EXPECT_EQ(calc_netpriexlength("-1.0.0.0"), 8);
    EXPECT_EQ(calc_netpriexlength("-128.0.0.0"), 1);
}

TEST(CalcNetpriexlength, ReadsAnOctetAsAtoiDoes) {
    EXPECT_EQ(calc_netpriexlength(" \t255.+255. 128.0"), 17);
    EXPECT_EQ(calc_netpriexlength("255x.255y.0z.0"), 16);
    EXPECT_EQ(calc_netpriexlength("x.y.z.255"), 8);
    EXPECT_EQ(calc_netpriexlength("255..255."), 16);
    EXPECT_EQ(calc_netpriexlength("000000255.0.0.0"), 8);
}

TEST(CalcNetpriexlength, CountsNothingForOctetsThatAreNotThere) {
    EXPECT_EQ(calc_netpriexlength(nullptr), 0);
    for (const auto &[text, length] : std::vector<std::pair<std::string, int>>{{"", 0},
                                                                               {".", 0},
                                                                               {"...", 0},
                                                                               {"255", 8},
                                                                               {"255.", 8},
                                                                               {"255.255", 16},
                                                                               {"255.255.255", 24},
                                                                               {"255.255.255.", 24},
                                                                               {"-", 0},
                                                                               {"text", 0}}) {
        // In a block of its own size: a sanitizer sees a step behind the terminator.
        std::vector<char> block(text.c_str(), text.c_str() + text.size() + 1);
        EXPECT_EQ(calc_netpriexlength(block.data()), length) << text;
    }
}

TEST(CalcNetpriexlength, LooksAtFourOctetsOnly) {
    EXPECT_EQ(calc_netpriexlength("255.255.255.255.255"), 32);
    EXPECT_EQ(calc_netpriexlength("0.0.0.0.255"), 0);
}

TEST(CalcNetpriexlength, StaysBetween0And32ForNumbersOfAnyLength) {
    for (const char *text : {"99999999999999999999999.0.0.0", "-99999999999999999999999.0.0.0",
                             "4294967296.2147483648.-2147483649.9223372036854775808"}) {
        EXPECT_GE(calc_netpriexlength(text), 0);
        EXPECT_LE(calc_netpriexlength(text), 32);
    }
}

} // namespace
