/* SPDX-License-Identifier: MIT */
/**
 * Ends a process at each of its system calls in turn, to see what it leaves behind.
 *
 *     const unsigned long points = for_each_kill_point(
 *         [&] { folder.write("conf", before); },            // before each run, here
 *         [&] { save_prop('=', path, table, count); },      // in a child, which is killed
 *         [&](unsigned long n) { EXPECT_TRUE(...) << n; }); // after each kill, here
 *
 * The first run is killed at the entry to its first system call, the second at the entry to its
 * second, and so on; in the last run nothing is killed, and it is checked as well. All runs begin
 * in the state that the process had at the start: what prepare and check change in memory, a run
 * does not see.
 *
 * An emulator cannot trace a process. Under one, the points are the calls of those functions of the
 * C library that a test program stands in for and that can reach the system (stand_in_calls.h).
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

/** What becomes of a paused process. */
enum class AfterPause {
    go_on, /**< It runs to its end. */
    die,   /**< It is killed. */
};

/**
 * Pauses a process at each of its system calls in turn, while another one is at work:
 *
 *     for_each_pause_point(
 *         [&] { folder.write("conf", before); },             // before each run, here
 *         [&] { save_prop('=', path, table, count); },       // in a child, which is paused
 *         [&] { save_prop('=', path, other_table, count); }, // meanwhile, in another child
 *         AfterPause::go_on,
 *         [&](unsigned long n) { EXPECT_TRUE(...) << n; });  // after both, here
 *
 * The paused process goes on or is killed once the other child has finished or, where that may wait
 * for the paused one, after @p patience; then both are waited for. In the last run nothing is
 * paused, and the other child starts after it.
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
