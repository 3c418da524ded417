// SPDX-License-Identifier: MIT
#include "page/output.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <unistd.h>

#include "support/text.h"

namespace corvel {
namespace {

/// How long the reader may take to accept a piece.
constexpr int stall_milliseconds = 60'000;

sigset_t pipe_signal() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    return set;
}

bool is_pipe_signal_pending() {
    sigset_t pending;
    return sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
}

/// Waits until a piece can be written and writes it. Returns the number of bytes written, 0 if the
/// call has to be repeated, -1 if nothing can be written.
ssize_t write_piece(std::string_view piece) {
    pollfd output{STDOUT_FILENO, POLLOUT, 0};
    const int ready = poll(&output, 1, stall_milliseconds);
    if (ready == 0)
        return -1;
    const ssize_t written = ready < 0 ? -1 : write(STDOUT_FILENO, piece.data(), piece.size());
    if (written > 0)
        return written;
    return written < 0 && (errno == EINTR || errno == EAGAIN) ? 0 : -1;
}

} // namespace

PipeSignalBlocked::PipeSignalBlocked() : was_pending_(is_pipe_signal_pending()) {
    const sigset_t set = pipe_signal();
    sigprocmask(SIG_BLOCK, &set, &former_mask_);
}

PipeSignalBlocked::~PipeSignalBlocked() {
    const sigset_t set = pipe_signal();
    const timespec no_time{};
    if (!was_pending_)
        while (sigtimedwait(&set, nullptr, &no_time) < 0 && errno == EINTR)
            ;
    sigprocmask(SIG_SETMASK, &former_mask_, nullptr);
}

void StandardOutput::put(std::string_view bytes) {
    while (!bytes.empty() && !failed_) {
        const std::size_t taken = at_most(bytes.size(), sizeof buffer_ - used_);
        std::memcpy(buffer_ + used_, bytes.data(), taken);
        used_ += taken;
        bytes.remove_prefix(taken);
        if (used_ == sizeof buffer_)
            flush();
    }
}

void StandardOutput::print(const char *format, ...) {
    char line[128];
    std::va_list values;
    va_start(values, format);
    std::vsnprintf(line, sizeof line, format, values);
    va_end(values);
    put(line);
}

bool StandardOutput::finish() {
    flush();
    return !failed_;
}

void StandardOutput::flush() {
    std::string_view left(buffer_, used_);
    while (!left.empty() && !failed_) {
        const ssize_t written = write_piece(left);
        failed_ = written < 0;
        if (written > 0)
            left.remove_prefix(static_cast<std::size_t>(written));
    }
    used_ = 0;
}

} // namespace corvel
