// SPDX-License-Identifier: MIT
#ifndef CORVEL_NET_INTERFACE_NAME_H
#define CORVEL_NET_INTERFACE_NAME_H

#include <net/if.h>
#include <string_view>

namespace corvel {

/// Whether an interface can have the name. A longer one, cut, could be that of another interface.
constexpr bool is_interface_name(std::string_view name) {
    return !name.empty() && name.size() < IFNAMSIZ;
}

} // namespace corvel

#endif
