/* SPDX-License-Identifier: MIT */
/** The output and the result of functions that print. */
#ifndef CORVEL_TESTS_PRINTED_H
#define CORVEL_TESTS_PRINTED_H

#include "tests/support/output_capture.h"

#include <functional>
#include <gtest/gtest.h>
#include <ostream>
#include <string>

namespace corvel_test {

/** The output of a call and its result. */
struct Printed {
    std::string text;
    int result = 0;

    bool operator==(const Printed &) const = default;
};

inline void PrintTo(const Printed &printed, std::ostream *out) {
    *out << testing::PrintToString(printed.text) << ", result " << printed.result;
}

inline Printed printed(const std::function<int()> &call) {
    Printed printed;
    printed.text = capture_stdout([&] { printed.result = call(); });
    return printed;
}

} // namespace corvel_test

#endif
