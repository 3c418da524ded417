// SPDX-License-Identifier: MIT
#include <corvel.h>

#include <array>
#include <bit>
#include <limits>

#include "config/property_table.h"
#include "support/descriptor.h"
#include "support/handles.h"
#include "support/line_input.h"
#include "support/output.h"
#include "support/text.h"

namespace corvel {
namespace {

constexpr std::string_view copy_ending = ".cgi";
constexpr std::string_view lock_ending = ".lck";

/// The name of a file's companion in a buffer of its own; false if it does not fit.
template <std::size_t size>
bool name_companion(std::array<char, size> &name, std::string_view path, std::string_view ending) {
    if (path.size() + ending.size() >= size)
        return false;
    const std::size_t length = store(name, path);
    store(std::span(name).subspan(length), ending);
    return true;
}

/// Creates the copy that is to take a file's place, readable by its owner alone even where one was
/// left behind.
Stream create_copy(const char *path) {
    constexpr mode_t owner_alone = S_IRUSR | S_IWUSR;
    const int descriptor =
        open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, owner_alone);
    if (descriptor < 0)
        return nullptr;
    fchmod(descriptor, owner_alone);
    Stream copy(fdopen(descriptor, "w"));
    if (!copy) {
        close(descriptor);
        unlink(path);
    }
    return copy;
}

/// Gives the copy the original's owner and mode; false if the mode can't be had. Where the owner
/// can't be set, set-id bits are not taken over.
bool take_over_owner_and_mode(int copy, int original) {
    struct stat status;
    if (fstat(original, &status) != 0)
        return false;
    const bool owned = fchown(copy, status.st_uid, status.st_gid) == 0;
    return fchmod(copy, status.st_mode & (owned ? 07777 : 0777)) == 0;
}

/// Closes the finished copy; false if it is not all that it should be. The mode comes last: to
/// write to a file clears its set-id bits.
bool finish_copy(Stream copy, int original) {
    const bool whole = std::fflush(copy.get()) == 0 && std::ferror(copy.get()) == 0 &&
                       take_over_owner_and_mode(fileno(copy.get()), original);
    return std::fclose(copy.release()) == 0 && whole;
}

/// Puts a new version of a file in its place. `write_lines(lines, copy)` takes the lines of the
/// original and writes the copy. If any of it fails, the original stays and the copy is removed.
template <typename WriteLines>
void rewrite(const char *path, const char *copy_path, WriteLines write_lines) {
    const Descriptor original = open_for_reading(path);
    if (!original)
        return;
    Stream copy = create_copy(copy_path);
    if (!copy)
        return;
    LineReader lines(original.get());
    write_lines(lines, copy.get());
    const bool written = finish_copy(std::move(copy), original.get());
    if (!written || lines.failed()) {
        unlink(copy_path);
        return;
    }
    const bool removed = unlink(path) == 0;
    // Once the original is gone, the copy is all there is.
    if (std::rename(copy_path, path) != 0 && !removed)
        unlink(copy_path);
}

/// The text in front of the first separator, or the whole line.
std::string_view key_of(std::string_view line, char separator) {
    return front(line, line.find(separator));
}

/// Finds table rows by name without comparing each with each: a hash table of row indices, open
/// addressing, at most half full. Without memory for it, rows are searched one by one.
class RowIndex {
  public:
    explicit RowIndex(std::span<const prop_entry> rows) : rows_(rows) {
        const std::size_t slot_count = std::bit_ceil(rows.size() * 2 + 1);
        slots_.reset(static_cast<Slot *>(std::calloc(slot_count, sizeof(Slot))));
        mask_ = slot_count - 1;
        if (!slots_)
            return;
        for (std::size_t row = 0; row < rows.size(); ++row)
            if (rows[row].name != nullptr)
                insert(row);
    }

    /// The last row with the name, or null.
    [[nodiscard]] const prop_entry *last_named(std::string_view name) const {
        if (!slots_)
            return search(name);
        const Slot &slot = slots_.get()[find(name, hash(name))];
        return slot.row_after != 0 ? &rows_[slot.row_after - 1] : nullptr;
    }

  private:
    struct Slot {
        std::uint32_t hash;
        std::uint32_t row_after; ///< the row's index plus one; 0 in an empty slot
    };

    /// FNV-1a.
    static std::uint32_t hash(std::string_view name) {
        std::uint32_t value = 2166136261U;
        for (const char character : name)
            value = (value ^ static_cast<unsigned char>(character)) * 16777619U;
        return value;
    }

