// SPDX-License-Identifier: MIT
// Look-up of processes in a /proc of three processes, whose status files and command lines are any
// bytes, against a model on std::string.
//
// Input: a name NUL, a size (a byte), then for each process flags (a byte) a status file NUL a
// command line NUL, in which bytes of 1 represent NULs.
#include "corvel.h"
#include "fuzz/fixed_file.h"

#include <algorithm>
#include <array>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <sanitizer/lsan_interface.h>
#include <sstream>
#include <sys/stat.h>
#include <sys/types.h>

namespace {

using namespace corvel_fuzz;

constexpr std::size_t short_name_length = 15;
constexpr std::size_t status_length = 48;
constexpr std::size_t command_line_length = 49;
constexpr int own_process = 41;

// Flags of a process.
constexpr unsigned char no_status = 0x01;
constexpr unsigned char no_command_line = 0x02;

class Process {
  public:
    explicit Process(int id)
        : id_(id), status_file_("/proc/" + std::to_string(id) + "/status"),
          command_line_file_("/proc/" + std::to_string(id) + "/cmdline") {}

    void read(Input &input) {
        const unsigned char flags = input.byte();
        status_ = input.text();
        command_line_ = input.text();
        std::replace(command_line_.begin(), command_line_.end(), '\1', '\0');
        status_file_.fill(status_);
        command_line_file_.fill(command_line_);
        if ((flags & no_status) != 0) {
            status_.clear();
            status_file_.remove();
        }
        if ((flags & no_command_line) != 0) {
            command_line_.clear();
            command_line_file_.remove();
        }
    }

    [[nodiscard]] int id() const { return id_; }

    /** The first bytes of the command line as one line. */
    [[nodiscard]] std::string command_line(std::size_t size) const {
        std::string line(cut(command_line_, size));
        for (char &c : line)
            if (c >= '\0' && c < ' ')
                c = ' ';
        return line;
    }

    [[nodiscard]] bool has_name(const std::string &name) const {
        const std::string line = command_line(command_line_length);
        return !status_.empty() &&
               cut(short_name(), short_name_length) == cut(name, short_name_length) &&
               !line.empty() && line.find(name) != std::string::npos;
    }

  private:
    /** The second word of the status file's first line. */
    [[nodiscard]] std::string short_name() const {
        const std::string start(cut(status_, status_length));
        std::istringstream line(start.substr(0, start.find('\n')));
        std::string label;
        std::string word;
        line >> label >> word;
        return word;
    }

    int id_;
    std::string status_{};
    std::string command_line_{};
    FixedFile status_file_;
    FixedFile command_line_file_;
};

using Processes = std::array<Process, 3>;

/** Replaces /proc: the processes, one that has ended, and entries that are not processes. */
const std::string &proc_directory() {
    static const std::string path = [] {
        std::string made = scratch_directory() + "/proc";
        for (const char *entry : {"41", "42", "43", "44", "self", "net", "x41"})
            std::filesystem::create_directories(made + "/" + entry);
        return made;
    }();
    return path;
}

/** The processes that have a name, in the order of the directory. */
std::vector<int> named(const Processes &processes, const std::string &name) {
    std::vector<int> ids;
    const std::unique_ptr<DIR, int (*)(DIR *)> directory(opendir("/proc"), closedir);
    while (const dirent *const entry = readdir(directory.get())) {
        for (const Process &process : processes) {
            if (std::to_string(process.id()) == static_cast<const char *>(entry->d_name) &&
                process.has_name(name))
                ids.push_back(process.id());
        }
    }
    return ids;
}

void check_lookup(const Processes &processes, const std::string &name) {
    const std::vector<int> expected = named(processes, name);
    const auto text = exact_copy(name);
    const std::unique_ptr<int, void (*)(void *)> found(find_pid_by_name(text.get()), std::free);
    for (std::size_t i = 0; i < expected.size(); ++i)
        check_equal(found.get()[i], expected[i], "a process is found");
    check_equal(found.get()[expected.size()], expected.empty() ? -1 : 0, "the end of the list");

    const __lsan::ScopedDisabler if_no_process_is_found_the_result_is_not_freed;
    check_equal(app_isrun(text.get()), expected.empty() ? 0 : expected.front(), "app_isrun");
    const auto other =
        std::find_if(expected.begin(), expected.end(), [](int id) { return id != own_process; });
    check_equal(is_runing(text.get()), other == expected.end() ? 0 : *other, "is_runing");
}

std::string check_command_line(const Process &process, std::size_t size) {
    std::string line = process.command_line(size);
    const auto out = unterminated_block(size + 1);
    const std::string before(out.get(), size + 1);
    read_cmdline(out.get(), static_cast<int>(size), static_cast<unsigned>(process.id()));
    std::string expected = before;
    if (!line.empty())
        expected.replace(0, line.size() + 1, line + '\0');
    check_equal({out.get(), size + 1}, expected, "read_cmdline");
    return line;
}

} // namespace

extern "C" {

/** Other directories, which the fuzzer uses, are opened unchanged. */
DIR *opendir(const char *name) {
    const char *const path = std::string_view(name) == "/proc" ? proc_directory().c_str() : name;
    const int descriptor = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    return descriptor >= 0 ? fdopendir(descriptor) : nullptr;
}

pid_t getpid() noexcept { return own_process; }

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static Processes processes = {Process(41), Process(42), Process(43)};
    static FixedFile ended("/proc/44/status");
    Input input(data, size);
    const std::string name = input.text();
    const std::size_t line_size = input.byte() % 64 + 1U;
    for (Process &process : processes)
        process.read(input);
    in_different_surroundings([&] {
        std::string lines;
        check_lookup(processes, name);
        for (const Process &process : processes)
            lines += check_command_line(process, line_size);
        return lines;
    });
    for (const std::size_t length : {name.size() / 2, short_name_length})
        check_lookup(processes, std::string(cut(name, length)));
    return 0;
}

} // extern "C"
