/* SPDX-License-Identifier: MIT */
#include <corvel.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "tests/cgi/list_contents.h"
#include "tests/cgi/row_table.h"
#include "tests/support/child_process.h"
#include "tests/support/descriptors.h"
#include "tests/support/output_capture.h"
#include "tests/support/stand_in.h"
#include "tests/support/temporary_directory.h"

namespace corvel_test {
namespace {

std::string numbered(std::string text, int number) {
    text += std::to_string(number);
    return text;
}

/** The output of print_html(), its result, and the fields that remain in the list. */
struct Filled {
    std::string page;
    Fields left;
    int result = -1;

    bool operator==(const Filled &) const = default;
};

void PrintTo(const Filled &filled, std::ostream *out) {
    *out << testing::PrintToString(filled.page) << ", left " << testing::PrintToString(filled.left)
         << ", result " << filled.result;
}

// --- Model ---

/** A template is filled line by line, and a longer line in pieces of this length. */
constexpr std::size_t piece_size = CORVEL_LINE_SIZE - 1;

std::vector<std::string> pieces_of(const std::string &text) {
    std::vector<std::string> pieces;
    std::string piece;
    for (const char character : text) {
        piece += character;
        if (character == '\n' || piece.size() == piece_size) {
            pieces.push_back(piece);
            piece.clear();
        }
    }
    if (!piece.empty())
        pieces.push_back(piece);
    return pieces;
}

/** A model of print_html(). */
Filled model_of(const std::string &page_template, Fields fields) {
    std::string page;
    for (std::string piece : pieces_of(page_template)) {
        piece = piece.substr(0, piece.find('\0'));
        for (std::size_t at = 0; at < piece.size(); ++at) {
            if (piece[at] != '$')
                continue;
            for (auto field = fields.begin(); field != fields.end(); ++field) {
                if (piece.compare(at + 1, field->first.size(), field->first) != 0)
                    continue;
                piece.replace(at, 1 + field->first.size(), field->second);
                fields.erase(field);
                break;
            }
        }
        page += piece;
    }
    return {page, fields, 0};
}

// --- print_html ---

Filled filled_from(const std::string &path, const Fields &fields) {
    OwnedList list(fields);
    Filled result;
    result.page = capture_stdout([&] { result.result = print_html(path.c_str(), list.address()); });
    result.left = contents(list.head());
    return result;
}

Filled filled(const std::string &page_template, const Fields &fields) {
    const TemporaryDirectory directory;
    directory.write("page.html", page_template);
    return filled_from(directory.path("page.html"), fields);
}

/** Expects the page that a template and a list yield, and the fields that remain in the list. */
void expect_filled(const std::string &page_template, const Fields &fields, const std::string &page,
                   const Fields &left = {}) {
    EXPECT_EQ(filled(page_template, fields), (Filled{page, left, 0}));
}

class RandomText {
  public:
    explicit RandomText(unsigned seed) : engine_(seed) {}

    std::size_t below(std::size_t limit) { return engine_() % limit; }

    std::string text(std::string_view alphabet, std::size_t longest) {
        std::string result;
        for (std::size_t length = below(longest + 1); length > 0; --length)
            result += alphabet[below(alphabet.size())];
        return result;
    }

  private:
    std::mt19937 engine_;
};

/** A template and the list that fills it. */
struct Page {
    std::string page_template;
    Fields fields;
};

Page small_page(RandomText &random) {
    Page small{random.text("$$ab\n", 24), {}};
    for (std::size_t count = random.below(7); count > 0; --count)
        small.fields.emplace_back(random.text("ab$", 2), random.text("$$ab\n", 6));
    return small;
}

/** A template in memory: files on a disk would take most of the time of many small templates. */
class TemplateInMemory {
  public:
    TemplateInMemory() : descriptor_(memfd_create("template", MFD_CLOEXEC)) {}
    TemplateInMemory(const TemplateInMemory &) = delete;
    TemplateInMemory &operator=(const TemplateInMemory &) = delete;
    ~TemplateInMemory() { close(descriptor_); }

    void write(const std::string &text) const {
        ASSERT_EQ(ftruncate(descriptor_, 0), 0);
        ASSERT_EQ(pwrite(descriptor_, text.data(), text.size(), 0),
                  static_cast<ssize_t>(text.size()));
    }
    [[nodiscard]] std::string path() const { return numbered("/proc/self/fd/", descriptor_); }

