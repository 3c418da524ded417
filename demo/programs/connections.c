/* SPDX-License-Identifier: MIT */
/*
 * Limits the connections from one address. lighttpd can limit them only together: a single client
 * that opens enough of them, and sends a byte now and then, keeps all others out. This library is
 * preloaded into the server and closes a connection that is one too many when it is accepted.
 *
 * The addresses are kept by descriptor. The server has a single thread, and a program that it
 * starts has a copy of the table, or, as a program of its own, none.
 */
#include <errno.h>
#include <netinet/in.h>
#include <stdbool.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

/* The descriptors that the configuration allows the server, and the connections of one address.
 * Browsers open six; those that a client has closed count until the server has closed them, too. */
enum { most_descriptors = 4096, most_of_one_address = 128 };

typedef struct in6_addr client;

/* By descriptor; zero for one that is no connection. */
static client clients[most_descriptors];
static int highest = -1; /* the highest descriptor that has been a connection */

static bool is_same(const client *a, const client *b) { return memcmp(a, b, sizeof *a) == 0; }

/* An IPv4 address is kept as IPv6 maps it. */
static client client_of(const struct sockaddr *address) {
    client found = {.s6_addr = {[10] = 0xFF, [11] = 0xFF}};
    struct sockaddr_in ipv4;
    struct sockaddr_in6 ipv6;
    if (address->sa_family == AF_INET) {
        memcpy(&ipv4, address, sizeof ipv4);
        memcpy(&found.s6_addr[12], &ipv4.sin_addr, sizeof ipv4.sin_addr);
    } else if (address->sa_family == AF_INET6) {
        memcpy(&ipv6, address, sizeof ipv6);
        found = ipv6.sin6_addr;
    }
    return found;
}

static bool admit(int connection, const struct sockaddr *address) {
    const client new = client_of(address);
    int count = 0;
    if (connection >= most_descriptors)
        return false;
    for (int i = 0; i <= highest; i++)
        count += is_same(&clients[i], &new);
    if (count >= most_of_one_address)
        return false;
    clients[connection] = new;
    if (connection > highest)
        highest = connection;
    return true;
}

/* Resets the connection, so that nothing of it remains in the kernel. */
static void refuse(int connection) {
    const struct linger at_once = {.l_onoff = 1};
    setsockopt(connection, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    close(connection);
}

/* With _GNU_SOURCE the header's declaration has a type that only its own compiler extension can
 * define. */
__attribute__((visibility("default"))) int accept4(int listener, struct sockaddr *address,
                                                   socklen_t *size, int flags) {
    /* The server returns to its other connections after so many refusals. */
    enum { most_refusals = 64 };
    const socklen_t room = *size;
    for (int i = 0; i < most_refusals; i++) {
        *size = room;
        const int connection = (int)syscall(SYS_accept4, listener, address, size, flags);
        if (connection < 0 || admit(connection, address))
            return connection;
        refuse(connection);
    }
    errno = EAGAIN;
    return -1;
}

/* The C library's header uses a reserved name.
 * NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name) */
__attribute__((visibility("default"))) int close(int descriptor) {
    if (descriptor >= 0 && descriptor <= highest)
        clients[descriptor] = (client){0};
    return (int)syscall(SYS_close, descriptor);
}

/* The programs that the server starts run without this library. */
__attribute__((constructor)) static void forget(void) { unsetenv("LD_PRELOAD"); }
