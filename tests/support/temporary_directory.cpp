/* SPDX-License-Identifier: MIT */
#include "tests/support/temporary_directory.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <system_error>

namespace corvel_test {

namespace {

[[noreturn]] void fail(const std::string &what) {
    throw std::system_error(errno, std::generic_category(), what);
}

} // namespace

void write_file(const std::string &path, std::string_view text) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(text.data(), static_cast<std::streamsize>(text.size()));
    file.close();
    if (!file)
        fail("cannot write " + path);
}

std::string read_file(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    if (!file)
        fail("cannot read " + path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

TemporaryDirectory::TemporaryDirectory()
    : path_((std::filesystem::temp_directory_path() / "corvel-test-XXXXXX").string()) {
    if (mkdtemp(path_.data()) == nullptr)
        fail("cannot create " + path_);
    // Tests that drop root privileges use the directory too.
    if (chmod(path_.c_str(), 0777) != 0)
        fail("cannot change the mode of " + path_);
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string TemporaryDirectory::path(std::string_view name) const {
    return path_ + '/' + std::string(name);
}

void TemporaryDirectory::write(std::string_view name, std::string_view text) const {
    write_file(path(name), text);
}

std::string TemporaryDirectory::read(std::string_view name) const { return read_file(path(name)); }

bool TemporaryDirectory::exists(std::string_view name) const {
    return std::filesystem::exists(std::filesystem::symlink_status(path(name)));
}

void TemporaryDirectory::remove(std::string_view name) const {
    std::filesystem::remove_all(path(name));
}

std::vector<std::string> TemporaryDirectory::names() const {
    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(path_))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

} // namespace corvel_test
