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

/* Returns how far the next message or attribute is. The last one can be without its padding. */
static size_t step(size_t length, size_t left) {
    const size_t padded = NLMSG_ALIGN(length); /* attributes have the same alignment */
    return padded < left ? padded : left;
}

/* Visits the entries of what has been received at once. Returns the type of the last message if it
 * ends the table, else 0. */
static int visit_messages(const char *bytes, size_t left, kernel_visitor *visit, void *context) {
    while (left >= sizeof(struct nlmsghdr)) {
        const struct nlmsghdr *entry = (const void *)bytes;
        if (entry->nlmsg_len < sizeof *entry || entry->nlmsg_len > left)
            return NLMSG_ERROR;
        if (entry->nlmsg_type == NLMSG_DONE || entry->nlmsg_type == NLMSG_ERROR)
            return entry->nlmsg_type;
        visit(context, entry);
        const size_t next = step(entry->nlmsg_len, left);
        bytes += next;
        left -= next;
    }
    return 0;
}

bool visit_kernel_table(uint16_t type, kernel_visitor *visit, void *context) {
    static union {
        struct nlmsghdr first; /* for the alignment */
        char bytes[32768];     /* the kernel sends no more at once */
    } messages;
    const int kernel = ask_for(type);
    ssize_t received = 0;
    int end = 0;
    while (end == 0 && kernel >= 0 && (received = recv(kernel, &messages, sizeof messages, 0)) > 0)
        end = visit_messages(messages.bytes, (size_t)received, visit, context);
    close(kernel);
    return end == NLMSG_DONE;
}

const void *kernel_entry(const struct nlmsghdr *entry) {
    return (const char *)entry + NLMSG_HDRLEN;
}

const void *kernel_attribute(const struct nlmsghdr *entry, size_t header_size, unsigned type,
                             size_t size) {
    if (entry->nlmsg_len < NLMSG_SPACE(header_size))
        return NULL;
    const char *bytes = (const char *)entry + NLMSG_SPACE(header_size);
    size_t left = entry->nlmsg_len - NLMSG_SPACE(header_size);
    while (left >= sizeof(struct rtattr)) {
        const struct rtattr *each = (const void *)bytes;
        if (each->rta_len < sizeof *each || each->rta_len > left)
            return NULL;
        if (each->rta_type == type && each->rta_len >= RTA_LENGTH(size))
            return bytes + RTA_LENGTH(0);
        const size_t next = step(each->rta_len, left);
        bytes += next;
        left -= next;
    }
    return NULL;
}
