/* SPDX-License-Identifier: MIT */
/**
 * A directory for one test, removed with its contents by the destructor.
 *
 *     TemporaryDirectory directory;
 *     directory.write("lan.conf", "IP=\"10.0.0.1\"\n");
 *     save_prop('=', directory.path("lan.conf").c_str(), table, count);
 *     EXPECT_EQ(directory.read("lan.conf"), "IP=\"10.0.0.2\"\n");
 */
#ifndef CORVEL_TESTS_TEMPORARY_DIRECTORY_H
#define CORVEL_TESTS_TEMPORARY_DIRECTORY_H

#include <string>
#include <string_view>
#include <vector>

namespace corvel_test {

/** Writes a whole file at any path; throws on failure. */
void write_file(const std::string &path, std::string_view text);

/** Reads a whole file; throws on failure. */
[[nodiscard]] std::string read_file(const std::string &path);

class TemporaryDirectory {
  public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory &) = delete;
    TemporaryDirectory &operator=(const TemporaryDirectory &) = delete;

    [[nodiscard]] const std::string &path() const { return path_; }
    [[nodiscard]] std::string path(std::string_view name) const;
    void write(std::string_view name, std::string_view text) const;
    [[nodiscard]] std::string read(std::string_view name) const;
    [[nodiscard]] bool exists(std::string_view name) const;
    void remove(std::string_view name) const;
    /** The names in the directory, sorted. */
    [[nodiscard]] std::vector<std::string> names() const;

  private:
    std::string path_;
};

} // namespace corvel_test

#endif
