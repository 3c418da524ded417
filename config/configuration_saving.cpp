// SPDX-License-Identifier: MIT
#include <corvel.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "config/companion_files.h"
#include "config/lock_file.h"
#include "config/property_table.h"
#include "config/replacement.h"
#include "support/descriptor.h"
#include "support/handles.h"
#include "support/line_input.h"
#include "support/output.h"
#include "support/text.h"

namespace corvel {
namespace {

/// Whether a path still names an open file. Symbolic links are followed.
bool leads_to(const char *path, const Descriptor &file) {
    struct stat named;
    struct stat opened;
    return stat(path, &named) == 0 && fstat(file.get(), &opened) == 0 &&
           is_same_file(named, opened);
}

/// Replaces a file with a new version of it. `write_lines(lines, copy)` reads the lines of the
/// original and writes the copy. On any failure the original is kept and the copy is removed.
template <typename WriteLines>
void rewrite(const LockFile &lock, const FileNames &names, WriteLines write_lines) {
    Descriptor original = open_regular(names.file);
    if (!original)
        return;
    Replacement replacement(names, lock.held());
    if (!replacement)
        return;
    // A writer without the lock file may have replaced the file since it was opened. While the copy
    // is locked, no writer can.
    if (!leads_to(names.file, original))
        original = open_regular(names.file);
    if (!original)
        return;
    LineReader lines(original.get());
    write_lines(lines, replacement.stream());
    const bool whole = !lines.failed() && replacement.finish(original.get());
    original = Descriptor(-1);
    if (whole)
        replacement.take_place();
}

/// The part of a line before the first separator; the whole line if it has none.
std::string_view key_of(std::string_view line, char separator) {
    return front(line, line.find(separator));
}

/// Finds table rows by name in logarithmic time: the rows sorted by the hash of their names. Names
/// with equal hashes are sorted by name, so that names chosen to collide cost no more than others.
/// If memory cannot be allocated, the rows are searched linearly.
class RowIndex {
  public:
    explicit RowIndex(std::span<const prop_entry> rows)
        : rows_(rows), entries_(allocate<Entry>(rows.size() + 1)) {
        if (!entries_)
            return;
        for (const prop_entry &row : rows)
            if (row.name != nullptr)
                entries_.get()[size_++] = {hash(row.name), &row};
        // Smaller than std::sort() by a kilobyte.
        std::qsort(entries_.get(), size_, sizeof(Entry), compare);
    }

    /// The last row with this name, or null.
    [[nodiscard]] const prop_entry *last_named(std::string_view name) const {
        if (!entries_)
            return search(name);
        const Entry *const begin = entries_.get();
        const std::uint32_t name_hash = hash(name);
        const Entry *const greater =
            std::partition_point(begin, begin + size_, [name, name_hash](const Entry &entry) {
                return entry.hash != name_hash ? entry.hash < name_hash : entry.row->name <= name;
            });
        const prop_entry *const row = greater != begin ? greater[-1].row : nullptr;
        return row != nullptr && row->name == name ? row : nullptr;
    }

  private:
    struct Entry {
        std::uint32_t hash;
        const prop_entry *row;
    };

    /// By hash, then by name, then by position in the table.
    static int compare(const void *one, const void *other) {
        const auto &a = *static_cast<const Entry *>(one);
        const auto &b = *static_cast<const Entry *>(other);
        if (a.hash != b.hash)
            return a.hash < b.hash ? -1 : 1;
        const int order = std::strcmp(a.row->name, b.row->name);
        return order != 0 ? order : a.row < b.row ? -1 : 1;
    }

    /// FNV-1a.
    static std::uint32_t hash(std::string_view name) {
        std::uint32_t value = 2166136261U;
        for (const char character : name)
            value = (value ^ static_cast<unsigned char>(character)) * 16777619U;
        return value;
    }

    [[nodiscard]] const prop_entry *search(std::string_view name) const {
        for (std::size_t row = rows_.size(); row-- != 0;)
            if (rows_[row].name != nullptr && name == rows_[row].name)
                return &rows_[row];
        return nullptr;
    }

