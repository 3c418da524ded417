// SPDX-License-Identifier: MIT
#ifndef CORVEL_PAGE_SETTINGS_FILE_H
#define CORVEL_PAGE_SETTINGS_FILE_H

#include <corvel.h>
#include <corvel_page.h>

#include <array>
#include <optional>
#include <string_view>

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

    [[nodiscard]] const char *file() const { return file_.data(); }
    [[nodiscard]] const char *copy() const { return copy_.data(); }
    [[nodiscard]] const char *kept() const { return kept_.data(); }
    /// The names that all writers of the file use.
    [[nodiscard]] FileNames names() const { return {file(), copy(), lock_.data()}; }
    /// The names for writing the next kept version.
    [[nodiscard]] FileNames kept_names() const { return {file(), new_kept_.data(), lock_.data()}; }
    /// The names for restoring the file from its kept version while a damaged copy is at the name
    /// of the copy. The file may be missing, the kept version is not.
    [[nodiscard]] FileNames names_without_file() const {
        return {kept(), new_kept_.data(), lock_.data()};
    }
    /// Flushes the directory, so that its files keep their names after a power loss.
    [[nodiscard]] bool flush_directory() const;

  private:
    using Path = std::array<char, CORVEL_PATH_SIZE>;
    Path file_;
    Path copy_;
    Path lock_;
    Path kept_;
    Path new_kept_;
};

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
/// the place of the old one, in a single step.
class NewVersion {
  public:
    NewVersion(const FileNames &names, bool holds_lock_file)
        : copy_path_(names.copy), replacement_(names, holds_lock_file) {}
    NewVersion(const NewVersion &) = delete;
    NewVersion &operator=(const NewVersion &) = delete;
    /// Removes a version that did not take its place.
    ~NewVersion();

    /// CORVEL_SETTINGS_SAVED if the version was created, otherwise the reason why not.
    [[nodiscard]] corvel_settings_result created() const;
    /// Writes the content, with the owner, group and mode of another file, and flushes it.
    bool write(std::string_view content, int original);
    /// Renames the version and flushes the directory.
    bool take_place(const char *path, const SettingsPaths &paths);

  private:
    const char *copy_path_;
    Replacement replacement_;
    bool placed_ = false;
};

/// Reads a file of at most CORVEL_SETTINGS_MAX bytes.
/// @return CORVEL_SETTINGS_SAVED, CORVEL_SETTINGS_UNREADABLE or CORVEL_SETTINGS_NO_MEMORY.
corvel_settings_result read_content(const Descriptor &file, Bytes &content);

/// Writes a file to the device. A file system that cannot do that, and so has no need to, is no
/// failure.
bool flush(const Descriptor &file);

/// Opens a settings file for reading. @p missing receives whether there was none: to ask later
/// could find the file that a writer has just renamed.
Descriptor open_file(const char *path, bool &missing);

/// Whether a path names nothing.
bool is_missing(const char *path);

} // namespace corvel

#endif
