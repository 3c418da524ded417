/* SPDX-License-Identifier: MIT */
/** The lock file of a configuration file, which both functions that save the file use. */
#include <corvel.h>

#include "tests/config/writers.h"
#include "tests/support/child_process.h"
#include "tests/support/kill_points.h"
#include "tests/support/next_definition.h"
#include "tests/support/stand_in.h"
#include "tests/support/temporary_directory.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

/** Whether the library's pauses are skipped. */
static bool skip_pauses = false;

extern "C" int nanosleep(const timespec *length, timespec *left) {
    static auto *const next =
        corvel_test::next_definition<int(const timespec *, timespec *)>("nanosleep");
    return skip_pauses ? 0 : next(length, left);
}

namespace {

using namespace corvel_test;
namespace fs = std::filesystem;

constexpr uid_t file_owner = 1234;
constexpr uid_t directory_owner = 2345;
constexpr uid_t stranger = 3456;

/** Holds a lock on a file during its lifetime. */
class HeldLock {
  public:
    explicit HeldLock(const std::string &path)
        : file_(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
        EXPECT_GE(file_, 0);
        EXPECT_EQ(lockf(file_, F_LOCK, 0), 0);
    }
    ~HeldLock() { release(); }
    HeldLock(const HeldLock &) = delete;
    HeldLock &operator=(const HeldLock &) = delete;

    void release() {
        if (file_ >= 0)
            close(file_);
        file_ = -1;
    }

  private:
    int file_;
};

/** Starts a child whose exit status shows whether an assertion failed. */
pid_t start(const std::function<void()> &body) {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0)
        end_child(status_of_assertions(body));
    return child;
}

/** Whether a child is still running after 200 milliseconds. */
bool waits(pid_t child) {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    return waitpid(child, nullptr, WNOHANG) == 0;
}

void change_owner(const std::string &path, uid_t user) {
    ASSERT_EQ(chown(path.c_str(), user, static_cast<gid_t>(-1)), 0) << path;
}

void become(uid_t user) {
    ASSERT_EQ(setgid(user), 0);
    ASSERT_EQ(setuid(user), 0);
}

// --- Both functions ---

INSTANTIATE_TEST_SUITE_P(save_prop, BothWriters, testing::Values(save_prop_writer), name_of_writer);
INSTANTIATE_TEST_SUITE_P(save_global_conf, BothWriters, testing::Values(save_global_conf_writer),
                         name_of_writer);

TEST_P(BothWriters, DoesNotTruncateTheTargetOfASymbolicLinkAtTheLockFilesName) {
    directory_.write("conf", "A=1\n");
    directory_.write("precious", "text");
    fs::create_symlink(directory_.path("precious"), directory_.path("conf.lck"));
    save();
    EXPECT_EQ(directory_.read("precious"), "text");
    EXPECT_EQ(directory_.read("conf"), "A=\"x\"\n");
}

TEST_P(BothWriters, SavesUnlockedIfTheLockFileIsADirectory) {
    directory_.write("conf", "A=1\n");
    fs::create_directory(directory_.path("conf.lck"));
    save();
    EXPECT_EQ(directory_.read("conf"), "A=\"x\"\n");
    EXPECT_EQ(directory_.names(), (Names{"conf", "conf.lck"}));
}

TEST_P(BothWriters, SavesUnlockedIfTheLockFileCannotBeOpened) {
    directory_.write("conf", "A=1\n");
    const FailCall lock_file(call_open, 1, EMFILE);
    save();
    EXPECT_EQ(directory_.read("conf"), "A=\"x\"\n");
}

TEST_P(BothWriters, SavesUnlockedIfLockingFails) {
    directory_.write("conf", "A=1\n");
    const FailCall no_locks(call_lockf, 1, ENOLCK, FailCall::from_then_on);
    save();
    EXPECT_EQ(directory_.read("conf"), "A=\"x\"\n");
    EXPECT_GE(no_locks.failures(), 1U);
}

TEST_P(BothWriters, WaitsForTheLock) {
    directory_.write("conf", "A=1\n");
    HeldLock held(directory_.path("conf.lck"));
    const pid_t child = start([&] { save(); });
    EXPECT_TRUE(waits(child));
    EXPECT_EQ(directory_.read("conf"), "A=1\n");
    EXPECT_EQ(directory_.names(), (Names{"conf", "conf.lck"}));
    held.release();
    EXPECT_EQ(wait_for_child(child).exit_status, 0);
    EXPECT_EQ(directory_.read("conf"), "A=\"x\"\n");
}