  private:
    int descriptor_;
};

/** Fills several pages; their output is captured at once, with a mark after each. */
std::vector<Filled> all_filled(const std::vector<Page> &pages) {
    constexpr char mark = '\x01';
    const TemplateInMemory file;
    std::vector<Filled> results;
    std::string output = capture_stdout([&] {
        for (const Page &small : pages) {
            file.write(small.page_template);
            OwnedList list(small.fields);
            const int result = print_html(file.path().c_str(), list.address());
            results.push_back({"", contents(list.head()), result});
            std::putchar(mark);
        }
    });
    for (Filled &result : results) {
        const std::size_t length = output.find(mark);
        result.page = output.substr(0, length);
        output.erase(0, length + 1);
    }
    return results;
}

/** Lines of dollar signs that no field fills: after so many, print_html() builds an index. */
std::string many_dollar_signs() {
    std::string line;
    while (line.size() < 1000)
        line += "$.";
    line += '\n';
    std::string text;
    for (int i = 0; i < 20; ++i)
        text += line;
    return text;
}

TEST(print_html, FillsMarkersAndRemovesTheirFieldsFromTheList) {
    expect_filled("IP: $ip, mask $mask\n", {{"ip", "10.0.0.1"}, {"mask", "255.0.0.0"}},
                  "IP: 10.0.0.1, mask 255.0.0.0\n");
}

TEST(print_html, FillsMarkersInAnyOrderOfTheList) {
    expect_filled("$a $b $c\n", {{"c", "3"}, {"a", "1"}, {"b", "2"}}, "1 2 3\n");
}

TEST(print_html, KeepsUnusedFieldsInTheirOrder) {
    expect_filled("$b\n", {{"a", "1"}, {"b", "2"}, {"c", "3"}, {"a", "4"}}, "2\n",
                  {{"a", "1"}, {"c", "3"}, {"a", "4"}});
}

TEST(print_html, CopiesATemplateWithoutMarkers) {
    const std::string text =
        "<html>\n\n  <p>100% &amp; \\n \t %s %d</p>\r\n\x01\x7f\x80\xff</html>\n";
    const Fields fields{{"ip", "10.0.0.1"}};
    expect_filled(text, fields, text, fields);
}

TEST(print_html, PrintsNothingForAnEmptyTemplate) {
    expect_filled("", {{"a", "1"}}, "", {{"a", "1"}});
}

TEST(print_html, CopiesTheTemplateForAnEmptyList) {
    expect_filled("IP: $ip $ $$\n", {}, "IP: $ip $ $$\n");
}

TEST(print_html, FillsALastLineWithoutANewline) {
    expect_filled("a\n$ip", {{"ip", "10.0.0.1"}}, "a\n10.0.0.1");
    expect_filled("a\nb", {}, "a\nb");
}

TEST(print_html, FillsOnlyTheFirstMarkerOfAName) {
    expect_filled("$ip $ip\n$ip\n", {{"ip", "1"}}, "1 $ip\n$ip\n");
}

TEST(print_html, UsesFieldsWithEqualNamesInTheirOrder) {
    expect_filled("$ip $ip\n$ip $ip\n", {{"ip", "1"}, {"ip", "2"}, {"ip", "3"}}, "1 2\n3 $ip\n");
}

TEST(print_html, UsesTheFirstFieldWhoseNameIsAPrefix) {
    expect_filled("$ipaddr\n", {{"ip", "1"}, {"ipaddr", "2"}}, "1addr\n", {{"ipaddr", "2"}});
    expect_filled("$ipaddr\n", {{"ipaddr", "2"}, {"ip", "1"}}, "2\n", {{"ip", "1"}});
    expect_filled("$ipaddr $ipaddr\n", {{"ip", "1"}, {"ipaddr", "2"}}, "1addr 2\n");
}

TEST(print_html, RequiresNoDelimiterAfterTheName) {
    expect_filled("$ipx $ip$ip\n", {{"ip", "1"}, {"ip", "2"}, {"ip", "3"}}, "1x 23\n");
}

TEST(print_html, ComparesTheCaseOfNames) {
    expect_filled("$IP $Ip $ip\n", {{"ip", "1"}}, "$IP $Ip 1\n");
}

TEST(print_html, KeepsADollarSignWithoutAName) {
    expect_filled("$$ip\n", {{"ip", "1"}}, "$1\n");
    expect_filled("$$$\n", {{"ip", "1"}}, "$$$\n", {{"ip", "1"}});
    expect_filled("$", {{"ip", "1"}}, "$", {{"ip", "1"}});
    expect_filled("$i", {{"ip", "1"}}, "$i", {{"ip", "1"}});
    expect_filled("$ ip\n", {{"ip", "1"}}, "$ ip\n", {{"ip", "1"}});
}

TEST(print_html, AcceptsNamesWithADollarSign) {
    expect_filled("$$ip\n", {{"$ip", "1"}}, "1\n");
    expect_filled("$a$b\n", {{"a$b", "1"}}, "1\n");
}

TEST(print_html, FillsTheNextDollarSignForAnEmptyName) {
    expect_filled("$ip $ip\n", {{"", "x"}, {"ip", "1"}}, "xip 1\n");
    expect_filled("a$", {{"", "x"}}, "ax");
}

TEST(print_html, DoesNotFillABracedMarker) {
    expect_filled("${ip}\n", {{"ip", "1"}}, "${ip}\n", {{"ip", "1"}});
}

// --- print_html: markers in values ---

TEST(print_html, FillsAMarkerInsideAValue) {
    expect_filled("$ip\n", {{"ip", "a$mask"}, {"mask", "255.0.0.0"}}, "a255.0.0.0\n");
    expect_filled("$ip\n", {{"mask", "255.0.0.0"}, {"ip", "a$mask"}}, "a255.0.0.0\n");
}

TEST(print_html, DoesNotFillAMarkerAtTheStartOfAValue) {
    expect_filled("$ip\n", {{"ip", "$mask"}, {"mask", "1"}}, "$mask\n", {{"mask", "1"}});
    expect_filled("$ip\n", {{"ip", "$$mask"}, {"mask", "1"}}, "$1\n");
    expect_filled("$ip $mask\n", {{"ip", "$mask"}, {"mask", "1"}}, "$mask 1\n");
}

TEST(print_html, DoesNotFillAValueWithItsOwnField) {
    expect_filled("$ip\n", {{"ip", "a$ip"}}, "a$ip\n");
    expect_filled("$ip\n", {{"ip", "a$ip"}, {"ip", "b$ip"}}, "ab$ip\n");
}

TEST(print_html, FillsMarkersNestedManyLevelsDeep) {
    Fields fields;
    std::string open;
    std::string close;
    for (int level = 0; level < 500; ++level) {
        const std::string number = std::to_string(level);
        fields.emplace_back("f" + number + ".",
                            "<" + number + "$f" + std::to_string(level + 1) + ".>");
        open += "<" + number;
        close += ">";
    }
    expect_filled("$f0.|\n", fields, open + "$f500." + close + "|\n");
}

TEST(print_html, FillsAMarkerFormedByAValueAndTheFollowingText) {
    expect_filled("$aip\n", {{"a", "x$"}, {"ip", "1"}}, "x1\n");
    expect_filled("$a$b\n", {{"a", "x$i"}, {"b", "p"}, {"i$b", "1"}}, "x1\n", {{"b", "p"}});
}

TEST(print_html, DoesNotFillAMarkerFormedByAValueOfOneDollarSign) {
    expect_filled("$aip $ip\n", {{"a", "$"}, {"ip", "1"}}, "$ip 1\n");
}

TEST(print_html, ContinuesTheLineAfterANewlineInAValue) {
    expect_filled("$a$b\n", {{"a", "x\ny"}, {"b", "\n$c"}, {"c", "1"}}, "x\ny\n1\n");
}

TEST(print_html, DoesNotUseAValueAsAFormat) {
    expect_filled("$a\n", {{"a", "%s%n%d"}}, "%s%n%d\n");
}

// --- print_html: empty values ---

TEST(print_html, RemovesTheMarkerForAnEmptyValue) { expect_filled("<$a>\n", {{"a", ""}}, "<>\n"); }

TEST(print_html, StopsAfterAnEmptyValueAtTheEndOfTheTemplate) {
    expect_filled("x$a", {{"a", ""}, {"b", "1"}}, "x", {{"b", "1"}});
    expect_filled("$a", {{"a", ""}}, "");
    expect_filled("$b$a", {{"a", ""}, {"b", ""}}, "$a", {{"a", ""}});
}

TEST(print_html, PrintsNothingOfALongerPrecedingLineAfterAnEmptyValue) {
    expect_filled("a long line with $c and $d\n$a", {{"a", ""}, {"d", "1"}},
                  "a long line with $c and 1\n");
}

TEST(print_html, SkipsTheCharacterAfterAnEmptyValue) {
    expect_filled("$a$b $b\n", {{"a", ""}, {"b", "1"}}, "$b 1\n");
    expect_filled("$ax$b\n", {{"a", ""}, {"b", "1"}}, "x1\n");
    expect_filled("$a$$b\n", {{"a", ""}, {"b", "1"}}, "$1\n");
}

TEST(print_html, RemovesTheDollarSignForAnEmptyNameAndValue) {
    expect_filled("a$b$", {{"", ""}, {"", ""}}, "ab");
    expect_filled("$", {{"", ""}}, "");
}

// --- print_html: long lines ---

TEST(print_html, EndsALineAtANul) {
    using std::string_literals::operator""s;
    expect_filled("a$x\0$y\n$y\n"s, {{"x", "1"}, {"y", "2"}}, "a12\n");
    expect_filled("\0a\nb\n"s, {}, "b\n");
    expect_filled("a\0"s, {}, "a");
    expect_filled("$x\0yz"s, {{"xy", "1"}}, "$x", {{"xy", "1"}});
}

TEST(print_html, PrintsLinesAroundTheSizeOfAPieceUnchanged) {
    for (const std::size_t length : {1021U, 1022U, 1023U, 1024U, 1025U, 2046U, 3000U, 100000U}) {
        SCOPED_TRACE(length);
        const std::string line(length, 'x');
        expect_filled(line + "\n" + line, {}, line + "\n" + line);
    }
}

TEST(print_html, FillsBothPiecesOfALineOf1500Characters) {
    const std::string head(1000, 'x');
    const std::string tail(480, 'y');
    expect_filled(head + "$a" + tail + "$b\n", {{"a", "1"}, {"b", "2"}}, head + "1" + tail + "2\n");
}

TEST(print_html, FillsAMarkerAtTheEndOfAPiece) {
    const std::string head(1020, 'x');
    expect_filled(head + "$abc$ab\n", {{"ab", "1"}, {"ab", "2"}}, head + "1c2\n");
}

TEST(print_html, DoesNotFillAMarkerSplitBetweenTwoPieces) {
    for (const std::size_t in_first_piece : {1U, 2U, 3U}) {
        SCOPED_TRACE(in_first_piece);
        const std::string head(piece_size - in_first_piece, 'x');
        const Fields fields{{"abc", "1"}};
        expect_filled(head + "$abc\n", fields, head + "$abc\n", fields);
    }
    const std::string head(piece_size - 4, 'x');
    expect_filled(head + "$abc\n", {{"abc", "1"}}, head + "1\n");
}

TEST(print_html, FillsASplitMarkerFromAFieldWhoseNameIsInTheFirstPiece) {
    const std::string head(piece_size - 3, 'x');
    expect_filled(head + "$abc\n", {{"abc", "1"}, {"ab", "2"}}, head + "2c\n", {{"abc", "1"}});
}

TEST(print_html, FillsASplitMarkerFromAFieldWithAnEmptyName) {
    const std::string head(piece_size - 1, 'x');
    expect_filled(head + "$abc\n", {{"abc", "1"}, {"", "2"}}, head + "2abc\n", {{"abc", "1"}});
}

TEST(print_html, SkipsNothingOfTheNextPieceAfterAnEmptyValue) {
    const std::string head(piece_size - 2, 'x');
    expect_filled(head + "$a$b\n", {{"a", ""}, {"b", "1"}}, head + "1\n");
}

TEST(print_html, DoesNotTruncateValuesOf4096Characters) {
    const std::string value(CORVEL_FIELD_VALUE_SIZE - 1, 'v');
    expect_filled("<$a>$b</$c>\n", {{"a", value}, {"b", value}, {"c", value}},
                  "<" + value + ">" + value + "</" + value + ">\n");
    const std::string head(1020, 'x');
    expect_filled(head + "$a\n", {{"a", value}}, head + value + "\n");
}

TEST(print_html, DoesNotTruncateALineOfHundredsOfKilobytes) {
    for (const std::size_t marker_at : {1U, 2000U, 4090U}) {
        SCOPED_TRACE(marker_at);
        Fields fields;
        for (int level = 0; level < 150; ++level) {
            std::string value(CORVEL_FIELD_VALUE_SIZE - 1, static_cast<char>('A' + level % 26));
            const std::string marker = numbered("$f", level + 1001);
            value.replace(marker_at, marker.size(), marker);
            value.resize(CORVEL_FIELD_VALUE_SIZE - 1);
            fields.emplace_back(numbered("f", level + 1000), value);
        }
        const std::string page_template = "<$f1000>\n$f1000\n";
        const Filled expected = model_of(page_template, fields);
        ASSERT_GT(expected.page.size(), 600000U);
        EXPECT_TRUE(filled(page_template, fields) == expected);
    }
}

TEST(print_html, FillsSeveralMarkersInEachNestedValue) {
    Fields fields;
    for (int i = 0; i < 200; ++i) {
        fields.emplace_back(numbered("f", 1000 + i),
                            std::string(1000, 'x') + numbered("$f", 1001 + 2 * i) +
                                std::string(1000, 'y') + numbered("$f", 1002 + 2 * i));
    }
    const Filled expected = model_of("$f1000\n", fields);
    ASSERT_TRUE(expected.left.empty());
    EXPECT_TRUE(filled("$f1000\n", fields) == expected);
}

TEST(print_html, DoesNotFillAnIncompleteMarkerAtTheEndOfAGrownLine) {
    const std::string value(CORVEL_FIELD_VALUE_SIZE - 1, 'v');
    std::string outer = value;
    outer.replace(1, 2, "$b");
    const Fields fields{{"a", outer}, {"b", value}, {"xyz", "1"}};
    const std::string filled_outer = "v" + value + outer.substr(3);
    expect_filled("<$a>$xy", fields, "<" + filled_outer + ">$xy", {{"xyz", "1"}});
    expect_filled("<$a>$", fields, "<" + filled_outer + ">$", {{"xyz", "1"}});
}

TEST(print_html, FillsThousandsOfMarkersFromThousandsOfFields) {
    Fields fields;
    std::string page_template;
    std::string page;
    for (int i = 0; i < 3000; ++i) {
        const std::string name = numbered("name", 10000 + i);
        fields.emplace_back(name, numbered("value", i));
        page_template += "<td>$" + name + (i % 7 == 0 ? "</td>\n" : "</td>");
        page += numbered("<td>value", i) + (i % 7 == 0 ? "</td>\n" : "</td>");
    }
    EXPECT_TRUE(filled(page_template, fields) == (Filled{page, {}, 0}));
}

// --- print_html: the template's file and memory ---

TEST(print_html, PrintsNothingAndKeepsTheListForAMissingTemplate) {
    const TemporaryDirectory directory;
    const Fields fields{{"a", "1"}};
    EXPECT_EQ(filled_from(directory.path("missing.html"), fields), (Filled{"", fields, 0}));
    EXPECT_EQ(filled_from("", fields), (Filled{"", fields, 0}));
}

TEST(print_html, TreatsANullPathAsAMissingTemplate) {
    OwnedList list(Fields{{"a", "1"}});
    EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(print_html(nullptr, list.address()), 0); }), "");
    EXPECT_EQ(contents(list.head()), (Fields{{"a", "1"}}));
}

