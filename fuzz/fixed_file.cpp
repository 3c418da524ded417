// SPDX-License-Identifier: MIT
#include "fuzz/fixed_file.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

namespace corvel_fuzz {
namespace {

std::vector<const FixedFile *> &fixed_files() {
    static std::vector<const FixedFile *> files;
    return files;
}

} // namespace

FixedFile::FixedFile(std::string path) : path_(std::move(path)) { fixed_files().push_back(this); }

FixedFile::~FixedFile() { std::erase(fixed_files(), this); }

void FixedFile::fill(std::string_view bytes) {
    file_.fill(bytes);
    exists_ = true;
}

} // namespace corvel_fuzz

extern "C" int open(const char *file, int oflag, ...) {
    mode_t mode = 0;
    if ((oflag & O_CREAT) != 0 || (oflag & O_TMPFILE) == O_TMPFILE) {
        va_list values;
        va_start(values, oflag);
        // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): va_start() is not recognised
        mode = va_arg(values, mode_t);
        va_end(values);
    }
    for (const corvel_fuzz::FixedFile *fixed : corvel_fuzz::fixed_files()) {
        if (fixed->path() != file)
            continue;
        if (!fixed->exists()) {
            errno = ENOENT;
            return -1;
        }
        file = fixed->memory();
        break;
    }
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, file, oflag, mode));
}
