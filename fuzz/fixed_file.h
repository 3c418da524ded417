/* SPDX-License-Identifier: MIT */
/** A replacement for open(), for files whose paths are fixed in the library. */
#ifndef CORVEL_FUZZ_FIXED_FILE_H
#define CORVEL_FUZZ_FIXED_FILE_H

#include "fuzz/harness.h"

#include <string>
#include <string_view>

namespace corvel_fuzz {

/** Replaces the file at a path during its lifetime: open() returns a file in memory, or fails. The
 *  machine's own file at that path is never opened. */
class FixedFile {
  public:
    explicit FixedFile(std::string path);
    FixedFile(const FixedFile &) = delete;
    FixedFile &operator=(const FixedFile &) = delete;
    ~FixedFile();

    /** Makes the file exist with these bytes. */
    void fill(std::string_view bytes);

    /** Makes opening the file fail. */
    void remove() { exists_ = false; }

    bool exists() const { return exists_; }
    std::string_view path() const { return path_; }
    const char *memory() const { return file_.path(); }

  private:
    std::string path_;
    bool exists_ = false;
    MemoryFile file_;
};

} // namespace corvel_fuzz

#endif
