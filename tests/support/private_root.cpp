/* SPDX-License-Identifier: MIT */
#include "tests/support/private_root.h"

#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace corvel_test {

namespace {

namespace fs = std::filesystem;

/** The directories that the machine's programs need; symbolic links are copied as links. */
constexpr std::array machine_directories = {"usr", "bin", "lib", "lib32", "lib64", "libx32"};
constexpr std::array own_directories = {"etc", "sbin",    "tmp",  "var", "var/config", "proc",
                                        "dev", "var/run", "root", "mnt", "dev/shm"};
constexpr std::array devices = {"null", "zero", "full", "random", "urandom"};

[[noreturn]] void impossible(const std::string &step) {
    throw std::system_error(errno, std::generic_category(),
                            "a private root is not possible here: " + step);
}

void mount_or_fail(const std::string &source, const std::string &target, const char *type,
                   unsigned long flags, const std::string &options = "") {
    if (mount(source.c_str(), target.c_str(), type, flags, options.c_str()) != 0)
        impossible("mounting " + source + " on " + target);
}

/** The current flags of a mount, which a user namespace is not allowed to clear. */
unsigned long flags_of_mount(const std::string &path) {
    struct statvfs status {};
    if (statvfs(path.c_str(), &status) != 0)
        impossible("statvfs " + path);
    constexpr std::array<std::pair<unsigned long, unsigned long>, 6> pairs = {
        {{ST_NOSUID, MS_NOSUID},
         {ST_NODEV, MS_NODEV},
         {ST_NOEXEC, MS_NOEXEC},
         {ST_NOATIME, MS_NOATIME},
         {ST_NODIRATIME, MS_NODIRATIME},
         {ST_RELATIME, MS_RELATIME}}};
    unsigned long flags = 0;
    for (const auto &[reported, flag] : pairs)
        flags |= (status.f_flag & reported) != 0 ? flag : 0UL;
    return flags;
}

void bind_read_only(const std::string &source, const std::string &target) {
    mount_or_fail(source, target, nullptr, MS_BIND | MS_REC);
    mount_or_fail(source, target, nullptr,
                  MS_REMOUNT | MS_BIND | MS_RDONLY | flags_of_mount(target));
}

void show_machine_directories(const std::string &root) {
    for (const std::string name : machine_directories) {
        const fs::path original = "/" + name;
        const fs::path shown = root + "/" + name;
        if (fs::is_symlink(original)) {
            fs::copy_symlink(original, shown);
        } else if (fs::is_directory(original)) {
            fs::create_directory(shown);
            bind_read_only(original.string(), shown.string());
        }
    }
}

void show_devices(const std::string &root) {
    for (const std::string name : devices) {
        const std::string shown = root + "/dev/" + name;
        write_file(shown, "");
        mount_or_fail("/dev/" + name, shown, nullptr, MS_BIND);
    }
    fs::create_symlink("/proc/self/fd", root + "/dev/fd");
    fs::create_symlink("/proc/self/fd/0", root + "/dev/stdin");
    fs::create_symlink("/proc/self/fd/1", root + "/dev/stdout");
    fs::create_symlink("/proc/self/fd/2", root + "/dev/stderr");
}

void enter(const std::string &root) {
    if (chdir(root.c_str()) != 0)
        impossible("entering " + root);
    // With both paths equal, the old root is mounted on top of the new one and can be unmounted.
    if (syscall(SYS_pivot_root, ".", ".") != 0)
        impossible("pivot_root");
    if (umount2(".", MNT_DETACH) != 0 || chdir("/") != 0)
        impossible("unmounting the machine's root");
}

void switch_loopback_on() {
    const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct ifreq request {};
    std::snprintf(request.ifr_name, sizeof request.ifr_name, "lo");
    request.ifr_flags = IFF_UP;
    if (descriptor < 0 || ioctl(descriptor, SIOCSIFFLAGS, &request) != 0)
        impossible("enabling the loopback interface");
    close(descriptor);
}

/** Runs as the first process of the new PID namespace, still in the machine's root. */
void build_and_enter(const std::string &directory) {
    mount_or_fail("none", "/", nullptr, MS_REC | MS_PRIVATE);
    mount_or_fail("tmpfs", directory, "tmpfs", MS_NOSUID, "mode=755,size=64m");
    umask(022);
    for (const std::string name : own_directories)
        fs::create_directory(directory + "/" + name);
    show_machine_directories(directory);
    show_devices(directory);
    mount_or_fail("proc", directory + "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC);
#ifdef CORVEL_COVERAGE_DIRECTORY
    // Coverage counters are written to the build directory.
    fs::create_directories(directory + CORVEL_COVERAGE_DIRECTORY);
    mount_or_fail(CORVEL_COVERAGE_DIRECTORY, directory + CORVEL_COVERAGE_DIRECTORY, nullptr,
                  MS_BIND);
#endif
    enter(directory);
    if (chmod("/tmp", 01777) != 0)
        impossible("chmod /tmp");
    switch_loopback_on();
}

void write_map(const char *name, const std::string &text) {
    write_file(std::string("/proc/self/") + name, text);
}

/** Whether this process is root in a user namespace created by an ordinary user. */
bool is_root_by_ordinary_user() {
    std::istringstream map(read_file("/proc/self/uid_map"));
    uid_t inside = 0;
    uid_t outside = 0;
    return map >> inside >> outside && inside == geteuid() && outside == ordinary_user_id;
}

/** Creates a user namespace in which this process is root. */
void become_root_of_namespace() {
    const std::string user = std::to_string(geteuid());
    const std::string group = std::to_string(getegid());
    if (unshare(CLONE_NEWUSER) != 0)
        impossible("unshare of the user namespace");
    write_map("setgroups", "deny");
    write_map("uid_map", "0 " + user + " 1");
    write_map("gid_map", "0 " + group + " 1");
}

/** Waits for the body and for all processes that its commands left running, as init does. */
[[noreturn]] void wait_as_init(pid_t body) {
    int status = 0;
    pid_t ended = 0;
    while ((ended = waitpid(-1, &status, 0)) > 0 || errno == EINTR) {
        if (ended == body)
            _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
    }
    _exit(127);
}

int run_as_init(const std::string &directory, const std::function<void()> &body) {
    const int built = status_of_assertions([&directory] { build_and_enter(directory); });
    if (built != 0)
        return built;
    const pid_t child = fork();
    if (child < 0)
        return 127;
    if (child > 0)
        wait_as_init(child);
    return status_of_assertions(body);
}

int run_in_namespaces(const std::string &directory, RootMaker maker,
                      const std::function<void()> &body) {
    const int unshared = status_of_assertions([maker] {
        // An emulator cannot enter such a namespace, and is started in one.
        if (maker == RootMaker::ordinary_user && !is_root_by_ordinary_user())
            become_ordinary_user();
        if (geteuid() != 0)
            become_root_of_namespace();
        if (unshare(CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWPID) != 0)
            impossible("unshare of the mount, network and PID namespaces");
    });
    if (unshared != 0)
        return unshared;
    const pid_t init = fork();
    if (init < 0)
        return 127;
    if (init == 0) {
        // If the parent is killed, nothing else would end the namespace.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        end_child(run_as_init(directory, body));
    }
    const ChildResult result = wait_for_child(init);
    return result.signal != 0 ? 128 + result.signal : result.exit_status;
}

} // namespace

std::vector<RootMaker> root_makers() {
    if (geteuid() == 0)
        return {RootMaker::current_user, RootMaker::ordinary_user};
    return {RootMaker::current_user};
}

void in_private_root(const std::function<void()> &body, RootMaker maker) {
    const TemporaryDirectory directory;
    expect_success(
        run_status_in_child([&] { return run_in_namespaces(directory.path(), maker, body); }),
        "the private root");
}

void write_program(const std::string &path, std::string_view text) {
    write_file(path, text);
    fs::permissions(path, fs::perms{0755});
}

void mount_small_disk(const std::string &directory, std::size_t size) {
    fs::create_directories(directory);
    mount_or_fail("tmpfs", directory, "tmpfs", MS_NOSUID, "mode=755,size=" + std::to_string(size));
}

} // namespace corvel_test
