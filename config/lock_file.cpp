// SPDX-License-Identifier: MIT
#include "config/lock_file.h"

#include <corvel.h>

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

#include "support/pause.h"
#include "support/text.h"

namespace corvel {
namespace {

/// How often a lock file that was removed or replaced before it was locked is opened again, and how
/// often a pause is made.
constexpr int most_attempts = 100;
constexpr long pause_length = 5;

/// O_NONBLOCK: opening a device must not block.
constexpr int open_flags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

/// The owner of the file. Between its removal and the renaming of the copy, that is the copy's
/// owner; the file is looked for again in case the copy was renamed in between.
bool find_owner(const FileNames &names, uid_t &owner) {
    struct stat status;
    if (stat(names.file, &status) != 0 && lstat(names.copy, &status) != 0 &&
        stat(names.file, &status) != 0)
        return false;
    owner = status.st_uid;
    return true;
}

bool owns_file(uid_t user, const FileNames &names) {
    uid_t owner = 0;
    return find_owner(names, owner) && owner == user;
}

bool owns_directory(uid_t user, std::string_view path) {
    const std::size_t slash = path.rfind('/');
    std::array<char, CORVEL_PATH_SIZE> directory;
    store(directory, slash != std::string_view::npos ? front(path, slash + 1) : ".");
    struct stat status;
    return stat(directory.data(), &status) == 0 && status.st_uid == user;
}

/// Creates the lock file. Root gives it to the owner of the file, who can then open it, too.
Descriptor create(const FileNames &names) {
    Descriptor file(open(names.lock, open_flags | O_CREAT | O_EXCL, S_IRUSR | S_IWUSR));
    uid_t owner = 0;
    if (file && geteuid() == 0 && find_owner(names, owner) && owner != 0)
        static_cast<void>(fchown(file.get(), owner, static_cast<gid_t>(-1)) == 0);
    return file;
}

/// Opens the lock file, which other writers may create and remove at the same time.
Descriptor open_or_create(const FileNames &names) {
    for (int attempt = 0; attempt < most_attempts; ++attempt) {
        // Without O_CREAT first: with it, the kernel may refuse to open another user's file in a
        // directory that everybody can write to.
        Descriptor file(open(names.lock, open_flags));
        if (!file && errno == ENOENT)
            file = create(names);
        if (file)
            return file;
        if (errno == EACCES)
            pause_milliseconds(pause_length); // root may be about to change its owner
        else if (errno != EEXIST)
            break;
    }
    return Descriptor(-1);
}

/// Waits for the lock. False if it cannot be taken. If several threads of two processes save files,
/// the kernel may report a deadlock that does not exist.
bool wait_for_lock(int file) {
    int deadlocks = 0;
    while (lockf(file, F_LOCK, 0) != 0) {
        if (errno == EDEADLK && ++deadlocks < most_attempts)
            pause_milliseconds(pause_length);
        else if (errno != EINTR)
            return false;
    }
    return true;
}

} // namespace

bool is_trusted(uid_t user, const FileNames &names) {
    return user == 0 || user == geteuid() || owns_file(user, names) ||
           owns_directory(user, names.lock);
}

LockFile::LockFile(const FileNames &names) : path_(names.lock) {
    for (int attempt = 0; attempt < most_attempts && !held_; ++attempt) {
        file_ = Descriptor(-1); // closed before it may be opened again
        Descriptor file = open_or_create(names);
        struct stat status;
        if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
            !is_trusted(status.st_uid, names))
            return;
        // A file with a second name may contain data.
        if (status.st_nlink == 1)
            static_cast<void>(ftruncate(file.get(), 0) == 0);
        if (!wait_for_lock(file.get()))
            return;
        file_ = std::move(file);
        held_ = is_at(status, path_);
    }
}

void LockFile::release() {
    if (!file_)
        return;
    static_cast<void>(lockf(file_.get(), F_ULOCK, 0) == 0);
    file_ = Descriptor(-1);
}

void LockFile::release_and_remove() {
    if (!held_)
        return;
    release();
    // Only the holder of the lock may remove the file: a writer that waits for the lock of a file
    // without a name would not exclude one that creates the file anew.
    const Descriptor file(open(path_, open_flags));
    struct stat status;
    if (file && lockf(file.get(), F_TLOCK, 0) == 0 && fstat(file.get(), &status) == 0 &&
        is_at(status, path_))
        unlink(path_);
}

} // namespace corvel
