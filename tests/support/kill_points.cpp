/* SPDX-License-Identifier: MIT */
#include "tests/support/kill_points.h"

#include "tests/support/stand_in_calls.h"

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

/** A run and what happens at its n-th point. */
struct Trial {
    std::function<void()> run;
    /** Runs in another child while the run is paused; may be empty. */
    std::function<void()> meanwhile;
    AfterPause after;
    /** The maximum time that the run stays paused for the other child. */
    std::chrono::milliseconds patience{0};
};

/** Starts a child that calls a function and exits. */
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

/** Kills a child and waits for it. */
void end(pid_t child) {
    kill(child, SIGKILL);
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
}

/** Waits for a child for a limited time; true if it has exited. */
bool exits_within(pid_t child, std::chrono::milliseconds patience) {
    const auto end = std::chrono::steady_clock::now() + patience;
    while (waitpid(child, nullptr, WNOHANG) != child) {
        if (std::chrono::steady_clock::now() >= end)
            return false;
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
    return true;
}

/** Runs the other child of a trial while the run is paused, then continues or kills the run. */
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

/** Starts a run and stops it at its n-th point; false if it has fewer. */
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
        throw std::runtime_error("the run exited with status " + std::to_string(status));
    if (trial.meanwhile)
        waitpid(start(trial.meanwhile), nullptr, 0);
    return false;
}

#else

/** Starts a child that stops immediately before the run, and again immediately after it. */
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

/** Continues the child to its n-th system call; false if the run makes fewer. */
bool reaches_system_call(pid_t child, unsigned long n) {
    constexpr int system_call_stop = SIGTRAP | 0x80;
    // The child stops twice for each call: at its entry and at its exit.
    for (unsigned long stops = 0; stops < 2 * n - 1;) {
        int status = 0;
        if (ptrace(PTRACE_SYSCALL, child, nullptr, nullptr) != 0)
            fail("ptrace");
        if (waitpid(child, &status, 0) != child)
            fail("waitpid");
        if (!WIFSTOPPED(status))
            throw std::runtime_error("the child ended during the run");
        if (WSTOPSIG(status) == SIGSTOP)
            return false;
        if (WSTOPSIG(status) != system_call_stop)
            throw std::runtime_error("signal " + std::to_string(WSTOPSIG(status)) +
                                     " during the run");
        ++stops;
    }
    return true;
}

/** Starts a run and stops it at its n-th point; false if it has fewer. */
bool make_run(const Trial &trial, unsigned long n) {
    const pid_t child = start_stopped(trial.run);
    const bool reached = reaches_system_call(child, n);
    pause(child, trial, [child, reached] {
        int status = 0;
        if (reached && (ptrace(PTRACE_CONT, child, nullptr, nullptr) != 0 ||
                        waitpid(child, &status, 0) != child || !WIFSTOPPED(status)))
            fail("the run did not finish");
    });
    return reached;
}

#endif

/**
 * The process that starts and stops the runs. It does nothing else, so that every run starts in the
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

    /** Calls make_run() in that process. */
    [[nodiscard]] bool stop_at(unsigned long n) const {
        bool stopped = false;
        if (write(ends_[0], &n, sizeof n) != sizeof n ||
            read(ends_[0], &stopped, sizeof stopped) != sizeof stopped)
            throw std::runtime_error("cannot start or trace a run");
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
