/* SPDX-License-Identifier: MIT */
/**
 * A model of several processes that save one configuration file, each one system call after the
 * other in any order, and killed anywhere.
 *
 *     const Verdict verdict = walk({{Kind::keeps_lock_file}, {Kind::removes_lock_file}}, {});
 *     EXPECT_EQ(verdict.fault, "");
 *
 * Every reachable state is visited. In each, these must hold:
 *  - no two writers that hold the lock file rewrite the file at the same time;
 *  - the file or, if there is none, the copy is whole;
 *  - once all have finished, the file has the settings of every writer that saved, and each writer
 *    that held the lock file did save, unless one without it was at work.
 *
 * All writers trust each other. Whom they trust is not part of the model.
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
    /** It cannot open the lock file. */
    bool without_lock = false;
};

/** What the model leaves out, to see what it is for, and what may happen. */
struct Options {
    int kills = 0;
    /** A writer that holds the lock file takes one that does not for a stranger. */
    bool distrustful = false;
    bool without_name_check_of_lock = false;
    bool without_name_check_before_removal_of_lock = false;
    bool without_lock_on_copy = false;
    bool without_name_check_of_new_copy = false;
    bool without_name_check_of_left_copy = false;
    bool without_look_for_file_before_removal_of_left_copy = false;
    bool without_second_look_at_file = false;
};

struct Verdict {
    std::size_t states = 0;
    /** Empty, or what did not hold, with the steps that led there. */
    std::string fault;
};

Verdict walk(const std::vector<Process> &processes, const Options &options);

/** What a directory holds: names in alphabetical order, joined by blanks. */
using Listing = std::string;

/** The listings that one process alone goes through, without repetitions. */
std::vector<Listing> listings_of_one(Kind kind);

} // namespace corvel_test::saving_model

#endif
