// SPDX-License-Identifier: MIT
// A PID namespace with a number of sleeping processes, a /proc of its own, and a worker that does
// jobs in it.
#pragma once

#include <sys/types.h>

namespace bench {

/// The processes of the namespace, which sleep.
struct Sleepers {
    int count;          ///< All of them, with the worker, which does not sleep, and the last one.
    const char *daemon; ///< The last one's program: `sleep` by another name.
};

/// What a room's worker does when it is asked.
using Work = double (*)();

/// The room with its worker, which stay until this process ends.
class ProcessRoom {
  public:
    /// All processes run when this returns.
    explicit ProcessRoom(const Sleepers &sleepers);
    ~ProcessRoom();
    ProcessRoom(const ProcessRoom &) = delete;
    ProcessRoom &operator=(const ProcessRoom &) = delete;

    /// Has the worker do something; returns what that returns.
    double ask(Work work) const;

  private:
    int requests_ = -1;
    int replies_ = -1;
    pid_t keeper_ = -1;
};

} // namespace bench
