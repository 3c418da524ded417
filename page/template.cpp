// SPDX-License-Identifier: MIT
#include "page/template.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <sys/stat.h>

#include "page/answer.h"
#include "page/arena.h"
#include "page/data.h"
#include "page/escape.h"
#include "support/descriptor.h"
#include "support/text.h"

namespace corvel {
namespace {

/// Open sections in one template, and templates in one another: they bound the depth of recursion.
constexpr std::size_t sections_max = 16;
constexpr unsigned includes_max = 8;

/// Bytes of all templates of a page, with the tables of their tags.
constexpr std::size_t templates_memory = std::size_t{4} * CORVEL_TEMPLATE_MAX;

/// Tags and repetitions of sections that are carried out for a page: bounds the time of sections
/// within sections that produce no output.
constexpr std::size_t steps_max = 1'048'576;

constexpr std::string_view tag_start = "{{";
constexpr std::string_view tag_end = "}}";

/// A tag and the text before it. The last one of a template is the end of the template.
struct Tag {
    enum Kind : char {
        value = '=',
        markup = '&',
        section = '#',
        inverted = '^',
        close = '/',
        include = '>',
        comment = '!',
        end = '$'
    };

    std::string_view text;
    std::string_view name;
    std::uint32_t hash;
    Kind kind;
    Tag *close_tag; ///< Of a section.
};

/// A template that has been loaded.
struct Template {
    Template *next;
    std::string_view name;
    Tag *tags;
};

/// The values of one level, and the levels around it.
struct Level {
    const corvel_data *data;
    const Level *outer;
};

/// The entry of a tag's name on the innermost level that has one; null if there is none.
const Entry *look_up(const Level &innermost, const Tag &tag) {
    const Entry *entry = nullptr;
    for (const Level *level = &innermost; entry == nullptr && level != nullptr;
         level = level->outer)
        entry = find_entry(level->data, tag.hash, tag.name);
    return entry;
}

std::string_view value_of(const Entry *entry) {
    if (entry == nullptr || entry->value == nullptr)
        return {};
    return {entry->value, entry->length};
}

std::size_t count_of(std::string_view text, std::string_view wanted) {
    std::size_t count = 0;
    for (std::size_t at = text.find(wanted); at != std::string_view::npos;
         at = text.find(wanted, at + wanted.size()))
        ++count;
    return count;
}

bool is_blank(char character) { return character == ' ' || character == '\t'; }

/// Divides a template into tags.
class Parser {
  public:
    Parser(std::string_view text, Tag *tags) : text_(text), rest_(text), tag_(tags) {}

    /// Returns null, or why the template is malformed.
    const char *parse() {
        for (;;) {
            const std::size_t start = rest_.find(tag_start);
            *tag_ = {};
            tag_->text = front(rest_, start);
            if (start == std::string_view::npos)
                break;
            rest_ = after(rest_, start + tag_start.size());
            const char *const fault = take_tag();
            if (fault != nullptr)
                return fault;
            ++tag_;
        }
        tag_->kind = Tag::end;
        return depth_ == 0 ? nullptr : "a section is not closed";
    }

    /// The line of the tag that is malformed.
    [[nodiscard]] std::size_t line() const {
        return 1 + count_of(front(text_, text_.size() - rest_.size()), "\n");
    }

  private:
    const char *take_tag() {
        const std::size_t length = rest_.find(tag_end);
        if (length == std::string_view::npos)
            return "a tag is not closed";
        std::string_view content = front(rest_, length);
        tag_->kind = Tag::value;
        if (!content.empty() &&
            std::string_view("&#^/>!").find(content.front()) != std::string_view::npos) {
            tag_->kind = static_cast<Tag::Kind>(content.front());
            content.remove_prefix(1);
        }
        if (tag_->kind != Tag::comment) {
            const char *const fault = take_name(content);
            if (fault != nullptr)
                return fault;
        }
        rest_ = after(rest_, length + tag_end.size());
        return nullptr;
    }

    const char *take_name(std::string_view name) {
        while (!name.empty() && is_blank(name.front()))
            name.remove_prefix(1);
        while (!name.empty() && is_blank(name.back()))
            name.remove_suffix(1);
        if (!is_template_name(name))
            return "a tag has no valid name";
        tag_->name = name;
        tag_->hash = hash_of(name);
        if (tag_->kind == Tag::section || tag_->kind == Tag::inverted)
            return open_section();
        return tag_->kind == Tag::close ? close_section() : nullptr;
    }

    const char *open_section() {
        if (depth_ == sections_max)
            return "sections are nested too deeply";
        open_[depth_++] = tag_;
        return nullptr;
    }

    const char *close_section() {
        if (depth_ == 0 || open_[depth_ - 1]->name != tag_->name)
            return "a section is closed that is not the last one opened";
        open_[--depth_]->close_tag = tag_;
        return nullptr;
    }

    std::string_view text_;
    std::string_view rest_;
    Tag *tag_;
    Tag *open_[sections_max] = {};
    std::size_t depth_ = 0;
};

/// Reads a file into the arena. A null view if it is not a regular file of at most
/// CORVEL_TEMPLATE_MAX bytes. O_NONBLOCK: opening a FIFO must not wait for a writer.
std::string_view read_template(const char *path, Arena &arena) {
    const Descriptor file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status;
    if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
        status.st_size > CORVEL_TEMPLATE_MAX)
        return {};
    const auto size = static_cast<std::size_t>(status.st_size);
    auto *const text = static_cast<char *>(arena.allocate(size + 1));
    if (text == nullptr)
        return {};
    const ssize_t length = read_fully(file.get(), text, size);
    if (length != static_cast<ssize_t>(size))
        return {};
    return {text, size};
}

/// Fills a template and those that it includes. Each is loaded once.
class Filler {
  public:
    Filler(Buffer &out, const char *directory) : out_(out), directory_(directory) {}

