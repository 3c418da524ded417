/* SPDX-License-Identifier: MIT */
/**
 * A model of the boot loader's environment image, with its own rules of what setting or deleting a
 * variable does to the bytes.
 *
 *     EnvironmentImage image({"bootparam=0", "bootargs=root=31:2 ro"});
 *     image.set("a", "1");
 *     EXPECT_EQ(library_image, image.bytes());
 */
#ifndef CORVEL_TESTS_ENVIRONMENT_IMAGE_H
#define CORVEL_TESTS_ENVIRONMENT_IMAGE_H

#include "firmware/environment_format.h"
#include "tests/firmware/reference_crc.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace corvel_test {

class EnvironmentImage {
  public:
    static constexpr std::size_t size = CORVEL_ENV_SIZE;
    static constexpr std::size_t data_size = corvel::environment_data_size;

    /** A valid image with these entries; the free space is erased flash. */
    explicit EnvironmentImage(const std::vector<std::string> &entries, char fill = '\xFF') {
        for (const std::string &entry : entries)
            data_ += entry + '\0';
        data_ += entries.empty() ? std::string(2, '\0') : std::string(1, '\0');
        data_.resize(data_size, fill);
        update_crc();
    }

    /** An image of any data, with its CRC or with `word` instead. */
    static EnvironmentImage of_data(std::string data,
                                    std::optional<std::uint32_t> word = std::nullopt) {
        EnvironmentImage image({});
        data.resize(data_size, '\xFF');
        image.data_ = std::move(data);
        image.update_crc();
        image.crc_ = word.value_or(image.crc_);
        return image;
    }

    [[nodiscard]] std::string bytes() const { return stored(crc_) + data_; }
    [[nodiscard]] const std::string &data() const { return data_; }
    [[nodiscard]] bool crc_is_good() const { return crc_ == reference_crc(data_); }

    /** The offset of the empty entry after the last one; no value if the data ends first. */
    [[nodiscard]] std::optional<std::size_t> end_of_list() const {
        std::size_t at = 0;
        while (at < data_size && data_[at] != '\0') {
            at = data_.find('\0', at);
            if (at == std::string::npos)
                return std::nullopt;
            ++at;
        }
        return at < data_size ? std::optional(at) : std::nullopt;
    }

    /** A variable's value and its offset in the data. */
    struct Value {
        std::size_t offset;
        std::string text;
        bool operator==(const Value &) const = default;
    };

    [[nodiscard]] std::optional<Value> get(std::string_view name) const {
        const std::optional<Entry> entry = find(name);
        if (!entry)
            return std::nullopt;
        // A name is compared up to its first '='.
        const std::size_t equals =
            name.find('=') != std::string_view::npos ? name.find('=') : name.size();
        return Value{entry->start + equals + 1, entry->text.substr(equals + 1)};
    }

    /** @return the library's result: 0, or 1 if the entry does not fit or the name contains '='. */
    int set(std::string_view name, const std::optional<std::string> &value) {
        if (name.find('=') != std::string_view::npos)
            return 1;
        remove(name);
        if (value && !append(std::string(name) + '=' + *value))
            return 1;
        update_crc();
        return 0;
    }

    /** What print_env() prints. */
    [[nodiscard]] std::string listing() const {
        std::string lines;
        for (const Entry &entry : entries())
            lines += entry.text + '\n';
        return lines;
    }

  private:
    struct Entry {
        std::size_t start;
        std::string text;
        bool terminated;
    };

    [[nodiscard]] std::vector<Entry> entries() const {
        std::vector<Entry> found;
        for (std::size_t at = 0; at < data_size && data_[at] != '\0';) {
            const std::size_t end = data_.find('\0', at);
            if (end == std::string::npos) {
                found.push_back({at, data_.substr(at), false});
                break;
            }
            found.push_back({at, data_.substr(at, end - at), true});
            at = end + 1;
        }
        return found;
    }

    [[nodiscard]] std::optional<Entry> find(std::string_view name) const {
        const std::string key = std::string(name.substr(0, name.find('='))) + '=';
        for (const Entry &entry : entries())
            if (entry.terminated && entry.text.starts_with(key))
                return entry;
        return std::nullopt;
    }

    void remove(std::string_view name) {
        const std::optional<Entry> entry = find(name);
        if (!entry)
            return;
        const std::size_t next = entry->start + entry->text.size() + 1;
        const bool is_last = next == data_size || data_[next] == '\0';
        if (is_last && entry->start == 0) {
            data_[0] = data_[1] = '\0';
        } else if (is_last) {
            data_[entry->start] = '\0';
        } else if (const std::optional<std::size_t> end = end_of_list()) {
            overwrite(entry->start, data_.substr(next, *end + 1 - next));
        } else {
            // The following entries, and the end that the list did not have.
            const bool closed = data_.back() == '\0';
            overwrite(entry->start, data_.substr(next) + std::string(closed ? 1 : 2, '\0'));
        }
    }

    bool append(const std::string &entry) {
        const std::optional<std::size_t> end = end_of_list();
        if (!end || data_size - *end < entry.size() + 2)
            return false;
        overwrite(*end, entry + std::string(2, '\0'));
        return true;
    }

    void overwrite(std::size_t at, const std::string &bytes) {
        data_.replace(at, bytes.size(), bytes);
    }

    void update_crc() { crc_ = reference_crc(data_); }

    std::string data_;
    std::uint32_t crc_ = 0;
};

} // namespace corvel_test

#endif
