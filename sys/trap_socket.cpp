// SPDX-License-Identifier: MIT
#include <corvel.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/netlink.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

namespace corvel {
namespace {

constexpr int trap_protocol = 16;
constexpr std::uint32_t trap_group = 1;
constexpr std::uint16_t trap_type = 17;
constexpr std::uint32_t sequence_number = 1;

/// A netlink message that contains a notification record.
struct TrapMessage {
    nlmsghdr header;
    unsigned char record[CORVEL_TRAP_SIZE];
};
static_assert(sizeof(TrapMessage) == CORVEL_TRAP_MESSAGE_SIZE);

sockaddr_nl address_of_port(std::uint32_t port) {
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_pid = port;
    address.nl_groups = trap_group;
    return address;
}

/// A netlink port for this thread.
std::uint32_t thread_port() {
    return static_cast<std::uint32_t>(getpid()) |
           static_cast<std::uint32_t>(static_cast<std::uintptr_t>(pthread_self()) << 16);
}

int open_trap_socket() {
    const int descriptor = socket(AF_NETLINK, SOCK_RAW, trap_protocol);
    if (descriptor <= 0)
        return -errno;
    fcntl(descriptor, F_SETFD, FD_CLOEXEC);
    const sockaddr_nl address = address_of_port(thread_port());
    if (bind(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
        return descriptor;
    // The descriptor is not closed, and callers cannot close it: they get only the error.
    const int error = errno;
    std::printf("bind failure:%s!\n", std::strerror(error));
    return -error;
}

int send_trap(int descriptor, const void *record) {
    TrapMessage trap{};
    trap.header.nlmsg_len = sizeof trap;
    trap.header.nlmsg_type = trap_type;
    trap.header.nlmsg_seq = sequence_number;
    trap.header.nlmsg_pid = static_cast<std::uint32_t>(getpid());
    std::memcpy(trap.record, record, sizeof trap.record);
    iovec bytes{&trap, sizeof trap};
    sockaddr_nl kernel = address_of_port(0);
    msghdr message{};
    message.msg_name = &kernel;
    message.msg_namelen = sizeof kernel;
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    const ssize_t sent = sendmsg(descriptor, &message, 0);
    if (sent < 0)
        std::perror("unable to send message");
    return static_cast<int>(sent);
}

} // namespace
} // namespace corvel

extern "C" {

using namespace corvel;

int open_socket_for_trap(void) { return open_trap_socket(); }

int send_trap_msg(int sockfd, const void *record) { return send_trap(sockfd, record); }

} // extern "C"
