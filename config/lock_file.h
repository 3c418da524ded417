// SPDX-License-Identifier: MIT
#ifndef CORVEL_CONFIG_LOCK_FILE_H
#define CORVEL_CONFIG_LOCK_FILE_H

#include <sys/types.h>

#include "support/descriptor.h"

namespace corvel {

/// The names of a configuration file and its companions.
struct FileNames {
    const char *file;
    const char *copy; ///< The new version, until it takes the file's place.
    const char *lock;
};

/// Whether a lock file or a copy of this user counts: the user is the effective user, root, the
/// owner of the file or the owner of its directory. Any other user could keep their own file locked
/// indefinitely.
bool is_trusted(uid_t user, const FileNames &names);

/// The lock that a writer of a configuration file holds while it rewrites the file: a lockf() lock
/// on a companion of the file.
///
/// Any close() of the lock file in a process drops the process's lock. Between construction and
/// release, nothing else in the process may open and close it.
class LockFile {
  public:
    /// Takes the lock, waiting as long as another writer holds it. The lock file is created if it
    /// is missing and emptied if it has no second name. The lock is not held if the lock file
    /// cannot be opened, is not a regular file or has an owner who is not trusted. The names must
    /// outlive the object.
    explicit LockFile(const FileNames &names);
    LockFile(const LockFile &) = delete;
    LockFile &operator=(const LockFile &) = delete;
    ~LockFile() { release(); }

    /// Whether no other writer that can open the lock file is at work.
    [[nodiscard]] bool held() const { return held_; }

    /// Unlocks and closes the lock file.
    void release();

    /// Releases the lock and then removes the lock file, unless another writer has taken it. Does
    /// nothing if the lock is not held.
    void release_and_remove();

  private:
    const char *path_;
    Descriptor file_{-1};
    bool held_ = false;
};

} // namespace corvel

#endif
