// SPDX-License-Identifier: MIT
// Property tables against a model of a line on std::string; and values set, saved and loaded again.
//
// Input: the separator, a name NUL a value NUL, then the file.
#include "corvel.h"
#include "fuzz/harness.h"

#include <algorithm>
#include <cstring>
#include <optional>

namespace {

using namespace corvel_fuzz;

constexpr std::size_t value_block = CORVEL_PROP_VALUE_SIZE;
constexpr std::size_t longest_set_value = CORVEL_PROP_VALUE_SIZE - 1;
constexpr std::size_t longest_read_value = CORVEL_GET_PROP_SIZE - 1;
constexpr std::size_t longest_plain_name = 512;
constexpr std::string_view prefix = "setenv ";
constexpr std::string_view white_space = " \t\n\v\f\r";

struct Row {
    std::string name;
    std::string value;
    std::size_t name_size;
};

using Rows = std::vector<Row>;

char separator_of(char selector) { return selector == '=' || selector == ' ' ? selector : '\t'; }

/** The position of the first separator, after "setenv " if the line contains it. */
std::size_t separator_position(char separator, std::string_view line) {
    const std::size_t set = line.find(prefix);
    return line.find(separator, set == std::string_view::npos ? 0 : set + prefix.size());
}

std::string first_word(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(white_space), text.size()));
    return std::string(text.substr(0, text.find_first_of(white_space)));
}

std::optional<Row> row_of(char selector, std::string_view line) {
    if (line.starts_with('#'))
        return std::nullopt;
    const std::size_t position = separator_position(separator_of(selector), line);
    if (position == std::string_view::npos)
        return std::nullopt;
    const std::size_t set = line.find(prefix);
    const std::size_t start = set == std::string_view::npos ? 0 : set + prefix.size();
    const std::string_view before = line.substr(start, position - start);
    const std::string_view value = cut(line.substr(position + 1), value_block);
    return Row{first_word(before), std::string(value), before.size() + 1};
}

Rows rows_of(char selector, std::string_view file) {
    Rows rows;
    for (const Piece &piece : pieces_of(file)) {
        if (piece.at_end)
            break;
        const std::string_view text = as_text(piece.text);
        if (auto row = row_of(selector, text.substr(0, text.find('\n'))))
            rows.push_back(std::move(*row));
    }
    return rows;
}

/** A table of exactly the rows that the caller needs, released with its strings. */
class Table {
  public:
    explicit Table(std::size_t capacity) : rows_(capacity) { rows_.shrink_to_fit(); }
    Table(const Table &) = delete;
    Table &operator=(const Table &) = delete;
    ~Table() { free_prop(rows_.data(), count); }

    prop_entry *rows() { return rows_.data(); }
    const prop_entry &operator[](std::size_t index) const { return rows_[index]; }

    int count = 0;

  private:
    std::vector<prop_entry> rows_;
};

/** The whole block of a value, including the bytes after the string. */
std::string_view block_of(const prop_entry &row) { return {row.value, value_block + 1}; }

std::string padded(std::string value) {
    value.resize(value_block + 1);
    return value;
}

void check_fresh_row(const prop_entry &row, const Row &expected) {
    check_equal(row.name, expected.name, "name of a row");
    check_equal(row.name_size, static_cast<long long>(expected.name_size), "name_size");
    check_equal(row.value_size, static_cast<long long>(value_block), "value_size");
    check_equal(block_of(row), padded(expected.value), "value of a row, followed by zeros");
}

void check_rows(const Table &table, const Rows &expected) {
    check_equal(table.count, static_cast<long long>(expected.size()), "count of rows");
    for (std::size_t i = 0; i < expected.size(); ++i)
        check_fresh_row(table[i], expected[i]);
}

void load(char selector, const char *path, Table &table) {
    table.count = load_prop(static_cast<signed char>(selector), path, table.rows());
}

/** A single line, in a block of exactly its size. */
void check_line(char selector, std::string_view line) {
    const auto copy = exact_copy(line);
    const std::optional<Row> expected = row_of(selector, line);
    prop_entry row = {7, 7, nullptr, nullptr};
    const int result = get_pr(static_cast<signed char>(selector), copy.get(), &row);
    check_equal(result, expected.has_value(), "get_pr");
    std::string left(line);
    if (expected) {
        left[separator_position(separator_of(selector), line)] = '\0';
        check_fresh_row(row, *expected);
        free_prop(&row, 1);
    } else {
        check(row.name_size == 7 && row.name == nullptr, "a row that is not filled is unchanged");
    }
    check_equal(std::string_view(copy.get(), line.size()), left,
                "only the separator is overwritten");
}

std::size_t index_of(const Rows &rows, std::string_view name) {
    const auto row =
        std::find_if(rows.begin(), rows.end(), [&](const Row &each) { return each.name == name; });
    return static_cast<std::size_t>(row - rows.begin());
}

void check_lookup(Table &table, const Rows &rows, const std::string &name) {
    const auto found = padded_copy("untouched", longest_read_value + 1);
    const char *result = get_prop(name.c_str(), found.get(), table.rows(), table.count);
    const std::size_t index = index_of(rows, name);
    check(result == (index < rows.size() ? found.get() : nullptr), "get_prop returns dst or null");
    const std::string expected = index < rows.size()
                                     ? without_quotes(cut(rows[index].value, longest_read_value))
                                     : "untouched";
    check_equal(found.get(), expected, "get_prop");
}

void check_set(Table &table, Rows &rows, const std::string &name, const std::string &value) {
    const std::size_t index = index_of(rows, name);
    const int result = set_prop(name.c_str(), value.c_str(), table.rows(), table.count);
    check_equal(result, static_cast<long long>(index), "set_prop returns the row's index");
    if (index < rows.size()) {
        rows[index].value = cut(value, longest_set_value);
        check_equal(table[index].value, rows[index].value, "set_prop");
        check(table[index].value[value_block] == '\0', "the last byte of a block is zero");
    }
    check_lookup(table, rows, name);
}

