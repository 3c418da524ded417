// SPDX-License-Identifier: MIT
#include <corvel.h>

#include <algorithm>
#include <array>

#include "cgi/field_list.h"
#include "config/property_table.h"
#include "support/descriptor.h"
#include "support/handles.h"
#include "support/line_input.h"
#include "support/output.h"
#include "support/text.h"

namespace corvel {
namespace {

/// The part of a line that is not written yet. It is kept at the end of its buffer, so that a value
/// can be prepended without moving it. The initial buffer holds a line and one value of full size;
/// only values within values can need a larger one.
class PendingText {
  public:
    /// The line has at most `line_limit` characters.
    explicit PendingText(std::string_view line) : start_(own_size - line.size()) {
        std::memcpy(own_.data() + start_, line.data(), line.size());
    }

    PendingText(const PendingText &) = delete;
    PendingText &operator=(const PendingText &) = delete;

    [[nodiscard]] std::string_view text() const {
        return {buffer_.data() + start_, buffer_.size() - start_};
    }

    void drop(std::size_t length) { start_ += at_most(length, buffer_.size() - start_); }

    /// Prepends a string. False, with nothing changed, if memory cannot be allocated.
    bool prepend(std::string_view text) {
        if (text.size() > start_ && !make_room(text.size()))
            return false;
        start_ -= text.size();
        std::memcpy(buffer_.data() + start_, text.data(), text.size());
        return true;
    }

  private:
    bool make_room(std::size_t length) {
        const std::string_view kept = text();
        const std::size_t size = 2 * (kept.size() + length);
        HeapBlock<char> larger = allocate<char>(size);
        if (!larger)
            return false;
        start_ = size - kept.size();
        std::memcpy(larger.get() + start_, kept.data(), kept.size());
        buffer_ = {larger.get(), size};
        grown_.swap(larger);
        return true;
    }

    static constexpr std::size_t own_size = sizeof(str_node::value) + line_limit;

    std::array<char, own_size> own_;
    std::span<char> buffer_ = own_;
    std::size_t start_;
    HeapBlock<char> grown_;
};

/// A field in the index of names. The fields of one name form a group, in list order.
struct IndexedName {
    std::string_view name;
    const str_node *field;
    std::size_t place; ///< The field's position in the list.
    IndexedName *group;
    // Valid in a group's first field:
    IndexedName *next;   ///< The first field of the group that is not taken yet.
    IndexedName *last;   ///< The end of the group.
    IndexedName *prefix; ///< The group of the longest other name that starts this one, or null.
};

int compare_names(const void *one, const void *other) {
    const auto &a = *static_cast<const IndexedName *>(one);
    const auto &b = *static_cast<const IndexedName *>(other);
    const int order = a.name.compare(b.name);
    if (order != 0)
        return order;
    return a.place < b.place ? -1 : 1;
}

/// Takes the fields that markers name out of a list. A marker names the first field, in list order,
/// whose name is a prefix of the text after the marker.
///
/// The list is searched linearly until `most_skipped` fields have been skipped, which few pages
/// reach. From then on an index of the sorted names bounds the time of a search, however many
/// dollar signs the values contain. Of two names that are prefixes of a text, the shorter one is a
/// prefix of the longer one: all of them are on the path of `prefix` links from the last name that
/// does not sort after the text. The path has at most one step for each possible length of a name.
class PageFields {
  public:
    explicit PageFields(str_node **list) : list_(list) {}
    PageFields(const PageFields &) = delete;
    PageFields &operator=(const PageFields &) = delete;
    ~PageFields() { remove_taken(); }

    /// The field that a text names, or null. It is valid until the next call, and is removed from
    /// the list by the destructor at the latest.
    const str_node *take(std::string_view text) {
        if (!index_ && skipped_ > most_skipped)
            make_index();
        return index_ ? take_from_index(text) : take_from_list(text);
    }

  private:
    const str_node *take_from_list(std::string_view text) {
        str_node **const link = find_link(list_, [this, text](const str_node &field) {
            ++skipped_;
            return names_start_of(field, text);
        });
        taken_.reset(*link);
        if (taken_)
            *link = taken_.get()->next;
        return taken_.get();
    }

    const str_node *take_from_index(std::string_view text) {
        IndexedName *const greater =
            std::upper_bound(index_.get(), index_.get() + count_, text,
                             [](std::string_view searched, const IndexedName &entry) {
                                 return searched < entry.name;
                             });
        IndexedName *found = nullptr;
        for (IndexedName *group = greater != index_.get() ? greater[-1].group : nullptr;
             group != nullptr; group = group->prefix)
            if (group->next != group->last && text.starts_with(group->name) &&
                (found == nullptr || group->next->place < found->next->place))
                found = group;
        if (found == nullptr)
            return nullptr;
        const IndexedName &taken = *found->next++;
        is_taken_.get()[taken.place] = true;
        return taken.field;
    }

