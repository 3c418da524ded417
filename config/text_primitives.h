// SPDX-License-Identifier: MIT
#ifndef CORVEL_CONFIG_TEXT_PRIMITIVES_H
#define CORVEL_CONFIG_TEXT_PRIMITIVES_H

#include <string_view>

namespace corvel {

/// The text without at most one `character` at each end. The ends are tested independently, except
/// that a text of one character has only one to lose.
constexpr std::string_view stripped(std::string_view text, char character) {
    if (text.starts_with(character))
        text.remove_prefix(1);
    if (text.ends_with(character))
        text.remove_suffix(1);
    return text;
}

} // namespace corvel

#endif
