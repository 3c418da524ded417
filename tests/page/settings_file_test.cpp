/* SPDX-License-Identifier: MIT */
/** Saving settings files, alone and next to the library's own writers. */
#include "tests/page/settings_device.h"
#include "tests/page/settings_helpers.h"

#include "tests/config/writers.h"
#include "tests/support/child_process.h"
#include "tests/support/descriptors.h"
#include "tests/support/kill_points.h"
#include "tests/support/next_definition.h"
#include "tests/support/private_root.h"
#include "tests/support/stand_in.h"
#include "tests/support/temporary_directory.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using namespace corvel_test;
namespace fs = std::filesystem;

class corvel_settings_save : public SettingsTest {
  protected:
    void write(std::string_view content) const { directory_.write("conf", content); }
};

const Names all_names = {"conf", "conf.kept", "conf.lck"};

TEST_F(corvel_settings_save, ReplacesTheFileAndItsKeptVersion) {
    write("A=1\n");
    const DescriptorWatch watch;
    EXPECT_EQ(set_with_kit(path(), "A", "x"), CORVEL_SETTINGS_SAVED);
    EXPECT_EQ(content(), "A=\"x\"\n");
    EXPECT_EQ(directory_.read("conf.kept"), "A=\"x\"\n");
    EXPECT_EQ(directory_.names(), all_names);
    EXPECT_NE(status("conf").st_ino, status("conf.kept").st_ino);
}

TEST_F(corvel_settings_save, WritesNothingIfNothingChanged) {
    write("A=1\n");
    const ino_t inode = status("conf").st_ino;
    {
        const Settings settings(path());
        EXPECT_EQ(settings.save(), CORVEL_SETTINGS_UNCHANGED);
        EXPECT_EQ(settings.set("A", "2"), "");
        EXPECT_EQ(settings.set("A", "1"), "");
        // A=1 has become A="1".
        EXPECT_EQ(settings.save(), CORVEL_SETTINGS_SAVED);
        EXPECT_EQ(settings.set("A", "2"), "");
        EXPECT_EQ(settings.set("A", "1"), "");
        EXPECT_EQ(settings.save(), CORVEL_SETTINGS_UNCHANGED);
    }
    EXPECT_NE(status("conf").st_ino, inode);
    EXPECT_EQ(::corvel_settings_save(nullptr, 3), CORVEL_SETTINGS_UNCHANGED);
}

TEST_F(corvel_settings_save, FlushesTheFilesBeforeTheRenamesAndTheDirectoryAfterEach) {
    write("A=1\n");
    std::vector<std::string> flushed;
    const Instead record(instead_of_fsync, [&](int file) {
        const std::string name = fs::read_symlink("/proc/self/fd/" + std::to_string(file));
        flushed.push_back(name == directory_.path() ? "directory" : fs::path(name).filename());
        flushed.back() += " " + std::to_string(fs::file_size(path())) +
                          (directory_.exists("conf.kept") ? " kept" : "");
        return 0;
    });
    EXPECT_EQ(set_with_kit(path(), "A", "x"), CORVEL_SETTINGS_SAVED);
    EXPECT_EQ(flushed, (Names{"conf.cgi 4", "conf.kept~ 4", "directory 6", "directory 6 kept"}));
}

TEST_F(corvel_settings_save, CanBeRepeated) {
    write("A=1\n");
    const DescriptorWatch watch;
    const Settings settings(path());
    for (const std::string value : {"2", "3", "4"}) {
        EXPECT_EQ(settings.set("A", value), "");
        EXPECT_EQ(settings.save(), CORVEL_SETTINGS_SAVED);
        EXPECT_EQ(content(), "A=\"" + value + "\"\n");
    }
}

TEST_F(corvel_settings_save, FailsIfTheFileWasChanged) {
    for (const Writer &writer : {save_prop_writer, save_global_conf_writer}) {
        write("A=1\nB=1\n");
        const Settings settings(path());
        EXPECT_EQ(settings.set("A", "x"), "");
        writer.set(path(), "B", "2");
        EXPECT_EQ(settings.save(), CORVEL_SETTINGS_OUTDATED);
        EXPECT_EQ(content(), "A=1\nB=\"2\"\n");
        EXPECT_FALSE(directory_.exists("conf.cgi"));
        EXPECT_FALSE(directory_.exists("conf.kept~"));
    }
    // Even if nothing else would be written.
    write("A=1\n");
    const Settings settings(path());
    write("A=2\n");
    EXPECT_EQ(settings.save(), CORVEL_SETTINGS_OUTDATED);
    EXPECT_EQ(set_with_kit(path(), "A", "3"), CORVEL_SETTINGS_SAVED);
}

