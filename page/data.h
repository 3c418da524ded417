// SPDX-License-Identifier: MIT
#ifndef CORVEL_PAGE_DATA_H
#define CORVEL_PAGE_DATA_H

#include <cstdint>
#include <string_view>

#include <corvel_page.h>

namespace corvel {

/// A name in the values of a template: a value, a repeated section, or both. The entries of a level
/// are a binary tree, in which the bits of the hash select the branch.
struct Entry {
    Entry *branches[2];
    std::uint32_t hash;
    std::string_view name;
    char *value; ///< Null if the name has no value.
    std::size_t length;
    std::size_t capacity;
    corvel_data *first; ///< The repetitions of the section; null if there are none.
    corvel_data *last;
};

/// True if a string can be the name of a value, section or template: 1 to 64 letters, digits,
/// hyphens and underscores.
bool is_template_name(std::string_view name);

/// The hash of a name.
std::uint32_t hash_of(std::string_view name);

/// The entry of a name; null if there is none.
const Entry *find_entry(const corvel_data *data, std::uint32_t hash, std::string_view name);

/// The next repetition of a section.
const corvel_data *next_repetition(const corvel_data *data);

/// True if all values that were set are in @p data. False for null.
bool is_complete(const corvel_data *data);

} // namespace corvel

#endif
