// SPDX-License-Identifier: MIT
// Templates against a plain reading of the rules: the result, or status 500 if a template is
// malformed.
//
// Input: a byte (how many calls make the values), for each call a byte (which function and which
// level), a name and NUL, a value and NUL; then a template and NUL, and a template that it can
// include.
#include "fuzz/page/page_answer.h"

#include <algorithm>
#include <deque>
#include <map>
#include <optional>

#include <syslog.h>

namespace {

using namespace corvel_fuzz;

constexpr std::size_t sections_max = 16;
constexpr std::size_t includes_max = 8;
constexpr std::size_t steps_max = 1'048'576;

struct Level {
    struct Entry {
        std::optional<std::string> value;
        std::vector<Level *> repetitions;
    };
    std::map<std::string, Entry> entries;
};

bool is_name(std::string_view name) {
    return !name.empty() && name.size() <= 64 &&
           name.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"
                                  "-_") == std::string_view::npos;
}

struct Tag {
    std::string before;
    char kind = '=';
    std::string name;
};

/** The tags of a template, or nothing if it is malformed. */
std::optional<std::vector<Tag>> tags_of(std::string_view text) {
    std::vector<Tag> tags;
    std::vector<std::string> open;
    while (text.find("{{") != std::string_view::npos) {
        Tag tag;
        const std::size_t start = text.find("{{");
        tag.before = text.substr(0, start);
        text.remove_prefix(start + 2);
        const std::size_t end = text.find("}}");
        if (end == std::string_view::npos)
            return {};
        std::string_view content = text.substr(0, end);
        text.remove_prefix(end + 2);
        if (!content.empty() &&
            std::string_view("&#^/>!").find(content[0]) != std::string_view::npos) {
            tag.kind = content[0];
            content.remove_prefix(1);
        }
        if (tag.kind != '!') {
            const std::size_t first = content.find_first_not_of(" \t");
            if (first == std::string_view::npos)
                return {};
            tag.name = content.substr(first, content.find_last_not_of(" \t") - first + 1);
            if (!is_name(tag.name))
                return {};
        }
        if (tag.kind == '#' || tag.kind == '^')
            open.push_back(tag.name);
        if (open.size() > sections_max)
            return {};
        if (tag.kind == '/') {
            if (open.empty() || open.back() != tag.name)
                return {};
            open.pop_back();
        }
        tags.push_back(tag);
    }
    tags.push_back({std::string(text), '$', ""});
    return open.empty() ? std::optional(tags) : std::nullopt;
}

class Model {
  public:
    explicit Model(std::map<std::string, std::string> files) : files_(std::move(files)) {}

    bool fill(const std::string &name, std::vector<const Level *> &levels, std::size_t depth) {
        if (depth == includes_max || !files_.contains(name))
            return false;
        const auto tags = tags_of(files_[name]);
        return tags && range(*tags, 0, tags->size(), levels, depth);
    }

    std::string result;
    bool is_too_long = false;

  private:
    using Tags = std::vector<Tag>;

    bool step() { return ++steps_ <= steps_max && result.size() < 8 * std::size_t{1024} * 1024; }

    static std::size_t close_of(const Tags &tags, std::size_t section) {
        std::size_t depth = 0;
        for (std::size_t at = section;; ++at) {
            depth += tags[at].kind == '#' || tags[at].kind == '^' ? 1 : 0;
            depth -= tags[at].kind == '/' ? 1 : 0;
            if (depth == 0)
                return at;
        }
    }

    bool section(const Tags &tags, std::size_t at, std::vector<const Level *> &levels,
                 std::size_t depth) {
        const std::size_t end = close_of(tags, at);
        if (!step() || !range(tags, at + 1, end, levels, depth))
            return false;
        result += tags[end].before;
        return true;
    }

