// SPDX-License-Identifier: MIT
#include <corvel.h>
#include <corvel_page.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <string_view>
#include <utility>

#include "config/companion_files.h"
#include "config/property_table.h"
#include "page/settings_file.h"
#include "page/settings_recovery.h"
#include "page/settings_text.h"
#include "page/sha256.h"
#include "page/string_list.h"
#include "page/syntax.h"
#include "support/text.h"

namespace corvel {
namespace {

/// The version of a content, as text.
struct Version {
    char text[CORVEL_SETTINGS_VERSION_SIZE];

    void set(std::string_view content) { hash_text("", content, text); }
    bool operator==(const Version &other) const { return std::strcmp(text, other.text) == 0; }
};
static_assert(CORVEL_SETTINGS_VERSION_SIZE == Sha256::text_size);

/// A value longer than this, escaped, does not fit get_prop()'s buffer together with its quotes.
constexpr std::size_t longest_escaped_value = CORVEL_GET_PROP_SIZE - 1 - 2;

/// A value as it is written: escaped and in quotes.
class RawValue {
  public:
    explicit RawValue(const char *value) {
        if (std::strlen(value) > longest_escaped_value)
            return;
        text_[0] = '"';
        add_escape(value, text_ + 1);
        length_ = std::strlen(text_ + 1) + 2;
        text_[length_ - 1] = '"';
    }
    ~RawValue() { wipe(text_, sizeof text_); }
    RawValue(const RawValue &) = delete;
    RawValue &operator=(const RawValue &) = delete;

    [[nodiscard]] bool fits() const { return length_ != 0 && length_ <= longest_escaped_value + 2; }
    [[nodiscard]] std::string_view view() const { return {text_, length_}; }

  private:
    char text_[1 + 2 * longest_escaped_value + 2];
    std::size_t length_ = 0;
};

/// A name is one word without characters that a shell or the file's syntax treats specially.
bool is_valid_name(const char *name) {
    constexpr const char *characters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                       "0123456789_-.:/@+[]";
    return *name != '\0' && name[std::strspn(name, characters)] == '\0';
}

std::ptrdiff_t count_lines(std::string_view content) {
    return std::count(content.begin(), content.end(), '\n');
}

} // namespace
} // namespace corvel

using namespace corvel;

struct corvel_settings {
    SettingsText::Pointer text;
    char separator = '\0';
    bool is_expecting = false;
    bool has_fewer_lines = false; ///< Than the file that is replaced.
    Version loaded;
    Version expected; ///< The one that the form was made from, if one was stated.

    // While the files of a list are saved:
    Version current;
    corvel_settings *next = nullptr;
    std::optional<SettingsLock> lock;
    std::optional<NewVersion> version;
    std::optional<NewVersion> kept;

    SettingsPaths paths;
};

namespace corvel {
namespace {

struct SettingsRelease {
    void operator()(corvel_settings *settings) const {
        settings->~corvel_settings();
        std::free(settings);
    }
};
using SettingsPointer = std::unique_ptr<corvel_settings, SettingsRelease>;

SettingsPointer new_settings() {
    void *const block = std::malloc(sizeof(corvel_settings));
    return SettingsPointer(block != nullptr ? new (block) corvel_settings : nullptr);
}

/// Reads the file. If it is missing, the writer that removed it is waited for, and if it has died,
/// the file is restored.
corvel_settings_result read_or_restore(const corvel_settings &settings, FileContent &file) {
    corvel_settings_result result = CORVEL_SETTINGS_UNCHANGED;
    file.read(settings.paths.file());
    if (file.is_missing()) {
        result = SettingsRecovery(settings.paths, settings.separator).restore();
        file.read(settings.paths.file());
    }
    return result < 0 || file.is_read() ? result : file.result();
}

corvel_settings_result load(corvel_settings &settings, const char *path, char separator) {
    if (!settings.paths.build(path))
        return CORVEL_SETTINGS_UNREADABLE;
    settings.separator = separator_of(static_cast<signed char>(separator));
    FileContent file;
    const corvel_settings_result result = read_or_restore(settings, file);
    if (result < 0)
        return result;
    settings.text = SettingsText::parse(file.view(), settings.separator);
    settings.loaded.set(file.view());
    return settings.text ? result : CORVEL_SETTINGS_NO_MEMORY;
}

/// Whether all settings of a name have a value.
bool has_value(const SettingsText &text, const char *name, const char *value) {
    bool found = false;
    for (const SettingsText::Row &row : text.rows()) {
        if (std::strcmp(row.name, name) != 0)
            continue;
        if (std::strcmp(row.value, value) != 0)
            return false;
        found = true;
    }
    return found;
}

/// Applies a change, unless the file would not be read as @p value afterwards.
const char *apply(corvel_settings &settings, const SettingsChange &change, const char *value) {
    Bytes content;
    SettingsText::Pointer text;
    if (change_content(settings.text->content(), change, content)) {
        if (content.view().size() > CORVEL_SETTINGS_MAX)
            return "The file is too large.";
        text = SettingsText::parse(content.view(), change.separator);
    }
    if (!text)
        return "There is not enough memory.";
    const char *const found = text->find(change.name);
    const bool is_as_intended =
        found != nullptr && value != nullptr ? std::strcmp(found, value) == 0 : found == value;
    if (!is_as_intended)
        return "The settings file cannot store this.";
    settings.text = std::move(text);
    return nullptr;
}

/// The saving of the files of a list. Each step is taken for all files before the next one is taken
/// for any.
class Saving {
  public:
    Saving() = default;
    Saving(const Saving &) = delete;
    Saving &operator=(const Saving &) = delete;
    /// Removes the new versions that did not take their places, and releases the locks.
    ~Saving();

