/* SPDX-License-Identifier: MIT */
#include <corvel.h>

#include "tests/config/property_rows.h"
#include "tests/config/writers.h"
#include "tests/support/child_process.h"
#include "tests/support/descriptors.h"
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

/** A string of @p length characters. */
std::string filler(std::size_t length) { return std::string(length, 'v'); }

/** Lines "NAME_n=..." of several times the size of a stream's buffer. */
std::string large_file(const std::string &value_of_name_500) {
    std::string text;
    for (int i = 0; i < 1000; ++i)
        text += "NAME_" + std::to_string(i) + "=" +
                (i == 500 ? value_of_name_500 : std::to_string(i) + filler(20)) + "\n";
    return text;
}

/** A file's content after save_prop(). */
std::string saved(char separator, std::string_view text, const Rows &rows) {
    const TemporaryDirectory directory;
    directory.write("conf", text);
    PropertyTable table(rows);
    EXPECT_EQ(save_prop(static_cast<signed char>(separator), directory.path("conf").c_str(),
                        table.data(), table.count()),
              1);
    EXPECT_EQ(directory.names(), (Names{"conf", "conf.lck"}));
    return directory.read("conf");
}

/** A file's content after save_global_conf(). */
std::string set_in(std::string_view text, char separator, const char *prefix, const char *name,
                   const char *value) {
    const TemporaryDirectory directory;
    directory.write("conf", text);
    EXPECT_EQ(save_global_conf(static_cast<signed char>(separator), directory.path("conf").c_str(),
                               prefix, name, value),
              1);
    EXPECT_EQ(directory.names(), Names{"conf"});
    return directory.read("conf");
}

// --- save_prop ---

TEST(save_prop, RewritesTheLinesWhoseKeysAreNamesOfRows) {
    EXPECT_EQ(saved('=', "A=\"1\"\n# c\nB=2\n", {{"A", "x"}, {"C", "y"}}), "A=\"x\"\n# c\nB=2\n");
}

TEST(save_prop, CopiesAllOtherLinesUnchanged) {
    const std::string text = "# c=1\n\n  A=1\nA =2\na=3\nAA=4\nB\n \t\r\nC=\x80\xff\x01\n";
    EXPECT_EQ(saved('=', text, {{"A", "x"}}), text);
}

TEST(save_prop, DoesNotAddRowsThatHaveNoLine) {
    EXPECT_EQ(saved('=', "A=1\n", {{"B", "x"}}), "A=1\n");
    EXPECT_EQ(saved('=', "", {{"B", "x"}}), "");
}

TEST(save_prop, WritesTheValueUnchangedBetweenQuotes) {
    EXPECT_EQ(saved('=', "A=1\n", {{"A", "\"q\" $x `y` \\z"}}), "A=\"\"q\" $x `y` \\z\"\n");
    EXPECT_EQ(saved('=', "A=1\n", {{"A", ""}}), "A=\"\"\n");
    EXPECT_EQ(saved('=', "A=1\n", {{"A", " x\t"}}), "A=\" x\t\"\n");
}

TEST(save_prop, WritesAllOfAValueOf257Characters) {
    EXPECT_EQ(saved('=', "A=1\n", {{"A", filler(CORVEL_PROP_VALUE_SIZE)}}),
              "A=\"" + filler(CORVEL_PROP_VALUE_SIZE) + "\"\n");
}

TEST(save_prop, ComparesTheWholeKey) {
    EXPECT_EQ(saved('=', "A=1\nAB=2\n", {{"AB", "x"}}), "A=1\nAB=\"x\"\n");
    EXPECT_EQ(saved('=', " A=1\n", {{" A", "x"}}), " A=\"x\"\n");
    EXPECT_EQ(saved('=', "A =1\n", {{"A ", "x"}}), "A =\"x\"\n");
    EXPECT_EQ(saved('=', "#A=1\n", {{"#A", "x"}}), "#A=\"x\"\n");
}

TEST(save_prop, EndsTheKeyAtTheFirstSeparator) {
    EXPECT_EQ(saved('=', "A=B=1\n", {{"A=B", "x"}}), "A=B=1\n");
    EXPECT_EQ(saved('=', "A=B=1\n", {{"A", "x"}}), "A=\"x\"\n");
}

TEST(save_prop, UsesTheWholeLineAsTheKeyIfThereIsNoSeparator) {
    EXPECT_EQ(saved('=', "A\nB C\n", {{"A", "x"}, {"B C", "y"}}), "A=\"x\"\nB C=\"y\"\n");
    EXPECT_EQ(saved('=', "\n", {{"", "x"}}), "=\"x\"\n");
}

TEST(save_prop, NeverRewritesSetenvLinesWithASpaceAsTheSeparator) {
    const std::string text = "setenv NAME value\nsetenv B 1\n";
    EXPECT_EQ(saved(' ', text, {{"NAME", "x"}, {"B", "y"}}), text);
    EXPECT_EQ(saved(' ', text, {{"setenv", "x"}}), "setenv \"x\"\nsetenv \"x\"\n");
}

TEST(save_prop, IncludesAPrefixInTheKey) {
    EXPECT_EQ(saved('=', "setenv A=1\n", {{"A", "x"}}), "setenv A=1\n");
    EXPECT_EQ(saved('=', "setenv A=1\n", {{"setenv A", "x"}}), "setenv A=\"x\"\n");
}

TEST(save_prop, UsesTheSeparatorAsGiven) {
    EXPECT_EQ(saved(' ', "A 1=2\n", {{"A", "x"}}), "A \"x\"\n");
    EXPECT_EQ(saved('\t', "A\t1\n", {{"A", "x"}}), "A\t\"x\"\n");
    EXPECT_EQ(saved(':', "A:1\nA\t1\n", {{"A", "x"}}), "A:\"x\"\nA\t1\n");
    EXPECT_EQ(saved('\xe9',
                    "A\xe9"
                    "1\n",
                    {{"A", "x"}}),
              "A\xe9\"x\"\n");
}

