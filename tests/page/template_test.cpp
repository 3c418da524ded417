/* SPDX-License-Identifier: MIT */
#include <corvel_page.h>

#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "tests/page/sent_answer.h"
#include "tests/support/child_process.h"
#include "tests/support/stand_in.h"
#include "tests/support/temporary_directory.h"

namespace corvel_test {
namespace {

using Fill = std::function<void(corvel_data *)>;

void no_values(corvel_data * /*data*/) {}

/** A site with templates in a directory of its own. */
class corvel_answer_template_test : public testing::Test {
  protected:
    corvel_answer_template_test() : path_(directory_.path()) { site_.templates = path_.c_str(); }

    void write(const std::string &name, const std::string &text) const {
        directory_.write(name + ".html", text);
    }

    [[nodiscard]] SentAnswer send(const char *name, const Fill &fill) const {
        const PageAnswer answer(&site_);
        corvel_data *const data = corvel_data_new();
        fill(data);
        corvel_answer_template(answer.get(), name, data);
        SentAnswer sent = answer.send();
        corvel_data_free(data);
        return sent;
    }

    /** The result of a template. */
    [[nodiscard]] std::string filled(const std::string &text, const Fill &fill = no_values) const {
        write("page", text);
        const SentAnswer sent = send("page", fill);
        EXPECT_EQ(sent.status(), "200 OK");
        return sent.body;
    }

    /** Expects a template to be answered by status 500, for this reason. */
    void expect_refused(const char *name, const std::string &reason,
                        const Fill &fill = no_values) const {
        const RecordSyslog log;
        EXPECT_EQ(send(name, fill).status(), "500 Internal Server Error");
        EXPECT_EQ(RecordSyslog::messages(),
                  (std::vector<RecordSyslog::Message>{{3, reason},
                                                      {3, "The template cannot be filled."}}));
    }
    void expect_malformed(const std::string &text, const std::string &reason) const {
        write("page", text);
        expect_refused("page", "Template page, line " + reason);
    }