TEST_P(BothWriters, ReleasesTheLock) {
    directory_.write("conf", "A=1\n");
    save();
    const int lock = open(directory_.path("conf.lck").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    expect_in_child([&] { EXPECT_EQ(lockf(lock, F_TLOCK, 0), 0); });
    close(lock);
}

TEST_P(BothWriters, LocksAgainAfterASignalOrAReportedDeadlock) {
    for (const int error : {EINTR, EDEADLK}) {
        directory_.write("conf", "A=1\n");
        const CountCalls locks(call_lockf);
        const FailCall failed(call_lockf, 1, error);
        save();
        EXPECT_EQ(directory_.read("conf"), "A=\"x\"\n");
        // Fails, locks, unlocks; locks again only to remove the lock file.
        EXPECT_EQ(locks.count(), GetParam().keeps_lock_file ? 3U : 4U);
    }
}

TEST_P(BothWriters, ReturnsIfTheKernelAlwaysReportsADeadlock) {
    directory_.write("conf", "A=1\n");
    expect_in_child([&] {
        skip_pauses = true;
        const FailCall deadlock(call_lockf, 1, EDEADLK, FailCall::from_then_on);
        save();
    });
    EXPECT_EQ(directory_.read("conf"), "A=\"x\"\n");
}

TEST_P(BothWriters, CreatesTheLockFileForItsOwnerAlone) {
    directory_.write("conf", "A=1\n");
    const mode_t before = umask(0);
    for_each_kill_point([&] { directory_.remove("conf.lck"); }, [&] { save(); },
                        [&](unsigned long n) {
                            if (directory_.exists("conf.lck")) {
                                EXPECT_EQ(status("conf.lck").st_mode & 07777U, 0600U) << n;
                            }
                        });
    umask(before);
}

TEST_P(BothWriters, DoesNotWaitForTheLockFileOfAStranger) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can create a file of another user";
    directory_.write("conf", "A=1\n");
    directory_.write("conf.lck", "text");
    change_owner(directory_.path("conf.lck"), stranger);
    const HeldLock held(directory_.path("conf.lck"));
    const ChildResult child = run_in_child([&] {
        alarm(20);
        save();
    });
    EXPECT_EQ(child.signal, 0);
    EXPECT_EQ(directory_.read("conf"), "A=\"x\"\n");
    // The lock file is neither truncated nor removed.
    EXPECT_EQ(directory_.read("conf.lck"), "text");
}

TEST_P(BothWriters, WaitsForALockFileOfTheUserRootTheFilesOwnerOrTheDirectorysOwner) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can create files of several users";
    change_owner(directory_.path(), directory_owner);
    ASSERT_EQ(chmod(directory_.path().c_str(), 0777), 0);
    for (const uid_t writer : {uid_t{0}, ordinary_user_id}) {
        for (const uid_t owner : {uid_t{0}, ordinary_user_id, file_owner, directory_owner}) {
            // To root, an ordinary user who owns neither the file nor the directory is a stranger.
            if (writer == 0 && owner == ordinary_user_id)
                continue;
            directory_.write("conf", "A=1\n");
            change_owner(path(), file_owner);
            directory_.write("conf.lck", "");
            change_owner(directory_.path("conf.lck"), owner);
            ASSERT_EQ(chmod(directory_.path("conf.lck").c_str(), 0666), 0);
            HeldLock held(directory_.path("conf.lck"));
            const pid_t child = start([&] {
                if (writer != 0)
                    become(writer);
                save();
            });
            EXPECT_TRUE(waits(child)) << "writer " << writer << ", owner " << owner;
            held.release();
            EXPECT_EQ(wait_for_child(child).exit_status, 0);
            EXPECT_EQ(directory_.read("conf"), "A=\"x\"\n");
            directory_.remove("conf.lck");
        }
    }
}

