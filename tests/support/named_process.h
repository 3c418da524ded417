/* SPDX-License-Identifier: MIT */
/**
 * Real processes with names and command lines of their own, for use in a private root.
 *
 *     const NamedProcess server("udhcpd");                       // started as "udhcpd"
 *     NamedProcess other("target", {"started-as-this", "-"});    // its short name is "target"
 *     other.leave_as_zombie();
 */
#ifndef CORVEL_TESTS_NAMED_PROCESS_H
#define CORVEL_TESTS_NAMED_PROCESS_H

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/types.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

namespace corvel_test {

/** A pipe whose ends are closed on exec. */
class OwnPipe {
  public:
    OwnPipe() {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0)
            throw std::system_error(errno, std::generic_category(), "pipe2");
        reading = ends[0];
        writing = ends[1];
    }
    ~OwnPipe() {
        close_end(reading);
        close_end(writing);
    }
    OwnPipe(OwnPipe &&other) noexcept
        : reading(std::exchange(other.reading, -1)), writing(std::exchange(other.writing, -1)) {}
    OwnPipe &operator=(OwnPipe &&) = delete;

    static void close_end(int &end) {
        if (end >= 0)
            close(std::exchange(end, -1));
    }

    int reading = -1;
    int writing = -1;
};

/** The program `cat` under another name. After construction it is running, with that name and its
 * command line; the destructor kills it. */
class NamedProcess {
  public:
    explicit NamedProcess(const std::string &name) : NamedProcess(name, {name}) {}

    /** @param words the command line; the first may differ from the name, the others must be "-".
     */
    NamedProcess(const std::string &name, std::vector<std::string> words) {
        // The kernel takes a process's short name from the name of its file.
        const std::string directory = "/tmp/programs";
        const std::string program = directory + "/" + name;
        std::filesystem::create_directories(directory);
        if (!std::filesystem::exists(program))
            std::filesystem::create_symlink("/bin/cat", program);
        OwnPipe output;
        id_ = fork();
        if (id_ < 0)
            throw std::system_error(errno, std::generic_category(), "fork");
        if (id_ == 0) {
            std::vector<char *> arguments;
            for (std::string &word : words)
                arguments.push_back(word.data());
            arguments.push_back(nullptr);
            dup2(input_.reading, STDIN_FILENO);
            dup2(output.writing, STDOUT_FILENO);
            execv(program.c_str(), arguments.data());
            _exit(127);
        }
        OwnPipe::close_end(input_.reading);
        OwnPipe::close_end(output.writing);
        // It copies a byte, so it is running.
        char byte = 'x';
        if (write(input_.writing, &byte, 1) != 1 || read(output.reading, &byte, 1) != 1)
            throw std::system_error(errno, std::generic_category(), "starting " + program);
    }
    NamedProcess(NamedProcess &&other) noexcept
        : id_(std::exchange(other.id_, 0)), input_(std::move(other.input_)) {}
    NamedProcess &operator=(NamedProcess &&) = delete;
    ~NamedProcess() { end(); }

    [[nodiscard]] pid_t id() const { return id_; }

    /** Kills the process without waiting for it: its short name remains, its command line is empty.
     */
    void leave_as_zombie() const {
        siginfo_t ended{};
        kill(id_, SIGKILL);
        while (waitid(P_PID, static_cast<id_t>(id_), &ended, WEXITED | WNOWAIT) != 0 &&
               errno == EINTR) {
        }
    }

    void end() {
        if (id_ == 0)
            return;
        kill(id_, SIGKILL);
        while (waitpid(id_, nullptr, 0) < 0 && errno == EINTR) {
        }
        id_ = 0;
    }

  private:
    pid_t id_ = 0;
    OwnPipe input_;
};

} // namespace corvel_test

#endif
