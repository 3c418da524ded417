/* SPDX-License-Identifier: MIT */
#include <corvel_page.h>

#include <climits>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "tests/page/sent_answer.h"
#include "tests/support/stand_in.h"
#include "tests/support/temporary_directory.h"

namespace corvel_test {
namespace {

/** The status and body of a page whose template is `text`. */
SentAnswer filled(const std::string &text, const corvel_data *data) {
    const TemporaryDirectory directory;
    directory.write("page.html", text);
    const std::string path = directory.path();
    corvel_site site{};
    site.templates = path.c_str();
    const PageAnswer answer(&site);
    corvel_answer_template(answer.get(), "page", data);
    return answer.send();
}

/** Values that are freed at the end. */
class Data {
  public:
    Data() : data_(corvel_data_new()) {}
    ~Data() { corvel_data_free(data_); }
    Data(const Data &) = delete;
    Data &operator=(const Data &) = delete;
    [[nodiscard]] corvel_data *get() const { return data_; }

  private:
    corvel_data *data_;
};

TEST(corvel_data_new, IsNullWithoutMemory) {
    EXPECT_EQ(for_each_allocation_failure([](AllocationTrial &trial) {
                  corvel_data *const data = trial.run([] { return corvel_data_new(); });
                  EXPECT_EQ(data == nullptr, trial.failed());
                  corvel_data_free(data);
              }),
              1U);
}

TEST(corvel_data_set, CopiesNameAndValue) {
    const Data data;
    std::string name = "name";
    std::string value = "value";
    corvel_data_set(data.get(), name.c_str(), value.c_str());
    name[0] = value[0] = 'X';
    EXPECT_EQ(filled("{{name}}", data.get()).body, "value");
}

TEST(corvel_data_set, ReplacesAnEarlierValue) {
    const Data data;
    corvel_data_set(data.get(), "a", "0");
    corvel_data_set(data.get(), "b", "other");
    const std::string longer(300, 'x');
    for (const std::string &value :
         {std::string("first"), longer, std::string("3"), std::string(), longer + "y"}) {
        corvel_data_set(data.get(), "a", value.c_str());
        EXPECT_EQ(filled("{{a}},{{b}}", data.get()).body, value + ",other");
    }
}

TEST(corvel_data_set, OfNullSetsAnEmptyValue) {
    const Data data;
    corvel_data_set(data.get(), "a", "outer");
    corvel_data_set(corvel_data_add(data.get(), "rows"), "a", nullptr);
    EXPECT_EQ(filled("{{#rows}}[{{a}}]{{/rows}}", data.get()).body, "[]");
}

TEST(corvel_data_set, KeepsManyNamesApart) {
    const Data data;
    std::string text;
    std::string expected;
    for (int i = 0; i < 2000; ++i) {
        const std::string name = "name" + std::to_string(i * 7919);
        corvel_data_set_integer(data.get(), name.c_str(), i);
        text += "{{" + name + "}},";
        expected += std::to_string(i) + ",";
    }
    EXPECT_EQ(filled(text, data.get()).body, expected);
}

TEST(corvel_data_set, KeepsNamesOfEqualHashApart) {
    // 32-bit FNV-1a gives "costarring" and "liquid" the same hash.
    const Data data;
    corvel_data_set(data.get(), "costarring", "1");
    corvel_data_set(data.get(), "liquid", "2");
    EXPECT_EQ(filled("{{costarring}}{{liquid}}", data.get()).body, "12");
}

TEST(corvel_data_set, WithinItsLimitAcceptsALongValue) {
    const Data data;
    const std::string value(CORVEL_DATA_MAX / 2, 'x');
    corvel_data_set(data.get(), "a", value.c_str());
    EXPECT_EQ(filled("{{a}}", data.get()).body, value);
    corvel_data_set(data.get(), "b", value.c_str());
    const RecordSyslog log;
    EXPECT_EQ(filled("", data.get()).status(), "500 Internal Server Error");
}

TEST(corvel_data_set, LeavesTheValuesIncompleteOnceItFailed) {
    const Data data;
    corvel_data_set(data.get(), "a", std::string(CORVEL_DATA_MAX, 'x').c_str());
    for (int i = 0; i < 1000; ++i)
        corvel_data_set_integer(data.get(), ("n" + std::to_string(i)).c_str(), i);
    const RecordSyslog log;
    EXPECT_EQ(filled("", data.get()).status(), "500 Internal Server Error");
}

TEST(corvel_data_set, FailsBeyondItsLimitAndDoesNotAllocateMore) {
    const Data data;
    const CountCalls allocated(call_allocation);
    for (int i = 0; i < 200'000; ++i)
        corvel_data_add(data.get(), "rows");
    const unsigned long before = allocated.count();
    for (int i = 0; i < 100'000; ++i) {
        corvel_data_add(data.get(), "rows");
        corvel_data_set_integer(data.get(), ("n" + std::to_string(i)).c_str(), i);
    }
    EXPECT_LE(before, CORVEL_DATA_MAX / 1000U);
    const RecordSyslog log;
    EXPECT_EQ(filled("", data.get()).status(), "500 Internal Server Error");
    EXPECT_EQ(corvel_data_add(data.get(), "rows"), nullptr);
}

TEST(corvel_data_set_integer, WritesDecimalDigits) {
    const Data data;
    corvel_data_set_integer(data.get(), "a", LLONG_MIN);
    corvel_data_set_integer(data.get(), "b", LLONG_MAX);
    corvel_data_set_integer(data.get(), "c", 0);
    EXPECT_EQ(filled("{{a}} {{b}} {{c}}", data.get()).body,
              "-9223372036854775808 9223372036854775807 0");
}

TEST(corvel_data_add, KeepsTheOrder) {
    const Data data;
    for (int i = 0; i < 5; ++i)
        corvel_data_set_integer(corvel_data_add(data.get(), "rows"), "n", i);
    EXPECT_EQ(filled("{{#rows}}{{n}}{{/rows}}", data.get()).body, "01234");
}

TEST(corvel_data_add, NestsToAnyDepth) {
    const Data data;
    corvel_data *level = data.get();
    for (int i = 0; i < 20'000; ++i)
        level = corvel_data_add(level, "a");
    ASSERT_NE(level, nullptr);
    EXPECT_EQ(filled("{{#a}}{{#a}}x{{/a}}{{/a}}", data.get()).body, "x");
}

TEST(corvel_data_free, IgnoresARepetition) {
    const Data data;
    corvel_data *const row = corvel_data_add(data.get(), "rows");
    corvel_data_free(row);
    corvel_data_set(row, "a", "x");
    EXPECT_EQ(filled("{{#rows}}{{a}}{{/rows}}", data.get()).body, "x");
}

TEST(corvel_data, AcceptsNullEverywhere) {
    corvel_data_free(nullptr);
    corvel_data_set(nullptr, "a", "b");
    corvel_data_set_integer(nullptr, "a", 1);
    EXPECT_EQ(corvel_data_add(nullptr, "a"), nullptr);
    const Data data;
    corvel_data_set(data.get(), nullptr, "b");
    const RecordSyslog log;
    EXPECT_EQ(filled("", data.get()).status(), "500 Internal Server Error");
}

} // namespace
} // namespace corvel_test
