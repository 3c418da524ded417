/* SPDX-License-Identifier: MIT */
#include <corvel_page.h>

#include <array>
#include <cfloat>
#include <climits>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

#include "tests/page/sent_answer.h"
#include "tests/support/environment.h"
#include "tests/support/stand_in.h"
#include "tests/support/temporary_directory.h"

namespace corvel_test {
namespace {

using Page = std::function<void(corvel_answer *)>;

/** What the calls of a page write; no other text. */
std::string json_of(const Page &page) { return answer_of(page).body; }

void expect_misuse(const Page &page, const std::string &reason) {
    const RecordSyslog log;
    const SentAnswer sent = answer_of(page);
    EXPECT_EQ(sent.status(), "500 Internal Server Error");
    EXPECT_EQ(sent.values("Content-Type").at(0), "text/html; charset=utf-8");
    EXPECT_EQ(RecordSyslog::messages(), (std::vector<RecordSyslog::Message>{{3, reason}}));
}

const std::string no_name = "A member of a JSON object has no name.";
const std::string needless_name = "A JSON value that is not a member of an object has a name.";

/** Every kind of value, to be written with a name or without. */
const std::vector<std::function<void(corvel_answer *, const char *)>> kinds{
    [](corvel_answer *answer, const char *name) {
        corvel_json_open_object(answer, name);
        corvel_json_close(answer);
    },
    [](corvel_answer *answer, const char *name) {
        corvel_json_open_array(answer, name);
        corvel_json_close(answer);
    },
    [](corvel_answer *answer, const char *name) { corvel_json_string(answer, name, "a"); },
    [](corvel_answer *answer, const char *name) { corvel_json_string(answer, name, nullptr); },
    [](corvel_answer *answer, const char *name) { corvel_json_integer(answer, name, 1); },
    [](corvel_answer *answer, const char *name) { corvel_json_decimal(answer, name, 0.5); },
    [](corvel_answer *answer, const char *name) { corvel_json_decimal(answer, name, NAN); },
    [](corvel_answer *answer, const char *name) { corvel_json_boolean(answer, name, true); },
    corvel_json_null};

// -------------------------------------------------------------------------------- structure -----

TEST(corvel_json_open_object, HasMembersOfEveryKindInOrder) {
    const SentAnswer sent = answer_of([](corvel_answer *answer) {
        corvel_json_open_object(answer, nullptr);
        for (const auto &write : kinds)
            write(answer, "x");
        corvel_json_close(answer);
    });
    EXPECT_EQ(sent.body, R"({"x":{},"x":[],"x":"a","x":null,"x":1,"x":0.5,"x":null,"x":true,)"
                         R"("x":null})");
    EXPECT_EQ(sent.values("Content-Type").at(0), "application/json");
}

TEST(corvel_json_open_array, HasElementsOfEveryKindInOrder) {
    EXPECT_EQ(json_of([](corvel_answer *answer) {
                  corvel_json_open_array(answer, nullptr);
                  for (const auto &write : kinds)
                      write(answer, nullptr);
                  corvel_json_close(answer);
              }),
              R"([{},[],"a",null,1,0.5,null,true,null])");
}

TEST(corvel_json_open_object, NestsWithArrays) {
    EXPECT_EQ(json_of([](corvel_answer *answer) {
                  corvel_json_open_array(answer, nullptr);
                  corvel_json_open_object(answer, nullptr);
                  corvel_json_open_array(answer, "a");
                  corvel_json_integer(answer, nullptr, 1);
                  corvel_json_open_object(answer, nullptr);
                  corvel_json_close(answer);
                  corvel_json_close(answer);
                  corvel_json_integer(answer, "b", 2);
                  corvel_json_close(answer);
                  corvel_json_integer(answer, nullptr, 3);
                  corvel_json_close(answer);
              }),
              R"([{"a":[1,{}],"b":2},3])");
}

TEST(corvel_json, IsOneValueOfAnyKind) {
    const std::array<const char *, 9> expected{"{}",  "[]",   "\"a\"", "null", "1",
                                               "0.5", "null", "true",  "null"};
    for (std::size_t i = 0; i < kinds.size(); ++i) {
        const SentAnswer sent =
            answer_of([&](corvel_answer *answer) { kinds[i](answer, nullptr); });
        EXPECT_EQ(sent.body, expected[i]);
        EXPECT_EQ(sent.values("Content-Type").at(0), "application/json");
    }
}

TEST(corvel_json, KeepsATypeThatThePageHasSet) {
    EXPECT_EQ(answer_of([](corvel_answer *answer) {
                  corvel_answer_type(answer, "application/problem+json");
                  corvel_json_null(answer, nullptr);
              })
                  .values("Content-Type")
                  .at(0),
              "application/problem+json");
}

TEST(corvel_json, CanBeEmbeddedSeveralTimes) {
    const auto write = [](corvel_answer *answer, const std::string &text) {
        corvel_answer_write(answer, text.data(), text.size());
    };
    const std::string script = "<script type=\"application/json\">";
    const SentAnswer sent = answer_of([&](corvel_answer *answer) {
        write(answer, "<!DOCTYPE html><title>a</title>" + script);
        corvel_json_string(answer, nullptr, "</script><!--<script>");
        write(answer, "</script>" + script);
        corvel_json_open_array(answer, nullptr);
        corvel_json_string(answer, nullptr, "<b>");
        corvel_json_close(answer);
        write(answer, "</script>");
    });
    EXPECT_EQ(sent.values("Content-Type").at(0), "text/html; charset=utf-8");
    EXPECT_EQ(parsed_html({sent.body}),
              std::vector<std::string>{
                  R"([[],[["html",{},""],["head",{},""],["title",{},"a"],)"
                  R"(["script",{"type":"application/json"},)"
                  R"("\"\\u003c/script>\\u003c!--\\u003cscript>\""],)"
                  R"(["script",{"type":"application/json"},"[\"\\u003cb>\"]"],["body",{},""]]])"});
}

