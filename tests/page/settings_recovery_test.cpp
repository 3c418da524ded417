/* SPDX-License-Identifier: MIT */
/** Restoring settings files after a kill and after a power loss. */
#include "tests/page/settings_device.h"
#include "tests/page/settings_helpers.h"

#include "tests/config/writers.h"
#include "tests/support/child_process.h"
#include "tests/support/descriptors.h"
#include "tests/support/kill_points.h"
#include "tests/support/next_definition.h"
#include "tests/support/stand_in.h"
#include "tests/support/temporary_directory.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using namespace corvel_test;
namespace fs = std::filesystem;

class corvel_settings_recover : public SettingsTest {
  protected:
    [[nodiscard]] corvel_settings_result recover(char separator = '=') const {
        return ::corvel_settings_recover(path().c_str(), separator);
    }
    /** What there is before a recovery: the content of each file, or no file. */
    struct Found {
        std::optional<std::string> file;
        std::optional<std::string> copy;
        std::optional<std::string> kept;
    };
    void prepare(const Found &found) const {
        clear();
        if (found.file)
            directory_.write("conf", *found.file);
        if (found.copy)
            directory_.write("conf.cgi", *found.copy);
        if (found.kept)
            directory_.write("conf.kept", *found.kept);
    }
    /** Expects that the recovery restores the file with this content, which is then kept. */
    void expect_restored(const Found &found, const std::string &expected,
                         const std::string &where = "") const {
        prepare(found);
        EXPECT_EQ(recover(), CORVEL_SETTINGS_RESTORED) << where;
        EXPECT_EQ(content(), expected) << where;
        EXPECT_EQ(directory_.read("conf.kept"), expected) << where;
        EXPECT_EQ(recover(), CORVEL_SETTINGS_UNCHANGED) << where;
    }
    /** Expects that the recovery takes the file for whole and keeps it. */
    void expect_whole(const Found &found, const std::string &where = "") const {
        prepare(found);
        EXPECT_EQ(recover(), CORVEL_SETTINGS_UNCHANGED) << where;
        EXPECT_EQ(content(), found.file) << where;
        EXPECT_EQ(directory_.read("conf.kept"), found.file) << where;
    }
    /** Expects that the recovery fails and changes nothing. */
    void expect_failure(const Found &found, corvel_settings_result result,
                        const std::string &where = "") const {
        prepare(found);
        EXPECT_EQ(recover(), result) << where;
        EXPECT_EQ(directory_.exists("conf"), found.file.has_value()) << where;
        EXPECT_EQ(directory_.exists("conf.cgi"), found.copy.has_value()) << where;
        EXPECT_EQ(found.file.value_or(""), found.file ? content() : "") << where;
        EXPECT_EQ(found.copy.value_or(""), found.copy ? directory_.read("conf.cgi") : "") << where;
        EXPECT_FALSE(directory_.exists("conf.kept~"));
    }
};

const std::string old_text = "# Network\nA=\"1\"\n\nB=\"1\"\n";
const std::string new_text = "# Network\nA=\"x\"\n\nB=\"1\"\n";
const std::optional<std::string> none;

TEST_F(corvel_settings_recover, KeepsAWholeFile) {
    expect_whole({old_text, none, none});
    expect_whole({new_text, none, old_text});
    expect_whole({new_text, none, new_text});
    // What a writer that died, before it removed the file, left is not touched.
    expect_whole({old_text, new_text, old_text});
    EXPECT_EQ(directory_.read("conf.cgi"), new_text);
}

TEST_F(corvel_settings_recover, PutsBackTheCopyOfAWriterThatRemovedTheFile) {
    expect_restored({none, new_text, none}, new_text);
    expect_restored({none, new_text, old_text}, new_text);
    EXPECT_FALSE(directory_.exists("conf.cgi"));
}

