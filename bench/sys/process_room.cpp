// SPDX-License-Identifier: MIT
#include "bench/sys/process_room.h"

#include "bench/harness.h"

#include <array>
#include <csignal>
#include <sched.h>
#include <spawn.h>
#include <string>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace bench {

namespace {

/// Process names as on a router.
constexpr std::array names = {"sh", "httpd", "dropbear", "syslogd", "hostapd", "worker", "udevd"};

[[noreturn]] void give_up(const char *what) {
    std::perror(what);
    _exit(1);
}

void need(bool holds, const char *what) {
    if (!holds)
        give_up(what);
}

struct Pipe {
    Pipe() { need(pipe(ends) == 0, "pipe"); }
    int ends[2] = {-1, -1};
};

void sleep_as(const char *name) {
    if (fork() != 0)
        return;
    prctl(PR_SET_NAME, name);
    for (;;)
        pause();
}

void start(const Sleepers &sleepers) {
    for (int i = 0; i < sleepers.count - 2; ++i)
        sleep_as(names[static_cast<std::size_t>(i) % names.size()]);
    std::string program = sleepers.daemon;
    std::string seconds = "100000";
    std::array<char *, 3> arguments{program.data(), seconds.data(), nullptr};
    pid_t last = 0;
    need(posix_spawn(&last, sleepers.daemon, nullptr, nullptr, arguments.data(), environ) == 0,
         "cannot start the process to be found");
}

/// The first process of the namespace; when it ends, the kernel kills all others.
[[noreturn]] void work(const Sleepers &sleepers, int requests, int replies) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    need(mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) == 0,
         "/proc can't be mounted");
    start(sleepers);
    Work asked = nullptr;
    double result = 0; // the first reply reports that all are running
    for (;;) {
        need(write(replies, &result, sizeof result) == sizeof result, "no reply");
        if (read(requests, &asked, sizeof asked) != sizeof asked)
            _exit(0);
        result = asked();
    }
}

/// Keeps the namespace alive, without being in it.
[[noreturn]] void keep(const Sleepers &sleepers, int requests, int replies) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int user = geteuid() == 0 ? 0 : CLONE_NEWUSER;
    need(unshare(user | CLONE_NEWPID | CLONE_NEWNS) == 0, "cannot create namespaces");
    need(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0,
         "cannot make the mounts private");
    const pid_t worker = fork();
    need(worker >= 0, "fork");
    if (worker == 0)
        work(sleepers, requests, replies);
    close(requests);
    close(replies);
    waitpid(worker, nullptr, 0);
    _exit(0);
}

} // namespace

ProcessRoom::ProcessRoom(const Sleepers &sleepers) {
    const Pipe requests;
    const Pipe replies;
    const pid_t keeper = fork();
    if (keeper == 0) {
        close(requests.ends[1]);
        close(replies.ends[0]);
        keep(sleepers, requests.ends[0], replies.ends[1]);
    }
    close(requests.ends[0]);
    close(replies.ends[1]);
    keeper_ = keeper;
    requests_ = requests.ends[1];
    replies_ = replies.ends[0];
    double ready = 0;
    require(keeper_ > 0 && read(replies_, &ready, sizeof ready) == sizeof ready,
            "the namespace with its processes could not be created");
}

ProcessRoom::~ProcessRoom() {
    close(requests_);
    close(replies_);
    waitpid(keeper_, nullptr, 0);
}

double ProcessRoom::ask(Work work) const {
    double result = 0;
    require(write(requests_, &work, sizeof work) == sizeof work &&
                read(replies_, &result, sizeof result) == sizeof result,
            "the worker failed");
    return result;
}

} // namespace bench
