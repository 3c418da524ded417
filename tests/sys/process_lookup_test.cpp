/* SPDX-License-Identifier: MIT */
#include <corvel.h>

#include "tests/support/child_process.h"
#include "tests/support/descriptors.h"
#include "tests/support/guarded_memory.h"
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
#include <ostream>
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

/** Called after each entry that readdir() returns. */
std::function<void(const dirent &)> after_readdir;

/** The error with which opendir() fails, or 0. */
int opendir_error;

} // namespace

extern "C" dirent *readdir(DIR *stream) {
    static auto *const next = corvel_test::next_definition<dirent *(DIR *)>("readdir");
    dirent *const entry = next(stream);
    if (entry != nullptr && after_readdir)
        after_readdir(*entry);
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

/** The list if no process matches. */
const std::vector<int> no_process = {-1};

/** Returns the processes found, including the terminator of the list. */
std::vector<int> processes_named(const char *name) {
    int *const found = find_pid_by_name(name);
    std::vector<int> processes(1, found[0]);
    for (std::size_t i = 0; found[i] > 0; ++i)
        processes.push_back(found[i + 1]);
    std::free(found);
    return processes;
}

/** Returns the list in which exactly these processes are found. */
std::vector<int> list_of(std::initializer_list<const NamedProcess *> processes) {
    std::vector<int> ids;
    for (const NamedProcess *process : processes)
        ids.push_back(process->id());
    ids.push_back(0);
    return ids;
}

/** Changes the name of this process to one that its command line starts with, and returns it. */
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

/** Replaces /proc by a directory whose contents no kernel would show. */
class OwnProc {
  public:
    OwnProc() {
        fs::create_directory(directory_);
        if (mount(directory_.c_str(), "/proc", nullptr, MS_BIND, nullptr) != 0)
            throw std::system_error(errno, std::generic_category(), "mount on /proc");
    }
    OwnProc(const OwnProc &) = delete;
    OwnProc &operator=(const OwnProc &) = delete;
    ~OwnProc() { umount2("/proc", MNT_DETACH); }

    void write_status(const std::string &entry, std::string_view text) const {
        write(entry, "status", text);
    }
    void write_command_line(const std::string &entry, std::string_view text) const {
        write(entry, "cmdline", text);
    }

  private:
    void write(const std::string &entry, const std::string &name, std::string_view text) const {
        fs::create_directory(directory_ + "/" + entry);
        write_file(directory_ + "/" + entry + "/" + name, text);
    }

    const std::string directory_ = "/tmp/proc";
};

// --- read_cmdline ---

/** Returns a buffer of exactly @p size + 1 bytes, filled with '#', after read_cmdline(). */
std::string command_line(int size, pid_t process) {
    const GuardedBlock buffer(std::string(static_cast<std::size_t>(size) + 1, '#'));
    read_cmdline(buffer.start(), size, static_cast<unsigned>(process));
    return std::string(buffer.bytes());
}

TEST(read_cmdline, ReadsTheWordsAsOneLine) {
    in_private_root([] {
        const NamedProcess process("server", {"one", "-", "-"});
        EXPECT_EQ(command_line(8, process.id()), "one - - \0"s);
        EXPECT_EQ(command_line(11, process.id()), "one - - \0###"s);
    });
}

TEST(read_cmdline, ReadsNoMoreThanTheSizeAndTerminatesIt) {
    in_private_root([] {
        const NamedProcess process("server", {"one", "-"});
        EXPECT_EQ(command_line(5, process.id()), "one -\0"s);
        EXPECT_EQ(command_line(4, process.id()), "one \0"s);
        EXPECT_EQ(command_line(3, process.id()), "one\0"s);
        EXPECT_EQ(command_line(1, process.id()), "o\0"s);
    });
}

TEST(read_cmdline, ReplacesEveryByteBelow32ByASpaceAndNoOther) {
    in_private_root([] {
        std::string bytes;
        for (int byte = 1; byte < 256; ++byte)
            bytes += static_cast<char>(byte);
        const NamedProcess process("server", {bytes});
        EXPECT_EQ(command_line(256, process.id()),
                  std::string(31, ' ') + bytes.substr(31) + ' ' + '\0');
    });
}

TEST(read_cmdline, LeavesTheBufferUnchangedIfThereIsNothingToRead) {
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

TEST(read_cmdline, LeavesTheBufferUnchangedForASizeBelowOne) {
    in_private_root([] {
        for (const int size : {0, -1, INT_MIN}) {
            char byte = '#';
            read_cmdline(&byte, size, static_cast<unsigned>(getpid()));
            EXPECT_EQ(byte, '#') << size;
            read_cmdline(nullptr, size, static_cast<unsigned>(getpid()));
        }
    });
}

// --- find_pid_by_name ---

TEST(find_pid_by_name, ReturnsMinusOneIfNoProcessMatches) {
    in_private_root([] { EXPECT_EQ(processes_named("server"), no_process); });
}

TEST(find_pid_by_name, FindsAProcessByItsWholeShortNameOnly) {
    in_private_root([] {
        const NamedProcess process("udhcpd");
        EXPECT_EQ(processes_named("udhcpd"), list_of({&process}));
        for (const char *name : {"udhcp", "udhcpd2", "dhcpd", "UDHCPD", "udhcpd ", "", "cat"})
            EXPECT_EQ(processes_named(name), no_process) << name;
    });
}

TEST(find_pid_by_name, FindsEveryProcessInTheOrderOfProc) {
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

TEST(find_pid_by_name, FindsNamesOfFifteenAndSixteenCharacters) {
    in_private_root([] {
        const NamedProcess fifteen("a23456789012345");
        const NamedProcess sixteen("b234567890123456");
        EXPECT_EQ(processes_named("a23456789012345"), list_of({&fifteen}));
        EXPECT_EQ(processes_named("b234567890123456"), list_of({&sixteen}));
        // The command line contains the kernel's truncated name, too.
        EXPECT_EQ(processes_named("b23456789012345"), list_of({&sixteen}));
        EXPECT_EQ(processes_named("b23456789012345x"), no_process);
        EXPECT_EQ(processes_named("a234567890123456"), no_process);
        EXPECT_EQ(processes_named("a2345678901234"), no_process);
    });
}

TEST(find_pid_by_name, FindsTheWholeOfALongNameInTheCommandLine) {
    in_private_root([] {
        const std::string name = "a23456789012345" + std::string(34, 'x');
        const NamedProcess process(name, {name});
        EXPECT_EQ(processes_named(name.c_str()), list_of({&process}));
        EXPECT_EQ(processes_named((name.substr(0, 48) + "y").c_str()), no_process);
        EXPECT_EQ(processes_named((name + "x").c_str()), no_process);
        EXPECT_EQ(processes_named((name + std::string(5000, 'x')).c_str()), no_process);
    });
}

TEST(find_pid_by_name, NeedsTheNameInTheFirst49BytesOfTheCommandLine) {
    in_private_root([] {
        const NamedProcess none("server", {"started-as-this"});
        EXPECT_EQ(processes_named("server"), no_process);
        const NamedProcess fits("server", {std::string(43, 'x') + "server"});
        EXPECT_EQ(processes_named("server"), list_of({&fits}));
        const NamedProcess truncated("server", {std::string(44, 'x') + "server"});
        EXPECT_EQ(processes_named("server"), list_of({&fits}));
        const NamedProcess inside("server", {"/usr/sbin/server-2", "-"});
        EXPECT_EQ(processes_named("server"), list_of({&fits, &inside}));
    });
}

TEST(find_pid_by_name, NeedsTheShortNameAndNotOnlyTheCommandLine) {
    in_private_root([] {
        const NamedProcess other("other", {"server", "-"});
        EXPECT_EQ(processes_named("server"), no_process);
    });
}

TEST(find_pid_by_name, ComparesAShortNameUpToItsFirstSpace) {
    in_private_root([] {
        const NamedProcess process("web server", {"web server"});
        EXPECT_EQ(processes_named("web"), list_of({&process}));
        EXPECT_EQ(processes_named("web server"), no_process);
        EXPECT_EQ(processes_named("server"), no_process);
    });
}

TEST(find_pid_by_name, SkipsAProcessWithoutACommandLine) {
    in_private_root([] {
        const NamedProcess zombie("server");
        zombie.leave_as_zombie();
        EXPECT_EQ(processes_named("server"), no_process);
        const NamedProcess process("server");
        EXPECT_EQ(processes_named("server"), list_of({&process}));
    });
    // A kernel thread, which exists if the machine shows its own processes.
    EXPECT_EQ(processes_named("kthreadd"), no_process);
}

TEST(find_pid_by_name, FindsNoProcessForANullName) {
    in_private_root([] {
        const NamedProcess process("server");
        EXPECT_EQ(processes_named(nullptr), no_process);
    });
}

TEST(find_pid_by_name, SkipsAProcessThatEndsDuringTheSearch) {
    in_private_root([] {
        NamedProcess gone("server");
        const NamedProcess zombie("server");
        const NamedProcess stays("server");
        const Instead ending(after_readdir, [&](const dirent &entry) {
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

TEST(find_pid_by_name, SkipsFilesThatCannotBeOpenedOrReadWithoutAMessage) {
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
            // The two processes of the test itself come first, with one file each; then the two
            // servers, with two files each. Each file takes one call.
            EXPECT_EQ(found_without(1), list_of({&first, &second}));
            EXPECT_EQ(found_without(2), list_of({&first, &second}));
            EXPECT_EQ(found_without(3), list_of({&second}));
            EXPECT_EQ(found_without(4), list_of({&second}));
            EXPECT_EQ(found_without(1000), list_of({&first, &second}));
        });
    }
}

TEST(find_pid_by_name, SkipsEntriesThatDoNotStartWithADigit) {
    in_private_root([] {
        const OwnProc proc;
        for (const char *entry : {"self", "x8", ".8", "-8", "+8", " 8"})
            proc.write_status(entry, "Name:\tserver\n");
        // Their names as numbers.
        for (const char *entry : {"0", "4294967288"})
            proc.write_command_line(entry, "server");
        proc.write_command_line("8", "server");
        EXPECT_EQ(processes_named("server"), no_process);
        proc.write_status("8", "Name:\tserver\n");
        EXPECT_EQ(processes_named("server"), (std::vector<int>{8, 0}));
    });
}

TEST(find_pid_by_name, ReadsAnEntrysNumberInTheBaseOfItsPrefix) {
    in_private_root([] {
        const OwnProc proc;
        for (const char *entry : {"8", "31", "12"})
            proc.write_command_line(entry, "server");
        const std::pair<const char *, int> entries[] = {{"010", 8}, {"0x1f", 31}, {"12nd", 12}};
        for (const auto &[entry, number] : entries) {
            proc.write_status(entry, "Name:\tserver\n");
            EXPECT_EQ(processes_named("server"), (std::vector<int>{number, 0}));
            fs::remove_all("/proc/"s + entry);
        }
        EXPECT_EQ(processes_named("server"), no_process);
    });
}

TEST(find_pid_by_name, UsesTheSecondWordOfAStatusFilesFirstLine) {
    in_private_root([] {
        const OwnProc proc;
        proc.write_command_line("8", "server");
        for (const char *status : {"Name:\tserver\nUmask:\t0022\n", "Name: server",
                                   "x\v server y\n", " \t Name:  server\r\n", "server server\n"}) {
            proc.write_status("8", status);
            EXPECT_EQ(processes_named("server"), (std::vector<int>{8, 0})) << status;
        }
        for (const std::string &status :
             {""s, "\n"s, "server\n"s, "Name:\nserver\n"s, "Name:server\n"s, "\nName:\tserver\n"s,
              "Name:\tother\nName:\tserver\n"s, "Name: my server\n"s, "Name:\0 server\n"s,
              "Name: ser\0ver\n"s}) {
            proc.write_status("8", status);
            EXPECT_EQ(processes_named("server"), no_process) << status;
        }
    });
}

TEST(find_pid_by_name, Reads48CharactersOfAStatusFilesFirstLine) {
    in_private_root([] {
        const OwnProc proc;
        proc.write_command_line("8", "server");
        const std::vector<int> found = {8, 0};
        for (std::size_t length = 40; length < 52; ++length) {
            proc.write_status("8", "Name:" + std::string(length - 11, ' ') + "server\n");
            EXPECT_EQ(processes_named("server"), length <= 48 ? found : no_process) << length;
            EXPECT_EQ(processes_named("serve"), length == 49 ? found : no_process) << length;
        }
    });
}

TEST(find_pid_by_name, FindsTheNameAnywhereInTheCommandLine) {
    in_private_root([] {
        const OwnProc proc;
        proc.write_status("8", "Name:\tserver\n");
        const std::vector<int> found = {8, 0};
        for (const std::string &line :
             {"server"s, "start\0server\0"s, "\0server"s, "a\0b\0/sbin/server-1\0"s}) {
            proc.write_command_line("8", line);
            EXPECT_EQ(processes_named("server"), found) << line;
        }
        for (const std::string &line : {""s, "ser\0ver\0"s, "SERVER"s, "serve"s}) {
            proc.write_command_line("8", line);
            EXPECT_EQ(processes_named("server"), no_process) << line;
        }
        // An empty command line does not even contain the empty name.
        proc.write_status("8", "Name:\t\n");
        proc.write_command_line("8", "");
        EXPECT_EQ(processes_named(""), no_process);
        // A name that the kernel truncates may extend over several words.
        proc.write_status("8", "Name:\ta23456789012345\n");
        proc.write_command_line("8", "a23456789012345\0-x\0"s);
        EXPECT_EQ(processes_named("a23456789012345 -x "), found);
        EXPECT_EQ(processes_named("a23456789012345 -y"), no_process);
    });
}

TEST(find_pid_by_name, FindsHundredsOfProcessesAndLeavesNothingOpen) {
    in_private_root([] {
        std::vector<NamedProcess> processes;
        std::vector<int> ids;
        for (int i = 0; i < 300; ++i) {
            processes.emplace_back("server");
            ids.push_back(processes.back().id());
        }
        ids.push_back(0);
        const std::vector<int> open_before = open_descriptors();
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(processes_named("server"), ids);
        EXPECT_EQ(processes_named("nobody"), no_process);
        EXPECT_EQ(app_isrun("server"), ids[0]);
        EXPECT_EQ(open_descriptors(), open_before);
    });
}

TEST(find_pid_by_name, DiesWithoutMemoryForItsResult) {
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
        const ChildResult nothing_found = run_in_child([] {
            const FailCall failing(call_realloc, 1, ENOMEM);
            find_pid_by_name("nobody");
        });
        EXPECT_EQ(nothing_found.err, "unknown app: memory exhausted\n");
        EXPECT_EQ(nothing_found.exit_status, 1);
    });
}

// --- app_isrun ---

/** Returns the number of blocks that a call leaves allocated. */
std::size_t blocks_left_by(const std::function<void()> &call) {
    stand_in_start_tracking();
    call();
    stand_in_pause_tracking();
    const std::size_t blocks = stand_in_live_blocks();
    stand_in_stop_tracking();
    return blocks;
}

TEST(app_isrun, ReturnsTheFirstProcessAndFreesTheList) {
    in_private_root([] {
        const NamedProcess first("server");
        const NamedProcess second("server");
        int process = -2;
        EXPECT_EQ(blocks_left_by([&] { process = app_isrun("server"); }), 0U);
        EXPECT_EQ(process, first.id());
    });
}

TEST(app_isrun, ReturnsZeroIfNoProcessMatchesAndLeavesOneBlock) {
    in_private_root([] {
        int process = -2;
        EXPECT_EQ(blocks_left_by([&] { process = app_isrun("server"); }), 1U);
        EXPECT_EQ(process, 0);
    });
}

TEST(app_isrun, ReturnsTheCallerIfItMatches) {
    in_private_root([] {
        const std::string name = name_of_own();
        EXPECT_EQ(app_isrun(name.c_str()), getpid());
    });
}

// --- is_runing ---

TEST(is_runing, ReturnsAnotherProcessAndFreesTheList) {
    in_private_root([] {
        const NamedProcess first("server");
        const NamedProcess second("server");
        int process = -2;
        EXPECT_EQ(blocks_left_by([&] { process = is_runing("server"); }), 0U);
        EXPECT_EQ(process, first.id());
    });
}

TEST(is_runing, ReturnsZeroIfNoProcessMatchesAndLeavesOneBlock) {
    in_private_root([] {
        int process = -2;
        EXPECT_EQ(blocks_left_by([&] { process = is_runing("server"); }), 1U);
        EXPECT_EQ(process, 0);
    });
}

TEST(is_runing, ReturnsZeroToTheOnlyInstanceAndFreesTheList) {
    in_private_root([] {
        const std::string name = name_of_own();
        EXPECT_EQ(processes_named(name.c_str()), (std::vector<int>{getpid(), 0}));
        int process = -2;
        EXPECT_EQ(blocks_left_by([&] { process = is_runing(name.c_str()); }), 0U);
        EXPECT_EQ(process, 0);
    });
}

TEST(is_runing, SkipsTheCallerAtAnyPosition) {
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

// --- All three lookups ---

/** A function that looks a process up by its name, for calls that do not return. */
struct Lookup {
    const char *name;
    void (*call)(const char *name);

    friend std::ostream &operator<<(std::ostream &out, const Lookup &lookup) {
        return out << lookup.name;
    }
};

class AnyLookup : public testing::TestWithParam<Lookup> {};

TEST_P(AnyLookup, DiesIfProcCannotBeOpened) {
    in_private_root([] {
        const ChildResult without_proc = run_in_child([] {
            EXPECT_EQ(chroot("/mnt"), 0);
            // A sanitizer would search for /proc at the exit.
            std::atexit([] { _exit(55); });
            GetParam().call("server");
        });
        EXPECT_EQ(without_proc.err, "unknown app: Cannot open /proc\n");
        EXPECT_EQ(without_proc.out, "");
        EXPECT_EQ(without_proc.exit_status, 55);
        for (const int status : {1, 7}) {
            const ChildResult refused = run_in_child([status] {
                opendir_error = EMFILE;
                bb_default_error_retval = status;
                GetParam().call("server");
            });
            EXPECT_EQ(refused.err, "unknown app: Cannot open /proc\n");
            EXPECT_EQ(refused.exit_status, status);
        }
    });
}

INSTANTIATE_TEST_SUITE_P(find_pid_by_name, AnyLookup,
                         testing::Values(Lookup{"Pids",
                                                [](const char *name) {
                                                    std::free(find_pid_by_name(name));
                                                }}),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(app_isrun, AnyLookup,
                         testing::Values(Lookup{"Running",
                                                [](const char *name) {
                                                    app_isrun(name);
                                                }}),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(is_runing, AnyLookup,
                         testing::Values(Lookup{"Running",
                                                [](const char *name) {
                                                    is_runing(name);
                                                }}),
                         testing::PrintToStringParamName());

// --- getPid ---

/** Returns the result of getPid() for a file with these contents. */
int pid_in_file(std::string_view text) {
    const TemporaryDirectory directory;
    directory.write("pid", text);
    const std::vector<int> open_before = open_descriptors();
    const int pid = getPid(directory.path("pid").c_str());
    EXPECT_EQ(open_descriptors(), open_before);
    return pid;
}

TEST(getPid, ReadsTheNumberAtTheStartOfTheFile) {
    EXPECT_EQ(pid_in_file("1234\n"), 1234);
    EXPECT_EQ(pid_in_file("1234"), 1234);
    EXPECT_EQ(pid_in_file(" \t 1234 5678\n"), 1234);
    EXPECT_EQ(pid_in_file("+12x"), 12);
    EXPECT_EQ(pid_in_file("-12\n"), -12);
    EXPECT_EQ(pid_in_file("0012\n"), 12);
    EXPECT_EQ(pid_in_file("0x12\n"), 0);
    EXPECT_EQ(pid_in_file("2147483647\n"), INT_MAX);
}

TEST(getPid, ReturnsZeroIfThereIsNoNumber) {
    EXPECT_EQ(pid_in_file(""), 0);
    EXPECT_EQ(pid_in_file("\n"), 0);
    EXPECT_EQ(pid_in_file("pid 1234\n"), 0);
    EXPECT_EQ(pid_in_file("- 1\n"), 0);
    EXPECT_EQ(pid_in_file("\0"s + "1234\n"), 0);
}

TEST(getPid, ReadsTheFirstLineOnly) {
    EXPECT_EQ(pid_in_file("\n1234\n"), 0);
    EXPECT_EQ(pid_in_file("12\n34\n"), 12);
}

TEST(getPid, DoesNotWaitForASecondLine) {
    const TemporaryDirectory directory;
    const std::string path = directory.path("pid");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const int writer = open(path.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(write(writer, "1234\n", 5), 5);
    alarm(20);
    EXPECT_EQ(getPid(path.c_str()), 1234);
    alarm(0);
    close(writer);
}

TEST(getPid, Reads99CharactersOfALine) {
    EXPECT_EQ(pid_in_file(std::string(95, ' ') + "1234\n"), 1234);
    EXPECT_EQ(pid_in_file(std::string(96, ' ') + "1234\n"), 123);
    EXPECT_EQ(pid_in_file(std::string(98, ' ') + "1234\n"), 1);
    EXPECT_EQ(pid_in_file(std::string(99, ' ') + "1234\n"), 0);
    EXPECT_EQ(pid_in_file(std::string(100000, '0') + "1\n"), 0);
}

TEST(getPid, ReturnsTheNearestIntIfTheNumberIsOutOfRange) {
    EXPECT_EQ(pid_in_file("2147483648\n"), INT_MAX);
    EXPECT_EQ(pid_in_file("99999999999999999999999999\n"), INT_MAX);
    EXPECT_EQ(pid_in_file("-99999999999999999999999999\n"), INT_MIN);
}

TEST(getPid, ReturnsMinusOneIfTheFileCannotBeRead) {
    const TemporaryDirectory directory;
    EXPECT_EQ(getPid(directory.path("missing").c_str()), -1);
    EXPECT_EQ(getPid(directory.path().c_str()), -1);
    EXPECT_EQ(getPid(nullptr), -1);
    directory.write("pid", "1234\n");
    const std::string path = directory.path("pid");
    fs::permissions(path, fs::perms::none);
    expect_as_ordinary_user([&] { EXPECT_EQ(getPid(path.c_str()), -1); });
}

TEST(getPid, PrintsNothing) {
    EXPECT_EQ(capture_stderr([] { EXPECT_EQ(getPid("/missing/file"), -1); }), "");
    EXPECT_EQ(capture_stdout([] { EXPECT_EQ(getPid("/missing/file"), -1); }), "");
}

} // namespace
} // namespace corvel_test