TEST(print_html, TreatsANullListAsEmpty) {
    const TemporaryDirectory directory;
    directory.write("page.html", "<h1>$title</h1>\n");
    EXPECT_EQ(capture_stdout(
                  [&] { EXPECT_EQ(print_html(directory.path("page.html").c_str(), nullptr), 0); }),
              "<h1>$title</h1>\n");
}

TEST(print_html, TreatsADirectoryAsAMissingTemplate) {
    const TemporaryDirectory directory;
    const Fields fields{{"a", "1"}};
    EXPECT_EQ(filled_from(directory.path(), fields), (Filled{"", fields, 0}));
}

TEST(print_html, FreesTheRecordsThatItRemoves) {
    const TemporaryDirectory directory;
    directory.write("page.html", "$a $b $a\n");
    const std::string path = directory.path("page.html");
    for_each_allocation_failure([&](AllocationTrial &trial) {
        str_node *list = nullptr;
        const std::string page = capture_stdout([&] {
            trial.run([&] {
                for (const char *name : {"a", "b", "c"})
                    add_str(&list, name, "1");
                print_html(path.c_str(), &list);
            });
        });
        if (!trial.failed()) {
            EXPECT_EQ(page, "1 1 $a\n");
        }
        free_list(&list);
    });
}

// Values that do not fit the buffer of a line and one value are stored on the heap.
TEST(print_html, PrintsAValueWithItsMarkersAndTruncatesNothingIfOutOfMemory) {
    const TemporaryDirectory directory;
    const std::string long_a(4000, 'A');
    const std::string long_b(4000, 'B');
    const Fields fields{{"a", "x$b$d" + long_a}, {"b", "y$c" + long_b}, {"c", "1"}, {"d", "2"}};
    const Filled whole{"<xy1" + long_b + "2" + long_a + ">\n$a\n", {}, 0};
    const Filled without_c{"<xy$c" + long_b + "2" + long_a + ">\n$a\n", {{"c", "1"}}, 0};
    const Filled unreadable{"", fields, 0};
    directory.write("page.html", "<$a>\n$a\n");
    const std::string path = directory.path("page.html");

    const auto run = [&](AllocationTrial &trial) {
        OwnedList list(fields);
        Filled result;
        result.page = capture_stdout([&] {
            result.result = trial.run([&] { return print_html(path.c_str(), list.address()); });
        });
        result.left = contents(list.head());
        return result;
    };
    const auto of_the_library = [&](AllocationTrial &trial) {
        const Filled result = run(trial);
        EXPECT_TRUE(result == (trial.failed() ? without_c : whole)) << trial.n();
    };
    EXPECT_EQ(for_each_allocation_failure(of_the_library, Allocations::outside_c_library), 1U);
    for_each_allocation_failure([&](AllocationTrial &trial) {
        const Filled result = run(trial);
        EXPECT_TRUE(result == whole ||
                    (trial.failed() && (result == without_c || result == unreadable)))
            << trial.n();
    });
}

