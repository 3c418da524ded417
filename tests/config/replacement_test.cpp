/* SPDX-License-Identifier: MIT */
/** The copy that replaces a configuration file, which both functions that save the file write. */
#include <corvel.h>

#include "tests/config/writers.h"
#include "tests/support/child_process.h"
#include "tests/support/kill_points.h"
#include "tests/support/next_definition.h"
#include "tests/support/stand_in.h"
#include "tests/support/temporary_directory.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/file.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

/** The number of the library's pauses, which are skipped, and their total length. */
static int pauses = 0;
static long milliseconds = 0;
/** The error with which flock() fails, if not 0. */
static int error_of_flock = 0;

extern "C" int nanosleep(const timespec *length, timespec * /*left*/) {
    ++pauses;
    milliseconds += length->tv_nsec / 1'000'000 + static_cast<long>(length->tv_sec) * 1000;
    return 0;
}

extern "C" int flock(int file, int operation) {
    static auto *const next = corvel_test::next_definition<int(int, int)>("flock");
    if (error_of_flock == 0)
        return next(file, operation);
    errno = error_of_flock;
    return -1;
}

namespace {

using namespace corvel_test;
namespace fs = std::filesystem;

/** Owns a descriptor. */
class OpenFile {
  public:
    OpenFile(const std::string &path, int flags) : file_(open(path.c_str(), flags | O_CLOEXEC)) {
        EXPECT_GE(file_, 0) << path;
    }
    ~OpenFile() { close(file_); }
    OpenFile(const OpenFile &) = delete;
    OpenFile &operator=(const OpenFile &) = delete;

    [[nodiscard]] int get() const { return file_; }
    [[nodiscard]] std::string read_all() const {
        std::string text(1000, '\0');
        const ssize_t size = pread(file_, text.data(), text.size(), 0);
        text.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
        return text;
    }

  private:
    int file_;
};

/** Runs @p body in a child, which is killed if it does not return within 20 seconds. */
template <typename Body> void expect_to_return(Body body) {
    const ChildResult child = run_in_child([&] {
        alarm(20);
        body();
    });
    EXPECT_EQ(child.signal, 0);
    EXPECT_EQ(child.exit_status, 0);
}

/** The owner of a copy that exists before a save, and whether it has a second name. */
struct LeftCopy {
    uid_t owner;
    bool linked;
};

constexpr std::array left_copies = {LeftCopy{0, false}, LeftCopy{0, true}, LeftCopy{1234, false},
                                    LeftCopy{1234, true}};

void leave_copy(const TemporaryDirectory &directory, const LeftCopy &copy) {
    directory.write("conf.cgi", "A=all the settings\n");
    if (geteuid() == 0) {
        ASSERT_EQ(chown(directory.path("conf.cgi").c_str(), copy.owner, copy.owner), 0);
    }
    if (copy.linked) {
        ASSERT_EQ(link(directory.path("conf.cgi").c_str(), directory.path("other").c_str()), 0);
    }
}

/** A copy with both locks of a writer that is at work on it. */
class HeldCopy {
  public:
    explicit HeldCopy(const TemporaryDirectory &directory) : file_(made_at(directory), O_RDWR) {
        struct flock all {};
        all.l_type = F_WRLCK;
        EXPECT_EQ(fcntl(file_.get(), F_OFD_SETLK, &all), 0);
        EXPECT_EQ(flock(file_.get(), LOCK_EX), 0);
    }

  private:
    static std::string made_at(const TemporaryDirectory &directory) {
        directory.write("conf.cgi", "another's");
        return directory.path("conf.cgi");
    }

    OpenFile file_;
};

/** An access control list of a file, or the default one of a directory for its new files. */
class AccessList {
  public:
    AccessList &add(std::uint16_t tag, std::uint16_t permissions, std::uint32_t id = 0xFFFFFFFF) {
        put(tag, 2);
        put(permissions, 2);
        put(id, 4);
        return *this;
    }
    [[nodiscard]] bool set(const std::string &path, const char *name) const {
        return setxattr(path.c_str(), name, bytes_.data(), bytes_.size(), 0) == 0;
    }

