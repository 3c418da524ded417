/* SPDX-License-Identifier: MIT */
#include <corvel.h>

#include "tests/support/child_process.h"
#include "tests/support/descriptors.h"
#include "tests/support/golden_files.h"
#include "tests/support/guarded_memory.h"
#include "tests/support/named_process.h"
#include "tests/support/next_definition.h"
#include "tests/support/output_capture.h"
#include "tests/support/private_root.h"
#include "tests/support/stand_in.h"
#include "tests/sys/sample_bytes.h"

#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <pthread.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

/** Replacements of the C library's functions. */
std::function<int(int, int, int)> instead_of_socket;
std::function<int(int, const sockaddr *, socklen_t)> instead_of_bind;
std::function<ssize_t(int, const msghdr *, int)> instead_of_sendmsg;
std::function<pid_t()> instead_of_getpid;

} // namespace

extern "C" int socket(int family, int type, int protocol) C_LIBRARY_NOEXCEPT {
    static auto *const next = corvel_test::next_definition<int(int, int, int)>("socket");
    return instead_of_socket ? instead_of_socket(family, type, protocol)
                             : next(family, type, protocol);
}

extern "C" int bind(int descriptor, const sockaddr *address, socklen_t length) C_LIBRARY_NOEXCEPT {
    static auto *const next =
        corvel_test::next_definition<int(int, const sockaddr *, socklen_t)>("bind");
    return instead_of_bind ? instead_of_bind(descriptor, address, length)
                           : next(descriptor, address, length);
}

extern "C" ssize_t sendmsg(int descriptor, const msghdr *message, int flags) {
    static auto *const next =
        corvel_test::next_definition<ssize_t(int, const msghdr *, int)>("sendmsg");
    return instead_of_sendmsg ? instead_of_sendmsg(descriptor, message, flags)
                              : next(descriptor, message, flags);
}

extern "C" pid_t getpid() C_LIBRARY_NOEXCEPT {
    static auto *const next = corvel_test::next_definition<pid_t()>("getpid");
    return instead_of_getpid ? instead_of_getpid() : next();
}