TEST(corvel_json, WithoutANameInAnObjectIsAMisuse) {
    for (const auto &write : kinds)
        expect_misuse(
            [&](corvel_answer *answer) {
                corvel_json_open_object(answer, nullptr);
                write(answer, nullptr);
            },
            no_name);
}

TEST(corvel_json, WithANameOutsideAnObjectIsAMisuse) {
    for (const auto &write : kinds) {
        expect_misuse([&](corvel_answer *answer) { write(answer, "a"); }, needless_name);
        expect_misuse(
            [&](corvel_answer *answer) {
                corvel_json_open_array(answer, nullptr);
                write(answer, "a");
            },
            needless_name);
        expect_misuse(
            [&](corvel_answer *answer) {
                corvel_json_open_object(answer, nullptr);
                corvel_json_open_array(answer, "b");
                write(answer, "");
            },
            needless_name);
    }
}

TEST(corvel_json, OfASecondValueIsAMisuse) {
    for (const auto &write : kinds)
        expect_misuse(
            [&](corvel_answer *answer) {
                write(answer, nullptr);
                write(answer, nullptr);
            },
            "A JSON body has more than one value.");
}

TEST(corvel_json_close, WithoutAnOpenIsAMisuse) {
    const std::string reason = "No JSON array or object is open.";
    expect_misuse([](corvel_answer *answer) { corvel_json_close(answer); }, reason);
    expect_misuse(
        [](corvel_answer *answer) {
            corvel_json_open_array(answer, nullptr);
            corvel_json_close(answer);
            corvel_json_close(answer);
        },
        reason);
}

TEST(corvel_json_close, IsNeededBeforeTheAnswerIsSent) {
    for (const auto open : {corvel_json_open_array, corvel_json_open_object})
        expect_misuse([&](corvel_answer *answer) { open(answer, nullptr); },
                      "A JSON array or object is not closed.");
}

TEST(corvel_json, WithOtherTextIsAMisuse) {
    const std::vector<Page> texts{
        [](corvel_answer *answer) { corvel_answer_write(answer, "\n", 1); },
        [](corvel_answer *answer) { corvel_answer_html(answer, "a"); },
        [](corvel_answer *answer) {
            corvel_answer_template(answer, "a", nullptr);
        }};
    const std::string reason = "Something other than JSON was appended to a JSON body.";
    for (const Page &text : texts) {
        expect_misuse(
            [&](corvel_answer *answer) {
                corvel_json_null(answer, nullptr);
                text(answer);
            },
            reason);
        expect_misuse(
            [&](corvel_answer *answer) {
                corvel_answer_html(answer, "embedded ");
                corvel_json_open_array(answer, nullptr);
                text(answer);
                corvel_json_close(answer);
            },
            reason);
    }
}