TEST_P(BothWriters, WaitsForALockFileOfTheDirectorysOwnerAtARelativePath) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can create a file of another user";
    directory_.write("conf", "A=1\n");
    change_owner(directory_.path(), directory_owner);
    directory_.write("conf.lck", "");
    change_owner(directory_.path("conf.lck"), directory_owner);
    HeldLock held(directory_.path("conf.lck"));
    const pid_t child = start([&] {
        ASSERT_EQ(chdir(directory_.path().c_str()), 0);
        GetParam().set("conf", "A", "x");
    });
    EXPECT_TRUE(waits(child));
    held.release();
    EXPECT_EQ(wait_for_child(child).exit_status, 0);
    EXPECT_EQ(directory_.read("conf"), "A=\"x\"\n");
}

TEST_P(BothWriters, DoesNotWaitForAFifoAtTheLockFilesName) {
    directory_.write("conf", "A=1\n");
    ASSERT_EQ(mkfifo(directory_.path("conf.lck").c_str(), 0600), 0);
    const HeldLock held(directory_.path("conf.lck"));
    const ChildResult child = run_in_child([&] {
        alarm(20);
        save();
    });
    EXPECT_EQ(child.signal, 0);
    EXPECT_EQ(directory_.read("conf"), "A=\"x\"\n");
    EXPECT_TRUE(directory_.exists("conf.lck"));
}

TEST_P(BothWriters, DoesNotChangeTheOwnerOfALockFileThatItDidNotCreate) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can change the owner of a file";
    directory_.write("conf", "A=1\n");
    change_owner(path(), file_owner);
    directory_.write("other", "text");
    ASSERT_EQ(link(directory_.path("other").c_str(), directory_.path("conf.lck").c_str()), 0);
    save();
    EXPECT_EQ(status("other").st_uid, 0U);
    EXPECT_EQ(directory_.read("other"), "text");
}

TEST_P(BothWriters, WaitsForTheLockOfTheFileThatHasTheNameNow) {
    directory_.write("conf", "A=1\n");
    HeldLock removed(directory_.path("conf.lck"));
    const pid_t child = start([&] { save(); });
    EXPECT_TRUE(waits(child));
    directory_.remove("conf.lck");
    HeldLock created(directory_.path("conf.lck"));
    removed.release();
    EXPECT_TRUE(waits(child));
    EXPECT_EQ(directory_.read("conf"), "A=1\n");
    created.release();
    EXPECT_EQ(wait_for_child(child).exit_status, 0);
    EXPECT_EQ(directory_.read("conf"), "A=\"x\"\n");
}

TEST_P(BothWriters, SavesEvenIfTheLockFileIsReplacedRepeatedly) {
    directory_.write("conf", "A=1\n");
    const std::string lock = directory_.path("conf.lck");
    const std::string next = directory_.path("next");
    const pid_t replacer = start([&] {
        for (;;) {
            close(open(next.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
            rename(next.c_str(), lock.c_str());
        }
    });
    const ChildResult child = run_in_child([&] {
        alarm(60);
        for (int i = 0; i < 20; ++i)
            save();
    });
    kill(replacer, SIGKILL);
    waitpid(replacer, nullptr, 0);
    EXPECT_EQ(child.signal, 0);
    EXPECT_EQ(directory_.read("conf"), "A=\"x\"\n");
}

// --- Both functions: root's lock file ---

/** The lock file that root creates for a file of another user. */
class RootsLockFile : public BothWriters {
  protected:
    /** Creates a file that belongs to @p user, without a lock file. */
    void prepare_file_of(uid_t user) const {
        directory_.remove("conf.lck");
        directory_.write("conf", "A=1\n");
        change_owner(path(), user);
    }
};

INSTANTIATE_TEST_SUITE_P(save_prop, RootsLockFile, testing::Values(save_prop_writer),
                         name_of_writer);
INSTANTIATE_TEST_SUITE_P(save_global_conf, RootsLockFile, testing::Values(save_global_conf_writer),
                         name_of_writer);

TEST_P(RootsLockFile, BelongsToTheFilesOwner) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can change the owner of a file";
    // With and without permission for the owner to create files in the directory.
    for (const mode_t directory_mode : {0777U, 0755U}) {
        ASSERT_EQ(chmod(directory_.path().c_str(), directory_mode), 0);
        bool seen = false;
        for_each_kill_point([&] { prepare_file_of(file_owner); }, [&] { save(); },
                            [&](unsigned long) {
                                seen = seen || (directory_.exists("conf.lck") &&
                                                status("conf.lck").st_uid == file_owner);
                            });
        EXPECT_TRUE(seen);
    }
}

TEST_P(RootsLockFile, BelongsToTheCopysOwnerIfThereIsNoFile) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can change the owner of a file";
    prepare_file_of(file_owner);
    fs::rename(path(), directory_.path("conf.cgi"));
    uid_t owner = 0;
    for_each_kill_point([&] { directory_.remove("conf.lck"); }, [&] { save(); },
                        [&](unsigned long) {
                            if (directory_.exists("conf.lck"))
                                owner = status("conf.lck").st_uid;
                        });
    EXPECT_EQ(owner, file_owner);
}

