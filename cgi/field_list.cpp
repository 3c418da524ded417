// SPDX-License-Identifier: MIT
#include "cgi/field_list.h"

#include "support/handles.h"
#include "support/text.h"

using namespace corvel;

extern "C" {

void *get_buffer(uint32_t size) {
    // Size 0 yields a block as well: a null pointer means that memory could not be allocated.
    return std::calloc(1, size != 0 ? size : 1);
}

int free_buffer(void *block, uint32_t size) {
    wipe_and_free(block, size);
    return 0;
}

void *add_str(str_node **head, const char *name, const char *value) {
    str_node *const record = allocate<str_node>(1).release();
    if (record == nullptr)
        return nullptr;
    store(record->name, text_of(name, sizeof record->name));
    store(record->value, text_of(value, sizeof record->value));
    record->next = nullptr;
    str_node **const end = find_link(head, [](const str_node &) { return false; });
    *end = record;
    return end == head ? static_cast<void *>(record) : record->value;
}

void free_list(str_node **head) {
    while (*head != nullptr)
        remove_record(head);
}

void delete_string(str_node **head, const char *name) {
    // The name may be the unterminated name of a record.
    const std::string_view wanted = text_of(name, sizeof(str_node::name));
    str_node **const link =
        find_link(head, [wanted](const str_node &field) { return name_of(field) == wanted; });
    if (*link != nullptr)
        remove_record(link);
}

str_node *find_keyword(const char *text, str_node *head) {
    // Callers try each position of a string in turn, so no more is read than the longest name.
    const std::string_view position = text_of(text, sizeof(str_node::name));
    return *find_link(
        &head, [position](const str_node &field) { return names_start_of(field, position); });
}

char *change_keyword(char *text, const str_node *record) {
    const std::string_view value = value_of(*record);
    const std::string_view tail = after(text_of(text), name_of(*record).size() + 1);
    std::memmove(text + value.size(), tail.data(), tail.size() + 1);
    std::memcpy(text, value.data(), value.size());
    return text;
}

} // extern "C"
