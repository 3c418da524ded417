/* SPDX-License-Identifier: MIT */
/**
 * In a private root: the network that it has to itself, and what the kernel's tables say of it.
 *
 *     in_private_root([] {
 *         add_cable("eth0", "far0");
 *         ip("address add 192.168.1.1/24 dev eth0");
 *         ...
 *         const OwnTable routes("route");
 *         routes.hold("Iface\tDestination...");
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

/** Runs the program ip with these words. */
inline void ip(const std::string &words) {
    const std::string command = "PATH=/usr/sbin:/usr/bin:/bin ip " + words;
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
}

/**
 * Two Ethernet interfaces, one at each end of a cable, which are on and have no address. Where one
 * would do, too: not every kernel has dummy interfaces.
 */
inline void add_cable(const std::string &near, const std::string &far) {
    ip("link add " + near + " type veth peer name " + far);
    for (const std::string &name : {near, far}) {
        // The kernel gives them no link-local address.
        ip("link set " + name + " addrgenmode none");
        ip("link set " + name + " up");
    }
}

/** A file of the test's own in the place of one in /proc/net, for this process; all others that it
 *  sees there are gone. */
class OwnTable {
  public:
    explicit OwnTable(const std::string &name) : path_(folder + ("/" + name)) {
        std::filesystem::create_directory(folder);
        if (mount(folder, "/proc/self/net", nullptr, MS_BIND, nullptr) != 0)
            throw std::system_error(errno, std::generic_category(), "mount on /proc/self/net");
    }
    OwnTable(const OwnTable &) = delete;
    OwnTable &operator=(const OwnTable &) = delete;
    ~OwnTable() { umount2("/proc/self/net", MNT_DETACH); }

    void hold(std::string_view text) const { write_file(path_, text); }
    /** There is no such file. */
    void be_missing() const { std::filesystem::remove_all(path_); }
    void be_a_folder() const {
        be_missing();
        std::filesystem::create_directory(path_);
    }

  private:
    static constexpr const char *folder = "/tmp/net";
    std::string path_;
};

} // namespace corvel_test

#endif