TEST(save_prop, WritesNoSeparatorIfItIsANul) {
    EXPECT_EQ(saved('\0', "A\nB=1\n", {{"A", "x"}, {"B", "y"}}), "A\"x\"\nB=1\n");
}

TEST(save_prop, RewritesEveryLineWithTheKey) {
    EXPECT_EQ(saved('=', "A=1\nB=2\nA=3\n", {{"A", "x"}}), "A=\"x\"\nB=2\nA=\"x\"\n");
}

TEST(save_prop, WritesTheValueOfTheLastRowWithTheName) {
    EXPECT_EQ(saved('=', "A=1\nB=2\n", {{"A", "x"}, {"B", "b"}, {"A", "y"}, {"A", "z"}}),
              "A=\"z\"\nB=\"b\"\n");
}

TEST(save_prop, WritesOnlyTheRowsInUse) {
    const TemporaryDirectory directory;
    directory.write("conf", "A=1\nB=2\n");
    PropertyTable table(Rows{{"A", "x"}, {"B", "y"}});
    save_prop('=', directory.path("conf").c_str(), table.data(), 1);
    EXPECT_EQ(directory.read("conf"), "A=\"x\"\nB=2\n");
}

TEST(save_prop, CopiesTheFileForATableWithoutRows) {
    const TemporaryDirectory directory;
    directory.write("conf", "A=1\nB=2\nC");
    PropertyTable table(Rows{{"A", "x"}});
    for (const int count : {0, -1, std::numeric_limits<int>::min()}) {
        EXPECT_EQ(save_prop('=', directory.path("conf").c_str(), table.data(), count), 1);
        EXPECT_EQ(directory.read("conf"), "A=1\nB=2\n");
    }
    EXPECT_EQ(save_prop('=', directory.path("conf").c_str(), nullptr, 0), 1);
    EXPECT_EQ(directory.read("conf"), "A=1\nB=2\n");
}

TEST(save_prop, SkipsFreedRows) {
    const TemporaryDirectory directory;
    directory.write("conf", "\nA=1\nB=2\n");
    PropertyTable table(Rows{{"A", "x"}, {"B", "y"}});
    free_prop(table.data(), 1);
    save_prop('=', directory.path("conf").c_str(), table.data(), table.count());
    EXPECT_EQ(directory.read("conf"), "\nA=1\nB=\"y\"\n");
}

TEST(save_prop, WritesRequestRowsWithoutSizes) {
    const TemporaryDirectory directory;
    directory.write("conf", "A=1\nB=2\n");
    std::string name = "A";
    std::string other = "B";
    std::string value = "x";
    const std::array<prop_entry, 2> rows = {
        {{0, 0, name.data(), value.data()}, {0, 0, other.data(), nullptr}}};
    save_prop('=', directory.path("conf").c_str(), rows.data(), 2);
    EXPECT_EQ(directory.read("conf"), "A=\"x\"\nB=\"\"\n");
}

TEST(save_prop, RemovesTheCarriageReturnOfARewrittenLine) {
    EXPECT_EQ(saved('=', "A=1\r\nB=2\r\n", {{"A", "x"}}), "A=\"x\"\nB=2\r\n");
}

TEST(save_prop, DropsALastLineWithoutANewline) {
    EXPECT_EQ(saved('=', "A=1\nB=2", {{"A", "x"}}), "A=\"x\"\n");
    EXPECT_EQ(saved('=', "A=1\nB=2", {{"B", "x"}}), "A=1\n");
    EXPECT_EQ(saved('=', "B=2", {{"B", "x"}}), "");
}

TEST(save_prop, CopiesALineOf1022CharactersUnchanged) {
    const std::string line = "A=" + filler(1020) + "\n";
    EXPECT_EQ(saved('=', line + "B=1\n", {{"B", "x"}}), line + "B=\"x\"\n");
    EXPECT_EQ(saved('=', line, {{"A", "x"}}), "A=\"x\"\n");
}

TEST(save_prop, ReplacesThe1023rdCharacterOfALongLineByANewline) {
    const std::string start = "A=" + filler(1020);
    EXPECT_EQ(saved('=', start + "1\n", {}), start + "\n\n");
    EXPECT_EQ(saved('=', start + "12\n", {}), start + "\n2\n");
    EXPECT_EQ(saved('=', start + "12\n", {{"A", "x"}}), "A=\"x\"\n2\n");
    EXPECT_EQ(saved('=', start + "1B=2\n", {{"B", "x"}}), start + "\nB=\"x\"\n");
}

TEST(save_prop, SplitsALineOf3000CharactersIntoThreePieces) {
    const std::string first = "A=" + filler(1020);
    const std::string second = "B=" + filler(1020);
    const std::string third = "C=" + filler(952);
    const std::string line = first + "1" + second + "2" + third + "\n";
    ASSERT_EQ(line.size(), 3001U);
    EXPECT_EQ(saved('=', line, {}), first + "\n" + second + "\n" + third + "\n");
    EXPECT_EQ(saved('=', line, {{"B", "x"}}), first + "\nB=\"x\"\n" + third + "\n");
}

TEST(save_prop, WritesALastPieceOf1023CharactersEvenWithoutANewline) {
    EXPECT_EQ(saved('=', "A=1\n" + filler(CORVEL_LINE_SIZE - 2), {}), "A=1\n");
    EXPECT_EQ(saved('=', "A=1\n" + filler(CORVEL_LINE_SIZE - 1), {}),
              "A=1\n" + filler(CORVEL_LINE_SIZE - 2) + "\n");
    EXPECT_EQ(saved('=', "A=1\n" + filler(CORVEL_LINE_SIZE), {}),
              "A=1\n" + filler(CORVEL_LINE_SIZE - 2) + "\n");
}

TEST(save_prop, FindsNamesAsLongAsALine) {
    const std::string name = filler(CORVEL_LINE_SIZE - 2);
    EXPECT_EQ(saved('=', name + "\n", {{name, "x"}}), name + "=\"x\"\n");
    EXPECT_EQ(saved('=', name + "\n", {{name + "v", "x"}}), name + "\n");
}