    /// The slot that holds the name or, if none does, the empty one where it belongs.
    [[nodiscard]] std::size_t find(std::string_view name, std::uint32_t name_hash) const {
        std::size_t at = name_hash & mask_;
        while (slots_.get()[at].row_after != 0 &&
               (slots_.get()[at].hash != name_hash ||
                text_of(rows_[slots_.get()[at].row_after - 1].name) != name))
            at = (at + 1) & mask_;
        return at;
    }

    void insert(std::size_t row) {
        const std::string_view name = text_of(rows_[row].name);
        const std::uint32_t name_hash = hash(name);
        slots_.get()[find(name, name_hash)] = {name_hash, static_cast<std::uint32_t>(row + 1)};
    }

    [[nodiscard]] const prop_entry *search(std::string_view name) const {
        for (std::size_t row = rows_.size(); row-- != 0;)
            if (rows_[row].name != nullptr && name == rows_[row].name)
                return &rows_[row];
        return nullptr;
    }

    std::span<const prop_entry> rows_;
    HeapBlock<Slot> slots_;
    std::size_t mask_;
};

/// Copies a property file, with new lines for those whose keys are names of table rows.
void copy_with_rows(LineReader &lines, std::FILE *copy, char separator,
                    std::span<const prop_entry> rows) {
    const RowIndex index(rows);
    const std::string_view separator_text(&separator, separator != '\0' ? 1 : 0);
    Output out(copy);
    Line line;
    while (lines.next(line) && !line.cut_off) {
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

/// One setting to be written into a file.
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

/// Copies a property file with one setting changed: in quotes where it was, without them where it
/// is added at the end.
void copy_with_setting(LineReader &lines, std::FILE *copy, const NewSetting &setting) {
    Output out(copy);
    Line line;
    bool found = false;
    while (lines.next(line)) {
        const bool named = key_of(line.text(), setting.separator) == setting.name;
        found = found || named;
        if (line.cut_off)
            break;
        if (named)
            put_setting(out, setting, "\"");
        else
            out.put(line.bytes());
    }
    if (!found)
        put_setting(out, setting, "");
}

/// The value of a mask's octet, low 8 bits.
unsigned char octet_value(std::string_view text) {
    return static_cast<unsigned char>(decimal_value(text));
}

} // namespace
} // namespace corvel

extern "C" {

int save_prop(signed char sep, const char *path, const prop_entry *table, int count) {
    std::array<char, 1024> copy_path;
    std::array<char, 1024> lock_path;
    if (!corvel::name_companion(copy_path, corvel::text_of(path), corvel::copy_ending) ||
        !corvel::name_companion(lock_path, corvel::text_of(path), corvel::lock_ending))
        return 1;
    const corvel::FileLock lock(lock_path.data());
    corvel::rewrite(path, copy_path.data(), [&](corvel::LineReader &lines, std::FILE *copy) {
        corvel::copy_with_rows(lines, copy, static_cast<char>(sep), corvel::rows_of(table, count));
    });
    return 1;
}

int save_global_conf(signed char sep, const char *path, const char *prefix, const char *name,
                     const char *value) {
    std::array<char, 255> copy_path;
    std::array<char, 1024> lock_path;
    if (!corvel::name_companion(copy_path, corvel::text_of(path), corvel::copy_ending) ||
        !corvel::name_companion(lock_path, corvel::text_of(path), corvel::lock_ending))
        return 1;
    const corvel::NewSetting setting = {corvel::text_of(prefix), corvel::text_of(name),
                                        corvel::text_of(value), corvel::separator_of(sep)};
    {
        const corvel::FileLock lock(lock_path.data());
        corvel::rewrite(path, copy_path.data(), [&](corvel::LineReader &lines, std::FILE *copy) {
            corvel::copy_with_setting(lines, copy, setting);
        });
    }
    unlink(lock_path.data());
    return 1;
}

int save_config(void) { return std::system("/sbin/configclient  &"); }

int calc_netpriexlength(const char *mask) {
    std::string_view rest = corvel::text_of(mask);
    int length = 0;
    for (int octet = 0; octet < 4; ++octet) {
        const unsigned char value = corvel::octet_value(rest);
        length += value == 0 ? 0 : 8 - std::countr_zero(value);
        rest = corvel::behind(rest, corvel::key_of(rest, '.').size() + 1);
    }
    return length;
}

} // extern "C"
