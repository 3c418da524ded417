// SPDX-License-Identifier: MIT
#include "bench/harness.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <malloc.h>

namespace bench {

namespace {

/// The scratch directory, removed when the process ends.
class ScratchDirectory {
  public:
    ScratchDirectory() {
        if (mkdtemp(path_.data()) == nullptr)
            fail("cannot create a directory in /dev/shm");
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

/// Keeps freed memory in the heap. By default, freeing more than 128 KiB at the end of the heap
/// returns the pages to the kernel, which then provides new ones in every run. Whether that happens
/// to a side would depend on the other contents of the heap.
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
    static const ScratchDirectory directory;
    return directory.path() + '/' + std::string(name);
}

void write_file(const std::string &path, std::string_view text) {
    const File file(std::fopen(path.c_str(), "w"));
    require(file && std::fwrite(text.data(), 1, text.size(), file.get()) == text.size() &&
                std::fflush(file.get()) == 0,
            "cannot write a scratch file");
}

std::string read_file(const std::string &path) {
    const File file(std::fopen(path.c_str(), "r"));
    std::string text(std::filesystem::file_size(path), '\0');
    require(file && std::fread(text.data(), 1, text.size(), file.get()) == text.size(),
            "cannot read a scratch file");
    return text;
}

void redirect_stdout(const char *path) {
    std::fflush(stdout);
    const File target(std::fopen(path, "w"));
    require(target && dup2(fileno(target.get()), STDOUT_FILENO) >= 0,
            "cannot redirect standard output");
}

namespace {

std::vector<std::string> environment() {
    std::vector<std::string> entries;
    for (char **entry = environ; *entry != nullptr; ++entry)
        entries.emplace_back(*entry);
    return entries;
}

/// Runs a side, which must restore the environment: programs started by a later job inherit it.
void run_side(const Side &side, benchmark::State &state) {
    const std::vector<std::string> before = environment();
    side.run(state);
    require(environment() == before, "a job changed the environment");
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

/// Runs the rounds and appends a JSON document for each to one file.
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

/// Runs one round and reports it on standard error.
bool run_once() {
    benchmark::ConsoleReporter reporter(benchmark::ConsoleReporter::OO_Tabular);
    reporter.SetOutputStream(&std::cerr);
    reporter.SetErrorStream(&std::cerr);
    return benchmark::RunSpecifiedBenchmarks(&reporter) != 0;
}

} // namespace

} // namespace bench

/// Arguments: options of Google Benchmark, then the number of rounds and the file for their
/// reports. Standard output is used by the jobs and redirected to /dev/null.
int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    bench::keep_freed_pages();
    bench::redirect_stdout("/dev/null");
    const bool done = argc == 3 ? bench::run_rounds(std::strtol(argv[1], nullptr, 10), argv[2])
                                : bench::run_once();
    bench::require(done, "no benchmark matches the name, or the report cannot be written");
    benchmark::Shutdown();
}
