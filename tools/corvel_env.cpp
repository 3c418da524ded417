// SPDX-License-Identifier: MIT
// Edits images of the boot loader's environment.
#include <corvel.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <set>
#include <string_view>
#include <sys/stat.h>

#include "firmware/environment_format.h"
#include "support/big_endian.h"
#include "tools/command_line.h"
#include "tools/files.h"
#include "tools/json.h"
#include "tools/silent_output.h"
#include "tools/text_format.h"

namespace corvel::tools {
namespace {

constexpr const char *help = R"(usage: corvel-env create [--force] FILE [NAME=VALUE...]
       corvel-env list [--json] FILE
       corvel-env get [--raw] FILE NAME
       corvel-env set [--force] FILE NAME=VALUE...
       corvel-env delete [--force] FILE NAME...
       corvel-env check FILE

  create   create an environment image, empty or with these variables
  list     print all variables, one per line
  get      print the value of a variable
  set      set variables; each one moves to the end of the list
  delete   delete variables
  check    report whether an image is good, and if not, why

FILE may be "-": list, get and check read standard input, create writes
standard output, and set and delete read standard input and write standard
output.

  -f, --force      create: replace an existing file
                   set, delete: change an image whose CRC is bad
                   delete: ignore missing variables
  -j, --json       list: print a JSON object
  -r, --raw        get: print the bytes of the value unescaped; all other
                   output shows \xNN for an unprintable byte, and \\ for \
  -h, --help       print this text
  -V, --version    print the version

A command that fails leaves the file unchanged. Exit status: 0 on success,
1 if the image is bad or a variable is missing or does not fit, 2 if a file
cannot be read or written or the usage is wrong.
)";

constexpr std::size_t crc_size = environment_crc_size;
constexpr std::size_t data_size = environment_data_size;

std::span<unsigned char, data_size> data_area() { return environment_data(env_image_mem); }

std::uint32_t stored_crc() { return big_endian_word(environment_crc(env_image_mem)); }

std::uint32_t computed_crc() { return crc32(data_area().data(), static_cast<int>(data_size)); }

/// The offset of the end of the list of variables; the size of the data area if it has no end.
std::size_t list_end() {
    const SilentOutput silent;
    return static_cast<std::size_t>(print_env());
}

struct Entry {
    std::size_t offset; ///< in the data area
    std::string_view text;
};

/// The entries up to the end of the list. A last entry without a NUL ends at the end of the data
/// area.
std::vector<Entry> all_entries() {
    const std::size_t end = list_end();
    const char *const data = reinterpret_cast<const char *>(data_area().data());
    std::vector<Entry> entries;
    for (std::size_t start = 0; start < end; start += entries.back().text.size() + 1)
        entries.push_back({start, {data + start, strnlen(data + start, data_size - start)}});
    return entries;
}

bool good_crc() { return stored_crc() == computed_crc(); }

std::string crc_fault() {
    return format("CRC: 0x%08x is expected, the CRC-32 of the bytes from offset 4; found 0x%08x",
                  computed_crc(), stored_crc());
}

/// Reads an image into env_image_mem, which the library uses.
void load(const std::string &path) {
    const Bytes content = read_argument(path, CORVEL_ENV_SIZE).content;
    if (content.size() != CORVEL_ENV_SIZE)
        throw Failure(bad_content,
                      printable(path) + format(": size: %d bytes are expected; found %s%zu",
                                               CORVEL_ENV_SIZE,
                                               content.size() > CORVEL_ENV_SIZE ? "at least " : "",
                                               content.size()));
    std::ranges::copy(content, env_image_mem);
    const SilentOutput silent; // the library prints a message if the CRC is bad
    set_env_ptr(env_image_mem);
}

void load_for_change(const Arguments &arguments) {
    const std::string &path = arguments.words[0];
    load(path);
    if (!good_crc() && !arguments.has(Option::force))
        throw Failure(bad_content, printable(path) + ": bad environment: " + crc_fault() +
                                       "\nUse --force to change it anyway.");
}

void save(const std::string &path) { write_argument(path, env_image_mem); }

void complain_about_image(const std::string &path, const std::string &fault) {
    complain(printable(path) + ": bad environment: " + fault);
}

/// A bad image is read nevertheless; the exit status reports it.
ExitStatus load_for_reading(const std::string &path) {
    load(path);
    if (good_crc())
        return success;
    complain_about_image(path, crc_fault());
    return bad_content;
}

struct Assignment {
    std::string name;
    std::string value;
};

Assignment assignment_of(const std::string &word) {
    const std::size_t equals = word.find('=');
    if (equals == std::string::npos)
        throw Failure(cannot_do_it, "'" + printable(word) + "' is not NAME=VALUE");
    if (equals == 0)
        throw Failure(cannot_do_it, "'" + printable(word) + "' has no name");
    return {word.substr(0, equals), word.substr(equals + 1)};
}

void check_name(const std::string &name) {
    if (name.empty() || name.find('=') != std::string::npos)
        throw Failure(cannot_do_it, "'" + printable(name) + "' is not a variable name");
}

/// Removes all entries with the name: the first one would take precedence over the new one, which
/// is appended.
bool erase(const std::string &name) {
    const bool there = get_env(name.c_str()) != nullptr;
    while (get_env(name.c_str()) != nullptr)
        set_env(name.c_str(), nullptr);
    return there;
}

void assign(const Assignment &assignment) {
    erase(assignment.name);
    int status = 0;
    {
        const SilentOutput silent;
        status = set_env(assignment.name.c_str(), assignment.value.c_str());
    }
    if (status == 0)
        return;
    throw Failure(bad_content, format("'%s' does not fit: it takes %zu bytes, and %zu are free",
                                      printable(assignment.name).c_str(),
                                      assignment.name.size() + assignment.value.size() + 3,
                                      data_size - list_end()));
}

void assign_all(const Arguments &arguments) {
    std::vector<Assignment> assignments;
    std::transform(arguments.words.begin() + 1, arguments.words.end(),
                   std::back_inserter(assignments), assignment_of);
    for (const Assignment &assignment : assignments)
        assign(assignment);
}

Failure no_variable(const std::string &path, const std::string &name) {
    return {bad_content, printable(path) + ": no variable '" + printable(name) + "'"};
}

bool exists(const std::string &path) {
    struct stat status;
    return lstat(path.c_str(), &status) == 0;
}

ExitStatus create(const Arguments &arguments) {
    const std::string &path = arguments.words[0];
    if (!arguments.has(Option::force) && !is_standard_stream(path) && exists(path))
        throw Failure(cannot_do_it,
                      printable(path) + ": already exists; use --force to replace it");
    {
        const SilentOutput silent;
        set_env_ptr(env_image_mem);
        set_env("", nullptr); // stores the CRC of an empty list
    }
    assign_all(arguments);
    save(path);
    return success;
}

/// An entry without '=' is a name with the value null.
std::string json_of(const Entry &entry) {
    const std::size_t equals = entry.text.find('=');
    return json::Object()
        .add("name", json::string(entry.text.substr(0, equals)))
        .add("value", equals != std::string_view::npos ? json::string(entry.text.substr(equals + 1))
                                                       : json::null)
        .text();
}

void print_json(const std::string &path) {
    std::vector<std::string> variables;
    for (const Entry &entry : all_entries())
        variables.push_back(json_of(entry));
    std::puts(json::Object()
                  .add("file", json::string(path))
                  .add("good_crc", json::boolean(good_crc()))
                  .add("stored_crc", json::number(stored_crc()))
                  .add("computed_crc", json::number(computed_crc()))
                  .add("variables", json::array(variables))
                  .text()
                  .c_str());
}

ExitStatus list(const Arguments &arguments) {
    const std::string &path = arguments.words[0];
    const ExitStatus status = load_for_reading(path);
    if (arguments.has(Option::json))
        print_json(path);
    else
        for (const Entry &entry : all_entries())
            std::puts(printable(entry.text).c_str());
    return status;
}

ExitStatus get(const Arguments &arguments) {
    const std::string &name = arguments.words[1];
    check_name(name);
    const ExitStatus status = load_for_reading(arguments.words[0]);
    const char *const value = get_env(name.c_str());
    if (value == nullptr)
        throw no_variable(arguments.words[0], name);
    std::puts(arguments.has(Option::raw) ? value : printable(std::string_view(value)).c_str());
    return status;
}

ExitStatus set(const Arguments &arguments) {
    load_for_change(arguments);
    assign_all(arguments);
    save(arguments.words[0]);
    return success;
}

ExitStatus remove(const Arguments &arguments) {
    const std::vector<std::string> names(arguments.words.begin() + 1, arguments.words.end());
    std::ranges::for_each(names, check_name);
    load_for_change(arguments);
    for (const std::string &name : names) {
        if (!erase(name) && !arguments.has(Option::force))
            throw no_variable(arguments.words[0], name);
    }
    save(arguments.words[0]);
    return success;
}

/// Checks the entries of the list and collects the faults.
class EntryCheck {
  public:
    EntryCheck() {
        for (const Entry &entry : all_entries())
            check(entry);
        if (end_ == data_size)
            faults_.emplace_back(
                "list: a second NUL is expected at its end; found the end of the image");
    }

