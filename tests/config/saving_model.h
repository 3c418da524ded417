/* SPDX-License-Identifier: MIT */
/**
 * A model of several processes that save one configuration file. Their system calls are interleaved
 * in every order, and each process may be killed before any of them.
 *
 *     const Verdict verdict = walk({{Kind::keeps_lock_file}, {Kind::removes_lock_file}}, {});
 *     EXPECT_EQ(verdict.fault, "");
 *
 * Every reachable state is visited and must satisfy these conditions:
 *  - no two writers that hold the lock file rewrite the file at the same time;
 *  - the file or, if there is none, the copy is whole;
 *  - once all writers have finished, the file contains the settings of every writer that saved, and
 *    every writer that held the lock file has saved, unless a writer without it was running.
 *
 * All writers trust each other; the rules of trust are not part of the model.
 */
#ifndef CORVEL_TESTS_SAVING_MODEL_H
#define CORVEL_TESTS_SAVING_MODEL_H

#include <cstddef>
#include <string>
#include <vector>

namespace corvel_test::saving_model {

enum class Kind { keeps_lock_file, removes_lock_file };

struct Process {
    Kind kind;
    /** Whether it cannot open the lock file. */
    bool without_lock = false;
};

/** The number of kills, and the steps that the model omits to show why each is needed. */
struct Options {
    int kills = 0;
    /** A writer that holds the lock file treats one that does not as a stranger. */
    bool distrustful = false;
    bool without_name_check_of_lock = false;
    bool without_name_check_before_removal_of_lock = false;
    bool without_lock_on_copy = false;
    bool without_name_check_of_new_copy = false;
    bool without_name_check_of_left_copy = false;
    bool without_check_for_file_before_removal_of_left_copy = false;
    bool without_reopening_file = false;
};

struct Verdict {
    std::size_t states = 0;
    /** Empty, or the violated condition with the steps that led to it. */
    std::string fault;
};

Verdict walk(const std::vector<Process> &processes, const Options &options);

/** The names in a directory in alphabetical order, each followed by a space. */
using Listing = std::string;

/** The successive listings of a save by a single process, without repetitions. */
std::vector<Listing> listings_of_one(Kind kind);

} // namespace corvel_test::saving_model

#endif
