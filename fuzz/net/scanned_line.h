/* SPDX-License-Identifier: MIT */
/** The conversions of sscanf(), one by one, over the C library's own number readers. */
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

    /** "%s", of any length; empty at the end of the text. */
    std::string word() {
        skip_blanks();
        std::string word = rest_.substr(0, rest_.find_first_of(blanks));
        rest_.erase(0, word.size());
        return word;
    }

    /** Characters that must follow, behind blanks. */
    bool literal(std::string_view text) {
        skip_blanks();
        if (rest_.compare(0, text.size(), text) != 0)
            return false;
        rest_.erase(0, text.size());
        return true;
    }

    /** "%x" where numbers have 32 bits: a larger one becomes the largest. */
    std::optional<std::uint32_t> hexadecimal() {
        skip_blanks();
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

    /** "%d", whatever the number. */
    bool decimal() {
        char *end = nullptr;
        static_cast<void>(std::strtoll(rest_.c_str(), &end, 10));
        return take(end);
    }

  private:
    static constexpr const char *blanks = " \t\n\v\f\r";

    void skip_blanks() { rest_.erase(0, rest_.find_first_not_of(blanks)); }

    /** Whether a number was read up to there. */
    bool take(const char *end) {
        const auto size = static_cast<std::size_t>(end - rest_.c_str());
        rest_.erase(0, size);
        return size != 0;
    }

    std::string rest_;
};

} // namespace corvel_fuzz

#endif
