// SPDX-License-Identifier: MIT
#ifndef CORVEL_CONFIG_PROPERTY_TABLE_H
#define CORVEL_CONFIG_PROPERTY_TABLE_H

#include <corvel.h>

#include <cstddef>
#include <span>
#include <string_view>

#include "support/text.h"

namespace corvel {

/// The used rows of a caller's table; none for a null pointer or a negative count.
template <typename Row> std::span<Row> rows_of(Row *table, int count) {
    return {table, table != nullptr ? size_from(count) : 0};
}

/// The separator that a selector chooses: `=` and space choose themselves, any other value a tab.
constexpr char separator_of(signed char selector) {
    return selector == '=' || selector == ' ' ? static_cast<char>(selector) : '\t';
}

/// The parts of a line, as views into the line.
struct Setting {
    std::string_view name_area; ///< Everything before the separator; the name is its first word.
    std::string_view value;
};

inline constexpr std::string_view line_prefix = "setenv ";

/// Splits a line. False if it is a comment or has no separator.
inline bool parse_line(std::string_view line, char separator, Setting &setting) {
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
