// SPDX-License-Identifier: MIT
#ifndef CORVEL_PAGE_CONTROL_CHARACTER_H
#define CORVEL_PAGE_CONTROL_CHARACTER_H

namespace corvel {

/// Whether a string contains a byte below 32 or a DEL. Not inlined, to keep the code small.
[[gnu::noinline]] inline bool has_control_character(const char *text) {
    for (; *text != '\0'; ++text)
        if (static_cast<unsigned char>(*text) < ' ' || *text == '\x7F')
            return true;
    return false;
}

} // namespace corvel

#endif