    /// If memory cannot be allocated, there is no index until a later call succeeds.
    void make_index() {
        skipped_ = 0;
        count_ = 0;
        for (const str_node *field = *list_; field != nullptr; field = field->next)
            ++count_;
        is_taken_.reset(static_cast<bool *>(std::calloc(count_ + 1, sizeof(bool))));
        index_.reset(static_cast<IndexedName *>(std::calloc(count_ + 1, sizeof(IndexedName))));
        if (!is_taken_)
            index_.reset();
        if (!index_)
            return;
        IndexedName *entry = index_.get();
        for (const str_node *field = *list_; field != nullptr; field = field->next, ++entry) {
            entry->name = name_of(*field);
            entry->field = field;
            entry->place = static_cast<std::size_t>(entry - index_.get());
        }
        std::qsort(index_.get(), count_, sizeof(IndexedName), compare_names);
        link_groups();
    }

    void link_groups() {
        IndexedName *group = nullptr;
        for (IndexedName *entry = index_.get(); entry != index_.get() + count_; ++entry) {
            if (group == nullptr || group->name != entry->name) {
                entry->prefix = group;
                while (entry->prefix != nullptr && !entry->name.starts_with(entry->prefix->name))
                    entry->prefix = entry->prefix->prefix;
                group = entry;
                group->next = entry;
            }
            entry->group = group;
            group->last = entry + 1;
        }
    }

    void remove_taken() {
        str_node **link = list_;
        for (std::size_t place = 0; index_ && place != count_; ++place) {
            if (is_taken_.get()[place])
                remove_record(link);
            else
                link = &(*link)->next;
        }
    }

    static constexpr std::size_t most_skipped = 8192;

    str_node **list_;
    std::size_t skipped_ = 0;
    HeapBlock<str_node> taken_;
    HeapBlock<IndexedName> index_;
    HeapBlock<bool> is_taken_;
    std::size_t count_ = 0;
};

/// Writes a line, replacing its markers by values.
void fill_line(std::string_view line, PageFields &fields, Output &out) {
    PendingText pending(line);
    std::size_t position = 0;
    for (;;) {
        const std::string_view text = pending.text();
        const std::size_t marker = text.find('$', position);
        if (marker == std::string_view::npos)
            break;
        position = marker + 1;
        const str_node *const field = fields.take(after(text, marker + 1));
        if (field == nullptr)
            continue;
        out.put(front(text, marker));
        pending.drop(marker + 1 + name_of(*field).size());
        // Without memory to search the value for markers, it is written unchanged.
        const std::string_view value = value_of(*field);
        if (pending.prepend(value)) {
            position = 1;
        } else {
            out.put(value);
            position = 0;
        }
    }
    out.put(pending.text());
}

void put_hidden_input(Output &out, std::string_view name, std::string_view marker_start,
                      std::string_view marker_end) {
    out.put("<input type=\"hidden\" name=\"");
    out.put(name);
    out.put("\" value=\"");
    out.put(marker_start);
    out.put(name);
    out.put(marker_end);
    out.put("\">\n");
}

} // namespace
} // namespace corvel

using namespace corvel;

extern "C" {

int print_html(const char *path, str_node **list) {
    const Descriptor page = open_for_reading(path);
    if (!page)
        return 0;
    str_node *no_fields = nullptr;
    PageFields fields(list != nullptr ? list : &no_fields);
    Output out(stdout);
    LineReader lines(page.get());
    Line line;
    while (lines.next(line)) {
        const std::string_view text = line.text();
        if (text.find('$') == std::string_view::npos)
            out.put(text);
        else
            fill_line(text, fields, out);
    }
    return 0;
}

int print_list(const str_node *list) {
    for (const str_node *field = list; field != nullptr; field = field->next)
        DFPrintf(stderr, "<br>%s=%s</br>\n", field->name, field->value);
    return 0;
}

int generate_hidder_from_list(const str_node *list) {
    Output out(stdout);
    for (const str_node *field = list; field != nullptr; field = field->next)
        put_hidden_input(out, name_of(*field), "$", "");
    return 0;
}

int generate_hidder_from_prop(const prop_entry *table, int count) {
    Output out(stdout);
    for (const prop_entry &row : rows_of(table, count))
        put_hidden_input(out, text_of(row.name), "${", "}");
    for (const prop_entry &row : rows_of(table, count)) {
        out.put("\"");
        out.put(text_of(row.name));
        out.put("\",\n");
    }
    return 0;
}

} // extern "C"