    static constexpr std::uint16_t owner = 1, user = 2, group = 4, mask = 16, others = 32;

  private:
    /** The kernel reads little-endian numbers on every processor. */
    void put(std::uint32_t value, int size) {
        for (int i = 0; i < size; ++i)
            bytes_.push_back(static_cast<unsigned char>(value >> (8 * i)));
    }

    std::vector<unsigned char> bytes_{2, 0, 0, 0};
};

INSTANTIATE_TEST_SUITE_P(save_prop, BothWriters, testing::Values(save_prop_writer), name_of_writer);
INSTANTIATE_TEST_SUITE_P(save_global_conf, BothWriters, testing::Values(save_global_conf_writer),
                         name_of_writer);

TEST_P(BothWriters, ReplacesACopyLeftByADeadWriter) {
    directory_.write("conf", "A=1\n");
    directory_.write("conf.cgi", std::string(100000, 'v'));
    save();
    EXPECT_EQ(directory_.read("conf"), "A=\"x\"\n");
    EXPECT_EQ(directory_.names(), with_lock_file({"conf"}));
}

TEST_P(BothWriters, KeepsACopyThatMayBeTheOnlyOne) {
    for (const LeftCopy &copy : left_copies) {
        leave_copy(directory_, copy);
        for (int i = 0; i < 2; ++i) {
            save();
            save_without_lock();
        }
        EXPECT_EQ(directory_.read("conf.cgi"), "A=all the settings\n");
        EXPECT_FALSE(directory_.exists("conf"));
        directory_.remove("conf.cgi");
        directory_.remove("other");
    }
}

TEST_P(BothWriters, KeepsTheSettingsOfAnyOwnerIfKilledAtAnySystemCallAndAfterTheNextSave) {
    for (const uid_t owner : {uid_t{0}, uid_t{1234}}) {
        unsigned long copy_alone = 0;
        for_each_kill_point(
            [&] {
                remove_files(directory_);
                directory_.write("conf", "A=1\nB=1\n");
                if (geteuid() == 0) {
                    ASSERT_EQ(chown(path().c_str(), owner, owner), 0);
                }
            },
            [&] { save(); },
            [&](unsigned long n) {
                const bool alone = !directory_.exists("conf");
                copy_alone += alone ? 1U : 0U;
                for (const Writer &next : {save_prop_writer, save_global_conf_writer})
                    next.set(path(), "A", "x");
                EXPECT_EQ(directory_.read(alone ? "conf.cgi" : "conf"), "A=\"x\"\nB=1\n") << n;
            });
        EXPECT_EQ(copy_alone, 1U);
    }
}

TEST_P(BothWriters, WritesNothingToAnExistingFileAtTheCopysName) {
    for (const LeftCopy &copy : left_copies) {
        directory_.write("conf", "A=1\n");
        leave_copy(directory_, copy);
        const OpenFile left(directory_.path("conf.cgi"), O_RDWR);
        save();
        EXPECT_EQ(directory_.read("conf"), "A=\"x\"\n");
        EXPECT_EQ(left.read_all(), "A=all the settings\n");
        EXPECT_EQ(pwrite(left.get(), "B=EVIL", 6, 0), 6);
        EXPECT_EQ(directory_.read("conf"), "A=\"x\"\n");
        directory_.remove("other");
    }
}

TEST_P(BothWriters, WritesNothingThroughASymbolicLinkAtTheCopysName) {
    directory_.write("conf", "A=1\n");
    directory_.write("precious", "text");
    fs::create_symlink(directory_.path("precious"), directory_.path("conf.cgi"));
    save();
    EXPECT_EQ(directory_.read("precious"), "text");
    EXPECT_EQ(directory_.read("conf"), "A=\"x\"\n");
    EXPECT_EQ(directory_.names(), with_lock_file({"conf", "precious"}).size() == 3
                                      ? (Names{"conf", "conf.lck", "precious"})
                                      : (Names{"conf", "precious"}));
}

TEST_P(BothWriters, WritesNothingToAFifoAtTheCopysName) {
    directory_.write("conf", "A=1\n");
    ASSERT_EQ(mkfifo(directory_.path("conf.cgi").c_str(), 0600), 0);
    const OpenFile reader(directory_.path("conf.cgi"), O_RDONLY | O_NONBLOCK);
    expect_to_return([&] { save(); });
    EXPECT_EQ(directory_.read("conf"), "A=\"x\"\n");
    char byte = 0;
    EXPECT_EQ(read(reader.get(), &byte, 1), 0);
}

TEST_P(BothWriters, DoesNotWaitForAFifoAtTheCopysName) {
    directory_.write("conf", "A=1\n");
    ASSERT_EQ(mkfifo(directory_.path("conf.cgi").c_str(), 0600), 0);
    pauses = 0;
    expect_in_child([&] {
        alarm(20);
        save();
        EXPECT_EQ(pauses, 0);
    });
    EXPECT_EQ(directory_.read("conf"), "A=\"x\"\n");
}

TEST_P(BothWriters, LeavesTheFileUnchangedIfAnOldCopyCannotBeRemoved) {
    directory_.write("conf", "A=1\n");
    directory_.write("conf.cgi", "left");
    const FailCall not_removed(call_unlink, 1, EPERM, FailCall::from_then_on);
    save();
    EXPECT_EQ(directory_.read("conf"), "A=1\n");
    EXPECT_EQ(directory_.read("conf.cgi"), "left");
}

TEST_P(BothWriters, SavesEvenIfACopyLeftByADeadWriterIsLocked) {
    for (const int kind : {LOCK_SH, LOCK_EX}) {
        directory_.write("conf", "A=1\n");
        directory_.write("conf.cgi", "left");
        const OpenFile left(directory_.path("conf.cgi"), O_RDONLY);
        ASSERT_EQ(flock(left.get(), kind), 0);
        expect_to_return([&] { save(); });
        EXPECT_EQ(directory_.read("conf"), "A=\"x\"\n");
        EXPECT_FALSE(directory_.exists("conf.cgi"));
    }
}

TEST_P(BothWriters, WaitsHalfASecondForAWriterWithoutTheLockFileAndThenSavesNothing) {
    directory_.write("conf", "A=1\n");
    const HeldCopy copy(directory_);
    pauses = 0;
    milliseconds = 0;
    save();
    EXPECT_EQ(directory_.read("conf"), "A=1\n");
    EXPECT_EQ(directory_.read("conf.cgi"), "another's");
    EXPECT_EQ(milliseconds, 500);
}

TEST_P(BothWriters, DoesNotWaitForAWriterIfTheLockFileCannotBeOpened) {
    directory_.write("conf", "A=1\n");
    const HeldCopy copy(directory_);
    pauses = 0;
    save_without_lock();
    EXPECT_EQ(directory_.read("conf"), "A=1\n");
    EXPECT_EQ(directory_.read("conf.cgi"), "another's");
    EXPECT_EQ(pauses, 0);
}

TEST_P(BothWriters, ReplacesACopyLockedByAStranger) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can create a file of another user";
    directory_.write("conf", "A=1\n");
    const HeldCopy copy(directory_);
    ASSERT_EQ(chown(directory_.path("conf.cgi").c_str(), 3456, 3456), 0);
    save();
    EXPECT_EQ(directory_.read("conf"), "A=\"x\"\n");
}

