/* SPDX-License-Identifier: MIT */
/**
 * Captures exactly the bytes that a call writes to standard output or standard error, at the file
 * descriptor. Buffered output is flushed before and after the call.
 *
 *     EXPECT_EQ(capture_stdout([] { printjson_tail1(); }), "\t]");
 *     EXPECT_EQ(capture_stderr([] { ... }), "");
 *
 * run_in_child() of child_process.h does the same for a callable in a separate process.
 */
#ifndef CORVEL_TESTS_OUTPUT_CAPTURE_H
#define CORVEL_TESTS_OUTPUT_CAPTURE_H

#include "tests/support/child_process.h"

#include <functional>
#include <string>

namespace corvel_test {

/** An unnamed file that receives the output of a stream. */
class StreamFile {
  public:
    StreamFile();
    ~StreamFile();
    StreamFile(const StreamFile &) = delete;
    StreamFile &operator=(const StreamFile &) = delete;

    [[nodiscard]] int descriptor() const { return descriptor_; }
    /** The bytes written so far. */
    [[nodiscard]] std::string text() const;

  private:
    int descriptor_;
};

[[nodiscard]] std::string capture_stdout(const std::function<void()> &body);
[[nodiscard]] std::string capture_stderr(const std::function<void()> &body);

} // namespace corvel_test

#endif