    bool range(const Tags &tags, std::size_t from, std::size_t to,
               std::vector<const Level *> &levels, std::size_t depth) {
        for (std::size_t at = from; at < to; ++at) {
            const Tag &tag = tags[at];
            result += tag.before;
            if (tag.kind == '$')
                break;
            if (!step())
                return false;
            const Level::Entry *entry = nullptr;
            for (auto level = levels.rbegin(); entry == nullptr && level != levels.rend(); ++level)
                if ((*level)->entries.contains(tag.name))
                    entry = &(*level)->entries.at(tag.name);
            const std::string value = entry != nullptr ? entry->value.value_or("") : "";
            const bool repeats = entry != nullptr && !entry->repetitions.empty();
            if (tag.kind == '=')
                result += html_of(value);
            if (tag.kind == '&')
                result += value;
            if (tag.kind == '>' && !fill(tag.name, levels, depth + 1))
                return false;
            if (tag.kind == '^' && !repeats && value.empty() && !section(tags, at, levels, depth))
                return false;
            if (tag.kind == '#' && !repeats && !value.empty() && !section(tags, at, levels, depth))
                return false;
            if (tag.kind == '#' && repeats) {
                for (const Level *level : entry->repetitions) {
                    levels.push_back(level);
                    const bool filled = section(tags, at, levels, depth);
                    levels.pop_back();
                    if (!filled)
                        return false;
                }
            }
            if (tag.kind == '#' || tag.kind == '^')
                at = close_of(tags, at);
        }
        return true;
    }

    std::map<std::string, std::string> files_;
    std::size_t steps_ = 0;
};

/** The same values in both forms. */
struct Values {
    Values() { levels.emplace_back(); }
    Values(const Values &) = delete;
    Values &operator=(const Values &) = delete;
    ~Values() { corvel_data_free(data[0]); }

    std::vector<corvel_data *> data{corvel_data_new()};
    std::deque<Level> levels;
    bool is_malformed = false;

    void call(Input &input) {
        const unsigned char kind = input.byte();
        const std::size_t level = kind / 2 % data.size();
        const std::string name = input.text();
        const std::string value = input.text();
        if (!is_name(name)) {
            corvel_data_set(data[level], exact_copy(name).get(), "");
            is_malformed = true;
        }
        if (is_malformed)
            return;
        if (kind % 2 == 0) {
            corvel_data_set(data[level], exact_copy(name).get(), exact_copy(value).get());
            levels[level].entries[name].value = value;
            return;
        }
        data.push_back(corvel_data_add(data[level], exact_copy(name).get()));
        check(data.back() != nullptr, "a repetition can be added");
        levels.emplace_back();
        levels[level].entries[name].repetitions.push_back(&levels.back());
    }
};

} // namespace

/** The messages are not of interest, and writing them takes most of the time. */
extern "C" void syslog(int /*priority*/, const char * /*format*/, ...) {}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    Input input(data, size);
    Values values;
    for (int calls = input.byte() % 24; calls > 0; --calls)
        values.call(input);
    const std::string page = input.text();
    const std::string part = input.rest();
    if (page.size() + part.size() > 16384)
        return 0;
    const std::string &directory = scratch_directory();
    write_file(directory + "/page.html", page);
    write_file(directory + "/part.html", part);

    Model model({{"page", page}, {"part", part}});
    std::vector<const Level *> levels{&values.levels[0]};
    const bool is_filled = model.fill("page", levels, 0) && !values.is_malformed &&
                           model.result.size() <= CORVEL_ANSWER_MAX;
    corvel_site site{};
    site.templates = directory.c_str();
    corvel_answer *const answer = corvel_answer_new(nullptr, &site);
    corvel_answer_template(answer, "page", values.data[0]);
    const Sent sent = send(answer);
    corvel_answer_free(answer);
    check(sent.is_status(is_filled ? "200" : "500"), "a template is filled unless it is malformed");
    if (is_filled)
        check_equal(sent.body, model.result, "the result of a template");
    return 0;
}
