// SPDX-License-Identifier: MIT
// A PID namespace with sleeping processes, its own /proc, and a worker that runs functions in it.
#pragma once

#include <sys/types.h>

namespace bench {

/// The sleeping processes of the namespace.
struct Sleepers {
    int count;          ///< Their number, including the worker and the last one.
    const char *daemon; ///< Name of the program of the last one: a copy of `sleep`.
};

/// A function for the worker of a room.
using Work = double (*)();

/// The namespace with its worker; both exist until this process ends.
class ProcessRoom {
  public:
    /// Returns when all processes are running.
    explicit ProcessRoom(const Sleepers &sleepers);
    ~ProcessRoom();
    ProcessRoom(const ProcessRoom &) = delete;
    ProcessRoom &operator=(const ProcessRoom &) = delete;

    /// Runs a function in the worker; returns its result.
    double ask(Work work) const;

  private:
    int requests_ = -1;
    int replies_ = -1;
    pid_t keeper_ = -1;
};

} // namespace bench
