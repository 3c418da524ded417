// SPDX-License-Identifier: MIT
#include "firmware/boot_environment.h"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <span>
#include <string_view>

#include "firmware/crc32.h"
#include "firmware/environment_format.h"
#include "support/big_endian.h"
#include "support/descriptor.h"
#include "support/text.h"

extern "C" {
unsigned char env_image_mem[CORVEL_ENV_SIZE];
}

namespace corvel {
namespace {

constexpr std::size_t data_size = environment_data_size;

unsigned char *current_image = nullptr;

/// The data of an image. The flash can contain anything: no function here relies on a NUL or on the
/// empty entry at the end of the list.
class DataArea {
  public:
    static constexpr std::size_t nowhere = data_size;

    explicit DataArea(unsigned char *image)
        : data_(environment_data(EnvironmentImage(image, CORVEL_ENV_SIZE))) {}

    /// Whether the list ends at `index`: with an empty entry, or because the data ends.
    [[nodiscard]] bool ends_at(std::size_t index) const {
        return index >= data_size || data_[index] == '\0';
    }

    /// The entry's terminating NUL, or `nowhere` if the data ends first.
    [[nodiscard]] std::size_t entry_end(std::size_t start) const {
        const void *const end = std::memchr(&data_[start], '\0', data_size - start);
        return end == nullptr ? nowhere : index_of(static_cast<const unsigned char *>(end));
    }

    /// The value of the entry at `start` if the entry has this name, else `nowhere`. A name that
    /// contains `=` is compared up to and including the first one.
    [[nodiscard]] std::size_t value_of_entry(std::size_t start, const char *name) const {
        std::size_t index = start;
        while (index < data_size && *name != '\0' &&
               data_[index] == static_cast<unsigned char>(*name)) {
            ++index;
            if (*name++ == '=')
                return index;
        }
        return index < data_size && *name == '\0' && data_[index] == '=' ? index + 1 : nowhere;
    }

    struct Entry {
        std::size_t start;
        std::size_t value; ///< `nowhere` if no entry was found
        std::size_t end;   ///< its terminating NUL
    };

    /// The first entry of that name.
    [[nodiscard]] Entry find(const char *name) const {
        for (std::size_t start = 0; !ends_at(start);) {
            const std::size_t end = entry_end(start);
            if (end == nowhere)
                break;
            const std::size_t value = value_of_entry(start, name);
            if (value != nowhere)
                return {start, value, end};
            start = end + 1;
        }
        return {nowhere, nowhere, nowhere};
    }

    /// Removes an entry by moving the following ones. After that the list ends with two NULs, even
    /// if it had no end before.
    void remove(const Entry &entry) {
        const std::size_t following = entry.end + 1;
        const std::size_t length = ends_at(following) ? 0 : list_end(following) - following;
        std::memmove(&data_[entry.start], data_.data() + following, length);
        const std::size_t end = entry.start + length;
        data_[end] = '\0';
        // The terminator of the previous entry, if there is one, is the first of the two NULs.
        if (end == 0 || (length != 0 && data_[end - 1] != '\0'))
            data_[end + 1] = '\0';
    }

    /// The offset of a new entry, after the last one; `nowhere` if the list has no end.
    [[nodiscard]] std::size_t insertion_point() const { return ends_at(0) ? 0 : list_end(0); }

    void append(std::size_t start, std::string_view name, std::string_view value) {
        put(start, name);
        put(start, "=");
        put(start, value);
        data_[start] = '\0';
        data_[start + 1] = '\0';
    }

    [[nodiscard]] unsigned char *at(std::size_t index) const { return &data_[index]; }

    [[nodiscard]] std::uint32_t crc() const { return crc32_of(data_); }

  private:
    [[nodiscard]] std::size_t index_of(const unsigned char *position) const {
        return static_cast<std::size_t>(position - data_.data());
    }

