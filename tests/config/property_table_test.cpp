/* SPDX-License-Identifier: MIT */
#include <corvel.h>

#include "tests/config/property_rows.h"
#include "tests/support/child_process.h"
#include "tests/support/descriptors.h"
#include "tests/support/environment.h"
#include "tests/support/guarded_memory.h"
#include "tests/support/output_capture.h"
#include "tests/support/stand_in.h"
#include "tests/support/temporary_directory.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <string_view>
#include <sys/stat.h>

namespace {

using namespace corvel_test;
using namespace std::string_literals;

/** The `value_size` of a row, whose value block has one more byte, always zero. */
constexpr std::size_t value_size = CORVEL_PROP_VALUE_SIZE;

Rows loaded(char separator, std::string_view text) {
    const TemporaryDirectory directory;
    directory.write("conf", text);
    PropertyTable table(32);
    table.load(separator, directory.path("conf"));
    return table.rows();
}

/** A line of a given length, without its newline, that yields a row with the name. */
std::string line_of(const std::string &name, std::size_t length) {
    return name + "=" + std::string(length - name.size() - 1, 'v');
}

std::optional<std::string> value_of(PropertyTable &table, const std::string &name) {
    std::array<char, CORVEL_GET_PROP_SIZE> value;
    value.fill('?');
    if (get_prop(name.c_str(), value.data(), table.data(), table.count()) == nullptr)
        return std::nullopt;
    return value.data();
}

/** Whether every byte of a row's value block after the first @p length, the extra one included, is
 * zero. */
bool zero_after(const prop_entry &row, std::size_t length) {
    return std::all_of(row.value + length, row.value + value_size + 1,
                       [](char byte) { return byte == '\0'; });
}

// --- load_prop ---

TEST(load_prop, ReturnsNoRowsForAMissingFile) {
    const TemporaryDirectory directory;
    PropertyTable table;
    EXPECT_EQ(table.load('=', directory.path("none")), 0);
}

TEST(load_prop, ReturnsNoRowsForADirectory) {
    const TemporaryDirectory directory;
    PropertyTable table;
    EXPECT_EQ(table.load('=', directory.path()), 0);
}

TEST(load_prop, ReturnsNoRowsForANullPath) {
    PropertyTable table;
    EXPECT_EQ(load_prop('=', nullptr, table.data()), 0);
}

TEST(load_prop, ReturnsNoRowsWithoutReadPermission) {
    const TemporaryDirectory directory;
    directory.write("conf", "A=1\n");
    ASSERT_EQ(chmod(directory.path("conf").c_str(), 0), 0);
    expect_as_ordinary_user([&] {
        PropertyTable table;
        EXPECT_EQ(table.load('=', directory.path("conf")), 0);
    });
}

TEST(load_prop, ReturnsNoRowsForAFileThatOpensButCannotBeRead) {
    PropertyTable table;
    EXPECT_EQ(table.load('=', "/proc/self/mem"), 0);
}

TEST(load_prop, ReturnsNoRowsForAnEmptyFile) { EXPECT_EQ(loaded('=', ""), Rows{}); }

TEST(load_prop, PrintsNothing) {
    const auto load = [] {
        PropertyTable table;
        table.load('=', "/none");
    };
    EXPECT_EQ(capture_stdout(load), "");
    EXPECT_EQ(capture_stderr(load), "");
}

TEST(load_prop, ReadsEachLineIntoARow) {
    EXPECT_EQ(loaded('=', "A=1\nB=2\nC=3\n"), (Rows{{"A", "1"}, {"B", "2"}, {"C", "3"}}));
}

TEST(load_prop, SplitsAtTheEqualsSign) {
    EXPECT_EQ(loaded('=', "A=1 2\t3\n"), (Rows{{"A", "1 2\t3"}}));
}

TEST(load_prop, SplitsAtTheSpace) {
    EXPECT_EQ(loaded(' ', "A 1=2\t3 4\n"), (Rows{{"A", "1=2\t3 4"}}));
}

TEST(load_prop, SplitsAtTheTab) { EXPECT_EQ(loaded('\t', "A\t1=2 3\n"), (Rows{{"A", "1=2 3"}})); }

TEST(load_prop, TreatsAnyOtherSeparatorAsATab) {
    for (const char separator : {':', 't', '\0', '\n', '\xff'})
        EXPECT_EQ(loaded(separator, "A\t1\nB:2\n"), (Rows{{"A", "1"}})) << int{separator};
}

TEST(load_prop, SkipsComments) {
    EXPECT_EQ(loaded('=', "# NAME=1\n#NAME=2\n#\nA=1\n"), (Rows{{"A", "1"}}));
}

TEST(load_prop, TreatsALineWithSpacesBeforeTheHashAsOrdinary) {
    EXPECT_EQ(loaded('=', " # NAME=1\n"), (Rows{{"#", "1"}}));
}

TEST(load_prop, SkipsLinesWithoutASeparator) {
    EXPECT_EQ(loaded('=', "\nA\nA 1\n   \nB=2\n"), (Rows{{"B", "2"}}));
}

TEST(load_prop, ContinuesAfterSetenv) {
    EXPECT_EQ(loaded(' ', "setenv WAN_IP 1.2.3.4\n"), (Rows{{"WAN_IP", "1.2.3.4"}}));
    EXPECT_EQ(loaded('=', "setenv WAN_IP 1.2.3.4\n"), Rows{});
    EXPECT_EQ(loaded('=', "setenv WAN_IP=1.2.3.4\n"), (Rows{{"WAN_IP", "1.2.3.4"}}));
}

TEST(load_prop, FindsSetenvAnywhereInTheLine) {
    EXPECT_EQ(loaded('=', "export; setenv A=1\n"), (Rows{{"A", "1"}}));
    EXPECT_EQ(loaded('=', "B=2;setenv A=1\n"), (Rows{{"A", "1"}}));
    EXPECT_EQ(loaded('=', "A=xsetenv \n"), Rows{});
}

TEST(load_prop, ContinuesAfterTheFirstSetenvOnly) {
    EXPECT_EQ(loaded(' ', "setenv setenv A B\n"), (Rows{{"setenv", "A B"}}));
}

TEST(load_prop, RequiresASpaceAfterSetenv) {
    EXPECT_EQ(loaded('=', "setenv\tA=1\n"), (Rows{{"setenv", "1"}}));
    EXPECT_EQ(loaded('=', "setenv=1\n"), (Rows{{"setenv", "1"}}));
}

TEST(load_prop, TreatsALineThatBeginsWithAHashAsACommentDespiteSetenv) {
    EXPECT_EQ(loaded('=', "#setenv A=1\n"), Rows{});
    EXPECT_EQ(loaded('=', "setenv #A=1\n"), (Rows{{"#A", "1"}}));
}

TEST(load_prop, SplitsAtTheFirstSeparatorOnly) {
    EXPECT_EQ(loaded('=', "A=B=C\n"), (Rows{{"A", "B=C"}}));
    EXPECT_EQ(loaded('=', "A==\n"), (Rows{{"A", "="}}));
}

TEST(load_prop, TakesTheFirstWordBeforeTheSeparatorAsTheName) {
    EXPECT_EQ(loaded('=', "  NAME =x\n"), (Rows{{"NAME", "x"}}));
    EXPECT_EQ(loaded('=', "\tNAME OTHER=x\n"), (Rows{{"NAME", "x"}}));
    EXPECT_EQ(loaded('=', "A\vB=1\nC\fD=2\nE\rF=3\n"), (Rows{{"A", "1"}, {"C", "2"}, {"E", "3"}}));
    EXPECT_EQ(loaded('\t', "NAME OTHER\tx\n"), (Rows{{"NAME", "x"}}));
}

TEST(load_prop, StoresAnEmptyNameIfNoWordPrecedesTheSeparator) {
    EXPECT_EQ(loaded('=', "=x\n"), (Rows{{"", "x"}}));
    EXPECT_EQ(loaded('=', " \t \v =x\n"), (Rows{{"", "x"}}));
    EXPECT_EQ(loaded(' ', " NAME x\n"), (Rows{{"", "NAME x"}}));
}

TEST(load_prop, KeepsTheValueUnchanged) {
    EXPECT_EQ(loaded('=', "NAME=\"a b\"\n"), (Rows{{"NAME", "\"a b\""}}));
    EXPECT_EQ(loaded('=', "NAME= x \t\n"), (Rows{{"NAME", " x \t"}}));
    EXPECT_EQ(loaded('=', "NAME=x\r\n"), (Rows{{"NAME", "x\r"}}));
    EXPECT_EQ(loaded('=', "NAME=\n"), (Rows{{"NAME", ""}}));
    EXPECT_EQ(loaded('=', "NAME=\x01\x80\xff\n"), (Rows{{"NAME", "\x01\x80\xff"}}));
}

TEST(load_prop, KeepsBytesAbove127InNames) {
    EXPECT_EQ(loaded('=', "caf\xc3\xa9=1\n\xa0\x85=2\n"),
              (Rows{{"caf\xc3\xa9", "1"}, {"\xa0\x85", "2"}}));
}

TEST(load_prop, StoresARowForEachLineWithTheSameName) {
    EXPECT_EQ(loaded('=', "A=1\nA=2\nA=1\n"), (Rows{{"A", "1"}, {"A", "2"}, {"A", "1"}}));
}

TEST(load_prop, IgnoresALastLineWithoutANewline) {
    EXPECT_EQ(loaded('=', "A=1\nB=2"), (Rows{{"A", "1"}}));
    EXPECT_EQ(loaded('=', "A=1"), Rows{});
}

TEST(load_prop, EndsALineAtANul) {
    EXPECT_EQ(loaded('=', "A=1\0B=2\nC=3\n"s), (Rows{{"A", "1"}, {"C", "3"}}));
    EXPECT_EQ(loaded('=', "\0A=1\nC=3\n"s), (Rows{{"C", "3"}}));
    EXPECT_EQ(loaded('=', "A\0=1\n\0\nC=3\n"s), (Rows{{"C", "3"}}));
    EXPECT_EQ(loaded('=', "A=1\0"s), Rows{});
}

TEST(load_prop, ReadsALineOf1022CharactersWhole) {
    const std::string text = line_of("A", 1022) + "\nB=2\n";
    const Rows rows = loaded('=', text);
    EXPECT_EQ(rows, (Rows{{"A", std::string(257, 'v')}, {"B", "2"}}));
}

TEST(load_prop, TreatsALineOf1023CharactersAsALineAndAnEmptyOne) {
    const std::string text = line_of("A", 1023) + "\nB=2\n";
    EXPECT_EQ(loaded('=', text), (Rows{{"A", std::string(257, 'v')}, {"B", "2"}}));
}

TEST(load_prop, TreatsTheCharactersAfterThe1023rdAsALineOfTheirOwn) {
    const std::string first = line_of("A", 1023);
    EXPECT_EQ(loaded('=', first + "=\nB=2\n"),
              (Rows{{"A", std::string(257, 'v')}, {"", ""}, {"B", "2"}}));
    EXPECT_EQ(loaded('=', first + "C=1\nB=2\n"),
              (Rows{{"A", std::string(257, 'v')}, {"C", "1"}, {"B", "2"}}));
    EXPECT_EQ(loaded('=', first + "#C=1\nB=2\n"), (Rows{{"A", std::string(257, 'v')}, {"B", "2"}}));
}

TEST(load_prop, ReadsALineOf3000CharactersInThreePieces) {
    const std::string text =
        line_of("A", 1023) + line_of("B", 1023) + line_of("C", 954) + "\nD=4\n";
    const std::string value(257, 'v');
    EXPECT_EQ(loaded('=', text), (Rows{{"A", value}, {"B", value}, {"C", value}, {"D", "4"}}));
}

TEST(load_prop, ReadsALastPieceOf1023CharactersEvenWithoutANewline) {
    const std::string value(257, 'v');
    EXPECT_EQ(loaded('=', "A=1\n" + line_of("B", 1022)), (Rows{{"A", "1"}}));
    EXPECT_EQ(loaded('=', "A=1\n" + line_of("B", 1023)), (Rows{{"A", "1"}, {"B", value}}));
    EXPECT_EQ(loaded('=', "A=1\n" + line_of("B", 1023) + "C=1"), (Rows{{"A", "1"}, {"B", value}}));
}

TEST(load_prop, KeepsNamesOfAnyLength) {
    const std::string name(1020, 'n');
    EXPECT_EQ(loaded('=', name + "=1\n"), (Rows{{name, "1"}}));
}

TEST(load_prop, DoesNotFindASetenvSplitBetweenTwoPieces) {
    EXPECT_EQ(loaded('=', std::string(1018, 'x') + "setenv A=1\n"), (Rows{{"v", "1"}}));
}

TEST(load_prop, TruncatesAValueAt257CharactersAndTerminatesIt) {
    for (std::size_t length = 254; length <= 260; ++length) {
        const TemporaryDirectory directory;
        directory.write("conf", "A=" + std::string(length, 'v') + "\n");
        PropertyTable table;
        ASSERT_EQ(table.load('=', directory.path("conf")), 1);
        const std::size_t kept = std::min(length, value_size);
        EXPECT_EQ(table.rows(), (Rows{{"A", std::string(kept, 'v')}}));
        EXPECT_EQ(table.row(0).value_size, value_size);
        EXPECT_EQ(table.row(0).value[value_size], '\0');
    }
}

TEST(load_prop, FillsTheRestOfTheValueBlockWithZeros) {
    const TemporaryDirectory directory;
    directory.write("conf", "A=xyz\n");
    PropertyTable table;
    ASSERT_EQ(table.load('=', directory.path("conf")), 1);
    EXPECT_TRUE(zero_after(table.row(0), 3));
}

TEST(load_prop, StoresTheLengthBeforeTheSeparatorPlusOneAsTheNameSize) {
    const TemporaryDirectory directory;
    directory.write("conf", "A=1\n  NAME =2\nsetenv  BC=3\n=4\n");
    PropertyTable table;
    ASSERT_EQ(table.load('=', directory.path("conf")), 4);
    EXPECT_EQ(table.row(0).name_size, 2U);
    EXPECT_EQ(table.row(1).name_size, 8U);
    EXPECT_EQ(table.row(2).name_size, 4U);
    EXPECT_EQ(table.row(3).name_size, 1U);
}

TEST(load_prop, FillsTheTableFromItsFirstRow) {
    const TemporaryDirectory directory;
    directory.write("conf", "A=1\n");
    std::array<prop_entry, 2> table{};
    char unchanged = 'u';
    table[1] = {1, 2, &unchanged, &unchanged};
    ASSERT_EQ(load_prop('=', directory.path("conf").c_str(), table.data()), 1);
    EXPECT_STREQ(table[0].name, "A");
    EXPECT_EQ(table[1].name, &unchanged);
    free_prop(table.data(), 1);
}

TEST(load_prop, LeavesRowsAfterThoseOfTheFileUnchanged) {
    const TemporaryDirectory directory;
    directory.write("conf", "A=1\n#\nB\n\n=");
    std::array<prop_entry, 2> table{};
    ASSERT_EQ(load_prop('=', directory.path("conf").c_str(), table.data()), 1);
    EXPECT_EQ(table[1].name, nullptr);
    EXPECT_EQ(table[1].name_size, 0U);
    free_prop(table.data(), 1);
}

TEST(load_prop, LoadsTenThousandLines) {
    const TemporaryDirectory directory;
    std::string text;
    Rows expected;
    for (int i = 0; i < 10000; ++i) {
        const std::string number = std::to_string(i);
        text.append("NAME_").append(number).append("=\"").append(number).append("\"\n");
        expected.emplace_back("NAME_" + number, "\"" + number + "\"");
    }
    directory.write("conf", text);
    PropertyTable table(10000);
    EXPECT_EQ(table.load('=', directory.path("conf")), 10000);
    EXPECT_EQ(table.rows(), expected);
}

TEST(load_prop, ClosesTheFile) {
    const TemporaryDirectory directory;
    directory.write("conf", "A=1\n");
    const DescriptorWatch descriptors;
    for (const std::string &path :
         {directory.path("conf"), directory.path("none"), directory.path()}) {
        PropertyTable table;
        table.load('=', path);
    }
}

TEST(load_prop, LeavesTheFileUnchanged) {
    const TemporaryDirectory directory;
    directory.write("conf", "A=1\nB");
    PropertyTable table;
    table.load('=', directory.path("conf"));
    EXPECT_EQ(directory.read("conf"), "A=1\nB");
    EXPECT_EQ(directory.names(), std::vector<std::string>{"conf"});
}

TEST(load_prop, StopsAtAReadError) {
    const TemporaryDirectory directory;
    std::string text;
    for (int i = 0; i < 10000; ++i)
        text.append("NAME=").append(std::to_string(i)).append("\n");
    directory.write("conf", text);
    for (const stand_in_call call : {call_read, call_fgets, call_fread}) {
        PropertyTable table(10000);
        const FailCall second_read(call, 2, EIO, FailCall::from_then_on);
        table.load('=', directory.path("conf"));
        if (second_read.failures() != 0)
            EXPECT_LT(table.count(), 10000);
        else
            EXPECT_EQ(table.count(), 10000);
        // The lines read before the error are in the table, and no partial line is.
        int expected = 0;
        for (const auto &[name, value] : table.rows())
            EXPECT_EQ(value, std::to_string(expected++));
    }
}

TEST(load_prop, ContinuesReadingAfterASignal) {
    const TemporaryDirectory directory;
    directory.write("conf", "A=1\n");
    PropertyTable table;
    const FailCall signal(call_read, 1, EINTR);
    EXPECT_EQ(table.load('=', directory.path("conf")), 1);
}

TEST(load_prop, ReadsAFileThatArrivesInPieces) {
    std::string text;
    Rows expected;
    for (int i = 0; i < 3000; ++i) {
        expected.emplace_back("NAME_" + std::to_string(i),
                              std::string(static_cast<std::size_t>(i) % 90, 'v'));
        text.append(expected.back().first).append("=").append(expected.back().second).append("\n");
    }
    const StandardInput input(text, StandardInput::Kind::pipe);
    PropertyTable table(3000);
    table.load('=', "/dev/fd/0");
    EXPECT_EQ(table.rows(), expected);
}

TEST(load_prop, OmitsTheRowThatCannotBeAllocated) {
    const TemporaryDirectory directory;
    directory.write("conf", "A=1\nB=2\nC=3\n");
    const std::string path = directory.path("conf");
    const Rows all = {{"A", "1"}, {"B", "2"}, {"C", "3"}};
    const unsigned long failures = for_each_allocation_failure(
        [&](AllocationTrial &trial) {
            PropertyTable table;
            trial.run([&] { table.load('=', path); });
            Rows expected = all;
            if (trial.failed())
                expected.erase(expected.begin() + static_cast<std::ptrdiff_t>((trial.n() - 1) / 2));
            EXPECT_EQ(table.rows(), expected) << "allocation " << trial.n();
            EXPECT_EQ(table.row(static_cast<std::size_t>(table.count())).name, nullptr);
        },
        Allocations::outside_c_library);
    EXPECT_EQ(failures, 6U);
}

TEST(load_prop, LeaksNothingIfAnyAllocationFails) {
    const TemporaryDirectory directory;
    directory.write("conf", "A=1\nB=2\n");
    const std::string path = directory.path("conf");
    const DescriptorWatch descriptors;
    for_each_allocation_failure([&](AllocationTrial &trial) {
        PropertyTable table;
        const int count = trial.run([&] { return table.load('=', path); });
        EXPECT_GE(count, 0);
        EXPECT_LE(count, 2);
    });
}

// --- get_pr ---

TEST(get_pr, FillsARow) {
    prop_entry row{};
    std::string line = "setenv  NAME =\"a b\"";
    EXPECT_EQ(get_pr('=', line.data(), &row), 1);
    EXPECT_STREQ(row.name, "NAME");
    EXPECT_STREQ(row.value, "\"a b\"");
    EXPECT_EQ(row.name_size, 7U);
    EXPECT_EQ(row.value_size, value_size);
    EXPECT_TRUE(zero_after(row, 5));
    free_prop(&row, 1);
}

TEST(get_pr, OverwritesTheSeparatorWithANul) {
    prop_entry row{};
    std::string line = "A=B=C";
    ASSERT_EQ(get_pr('=', line.data(), &row), 1);
    EXPECT_EQ(line, "A\0B=C"s);
    free_prop(&row, 1);
}

TEST(get_pr, LeavesRowAndLineUnchangedForACommentOrALineWithoutASeparator) {
    char mark = 'm';
    for (const std::string text : {"# A=1", "", "A", "setenv A 1", "A=1setenv "}) {
        prop_entry row = {1, 2, &mark, &mark};
        std::string line = text;
        EXPECT_EQ(get_pr('=', line.data(), &row), 0) << text;
        EXPECT_EQ(line, text);
        EXPECT_EQ(row.name_size, 1U);
        EXPECT_EQ(row.value_size, 2U);
        EXPECT_EQ(row.name, &mark);
        EXPECT_EQ(row.value, &mark);
    }
}

TEST(get_pr, SplitsAtEachSeparator) {
    const auto split = [](signed char separator) {
        prop_entry row{};
        std::string line = "A\tB C=D";
        EXPECT_EQ(get_pr(separator, line.data(), &row), 1);
        const std::string value = row.value;
        free_prop(&row, 1);
        return value;
    };
    EXPECT_EQ(split('='), "D");
    EXPECT_EQ(split(' '), "C=D");
    EXPECT_EQ(split('\t'), "B C=D");
    EXPECT_EQ(split(';'), "B C=D");
}

TEST(get_pr, OverwritesThePreviousContentOfTheRow) {
    char mark = 'm';
    prop_entry row = {1, 2, &mark, &mark};
    std::string line = "A=1";
    ASSERT_EQ(get_pr('=', line.data(), &row), 1);
    EXPECT_STREQ(row.name, "A");
    EXPECT_EQ(mark, 'm');
    free_prop(&row, 1);
}

TEST(get_pr, KeepsATrailingNewline) {
    prop_entry row{};
    std::string line = "A=1\n";
    ASSERT_EQ(get_pr('=', line.data(), &row), 1);
    EXPECT_STREQ(row.value, "1\n");
    free_prop(&row, 1);
}

TEST(get_pr, LeavesTheRowUnchangedIfAnAllocationFails) {
    char mark = 'm';
    const unsigned long failures = for_each_allocation_failure([&](AllocationTrial &trial) {
        prop_entry row = {1, 2, &mark, &mark};
        std::string line = "A=1";
        const int filled = trial.run([&] { return get_pr('=', line.data(), &row); });
        EXPECT_EQ(filled, trial.failed() ? 0 : 1);
        if (filled == 1) {
            free_prop(&row, 1);
            return;
        }
        EXPECT_EQ(row.name_size, 1U);
        EXPECT_EQ(row.value_size, 2U);
        EXPECT_EQ(row.name, &mark);
        EXPECT_EQ(row.value, &mark);
    });
    EXPECT_EQ(failures, 2U);
}

// --- get_prop ---

TEST(get_prop, RemovesOneDoubleQuoteFromEachEnd) {
    PropertyTable table(
        Rows{{"A", "\"a b\""}, {"B", "plain"}, {"C", "\"\"x\"\""}, {"D", "\"x"}, {"E", "\""}});
    EXPECT_EQ(value_of(table, "A"), "a b");
    EXPECT_EQ(value_of(table, "B"), "plain");
    EXPECT_EQ(value_of(table, "C"), "\"x\"");
    EXPECT_EQ(value_of(table, "D"), "x");
    EXPECT_EQ(value_of(table, "E"), "");
}

TEST(get_prop, ReturnsTheCallersBuffer) {
    PropertyTable table(Rows{{"A", "1"}});
    std::array<char, CORVEL_GET_PROP_SIZE> value{};
    EXPECT_EQ(get_prop("A", value.data(), table.data(), table.count()), value.data());
}

TEST(get_prop, LeavesTheBufferUnchangedIfNoRowHasTheName) {
    PropertyTable table(Rows{{"A", "1"}});
    std::array<char, CORVEL_GET_PROP_SIZE> value;
    value.fill('?');
    EXPECT_EQ(get_prop("B", value.data(), table.data(), table.count()), nullptr);
    EXPECT_EQ(std::count(value.begin(), value.end(), '?'), CORVEL_GET_PROP_SIZE);
}

TEST(get_prop, LeavesTheRowUnchanged) {
    PropertyTable table(Rows{{"A", "\"1\""}});
    EXPECT_EQ(value_of(table, "A"), "1");
    EXPECT_EQ(table.rows(), (Rows{{"A", "\"1\""}}));
}

TEST(get_prop, FindsTheFirstRowWithTheName) {
    PropertyTable table(Rows{{"B", "0"}, {"A", "1"}, {"A", "2"}});
    EXPECT_EQ(value_of(table, "A"), "1");
}

TEST(get_prop, ComparesNamesByteByByte) {
    PropertyTable table(Rows{{"name", "1"}, {"NAME", "2"}, {"NAM", "3"}, {"\xe9", "4"}});
    EXPECT_EQ(value_of(table, "NAME"), "2");
    EXPECT_EQ(value_of(table, "NAM"), "3");
    EXPECT_EQ(value_of(table, "NAMEX"), std::nullopt);
    EXPECT_EQ(value_of(table, "Name"), std::nullopt);
    EXPECT_EQ(value_of(table, "\xe9"), "4");
    EXPECT_EQ(value_of(table, ""), std::nullopt);
}

TEST(get_prop, TruncatesAValueTo255CharactersBeforeRemovingTheQuotes) {
    const std::string filler(300, 'v');
    PropertyTable table(Rows{{"255", filler.substr(0, 255)},
                             {"256", filler.substr(0, 256)},
                             {"257", filler.substr(0, 257)},
                             {"quoted 255", "\"" + filler.substr(0, 253) + "\""},
                             {"quoted 256", "\"" + filler.substr(0, 254) + "\""}});
    EXPECT_EQ(value_of(table, "255"), filler.substr(0, 255));
    EXPECT_EQ(value_of(table, "256"), filler.substr(0, 255));
    EXPECT_EQ(value_of(table, "257"), filler.substr(0, 255));
    EXPECT_EQ(value_of(table, "quoted 255"), filler.substr(0, 253));
    EXPECT_EQ(value_of(table, "quoted 256"), filler.substr(0, 254));
}

TEST(get_prop, RemovesTheLeadingQuoteOfATruncatedValue) {
    PropertyTable table;
    for (const std::size_t length : {255U, 256U, 257U}) {
        const std::string name = std::to_string(length);
        table.insert(name, "\"" + std::string(length - 1, 'v'));
        EXPECT_EQ(value_of(table, name), std::string(254, 'v')) << length;
    }
}

TEST(get_prop, ReadsAtMost255BytesOfAnUnterminatedValue) {
    char name[] = "A";
    const std::string read(CORVEL_GET_PROP_SIZE - 1, 'v');
    const GuardedBlock value(read);
    const prop_entry row = {2, CORVEL_GET_PROP_SIZE - 1, name, value.start()};
    std::array<char, CORVEL_GET_PROP_SIZE> out{};
    EXPECT_EQ(get_prop("A", out.data(), &row, 1), out.data());
    EXPECT_EQ(out.data(), read);
}

TEST(get_prop, WritesAtMost256Bytes) {
    PropertyTable table(Rows{{"A", std::string(257, 'v')}});
    std::array<char, CORVEL_GET_PROP_SIZE + 44> value;
    value.fill('?');
    get_prop("A", value.data(), table.data(), table.count());
    EXPECT_EQ(value[CORVEL_GET_PROP_SIZE - 1], '\0');
    EXPECT_EQ(std::count(value.begin() + CORVEL_GET_PROP_SIZE, value.end(), '?'), 44);
}

TEST(get_prop, FindsNothingForACountOfZeroOrLess) {
    PropertyTable table(Rows{{"A", "1"}});
    std::array<char, CORVEL_GET_PROP_SIZE> value{};
    EXPECT_EQ(get_prop("A", value.data(), table.data(), -1), nullptr);
    EXPECT_EQ(get_prop("A", value.data(), table.data(), 0), nullptr);
    EXPECT_EQ(get_prop("A", value.data(), nullptr, 0), nullptr);
}

TEST(get_prop, SearchesOnlyTheRowsInUse) {
    PropertyTable table(Rows{{"A", "1"}, {"B", "2"}});
    std::array<char, CORVEL_GET_PROP_SIZE> value{};
    EXPECT_EQ(get_prop("B", value.data(), table.data(), 1), nullptr);
}

TEST(get_prop, ReadsANullNameAsTheEmptyString) {
    PropertyTable table(Rows{{"A", "1"}, {"", "2"}});
    std::array<char, CORVEL_GET_PROP_SIZE> value{};
    EXPECT_EQ(get_prop(nullptr, value.data(), table.data(), table.count()), value.data());
    EXPECT_STREQ(value.data(), "2");
}

TEST(get_prop, SkipsFreedRows) {
    PropertyTable table(Rows{{"A", "1"}, {"B", "2"}});
    free_prop(table.data(), 1);
    EXPECT_EQ(value_of(table, "A"), std::nullopt);
    EXPECT_EQ(value_of(table, ""), std::nullopt);
    EXPECT_EQ(value_of(table, "B"), "2");
}

TEST(get_prop, ReadsARequestRowWithoutSizes) {
    std::string name = "A";
    std::string value = "\"1\"";
    const prop_entry row = {0, 0, name.data(), value.data()};
    std::array<char, CORVEL_GET_PROP_SIZE> found{};
    ASSERT_NE(get_prop("A", found.data(), &row, 1), nullptr);
    EXPECT_STREQ(found.data(), "1");
}

// --- set_prop ---

TEST(set_prop, ReplacesTheValueAndReturnsTheIndex) {
    PropertyTable table(Rows{{"A", "1"}, {"B", "2"}});
    EXPECT_EQ(table.set("B", "new"), 1);
    EXPECT_EQ(table.rows(), (Rows{{"A", "1"}, {"B", "new"}}));
}

TEST(set_prop, ReturnsTheCountAndAddsNothingIfNoRowHasTheName) {
    PropertyTable table(Rows{{"A", "1"}, {"B", "2"}});
    EXPECT_EQ(table.set("C", "new"), 2);
    EXPECT_EQ(table.rows(), (Rows{{"A", "1"}, {"B", "2"}}));
    EXPECT_EQ(table.row(2).name, nullptr);
}

TEST(set_prop, ChangesOnlyTheFirstRowWithTheName) {
    PropertyTable table(Rows{{"A", "1"}, {"A", "2"}});
    EXPECT_EQ(table.set("A", "new"), 0);
    EXPECT_EQ(table.rows(), (Rows{{"A", "new"}, {"A", "2"}}));
}

TEST(set_prop, Keeps256Characters) {
    const std::string filler(300, 'v');
    for (const std::size_t length : {0U, 255U, 256U, 257U, 300U}) {
        PropertyTable table(Rows{{"A", std::string(value_size, 'o')}});
        table.set("A", filler.substr(0, length));
        EXPECT_EQ(table.row(0).value, filler.substr(0, std::min(length, value_size - 1)));
        EXPECT_EQ(table.row(0).value[value_size], '\0');
        EXPECT_EQ(table.row(0).value_size, value_size);
    }
}

TEST(set_prop, WritesAtMostTheValueSizeOfTheRow) {
    std::string name = "A";
    std::string value = "0123456789";
    prop_entry row = {0, 4, name.data(), value.data()};
    EXPECT_EQ(set_prop("A", "abcdefgh", &row, 1), 0);
    EXPECT_EQ(value, "abc\0"s + "456789");
}

TEST(set_prop, ReadsAtMostTheValueSizeOfTheRowFromAnUnterminatedValue) {
    PropertyTable table(Rows{{"A", "1"}});
    const GuardedBlock value(std::string(value_size, 'v'));
    EXPECT_EQ(set_prop("A", value.start(), table.data(), table.count()), 0);
    EXPECT_EQ(table.rows(), (Rows{{"A", std::string(value_size - 1, 'v')}}));
    table.data()->value_size = 8;
    const GuardedBlock shorter("12345678");
    EXPECT_EQ(set_prop("A", shorter.start(), table.data(), table.count()), 0);
    EXPECT_EQ(table.rows(), (Rows{{"A", "1234567"}}));
}

TEST(set_prop, WritesNothingToARowWithoutAValueSize) {
    std::string name = "A";
    std::string value = "0123456789";
    prop_entry row = {0, 0, name.data(), value.data()};
    EXPECT_EQ(set_prop("A", "abc", &row, 1), 0);
    EXPECT_EQ(value, "0123456789");
    row.value = nullptr;
    row.value_size = CORVEL_PROP_VALUE_SIZE;
    EXPECT_EQ(set_prop("A", "abc", &row, 1), 0);
}

TEST(set_prop, ReadsANullValueAsTheEmptyString) {
    PropertyTable table(Rows{{"A", "1"}});
    EXPECT_EQ(set_prop("A", nullptr, table.data(), table.count()), 0);
    EXPECT_EQ(table.rows(), (Rows{{"A", ""}}));
}

TEST(set_prop, FindsNothingForANegativeCount) {
    PropertyTable table(Rows{{"A", "1"}});
    EXPECT_EQ(set_prop("A", "new", table.data(), -5), 0);
    EXPECT_EQ(table.rows(), (Rows{{"A", "1"}}));
}

TEST(set_prop, AllocatesNothing) {
    PropertyTable table(Rows{{"A", "1"}});
    const CountCalls allocations(call_allocation);
    set_prop("A", "new", table.data(), table.count());
    EXPECT_EQ(allocations.count(), 0U);
}

TEST(set_prop, ReturnsTheCountWithoutATable) { EXPECT_EQ(set_prop("A", "1", nullptr, 5), 5); }

// --- ins_prop ---

TEST(ins_prop, AppendsARow) {
    PropertyTable table(Rows{{"A", "1"}});
    EXPECT_EQ(table.insert("B", "2"), 2);
    EXPECT_EQ(table.rows(), (Rows{{"A", "1"}, {"B", "2"}}));
    EXPECT_EQ(table.row(1).name_size, 2U);
    EXPECT_EQ(table.row(1).value_size, value_size);
}

TEST(ins_prop, AddsTheFirstRowOfATable) {
    PropertyTable table;
    EXPECT_EQ(table.insert("A", "1"), 1);
    EXPECT_EQ(table.rows(), (Rows{{"A", "1"}}));
}

TEST(ins_prop, ReplacesTheValueOfTheFirstRowWithTheName) {
    PropertyTable table(Rows{{"A", "1"}, {"B", "2"}, {"B", "3"}});
    EXPECT_EQ(table.insert("B", "new"), 3);
    EXPECT_EQ(table.rows(), (Rows{{"A", "1"}, {"B", "new"}, {"B", "3"}}));
}

TEST(ins_prop, ZeroesTheRestOfAnExistingValue) {
    PropertyTable table(Rows{{"A", std::string(value_size, 'o')}});
    table.insert("A", "xy");
    EXPECT_STREQ(table.row(0).value, "xy");
    EXPECT_TRUE(zero_after(table.row(0), 2));
}

TEST(ins_prop, Keeps256CharactersInAnExistingRowAnd257InANewOne) {
    const std::string filler(300, 'v');
    PropertyTable table(Rows{{"old", "1"}});
    table.insert("old", filler);
    table.insert("new", filler);
    EXPECT_EQ(table.rows(), (Rows{{"old", filler.substr(0, 256)}, {"new", filler.substr(0, 257)}}));
    EXPECT_EQ(table.row(0).value[value_size], '\0');
    EXPECT_EQ(table.row(1).value[value_size], '\0');
}

TEST(ins_prop, WritesAtMostTheValueSizeOfTheRow) {
    std::string name = "A";
    std::string value = "0123456789";
    prop_entry row = {0, 6, name.data(), value.data()};
    EXPECT_EQ(ins_prop("A", "ab", &row, 1), 1);
    EXPECT_EQ(value, "ab\0\0\0\0"s + "6789");
    row.value_size = 0;
    EXPECT_EQ(ins_prop("A", "xyz", &row, 1), 1);
    EXPECT_EQ(value, "ab\0\0\0\0"s + "6789");
}

TEST(ins_prop, ReadsAtMost257BytesOfAnUnterminatedValue) {
    PropertyTable table;
    const GuardedBlock value(std::string(value_size, 'v'));
    ASSERT_EQ(ins_prop("A", value.start(), table.data(), 0), 1);
    EXPECT_EQ(table.row(0).value, std::string(value_size, 'v')) << "a new row";
    EXPECT_EQ(ins_prop("A", value.start(), table.data(), 1), 1);
    EXPECT_EQ(table.row(0).value, std::string(value_size - 1, 'v')) << "an existing one";
    free_prop(table.data(), 1);
}

TEST(ins_prop, ReadsNullPointersAsEmptyStrings) {
    PropertyTable table;
    std::array<prop_entry, 2> rows{};
    EXPECT_EQ(ins_prop(nullptr, nullptr, rows.data(), 0), 1);
    EXPECT_STREQ(rows[0].name, "");
    EXPECT_STREQ(rows[0].value, "");
    EXPECT_EQ(ins_prop("", "x", rows.data(), 1), 1);
    EXPECT_STREQ(rows[0].value, "x");
    free_prop(rows.data(), 1);
}

TEST(ins_prop, TreatsANegativeCountAsZero) {
    std::array<prop_entry, 2> rows{};
    EXPECT_EQ(ins_prop("A", "1", rows.data(), -3), 1);
    EXPECT_STREQ(rows[0].name, "A");
    free_prop(rows.data(), 1);
}

TEST(ins_prop, ReturnsTheCountIfTheRowCannotBeAllocated) {
    const unsigned long failures = for_each_allocation_failure([](AllocationTrial &trial) {
        PropertyTable table(Rows{{"A", "1"}});
        const std::string name = "B";
        const int count = trial.run([&] { return table.insert(name, name); });
        EXPECT_EQ(count, trial.failed() ? 1 : 2);
        EXPECT_EQ(table.rows(),
                  trial.failed() ? (Rows{{"A", "1"}}) : (Rows{{"A", "1"}, {"B", "B"}}));
        EXPECT_EQ(table.row(1).name == nullptr, trial.failed());
    });
    EXPECT_EQ(failures, 2U);
}

// --- ins_pr ---

TEST(ins_pr, FillsARow) {
    prop_entry row{};
    EXPECT_EQ(ins_pr("a name", "\"a value\"", &row, 77), 1);
    EXPECT_STREQ(row.name, "a name");
    EXPECT_STREQ(row.value, "\"a value\"");
    EXPECT_EQ(row.name_size, 7U);
    EXPECT_EQ(row.value_size, value_size);
    EXPECT_TRUE(zero_after(row, 9));
    free_prop(&row, 1);
}

TEST(ins_pr, TruncatesAValueAt257CharactersAndTerminatesIt) {
    for (std::size_t length = 254; length <= 260; ++length) {
        prop_entry row{};
        EXPECT_EQ(ins_pr("A", std::string(length, 'v').c_str(), &row, 0), 1);
        EXPECT_EQ(row.value, std::string(std::min(length, value_size), 'v'));
        EXPECT_EQ(row.value[value_size], '\0');
        free_prop(&row, 1);
    }
}

TEST(ins_pr, ReadsAtMost257BytesOfAnUnterminatedValue) {
    const GuardedBlock value(std::string(value_size, 'v'));
    prop_entry row{};
    ASSERT_EQ(ins_pr("A", value.start(), &row, 0), 1);
    EXPECT_EQ(row.value, std::string(value_size, 'v'));
    free_prop(&row, 1);
}

TEST(ins_pr, OverwritesThePreviousContentOfTheRow) {
    char mark = 'm';
    prop_entry row = {1, 2, &mark, &mark};
    EXPECT_EQ(ins_pr("A", "1", &row, 0), 1);
    EXPECT_STREQ(row.name, "A");
    EXPECT_EQ(mark, 'm');
    free_prop(&row, 1);
}

TEST(ins_pr, LeavesTheRowUnchangedIfAnAllocationFails) {
    char mark = 'm';
    const unsigned long failures = for_each_allocation_failure([&](AllocationTrial &trial) {
        prop_entry row = {1, 2, &mark, &mark};
        const int filled = trial.run([&] { return ins_pr("A", "1", &row, 0); });
        EXPECT_EQ(filled, trial.failed() ? 0 : 1);
        if (filled == 1) {
            free_prop(&row, 1);
            return;
        }
        EXPECT_EQ(row.name_size, 1U);
        EXPECT_EQ(row.value_size, 2U);
        EXPECT_EQ(row.name, &mark);
        EXPECT_EQ(row.value, &mark);
    });
    EXPECT_EQ(failures, 2U);
}

TEST(ins_pr, AllocatesBlocksThatTheProgramMayFree) {
    prop_entry row{};
    ASSERT_EQ(ins_pr("A", "1", &row, 0), 1);
    std::free(row.name);
    std::free(row.value);
}

// --- dump_prop ---

TEST(dump_prop, PrintsNothing) {
    PropertyTable table(Rows{{"A", "1"}, {"B", "2"}});
    int result = -1;
    const auto dump = [&] {
        result = dump_prop(table.data(), table.count());
    };
    EXPECT_EQ(capture_stdout(dump), "");
    EXPECT_EQ(capture_stderr(dump), "");
    EXPECT_EQ(result, 0);
}

TEST(dump_prop, AcceptsFreedRowsAndNegativeCounts) {
    prop_entry row{};
    EXPECT_EQ(dump_prop(&row, 1), 0);
    EXPECT_EQ(dump_prop(&row, -1), 0);
    EXPECT_EQ(dump_prop(nullptr, 0), 0);
}

// --- free_prop ---

TEST(free_prop, SetsThePointersToNullAndKeepsTheSizes) {
    PropertyTable table(Rows{{"A", "1"}, {"BC", "2"}});
    EXPECT_EQ(free_prop(table.data(), table.count()), 1);
    for (std::size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(table.row(i).name, nullptr);
        EXPECT_EQ(table.row(i).value, nullptr);
        EXPECT_EQ(table.row(i).value_size, value_size);
    }
    EXPECT_EQ(table.row(1).name_size, 3U);
}

TEST(free_prop, MayBeCalledTwice) {
    PropertyTable table(Rows{{"A", "1"}});
    EXPECT_EQ(free_prop(table.data(), table.count()), 1);
    EXPECT_EQ(free_prop(table.data(), table.count()), 1);
}

TEST(free_prop, FreesOnlyTheRowsInUse) {
    PropertyTable table(Rows{{"A", "1"}, {"B", "2"}});
    EXPECT_EQ(free_prop(table.data(), 1), 1);
    EXPECT_EQ(table.row(0).name, nullptr);
    EXPECT_STREQ(table.row(1).name, "B");
}

TEST(free_prop, FreesNothingForANegativeCount) {
    PropertyTable table(Rows{{"A", "1"}});
    EXPECT_EQ(free_prop(table.data(), -1), 1);
    EXPECT_STREQ(table.row(0).name, "A");
    EXPECT_EQ(free_prop(nullptr, 0), 1);
}

TEST(free_prop, FreesEachBlockOfARow) {
    AllocationTrial nothing_fails(1000, Allocations::all);
    prop_entry row{};
    nothing_fails.run([&] { return ins_pr("A", "1", &row, 0); });
    EXPECT_EQ(stand_in_live_blocks(), 2U);
    free_prop(&row, 1);
    EXPECT_EQ(stand_in_live_blocks(), 0U);
}

} // namespace
