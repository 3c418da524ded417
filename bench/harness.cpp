// SPDX-License-Identifier: MIT
#include "harness.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <malloc.h>

namespace bench {

namespace {

/// The scratch folder; gone with the process.
class ScratchDirectory {
  public:
    ScratchDirectory() {
        if (mkdtemp(path_.data()) == nullptr)
            fail("no folder can be made in /dev/shm");
    }
    ~ScratchDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    ScratchDirectory(const ScratchDirectory &) = delete;
    ScratchDirectory &operator=(const ScratchDirectory &) = delete;
    [[nodiscard]] const std::string &path() const { return path_; }

  private:
    std::string path_ = "/dev/shm/corvel-bench.XXXXXX";
};

/// Keeps what a job frees in the heap. Otherwise a job that frees more than 128 KB at the heap's
/// end gives the pages back and has the kernel make new ones in every run, a smaller one never
/// does, and which of the two a side is depends on what else lies in the heap.
void keep_freed_pages() {
    mallopt(M_MMAP_THRESHOLD, 32 << 20);
    mallopt(M_TRIM_THRESHOLD, 1 << 30);
}

} // namespace

void fail(const std::string &message) {
    std::cerr << "corvel_bench: " << message << '\n';
    std::exit(1);
}

std::string scratch_path(std::string_view name) {
    static const ScratchDirectory folder;
    return folder.path() + '/' + std::string(name);
}

void write_file(const std::string &path, std::string_view text) {
    const File file(std::fopen(path.c_str(), "w"));
    require(file && std::fwrite(text.data(), 1, text.size(), file.get()) == text.size() &&
                std::fflush(file.get()) == 0,
            "a scratch file could not be written");
}

std::string read_file(const std::string &path) {
    const File file(std::fopen(path.c_str(), "r"));
    std::string text(std::filesystem::file_size(path), '\0');
    require(file && std::fread(text.data(), 1, text.size(), file.get()) == text.size(),
            "a scratch file could not be read");
    return text;
}

void redirect_stdout(const char *path) {
    std::fflush(stdout);
    const File target(std::fopen(path, "w"));
    require(target && dup2(fileno(target.get()), STDOUT_FILENO) >= 0,
            "standard output could not be redirected");
}

namespace {

std::vector<std::string> environment() {
    std::vector<std::string> entries;
    for (char **entry = environ; *entry != nullptr; ++entry)
        entries.emplace_back(*entry);
    return entries;
}

/// Runs a side, which must leave the environment as it was: the programs that a later job starts
/// inherit it.
void run_side(const Side &side, benchmark::State &state) {
    const std::vector<std::string> before = environment();
    side.run(state);
    require(environment() == before, "a job leaves the environment changed");
}

} // namespace

Job::Job(const char *name, const std::vector<Size> &sizes, const std::vector<Side> &sides,
         Clock clock) {
    for (const Size &size : sizes)
        for (const Side &side : sides) {
            auto *const registered = benchmark::RegisterBenchmark(
                (std::string(name) + '/' + side.name).c_str(),
                [side](benchmark::State &state) { run_side(side, state); });
            registered->Args(size);
            if (clock == Clock::of_its_own)
                registered->UseManualTime();
        }
}

namespace {

/// Rounds that are reported as JSON documents, one behind the other in one file.
bool run_rounds(long rounds, const std::string &path) {
    std::ofstream file(path);
    std::size_t benchmarks = 1;
    for (long round = 0; round < rounds && benchmarks != 0; ++round) {
        benchmark::JSONReporter reporter;
        reporter.SetOutputStream(&file);
        reporter.SetErrorStream(&std::cerr);
        benchmarks = benchmark::RunSpecifiedBenchmarks(&reporter);
    }
    file.flush();
    return benchmarks != 0 && file.good();
}

/// One round that is reported on standard error.
bool run_once() {
    benchmark::ConsoleReporter reporter(benchmark::ConsoleReporter::OO_Tabular);
    reporter.SetOutputStream(&std::cerr);
    reporter.SetErrorStream(&std::cerr);
    return benchmark::RunSpecifiedBenchmarks(&reporter) != 0;
}

} // namespace

} // namespace bench

/// Takes Google Benchmark's options and, behind them, a number of rounds and a file for their
/// reports. Standard output belongs to the jobs and goes to /dev/null for all of them.
int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    bench::keep_freed_pages();
    bench::redirect_stdout("/dev/null");
    const bool done = argc == 3 ? bench::run_rounds(std::strtol(argv[1], nullptr, 10), argv[2])
                                : bench::run_once();
    bench::require(done, "no benchmark has such a name, or the report can't be written");
    benchmark::Shutdown();
}
