// SPDX-License-Identifier: MIT
#include "config/property_table.h"

#include <algorithm>

#include "config/property_line.h"
#include "support/descriptor.h"
#include "support/handles.h"
#include "support/line_input.h"
#include "support/text.h"

namespace corvel {
namespace {

/// The number of characters of a value that its block can hold. The block is one byte larger, and
/// that byte is always zero, so that a value of the full size is still NUL-terminated.
constexpr std::size_t value_size = CORVEL_PROP_VALUE_SIZE;

static_assert(line_limit == CORVEL_LINE_SIZE - 1);

/// Allocates a row's two blocks and fills them. False, with the row unchanged, if memory cannot be
/// allocated.
bool fill_row(prop_entry &row, std::string_view name, std::size_t name_size,
              std::string_view value) {
    HeapBlock<char> name_block = allocate<char>(name_size);
    if (!name_block)
        return false;
    HeapBlock<char> value_block(static_cast<char *>(std::calloc(1, value_size + 1)));
    if (!value_block)
        return false;
    store({name_block.get(), name_size}, name);
    store({value_block.get(), value_size + 1}, value);
    row = {static_cast<std::uint32_t>(name_size), value_size, name_block.release(),
           value_block.release()};
    return true;
}

/// Stores the setting of a line in a row, and terminates the line at the end of its name area.
bool fill_row_from_line(prop_entry &row, char separator, std::span<char> line) {
    Setting setting;
    if (!parse_line({line.data(), line.size()}, separator, setting))
        return false;
    const char *const name_end = setting.name_area.data() + setting.name_area.size();
    line[static_cast<std::size_t>(name_end - line.data())] = '\0';
    const std::size_t name_size = setting.name_area.size() + 1;
    return fill_row(row, take_word(setting.name_area), name_size, setting.value);
}

/// The line up to its first NUL, without its newline.
std::span<char> without_newline(const Line &line) {
    const std::string_view text = line.text();
    return line.place.first(text.size() - (text.ends_with('\n') ? 1 : 0));
}

bool fill_row_with(prop_entry &row, const char *name, const char *value) {
    const std::string_view name_text = text_of(name);
    return fill_row(row, name_text, name_text.size() + 1, text_of(value, value_size));
}

/// The index of the first row with this name, or the number of rows.
std::size_t find_row(std::span<const prop_entry> rows, const char *name) {
    const auto row = std::find_if(rows.begin(), rows.end(), [name](const prop_entry &candidate) {
        return candidate.name != nullptr && std::strcmp(candidate.name, name) == 0;
    });
    return static_cast<std::size_t>(row - rows.begin());
}

std::span<char> value_field(const prop_entry &row) {
    return {row.value, row.value != nullptr ? row.value_size : 0};
}

} // namespace
} // namespace corvel

using namespace corvel;

extern "C" {

int load_prop(signed char sep, const char *path, prop_entry *table) {
    const Descriptor file = open_for_reading(path);
    if (!file)
        return 0;
    LineReader lines(file.get());
    Line line;
    const char separator = separator_of(sep);
    int count = 0;
    while (lines.next(line) && !line.unterminated)
        if (fill_row_from_line(table[count], separator, without_newline(line)))
            ++count;
    return count;
}

int get_pr(signed char sep, char *line, prop_entry *row) {
    const std::span<char> text(line, text_of(line).size());
    return fill_row_from_line(*row, separator_of(sep), text) ? 1 : 0;
}

char *get_prop(const char *name, char *dst, const prop_entry *table, int count) {
    const std::span rows = rows_of(table, count);
    const std::size_t index = find_row(rows, text_or_empty(name));
    if (index == rows.size())
        return nullptr;
    const std::string_view value = text_of(rows[index].value, CORVEL_GET_PROP_SIZE - 1);
    store({dst, CORVEL_GET_PROP_SIZE}, stripped(value, '"'));
    return dst;
}

int set_prop(const char *name, const char *value, prop_entry *table, int count) {
    const std::span rows = rows_of(table, count);
    const std::size_t index = find_row(rows, text_or_empty(name));
    if (index == rows.size())
        return std::max(count, 0);
    const std::span field = value_field(rows[index]);
    store(field, text_of(value, field.size()));
    return static_cast<int>(index);
}

int ins_prop(const char *name, const char *value, prop_entry *table, int count) {
    const std::span rows = rows_of(table, count);
    const std::size_t index = find_row(rows, text_or_empty(name));
    const int rows_in_use = static_cast<int>(rows.size());
    if (index == rows.size()) {
        const bool added = fill_row_with(table[index], name, value);
        return added ? rows_in_use + 1 : rows_in_use;
    }
    const std::span field = value_field(rows[index]);
    const std::size_t kept = store(field, text_of(value, field.size()));
    if (kept < field.size())
        std::memset(&field[kept], 0, field.size() - kept);
    return rows_in_use;
}

int ins_pr(const char *name, const char *value, prop_entry *row, int) {
    return fill_row_with(*row, name, value) ? 1 : 0;
}

int dump_prop(const prop_entry *table, int count) {
    for (const prop_entry &row : rows_of(table, count))
        DFPrintf(stderr, "%s=%s\n", row.name, row.value);
    return 0;
}

int free_prop(prop_entry *table, int count) {
    for (prop_entry &row : rows_of(table, count)) {
        std::free(std::exchange(row.name, nullptr));
        std::free(std::exchange(row.value, nullptr));
    }
    return 1;
}

} // extern "C"
