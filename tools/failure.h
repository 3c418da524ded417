// SPDX-License-Identifier: MIT
#ifndef CORVEL_TOOLS_FAILURE_H
#define CORVEL_TOOLS_FAILURE_H

#include <stdexcept>
#include <string>

namespace corvel::tools {

/// How a program ends.
enum ExitStatus : int {
    success = 0,
    bad_content = 1,  ///< what was looked at, or asked for, is bad
    cannot_do_it = 2, ///< wrong usage, or a file that could not be read or written
    warned = 3,       ///< accepted with warnings, where --strict makes each an error
};

/// Ends the program with a message on standard error.
class Failure : public std::runtime_error {
  public:
    Failure(ExitStatus status, const std::string &message)
        : std::runtime_error(message), status_(status) {}

    [[nodiscard]] ExitStatus status() const { return status_; }

  private:
    ExitStatus status_;
};

} // namespace corvel::tools

#endif
