// SPDX-License-Identifier: MIT
#include "page/data.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "page/arena.h"
#include "support/text.h"

namespace corvel {
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
    corvel_data level;
    Arena arena{CORVEL_DATA_MAX};
};

namespace {

constexpr std::size_t name_max = 64;

/// The place in the tree of the entry of a name, which holds null if there is none.
Entry *const *place_of(Entry *const *place, std::uint32_t hash, std::string_view name) {
    for (std::uint32_t bits = hash; *place != nullptr; bits >>= 1) {
        if ((*place)->hash == hash && (*place)->name == name)
            break;
        place = &(*place)->branches[bits & 1];
    }
    return place;
}

/// The entry of a name, which is added if there is none. Null on failure; the values are incomplete
/// then.
Entry *take_entry(corvel_data *data, const char *name) {
    if (data == nullptr)
        return nullptr;
    Arena &arena = data->tree->arena;
    const std::string_view text = text_of(name);
    if (!is_template_name(text)) {
        arena.fail();
        return nullptr;
    }
    const std::uint32_t hash = hash_of(text);
    auto *const place = const_cast<Entry **>(place_of(&data->entries, hash, text));
    if (*place != nullptr)
        return *place;
    auto *const memory = static_cast<char *>(arena.allocate(sizeof(Entry) + text.size()));
    if (memory == nullptr)
        return nullptr;
    char *const copy = memory + sizeof(Entry);
    std::memcpy(copy, text.data(), text.size());
    *place = new (memory) Entry{{}, hash, {copy, text.size()}, nullptr, 0, 0, nullptr, nullptr};
    return *place;
}

} // namespace

bool is_template_name(std::string_view name) {
    for (const char character : name) {
        const char lower = static_cast<char>(character | 0x20);
        if (!is_digit(character) && (lower < 'a' || lower > 'z') && character != '-' &&
            character != '_')
            return false;
    }
    return !name.empty() && name.size() <= name_max;
}

/// FNV-1a.
std::uint32_t hash_of(std::string_view name) {
    std::uint32_t hash = 2166136261U;
    for (const char character : name)
        hash = (hash ^ static_cast<unsigned char>(character)) * 16777619U;
    return hash;
}

const Entry *find_entry(const corvel_data *data, std::uint32_t hash, std::string_view name) {
    return data != nullptr ? *place_of(&data->entries, hash, name) : nullptr;
}

const corvel_data *next_repetition(const corvel_data *data) { return data->next; }

bool is_complete(const corvel_data *data) { return data != nullptr && !data->tree->arena.failed(); }

} // namespace corvel

using namespace corvel;

extern "C" {

corvel_data *corvel_data_new(void) {
    void *const memory = std::malloc(sizeof(DataTree));
    if (memory == nullptr)
        return nullptr;
    auto *const tree = new (memory) DataTree{{nullptr, nullptr, nullptr}};
    tree->level.tree = tree;
    return &tree->level;
}

void corvel_data_free(corvel_data *data) {
    if (data == nullptr || data != &data->tree->level)
        return;
    DataTree *const tree = data->tree;
    tree->~DataTree();
    std::free(tree);
}

void corvel_data_set(corvel_data *data, const char *name, const char *value) {
    Entry *const entry = take_entry(data, name);
    if (entry == nullptr)
        return;
    const std::string_view text = text_of(value);
    if (entry->value == nullptr || text.size() > entry->capacity) {
        entry->value = static_cast<char *>(data->tree->arena.allocate(text.size() + 1));
        entry->capacity = text.size();
    }
    entry->length = entry->value != nullptr ? text.size() : 0;
    if (entry->length != 0)
        std::memcpy(entry->value, text.data(), text.size());
}

void corvel_data_set_integer(corvel_data *data, const char *name, long long value) {
    char text[24];
    std::snprintf(text, sizeof text, "%lld", value);
    corvel_data_set(data, name, text);
}

corvel_data *corvel_data_add(corvel_data *data, const char *section) {
    Entry *const entry = take_entry(data, section);
    if (entry == nullptr)
        return nullptr;
    void *const memory = data->tree->arena.allocate(sizeof(corvel_data));
    if (memory == nullptr)
        return nullptr;
    auto *const added = new (memory) corvel_data{data->tree, nullptr, nullptr};
    if (entry->first == nullptr)
        entry->first = added;
    else
        entry->last->next = added;
    entry->last = added;
    return added;
}

} // extern "C"
