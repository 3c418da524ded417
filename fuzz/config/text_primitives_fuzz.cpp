// SPDX-License-Identifier: MIT
// Text primitives on blocks of exactly the documented size, against models on std::string.
//
// Input: the character to strip, a string NUL another string.
#include "corvel.h"
#include "fuzz/harness.h"

#include <algorithm>
#include <cstring>

namespace {

using namespace corvel_fuzz;

constexpr std::size_t longest_translation = CORVEL_ATTRIBUTE_SIZE - 1;
constexpr std::string_view entity = "&quot;";

bool is_special(char c) { return c == '"' || c == '\\' || c == '$' || c == '`'; }

std::string escaped(std::string_view text) {
    std::string result;
    for (const char c : text) {
        if (is_special(c))
            result += '\\';
        result += c;
    }
    return result;
}

std::string unescaped(std::string_view text) {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 1 < text.size() && is_special(text[i + 1]))
            ++i;
        result += text[i];
    }
    return result;
}

std::string translated(std::string_view text) {
    if (text.find('"') == std::string_view::npos)
        return std::string(text);
    std::string result;
    for (const char &c : text) {
        const std::string_view piece = c == '"' ? entity : std::string_view(&c, 1);
        if (result.size() + piece.size() > longest_translation)
            break;
        result += piece;
    }
    return result;
}

void check_comparison(const std::string &a, const std::string &b) {
    const auto left = exact_copy(a);
    const auto right = exact_copy(b);
    check_equal(STRCMP(left.get(), right.get()), a != b, "STRCMP returns whether strings differ");
    check_equal(STRCMP(right.get(), left.get()), a != b, "STRCMP the other way round");
    check_equal(STRCMP(left.get(), left.get()), 0, "a string equals itself");
    check_equal(STRCMP(left.get(), nullptr), !a.empty(), "null is the empty string");
}

void check_strip(const std::string &text, char stripped) {
    const auto copy = exact_copy(text);
    const char *start = strip(copy.get(), static_cast<signed char>(stripped));
    const bool at_front = text.starts_with(stripped);
    const bool at_back = text.ends_with(stripped);
    check(start == copy.get() + (at_front ? 1 : 0),
          "strip returns the start of the stripped string");
    std::string expected = text;
    if (at_back)
        expected.pop_back();
    check_equal(copy.get(), expected, "strip terminates the string in place");
    if (at_front && !expected.empty())
        expected.erase(0, 1);
    check_equal(start, expected, "strip removes at most one character from each end");
    check(text.size() - std::strlen(start) <= 2, "strip removes at most two characters");
    if (stripped == '"')
        check_equal(start, without_quotes(text), "strip of a double quote");
}

void check_escaping(const std::string &text) {
    const auto source = exact_copy(text);
    const std::string expected = escaped(text);
    const auto result = padded_copy("", expected.size() + 1);
    check(add_escape(source.get(), result.get()) == result.get(), "add_escape returns dst");
    check_equal(result.get(), expected, "add_escape");
    check_equal(source.get(), text, "the source is unchanged");
    const auto same = padded_copy("", expected.size() + 1);
    check(str_regular(source.get(), same.get()) == same.get(), "str_regular returns dst");
    check_equal(same.get(), result.get(), "str_regular is add_escape");

    const auto back = exact_copy(text);
    std::fill_n(back.get(), text.size() + 1, '#');
    check(strip_escape(result.get(), back.get()) == back.get(), "strip_escape returns dst");
    check_equal(back.get(), text, "strip_escape undoes add_escape");
    strip_escape(result.get(), result.get());
    check_equal(result.get(), text, "strip_escape undoes add_escape in place");
}

void check_unescaping(const std::string &text) {
    const auto source = exact_copy(text);
    const auto result = padded_copy("", text.size() + 1);
    strip_escape(source.get(), result.get());
    check_equal(result.get(), unescaped(text), "strip_escape");
    strip_escape(source.get(), source.get());
    check_equal(source.get(), result.get(), "strip_escape in place");
}

void check_translation(const std::string &text) {
    const std::string expected = translated(text);
    const auto copy = padded_copy(text, expected.size() + 1);
    check(translate_control_code(copy.get()) == copy.get(),
          "translate_control_code returns its argument");
    check_equal(copy.get(), expected, "translate_control_code");
    const std::string_view result = copy.get();
    check(result.find('"') == std::string_view::npos, "no double quote is left");
    if (text.find('"') != std::string_view::npos)
        check(result.size() <= longest_translation, "a translation has at most 199 characters");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    Input input(data, size);
    const char stripped = static_cast<char>(input.byte());
    const std::string first = input.text();
    const std::string second(as_text(input.rest()));
    check_comparison(first, second);
    for (const std::string &text : {first, second, first + second}) {
        in_different_surroundings([&] {
            if (stripped != '\0')
                check_strip(text, stripped);
            check_strip(text, '"');
            check_escaping(text);
            check_unescaping(text);
            check_translation(text);
            return std::string();
        });
    }
    return 0;
}
