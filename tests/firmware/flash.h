/* SPDX-License-Identifier: MIT */
/**
 * The device's flash in a private root: each partition a file at its block device's path.
 *
 *     on_device({"bootparam=0"}, [] { EXPECT_EQ(get_bootparam(), 2U); });
 */
#ifndef CORVEL_TESTS_FLASH_H
#define CORVEL_TESTS_FLASH_H

#include "tests/firmware/environment_image.h"
#include "tests/support/private_root.h"
#include "tests/support/temporary_directory.h"

#include <functional>
#include <string>
#include <vector>

namespace corvel_test {

/** The block device of the boot environment. */
constexpr const char *environment_device = "/dev/mtdblock1";

inline std::string block_device(unsigned int index) {
    return "/dev/mtdblock" + std::to_string(index);
}

inline void write_environment(const std::vector<std::string> &entries) {
    write_file(environment_device, EnvironmentImage(entries).bytes());
}

/** Runs a part of a test in a private root where the environment has these entries. */
inline void on_device(const std::vector<std::string> &entries, const std::function<void()> &body) {
    in_private_root([&] {
        write_environment(entries);
        body();
    });
}

} // namespace corvel_test

#endif
