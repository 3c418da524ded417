// SPDX-License-Identifier: MIT
#ifndef CORVEL_TOOLS_SILENT_OUTPUT_H
#define CORVEL_TOOLS_SILENT_OUTPUT_H

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

#include "support/descriptor.h"

namespace corvel::tools {

/// While it lives, standard output goes nowhere. The library prints messages of the boot
/// environment there, and a program's output is to hold nothing but its own.
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
