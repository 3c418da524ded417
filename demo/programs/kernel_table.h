/* SPDX-License-Identifier: MIT */
/**
 * @file kernel_table.h
 * @brief Tables of the kernel's network, read by rtnetlink.
 */
#ifndef KERNEL_TABLE_H
#define KERNEL_TABLE_H

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

/** Is called for each entry. */
typedef void kernel_visitor(void *context, const struct nlmsghdr *entry);

/**
 * Visits each entry of a table.
 *
 * @param type    RTM_GETNEIGH or RTM_GETADDR.
 * @param visit   the function to call.
 * @param context is passed to it.
 * @return false if the table could not be read to its end.
 */
bool visit_kernel_table(uint16_t type, kernel_visitor *visit, void *context);

/** Returns the structure at the beginning of an entry, such as struct ndmsg. */
const void *kernel_entry(const struct nlmsghdr *entry);

/**
 * Finds an attribute of an entry.
 *
 * @param entry       the entry.
 * @param header_size bytes of the structure at the entry's beginning, such as struct ndmsg.
 * @param type        the type of the attribute.
 * @param size        bytes that its value must have at least.
 * @return the value; null if there is none.
 */
const void *kernel_attribute(const struct nlmsghdr *entry, size_t header_size, unsigned type,
                             size_t size);

#endif