    corvel_settings_result run(corvel_settings *const files[], std::size_t count);

  private:
    corvel_settings_result add(corvel_settings *settings);
    template <typename Step> corvel_settings_result for_each(Step step);
    static bool is_changed(const corvel_settings &settings) {
        return !(settings.current == settings.loaded);
    }
    static corvel_settings_result lock(corvel_settings &settings);
    static corvel_settings_result prepare(corvel_settings &settings);
    static corvel_settings_result place(corvel_settings &settings);

    /// In the order of the paths, so that two programs that save the same files do not wait for
    /// each other.
    corvel_settings *first_ = nullptr;
};

Saving::~Saving() {
    while (first_ != nullptr) {
        corvel_settings &settings = *std::exchange(first_, first_->next);
        settings.next = nullptr;
        settings.version.reset();
        settings.kept.reset();
        settings.lock.reset();
    }
}

corvel_settings_result Saving::add(corvel_settings *settings) {
    if (settings == nullptr)
        return CORVEL_SETTINGS_UNREADABLE;
    corvel_settings **place = &first_;
    while (*place != nullptr && std::strcmp((*place)->paths.file(), settings->paths.file()) < 0)
        place = &(*place)->next;
    if (*place == settings)
        return CORVEL_SETTINGS_SAVED;
    // Two handles of one file: one would save what the other was not loaded from.
    if (*place != nullptr && std::strcmp((*place)->paths.file(), settings->paths.file()) == 0)
        return CORVEL_SETTINGS_OUTDATED;
    settings->next = std::exchange(*place, settings);
    settings->current.set(settings->text->content());
    return CORVEL_SETTINGS_SAVED;
}

/// Stops at the first failure.
template <typename Step> corvel_settings_result Saving::for_each(Step step) {
    for (corvel_settings *settings = first_; settings != nullptr; settings = settings->next) {
        const corvel_settings_result result = step(*settings);
        if (result < 0)
            return result;
    }
    return CORVEL_SETTINGS_SAVED;
}

corvel_settings_result Saving::lock(corvel_settings &settings) {
    settings.lock.emplace(settings.paths.names());
    return settings.lock->busy() ? CORVEL_SETTINGS_BUSY : CORVEL_SETTINGS_SAVED;
}

/// Writes the new versions if the file is the one that was loaded. While its copy is locked, nobody
/// replaces it, not even a writer without the lock file.
corvel_settings_result Saving::prepare(corvel_settings &settings) {
    if (is_changed(settings)) {
        settings.version.emplace(settings.paths.names(), settings.lock->held());
        if (settings.version->result() < 0)
            return settings.version->result();
        settings.kept.emplace(settings.paths.kept_names(), settings.lock->held());
    }
    FileContent file;
    file.read(settings.paths.file());
    if (!file.is_read())
        return file.result();
    Version version;
    version.set(file.view());
    if (!(version == settings.loaded) || (settings.is_expecting && !(version == settings.expected)))
        return CORVEL_SETTINGS_OUTDATED;
    const std::string_view content = settings.text->content();
    settings.has_fewer_lines = count_lines(content) < count_lines(file.view());
    if (!is_changed(settings))
        return CORVEL_SETTINGS_SAVED;
    const corvel_settings_result written = settings.version->write(content, file.descriptor());
    return written < 0 ? written : settings.kept->write(content, file.descriptor());
}

/// If the writer dies between the two renames, the file has as many lines as the kept version or
/// more, so that the recovery never takes it for a truncated one.
corvel_settings_result Saving::place(corvel_settings &settings) {
    if (!is_changed(settings))
        return CORVEL_SETTINGS_SAVED;
    const SettingsPaths &paths = settings.paths;
    if (settings.has_fewer_lines)
        settings.kept->take_place(paths.kept(), paths);
    if (settings.kept->result() < 0 ||
        settings.version->take_place(paths.file(), paths) != CORVEL_SETTINGS_SAVED)
        return CORVEL_SETTINGS_UNWRITABLE;
    settings.loaded = settings.current;
    settings.is_expecting = false;
    return settings.has_fewer_lines ? CORVEL_SETTINGS_SAVED
                                    : settings.kept->take_place(paths.kept(), paths);
}

corvel_settings_result Saving::run(corvel_settings *const files[], std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        const corvel_settings_result added = add(files[i]);
        if (added < 0)
            return added;
    }
    bool changed = false;
    for (const corvel_settings *settings = first_; settings != nullptr; settings = settings->next)
        changed = changed || is_changed(*settings);
    for (const auto step : {lock, prepare, place}) {
        const corvel_settings_result result = for_each(step);
        if (result < 0)
            return result;
    }
    return changed ? CORVEL_SETTINGS_SAVED : CORVEL_SETTINGS_UNCHANGED;
}

/// The complaints of the negative results, the next one below zero first.
constexpr char complaints[] = "\0"
                              "The settings were changed in the meantime. Load the page again.\0"
                              "The settings are being saved by another program. Try again.\0"
                              "The settings cannot be read.\0"
                              "The settings cannot be written.\0"
                              "There is not enough memory.\0"
                              "The settings are damaged.";

} // namespace
} // namespace corvel