    bool fill(std::string_view name, const Level &level, unsigned depth) {
        if (depth == includes_max)
            return fail(name, "templates include each other too deeply");
        const Template *const loaded = find(name);
        return loaded != nullptr && fill_range(loaded->tags, nullptr, level, depth);
    }

  private:
    static bool fail(std::string_view name, const char *reason) {
        corvel_log(CORVEL_LOG_ERROR, "Template %.*s: %s.", static_cast<int>(name.size()),
                   name.data(), reason);
        return false;
    }

    const Template *find(std::string_view name) {
        for (const Template *each = templates_; each != nullptr; each = each->next)
            if (each->name == name)
                return each;
        return load(name);
    }

    const Template *load(std::string_view name) {
        const std::string_view text = read(name);
        void *const memory = arena_.allocate(sizeof(Template));
        auto *const tags =
            static_cast<Tag *>(arena_.allocate((count_of(text, tag_start) + 1) * sizeof(Tag)));
        if (text.data() == nullptr || memory == nullptr || tags == nullptr) {
            fail(name, "the file cannot be read, is too large, or memory is exhausted");
            return nullptr;
        }
        Parser parser(text, tags);
        const char *const fault = parser.parse();
        if (fault != nullptr) {
            corvel_log(CORVEL_LOG_ERROR, "Template %.*s, line %zu: %s.",
                       static_cast<int>(name.size()), name.data(), parser.line(), fault);
            return nullptr;
        }
        templates_ = new (memory) Template{templates_, name, tags};
        return templates_;
    }

    /// Reads a template; a null view on failure.
    std::string_view read(std::string_view name) {
        const std::size_t size = std::strlen(directory_) + name.size() + sizeof "/.html";
        auto *const path = static_cast<char *>(arena_.allocate(size));
        if (path == nullptr)
            return {};
        std::snprintf(path, size, "%s/%.*s.html", directory_, static_cast<int>(name.size()),
                      name.data());
        return read_template(path, arena_);
    }

    bool count_step() {
        if (++steps_ <= steps_max)
            return true;
        corvel_log(CORVEL_LOG_ERROR, "The page has too many tags.");
        return false;
    }

    /// Fills the tags up to @p end, or to the end of the template.
    bool fill_range(const Tag *tag, const Tag *end, const Level &level, unsigned depth) {
        for (; tag != end; ++tag) {
            out_.append(tag->text);
            if (tag->kind == Tag::end)
                break;
            if (!count_step() || !fill_tag(*tag, level, depth))
                return false;
            if (tag->close_tag != nullptr)
                tag = tag->close_tag;
        }
        return !out_.failed();
    }

    bool fill_tag(const Tag &tag, const Level &level, unsigned depth) {
        if (tag.kind == Tag::comment)
            return true;
        if (tag.kind == Tag::include)
            return fill(tag.name, level, depth + 1);
        const Entry *const entry = look_up(level, tag);
        if (tag.kind == Tag::section)
            return entry == nullptr || fill_section(tag, *entry, level, depth);
        const std::string_view value = value_of(entry);
        if (tag.kind == Tag::inverted)
            return (entry != nullptr && entry->first != nullptr) || !value.empty() ||
                   fill_section_once(tag, level, depth);
        if (tag.kind == Tag::markup)
            out_.append(value);
        else
            append_html(out_, value);
        return true;
    }

    bool fill_section(const Tag &tag, const Entry &entry, const Level &level, unsigned depth) {
        for (const corvel_data *data = entry.first; data != nullptr; data = next_repetition(data))
            if (!fill_section_once(tag, {data, &level}, depth))
                return false;
        const bool is_kept = entry.first == nullptr && entry.length != 0;
        return !is_kept || fill_section_once(tag, level, depth);
    }

    /// Fills a section from after its tag to before the text that precedes its closing tag, and
    /// that text.
    bool fill_section_once(const Tag &tag, const Level &level, unsigned depth) {
        if (!count_step() || !fill_range(&tag + 1, tag.close_tag, level, depth))
            return false;
        return out_.append(tag.close_tag->text);
    }

    Buffer &out_;
    const char *directory_;
    Arena arena_{templates_memory};
    Template *templates_ = nullptr;
    std::size_t steps_ = 0;
};

} // namespace

bool fill_template(Buffer &out, const char *directory, const char *name, const corvel_data *data,
                   const corvel_data *common) {
    if (!is_template_name(text_of(name)) || !is_complete(data) ||
        (common != nullptr && !is_complete(common))) {
        corvel_log(CORVEL_LOG_ERROR,
                   "The name or the values of a template are invalid or incomplete.");
        return false;
    }
    const Level outer{common, nullptr};
    const Level level{data, &outer};
    Filler filler(out, directory);
    return filler.fill(name, level, 0);
}

} // namespace corvel

using namespace corvel;

extern "C" {

void corvel_answer_template(corvel_answer *answer, const char *name, const corvel_data *data) {
    Buffer *const body = body_of(answer);
    if (body == nullptr)
        return;
    if (!fill_template(*body, answer->site.templates, name, data, answer->values))
        misuse(answer, "The template cannot be filled.");
}

} // extern "C"
