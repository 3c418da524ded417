// SPDX-License-Identifier: MIT
#include <corvel.h>

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

/// What of a line is still to be written. It stands at the end of its buffer, so that a value is
/// put in front of it without moving it. The buffer of its own takes a line and one value of full
/// size; only values inside values can need a larger one.
class PendingText {
  public:
    /// A line of at most `line_limit` characters.
    explicit PendingText(std::string_view line) : start_(own_size - line.size()) {
        std::memcpy(own_.data() + start_, line.data(), line.size());
    }

    PendingText(const PendingText &) = delete;
    PendingText &operator=(const PendingText &) = delete;

    [[nodiscard]] std::string_view text() const {
        return {buffer_.data() + start_, buffer_.size() - start_};
    }

    void drop(std::size_t length) { start_ += at_most(length, buffer_.size() - start_); }

    /// Puts a text in front. False, and nothing changed, if there is no memory for it.
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
        HeapBlock<char> larger(static_cast<char *>(std::malloc(size)));
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

/// Writes a line with its markers filled; each field that fills one is removed from the list.
void fill_line(std::string_view line, str_node **list, Output &out) {
    PendingText pending(line);
    std::size_t position = 0;
    for (;;) {
        const std::string_view text = pending.text();
        const std::size_t marker = text.find('$', position);
        if (marker == std::string_view::npos)
            break;
        const std::string_view keyword = behind(text, marker + 1);
        str_node **const link = find_link(
            list, [keyword](const str_node &field) { return names_start_of(field, keyword); });
        position = marker + 1;
        if (*link == nullptr)
            continue;
        out.put(front(text, marker));
        pending.drop(marker + 1 + name_of(**link).size());
        // Without memory for a search inside of it, the value is written as it stands.
        const std::string_view value = value_of(**link);
        if (pending.prepend(value)) {
            position = 1;
        } else {
            out.put(value);
            position = 0;
        }
        remove_record(link);
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

extern "C" {

int print_html(const char *path, str_node **list) {
    const corvel::Descriptor page = corvel::open_for_reading(path);
    if (!page)
        return 0;
    str_node *no_fields = nullptr;
    str_node **const fields = list != nullptr ? list : &no_fields;
    corvel::Output out(stdout);
    corvel::LineReader lines(page.get());
    corvel::Line line;
    while (lines.next(line)) {
        const std::string_view text = line.text();
        if (text.find('$') == std::string_view::npos)
            out.put(text);
        else
            corvel::fill_line(text, fields, out);
    }
    return 0;
}

int print_list(const str_node *list) {
    for (const str_node *field = list; field != nullptr; field = field->next)
        DFPrintf(stderr, "<br>%s=%s</br>\n", field->name, field->value);
    return 0;
}

int generate_hidder_from_list(const str_node *list) {
    corvel::Output out(stdout);
    for (const str_node *field = list; field != nullptr; field = field->next)
        corvel::put_hidden_input(out, corvel::name_of(*field), "$", "");
    return 0;
}

int generate_hidder_from_prop(const prop_entry *table, int count) {
    corvel::Output out(stdout);
    for (const prop_entry &row : corvel::rows_of(table, count))
        corvel::put_hidden_input(out, corvel::text_of(row.name), "${", "}");
    for (const prop_entry &row : corvel::rows_of(table, count)) {
        out.put("\"");
        out.put(corvel::text_of(row.name));
        out.put("\",\n");
    }
    return 0;
}

} // extern "C"