TEST_F(corvel_settings_recover, RestoresTheKeptVersionWhereNothingElseIsWhole) {
    for (const std::optional<std::string> &damaged :
         {none, std::optional<std::string>(""), std::optional<std::string>("# Network\nA=\"x"),
          std::optional<std::string>("# Network\n"),
          std::optional<std::string>(std::string(new_text.size(), '\0'))}) {
        expect_restored({damaged, none, old_text}, old_text);
        expect_restored({none, damaged, old_text}, old_text);
        expect_restored({damaged, damaged, old_text}, old_text);
        EXPECT_FALSE(directory_.exists("conf.cgi"));
        // The copy is newer than the kept version.
        expect_restored({damaged, new_text, old_text}, new_text);
    }
}

TEST_F(corvel_settings_recover, LeavesADamagedFileIfThereIsNoOtherVersion) {
    for (const std::string &damaged : {std::string(), std::string("A=1"), std::string(10, '\0')}) {
        expect_failure({damaged, none, none}, CORVEL_SETTINGS_DAMAGED);
        expect_failure({damaged, damaged, none}, CORVEL_SETTINGS_DAMAGED);
        expect_failure({damaged, damaged, damaged + "1"}, CORVEL_SETTINGS_DAMAGED);
        expect_failure({none, damaged, none}, CORVEL_SETTINGS_UNREADABLE);
    }
    expect_failure({none, none, none}, CORVEL_SETTINGS_UNREADABLE);
}

TEST_F(corvel_settings_recover, RestoresTheFileOfEitherWriterWhateverPrefixOfItIsLeft) {
    for (const Writer &writer : {save_prop_writer, save_global_conf_writer}) {
        prepare({old_text, none, none});
        writer.set(path(), "A", "a longer value");
        const std::string saved = content();
        for (std::size_t size = 0; size <= saved.size(); ++size) {
            const std::string left = saved.substr(0, size);
            const std::string &expected = size == saved.size() ? saved : old_text;
            const std::string where = writer.name + " " + std::to_string(size);
            if (size == saved.size())
                expect_whole({left, none, old_text}, where);
            else
                expect_restored({left, none, old_text}, expected, where);
            expect_restored({none, left, old_text}, expected, where);
            if (size != saved.size()) {
                // Without a kept version, only whole lines count.
                if (left.ends_with('\n'))
                    expect_whole({left, none, none}, where);
                else
                    expect_failure({left, none, none}, CORVEL_SETTINGS_DAMAGED, where);
            }
        }
    }
}

TEST_F(corvel_settings_recover, LosesNothingButALineThatWasAppendedSinceTheFileWasKept) {
    prepare({old_text, none, none});
    set_with_save_global_conf(path(), "NEW", "x");
    const std::string saved = content();
    EXPECT_EQ(saved, old_text + "NEW=x\n");
    for (std::size_t size = 0; size < saved.size(); ++size) {
        const std::string left = saved.substr(0, size);
        if (size == old_text.size())
            expect_whole({left, none, old_text});
        else
            expect_restored({left, none, old_text}, old_text);
    }
}

TEST_F(corvel_settings_recover, RestoresAFileWithZerosInsteadOfSomeBytes) {
    std::string before;
    for (int i = 0; i < 600; ++i)
        before += "NAME" + std::to_string(i) + "=\"" + std::to_string(i) + "\"\n";
    prepare({before, none, none});
    set_with_save_prop(path(), "NAME7", "x");
    const std::string saved = content();
    for (const std::size_t block : {std::size_t{1}, std::size_t{512}, std::size_t{4096}})
        for (std::size_t start = 0; start < saved.size(); start += block == 1 ? 97 : block) {
            std::string left = saved;
            std::fill_n(left.begin() + static_cast<std::ptrdiff_t>(start),
                        std::min(block, saved.size() - start), '\0');
            const std::string where = std::to_string(block) + " " + std::to_string(start);
            expect_restored({left, none, before}, before, where);
            expect_restored({none, left, before}, before, where);
            expect_failure({left, none, none}, CORVEL_SETTINGS_DAMAGED, where);
        }
}

