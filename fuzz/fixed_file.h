/* SPDX-License-Identifier: MIT */
/** A stand-in of open() for the paths that are fixed in the library. */
#ifndef CORVEL_FUZZ_FIXED_FILE_H
#define CORVEL_FUZZ_FIXED_FILE_H

#include "fuzz/harness.h"

#include <string>
#include <string_view>

namespace corvel_fuzz {

/** What open() hands out for a path while the object lives: a file in memory, or none. The
 *  machine's own file at that path is never opened. */
class FixedFile {
  public:
    explicit FixedFile(std::string path);
    FixedFile(const FixedFile &) = delete;
    FixedFile &operator=(const FixedFile &) = delete;
    ~FixedFile();

    /** The file is there and holds these bytes. */
    void fill(std::string_view bytes);

    /** The file can't be opened. */
    void remove() { is_there_ = false; }

    bool is_there() const { return is_there_; }
    std::string_view path() const { return path_; }
    const char *memory() const { return file_.path(); }

  private:
    std::string path_;
    bool is_there_ = false;
    MemoryFile file_;
};

} // namespace corvel_fuzz

#endif
