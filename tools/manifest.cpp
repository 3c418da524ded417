// SPDX-License-Identifier: MIT
#include "tools/manifest.h"

#include <algorithm>
#include <charconv>
#include <string_view>

#include "tools/failure.h"
#include "tools/text_format.h"

namespace corvel::tools {
namespace {

/// Far more than four sections with comments need, and small enough that reading a wrong file by
/// mistake does no harm.
constexpr std::size_t size_limit = std::size_t{1} << 20;

constexpr std::string_view whitespace = " \t\r";

std::string_view trimmed(std::string_view text) {
    const std::size_t begin = text.find_first_not_of(whitespace);
    if (begin == std::string_view::npos)
        return {};
    return text.substr(begin, text.find_last_not_of(whitespace) - begin + 1);
}

std::string quoted(std::string_view text) { return "'" + printable(text) + "'"; }

std::string place(const std::string &path, std::size_t line) {
    return printable(path) + format(":%zu: ", line);
}

/// Parses a manifest line by line.
class Reader {
  public:
    Reader(const std::string &path, FileIdentity identity) : manifest_{path, identity, {}} {}

    void take(std::string_view line) {
        ++line_;
        line = trimmed(line);
        if (line.empty() || line.front() == '#')
            return;
        if (line.front() == '[')
            begin_section(line);
        else
            set(line);
    }

    Manifest result() {
        if (manifest_.sections.empty())
            throw Failure(cannot_do_it,
                          printable(manifest_.path) + ": contains no section such as [Rootfs]");
        return std::move(manifest_);
    }

  private:
    [[noreturn]] void fail(const std::string &message) const {
        throw Failure(cannot_do_it, place(manifest_.path, line_) + message);
    }

    void begin_section(std::string_view heading) {
        if (heading.back() != ']')
            fail("a heading must end with ']'");
        const std::string_view name = trimmed(heading.substr(1, heading.size() - 2));
        ManifestSection section{};
        section.partition = &partition_named(name);
        section.line = line_;
        manifest_.sections.push_back(section);
    }

    [[nodiscard]] const sign_tbl_entry &partition_named(std::string_view name) const {
        for (const sign_tbl_entry &row : sign_tbl)
            if (name == row.signature || name == row.name)
                return row;
        std::string known;
        for (const sign_tbl_entry &row : sign_tbl)
            known += (known.empty() ? "" : ", ") + std::string(row.name);
        fail("unknown partition " + quoted(name) + "; the partitions are " + known);
    }

    void set(std::string_view line) {
        const std::size_t equals = line.find('=');
        if (equals == std::string_view::npos)
            fail("[PARTITION] or KEY = VALUE is expected");
        if (manifest_.sections.empty())
            fail("a section such as [Rootfs] must come first");
        const std::string_view key = trimmed(line.substr(0, equals));
        const std::string_view value = trimmed(line.substr(equals + 1));
        ManifestSection &section = manifest_.sections.back();
        if (key == "file")
            store(section.file, key, text(key, value));
        else if (key == "text")
            store(section.text, key, std::string(value));
        else if (key == "burn-address")
            store(section.burn_address, key, number(key, value));
        else if (key == "padding")
            store(section.padding, key, number(key, value));
        else if (key == "mtd-id")
            store(section.mtd_id, key, number(key, value));
        else
            fail("unknown key " + quoted(key) +
                 "; the keys are file, text, burn-address, padding, mtd-id");
    }

    template <typename Value>
    void store(std::optional<Value> &setting, std::string_view key, Value value) const {
        if (setting)
            fail(std::string(key) + " is set twice in this section");
        setting = std::move(value);
    }

    [[nodiscard]] std::string text(std::string_view key, std::string_view value) const {
        if (value.empty())
            fail(std::string(key) + " has no value");
        if (value.find('\0') != std::string_view::npos)
            fail(std::string(key) + " contains a NUL");
        return std::string(value);
    }

    /// Parses a decimal number, or a hexadecimal one with the prefix "0x".
    [[nodiscard]] std::uint32_t number(std::string_view key, std::string_view value) const {
        const bool hexadecimal = value.starts_with("0x") || value.starts_with("0X");
        const std::string_view digits = value.substr(hexadecimal ? 2 : 0);
        std::uint32_t result = 0;
        const char *const end = digits.data() + digits.size();
        const auto [stop, error] =
            std::from_chars(digits.data(), end, result, hexadecimal ? 16 : 10);
        if (error != std::errc() || stop != end)
            fail(std::string(key) + " is " + quoted(value) +
                 ", not a number from 0 to 4294967295 (0xffffffff)");
        return result;
    }

    Manifest manifest_;
    std::size_t line_ = 0;
};

} // namespace

Manifest read_manifest(const std::string &path) {
    const File file = read_argument(path, size_limit);
    if (file.content.size() > size_limit)
        throw Failure(cannot_do_it, printable(path) + ": too large for a manifest");
    Reader reader(path, file.identity);
    std::string_view rest(reinterpret_cast<const char *>(file.content.data()), file.content.size());
    while (!rest.empty()) {
        const std::size_t length = std::min(rest.find('\n'), rest.size());
        reader.take(rest.substr(0, length));
        rest.remove_prefix(std::min(length + 1, rest.size()));
    }
    return reader.result();
}

std::string place_in(const Manifest &manifest, const ManifestSection &section) {
    return place(manifest.path, section.line);
}

} // namespace corvel::tools
