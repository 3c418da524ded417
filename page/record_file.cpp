// SPDX-License-Identifier: MIT
#include "page/record_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace corvel {
namespace {

struct flock lock_on(std::uint32_t byte, short type) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_start = byte;
    lock.l_len = 1;
    return lock;
}

} // namespace

RecordFile::RecordFile(const char *path, int flags)
    : file_(open(path, flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, S_IRUSR | S_IWUSR)) {
    struct stat status;
    if (file_ && (fstat(file_.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
                  status.st_uid != geteuid() || status.st_nlink != 1 ||
                  (status.st_mode & (S_IRWXG | S_IRWXO)) != 0))
        file_ = Descriptor(-1);
}

bool RecordFile::set_lock(std::uint32_t byte, short type) const {
    struct flock lock = lock_on(byte, type);
    return fcntl(file_.get(), F_OFD_SETLK, &lock) == 0;
}

bool RecordFile::is_locked(std::uint32_t byte) const {
    struct flock lock = lock_on(byte, F_RDLCK);
    return fcntl(file_.get(), F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

bool RecordFile::read(std::uint32_t at, void *block, std::size_t size) const {
    return pread(file_.get(), block, size, at) == static_cast<ssize_t>(size);
}

bool RecordFile::write(std::uint32_t at, const void *block, std::size_t size) const {
    return pwrite(file_.get(), block, size, at) == static_cast<ssize_t>(size);
}

} // namespace corvel