namespace corvel_test {
namespace {

using namespace std::string_literals;

/** Returns the bytes of a number in memory. */
template <typename Number> std::string in_host_order(Number number) {
    std::string bytes(sizeof number, '\0');
    std::memcpy(bytes.data(), &number, sizeof number);
    return bytes;
}

/** Returns the bytes of a netlink address. */
std::string address_bytes(std::uint32_t port) {
    return in_host_order<std::uint16_t>(16) + "\0\0"s + in_host_order(port) +
           in_host_order<std::uint32_t>(1);
}

/** Returns the bytes of the message that contains a record. */
std::string message_bytes(const std::string &record) {
    return in_host_order<std::uint32_t>(CORVEL_TRAP_MESSAGE_SIZE) +
           in_host_order<std::uint16_t>(17) + in_host_order<std::uint16_t>(0) +
           in_host_order<std::uint32_t>(1) + in_host_order(static_cast<std::uint32_t>(getpid())) +
           record;
}

std::string sample_record(unsigned first) { return sample_bytes(CORVEL_TRAP_SIZE, first); }

/** Returns the port that the calling thread's socket must have. */
std::uint32_t port_of_this_thread() {
    return static_cast<std::uint32_t>(getpid()) |
           static_cast<std::uint32_t>(
               reinterpret_cast<std::uintptr_t>(reinterpret_cast<void *>(pthread_self())) << 16);
}

/** Runs a part of a test in a thread with this stack, at whose end its descriptor is. */
template <typename Body> void run_in_thread(unsigned char *stack, std::size_t size, Body body) {
    pthread_attr_t attributes;
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    ASSERT_EQ(pthread_attr_setstack(&attributes, stack, size), 0);
    pthread_t thread;
    const auto start = [](void *argument) -> void * {
        (*static_cast<Body *>(argument))();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attributes, start, &body), 0);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
    pthread_attr_destroy(&attributes);
}

/** Runs a part of a test in each of two threads, whose ids differ in their lower 16 bits. */
void run_in_two_threads(const std::function<void()> &body) {
    constexpr std::size_t size = 0x80000;
    alignas(0x10000) static unsigned char stacks[2][size];
    std::vector<std::uint32_t> ports;
    const auto part = [&] {
        ports.push_back(port_of_this_thread());
        body();
    };
    run_in_thread(stacks[0], size, part);
    run_in_thread(stacks[1], size - 0x4000, part);
    ASSERT_EQ(ports.size(), 2U);
    EXPECT_NE(ports[0], ports[1]);
    EXPECT_EQ(ports[0] & 0xFFFF, ports[1] & 0xFFFF);
}

// --- open_socket_for_trap ---

TEST(open_socket_for_trap, CreatesARawNetlinkSocketAndBindsItToTheGroup) {
    std::vector<std::string> calls;
    const Instead in_place_of_socket(instead_of_socket, [&](int family, int type, int protocol) {
        calls.push_back("socket " + std::to_string(family) + " " + std::to_string(type) + " " +
                        std::to_string(protocol));
        EXPECT_EQ(family, AF_NETLINK);
        EXPECT_EQ(type, SOCK_RAW);
        return 77;
    });
    const Instead in_place_of_bind(
        instead_of_bind, [&](int descriptor, const sockaddr *address, socklen_t length) {
            calls.push_back("bind " + std::to_string(descriptor));
            EXPECT_EQ(length, 12U);
            EXPECT_EQ(std::string(reinterpret_cast<const char *>(address), length),
                      address_bytes(port_of_this_thread()));
            return 0;
        });
    EXPECT_EQ(capture_stdout([] { EXPECT_EQ(open_socket_for_trap(), 77); }), "");
    EXPECT_EQ(calls, (std::vector<std::string>{"socket 16 3 16", "bind 77"}));
}

TEST(open_socket_for_trap, BindsThreadsToPortsThatDifferOnlyInTheirUpperBits) {
    std::vector<std::uint32_t> ports;
    const Instead in_place_of_socket(instead_of_socket, [](int, int, int) { return 77; });
    const Instead in_place_of_bind(instead_of_bind,
                                   [&ports](int, const sockaddr *address, socklen_t) {
                                       sockaddr_nl netlink{};
                                       std::memcpy(&netlink, address, sizeof netlink);
                                       EXPECT_EQ(netlink.nl_pid, port_of_this_thread());
                                       ports.push_back(netlink.nl_pid);
                                       return 0;
                                   });
    run_in_two_threads([] { EXPECT_EQ(open_socket_for_trap(), 77); });
    ASSERT_EQ(ports.size(), 2U);
    EXPECT_NE(ports[0] >> 16, ports[1] >> 16);
    EXPECT_EQ(ports[0] & 0xFFFF, static_cast<std::uint32_t>(getpid()) & 0xFFFF);
    EXPECT_EQ(ports[1] & 0xFFFF, static_cast<std::uint32_t>(getpid()) & 0xFFFF);
}

TEST(open_socket_for_trap, ReturnsTheErrorIfThereIsNoSocket) {
    const Instead in_place_of_bind(instead_of_bind, [](int, const sockaddr *, socklen_t) {
        ADD_FAILURE() << "there is no socket to bind";
        return 0;
    });
    for (const int error : {EPROTONOSUPPORT, EMFILE, EPERM}) {
        const Instead in_place_of_socket(instead_of_socket, [error](int, int, int) {
            errno = error;
            return -1;
        });
        EXPECT_EQ(capture_stdout([error] { EXPECT_EQ(open_socket_for_trap(), -error); }), "");
        EXPECT_EQ(capture_stderr([error] { EXPECT_EQ(open_socket_for_trap(), -error); }), "");
    }
}

TEST(open_socket_for_trap, TreatsDescriptorZeroAsAFailure) {
    const Instead in_place_of_bind(instead_of_bind, [](int, const sockaddr *, socklen_t) {
        ADD_FAILURE() << "there is no socket to bind";
        return 0;
    });
    for (const int error : {0, EAGAIN}) {
        const Instead in_place_of_socket(instead_of_socket, [error](int, int, int) {
            errno = error;
            return 0;
        });
        EXPECT_EQ(capture_stdout([error] { EXPECT_EQ(open_socket_for_trap(), -error); }), "");
    }
}

TEST(open_socket_for_trap, PrintsWhyASocketCannotBeBoundAndLeavesItOpen) {
    for (const int error : {EADDRINUSE, EPERM, EINVAL}) {
        int descriptor = -1;
        const Instead in_place_of_socket(instead_of_socket, [&descriptor](int, int, int) {
            descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
            return descriptor;
        });
        const Instead in_place_of_bind(instead_of_bind, [error](int, const sockaddr *, socklen_t) {
            errno = error;
            return -1;
        });
        const ChildResult child = run_in_child([&] {
            EXPECT_EQ(open_socket_for_trap(), -error);
            return fcntl(descriptor, F_GETFD) != -1 ? 0 : 1;
        });
        EXPECT_EQ(child.out, "bind failure:"s + std::strerror(error) + "!\n");
        EXPECT_EQ(child.err, "");
        EXPECT_EQ(child.exit_status, 0);
    }
}

TEST(open_socket_for_trap, ReturnsTheErrorOfBindingIfPrintingFails) {
    const Instead in_place_of_socket(instead_of_socket, [](int, int, int) { return 77; });
    const Instead in_place_of_bind(instead_of_bind, [](int, const sockaddr *, socklen_t) {
        errno = EADDRINUSE;
        return -1;
    });
    const FailCall failing(call_printf, 1, ENOSPC);
    EXPECT_EQ(open_socket_for_trap(), -EADDRINUSE);
    EXPECT_EQ(failing.failures(), 1U);
}

TEST(open_socket_for_trap, OpensASocketThatNoOtherProgramInherits) {
    int descriptor = -1;
    const Instead in_place_of_socket(instead_of_socket, [&descriptor](int, int, int) {
        descriptor = open("/dev/null", O_RDONLY);
        return descriptor;
    });
    for (const int result : {0, -1}) {
        const Instead in_place_of_bind(
            instead_of_bind, [result](int, const sockaddr *, socklen_t) { return result; });
        static_cast<void>(capture_stdout([] { open_socket_for_trap(); }));
        EXPECT_EQ(fcntl(descriptor, F_GETFD), FD_CLOEXEC);
        close(descriptor);
    }
}

// --- send_trap_msg ---

TEST(send_trap_msg, SendsTheWholeMessageToTheGroupInOneCall) {
    for (const unsigned first : {0U, 0xF7U}) {
        const std::string record = sample_record(first);
        // Nothing after the record is read.
        const GuardedBlock block(record);
        int sent = 0;
        const Instead in_place_of_sendmsg(
            instead_of_sendmsg, [&](int descriptor, const msghdr *message, int flags) -> ssize_t {
                ++sent;
                EXPECT_EQ(descriptor, 77);
                EXPECT_EQ(flags, 0);
                EXPECT_EQ(message->msg_namelen, 12U);
                EXPECT_EQ(std::string(static_cast<const char *>(message->msg_name), 12),
                          address_bytes(0));
                EXPECT_EQ(message->msg_iovlen, 1U);
                EXPECT_EQ(std::string(static_cast<const char *>(message->msg_iov->iov_base),
                                      message->msg_iov->iov_len),
                          message_bytes(record));
                EXPECT_EQ(message->msg_control, nullptr);
                EXPECT_EQ(message->msg_controllen, 0U);
                return CORVEL_TRAP_MESSAGE_SIZE;
            });
        EXPECT_EQ(capture_stderr([&] {
                      EXPECT_EQ(send_trap_msg(77, block.start()), CORVEL_TRAP_MESSAGE_SIZE);
                  }),
                  "");
        EXPECT_EQ(sent, 1);
        EXPECT_EQ(block.bytes(), record);
    }
}

TEST(send_trap_msg, AcceptsARecordAtAnyAddress) {
    const std::string record = sample_record(1);
    std::string sent;
    const Instead in_place_of_sendmsg(
        instead_of_sendmsg, [&sent](int, const msghdr *message, int) -> ssize_t {
            sent.assign(static_cast<const char *>(message->msg_iov->iov_base),
                        message->msg_iov->iov_len);
            return CORVEL_TRAP_MESSAGE_SIZE;
        });
    for (std::size_t shift = 0; shift < 8; ++shift) {
        const std::string shifted = std::string(shift, '?') + record;
        EXPECT_EQ(send_trap_msg(1, shifted.data() + shift), CORVEL_TRAP_MESSAGE_SIZE);
        EXPECT_EQ(sent, message_bytes(record));
    }
}

TEST(send_trap_msg, SendsTheGoldenMessage) {
    std::string record;
    for (std::size_t i = 0; i < CORVEL_TRAP_SIZE; ++i)
        record += static_cast<char>(i);
    std::string sent;
    const Instead in_place_of_getpid(instead_of_getpid, [] { return 0x01020304; });
    const Instead in_place_of_sendmsg(
        instead_of_sendmsg, [&sent](int, const msghdr *message, int) -> ssize_t {
            sent.assign(static_cast<const char *>(message->msg_iov->iov_base),
                        message->msg_iov->iov_len);
            return CORVEL_TRAP_MESSAGE_SIZE;
        });
    EXPECT_EQ(send_trap_msg(77, record.data()), CORVEL_TRAP_MESSAGE_SIZE);
    constexpr bool is_big_endian = std::endian::native == std::endian::big;
    EXPECT_EQ(sent, golden(is_big_endian ? "trap-big-endian.bin" : "trap-little-endian.bin"));
}

TEST(send_trap_msg, SendsOnlyTheProcessIdFromEveryThread) {
    const std::string record = sample_record(2);
    std::vector<std::string> sent;
    const Instead in_place_of_sendmsg(
        instead_of_sendmsg, [&sent](int, const msghdr *message, int) -> ssize_t {
            sent.emplace_back(static_cast<const char *>(message->msg_iov->iov_base),
                              message->msg_iov->iov_len);
            return CORVEL_TRAP_MESSAGE_SIZE;
        });
    run_in_two_threads(
        [&record] { EXPECT_EQ(send_trap_msg(77, record.data()), CORVEL_TRAP_MESSAGE_SIZE); });
    EXPECT_EQ(sent, std::vector<std::string>(2, message_bytes(record)));
    sent.clear();
    expect_in_child([&] {
        EXPECT_EQ(send_trap_msg(77, record.data()), CORVEL_TRAP_MESSAGE_SIZE);
        EXPECT_EQ(sent, std::vector<std::string>{message_bytes(record)});
    });
}

TEST(send_trap_msg, ReturnsTheBytesSentWithoutRetrying) {
    const std::string record = sample_record(3);
    for (const ssize_t result : {0, 1, 100, CORVEL_TRAP_MESSAGE_SIZE - 1}) {
        int calls = 0;
        const Instead in_place_of_sendmsg(instead_of_sendmsg,
                                          [&calls, result](int, const msghdr *, int) {
                                              ++calls;
                                              return result;
                                          });
        EXPECT_EQ(capture_stderr([&] { EXPECT_EQ(send_trap_msg(77, record.data()), result); }), "");
        EXPECT_EQ(calls, 1);
    }
}

TEST(send_trap_msg, PrintsWhyNothingIsSentWithoutRetrying) {
    const std::string record = sample_record(4);
    for (const int error : {ECONNREFUSED, EINTR, EAGAIN, ENOBUFS}) {
        int calls = 0;
        const Instead in_place_of_sendmsg(instead_of_sendmsg,
                                          [&calls, error](int, const msghdr *, int) {
                                              ++calls;
                                              errno = error;
                                              return -1;
                                          });
        const ChildResult child = run_in_child([&] {
            EXPECT_LT(send_trap_msg(77, record.data()), 0);
            return calls;
        });
        EXPECT_EQ(child.err, "unable to send message: "s + std::strerror(error) + "\n");
        EXPECT_EQ(child.out, "");
        EXPECT_EQ(child.exit_status, 1);
    }
}

TEST(send_trap_msg, FailsOnADescriptorThatIsNotASocket) {
    const std::string record = sample_record(5);
    EXPECT_EQ(capture_stderr([&] { EXPECT_LT(send_trap_msg(-1, record.data()), 0); }),
              "unable to send message: "s + std::strerror(EBADF) + "\n");
    const OwnPipe pipe;
    EXPECT_EQ(capture_stderr([&] { EXPECT_LT(send_trap_msg(pipe.writing, record.data()), 0); }),
              "unable to send message: "s + std::strerror(ENOTSOCK) + "\n");
}

// --- Over real sockets ---

/** A member of the multicast group, with its own socket. */
class Listener {
  public:
    Listener() : descriptor_(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, 16)) {
        sockaddr_nl address{};
        address.nl_family = AF_NETLINK;
        address.nl_groups = 1;
        EXPECT_EQ(bind(descriptor_, reinterpret_cast<const sockaddr *>(&address), sizeof address),
                  0);
    }
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;
    ~Listener() { close(descriptor_); }