TEST(print_html, ClosesTheTemplate) {
    const TemporaryDirectory directory;
    directory.write("page.html", "$a\n");
    const DescriptorWatch descriptors;
    for (int i = 0; i < 10; ++i) {
        filled_from(directory.path("page.html"), {{"a", "1"}});
        filled_from(directory.path("missing.html"), {});
        filled_from(directory.path(), {});
    }
}

TEST(print_html, PrintsInOrderWithTheOutputOfTheProgram) {
    const TemporaryDirectory directory;
    directory.write("page.html", "<$a>\n");
    OwnedList list(Fields{{"a", std::string(CORVEL_FIELD_VALUE_SIZE - 1, 'v')}});
    const std::string output = capture_stdout([&] {
        std::printf("Content-Type: text/html\r\n\r\n");
        print_html(directory.path("page.html").c_str(), list.address());
        std::printf("<!-- end -->");
    });
    EXPECT_EQ(output, "Content-Type: text/html\r\n\r\n<" +
                          std::string(CORVEL_FIELD_VALUE_SIZE - 1, 'v') + ">\n<!-- end -->");
}

TEST(print_html, LeavesAListThatFillsASecondTemplate) {
    const TemporaryDirectory directory;
    directory.write("head.html", "$a\n");
    directory.write("body.html", "$a $b\n");
    OwnedList list(Fields{{"a", "1"}, {"b", "2"}, {"c", "3"}});
    const std::string output = capture_stdout([&] {
        print_html(directory.path("head.html").c_str(), list.address());
        print_html(directory.path("body.html").c_str(), list.address());
    });
    EXPECT_EQ(output, "1\n$a 2\n");
    EXPECT_EQ(contents(list.head()), (Fields{{"c", "3"}}));
}

