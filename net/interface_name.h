// SPDX-License-Identifier: MIT
#ifndef CORVEL_NET_INTERFACE_NAME_H
#define CORVEL_NET_INTERFACE_NAME_H

#include <net/if.h>
#include <string_view>

namespace corvel {

/// Whether an interface name has a length that the kernel accepts. A longer name, truncated, could
/// be the name of another interface. The kernel itself decides about the characters.
constexpr bool is_interface_name(std::string_view name) {
    return !name.empty() && name.size() < IFNAMSIZ;
}

} // namespace corvel

#endif