void check_insert(Table &table, Rows &rows, const std::string &name, const std::string &value) {
    const std::size_t index = index_of(rows, name);
    table.count = ins_prop(name.c_str(), value.c_str(), table.rows(), table.count);
    if (index < rows.size())
        rows[index].value = cut(value, longest_set_value);
    else
        rows.push_back({name, std::string(cut(value, value_block)), name.size() + 1});
    check_equal(table.count, static_cast<long long>(rows.size()), "ins_prop returns the count");
    check_fresh_row(table[index], rows[index]);
    check_lookup(table, rows, name);
}

/** A row as a request decoder fills it, with a value_size of 0: set_prop() finds it and writes
 *  nothing. */
void check_row_without_size(const std::string &name, const std::string &value) {
    const auto name_text = exact_copy(name);
    const auto value_text = exact_copy(value);
    prop_entry row = {0, 0, name_text.get(), value_text.get()};
    check_equal(set_prop(name.c_str(), "new", &row, 1), 0, "set_prop finds the row");
    check_equal(value_text.get(), value, "a value of size 0 is unchanged");
}

/** Loads, looks up, changes and adds; returns every byte of the table. */
std::string check_table(char selector, const char *path, Rows rows, const std::string &name,
                        const std::string &value) {
    Table table(rows.size() + 2);
    load(selector, path, table);
    check_rows(table, rows);
    check_lookup(table, rows, name);
    check_set(table, rows, name, value);
    check_insert(table, rows, name, value);
    check_insert(table, rows, name + value, value);
    for (std::size_t i = 0; i < rows.size() && i < 4; ++i)
        check_set(table, rows, std::string(rows[i].name), value + rows[i].name);
    check_equal(dump_prop(table.rows(), table.count), 0, "dump_prop");
    std::string bytes;
    for (std::size_t i = 0; i < rows.size(); ++i)
        bytes.append(table[i].name).append(block_of(table[i]));
    check_equal(free_prop(table.rows(), table.count), 1, "free_prop");
    check(rows.empty() || (table[0].name == nullptr && table[0].value == nullptr),
          "released strings leave null pointers");
    return bytes;
}

/** If the file's lines are complete, its rows are the same between other lines. */
void check_neighbours(char selector, const std::string &file, const Rows &rows) {
    if (!file.ends_with('\n'))
        return;
    static MemoryFile surrounded;
    const std::string line = std::string("before") + separator_of(selector) + "1\n";
    surrounded.fill("# comment\n" + line + file + line + "cut off");
    Table table(rows.size() + 2);
    load(selector, surrounded.path(), table);
    check_equal(table.count, static_cast<long long>(rows.size()) + 2, "the same lines and two");
    for (std::size_t i = 0; i < rows.size(); ++i)
        check_fresh_row(table[i + 1], rows[i]);
}

/** Whether a name is read back from its own line with any separator: it is a unique word, and the
 *  line is read in one piece. */
bool is_plain(const std::string &name, const Rows &rows) {
    const auto same = [&](const Row &row) {
        return row.name == name;
    };
    return !name.empty() && name.size() <= longest_plain_name && name[0] != '#' &&
           name.find('=') == std::string_view::npos &&
           name.find_first_of(white_space) == std::string_view::npos && !name.ends_with("setenv") &&
           std::count_if(rows.begin(), rows.end(), same) == 1;
}

/** Makes a value one that is read back from its line: without newlines, without "setenv ", and with
 *  its quotes no longer than the string that get_prop() returns. */
std::string plain_value(std::string value) {
    value.erase(std::remove(value.begin(), value.end(), '\n'), value.end());
    value = cut(value, longest_read_value - 2);
    return value.substr(0, value.find(prefix));
}

/** Values that were set and saved are loaded and looked up unchanged. */
void check_round_trip(char selector, const Rows &rows, const std::string &value) {
    static const std::string path = scratch_directory() + "/settings";
    const char separator = separator_of(selector);
    Rows plain;
    std::string file;
    for (const Row &row : rows) {
        if (is_plain(row.name, rows)) {
            plain.push_back(row);
            file += row.name + separator + "old\n";
        }
    }
    write_file(path, file);
    Table table(plain.size());
    load(separator, path.c_str(), table);
    check_equal(table.count, static_cast<long long>(plain.size()), "plain lines are loaded");
    for (std::size_t i = 0; i < plain.size(); i += 2)
        set_prop(plain[i].name.c_str(), value.c_str(), table.rows(), table.count);
    save_prop(static_cast<signed char>(separator), path.c_str(), table.rows(), table.count);

    Table again(plain.size());
    load(separator, path.c_str(), again);
    check_equal(again.count, table.count, "as many rows as were saved");
    for (std::size_t i = 0; i < plain.size(); ++i) {
        const auto found = padded_copy("", longest_read_value + 1);
        get_prop(plain[i].name.c_str(), found.get(), again.rows(), again.count);
        check_equal(found.get(), i % 2 == 0 ? value : "old", "a load after a save");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static MemoryFile settings;
    Input input(data, size);
    const char selector = static_cast<char>(input.byte());
    const std::string name = input.text();
    const std::string value = input.text();
    const std::string file = input.rest();
    const Rows rows = rows_of(selector, file);
    settings.fill(file);
    in_different_surroundings(
        [&] { return check_table(selector, settings.path(), rows, name, value); });
    check_row_without_size(name, value);
    check_line(selector, as_text(file));
    check_neighbours(selector, file, rows);
    check_round_trip(selector, rows, plain_value(value));
    return 0;
}
