// SPDX-License-Identifier: MIT
#ifndef CORVEL_PAGE_BODY_H
#define CORVEL_PAGE_BODY_H

#include <cstddef>
#include <cstdint>

namespace corvel {

/// The body of a request on standard input, read at most once and never past its length. It is read
/// from the descriptor, so bytes that the stream `stdin` has buffered are missing.
///
/// The time spent waiting is limited for each 65,536 bytes. This limits the longest pause and the
/// time of the whole body. The time between two reads does not count.
class Body {
  public:
    enum class State {
        open,      ///< There can be more.
        complete,  ///< All bytes that were announced have been read.
        truncated, ///< The input ended before the announced length, or cannot be read.
        timed_out  ///< The next byte did not arrive in the permitted time.
    };

    static constexpr std::uint64_t unknown_length = UINT64_MAX;

    /// @param length bytes to read; unknown_length reads until the input ends.
    /// @param seconds how long to wait in total for each 65,536 bytes; at most 86,400.
    Body(std::uint64_t length, unsigned seconds)
        : left_(length), ends_with_input_(length == unknown_length),
          state_(length == 0 ? State::complete : State::open) {
        set_patience(seconds);
    }
    /// An empty body.
    Body() = default;
    /// What a process writes to a pipe until it ends, while it reads at most @p input_max bytes of
    /// an input: the whole is permitted as much time as these bytes, and so many seconds more.
    static Body output_of(int pipe, unsigned seconds, const Body &input, std::uint64_t input_max);

    /// Changes the permitted time; what has been waited so far no longer counts.
    void set_patience(unsigned seconds);

    /// The bytes left to read; unknown_length if only the end of the input tells.
    [[nodiscard]] std::uint64_t left() const { return ends_with_input_ ? unknown_length : left_; }

    /// Skips what another process has read, until so many bytes are left.
    void skip_to(std::uint64_t left) {
        left_ = left < left_ ? left : left_;
        if (left_ == 0)
            state_ = State::complete;
    }

    /// Reads at least one byte and at most @p size. 0 if no byte is left or none arrived: see
    /// state().
    std::size_t read(void *bytes, std::size_t size);
    /// Reads and discards the rest, so that the web server delivers the answer. It takes at most
    /// ten times the permitted time; the state is `open` if there was more then.
    void discard();
    [[nodiscard]] State state() const { return state_; }

  private:
    bool wait();
    std::size_t received(std::size_t count);

    int descriptor_ = 0; ///< Standard input.
    std::size_t block_size_ = 65536;
    std::uint64_t left_ = 0;
    bool ends_with_input_ = false;
    State state_ = State::complete;
    std::size_t block_ = 0;      ///< Bytes received of the block that shares a permitted time.
    std::int64_t permitted_ = 0; ///< Nanoseconds for each block.
    std::int64_t patience_ = 0;  ///< Nanoseconds left for these.
};

} // namespace corvel

#endif