TEST_P(BothWriters, SavesOnAFileSystemWithoutLocks) {
    for (const int error : {ENOLCK, EOPNOTSUPP, EINVAL}) {
        directory_.write("conf", "A=1\n");
        error_of_flock = error;
        pauses = 0;
        save();
        EXPECT_EQ(directory_.read("conf"), "A=\"x\"\n");
        EXPECT_EQ(pauses, 0);
        directory_.write("conf.cgi", "left");
        save();
        error_of_flock = 0;
        EXPECT_FALSE(directory_.exists("conf.cgi"));
    }
}

TEST_P(BothWriters, KeepsACopyThatBecomesTheOnlyOneIfPausedAtAnySystemCall) {
    for (const bool locked : {true, false}) {
        unsigned long alone = 0;
        for_each_pause_point(
            [&] {
                remove_files(directory_);
                directory_.write("conf", "A=1\nB=1\n");
                directory_.write("conf.cgi", "left\n");
            },
            [&] { locked ? save() : save_without_lock(); },
            [&] {
                // Leaves the state of another writer that respected the lock of a copy and died
                // between the removal of the file and the renaming.
                const int left = open(directory_.path("conf.cgi").c_str(), O_RDONLY | O_CLOEXEC);
                if (directory_.exists("conf") && (left < 0 || flock(left, LOCK_EX | LOCK_NB) == 0))
                    fs::rename(path(), directory_.path("conf.cgi"));
                close(left);
            },
            AfterPause::go_on,
            [&](unsigned long n) {
                alone += directory_.exists("conf") ? 0U : 1U;
                const std::string text =
                    directory_.read(directory_.exists("conf") ? "conf" : "conf.cgi");
                EXPECT_NE(text.find("B=1\n"), std::string::npos) << n << "\n" << text;
            });
        EXPECT_GE(alone, 5U);
    }
}

