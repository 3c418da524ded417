// SPDX-License-Identifier: MIT
#ifndef CORVEL_PAGE_STRING_LIST_H
#define CORVEL_PAGE_STRING_LIST_H

#include <cstring>

namespace corvel {

/// A string of a list of strings, each terminated by a NUL. An array of pointers would be larger by
/// half: the loader relocates each of them. Not inlined, to keep the code small.
[[gnu::noinline]] inline const char *string_in_list(const char *list, int index) {
    for (; index > 0; --index)
        list += std::strlen(list) + 1;
    return list;
}

} // namespace corvel

#endif
