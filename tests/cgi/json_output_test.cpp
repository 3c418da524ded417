/* SPDX-License-Identifier: MIT */
#include <corvel.h>

#include <array>
#include <climits>
#include <cstdio>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

#include "tests/cgi/list_contents.h"
#include "tests/cgi/printed.h"
#include "tests/cgi/row_table.h"
#include "tests/support/child_process.h"
#include "tests/support/output_capture.h"

namespace corvel_test {
namespace {

/** The expected output, and its length as the expected result, as of printf(). */
Printed printf_of(const std::string &text) { return {text, static_cast<int>(text.size())}; }

std::string pairs(const str_node *list) {
    return capture_stdout([&] { list2json_data(list); });
}

Printed table_printed(const Fields &rows) {
    const RowTable table(rows);
    Printed result = printed([&] { return prop2json(table.data(), table.count()); });
    EXPECT_EQ(table.strings(), rows) << "the table is changed";
    return result;
}

// --- Heads and tails ---

TEST(printjson_hdr0, PrintsTheNameAndABracket) {
    EXPECT_EQ(printed([] { return printjson_hdr0("lan"); }), printf_of("\t\"lan\": [\n"));
    EXPECT_EQ(printed([] { return printjson_hdr0(""); }), printf_of("\t\"\": [\n"));
}

TEST(printjson_hdr0, PrintsANameOfAnyLengthUnchanged) {
    EXPECT_EQ(printed([] { return printjson_hdr0("%s\"\\%n"); }), printf_of("\t\"%s\"\\%n\": [\n"));
    const std::string name(100000, 'n');
    EXPECT_EQ(printed([&] { return printjson_hdr0(name.c_str()); }),
              printf_of("\t\"" + name + "\": [\n"));
}

TEST(printjson_hdr1, PrintsATabAndABrace) { EXPECT_EQ(printed(printjson_hdr1), printf_of("\t{")); }

TEST(printjson_hdr, PrintsBothHeadsAndReturnsTheLengthOfTheSecond) {
    EXPECT_EQ(printed([] { return printjson_hdr("lan"); }), (Printed{"\t\"lan\": [\n\t{", 2}));
}

TEST(printjson_tail0, PrintsABraceAndReturnsIt) {
    EXPECT_EQ(printed(printjson_tail0), (Printed{"}", '}'}));
}

TEST(printjson_tail1, PrintsATabAndABracket) {
    EXPECT_EQ(printed(printjson_tail1), printf_of("\t]"));
}

TEST(printjson_tail, PrintsBothTailsAndReturnsTheLengthOfTheSecond) {
    EXPECT_EQ(printed(printjson_tail), (Printed{"\n\t}\n\t]", 2}));
}

// --- list2json_data ---

TEST(list2json_data, PrintsNothingForANullList) { EXPECT_EQ(pairs(nullptr), ""); }

TEST(list2json_data, PrintsOnePairWithoutASeparatorOrANewline) {
    const OwnedList list(Fields{{"a", "1"}});
    EXPECT_EQ(pairs(list.head()), "\t\"a\":\"1\"");
}

TEST(list2json_data, SeparatesPairsByACommaAndANewlineInListOrder) {
    const OwnedList list(Fields{{"b", "2"}, {"a", "1"}, {"b", "3"}});
    EXPECT_EQ(pairs(list.head()), "\t\"b\":\"2\",\n\t\"a\":\"1\",\n\t\"b\":\"3\"");
}

TEST(list2json_data, PrintsNamesAndValuesUnchanged) {
    const OwnedList list(
        Fields{{"", ""}, {"%s\"", "\"quoted\""}, {"\\", "a\nb\tc\x01\xff%n</script>"}});
    EXPECT_EQ(pairs(list.head()), "\t\"\":\"\",\n\t\"%s\"\":\"\"quoted\"\",\n"
                                  "\t\"\\\":\"a\nb\tc\x01\xff%n</script>\"");
}

TEST(list2json_data, DoesNotTruncateStringsOfFullLength) {
    const std::string name(CORVEL_FIELD_NAME_SIZE - 1, 'n');
    const std::string value(CORVEL_FIELD_VALUE_SIZE - 1, 'v');
    const OwnedList list(Fields{{name, value}, {name, value}});
    const std::string pair = "\t\"" + name + "\":\"" + value + "\"";
    EXPECT_EQ(pairs(list.head()), pair + ",\n" + pair);
}

TEST(list2json_data, StartsAtAnyRecord) {
    const OwnedList list(Fields{{"a", "1"}, {"b", "2"}, {"c", "3"}});
    EXPECT_EQ(pairs(list.head()->next), "\t\"b\":\"2\",\n\t\"c\":\"3\"");
}

TEST(list2json_data, LeavesTheListUnchanged) {
    const Fields fields{{"a", "\"1\""}, {"b", "2"}};
    const OwnedList list(fields);
    pairs(list.head());
    printed([&] { return list2json(list.head(), "lan"); });
    EXPECT_EQ(contents(list.head()), fields);
}

TEST(list2json_data, KeepsTheOrderOfThousandsOfPairs) {
    Fields fields;
    std::string expected;
    for (int i = 0; i < 3000; ++i) {
        const std::string number = std::to_string(i);
        fields.emplace_back("name" + number, "value" + number);
        expected += (i == 0 ? "" : ",\n") + ("\t\"name" + number + "\":\"value" + number + "\"");
    }
    const OwnedList list(fields);
    EXPECT_EQ(pairs(list.head()), expected);
}

// --- list2json ---

TEST(list2json, PrintsOneSectionWithThePairsOfTheList) {
    const OwnedList list(Fields{{"a", "1"}, {"b", "2"}});
    EXPECT_EQ(printed([&] { return list2json(list.head(), "data"); }),
              (Printed{"{\n\t\"data\": [\n\t{\n\t\"a\":\"1\",\n\t\"b\":\"2\"\n\t}\n\t]\n}", 4}));
}

TEST(list2json, PrintsOneFieldWithoutASeparator) {
    const OwnedList list(Fields{{"a", "1"}});
    EXPECT_EQ(printed([&] { return list2json(list.head(), "data"); }),
              (Printed{"{\n\t\"data\": [\n\t{\n\t\"a\":\"1\"\n\t}\n\t]\n}", 4}));
}

TEST(list2json, PrintsAnEmptyObjectForANullList) {
    EXPECT_EQ(printed([] { return list2json(nullptr, "x"); }),
              (Printed{"{\n\t\"x\": [\n\t{\n\n\t}\n\t]\n}", 4}));
}

TEST(list2json, PrintsTheNameUnchanged) {
    EXPECT_EQ(printed([] { return list2json(nullptr, "%s\""); }),
              (Printed{"{\n\t\"%s\"\": [\n\t{\n\n\t}\n\t]\n}", 4}));
}

// --- prop2json ---

TEST(prop2json, SeparatesPairsByACommaAndANewlineInTableOrder) {
    EXPECT_EQ(table_printed({{"b", "2"}, {"a", "1"}, {"b", "3"}}),
              (Printed{"\t\"b\":\"2\",\n\t\"a\":\"1\",\n\t\"b\":\"3\"", 0}));
}

TEST(prop2json, PrintsOnePairWithoutASeparatorOrANewline) {
    EXPECT_EQ(table_printed({{"a", "1"}}), (Printed{"\t\"a\":\"1\"", 0}));
}

TEST(prop2json, PrintsOnlyTheCountedRows) {
    const RowTable table(Fields{{"a", "1"}, {"b", "2"}, {"c", "3"}});
    EXPECT_EQ(printed([&] { return prop2json(table.data(), 2); }),
              (Printed{"\t\"a\":\"1\",\n\t\"b\":\"2\"", 0}));
}

TEST(prop2json, PrintsNothingForACountOfZeroOrLess) {
    const RowTable table(Fields{{"a", "1"}});
    for (const int count : {0, -1, INT_MIN})
        EXPECT_EQ(printed([&] { return prop2json(table.data(), count); }), (Printed{"", 0}));
    EXPECT_EQ(printed([] { return prop2json(nullptr, 0); }), (Printed{"", 0}));
}

TEST(prop2json, RemovesOneDoubleQuoteFromEachEndOfAValue) {
    const std::array<std::array<const char *, 2>, 12> cases{{{"\"on\"", "on"},
                                                             {"\"on", "on"},
                                                             {"on\"", "on"},
                                                             {"a\"b", "a\"b"},
                                                             {"\"a\"b\"", "a\"b"},
                                                             {"\"\"on\"\"", "\"on\""},
                                                             {"\"\"", ""},
                                                             {"\"", ""},
                                                             {"\"\"\"", "\""},
                                                             {"", ""},
                                                             {"'on'", "'on'"},
                                                             {" \"on\" ", " \"on\" "}}};
    for (const auto &[stored, written] : cases) {
        EXPECT_EQ(table_printed({{"a", stored}}),
                  (Printed{"\t\"a\":\"" + std::string(written) + "\"", 0}))
            << stored;
    }
}

TEST(prop2json, KeepsTheQuotesOfNames) {
    EXPECT_EQ(table_printed({{"\"a\"", "1"}}), (Printed{"\t\"\"a\"\":\"1\"", 0}));
}

TEST(prop2json, PrintsNamesAndValuesUnchanged) {
    EXPECT_EQ(table_printed({{"%s\\", "a\nb\tc\x01\xff%n\\"}, {"", ""}}),
              (Printed{"\t\"%s\\\":\"a\nb\tc\x01\xff%n\\\",\n\t\"\":\"\"", 0}));
}

TEST(prop2json, PrintsAnEmptyPairForARowWithoutStrings) {
    std::string text = "x";
    const std::array<prop_entry, 3> table{
        {{0, 0, nullptr, nullptr}, {0, 0, text.data(), nullptr}, {0, 0, nullptr, text.data()}}};
    EXPECT_EQ(printed([&] { return prop2json(table.data(), 3); }),
              (Printed{"\t\"\":\"\",\n\t\"x\":\"\",\n\t\"\":\"x\"", 0}));
}

TEST(prop2json, DoesNotTruncateLongStrings) {
    for (const std::size_t length : {254U, 255U, 256U, 257U, 258U, 4096U, 100000U}) {
        SCOPED_TRACE(length);
        const std::string value(length, 'v');
        const std::string name(length, 'n');
        EXPECT_EQ(table_printed({{name, value}, {"b", "\"" + value + "\""}}),
                  (Printed{"\t\"" + name + "\":\"" + value + "\",\n\t\"b\":\"" + value + "\"", 0}));
    }
}

TEST(prop2json, PrintsAllOfAStoredValueOf257Characters) {
    const std::string value(CORVEL_PROP_VALUE_SIZE, 'v');
    std::string quoted(CORVEL_PROP_VALUE_SIZE, 'q');
    quoted.front() = quoted.back() = '"';
    std::array<prop_entry, 2> table{};
    ASSERT_EQ(ins_pr("a", (value + "more").c_str(), table.data(), 0), 1);
    ASSERT_EQ(ins_pr("b", (quoted + "more").c_str(), &table[1], 1), 1);
    EXPECT_EQ(printed([&] { return prop2json(table.data(), 2); }),
              (Printed{"\t\"a\":\"" + value + "\",\n\t\"b\":\"" +
                           std::string(CORVEL_PROP_VALUE_SIZE - 2, 'q') + "\"",
                       0}));
    free_prop(table.data(), 2);
    EXPECT_EQ(printed([&] { return prop2json(table.data(), 2); }),
              (Printed{"\t\"\":\"\",\n\t\"\":\"\"", 0}))
        << "the rows of a freed table have no strings";
}

// --- All functions ---

TEST(JsonOutput, ReadsANullNameAsTheEmptyString) {
    EXPECT_EQ(printed([] { return printjson_hdr0(nullptr); }), printf_of("\t\"\": [\n"));
    EXPECT_EQ(printed([] { return printjson_hdr(nullptr); }), (Printed{"\t\"\": [\n\t{", 2}));
    EXPECT_EQ(printed([] { return list2json(nullptr, nullptr); }),
              (Printed{"{\n\t\"\": [\n\t{\n\n\t}\n\t]\n}", 4}));
}

TEST(JsonOutput, ReturnsANegativeNumberIfItCannotBeWritten) {
    expect_in_child([] {
        const int real_output = dup(STDOUT_FILENO);
        std::setvbuf(stdout, nullptr, _IONBF, 0);
        const int full = open("/dev/full", O_WRONLY);
        dup2(full, STDOUT_FILENO);
        const std::array results{printjson_hdr0("lan"),    printjson_hdr1(),  printjson_hdr("lan"),
                                 printjson_tail0(),        printjson_tail1(), printjson_tail(),
                                 list2json(nullptr, "lan")};
        dup2(real_output, STDOUT_FILENO);
        for (const int result : results)
            EXPECT_LT(result, 0);
    });
}

TEST(JsonOutput, OfThePiecesIsTheWholeDocumentExceptForTheNewlineBeforeThePairs) {
    const OwnedList list(Fields{{"a", "1"}, {"b", "2"}});
    const std::string whole = capture_stdout([&] { list2json(list.head(), "data"); });
    const std::string composed = capture_stdout([&] {
        std::printf("{\n");
        printjson_hdr("data");
        std::printf("\n");
        list2json_data(list.head());
        printjson_tail();
        std::printf("\n}");
    });
    EXPECT_EQ(composed, whole);
}

TEST(JsonOutput, OfTheSingleHeadsAndTailsIsThatOfTheCombinedOnes) {
    const std::string together = capture_stdout([] {
        printjson_hdr("lan");
        printjson_tail();
    });
    const std::string apart = capture_stdout([] {
        printjson_hdr0("lan");
        printjson_hdr1();
        std::printf("\n\t");
        printjson_tail0();
        std::printf("\n");
        printjson_tail1();
    });
    EXPECT_EQ(together, "\t\"lan\": [\n\t{\n\t}\n\t]");
    EXPECT_EQ(apart, together);
}

TEST(JsonOutput, OfSeveralSectionsIsInTheOrderOfTheCalls) {
    const OwnedList list(Fields{{"a", "1"}, {"b", "2"}});
    const RowTable table(Fields{{"c", "\"3\""}, {"d", "4"}});
    const std::string document = capture_stdout([&] {
        std::printf("Content-Type: application/json\r\n\r\n{\n");
        printjson_hdr("lan");
        std::putchar('\n');
        list2json_data(list.head());
        printjson_tail();
        std::fputs(",\n", stdout);
        printjson_hdr("wlan");
        std::putchar('\n');
        prop2json(table.data(), table.count());
        printjson_tail();
        std::puts("\n}");
    });
    EXPECT_EQ(document, "Content-Type: application/json\r\n\r\n{\n"
                        "\t\"lan\": [\n\t{\n\t\"a\":\"1\",\n\t\"b\":\"2\"\n\t}\n\t],\n"
                        "\t\"wlan\": [\n\t{\n\t\"c\":\"3\",\n\t\"d\":\"4\"\n\t}\n\t]\n}\n");
}

TEST(JsonOutput, IsInOrderWithTheOutputOfTheProgram) {
    const OwnedList list(Fields{{"a", std::string(4096, 'v')}, {"b", std::string(4096, 'w')}});
    const RowTable table(Fields{{"c", std::string(9000, 'x')}});
    const std::string output = capture_stdout([&] {
        std::printf("1");
        list2json_data(list.head());
        std::printf("2");
        prop2json(table.data(), table.count());
        std::printf("3");
        list2json(list.head(), "lan");
        std::printf("4");
    });
    const std::string list_pairs =
        "\t\"a\":\"" + std::string(4096, 'v') + "\",\n\t\"b\":\"" + std::string(4096, 'w') + "\"";
    EXPECT_EQ(output, "1" + list_pairs + "2\t\"c\":\"" + std::string(9000, 'x') +
                          "\"3{\n\t\"lan\": [\n\t{\n" + list_pairs + "\n\t}\n\t]\n}4");
}

} // namespace
} // namespace corvel_test
