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

/// The kernel truncates a process's short name to this length.
constexpr std::size_t short_name_length = 15;

constexpr std::size_t status_line_length = 48;
constexpr std::size_t command_line_length = 49;
constexpr std::size_t pid_line_length = 99;

struct DirectoryClose {
    void operator()(DIR *directory) const { closedir(directory); }
};
using Directory = std::unique_ptr<DIR, DirectoryClose>;

/// Reads the start of a file, as much as fits the block; empty if nothing can be read.
std::span<char> start_of(const Descriptor &file, std::span<char> block) {
    const ssize_t length = file ? read_fully(file.get(), block.data(), block.size()) : 0;
    return block.first(size_from(length));
}

/// The first line, up to its first NUL if it contains one.
std::string_view first_line(std::span<const char> bytes) {
    const std::string_view lines(bytes.data(), bytes.size());
    return front(lines, lines.find_first_of("\n\0"sv));
}

/// Whether a process has this short name. Of most processes, nothing else is read.
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

/// A process's command line, its words separated by spaces; empty if there is none.
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

/// Whether a process's command line contains the whole name. A kernel thread has no command line.
bool command_line_has(unsigned pid, std::string_view name) {
    char block[command_line_length];
    const std::string_view line = command_line(pid, block);
    return !line.empty() && line.find(name) != std::string_view::npos;
}

int *resized(int *block, std::size_t count) {
    return static_cast<int *>(resize_or_die(block, count * sizeof(int)));
}

/// The processes with this name, followed by 0; or only -1 if there are none.
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

/// The first process with this name except the process `skipped`; 0 if there is none. No process
/// has the number 0, so 0 skips none.
int first_process_but(std::string_view name, int skipped) {
    HeapBlock<int> processes = find_processes(name);
    const int *process = processes.get();
    if (*process < 1) {
        static_cast<void>(processes.release()); // never freed, as documented
        return 0;
    }
    while (*process == skipped)
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

using namespace corvel;

void read_cmdline(char *buf, int size, unsigned int pid) {
    const std::string_view line = command_line(pid, {buf, size_from(size)});
    if (!line.empty())
        buf[line.size()] = '\0';
}

int *find_pid_by_name(const char *name) { return find_processes(text_of(name)).release(); }

int app_isrun(const char *name) { return first_process(text_of(name)); }

int is_runing(const char *name) { return first_process_but(text_of(name), getpid()); }

int getPid(const char *path) { return recorded_process(path); }

} // extern "C"
