// SPDX-License-Identifier: MIT
// Request decoding against a decoder on std::string, written from the documented rules.
//
// Input: method NUL content length NUL a byte (how often the filler is prepended to the query)
// filler NUL query NUL body. A method "-" and a query "-" are not set; a content length "=" is the
// size of the body.
#include "corvel.h"
#include "fuzz/harness.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

using namespace corvel_fuzz;

constexpr std::size_t longest_name = CORVEL_REQUEST_NAME_SIZE - 1;
constexpr std::size_t longest_value = CORVEL_REQUEST_VALUE_SIZE - 1;
constexpr std::size_t ajax_pairs = CORVEL_AJAX_PAIRS;
constexpr std::size_t largest_filler = 4200;
constexpr int largest_body = 1 << 20;
constexpr std::uint32_t untouched_size = 0xDEADBEEF;

struct Request {
    bool has_method;
    bool has_query;
    bool has_length;
    std::string method;
    std::string length;
    std::string query;
    std::string body;
};

struct Pair {
    std::string name;
    std::string value;
};

using Pairs = std::vector<Pair>;

int digit_of(char c) {
    const int code = static_cast<signed char>(c);
    return code < 'A' ? code - '0' : (code & ~0x20) - 'A' + 10;
}

char byte_of(char high, char low) {
    return static_cast<char>((16 * digit_of(high) + digit_of(low)) & 0xff);
}

std::string percent_decoded(std::string_view text) {
    std::string decoded;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size()) {
            decoded += byte_of(text[i + 1], text[i + 2]);
            i += 2;
        } else {
            decoded += text[i];
        }
    }
    return std::string(as_text(decoded));
}

std::string with_spaces(std::string text) {
    std::replace(text.begin(), text.end(), '+', ' ');
    return text;
}

std::string word_of(std::string_view raw, std::size_t longest) {
    return percent_decoded(with_spaces(std::string(cut(raw, longest))));
}

Pairs pairs_of(std::string_view source) {
    Pairs pairs;
    while (!source.empty()) {
        const std::size_t equals = source.find('=');
        std::string name = word_of(source.substr(0, equals), longest_name);
        if (equals == std::string_view::npos) {
            pairs.push_back({std::move(name), ""});
            break;
        }
        source.remove_prefix(equals + 1);
        const std::size_t ampersand = source.find('&');
        pairs.push_back({std::move(name), word_of(source.substr(0, ampersand), longest_value)});
        if (ampersand == std::string_view::npos)
            break;
        source.remove_prefix(ampersand + 1);
    }
    return pairs;
}

bool same_letters(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
        return x == y || ((x ^ y) == 0x20 && (x | 0x20) >= 'a' && (x | 0x20) <= 'z');
    });
}

bool is_get(const Request &request) {
    return request.has_method && same_letters(request.method, "GET");
}

bool is_post(const Request &request) {
    return request.has_method && same_letters(request.method, "POST");
}

bool has_body(const Request &request) {
    if (!request.has_method || is_get(request) || !request.has_length)
        return false;
    const int length = decimal_value(request.length);
    return length > 0 && static_cast<std::size_t>(length) <= request.body.size();
}

/** The body that the decoder reads: as many bytes as the content length states. */
std::string_view body_of(const Request &request) {
    if (!has_body(request))
        return {};
    const auto length = static_cast<std::size_t>(decimal_value(request.length));
    return cut(request.body, length);
}

Pairs query_pairs(const Request &request) {
    return request.has_query ? pairs_of(request.query) : Pairs();
}

int ajax_number(const Request &request) {
    if (!is_get(request) || !request.has_query || request.query.find("Ajax") == std::string::npos)
        return 0;
    Pairs pairs = pairs_of(request.query);
    pairs.resize(std::min(pairs.size(), ajax_pairs));
    const auto field = std::find_if(pairs.begin(), pairs.end(),
                                    [](const Pair &pair) { return pair.name == "Ajax"; });
    return field == pairs.end() ? 0 : decimal_value(without_quotes(field->value));
}

std::vector<std::string> environment_of(const Request &request) {
    std::vector<std::string> entries = {"HTTP_REFERER=http://router/"};
    if (request.has_method)
        entries.push_back("REQUEST_METHOD=" + request.method);
    if (request.has_length)
        entries.push_back("CONTENT_LENGTH=" + request.length);
    if (request.has_query)
        entries.push_back("QUERY_STRING=" + request.query);
    return entries;
}

void check_environment(const Request &request, bool consumed) {
    const char *query = std::getenv("QUERY_STRING");
    check((query != nullptr) == (request.has_query && !consumed),
          "QUERY_STRING is removed or kept");
    check((std::getenv("HTTP_REFERER") == nullptr) == consumed, "HTTP_REFERER is removed or kept");
    if (query != nullptr)
        check_equal(query, request.query, "the query string is unchanged");
}

/** Decodes into a table of exactly the rows that are needed. */
void check_decoder(int (*decode)(prop_entry *), const Pairs &expected) {
    std::vector<prop_entry> table(expected.size(),
                                  {untouched_size, untouched_size, nullptr, nullptr});
    table.shrink_to_fit();
    const int count = decode(table.data());
    check_equal(count, static_cast<long long>(expected.size()), "count of pairs");
    for (std::size_t i = 0; i < expected.size(); ++i) {
        check_equal(table[i].name, expected[i].name, "name of a pair");
        check_equal(table[i].value, expected[i].value, "value of a pair");
        check(table[i].name_size == untouched_size && table[i].value_size == untouched_size,
              "the size fields are unchanged");
    }
    check_equal(free_prop(table.data(), count), 1, "free_prop");
}

