/* SPDX-License-Identifier: MIT */
/**
 * Makes the C library's functions fail on command, counts their calls, and accounts for blocks.
 *
 * The library calls the C library by its plain names, and a test program defines those names
 * itself (stand_in_calls.c), so that the library's calls arrive there and are handed on. Nothing is
 * failed outside of the scopes below; keep them around the call under test and nothing else.
 *
 *     {
 *         const FailCall second_write(call_fwrite, 2);    // this one; the third works again
 *         const FailCall full(call_fwrite, 3, ENOSPC, FailCall::from_then_on);
 *         save_prop(...);
 *     }
 *
 *     const CountCalls opened(call_fopen);
 *     save_prop(...);
 *     EXPECT_EQ(opened.count(), 2U);
 *
 *     for_each_allocation_failure([&](AllocationTrial &trial) {
 *         prop_entry table[4] = {};
 *         const int count = trial.run([&] { return load_prop('=', path, table); });
 *         EXPECT_EQ(count, trial.failed() ? 1 : 2);
 *         free_prop(table, count);       // what was handed out; anything else left is a leak
 *     });
 */
#ifndef CORVEL_TESTS_STAND_IN_H
#define CORVEL_TESTS_STAND_IN_H

#include "support/stand_in_calls.h"

#include <cerrno>
#include <cstddef>
#include <functional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace corvel_test {

/** The @p n-th call from now on fails, in the manner of the function, while the object lives. */
class FailCall {
  public:
    enum Duration { once, from_then_on };

    FailCall(stand_in_call call, unsigned long n, int error = EIO, Duration duration = once);
    ~FailCall();
    FailCall(const FailCall &) = delete;
    FailCall &operator=(const FailCall &) = delete;

    /** How many calls failed so far. */
    [[nodiscard]] unsigned long failures() const;

  private:
    stand_in_call call_;
    unsigned long failed_before_;
};

class CountCalls {
  public:
    explicit CountCalls(stand_in_call call);
    /** The calls since the object was made. */
    [[nodiscard]] unsigned long count() const;

  private:
    stand_in_call call_;
    unsigned long before_;
};

/** Allocating no bytes gives a null pointer while the object lives, as in some C libraries. */
class NoEmptyBlocks {
  public:
    NoEmptyBlocks() { stand_in_no_empty_blocks = 1; }
    ~NoEmptyBlocks() { stand_in_no_empty_blocks = 0; }
    NoEmptyBlocks(const NoEmptyBlocks &) = delete;
    NoEmptyBlocks &operator=(const NoEmptyBlocks &) = delete;
};

/** Takes the commands given to system() and answers with a status; nothing is run. */
class RecordSystem {
  public:
    explicit RecordSystem(int status);
    ~RecordSystem();
    RecordSystem(const RecordSystem &) = delete;
    RecordSystem &operator=(const RecordSystem &) = delete;

    [[nodiscard]] static const std::vector<std::string> &commands();
};

/** Takes what is sent to the system log while the object lives. */
class RecordSyslog {
  public:
    struct Message {
        int priority;
        std::string text;
        bool operator==(const Message &) const = default;
        friend std::ostream &operator<<(std::ostream &out, const Message &message) {
            return out << '<' << message.priority << '>' << message.text;
        }
    };

    RecordSyslog();
    ~RecordSyslog();
    RecordSyslog(const RecordSyslog &) = delete;
    RecordSyslog &operator=(const RecordSyslog &) = delete;

    /** The messages so far, in order. */
    [[nodiscard]] static const std::vector<Message> &messages();
};

/** Calls a function in the place of sync() while the object lives; the machine's disks are left
 * alone. */
class ReplaceSync {
  public:
    explicit ReplaceSync(std::function<void()> instead = [] {});
    ~ReplaceSync();
    ReplaceSync(const ReplaceSync &) = delete;
    ReplaceSync &operator=(const ReplaceSync &) = delete;
};

/** Whose allocations are made to fail. */
enum class Allocations {
    all,               /**< Each one, those inside fopen() and its like included. */
    outside_c_library, /**< Those of the library under test. */
};

/** One run in which one allocation fails; made by for_each_allocation_failure(). */
class AllocationTrial {
  public:
    AllocationTrial(unsigned long n, Allocations whose);
    ~AllocationTrial();
    AllocationTrial(const AllocationTrial &) = delete;
    AllocationTrial &operator=(const AllocationTrial &) = delete;

    /** Runs the call under test with its allocation failing; more calls in one trial go on
     * counting. */
    template <typename Body> auto run(Body &&body) {
        const Armed armed(*this);
        return std::forward<Body>(body)();
    }

    /** Whether the allocation to fail was reached in run(). */
    [[nodiscard]] bool failed() const { return failed_; }
    /** Which allocation fails, counted from 1. */
    [[nodiscard]] unsigned long n() const { return n_; }

  private:
    class Armed {
      public:
        explicit Armed(AllocationTrial &trial);
        ~Armed();
        Armed(const Armed &) = delete;
        Armed &operator=(const Armed &) = delete;

      private:
        AllocationTrial &trial_;
        unsigned long seen_before_;
        unsigned long failed_before_;
    };

    unsigned long n_;
    unsigned long left_;
    Allocations whose_;
    bool failed_ = false;
};

/**
 * Runs @p body with the first, the second, the third... allocation failing, until a run has no
 * failure, and expects each time that every block allocated in AllocationTrial::run() is freed when
 * the body ends.
 *
 * @return the number of runs in which an allocation failed.
 */
unsigned long for_each_allocation_failure(const std::function<void(AllocationTrial &)> &body,
                                          Allocations whose = Allocations::all);

} // namespace corvel_test

#endif
