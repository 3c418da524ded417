/* SPDX-License-Identifier: MIT */
/**
 * A private root directory for a part of a test, which may create files at the paths that are fixed
 * in the library. The machine's own files are never changed.
 *
 *     in_private_root([] {
 *         write_program("/sbin/configclient", "#!/bin/sh\ntouch /tmp/started\n");
 *         EXPECT_EQ(save_config(), 0);
 *     });
 *
 * The function runs in a forked child, as root, with its own mount, network and PID namespaces (and
 * a user namespace if the tests do not run as root). It sees:
 *  - /usr, /bin, /lib and similar: those of the machine, read-only;
 *  - /etc, /sbin, /tmp, /var, /var/config, /var/run, /root, /mnt: private empty directories,
 * removed at the end;
 *  - /proc: its own processes; /dev: null, zero, full, random, urandom and the links to the
 * standard streams; more may be added;
 *  - a private network with only the loopback interface.
 *
 * Assertions that fail in the child fail the test. Changes in memory are not visible in the parent.
 * Processes that are still running at the end are killed.
 *
 * If such a root is not possible, the test fails with the reason.
 */
#ifndef CORVEL_TESTS_PRIVATE_ROOT_H
#define CORVEL_TESTS_PRIVATE_ROOT_H

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace corvel_test {

/** The user who creates the private root. */
enum class RootMaker {
    current_user,  /**< The user who runs the tests. */
    ordinary_user, /**< An unprivileged user, with a user namespace. */
};

/** All makers available to the current user; for an ordinary user, only one. */
std::vector<RootMaker> root_makers();

/** Runs @p body in a private root; assertions that fail in it fail the test. */
void in_private_root(const std::function<void()> &body, RootMaker maker = RootMaker::current_user);

/** In a private root: writes an executable file. */
void write_program(const std::string &path, std::string_view text);

/** In a private root: creates a directory and mounts an empty file system of @p size bytes on it.
 */
void mount_small_disk(const std::string &directory, std::size_t size);

} // namespace corvel_test

#endif
