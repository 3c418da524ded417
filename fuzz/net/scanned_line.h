/* SPDX-License-Identifier: MIT */
/** The conversions of sscanf(), one by one, with strtoull() and strtoll() of the C library. */
#ifndef CORVEL_FUZZ_NET_SCANNED_LINE_H
#define CORVEL_FUZZ_NET_SCANNED_LINE_H

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

namespace corvel_fuzz {

class ScannedLine {
  public:
    explicit ScannedLine(std::string_view text) : rest_(text) {}

    /** "%s", of any length; empty at the end of the string. */
    std::string word() {
        skip_spaces();
        std::string word = rest_.substr(0, rest_.find_first_of(spaces));
        rest_.erase(0, word.size());
        return word;
    }

    /** Characters that must follow, after whitespace. */
    bool literal(std::string_view text) {
        skip_spaces();
        if (rest_.compare(0, text.size(), text) != 0)
            return false;
        rest_.erase(0, text.size());
        return true;
    }

    /** "%x" in 32 bits: a larger number becomes the largest. */
    std::optional<std::uint32_t> hexadecimal() {
        skip_spaces();
        const bool negative = rest_.compare(0, 1, "-") == 0;
        char *end = nullptr;
        const unsigned long long value = std::strtoull(rest_.c_str(), &end, 16);
        const unsigned long long magnitude = negative && value != ~0ULL ? 0 - value : value;
        if (!take(end))
            return std::nullopt;
        if (magnitude > UINT32_MAX)
            return UINT32_MAX;
        return static_cast<std::uint32_t>(negative ? 0 - magnitude : magnitude);
    }

    /** "%d", with any number. */
    bool decimal() {
        char *end = nullptr;
        static_cast<void>(std::strtoll(rest_.c_str(), &end, 10));
        return take(end);
    }

  private:
    static constexpr const char *spaces = " \t\n\v\f\r";

    void skip_spaces() { rest_.erase(0, rest_.find_first_not_of(spaces)); }

    /** Removes the characters up to @p end. Returns whether there are any. */
    bool take(const char *end) {
        const auto size = static_cast<std::size_t>(end - rest_.c_str());
        rest_.erase(0, size);
        return size != 0;
    }

    std::string rest_;
};

} // namespace corvel_fuzz

#endif
