// SPDX-License-Identifier: MIT
#ifndef CORVEL_PAGE_SETTINGS_RECOVERY_H
#define CORVEL_PAGE_SETTINGS_RECOVERY_H

#include <corvel_page.h>

#include <string_view>

#include "page/settings_file.h"
#include "support/descriptor.h"

namespace corvel {

/// Whether a file can be the first lines of another: it has fewer lines, and each has the same part
/// before the separator as the line at its place in the other. save_prop() and save_global_conf()
/// keep the lines and their order, change what follows the separator, and append lines, so that
/// nothing they write is such a part of what they found.
bool is_truncated_version(std::string_view content, std::string_view whole, char separator);

/// Whether the content can be that of a file that a writer completed.
bool is_whole(const FileContent &file, const FileContent &kept, char separator);

/// The recovery of a settings file, with the other writers excluded until it is destroyed.
class SettingsRecovery {
  public:
    SettingsRecovery(const SettingsPaths &paths, char separator);

    /// Makes sure that the file is whole.
    [[nodiscard]] corvel_settings_result restore() const;
    /// Makes the file's content the kept version; the file must be whole.
    [[nodiscard]] corvel_settings_result keep() const;

  private:
    bool wait_for_copy();
    [[nodiscard]] bool place_copy() const;

    const SettingsPaths &paths_;
    char separator_;
    SettingsLock lock_;
    /// What a dead writer left. Locked, so that a writer without the lock file leaves it alone.
    FileContent copy_;
    bool busy_;
};

} // namespace corvel

#endif
