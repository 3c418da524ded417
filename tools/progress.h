// SPDX-License-Identifier: MIT
#ifndef CORVEL_TOOLS_PROGRESS_H
#define CORVEL_TOOLS_PROGRESS_H

#include <cstddef>
#include <string>

namespace corvel::tools {

/// Shows on standard error how far a piece of work is, if a person watches: only on a terminal. The
/// line is gone when the work is done.
class Progress {
  public:
    /// A total of 0 is one that is not known; the text is printable().
    Progress(std::string what, std::size_t total);
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;
    ~Progress();

    void show(std::size_t done);

  private:
    std::string what_;
    std::size_t total_;
    bool watched_;
};

} // namespace corvel::tools

#endif
