// SPDX-License-Identifier: MIT
#include "sys/process_lookup.h"

#include <corvel.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <span>
#include <unistd.h>

#include "support/descriptor.h"
#include "support/handles.h"
#include "support/line_input.h"
#include "support/line_scanner.h"
#include "support/text.h"
#include "sys/error_and_io.h"

namespace corvel {
namespace {

using namespace std::string_view_literals;

/// The kernel cuts a process's short name to this length.
constexpr std::size_t short_name_length = 15;

constexpr std::size_t status_line_length = 48;
constexpr std::size_t command_line_length = 49;
constexpr std::size_t pid_line_length = 99;

struct DirectoryClose {
    void operator()(DIR *directory) const { closedir(directory); }
};
using Directory = std::unique_ptr<DIR, DirectoryClose>;

/// What a file begins with, as much of it as the block takes; empty if nothing can be read.
std::span<char> start_of(const Descriptor &file, std::span<char> block) {
    const ssize_t length = file ? read_fully(file.get(), block.data(), block.size()) : 0;
    return block.first(length > 0 ? static_cast<std::size_t>(length) : 0);
}

/// What a reader of C texts sees of the first line.
std::string_view first_line(std::span<const char> text) {
    const std::string_view lines(text.data(), text.size());
    return front(lines, lines.find_first_of("\n\0"sv));
}

/// Whether a process has a short name. For nearly every process nothing else is asked.
bool has_short_name(const char *process, std::string_view name) {
    char path[sizeof "/proc//status" + NAME_MAX];
    char block[status_line_length];
    std::snprintf(path, sizeof path, "/proc/%s/status", process);
    const std::span<const char> status =
        start_of(Descriptor(open(path, O_RDONLY | O_CLOEXEC)), block);
    if (status.empty())
        return false;
    LineScanner line(first_line(status));
    line.word(); // the label
    return front(line.word(), short_name_length) == front(name, short_name_length);
}

/// A process's command line, its words separated by blanks; empty if there is none.
std::string_view command_line(unsigned pid, std::span<char> block) {
    char path[sizeof "/proc/4294967295/cmdline"];
    std::snprintf(path, sizeof path, "/proc/%u/cmdline", pid);
    const std::span<char> line = start_of(Descriptor(open(path, O_RDONLY | O_CLOEXEC)), block);
    for (char &character : line) {
        if (static_cast<unsigned char>(character) < ' ')
            character = ' ';
    }
    return {line.data(), line.size()};
}

/// Whether the whole name stands in the process's command line. A kernel thread has none.
bool command_line_has(unsigned pid, std::string_view name) {
    char block[command_line_length];
    const std::string_view line = command_line(pid, block);
    return !line.empty() && line.find(name) != std::string_view::npos;
}

int *resized(int *block, std::size_t count) {
    return static_cast<int *>(resize_or_die(block, count * sizeof(int)));
}

/// The processes that have a name and a 0 behind them, or just -1.
HeapBlock<int> find_processes(std::string_view name) {
    const Directory processes(opendir("/proc"));
    if (!processes)
        die("Cannot open /proc");
    HeapBlock<int> found;
    std::size_t count = 0;
    while (const dirent *const entry = readdir(processes.get())) {
        if (!is_digit(entry->d_name[0]) || !has_short_name(entry->d_name, name))
            continue;
        const int pid = static_cast<int>(std::strtol(entry->d_name, nullptr, 0));
        if (!command_line_has(static_cast<unsigned>(pid), name))
            continue;
        found.reset(resized(found.release(), count + 2));
        found.get()[count++] = pid;
    }
    if (count == 0) {
        found.reset(resized(nullptr, 1));
        *found = -1;
    } else {
        found.get()[count] = 0;
    }
    return found;
}

/// The first process with a name that is not the one to pass over; 0 if there is none. No process
/// has the number 0, which so passes none over.
int first_process_but(std::string_view name, int passed_over) {
    HeapBlock<int> processes = find_processes(name);
    const int *process = processes.get();
    if (*process < 1) {
        static_cast<void>(processes.release()); // never freed, as the header says
        return 0;
    }
    while (*process == passed_over)
        ++process;
    return *process;
}

} // namespace

int first_process(std::string_view name) { return first_process_but(name, 0); }

int recorded_process(const char *path) {
    const Descriptor file = open_for_reading(path);
    if (!file)
        return -1;
    LineReader reader(file.get(), pid_line_length);
    Line line;
    return reader.next(line) ? decimal_value(line.text()) : 0;
}

} // namespace corvel

extern "C" {

void read_cmdline(char *buf, int size, unsigned int pid) {
    if (size <= 0)
        return;
    const std::string_view line = corvel::command_line(pid, {buf, static_cast<std::size_t>(size)});
    if (!line.empty())
        buf[line.size()] = '\0';
}

int *find_pid_by_name(const char *name) {
    return corvel::find_processes(corvel::text_of(name)).release();
}

int app_isrun(const char *name) { return corvel::first_process(corvel::text_of(name)); }

int is_runing(const char *name) {
    return corvel::first_process_but(corvel::text_of(name), getpid());
}

int getPid(const char *path) { return corvel::recorded_process(path); }

} // extern "C"
