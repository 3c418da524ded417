/* SPDX-License-Identifier: MIT */
/** Makes an ioctl request fail. It replaces the C library's ioctl() as stand_in_calls.c does other
 * functions, so that only one source file of a program may include it. */
#ifndef CORVEL_TESTS_FAIL_IOCTL_H
#define CORVEL_TESTS_FAIL_IOCTL_H

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <dlfcn.h>

namespace corvel_test {

/** During its lifetime, every call with this request fails with EIO. */
class FailIoctl {
  public:
    explicit FailIoctl(int request) { failing_request = static_cast<unsigned long>(request); }
    FailIoctl(const FailIoctl &) = delete;
    FailIoctl &operator=(const FailIoctl &) = delete;
    ~FailIoctl() { failing_request = 0; }

    static inline unsigned long failing_request;
};

} // namespace corvel_test

/* Another name, since C libraries declare ioctl() in different ways. Some declare the request as an
 * int, which is passed in the same way. */
extern "C" int stand_in_ioctl(int descriptor, unsigned long request, ...) __asm__("ioctl");

extern "C" inline __attribute__((used)) int stand_in_ioctl(int descriptor, unsigned long request,
                                                           ...) {
    using Function = int (*)(int, unsigned long, ...);
    static const auto next = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "ioctl"));
    if (next == nullptr)
        std::abort();
    va_list values;
    va_start(values, request);
    void *const value = va_arg(values, void *);
    va_end(values);
    if (corvel_test::FailIoctl::failing_request != 0 &&
        request == corvel_test::FailIoctl::failing_request) {
        errno = EIO;
        return -1;
    }
    return next(descriptor, request, value);
}

#endif
