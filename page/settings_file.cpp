// SPDX-License-Identifier: MIT
#include "page/settings_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <sys/stat.h>
#include <unistd.h>

#include "config/companion_files.h"
#include "support/pause.h"
#include "support/text.h"

namespace corvel {
namespace {

/// In the order of SettingsPaths::paths_.
constexpr char suffixes[][8] = {"", ".cgi", ".lck", ".kept", ".kept~"};
static_assert(suffixes[1] == copy_suffix && suffixes[2] == lock_suffix);

/// How often and for how many milliseconds a writer waits for the lock: five seconds.
constexpr int most_attempts = 500;
constexpr long pause_length = 10;

bool is_regular(const char *path) {
    struct stat status;
    return lstat(path, &status) == 0 && S_ISREG(status.st_mode);
}

enum class Turn { taken, not_needed, others };

/// Takes the lock if nobody has it. Not needed: what is at the path is no lock file for LockFile
/// either, or is missing, so that nobody has its lock.
Turn try_turn(const FileNames &names, Descriptor &turn) {
    struct stat status;
    Descriptor file = open_companion(names.lock, O_RDWR, names, status);
    if (!file)
        return Turn::not_needed;
    if (lockf(file.get(), F_TLOCK, 0) != 0)
        return errno == EACCES || errno == EAGAIN || errno == EINTR ? Turn::others
                                                                    : Turn::not_needed;
    if (!is_at(status, names.lock))
        return Turn::others;
    turn = std::move(file);
    return Turn::taken;
}

} // namespace

bool SettingsPaths::build(const char *path) {
    bool is_built = *text_or_empty(path) != '\0';
    for (std::size_t i = 0; is_built && i < std::size(paths_); ++i) {
        const int length = std::snprintf(paths_[i], sizeof paths_[i], "%s%s", path, suffixes[i]);
        is_built = length > 0 && size_from(length) < sizeof paths_[i];
    }
    return is_built;
}

bool SettingsPaths::flush_directory() const {
    char path[CORVEL_PATH_SIZE] = ".";
    const char *const slash = std::strrchr(file(), '/');
    if (slash != nullptr)
        store(path, {file(), static_cast<std::size_t>(slash - file()) + 1});
    const Descriptor directory(open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return directory && flush(directory.get());
}

Descriptor open_companion(const char *path, int flags, const FileNames &names,
                          struct stat &status) {
    Descriptor file(open(path, flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (file && (fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
                 !is_trusted(status.st_uid, names)))
        return Descriptor(-1);
    return file;
}

SettingsLock::SettingsLock(const FileNames &names) : busy_(!take_turn(names)) {
    if (!busy_)
        lock_.emplace(names);
}

bool SettingsLock::take_turn(const FileNames &names) {
    for (int attempt = 0; attempt < most_attempts; ++attempt) {
        if (try_turn(names, turn_) != Turn::others)
            return true;
        pause_milliseconds(pause_length);
    }
    return false;
}

NewVersion::NewVersion(const FileNames &names, bool holds_lock_file)
    : copy_path_(names.copy), replacement_(names, holds_lock_file) {
    if (replacement_)
        return;
    if (replacement_.descriptor() >= 0)
        result_ = CORVEL_SETTINGS_NO_MEMORY;
    else
        result_ = is_regular(names.copy) ? CORVEL_SETTINGS_BUSY : CORVEL_SETTINGS_UNWRITABLE;
}

NewVersion::~NewVersion() {
    if (!placed_ && replacement_.descriptor() >= 0)
        replacement_.remove_copy();
}

corvel_settings_result NewVersion::write(std::string_view content, int original) {
    if (result_ != CORVEL_SETTINGS_SAVED)
        return result_;
    std::fwrite(content.data(), 1, content.size(), replacement_.stream());
    if (!replacement_.finish(original) || !flush(replacement_.descriptor()))
        result_ = CORVEL_SETTINGS_UNWRITABLE;
    return result_;
}

corvel_settings_result NewVersion::take_place(const char *path, const SettingsPaths &paths) {
    if (result_ != CORVEL_SETTINGS_SAVED)
        return result_;
    placed_ = replacement_.is_at_its_name() && std::rename(copy_path_, path) == 0;
    if (!placed_ || !paths.flush_directory())
        result_ = CORVEL_SETTINGS_UNWRITABLE;
    return result_;
}

void FileContent::read(const char *path) {
    errno = 0;
    Descriptor file = open_regular(path);
    is_missing_ = !file && errno == ENOENT;
    read(std::move(file));
}

void FileContent::read(Descriptor file) {
    file_ = std::move(file);
    content_.clear();
    result_ = fill();
    if (!is_read())
        content_.clear();
}

corvel_settings_result FileContent::fill() {
    struct stat status;
    if (!file_ || fstat(file_.get(), &status) != 0 || status.st_size > CORVEL_SETTINGS_MAX)
        return CORVEL_SETTINGS_UNREADABLE;
    const auto size = static_cast<std::size_t>(status.st_size);
    if (!content_.allocate(size))
        return CORVEL_SETTINGS_NO_MEMORY;
    for (std::size_t used = 0; used < size;) {
        const ssize_t length =
            pread(file_.get(), content_.start() + used, size - used, static_cast<off_t>(used));
        if (length <= 0 && !(length < 0 && errno == EINTR))
            return CORVEL_SETTINGS_UNREADABLE;
        used += size_from(length);
    }
    return CORVEL_SETTINGS_SAVED;
}

bool flush(int file) { return fsync(file) == 0 || errno == EINVAL; }

bool is_missing(const char *path) {
    struct stat status;
    return lstat(path, &status) != 0 && errno == ENOENT;
}

} // namespace corvel
