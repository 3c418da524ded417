// SPDX-License-Identifier: MIT
#include "page/confinement.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <grp.h>
#include <linux/audit.h>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace corvel {
namespace {

/// The architecture of this process in the kernel's terms; 0 if it has no filter here.
#if defined(__x86_64__)
constexpr std::uint32_t architecture = AUDIT_ARCH_X86_64;
#elif defined(__i386__)
constexpr std::uint32_t architecture = AUDIT_ARCH_I386;
#elif defined(__aarch64__)
constexpr std::uint32_t architecture = AUDIT_ARCH_AARCH64;
#elif defined(__arm__)
constexpr std::uint32_t architecture = AUDIT_ARCH_ARM;
#elif defined(__mips__) && _MIPS_SIM == _ABIO32 && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
constexpr std::uint32_t architecture = AUDIT_ARCH_MIPS;
#elif defined(__mips__) && _MIPS_SIM == _ABIO32
constexpr std::uint32_t architecture = AUDIT_ARCH_MIPSEL;
#else
constexpr std::uint32_t architecture = 0;
#endif

/// The system calls that are permitted. C libraries differ in which one a function makes.
constexpr std::uint32_t permitted_calls[] = {
    SYS_read,
    SYS_write,
    SYS_exit_group,
    SYS_rt_sigreturn,
    SYS_restart_syscall,
    SYS_ppoll,
    SYS_brk,
    SYS_munmap,
    SYS_mremap,
    SYS_madvise,
#ifdef SYS_poll
    SYS_poll,
#endif
#ifdef SYS_sigreturn
    SYS_sigreturn,
#endif
#ifdef SYS_clock_gettime
    SYS_clock_gettime,
#endif
#ifdef SYS_clock_gettime32
    SYS_clock_gettime32,
#endif
#ifdef SYS_clock_gettime64
    SYS_clock_gettime64,
    SYS_ppoll_time64,
#endif
};

/// Permitted unless the memory becomes executable.
constexpr std::uint32_t mapping_calls[] = {
    SYS_mprotect,
#ifdef SYS_mmap2
    SYS_mmap2,
#else
    SYS_mmap,
#endif
};

constexpr sock_filter load(std::size_t offset) {
    return {BPF_LD | BPF_W | BPF_ABS, 0, 0, static_cast<std::uint32_t>(offset)};
}

/// The jumps are counted from the next instruction.
constexpr sock_filter jump(std::uint16_t test, std::uint32_t value, std::size_t if_true,
                           std::size_t if_false) {
    return {static_cast<std::uint16_t>(BPF_JMP | BPF_K | test), static_cast<std::uint8_t>(if_true),
            static_cast<std::uint8_t>(if_false), value};
}

constexpr sock_filter result(std::uint32_t action) { return {BPF_RET | BPF_K, 0, 0, action}; }

/// The program with which the kernel decides about each system call.
constexpr auto filter = [] {
    constexpr std::size_t size = 3 + std::size(permitted_calls) + std::size(mapping_calls) + 4;
    constexpr std::size_t allow = size - 1;
    constexpr std::size_t kill = allow - 1;
    constexpr std::size_t mapping = kill - 2;
    // The lower half of the third argument is the protection.
    constexpr std::size_t protection =
        offsetof(seccomp_data, args) + 2 * sizeof(std::uint64_t) +
        (__BYTE_ORDER__ == __ORDER_BIG_ENDIAN__ ? sizeof(std::uint32_t) : 0);
    std::array<sock_filter, size> program{};
    program[0] = load(offsetof(seccomp_data, arch));
    program[1] = jump(BPF_JEQ, architecture, 0, kill - 2);
    program[2] = load(offsetof(seccomp_data, nr));
    std::size_t at = 3;
    for (const std::uint32_t call : permitted_calls) {
        ++at;
        program[at - 1] = jump(BPF_JEQ, call, allow - at, 0);
    }
    for (const std::uint32_t call : mapping_calls) {
        ++at;
        program[at - 1] = jump(BPF_JEQ, call, mapping - at, at == mapping ? kill - at : 0);
    }
    program[mapping] = load(protection);
    program[mapping + 1] = jump(BPF_JSET, PROT_EXEC, 0, 1);
    program[kill] = result(SECCOMP_RET_KILL_PROCESS);
    program[allow] = result(SECCOMP_RET_ALLOW);
    return program;
}();

int filter_system_calls() {
    const sock_fprog program = {filter.size(), const_cast<sock_filter *>(filter.data())};
    errno = ENOSYS;
    return architecture == 0 ? -1 : prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program);
}

using Resource = decltype(RLIMIT_CORE);

/// What the process does not get at all.
constexpr Resource resources[] = {RLIMIT_CORE, RLIMIT_FSIZE, RLIMIT_NPROC};

int limit(Resource resource, rlim_t value) {
    const rlimit both = {value, value};
    return setrlimit(resource, &both);
}

/// A process that could not become another user may still have all of root's.
int drop_capabilities() {
    __user_cap_header_struct version = {_LINUX_CAPABILITY_VERSION_3, 0};
    const __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {};
    return static_cast<int>(syscall(SYS_capset, &version, none));
}

/// Closes all descriptors but standard input and output.
void close_others() {
#ifdef SYS_close_range
    if (syscall(SYS_close_range, STDERR_FILENO, ~0U, 0) == 0)
        return;
#endif
    rlimit open_files{};
    getrlimit(RLIMIT_NOFILE, &open_files);
    for (rlim_t descriptor = STDERR_FILENO; descriptor < open_files.rlim_cur; ++descriptor)
        close(static_cast<int>(descriptor));
}

} // namespace

const char *confine(const corvel_containment &containment, pid_t parent) {
    const auto failed = [&containment](int status) {
        return status != 0 && !containment.accept_less;
    };
    const uid_t user = containment.user;
    const gid_t group = containment.group;
    close_others();
    int status = limit(RLIMIT_CPU, containment.seconds) | limit(RLIMIT_AS, containment.memory_max);
    // poll() accepts no more descriptors than the limit.
    status |= limit(RLIMIT_NOFILE, 1);
    for (const Resource resource : resources)
        status |= limit(resource, 0);
    if (failed(status))
        return "setrlimit";
    if (failed(setgroups(0, nullptr)))
        return "setgroups";
    if (failed(setresgid(group, group, group)))
        return "setresgid";
    if (failed(setresuid(user, user, user)))
        return "setresuid";
    if (failed(drop_capabilities()))
        return "capset";
    // A change of the user resets the latter two.
    if (failed(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) | prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) |
               prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0)))
        return "prctl";
    // If the parent ended before that, there is no signal.
    if (getppid() != parent)
        _exit(1);
    return failed(filter_system_calls()) ? "the filter of system calls" : nullptr;
}

} // namespace corvel
