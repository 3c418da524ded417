/* SPDX-License-Identifier: MIT */
#include "support/kill_points.h"

#include "support/child_process.h"
#include "support/stand_in_calls.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace corvel_test {

namespace {

[[noreturn]] void fail(const std::string &what) {
    throw std::system_error(errno, std::generic_category(), what);
}

#ifdef CORVEL_EMULATOR

/** Makes a run that ends itself at its n-th point; false if it has fewer. */
bool kill_run_at(const std::function<void()> &run, unsigned long n) {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child < 0)
        fail("fork");
    if (child == 0) {
        stand_in_calls_to_live = n;
        run();
        _exit(0);
    }
    const ChildResult result = wait_for_child(child);
    if (result.signal != SIGKILL && result.exit_status != 0)
        throw std::runtime_error("the run ended with status " + std::to_string(result.exit_status) +
                                 ", signal " + std::to_string(result.signal));
    return result.signal == SIGKILL;
}

#else

/** A child stopped just before the run; it stops again just behind it. */
pid_t start_stopped(const std::function<void()> &run) {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child < 0)
        fail("fork");
    if (child == 0) {
        if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
            _exit(127);
        raise(SIGSTOP);
        run();
        raise(SIGSTOP);
        _exit(0);
    }
    int status = 0;
    if (waitpid(child, &status, 0) != child || !WIFSTOPPED(status))
        fail("the child did not stop");
    if (ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL) != 0)
        fail("ptrace");
    return child;
}

void end(pid_t child) {
    kill(child, SIGKILL);
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
}

/** Lets the child run to its n-th system call; false if it comes to its end before. */
bool reaches_system_call(pid_t child, unsigned long n) {
    constexpr int system_call_stop = SIGTRAP | 0x80;
    // Each call stops twice: at its entry and at its exit.
    for (unsigned long stops = 0; stops < 2 * n - 1;) {
        int status = 0;
        if (ptrace(PTRACE_SYSCALL, child, nullptr, nullptr) != 0)
            fail("ptrace");
        if (waitpid(child, &status, 0) != child)
            fail("waitpid");
        if (!WIFSTOPPED(status))
            throw std::runtime_error("the child ended within the run");
        if (WSTOPSIG(status) == SIGSTOP)
            return false;
        if (WSTOPSIG(status) != system_call_stop)
            throw std::runtime_error("signal " + std::to_string(WSTOPSIG(status)) +
                                     " within the run");
        ++stops;
    }
    return true;
}

/** Makes a run and kills it at its n-th point; false if it has fewer. */
bool kill_run_at(const std::function<void()> &run, unsigned long n) {
    const pid_t child = start_stopped(run);
    const bool killed = reaches_system_call(child, n);
    end(child);
    return killed;
}

#endif

/**
 * The process that starts and kills the runs. It does nothing else, so that every run begins in the
 * same state and makes the same system calls.
 */
class Starter {
  public:
    explicit Starter(const std::function<void()> &run) {
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends_.data()) != 0)
            fail("socketpair");
        std::fflush(nullptr);
        process_ = fork();
        if (process_ < 0)
            fail("fork");
        if (process_ == 0)
            serve(run);
        close(ends_[1]);
    }
    ~Starter() {
        close(ends_[0]);
        waitpid(process_, nullptr, 0);
    }
    Starter(const Starter &) = delete;
    Starter &operator=(const Starter &) = delete;

    /** As kill_run_at() does, in the other process. */
    [[nodiscard]] bool kill_at(unsigned long n) const {
        bool killed = false;
        if (write(ends_[0], &n, sizeof n) != sizeof n ||
            read(ends_[0], &killed, sizeof killed) != sizeof killed)
            throw std::runtime_error("a run could not be made or traced");
        return killed;
    }

  private:
    [[noreturn]] void serve(const std::function<void()> &run) const {
        close(ends_[0]);
        unsigned long n = 0;
        try {
            while (read(ends_[1], &n, sizeof n) == sizeof n) {
                const bool killed = kill_run_at(run, n);
                if (write(ends_[1], &killed, sizeof killed) != sizeof killed)
                    _exit(1);
            }
        } catch (const std::exception &exception) {
            std::fprintf(stderr, "kill point %lu: %s\n", n, exception.what());
            _exit(1);
        }
        _exit(0);
    }

    std::array<int, 2> ends_{};
    pid_t process_ = 0;
};

} // namespace

unsigned long for_each_kill_point(const std::function<void()> &prepare,
                                  const std::function<void()> &run,
                                  const std::function<void(unsigned long)> &check) {
    const Starter starter(run);
    for (unsigned long n = 1;; ++n) {
        prepare();
        const bool killed = starter.kill_at(n);
        check(n);
        if (!killed)
            return n - 1;
    }
}

} // namespace corvel_test
