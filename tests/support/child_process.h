/* SPDX-License-Identifier: MIT */
/**
 * Runs a part of a test in a forked child.
 *
 * If the child's output and exit status are tested:
 *
 *     const ChildResult child = run_in_child([] { return printjson_hdr("lan"); });
 *     EXPECT_EQ(child.out, "\t\"lan\": [\n\t{\n");
 *     EXPECT_EQ(child.exit_status, 0);
 *
 * If a child is only needed to have its own user, environment or namespaces, the assertions are in
 * the child, and their failures fail the test:
 *
 *     expect_in_child([&] { EXPECT_EQ(load_prop('=', path, table), 2); });
 *     expect_as_ordinary_user([&] { ... });
 */
#ifndef CORVEL_TESTS_CHILD_PROCESS_H
#define CORVEL_TESTS_CHILD_PROCESS_H

#include <functional>
#include <string>
#include <sys/types.h>
#include <type_traits>
#include <utility>

namespace corvel_test {

/** The unprivileged user and group that a test running as root switches to. */
constexpr uid_t ordinary_user_id = 65534;

struct ChildResult {
    std::string out;      /**< Bytes written to standard output. */
    std::string err;      /**< Bytes written to standard error. */
    int exit_status = -1; /**< Exit status, or -1 if a signal terminated the child. */
    int signal = 0;       /**< Signal that terminated the child, or 0. */
};

/** Waits for a child that the caller forked; `out` and `err` of the result are empty. */
ChildResult wait_for_child(pid_t child);

/**
 * Terminates a forked child: flushes its output and, in a coverage build, saves the coverage
 * counters.
 */
[[noreturn]] void end_child(int status);

/** Runs @p body in a child whose exit status is the result of the body. */
ChildResult run_status_in_child(const std::function<int()> &body);

/** Runs @p body in a child. If the body returns an int, that is the exit status, otherwise it is 0.
 */
template <typename Body> ChildResult run_in_child(Body &&body) {
    return run_status_in_child([&body]() -> int {
        if constexpr (std::is_same_v<std::invoke_result_t<Body &>, int>) {
            return body();
        } else {
            static_cast<void>(body());
            return 0;
        }
    });
}

/**
 * Runs @p body in this process.
 *
 * @return 0, or 1 if an assertion failed or an exception was thrown, which is printed.
 */
int status_of_assertions(const std::function<void()> &body);

/** Fails the test unless a child that ran status_of_assertions() exited with status 0. */
void expect_success(const ChildResult &child, const std::string &where);

/** Runs @p body in a child; assertions that fail in it fail the test. */
void expect_in_child(const std::function<void()> &body);

/** Drops root privileges permanently, if this process has them. */
void become_ordinary_user();

/** Runs @p body in a child without root privileges; assertions that fail in it fail the test. */
void expect_as_ordinary_user(const std::function<void()> &body);

} // namespace corvel_test

#endif