    /// The offset of the second of the first two consecutive NULs at or after `index`, or
    /// `nowhere`.
    [[nodiscard]] std::size_t list_end(std::size_t index) const {
        while (!ends_at(index)) {
            const std::size_t end = entry_end(index);
            if (end == nowhere)
                return nowhere;
            index = end + 1;
        }
        return index;
    }

    void put(std::size_t &index, std::string_view string) {
        std::memmove(&data_[index], string.data(),
                     string.size()); // the string can be in the image itself
        index += string.size();
    }

    std::span<unsigned char, data_size> data_;
};

std::span<unsigned char, environment_crc_size> crc_word(unsigned char *image) {
    return environment_crc(EnvironmentImage(image, CORVEL_ENV_SIZE));
}

/// Appends an entry if it fits, with its NUL and the NUL that ends the list. Returns false if not.
bool append_variable(DataArea &area, std::string_view name, std::string_view value) {
    const std::size_t start = area.insertion_point();
    const std::size_t needed = name.size() + 1 + value.size() + 2;
    if (data_size - start < needed) {
        std::printf("## Error: environment overflow, \"%s\" deleted\n", name.data());
        return false;
    }
    area.append(start, name, value);
    return true;
}

} // namespace

bool read_environment_image(const char *path, const char *size_text) {
    const Descriptor file = open_environment(path, O_RDONLY);
    if (!file) {
        std::printf("Err: can not open file %s\n", text_or_empty(path));
        return false;
    }
    if (read(file.get(), env_image_mem, CORVEL_ENV_SIZE) == CORVEL_ENV_SIZE)
        return true;
    std::printf("Err: envimage size is less then CONFIG_ENV_SIZE(%s)\n", size_text);
    return false;
}

bool use_environment_image(void *image) {
    current_image = static_cast<unsigned char *>(image);
    const bool good = big_endian_word(crc_word(current_image)) == DataArea(current_image).crc();
    if (!good)
        std::puts("Warning - bad CRC");
    return good;
}

int load_environment(const char *path) {
    if (!read_environment_image(path, "0x10000"))
        return CORVEL_ENV_UNREADABLE;
    return use_environment_image(env_image_mem) ? CORVEL_ENV_GOOD : CORVEL_ENV_BAD_CRC;
}

char *find_variable(const char *name) {
    if (current_image == nullptr)
        return nullptr;
    const DataArea area(current_image);
    const DataArea::Entry entry = area.find(text_or_empty(name));
    if (entry.value == DataArea::nowhere)
        return nullptr;
    return reinterpret_cast<char *>(area.at(entry.value));
}

bool set_variable(const char *name, const char *value) {
    if (current_image == nullptr)
        return false;
    const std::string_view name_text = text_of(name);
    if (name_text.find('=') != std::string_view::npos) {
        std::printf("## Error: illegal character '=' in variable name \"%s\"\n", name_text.data());
        return false;
    }
    DataArea area(current_image);
    const DataArea::Entry entry = area.find(name_text.data());
    if (entry.value != DataArea::nowhere)
        area.remove(entry);
    // If the new value does not fit, the old one is already removed, and the CRC is not updated.
    if (value != nullptr && !append_variable(area, name_text, value))
        return false;
    store_big_endian(crc_word(current_image), area.crc());
    return true;
}

} // namespace corvel

extern "C" {

using namespace corvel;

int init_env(const char *path) { return load_environment(path); }

int set_env_ptr(void *image) {
    return use_environment_image(image) ? CORVEL_ENV_GOOD : CORVEL_ENV_BAD_CRC;
}

char *get_env(const char *name) { return find_variable(name); }

int set_env(const char *name, const char *value) { return set_variable(name, value) ? 0 : 1; }

int print_env(void) {
    if (current_image == nullptr)
        return 0;
    const DataArea area(current_image);
    std::size_t start = 0;
    while (!area.ends_at(start)) {
        const std::size_t end = area.entry_end(start);
        std::fwrite(area.at(start), 1, end - start, stdout);
        std::putchar('\n');
        start = end == DataArea::nowhere ? end : end + 1;
    }
    return static_cast<int>(start);
}

} // extern "C"