TEST_P(BothWriters, LeavesTheFileUnchangedIfTheModeCannotBeKept) {
    directory_.write("conf", "A=1\n");
    const FailCall refused(call_fchmod, 1, EPERM);
    save();
    EXPECT_EQ(refused.failures(), 1U);
    EXPECT_EQ(directory_.read("conf"), "A=1\n");
    EXPECT_FALSE(directory_.exists("conf.cgi"));
}

TEST_P(BothWriters, KeepsALockedCopyIfTheLockFileCannotBeOpened) {
    for (const int kind : {LOCK_SH, LOCK_EX}) {
        directory_.write("conf", "A=1\n");
        directory_.write("conf.cgi", "left");
        const OpenFile left(directory_.path("conf.cgi"), O_RDONLY);
        ASSERT_EQ(flock(left.get(), kind), 0);
        expect_to_return([&] { save_without_lock(); });
        EXPECT_EQ(directory_.read("conf"), "A=1\n");
        EXPECT_EQ(directory_.read("conf.cgi"), "left");
    }
}

TEST_P(BothWriters, KeepsASymbolicLinkAtTheCopysNameIfTheLockFileCannotBeOpened) {
    directory_.write("conf", "A=1\n");
    fs::create_symlink("nowhere", directory_.path("conf.cgi"));
    save_without_lock();
    EXPECT_EQ(directory_.read("conf"), "A=1\n");
    EXPECT_TRUE(fs::is_symlink(directory_.path("conf.cgi")));
}

TEST_P(BothWriters, ReplacesACopyLeftByADeadWriterEvenIfTheLockFileCannotBeOpened) {
    directory_.write("conf", "A=1\n");
    directory_.write("conf.cgi", "left");
    save_without_lock();
    EXPECT_EQ(directory_.read("conf"), "A=\"x\"\n");
    EXPECT_FALSE(directory_.exists("conf.cgi"));
}

TEST_P(BothWriters, CreatesNoCopyOfAFileThatCannotBeRead) {
    for_each_kill_point([&] { directory_.remove("conf.lck"); }, [&] { save(); },
                        [&](unsigned long n) {
                            for (const std::string &name : directory_.names())
                                EXPECT_EQ(name, "conf.lck") << n;
                        });
}

TEST_P(BothWriters, TreatsAFifoOrADeviceAsAFileThatCannotBeRead) {
    ASSERT_EQ(mkfifo(path().c_str(), 0600), 0);
    expect_to_return([&] { save(); });
    EXPECT_TRUE(fs::is_fifo(path()));
    EXPECT_EQ(directory_.names(), with_lock_file({"conf"}));
    directory_.remove("conf");
    fs::create_symlink("/dev/zero", path());
    expect_to_return([&] { save(); });
    EXPECT_TRUE(fs::is_symlink(path()));
    EXPECT_EQ(directory_.names(), with_lock_file({"conf"}));
}

TEST_P(BothWriters, ReplacesASymbolicLinkByAFile) {
    directory_.write("target", "A=1\n");
    fs::create_symlink("target", path());
    save();
    EXPECT_EQ(directory_.read("target"), "A=1\n");
    EXPECT_FALSE(fs::is_symlink(path()));
    EXPECT_EQ(directory_.read("conf"), "A=\"x\"\n");
}