// --- print_html: comparison with the model ---

TEST(print_html, MatchesTheModelForSmallRandomTemplates) {
    RandomText random(20240511);
    for (int batch = 0; batch < 500; ++batch) {
        std::vector<Page> cases;
        while (cases.size() < 100)
            cases.push_back(small_page(random));
        const std::vector<Filled> results = all_filled(cases);
        for (std::size_t i = 0; i < cases.size(); ++i) {
            ASSERT_EQ(results[i], model_of(cases[i].page_template, cases[i].fields))
                << "template " << testing::PrintToString(cases[i].page_template) << ", list "
                << testing::PrintToString(cases[i].fields);
        }
    }
}

TEST(print_html, MatchesTheModelForRandomTemplatesWithManyDollarSigns) {
    RandomText random(20261122);
    const std::string dollar_signs = many_dollar_signs();
    for (int batch = 0; batch < 20; ++batch) {
        std::vector<Page> cases;
        while (cases.size() < 50) {
            cases.push_back({dollar_signs + random.text("$$$aab\n", 60), {}});
            for (std::size_t count = 1 + random.below(25); count > 0; --count)
                cases.back().fields.emplace_back(random.text(batch % 4 == 0 ? "ab$" : "ab", 4),
                                                 random.text("$$$aab\n", 12));
        }
        const std::vector<Filled> results = all_filled(cases);
        for (std::size_t i = 0; i < cases.size(); ++i)
            ASSERT_EQ(results[i], model_of(cases[i].page_template, cases[i].fields))
                << "list " << testing::PrintToString(cases[i].fields);
    }
}

