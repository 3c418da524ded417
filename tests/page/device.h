/* SPDX-License-Identifier: MIT */
/**
 * The device under a page: its clock, and the calls of the C library that use its files, which can
 * be made to fail. Include this in one file of a test program only: it defines the functions.
 *
 *     device.passed = 900;                 // seconds added to the time since the device's start
 *     device.fail("utimensat");            // the next call fails, with EIO
 *     const unsigned long n = for_each_failing_call([&] { ... }, [&](unsigned long n) { ... });
 */
#ifndef CORVEL_TESTS_PAGE_DEVICE_H
#define CORVEL_TESTS_PAGE_DEVICE_H

#include "tests/support/next_definition.h"

#include <cerrno>
#include <cstdarg>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <string>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace corvel_test {

struct Device {
    std::time_t passed = 0;      ///< Seconds that have passed in addition to the actual ones.
    std::time_t stopped_at = 0;  ///< If set, the time since the device's start stays there.
    std::time_t clock_error = 0; ///< Seconds that the wall clock is wrong by.
    unsigned pauses = 0;
    std::function<void()> while_pausing; ///< If set, called instead of a pause.

    /** Makes the next call of a function fail. */
    void fail(const std::string &call, int code = EIO) {
        call_ = call;
        error_ = code;
        at_ = 1;
    }
    /** Makes the n-th call of any function fail. */
    void fail_at(unsigned long n) {
        call_.clear();
        error_ = EIO;
        at_ = n;
    }
    /** Makes no further call fail. @return whether a call failed. */
    bool repair() {
        at_ = 0;
        return std::exchange(failed_, false);
    }

    /** Called by each function. */
    bool fails(const char *call) {
        if (at_ == 0 || (!call_.empty() && call_ != call) || --at_ != 0)
            return false;
        failed_ = true;
        errno = error_;
        return true;
    }

  private:
    std::string call_;
    int error_ = 0;
    unsigned long at_ = 0;
    bool failed_ = false;
};

inline Device device;

/** Runs a function with each of its calls failing in turn, and then a check, with the number of the
 * call. @return the number of calls that failed. */
inline unsigned long for_each_failing_call(const std::function<void()> &run,
                                           const std::function<void(unsigned long)> &check) {
    for (unsigned long n = 1;; ++n) {
        device.fail_at(n);
        run();
        const bool failed = device.repair();
        check(n);
        if (!failed)
            return n - 1;
    }
}

/** The name under which a function with times is linked. */
inline std::string name_with_times(const char *plain, const char *wide) {
    return sizeof(std::time_t) > sizeof(long) ? wide : plain;
}

} // namespace corvel_test

// NOLINTBEGIN(misc-definitions-in-headers): each test program includes this once
extern "C" int clock_gettime(clockid_t clock, timespec *time) C_LIBRARY_NOEXCEPT {
    static auto *const next = corvel_test::next_definition<int(clockid_t, timespec *)>(
        corvel_test::name_with_times("clock_gettime", "__clock_gettime64").c_str());
    const int result = next(clock, time);
    if (clock == CLOCK_BOOTTIME)
        time->tv_sec += corvel_test::device.passed;
    if (clock == CLOCK_BOOTTIME && corvel_test::device.stopped_at != 0)
        *time = {corvel_test::device.stopped_at, 0};
    if (clock == CLOCK_REALTIME)
        time->tv_sec += corvel_test::device.clock_error;
    return result;
}

extern "C" int nanosleep(const timespec *length, timespec *left) {
    static auto *const next = corvel_test::next_definition<int(const timespec *, timespec *)>(
        corvel_test::name_with_times("nanosleep", "__nanosleep_time64").c_str());
    ++corvel_test::device.pauses;
    if (!corvel_test::device.while_pausing)
        return next(length, left);
    corvel_test::device.while_pausing();
    return 0;
}