TEST_P(BothWriters, ReturnsIfNewFilesBelongToAnotherUser) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can create files for another user";
    directory_.write("conf", "A=1\n");
    ASSERT_EQ(chmod(path().c_str(), 0666), 0);
    ASSERT_EQ(chmod(directory_.path().c_str(), 0777), 0);
    expect_to_return([&] {
        setfsuid(1234);
        save();
    });
    EXPECT_EQ(directory_.read("conf"), "A=\"x\"\n");
}

TEST_P(BothWriters, GivesOthersNoAccessToTheCopyBeforeItIsWhole) {
    for (const mode_t mode : {0600U, 0666U}) {
        for_each_kill_point(
            [&] {
                directory_.write("conf", "A=1\n" + std::string(9000, '\n'));
                ASSERT_EQ(chmod(path().c_str(), mode), 0);
                directory_.write("conf.cgi", "left");
                ASSERT_EQ(chmod(directory_.path("conf.cgi").c_str(), 0666), 0);
            },
            [&] {
                umask(0);
                save();
            },
            [&](unsigned long n) {
                if (!directory_.exists("conf.cgi") || directory_.read("conf.cgi") == "left")
                    return;
                const bool whole = status("conf.cgi").st_size == 9006;
                EXPECT_EQ(status("conf.cgi").st_mode & 0077U & ~(whole ? mode : 0), 0U) << n;
            });
    }
}

TEST_P(BothWriters, ChangesNothingOnceTheCopyIsReplaced) {
    unsigned long unchanged = 0;
    for_each_pause_point([&] { directory_.write("conf", "A=1\n"); }, [&] { save(); },
                         [&] {
                             if (!directory_.exists("conf.cgi"))
                                 return;
                             directory_.remove("conf.cgi");
                             directory_.write("conf.cgi", "another's");
                         },
                         AfterPause::go_on,
                         [&](unsigned long n) {
                             const std::string text = directory_.read("conf");
                             const bool alone = text == "A=1\n" && directory_.exists("conf.cgi");
                             unchanged += alone ? 1U : 0U;
                             // After the check, the copy's name is not checked again.
                             EXPECT_TRUE(alone || text == "A=\"x\"\n" || text == "another's")
                                 << n << "\n"
                                 << text;
                             directory_.remove("conf.cgi");
                         });
    EXPECT_GE(unchanged, 5U);
}

TEST_P(BothWriters, DoesNotGiveTheGroupTheMaskOfAnAccessControlList) {
    directory_.write("conf", "A=1\n");
    ASSERT_EQ(chmod(path().c_str(), 0600), 0);
    if (!AccessList()
             .add(AccessList::owner, 6)
             .add(AccessList::user, 6, 1234)
             .add(AccessList::group, 0)
             .add(AccessList::mask, 6)
             .add(AccessList::others, 0)
             .set(path(), "system.posix_acl_access"))
        GTEST_SKIP() << "no access control lists on this file system";
    ASSERT_EQ(mode(), 0660U);
    save();
    EXPECT_EQ(directory_.read("conf"), "A=\"x\"\n");
    EXPECT_EQ(mode(), 0600U);
}

TEST_P(BothWriters, DoesNotApplyTheDefaultAccessControlListOfTheDirectory) {
    directory_.write("conf", "A=1\n");
    ASSERT_EQ(chmod(path().c_str(), 0660), 0);
    if (!AccessList()
             .add(AccessList::owner, 7)
             .add(AccessList::user, 7, 1234)
             .add(AccessList::group, 7)
             .add(AccessList::mask, 7)
             .add(AccessList::others, 0)
             .set(directory_.path(), "system.posix_acl_default"))
        GTEST_SKIP() << "no access control lists on this file system";
    save();
    EXPECT_EQ(directory_.read("conf"), "A=\"x\"\n");
    EXPECT_EQ(mode(), 0660U);
    EXPECT_LT(getxattr(path().c_str(), "system.posix_acl_access", nullptr, 0), 0);
    EXPECT_EQ(errno, ENODATA);
}

} // namespace
