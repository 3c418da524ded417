// SPDX-License-Identifier: MIT
#ifndef CORVEL_NET_INTERFACE_NAME_H
#define CORVEL_NET_INTERFACE_NAME_H

#include <net/if.h>
#include <string_view>

namespace corvel {

/// Whether the kernel could have an interface of that name: a longer one, cut, could be that of
/// another interface. Which characters it takes is left to the kernel.
constexpr bool is_interface_name(std::string_view name) {
    return !name.empty() && name.size() < IFNAMSIZ;
}

} // namespace corvel

#endif
