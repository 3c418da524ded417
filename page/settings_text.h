// SPDX-License-Identifier: MIT
#ifndef CORVEL_PAGE_SETTINGS_TEXT_H
#define CORVEL_PAGE_SETTINGS_TEXT_H

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <span>
#include <string_view>

#include "config/property_line.h"
#include "support/handles.h"

namespace corvel {

/// A block of bytes that is wiped before it is freed.
class Bytes {
  public:
    Bytes() = default;
    Bytes(const Bytes &) = delete;
    Bytes &operator=(const Bytes &) = delete;
    ~Bytes() { wipe_and_free(start_, size_); }

    void clear() {
        wipe_and_free(start_, size_);
        start_ = nullptr;
        size_ = 0;
    }
    /// Allocates the block, which was empty. False if memory cannot be allocated.
    bool allocate(std::size_t size) {
        start_ = static_cast<char *>(std::malloc(size != 0 ? size : 1));
        size_ = start_ != nullptr ? size : 0;
        return start_ != nullptr;
    }
    [[nodiscard]] char *start() { return start_; }
    [[nodiscard]] std::string_view view() const { return {start_, size_}; }

  private:
    char *start_ = nullptr;
    std::size_t size_ = 0;
};

/// The content of a settings file and the settings in it, as load_prop(), get_prop() and
/// strip_escape() read them. One block of memory, wiped before it is freed.
class SettingsText {
  public:
    struct Row {
        const char *name;
        const char *value;
    };
    struct Release {
        void operator()(SettingsText *text) const { wipe_and_free(text, text->block_size_); }
    };
    using Pointer = std::unique_ptr<SettingsText, Release>;

    /// Null if memory cannot be allocated.
    static Pointer parse(std::string_view content, char separator);

    [[nodiscard]] std::string_view content() const { return content_; }
    [[nodiscard]] std::span<const Row> rows() const { return rows_; }
    /// The value of the first setting with this name, as for get_prop(); null if there is none.
    [[nodiscard]] const char *find(const char *name) const;

  private:
    std::size_t block_size_;
    std::string_view content_;
    std::span<Row> rows_;
};

/// Splits a line as load_prop() does. False if it is a comment or has no separator.
bool split_line(std::string_view line, char separator, Setting &setting);

/// A change of the lines of one setting.
struct SettingsChange {
    const char *name;
    /// Quoted and escaped; empty to remove the lines.
    std::string_view raw_value;
    char separator;
};

/// Makes a content with every line of a setting changed; a new line is appended if there is none. A
/// line is changed only if its name area is the name alone, so that nothing else that it contains
/// is lost. Every other byte is kept, and the result ends with a newline. False if memory cannot be
/// allocated.
bool change_content(std::string_view content, const SettingsChange &change, Bytes &result);

} // namespace corvel

#endif