    std::span<const prop_entry> rows_;
    HeapBlock<Entry> entries_;
    std::size_t size_ = 0;
};

/// Copies a property file. A line whose key is the name of a table row is replaced.
void copy_with_rows(LineReader &lines, std::FILE *copy, char separator,
                    std::span<const prop_entry> rows) {
    const RowIndex index(rows);
    const std::string_view separator_text(&separator, separator != '\0' ? 1 : 0);
    Output out(copy);
    Line line;
    while (lines.next(line) && !line.unterminated) {
        const std::string_view content = front(line.bytes(), line.place.size() - 1);
        const std::string_view text = front(line.text(), content.size());
        const prop_entry *row = index.last_named(key_of(text, separator));
        if (row == nullptr) {
            out.put(content);
        } else {
            out.put(text_of(row->name));
            out.put(separator_text);
            out.put("\"");
            out.put(text_of(row->value));
            out.put("\"");
        }
        out.put("\n");
    }
}

/// A setting to write to a file.
struct NewSetting {
    std::string_view prefix;
    std::string_view name;
    std::string_view value;
    char separator;
};

void put_setting(Output &out, const NewSetting &setting, std::string_view quote) {
    out.put(setting.prefix);
    out.put(setting.name);
    out.put({&setting.separator, 1});
    out.put(quote);
    out.put(setting.value);
    out.put(quote);
    out.put("\n");
}

/// Copies a property file with one setting changed. The new value is quoted where it replaces a
/// line, and not quoted where it is appended.
void copy_with_setting(LineReader &lines, std::FILE *copy, const NewSetting &setting) {
    Output out(copy);
    Line line;
    bool found = false;
    while (lines.next(line)) {
        const bool named = key_of(line.text(), setting.separator) == setting.name;
        found = found || named;
        if (line.unterminated)
            break;
        if (named)
            put_setting(out, setting, "\"");
        else
            out.put(line.bytes());
    }
    if (!found)
        put_setting(out, setting, "");
}

} // namespace
} // namespace corvel

using namespace corvel;

extern "C" {

int save_prop(signed char sep, const char *path, const prop_entry *table, int count) {
    std::array<char, CORVEL_PATH_SIZE> copy_path;
    std::array<char, CORVEL_PATH_SIZE> lock_path;
    if (!build_companion_path(copy_path, text_of(path), copy_suffix) ||
        !build_companion_path(lock_path, text_of(path), lock_suffix))
        return 1;
    const FileNames names = {text_or_empty(path), copy_path.data(), lock_path.data()};
    const LockFile lock(names);
    rewrite(lock, names, [&](LineReader &lines, std::FILE *copy) {
        copy_with_rows(lines, copy, static_cast<char>(sep), rows_of(table, count));
    });
    return 1;
}

int save_global_conf(signed char sep, const char *path, const char *prefix, const char *name,
                     const char *value) {
    std::array<char, CORVEL_GLOBAL_CONF_COPY_SIZE> copy_path;
    std::array<char, CORVEL_PATH_SIZE> lock_path;
    if (!build_companion_path(copy_path, text_of(path), copy_suffix) ||
        !build_companion_path(lock_path, text_of(path), lock_suffix))
        return 1;
    const NewSetting setting = {text_of(prefix), text_of(name), text_of(value), separator_of(sep)};
    const FileNames names = {text_or_empty(path), copy_path.data(), lock_path.data()};
    LockFile lock(names);
    rewrite(lock, names,
            [&](LineReader &lines, std::FILE *copy) { copy_with_setting(lines, copy, setting); });
    lock.release_and_remove();
    return 1;
}

int save_config(void) { return std::system("/sbin/configclient  &"); }

int calc_netpriexlength(const char *mask) {
    std::string_view rest = text_of(mask);
    int length = 0;
    for (int octet = 0; octet < 4; ++octet) {
        const auto value = static_cast<unsigned char>(decimal_value(rest));
        length += value == 0 ? 0 : 8 - std::countr_zero(value);
        const std::size_t dot = rest.find('.');
        rest = dot != std::string_view::npos ? after(rest, dot + 1) : std::string_view();
    }
    return length;
}

} // extern "C"
