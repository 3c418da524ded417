/* SPDX-License-Identifier: MIT */
#include <corvel.h>

#include "tests/support/child_process.h"
#include "tests/support/guarded_block.h"
#include "tests/support/named_process.h"
#include "tests/support/next_definition.h"
#include "tests/support/output_capture.h"
#include "tests/support/private_root.h"
#include "tests/support/stand_in.h"
#include "tests/support/temporary_directory.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <dirent.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

/** What happens behind each entry that is read of a folder. */
std::function<void(const dirent &)> behind_readdir;

/** What opendir() fails with, if it does. */
int opendir_error;

} // namespace

extern "C" dirent *readdir(DIR *folder) {
    static auto *const next = corvel_test::next_definition<dirent *(DIR *)>("readdir");
    dirent *const entry = next(folder);
    if (entry != nullptr && behind_readdir)
        behind_readdir(*entry);
    return entry;
}

extern "C" DIR *opendir(const char *path) {
    static auto *const next = corvel_test::next_definition<DIR *(const char *)>("opendir");
    if (opendir_error == 0)
        return next(path);
    errno = opendir_error;
    return nullptr;
}

namespace corvel_test {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;

const std::vector<int> nobody = {-1};

/** The processes found, with what ends their list. */
std::vector<int> processes_named(const char *name) {
    int *const found = find_pid_by_name(name);
    std::vector<int> processes(1, found[0]);
    for (std::size_t i = 0; found[i] > 0; ++i)
        processes.push_back(found[i + 1]);
    std::free(found);
    return processes;
}

std::vector<int> list_of(std::initializer_list<const NamedProcess *> processes) {
    std::vector<int> ids;
    for (const NamedProcess *process : processes)
        ids.push_back(process->id());
    ids.push_back(0);
    return ids;
}

/** Gives this process a name that its own command line begins with, and returns it. */
std::string name_of_own() {
    char line[16] = "";
    read_cmdline(line, 15, static_cast<unsigned>(getpid()));
    const std::string_view text = line;
    const std::string name(text.substr(0, text.find_first_of(" \\")));
    EXPECT_FALSE(name.empty());
    EXPECT_EQ(prctl(PR_SET_NAME, name.c_str()), 0);
    return name;
}

/** A copy of this process, with its name and command line. */
class Copy {
  public:
    Copy() : id_(fork()) {
        if (id_ == 0) {
            for (;;)
                pause();
        }
    }
    Copy(const Copy &) = delete;
    Copy &operator=(const Copy &) = delete;
    ~Copy() {
        kill(id_, SIGKILL);
        wait_for_child(id_);
    }
    [[nodiscard]] pid_t id() const { return id_; }

  private:
    pid_t id_;
};

/** A folder of the test's own in the place of /proc, which holds what no kernel shows. */
class OwnProc {
  public:
    OwnProc() {
        fs::create_directory(folder_);
        if (mount(folder_.c_str(), "/proc", nullptr, MS_BIND, nullptr) != 0)
            throw std::system_error(errno, std::generic_category(), "mount on /proc");
    }
    OwnProc(const OwnProc &) = delete;
    OwnProc &operator=(const OwnProc &) = delete;
    ~OwnProc() { umount2("/proc", MNT_DETACH); }

    void hold_status(const std::string &entry, std::string_view text) const {
        hold(entry, "status", text);
    }
    void hold_command_line(const std::string &entry, std::string_view text) const {
        hold(entry, "cmdline", text);
    }

  private:
    void hold(const std::string &entry, const std::string &name, std::string_view text) const {
        fs::create_directory(folder_ + "/" + entry);
        write_file(folder_ + "/" + entry + "/" + name, text);
    }