TEST_P(RootsLockFile, IsWaitedForIfRootIsAboutToChangeItsOwner) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can change the owner of a file";
    prepare_file_of(file_owner);
    change_owner(directory_.path(), file_owner);
    HeldLock held(directory_.path("conf.lck"));
    const pid_t child = start([&] {
        become(file_owner);
        save();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    change_owner(directory_.path("conf.lck"), file_owner);
    std::this_thread::sleep_for(std::chrono::milliseconds(800));
    EXPECT_EQ(waitpid(child, nullptr, WNOHANG), 0);
    EXPECT_EQ(directory_.read("conf"), "A=1\n");
    held.release();
    EXPECT_EQ(wait_for_child(child).exit_status, 0);
    EXPECT_EQ(directory_.read("conf"), "A=\"x\"\n");
}

TEST_P(RootsLockFile, IsLockedByTheNextWriterWhileThereIsNoFile) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root has several users";
    prepare_file_of(file_owner);
    directory_.write("conf.lck", "");
    change_owner(directory_.path("conf.lck"), file_owner);
    // Another writer has removed the file but has not yet renamed the copy.
    HeldLock held(directory_.path("conf.lck"));
    fs::rename(path(), directory_.path("conf.cgi"));
    const pid_t child = start([&] { save(); });
    EXPECT_TRUE(waits(child));
    fs::rename(directory_.path("conf.cgi"), path());
    held.release();
    EXPECT_EQ(wait_for_child(child).exit_status, 0);
    EXPECT_EQ(directory_.read("conf"), "A=\"x\"\n");
}

// --- save_global_conf ---

TEST(save_global_conf, KeepsALockFileThatAnotherWriterHasLocked) {
    const TemporaryDirectory directory;
    directory.write("conf", "A=1\n");
    // Locks, unlocks; the third call locks the file to remove it.
    const FailCall taken(call_lockf, 3, EAGAIN);
    set_with_save_global_conf(directory.path("conf"), "A", "x");
    EXPECT_EQ(taken.failures(), 1U);
    EXPECT_EQ(directory.names(), (Names{"conf", "conf.lck"}));
    EXPECT_EQ(directory.read("conf"), "A=\"x\"\n");
}

TEST(save_global_conf, KeepsALockFileOfAnotherWriterIfPausedAtAnySystemCall) {
    const TemporaryDirectory directory;
    const std::string lock = directory.path("conf.lck");
    pid_t holder = 0;
    unsigned long left = 0;
    for_each_pause_point(
        [&] {
            directory.remove("conf.lck");
            directory.write("conf", "A=1\n");
        },
        [&] {
            alarm(20);
            set_with_save_global_conf(directory.path("conf"), "A", "x");
            alarm(0);
        },
        [&] {
            // After the save, another writer locks and removes the lock file, and a third one
            // creates a new one.
            const int old = open(lock.c_str(), O_RDWR | O_CLOEXEC);
            if (!directory.exists("conf") || directory.read("conf") == "A=1\n" ||
                (old >= 0 && lockf(old, F_TLOCK, 0) != 0))
                return;
            directory.remove("conf.lck");
            directory.write("conf.lck", "another's");
            const pid_t process = fork();
            if (process == 0) {
                const HeldLock held(lock);
                // Renamed, so that nobody reads it before it is complete.
                directory.write("holder~", std::to_string(getpid()));
                fs::rename(directory.path("holder~"), directory.path("holder"));
                pause();
            }
            while (!directory.exists("holder"))
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
        },
        AfterPause::go_on,
        [&](unsigned long n) {
            if (!directory.exists("holder"))
                return;
            holder = std::stoi(directory.read("holder"));
            EXPECT_TRUE(directory.exists("conf.lck") && directory.read("conf.lck") == "another's")
                << n;
            ++left;
            kill(holder, SIGKILL);
            directory.remove("holder");
        });
    EXPECT_GE(left, 3U);
}

