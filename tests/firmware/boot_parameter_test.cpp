/* SPDX-License-Identifier: MIT */
#include <corvel.h>

#include "tests/firmware/environment_image.h"
#include "tests/firmware/flash.h"
#include "tests/support/output_capture.h"
#include "tests/support/stand_in.h"
#include "tests/support/temporary_directory.h"

#include <climits>
#include <cstdint>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <syslog.h>
#include <vector>

namespace {

using namespace corvel_test;
using namespace std::string_literals;
using Messages = std::vector<RecordSyslog::Message>;

const int bootparam_at_the_start = bootparam;

// --- get_bootparam ---

/** Expects the result, the log messages and the output of get_bootparam(). */
void expect_loaded(std::uint32_t shift, const Messages &logged, const std::string &output = "") {
    const RecordSyslog log;
    EXPECT_EQ(capture_stdout([shift] { EXPECT_EQ(get_bootparam(), shift); }), output);
    EXPECT_EQ(RecordSyslog::messages(), logged);
}

TEST(get_bootparam, StartsWithSetA) { EXPECT_EQ(bootparam_at_the_start, CORVEL_SET_A); }

TEST(get_bootparam, ReturnsTheShiftToTheIdleSet) {
    on_device({"bootdelay=1", "bootparam=0"}, [] {
        bootparam = CORVEL_SET_B;
        expect_loaded(2, {{LOG_INFO, "bootparam=0\n"}});
        EXPECT_EQ(bootparam, CORVEL_SET_A);
        write_environment({"bootparam=1"});
        expect_loaded(0, {{LOG_INFO, "bootparam=1\n"}});
        EXPECT_EQ(bootparam, CORVEL_SET_B);
    });
}

TEST(get_bootparam, UsesTheNumberModuloTwo) {
    on_device({}, [] {
        for (const std::string even : {"0", "2", "", "x", "x1", "-", "-0", "-2", "+4", " 6", "00",
                                       "2147483646", "0x1", "-2147483648", "\xFF"}) {
            write_environment({"bootparam=" + even});
            bootparam = CORVEL_SET_B;
            expect_loaded(2, {{LOG_INFO, "bootparam=0\n"}});
            EXPECT_EQ(bootparam, CORVEL_SET_A) << even;
        }
        for (const std::string odd :
             {"1", "3", "7", "+5", " 9", "\t\n1", "01", "1x", "1 0", "2147483647"}) {
            write_environment({"bootparam=" + odd});
            bootparam = CORVEL_SET_A;
            expect_loaded(0, {{LOG_INFO, "bootparam=1\n"}});
            EXPECT_EQ(bootparam, CORVEL_SET_B) << odd;
        }
    });
}

TEST(get_bootparam, FailsForANegativeOddNumber) {
    on_device({}, [] {
        for (const std::string odd : {"-1", "-3", " -7x", "-2147483647"})
            for (const int before : {CORVEL_SET_A, CORVEL_SET_B}) {
                write_environment({"bootparam=" + odd});
                bootparam = before;
                expect_loaded(0, {});
                EXPECT_EQ(bootparam, before) << odd;
            }
    });
}

TEST(get_bootparam, AcceptsANumberOutsideTheRangeOfInt) {
    on_device({}, [] {
        for (const std::string value :
             {"2147483648", "99999999999999999999", "-2147483649", "-99999999999999999999"}) {
            write_environment({"bootparam=" + value});
            const RecordSyslog log;
            const std::uint32_t shift = get_bootparam();
            EXPECT_TRUE(bootparam == 0 || bootparam == 1) << value;
            EXPECT_TRUE(shift == 0 || shift == 2) << value;
        }
    });
}

TEST(get_bootparam, FailsWithoutTheVariable) {
    on_device({"bootparams=1", "boot=1", "xbootparam=1"}, [] {
        for (const int before : {CORVEL_SET_A, CORVEL_SET_B}) {
            bootparam = before;
            expect_loaded(0, {});
            EXPECT_EQ(bootparam, before);
        }
    });
}

TEST(get_bootparam, FailsWithoutAValidEnvironment) {
    on_device({}, [] {
        for (const int before : {CORVEL_SET_A, CORVEL_SET_B}) {
            bootparam = before;
            write_file(environment_device,
                       EnvironmentImage::of_data("bootparam=1\0\0"s, 1).bytes());
            expect_loaded(0, {}, "Warning - bad CRC\n");
            write_file(environment_device, EnvironmentImage({"bootparam=1"}).bytes().substr(1));
            expect_loaded(0, {}, "Err: envimage size is less then CONFIG_ENV_SIZE(0x10000)\n");
            std::filesystem::remove(environment_device);
            expect_loaded(0, {}, "Err: can not open file /dev/mtdblock1\n");
            EXPECT_EQ(bootparam, before);
        }
    });
}

// --- save_bootparam ---

TEST(save_bootparam, StoresTheOtherSet) {
    for (const int running : {CORVEL_SET_A, CORVEL_SET_B}) {
        const std::string before = "bootparam=" + std::to_string(running);
        on_device({before, "bootdelay=1"}, [running, &before] {
            EnvironmentImage model({before, "bootdelay=1"});
            const RecordSyslog log;
            get_bootparam();
            EXPECT_EQ(capture_stdout([] { EXPECT_EQ(save_bootparam(), 0U); }), "");
            model.set("bootparam", running == CORVEL_SET_A ? "1" : "0");
            EXPECT_EQ(read_file(environment_device), model.bytes());
            EXPECT_EQ(bootparam, running) << "this set still runs";
            // Saving once more changes nothing.
            EXPECT_EQ(save_bootparam(), 0U);
            EXPECT_EQ(read_file(environment_device), model.bytes());
            EXPECT_EQ(RecordSyslog::messages().size(), 1U);
        });
    }
}

TEST(save_bootparam, AlternatesBetweenTheSets) {
    on_device({"bootparam=0"}, [] {
        const RecordSyslog log;
        for (int boot = 0; boot < 6; ++boot) {
            EXPECT_EQ(get_bootparam(), boot % 2 == 0 ? 2U : 0U);
            EXPECT_EQ(bootparam, boot % 2);
            EXPECT_EQ(save_bootparam(), 0U);
        }
    });
}

TEST(save_bootparam, StoresTheOtherSetOfANumberModuloTwo) {
    on_device({"bootparam=7"}, [] {
        const RecordSyslog log;
        EXPECT_EQ(get_bootparam(), 0U);
        EXPECT_EQ(save_bootparam(), 0U);
        EXPECT_EQ(read_file(environment_device), EnvironmentImage({"bootparam=0"}).bytes());
    });
}

TEST(save_bootparam, StoresSetBIfTheRunningSetIsUnknown) {
    on_device({"bootdelay=1"}, [] {
        EXPECT_EQ(get_bootparam(), 0U);
        EXPECT_EQ(save_bootparam(), 0U);
        EXPECT_EQ(read_file(environment_device),
                  EnvironmentImage({"bootdelay=1", "bootparam=1"}).bytes());
    });
}

TEST(save_bootparam, UsesTheValueThatTheProgramAssigned) {
    on_device({"bootparam=0"}, [] {
        const RecordSyslog log;
        get_bootparam();
        bootparam = CORVEL_SET_B;
        EXPECT_EQ(save_bootparam(), 0U);
        EXPECT_EQ(read_file(environment_device), EnvironmentImage({"bootparam=0"}).bytes());
    });
}

TEST(save_bootparam, TreatsAnyOtherNumberAsSetA) {
    on_device({"bootparam=0"}, [] {
        const RecordSyslog log;
        get_bootparam();
        const std::string set_b = EnvironmentImage({"bootparam=1"}).bytes();
        for (const int other : {-1, 2, 3, -2, 256, 257, INT_MIN, INT_MAX, 0}) {
            bootparam = CORVEL_SET_B;
            EXPECT_EQ(save_bootparam(), 0U);
            EXPECT_NE(read_file(environment_device), set_b);
            bootparam = other;
            EXPECT_EQ(save_bootparam(), 0U) << other;
            EXPECT_EQ(read_file(environment_device), set_b) << other;
            EXPECT_EQ(bootparam, other);
        }
    });
}

TEST(save_bootparam, FailsIfTheVariableDoesNotFit) {
    on_device({"long=" + std::string(CORVEL_ENV_DATA_SIZE - 7, 'v')}, [] {
        const std::string before = read_file(environment_device);
        get_bootparam();
        EXPECT_EQ(capture_stdout([] { EXPECT_EQ(save_bootparam(), UINT32_MAX); }),
                  "## Error: environment overflow, \"bootparam\" deleted\n");
        EXPECT_EQ(read_file(environment_device), before);
    });
}

TEST(save_bootparam, SucceedsIfTheDeviceCannotBeOpened) {
    on_device({"bootparam=0"}, [] {
        const RecordSyslog log;
        get_bootparam();
        std::filesystem::remove(environment_device);
        std::filesystem::create_directory(environment_device);
        EXPECT_EQ(capture_stdout([] { EXPECT_EQ(save_bootparam(), 0U); }),
                  "Err: open file /dev/mtdblock1 failed\n");
        EXPECT_STREQ(get_env("bootparam"), "1");
    });
}

} // namespace
