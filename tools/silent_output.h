// SPDX-License-Identifier: MIT
#ifndef CORVEL_TOOLS_SILENT_OUTPUT_H
#define CORVEL_TOOLS_SILENT_OUTPUT_H

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

#include "support/descriptor.h"

namespace corvel::tools {

/// Discards standard output during its lifetime. The library prints messages about the boot
/// environment to standard output, which must not appear in a program's output.
class SilentOutput {
  public:
    SilentOutput() : own_((std::fflush(stdout), fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3))) {
        const Descriptor nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
        dup2(nowhere.get(), STDOUT_FILENO);
    }
    SilentOutput(const SilentOutput &) = delete;
    SilentOutput &operator=(const SilentOutput &) = delete;
    ~SilentOutput() {
        std::fflush(stdout);
        dup2(own_.get(), STDOUT_FILENO);
    }

  private:
    Descriptor own_;
};

} // namespace corvel::tools

#endif