TEST(save_prop, CopiesALineWithANulUnchanged) {
    EXPECT_EQ(saved('=', "A=12\0xyz\nB=2\n"s, {{"B", "x"}}), "A=12\0xyz\nB=\"x\"\n"s);
    EXPECT_EQ(saved('=', "\0xyz\nB=2\n"s, {{"B", "x"}}), "\0xyz\nB=\"x\"\n"s);
}

TEST(save_prop, EndsTheKeyAtANul) {
    EXPECT_EQ(saved('=', "\0B=2\n"s, {{"B", "x"}}), "\0B=2\n"s);
    EXPECT_EQ(saved('=', "B\0=2\n"s, {{"B", "x"}}), "B=\"x\"\n");
}

TEST(save_prop, KeepsTheLockFile) {
    const TemporaryDirectory directory;
    directory.write("conf", "A=1\n");
    save_prop('=', directory.path("conf").c_str(), nullptr, 0);
    struct stat status {};
    ASSERT_EQ(stat(directory.path("conf.lck").c_str(), &status), 0);
    EXPECT_EQ(status.st_size, 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST(save_prop, EmptiesAnExistingLockFile) {
    const TemporaryDirectory directory;
    directory.write("conf", "A=1\n");
    directory.write("conf.lck", "text");
    save_prop('=', directory.path("conf").c_str(), nullptr, 0);
    EXPECT_EQ(directory.read("conf.lck"), "");
}

TEST(save_prop, WritesATableOf2000Rows) {
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

TEST(save_prop, DistinguishesNamesWithTheSameHash) {
    EXPECT_EQ(saved('=', "costarring=1\nliquid=2\n", {{"costarring", "a"}, {"liquid", "b"}}),
              "costarring=\"a\"\nliquid=\"b\"\n");
    EXPECT_EQ(saved('=', "costarring=1\nliquid=2\n", {{"liquid", "b"}, {"liquid", "c"}}),
              "costarring=1\nliquid=\"c\"\n");
}

TEST(save_prop, WritesWhatLoadPropReadsBack) {
    const TemporaryDirectory directory;
    directory.write("conf", "A=\"1\"\nB=\"2\"\n# c\n");
    PropertyTable table;
    table.load('=', directory.path("conf"));
    table.set("B", "it's \\\"new\\\"");
    table.set("A", "1");
    save_prop('=', directory.path("conf").c_str(), table.data(), table.count());
    EXPECT_EQ(directory.read("conf"), "A=\"1\"\nB=\"it's \\\"new\\\"\"\n# c\n");
    PropertyTable again;
    again.load('=', directory.path("conf"));
    EXPECT_EQ(again.rows(), (Rows{{"A", "\"1\""}, {"B", "\"it's \\\"new\\\"\""}}));
}

TEST(save_prop, WritesTheSameFileForALargeTableIfAnyAllocationFails) {
    const TemporaryDirectory directory;
    const std::string path = directory.path("conf");
    Rows rows = {{"NAME_500", "first"}};
    for (int i = 0; i < 2000; ++i)
        rows.emplace_back("OTHER_" + std::to_string(i), "o");
    rows.emplace_back("NAME_500", "last");
    PropertyTable table(rows);
    for_each_allocation_failure(
        [&](AllocationTrial &trial) {
            directory.write("conf", large_file("1"));
            trial.run([&] { return save_prop('=', path.c_str(), table.data(), table.count()); });
            EXPECT_EQ(directory.read("conf"), large_file("\"last\"")) << "allocation " << trial.n();
        },
        Allocations::outside_c_library);
}

// --- save_global_conf ---

TEST(save_global_conf, WritesTheValueOfAnExistingLineInQuotes) {
    EXPECT_EQ(set_in("A=1\nNAME=old\nB=2\n", '=', "", "NAME", "v"), "A=1\nNAME=\"v\"\nB=2\n");
}

TEST(save_global_conf, AppendsAMissingLineWithoutQuotes) {
    EXPECT_EQ(set_in("A=1\n", '=', "", "NAME", "v"), "A=1\nNAME=v\n");
    EXPECT_EQ(set_in("", '=', "", "NAME", "v"), "NAME=v\n");
    EXPECT_EQ(set_in("A=1\n", '=', "", "NAME", ""), "A=1\nNAME=\n");
}

TEST(save_global_conf, WritesThePrefixBeforeTheName) {
    EXPECT_EQ(set_in("NAME=old\n", '=', "setenv ", "NAME", "v"), "setenv NAME=\"v\"\n");
    EXPECT_EQ(set_in("", ' ', "setenv ", "NAME", "v"), "setenv NAME v\n");
}

TEST(save_global_conf, AppendsALineOnEachCallWithAPrefix) {
    const TemporaryDirectory directory;
    directory.write("conf", "");
    for (const char *value : {"1", "2", "3"})
        save_global_conf('=', directory.path("conf").c_str(), "setenv ", "NAME", value);
    EXPECT_EQ(directory.read("conf"), "setenv NAME=1\nsetenv NAME=2\nsetenv NAME=3\n");
}

TEST(save_global_conf, FindsTheLineThatItWroteWithoutAPrefix) {
    const TemporaryDirectory directory;
    directory.write("conf", "A=1\n");
    for (const char *value : {"1", "2", "3"})
        save_global_conf('=', directory.path("conf").c_str(), "", "NAME", value);
    EXPECT_EQ(directory.read("conf"), "A=1\nNAME=\"3\"\n");
}

TEST(save_global_conf, SplitsAtEachSeparator) {
    EXPECT_EQ(set_in("N 1\nN=1\nN\t1\n", '=', "", "N", "v"), "N 1\nN=\"v\"\nN\t1\n");
    EXPECT_EQ(set_in("N 1\nN=1\nN\t1\n", ' ', "", "N", "v"), "N \"v\"\nN=1\nN\t1\n");
    EXPECT_EQ(set_in("N 1\nN=1\nN\t1\n", '\t', "", "N", "v"), "N 1\nN=1\nN\t\"v\"\n");
}

TEST(save_global_conf, TreatsAnyOtherSeparatorAsATab) {
    for (const char separator : {':', '0', '\0', '\xe9'}) {
        EXPECT_EQ(set_in("N:1\nN\t1\n", separator, "", "N", "v"), "N:1\nN\t\"v\"\n");
        EXPECT_EQ(set_in("", separator, "", "N", "v"), "N\tv\n");
    }
}

TEST(save_global_conf, ReplacesEveryLineWithTheKey) {
    EXPECT_EQ(set_in("N=1\nA=2\nN=3\n", '=', "", "N", "v"), "N=\"v\"\nA=2\nN=\"v\"\n");
}

TEST(save_global_conf, ComparesTheWholeKey) {
    EXPECT_EQ(set_in("NAME=1\n NAM=2\n#NAM=3\nNAM =4\nnam=5\n", '=', "", "NAM", "v"),
              "NAME=1\n NAM=2\n#NAM=3\nNAM =4\nnam=5\nNAM=v\n");
}

TEST(save_global_conf, NeverFindsALineWithoutTheSeparator) {
    EXPECT_EQ(set_in("NAME\n", '=', "", "NAME", "v"), "NAME\nNAME=v\n");
    EXPECT_EQ(set_in("\n", '=', "", "", "v"), "\n=v\n");
}

TEST(save_global_conf, WritesTheValueUnchanged) {
    EXPECT_EQ(set_in("N=1\n", '=', "", "N", "\"q\" $x `y` \\z"), "N=\"\"q\" $x `y` \\z\"\n");
    EXPECT_EQ(set_in("", '=', "", "N", " \"q\" "), "N= \"q\" \n");
}

TEST(save_global_conf, WritesStringsOfAnyLength) {
    const std::string name = filler(3000);
    const std::string value = filler(100000);
    EXPECT_EQ(set_in("", '=', name.c_str(), name.c_str(), value.c_str()),
              name + name + "=" + value + "\n");
    EXPECT_EQ(set_in("N=1\n", '=', "", "N", value.c_str()), "N=\"" + value + "\"\n");
}

TEST(save_global_conf, ReadsNullPointersAsEmptyStrings) {
    EXPECT_EQ(set_in("N=1\n", '=', nullptr, "N", nullptr), "N=\"\"\n");
    EXPECT_EQ(set_in("=1\n", '=', nullptr, nullptr, "v"), "=\"v\"\n");
    EXPECT_EQ(set_in("", '=', nullptr, nullptr, nullptr), "=\n");
}

TEST(save_global_conf, DropsALastLineWithoutANewline) {
    EXPECT_EQ(set_in("N=1\nA=2", '=', "", "N", "v"), "N=\"v\"\n");
    EXPECT_EQ(set_in("B=1\nA=2", '=', "", "N", "v"), "B=1\nN=v\n");
}

TEST(save_global_conf, LosesTheSettingIfItsNameIsOnALastLineWithoutANewline) {
    EXPECT_EQ(set_in("A=1\nN=2", '=', "", "N", "v"), "A=1\n");
    EXPECT_EQ(set_in("N=1\nN=2", '=', "", "N", "v"), "N=\"v\"\n");
}

TEST(save_global_conf, CopiesLongLinesUnchanged) {
    for (const std::size_t length : {1022U, 1023U, 1024U, 2045U, 2046U, 2047U, 3000U}) {
        const std::string line = "A=" + filler(length - 2) + "\n";
        EXPECT_EQ(set_in(line + "N=1\n", '=', "", "N", "v"), line + "N=\"v\"\n") << length;
    }
}

TEST(save_global_conf, TreatsEachPieceOfALongLineAsALine) {
    const std::string start = filler(CORVEL_LINE_SIZE - 1);
    EXPECT_EQ(set_in(start + "N=1\n", '=', "", "N", "v"), start + "N=\"v\"\n");
    EXPECT_EQ(set_in("N=" + filler(1021) + "A=1\n", '=', "", "N", "v"), "N=\"v\"\nA=1\n");
}

TEST(save_global_conf, CopiesALastPieceOf1023CharactersEvenWithoutANewline) {
    EXPECT_EQ(set_in("A=1\n" + filler(CORVEL_LINE_SIZE - 2), '=', "", "A", "v"), "A=\"v\"\n");
    EXPECT_EQ(set_in("A=1\n" + filler(CORVEL_LINE_SIZE - 1), '=', "", "A", "v"),
              "A=\"v\"\n" + filler(CORVEL_LINE_SIZE - 1));
    EXPECT_EQ(set_in("A=1\n" + filler(CORVEL_LINE_SIZE), '=', "", "A", "v"),
              "A=\"v\"\n" + filler(CORVEL_LINE_SIZE - 1));
}

TEST(save_global_conf, KeepsCarriageReturnsOfOtherLines) {
    EXPECT_EQ(set_in("N=1\r\nA=2\r\n", '=', "", "N", "v"), "N=\"v\"\nA=2\r\n");
}

TEST(save_global_conf, CopiesALineWithANulUnchanged) {
    const TemporaryDirectory directory;
    directory.write("conf", "A=1\0x\nB=2\n"s);
    save_global_conf('=', directory.path("conf").c_str(), "", "B", "x");
    EXPECT_EQ(directory.read("conf"), "A=1\0x\nB=\"x\"\n"s);
}

TEST(save_global_conf, RemovesTheLockFile) {
    const TemporaryDirectory directory;
    directory.write("conf", "A=1\n");
    directory.write("conf.lck", "text");
    save_global_conf('=', directory.path("conf").c_str(), "", "A", "v");
    EXPECT_EQ(directory.names(), Names{"conf"});
}

// --- Both functions ---

INSTANTIATE_TEST_SUITE_P(save_prop, BothWriters, testing::Values(save_prop_writer), name_of_writer);
INSTANTIATE_TEST_SUITE_P(save_global_conf, BothWriters, testing::Values(save_global_conf_writer),
                         name_of_writer);

TEST_P(BothWriters, SavesTheFile) {
    directory_.write("conf", "A=1\nB=2\n");
    save();
    EXPECT_EQ(directory_.read("conf"), "A=\"x\"\nB=2\n");
    EXPECT_EQ(directory_.names(), with_lock_file({"conf"}));
}

TEST_P(BothWriters, PrintsNothing) {
    directory_.write("conf", "A=1\n");
    EXPECT_EQ(capture_stdout([&] { save(); }), "");
    directory_.remove("conf");
    EXPECT_EQ(capture_stderr([&] { save(); }), "");
}

TEST_P(BothWriters, SavesALargeFile) {
    directory_.write("conf", "A=1\n" + large_file("1") + "A=2\n");
    save();
    EXPECT_EQ(directory_.read("conf"), "A=\"x\"\n" + large_file("1") + "A=\"x\"\n");
}

TEST_P(BothWriters, DoesNotCreateAMissingFile) {
    save();
    EXPECT_EQ(directory_.names(), with_lock_file({}));
}

TEST_P(BothWriters, LeavesADirectoryUnchanged) {
    fs::create_directory(path());
    write_file(path() + "/inside", "text");
    save();
    EXPECT_EQ(directory_.names(), with_lock_file({"conf"}));
    EXPECT_EQ(read_file(path() + "/inside"), "text");
}

TEST_P(BothWriters, LeavesAnEmptyDirectoryUnchanged) {
    fs::create_directory(path());
    save();
    EXPECT_TRUE(fs::is_directory(path()));
    EXPECT_EQ(directory_.names(), with_lock_file({"conf"}));
}

TEST_P(BothWriters, LeavesTheFileUnchangedWithoutReadPermission) {
    directory_.write("conf", "A=1\n");
    ASSERT_EQ(chmod(path().c_str(), 0), 0);
    expect_as_ordinary_user([&] { save(); });
    ASSERT_EQ(chmod(path().c_str(), 0600), 0);
    EXPECT_EQ(directory_.read("conf"), "A=1\n");
    EXPECT_EQ(directory_.names(), with_lock_file({"conf"}));
}

TEST_P(BothWriters, LeavesTheFileUnchangedIfTheCopyCannotBeCreated) {
    directory_.write("conf", "A=1\n");
    fs::create_directory(directory_.path("conf.cgi"));
    save();
    EXPECT_EQ(directory_.read("conf"), "A=1\n");
    EXPECT_TRUE(fs::is_directory(directory_.path("conf.cgi")));
}

TEST_P(BothWriters, LeavesTheFileUnchangedInADirectoryWithoutWritePermission) {
    directory_.write("conf", "A=1\n");
    ASSERT_EQ(chmod(directory_.path().c_str(), 0555), 0);
    expect_as_ordinary_user([&] { save(); });
    ASSERT_EQ(chmod(directory_.path().c_str(), 0755), 0);
    EXPECT_EQ(directory_.read("conf"), "A=1\n");
    EXPECT_EQ(directory_.names(), Names{"conf"});
}

TEST_P(BothWriters, KeepsTheMode) {
    for (const mode_t wanted : {0600U, 0644U, 0666U, 0755U, 0440U, 04750U, 02755U, 01777U}) {
        directory_.write("conf", "A=1\n");
        ASSERT_EQ(chmod(path().c_str(), wanted), 0);
        save();
        EXPECT_EQ(mode(), wanted);
        EXPECT_EQ(directory_.read("conf"), "A=\"x\"\n");
        directory_.remove("conf");
    }
}

TEST_P(BothWriters, KeepsTheSetIdBitsOfAnOrdinaryUsersFile) {
    // The kernel clears these bits of a file that such a user writes to.
    expect_as_ordinary_user([&] {
        directory_.write("conf", "A=1\n");
        ASSERT_EQ(chmod(path().c_str(), 04750), 0);
        save();
        EXPECT_EQ(mode(), 04750U);
        EXPECT_EQ(directory_.read("conf"), "A=\"x\"\n");
    });
}

TEST_P(BothWriters, KeepsTheModeRegardlessOfTheUmask) {
    directory_.write("conf", "A=1\n");
    ASSERT_EQ(chmod(path().c_str(), 0666), 0);
    for (const mode_t mask : {0077U, 0777U, 0U}) {
        const mode_t before = umask(mask);
        save();
        umask(before);
        EXPECT_EQ(mode(), 0666U);
    }
}

TEST_P(BothWriters, KeepsTheOwner) {
    directory_.write("conf", "A=1\n");
    // An ordinary user cannot change the owner.
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
    EXPECT_EQ(directory_.read("conf"), "A=\"x\"\n");
}

TEST_P(BothWriters, SavesAFileWhoseOwnerCannotBeKept) {
    directory_.write("conf", "A=1\n");
    ASSERT_EQ(chmod(path().c_str(), 04755), 0);
    const FailCall no_right(call_fchown, 1, EPERM);
    save();
    EXPECT_EQ(no_right.failures(), 1U);
    EXPECT_EQ(directory_.read("conf"), "A=\"x\"\n");
    // The set-user-ID bit would give the permissions of another owner.
    EXPECT_EQ(mode(), 0755U);
}

TEST_P(BothWriters, SavesAFileOfAnotherOwnerAsAnOrdinaryUser) {
    directory_.write("conf", "A=1\n");
    ASSERT_EQ(chmod(path().c_str(), 0644), 0);
    expect_as_ordinary_user([&] { save(); });
    EXPECT_EQ(directory_.read("conf"), "A=\"x\"\n");
    EXPECT_EQ(mode(), 0644U);
}

TEST_P(BothWriters, ReducesGroupPermissionsToThoseOfOthersIfTheGroupCannotBeKept) {
    directory_.write("conf", "A=1\n");
    ASSERT_EQ(chmod(path().c_str(), 0674), 0);
    const FailCall no_owner(call_fchown, 1, EPERM, FailCall::from_then_on);
    save();
    EXPECT_EQ(mode(), 0644U);
}

TEST_P(BothWriters, ChangesNothingForAnEmptyOrNullPath) {
    ASSERT_EQ(chdir(directory_.path().c_str()), 0);
    directory_.write(".lck", "text");
    GetParam().set("", "A", "x");
    EXPECT_EQ(save_prop('=', nullptr, nullptr, 0), 1);
    EXPECT_EQ(save_global_conf('=', nullptr, "", "A", "x"), 1);
    ASSERT_EQ(chdir("/"), 0);
    EXPECT_EQ(directory_.names(), Names{".lck"});
    EXPECT_EQ(directory_.read(".lck"), "text");
}

/** A path of a given length to a file "conf", in directories created for it. */
std::string path_of_length(const TemporaryDirectory &directory, std::size_t length) {
    constexpr std::string_view file = "/conf";
    std::string path = directory.path();
    while (path.size() + file.size() < length) {
        const std::size_t left = length - path.size() - file.size();
        // A single character left would be a slash without a name.
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

TEST_P(BothWriters, SavesAFileWhoseCompanionNamesJustFit) {
    const std::string path = path_of_length(directory_, GetParam().longest_path);
    write_file(path, "A=1\n");
    GetParam().set(path, "A", "x");
    EXPECT_EQ(read_file(path), "A=\"x\"\n");
    EXPECT_FALSE(fs::exists(path + ".cgi"));
    EXPECT_EQ(fs::exists(path + ".lck"), GetParam().keeps_lock_file);
}

TEST_P(BothWriters, ChangesNothingIfTheCompanionNamesDoNotFit) {
    for (const std::size_t length : {GetParam().longest_path + 1, GetParam().longest_path + 5,
                                     std::size_t{1030}, std::size_t{3000}}) {
        const TemporaryDirectory directory;
        const std::string path = path_of_length(directory, length);
        write_file(path, "A=1\n");
        GetParam().set(path, "A", "x");
        EXPECT_EQ(read_file(path), "A=1\n") << length;
        const auto entries = fs::directory_iterator(fs::path(path).parent_path());
        EXPECT_EQ(std::distance(begin(entries), end(entries)), 1) << length;
    }
}

TEST_P(BothWriters, LeavesALockFileUnchangedIfTheCompanionNamesDoNotFit) {
    const std::string path = path_of_length(directory_, GetParam().longest_path + 1);
    write_file(path, "A=1\n");
    write_file(path + ".lck", "text");
    GetParam().set(path, "A", "x");
    EXPECT_EQ(read_file(path + ".lck"), "text");
}

TEST_P(BothWriters, ClosesEveryFile) {
    directory_.write("conf", "A=1\n");
    const DescriptorWatch descriptors;
    save();
    directory_.remove("conf");
    save();
    fs::create_directory(path());
    save();
}

// --- Both functions: failures ---

/** Counts the calls of a function that a save makes if a lock file that stays exists already. */
unsigned long calls_of_a_save(stand_in_call call, const TemporaryDirectory &directory,
                              const std::function<void()> &save, const std::string &before) {
    save();
    directory.write("conf", before);
    const CountCalls calls(call);
    save();
    return calls.count();
}

/**
 * Makes each call of a function fail in turn during a save, and expects the file to be whole, with
 * the old or the new content, and no copy to remain.
 *
 * @return the number of runs that left the file unchanged.
 */
unsigned long fail_each(stand_in_call call, const TemporaryDirectory &directory,
                        const std::function<void()> &save, const std::string &before,
                        const std::string &after) {
    const unsigned long count = calls_of_a_save(call, directory, save, before);
    EXPECT_EQ(directory.read("conf"), after);
    unsigned long unchanged = 0;
    for (unsigned long n = 1; n <= count; ++n) {
        directory.write("conf", before);
        {
            const FailCall failing(call, n, ENOSPC);
            save();
            EXPECT_EQ(failing.failures(), 1U);
        }
        EXPECT_TRUE(directory.exists("conf")) << "call " << n;
        EXPECT_FALSE(directory.exists("conf.cgi")) << "call " << n;
        const std::string text = directory.exists("conf") ? directory.read("conf") : "";
        EXPECT_TRUE(text == before || text == after) << "call " << n << " left\n" << text;
        unchanged += text == before ? 1U : 0U;
        directory.remove("conf.cgi");
    }
    return unchanged;
}

TEST_P(BothWriters, LeavesTheFileUnchangedAndNoCopyIfAnyWriteFails) {
    const std::string before = "A=1\n" + large_file("1");
    const std::string after = "A=\"x\"\n" + large_file("1");
    const auto set_a = [this] {
        save();
    };
    unsigned long writes = 0;
    const DescriptorWatch descriptors;
    for (const stand_in_call call :
         {call_fwrite, call_fputs, call_fputc, call_fprintf, call_write, call_fflush}) {
        const unsigned long count = calls_of_a_save(call, directory_, set_a, before);
        EXPECT_EQ(fail_each(call, directory_, set_a, before, after), count);
        writes += count;
    }
    EXPECT_GT(writes, 1U);
}

TEST_P(BothWriters, LeavesAWholeFileAndNoCopyIfClosingFails) {
    EXPECT_GE(fail_each(
                  call_fclose, directory_, [&] { save(); }, "A=1\nB=2\n", "A=\"x\"\nB=2\n"),
              1U);
}

TEST_P(BothWriters, LeavesAWholeFileAndNoCopyIfAnyFileCannotBeOpened) {
    for (const stand_in_call call : {call_open, call_fopen, call_fdopen})
        fail_each(
            call, directory_, [&] { save(); }, "A=1\nB=2\n", "A=\"x\"\nB=2\n");
}

TEST_P(BothWriters, LeavesAWholeFileAndNoCopyIfAnyPermissionCallFails) {
    for (const stand_in_call call : {call_fstat, call_fchmod, call_fchown})
        fail_each(
            call, directory_, [&] { save(); }, "A=1\nB=2\n", "A=\"x\"\nB=2\n");
}

TEST_P(BothWriters, LeavesTheFileUnchangedAndNoCopyIfAnyReadFails) {
    const std::string before = "A=1\n" + large_file("1");
    const std::string after = "A=\"x\"\n" + large_file("1");
    const DescriptorWatch descriptors;
    unsigned long reads = 0;
    for (const stand_in_call call : {call_read, call_fgets, call_fread}) {
        const unsigned long count = calls_of_a_save(
            call, directory_, [&] { save(); }, before);
        EXPECT_EQ(fail_each(
                      call, directory_, [&] { save(); }, before, after),
                  count);
        reads += count;
    }
    EXPECT_GT(reads, 1U);
}

TEST_P(BothWriters, ContinuesReadingAfterASignal) {
    directory_.write("conf", "A=1\nB=2\n");
    const FailCall signal(call_read, 1, EINTR);
    save();
    EXPECT_EQ(directory_.read("conf"), "A=\"x\"\nB=2\n");
}

TEST_P(BothWriters, ReplacesTheFileEvenIfItCannotBeRemovedFirst) {
    directory_.write("conf", "A=1\n");
    const FailCall not_removed(call_unlink, 1, EPERM);
    save();
    EXPECT_EQ(directory_.read("conf"), "A=\"x\"\n");
    EXPECT_FALSE(directory_.exists("conf.cgi"));
}

TEST_P(BothWriters, KeepsTheWholeCopyIfItCannotBeRenamed) {
    directory_.write("conf", "A=1\n");
    const FailCall not_renamed(call_rename, 1, EIO);
    save();
    EXPECT_FALSE(directory_.exists("conf"));
    EXPECT_EQ(directory_.read("conf.cgi"), "A=\"x\"\n");
}

TEST_P(BothWriters, LeavesTheFileUnchangedAndNoCopyIfItCanNeitherBeRemovedNorReplaced) {
    directory_.write("conf", "A=1\n");
    const FailCall not_removed(call_unlink, 1, EPERM);
    const FailCall not_renamed(call_rename, 1, EPERM);
    save();
    EXPECT_EQ(directory_.read("conf"), "A=1\n");
    EXPECT_FALSE(directory_.exists("conf.cgi"));
}

TEST_P(BothWriters, SavesTheSameFileIfAnyAllocationFails) {
    const DescriptorWatch descriptors;
    for_each_allocation_failure(
        [&](AllocationTrial &trial) {
            directory_.write("conf", "A=1\nB=2\n");
            const std::string conf = path();
            trial.run([&] { GetParam().set(conf, "A", "x"); });
            EXPECT_EQ(directory_.read("conf"), "A=\"x\"\nB=2\n") << "allocation " << trial.n();
            EXPECT_EQ(directory_.names(), with_lock_file({"conf"})) << "allocation " << trial.n();
        },
        Allocations::outside_c_library);
}

TEST_P(BothWriters, LeavesAWholeFileIfAnyAllocationOfTheStreamsFails) {
    const DescriptorWatch descriptors;
    for_each_allocation_failure([&](AllocationTrial &trial) {
        directory_.write("conf", "A=1\nB=2\n");
        const std::string conf = path();
        trial.run([&] { GetParam().set(conf, "A", "x"); });
        const std::string text = directory_.read("conf");
        EXPECT_TRUE(text == "A=\"x\"\nB=2\n" || (trial.failed() && text == "A=1\nB=2\n"))
            << "allocation " << trial.n() << " left\n"
            << text;
        EXPECT_EQ(directory_.names(), with_lock_file({"conf"})) << "allocation " << trial.n();
        directory_.remove("conf.cgi");
    });
}

TEST_P(BothWriters, LosesNothingOnAFullDisk) {
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

TEST_P(BothWriters, LosesNothingIfTheDiskIsFullWhenTheCopyIsClosed) {
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

TEST_P(BothWriters, LeavesTheFileOrTheCopyWholeIfKilledAtAnySystemCall) {
    const std::string before = "A=1\n" + large_file("1");
    const std::string after = "A=\"x\"\n" + large_file("1");
    std::string last;
    unsigned long copy_alone = 0;
    const unsigned long points = for_each_kill_point(
        [&] {
            remove_files(directory_);
            directory_.write("conf", before);
        },
        [&] { save(); },
        [&](unsigned long n) {
            if (!directory_.exists("conf")) {
                ++copy_alone;
                ASSERT_TRUE(directory_.exists("conf.cgi"))
                    << "neither file nor copy remains after system call " << n;
                ASSERT_EQ(directory_.read("conf.cgi"), after) << "system call " << n;
                return;
            }
            last = directory_.read("conf");
            ASSERT_TRUE(last == before || last == after) << "system call " << n;
            save();
            ASSERT_EQ(directory_.read("conf"), after) << "saving again after system call " << n;
        });
    // The last run is not killed.
    EXPECT_EQ(last, after);
    EXPECT_EQ(copy_alone, 1U);
    EXPECT_GT(points, 10U);
    RecordProperty("kill_points", std::to_string(points));
    std::printf("%s: killed at each of %lu system calls\n", GetParam().name.c_str(), points);
}

// --- Several processes ---

/** Several processes that save one file, in which each has its own line. */
class SeveralProcesses : public testing::TestWithParam<int> {
  protected:
    static constexpr int rounds_in_all = 1000;
    static constexpr int other_lines = 200;

    static std::string name_of(int process) { return "NAME_" + std::to_string(process); }

    [[nodiscard]] std::string path() const { return directory_.path("conf"); }

    void write_first_version() const {
        std::string text;
        for (int i = 0; i < GetParam(); ++i)
            text += name_of(i) + "=\"0\"\n";
        for (int i = 0; i < other_lines; ++i)
            text += "OTHER_" + std::to_string(i) + "=" + filler(50) + "\n";
        directory_.write("conf", text);
    }

    /** The last number that each process wrote; the test fails if the file is not whole. */
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

    /** Does the same while it holds the lock. */
    [[nodiscard]] std::vector<int> numbers_under_lock() const {
        const int lock = open((path() + ".lck").c_str(), O_RDWR | O_CLOEXEC);
        EXPECT_GE(lock, 0);
        EXPECT_EQ(lockf(lock, F_LOCK, 0), 0);
        const std::vector<int> numbers = numbers_in_file();
        close(lock);
        return numbers;
    }

    /** Without the lock, the file may be missing for a moment, but is never partial. */
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

    TemporaryDirectory directory_;
};

INSTANTIATE_TEST_SUITE_P(save_prop, SeveralProcesses, testing::Values(2, 4, 8),
                         testing::PrintToStringParamName());

TEST_P(SeveralProcesses, LoseNoLineAndLeaveNoTornFile) {
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
    EXPECT_EQ(directory_.names(), (Names{"conf", "conf.lck"}));
}

TEST(BothWritersAtOnce, LoseNoSettingOnOneFile) {
    constexpr int processes = 4;
    constexpr int saves = 50;
    for (int round = 0; round < 5; ++round) {
        const TemporaryDirectory directory;
        std::string lines;
        for (int process = 0; process < processes; ++process)
            lines += "NAME_" + std::to_string(process) + "=0\n";
        directory.write("conf", lines);
        const std::string path = directory.path("conf");
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
        EXPECT_EQ(directory.read("conf"), expected);
        EXPECT_FALSE(directory.exists("conf.cgi"));
    }
}

// --- save_config ---

TEST(save_config, PassesTheCommandLineToTheShell) {
    const RecordSystem record(0);
    save_config();
    EXPECT_EQ(RecordSystem::commands(), Names{"/sbin/configclient  &"});
}

TEST(save_config, ReturnsTheResultOfSystem) {
    for (const int status : {0, 1, 127 << 8, -1}) {
        const RecordSystem record(status);
        EXPECT_EQ(save_config(), status);
    }
}

TEST(save_config, PrintsNothing) {
    const RecordSystem record(0);
    EXPECT_EQ(capture_stdout([] { save_config(); }), "");
}

/** save_config() starts a program, which a private root provides. */
class InPrivateRoot : public testing::TestWithParam<RootMaker> {};

INSTANTIATE_TEST_SUITE_P(save_config, InPrivateRoot, testing::ValuesIn(root_makers()),
                         [](const auto &maker) {
                             return maker.param == RootMaker::current_user ? "CurrentUser"
                                                                           : "OrdinaryUser";
                         });

TEST_P(InPrivateRoot, StartsTheClientAndReturnsAtOnce) {
    in_private_root(
        [] {
            write_program("/sbin/configclient",
                          "#!/bin/sh\nread -r go </tmp/go\necho \"$# $go\" >/tmp/ran.part\n"
                          "mv /tmp/ran.part /tmp/ran\n");
            ASSERT_EQ(mkfifo("/tmp/go", 0600), 0);
            EXPECT_EQ(save_config(), 0);
            // The client waits for the line that is written only after save_config() returns.
            EXPECT_FALSE(fs::exists("/tmp/ran"));
            write_file("/tmp/go", "now\n");
            for (int i = 0; i < 1000 && !fs::exists("/tmp/ran"); ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            EXPECT_EQ(read_file("/tmp/ran"), "0 now\n");
        },
        GetParam());
}

// --- calc_netpriexlength ---

/** The model: 8 minus the number of trailing zero bits; 0 for 0. */
int octet_length(int octet) {
    int length = 0;
    for (int value = octet; (value & 0xff) != 0; value <<= 1)
        ++length;
    return length;
}

TEST(calc_netpriexlength, CountsTheOneBitsOfValidMasks) {
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

TEST(calc_netpriexlength, CountsEachValueOfEachOctet) {
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

TEST(calc_netpriexlength, UsesTheLow8BitsOfAnOctet) {
    EXPECT_EQ(calc_netpriexlength("256.0.0.0"), 0);
    EXPECT_EQ(calc_netpriexlength("384.0.0.0"), 1);
    EXPECT_EQ(calc_netpriexlength("511.0.0.0"), 8);
    EXPECT_EQ(calc_netpriexlength("-1.0.0.0"), 8);
    EXPECT_EQ(calc_netpriexlength("-128.0.0.0"), 1);
}

TEST(calc_netpriexlength, ReadsAnOctetAsAtoiDoes) {
    EXPECT_EQ(calc_netpriexlength(" \t255.+255. 128.0"), 17);
    EXPECT_EQ(calc_netpriexlength("255x.255y.0z.0"), 16);
    EXPECT_EQ(calc_netpriexlength("x.y.z.255"), 8);
    EXPECT_EQ(calc_netpriexlength("255..255."), 16);
    EXPECT_EQ(calc_netpriexlength("000000255.0.0.0"), 8);
}

TEST(calc_netpriexlength, CountsNothingForMissingOctets) {
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
        // In a block of exactly its size, where a sanitizer detects a read after the terminator.
        const std::vector<char> block(text.c_str(), text.c_str() + text.size() + 1);
        EXPECT_EQ(calc_netpriexlength(block.data()), length) << text;
    }
}

TEST(calc_netpriexlength, ReadsOnlyFourOctets) {
    EXPECT_EQ(calc_netpriexlength("255.255.255.255.255"), 32);
    EXPECT_EQ(calc_netpriexlength("0.0.0.0.255"), 0);
}

TEST(calc_netpriexlength, ReturnsBetween0And32ForNumbersOfAnyLength) {
    for (const char *text : {"99999999999999999999999.0.0.0", "-99999999999999999999999.0.0.0",
                             "4294967296.2147483648.-2147483649.9223372036854775808"}) {
        EXPECT_GE(calc_netpriexlength(text), 0);
        EXPECT_LE(calc_netpriexlength(text), 32);
    }
}

} // namespace
