// SPDX-License-Identifier: MIT
#include "page/settings_recovery.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "config/companion_files.h"
#include "support/pause.h"
#include "support/text.h"

namespace corvel {
namespace {

/// How often and for how many milliseconds a writer without the lock file is waited for.
constexpr int most_attempts = 50;
constexpr long pause_length = 10;

std::string_view take_line(std::string_view &content) {
    const std::size_t newline = content.find('\n');
    const std::string_view line = front(content, newline);
    content = after(content, line.size() + 1);
    return line;
}

/// Whether one line can be what an old writer made of the other.
bool is_same_setting(std::string_view one, std::string_view other, char separator) {
    if (front(one, one.find(separator)) == front(other, other.find(separator)))
        return true;
    Setting of_one;
    Setting of_other;
    return split_line(one, separator, of_one) && split_line(other, separator, of_other) &&
           take_word(of_one.name_area) == take_word(of_other.name_area);
}

/// Whether no byte is missing as far as the content alone can show.
bool is_complete(std::string_view content) {
    return content.ends_with('\n') && content.find('\0') == std::string_view::npos;
}

/// Whether a path names an open file, or nothing if there is none. Symbolic links are followed.
bool is_unchanged(const char *path, int file) {
    struct stat named;
    struct stat opened;
    if (file < 0)
        return is_missing(path);
    return stat(path, &named) == 0 && fstat(file, &opened) == 0 && is_same_file(named, opened);
}

} // namespace

bool is_truncated_version(std::string_view content, std::string_view whole, char separator) {
    while (!content.empty()) {
        if (!is_same_setting(take_line(content), take_line(whole), separator))
            return false;
    }
    return !whole.empty();
}

bool is_whole(const FileContent &file, const FileContent &kept, char separator) {
    if (!file.is_read())
        return false;
    const std::string_view content = file.view();
    if (kept.is_read() && content == kept.view())
        return true;
    return is_complete(content) &&
           !(is_complete(kept.view()) && is_truncated_version(content, kept.view(), separator));
}

SettingsRecovery::SettingsRecovery(const SettingsPaths &paths, char separator)
    : paths_(paths), separator_(separator), lock_(paths.names()),
      busy_(lock_.busy() || !wait_for_copy()) {}

bool SettingsRecovery::wait_for_copy() {
    for (int attempt = 0; attempt < most_attempts; ++attempt) {
        struct stat status;
        Descriptor copy = open_companion(paths_.copy(), O_RDONLY, paths_.names(), status);
        if (!copy)
            return true;
        const bool locked = flock(copy.get(), LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
        const bool last = attempt + 1 == most_attempts;
        if ((locked || (last && !is_marked(copy))) && is_at(status, paths_.copy())) {
            copy_.read(std::move(copy));
            return true;
        }
        pause_milliseconds(pause_length);
    }
    return false;
}

bool SettingsRecovery::place_copy() const {
    return flush(copy_.descriptor()) && std::rename(paths_.copy(), paths_.file()) == 0 &&
           paths_.flush_directory();
}

corvel_settings_result SettingsRecovery::restore() const {
    if (busy_)
        return CORVEL_SETTINGS_BUSY;
    FileContent file;
    file.read(paths_.file());
    if (!file.is_missing() && !file.is_read())
        return file.result();
    FileContent kept;
    kept.read(paths_.kept());
    if (kept.result() == CORVEL_SETTINGS_NO_MEMORY || copy_.result() == CORVEL_SETTINGS_NO_MEMORY)
        return CORVEL_SETTINGS_NO_MEMORY;

    if (!file.is_missing() && is_whole(file, kept, separator_))
        return CORVEL_SETTINGS_UNCHANGED;
    if (is_whole(copy_, kept, separator_))
        return place_copy() ? CORVEL_SETTINGS_RESTORED : CORVEL_SETTINGS_UNWRITABLE;
    const bool has_copy = copy_.descriptor() >= 0;
    if (file.is_missing() && !has_copy && !is_missing(paths_.copy()))
        return CORVEL_SETTINGS_BUSY; // a writer without the lock file has just removed the file
    if (!is_complete(kept.view()))
        return file.is_missing() ? CORVEL_SETTINGS_UNREADABLE : CORVEL_SETTINGS_DAMAGED;

    // Either copy, locked, keeps the writers away that have no access to the lock file.
    NewVersion version(has_copy ? paths_.names_without_file() : paths_.names(), lock_.held());
    version.write(kept.view(), kept.descriptor());
    if (!is_unchanged(paths_.file(), file.descriptor()))
        return CORVEL_SETTINGS_BUSY; // one of them was faster
    if (version.take_place(paths_.file(), paths_) != CORVEL_SETTINGS_SAVED)
        return version.result();
    if (has_copy)
        unlink(paths_.copy());
    return CORVEL_SETTINGS_RESTORED;
}

corvel_settings_result SettingsRecovery::keep() const {
    FileContent file;
    FileContent kept;
    file.read(paths_.file());
    kept.read(paths_.kept());
    if (!file.is_read())
        return file.result();
    if (kept.is_read() && kept.view() == file.view())
        return CORVEL_SETTINGS_UNCHANGED;
    NewVersion version(paths_.kept_names(), lock_.held());
    version.write(file.view(), file.descriptor());
    return version.take_place(paths_.kept(), paths_);
}

} // namespace corvel