TEST(corvel_json, NestsUpTo32Levels) {
    for (const bool is_object : {false, true}) {
        const auto open = [&](corvel_answer *answer, int levels) {
            for (int level = 0; level < levels; ++level) {
                if (is_object)
                    corvel_json_open_object(answer, level == 0 ? nullptr : "a");
                else
                    corvel_json_open_array(answer, nullptr);
            }
        };
        std::string expected;
        for (int level = 0; level < 32; ++level)
            expected += is_object ? (level == 0 ? "{" : "\"a\":{") : "[";
        expected += std::string(32, is_object ? '}' : ']');
        EXPECT_EQ(json_of([&](corvel_answer *answer) {
                      open(answer, 32);
                      for (int level = 0; level < 32; ++level)
                          corvel_json_close(answer);
                  }),
                  expected);
        expect_misuse([&](corvel_answer *answer) { open(answer, 33); },
                      "JSON arrays and objects are nested too deeply.");
    }
}

TEST(corvel_json, AcceptsNullEverywhere) {
    for (const auto &write : kinds)
        write(nullptr, nullptr);
}

// ----------------------------------------------------------------------------------- strings ----

std::string string_of(const std::string &text) {
    return json_of(
        [&](corvel_answer *answer) { corvel_json_string(answer, nullptr, text.c_str()); });
}

TEST(corvel_json_string, EscapesWhatJsonOrHtmlNeeds) {
    EXPECT_EQ(string_of("\"\\/"), R"("\"\\/")");
    EXPECT_EQ(string_of("</script>"), R"("\u003c/script>")");
    EXPECT_EQ(string_of("\b\t\n\f\r\x01\x1F\x7F"), R"("\u0008\u0009\u000A\u000C\u000D\u0001\u001F)"
                                                   "\x7F\"");
    EXPECT_EQ(string_of("a\u2028b\u2029c\u202F"), "\"a\\u2028b\\u2029c\u202F\"");
    EXPECT_EQ(string_of(""), "\"\"");
}

TEST(corvel_json_string, KeepsOtherCharacters) {
    for (const char *text :
         {"x$token", "{{token}}", "{{#a}}", "'&>", "\u00E9\uFFFD\U0001F600\u0085", "${a}`", "%s%n"})
        EXPECT_EQ(string_of(text), "\"" + std::string(text) + "\"");
}

TEST(corvel_json_string, ReplacesMalformedBytes) {
    EXPECT_EQ(string_of("a\xFFz\xC3"), "\"a\uFFFDz\uFFFD\"");
    EXPECT_EQ(string_of("\xED\xA0\x80"), "\"\uFFFD\uFFFD\uFFFD\"");
    EXPECT_EQ(string_of("\xED\xB0\x80\""), "\"\uFFFD\uFFFD\uFFFD\\\"\"");
    EXPECT_EQ(string_of("\xC0\xA2"), "\"\uFFFD\uFFFD\"");
    EXPECT_EQ(string_of("\xE2\x80"), "\"\uFFFD\uFFFD\"");
}

TEST(corvel_json_string, IsReadBackByAParser) {
    const SentAnswer sent = answer_of([](corvel_answer *answer) {
        corvel_json_open_object(answer, nullptr);
        corvel_json_string(answer, "x$token\"\\\n<", "{{#a}}</script>\"'\\\u2028\x01\xED\xA0\x80");
        corvel_json_string(answer, "", "\xF0\x9F\x98\x80\xFF");
        corvel_json_close(answer);
    });
    EXPECT_EQ(parsed_json(sent.body),
              R"({"x$token\"\\\n<":"{{#a}}</script>\"'\\\u2028\u0001\ufffd\ufffd\ufffd",)"
              R"("":"\ud83d\ude00\ufffd"})");
}

