// SPDX-License-Identifier: MIT
#include "config/replacement.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "support/pause.h"

namespace corvel {
namespace {

/// How often and for how many milliseconds a writer that holds the lock file waits for one that
/// does not.
constexpr int most_attempts = 50;
constexpr long pause_length = 10;

constexpr const char *access_list = "system.posix_acl_access";

bool exists(const char *path) {
    struct stat status;
    return lstat(path, &status) == 0;
}

bool is_regular(const char *path) {
    struct stat status;
    return lstat(path, &status) == 0 && S_ISREG(status.st_mode);
}

/// Takes the lock that excludes other writers. Any process that can read the copy can take it.
bool lock(const Descriptor &copy) { return flock(copy.get(), LOCK_EX | LOCK_NB) == 0; }

/// See is_marked().
void mark(const Descriptor &copy) {
    struct flock all {};
    all.l_type = F_WRLCK;
    static_cast<void>(fcntl(copy.get(), F_OFD_SETLK, &all) == 0);
}

/// Reduces the group's permissions to those of others.
constexpr mode_t without_group(mode_t mode) {
    return mode & (~static_cast<mode_t>(S_IRWXG) | (mode & S_IRWXO) << 3);
}

/// Gives the copy the owner, group and mode of the original; false if the mode cannot be set.
/// Without the owner, set-id bits are dropped. The group's permissions are reduced to those of
/// others if the group cannot be kept, and if the original has an access control list: then they
/// are the list's mask, and not what the group may do.
bool copy_owner_and_mode(int copy, int original) {
    struct stat status;
    if (fstat(original, &status) != 0)
        return false;
    // An access control list inherited from the directory would take effect with the mode.
    static_cast<void>(fremovexattr(copy, access_list) == 0);
    mode_t mode = status.st_mode & 07777;
    bool group_is_kept = true;
    if (fchown(copy, status.st_uid, status.st_gid) != 0) {
        group_is_kept = fchown(copy, static_cast<uid_t>(-1), status.st_gid) == 0;
        mode &= 0777;
    }
    if (!group_is_kept || fgetxattr(original, access_list, nullptr, 0) > 0)
        mode = without_group(mode);
    return fchmod(copy, mode) == 0;
}

} // namespace

Replacement::Replacement(const FileNames &names, bool holds_lock_file) : names_(names) {
    if (!create_in_turn(holds_lock_file))
        return;
    // A descriptor of the stream's own, so that closing the stream keeps the locks.
    Descriptor own(fcntl(copy_.get(), F_DUPFD_CLOEXEC, 0));
    stream_.reset(own ? fdopen(own.get(), "w") : nullptr);
    if (stream_)
        own.release();
}

/// Creates, marks and locks the copy. Its name is taken if a file has it, or if another writer
/// locks or removes the new copy first. A file system without such locks excludes no writer.
Replacement::Creation Replacement::create() {
    copy_ = Descriptor(
        open(names_.copy, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (!copy_)
        return errno == EEXIST ? Creation::taken : Creation::failed;
    if (fstat(copy_.get(), &status_) != 0) {
        unlink(names_.copy);
        copy_ = Descriptor(-1);
        return Creation::failed;
    }
    mark(copy_);
    if ((!lock(copy_) && errno == EWOULDBLOCK) || !is_at_its_name()) {
        copy_ = Descriptor(-1);
        return Creation::taken;
    }
    return Creation::done;
}

/// Removes a copy that no process has locked. It is locked while it is removed, so that two writers
/// that find it do not remove each other's new copies.
bool Replacement::remove_unlocked_copy() const {
    if (!is_regular(names_.copy))
        return false;
    const Descriptor copy(open(names_.copy, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    struct stat status;
    return copy && lock(copy) && fstat(copy.get(), &status) == 0 && is_at(status, names_.copy) &&
           exists(names_.file) && unlink(names_.copy) == 0;
}

/// Removes the file at the copy's name, unless it is the work of a living writer of a trusted user.
bool Replacement::remove_strangers_copy() const {
    const Descriptor copy(open(names_.copy, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    struct stat status;
    if (copy && is_marked(copy) &&
        (fstat(copy.get(), &status) != 0 || is_trusted(status.st_uid, names_)))
        return false;
    return exists(names_.file) && unlink(names_.copy) == 0;
}

/// Creates the copy once no other writer is at work on one.
bool Replacement::create_in_turn(bool holds_lock_file) {
    for (int attempt = 0; attempt < most_attempts; ++attempt) {
        const Creation creation = create();
        if (creation != Creation::taken)
            return creation == Creation::done;
        if (remove_unlocked_copy())
            continue;
        if (!holds_lock_file)
            return false;
        if (exists(names_.copy) && !is_regular(names_.copy))
            break; // no writer made it
        pause_milliseconds(pause_length);
    }
    return holds_lock_file && remove_strangers_copy() && create() == Creation::done;
}

Replacement::~Replacement() {
    if (copy_ && !finished_)
        remove_copy();
}

void Replacement::remove_copy() const {
    if (is_at_its_name())
        unlink(names_.copy);
}

bool Replacement::finish(int original) {
    // The mode is set last: writing to a file clears its set-id bits.
    const bool whole = std::fflush(stream_.get()) == 0 && std::ferror(stream_.get()) == 0 &&
                       copy_owner_and_mode(copy_.get(), original);
    finished_ = std::fclose(stream_.release()) == 0 && whole;
    return finished_;
}

void Replacement::take_place() const {
    if (!is_at_its_name())
        return; // another writer has replaced it
    const bool removed = unlink(names_.file) == 0;
    // Once the file is removed, the copy is the only one.
    if (std::rename(names_.copy, names_.file) != 0 && !removed && exists(names_.file))
        remove_copy();
}

} // namespace corvel