class corvel_settings_expect : public corvel_settings_save {};

TEST_F(corvel_settings_expect, MakesASaveFailIfTheFormIsOlder) {
    write("A=1\n");
    const std::string version = Settings(path()).version();
    const std::string other(64, '0');
    const std::string longer = version + "0";
    for (const char *const wrong :
         {other.c_str(), static_cast<const char *>(nullptr), "", longer.c_str()}) {
        const Settings settings(path());
        EXPECT_EQ(settings.set("A", "x"), "");
        ::corvel_settings_expect(settings.get(), wrong);
        EXPECT_EQ(settings.save(), CORVEL_SETTINGS_OUTDATED);
        // It stays expected.
        EXPECT_EQ(settings.save(), CORVEL_SETTINGS_OUTDATED);
        EXPECT_EQ(content(), "A=1\n");
    }
    const Settings settings(path());
    EXPECT_EQ(settings.set("A", "x"), "");
    ::corvel_settings_expect(settings.get(), version.c_str());
    EXPECT_EQ(settings.save(), CORVEL_SETTINGS_SAVED);
    EXPECT_EQ(content(), "A=\"x\"\n");
    // Only for the next save.
    EXPECT_EQ(settings.set("A", "y"), "");
    EXPECT_EQ(settings.save(), CORVEL_SETTINGS_SAVED);
    ::corvel_settings_expect(nullptr, version.c_str());
}

TEST_F(corvel_settings_save, KeepsModeOwnerAndGroup) {
    write("A=1\n");
    ASSERT_EQ(chmod(path().c_str(), 0640), 0);
    const uid_t owner = geteuid() == 0 ? 1234 : geteuid();
    if (geteuid() == 0) {
        ASSERT_EQ(chown(path().c_str(), 1234, 2345), 0);
    }
    EXPECT_EQ(set_with_kit(path(), "A", "x"), CORVEL_SETTINGS_SAVED);
    for (const std::string name : {"conf", "conf.kept"}) {
        EXPECT_EQ(status(name).st_mode & 07777U, 0640U);
        EXPECT_EQ(status(name).st_uid, owner);
    }
}

TEST_F(corvel_settings_save, ShowsNoNewVersionToOthersBeforeItIsWhole) {
    const mode_t before = umask(0);
    for_each_kill_point(
        [&] {
            clear();
            write("A=1\n");
            ASSERT_EQ(chmod(path().c_str(), 0600), 0);
        },
        [&] { set_with_kit(path(), "A", "x"); },
        [&](unsigned long n) {
            for (const std::string &name : directory_.names()) {
                EXPECT_EQ(status(name).st_mode & 07777U, 0600U) << n << " " << name;
            }
        });
    umask(before);
}

TEST_F(corvel_settings_save, ReplacesWhatDeadWritersLeft) {
    write("A=1\n");
    directory_.write("conf.cgi", "left");
    directory_.write("conf.kept~", "left");
    EXPECT_EQ(set_with_kit(path(), "A", "x"), CORVEL_SETTINGS_SAVED);
    EXPECT_EQ(directory_.names(), all_names);
}

TEST_F(corvel_settings_save, FollowsNoLinksInThePlaceOfItsFiles) {
    write("A=1\n");
    directory_.write("precious", "text");
    for (const std::string name : {"conf.cgi", "conf.kept", "conf.kept~"})
        fs::create_symlink(path("precious"), path(name));
    EXPECT_EQ(set_with_kit(path(), "A", "x"), CORVEL_SETTINGS_SAVED);
    EXPECT_EQ(content(), "A=\"x\"\n");
    EXPECT_FALSE(fs::is_symlink(path("conf.kept")));
    directory_.remove("conf.lck");
    fs::create_symlink(path("precious"), path("conf.lck"));
    EXPECT_EQ(set_with_kit(path(), "A", "y"), CORVEL_SETTINGS_SAVED);
    EXPECT_EQ(content(), "A=\"y\"\n");
    EXPECT_EQ(directory_.read("precious"), "text");
}