extern "C" int utimensat(int directory, const char *path, const timespec *times,
                         int flags) C_LIBRARY_NOEXCEPT {
    static auto *const next =
        corvel_test::next_definition<int(int, const char *, const timespec *, int)>(
            corvel_test::name_with_times("utimensat", "__utimensat_time64").c_str());
    return corvel_test::device.fails("utimensat") ? -1 : next(directory, path, times, flags);
}

extern "C" int mkdir(const char *path, mode_t mode) C_LIBRARY_NOEXCEPT {
    static auto *const next = corvel_test::next_definition<int(const char *, mode_t)>("mkdir");
    return corvel_test::device.fails("mkdir") ? -1 : next(path, mode);
}

extern "C" int openat(int directory, const char *path, int flags, ...) {
    static auto *const next =
        corvel_test::next_definition<int(int, const char *, int, ...)>("openat");
    std::va_list values;
    va_start(values, flags);
    const unsigned mode = (flags & O_CREAT) != 0 ? va_arg(values, unsigned) : 0;
    va_end(values);
    return corvel_test::device.fails("openat") ? -1 : next(directory, path, flags, mode);
}

extern "C" int flock(int file, int operation) C_LIBRARY_NOEXCEPT {
    static auto *const next = corvel_test::next_definition<int(int, int)>("flock");
    return corvel_test::device.fails("flock") ? -1 : next(file, operation);
}

extern "C" int renameat(int from, const char *old, int to, const char *name) C_LIBRARY_NOEXCEPT {
    static auto *const next =
        corvel_test::next_definition<int(int, const char *, int, const char *)>("renameat");
    return corvel_test::device.fails("renameat") ? -1 : next(from, old, to, name);
}

extern "C" int unlinkat(int directory, const char *path, int flags) C_LIBRARY_NOEXCEPT {
    static auto *const next = corvel_test::next_definition<int(int, const char *, int)>("unlinkat");
    return corvel_test::device.fails("unlinkat") ? -1 : next(directory, path, flags);
}

extern "C" DIR *fdopendir(int directory) {
    static auto *const next = corvel_test::next_definition<DIR *(int)>("fdopendir");
    return corvel_test::device.fails("fdopendir") ? nullptr : next(directory);
}

extern "C" dirent *readdir(DIR *directory) {
    static auto *const next = corvel_test::next_definition<dirent *(DIR *)>("readdir");
    return corvel_test::device.fails("readdir") ? nullptr : next(directory);
}

extern "C" ssize_t getrandom(void *bytes, std::size_t size, unsigned flags) {
    static auto *const next =
        corvel_test::next_definition<ssize_t(void *, std::size_t, unsigned)>("getrandom");
    return corvel_test::device.fails("getrandom") ? -1 : next(bytes, size, flags);
}

extern "C" ssize_t pread(int file, void *bytes, std::size_t size, off_t at) {
    static auto *const next =
        corvel_test::next_definition<ssize_t(int, void *, std::size_t, off_t)>("pread");
    return corvel_test::device.fails("pread") ? -1 : next(file, bytes, size, at);
}

extern "C" ssize_t pwrite(int file, const void *bytes, std::size_t size, off_t at) {
    static auto *const next =
        corvel_test::next_definition<ssize_t(int, const void *, std::size_t, off_t)>("pwrite");
    return corvel_test::device.fails("pwrite") ? -1 : next(file, bytes, size, at);
}

extern "C" int ftruncate(int file, off_t size) C_LIBRARY_NOEXCEPT {
    static auto *const next = corvel_test::next_definition<int(int, off_t)>("ftruncate");
    return corvel_test::device.fails("ftruncate") ? -1 : next(file, size);
}

extern "C" int fcntl(int file, int command, ...) {
    static auto *const next = corvel_test::next_definition<int(int, int, void *)>("fcntl");
    std::va_list values;
    va_start(values, command);
    void *const value = va_arg(values, void *);
    va_end(values);
    const bool fails = command == F_OFD_SETLK && corvel_test::device.fails("fcntl");
    return fails ? -1 : next(file, command, value);
}
// NOLINTEND(misc-definitions-in-headers)

#endif
