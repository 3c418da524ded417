// SPDX-License-Identifier: MIT
#include "tools/files.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/descriptor.h"
#include "tools/failure.h"
#include "tools/progress.h"
#include "tools/text_format.h"

namespace corvel::tools {
namespace {

/// The number of bytes read or written between two updates of the progress.
constexpr std::size_t chunk_size = std::size_t{1} << 20;

[[noreturn]] void fail(const std::string &path, const std::string &reason) {
    throw Failure(cannot_do_it, printable(path) + ": " + reason);
}

[[noreturn]] void fail(const std::string &path) { fail(path, std::strerror(errno)); }

struct stat status_of(int descriptor, const std::string &path) {
    struct stat status;
    if (fstat(descriptor, &status) != 0)
        fail(path);
    return status;
}

FileIdentity identity_of(const struct stat &status) { return {status.st_dev, status.st_ino}; }

std::size_t size_of_regular_file(const struct stat &status) {
    return S_ISREG(status.st_mode) && status.st_size > 0 ? static_cast<std::size_t>(status.st_size)
                                                         : 0;
}

/// Whether to repeat a call that was interrupted or would have blocked. Waits for a non-blocking
/// descriptor to become ready.
bool repeats(int descriptor, short events) {
    if (errno == EINTR)
        return true;
    if (errno != EAGAIN)
        return false;
    pollfd wanted{descriptor, events, 0};
    return poll(&wanted, 1, -1) >= 0 || errno == EINTR;
}

/// Reads the next part of a file. Returns the number of bytes read, 0 at the end.
std::size_t read_piece(int descriptor, std::span<unsigned char> piece, const std::string &path) {
    ssize_t length = 0;
    do
        length = read(descriptor, piece.data(), piece.size());
    while (length < 0 && repeats(descriptor, POLLIN));
    if (length < 0)
        fail(path);
    return static_cast<std::size_t>(length);
}

File read_descriptor(int descriptor, const std::string &path, std::size_t limit) {
    const struct stat status = status_of(descriptor, path);
    const std::size_t expected = size_of_regular_file(status);
    Progress progress("reading " + printable(path), expected);
    File file{{}, identity_of(status)};
    file.content.reserve(std::min(expected, limit) + chunk_size); // the last read detects the end
    std::size_t length = 0;
    while (length <= limit) {
        progress.show(length);
        file.content.resize(length + std::min(limit + 1 - length, chunk_size));
        const std::size_t added =
            read_piece(descriptor, std::span(file.content).subspan(length), path);
        if (added == 0)
            break;
        length += added;
    }
    file.content.resize(length);
    return file;
}

void write_all(int descriptor, std::span<const unsigned char> content, const std::string &path) {
    Progress progress("writing " + printable(path), content.size());
    std::size_t done = 0;
    while (done < content.size()) {
        progress.show(done);
        const std::size_t wanted = std::min(content.size() - done, chunk_size);
        const ssize_t written = write(descriptor, content.data() + done, wanted);
        if (written < 0 && !repeats(descriptor, POLLOUT))
            fail(path);
        done += written > 0 ? static_cast<std::size_t>(written) : 0;
    }
}

/// A path, split into the descriptor of its directory and the name in it. Relative to the
/// directory, the path of a temporary file is never too long.
class Place {
  public:
    explicit Place(const std::string &path)
        : name_(std::filesystem::path(path).filename().string()),
          directory_name_(std::filesystem::path(path).parent_path().string()),
          directory_(open(directory_name_.empty() ? "." : directory_name_.c_str(),
                          O_PATH | O_DIRECTORY | O_CLOEXEC)) {
        if (!directory_)
            fail(path);
    }

    [[nodiscard]] const char *name() const { return name_.c_str(); }
    [[nodiscard]] int directory() const { return directory_.get(); }