    TemporaryDirectory directory_;
    std::string path_;
    corvel_site site_{};
};

// The names of the suites are those of the functions.
using corvel_answer_template = corvel_answer_template_test;
using corvel_answer_values = corvel_answer_template_test;

/** Sets a value. */
Fill set(const std::string &name, const std::string &value) {
    return [=](corvel_data *data) {
        corvel_data_set(data, name.c_str(), value.c_str());
    };
}

// ---------------------------------------------------------------------------------- grammar -----

TEST_F(corvel_answer_template, CopiesWhatIsNotATag) {
    for (const std::string &text :
         {std::string(), std::string("<p>\r\n$token ${a} { } }} {a} <!-- -->\n"),
          std::string("\0\xFF{", 3), std::string("a{"), std::string(100'000, 'x')})
        EXPECT_EQ(filled(text), text);
}

TEST_F(corvel_answer_template, InsertsAValueEscaped) {
    EXPECT_EQ(filled("<p title='{{a}}'>{{a}}</p>", set("a", "<b>'\"&\xFF\x01")),
              "<p title='&lt;b&gt;&#39;&quot;&amp;\uFFFD\uFFFD'>"
              "&lt;b&gt;&#39;&quot;&amp;\uFFFD\uFFFD</p>");
}

TEST_F(corvel_answer_template, InsertsMarkupAsItIs) {
    EXPECT_EQ(filled("{{&a}}", set("a", "<b>'\"&</b>")), "<b>'\"&</b>");
}

TEST_F(corvel_answer_template, NeverScansWhatWasInserted) {
    write("secret", "secret");
    const std::vector<std::pair<std::string, std::string>> values{{"x$token", "x$token"},
                                                                  {"{{token}}", "{{token}}"},
                                                                  {"{{&token}}", "{{&amp;token}}"},
                                                                  {"{{#a}}", "{{#a}}"},
                                                                  {"{{/a}}", "{{/a}}"},
                                                                  {"{{>secret}}", "{{&gt;secret}}"},
                                                                  {"{{!", "{{!"},
                                                                  {"{{", "{{"},
                                                                  {"}}", "}}"},
                                                                  {"$a", "$a"}};
    for (const auto &[value, escaped] : values) {
        const auto fill = [&text = value](corvel_data *data) {
            corvel_data_set(data, "a", text.c_str());
            corvel_data_set(data, "token", "secret");
        };
        EXPECT_EQ(filled("{{a}}token}}", fill), escaped + "token}}");
        EXPECT_EQ(filled("{{&a}}{{&a}}", fill), value + value);
    }
}

TEST_F(corvel_answer_template, ComparesNamesExactly) {
    const auto fill = [](corvel_data *data) {
        corvel_data_set(data, "a", "1");
        corvel_data_set(data, "ab", "2");
        corvel_data_set(data, "A", "3");
        corvel_data_set(data, "a-b_9", "4");
    };
    EXPECT_EQ(filled("{{ab}}{{a}}{{A}}{{a-b_9}}{{aB}}{{abc}}{{b}}", fill), "2134");
}

TEST_F(corvel_answer_template, IgnoresSpacesAndTabsAroundAName) {
    EXPECT_EQ(filled("{{ a }}{{\ta\t}}{{& a}}{{# a }}b{{/ a }}{{^ a }}c{{/a}}", set("a", "1")),
              "111b");
}

TEST_F(corvel_answer_template, InsertsNothingForAnUnknownOrEmptyName) {
    EXPECT_EQ(filled("[{{a}}{{&b}}{{c}}]", set("a", "")), "[]");
}

TEST_F(corvel_answer_template, OmitsComments) {
    EXPECT_EQ(filled("a{{! # / > {{ b \n c }}d{{!}}e"), "ade");
}

TEST_F(corvel_answer_template, RepeatsASectionForEachOfItsRepetitions) {
    const auto fill = [](corvel_data *data) {
        for (int i = 1; i <= 3; ++i) {
            corvel_data *const row = corvel_data_add(data, "rows");
            corvel_data_set_integer(row, "n", i);
            for (int j = 0; j < i; ++j)
                corvel_data_set_integer(corvel_data_add(row, "cells"), "m", j);
        }
    };
    EXPECT_EQ(filled("[{{#rows}}<{{n}}{{#cells}}({{m}}){{/cells}}>{{/rows}}]", fill),
              "[<1(0)><2(0)(1)><3(0)(1)(2)>]");
    EXPECT_EQ(filled("[{{^rows}}none{{/rows}}]", fill), "[]");
}

TEST_F(corvel_answer_template, OmitsASectionWithoutRepetitionsOrValue) {
    EXPECT_EQ(filled("[{{#rows}}{{n}}{{#x}}{{/x}}b{{/rows}}]"), "[]");
    EXPECT_EQ(filled("[{{^rows}}none{{/rows}}]"), "[none]");
    EXPECT_EQ(filled("[{{#a}}b{{/a}}{{^a}}c{{/a}}]", set("a", "")), "[c]");
}

TEST_F(corvel_answer_template, KeepsASectionOnceIfItsNameHasAValue) {
    EXPECT_EQ(filled("[{{#a}}b{{a}}{{/a}}{{^a}}c{{/a}}]", set("a", "0")), "[b0]");
}

TEST_F(corvel_answer_template, PrefersRepetitionsToTheValueOfASection) {
    const auto fill = [](corvel_data *data) {
        corvel_data_set(data, "a", "value");
        corvel_data_add(data, "a");
        corvel_data_add(data, "a");
    };
    EXPECT_EQ(filled("{{#a}}b{{/a}}{{a}}", fill), "bbvalue");
    EXPECT_EQ(filled("{{^a}}b{{/a}}", fill), "");
}

TEST_F(corvel_answer_template, LooksNamesUpFromTheInnermostLevelOutwards) {
    const auto fill = [](corvel_data *data) {
        corvel_data_set(data, "a", "outer");
        corvel_data_set(data, "b", "outer");
        corvel_data_set(data, "c", "outer");
        corvel_data *const row = corvel_data_add(data, "rows");
        corvel_data_set(row, "a", "row");
        corvel_data_set(row, "b", "");
        corvel_data_add(row, "c");
        corvel_data *const next = corvel_data_add(data, "rows");
        corvel_data_set(next, "n", "next");
    };
    EXPECT_EQ(filled("{{#rows}}{{a}},{{b}},{{c}},{{#n}}{{n}}{{/n}};{{/rows}}{{a}}{{n}}", fill),
              "row,,,;outer,outer,outer,next;outer");
}

TEST_F(corvel_answer_template, FindsASectionOfAnOuterLevel) {
    const auto fill = [](corvel_data *data) {
        corvel_data_add(data, "rows");
        corvel_data_add(data, "rows");
        corvel_data_set(corvel_data_add(data, "items"), "i", "x");
        corvel_data_set(corvel_data_add(data, "items"), "i", "y");
    };
    EXPECT_EQ(filled("{{#rows}}({{#items}}{{i}}{{/items}}){{/rows}}", fill), "(xy)(xy)");
}

TEST_F(corvel_answer_template, IncludesAnotherTemplate) {
    write("row", "<{{n}}{{>last}}>");
    write("last", ".");
    const auto fill = [](corvel_data *data) {
        for (int i = 1; i <= 3; ++i)
            corvel_data_set_integer(corvel_data_add(data, "rows"), "n", i);
    };
    EXPECT_EQ(filled("{{#rows}}{{> row }}{{/rows}}{{>last}}", fill), "<1.><2.><3.>.");
}

TEST_F(corvel_answer_template, LoadsEachTemplateOnce) {
    write("row", "<{{n}}>");
    write("page", "{{#rows}}{{>row}}{{/rows}}{{>row}}");
    const CountCalls opened(call_open);
    const SentAnswer sent = send("page", [](corvel_data *data) {
        for (int i = 0; i < 100; ++i)
            corvel_data_add(data, "rows");
    });
    EXPECT_EQ(opened.count(), 2U);
}

TEST_F(corvel_answer_template, IncludesUpTo8TemplatesInOneAnother) {
    for (int i = 1; i <= 8; ++i)
        write("t" + std::to_string(i), "{{>t" + std::to_string(i + 1) + "}}");
    write("t9", "end");
    EXPECT_EQ(send("t2", no_values).body, "end");
    expect_refused("t1", "Template t9: templates include each other too deeply.");
    write("self", "{{>self}}");
    expect_refused("self", "Template self: templates include each other too deeply.");
}

TEST_F(corvel_answer_template, NestsUpTo16Sections) {
    std::string text;
    std::string levels;
    for (int i = 0; i < 16; ++i)
        text += "{{#a}}";
    for (int i = 0; i < 16; ++i)
        levels += "{{/a}}";
    EXPECT_EQ(filled(text + "x" + levels, set("a", "1")), "x");
    expect_malformed("{{^b}}" + text + levels + "{{/b}}", "1: sections are nested too deeply.");
}

TEST_F(corvel_answer_template, EndsWhenTooManyTagsAreCarriedOut) {
    write("page", "{{#a}}{{#a}}{{#a}}{{/a}}{{/a}}{{/a}}");
    const auto fill = [](corvel_data *data) {
        for (int i = 0; i < 1025; ++i)
            corvel_data_add(data, "a");
    };
    expect_refused("page", "The page has too many tags.", fill);
}

TEST_F(corvel_answer_template, EndsWhenTooManyEmptyRepetitionsAreCarriedOut) {
    write("page", "{{#a}}{{#a}}{{/a}}{{/a}}");
    const auto fill = [](corvel_data *data) {
        for (int i = 0; i < 1025; ++i)
            corvel_data_add(data, "a");
    };
    expect_refused("page", "The page has too many tags.", fill);
}

TEST_F(corvel_answer_template, CarriesOutAMillionTags) {
    write("page", "{{#a}}{{#b}}{{c}}{{/b}}{{/a}}x");
    const auto fill = [](corvel_data *data) {
        for (int i = 0; i < 700; ++i) {
            corvel_data_add(data, "a");
            corvel_data_add(data, "b");
        }
    };
    EXPECT_EQ(send("page", fill).body, "x");
}

TEST_F(corvel_answer_template, SkipsAnOmittedSectionWithoutReadingIt) {
    // Each of the 40,000 repetitions would otherwise carry out 10,000 tags.
    std::string text = "{{#rows}}x{{#missing}}";
    for (int i = 0; i < 10'000; ++i)
        text += "{{a}}";
    text += "{{/missing}}{{/rows}}";
    const auto fill = [](corvel_data *data) {
        for (int i = 0; i < 40'000; ++i)
            corvel_data_add(data, "rows");
    };
    EXPECT_TRUE(filled(text, fill) == std::string(40'000, 'x'));
}

// ------------------------------------------------------------------------------- malformed ------

TEST_F(corvel_answer_template, RefusesAMalformedTag) {
    const std::string reason = "a tag has no valid name.";
    for (const std::string &tag :
         {std::string("{{}}"), std::string("{{ }}"), std::string("{{a b}}"), std::string("{{a.b}}"),
          std::string("{{#}}"), std::string("{{{a}}}"), std::string("{{&&a}}"),
          std::string("{{ #a}}"), std::string("{{a\n}}"), std::string("{{/}}"),
          std::string("{{>../a}}"), std::string("{{>a/b}}"), std::string("{{>.}}"),
          std::string("{{>/etc/passwd}}"), std::string("{{\xC3\xA9}}"), std::string("{{a\0}}", 6),
          "{{" + std::string(65, 'a') + "}}"})
        expect_malformed("1\n2\n" + tag, "3: " + reason);
    EXPECT_EQ(filled("{{" + std::string(64, 'a') + "}}", set(std::string(64, 'a'), "x")), "x");
}

TEST_F(corvel_answer_template, RefusesATagOrSectionThatIsNotClosed) {
    expect_malformed("a\n{{", "2: a tag is not closed.");
    expect_malformed("a{{b", "1: a tag is not closed.");
    expect_malformed("a{{b}", "1: a tag is not closed.");
    expect_malformed("{{!", "1: a tag is not closed.");
    expect_malformed("{{#a}}\n", "1: a section is not closed.");
    expect_malformed("{{^a}}{{#b}}{{/b}}", "1: a section is not closed.");
}

TEST_F(corvel_answer_template, RefusesSectionsThatOverlap) {
    const std::string reason = "1: a section is closed that is not the last one opened.";
    expect_malformed("{{/a}}", reason);
    expect_malformed("{{#a}}{{#b}}{{/a}}{{/b}}", reason);
    expect_malformed("{{#a}}{{/a}}{{/a}}", reason);
    expect_malformed("{{#a}}{{/A}}", reason);
}

TEST_F(corvel_answer_template, RefusesAMalformedTagInAnOmittedSection) {
    expect_malformed("{{#a}}{{/b}}{{/a}}",
                     "1: a section is closed that is not the last one opened.");
}

TEST_F(corvel_answer_template, RefusesASectionThatEndsInAnotherTemplate) {
    write("page", "{{#a}}{{>end}}");
    write("end", "{{/a}}");
    expect_refused("page", "Template page, line 1: a section is not closed.");
}

TEST_F(corvel_answer_template, LogsAMalformedIncludedTemplate) {
    write("page", "x{{>part}}");
    write("part", "\n\n{{");
    expect_refused("page", "Template part, line 3: a tag is not closed.");
}

// ------------------------------------------------------------------------------------ files -----

const std::string unreadable = ": the file cannot be read, is too large, or memory is exhausted.";

TEST_F(corvel_answer_template, RefusesNamesThatCouldLeaveTheDirectory) {
    write("page", "x");
    std::filesystem::create_directory(path_ + "/sub");
    write("sub/page", "x");
    for (const char *name : {"../page", "sub/page", "/etc/hostname", ".", "..", "", "page.html",
                             "page\n", "./page", "pa ge"})
        expect_refused(name, "The name or the values of a template are invalid or incomplete.");
    expect_refused(nullptr, "The name or the values of a template are invalid or incomplete.");
}

TEST_F(corvel_answer_template, RefusesWhatIsNotARegularFile) {
    expect_refused("missing", "Template missing" + unreadable);
    std::filesystem::create_directory(path_ + "/directory.html");
    expect_refused("directory", "Template directory" + unreadable);
    ASSERT_EQ(mkfifo((path_ + "/fifo.html").c_str(), 0600), 0);
    expect_refused("fifo", "Template fifo" + unreadable);
    std::filesystem::create_symlink("/dev/zero", path_ + "/zero.html");
    expect_refused("zero", "Template zero" + unreadable);
    write("page", "{{>missing}}");
    expect_refused("page", "Template missing" + unreadable);
}

TEST_F(corvel_answer_template, FollowsSymbolicLinks) {
    write("target", "x");
    std::filesystem::create_symlink("target.html", path_ + "/link.html");
    EXPECT_EQ(send("link", no_values).body, "x");
}

TEST_F(corvel_answer_template, ReadsFilesUpToTheirLimit) {
    const std::string longest(CORVEL_TEMPLATE_MAX, 'x');
    EXPECT_EQ(filled(longest), longest);
    write("page", longest + "x");
    expect_refused("page", "Template page" + unreadable);
}

TEST_F(corvel_answer_template, IsInTheWorkingDirectoryByDefault) {
    write("page", "x{{a}}");
    expect_in_child([&] {
        std::filesystem::current_path(path_);
        corvel_data *const data = corvel_data_new();
        EXPECT_EQ(answer_of([&](corvel_answer *answer) {
                      ::corvel_answer_template(answer, "page", data);
                  }).body,
                  "x");
        corvel_data_free(data);
    });
}

TEST_F(corvel_answer_template, RefusesAFileThatCannotBeReadWhole) {
    write("page", "0123456789");
    for (const stand_in_call call : {call_open, call_fstat, call_read}) {
        const RecordSyslog log;
        const PageAnswer answer(&site_);
        corvel_data *const data = corvel_data_new();
        {
            const FailCall failing(call, 1);
            ::corvel_answer_template(answer.get(), "page", data);
            EXPECT_EQ(failing.failures(), 1U);
        }
        EXPECT_EQ(answer.send().status(), "500 Internal Server Error");
        corvel_data_free(data);
    }
}

TEST_F(corvel_answer_template, RefusesAFileThatIsShorterThanItsSize) {
    const char *const shorter = "/sys/devices/system/cpu/online";
    struct stat status {};
    if (stat(shorter, &status) != 0 || status.st_size < 1024)
        GTEST_SKIP() << "no file that states a larger size than it has";
    std::filesystem::create_symlink(shorter, path_ + "/page.html");
    expect_refused("page", "Template page" + unreadable);
}

TEST_F(corvel_answer_template, ClosesItsFilesAndDoesNotPassThemOn) {
    write("page", "x{{>part}}");
    write("part", "{{");
    static bool is_closed_on_exec;
    is_closed_on_exec = true;
    stand_in_opened = [](int file, const char * /*path*/) {
        is_closed_on_exec = is_closed_on_exec && (fcntl(file, F_GETFD) & FD_CLOEXEC) != 0;
    };
    const CountCalls opened(call_open);
    const CountCalls closed(call_close);
    const PageAnswer answer(&site_);
    corvel_data *const data = corvel_data_new();
    {
        const RecordSyslog log;
        ::corvel_answer_template(answer.get(), "page", data);
    }
    stand_in_opened = nullptr;
    EXPECT_EQ(opened.count(), 2U);
    EXPECT_EQ(closed.count(), 2U);
    EXPECT_TRUE(is_closed_on_exec);
    corvel_data_free(data);
}

// ------------------------------------------------------------------------- values and memory ----

TEST_F(corvel_answer_template, RefusesMissingAndIncompleteValues) {
    write("page", "x");
    const std::string reason = "The name or the values of a template are invalid or incomplete.";
    for (const Fill &fill : std::vector<Fill>{set("a b", "x"), set("", "x"), [](corvel_data *data) {
                                                  corvel_data_add(data, "a/b");
                                              }})
        expect_refused("page", reason, fill);
    const RecordSyslog log;
    const PageAnswer answer(&site_);
    ::corvel_answer_template(answer.get(), "page", nullptr);
    EXPECT_EQ(answer.send().status(), "500 Internal Server Error");
}

TEST_F(corvel_answer_template, CanBeFilledWithARepetition) {
    write("page", "{{a}}{{b}}");
    const PageAnswer answer(&site_);
    corvel_data *const data = corvel_data_new();
    corvel_data_set(data, "a", "outer");
    corvel_data *const row = corvel_data_add(data, "rows");
    corvel_data_set(row, "b", "row");
    ::corvel_answer_template(answer.get(), "page", row);
    EXPECT_EQ(answer.send().body, "row");
    corvel_data_free(data);
}

TEST_F(corvel_answer_template, AppendsToTheBody) {
    write("page", "{{a}}");
    const PageAnswer answer(&site_);
    corvel_data *const data = corvel_data_new();
    for (const char *value : {"1", "2", "34"}) {
        corvel_data_set(data, "a", value);
        corvel_answer_html(answer.get(), "<");
        ::corvel_answer_template(answer.get(), "page", data);
    }
    EXPECT_EQ(answer.send().body, "&lt;1&lt;2&lt;34");
    corvel_data_free(data);
}

TEST_F(corvel_answer_template, ThatIsTooLongIsAnsweredByStatus500) {
    write("page", "{{#rows}}" + std::string(1000, 'x') + "{{/rows}}");
    const RecordSyslog log;
    EXPECT_EQ(send("page",
                   [](corvel_data *data) {
                       for (int i = 0; i <= CORVEL_ANSWER_MAX / 1000; ++i)
                           corvel_data_add(data, "rows");
                   })
                  .status(),
              "500 Internal Server Error");
}

TEST_F(corvel_answer_template, AnswersStatus500WhateverAllocationFails) {
    write("page", "<{{a}}{{#rows}}{{>row}}{{/rows}}" + std::string(3000, 'x'));
    write("row", "({{b}})");
    stand_in_syslog = [](int, const char *) {
    };
    const unsigned long failures = for_each_allocation_failure([&](AllocationTrial &trial) {
        const PageAnswer answer(&site_);
        corvel_data *data = nullptr;
        trial.run([&] {
            data = corvel_data_new();
            corvel_data_set(data, "a", "value");
            for (int i = 0; i < 40; ++i)
                corvel_data_set_integer(corvel_data_add(data, "rows"), "b", i);
            ::corvel_answer_template(answer.get(), "page", data);
        });
        const SentAnswer sent = answer.send();
        EXPECT_EQ(sent.status(), trial.failed() ? "500 Internal Server Error" : "200 OK");
        corvel_data_free(data);
    });
    stand_in_syslog = nullptr;
    EXPECT_GE(failures, 6U);
}

TEST_F(corvel_answer_values, AreLookedUpLast) {
    write("page", "{{model}} {{a}}{{#rows}}{{model}}{{b}}{{c}}{{/rows}}");
    corvel_data *const common = corvel_data_new();
    corvel_data_set(common, "model", "<R1>");
    corvel_data_set(common, "a", "common");
    corvel_data_set(common, "b", "common");
    corvel_data_set(common, "c", "common");
    corvel_data *const data = corvel_data_new();
    corvel_data_set(data, "a", "page");
    corvel_data_set(data, "b", "page");
    corvel_data_set(corvel_data_add(data, "rows"), "b", "row");
    const PageAnswer answer(&site_);
    ::corvel_answer_values(answer.get(), common);
    ::corvel_answer_template(answer.get(), "page", data);
    EXPECT_EQ(answer.send().body, "&lt;R1&gt; page&lt;R1&gt;rowcommon");
    corvel_data_free(data);
    corvel_data_free(common);
}

TEST_F(corvel_answer_values, ThatAreIncompleteAreRefused) {
    write("page", "x");
    const RecordSyslog log;
    corvel_data *const common = corvel_data_new();
    corvel_data_set(common, "a b", "x");
    corvel_data *const data = corvel_data_new();
    const PageAnswer answer(&site_);
    ::corvel_answer_values(answer.get(), common);
    ::corvel_answer_template(answer.get(), "page", data);
    EXPECT_EQ(answer.send().status(), "500 Internal Server Error");
    corvel_data_free(data);
    corvel_data_free(common);
}

TEST_F(corvel_answer_template, MakesAPageThatAnHtmlParserAccepts) {
    write("frame", "<!DOCTYPE html>\n<html lang=\"en\"><head><title>{{title}}</title></head><body>"
                   "{{>form}}</body></html>");
    write("form", "<form>{{#fields}}<input id=\"{{id}}\" value='{{value}}'>{{/fields}}</form>");
    const SentAnswer sent = send("frame", [](corvel_data *data) {
        corvel_data_set(data, "title", "</title><script>");
        corvel_data *const one = corvel_data_add(data, "fields");
        corvel_data_set(one, "id", "a\"b{{title}}");
        corvel_data_set(one, "value", "' onclick='x$token");
        corvel_data_set(corvel_data_add(data, "fields"), "value", "\u2028\xED\xA0\x80");
    });
    EXPECT_EQ(
        parsed_html({sent.body}),
        std::vector<std::string>{
            R"([[],[["html",{"lang":"en"},""],["head",{},""],["title",{},"</title><script>"],)"
            R"(["body",{},""],["form",{},""],)"
            R"(["input",{"id":"a\"b{{title}}","value":"' onclick='x$token"},""],)"
            R"(["input",{"id":"","value":"\u2028\ufffd\ufffd\ufffd"},""]]])"});
}

} // namespace
} // namespace corvel_test
