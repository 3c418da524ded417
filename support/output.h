// SPDX-License-Identifier: MIT
// Buffered output: the stream is called once for a few kilobytes instead of once for each string.
#ifndef CORVEL_SUPPORT_OUTPUT_H
#define CORVEL_SUPPORT_OUTPUT_H

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace corvel {

/// Writes strings to a stream, in order and never truncated. The destructor writes what is still in
/// the buffer.
class Output {
  public:
    explicit Output(std::FILE *stream) : stream_(stream) {}
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;
    ~Output() { flush(); }

    void put(std::string_view text) {
        if (text.size() > sizeof buffer_ - used_) {
            put_around_buffer(text);
            return;
        }
        std::memcpy(buffer_ + used_, text.data(), text.size());
        used_ += text.size();
    }

  private:
    /// For a string that does not fit the rest of the buffer.
    [[gnu::noinline]] void put_around_buffer(std::string_view text) {
        flush();
        std::fwrite(text.data(), 1, text.size(), stream_);
    }

    void flush() {
        if (used_ != 0)
            std::fwrite(buffer_, 1, used_, stream_);
        used_ = 0;
    }

    std::FILE *stream_;
    std::size_t used_ = 0;
    char buffer_[4096];
};

} // namespace corvel

#endif