TEST(corvel_json_string, OfEveryByteIsReadBackByAParser) {
    std::string all;
    for (int byte = 1; byte < 256; ++byte)
        all += static_cast<char>(byte);
    std::string expected = "\"";
    for (int byte = 1; byte < 128; ++byte) {
        const char character = static_cast<char>(byte);
        const std::array<const char *, 5> letters{"\\b", "\\t", "\\n", "\\f", "\\r"};
        const std::size_t letter = std::string_view("\b\t\n\f\r").find(character);
        std::array<char, 8> code{};
        std::snprintf(code.data(), code.size(), "\\u%04x", static_cast<unsigned>(byte));
        if (letter != std::string_view::npos)
            expected += letters[letter];
        else if (byte < 0x20 || byte == 0x7F)
            expected += code.data();
        else
            expected +=
                (character == '"' || character == '\\' ? "\\" : "") + std::string(1, character);
    }
    for (int byte = 128; byte < 256; ++byte)
        expected += "\\ufffd";
    EXPECT_EQ(parsed_json(string_of(all)), expected + "\"");
}

// ----------------------------------------------------------------------------------- numbers ----

TEST(corvel_json_integer, WritesEveryDigit) {
    const auto integer_of = [](long long value) {
        return json_of([&](corvel_answer *answer) { corvel_json_integer(answer, nullptr, value); });
    };
    EXPECT_EQ(integer_of(0), "0");
    EXPECT_EQ(integer_of(-1), "-1");
    EXPECT_EQ(integer_of(LLONG_MAX), "9223372036854775807");
    EXPECT_EQ(integer_of(LLONG_MIN), "-9223372036854775808");
}

TEST(corvel_json_boolean, WritesTrueOrFalse) {
    for (const bool value : {true, false})
        EXPECT_EQ(
            json_of([&](corvel_answer *answer) { corvel_json_boolean(answer, nullptr, value); }),
            value ? "true" : "false");
}

std::string decimal_of(double value) {
    return json_of([&](corvel_answer *answer) { corvel_json_decimal(answer, nullptr, value); });
}

TEST(corvel_json_decimal, WritesAsManyDigitsAsNeeded) {
    EXPECT_EQ(decimal_of(0.1), "0.1");
    EXPECT_EQ(decimal_of(-2.5), "-2.5");
    EXPECT_EQ(decimal_of(3), "3");
    EXPECT_EQ(decimal_of(-0.0), "-0");
    EXPECT_EQ(decimal_of(1e300), "1e+300");
    EXPECT_EQ(decimal_of(1e-7), "1e-07");
    EXPECT_EQ(decimal_of(0.1 + 0.2), "0.30000000000000004");
    EXPECT_EQ(decimal_of(1.0 / 3), "0.3333333333333333");
    EXPECT_EQ(decimal_of(DBL_MAX), "1.7976931348623157e+308");
    EXPECT_EQ(decimal_of(4.9406564584124654e-324), "4.94065645841247e-324");
}

TEST(corvel_json_decimal, WritesNullForWhatJsonDoesNotHave) {
    for (const double value : std::array<double, 4>{NAN, -NAN, HUGE_VAL, -HUGE_VAL})
        EXPECT_EQ(decimal_of(value), "null");
}

TEST(corvel_json_decimal, IsReadBackAsTheSameNumber) {
    std::mt19937_64 random(1);
    std::string text = "[";
    std::vector<double> numbers;
    for (int i = 0; i < 2000; ++i) {
        const std::uint64_t bits = random();
        double number = 0;
        std::memcpy(&number, &bits, sizeof number);
        if (!std::isfinite(number))
            continue;
        const std::string written = decimal_of(number);
        EXPECT_EQ(std::strtod(written.c_str(), nullptr), number) << written;
        EXPECT_LE(written.size(), 24U);
        text += (numbers.empty() ? "" : ",") + written;
        numbers.push_back(number);
    }
    EXPECT_GT(numbers.size(), 1900U);
    EXPECT_EQ(parsed_json(text + "]").front(), '[');
}

/** A locale with a decimal separator, such as "<U002C>", current during its lifetime. */
class Locale {
  public:
    explicit Locale(const std::string &separator) : path_("LOCPATH", directory_.path()) {
        directory_.write("source", "LC_NUMERIC\ndecimal_point \"" + separator +
                                       "\"\nthousands_sep \"\"\ngrouping -1\nEND LC_NUMERIC\n");
        // The other categories are missing, which is a warning.
        const std::string command = "localedef -c -i '" + directory_.path("source") +
                                    "' -f UTF-8 '" + directory_.path("test.UTF-8") + "'";
        EXPECT_GE(std::system((command + " >/dev/null 2>&1").c_str()), 0);
        is_set_ = std::setlocale(LC_NUMERIC, "test.UTF-8") != nullptr;
    }
    ~Locale() { std::setlocale(LC_NUMERIC, "C"); }
    Locale(const Locale &) = delete;
    Locale &operator=(const Locale &) = delete;