    const std::string folder_ = "/tmp/proc";
};

// read_cmdline

/** What is in a buffer of @p size + 1 bytes and no more, filled with '#', afterwards. */
std::string command_line(int size, pid_t process) {
    const GuardedBlock buffer(std::string(static_cast<std::size_t>(size) + 1, '#'));
    read_cmdline(buffer.start(), size, static_cast<unsigned>(process));
    return std::string(buffer.bytes());
}

TEST(ReadCmdline, ReadsTheWordsAsOneLine) {
    in_private_root([] {
        const NamedProcess process("server", {"one", "-", "-"});
        EXPECT_EQ(command_line(8, process.id()), "one - - \0"s);
        EXPECT_EQ(command_line(11, process.id()), "one - - \0###"s);
    });
}

TEST(ReadCmdline, ReadsNoMoreThanTheSizeAndTerminatesBehindIt) {
    in_private_root([] {
        const NamedProcess process("server", {"one", "-"});
        EXPECT_EQ(command_line(5, process.id()), "one -\0"s);
        EXPECT_EQ(command_line(4, process.id()), "one \0"s);
        EXPECT_EQ(command_line(3, process.id()), "one\0"s);
        EXPECT_EQ(command_line(1, process.id()), "o\0"s);
    });
}

TEST(ReadCmdline, TurnsEveryByteBelow32IntoABlankAndNoOther) {
    in_private_root([] {
        std::string bytes;
        for (int byte = 1; byte < 256; ++byte)
            bytes += static_cast<char>(byte);
        const NamedProcess process("server", {bytes});
        EXPECT_EQ(command_line(256, process.id()),
                  std::string(31, ' ') + bytes.substr(31) + ' ' + '\0');
    });
}

TEST(ReadCmdline, LeavesTheBufferUntouchedWhereThereIsNothingToRead) {
    in_private_root([] {
        const NamedProcess zombie("server");
        zombie.leave_as_zombie();
        for (const unsigned process :
             {static_cast<unsigned>(zombie.id()), 4194304U, 2147483648U, 4294967295U})
            EXPECT_EQ(command_line(20, static_cast<pid_t>(process)), std::string(21, '#'));
        const FailCall reading(call_read, 1);
        EXPECT_EQ(command_line(20, getpid()), std::string(21, '#'));
    });
}

TEST(ReadCmdline, LeavesTheBufferUntouchedForASizeBelowOne) {
    in_private_root([] {
        for (const int size : {0, -1, INT_MIN}) {
            char byte = '#';
            read_cmdline(&byte, size, static_cast<unsigned>(getpid()));
            EXPECT_EQ(byte, '#') << size;
            read_cmdline(nullptr, size, static_cast<unsigned>(getpid()));
        }
    });
}

// find_pid_by_name

TEST(FindPidByName, FindsNobody) {
    in_private_root([] { EXPECT_EQ(processes_named("server"), nobody); });
}

TEST(FindPidByName, FindsAProcessByItsWholeShortNameOnly) {
    in_private_root([] {
        const NamedProcess process("udhcpd");
        EXPECT_EQ(processes_named("udhcpd"), list_of({&process}));
        for (const char *name : {"udhcp", "udhcpd2", "dhcpd", "UDHCPD", "udhcpd ", "", "cat"})
            EXPECT_EQ(processes_named(name), nobody) << name;
    });
}

TEST(FindPidByName, FindsEveryProcessInTheOrderOfProc) {
    in_private_root([] {
        const NamedProcess first("server");
        const NamedProcess other("other");
        const NamedProcess second("server");
        const NamedProcess third("server");
        std::vector<int> listed;
        for (const auto &entry : fs::directory_iterator("/proc")) {
            const int id = std::atoi(entry.path().filename().c_str());
            if (id == first.id() || id == second.id() || id == third.id())
                listed.push_back(id);
        }
        listed.push_back(0);
        EXPECT_EQ(listed.size(), 4U);
        EXPECT_EQ(processes_named("server"), listed);
        EXPECT_EQ(processes_named("other"), list_of({&other}));
        EXPECT_EQ(app_isrun("server"), listed[0]);
        EXPECT_EQ(is_runing("server"), listed[0]);
    });
}

TEST(FindPidByName, FindsNamesOfFifteenAndSixteenCharacters) {
    in_private_root([] {
        const NamedProcess fifteen("a23456789012345");
        const NamedProcess sixteen("b234567890123456");
        EXPECT_EQ(processes_named("a23456789012345"), list_of({&fifteen}));
        EXPECT_EQ(processes_named("b234567890123456"), list_of({&sixteen}));
        // The kernel's cut name stands in the command line, too.
        EXPECT_EQ(processes_named("b23456789012345"), list_of({&sixteen}));
        EXPECT_EQ(processes_named("b23456789012345x"), nobody);
        EXPECT_EQ(processes_named("a234567890123456"), nobody);
        EXPECT_EQ(processes_named("a2345678901234"), nobody);
    });
}

TEST(FindPidByName, LooksForTheWholeOfALongNameInTheCommandLine) {
    in_private_root([] {
        const std::string name = "a23456789012345" + std::string(34, 'x');
        const NamedProcess process(name, {name});
        EXPECT_EQ(processes_named(name.c_str()), list_of({&process}));
        EXPECT_EQ(processes_named((name.substr(0, 48) + "y").c_str()), nobody);
        EXPECT_EQ(processes_named((name + "x").c_str()), nobody);
        EXPECT_EQ(processes_named((name + std::string(5000, 'x')).c_str()), nobody);
    });
}

TEST(FindPidByName, NeedsTheNameInTheFirst49BytesOfTheCommandLine) {
    in_private_root([] {
        const NamedProcess none("server", {"started-as-this"});
        EXPECT_EQ(processes_named("server"), nobody);
        const NamedProcess fits("server", {std::string(43, 'x') + "server"});
        EXPECT_EQ(processes_named("server"), list_of({&fits}));
        const NamedProcess cut("server", {std::string(44, 'x') + "server"});
        EXPECT_EQ(processes_named("server"), list_of({&fits}));
        const NamedProcess inside("server", {"/usr/sbin/server-2", "-"});
        EXPECT_EQ(processes_named("server"), list_of({&fits, &inside}));
    });
}

TEST(FindPidByName, NeedsTheShortNameNotJustTheCommandLine) {
    in_private_root([] {
        const NamedProcess other("other", {"server", "-"});
        EXPECT_EQ(processes_named("server"), nobody);
    });
}

TEST(FindPidByName, TakesAShortNameUpToItsFirstBlank) {
    in_private_root([] {
        const NamedProcess process("web server", {"web server"});
        EXPECT_EQ(processes_named("web"), list_of({&process}));
        EXPECT_EQ(processes_named("web server"), nobody);
        EXPECT_EQ(processes_named("server"), nobody);
    });
}

TEST(FindPidByName, PassesOverAProcessWithoutACommandLine) {
    in_private_root([] {
        const NamedProcess zombie("server");
        zombie.leave_as_zombie();
        EXPECT_EQ(processes_named("server"), nobody);
        const NamedProcess process("server");
        EXPECT_EQ(processes_named("server"), list_of({&process}));
    });
    // A kernel's own thread; it runs wherever the machine shows its own processes.
    EXPECT_EQ(processes_named("kthreadd"), nobody);
}

TEST(FindPidByName, FindsNobodyOfNoName) {
    in_private_root([] {
        const NamedProcess process("server");
        EXPECT_EQ(processes_named(nullptr), nobody);
    });
}

TEST(FindPidByName, PassesOverAProcessThatIsGoneWhenItIsLookedAt) {
    in_private_root([] {
        NamedProcess gone("server");
        const NamedProcess zombie("server");
        const NamedProcess stays("server");
        const Instead meanwhile(behind_readdir, [&](const dirent &entry) {
            if (entry.d_name == std::to_string(gone.id()))
                gone.end();
            if (entry.d_name == std::to_string(zombie.id()))
                zombie.leave_as_zombie();
        });
        EXPECT_EQ(capture_stderr([&] { EXPECT_EQ(processes_named("server"), list_of({&stays})); }),
                  "");
        EXPECT_EQ(gone.id(), 0);
    });
}

TEST(FindPidByName, PassesOverWhatCannotBeOpenedOrReadWithoutAMessage) {
    for (const stand_in_call call : {call_open, call_read}) {
        in_private_root([call] {
            const NamedProcess first("server");
            const NamedProcess second("server");
            const auto found_without = [call](unsigned long n) {
                std::vector<int> found;
                EXPECT_EQ(capture_stderr([&] {
                              const FailCall failing(call, n, ESRCH);
                              found = processes_named("server");
                          }),
                          "");
                return found;
            };
            // The two processes of the test itself come first. Of each of the others a first file
            // is opened, and a second one; each is read to its end, but no further than is needed.
            EXPECT_EQ(found_without(1), list_of({&first, &second}));
            EXPECT_EQ(found_without(2), list_of({&first, &second}));
            EXPECT_EQ(found_without(3), list_of({&second}));
            EXPECT_EQ(found_without(4), list_of({&second}));
            EXPECT_EQ(found_without(1000), list_of({&first, &second}));
        });
    }
}

TEST(FindPidByName, PassesOverEntriesThatDoNotBeginWithADigit) {
    in_private_root([] {
        const OwnProc proc;
        for (const char *entry : {"self", "x8", ".8", "-8", "+8", " 8"})
            proc.hold_status(entry, "Name:\tserver\n");
        // What their names are as numbers.
        for (const char *entry : {"0", "4294967288"})
            proc.hold_command_line(entry, "server");
        proc.hold_command_line("8", "server");
        EXPECT_EQ(processes_named("server"), nobody);
        proc.hold_status("8", "Name:\tserver\n");
        EXPECT_EQ(processes_named("server"), (std::vector<int>{8, 0}));
    });
}

TEST(FindPidByName, ReadsAnEntrysNumberInTheBaseThatItIsWrittenIn) {
    in_private_root([] {
        const OwnProc proc;
        for (const char *entry : {"8", "31", "12"})
            proc.hold_command_line(entry, "server");
        const std::pair<const char *, int> entries[] = {{"010", 8}, {"0x1f", 31}, {"12nd", 12}};
        for (const auto &[entry, number] : entries) {
            proc.hold_status(entry, "Name:\tserver\n");
            EXPECT_EQ(processes_named("server"), (std::vector<int>{number, 0}));
            fs::remove_all("/proc/"s + entry);
        }
        EXPECT_EQ(processes_named("server"), nobody);
    });
}

TEST(FindPidByName, TakesTheSecondWordOfAStatusFilesFirstLine) {
    in_private_root([] {
        const OwnProc proc;
        proc.hold_command_line("8", "server");
        for (const char *status : {"Name:\tserver\nUmask:\t0022\n", "Name: server",
                                   "x\v server y\n", " \t Name:  server\r\n", "server server\n"}) {
            proc.hold_status("8", status);
            EXPECT_EQ(processes_named("server"), (std::vector<int>{8, 0})) << status;
        }
        for (const std::string &status :
             {""s, "\n"s, "server\n"s, "Name:\nserver\n"s, "Name:server\n"s, "\nName:\tserver\n"s,
              "Name:\tother\nName:\tserver\n"s, "Name: my server\n"s, "Name:\0 server\n"s,
              "Name: ser\0ver\n"s}) {
            proc.hold_status("8", status);
            EXPECT_EQ(processes_named("server"), nobody) << status;
        }
    });
}

TEST(FindPidByName, Reads48CharactersOfAStatusFilesFirstLine) {
    in_private_root([] {
        const OwnProc proc;
        proc.hold_command_line("8", "server");
        const std::vector<int> found = {8, 0};
        for (std::size_t length = 40; length < 52; ++length) {
            proc.hold_status("8", "Name:" + std::string(length - 11, ' ') + "server\n");
            EXPECT_EQ(processes_named("server"), length <= 48 ? found : nobody) << length;
            EXPECT_EQ(processes_named("serve"), length == 49 ? found : nobody) << length;
        }
    });
}

TEST(FindPidByName, LooksForTheNameAnywhereInTheCommandLine) {
    in_private_root([] {
        const OwnProc proc;
        proc.hold_status("8", "Name:\tserver\n");
        const std::vector<int> found = {8, 0};
        for (const std::string &line :
             {"server"s, "start\0server\0"s, "\0server"s, "a\0b\0/sbin/server-1\0"s}) {
            proc.hold_command_line("8", line);
            EXPECT_EQ(processes_named("server"), found) << line;
        }
        for (const std::string &line : {""s, "ser\0ver\0"s, "SERVER"s, "serve"s}) {
            proc.hold_command_line("8", line);
            EXPECT_EQ(processes_named("server"), nobody) << line;
        }
        // Not even no name stands in a command line that is empty.
        proc.hold_status("8", "Name:\t\n");
        proc.hold_command_line("8", "");
        EXPECT_EQ(processes_named(""), nobody);
        // A name that the kernel cuts may go on over several words.
        proc.hold_status("8", "Name:\ta23456789012345\n");
        proc.hold_command_line("8", "a23456789012345\0-x\0"s);
        EXPECT_EQ(processes_named("a23456789012345 -x "), found);
        EXPECT_EQ(processes_named("a23456789012345 -y"), nobody);
    });
}

TEST(FindPidByName, FindsHundredsAndLeavesNothingOpen) {
    in_private_root([] {
        std::vector<NamedProcess> processes;
        std::vector<int> ids;
        for (int i = 0; i < 300; ++i) {
            processes.emplace_back("server");
            ids.push_back(processes.back().id());
        }
        ids.push_back(0);
        const std::vector<std::string> open_before = open_descriptors();
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(processes_named("server"), ids);
        EXPECT_EQ(processes_named("nobody"), nobody);
        EXPECT_EQ(app_isrun("server"), ids[0]);
        EXPECT_EQ(open_descriptors(), open_before);
    });
}

TEST(FindPidByName, DiesWhereProcCannotBeOpened) {
    in_private_root([] {
        const std::function<void()> lookups[] = {[] { find_pid_by_name("server"); },
                                                 [] { app_isrun("server"); },
                                                 [] {
                                                     is_runing("server");
                                                 }};
        for (const auto &look_up : lookups) {
            const ChildResult without_proc = run_in_child([&] {
                EXPECT_EQ(chroot("/mnt"), 0);
                // A sanitizer would look for /proc at the exit.
                std::atexit([] { _exit(55); });
                look_up();
            });
            EXPECT_EQ(without_proc.err, "unknown app: Cannot open /proc\n");
            EXPECT_EQ(without_proc.out, "");
            EXPECT_EQ(without_proc.exit_status, 55);
            for (const int status : {1, 7}) {
                const ChildResult refused = run_in_child([&] {
                    opendir_error = EMFILE;
                    bb_default_error_retval = status;
                    look_up();
                });
                EXPECT_EQ(refused.err, "unknown app: Cannot open /proc\n");
                EXPECT_EQ(refused.exit_status, status);
            }
        }
    });
}

TEST(FindPidByName, DiesWhereThereIsNoMemoryForItsResult) {
    in_private_root([] {
        const NamedProcess first("server");
        const NamedProcess second("server");
        for (const unsigned long n : {1UL, 2UL}) {
            const ChildResult child = run_in_child([n] {
                const FailCall failing(call_realloc, n, ENOMEM);
                find_pid_by_name("server");
            });
            EXPECT_EQ(child.err, "unknown app: memory exhausted\n");
            EXPECT_EQ(child.exit_status, 1);
        }
        const ChildResult nobody_found = run_in_child([] {
            const FailCall failing(call_realloc, 1, ENOMEM);
            find_pid_by_name("nobody");
        });
        EXPECT_EQ(nobody_found.err, "unknown app: memory exhausted\n");
        EXPECT_EQ(nobody_found.exit_status, 1);
    });
}

// app_isrun and is_runing

/** How many blocks a call leaves allocated. */
std::size_t blocks_left_by(const std::function<void()> &call) {
    stand_in_start_tracking();
    call();
    stand_in_pause_tracking();
    const std::size_t blocks = stand_in_live_blocks();
    stand_in_stop_tracking();
    return blocks;
}

TEST(AppIsrun, ReturnsTheFirstProcessAndFreesTheList) {
    in_private_root([] {
        const NamedProcess first("server");
        const NamedProcess second("server");
        int process = -2;
        EXPECT_EQ(blocks_left_by([&] { process = app_isrun("server"); }), 0U);
        EXPECT_EQ(process, first.id());
    });
}

TEST(AppIsrun, ReturnsZeroForNobodyAndLeavesOneBlock) {
    in_private_root([] {
        int process = -2;
        EXPECT_EQ(blocks_left_by([&] { process = app_isrun("server"); }), 1U);
        EXPECT_EQ(process, 0);
    });
}

TEST(AppIsrun, ReturnsTheCallerToo) {
    in_private_root([] {
        const std::string name = name_of_own();
        EXPECT_EQ(app_isrun(name.c_str()), getpid());
    });
}

TEST(IsRuning, ReturnsAnotherProcessAndFreesTheList) {
    in_private_root([] {
        const NamedProcess first("server");
        const NamedProcess second("server");
        int process = -2;
        EXPECT_EQ(blocks_left_by([&] { process = is_runing("server"); }), 0U);
        EXPECT_EQ(process, first.id());
    });
}

TEST(IsRuning, ReturnsZeroForNobodyAndLeavesOneBlock) {
    in_private_root([] {
        int process = -2;
        EXPECT_EQ(blocks_left_by([&] { process = is_runing("server"); }), 1U);
        EXPECT_EQ(process, 0);
    });
}

TEST(IsRuning, ReturnsZeroToTheOnlyInstanceAndFreesTheList) {
    in_private_root([] {
        const std::string name = name_of_own();
        EXPECT_EQ(processes_named(name.c_str()), (std::vector<int>{getpid(), 0}));
        int process = -2;
        EXPECT_EQ(blocks_left_by([&] { process = is_runing(name.c_str()); }), 0U);
        EXPECT_EQ(process, 0);
    });
}

TEST(IsRuning, PassesOverTheCallerWhereverItStands) {
    in_private_root([] {
        const std::string name = name_of_own();
        const Copy second;
        const Copy third;
        EXPECT_EQ(processes_named(name.c_str()),
                  (std::vector<int>{getpid(), second.id(), third.id(), 0}));
        EXPECT_EQ(is_runing(name.c_str()), second.id());
        const pid_t first = getpid();
        expect_in_child([&] { EXPECT_EQ(is_runing(name.c_str()), first); });
    });
}

// getPid

int pid_in_file(std::string_view text) {
    const TemporaryDirectory folder;
    folder.write("pid", text);
    const std::size_t open_before = open_descriptors().size();
    const int pid = getPid(folder.path("pid").c_str());
    EXPECT_EQ(open_descriptors().size(), open_before);
    return pid;
}

TEST(GetPid, ReadsTheNumberThatAFileBeginsWith) {
    EXPECT_EQ(pid_in_file("1234\n"), 1234);
    EXPECT_EQ(pid_in_file("1234"), 1234);
    EXPECT_EQ(pid_in_file(" \t 1234 5678\n"), 1234);
    EXPECT_EQ(pid_in_file("+12x"), 12);
    EXPECT_EQ(pid_in_file("-12\n"), -12);
    EXPECT_EQ(pid_in_file("0012\n"), 12);
    EXPECT_EQ(pid_in_file("0x12\n"), 0);
    EXPECT_EQ(pid_in_file("2147483647\n"), INT_MAX);
}

TEST(GetPid, ReadsNothingAsZero) {
    EXPECT_EQ(pid_in_file(""), 0);
    EXPECT_EQ(pid_in_file("\n"), 0);
    EXPECT_EQ(pid_in_file("pid 1234\n"), 0);
    EXPECT_EQ(pid_in_file("- 1\n"), 0);
    EXPECT_EQ(pid_in_file("\0"s + "1234\n"), 0);
}

TEST(GetPid, ReadsTheFirstLineOnly) {
    EXPECT_EQ(pid_in_file("\n1234\n"), 0);
    EXPECT_EQ(pid_in_file("12\n34\n"), 12);
}

TEST(GetPid, WaitsForNothingBehindTheFirstLine) {
    const TemporaryDirectory folder;
    const std::string path = folder.path("pid");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const int writer = open(path.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(write(writer, "1234\n", 5), 5);
    alarm(20);
    EXPECT_EQ(getPid(path.c_str()), 1234);
    alarm(0);
    close(writer);
}

TEST(GetPid, Reads99CharactersOfALine) {
    EXPECT_EQ(pid_in_file(std::string(95, ' ') + "1234\n"), 1234);
    EXPECT_EQ(pid_in_file(std::string(96, ' ') + "1234\n"), 123);
    EXPECT_EQ(pid_in_file(std::string(98, ' ') + "1234\n"), 1);
    EXPECT_EQ(pid_in_file(std::string(99, ' ') + "1234\n"), 0);
    EXPECT_EQ(pid_in_file(std::string(100000, '0') + "1\n"), 0);
}

TEST(GetPid, TakesTheNearestNumberWhereOneIsTooLarge) {
    EXPECT_EQ(pid_in_file("2147483648\n"), INT_MAX);
    EXPECT_EQ(pid_in_file("99999999999999999999999999\n"), INT_MAX);
    EXPECT_EQ(pid_in_file("-99999999999999999999999999\n"), INT_MIN);
}

TEST(GetPid, ReturnsMinusOneWhereTheFileCannotBeRead) {
    const TemporaryDirectory folder;
    EXPECT_EQ(getPid(folder.path("missing").c_str()), -1);
    EXPECT_EQ(getPid(folder.path().c_str()), -1);
    EXPECT_EQ(getPid(nullptr), -1);
    folder.write("pid", "1234\n");
    const std::string path = folder.path("pid");
    fs::permissions(path, fs::perms::none);
    expect_as_ordinary_user([&] { EXPECT_EQ(getPid(path.c_str()), -1); });
}

TEST(GetPid, PrintsNothing) {
    EXPECT_EQ(capture_stderr([] { EXPECT_EQ(getPid("/not/there"), -1); }), "");
    EXPECT_EQ(capture_stdout([] { EXPECT_EQ(getPid("/not/there"), -1); }), "");
}

} // namespace
} // namespace corvel_test
