/* SPDX-License-Identifier: MIT */
/**
 * Runs a piece of a test in a forked child.
 *
 * Where the child's output and status are the subject:
 *
 *     const ChildResult child = run_in_child([] { return printjson_hdr("lan"); });
 *     EXPECT_EQ(child.out, "\t\"lan\": [\n\t{\n");
 *     EXPECT_EQ(child.exit_status, 0);
 *
 * Where a child is only needed for its own user, environment or namespaces, and the assertions are
 * made inside it, their failures are reported as the test's own:
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

/** The user and group that a test running as root becomes to have no rights. */
constexpr uid_t ordinary_user_id = 65534;

struct ChildResult {
    std::string out;      /**< The bytes written to standard output. */
    std::string err;      /**< The bytes written to standard error. */
    int exit_status = -1; /**< The exit status, or -1 if a signal ended the child. */
    int signal = 0;       /**< The signal that ended the child, or 0. */
};

/** Waits for a child that the caller forked; the texts of the result stay empty. */
ChildResult wait_for_child(pid_t child);

/**
 * Ends a forked child: what it printed is written, and in a build for coverage what it reached is
 * counted.
 */
[[noreturn]] void end_child(int status);

/** Runs @p body in a child that ends with the body's result as its exit status. */
ChildResult run_status_in_child(const std::function<int()> &body);

/** Runs @p body in a child; a body that returns an int says the exit status, any other exits 0. */
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
 * @return 0, or 1 if an assertion in it failed or an exception left it. What happened is printed.
 */
int status_of_assertions(const std::function<void()> &body);

/** Reports a child that ran status_of_assertions() as a failure of the test, unless it exited 0. */
void expect_success(const ChildResult &child, const std::string &where);

/** Runs @p body in a child; assertions that fail in it fail the test. */
void expect_in_child(const std::function<void()> &body);

/** Gives up root's rights for good, if this process has them. */
void become_ordinary_user();

/** Runs @p body in a child without root's rights; assertions that fail in it fail the test. */
void expect_as_ordinary_user(const std::function<void()> &body);

} // namespace corvel_test

#endif
