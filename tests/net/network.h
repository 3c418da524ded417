/* SPDX-License-Identifier: MIT */
/**
 * In a private root: sets up its network, and replaces the kernel's tables in /proc/net.
 *
 *     in_private_root([] {
 *         add_cable("eth0", "far0");
 *         ip("address add 192.168.1.1/24 dev eth0");
 *         ...
 *         const ReplacedTable routes("route");
 *         routes.write("Iface\tDestination...");
 *     });
 */
#ifndef CORVEL_TESTS_NETWORK_H
#define CORVEL_TESTS_NETWORK_H

#include "tests/support/temporary_directory.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <sys/mount.h>
#include <system_error>

namespace corvel_test {

/** Runs the program ip with these arguments. */
inline void ip(const std::string &arguments) {
    const std::string command = "PATH=/usr/sbin:/usr/bin:/bin ip " + arguments;
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
}

/**
 * Adds two connected Ethernet interfaces, which are up and have no address. Also for tests that
 * need only one, since not every kernel has dummy interfaces.
 */
inline void add_cable(const std::string &near, const std::string &far) {
    ip("link add " + near + " type veth peer name " + far);
    for (const std::string &name : {near, far}) {
        // So that the kernel assigns no link-local address.
        ip("link set " + name + " addrgenmode none");
        ip("link set " + name + " up");
    }
}

/** During its lifetime, /proc/net contains at most one file, which the test writes. */
class ReplacedTable {
  public:
    explicit ReplacedTable(const std::string &name) : path_(directory + ("/" + name)) {
        std::filesystem::create_directory(directory);
        if (mount(directory, "/proc/self/net", nullptr, MS_BIND, nullptr) != 0)
            throw std::system_error(errno, std::generic_category(), "mount on /proc/self/net");
    }
    ReplacedTable(const ReplacedTable &) = delete;
    ReplacedTable &operator=(const ReplacedTable &) = delete;
    ~ReplacedTable() { umount2("/proc/self/net", MNT_DETACH); }

    void write(std::string_view text) const { write_file(path_, text); }
    void remove() const { std::filesystem::remove_all(path_); }
    void replace_by_directory() const {
        remove();
        std::filesystem::create_directory(path_);
    }

  private:
    static constexpr const char *directory = "/tmp/net";
    std::string path_;
};

} // namespace corvel_test

#endif
