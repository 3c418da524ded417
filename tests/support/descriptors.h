/* SPDX-License-Identifier: MIT */
/** The open file descriptors of the process: which there are, and how few there may be. */
#ifndef CORVEL_TESTS_DESCRIPTORS_H
#define CORVEL_TESTS_DESCRIPTORS_H

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace corvel_test {

/** No test opens as many. */
constexpr int highest_descriptor = 63;

inline std::vector<int> open_descriptors() {
    std::vector<int> open;
    for (int descriptor = 0; descriptor <= highest_descriptor; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) >= 0)
            open.push_back(descriptor);
    }
    return open;
}

/** Expects at its end that the same descriptors are open as at its beginning. */
class DescriptorWatch {
  public:
    DescriptorWatch() = default;
    DescriptorWatch(const DescriptorWatch &) = delete;
    DescriptorWatch &operator=(const DescriptorWatch &) = delete;
    ~DescriptorWatch() { EXPECT_EQ(open_descriptors(), before_); }

  private:
    std::vector<int> before_ = open_descriptors();
};

/** Lets the process open only so many descriptors more. */
class DescriptorsLeft {
  public:
    explicit DescriptorsLeft(std::size_t left) {
        if (getrlimit(RLIMIT_NOFILE, &limit_) != 0)
            fail("getrlimit");
        rlimit lower = limit_;
        lower.rlim_cur = highest_descriptor + 1;
        if (setrlimit(RLIMIT_NOFILE, &lower) != 0)
            fail("setrlimit");
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
    [[noreturn]] static void fail(const char *what) {
        throw std::system_error(errno, std::generic_category(), what);
    }

    rlimit limit_{};
    std::vector<int> taken_;
};

} // namespace corvel_test

#endif
