// SPDX-License-Identifier: MIT
#ifndef CORVEL_CONFIG_REPLACEMENT_H
#define CORVEL_CONFIG_REPLACEMENT_H

#include <fcntl.h>
#include <sys/stat.h>

#include "config/lock_file.h"
#include "support/descriptor.h"
#include "support/handles.h"

namespace corvel {

/// Whether a copy is the work of a living writer, which a second lock marks it as. Only who can
/// write to the copy can take that lock: its owner, and those who may change the file as well.
inline bool is_marked(const Descriptor &copy) {
    struct flock all {};
    all.l_type = F_RDLCK;
    return fcntl(copy.get(), F_OFD_GETLK, &all) == 0 && all.l_type != F_UNLCK;
}

/// A new version of a file, written into a companion of the file, the copy, which then takes the
/// file's place.
///
/// Each copy is a new file, which its writer locks until it has taken the file's place. The lock
/// excludes writers that do not hold the lock file: such a writer never replaces a locked copy. A
/// writer that holds the lock file waits for up to half a second. If a writer of a trusted user is
/// still at work then, nothing is saved; if another user holds the lock, the copy is replaced.
class Replacement {
  public:
    /// Creates the copy. What a writer that died left at its name, except a directory, is removed
    /// first. There is no replacement if another writer is at work on one, or if the file is
    /// missing, since the existing copy may then be the only one.
    Replacement(const FileNames &names, bool holds_lock_file);
    Replacement(const Replacement &) = delete;
    Replacement &operator=(const Replacement &) = delete;
    /// Removes a copy that was not finished.
    ~Replacement();

    explicit operator bool() const { return stream_ != nullptr; }
    [[nodiscard]] std::FILE *stream() const { return stream_.get(); }
    /// The copy; negative if none was created.
    [[nodiscard]] int descriptor() const { return copy_.get(); }

    /// Gives the copy the owner, group and mode of the original and closes it. False if it is not
    /// whole.
    bool finish(int original);

    /// Removes the file and gives its name to the finished copy.
    void take_place() const;

    /// Whether the copy has not been replaced by another writer.
    [[nodiscard]] bool is_at_its_name() const { return is_at(status_, names_.copy); }

    /// Removes the copy, even if it is finished.
    void remove_copy() const;

  private:
    enum class Creation { done, taken, failed };

    Creation create();
    bool create_in_turn(bool holds_lock_file);
    [[nodiscard]] bool remove_unlocked_copy() const;
    [[nodiscard]] bool remove_strangers_copy() const;

    FileNames names_;
    /// Holds the lock until the copy has taken the file's place.
    Descriptor copy_{-1};
    struct stat status_ {};
    Stream stream_;
    bool finished_ = false;
};

} // namespace corvel

#endif
