/* SPDX-License-Identifier: MIT */
#include "tests/support/stand_in.h"

#include <corvel.h>

#include "tests/support/environment.h"
#include "tests/support/output_capture.h"
#include "tests/support/temporary_directory.h"

#include <cstdlib>
#include <cstring>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

namespace {

using namespace corvel_test;

TEST(StandIn, CountsTheLibrarysAllocations) {
    prop_entry row{};
    const CountCalls allocations(call_allocation);
    ins_pr("name", "value", &row, 0);
    EXPECT_EQ(allocations.count(), 2U);
    free_prop(&row, 1);
}

TEST(StandIn, FailsTheSelectedCall) {
    prop_entry row{};
    const FailCall second(call_allocation, 2, ENOMEM);
    EXPECT_EQ(ins_pr("name", "value", &row, 0), 0);
    EXPECT_EQ(second.failures(), 1U);
    EXPECT_EQ(ins_pr("name", "value", &row, 0), 1);
    free_prop(&row, 1);
}

TEST(StandIn, FailsEachAllocationOfARunInTurn) {
    const unsigned long failures = for_each_allocation_failure([](AllocationTrial &trial) {
        prop_entry row{};
        const int filled = trial.run([&] { return ins_pr("name", "value", &row, 0); });
        EXPECT_EQ(filled, trial.failed() ? 0 : 1);
        free_prop(&row, filled);
    });
    EXPECT_EQ(failures, 2U);
}

TEST(StandIn, ReportsABlockThatIsNotFreed) {
    prop_entry row{};
    const auto leaking = [&row] {
        for_each_allocation_failure([&row](AllocationTrial &trial) {
            trial.run([&row] { return ins_pr("name", "value", &row, 0); });
        });
    };
    EXPECT_NONFATAL_FAILURE(leaking(), "not freed");
    free_prop(&row, 1);
}

TEST(StandIn, CanIgnoreAllocationsInsideTheCLibrary) {
    TemporaryDirectory directory;
    directory.write("conf", "A=1\n");
    const std::string path = directory.path("conf");
    const auto load = [&path](AllocationTrial &trial) {
        prop_entry row{};
        const int count = trial.run([&] { return load_prop('=', path.c_str(), &row); });
        EXPECT_EQ(count, trial.failed() ? 0 : 1);
        free_prop(&row, count);
    };
    EXPECT_EQ(for_each_allocation_failure(load, Allocations::outside_c_library), 2U);
}

TEST(StandIn, SetsTheErrorIndicatorOfAStreamAfterAFailedCall) {
    std::FILE *stream = std::tmpfile();
    ASSERT_NE(stream, nullptr);
    {
        const FailCall failing(call_fwrite, 1);
        EXPECT_EQ(std::fwrite("text", 1, 4, stream), 0U);
    }
    EXPECT_NE(std::ferror(stream), 0);
    std::fclose(stream);
}

TEST(StandIn, RecordsTheCommandsGivenToSystem) {
    const RecordSystem record(7);
    EXPECT_EQ(std::system("a command"), 7);
    EXPECT_EQ(RecordSystem::commands(), std::vector<std::string>{"a command"});
}

TEST(StandIn, RecordsTheMessagesToTheSystemLog) {
    const RecordSyslog log;
    syslog(LOG_ERR, "%s=%04x\n", "a", 7U);
    syslog(LOG_INFO, "second");
    EXPECT_EQ(RecordSyslog::messages(),
              (std::vector<RecordSyslog::Message>{{LOG_ERR, "a=0007\n"}, {LOG_INFO, "second"}}));
}

TEST(StandIn, CallsAnotherFunctionInsteadOfSync) {
    int calls = 0;
    const CountCalls syncs(call_sync);
    const ReplaceSync replaced([&calls] { ++calls; });
    sync();
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(syncs.count(), 1U);
}

TEST(OutputCapture, CapturesOnlyTheBytesOfStandardOutput) {
    EXPECT_EQ(capture_stdout([] {
                  std::fputs("a\n", stdout);
                  std::fputs("b\n", stderr);
                  std::printf("%c", 0);
              }),
              std::string("a\n\0", 3));
    EXPECT_EQ(capture_stderr([] { std::fputs("c", stderr); }), "c");
}

TEST(OutputCapture, CapturesAChildsOutputAndStatus) {
    const ChildResult child = run_in_child([] {
        std::printf("said");
        return 3;
    });
    EXPECT_EQ(child.out, "said");
    EXPECT_EQ(child.err, "");
    EXPECT_EQ(child.exit_status, 3);
    EXPECT_EQ(run_in_child([] { std::abort(); }).signal, SIGABRT);
}

TEST(Environment, IsRestored) {
    {
        const EnvironmentVariable variable("CORVEL_TEST", "outer");
        {
            const EnvironmentVariable none("CORVEL_TEST", std::nullopt);
            EXPECT_EQ(std::getenv("CORVEL_TEST"), nullptr);
        }
        EXPECT_STREQ(std::getenv("CORVEL_TEST"), "outer");
    }
    EXPECT_EQ(std::getenv("CORVEL_TEST"), nullptr);
}

TEST(Environment, ProvidesStandardInputFromAFileAndFromAPipe) {
    for (const auto kind : {StandardInput::Kind::file, StandardInput::Kind::pipe}) {
        for (const std::size_t size : {0U, 5U, 300000U}) {
            const std::string bytes(size, 'x');
            const StandardInput input(bytes, kind);
            std::string read(size + 1, '\0');
            EXPECT_EQ(std::fread(read.data(), 1, read.size(), stdin), size);
            EXPECT_EQ(read.substr(0, size), bytes);
        }
    }
}

TEST(Environment, DiscardsBufferedStandardInput) {
    {
        const StandardInput input("first");
        EXPECT_EQ(std::getchar(), 'f');
    }
    EXPECT_EQ(std::getchar(), EOF);
    const StandardInput input("second");
    EXPECT_EQ(std::getchar(), 's');
}

} // namespace
