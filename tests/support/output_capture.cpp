/* SPDX-License-Identifier: MIT */
#include "tests/support/output_capture.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <system_error>
#include <unistd.h>

namespace corvel_test {

namespace {

/** Redirects a descriptor and its stream to a file for the lifetime of the object. */
class Redirection {
  public:
    Redirection(std::FILE *stream, int descriptor, int target)
        : stream_(stream), descriptor_(descriptor) {
        std::fflush(stream_);
        saved_ = dup(descriptor_);
        if (saved_ < 0 || dup2(target, descriptor_) < 0)
            throw std::system_error(errno, std::generic_category(), "cannot redirect output");
    }
    ~Redirection() {
        std::fflush(stream_);
        dup2(saved_, descriptor_);
        close(saved_);
    }
    Redirection(const Redirection &) = delete;
    Redirection &operator=(const Redirection &) = delete;

  private:
    std::FILE *stream_;
    int descriptor_;
    int saved_;
};

std::string capture(std::FILE *stream, int descriptor, const std::function<void()> &body) {
    StreamFile file;
    {
        const Redirection redirection(stream, descriptor, file.descriptor());
        body();
    }
    return file.text();
}

} // namespace

StreamFile::StreamFile() {
    std::string path = (std::filesystem::temp_directory_path() / "corvel-output-XXXXXX").string();
    descriptor_ = mkostemp(path.data(), O_CLOEXEC | O_APPEND);
    if (descriptor_ < 0)
        throw std::system_error(errno, std::generic_category(), path);
    unlink(path.c_str());
}

StreamFile::~StreamFile() { close(descriptor_); }

std::string StreamFile::text() const {
    std::string text;
    std::array<char, 65536> block{};
    ssize_t size = 0;
    while ((size = pread(descriptor_, block.data(), block.size(),
                         static_cast<off_t>(text.size()))) > 0)
        text.append(block.data(), static_cast<std::size_t>(size));
    return text;
}

std::string capture_stdout(const std::function<void()> &body) {
    return capture(stdout, STDOUT_FILENO, body);
}

std::string capture_stderr(const std::function<void()> &body) {
    return capture(stderr, STDERR_FILENO, body);
}

} // namespace corvel_test
