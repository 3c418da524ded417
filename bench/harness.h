// SPDX-License-Identifier: MIT
// Shared helpers of the benchmarks: a scratch directory in memory, standard output at no cost,
// checks that the sides have the same result, and the loop that times them.
//
// A job has several sides: "corvel", its peers, and "limit", the minimum cost of the job with the C
// library alone. The machine's speed may change from second to second, so all sides of a job run
// one after the other, and this is repeated for several rounds in one process;
// bench/compare compares the sides within each round.
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

/// Ends the run with a message, because the measured job would not be the intended one.
[[noreturn]] void fail(const std::string &message);

inline void require(bool holds, const char *message) {
    if (!holds)
        fail(message);
}

/// A path in this process's directory on tmpfs, so that no result depends on a disk.
std::string scratch_path(std::string_view name);

void write_file(const std::string &path, std::string_view text);
std::string read_file(const std::string &path);

/// Redirects standard output to a file.
void redirect_stdout(const char *path);

/// Returns the output of @p print on standard output.
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

/// Only measured code runs in this function: a profiler counts the instructions executed inside
/// it.
template <typename Run> [[gnu::noinline]] void measured_part(Run &run) {
    run();
    benchmark::ClobberMemory();
}

/// Times @p run.
template <typename Run> void measure(benchmark::State &state, Run run) {
    for ([[maybe_unused]] auto iteration : state)
        measured_part(run);
}

/// Times @p run, with an unmeasured @p prepare before and an unmeasured @p tidy after each
/// iteration.
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

/// The arguments of a side; the first one is the size of the job.
using Size = std::vector<std::int64_t>;

/// The clock that a job is timed with.
enum class Clock {
    processor, ///< The processor time of this process.
    of_its_own ///< The sides report their time with SetIterationTime().
};

/// Registers a job's benchmarks, named job/side/size, in the order of their execution.
class Job {
  public:
    Job(const char *name, const std::vector<Size> &sizes, const std::vector<Side> &sides,
        Clock clock = Clock::processor);
};

} // namespace bench