TEST_F(corvel_settings_save, FailsForASettingsFileThatWasNotLoadedAndForAMissingFile) {
    write("A=1\n");
    const Settings settings(path());
    EXPECT_EQ(settings.set("A", "x"), "");
    corvel_settings *const files[] = {settings.get(), nullptr};
    EXPECT_EQ(::corvel_settings_save(files, 2), CORVEL_SETTINGS_UNREADABLE);
    EXPECT_EQ(content(), "A=1\n");
    directory_.remove("conf");
    EXPECT_EQ(settings.save(), CORVEL_SETTINGS_UNREADABLE);
    EXPECT_EQ(directory_.names(), Names{"conf.lck"});
}

TEST_F(corvel_settings_save, TakesTheSameSettingsOnceAndRefusesTwoOfOnePath) {
    write("A=1\n");
    const Settings one(path());
    const Settings other(path());
    EXPECT_EQ(one.set("A", "x"), "");
    corvel_settings *const same[] = {one.get(), one.get()};
    EXPECT_EQ(::corvel_settings_save(same, 2), CORVEL_SETTINGS_SAVED);
    corvel_settings *const two[] = {one.get(), other.get()};
    EXPECT_EQ(::corvel_settings_save(two, 2), CORVEL_SETTINGS_OUTDATED);
    EXPECT_EQ(one.save(), CORVEL_SETTINGS_UNCHANGED);
}

TEST_F(corvel_settings_save, ChangesAllFilesOrNone) {
    directory_.write("a", "A=1\n");
    directory_.write("b", "A=1\n");
    const Settings a(path("a"));
    const Settings b(path("b"));
    EXPECT_EQ(a.set("A", "x"), "");
    EXPECT_EQ(b.set("A", "x"), "");
    corvel_settings *const files[] = {b.get(), a.get()};
    directory_.write("b", "A=2\n");
    EXPECT_EQ(::corvel_settings_save(files, 2), CORVEL_SETTINGS_OUTDATED);
    EXPECT_EQ(directory_.read("a"), "A=1\n");
    directory_.write("b", "A=1\n");
    fs::create_directory(path("b.cgi"));
    EXPECT_EQ(::corvel_settings_save(files, 2), CORVEL_SETTINGS_UNWRITABLE);
    EXPECT_EQ(directory_.read("a"), "A=1\n");
    fs::remove(path("b.cgi"));
    EXPECT_EQ(::corvel_settings_save(files, 2), CORVEL_SETTINGS_SAVED);
    EXPECT_EQ(directory_.read("a") + directory_.read("b"), "A=\"x\"\nA=\"x\"\n");
}

TEST_F(corvel_settings_save, ChecksTheFilesThatItDoesNotChange) {
    directory_.write("a", "A=1\n");
    directory_.write("b", "A=1\n");
    const Settings a(path("a"));
    const Settings b(path("b"));
    EXPECT_EQ(a.set("A", "x"), "");
    directory_.write("b", "A=2\n");
    corvel_settings *const files[] = {a.get(), b.get()};
    EXPECT_EQ(::corvel_settings_save(files, 2), CORVEL_SETTINGS_OUTDATED);
    EXPECT_EQ(directory_.read("a"), "A=1\n");
}

