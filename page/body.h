// SPDX-License-Identifier: MIT
#ifndef CORVEL_PAGE_BODY_H
#define CORVEL_PAGE_BODY_H

#include <cstddef>
#include <cstdint>

namespace corvel {

/// The body of a request on standard input, read at most once and never past its length.
class Body {
  public:
    enum class State {
        open,      ///< There can be more.
        complete,  ///< All bytes that were announced have been read.
        truncated, ///< The input ended before the announced length.
        timed_out  ///< Nothing arrived for the permitted time.
    };

    /// @param length bytes to read; unknown_length reads until the input ends.
    /// @param seconds how long to wait for the next byte.
    Body(std::uint64_t length, unsigned seconds) : left_(length), seconds_(seconds) {}

    static constexpr std::uint64_t unknown_length = UINT64_MAX;

    /// Reads at least one byte and at most @p size. 0 if no byte is left or none arrived: see
    /// state().
    std::size_t read(void *bytes, std::size_t size);
    /// Reads and discards the rest, so that the web server delivers the answer. Bounded in time.
    void discard();
    [[nodiscard]] State state() const { return state_; }

  private:
    std::uint64_t left_;
    unsigned seconds_;
    State state_ = State::open;
};

} // namespace corvel

#endif
