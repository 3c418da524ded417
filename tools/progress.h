// SPDX-License-Identifier: MIT
#ifndef CORVEL_TOOLS_PROGRESS_H
#define CORVEL_TOOLS_PROGRESS_H

#include <cstddef>
#include <string>

namespace corvel::tools {

/// Shows progress on standard error, if that is a terminal. The destructor erases the line.
class Progress {
  public:
    /// A total of 0 means unknown. `what` must have passed through printable().
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
