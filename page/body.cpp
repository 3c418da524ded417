// SPDX-License-Identifier: MIT
#include "page/body.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <poll.h>
#include <unistd.h>

#include "support/handles.h"
#include "support/text.h"

namespace corvel {
namespace {

constexpr std::int64_t second = 1'000'000'000;
constexpr unsigned longest_seconds = 86400;
/// As many of them have a permitted time that can be counted.
constexpr std::uint64_t most_blocks = 65536;

std::int64_t now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * second + time.tv_nsec;
}

/// The argument of poll() for a time, rounded up; at most a second, so that dividing takes 32 bits.
int poll_time(std::int64_t time) {
    if (time <= 0)
        return 0;
    return time >= second ? 1000 : static_cast<int>(time) / 1'000'000 + 1;
}

} // namespace

void Body::set_patience(unsigned seconds) {
    permitted_ = static_cast<std::int64_t>(at_most(seconds, longest_seconds)) * second;
    patience_ = permitted_;
}

Body Body::output_of(int pipe, unsigned seconds, const Body &input, std::uint64_t input_max) {
    const std::uint64_t bytes = std::min(input.left(), input_max);
    const std::uint64_t blocks = std::min(bytes / input.block_size_ + 1, most_blocks);
    Body output(unknown_length, seconds);
    output.descriptor_ = pipe;
    output.block_size_ = SIZE_MAX;
    output.patience_ += input.permitted_ * static_cast<std::int64_t>(blocks);
    return output;
}

/// Waits for a byte or the end of the input. False if neither arrives in time.
bool Body::wait() {
    for (;;) {
        pollfd input = {descriptor_, POLLIN, 0};
        const std::int64_t start = now();
        const int ready = poll(&input, 1, poll_time(patience_));
        const bool interrupted = ready < 0 && (errno == EINTR || errno == EAGAIN);
        patience_ -= now() - start;
        if (ready > 0)
            return true;
        if (ready < 0 && !interrupted)
            state_ = State::truncated;
        else if (patience_ <= 0)
            state_ = State::timed_out;
        if (state_ != State::open)
            return false;
    }
}

std::size_t Body::received(std::size_t count) {
    left_ -= count;
    if (left_ == 0)
        state_ = State::complete;
    block_ += count;
    if (block_ >= block_size_) {
        block_ %= block_size_;
        patience_ = permitted_;
    }
    return count;
}

std::size_t Body::read(void *bytes, std::size_t size) {
    const std::size_t wanted = left_ < size ? static_cast<std::size_t>(left_) : size;
    if (state_ != State::open || wanted == 0)
        return 0;
    while (wait()) {
        const ssize_t count = ::read(descriptor_, bytes, wanted);
        if (count > 0)
            return received(static_cast<std::size_t>(count));
        // The input of another process can have been made non-blocking.
        if (count < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        state_ = count == 0 && ends_with_input_ ? State::complete : State::truncated;
        break;
    }
    return 0;
}

void Body::discard() {
    char scrap[4096];
    // The last wait can take as long as permitted.
    const std::int64_t end = now() + 9 * permitted_;
    std::size_t count = 0;
    do {
        count = read(scrap, sizeof scrap);
    } while (count != 0 && now() < end);
    wipe(scrap, sizeof scrap);
}

} // namespace corvel
