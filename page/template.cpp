// SPDX-License-Identifier: MIT
#include "page/template.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <fcntl.h>
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

/// A tag and the text before it. The last one of a template, of no kind, is its end.
struct Tag {
    enum Kind : char {
        value = 1,
        markup = '&',
        section = '#',
        inverted = '^',
        close = '/',
        include = '>',
        comment = '!'
    };

    Tag *next;
    const char *text;
    std::size_t length; ///< Of the text.
    const char *name;
    Tag *close_tag; ///< Of a section.
    Kind kind;
};

/// A template that has been loaded.
struct Template {
    Template *next;
    const char *name;
    Tag *tags;
    Tag *end;
};

/// The values of one level, and the levels around it.
struct Level {
    const corvel_data *data;
    const Level *outer;
};

/// What can be around the name in a tag.
constexpr char blanks[] = " \t";

/// The entry of a name on the innermost level that has one; null if there is none.
const Entry *look_up(const Level *level, const char *name) {
    const Entry *entry = nullptr;
    for (; entry == nullptr && level != nullptr; level = level->outer)
        entry = find_entry(level->data, name);
    return entry;
}

/// The next two equal characters in a string; null if there are none.
char *find_pair(char *start, const char *end, const char *pair) {
    return static_cast<char *>(memmem(start, static_cast<std::size_t>(end - start), pair, 2));
}

/// Divides a template into tags. The name in each is terminated by a NUL.
class Parser {
  public:
    Parser(Arena &arena, char *text, std::size_t size)
        : arena_(arena), start_(text), at_(text), end_(text + size) {}

    /// Stores the tags. Returns null, or why the template is malformed.
    const char *parse(Template &parsed) {
        for (Tag **place = &parsed.tags;; place = &(*place)->next) {
            tag_ = static_cast<Tag *>(arena_.allocate(sizeof(Tag)));
            if (tag_ == nullptr)
                return "memory is exhausted";
            *place = tag_;
            parsed.end = tag_;
            char *const tag_start = find_pair(at_, end_, "{{");
            tag_->text = at_;
            tag_->length =
                static_cast<std::size_t>((tag_start != nullptr ? tag_start : end_) - at_);
            if (tag_start == nullptr)
                return depth_ == 0 ? nullptr : "a section is not closed";
            at_ = tag_start + 2;
            char *const tag_end = find_pair(at_, end_, "}}");
            const char *const fault =
                tag_end != nullptr ? take_tag(tag_end) : "a tag is not closed";
            if (fault != nullptr)
                return fault;
            at_ = tag_end + 2;
        }
    }

    /// The line of the tag that is malformed.
    [[nodiscard]] int line() const { return 1 + static_cast<int>(std::count(start_, at_, '\n')); }

  private:
    const char *take_tag(const char *tag_end) {
        tag_->kind = Tag::value;
        char *content = at_;
        if (*content != '\0' && std::strchr("&#^/>!", *content) != nullptr)
            tag_->kind = static_cast<Tag::Kind>(*content++);
        if (tag_->kind == Tag::comment)
            return nullptr;
        char *const name = content + std::strspn(content, blanks);
        char *const name_end = name + template_name_length(name);
        if (name_end == name || name_end + std::strspn(name_end, blanks) != tag_end)
            return "a tag has no valid name";
        *name_end = '\0';
        tag_->name = name;
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
        if (depth_ == 0 || std::strcmp(open_[depth_ - 1]->name, tag_->name) != 0)
            return "a section is closed that is not the last one opened";
        open_[--depth_]->close_tag = tag_;
        return nullptr;
    }

    Arena &arena_;
    char *start_;
    char *at_;
    char *end_;
    Tag *tag_ = nullptr;
    Tag *open_[sections_max] = {};
    std::size_t depth_ = 0;
};

/// Reads a file into the arena. Null if it is not a regular file of at most CORVEL_TEMPLATE_MAX
/// bytes. O_NONBLOCK: opening a FIFO must not wait for a writer.
char *read_template(const char *path, Arena &arena, std::size_t &size) {
    const Descriptor file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status;
    if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
        status.st_size > CORVEL_TEMPLATE_MAX)
        return nullptr;
    size = static_cast<std::size_t>(status.st_size);
    auto *const text = static_cast<char *>(arena.allocate(size + 1));
    const bool is_whole =
        text != nullptr && read_fully(file.get(), text, size) == static_cast<ssize_t>(size);
    return is_whole ? text : nullptr;
}

