/* SPDX-License-Identifier: MIT */
/** Checks every order in which several processes can save one file, in a model, and that the model
 * agrees with the library. */
#include "tests/config/saving_model.h"

#include "tests/config/writers.h"
#include "tests/support/kill_points.h"

#include <cstdio>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using namespace corvel_test;
using namespace corvel_test::saving_model;

constexpr Process keeper = {Kind::keeps_lock_file};
constexpr Process remover = {Kind::removes_lock_file};
constexpr Process unlocked = {Kind::keeps_lock_file, true};

void expect_no_fault(const std::vector<Process> &processes, const Options &options = {}) {
    const Verdict verdict = walk(processes, options);
    EXPECT_EQ(verdict.fault, "");
    std::printf("%zu processes, %d kills: %zu states\n", processes.size(), options.kills,
                verdict.states);
}

void expect_fault(const std::string &fault, const std::vector<Process> &processes,
                  const Options &options) {
    const Verdict verdict = walk(processes, options);
    EXPECT_EQ(verdict.fault.substr(0, verdict.fault.find(':')), fault) << verdict.fault;
}

TEST(SavingModel, HasTheDirectoryListingsOfARealSave) {
    for (const auto &[kind, writer] :
         {std::pair(Kind::keeps_lock_file, &save_prop_writer),
          std::pair(Kind::removes_lock_file, &save_global_conf_writer)}) {
        const Writer &saving = *writer;
        const TemporaryDirectory directory;
        std::vector<Listing> listings;
        for_each_kill_point(
            [&] {
                remove_files(directory);
                directory.write("conf", "A=1\n");
            },
            [&] { saving.set(directory.path("conf"), "A", "x"); },
            [&](unsigned long) {
                Listing listing;
                for (const std::string &name : directory.names())
                    listing += name + " ";
                if (listings.empty() || listings.back() != listing)
                    listings.push_back(listing);
            });
        EXPECT_EQ(listings_of_one(kind), listings);
    }
}

TEST(SavingModel, LosesNothingWithFourLockedWriters) {
    expect_no_fault({keeper, keeper, keeper, keeper});
    expect_no_fault({keeper, keeper, remover, remover});
    expect_no_fault({remover, remover, remover, remover});
    expect_no_fault({keeper, remover, remover, remover}, {.kills = 1});
}

TEST(SavingModel, LosesNothingWithThreeLockedWritersThatMayAllBeKilled) {
    expect_no_fault({keeper, remover, remover}, {.kills = 3});
}

TEST(SavingModel, LosesNothingWithLockedAndUnlockedWriters) {
    expect_no_fault({keeper, unlocked}, {.kills = 2});
    expect_no_fault({unlocked, unlocked, unlocked}, {.kills = 1});
    expect_no_fault({keeper, remover, unlocked});
    expect_no_fault({remover, unlocked, unlocked});
    expect_no_fault({keeper, remover, unlocked}, {.kills = 1});
}

TEST(SavingModel, FindsTwoInsideIfACheckOfTheLockFilesNameIsMissing) {
    expect_fault("two inside", {keeper, remover, remover}, {.without_name_check_of_lock = true});
    expect_no_fault({remover, remover, remover},
                    {.without_name_check_before_removal_of_lock = true});
    expect_fault("two inside", {keeper, keeper, remover, remover},
                 {.without_name_check_before_removal_of_lock = true});
}

TEST(SavingModel, FindsALossWithoutTheLockOnTheCopy) {
    expect_fault("lost", {unlocked, unlocked}, {.without_lock_on_copy = true});
}

TEST(SavingModel, FindsAFaultIfACheckOfTheCopysNameIsMissing) {
    expect_fault("not saved", {keeper, unlocked}, {.without_name_check_of_new_copy = true});
    expect_fault("lost", {keeper, unlocked}, {.without_name_check_of_left_copy = true});
}

TEST(SavingModel, FindsALossIfACopyIsRemovedWithoutACheckForTheFile) {
    expect_fault("lost", {keeper, unlocked},
                 {.kills = 2, .without_check_for_file_before_removal_of_left_copy = true});
}

TEST(SavingModel, FindsALostSettingIfTheFileIsNotReopened) {
    expect_fault("a setting is lost", {keeper, unlocked}, {.without_reopening_file = true});
}

TEST(SavingModel, FindsALossIfAnUnlockedWriterIsTreatedAsAStranger) {
    expect_fault("lost", {keeper, unlocked}, {.distrustful = true});
}

} // namespace
