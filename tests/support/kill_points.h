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

#include <functional>

namespace corvel_test {

/** @return the number of runs that were killed. */
unsigned long for_each_kill_point(const std::function<void()> &prepare,
                                  const std::function<void()> &run,
                                  const std::function<void(unsigned long)> &check);

} // namespace corvel_test

#endif
