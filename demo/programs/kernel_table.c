/* SPDX-License-Identifier: MIT */
#include "kernel_table.h"

#include <sys/socket.h>
#include <unistd.h>

/* Returns the socket, to which the kernel sends the whole table; negative on failure. */
static int ask_for(uint16_t type) {
    const struct {
        struct nlmsghdr header;
        struct rtgenmsg family;
    } request = {.header = {.nlmsg_len = sizeof request,
                            .nlmsg_type = type,
                            .nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP}};
    const int kernel = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (kernel >= 0 && send(kernel, &request, sizeof request, 0) == sizeof request)
        return kernel;
    close(kernel);
    return -1;
}

bool visit_kernel_table(uint16_t type, kernel_visitor *visit, void *context) {
    static union {
        struct nlmsghdr first;
        char bytes[32768]; /* the kernel sends no more at once */
    } messages;
    const int kernel = ask_for(type);
    bool is_complete = false;
    bool is_over = kernel < 0;
    while (!is_over) {
        const ssize_t received = recv(kernel, &messages, sizeof messages, 0);
        size_t left = received > 0 ? (size_t)received : 0;
        is_over = received <= 0;
        for (const struct nlmsghdr *each = &messages.first; !is_over && NLMSG_OK(each, left);
             each = NLMSG_NEXT(each, left)) {
            is_complete = each->nlmsg_type == NLMSG_DONE;
            is_over = is_complete || each->nlmsg_type == NLMSG_ERROR;
            if (!is_over)
                visit(context, each);
        }
    }
    close(kernel);
    return is_complete;
}

const void *kernel_attribute(const struct nlmsghdr *entry, size_t header_size, unsigned type,
                             size_t size) {
    if (entry->nlmsg_len < NLMSG_SPACE(header_size))
        return NULL;
    size_t left = entry->nlmsg_len - NLMSG_SPACE(header_size);
    const struct rtattr *each =
        (const void *)((const char *)NLMSG_DATA(entry) + NLMSG_ALIGN(header_size));
    for (; RTA_OK(each, left); each = RTA_NEXT(each, left))
        if (each->rta_type == type && RTA_PAYLOAD(each) >= size)
            return RTA_DATA(each);
    return NULL;
}