TEST(print_html, MatchesTheModelForLongRandomTemplates) {
    RandomText random(19700101);
    for (int round = 0; round < 300; ++round) {
        std::string page_template;
        while (page_template.size() < 8000)
            page_template += std::string(random.below(1100), '.') + random.text("$$ab\n", 30);
        Fields fields;
        for (std::size_t count = random.below(60); count > 0; --count)
            fields.emplace_back(random.text("ab", 2),
                                std::string(random.below(4000), '-') + random.text("$$ab\n", 90));
        ASSERT_TRUE(filled(page_template, fields) == model_of(page_template, fields))
            << "round " << round;
    }
}

TEST(print_html, UsesTheFirstFieldWhoseNameIsAPrefixAfterManyDollarSigns) {
    const std::string dollar_signs = many_dollar_signs();
    expect_filled(dollar_signs + "$ipaddr $ipaddr $ipaddr $ipx $i\n",
                  {{"b", "0"}, {"ip", "1"}, {"ipaddr", "2"}, {"ipa", "3"}, {"i", "4"}, {"ip", "5"}},
                  dollar_signs + "1addr 2 3ddr 4px $i\n", {{"b", "0"}, {"ip", "5"}});
}

TEST(print_html, EndsAnUnterminatedNameAtTheEndOfItsArrayAfterManyDollarSigns) {
    const TemporaryDirectory directory;
    const std::string name(sizeof(str_node::name), 'n');
    OwnedList list(Fields{{"a", "1"}, {"b", "2"}});
    std::memset(list.head()->name, 'n', sizeof list.head()->name);
    directory.write("page.html", many_dollar_signs() + "$" + name + "n\n");
    const std::string path = directory.path("page.html");
    const std::string page = capture_stdout([&] { print_html(path.c_str(), list.address()); });
    EXPECT_EQ(page, many_dollar_signs() + "1n\n");
    EXPECT_EQ(contents(list.head()), (Fields{{"b", "2"}}));
}

