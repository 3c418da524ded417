// SPDX-License-Identifier: MIT
// Output in pieces, gathered so that the stream is called once a few kilobytes and not once a
// piece.
#ifndef CORVEL_SUPPORT_OUTPUT_H
#define CORVEL_SUPPORT_OUTPUT_H

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace corvel {

/// What is put comes out in order and whole; all of it is in the stream when the object is gone.
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
    /// For a text that does not fit behind what is there.
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
