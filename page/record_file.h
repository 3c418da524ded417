// SPDX-License-Identifier: MIT
#ifndef CORVEL_PAGE_RECORD_FILE_H
#define CORVEL_PAGE_RECORD_FILE_H

#include <cstddef>
#include <cstdint>

#include "support/descriptor.h"

namespace corvel {

/// A small file of records that several processes of a site use, with locks on single bytes of it.
/// The locks belong to the open file: a process shares them with those that it forks, and the
/// kernel releases them when the last one ends.
class RecordFile {
  public:
    /// Opens the file, or creates it if @p flags contain O_CREAT. An existing file is used only if
    /// it belongs to this process's user and nobody else can open it: anybody who can may lock it.
    RecordFile(const char *path, int flags);
    explicit operator bool() const { return static_cast<bool>(file_); }

    /// Whether the lock was free.
    [[nodiscard]] bool lock(std::uint32_t byte) const { return set_lock(byte, F_WRLCK); }
    void unlock(std::uint32_t byte) const { set_lock(byte, F_UNLCK); }
    /// Whether another opening of the file has the lock.
    [[nodiscard]] bool is_locked(std::uint32_t byte) const;

    /// False if not all bytes could be read or written.
    [[nodiscard]] bool read(std::uint32_t at, void *block, std::size_t size) const;
    [[nodiscard]] bool write(std::uint32_t at, const void *block, std::size_t size) const;
    /// The open file.
    [[nodiscard]] int get() const { return file_.get(); }

  private:
    bool set_lock(std::uint32_t byte, short type) const;

    Descriptor file_;
};

} // namespace corvel

#endif