TEST(print_html, PrintsTheSamePageIfTheIndexCannotBeAllocated) {
    const TemporaryDirectory directory;
    const std::string dollar_signs = many_dollar_signs();
    const Fields fields{{"a", "1"}, {"b", "2"}, {"c", "3"}};
    directory.write("page.html", dollar_signs + "$b" + dollar_signs + "$a\n");
    const std::string path = directory.path("page.html");
    const Filled expected{dollar_signs + "2" + dollar_signs + "1\n", {{"c", "3"}}, 0};
    const unsigned long failures = for_each_allocation_failure(
        [&](AllocationTrial &trial) {
            OwnedList list(fields);
            Filled result;
            result.page = capture_stdout([&] {
                result.result = trial.run([&] { return print_html(path.c_str(), list.address()); });
            });
            result.left = contents(list.head());
            EXPECT_EQ(result, expected) << trial.n();
        },
        Allocations::outside_c_library);
    EXPECT_EQ(failures, 2U);
    const FailCall no_memory(call_allocation, 1, ENOMEM, FailCall::from_then_on);
    EXPECT_EQ(print_html(path.c_str(), nullptr), 0);
}

/** Without an index, every dollar sign in the values would be compared with every field name. */
TEST(print_html, TakesTimeInProportionToItsValuesAndFields) {
    const TemporaryDirectory directory;
    constexpr std::size_t values = 100;
    constexpr std::size_t fields = 20000;
    constexpr rlim_t seconds_allowed = 10;
    std::string markers;
    for (std::size_t i = 0; i < values; ++i)
        markers += numbered("$f", static_cast<int>(fields + i)) + '\n';
    directory.write("page.html", markers);
    const std::string path = directory.path("page.html");
    const std::string value(CORVEL_FIELD_VALUE_SIZE - 1, '$');
    const ChildResult child = run_in_child([&] {
        const rlimit limit{seconds_allowed, seconds_allowed + 1};
        setrlimit(RLIMIT_CPU, &limit);
        str_node *list = nullptr;
        str_node **end = &list;
        for (std::size_t i = fields + values; i-- > 0; end = &(*end)->next)
            add_str(end, numbered("f", static_cast<int>(i)).c_str(),
                    i < fields ? "" : value.c_str());
        print_html(path.c_str(), &list);
        const std::size_t left = contents(list).size();
        free_list(&list);
        return left == fields ? 0 : 1;
    });
    EXPECT_EQ(child.signal, 0) << "takes more than " << seconds_allowed << " seconds";
    EXPECT_EQ(child.exit_status, 0);
    EXPECT_EQ(child.out.size(), values * (value.size() + 1));
}

// --- print_list ---

TEST(print_list, PrintsNothing) {
    const OwnedList list(Fields{{"ip", "10.0.0.1"}, {"%s%n", "%d"}});
    int result = -1;
    std::string errors;
    const std::string output =
        capture_stdout([&] { errors = capture_stderr([&] { result = print_list(list.head()); }); });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(output, "");
    EXPECT_EQ(errors, "");
    EXPECT_EQ(print_list(nullptr), 0);
}

// --- Hidden inputs ---

std::string listed(const str_node *list, int expected_result = 0) {
    return capture_stdout([&] { EXPECT_EQ(generate_hidder_from_list(list), expected_result); });
}

