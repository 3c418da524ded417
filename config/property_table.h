// SPDX-License-Identifier: MIT
#ifndef CORVEL_CONFIG_PROPERTY_TABLE_H
#define CORVEL_CONFIG_PROPERTY_TABLE_H

#include <corvel.h>

#include <cstddef>
#include <span>

namespace corvel {

/// The rows in use of a caller's table.
template <typename Row> std::span<Row> rows_of(Row *table, int count) {
    return {table, table != nullptr && count > 0 ? static_cast<std::size_t>(count) : 0};
}

/// A separator selector of a property file: `=` and blank stand for themselves, all else for a tab.
constexpr char separator_of(signed char selector) {
    return selector == '=' || selector == ' ' ? static_cast<char>(selector) : '\t';
}

} // namespace corvel

#endif
