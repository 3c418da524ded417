// SPDX-License-Identifier: MIT
#ifndef CORVEL_CONFIG_PROPERTY_LINE_H
#define CORVEL_CONFIG_PROPERTY_LINE_H

#include <cstddef>
#include <string_view>

#include "support/text.h"

namespace corvel {

/// The parts of a line, as views into the line.
struct Setting {
    std::string_view name_area; ///< Everything before the separator; the name is its first word.
    std::string_view value;
};

constexpr std::string_view line_prefix = "setenv ";

/// Splits a line. False if it is a comment or has no separator. To be called in one place of a
/// library: it is always inlined.
[[gnu::always_inline]] inline bool parse_line(std::string_view line, char separator,
                                              Setting &setting) {
    if (line.starts_with('#'))
        return false;
    const std::size_t prefix = line.find(line_prefix);
    if (prefix != std::string_view::npos)
        line.remove_prefix(prefix + line_prefix.size());
    const std::size_t split = line.find(separator);
    if (split == std::string_view::npos)
        return false;
    setting = {front(line, split), after(line, split + 1)};
    return true;
}

} // namespace corvel

#endif