TEST_F(corvel_settings_recover, KnowsALineWhateverThePrefixThatAWriterGaveIt) {
    const std::string before = "A 1\nB 1\nC 1\n";
    prepare({before, none, none});
    save_global_conf(' ', path().c_str(), "setenv ", "A", "x");
    EXPECT_EQ(content(), "setenv A \"x\"\nB 1\nC 1\n");
    prepare({"setenv A \"x\"\nB 1\n", none, before});
    EXPECT_EQ(recover(' '), CORVEL_SETTINGS_RESTORED);
    EXPECT_EQ(content(), before);
}

TEST_F(corvel_settings_recover, RespectsTheChangesOfOtherPrograms) {
    const std::string kept = "A=1\nB=1\nC=1\n";
    for (const std::string file :
         {"A=1\nC=1\n", "B=1\nC=1\n", "C=2\n", "X=1\n", "B=1\nA=1\n", "# comment\nA=1\n",
          "A=2\nB=2\nC=2\nD=2\n", "A=1\nB=1\nX=1\n", "\n"})
        expect_whole({file, none, kept}, file);
    // But these may have lost their last lines.
    expect_restored({"A=9\nB=9\n", none, kept}, kept);
    expect_restored({"A=9\n", none, kept}, kept);
}

TEST_F(corvel_settings_recover, TakesAFileThatEqualsTheKeptVersionForWhole) {
    for (const std::string &text : {std::string(), std::string("A=1"), std::string("A\0\n", 3)})
        expect_whole({text, none, text});
}

TEST_F(corvel_settings_recover, GivesTheFileTheOwnerAndModeOfTheKeptVersion) {
    prepare({"", none, old_text});
    ASSERT_EQ(chmod(path("conf.kept").c_str(), 0640), 0);
    if (geteuid() == 0) {
        ASSERT_EQ(chown(path("conf.kept").c_str(), 1234, 2345), 0);
    }
    EXPECT_EQ(recover(), CORVEL_SETTINGS_RESTORED);
    EXPECT_EQ(status("conf").st_mode & 07777U, 0640U);
    EXPECT_EQ(status("conf").st_uid, geteuid() == 0 ? 1234U : geteuid());
}

TEST_F(corvel_settings_recover, WritesNothingIfEverythingIsAsItShouldBe) {
    prepare({old_text, none, none});
    EXPECT_EQ(recover(), CORVEL_SETTINGS_UNCHANGED);
    const ino_t file = status("conf").st_ino;
    const ino_t kept = status("conf.kept").st_ino;
    const DescriptorWatch watch;
    EXPECT_EQ(recover(), CORVEL_SETTINGS_UNCHANGED);
    EXPECT_EQ(status("conf").st_ino, file);
    EXPECT_EQ(status("conf.kept").st_ino, kept);
    EXPECT_EQ(directory_.names(), (Names{"conf", "conf.kept", "conf.lck"}));
}

TEST_F(corvel_settings_recover, RefusesWhatIsNoSettingsFile) {
    fs::create_directory(path());
    EXPECT_EQ(recover(), CORVEL_SETTINGS_UNREADABLE);
    fs::remove(path());
    ASSERT_EQ(mkfifo(path().c_str(), 0600), 0);
    EXPECT_EQ(recover(), CORVEL_SETTINGS_UNREADABLE);
    prepare({std::string(CORVEL_SETTINGS_MAX + 1, '\n'), none, old_text});
    EXPECT_EQ(recover(), CORVEL_SETTINGS_UNREADABLE);
    prepare({std::string(CORVEL_SETTINGS_MAX, '\n'), none, old_text});
    EXPECT_EQ(recover(), CORVEL_SETTINGS_UNCHANGED);
    for (const char *const wrong : {"", static_cast<const char *>(nullptr)})
        EXPECT_EQ(::corvel_settings_recover(wrong, '='), CORVEL_SETTINGS_UNREADABLE);
    EXPECT_EQ(::corvel_settings_recover(std::string(1018, 'x').c_str(), '='),
              CORVEL_SETTINGS_UNREADABLE);
}

