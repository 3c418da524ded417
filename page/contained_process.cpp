// SPDX-License-Identifier: MIT
#include "page/contained_process.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

#include "page/confinement.h"
#include "support/handles.h"
#include "support/text.h"

namespace corvel {
namespace {

constexpr const char *wrong_record = "the process has sent a wrong record";

std::string_view with_nul(const char *text) {
    return text != nullptr ? std::string_view{text, std::strlen(text) + 1} : std::string_view{};
}

} // namespace

/// The output is constructed first, since it needs system calls that are then forbidden.
RecordWriter::RecordWriter(const ContainedProcess &process) : body_(process.body()) {
    const char *const failed = process.confine();
    if (failed == nullptr)
        return;
    send_head(RecordKind::refusal, static_cast<unsigned>(errno), {with_nul(failed), {}, {}});
    output_.finish();
    _exit(1);
}

void RecordWriter::send_head(RecordKind kind, unsigned outcome,
                             const std::string_view (&strings)[3]) {
    RecordHead head{};
    head.kind = kind;
    head.outcome = outcome;
    head.body_left = body_.state() == Body::State::open ? body_.left() : 0;
    for (std::size_t i = 0; i < 3; ++i)
        head.sizes[i] = static_cast<std::uint32_t>(strings[i].size());
    output_.put({reinterpret_cast<const char *>(&head), sizeof head});
    for (const std::string_view string : strings)
        output_.put(string);
}

void RecordWriter::send(RecordKind kind, const char *first, const char *second, const char *third) {
    send_head(kind, 0, {with_nul(first), with_nul(second), with_nul(third)});
}

void RecordWriter::send(RecordKind kind, std::string_view bytes) {
    send_head(kind, 0, {bytes, {}, {}});
}

void RecordWriter::end(unsigned outcome) {
    send_head(RecordKind::end, outcome, {});
    output_.finish();
    _exit(0);
}

ContainedProcess::ContainedProcess(const corvel_containment &containment, Body &body,
                                   std::uint64_t body_max, std::size_t strings_max)
    : containment_(containment), body_(body), strings_max_(strings_max), parent_(getpid()) {
    if (!start())
        fail(std::strerror(errno));
    records_ = Body::output_of(pipe_.get(), containment.seconds, body, body_max);
}

/// False if the process cannot be started. In the child, no descriptor is owned: it closes all.
bool ContainedProcess::start() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return false;
    Descriptor output(ends[0]);
    Descriptor input(ends[1]);
    process_ = fork();
    if (process_ != 0) {
        pipe_ = std::move(output);
        return process_ > 0;
    }
    if (dup2(input.get(), STDOUT_FILENO) < 0)
        _exit(1);
    output.release();
    input.release();
    return true;
}

const char *ContainedProcess::confine() const { return corvel::confine(containment_, parent_); }

ContainedProcess::~ContainedProcess() {
    reap();
    wipe_and_free(strings_, size_);
}

/// Ends the process. Returns its status, 0 if that is not known. A process that is no longer a
/// child of this one, since the page has waited for it or ignores SIGCHLD, gets no signal: its
/// number may be that of another process.
int ContainedProcess::reap() {
    int status = 0;
    if (process_ > 0 && waitpid(process_, &status, WNOHANG) == 0) {
        kill(process_, SIGKILL);
        while (waitpid(process_, &status, 0) < 0 && errno == EINTR)
            ;
    }
    process_ = -1;
    return status;
}

bool ContainedProcess::fail(const char *reason) {
    corvel_log(CORVEL_LOG_ERROR, "contained request: %s", reason);
    reap();
    return false;
}

bool ContainedProcess::receive(void *block, std::size_t size) {
    auto *at = static_cast<char *>(block);
    while (size != 0) {
        const std::size_t count = records_.read(at, size);
        if (count == 0)
            break;
        at += count;
        size -= count;
    }
    if (size == 0)
        return true;
    if (records_.state() == Body::State::timed_out)
        return fail("the process took too long");
    const int status = reap();
    corvel_log(CORVEL_LOG_ERROR, "contained request: the process ended early, with signal %d",
               WTERMSIG(status));
    return false;
}

bool ContainedProcess::next() {
    if (process_ < 0 || !receive(&head_, sizeof head_) || !receive_strings())
        return false;
    is_complete_ = head_.kind == RecordKind::end;
    if (is_complete_)
        body_.skip_to(head_.body_left);
    if (head_.kind != RecordKind::refusal)
        return !is_complete_;
    corvel_log(CORVEL_LOG_ERROR, "contained request: %s: %s", text_or_empty(text(0)),
               std::strerror(static_cast<int>(head_.outcome)));
    reap();
    return false;
}

bool ContainedProcess::receive_strings() {
    const auto *const sizes = head_.sizes;
    const std::uint64_t total = std::uint64_t{sizes[0]} + sizes[1] + sizes[2];
    if (total > strings_max_)
        return fail(wrong_record);
    wipe_and_free(strings_, size_);
    size_ = static_cast<std::size_t>(total) + 1;
    strings_ = allocate<char>(size_).release();
    if (strings_ == nullptr)
        return fail(std::strerror(ENOMEM));
    if (!receive(strings_, size_ - 1))
        return false;
    strings_[size_ - 1] = '\0';
    if (head_.kind >= RecordKind::content)
        return total == sizes[0] || fail(wrong_record);
    const char *string = strings_;
    for (std::size_t i = 0; i < 3; ++i) {
        if (sizes[i] != 0 && strnlen(string, sizes[i]) != sizes[i] - 1)
            return fail(wrong_record);
        string += sizes[i];
    }
    return true;
}

const char *ContainedProcess::text(std::size_t index) const {
    const char *string = strings_;
    for (std::size_t i = 0; i < index; ++i)
        string += head_.sizes[i];
    return head_.sizes[index] != 0 ? string : nullptr;
}

void ContainedProcess::refuse_record() { fail(wrong_record); }

} // namespace corvel
