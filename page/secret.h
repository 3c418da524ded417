// SPDX-License-Identifier: MIT
#ifndef CORVEL_PAGE_SECRET_H
#define CORVEL_PAGE_SECRET_H

#include <cstddef>
#include <string_view>

namespace corvel {

/// Compares two strings in a time that depends on their lengths only.
bool equal_in_constant_time(std::string_view one, std::string_view other);

/// Fills a buffer of at most 256 bytes with random bytes from the kernel. Never waits: false if the
/// kernel has not yet collected enough randomness, shortly after a device's start.
bool random_bytes(void *bytes, std::size_t size);

} // namespace corvel

#endif