TEST_F(corvel_settings_recover, UsesNoLinkAndNoFileOfAStrangerAsACopy) {
    prepare({"A=\"", none, old_text});
    directory_.write("precious", new_text);
    fs::create_symlink(path("precious"), path("conf.cgi"));
    EXPECT_EQ(recover(), CORVEL_SETTINGS_RESTORED);
    EXPECT_EQ(content(), old_text);
    EXPECT_EQ(directory_.read("precious"), new_text);
    if (geteuid() != 0)
        return;
    prepare({"A=\"", new_text, old_text});
    ASSERT_EQ(chown(path("conf.cgi").c_str(), 3456, 3456), 0);
    EXPECT_EQ(recover(), CORVEL_SETTINGS_RESTORED);
    EXPECT_EQ(content(), old_text);
    // Root's writer gives the copy to the file's owner.
    prepare({none, new_text, old_text});
    ASSERT_EQ(chown(path("conf.cgi").c_str(), 3456, 3456), 0);
    EXPECT_EQ(recover(), CORVEL_SETTINGS_RESTORED);
    EXPECT_EQ(content(), new_text);
}

/** A copy that its writer, which has no access to the lock file, holds. */
class HeldCopy {
  public:
    HeldCopy(const std::string &path, bool marked) : file_(open(path.c_str(), O_RDWR | O_CLOEXEC)) {
        struct flock all {};
        all.l_type = F_WRLCK;
        if (marked) {
            EXPECT_EQ(fcntl(file_, F_OFD_SETLK, &all), 0);
        }
        EXPECT_EQ(flock(file_, LOCK_EX), 0);
    }
    ~HeldCopy() { close(file_); }
    HeldCopy(const HeldCopy &) = delete;
    HeldCopy &operator=(const HeldCopy &) = delete;

  private:
    int file_;
};

TEST_F(corvel_settings_recover, WaitsHalfASecondForAWriterWithoutTheLockFile) {
    prepare({none, new_text, old_text});
    const HeldCopy held(path("conf.cgi"), true);
    skip_pauses = true;
    milliseconds = 0;
    EXPECT_EQ(recover(), CORVEL_SETTINGS_BUSY);
    EXPECT_EQ(milliseconds, 500);
    EXPECT_EQ(Settings(path()).result(), CORVEL_SETTINGS_BUSY);
    skip_pauses = false;
    EXPECT_EQ(directory_.names(), (Names{"conf.cgi", "conf.kept", "conf.lck"}));
}

TEST_F(corvel_settings_recover, PutsBackACopyThatSomebodyElseHasLocked) {
    prepare({none, new_text, old_text});
    const HeldCopy held(path("conf.cgi"), false);
    EXPECT_EQ(recover(), CORVEL_SETTINGS_RESTORED);
    EXPECT_EQ(content(), new_text);
}

TEST_F(corvel_settings_recover, FlushesTheCopyBeforeItBecomesTheFile) {
    prepare({none, new_text, new_text});
    Names flushed;
    const Instead record(instead_of_fsync, [&](int file) {
        flushed.push_back(fs::read_symlink("/proc/self/fd/" + std::to_string(file)).filename());
        return 0;
    });
    EXPECT_EQ(recover(), CORVEL_SETTINGS_RESTORED);
    EXPECT_EQ(flushed, (Names{"conf.cgi", fs::path(directory_.path()).filename()}));
}

