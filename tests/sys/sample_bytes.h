/* SPDX-License-Identifier: MIT */
#ifndef CORVEL_TESTS_SAMPLE_BYTES_H
#define CORVEL_TESTS_SAMPLE_BYTES_H

#include <cstddef>
#include <string>

namespace corvel_test {

/** Returns bytes of which no two neighbours are equal; every value occurs among 256 of them. */
inline std::string sample_bytes(std::size_t size, unsigned first) {
    std::string bytes;
    for (std::size_t i = 0; i < size; ++i)
        bytes += static_cast<char>(first + 37 * i);
    return bytes;
}

} // namespace corvel_test

#endif
