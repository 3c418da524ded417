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

/// Whether the field's name stands at the start of the text; an empty name always does.
inline bool names_start_of(const str_node &field, std::string_view text) {
    std::size_t length = 0;
    while (length < sizeof field.name && field.name[length] != '\0') {
        if (length == text.size() || field.name[length] != text[length])
            return false;
        ++length;
    }
    return true;
}

/// The link (the head pointer or some record's `next`) that leads to the first record of which
/// `wanted` is true, or the null link at the end.
template <typename Wanted> str_node **find_link(str_node **link, Wanted wanted) {
    while (*link != nullptr && !wanted(**link))
        link = &(*link)->next;
    return link;
}

/// Takes the record that a link leads to out of the list and frees it.
inline void remove_record(str_node **link) {
    str_node *const record = *link;
    *link = record->next;
    std::free(record);
}

} // namespace corvel

#endif
