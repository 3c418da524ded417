/* SPDX-License-Identifier: MIT */
/** Files written by tests/golden/make_golden.py independently of the library. */
#ifndef CORVEL_TESTS_GOLDEN_FILES_H
#define CORVEL_TESTS_GOLDEN_FILES_H

#include "tests/support/temporary_directory.h"

#include <string>

namespace corvel_test {

inline std::string golden(const std::string &name) {
    return read_file(std::string(CORVEL_GOLDEN) + "/" + name);
}

} // namespace corvel_test

#endif