void check_query_decoder(const Request &request) {
    const Environment environment(environment_of(request));
    check_decoder(process_query_string, query_pairs(request));
    check_equal(isajax_get(), ajax_number(request), "isajax_get");
    check_environment(request, false);
}

void check_get_decoder(const Request &request) {
    const Environment environment(environment_of(request));
    check_decoder(process_queue_get, is_post(request) ? Pairs() : query_pairs(request));
    check_environment(request, !is_post(request));
}

void check_post_decoder(const Request &request) {
    const Environment environment(environment_of(request));
    Pairs expected;
    if (!is_get(request)) {
        expected = pairs_of(as_text(body_of(request)));
        for (Pair &pair : query_pairs(request))
            expected.push_back(std::move(pair));
    }
    feed_standard_input(request.body);
    check_decoder(process_queue, expected);
    check_environment(request, !is_get(request));
}

void check_body_reader(const Request &request) {
    const Environment environment(environment_of(request));
    feed_standard_input(request.body);
    char *body = read_queue();
    check((body != nullptr) == has_body(request), "a body is read whole or not at all");
    if (body == nullptr)
        return;
    const std::string_view expected = body_of(request);
    check_equal(std::string_view(body, expected.size()), expected, "bytes of the body");
    check(body[expected.size()] == '\0', "the body is terminated");
    free_buff(body, static_cast<std::uint32_t>(expected.size() + 1));
}

void check_method(const Request &request) {
    const char *method = request.has_method ? request.method.c_str() : nullptr;
    check_equal(get_http_methmod(method), is_post(request), "get_http_methmod");
    const Environment environment(environment_of(request));
    std::string program = "cgi";
    std::string argument(as_text(request.body));
    char *argv[] = {program.data(), argument.data(), nullptr};
    const bool matches =
        request.method == "POST" && request.has_method && request.query == argument;
    check_equal(isnormal_post(2, argv, request.query.c_str()), matches, "isnormal_post");
    check_equal(isnormal_post(1, argv, request.query.c_str()), 0, "isnormal_post, no argument");
}

void check_decoding_in_place(const std::string &text) {
    const auto spaces = exact_copy(text);
    check(plustospace(spaces.get()) == spaces.get(), "plustospace returns its text");
    check_equal(spaces.get(), with_spaces(text), "plustospace");
    const auto decoded = exact_copy(text);
    check(unescape_url(decoded.get()) == decoded.get(), "unescape_url returns its text");
    check_equal(decoded.get(), percent_decoded(text), "unescape_url");
    for (std::size_t i = 0; i < text.size() && i < 16; ++i) {
        const auto digits = exact_copy(std::string_view(text).substr(i, 2));
        check_equal(x2c(digits.get()),
                    static_cast<signed char>(byte_of(digits[0], digits[0] == 0 ? '\0' : digits[1])),
                    "x2c");
    }
    const auto none = exact_copy("");
    check_equal(x2c(none.get()), static_cast<signed char>(byte_of('\0', '\0')), "x2c of a NUL");
}

/** Splits a string at a stop character: each word into a block of exactly its size, and the first
 *  one in place. */
void check_words(const std::string &text, char stop) {
    const auto source = exact_copy(text);
    std::string joined;
    for (char *rest = source.get(); rest != nullptr;) {
        const std::string_view left(rest);
        const std::string_view expected = left.substr(0, left.find(stop));
        const auto word = std::make_unique<char[]>(expected.size() + 1);
        check(makeword(word.get(), rest, stop, &rest) == word.get(), "makeword returns the word");
        check_equal(word.get(), expected, "a word");
        joined += word.get();
        if (rest != nullptr)
            joined += stop;
    }
    check_equal(joined, text, "the words, joined by the stop character, are the text");

    char *rest = nullptr;
    makeword(source.get(), source.get(), stop, &rest);
    const std::size_t end = text.find(stop);
    check_equal(source.get(), std::string_view(text).substr(0, end), "a word in place");
    check(rest == (end == std::string_view::npos ? nullptr : source.get() + end + 1),
          "the rest after the word");
}

/** Makes queries of thousands of pairs possible. */
std::string repeated(const std::string &filler, unsigned char times) {
    std::string whole;
    for (std::size_t i = 0; i < run_length(times) && whole.size() < largest_filler; ++i)
        whole += filler;
    return whole;
}

Request request_of(Input &input) {
    Request request = {};
    request.method = input.text();
    request.length = input.text();
    const unsigned char times = input.byte();
    const std::string filler = repeated(input.text(), times);
    request.query = input.text();
    request.body = input.rest();
    request.has_method = request.method != "-";
    request.has_length = request.length != "-";
    request.has_query = request.query != "-";
    request.query.insert(0, filler);
    if (request.length == "=" || decimal_value(request.length) > largest_body)
        request.length = std::to_string(request.body.size());
    return request;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    Input input(data, size);
    const Request request = request_of(input);
    in_different_surroundings([&] {
        check_query_decoder(request);
        check_get_decoder(request);
        check_post_decoder(request);
        return std::string();
    });
    check_body_reader(request);
    check_method(request);
    const std::string text(as_text(request.body));
    check_decoding_in_place(text);
    check_words(text, '=');
    check_words(text, '&');
    return 0;
}