TEST(save_global_conf, DoesNotRemoveALockFileThatItNeverLocked) {
    const TemporaryDirectory directory;
    directory.write("conf", "A=1\n");
    directory.write("precious", "text");
    fs::create_symlink(directory.path("precious"), directory.path("conf.lck"));
    set_with_save_global_conf(directory.path("conf"), "A", "x");
    EXPECT_EQ(directory.names(), (Names{"conf", "conf.lck", "precious"}));
    directory.remove("conf.lck");
    directory.write("conf.lck", "");
    const FailCall no_locks(call_lockf, 1, ENOLCK);
    set_with_save_global_conf(directory.path("conf"), "A", "x");
    EXPECT_EQ(directory.names(), (Names{"conf", "conf.lck", "precious"}));
}

// --- Several writers ---

/** The user who creates the first lock file of a test, which decides who owns it. */
enum class FirstWriter { root, another_user };

class MixedWriters : public testing::TestWithParam<FirstWriter> {};

INSTANTIATE_TEST_SUITE_P(First, MixedWriters,
                         testing::Values(FirstWriter::root, FirstWriter::another_user),
                         [](const auto &first) {
                             return first.param == FirstWriter::root ? "Root" : "AnotherUser";
                         });

TEST_P(MixedWriters, LoseNoSettingOfSixWritersOfBothKindsAndTwoUsers) {
    if (geteuid() != 0)
        GTEST_SKIP() << "two users need root";
    constexpr int processes = 6;
    constexpr int saves = 200;
    const TemporaryDirectory directory;
    change_owner(directory.path(), ordinary_user_id);
    std::string lines;
    for (int process = 0; process < processes; ++process)
        lines += "NAME_" + std::to_string(process) + "=\"0\"\n";
    const std::string path = directory.path("conf");
    directory.write("conf", lines);
    change_owner(path, ordinary_user_id);
    const auto first = [&] {
        if (GetParam() == FirstWriter::another_user)
            become(ordinary_user_id);
        set_with_save_prop(path, "NAME_0", "0");
    };
    EXPECT_EQ(wait_for_child(start(first)).exit_status, 0);

    std::vector<pid_t> children;
    for (int process = 0; process < processes; ++process)
        children.push_back(start([&, process] {
            // Both functions, each run by both users.
            const Writer &writer = process % 2 == 0 ? save_prop_writer : save_global_conf_writer;
            if (process >= processes / 2)
                become(ordinary_user_id);
            for (int i = 1; i <= saves; ++i)
                writer.set(path, "NAME_" + std::to_string(process), std::to_string(i));
        }));
    for (const pid_t child : children)
        EXPECT_EQ(wait_for_child(child).exit_status, 0);
    std::string expected;
    for (int process = 0; process < processes; ++process)
        expected += "NAME_" + std::to_string(process) + "=\"" + std::to_string(saves) + "\"\n";
    EXPECT_EQ(directory.read("conf"), expected);
    EXPECT_FALSE(directory.exists("conf.cgi"));
}

/** Two writers: one is paused at each of its system calls while the other saves. */
class TwoWriters : public testing::TestWithParam<std::array<Writer, 2>> {
  protected:
    void prepare() const {
        remove_files(directory_);
        directory_.write("conf", "A=\"1\"\nB=\"1\"\nC=\"1\"\n");
    }
    void first() const { GetParam()[0].set(directory_.path("conf"), "A", "x"); }
    void second() const { GetParam()[1].set(directory_.path("conf"), "B", "y"); }
    /** Creates the file "note" if it saves the file. */
    void second_without_lock() const {
        set_without_lock(GetParam()[1], directory_.path("conf"), "B", "y");
        if (directory_.exists("conf") &&
            directory_.read("conf").find("B=\"y\"") != std::string::npos)
            directory_.write("note", "");
    }
    /** The content of the file or, if there is no file, of the copy. */
    [[nodiscard]] std::string settings() const {
        return directory_.read(directory_.exists("conf") ? "conf" : "conf.cgi");
    }

    TemporaryDirectory directory_;
};