    [[nodiscard]] bool is_set() const { return is_set_; }

  private:
    TemporaryDirectory directory_;
    EnvironmentVariable path_;
    bool is_set_ = false;
};

TEST(corvel_json_decimal, HasAPointInEveryLocale) {
#ifdef __GLIBC__
    const std::array<std::pair<const char *, const char *>, 2> separators{
        {{"<U002C>", ","}, {"<U066B>", "\u066B"}}};
    for (const auto &[separator, text] : separators) {
        const Locale locale(separator);
        ASSERT_TRUE(locale.is_set()) << separator;
        ASSERT_STREQ(std::localeconv()->decimal_point, text);
        EXPECT_EQ(decimal_of(0.1), "0.1");
        EXPECT_EQ(decimal_of(-1234567.5), "-1234567.5");
        EXPECT_EQ(decimal_of(1.0 / 3), "0.3333333333333333");
        EXPECT_EQ(decimal_of(1.5e300), "1.5e+300");
    }
#else
    // This C library has a point in every locale.
    EXPECT_EQ(decimal_of(0.1), "0.1");
#endif
}

// ----------------------------------------------------------------------------- whole documents --

/** Writes a random value and appends what a parser should read to `expected`. */
void write_random(corvel_answer *answer, const char *name, std::mt19937 &random, int depth,
                  std::string &expected) {
    const auto kind = random() % (depth < 6 ? 6 : 4);
    const int value = static_cast<int>(random() % 1000);
    switch (kind) {
    case 0:
        corvel_json_string(answer, name, ("<" + std::to_string(value)).c_str());
        expected += "\"<" + std::to_string(value) + "\"";
        return;
    case 1:
        corvel_json_integer(answer, name, value);
        expected += std::to_string(value);
        return;
    case 2:
        corvel_json_boolean(answer, name, value % 2 != 0);
        expected += value % 2 != 0 ? "true" : "false";
        return;
    case 3:
        corvel_json_null(answer, name);
        expected += "null";
        return;
    default:
        break;
    }
    const bool is_object = kind == 5;
    is_object ? corvel_json_open_object(answer, name) : corvel_json_open_array(answer, name);
    expected += is_object ? '{' : '[';
    for (int i = 0; i < value % 6; ++i) {
        const std::string member = "\"" + std::to_string(i);
        expected += i == 0 ? "" : ",";
        expected += is_object ? "\"\\" + member + "\":" : "";
        write_random(answer, is_object ? member.c_str() : nullptr, random, depth + 1, expected);
    }
    corvel_json_close(answer);
    expected += is_object ? '}' : ']';
}

TEST(corvel_json, OfAnyStructureIsReadBackByAParser) {
    for (unsigned seed = 0; seed < 8; ++seed) {
        std::mt19937 random(seed);
        std::string expected = "[";
        const std::string text = json_of([&](corvel_answer *answer) {
            corvel_json_open_array(answer, nullptr);
            for (int i = 0; i < 40; ++i) {
                expected += i == 0 ? "" : ",";
                write_random(answer, nullptr, random, 1, expected);
            }
            corvel_json_close(answer);
        });
        EXPECT_EQ(parsed_json(text), expected + "]");
    }
}

TEST(corvel_json, IsNeverTruncatedWithoutMemory) {
    stand_in_syslog = [](int, const char *) {
    };
    const unsigned long failures = for_each_allocation_failure([](AllocationTrial &trial) {
        const std::string text(1000, '"');
        corvel_answer *const answer = corvel_answer_new(nullptr, nullptr);
        trial.run([&] {
            corvel_json_open_array(answer, nullptr);
            for (int i = 0; i < 20; ++i)
                corvel_json_string(answer, nullptr, text.c_str());
            corvel_json_close(answer);
        });
        const SentAnswer sent(capture_stdout([&] { EXPECT_TRUE(corvel_answer_send(answer)); }));
        EXPECT_EQ(sent.status(), trial.failed() ? "500 Internal Server Error" : "200 OK");
        corvel_answer_free(answer);
    });
    stand_in_syslog = nullptr;
    EXPECT_GE(failures, 5U);
}

} // namespace
} // namespace corvel_test
