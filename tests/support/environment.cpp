/* SPDX-License-Identifier: MIT */
#include "tests/support/environment.h"

#include "tests/support/temporary_directory.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace corvel_test {

namespace {

void set_variable(const std::string &name, const std::optional<std::string> &value) {
    const int result = value ? setenv(name.c_str(), value->c_str(), 1) : unsetenv(name.c_str());
    if (result != 0)
        throw std::system_error(errno, std::generic_category(), name);
}

std::optional<std::string> variable(const std::string &name) {
    const char *value = std::getenv(name.c_str());
    return value == nullptr ? std::nullopt : std::optional<std::string>(value);
}

/** Reopens standard input, the only way to discard buffered input in every C library. */
void reopen_stdin(const std::string &path) {
    if (std::freopen(path.c_str(), "r", stdin) == nullptr || fileno(stdin) != STDIN_FILENO)
        throw std::system_error(errno, std::generic_category(), "cannot redirect standard input");
}

[[noreturn]] void write_in_pieces(int descriptor, std::string_view bytes) {
    constexpr std::size_t piece = 1000;
    // The reader may stop early.
    std::signal(SIGPIPE, SIG_DFL);
    while (!bytes.empty()) {
        const ssize_t written = ::write(descriptor, bytes.data(), std::min(piece, bytes.size()));
        if (written <= 0)
            _exit(1);
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    _exit(0);
}

} // namespace

EnvironmentVariable::EnvironmentVariable(const std::string &name,
                                         const std::optional<std::string> &value)
    : name_(name), saved_(variable(name)) {
    set_variable(name, value);
}

EnvironmentVariable::~EnvironmentVariable() { set_variable(name_, saved_); }

StandardInput::StandardInput(std::string_view bytes, Kind kind) {
    if (kind == Kind::file) {
        const TemporaryDirectory directory;
        directory.write("input", bytes);
        reopen_stdin(directory.path("input"));
        return;
    }
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0)
        throw std::system_error(errno, std::generic_category(), "pipe");
    std::fflush(nullptr);
    writer_ = fork();
    if (writer_ < 0)
        throw std::system_error(errno, std::generic_category(), "fork");
    if (writer_ == 0) {
        close(ends[0]);
        write_in_pieces(ends[1], bytes);
    }
    close(ends[1]);
    reopen_stdin("/dev/fd/" + std::to_string(ends[0]));
    close(ends[0]);
}

StandardInput::~StandardInput() {
    reopen_stdin("/dev/null");
    if (writer_ > 0)
        waitpid(writer_, nullptr, 0);
}

} // namespace corvel_test