TEST_F(corvel_settings_recover, ReportsEachFailureAndLosesNothing) {
    const std::vector<Found> cases = {{none, new_text, old_text},
                                      {std::string(), none, old_text},
                                      {std::string(), std::string(), old_text},
                                      {none, std::string(), old_text},
                                      {new_text, none, old_text}};
    for (const Found &found : cases) {
        const std::string expected =
            found.copy == new_text || found.file == new_text ? new_text : old_text;
        for (const stand_in_call call :
             {call_allocation, call_open, call_fdopen, call_fwrite, call_fflush, call_fclose,
              call_fstat, call_fchmod, call_unlink, call_rename, call_lockf}) {
            for (unsigned long n = 1;; ++n) {
                prepare(found);
                unsigned long failures = 0;
                corvel_settings_result result = CORVEL_SETTINGS_SAVED;
                const std::string name = path();
                {
                    const DescriptorWatch watch;
                    const FailCall failing(call, n, call == call_lockf ? ENOLCK : EIO);
                    result = ::corvel_settings_recover(name.c_str(), '=');
                    failures = failing.failures();
                }
                const std::string where = std::to_string(call) + " " + std::to_string(n);
                if (result >= 0 && call != call_open && call != call_fstat) {
                    EXPECT_EQ(content(), expected) << where;
                }
                // A kept version is there at every moment.
                const std::string kept = directory_.read("conf.kept");
                EXPECT_TRUE(kept == old_text || kept == expected) << where;
                EXPECT_GE(recover(), 0) << where;
                EXPECT_TRUE(content() == expected || content() == old_text) << where << content();
                if (failures == 0)
                    break;
                ASSERT_LT(n, 200U);
            }
        }
    }
}

TEST_F(corvel_settings_recover, RestoresTheSettingsWhereverAWriterIsKilled) {
    for (const Writer &writer : {save_prop_writer, save_global_conf_writer})
        for (const bool with_kept : {true, false}) {
            unsigned long restored = 0;
            for_each_kill_point(
                [&] {
                    prepare({old_text, none, none});
                    if (with_kept)
                        directory_.write("conf.kept", "# Network\nA=\"0\"\n\nB=\"0\"\n");
                },
                [&] { writer.set(path(), "A", "x"); },
                [&](unsigned long n) {
                    const bool missing = !directory_.exists("conf");
                    restored += missing ? 1U : 0U;
                    EXPECT_EQ(recover(),
                              missing ? CORVEL_SETTINGS_RESTORED : CORVEL_SETTINGS_UNCHANGED)
                        << n;
                    const std::string now = content();
                    EXPECT_TRUE(now == new_text || (now == old_text && !missing)) << n << now;
                    EXPECT_EQ(directory_.read("conf.kept"), now) << n;
                });
            EXPECT_EQ(restored, 1U);
        }
}

