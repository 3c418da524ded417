// SPDX-License-Identifier: MIT
#include "page/secret.h"

#include <sys/random.h>
#include <utility>

namespace corvel {

bool equal_in_constant_time(std::string_view one, std::string_view other) {
    if (one.size() != other.size())
        return false;
    unsigned difference = 0;
    for (std::size_t i = 0; i < one.size(); ++i)
        difference |= static_cast<unsigned char>(one[i] ^ other[i]);
    return difference == 0;
}

bool random_bytes(void *bytes, std::size_t size) {
    return std::cmp_equal(getrandom(bytes, size, GRND_NONBLOCK), size);
}

} // namespace corvel