TEST(generate_hidder_from_list, PrintsAnInputWithAMarkerAsItsValueForEachField) {
    const OwnedList list(Fields{{"ip", "10.0.0.1"}, {"mask", ""}, {"ip", "10.0.0.2"}});
    EXPECT_EQ(listed(list.head()), "<input type=\"hidden\" name=\"ip\" value=\"$ip\">\n"
                                   "<input type=\"hidden\" name=\"mask\" value=\"$mask\">\n"
                                   "<input type=\"hidden\" name=\"ip\" value=\"$ip\">\n");
    EXPECT_EQ(contents(list.head()),
              (Fields{{"ip", "10.0.0.1"}, {"mask", ""}, {"ip", "10.0.0.2"}}));
}

TEST(generate_hidder_from_list, PrintsNothingForAnEmptyList) { EXPECT_EQ(listed(nullptr), ""); }

TEST(generate_hidder_from_list, PrintsNamesUnchanged) {
    const std::string longest(CORVEL_FIELD_NAME_SIZE - 1, 'n');
    const OwnedList list(Fields{{"", "1"}, {"a\"<%s>\\", "2"}, {longest, "3"}});
    EXPECT_EQ(listed(list.head()),
              "<input type=\"hidden\" name=\"\" value=\"$\">\n"
              "<input type=\"hidden\" name=\"a\"<%s>\\\" value=\"$a\"<%s>\\\">\n"
              "<input type=\"hidden\" name=\"" +
                  longest + "\" value=\"$" + longest + "\">\n");
}

TEST(generate_hidder_from_list, PrintsATemplateThatTheSameListFills) {
    const TemporaryDirectory directory;
    OwnedList list(Fields{{"ip", "10.0.0.1"}, {"mask", "255.0.0.0"}});
    directory.write("inputs.html", listed(list.head()));
    const std::string page =
        capture_stdout([&] { print_html(directory.path("inputs.html").c_str(), list.address()); });
    EXPECT_EQ(page, "<input type=\"hidden\" name=\"ip\" value=\"10.0.0.1\">\n"
                    "<input type=\"hidden\" name=\"mask\" value=\"255.0.0.0\">\n");
    EXPECT_EQ(list.head(), nullptr);
}

std::string rows_listed(const prop_entry *table, int count) {
    return capture_stdout([&] { EXPECT_EQ(generate_hidder_from_prop(table, count), 0); });
}

std::string rows_listed(const RowTable &table) { return rows_listed(table.data(), table.count()); }

TEST(generate_hidder_from_prop, PrintsABracedMarkerAndThenAQuotedNameForEachRow) {
    const Fields rows{{"ip", "\"10.0.0.1\""}, {"mask", "\"10.0.0.1\""}};
    const RowTable table(rows);
    EXPECT_EQ(rows_listed(table), "<input type=\"hidden\" name=\"ip\" value=\"${ip}\">\n"
                                  "<input type=\"hidden\" name=\"mask\" value=\"${mask}\">\n"
                                  "\"ip\",\n"
                                  "\"mask\",\n");
    EXPECT_EQ(rows_listed(table.data(), 1),
              "<input type=\"hidden\" name=\"ip\" value=\"${ip}\">\n\"ip\",\n");
    EXPECT_EQ(table.strings(), rows);
}

TEST(generate_hidder_from_prop, PrintsNothingForACountOfZeroOrLess) {
    const RowTable table(Fields{{"ip", "ip"}});
    for (const int count : {0, -1, INT_MIN})
        EXPECT_EQ(rows_listed(table.data(), count), "") << count;
    EXPECT_EQ(rows_listed(nullptr, 0), "");
}

TEST(generate_hidder_from_prop, PrintsTheEmptyNameForARowWithoutAName) {
    const std::array<prop_entry, 1> table{};
    EXPECT_EQ(rows_listed(table.data(), 1),
              "<input type=\"hidden\" name=\"\" value=\"${}\">\n\"\",\n");
}

TEST(generate_hidder_from_prop, DoesNotTruncateLongNames) {
    const std::string name(100000, 'n');
    EXPECT_EQ(rows_listed(RowTable(Fields{{name, ""}})), "<input type=\"hidden\" name=\"" + name +
                                                             "\" value=\"${" + name + "}\">\n\"" +
                                                             name + "\",\n");
}

TEST(HiddenInputs, ArePrintedInOrderWithTheOutputOfTheProgram) {
    const OwnedList list(Fields{{"ip", "1"}});
    const RowTable table(Fields{{"ip", ""}});
    const std::string output = capture_stdout([&] {
        std::printf("1");
        generate_hidder_from_list(list.head());
        std::printf("2");
        generate_hidder_from_prop(table.data(), 1);
        std::printf("3");
    });
    EXPECT_EQ(output, "1<input type=\"hidden\" name=\"ip\" value=\"$ip\">\n"
                      "2<input type=\"hidden\" name=\"ip\" value=\"${ip}\">\n\"ip\",\n3");
}

} // namespace
} // namespace corvel_test
