/* SPDX-License-Identifier: MIT */
/**
 * The surroundings of one request, the rows that a decoder fills from it, and the rule of the
 * decoding told a second time, with plain strings.
 */
#ifndef CORVEL_TESTS_REQUEST_PAIRS_H
#define CORVEL_TESTS_REQUEST_PAIRS_H

#include <corvel.h>

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tests/support/environment.h"

namespace corvel_test {

/** Decoded names and values, in request order. */
using Pairs = std::vector<std::pair<std::string, std::string>>;

/** What the web server hands over. Without a `length`, CONTENT_LENGTH is that of the body. */
struct Request {
    std::optional<std::string> method = std::nullopt;
    std::optional<std::string> query = std::nullopt;
    std::optional<std::string> body = std::nullopt;
    std::optional<std::string> length = std::nullopt;

    [[nodiscard]] std::optional<std::string> content_length() const {
        if (length || !body)
            return length;
        return std::to_string(body->size());
    }
};

/** Puts a request where a CGI program finds it, for as long as the object lives. */
class Surroundings {
  public:
    explicit Surroundings(const Request &request,
                          StandardInput::Kind kind = StandardInput::Kind::file)
        : method_("REQUEST_METHOD", request.method),
          length_("CONTENT_LENGTH", request.content_length()),
          query_("QUERY_STRING", request.query), referer_("HTTP_REFERER", "http://192.168.1.1/"),
          input_(request.body.value_or(""), kind) {}

  private:
    EnvironmentVariable method_;
    EnvironmentVariable length_;
    EnvironmentVariable query_;
    EnvironmentVariable referer_;
    StandardInput input_;
};

/** Rows for a decoder, whose texts are freed when the object goes. */
class Rows {
  public:
    /** What is in every row's size fields before the decoder comes. */
    static constexpr uint32_t untouched = 0xDEADBEEF;

    explicit Rows(std::size_t capacity)
        : rows_(capacity, prop_entry{untouched, untouched, nullptr, nullptr}) {}
    Rows(const Rows &) = delete;
    Rows &operator=(const Rows &) = delete;
    ~Rows() { free_prop(rows_.data(), static_cast<int>(rows_.size())); }

    prop_entry *data() { return rows_.data(); }

    [[nodiscard]] Pairs pairs(int count) const {
        Pairs pairs;
        for (const prop_entry &row : std::vector(rows_.begin(), rows_.begin() + count))
            pairs.emplace_back(row.name, row.value);
        return pairs;
    }

    /** Whether all size fields, and the texts of the rows behind the first @p count, are as before.
     */
    [[nodiscard]] bool rest_is_untouched(int count) const {
        const bool sizes = std::all_of(rows_.begin(), rows_.end(), [](const prop_entry &row) {
            return row.name_size == untouched && row.value_size == untouched;
        });
        return sizes && std::all_of(rows_.begin() + count, rows_.end(), [](const prop_entry &row) {
                   return row.name == nullptr && row.value == nullptr;
               });
    }

  private:
    std::vector<prop_entry> rows_;
};

/** The byte of two characters behind a percent sign, computed as with signed characters. */
inline char byte_by_the_rule(char high, char low) {
    const auto digit = [](char character) {
        const int code = static_cast<signed char>(character);
        return code >= 'A' ? (code | 0x20) - 'a' + 10 : code - '0';
    };
    return static_cast<char>(digit(high) * 16 + digit(low));
}

inline std::string word_by_the_rule(std::string word, std::size_t longest) {
    word = word.substr(0, longest);
    std::replace(word.begin(), word.end(), '+', ' ');
    for (std::size_t at = word.find('%'); at != std::string::npos && at + 2 < word.size();
         at = word.find('%', at + 1))
        word.replace(at, 3, 1, byte_by_the_rule(word[at + 1], word[at + 2]));
    return word.substr(0, word.find('\0'));
}

/** The rule of the decoding, with no thought of speed. */
inline Pairs pairs_by_the_rule(std::string_view text) {
    text = text.substr(0, text.find('\0'));
    Pairs pairs;
    for (;;) {
        const std::size_t equals = text.find('=');
        const std::string name = word_by_the_rule(std::string(text.substr(0, equals)), 127);
        if (equals == std::string_view::npos) {
            if (!text.empty())
                pairs.emplace_back(name, "");
            return pairs;
        }
        text.remove_prefix(equals + 1);
        const std::size_t ampersand = text.find('&');
        pairs.emplace_back(name, word_by_the_rule(std::string(text.substr(0, ampersand)), 255));
        if (ampersand == std::string_view::npos)
            return pairs;
        text.remove_prefix(ampersand + 1);
    }
}

} // namespace corvel_test

#endif
