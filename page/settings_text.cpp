// SPDX-License-Identifier: MIT
#include "page/settings_text.h"

#include <corvel.h>

#include <cstdlib>
#include <cstring>

#include "support/line_input.h"
#include "support/text.h"

namespace corvel {
namespace {

/// The pieces of a content that LineReader would return.
class Pieces {
  public:
    explicit Pieces(std::string_view content) : rest_(content) {}

    struct Piece {
        std::string_view bytes;
        std::string_view text; ///< As load_prop() parses it: up to a NUL, without its newline.
        bool unterminated;
    };

    bool next(Piece &piece) {
        if (rest_.empty())
            return false;
        const std::string_view longest = front(rest_, line_limit);
        const std::size_t newline = longest.find('\n');
        const bool has_newline = newline != std::string_view::npos;
        piece.bytes = has_newline ? front(longest, newline + 1) : longest;
        piece.unterminated = !has_newline && longest.size() < line_limit;
        piece.text = front(piece.bytes, strnlen(piece.bytes.data(), piece.bytes.size()));
        if (piece.text.ends_with('\n'))
            piece.text.remove_suffix(1);
        rest_ = after(rest_, piece.bytes.size());
        return true;
    }

    /// Skips the rest of the line whose piece was returned last.
    void skip_line(const Piece &piece) {
        if (!piece.bytes.ends_with('\n'))
            rest_ = after(rest_, at_most(rest_.find('\n'), rest_.size()) + 1);
    }

  private:
    std::string_view rest_;
};

/// Appends strings to a block, or counts their bytes if there is no block.
class Sink {
  public:
    explicit Sink(char *block) : block_(block) {}

    void put(std::string_view text) {
        if (block_ != nullptr && !text.empty())
            std::memcpy(block_ + size_, text.data(), text.size());
        if (!text.empty())
            last_ = text.back();
        size_ += text.size();
    }
    void end_line() {
        if (last_ != '\n')
            put("\n");
    }
    [[nodiscard]] std::size_t size() const { return size_; }

  private:
    char *block_;
    std::size_t size_ = 0;
    char last_ = '\n';
};

/// Whether nothing but the name is before the separator of a line, except "setenv ".
bool is_line_of(std::string_view name, std::string_view line, const Setting &setting) {
    const auto prefix_size = static_cast<std::size_t>(setting.name_area.data() - line.data());
    std::string_view prefix = front(line, prefix_size);
    skip_spaces(prefix);
    std::string_view name_area = setting.name_area;
    const std::string_view first = take_word(name_area);
    skip_spaces(name_area);
    return first == name && name_area.empty() && (prefix.empty() || prefix == line_prefix);
}

void put_changed(Sink &sink, std::string_view content, const SettingsChange &change) {
    const std::string_view separator(&change.separator, 1);
    Pieces pieces(content);
    Pieces::Piece piece;
    bool found = false;
    while (pieces.next(piece)) {
        const std::string_view line = piece.text;
        Setting setting;
        if (!split_line(line, change.separator, setting) ||
            !is_line_of(change.name, line, setting)) {
            sink.put(piece.bytes);
            continue;
        }
        found = true;
        pieces.skip_line(piece);
        if (!change.raw_value.empty()) {
            sink.put(front(line, line.size() - setting.value.size()));
            sink.put(change.raw_value);
        }
        sink.end_line();
    }
    sink.end_line();
    if (found || change.raw_value.empty())
        return;
    sink.put(change.name);
    sink.put(separator);
    sink.put(change.raw_value);
    sink.end_line();
}

/// Copies a value as get_prop() and strip_escape() do. Returns its end.
char *put_value(char *place, std::string_view raw_value) {
    const std::string_view value = stripped(front(raw_value, CORVEL_GET_PROP_SIZE - 1), '"');
    store({place, value.size() + 1}, value);
    return place + std::strlen(strip_escape(place, place));
}

} // namespace

bool split_line(std::string_view line, char separator, Setting &setting) {
    return parse_line(line, separator, setting);
}

SettingsText::Pointer SettingsText::parse(std::string_view content, char separator) {
    std::size_t count = 0;
    Pieces::Piece piece;
    for (Pieces pieces(content); pieces.next(piece);)
        ++count;
    // A piece's name and value, without separator and newline, take at most its own size and one
    // byte.
    const std::size_t block_size =
        sizeof(SettingsText) + count * sizeof(Row) + content.size() + content.size() + count;
    Pointer text(static_cast<SettingsText *>(std::malloc(block_size)));
    if (!text)
        return text;
    auto *const rows = reinterpret_cast<Row *>(text.get() + 1);
    char *const copy = reinterpret_cast<char *>(rows + count);
    if (!content.empty())
        std::memcpy(copy, content.data(), content.size());
    text->block_size_ = block_size;
    text->content_ = {copy, content.size()};
    char *end = copy + content.size();
    std::size_t used = 0;
    for (Pieces pieces(content); pieces.next(piece);) {
        Setting setting;
        if (piece.unterminated || !split_line(piece.text, separator, setting))
            continue;
        rows[used].name = end;
        const std::string_view name = take_word(setting.name_area);
        end += store({end, name.size() + 1}, name) + 1;
        rows[used++].value = end;
        end = put_value(end, setting.value) + 1;
    }
    text->rows_ = {rows, used};
    return text;
}

const char *SettingsText::find(const char *name) const {
    for (const Row &row : rows_)
        if (std::strcmp(row.name, name) == 0)
            return row.value;
    return nullptr;
}

bool change_content(std::string_view content, const SettingsChange &change, Bytes &result) {
    Sink counter(nullptr);
    put_changed(counter, content, change);
    if (!result.allocate(counter.size()))
        return false;
    Sink sink(result.start());
    put_changed(sink, content, change);
    return true;
}

} // namespace corvel
