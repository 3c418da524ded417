// SPDX-License-Identifier: MIT
// Sequences of operations on a boot environment against a model of it: after each one the image has
// the model's bytes, CRC included, regardless of its initial bytes.
//
// Input: a byte (flags) first string NUL last string NUL, then operations: a byte that is not zero,
// name NUL value NUL. The data starts with the first string and ends with the last one, in which
// newlines represent NULs.
#include "corvel.h"
#include "firmware/environment_format.h"
#include "fuzz/harness.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>

namespace {

using namespace corvel_fuzz;

constexpr std::size_t checksum_size = corvel::environment_crc_size;
constexpr std::size_t data_size = corvel::environment_data_size;
constexpr std::size_t nowhere = std::string::npos;
constexpr int most_operations = 32;

constexpr unsigned char in_a_file = 0x01;
constexpr unsigned char bad_checksum = 0x02;
constexpr unsigned char short_file = 0x04;
constexpr unsigned int background_shift = 3;

enum Operation : unsigned char { set, unset, get, list, use, operation_count };

struct Start {
    unsigned char flags;
    std::string data;
};

/** The expected image. */
class Model {
  public:
    Model(std::string checksum, std::string data)
        : checksum_(std::move(checksum)), data_(std::move(data)) {}

    [[nodiscard]] std::string image() const { return checksum_ + data_; }
    [[nodiscard]] bool is_good() const { return checksum_ == word_of(crc_of(data_)); }

    /** The position of a variable's value in the data. */
    [[nodiscard]] std::size_t value_of(const std::string &name) const {
        // A name that contains an equals sign is compared up to and including it.
        const std::string stem = name.substr(0, name.find('=')) + '=';
        const std::size_t entry = entry_of(stem);
        return entry == nowhere ? nowhere : entry + stem.size();
    }

    [[nodiscard]] std::string text_at(std::size_t place) const { return data_.c_str() + place; }

    /** Sets or deletes; returns the result and appends the message. */
    int change(const std::string &name, const std::string *value, std::string &output) {
        if (name.find('=') != nowhere) {
            output += "## Error: illegal character '=' in variable name \"" + name + "\"\n";
            return 1;
        }
        const std::size_t old = entry_of(name + '=');
        if (old != nowhere)
            remove(old);
        if (value != nullptr && !append(name + '=' + *value)) {
            output += "## Error: environment overflow, \"" + name + "\" deleted\n";
            return 1;
        }
        checksum_ = word_of(crc_of(data_));
        return 0;
    }

    /** The entries, one a line; returns the position of the end of the list. */
    std::size_t print(std::string &output) const {
        std::size_t start = 0;
        while (start < data_size && data_[start] != '\0') {
            const std::size_t end = std::min(data_.find('\0', start), data_size);
            output += data_.substr(start, end - start) + "\n";
            start = std::min(end + 1, data_size);
        }
        return start;
    }

  private:
    /** The first entry that begins with a stem, its equals sign included. */
    [[nodiscard]] std::size_t entry_of(const std::string &stem) const {
        for (std::size_t start = 0; start < data_size && data_[start] != '\0';) {
            const std::size_t end = data_.find('\0', start);
            if (end == nowhere)
                break;
            if (std::string_view(data_).substr(start, end - start).starts_with(stem))
                return start;
            start = end + 1;
        }
        return nowhere;
    }

    void put(std::size_t place, const std::string &bytes) {
        data_.replace(place, bytes.size(), bytes);
    }

    void remove(std::size_t entry) {
        const std::size_t following = data_.find('\0', entry) + 1;
        if (following == data_size || data_[following] == '\0') {
            put(entry, entry == 0 ? std::string(2, '\0') : std::string(1, '\0'));
            return;
        }
        const std::size_t end = data_.find(std::string(2, '\0'), following);
        if (end != nowhere) {
            put(entry, data_.substr(following, end + 2 - following));
            return;
        }
        // The list had no end; now there is room for its two NULs.
        std::string rest = data_.substr(following);
        rest += rest.back() == '\0' ? std::string(1, '\0') : std::string(2, '\0');
        put(entry, rest);
    }

