/* SPDX-License-Identifier: MIT */
#include "page/record_file.h"

#include "tests/support/temporary_directory.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>

namespace corvel_test {
namespace {

namespace fs = std::filesystem;
using corvel::RecordFile;

TEST(RecordFile, CreatesAPrivateFileOnRequestOnly) {
    const TemporaryDirectory directory;
    const std::string path = directory.path("record");
    EXPECT_FALSE(RecordFile(path.c_str(), O_RDWR));
    const mode_t mask = umask(0);
    EXPECT_TRUE(RecordFile(path.c_str(), O_RDWR | O_CREAT));
    umask(mask);
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, S_IFREG | 0600U);
}

TEST(RecordFile, RefusesWhatOthersCanOpen) {
    const TemporaryDirectory directory;
    const std::string path = directory.path("record");
    EXPECT_TRUE(RecordFile(path.c_str(), O_RDWR | O_CREAT));
    for (const mode_t mode : {0604U, 0602U, 0640U, 0620U, 0666U}) {
        ASSERT_EQ(chmod(path.c_str(), mode), 0);
        EXPECT_FALSE(RecordFile(path.c_str(), O_RDWR)) << std::oct << mode;
    }
    ASSERT_EQ(chmod(path.c_str(), 0600), 0);
    EXPECT_TRUE(RecordFile(path.c_str(), O_RDWR));
    fs::create_hard_link(path, directory.path("second"));
    EXPECT_FALSE(RecordFile(path.c_str(), O_RDWR));
}

TEST(RecordFile, RefusesLinksAndWhatIsNoRegularFile) {
    const TemporaryDirectory directory;
    const std::string path = directory.path("record");
    EXPECT_TRUE(RecordFile(path.c_str(), O_RDWR | O_CREAT));
    fs::create_symlink(path, directory.path("link"));
    EXPECT_FALSE(RecordFile(directory.path("link").c_str(), O_RDWR));
    ASSERT_EQ(mkfifo(directory.path("fifo").c_str(), 0600), 0);
    EXPECT_FALSE(RecordFile(directory.path("fifo").c_str(), O_RDWR));
    EXPECT_FALSE(RecordFile(directory.path().c_str(), O_RDONLY));
}

TEST(RecordFile, LocksSingleBytes) {
    const TemporaryDirectory directory;
    const std::string path = directory.path("record");
    const RecordFile one(path.c_str(), O_RDWR | O_CREAT);
    const RecordFile other(path.c_str(), O_RDWR);
    ASSERT_TRUE(one.lock(5));
    EXPECT_TRUE(one.lock(5));
    EXPECT_FALSE(one.is_locked(5));
    EXPECT_TRUE(other.is_locked(5));
    EXPECT_FALSE(other.lock(5));
    EXPECT_FALSE(other.is_locked(4));
    EXPECT_TRUE(other.lock(6));
    one.unlock(5);
    EXPECT_TRUE(other.lock(5));
}

TEST(RecordFile, ReadsAndWritesWholeBlocks) {
    const TemporaryDirectory directory;
    const RecordFile file(directory.path("record").c_str(), O_RDWR | O_CREAT);
    EXPECT_TRUE(file.write(2, "record", 6));
    std::string block(6, 'x');
    EXPECT_TRUE(file.read(2, block.data(), 6));
    EXPECT_EQ(block, "record");
    EXPECT_FALSE(file.read(3, block.data(), 6));
    const RecordFile missing(directory.path("missing").c_str(), O_RDWR);
    EXPECT_FALSE(missing.read(0, block.data(), 1));
    EXPECT_FALSE(missing.write(0, "x", 1));
    EXPECT_FALSE(missing.lock(0));
    EXPECT_FALSE(missing.is_locked(0));
}

} // namespace
} // namespace corvel_test
