/* SPDX-License-Identifier: MIT */
/** save_prop() and save_global_conf(), for tests of their common contract. */
#ifndef CORVEL_TESTS_WRITERS_H
#define CORVEL_TESTS_WRITERS_H

#include <corvel.h>

#include "tests/support/stand_in.h"
#include "tests/support/temporary_directory.h"

#include <cerrno>
#include <cstddef>
#include <gtest/gtest.h>
#include <ostream>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace corvel_test {

using Names = std::vector<std::string>;

/** One of the two functions. */
struct Writer {
    std::string name;
    /** Sets the line of a name to a value in quotes. */
    void (*set)(const std::string &path, const std::string &name, const std::string &value);
    /** The length of the longest path whose companion names fit their buffers. */
    std::size_t longest_path;
    bool keeps_lock_file;
};

inline void PrintTo(const Writer &writer, std::ostream *out) { *out << writer.name; }

inline void set_with_save_prop(const std::string &path, const std::string &name,
                               const std::string &value) {
    std::string own_name = name;
    std::string own_value = value;
    const prop_entry row = {2, CORVEL_PROP_VALUE_SIZE, own_name.data(), own_value.data()};
    EXPECT_EQ(save_prop('=', path.c_str(), &row, 1), 1);
}

inline void set_with_save_global_conf(const std::string &path, const std::string &name,
                                      const std::string &value) {
    EXPECT_EQ(save_global_conf('=', path.c_str(), "", name.c_str(), value.c_str()), 1);
}

inline const Writer save_prop_writer = {"save_prop", set_with_save_prop,
                                        CORVEL_PATH_SIZE - sizeof ".cgi", true};
inline const Writer save_global_conf_writer = {"save_global_conf", set_with_save_global_conf,
                                               CORVEL_GLOBAL_CONF_COPY_SIZE - sizeof ".cgi", false};

/** Sets a name with the first open() failing: the lock file cannot be opened. */
inline void set_without_lock(const Writer &writer, const std::string &path, const std::string &name,
                             const std::string &value) {
    const FailCall lock_file(call_open, 1, EMFILE);
    writer.set(path, name, value);
}

/** Tests of each function, which sets A to "x" in the file "conf" of a directory. */
class BothWriters : public testing::TestWithParam<Writer> {
  protected:
    void save() const { GetParam().set(path(), "A", "x"); }
    void save_without_lock() const { set_without_lock(GetParam(), path(), "A", "x"); }
    [[nodiscard]] std::string path() const { return directory_.path("conf"); }
    /** The names in the directory after a save: @p names and, if the function keeps it, the lock
     * file. */
    [[nodiscard]] static Names with_lock_file(Names names) {
        if (GetParam().keeps_lock_file)
            names.emplace_back("conf.lck");
        return names;
    }
    [[nodiscard]] struct stat status(const char *name) const {
        struct stat status {};
        EXPECT_EQ(lstat(directory_.path(name).c_str(), &status), 0) << name;
        return status;
    }
    [[nodiscard]] mode_t mode() const { return status("conf").st_mode & 07777U; }

    TemporaryDirectory directory_;
};

/** Removes every file of a directory. */
inline void remove_files(const TemporaryDirectory &directory) {
    for (const std::string &name : directory.names())
        directory.remove(name);
}

inline std::string name_of_writer(const testing::TestParamInfo<Writer> &writer) {
    return writer.param.name;
}

} // namespace corvel_test

#endif
