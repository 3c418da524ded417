/* SPDX-License-Identifier: MIT */
/** Makes the kernel refuse an ioctl request. One test program may include it: it stands in for the
 *  C library's ioctl() as stand_in_calls.h does for other functions. */
#ifndef CORVEL_TESTS_FAIL_IOCTL_H
#define CORVEL_TESTS_FAIL_IOCTL_H

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <dlfcn.h>

namespace corvel_test {

/** Every call with this request fails while the object lives. */
class FailIoctl {
  public:
    explicit FailIoctl(int request) { refused = static_cast<unsigned long>(request); }
    FailIoctl(const FailIoctl &) = delete;
    FailIoctl &operator=(const FailIoctl &) = delete;
    ~FailIoctl() { refused = 0; }

    static inline unsigned long refused;
};

} // namespace corvel_test

/* C libraries declare ioctl() in different ways, so that here it has another name. The request is
 * an int in some of them, which is passed alike. */
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
    if (corvel_test::FailIoctl::refused != 0 && request == corvel_test::FailIoctl::refused) {
        errno = EIO;
        return -1;
    }
    return next(descriptor, request, value);
}

#endif