    /** Returns the next message and its sender. A message is available as soon as it is sent. */
    std::string received(sockaddr_nl &sender) const {
        std::string bytes(2048, '\0');
        socklen_t length = sizeof sender;
        const ssize_t size = recvfrom(descriptor_, bytes.data(), bytes.size(), MSG_DONTWAIT,
                                      reinterpret_cast<sockaddr *>(&sender), &length);
        bytes.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
        return bytes;
    }
    [[nodiscard]] std::string received() const {
        sockaddr_nl sender{};
        return received(sender);
    }

  private:
    int descriptor_;
};

TEST(TrapSocket, CarriesRecordsToTheGroup) {
    in_private_root([] {
        const Listener listener;
        const int trap_socket = open_socket_for_trap();
        ASSERT_GT(trap_socket, 0);
        for (unsigned first = 0; first < 5; ++first) {
            const std::string record = sample_record(first);
            EXPECT_EQ(send_trap_msg(trap_socket, record.data()), CORVEL_TRAP_MESSAGE_SIZE);
            sockaddr_nl sender{};
            EXPECT_EQ(listener.received(sender), message_bytes(record));
            EXPECT_EQ(sender.nl_pid, port_of_this_thread());
        }
        EXPECT_EQ(listener.received(), "");
        EXPECT_EQ(close(trap_socket), 0);
    });
}

