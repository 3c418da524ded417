/* SPDX-License-Identifier: MIT */
#include "support/kill_points.h"

#include "support/stand_in_calls.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace corvel_test {

namespace {

[[noreturn]] void fail(const std::string &what) {
    throw std::system_error(errno, std::generic_category(), what);
}

/** What happens to a run at its n-th point. */
struct Trial {
    std::function<void()> run;
    /** Runs in another child while the run is paused; there may be none. */
    std::function<void()> meanwhile;
    AfterPause after;
    /** How long the other child may take while the run is paused. */
    std::chrono::milliseconds patience{0};
};

/** A child that does a piece of work and exits. */
pid_t start(const std::function<void()> &work) {
    const pid_t child = fork();
    if (child < 0)
        fail("fork");
    if (child == 0) {
        work();
        _exit(0);
    }
    return child;
}

/** Ends a child, whatever it is doing. */
void end(pid_t child) {
    kill(child, SIGKILL);
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
}

/** Waits for a child for a while; true if it has exited. */
bool exits_within(pid_t child, std::chrono::milliseconds patience) {
    const auto end = std::chrono::steady_clock::now() + patience;
    while (waitpid(child, nullptr, WNOHANG) != child) {
        if (std::chrono::steady_clock::now() >= end)
            return false;
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
    return true;
}

/** Does what a trial does while the run is paused, and then lets the run go on or ends it. */
void pause(pid_t run, const Trial &trial, const std::function<void()> &let_it_go_on) {
    std::fflush(nullptr);
    const pid_t other = trial.meanwhile ? start(trial.meanwhile) : -1;
    const bool exited = other < 0 || exits_within(other, trial.patience);
    if (trial.after == AfterPause::go_on)
        let_it_go_on();
    end(run);
    if (!exited && waitpid(other, nullptr, 0) != other)
        fail("waitpid");
}

#ifdef CORVEL_EMULATOR

/** Makes a run that is stopped at its n-th point; false if it has fewer. */
bool make_run(const Trial &trial, unsigned long n) {
    std::fflush(nullptr);
    const pid_t child = start([&trial, n] {
        stand_in_signal = SIGSTOP;
        stand_in_calls_to_signal = n;
        trial.run();
    });
    int status = 0;
    if (waitpid(child, &status, WUNTRACED) != child)
        fail("waitpid");
    if (WIFSTOPPED(status)) {
        pause(child, trial, [child] {
            kill(child, SIGCONT);
            siginfo_t exited = {};
            if (waitid(P_PID, static_cast<id_t>(child), &exited, WEXITED | WNOWAIT) != 0)
                fail("waitid");
        });
        return true;
    }
    if (status != 0)
        throw std::runtime_error("the run ended with status " + std::to_string(status));
    if (trial.meanwhile)
        waitpid(start(trial.meanwhile), nullptr, 0);
    return false;
}

#else

/** A child stopped just before the run; it stops again just behind it. */
pid_t start_stopped(const std::function<void()> &run) {
    std::fflush(nullptr);
    const pid_t child = start([&run] {
        if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
            _exit(127);
        raise(SIGSTOP);
        run();
        raise(SIGSTOP);
    });
    int status = 0;
    if (waitpid(child, &status, 0) != child || !WIFSTOPPED(status))
        fail("the child did not stop");
    if (ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL) != 0)
        fail("ptrace");
    return child;
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

/** Makes a run that is stopped at its n-th point; false if it has fewer. */
bool make_run(const Trial &trial, unsigned long n) {
    const pid_t child = start_stopped(trial.run);
    const bool reached = reaches_system_call(child, n);
    pause(child, trial, [child, reached] {
        int status = 0;
        if (reached && (ptrace(PTRACE_CONT, child, nullptr, nullptr) != 0 ||
                        waitpid(child, &status, 0) != child || !WIFSTOPPED(status)))
            fail("the run did not come to its end");
    });
    return reached;
}

#endif

/**
 * The process that starts and stops the runs. It does nothing else, so that every run begins in the
 * same state and makes the same system calls.
 */
class Starter {
  public:
    explicit Starter(const Trial &trial) {
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends_.data()) != 0)
            fail("socketpair");
        std::fflush(nullptr);
        process_ = fork();
        if (process_ < 0)
            fail("fork");
        if (process_ == 0)
            serve(trial);
        close(ends_[1]);
    }
    ~Starter() {
        close(ends_[0]);
        waitpid(process_, nullptr, 0);
    }
    Starter(const Starter &) = delete;
    Starter &operator=(const Starter &) = delete;

    /** As make_run() does, in the other process. */
    [[nodiscard]] bool stop_at(unsigned long n) const {
        bool stopped = false;
        if (write(ends_[0], &n, sizeof n) != sizeof n ||
            read(ends_[0], &stopped, sizeof stopped) != sizeof stopped)
            throw std::runtime_error("a run could not be made or traced");
        return stopped;
    }

  private:
    [[noreturn]] void serve(const Trial &trial) const {
        close(ends_[0]);
        unsigned long n = 0;
        try {
            while (read(ends_[1], &n, sizeof n) == sizeof n) {
                const bool stopped = make_run(trial, n);
                if (write(ends_[1], &stopped, sizeof stopped) != sizeof stopped)
                    _exit(1);
            }
        } catch (const std::exception &exception) {
            std::fprintf(stderr, "point %lu: %s\n", n, exception.what());
            _exit(1);
        }
        _exit(0);
    }

    std::array<int, 2> ends_{};
    pid_t process_ = 0;
};

unsigned long for_each_point(const std::function<void()> &prepare, const Trial &trial,
                             const std::function<void(unsigned long)> &check) {
    const Starter starter(trial);
    for (unsigned long n = 1;; ++n) {
        prepare();
        const bool stopped = starter.stop_at(n);
        check(n);
        if (!stopped)
            return n - 1;
    }
}

} // namespace

unsigned long for_each_kill_point(const std::function<void()> &prepare,
                                  const std::function<void()> &run,
                                  const std::function<void(unsigned long)> &check) {
    return for_each_point(prepare, {.run = run, .meanwhile = {}, .after = AfterPause::die}, check);
}

unsigned long for_each_pause_point(const std::function<void()> &prepare,
                                   const std::function<void()> &run,
                                   const std::function<void()> &meanwhile, AfterPause after,
                                   const std::function<void(unsigned long)> &check,
                                   std::chrono::milliseconds patience) {
    return for_each_point(prepare, {run, meanwhile, after, patience}, check);
}

} // namespace corvel_test
