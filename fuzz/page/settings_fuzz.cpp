// SPDX-License-Identifier: MIT
// Settings files: what the kit reads is what the library's functions read, what either writes the
// other reads, and nothing else in the file changes.
//
// Input: the separator, a name NUL a value NUL, then the file.
#include "corvel.h"
#include "corvel_page.h"
#include "fuzz/harness.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <optional>
#include <utility>

namespace {

using namespace corvel_fuzz;

using Pairs = std::vector<std::pair<std::string, std::string>>;

/** The settings as a program reads them that uses the library alone. */
Pairs library_pairs(char separator, const std::string &path, std::size_t size) {
    std::vector<prop_entry> table(size + 1);
    const int count = load_prop(static_cast<signed char>(separator), path.c_str(), table.data());
    Pairs pairs;
    for (int i = 0; i < count; ++i) {
        const prop_entry &row = table[static_cast<std::size_t>(i)];
        std::array<char, CORVEL_GET_PROP_SIZE> value{};
        check(get_prop(row.name, value.data(), &row, 1) != nullptr, "get_prop() finds the row");
        pairs.emplace_back(row.name, strip_escape(value.data(), value.data()));
    }
    free_prop(table.data(), count);
    return pairs;
}

std::optional<std::string> find(const Pairs &pairs, const std::string &name) {
    for (const auto &[candidate, value] : pairs)
        if (candidate == name)
            return value;
    return std::nullopt;
}

class Settings {
  public:
    Settings(const std::string &path, char separator)
        : settings_(corvel_settings_load(path.c_str(), separator, nullptr)) {
        check(settings_ != nullptr, "the file is loaded");
    }
    ~Settings() { corvel_settings_free(settings_); }
    Settings(const Settings &) = delete;
    Settings &operator=(const Settings &) = delete;

    corvel_settings *get() const { return settings_; }
    Pairs pairs() const {
        Pairs pairs;
        const char *name = nullptr;
        const char *value = nullptr;
        for (std::size_t i = 0; corvel_setting_pair(settings_, i, &name, &value); ++i)
            pairs.emplace_back(name, value);
        return pairs;
    }
    bool set(const std::string &name, const std::string &value) const {
        const auto name_copy = exact_copy(name);
        const auto value_copy = exact_copy(value);
        return corvel_setting_set(settings_, name_copy.get(), value_copy.get()) == nullptr;
    }
    corvel_settings_result save() const {
        corvel_settings *const files[] = {settings_};
        return corvel_settings_save(files, 1);
    }

  private:
    corvel_settings *settings_;
};

void check_pairs(const Pairs &got, const Pairs &expected) {
    check_equal(static_cast<long long>(got.size()), static_cast<long long>(expected.size()),
                "the number of settings");
    for (std::size_t i = 0; i < got.size(); ++i) {
        check_equal(got[i].first, expected[i].first, "a name");
        check_equal(got[i].second, expected[i].second, "a value");
    }
}

/** The settings of other names. */
Pairs without(Pairs pairs, const std::string &name) {
    std::erase_if(pairs, [&](const auto &pair) { return pair.first == name; });
    return pairs;
}

const std::string &settings_file(std::string_view content) {
    static const std::string path = scratch_directory() + "/settings";
    write_file(path, content);
    return path;
}

/** After a save: the other settings are as before, and the library reads the new value. */
void check_saved(const std::string &path, char separator, const std::string &file,
                 const std::string &name, const std::optional<std::string> &value,
                 const Pairs &before) {
    const std::string saved = read_file(path);
    const Pairs after = library_pairs(separator, path, saved.size());
    const std::optional<std::string> found = find(after, name);
    check(found == value, "the library reads what was set");
    check(saved.empty() || saved.back() == '\n' || saved == file, "the file ends with a newline");
    // A last line without a newline has become a setting, and the rest of a line longer than 1,023
    // bytes is gone with its start.
    const std::size_t unterminated = file.size() - (file.rfind('\n') + 1);
    const bool long_line = std::ranges::any_of(pieces_of(file), [](const Piece &piece) {
        return piece.text.size() == 1023 && piece.text.back() != '\n';
    });
    if (unterminated == 0 && !long_line)
        check_pairs(without(after, name), without(before, name));
    check_equal(read_file(path + ".kept"), saved, "the kept version");
}

void check_setting(char separator, const std::string &name, const std::string &value,
                   const std::string &file) {
    const std::string &path = settings_file(file);
    const Settings settings(path, separator);
    const Pairs before = library_pairs(separator, path, file.size());
    check_pairs(settings.pairs(), before);
    const bool accepted = settings.set(name, value);
    if (!accepted)
        check_pairs(settings.pairs(), before);
    const corvel_settings_result result = settings.save();
    check(result == CORVEL_SETTINGS_SAVED || result == CORVEL_SETTINGS_UNCHANGED, "saved");
    check(accepted || result == CORVEL_SETTINGS_UNCHANGED, "a refused value changes nothing");
    if (result == CORVEL_SETTINGS_UNCHANGED)
        check_equal(read_file(path), file, "an unchanged file");
    else
        check_saved(path, separator, file, name, value, before);
    if (!accepted)
        return;
    // Any content, restored from each of its prefixes, is the kept version or itself.
    if (corvel_setting_remove(settings.get(), name.c_str()) == nullptr && settings.save() == 0)
        check(find(library_pairs(separator, path, file.size() + 1024), name) == std::nullopt,
              "the setting is removed");
}

/** The recovery accepts only what is whole, for any two contents. */
void check_recovery(char separator, const std::string &file, const std::string &kept) {
    const std::string &path = settings_file(file);
    write_file(path + ".kept", kept);
    const corvel_settings_result result = corvel_settings_recover(path.c_str(), separator);
    const std::string after = read_file(path);
    if (result == CORVEL_SETTINGS_RESTORED)
        check_equal(after, kept, "the restored file");
    else
        check_equal(after, file, "the file is left");
    const bool complete = file.ends_with('\n') && file.find('\0') == std::string::npos;
    check(result != CORVEL_SETTINGS_UNCHANGED || complete || file == kept, "an incomplete file");
    check(result >= 0 || result == CORVEL_SETTINGS_DAMAGED, "recovered");
    if (result >= 0)
        check_equal(read_file(path + ".kept"), after, "the kept version");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    Input input(data, size);
    const auto separator = static_cast<char>(input.byte());
    const std::string name = input.text();
    const std::string value = input.text();
    const std::string file = input.rest();
    check_setting(separator, name, value, file);
    const std::string changed = read_file(settings_file(file));
    check_recovery(separator, file.substr(0, value.size()), file);
    check_recovery(separator, file, changed.substr(0, file.size() / 2));
    return 0;
}