TEST(TrapSocket, IsAMemberOfTheGroupAtTheThreadsPort) {
    in_private_root([] {
        const int trap_socket = open_socket_for_trap();
        ASSERT_GT(trap_socket, 0);
        sockaddr_nl address{};
        socklen_t length = sizeof address;
        ASSERT_EQ(getsockname(trap_socket, reinterpret_cast<sockaddr *>(&address), &length), 0);
        EXPECT_EQ(std::string(reinterpret_cast<const char *>(&address), length),
                  address_bytes(port_of_this_thread()));
        int value = 0;
        length = sizeof value;
        ASSERT_EQ(getsockopt(trap_socket, SOL_SOCKET, SO_TYPE, &value, &length), 0);
        EXPECT_EQ(value, SOCK_RAW);
        close(trap_socket);
    });
}

TEST(TrapSocket, CanBeOpenedInSeveralThreadsAtOnce) {
    in_private_root([] {
        const Listener listener;
        const std::string record = sample_record(6);
        std::vector<int> sockets;
        run_in_two_threads([&] {
            const int trap_socket = open_socket_for_trap();
            EXPECT_GT(trap_socket, 0);
            EXPECT_EQ(send_trap_msg(trap_socket, record.data()), CORVEL_TRAP_MESSAGE_SIZE);
            sockaddr_nl sender{};
            EXPECT_EQ(listener.received(sender), message_bytes(record));
            EXPECT_EQ(sender.nl_pid, port_of_this_thread());
            sockets.push_back(trap_socket);
        });
        for (const int trap_socket : sockets)
            close(trap_socket);
    });
}

