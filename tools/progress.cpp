// SPDX-License-Identifier: MIT
#include "tools/progress.h"

#include <cstdio>
#include <unistd.h>

namespace corvel::tools {
namespace {

constexpr const char *erase_line = "\r\033[K";

} // namespace

Progress::Progress(std::string what, std::size_t total)
    : what_(std::move(what)), total_(total), watched_(isatty(STDERR_FILENO) == 1) {}

Progress::~Progress() {
    if (watched_)
        std::fputs(erase_line, stderr);
}

void Progress::show(std::size_t done) {
    if (!watched_)
        return;
    if (total_ == 0)
        std::fprintf(stderr, "%s%s %zu KiB", erase_line, what_.c_str(), done / 1024);
    else
        std::fprintf(stderr, "%s%s %3zu %%", erase_line, what_.c_str(), done * 100 / total_);
}

} // namespace corvel::tools