/** Each failure of a function of the C library in turn. */
TEST_F(corvel_settings_save, ReportsEachFailureAndLeavesTheFilesWhole) {
    const auto is_old_or_new = [](const std::string &text) {
        return text == "A=1\nB=1\n" || text == "A=\"x\"\nB=1\n";
    };
    for (const stand_in_call call :
         {call_allocation, call_open, call_fdopen, call_fwrite, call_fflush, call_fclose,
          call_fstat, call_fchmod, call_fchown, call_unlink, call_rename, call_lockf}) {
        for (unsigned long n = 1;; ++n) {
            clear();
            write("A=1\nB=1\n");
            directory_.write("b", "A=1\nB=1\n");
            directory_.write("conf.kept", "A=1\nB=1\n");
            const Settings settings(path());
            const Settings other(path("b"));
            EXPECT_EQ(settings.set("A", "x"), "");
            EXPECT_EQ(other.set("A", "x"), "");
            corvel_settings *const files[] = {settings.get(), other.get()};
            corvel_settings_result result = CORVEL_SETTINGS_SAVED;
            unsigned long failures = 0;
            {
                const DescriptorWatch watch;
                const FailCall failing(call, n, call == call_lockf ? ENOLCK : EIO);
                result = ::corvel_settings_save(files, 2);
                failures = failing.failures();
            }
            const std::string where = std::to_string(call) + " " + std::to_string(n);
            EXPECT_TRUE(is_old_or_new(content())) << where;
            EXPECT_TRUE(is_old_or_new(directory_.read("b"))) << where;
            if (result == CORVEL_SETTINGS_SAVED) {
                EXPECT_EQ(content(), "A=\"x\"\nB=1\n") << where;
                EXPECT_EQ(directory_.read("b"), "A=\"x\"\nB=1\n") << where;
            } else if (call != call_rename && call != call_open) {
                EXPECT_EQ(content(), "A=1\nB=1\n") << where;
            }
            for (const std::string name : {"conf.cgi", "conf.kept~", "b.cgi", "b.kept~"})
                EXPECT_TRUE(!directory_.exists(name) || call == call_unlink) << where << name;
            for (const std::string name : {"conf", "b"})
                EXPECT_GE(corvel_settings_recover(path(name).c_str(), '='), 0) << where;
            if (failures == 0)
                break;
            ASSERT_LT(n, 200U);
        }
    }
}

TEST_F(corvel_settings_save, FailsIfFlushingFails) {
    for (int n = 1; n <= 5; ++n) {
        clear();
        write("A=1\n");
        int calls = 0;
        const Instead failing(instead_of_fsync, [&](int) {
            errno = EIO;
            return ++calls == n ? -1 : 0;
        });
        const corvel_settings_result result = set_with_kit(path(), "A", "x");
        EXPECT_EQ(result, n <= 4 ? CORVEL_SETTINGS_UNWRITABLE : CORVEL_SETTINGS_SAVED);
        EXPECT_EQ(content(), n <= 2 ? "A=1\n" : "A=\"x\"\n");
        EXPECT_FALSE(directory_.exists("conf.cgi"));
        EXPECT_FALSE(directory_.exists("conf.kept~"));
    }
}

TEST_F(corvel_settings_save, SavesWhereTheFileSystemCannotFlush) {
    write("A=1\n");
    const Instead failing(instead_of_fsync, [](int) {
        errno = EINVAL;
        return -1;
    });
    EXPECT_EQ(set_with_kit(path(), "A", "x"), CORVEL_SETTINGS_SAVED);
}

