/* SPDX-License-Identifier: MIT */
/**
 * Kills a process at each of its system calls in turn, to test the state that it leaves.
 *
 *     const unsigned long points = for_each_kill_point(
 *         [&] { directory.write("conf", before); },            // before each run, here
 *         [&] { save_prop('=', path, table, count); },      // in a child, which is killed
 *         [&](unsigned long n) { EXPECT_TRUE(...) << n; }); // after each kill, here
 *
 * The first run is killed at the entry to its first system call, the second at the entry to its
 * second, and so on; the last run is not killed, and is checked as well. Each run starts with the
 * memory of the process at the start: changes that prepare and check make in memory are not visible
 * to a run.
 *
 * An emulator cannot trace a process. Under one, the points are the calls of the C library's
 * functions that the test program replaces and that may make system calls (stand_in_calls.h).
 */
#ifndef CORVEL_TESTS_KILL_POINTS_H
#define CORVEL_TESTS_KILL_POINTS_H

#include <chrono>
#include <functional>

namespace corvel_test {

/** @return the number of runs that were killed. */
unsigned long for_each_kill_point(const std::function<void()> &prepare,
                                  const std::function<void()> &run,
                                  const std::function<void(unsigned long)> &check);

/** What happens to a paused process. */
enum class AfterPause {
    go_on, /**< It continues to its end. */
    die,   /**< It is killed. */
};

/**
 * Pauses a process at each of its system calls in turn, while another one runs:
 *
 *     for_each_pause_point(
 *         [&] { directory.write("conf", before); },             // before each run, here
 *         [&] { save_prop('=', path, table, count); },       // in a child, which is paused
 *         [&] { save_prop('=', path, other_table, count); }, // meanwhile, in another child
 *         AfterPause::go_on,
 *         [&](unsigned long n) { EXPECT_TRUE(...) << n; });  // after both, here
 *
 * The paused process continues or is killed when the other child has finished or, since the other
 * one may be waiting for the paused one, after @p patience. Then both are waited for. The last run
 * is not paused, and the other child starts after it.
 *
 * @return the number of runs that were paused.
 */
unsigned long for_each_pause_point(const std::function<void()> &prepare,
                                   const std::function<void()> &run,
                                   const std::function<void()> &meanwhile, AfterPause after,
                                   const std::function<void(unsigned long)> &check,
                                   std::chrono::milliseconds patience = std::chrono::minutes(1));

} // namespace corvel_test

#endif
