/* SPDX-License-Identifier: MIT */
#include "tests/support/child_process.h"

#include "tests/support/output_capture.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace corvel_test {

namespace {

int failed_assertions() {
    const testing::TestInfo *test = testing::UnitTest::GetInstance()->current_test_info();
    if (test == nullptr)
        return 0;
    int failed = 0;
    for (int i = 0; i < test->result()->total_part_count(); ++i)
        failed += test->result()->GetTestPartResult(i).failed() ? 1 : 0;
    return failed;
}

} // namespace

ChildResult wait_for_child(pid_t child) {
    int status = 0;
    pid_t ended = 0;
    do {
        ended = waitpid(child, &status, 0);
    } while (ended < 0 && errno == EINTR);
    ChildResult result;
    if (ended == child && WIFEXITED(status))
        result.exit_status = WEXITSTATUS(status);
    if (ended == child && WIFSIGNALED(status))
        result.signal = WTERMSIG(status);
    return result;
}

void end_child(int status) {
    std::fflush(nullptr);
#ifdef CORVEL_COVERAGE_DIRECTORY
    std::exit(status);
#else
    _exit(status);
#endif
}

ChildResult run_status_in_child(const std::function<int()> &body) {
    std::fflush(nullptr);
    StreamFile out;
    StreamFile err;
    const pid_t child = fork();
    if (child < 0)
        throw std::system_error(errno, std::generic_category(), "fork");
    if (child == 0) {
        dup2(out.descriptor(), STDOUT_FILENO);
        dup2(err.descriptor(), STDERR_FILENO);
        end_child(body());
    }
    ChildResult result = wait_for_child(child);
    result.out = out.text();
    result.err = err.text();
    return result;
}

int status_of_assertions(const std::function<void()> &body) {
    const int failed_before = failed_assertions();
    try {
        body();
    } catch (const std::exception &exception) {
        std::printf("exception: %s\n", exception.what());
        return 1;
    }
    return failed_assertions() == failed_before ? 0 : 1;
}

void expect_success(const ChildResult &child, const std::string &where) {
    if (child.exit_status == 0)
        return;
    ADD_FAILURE() << where << " ended with "
                  << (child.signal != 0 ? "signal " + std::to_string(child.signal)
                                        : "status " + std::to_string(child.exit_status))
                  << " and said:\n"
                  << child.out << child.err;
}

void expect_in_child(const std::function<void()> &body) {
    expect_success(run_status_in_child([&body] { return status_of_assertions(body); }),
                   "the child process");
}

void become_ordinary_user() {
    if (geteuid() != 0)
        return;
    if (setgroups(0, nullptr) != 0 ||
        setresgid(ordinary_user_id, ordinary_user_id, ordinary_user_id) != 0 ||
        setresuid(ordinary_user_id, ordinary_user_id, ordinary_user_id) != 0)
        throw std::system_error(errno, std::generic_category(), "cannot drop root privileges");
    // After the change of user, this process cannot access its own entries in /proc.
    prctl(PR_SET_DUMPABLE, 1, 0, 0, 0);
}

void expect_as_ordinary_user(const std::function<void()> &body) {
    expect_success(run_status_in_child([&body] {
                       return status_of_assertions([&body] {
                           become_ordinary_user();
                           body();
                       });
                   }),
                   "the ordinary user's process");
}

} // namespace corvel_test
