// SPDX-License-Identifier: MIT
#ifndef CORVEL_CGI_FIELD_LIST_H
#define CORVEL_CGI_FIELD_LIST_H

#include <corvel.h>

#include <cstdlib>
#include <string_view>

#include "support/text.h"

namespace corvel {

inline std::string_view name_of(const str_node &field) { return text_in(field.name); }

inline std::string_view value_of(const str_node &field) { return text_in(field.value); }

/// Whether the string starts with the field's name; true for an empty name.
inline bool names_start_of(const str_node &field, std::string_view text) {
    std::size_t length = 0;
    while (length < sizeof field.name && field.name[length] != '\0') {
        if (length == text.size() || field.name[length] != text[length])
            return false;
        ++length;
    }
    return true;
}

/// The link (the head pointer or a record's `next`) to the first record for which `wanted` is true;
/// the null link at the end of the list if there is none.
template <typename Wanted> str_node **find_link(str_node **link, Wanted wanted) {
    while (*link != nullptr && !wanted(**link))
        link = &(*link)->next;
    return link;
}

/// Removes the record that a link points to from the list and frees it.
inline void remove_record(str_node **link) {
    str_node *const record = *link;
    *link = record->next;
    std::free(record);
}

} // namespace corvel

#endif
