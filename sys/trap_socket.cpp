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

/// A netlink message with a notification.
struct TrapMessage {
    nlmsghdr header;
    unsigned char record[156];
};
static_assert(sizeof(TrapMessage) == 172);

sockaddr_nl address_of_port(std::uint32_t port) {
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_pid = port;
    address.nl_groups = trap_group;
    return address;
}

/// A port of this thread's own.
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
    // The descriptor stays open: callers know only of the error.
    const int error = errno;
    std::printf("bind failure:%s!\n", std::strerror(error));
    return -error;
}

int send_trap(int descriptor, const void *record) {
    TrapMessage message{};
    message.header.nlmsg_len = sizeof message;
    message.header.nlmsg_type = trap_type;
    message.header.nlmsg_seq = sequence_number;
    message.header.nlmsg_pid = static_cast<std::uint32_t>(getpid());
    std::memcpy(message.record, record, sizeof message.record);
    iovec piece{&message, sizeof message};
    sockaddr_nl kernel = address_of_port(0);
    msghdr parcel{};
    parcel.msg_name = &kernel;
    parcel.msg_namelen = sizeof kernel;
    parcel.msg_iov = &piece;
    parcel.msg_iovlen = 1;
    const ssize_t sent = sendmsg(descriptor, &parcel, 0);
    if (sent < 0)
        std::perror("unable to send message");
    return static_cast<int>(sent);
}

} // namespace
} // namespace corvel

extern "C" {

int open_socket_for_trap(void) { return corvel::open_trap_socket(); }

int send_trap_msg(int sockfd, const void *record) { return corvel::send_trap(sockfd, record); }

} // extern "C"
