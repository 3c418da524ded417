// SPDX-License-Identifier: MIT
// Finding a process by its name among N, in a separate PID namespace.
//
// The peers are programs, which a CGI program would start. The time of a side is the processor time
// of the searching process and of the programs that it starts. The limit makes only the necessary
// system calls: it lists /proc, and opens, reads and closes the status file of each process.
#include "bench/harness.h"
#include "bench/sys/process_room.h"

#include <corvel.h>

#include <array>
#include <csignal>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <spawn.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/wait.h>

namespace {

constexpr int process_count = 1000;
constexpr const char *daemon_name = "lease-daemon";

std::string place_daemon() {
    std::string path = bench::scratch_path(daemon_name);
    std::filesystem::copy_file("/bin/sleep", path, std::filesystem::copy_options::skip_existing);
    return path;
}

const bench::ProcessRoom &room() {
    static const std::string daemon = place_daemon();
    static const bench::ProcessRoom room({process_count, daemon.c_str()});
    return room;
}

// --------------------------------------------------------------------- functions run by the worker

void run_program(const char *program, const char *option) {
    std::array<std::string, 3> texts{program, option, daemon_name};
    std::array<char *, 4> arguments{texts[0].data(), texts[1].data(), texts[2].data(), nullptr};
    pid_t child = 0;
    int status = 1;
    bench::require(posix_spawnp(&child, program, nullptr, nullptr, arguments.data(), environ) ==
                           0 &&
                       waitpid(child, &status, 0) == child && status == 0,
                   "a peer does not find the process");
}

void with_corvel() { benchmark::DoNotOptimize(app_isrun(daemon_name)); }
void with_pidof() { run_program("pidof", "-s"); }
void with_pgrep() { run_program("pgrep", "-x"); }

void with_system_calls_alone() {
    DIR *const processes = opendir("/proc");
    while (const dirent *const entry = readdir(processes)) {
        if (entry->d_name[0] < '0' || entry->d_name[0] > '9')
            continue;
        std::array<char, sizeof "/proc//status" + sizeof entry->d_name> path;
        std::array<char, 48> block;
        std::snprintf(path.data(), path.size(), "/proc/%s/status",
                      static_cast<const char *>(entry->d_name));
        const int file = open(path.data(), O_RDONLY);
        bench::require(read(file, block.data(), block.size()) > 0, "cannot read a status file");
        close(file);
    }
    closedir(processes);
}

double seconds(const timeval &time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

double processor_time_of(int who) {
    rusage usage{};
    getrusage(who, &usage);
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double processor_time() {
    return processor_time_of(RUSAGE_SELF) + processor_time_of(RUSAGE_CHILDREN);
}

template <void run()> double seconds_of() {
    const double start = processor_time();
    run();
    return processor_time() - start;
}

double found_by_corvel() { return app_isrun(daemon_name); }

double found_by(void (*peer)()) {
    return std::stod(bench::printed([peer] { peer(); }));
}
double found_by_pidof() { return found_by(with_pidof); }
double found_by_pgrep() { return found_by(with_pgrep); }

/// Counts the system calls of one search, made by an additional process, which the search visits
/// too.
double system_calls() {
    const pid_t searcher = fork();
    bench::require(searcher >= 0, "cannot create a process");
    if (searcher == 0) {
        if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
            _exit(1);
        raise(SIGSTOP);
        with_corvel();
        kill(getpid(), SIGKILL); // getpid() and kill(): two calls not made by the search
    }
    int status = 0;
    int stops = 0;
    waitpid(searcher, &status, 0);
    for (; WIFSTOPPED(status); ++stops) {
        ptrace(PTRACE_SYSCALL, searcher, nullptr, nullptr);
        waitpid(searcher, &status, 0);
    }
    bench::require(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL && stops > 0,
                   "tracing a search failed");
    const int calls = stops / 2; // it stops at the entry and at the exit of each call
    return calls - 2;
}

// ------------------------------------------------------------------------------------- the sides

template <bench::Work turn> void side(benchmark::State &state) {
    for ([[maybe_unused]] auto iteration : state)
        state.SetIterationTime(room().ask(turn));
}

void corvel(benchmark::State &state) {
    const double found = room().ask(found_by_corvel);
    bench::require(found > 0 && found == room().ask(found_by_pidof) &&
                       found == room().ask(found_by_pgrep),
                   "the sides find different processes");
    state.counters["system calls"] = room().ask(system_calls);
    state.counters["processes"] = process_count + 1;
    side<seconds_of<with_corvel>>(state);
}

const bench::Job job("find a process", {{process_count}},
                     {{"corvel", corvel},
                      {"pidof", side<seconds_of<with_pidof>>},
                      {"pgrep", side<seconds_of<with_pgrep>>},
                      {"limit", side<seconds_of<with_system_calls_alone>>}},
                     bench::Clock::of_its_own);

} // namespace