/// Fills a template and those that it includes. Each is loaded once.
class Filler {
  public:
    explicit Filler(corvel_answer &answer) : out_(answer.body), directory_(answer.site.templates) {}

    bool fill(const char *name, const Level &level) {
        if (depth_ == includes_max)
            return fail(name, "templates include each other too deeply");
        const Template *const loaded = find(name);
        ++depth_;
        const bool filled = loaded != nullptr && fill_range(loaded->tags, loaded->end, level);
        --depth_;
        return filled;
    }

  private:
    static bool fail(const char *name, const char *reason) {
        corvel_log(CORVEL_LOG_ERROR, "Template %s: %s.", name, reason);
        return false;
    }

    const Template *find(const char *name) {
        for (const Template *each = templates_; each != nullptr; each = each->next)
            if (std::strcmp(each->name, name) == 0)
                return each;
        return load(name);
    }

    const Template *load(const char *name) {
        Buffer path(PATH_MAX);
        path.print("%s/%s.html", directory_, name);
        auto *const loaded = static_cast<Template *>(arena_.allocate(sizeof(Template)));
        std::size_t size = 0;
        char *const text =
            path.failed() || loaded == nullptr ? nullptr : read_template(path.data(), arena_, size);
        if (text == nullptr) {
            fail(name, "the file cannot be read, is too large, or memory is exhausted");
            return nullptr;
        }
        Parser parser(arena_, text, size);
        const char *const fault = parser.parse(*loaded);
        if (fault != nullptr) {
            corvel_log(CORVEL_LOG_ERROR, "Template %s, line %d: %s.", name, parser.line(), fault);
            return nullptr;
        }
        loaded->name = name;
        loaded->next = templates_;
        templates_ = loaded;
        return loaded;
    }

    bool count_step() {
        if (++steps_ <= steps_max)
            return true;
        corvel_log(CORVEL_LOG_ERROR, "The page has too many tags.");
        return false;
    }

    /// Fills the tags up to @p end, and the text before that.
    bool fill_range(const Tag *tag, const Tag *end, const Level &level) {
        for (;; tag = tag->next) {
            out_.append({tag->text, tag->length});
            if (tag == end)
                return !out_.failed();
            if (!count_step() || !fill_tag(*tag, level))
                return false;
            if (tag->close_tag != nullptr)
                tag = tag->close_tag;
        }
    }

    bool fill_tag(const Tag &tag, const Level &level) {
        if (tag.kind == Tag::comment)
            return true;
        if (tag.kind == Tag::include)
            return fill(tag.name, level);
        const Entry *const entry = look_up(&level, tag.name);
        const char *const value = entry != nullptr ? text_or_empty(entry->value) : "";
        const corvel_data *const first = entry != nullptr ? entry->first : nullptr;
        const bool is_shown = first != nullptr || *value != '\0';
        if (tag.kind == Tag::section && first != nullptr)
            return fill_repetitions(tag, first, level);
        if (tag.close_tag != nullptr)
            return is_shown != (tag.kind == Tag::section) || fill_section(tag, level);
        if (tag.kind == Tag::markup)
            out_.append(value);
        else if (tag.kind == Tag::value)
            append_html(out_, value);
        return true;
    }

    bool fill_repetitions(const Tag &tag, const corvel_data *data, const Level &outer) {
        for (; data != nullptr; data = data->next)
            if (!fill_section(tag, {data, &outer}))
                return false;
        return true;
    }

    /// Fills a section from after its tag to before its closing tag.
    bool fill_section(const Tag &tag, const Level &level) {
        return count_step() && fill_range(tag.next, tag.close_tag, level);
    }

    Buffer &out_;
    const char *directory_;
    Arena arena_{templates_memory};
    Template *templates_ = nullptr;
    std::size_t steps_ = 0;
    unsigned depth_ = 0;
};

} // namespace

bool fill_template(corvel_answer &answer, const char *name, const corvel_data *data) {
    const corvel_data *const common = answer.values;
    if (!is_template_name(name) || !is_complete(data) ||
        (common != nullptr && !is_complete(common))) {
        corvel_log(CORVEL_LOG_ERROR,
                   "The name or the values of a template are invalid or incomplete.");
        return false;
    }
    const Level outer{common, nullptr};
    Filler filler(answer);
    return filler.fill(name, {data, &outer});
}

} // namespace corvel

using namespace corvel;

extern "C" {

void corvel_answer_template(corvel_answer *answer, const char *name, const corvel_data *data) {
    if (body_of(answer) != nullptr && !fill_template(*answer, name, data))
        misuse(answer, "The template cannot be filled.");
}

} // extern "C"
