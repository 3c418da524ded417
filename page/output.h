// SPDX-License-Identifier: MIT
#ifndef CORVEL_PAGE_OUTPUT_H
#define CORVEL_PAGE_OUTPUT_H

#include <csignal>
#include <cstddef>
#include <cstring>
#include <string_view>

namespace corvel {

/// During its lifetime, writing to a pipe that nobody reads fails with EPIPE and sends no signal.
class PipeSignalBlocked {
  public:
    PipeSignalBlocked();
    PipeSignalBlocked(const PipeSignalBlocked &) = delete;
    PipeSignalBlocked &operator=(const PipeSignalBlocked &) = delete;
    ~PipeSignalBlocked();

  private:
    sigset_t former_mask_;
    bool was_pending_;
};

/// Writes to standard output, in pieces that a pipe accepts at once if it accepts anything, so that
/// the time to wait for the reader is bounded. After a failure nothing more is written.
class StandardOutput {
  public:
    StandardOutput() {}
    void put(std::string_view bytes);
    void put(const char *string) { put({string, std::strlen(string)}); }
    /// Writes what printf() would print, at most 127 bytes.
    [[gnu::format(printf, 2, 3)]] void print(const char *format, ...);
    /// Writes what is left. False if not everything was written.
    bool finish();

  private:
    void flush();

    PipeSignalBlocked no_signal_;
    char buffer_[4096];
    std::size_t used_ = 0;
    bool failed_ = false;
};

} // namespace corvel

#endif
