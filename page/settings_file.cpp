// SPDX-License-Identifier: MIT
#include "page/settings_file.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "config/companion_files.h"
#include "support/pause.h"
#include "support/text.h"

namespace corvel {
namespace {

constexpr std::string_view no_suffix;
constexpr std::string_view kept_suffix = ".kept";
constexpr std::string_view new_kept_suffix = ".kept~";

/// How often and for how many milliseconds a writer waits for the lock: five seconds.
constexpr int most_attempts = 500;
constexpr long pause_length = 10;

bool flush_descriptor(int file) { return fsync(file) == 0 || errno == EINVAL; }

bool is_regular(const char *path) {
    struct stat status;
    return lstat(path, &status) == 0 && S_ISREG(status.st_mode);
}

enum class Turn { taken, not_needed, others };

/// Takes the lock if nobody has it. Not needed: what is at the path is no lock file for LockFile
/// either, or is missing, so that nobody has its lock.
Turn try_turn(const FileNames &names, Descriptor &turn) {
    Descriptor file(open(names.lock, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status;
    if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
        !is_trusted(status.st_uid, names))
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
    const std::string_view text = text_of(path);
    return build_companion_path(file_, text, no_suffix) &&
           build_companion_path(copy_, text, copy_suffix) &&
           build_companion_path(lock_, text, lock_suffix) &&
           build_companion_path(kept_, text, kept_suffix) &&
           build_companion_path(new_kept_, text, new_kept_suffix);
}

bool SettingsPaths::flush_directory() const {
    const std::string_view path = file();
    const std::size_t slash = path.rfind('/');
    Path directory;
    store(directory, slash != std::string_view::npos ? front(path, slash + 1) : ".");
    const Descriptor opened(open(directory.data(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return opened && flush(opened);
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

NewVersion::~NewVersion() {
    if (!placed_ && replacement_.descriptor() >= 0)
        replacement_.remove_copy();
}

corvel_settings_result NewVersion::created() const {
    if (replacement_)
        return CORVEL_SETTINGS_SAVED;
    if (replacement_.descriptor() >= 0)
        return CORVEL_SETTINGS_NO_MEMORY;
    return is_regular(copy_path_) ? CORVEL_SETTINGS_BUSY : CORVEL_SETTINGS_UNWRITABLE;
}

bool NewVersion::write(std::string_view content, int original) {
    std::fwrite(content.data(), 1, content.size(), replacement_.stream());
    return replacement_.finish(original) && flush_descriptor(replacement_.descriptor());
}

bool NewVersion::take_place(const char *path, const SettingsPaths &paths) {
    placed_ = replacement_.is_at_its_name() && std::rename(copy_path_, path) == 0;
    return placed_ && paths.flush_directory();
}

corvel_settings_result read_content(const Descriptor &file, Bytes &content) {
    struct stat status;
    if (!file || fstat(file.get(), &status) != 0 || status.st_size > CORVEL_SETTINGS_MAX)
        return CORVEL_SETTINGS_UNREADABLE;
    const auto size = static_cast<std::size_t>(status.st_size);
    if (!content.allocate(size))
        return CORVEL_SETTINGS_NO_MEMORY;
    std::size_t used = 0;
    while (used < size) {
        const ssize_t length =
            pread(file.get(), content.start() + used, size - used, static_cast<off_t>(used));
        if (length <= 0 && !(length < 0 && errno == EINTR))
            return CORVEL_SETTINGS_UNREADABLE;
        used += length > 0 ? static_cast<std::size_t>(length) : 0;
    }
    return CORVEL_SETTINGS_SAVED;
}

bool flush(const Descriptor &file) { return flush_descriptor(file.get()); }

Descriptor open_file(const char *path, bool &missing) {
    errno = 0;
    Descriptor file = open_regular(path);
    missing = !file && errno == ENOENT;
    return file;
}

bool is_missing(const char *path) {
    struct stat status;
    return lstat(path, &status) != 0 && errno == ENOENT;
}

} // namespace corvel
