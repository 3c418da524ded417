/* SPDX-License-Identifier: MIT */
/** Every descriptor that the library opens has the close-on-exec flag from the start, so that no
 * program that the process starts meanwhile inherits it. */
#include <corvel.h>

#include "tests/support/next_definition.h"
#include "tests/support/output_capture.h"
#include "tests/support/private_root.h"
#include "tests/support/stand_in_calls.h"
#include "tests/support/temporary_directory.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <initializer_list>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

/** Called with each descriptor that a function of the C library opens, and a name. */
std::function<void(int, const char *)> opened;

void report(int descriptor, const char *name) {
    if (opened && descriptor >= 0)
        opened(descriptor, name);
}

} // namespace

extern "C" DIR *opendir(const char *path) {
    static auto *const next = corvel_test::next_definition<DIR *(const char *)>("opendir");
    DIR *const directory = next(path);
    if (directory != nullptr)
        report(dirfd(directory), path);
    return directory;
}

extern "C" int socket(int family, int type, int protocol) C_LIBRARY_NOEXCEPT {
    static auto *const next = corvel_test::next_definition<int(int, int, int)>("socket");
    const int descriptor = next(family, type, protocol);
    report(descriptor, "socket");
    return descriptor;
}

namespace corvel_test {
namespace {

/** Expects that a call opens at least @p least descriptors, all with the close-on-exec flag. */
void expect_closed_on_exec(std::size_t least, const std::function<void()> &call) {
    std::vector<std::string> closed;
    std::vector<std::string> inherited;
    {
        const Instead watch(opened, [&](int descriptor, const char *name) {
            const bool is_closed = (fcntl(descriptor, F_GETFD) & FD_CLOEXEC) != 0;
            (is_closed ? closed : inherited).emplace_back(name);
        });
        stand_in_opened = report;
        call();
        stand_in_opened = nullptr;
    }
    EXPECT_GE(closed.size(), least);
    EXPECT_EQ(inherited, std::vector<std::string>{});
}

constexpr const char *file = "/root/file";

TEST(CloseOnExec, IsSetByThePropertyTable) {
    in_private_root([] {
        write_file(file, "a=1\n");
        prop_entry table[2] = {};
        expect_closed_on_exec(1, [&] { EXPECT_EQ(load_prop('=', file, table), 1); });
        free_prop(table, 1);
    });
}

TEST(CloseOnExec, IsSetByConfigurationSaving) {
    in_private_root([] {
        write_file(file, "a=1\n");
        prop_entry table[2] = {};
        ASSERT_EQ(load_prop('=', file, table), 1);
        // The lock file, the file and its copy.
        expect_closed_on_exec(3, [&] { save_prop('=', file, table, 1); });
        expect_closed_on_exec(3, [&] { save_global_conf('=', file, "", "a", "2"); });
        free_prop(table, 1);
    });
}

TEST(CloseOnExec, IsSetByThePageTemplate) {
    in_private_root([] {
        write_file(file, "page\n");
        str_node *list = nullptr;
        EXPECT_EQ(
            capture_stdout([&] { expect_closed_on_exec(1, [&] { print_html(file, &list); }); }),
            "page\n");
    });
}

TEST(CloseOnExec, IsSetByTheBootEnvironmentArgumentsAndParameter) {
    in_private_root([] {
        static_cast<void>(capture_stdout([] {
            expect_closed_on_exec(1, [] { init_env("/dev/zero"); });
            expect_closed_on_exec(1, [] { get_rootid("/dev/zero"); });
            expect_closed_on_exec(1, [] { EXPECT_EQ(save_param(file, "a", "1"), 0); });
            write_file("/dev/mtdblock1", read_file(file));
            expect_closed_on_exec(1, [] { get_bootparam(); });
            expect_closed_on_exec(1, [] { EXPECT_EQ(save_bootparam(), 0U); });
        }));
    });
}

TEST(CloseOnExec, IsSetByTheFirmwareParser) {
    in_private_root([] {
        write_file(file, "bytes");
        expect_closed_on_exec(1, [] { EXPECT_EQ(flash_write(file, "B", 0, 1), 1); });
        expect_closed_on_exec(2, [] { EXPECT_EQ(file_copy(file, "/root/copy"), 0); });
        EXPECT_EQ(read_file("/root/copy"), "Bytes");
    });
}

TEST(CloseOnExec, IsSetByConversions) {
    in_private_root([] {
        write_file(file, "3.5\n");
        char text[16] = "";
        expect_closed_on_exec(1, [&] { get_val_from_file(file, text, sizeof text); });
        EXPECT_STREQ(text, "3.500000");
    });
}

TEST(CloseOnExec, IsSetByInterfaceAddressesRoutesAndNeighbours) {
    in_private_root([] {
        unsigned char address[CORVEL_ADDRESS_SIZE] = {};
        for (const unsigned selector : std::initializer_list<unsigned>{
                 CORVEL_ADDRESS_IPV4, CORVEL_ADDRESS_NETMASK, 2, CORVEL_ADDRESS_HARDWARE})
            expect_closed_on_exec(1, [&] { getInAddr("lo", selector, address); });
        // A socket and the kernel's table.
        expect_closed_on_exec(2, [&] { getInAddr("lo", CORVEL_ADDRESS_IPV6, address); });
        std::uint32_t gateway = 0;
        char text[4096] = "";
        static_cast<void>(capture_stdout([&] {
            expect_closed_on_exec(1, [&] { getDefaultRoute("lo", &gateway); });
            expect_closed_on_exec(1, [&] { getDefGw("lo", text); });
        }));
        write_file("/etc/resolv.conf", "nameserver 192.0.2.1\n");
        expect_closed_on_exec(1, [&] { get_dns(text); });
        lease_entry *head = nullptr;
        expect_closed_on_exec(1, [&] { EXPECT_EQ(get_arp_cache("", &head), 0); });
    });
}

TEST(CloseOnExec, IsSetByLeases) {
    in_private_root([] {
        write_file(file, "");
        lease_entry *head = nullptr;
        expect_closed_on_exec(1, [&] { get_udhpd_leases(&head, file); });
        expect_closed_on_exec(1, [&] { get_dnsmasq_leases(&head, file); });
        expect_closed_on_exec(1, [&] { get_dhcpv6_leases(&head, file); });
        free_leaselist(&head);
    });
}

TEST(CloseOnExec, IsSetByErrorAndIo) {
    in_private_root([] {
        char byte = '\0';
        expect_closed_on_exec(1, [&] { EXPECT_EQ(open_read_close("/dev/zero", &byte, 1), 1); });
    });
}

TEST(CloseOnExec, IsSetByTheProcessLookup) {
    in_private_root([] {
        const std::string own_name = read_file("/proc/self/comm");
        // The directory and, of each process, at most two files.
        expect_closed_on_exec(3, [&] {
            std::free(find_pid_by_name(own_name.substr(0, own_name.size() - 1).c_str()));
        });
        char line[64] = "";
        expect_closed_on_exec(
            1, [&] { read_cmdline(line, sizeof line - 1, static_cast<unsigned>(getpid())); });
        write_file(file, "12\n");
        expect_closed_on_exec(1, [] { EXPECT_EQ(getPid(file), 12); });
    });
}

TEST(CloseOnExec, IsSetByAccounts) {
    in_private_root([] {
        const std::filesystem::path shell = std::filesystem::canonical("/bin/sh");
        ASSERT_TRUE(std::filesystem::remove("/bin"));
        std::filesystem::create_directory("/bin");
        std::filesystem::create_symlink(shell, "/bin/sh");
        write_program("/bin/chpasswd", "#!/bin/sh\n");
        // The lock file and the password file.
        expect_closed_on_exec(2, [] { EXPECT_EQ(login_chpwd("admin", "secret"), 0); });
    });
}

} // namespace
} // namespace corvel_test