TEST(TrapSocket, CannotBeBoundIfItsPortIsInUse) {
    in_private_root([] {
        const int first = open_socket_for_trap();
        ASSERT_GT(first, 0);
        const std::size_t open_before = open_descriptors().size();
        EXPECT_EQ(capture_stdout([] { EXPECT_EQ(open_socket_for_trap(), -EADDRINUSE); }),
                  "bind failure:"s + std::strerror(EADDRINUSE) + "!\n");
        // The second socket stays open, and the caller does not have its descriptor.
        EXPECT_EQ(open_descriptors().size(), open_before + 1);
        EXPECT_EQ(close(first), 0);
        const int third = open_socket_for_trap();
        EXPECT_GT(third, 0);
        close(third);
    });
}

TEST(TrapSocket, SendsNothingAfterItIsClosed) {
    in_private_root([] {
        const Listener listener;
        const int trap_socket = open_socket_for_trap();
        ASSERT_GT(trap_socket, 0);
        // A number that no other descriptor takes.
        constexpr int closed = 500;
        ASSERT_EQ(dup2(trap_socket, closed), closed);
        close(trap_socket);
        const std::string record = sample_record(7);
        EXPECT_EQ(send_trap_msg(closed, record.data()), CORVEL_TRAP_MESSAGE_SIZE);
        EXPECT_EQ(listener.received(), message_bytes(record));
        close(closed);
        EXPECT_EQ(capture_stderr([&] { EXPECT_LT(send_trap_msg(closed, record.data()), 0); }),
                  "unable to send message: "s + std::strerror(EBADF) + "\n");
        EXPECT_EQ(listener.received(), "");
    });
}

TEST(TrapSocket, IsNotBoundIfItGetsDescriptorZero) {
    in_private_root([] {
        close(STDIN_FILENO);
        const int result = open_socket_for_trap();
        EXPECT_LE(result, 0);
        EXPECT_NE(fcntl(STDIN_FILENO, F_GETFD), -1);
        sockaddr_nl address{};
        socklen_t length = sizeof address;
        ASSERT_EQ(getsockname(STDIN_FILENO, reinterpret_cast<sockaddr *>(&address), &length), 0);
        EXPECT_EQ(address.nl_pid, 0U) << "the socket was bound";
    });
}

} // namespace
} // namespace corvel_test
