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

/// A file and its content.
struct Found {
    explicit Found(const char *path)
        : file(open_file(path, missing)), result(read_content(file, content)) {}

    [[nodiscard]] bool readable() const { return result == CORVEL_SETTINGS_SAVED; }
    [[nodiscard]] std::string_view view() const {
        return readable() ? content.view() : std::string_view();
    }

    Bytes content;
    bool missing = false;
    Descriptor file;
    corvel_settings_result result;
};

/// Whether a path names an open file, or nothing if there is none. Symbolic links are followed.
bool is_unchanged(const char *path, const Descriptor &file) {
    struct stat named;
    struct stat opened;
    if (!file)
        return is_missing(path);
    return stat(path, &named) == 0 && fstat(file.get(), &opened) == 0 &&
           is_same_file(named, opened);
}

} // namespace

bool is_truncated_version(std::string_view content, std::string_view whole, char separator) {
    while (!content.empty()) {
        if (!is_same_setting(take_line(content), take_line(whole), separator))
            return false;
    }
    return !whole.empty();
}

bool is_whole(std::string_view content, const std::string_view *kept, char separator) {
    if (kept != nullptr && content == *kept)
        return true;
    if (!is_complete(content))
        return false;
    return kept == nullptr || !is_complete(*kept) ||
           !is_truncated_version(content, *kept, separator);
}

SettingsRecovery::SettingsRecovery(const SettingsPaths &paths, char separator)
    : paths_(paths), separator_(separator), lock_(paths.names()),
      busy_(lock_.busy() || !wait_for_copy()) {}

bool SettingsRecovery::wait_for_copy() {
    for (int attempt = 0; attempt < most_attempts; ++attempt) {
        Descriptor copy(open(paths_.copy(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
        struct stat status;
        if (!copy || fstat(copy.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
            !is_trusted(status.st_uid, paths_.names()))
            return true;
        const bool locked = flock(copy.get(), LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
        const bool last = attempt + 1 == most_attempts;
        if ((locked || (last && !is_marked(copy))) && is_at(status, paths_.copy())) {
            copy_ = std::move(copy);
            return true;
        }
        pause_milliseconds(pause_length);
    }
    return false;
}

bool SettingsRecovery::place_copy() const {
    return flush(copy_) && std::rename(paths_.copy(), paths_.file()) == 0 &&
           paths_.flush_directory();
}

corvel_settings_result SettingsRecovery::restore() const {
    if (busy_)
        return CORVEL_SETTINGS_BUSY;
    const Found file(paths_.file());
    if (!file.missing && !file.readable())
        return file.result;
    const Found kept(paths_.kept());
    const std::string_view kept_content = kept.view();
    const std::string_view *const kept_view = kept.readable() ? &kept_content : nullptr;
    Bytes copy;
    const corvel_settings_result copy_result = read_content(copy_, copy);
    if (kept.result == CORVEL_SETTINGS_NO_MEMORY || copy_result == CORVEL_SETTINGS_NO_MEMORY)
        return CORVEL_SETTINGS_NO_MEMORY;

    if (!file.missing && is_whole(file.view(), kept_view, separator_))
        return CORVEL_SETTINGS_UNCHANGED;
    if (copy_result == CORVEL_SETTINGS_SAVED && is_whole(copy.view(), kept_view, separator_))
        return place_copy() ? CORVEL_SETTINGS_RESTORED : CORVEL_SETTINGS_UNWRITABLE;
    if (file.missing && !copy_ && !is_missing(paths_.copy()))
        return CORVEL_SETTINGS_BUSY; // a writer without the lock file has just removed the file
    if (!is_complete(kept_content))
        return file.missing ? CORVEL_SETTINGS_UNREADABLE : CORVEL_SETTINGS_DAMAGED;
    return restore_kept(kept_content, kept.file, file.file);
}

corvel_settings_result SettingsRecovery::restore_kept(std::string_view content,
                                                      const Descriptor &kept,
                                                      const Descriptor &damaged) const {
    // Either copy, locked, keeps the writers away that have no access to the lock file.
    NewVersion version(copy_ ? paths_.names_without_file() : paths_.names(), lock_.held());
    if (version.created() != CORVEL_SETTINGS_SAVED)
        return version.created();
    if (!is_unchanged(paths_.file(), damaged))
        return CORVEL_SETTINGS_BUSY; // one of them was faster
    if (!version.write(content, kept.get()) || !version.take_place(paths_.file(), paths_))
        return CORVEL_SETTINGS_UNWRITABLE;
    if (copy_)
        unlink(paths_.copy());
    return CORVEL_SETTINGS_RESTORED;
}

corvel_settings_result SettingsRecovery::keep() const {
    const Found file(paths_.file());
    if (!file.readable())
        return file.result;
    const Found kept(paths_.kept());
    if (kept.readable() && kept.view() == file.view())
        return CORVEL_SETTINGS_UNCHANGED;
    NewVersion version(paths_.kept_names(), lock_.held());
    if (version.created() != CORVEL_SETTINGS_SAVED)
        return version.created();
    if (!version.write(file.view(), file.file.get()) || !version.take_place(paths_.kept(), paths_))
        return CORVEL_SETTINGS_UNWRITABLE;
    return CORVEL_SETTINGS_SAVED;
}

} // namespace corvel