    [[nodiscard]] const std::vector<std::string> &faults() const { return faults_; }

    [[nodiscard]] std::string summary() const {
        return format("%zu variable%s, %zu bytes free", names_.size(),
                      names_.size() == 1 ? "" : "s", data_size - end_);
    }

  private:
    void check(const Entry &entry) {
        const std::size_t equals = entry.text.find('=');
        const std::string_view name = entry.text.substr(0, equals);
        const std::string place = format("entry at offset 0x%zx: ", crc_size + entry.offset);
        if (equals == std::string_view::npos)
            faults_.push_back(place + "NAME=VALUE is expected; found no '='");
        else if (name.empty())
            faults_.push_back(place + "a name is expected; found none");
        else if (!names_.insert(name).second)
            faults_.push_back(place + "a unique name is expected; found '" + printable(name) +
                              "' again");
    }

    std::size_t end_ = list_end();
    std::set<std::string_view> names_;
    std::vector<std::string> faults_;
};

ExitStatus check(const Arguments &arguments) {
    const std::string &path = arguments.words[0];
    const ExitStatus status = load_for_reading(path);
    const EntryCheck entries;
    for (const std::string &fault : entries.faults())
        complain_about_image(path, fault);
    if (status != success || !entries.faults().empty())
        return bad_content;
    std::printf("%s: good: %s\n", printable(path).c_str(), entries.summary().c_str());
    return success;
}

constexpr Command commands[] = {
    {"create", 1, Command::any, "f", create},
    {"list", 1, 1, "j", list},
    {"get", 2, 2, "r", get},
    {"set", 2, Command::any, "f", set},
    {"delete", 2, Command::any, "f", remove},
    {"check", 1, 1, "", check},
};

} // namespace
} // namespace corvel::tools

int main(int argument_count, char **arguments) {
    return corvel::tools::run_program({"corvel-env", corvel::tools::help, corvel::tools::commands},
                                      argument_count, arguments);
}
