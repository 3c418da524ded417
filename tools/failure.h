// SPDX-License-Identifier: MIT
#ifndef CORVEL_TOOLS_FAILURE_H
#define CORVEL_TOOLS_FAILURE_H

#include <stdexcept>
#include <string>

namespace corvel::tools {

/// The exit statuses of the programs.
enum ExitStatus : int {
    success = 0,
    bad_content = 1,  ///< the input, or the requested change, is invalid
    cannot_do_it = 2, ///< wrong usage, or a file could not be read or written
    warned = 3,       ///< accepted with warnings, which --strict makes errors
};

/// Ends the program with this status and a message on standard error.
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
