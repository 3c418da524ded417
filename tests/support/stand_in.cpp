/* SPDX-License-Identifier: MIT */
#include "tests/support/stand_in.h"

#include <gtest/gtest.h>

namespace corvel_test {

namespace {

/** More allocations than any call of the library makes; reaching this means an endless loop. */
constexpr unsigned long trial_limit = 100000;

std::vector<std::string> recorded_commands;
int recorded_status;

int record(const char *command) {
    recorded_commands.emplace_back(command);
    return recorded_status;
}

std::vector<RecordSyslog::Message> logged;

void record_message(int priority, const char *text) { logged.push_back({priority, text}); }

std::function<void()> instead_of_sync;

void call_instead_of_sync() { instead_of_sync(); }

void arm(stand_in_call call, unsigned long n, int error, bool keeps_failing) {
    stand_in_switch &own = stand_in_switches[call];
    own.error = error;
    own.keeps_failing = keeps_failing ? 1 : 0;
    own.fail_at = own.seen + n;
}

void disarm(stand_in_call call) { stand_in_switches[call].fail_at = 0; }

} // namespace

FailCall::FailCall(stand_in_call call, unsigned long n, int error, Duration duration)
    : call_(call), failed_before_(stand_in_switches[call].failed) {
    arm(call, n, error, duration == from_then_on);
}

FailCall::~FailCall() { disarm(call_); }

unsigned long FailCall::failures() const {
    return stand_in_switches[call_].failed - failed_before_;
}

CountCalls::CountCalls(stand_in_call call) : call_(call), before_(stand_in_switches[call].seen) {}

unsigned long CountCalls::count() const { return stand_in_switches[call_].seen - before_; }

RecordSystem::RecordSystem(int status) {
    recorded_commands.clear();
    recorded_status = status;
    stand_in_system = record;
}

RecordSystem::~RecordSystem() { stand_in_system = nullptr; }

const std::vector<std::string> &RecordSystem::commands() { return recorded_commands; }

RecordSyslog::RecordSyslog() {
    logged.clear();
    stand_in_syslog = record_message;
}

RecordSyslog::~RecordSyslog() { stand_in_syslog = nullptr; }

const std::vector<RecordSyslog::Message> &RecordSyslog::messages() { return logged; }

ReplaceSync::ReplaceSync(std::function<void()> instead) {
    instead_of_sync = std::move(instead);
    stand_in_sync = call_instead_of_sync;
}

ReplaceSync::~ReplaceSync() { stand_in_sync = nullptr; }

AllocationTrial::AllocationTrial(unsigned long n, Allocations whose)
    : n_(n), left_(n), whose_(whose) {
    stand_in_stop_tracking();
}

AllocationTrial::~AllocationTrial() { stand_in_stop_tracking(); }

AllocationTrial::Armed::Armed(AllocationTrial &trial)
    : trial_(trial), seen_before_(stand_in_switches[call_allocation].seen),
      failed_before_(stand_in_switches[call_allocation].failed) {
    stand_in_spare_c_library = trial_.whose_ == Allocations::outside_c_library ? 1 : 0;
    // After its failure, no further allocation of the trial fails.
    if (!trial_.failed_)
        arm(call_allocation, trial_.left_, ENOMEM, false);
    stand_in_start_tracking();
}

AllocationTrial::Armed::~Armed() {
    disarm(call_allocation);
    stand_in_pause_tracking();
    stand_in_spare_c_library = 0;
    if (stand_in_switches[call_allocation].failed != failed_before_)
        trial_.failed_ = true;
    trial_.left_ -= trial_.failed_ ? 0 : stand_in_switches[call_allocation].seen - seen_before_;
}

unsigned long for_each_allocation_failure(const std::function<void(AllocationTrial &)> &body,
                                          Allocations whose) {
    for (unsigned long n = 1; n <= trial_limit; ++n) {
        AllocationTrial trial(n, whose);
        body(trial);
        EXPECT_EQ(stand_in_live_blocks(), 0U)
            << "blocks not freed after the failure of allocation " << n;
        if (!trial.failed())
            return n - 1;
    }
    ADD_FAILURE() << "still failing after " << trial_limit << " allocations";
    return trial_limit;
}

} // namespace corvel_test
