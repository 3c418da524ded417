/* SPDX-License-Identifier: MIT */
/** The environment of a request, the rows that a decoder fills from it, and a model of decoding. */
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

/** The input from the web server. Without a `length`, CONTENT_LENGTH is that of the body. */
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

/** Provides a request to a CGI program during its lifetime. */
class RequestEnvironment {
  public:
    explicit RequestEnvironment(const Request &request,
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

/** Rows for a decoder; the destructor frees their strings. */
class DecodedRows {
  public:
    /** The value of every row's sizes before the decoder is called. */
    static constexpr uint32_t initial_size = 0xDEADBEEF;

    explicit DecodedRows(std::size_t capacity)
        : rows_(capacity, prop_entry{initial_size, initial_size, nullptr, nullptr}) {}
    DecodedRows(const DecodedRows &) = delete;
    DecodedRows &operator=(const DecodedRows &) = delete;
    ~DecodedRows() { free_prop(rows_.data(), static_cast<int>(rows_.size())); }

    prop_entry *data() { return rows_.data(); }

    [[nodiscard]] Pairs pairs(int count) const {
        Pairs pairs;
        for (const prop_entry &row : std::vector(rows_.begin(), rows_.begin() + count))
            pairs.emplace_back(row.name, row.value);
        return pairs;
    }

    /** Whether all sizes, and the strings of the rows after the first @p count, are unchanged. */
    [[nodiscard]] bool rest_is_unchanged(int count) const {
        const bool sizes = std::all_of(rows_.begin(), rows_.end(), [](const prop_entry &row) {
            return row.name_size == initial_size && row.value_size == initial_size;
        });
        return sizes && std::all_of(rows_.begin() + count, rows_.end(), [](const prop_entry &row) {
                   return row.name == nullptr && row.value == nullptr;
               });
    }

  private:
    std::vector<prop_entry> rows_;
};

/** The byte that two characters after a percent sign encode, computed with signed characters. */
inline char model_byte(char high, char low) {
    const auto digit = [](char character) {
        const int code = static_cast<signed char>(character);
        return code >= 'A' ? (code | 0x20) - 'a' + 10 : code - '0';
    };
    return static_cast<char>(digit(high) * 16 + digit(low));
}

/** Truncates and decodes a word. */
inline std::string model_word(std::string word, std::size_t max_length) {
    word = word.substr(0, max_length);
    std::replace(word.begin(), word.end(), '+', ' ');
    for (std::size_t at = word.find('%'); at != std::string::npos && at + 2 < word.size();
         at = word.find('%', at + 1))
        word.replace(at, 3, 1, model_byte(word[at + 1], word[at + 2]));
    return word.substr(0, word.find('\0'));
}

/** A model of the decoders. */
inline Pairs model_pairs(std::string_view text) {
    text = text.substr(0, text.find('\0'));
    Pairs pairs;
    for (;;) {
        const std::size_t equals = text.find('=');
        const std::string name =
            model_word(std::string(text.substr(0, equals)), CORVEL_REQUEST_NAME_SIZE - 1);
        if (equals == std::string_view::npos) {
            if (!text.empty())
                pairs.emplace_back(name, "");
            return pairs;
        }
        text.remove_prefix(equals + 1);
        const std::size_t ampersand = text.find('&');
        pairs.emplace_back(name, model_word(std::string(text.substr(0, ampersand)),
                                            CORVEL_REQUEST_VALUE_SIZE - 1));
        if (ampersand == std::string_view::npos)
            return pairs;
        text.remove_prefix(ampersand + 1);
    }
}

} // namespace corvel_test

#endif
