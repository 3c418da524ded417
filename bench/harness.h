// SPDX-License-Identifier: MIT
// What every benchmark stands on: a scratch folder in memory, standard output that costs nothing,
// checks that two sides did the same job, and the one loop that times it.
//
// A job has sides: "corvel", its peers, and "limit", the least that the job could cost with the C
// library alone. The machine's speed may change from second to second, so all sides of a job run
// one right after the other, and the whole goes round several times in one process; report.py
// compares the sides within each round.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <unistd.h>
#include <utility>
#include <vector>

namespace bench {

/// Ends the run with a message: what would be measured is not the job that it claims to be.
[[noreturn]] void fail(const std::string &message);

inline void require(bool holds, const char *message) {
    if (!holds)
        fail(message);
}

/// A name in a folder of this process on tmpfs, so that no figure depends on a disk.
std::string scratch_path(std::string_view name);

void write_file(const std::string &path, std::string_view text);
std::string read_file(const std::string &path);

/// Sends standard output to a file, or back to where it went.
void redirect_stdout(const char *path);

/// What @p print writes to standard output.
template <typename Print> std::string printed(Print &&print) {
    const std::string path = scratch_path("printed");
    redirect_stdout(path.c_str());
    std::forward<Print>(print)();
    redirect_stdout("/dev/null");
    return read_file(path);
}

struct CloseFile {
    void operator()(std::FILE *file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

/// All measured code runs in here and nothing else does: a profiler counts what is called from
/// here.
template <typename Run> [[gnu::noinline]] void measured_part(Run &run) {
    run();
    benchmark::ClobberMemory();
}

/// Times @p run.
template <typename Run> void measure(benchmark::State &state, Run run) {
    for ([[maybe_unused]] auto iteration : state)
        measured_part(run);
}

/// Times @p run, each time after an unmeasured @p prepare and in front of an unmeasured @p tidy.
template <typename Prepare, typename Run, typename Tidy>
void measure(benchmark::State &state, Prepare prepare, Run run, Tidy tidy) {
    for ([[maybe_unused]] auto iteration : state) {
        state.PauseTiming();
        prepare();
        state.ResumeTiming();
        measured_part(run);
        state.PauseTiming();
        tidy();
        state.ResumeTiming();
    }
}

struct Side {
    const char *name;
    void (*run)(benchmark::State &);
};

/// The numbers that a side finds in its state; the first is the one that the job's time grows with.
using Size = std::vector<std::int64_t>;

/// Whose clock a job is timed with.
enum class Clock {
    processor, ///< This process's time on the processor.
    of_its_own ///< The sides tell the time themselves, with SetIterationTime().
};

/// Registers a job's benchmarks, named job/side/size, in the order in which they are to run.
class Job {
  public:
    Job(const char *name, const std::vector<Size> &sizes, const std::vector<Side> &sides,
        Clock clock = Clock::processor);
};

} // namespace bench
