// SPDX-License-Identifier: MIT
#ifndef CORVEL_CONFIG_PROPERTY_TABLE_H
#define CORVEL_CONFIG_PROPERTY_TABLE_H

#include <corvel.h>

#include <cstddef>
#include <span>

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

} // namespace corvel

#endif
