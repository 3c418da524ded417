// SPDX-License-Identifier: MIT
// Both writers of configuration files: the bytes of the new file against a model, the companion
// files, the mode.
//
// Input: the separator, a prefix NUL a name NUL a value NUL, a byte (how many rows), name NUL value
// NUL of each row, then the file.
#include "corvel.h"
#include "fuzz/harness.h"

#include <algorithm>
#include <filesystem>
#include <sys/stat.h>

namespace {

using namespace corvel_fuzz;

constexpr std::size_t most_rows = 16;
constexpr mode_t file_mode = 0640;
constexpr std::size_t most_octet_digits = 9;

struct Setting {
    std::string name;
    std::string value;
};

using Settings = std::vector<Setting>;

char separator_of(char selector) { return selector == '=' || selector == ' ' ? selector : '\t'; }

std::string quoted(const std::string &value) { return '"' + value + '"'; }

/** The line that save_prop() writes for one line: the last character, even of a piece without a
 *  newline, is replaced by a newline. */
std::string saved_line(char separator, std::string line, const Settings &rows) {
    line.pop_back();
    const std::string_view text = as_text(line);
    const std::string key(text.substr(0, text.find(separator)));
    for (const Setting &row : rows) {
        if (row.name == key)
            line = row.name + separator + quoted(row.value);
    }
    return line + '\n';
}

std::string saved(char separator, std::string_view file, const Settings &rows) {
    std::string result;
    for (const Piece &piece : pieces_of(file)) {
        if (!piece.at_end)
            result += saved_line(separator, std::string(piece.text), rows);
    }
    return result;
}

std::string saved_setting(char separator, std::string_view file, const std::string &prefix,
                          const Setting &setting) {
    std::string result;
    bool found = false;
    for (const Piece &piece : pieces_of(file)) {
        const std::string_view line = as_text(piece.text);
        const bool matches = line.substr(0, line.find(separator)) == setting.name;
        found = found || matches;
        if (piece.at_end)
            continue;
        if (matches)
            result += prefix + setting.name + separator + quoted(setting.value) + '\n';
        else
            result += piece.text;
    }
    if (!found)
        result += prefix + setting.name + separator + setting.value + '\n';
    return result;
}

mode_t mode_of(const std::string &path) {
    struct stat status = {};
    check(stat(path.c_str(), &status) == 0, "the file exists");
    return status.st_mode & 07777;
}

/** A new file with this content, without companions. */
const std::string &settings_file(std::string_view content) {
    static const std::string path = scratch_directory() + "/settings";
    write_file(path, content);
    check(chmod(path.c_str(), file_mode) == 0, "chmod");
    return path;
}

std::string check_saved(const std::string &path, const std::string &expected) {
    std::string content = read_file(path);
    check_equal(content, expected, "the saved file");
    check_equal(mode_of(path), file_mode, "the mode is kept");
    check(!std::filesystem::exists(path + ".cgi"), "no copy is left");
    return content;
}

std::string check_table_saving(char separator, std::string_view file, const Settings &settings) {
    const std::string &path = settings_file(file);
    std::vector<std::unique_ptr<char[]>> names;
    std::vector<std::unique_ptr<char[]>> values;
    for (const Setting &setting : settings) {
        names.push_back(exact_copy(setting.name));
        values.push_back(exact_copy(setting.value));
    }
    std::vector<prop_entry> table;
    for (std::size_t i = 0; i < settings.size(); ++i)
        table.push_back({0, 0, names[i].get(), values[i].get()});
    check_equal(save_prop(static_cast<signed char>(separator), path.c_str(), table.data(),
                          static_cast<int>(table.size())),
                1, "save_prop returns 1");
    check_equal(mode_of(path + ".lck"), 0600, "the lock file is kept");
    check(std::filesystem::remove(path + ".lck"), "the lock file is kept");
    return check_saved(path, saved(separator, file, settings));
}

std::string check_setting_saving(char selector, std::string_view file, const std::string &prefix,
                                 const Setting &setting) {
    const std::string &path = settings_file(file);
    check_equal(save_global_conf(static_cast<signed char>(selector), path.c_str(), prefix.c_str(),
                                 setting.name.c_str(), setting.value.c_str()),
                1, "save_global_conf returns 1");
    check(!std::filesystem::exists(path + ".lck"), "the lock file is removed");
    return check_saved(path, saved_setting(separator_of(selector), file, prefix, setting));
}

bool is_digit(char c) { return c >= '0' && c <= '9'; }

/** The prefix length, or -1 for numbers out of the range of an int, whose low bits are undefined.
 */
int prefix_length_of(std::string_view mask) {
    int length = 0;
    for (int octet = 0; octet < 4; ++octet) {
        const auto *const digits = std::find_if(mask.begin(), mask.end(), is_digit);
        const auto *const end = std::find_if_not(digits, mask.end(), is_digit);
        if (static_cast<std::size_t>(end - digits) > most_octet_digits)
            return -1;
        for (int bits = decimal_value(mask) & 0xff; bits != 0; bits = (bits << 1) & 0xff)
            ++length;
        const std::size_t dot = mask.find('.');
        if (dot == std::string_view::npos)
            break;
        mask.remove_prefix(dot + 1);
    }
    return length;
}

void check_prefix_length(const std::string &mask) {
    const auto text = exact_copy(mask);
    const int length = calc_netpriexlength(text.get());
    const int expected = prefix_length_of(mask);
    check(length >= 0 && length <= 32, "a prefix length is 0 to 32");
    if (expected >= 0)
        check_equal(length, expected, "calc_netpriexlength");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    Input input(data, size);
    const char separator = static_cast<char>(input.byte());
    const std::string prefix = input.text();
    const std::string name = input.text();
    const std::string value = input.text();
    Settings rows(input.byte() % most_rows);
    for (Setting &row : rows) {
        row.name = input.text();
        row.value = input.text();
    }
    const std::string file = input.rest();
    in_different_surroundings([&] {
        std::string bytes;
        if (separator != '\0')
            bytes = check_table_saving(separator, file, rows);
        return bytes + check_setting_saving(separator, file, prefix, {name, value});
    });
    check_prefix_length(value);
    return 0;
}
