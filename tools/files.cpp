// SPDX-License-Identifier: MIT
#include "tools/files.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

#include "support/descriptor.h"
#include "tools/failure.h"
#include "tools/progress.h"

namespace corvel::tools {
namespace {

/// As much as is read or written between two looks at the progress.
constexpr std::size_t chunk_size = std::size_t{1} << 20;

[[noreturn]] void fail(const std::string &path, int error) {
    throw Failure(cannot_do_it, path + ": " + std::strerror(error));
}

[[noreturn]] void fail(const std::string &path) { fail(path, errno); }

std::size_t size_of_plain_file(int descriptor) {
    struct stat status;
    if (fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode) || status.st_size < 0)
        return 0;
    return static_cast<std::size_t>(status.st_size);
}

/// The next piece of a file; the number of bytes read, 0 at its end.
std::size_t read_piece(int descriptor, std::span<unsigned char> piece, const std::string &path) {
    ssize_t length = 0;
    do
        length = read(descriptor, piece.data(), piece.size());
    while (length < 0 && errno == EINTR);
    if (length < 0)
        fail(path);
    return static_cast<std::size_t>(length);
}

void write_all(int descriptor, std::span<const unsigned char> content, const std::string &path) {
    Progress progress("writing " + path, content.size());
    std::size_t done = 0;
    while (done < content.size()) {
        progress.show(done);
        const std::size_t wanted = std::min(content.size() - done, chunk_size);
        const ssize_t written = write(descriptor, content.data() + done, wanted);
        if (written < 0 && errno != EINTR)
            fail(path);
        done += written > 0 ? static_cast<std::size_t>(written) : 0;
    }
}

/// A file beside another one, gone with the object unless it has taken the other one's place.
class FileBeside {
  public:
    explicit FileBeside(const std::string &path)
        : target_(path), name_(path + ".XXXXXX"), descriptor_(mkostemp(name_.data(), O_CLOEXEC)) {
        if (!descriptor_)
            fail(path);
    }
    FileBeside(const FileBeside &) = delete;
    FileBeside &operator=(const FileBeside &) = delete;
    ~FileBeside() {
        if (!name_.empty())
            unlink(name_.c_str());
    }

    [[nodiscard]] int descriptor() const { return descriptor_.get(); }

    void take_place() {
        if (fsync(descriptor_.get()) != 0 || rename(name_.c_str(), target_.c_str()) != 0)
            fail(target_);
        name_.clear();
    }

  private:
    std::string target_;
    std::string name_;
    Descriptor descriptor_;
};

mode_t mode_of_new_files() {
    const mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}

/// Where the file itself lies: the end of a chain of links.
std::string end_of_links(const std::string &path) {
    std::error_code error;
    const std::filesystem::path end = std::filesystem::canonical(path, error);
    return error ? path : end.string();
}

std::optional<struct stat> status_of(const std::string &path) {
    struct stat status;
    if (lstat(path.c_str(), &status) == 0)
        return status;
    if (errno != ENOENT)
        fail(path);
    return std::nullopt;
}

/// The new name is on the disk, too, as far as the file system lets a folder be synced.
void sync_folder_of(const std::string &path) {
    const std::string folder = std::filesystem::path(path).parent_path().string();
    const Descriptor descriptor(
        open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (descriptor)
        fsync(descriptor.get());
}

} // namespace

Bytes read_file(const std::string &path, std::size_t limit) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file)
        fail(path);
    const std::size_t expected = size_of_plain_file(file.get());
    Progress progress("reading " + path, expected);
    Bytes content;
    content.reserve(std::min(expected, limit) + chunk_size); // the last piece asks for the end
    std::size_t length = 0;
    while (length <= limit) {
        progress.show(length);
        content.resize(length + std::min(limit + 1 - length, chunk_size));
        const std::size_t added = read_piece(file.get(), std::span(content).subspan(length), path);
        if (added == 0)
            break;
        length += added;
    }
    content.resize(length);
    return content;
}

void replace_file(const std::string &path, std::span<const unsigned char> content) {
    const std::string target = end_of_links(path);
    const std::optional<struct stat> old = status_of(target);
    if (old && !S_ISREG(old->st_mode))
        throw Failure(cannot_do_it, path + ": not a plain file");
    FileBeside file(target);
    write_all(file.descriptor(), content, path);
    if (old) // before the mode: a change of the owner clears set-id bits
        static_cast<void>(fchown(file.descriptor(), old->st_uid, old->st_gid) == 0);
    if (fchmod(file.descriptor(), old ? old->st_mode & 07777 : mode_of_new_files()) != 0)
        fail(path);
    file.take_place();
    sync_folder_of(target);
}

} // namespace corvel::tools
