// SPDX-License-Identifier: MIT
#ifndef CORVEL_PAGE_SETTINGS_FILE_H
#define CORVEL_PAGE_SETTINGS_FILE_H

#include <corvel.h>
#include <corvel_page.h>

#include <optional>
#include <string_view>
#include <sys/stat.h>

#include "config/lock_file.h"
#include "config/replacement.h"
#include "page/settings_text.h"
#include "support/descriptor.h"

namespace corvel {

/// The paths of a settings file and of its companions.
///
/// The kept version is a second file with the content that the file had when it was last known to
/// be whole. It is flushed before it gets its name, so that it is whole whenever it exists.
class SettingsPaths {
  public:
    /// False if the path is empty or a path does not fit its buffer.
    bool build(const char *path);

    [[nodiscard]] const char *file() const { return paths_[0]; }
    [[nodiscard]] const char *copy() const { return paths_[1]; }
    [[nodiscard]] const char *kept() const { return paths_[3]; }
    /// The names that all writers of the file use.
    [[nodiscard]] FileNames names() const { return {file(), copy(), lock()}; }
    /// The names for writing the next kept version.
    [[nodiscard]] FileNames kept_names() const { return {file(), new_kept(), lock()}; }
    /// The names for restoring the file from its kept version while a damaged copy is at the name
    /// of the copy. The file may be missing, the kept version is not.
    [[nodiscard]] FileNames names_without_file() const { return {kept(), new_kept(), lock()}; }
    /// Flushes the directory, so that its files keep their names after a power loss.
    [[nodiscard]] bool flush_directory() const;

  private:
    [[nodiscard]] const char *lock() const { return paths_[2]; }
    [[nodiscard]] const char *new_kept() const { return paths_[4]; }

    char paths_[5][CORVEL_PATH_SIZE];
};

/// Opens a lock file or a copy if it counts for the writers: a regular file of a trusted user.
Descriptor open_companion(const char *path, int flags, const FileNames &names, struct stat &status);

/// The lock of a settings file, which excludes the other writers of the file. A lock file that
/// cannot be opened, or whose owner is not trusted, does not count, as for them.
class SettingsLock {
  public:
    /// Waits for at most five seconds; see busy().
    explicit SettingsLock(const FileNames &names);

    [[nodiscard]] bool busy() const { return busy_; }
    [[nodiscard]] bool held() const { return lock_ && lock_->held(); }

  private:
    bool take_turn(const FileNames &names);

    /// Holds the process's lock, so that LockFile, which would wait without a bound, need not wait.
    /// Closed after it: to close any descriptor of the file gives up the lock.
    Descriptor turn_{-1};
    bool busy_;
    std::optional<LockFile> lock_;
};

/// The new version of a settings file or of its kept version: written and flushed before it takes
/// the place of the old one, in a single step. After a failure, nothing more is done.
class NewVersion {
  public:
    NewVersion(const FileNames &names, bool holds_lock_file);
    NewVersion(const NewVersion &) = delete;
    NewVersion &operator=(const NewVersion &) = delete;
    /// Removes a version that did not take its place.
    ~NewVersion();

    /// CORVEL_SETTINGS_SAVED, or the first failure.
    [[nodiscard]] corvel_settings_result result() const { return result_; }
    /// Writes the content, with the owner, group and mode of another file, and flushes it.
    corvel_settings_result write(std::string_view content, int original);
    /// Renames the version and flushes the directory.
    corvel_settings_result take_place(const char *path, const SettingsPaths &paths);

  private:
    const char *copy_path_;
    Replacement replacement_;
    corvel_settings_result result_ = CORVEL_SETTINGS_SAVED;
    bool placed_ = false;
};

/// A regular file of at most CORVEL_SETTINGS_MAX bytes, and its content.
class FileContent {
  public:
    void read(const char *path);
    /// Reads an open file.
    void read(Descriptor file);

    /// CORVEL_SETTINGS_SAVED, CORVEL_SETTINGS_UNREADABLE or CORVEL_SETTINGS_NO_MEMORY.
    [[nodiscard]] corvel_settings_result result() const { return result_; }
    [[nodiscard]] bool is_read() const { return result_ == CORVEL_SETTINGS_SAVED; }
    /// Whether the path named nothing when it was opened: to ask later could find the file that a
    /// writer has just renamed.
    [[nodiscard]] bool is_missing() const { return is_missing_; }
    /// Empty if the file is not read.
    [[nodiscard]] std::string_view view() const { return content_.view(); }
    [[nodiscard]] int descriptor() const { return file_.get(); }

  private:
    corvel_settings_result fill();

    Descriptor file_{-1};
    Bytes content_;
    corvel_settings_result result_ = CORVEL_SETTINGS_UNREADABLE;
    bool is_missing_ = false;
};

/// Writes a file to the device. A file system that cannot do that, and so has no need to, is no
/// failure.
bool flush(int file);

/// Whether a path names nothing.
bool is_missing(const char *path);

} // namespace corvel

#endif
