// SPDX-License-Identifier: MIT
#include "page/data.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>

#include "page/syntax.h"
#include "support/text.h"

namespace corvel {
namespace {

constexpr std::size_t name_max = 64;

/// The place in the tree of the entry of a name, which holds null if there is none.
Entry **place_of(const corvel_data *data, const char *name) {
    std::uint32_t hash = 2166136261U; // FNV-1a
    for (const char *at = name; *at != '\0'; ++at)
        hash = (hash ^ static_cast<unsigned char>(*at)) * 16777619U;
    auto **place = const_cast<Entry **>(&data->entries);
    for (; *place != nullptr && std::strcmp((*place)->name, name) != 0; hash >>= 1)
        place = &(*place)->branches[hash & 1];
    return place;
}

/// The entry of a name, which is added if there is none. Null on failure; the values are incomplete
/// then.
Entry *take_entry(corvel_data *data, const char *name) {
    if (data == nullptr)
        return nullptr;
    Arena &arena = data->tree->arena;
    if (!is_template_name(name)) {
        arena.fail();
        return nullptr;
    }
    Entry **const place = place_of(data, name);
    if (*place != nullptr)
        return *place;
    const std::size_t size = std::strlen(name) + 1;
    auto *const entry = static_cast<Entry *>(arena.allocate(sizeof(Entry) + size));
    if (entry == nullptr)
        return nullptr;
    entry->name = reinterpret_cast<char *>(entry + 1);
    std::memcpy(entry->name, name, size);
    *place = entry;
    return entry;
}

} // namespace

std::size_t template_name_length(const char *text) {
    const std::size_t length = span_of(text, "-_");
    return length <= name_max ? length : 0;
}

bool is_template_name(const char *name) {
    const std::size_t length = template_name_length(text_or_empty(name));
    return length != 0 && name[length] == '\0';
}

const Entry *find_entry(const corvel_data *data, const char *name) {
    return data != nullptr ? *place_of(data, name) : nullptr;
}

bool is_complete(const corvel_data *data) { return data != nullptr && !data->tree->arena.failed(); }

} // namespace corvel

using namespace corvel;

extern "C" {

corvel_data *corvel_data_new(void) {
    void *const memory = std::malloc(sizeof(DataTree));
    return memory != nullptr ? &(new (memory) DataTree)->level : nullptr;
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
    value = text_or_empty(value);
    const std::size_t size = std::strlen(value) + 1;
    if (size > entry->capacity) {
        entry->value = static_cast<char *>(data->tree->arena.allocate(size));
        entry->capacity = entry->value != nullptr ? size : 0;
    }
    if (entry->capacity != 0)
        std::memcpy(entry->value, value, size);
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
    auto *const added = static_cast<corvel_data *>(data->tree->arena.allocate(sizeof(corvel_data)));
    if (added == nullptr)
        return nullptr;
    added->tree = data->tree;
    if (entry->first == nullptr)
        entry->first = added;
    else
        entry->last->next = added;
    entry->last = added;
    return added;
}

} // extern "C"