INSTANTIATE_TEST_SUITE_P(
    Kinds, TwoWriters,
    testing::Values(std::array{save_prop_writer, save_prop_writer},
                    std::array{save_prop_writer, save_global_conf_writer},
                    std::array{save_global_conf_writer, save_prop_writer},
                    std::array{save_global_conf_writer, save_global_conf_writer}),
    [](const auto &kinds) { return kinds.param[0].name + "_and_" + kinds.param[1].name; });

/** Long enough for a save that need not wait for the paused one. */
constexpr std::chrono::milliseconds waiting_for_the_other(10);

TEST_P(TwoWriters, SaveBothSettingsIfTheFirstIsPausedAtAnySystemCall) {
    for_each_pause_point([&] { prepare(); }, [&] { first(); }, [&] { second(); }, AfterPause::go_on,
                         [&](unsigned long n) {
                             EXPECT_EQ(directory_.read("conf"), "A=\"x\"\nB=\"y\"\nC=\"1\"\n") << n;
                             EXPECT_FALSE(directory_.exists("conf.cgi")) << n;
                         },
                         waiting_for_the_other);
}

TEST_P(TwoWriters, KeepTheSettingsIfTheFirstIsKilledAtAnySystemCall) {
    const Names whole = {"A=\"1\"\nB=\"y\"\nC=\"1\"\n", "A=\"x\"\nB=\"1\"\nC=\"1\"\n",
                         "A=\"x\"\nB=\"y\"\nC=\"1\"\n"};
    for_each_pause_point([&] { prepare(); }, [&] { first(); }, [&] { second(); }, AfterPause::die,
                         [&](unsigned long n) {
                             EXPECT_TRUE(std::count(whole.begin(), whole.end(), settings()))
                                 << n << "\n"
                                 << settings();
                             // Without a file, the second writer saves nothing.
                             EXPECT_TRUE(!directory_.exists("conf") ||
                                         settings().find("B=\"y\"") != std::string::npos)
                                 << n;
                         },
                         waiting_for_the_other);
}

TEST_P(TwoWriters, DestroyNothingIfTheSecondIsUnlockedAndTheFirstIsPaused) {
    for_each_pause_point([&] { prepare(); }, [&] { first(); }, [&] { second_without_lock(); },
                         AfterPause::go_on,
                         [&](unsigned long n) {
                             EXPECT_EQ(directory_.read("conf"), directory_.exists("note")
                                                                    ? "A=\"x\"\nB=\"y\"\nC=\"1\"\n"
                                                                    : "A=\"x\"\nB=\"1\"\nC=\"1\"\n")
                                 << n;
                             EXPECT_FALSE(directory_.exists("conf.cgi")) << n;
                         });
}

TEST_P(TwoWriters, DestroyNothingRegardlessOfHowLongAnUnlockedOneIsPaused) {
    const Names whole = {"A=\"x\"\nB=\"1\"\nC=\"1\"\n", "A=\"1\"\nB=\"y\"\nC=\"1\"\n",
                         "A=\"x\"\nB=\"y\"\nC=\"1\"\n"};
    for_each_pause_point([&] { prepare(); }, [&] { second_without_lock(); },
                         [&] {
                             skip_pauses = true;
                             first();
                         },
                         AfterPause::go_on,
                         [&](unsigned long n) {
                             const std::string text = settings();
                             EXPECT_TRUE(std::count(whole.begin(), whole.end(), text)) << n << "\n"
                                                                                       << text;
                         });
}

TEST_P(TwoWriters, DestroyNothingIfTheSecondIsUnlockedAndTheFirstIsKilled) {
    for_each_pause_point([&] { prepare(); }, [&] { first(); }, [&] { second_without_lock(); },
                         AfterPause::die,
                         [&](unsigned long n) {
                             const std::string text = settings();
                             EXPECT_EQ(text.size(), 18U) << n;
                             EXPECT_NE(text.find("C=\"1\"\n"), std::string::npos) << n;
                         });
}

TEST_P(TwoWriters, DestroyNothingIfAnUnlockedOneIsKilledAtAnySystemCall) {
    for_each_pause_point([&] { prepare(); }, [&] { second_without_lock(); }, [&] { first(); },
                         AfterPause::die,
                         [&](unsigned long n) {
                             const std::string text = settings();
                             EXPECT_EQ(text.size(), 18U) << n;
                             EXPECT_NE(text.find("C=\"1\"\n"), std::string::npos) << n;
                         },
                         waiting_for_the_other);
}

} // namespace
