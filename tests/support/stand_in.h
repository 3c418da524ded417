/* SPDX-License-Identifier: MIT */
/**
 * Makes calls of the C library's functions fail, counts the calls, and detects blocks not freed.
 *
 * The library calls the C library's functions by their plain names. A test program defines these
 * names itself (stand_in_calls.c), so that it receives the library's calls and forwards them. Calls
 * fail only during the lifetime of the objects below; use these only around the call under test.
 *
 *     {
 *         const FailCall second_write(call_fwrite, 2);    // only this one; the third succeeds
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
 *         free_prop(table, count);       // frees the result; any other remaining block is a leak
 *     });
 */
#ifndef CORVEL_TESTS_STAND_IN_H
#define CORVEL_TESTS_STAND_IN_H

#include "tests/support/stand_in_calls.h"

#include <cerrno>
#include <cstddef>
#include <functional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace corvel_test {

/** Makes the @p n-th call during the lifetime of the object fail, with the failure result of the
 * function. */
class FailCall {
  public:
    enum Duration { once, from_then_on };

    FailCall(stand_in_call call, unsigned long n, int error = EIO, Duration duration = once);
    ~FailCall();
    FailCall(const FailCall &) = delete;
    FailCall &operator=(const FailCall &) = delete;

    /** The number of calls that have failed. */
    [[nodiscard]] unsigned long failures() const;

  private:
    stand_in_call call_;
    unsigned long failed_before_;
};

class CountCalls {
  public:
    explicit CountCalls(stand_in_call call);
    /** The number of calls since the object was created. */
    [[nodiscard]] unsigned long count() const;

  private:
    stand_in_call call_;
    unsigned long before_;
};

/** During its lifetime, allocating zero bytes returns a null pointer, as in some C libraries. */
class NoEmptyBlocks {
  public:
    NoEmptyBlocks() { stand_in_no_empty_blocks = 1; }
    ~NoEmptyBlocks() { stand_in_no_empty_blocks = 0; }
    NoEmptyBlocks(const NoEmptyBlocks &) = delete;
    NoEmptyBlocks &operator=(const NoEmptyBlocks &) = delete;
};

/** Records the commands given to system(), which returns a fixed status and runs nothing. */
class RecordSystem {
  public:
    explicit RecordSystem(int status);
    ~RecordSystem();
    RecordSystem(const RecordSystem &) = delete;
    RecordSystem &operator=(const RecordSystem &) = delete;

    [[nodiscard]] static const std::vector<std::string> &commands();
};

/** Records messages to the system log during its lifetime. */
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

/** Replaces sync() during its lifetime, by default by a function that does nothing. */
class ReplaceSync {
  public:
    explicit ReplaceSync(std::function<void()> instead = [] {});
    ~ReplaceSync();
    ReplaceSync(const ReplaceSync &) = delete;
    ReplaceSync &operator=(const ReplaceSync &) = delete;
};

/** The allocations that are made to fail. */
enum class Allocations {
    all,               /**< All, including those inside fopen() and similar functions. */
    outside_c_library, /**< Only those of the library under test. */
};

/** One run in which one allocation fails; created by for_each_allocation_failure(). */
class AllocationTrial {
  public:
    AllocationTrial(unsigned long n, Allocations whose);
    ~AllocationTrial();
    AllocationTrial(const AllocationTrial &) = delete;
    AllocationTrial &operator=(const AllocationTrial &) = delete;

    /** Runs the call under test with its allocation failing; further calls in the same trial
     * continue the count. */
    template <typename Body> auto run(Body &&body) {
        const Armed armed(*this);
        return std::forward<Body>(body)();
    }

    /** Whether run() reached the allocation that fails. */
    [[nodiscard]] bool failed() const { return failed_; }
    /** The number of the failing allocation, counted from 1. */
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
 * Runs @p body with the first, the second, the third, ... allocation failing, until a run has no
 * failure. Expects each time that every block allocated in AllocationTrial::run() has been freed
 * when the body ends.
 *
 * @return the number of runs in which an allocation failed.
 */
unsigned long for_each_allocation_failure(const std::function<void(AllocationTrial &)> &body,
                                          Allocations whose = Allocations::all);

} // namespace corvel_test

#endif
