/* SPDX-License-Identifier: MIT */
/**
 * A root folder of its own for a piece of a test, in which it may place files at the paths that are
 * fixed in the library. The machine's own files are never touched.
 *
 *     in_private_root([] {
 *         write_program("/sbin/configclient", "#!/bin/sh\ntouch /tmp/started\n");
 *         EXPECT_EQ(save_config(), 0);
 *     });
 *
 * The piece runs in a forked child, as the root user there, with mount, network and PID namespaces
 * of its own (and a user namespace where the tests do not run as root). It sees:
 *  - /usr, /bin, /lib and its kin: the machine's, not to be written;
 *  - /etc, /sbin, /tmp, /var, /var/config, /var/run, /root, /mnt: empty folders of its own, gone at
 *    the end;
 *  - /proc: of its own processes; /dev: null, zero, full, random, urandom and the links to the
 *    standard streams, with room for more;
 *  - a network of its own with nothing but the loopback interface.
 *
 * Assertions work as in any test: their failures in the child fail the test. What is changed in
 * memory stays in the child. Processes that are still running at the end are killed.
 *
 * Where such a root is not possible the test fails and says why.
 */
#ifndef CORVEL_TESTS_PRIVATE_ROOT_H
#define CORVEL_TESTS_PRIVATE_ROOT_H

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace corvel_test {

/** Who makes the private root. */
enum class RootMaker {
    current_user,  /**< Whoever runs the tests. */
    ordinary_user, /**< A user without rights, with the help of a user namespace. */
};

/** Every maker that can be tried: for an ordinary user there is only one. */
std::vector<RootMaker> root_makers();

/** Runs @p body in a private root; assertions that fail in it fail the test. */
void in_private_root(const std::function<void()> &body, RootMaker maker = RootMaker::current_user);

/** In a private root: writes an executable file. */
void write_program(const std::string &path, std::string_view text);

/** In a private root: mounts an empty file system of @p size bytes on a folder, which is made. */
void mount_small_disk(const std::string &folder, std::size_t size);

} // namespace corvel_test

#endif