    bool append(const std::string &entry) {
        std::size_t place = 0;
        if (data_.front() != '\0') {
            const std::size_t end = data_.find(std::string(2, '\0'));
            if (end == nowhere)
                return false;
            place = end + 1;
        }
        if (data_size - place < entry.size() + 2)
            return false;
        put(place, entry + std::string(2, '\0'));
        return true;
    }

    std::string checksum_;
    std::string data_;
};

// ---------------------------------------------------------------------------------------- input

std::string background_of(unsigned char flags) {
    switch (flags >> background_shift & 3) {
    case 0:
        return {'\0'};
    case 1:
        return "\xff";
    case 2:
        return {'a', '=', 'b', '\0'};
    default:
        return "fill";
    }
}

std::string with_nuls(std::string text) {
    std::replace(text.begin(), text.end(), '\n', '\0');
    return std::string(cut(text, data_size));
}

Start start_of(Input &input) {
    Start start{input.byte(), {}};
    const std::string background = background_of(start.flags);
    start.data.reserve(data_size + background.size());
    while (start.data.size() < data_size)
        start.data += background;
    start.data.resize(data_size);
    const std::string first = with_nuls(input.text());
    const std::string last = with_nuls(input.text());
    start.data.replace(0, first.size(), first);
    start.data.replace(data_size - last.size(), last.size(), last);
    return start;
}

Model model_of(const Start &start) {
    const std::uint32_t crc = crc_of(start.data);
    return {word_of((start.flags & bad_checksum) != 0 ? crc + 1 : crc), start.data};
}

// --------------------------------------------------------------------------------------- checks

/** The message printed when an image becomes current. */
std::string warning_of(const Model &model) { return model.is_good() ? "" : "Warning - bad CRC\n"; }

void check_image(const unsigned char *image, const Model &model) {
    check_equal({reinterpret_cast<const char *>(image), CORVEL_ENV_SIZE}, model.image(),
                "the image is that of the model");
}

void check_value(const unsigned char *image, const Model &model, const std::string &name,
                 const std::string &key) {
    const std::size_t expected = model.value_of(name);
    const char *const value = get_env(exact_copy(name).get());
    check((value != nullptr) == (expected != nowhere), "a variable is found or not");
    if (value == nullptr)
        return;
    const auto *const data = reinterpret_cast<const char *>(image) + checksum_size;
    check_equal(value - data, static_cast<long long>(expected), "position of a value");
    check(std::memchr(value, '\0', data_size - expected) != nullptr,
          "a value is terminated in the image");
    check_equal(value, model.text_at(expected), "value");

    const std::string text = model.text_at(expected);
    const std::size_t start = text.find(key);
    const std::size_t end = start == nowhere ? nowhere : text.find(' ', start + key.size());
    char *const argument = parse_bootargs_get_val(value, key.c_str());
    check((argument != nullptr) == (end != nowhere), "an argument is found or not");
    if (argument != nullptr)
        check_equal(argument, text.substr(start + key.size(), end - start - key.size()),
                    "argument");
    std::free(argument);
}

void check_operation(unsigned char operation, unsigned char *image, Model &model, Input &input) {
    const std::string name = input.text();
    const std::string value = input.text();
    std::string expected_output;
    int expected = 0;
    int result = 0;
    begin_capture();
    switch (operation % operation_count) {
    case set:
        result = set_env(exact_copy(name).get(), exact_copy(value).get());
        expected = model.change(name, &value, expected_output);
        break;
    case unset:
        result = set_env(exact_copy(name).get(), nullptr);
        expected = model.change(name, nullptr, expected_output);
        break;
    case get:
        check_value(image, model, name, value);
        break;
    case list:
        result = print_env();
        expected = static_cast<int>(model.print(expected_output));
        break;
    default:
        result = set_env_ptr(image);
        expected = model.is_good() ? CORVEL_ENV_GOOD : CORVEL_ENV_BAD_CRC;
        expected_output = warning_of(model);
        break;
    }
    check_equal(end_capture(), expected_output, "the output of an operation");
    check_equal(result, expected, "result of an operation");
    check_image(image, model);
}

void check_operations(unsigned char *image, Model &model, Input input) {
    for (int i = 0; i < most_operations; ++i) {
        const unsigned char operation = input.byte();
        if (operation == 0)
            break;
        check_operation(operation, image, model, input);
    }
}

/** The image is in a block of the caller. */
void check_in_memory(const Start &start, const Input &input) {
    Model model = model_of(start);
    const std::string bytes = model.image();
    const auto image = std::make_unique<unsigned char[]>(CORVEL_ENV_SIZE);
    std::copy(bytes.begin(), bytes.end(), image.get());
    int result = 0;
    check_equal(output_of([&] { result = set_env_ptr(image.get()); }), warning_of(model),
                "the output of set_env_ptr");
    check_equal(result, model.is_good() ? CORVEL_ENV_GOOD : CORVEL_ENV_BAD_CRC, "set_env_ptr");
    check_operations(image.get(), model, input);
}

void check_short_file(const MemoryFile &file) {
    file.fill(std::string(CORVEL_ENV_SIZE - 1, 'x'));
    int result = 0;
    check_equal(output_of([&] { result = init_env(file.path()); }),
                "Err: envimage size is less then CONFIG_ENV_SIZE(0x10000)\n", "a short file");
    check_equal(result, CORVEL_ENV_UNREADABLE, "init_env of a short file");
    check_equal(output_of([&] { result = static_cast<int>(get_rootid(file.path())); }),
                "Err: envimage size is less then CONFIG_ENV_SIZE(65536)\n", "a short file");
    check_equal(result, 0, "get_rootid of a short file");
}

std::string expected_root_output(const Model &model) {
    if (!model.is_good())
        return "Warning - bad CRC\nErr: invalid image\n";
    const std::size_t place = model.value_of("bootargs");
    if (place == nowhere)
        return "";
    const std::string arguments = model.text_at(place);
    const std::size_t key = arguments.find("root=");
    const std::size_t end = key == nowhere ? nowhere : arguments.find(' ', key);
    return end == nowhere ? "" : "pos=" + arguments.substr(key + 5, end - key - 5) + "\n";
}

/** The image is read from a file into env_image_mem and written back. */
void check_in_file(const Start &start, const Input &input) {
    static const MemoryFile file;
    if ((start.flags & short_file) != 0)
        check_short_file(file);
    Model model = model_of(start);
    file.fill(model.image() + "and more");
    int result = 0;
    check_equal(output_of([&] { result = init_env(file.path()); }), warning_of(model),
                "the output of init_env");
    check_equal(result, model.is_good() ? CORVEL_ENV_GOOD : CORVEL_ENV_BAD_CRC, "init_env");
    check_operations(env_image_mem, model, input);

    const std::string value = "saved";
    std::string expected_output;
    const int expected = -model.change("last", &value, expected_output);
    check_equal(output_of([&] { result = save_param(file.path(), "last", "saved"); }),
                expected_output, "the output of save_param");
    check_equal(result, expected, "save_param");
    check_image(env_image_mem, model);
    if (expected == 0)
        check_equal(file.content(), model.image(), "the file contains the image");
    file.fill(model.image());
    check_equal(output_of([&] { result = static_cast<int>(get_rootid(file.path())); }),
                expected_root_output(model), "the output of get_rootid");
    check_equal(result, 0, "get_rootid");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    Input input(data, size);
    const Start start = start_of(input);
    if ((start.flags & in_a_file) != 0)
        check_in_file(start, input);
    else
        check_in_memory(start, input);
    return 0;
}
