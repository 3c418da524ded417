// SPDX-License-Identifier: MIT
#ifndef CORVEL_PAGE_DATA_H
#define CORVEL_PAGE_DATA_H

#include <corvel_page.h>

#include "page/arena.h"

namespace corvel {

/// A name in the values of a template: a value, a repeated section, or both. The entries of a level
/// are a binary tree, in which the bits of a hash of the name select the branch.
struct Entry {
    Entry *branches[2];
    char *name;
    char *value; ///< Null if the name has no value.
    std::size_t capacity;
    corvel_data *first; ///< The repetitions of the section; null if there are none.
    corvel_data *last;
};

struct DataTree;

} // namespace corvel

/// The values of one level: of the whole template, or of one repetition of a section.
struct corvel_data {
    corvel::DataTree *tree;
    corvel::Entry *entries;
    corvel_data *next; ///< The next repetition of the same section.
};

namespace corvel {

/// The outermost level, and the memory of all levels.
struct DataTree {
    corvel_data level{this, nullptr, nullptr};
    Arena arena{CORVEL_DATA_MAX};
};

/// The length of the name of a value, section or template that a string starts with: 1 to 64
/// letters, digits, hyphens and underscores. 0 if it starts with none or with a longer one.
std::size_t template_name_length(const char *text);

/// True if a string is such a name.
bool is_template_name(const char *name);

/// The entry of a name; null if there is none.
const Entry *find_entry(const corvel_data *data, const char *name);

/// True if all values that were set are in @p data. False for null.
bool is_complete(const corvel_data *data);

} // namespace corvel

#endif