extern "C" {

corvel_settings *corvel_settings_load(const char *path, char separator,
                                      corvel_settings_result *result) {
    SettingsPointer settings = new_settings();
    const corvel_settings_result loaded =
        settings ? load(*settings, path, separator) : CORVEL_SETTINGS_NO_MEMORY;
    if (result != nullptr)
        *result = loaded;
    return loaded < 0 ? nullptr : settings.release();
}

void corvel_settings_free(corvel_settings *settings) { SettingsPointer(settings).reset(); }

const char *corvel_setting(const corvel_settings *settings, const char *name) {
    return settings != nullptr && name != nullptr ? settings->text->find(name) : nullptr;
}

const char *corvel_setting_set(corvel_settings *settings, const char *name, const char *value) {
    if (settings == nullptr)
        return "The settings cannot be read.";
    if (!is_valid_name(text_or_empty(name)))
        return "This name cannot be stored.";
    if (value == nullptr)
        return "This is missing.";
    if (has_control_character(value))
        return "This contains a character that cannot be stored.";
    const RawValue raw_value(value);
    if (!raw_value.fits())
        return "This is too long.";
    if (has_value(*settings->text, name, value))
        return nullptr;
    return apply(*settings, {name, raw_value.view(), settings->separator}, value);
}

const char *corvel_setting_remove(corvel_settings *settings, const char *name) {
    if (settings == nullptr)
        return "The settings cannot be read.";
    if (corvel_setting(settings, name) == nullptr)
        return nullptr;
    return apply(*settings, {name, {}, settings->separator}, nullptr);
}

bool corvel_setting_pair(const corvel_settings *settings, size_t position, const char **name,
                         const char **value) {
    if (settings == nullptr || position >= settings->text->rows().size())
        return false;
    const SettingsText::Row &row = settings->text->rows()[position];
    if (name != nullptr)
        *name = row.name;
    if (value != nullptr)
        *value = row.value;
    return true;
}

const char *corvel_settings_version(const corvel_settings *settings) {
    return settings != nullptr ? settings->loaded.text : "";
}

void corvel_settings_expect(corvel_settings *settings, const char *version) {
    if (settings == nullptr)
        return;
    settings->is_expecting = true;
    // One that is too long is no version; truncated, it must not become one.
    const std::string_view text = text_of(version);
    store(settings->expected.text, text.size() < sizeof settings->expected.text ? text : "");
}

corvel_settings_result corvel_settings_save(corvel_settings *const files[], size_t count) {
    return Saving().run(files, files != nullptr ? count : 0);
}

corvel_settings_result corvel_settings_recover(const char *path, char separator) {
    SettingsPaths paths;
    if (!paths.build(path))
        return CORVEL_SETTINGS_UNREADABLE;
    const SettingsRecovery recovery(paths, separator_of(static_cast<signed char>(separator)));
    const corvel_settings_result restored = recovery.restore();
    if (restored < 0)
        return restored;
    const corvel_settings_result kept = recovery.keep();
    return kept < 0 ? kept : restored;
}

int corvel_settings_status(corvel_settings_result result, const char **complaint) {
    if (complaint != nullptr)
        *complaint = string_in_list(complaints, result >= CORVEL_SETTINGS_DAMAGED ? -result : 0);
    if (result >= 0)
        return CORVEL_HTTP_OK;
    if (result == CORVEL_SETTINGS_OUTDATED)
        return CORVEL_HTTP_CONFLICT;
    return result == CORVEL_SETTINGS_BUSY || result == CORVEL_SETTINGS_NO_MEMORY
               ? CORVEL_HTTP_SERVICE_UNAVAILABLE
               : CORVEL_HTTP_INTERNAL_SERVER_ERROR;
}

} // extern "C"
