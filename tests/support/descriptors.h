/* SPDX-License-Identifier: MIT */
/** The open file descriptors of the process: lists them, detects leaks and limits their number. */
#ifndef CORVEL_TESTS_DESCRIPTORS_H
#define CORVEL_TESTS_DESCRIPTORS_H

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace corvel_test {

[[noreturn]] inline void fail_descriptors(const char *function) {
    throw std::system_error(errno, std::generic_category(), function);
}

/** The limit of the number of open descriptors. */
inline rlimit descriptor_limit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        fail_descriptors("getrlimit");
    return limit;
}

/** The open descriptors below 1024; no test opens as many. Opens none itself, so that it works at
 * the limit of the process. */
inline std::vector<int> open_descriptors() {
    std::array<pollfd, 1024> entries{};
    const auto count =
        static_cast<std::size_t>(std::min<rlim_t>(entries.size(), descriptor_limit().rlim_cur));
    for (std::size_t i = 0; i < count; ++i)
        entries[i].fd = static_cast<int>(i);
    if (poll(entries.data(), count, 0) < 0)
        fail_descriptors("poll");
    std::vector<int> open;
    for (std::size_t i = 0; i < count; ++i) {
        if ((entries[i].revents & POLLNVAL) == 0)
            open.push_back(entries[i].fd);
    }
    return open;
}

/** Expects in its destructor that the same descriptors are open as in its constructor. */
class DescriptorWatch {
  public:
    DescriptorWatch() = default;
    DescriptorWatch(const DescriptorWatch &) = delete;
    DescriptorWatch &operator=(const DescriptorWatch &) = delete;
    ~DescriptorWatch() { EXPECT_EQ(open_descriptors(), before_); }

  private:
    std::vector<int> before_ = open_descriptors();
};

/** Lets the process open only @p left more descriptors. */
class DescriptorsLeft {
  public:
    explicit DescriptorsLeft(std::size_t left) {
        rlimit lower = limit_;
        lower.rlim_cur = 64;
        if (setrlimit(RLIMIT_NOFILE, &lower) != 0)
            fail_descriptors("setrlimit");
        for (int descriptor = 0; (descriptor = open("/dev/null", O_RDONLY)) >= 0;)
            taken_.push_back(descriptor);
        for (; left != 0; --left) {
            close(taken_.back());
            taken_.pop_back();
        }
    }
    DescriptorsLeft(const DescriptorsLeft &) = delete;
    DescriptorsLeft &operator=(const DescriptorsLeft &) = delete;
    ~DescriptorsLeft() {
        for (const int descriptor : taken_)
            close(descriptor);
        setrlimit(RLIMIT_NOFILE, &limit_);
    }

  private:
    rlimit limit_ = descriptor_limit();
    std::vector<int> taken_;
};

} // namespace corvel_test

#endif
