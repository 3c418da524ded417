// SPDX-License-Identifier: MIT
// Starting a CGI program, from the creation of the process to its end: with the library linked
// dynamically, with the library linked statically, and without it. All three decode one field of
// the same query string, read the same page of 40 lines, and print the same bytes.
//
// An installed shared library is found at once through the dynamic linker's cache. The library is
// not installed here; preloading it by its path is equivalent, since it is also opened at the first
// attempt.
//
// Wall-clock time is measured, since most of it is spent in the kernel and in the dynamic linker.
// The programs run in turn within one loop, so that other load on the machine affects all of them
// equally; the result for each program is the median.
#include "bench/harness.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <spawn.h>
#include <sys/wait.h>
#include <vector>

namespace {

constexpr int page_lines = 40;

class Program {
  public:
    Program(const char *label, const char *file, const char *variable = "DEVICE=router")
        : label_(label), file_(file), variable_(variable) {}

    void run(const std::string &page) const {
        std::string file = file_;
        std::string argument = page;
        std::string query = "QUERY_STRING=address=192.168.1.1%2F24";
        std::string method = "REQUEST_METHOD=GET";
        std::array<char *, 3> arguments{file.data(), argument.data(), nullptr};
        std::string variable = variable_;
        std::array<char *, 4> environment{query.data(), method.data(), variable.data(), nullptr};
        pid_t child = 0;
        int status = 1;
        bench::require(posix_spawn(&child, file_, nullptr, nullptr, arguments.data(),
                                   environment.data()) == 0 &&
                           waitpid(child, &status, 0) == child && status == 0,
                       "a start-up program fails");
    }

    void take_turn(const std::string &page) {
        const auto start = std::chrono::steady_clock::now();
        run(page);
        const auto end = std::chrono::steady_clock::now();
        turns_.push_back(std::chrono::duration<double, std::micro>(end - start).count());
    }

    [[nodiscard]] const char *label() const { return label_; }

    [[nodiscard]] double median() {
        const auto middle = turns_.begin() + static_cast<std::ptrdiff_t>(turns_.size() / 2);
        std::nth_element(turns_.begin(), middle, turns_.end());
        return *middle;
    }

  private:
    const char *label_;
    const char *file_;
    const char *variable_;
    std::vector<double> turns_;
};

std::string place_page() {
    std::string text;
    for (int line = 0; line < page_lines; ++line)
        text += line == page_lines / 2
                    ? "<p>The address is $address.</p>\n"
                    : "<tr class=\"setting\"><td>Address of the port</td></tr>\n";
    std::string path = bench::scratch_path("start_up.html");
    bench::write_file(path, text);
    return path;
}

void start_up(benchmark::State &state) {
    const std::string page = place_page();
    std::array programs{Program("shared", START_UP_SHARED, "LD_PRELOAD=" SHARED_LIBRARY),
                        Program("static", START_UP_STATIC), Program("plain", START_UP_PLAIN)};
    const auto output = [&page](const Program &program) {
        return bench::printed([&] { program.run(page); });
    };
    const std::string expected = output(programs.back());
    bench::require(expected.find("192.168.1.1/24") != std::string::npos,
                   "the plain program prints another page");
    for (const Program &program : programs)
        bench::require(output(program) == expected, "the start-up programs print different pages");

    for ([[maybe_unused]] auto iteration : state) {
        for (Program &program : programs)
            program.take_turn(page);
        std::rotate(programs.begin(), programs.begin() + 1, programs.end());
    }
    for (Program &program : programs)
        state.counters[program.label()] = program.median();
}

BENCHMARK(start_up)->Name("start a CGI program")->Iterations(100)->UseRealTime();

} // namespace