    /// Syncs the directory, so that the new name is on the disk, if the file system supports that.
    void sync() const {
        const Descriptor descriptor(openat(directory(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (descriptor)
            fsync(descriptor.get());
    }

  private:
    std::string name_;
    std::string directory_name_;
    Descriptor directory_;
};

/// A new file in the same directory as the target. The destructor removes it unless
/// replace_target() succeeded.
class TemporaryFile {
  public:
    TemporaryFile(const Place &place, const std::string &path)
        : place_(place), path_(path), descriptor_(create()) {
        if (!descriptor_)
            fail(path);
    }
    TemporaryFile(const TemporaryFile &) = delete;
    TemporaryFile &operator=(const TemporaryFile &) = delete;
    ~TemporaryFile() {
        if (!name_.empty())
            unlinkat(place_.directory(), name_.c_str(), 0);
    }

    [[nodiscard]] int descriptor() const { return descriptor_.get(); }

    void replace_target() {
        if (fsync(descriptor_.get()) != 0 ||
            renameat(place_.directory(), name_.c_str(), place_.directory(), place_.name()) != 0)
            fail(path_);
        name_.clear();
    }

  private:
    int create() {
        constexpr int most_attempts = 100;
        int descriptor = -1;
        errno = EEXIST;
        for (int attempt = 0; descriptor < 0 && errno == EEXIST && attempt < most_attempts;
             ++attempt) {
            std::uint32_t random = 0;
            if (getrandom(&random, sizeof random, 0) != sizeof random)
                return -1;
            name_ = format(".corvel-%08x", random);
            descriptor = openat(place_.directory(), name_.c_str(),
                                O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        }
        if (descriptor < 0)
            name_.clear(); // the name, if any, is that of another file
        return descriptor;
    }

    const Place &place_;
    std::string path_;
    std::string name_;
    Descriptor descriptor_;
};

mode_t mode_of_new_files() {
    const mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}

std::optional<struct stat> status_of_link(const std::string &path) {
    struct stat status;
    if (lstat(path.c_str(), &status) == 0)
        return status;
    if (errno != ENOENT)
        fail(path);
    return std::nullopt;
}

/// The file at the end of a chain of symbolic links. Any other path is returned unchanged, since
/// the absolute path may be too long.
std::string end_of_links(const std::string &path) {
    const std::optional<struct stat> status = status_of_link(path);
    if (!status || !S_ISLNK(status->st_mode))
        return path;
    std::error_code error;
    const std::filesystem::path end = std::filesystem::canonical(path, error);
    return error ? path : end.string();
}

void replace_file(const std::string &path, std::span<const unsigned char> content) {
    const std::string target = end_of_links(path);
    const std::optional<struct stat> old = status_of_link(target);
    if (old && !S_ISREG(old->st_mode))
        fail(path, "not a regular file");
    const Place place(target);
    TemporaryFile file(place, path);
    write_all(file.descriptor(), content, path);
    if (old) // before the mode, since changing the owner clears set-id bits
        static_cast<void>(fchown(file.descriptor(), old->st_uid, old->st_gid) == 0);
    if (fchmod(file.descriptor(), old ? old->st_mode & 07777 : mode_of_new_files()) != 0)
        fail(path);
    file.replace_target();
    place.sync();
}

void write_standard_output(std::span<const unsigned char> content) {
    if (isatty(STDOUT_FILENO) == 1)
        fail("standard output", "is a terminal, and an image is binary");
    write_all(STDOUT_FILENO, content, "standard output");
}

} // namespace

bool is_standard_stream(const std::string &path) { return path == "-"; }

File read_file(const std::string &path, std::size_t limit) {
    struct stat status;
    if (stat(path.c_str(), &status) != 0)
        fail(path);
    if (S_ISBLK(status.st_mode) || S_ISCHR(status.st_mode))
        fail(path, "is a device; devices are read through standard input only");
    const Descriptor file(open(path.c_str(), O_RDONLY | O_NOCTTY | O_CLOEXEC));
    if (!file)
        fail(path);
    return read_descriptor(file.get(), path, limit);
}

File read_argument(const std::string &path, std::size_t limit) {
    return is_standard_stream(path) ? read_descriptor(STDIN_FILENO, path, limit)
                                    : read_file(path, limit);
}

std::optional<FileIdentity> target_of_argument(const std::string &path) {
    struct stat status;
    const int error =
        is_standard_stream(path) ? fstat(STDOUT_FILENO, &status) : stat(path.c_str(), &status);
    if (error != 0 || !S_ISREG(status.st_mode))
        return std::nullopt;
    return identity_of(status);
}

void write_argument(const std::string &path, std::span<const unsigned char> content) {
    if (is_standard_stream(path))
        write_standard_output(content);
    else
        replace_file(path, content);
}

} // namespace corvel::tools
