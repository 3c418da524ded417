/* SPDX-License-Identifier: MIT */
/** Settings as tests of the page kit use them, next to the functions of the library. */
#ifndef CORVEL_TESTS_PAGE_SETTINGS_HELPERS_H
#define CORVEL_TESTS_PAGE_SETTINGS_HELPERS_H

#include <corvel.h>
#include <corvel_page.h>

#include <array>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace corvel_test {

/** Settings, freed at the end. */
class Settings {
  public:
    explicit Settings(const std::string &path, char separator = '=')
        : settings_(corvel_settings_load(path.c_str(), separator, &result_)) {}
    ~Settings() { corvel_settings_free(settings_); }
    Settings(const Settings &) = delete;
    Settings &operator=(const Settings &) = delete;

    [[nodiscard]] corvel_settings *get() const { return settings_; }
    [[nodiscard]] corvel_settings_result result() const { return result_; }
    [[nodiscard]] std::optional<std::string> value(const std::string &name) const {
        const char *const value = corvel_setting(settings_, name.c_str());
        return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
    }
    /** The message, or "" if there is none. */
    [[nodiscard]] std::string set(const std::string &name, const std::string &value) const {
        const char *const message = corvel_setting_set(settings_, name.c_str(), value.c_str());
        return message != nullptr ? message : "";
    }
    [[nodiscard]] std::string remove(const std::string &name) const {
        const char *const message = corvel_setting_remove(settings_, name.c_str());
        return message != nullptr ? message : "";
    }
    [[nodiscard]] corvel_settings_result save() const {
        corvel_settings *const files[] = {settings_};
        return corvel_settings_save(files, 1);
    }
    [[nodiscard]] std::string version() const { return corvel_settings_version(settings_); }
    [[nodiscard]] std::vector<std::pair<std::string, std::string>> pairs() const {
        std::vector<std::pair<std::string, std::string>> pairs;
        const char *name = nullptr;
        const char *value = nullptr;
        for (std::size_t i = 0; corvel_setting_pair(settings_, i, &name, &value); ++i)
            pairs.emplace_back(name, value);
        return pairs;
    }

  private:
    corvel_settings_result result_ = CORVEL_SETTINGS_DAMAGED;
    corvel_settings *settings_;
};

/** Sets one setting with the kit. */
inline corvel_settings_result set_with_kit(const std::string &path, const std::string &name,
                                           const std::string &value, char separator = '=') {
    const Settings settings(path, separator);
    if (settings.get() == nullptr)
        return settings.result();
    const std::string message = settings.set(name, value);
    if (!message.empty())
        ADD_FAILURE() << message;
    return settings.save();
}

/** The value as a program reads it that uses the library alone. */
inline std::optional<std::string> value_for_library(char separator, const std::string &path,
                                                    const std::string &name) {
    std::vector<prop_entry> table(20'000);
    const int count = load_prop(static_cast<signed char>(separator), path.c_str(), table.data());
    std::array<char, CORVEL_GET_PROP_SIZE> value{};
    std::optional<std::string> result;
    if (get_prop(name.c_str(), value.data(), table.data(), count) != nullptr)
        result = strip_escape(value.data(), value.data());
    free_prop(table.data(), count);
    return result;
}

/** A value as a program that uses the library alone writes it between quotes. */
inline std::string escaped(const std::string &value) {
    std::string text(2 * value.size() + 1, '\0');
    text.resize(std::char_traits<char>::length(add_escape(value.c_str(), text.data())));
    return text;
}

} // namespace corvel_test

#endif