TEST_F(corvel_settings_recover, CanBeKilledAnywhereAndRepeated) {
    const std::vector<Found> cases = {{none, new_text, old_text},
                                      {std::string(), std::string(), old_text},
                                      {none, std::string(), old_text},
                                      {none, new_text, none},
                                      {new_text, none, none}};
    for (const Found &found : cases) {
        const std::string expected =
            found.copy == new_text || found.file == new_text ? new_text : old_text;
        for_each_kill_point([&] { prepare(found); }, [&] { static_cast<void>(recover()); },
                            [&](unsigned long n) {
                                EXPECT_GE(recover(), 0) << n;
                                EXPECT_EQ(content(), expected) << n;
                                EXPECT_EQ(directory_.read("conf.kept"), expected) << n;
                                EXPECT_FALSE(directory_.exists("conf.kept~")) << n;
                            });
    }
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

TEST_F(corvel_settings_recover, RestoresNoOldVersionWhileAWriterIsAtWork) {
    for (const OldWriter &old : old_writers)
        for (const AfterPause after : {AfterPause::go_on, AfterPause::die})
            for_each_pause_point(
                [&] {
                    prepare({old_text, none, "# Network\nA=\"0\"\n\nB=\"0\"\n"});
                },
                [&] { old.set(path(), "A", "x"); },
                [&] {
                    const corvel_settings_result result = recover();
                    if (result < 0 && result != CORVEL_SETTINGS_BUSY)
                        abort();
                    directory_.write("result", "");
                },
                after,
                [&](unsigned long n) {
                    EXPECT_TRUE(directory_.exists("result")) << n;
                    directory_.remove("result");
                    EXPECT_GE(recover(), 0) << n;
                    // One without the lock file gives up if it meets another at work.
                    const bool may_be_old = after == AfterPause::die || old.without_lock;
                    EXPECT_TRUE(content() == new_text || (may_be_old && content() == old_text))
                        << n << content();
                },
                std::chrono::milliseconds(10));
}

TEST_F(corvel_settings_recover, LetsALoadFindTheFileWhereverAWriterIsPaused) {
    for (const OldWriter &old : old_writers)
        for_each_pause_point(
            [&] {
                prepare({old_text, none, none});
            },
            [&] { old.set(path(), "A", "x"); },
            [&] {
                const Settings settings(path());
                // While it is between the removal and the renaming, one without the lock file
                // keeps the copy.
                if (settings.result() == CORVEL_SETTINGS_BUSY && old.without_lock)
                    return;
                const std::string value = settings.value("A").value_or("missing");
                if (value != "1" && value != "x")
                    abort();
                directory_.write("result", value);
            },
            AfterPause::go_on,
            [&](unsigned long n) {
                EXPECT_TRUE(directory_.exists("result") || old.without_lock) << n;
                EXPECT_EQ(content(), new_text) << n;
            },
            std::chrono::milliseconds(10));
}

/** What a writer does while the recovery reads the kept version. */
std::function<void()> before_kept_is_opened;

TEST_F(corvel_settings_recover, LeavesTheFileOfAFasterWriterWithoutTheLockFile) {
    stand_in_opened = [](int, const char *opened) {
        if (before_kept_is_opened && std::string(opened).ends_with(".kept"))
            std::exchange(before_kept_is_opened, nullptr)();
    };
    // It replaces a damaged file.
    prepare({"# Network\n", none, old_text});
    before_kept_is_opened = [&] {
        directory_.write("new", new_text);
        fs::rename(path("new"), path());
    };
    EXPECT_EQ(recover(), CORVEL_SETTINGS_BUSY);
    EXPECT_EQ(content(), new_text);
    // It is between the removal of the file, which then is missing, and the renaming of the copy.
    prepare({none, none, ""});
    before_kept_is_opened = [&] {
        directory_.write("conf.cgi", new_text);
    };
    EXPECT_EQ(recover(), CORVEL_SETTINGS_BUSY);
    EXPECT_EQ(directory_.read("conf.cgi"), new_text);
    stand_in_opened = nullptr;
}

TEST_F(corvel_settings_recover, ChangesNothingForAWriterThatComesInBetween) {
    const std::vector<Found> cases = {{none, new_text, old_text},
                                      {"# Network\nA=\"1\"\n", none, old_text},
                                      {none, std::string(), old_text},
                                      {old_text, none, none}};
    for (const Found &found : cases)
        for (const OldWriter &old : old_writers)
            for_each_pause_point([&] { prepare(found); }, [&] { static_cast<void>(recover()); },
                                 [&] { old.set(path(), "B", "y"); }, AfterPause::go_on,
                                 [&](unsigned long n) {
                                     EXPECT_GE(recover(), 0) << n;
                                     EXPECT_FALSE(content().empty()) << n;
                                     const Settings settings(path());
                                     EXPECT_NE(settings.value("A"), std::nullopt) << n;
                                     EXPECT_NE(settings.value("B"), std::nullopt) << n;
                                 },
                                 std::chrono::milliseconds(10));
}

} // namespace