TEST(corvel_settings_save_on_a_full_disk, LeavesTheFileAndNothingElse) {
    in_private_root([] {
        mount_small_disk("/mnt", 64 * 1024);
        const std::string before = "A=1\n" + std::string(20'000, '#') + "\n";
        write_file("/mnt/conf", before);
        // Room for fewer and fewer pages, down to none.
        std::size_t failed = 0;
        for (std::size_t filled = 0; filled <= 10; ++filled) {
            const int fill = open("/mnt/fill", O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
            static_cast<void>(posix_fallocate(fill, 0, static_cast<off_t>((filled + 1) * 4096)));
            close(fill);
            const Settings settings("/mnt/conf");
            EXPECT_EQ(settings.set("A", std::string(1, static_cast<char>('a' + filled))), "");
            const std::string old = read_file("/mnt/conf");
            const corvel_settings_result result = settings.save();
            if (result == CORVEL_SETTINGS_UNWRITABLE) {
                ++failed;
                EXPECT_EQ(read_file("/mnt/conf"), old);
            } else {
                EXPECT_EQ(result, CORVEL_SETTINGS_SAVED);
                EXPECT_NE(read_file("/mnt/conf"), old);
            }
            EXPECT_FALSE(fs::exists("/mnt/conf.cgi"));
            EXPECT_FALSE(fs::exists("/mnt/conf.kept~"));
            EXPECT_GE(corvel_settings_recover("/mnt/conf", '='), CORVEL_SETTINGS_UNWRITABLE);
            EXPECT_EQ(read_file("/mnt/conf").size(), before.size() + 2);
        }
        EXPECT_GE(failed, 3U);
    });
}

// Next to other writers.

/** A lock file that another process has locked. */
class LockedByAnother {
  public:
    explicit LockedByAnother(const std::string &path) {
        int ready[2];
        EXPECT_EQ(pipe(ready), 0);
        child_ = fork();
        if (child_ == 0) {
            alarm(100);
            const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
            char byte = lockf(file, F_LOCK, 0) == 0 ? 1 : 0;
            byte = static_cast<char>(::write(ready[1], &byte, 1));
            for (;;)
                pause();
        }
        char byte = 0;
        EXPECT_EQ(read(ready[0], &byte, 1), 1);
        close(ready[0]);
        close(ready[1]);
    }
    ~LockedByAnother() {
        kill(child_, SIGKILL);
        waitpid(child_, nullptr, 0);
    }
    LockedByAnother(const LockedByAnother &) = delete;
    LockedByAnother &operator=(const LockedByAnother &) = delete;

  private:
    pid_t child_;
};

TEST_F(corvel_settings_save, WaitsFiveSecondsForAnotherWriter) {
    write("A=1\n");
    const LockedByAnother held(path("conf.lck"));
    skip_pauses = true;
    milliseconds = 0;
    EXPECT_EQ(set_with_kit(path(), "A", "x"), CORVEL_SETTINGS_BUSY);
    EXPECT_EQ(milliseconds, 5000);
    skip_pauses = false;
    EXPECT_EQ(content(), "A=1\n");
    EXPECT_EQ(directory_.names(), (Names{"conf", "conf.lck"}));
}

/** What replaces the lock file once it has been opened. */
std::function<void()> replace_lock_file;

TEST_F(corvel_settings_save, WaitsFiveSecondsForTheLockFileThatIsAtTheNameNow) {
    write("A=1\n");
    directory_.write("conf.lck", "");
    const ChildResult child = run_in_child([&] {
        alarm(60);
        std::optional<LockedByAnother> held;
        replace_lock_file = [&] {
            directory_.remove("conf.lck");
            held.emplace(path("conf.lck"));
        };
        stand_in_opened = [](int, const char *opened) {
            if (replace_lock_file && std::string(opened).ends_with("conf.lck"))
                std::exchange(replace_lock_file, nullptr)();
        };
        skip_pauses = true;
        milliseconds = 0;
        const corvel_settings_result result = set_with_kit(path(), "A", "x");
        return result == CORVEL_SETTINGS_BUSY && milliseconds == 5000 ? 0 : 1;
    });
    EXPECT_EQ(child.signal, 0);
    EXPECT_EQ(child.exit_status, 0);
}

TEST_F(corvel_settings_save, DoesNotWaitForAStrangersLockFile) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can have a file of somebody else";
    write("A=1\n");
    directory_.write("conf.lck", "text");
    ASSERT_EQ(chown(path("conf.lck").c_str(), 3456, 3456), 0);
    const LockedByAnother held(path("conf.lck"));
    milliseconds = 0;
    EXPECT_EQ(set_with_kit(path(), "A", "x"), CORVEL_SETTINGS_SAVED);
    EXPECT_EQ(milliseconds, 0);
    EXPECT_EQ(directory_.read("conf.lck"), "text");
}

TEST_F(corvel_settings_save, WaitsHalfASecondForAWriterWithoutTheLockFile) {
    write("A=1\n");
    directory_.write("conf.cgi", "another's");
    const int copy = open(path("conf.cgi").c_str(), O_RDWR | O_CLOEXEC);
    struct flock all {};
    all.l_type = F_WRLCK;
    ASSERT_EQ(fcntl(copy, F_OFD_SETLK, &all), 0);
    ASSERT_EQ(flock(copy, LOCK_EX), 0);
    skip_pauses = true;
    milliseconds = 0;
    EXPECT_EQ(set_with_kit(path(), "A", "x"), CORVEL_SETTINGS_BUSY);
    EXPECT_EQ(milliseconds, 500);
    skip_pauses = false;
    EXPECT_EQ(content(), "A=1\n");
    EXPECT_EQ(directory_.read("conf.cgi"), "another's");
    close(copy);
}

/** Sets a name with the kit, again if another writer was faster; kills itself if it never can. */
void set_patiently(const std::string &path, const std::string &name, const std::string &value) {
    for (int i = 0; i < 100; ++i) {
        const corvel_settings_result result = set_with_kit(path, name, value);
        if (result >= 0)
            return;
        if (result != CORVEL_SETTINGS_OUTDATED && result != CORVEL_SETTINGS_BUSY)
            break;
    }
    abort();
}

/** A writer of the library, with or without access to the lock file. */
struct OldWriter {
    Writer writer;
    bool without_lock;

    void set(const std::string &path, const std::string &name, const std::string &value) const {
        if (without_lock)
            set_without_lock(writer, path, name, value);
        else
            writer.set(path, name, value);
    }
};

const std::vector<OldWriter> old_writers = {{save_prop_writer, false},
                                            {save_global_conf_writer, false},
                                            {save_prop_writer, true},
                                            {save_global_conf_writer, true}};

TEST_F(corvel_settings_save, LosesNoChangeOfAnotherWriterWhereverItIsPaused) {
    for (const OldWriter &old : old_writers) {
        unsigned long saved = 0;
        for_each_pause_point(
            [&] {
                clear();
                write("A=1\nB=1\n");
            },
            [&] { set_patiently(path(), "A", "x"); },
            [&] {
                EXPECT_TRUE(directory_.exists("conf"));
                old.set(path(), "B", "y");
                if (!directory_.exists("conf"))
                    abort();
                directory_.write("result", content());
            },
            AfterPause::go_on,
            [&](unsigned long n) {
                EXPECT_EQ(Settings(path()).value("A"), "x") << n;
                const bool is_saved = Settings(path()).value("B") == "y";
                saved += is_saved ? 1U : 0U;
                // One without the lock file gives up while the kit is at work.
                EXPECT_TRUE(is_saved || old.without_lock) << n;
                EXPECT_FALSE(directory_.exists("conf.cgi")) << n;
            },
            std::chrono::milliseconds(10));
        EXPECT_GE(saved, 10U);
    }
}

TEST_F(corvel_settings_save, SavesNextToAnotherWriterWhereverThatIsPaused) {
    for (const OldWriter &old : old_writers) {
        for_each_pause_point(
            [&] {
                clear();
                write("A=1\nB=1\n");
            },
            [&] { old.set(path(), "B", "y"); }, [&] { set_patiently(path(), "A", "x"); },
            AfterPause::go_on,
            [&](unsigned long n) {
                EXPECT_EQ(Settings(path()).value("A"), "x") << n;
                EXPECT_TRUE(Settings(path()).value("B") == "y" || old.without_lock) << n;
            },
            std::chrono::milliseconds(10));
    }
}

TEST_F(corvel_settings_save, LeavesAWholeFileWhereverItIsKilled) {
    struct Change {
        std::string before;
        std::string after;
        std::function<void(const Settings &)> apply;
    };
    const auto set = [](const Settings &settings, const std::string &name) {
        EXPECT_EQ(settings.set(name, "x"), "");
    };
    const std::vector<Change> changes = {
        {"A=1\nB=1\nC=1\n", "A=\"x\"\nB=1\nC=1\n",
         [&](const Settings &s) {
             set(s, "A");
         }},
        {"A=1\nB=1\n", "A=1\nB=1\nC=\"x\"\n",
         [&](const Settings &s) {
             set(s, "C");
         }},
        {"A=1\nB=1\nC=1\n", "A=1\nB=1\n",
         [](const Settings &s) {
             EXPECT_EQ(s.remove("C"), "");
         }},
    };
    for (const Change &change : changes) {
        bool was_new = false;
        const unsigned long points = for_each_kill_point(
            [&] {
                clear();
                write(change.before);
                directory_.write("conf.kept", change.before);
            },
            [&] {
                const Settings settings(path());
                change.apply(settings);
                static_cast<void>(settings.save());
            },
            [&](unsigned long n) {
                const std::string now = content();
                EXPECT_TRUE(now == change.before || now == change.after) << n << now;
                was_new = was_new || now == change.after;
                // What an old writer saves after that is not undone by the recovery.
                const bool is_followed = n % 2 == 0;
                if (is_followed)
                    set_with_save_prop(path(), "B", "later");
                EXPECT_GE(corvel_settings_recover(path().c_str(), '='), 0) << n;
                EXPECT_EQ(Settings(path()).value("B"), is_followed ? "later" : "1") << n;
                EXPECT_EQ(content(), directory_.read("conf.kept")) << n;
                set_patiently(path(), "A", "y");
                EXPECT_EQ(directory_.names(), all_names) << n;
            });
        EXPECT_TRUE(was_new);
        EXPECT_GE(points, 40U); // fewer where only the library's own calls count
    }
}

TEST_F(corvel_settings_save, LeavesEachOfSeveralFilesWholeWhereverItIsKilled) {
    unsigned long mixed = 0;
    for_each_kill_point(
        [&] {
            clear();
            directory_.write("a", "A=1\nB=1\n");
            directory_.write("b", "A=1\nB=1\n");
        },
        [&] {
            const Settings a(path("a"));
            const Settings b(path("b"));
            static_cast<void>(a.set("A", "x"));
            static_cast<void>(b.set("A", "x"));
            corvel_settings *const files[] = {b.get(), a.get()};
            ::corvel_settings_save(files, 2);
        },
        [&](unsigned long n) {
            for (const std::string name : {"a", "b"}) {
                const std::string text = directory_.read(name);
                EXPECT_TRUE(text == "A=1\nB=1\n" || text == "A=\"x\"\nB=1\n") << n << text;
            }
            // The first in the order of the paths is renamed first.
            const bool first = directory_.read("a") != "A=1\nB=1\n";
            const bool second = directory_.read("b") != "A=1\nB=1\n";
            EXPECT_TRUE(first || !second) << n;
            mixed += first && !second ? 1U : 0U;
        });
    EXPECT_GE(mixed, 1U);
}

TEST_F(corvel_settings_save, NeverRemovesTheFileWhereverItIsPaused) {
    for_each_pause_point(
        [&] {
            clear();
            write("A=1\n");
        },
        [&] { set_with_kit(path(), "A", "x"); },
        [&] {
            if (!directory_.exists("conf"))
                abort();
            directory_.write("seen", content());
        },
        AfterPause::go_on,
        [&](unsigned long n) {
            const std::string seen = directory_.read("seen");
            EXPECT_TRUE(seen == "A=1\n" || seen == "A=\"x\"\n") << n << seen;
        });
}

TEST_F(corvel_settings_save, LocksSeveralFilesInOneOrderWhateverTheOrderOfTheList) {
    directory_.write("a", "N=0\n");
    directory_.write("b", "N=0\n");
    constexpr int rounds = 50;
    const auto count_up = [&](bool reversed) {
        for (int i = 0; i < rounds;) {
            const Settings a(path("a"));
            const Settings b(path("b"));
            const int number = std::stoi(a.value("N").value_or("0"));
            static_cast<void>(a.set("N", std::to_string(number + 1)));
            static_cast<void>(b.set("N", std::to_string(number + 1)));
            corvel_settings *const files[] = {reversed ? b.get() : a.get(),
                                              reversed ? a.get() : b.get()};
            const corvel_settings_result result = ::corvel_settings_save(files, 2);
            if (result == CORVEL_SETTINGS_SAVED)
                ++i;
            else if (result != CORVEL_SETTINGS_OUTDATED)
                abort();
        }
    };
    std::fflush(nullptr);
    std::vector<pid_t> children;
    for (const bool reversed : {false, true}) {
        const pid_t child = fork();
        if (child == 0) {
            count_up(reversed);
            _exit(0);
        }
        children.push_back(child);
    }
    for (const pid_t child : children)
        EXPECT_EQ(wait_for_child(child).exit_status, 0);
    EXPECT_EQ(Settings(path("a")).value("N"), std::to_string(2 * rounds));
    EXPECT_EQ(Settings(path("b")).value("N"), std::to_string(2 * rounds));
}

} // namespace
