// SPDX-License-Identifier: MIT
// JSON against a plain writer: the text, or status 500 if a function was misused.
//
// Input: a sequence of calls: a byte (which function, and whether a name is passed), the name and
// NUL if one is passed, then the value: a string and NUL, or a byte.
#include "fuzz/page/page_answer.h"

#include <cstdio>
#include <cstdlib>

#include <syslog.h>

namespace {

using namespace corvel_fuzz;

constexpr std::size_t depth_max = 32;

std::string json_string_of(std::string_view text) {
    std::string result = "\"";
    while (!text.empty()) {
        const auto [length, code] = first_character(text);
        char escape[8];
        if (code < 0) {
            result += "\xEF\xBF\xBD";
        } else if (code == '"' || code == '\\') {
            result += '\\';
            result += static_cast<char>(code);
        } else if (code < 0x20 || code == 0x2028 || code == 0x2029) {
            std::snprintf(escape, sizeof escape, "\\u%04lX", code);
            result += escape;
        } else {
            result += code == '<' ? "\\u003c" : text.substr(0, length);
        }
        text.remove_prefix(length);
    }
    return result + '"';
}

/** Writes JSON as the functions do, and remembers if one was misused. */
class Model {
  public:
    bool misused() const { return misused_ || !open_.empty(); }
    const std::string &text() const { return text_; }

    void value(const char *name, const std::string &value) {
        if (begin(name))
            text_ += value;
    }
    void open(const char *name, char bracket) {
        if (open_.size() == depth_max)
            misused_ = true;
        else if (begin(name)) {
            text_ += bracket;
            open_ += bracket;
            is_first_ = true;
        }
    }
    void close() {
        if (open_.empty()) {
            misused_ = true;
            return;
        }
        text_ += open_.back() == '{' ? '}' : ']';
        open_.pop_back();
        is_first_ = false;
    }

  private:
    bool begin(const char *name) {
        const bool is_member = !open_.empty() && open_.back() == '{';
        if (is_member != (name != nullptr) || (open_.empty() && !text_.empty())) {
            misused_ = true;
            return false;
        }
        if (!open_.empty() && !is_first_)
            text_ += ',';
        if (name != nullptr)
            text_ += json_string_of(name) + ":";
        is_first_ = false;
        return true;
    }

    std::string text_;
    std::string open_;
    bool is_first_ = true;
    bool misused_ = false;
};

void call(Input &input, corvel_answer *answer, Model &model) {
    const unsigned char kind = input.byte();
    const std::string name_text = kind >= 128 ? input.text() : "";
    const auto name_copy = exact_copy(name_text);
    const char *const name = kind >= 128 ? name_copy.get() : nullptr;
    switch (kind % 8) {
    case 0:
    case 1:
        corvel_json_open_object(answer, name);
        model.open(name, '{');
        break;
    case 2:
        corvel_json_open_array(answer, name);
        model.open(name, '[');
        break;
    case 3:
        corvel_json_close(answer);
        model.close();
        break;
    case 4:
        corvel_json_boolean(answer, name, true);
        model.value(name, "true");
        break;
    case 5: {
        const long long number = (input.byte() - 128LL) << (input.byte() % 56);
        corvel_json_integer(answer, name, number);
        model.value(name, std::to_string(number));
        break;
    }
    default: {
        const std::string text = input.text();
        corvel_json_string(answer, name, exact_copy(text).get());
        model.value(name, json_string_of(text));
        break;
    }
    }
}

/** Any double is written as a number that is read as the same double, or as null. */
void check_decimal(std::string_view bytes) {
    double number = 0;
    std::string block(bytes);
    block.resize(sizeof number);
    block.copy(reinterpret_cast<char *>(&number), sizeof number);
    corvel_answer *const answer = corvel_answer_new(nullptr, nullptr);
    corvel_json_decimal(answer, nullptr, number);
    const std::string text = send(answer).body;
    corvel_answer_free(answer);
    if (number - number == 0)
        check(std::strtod(text.c_str(), nullptr) == number, "a decimal is read as it was written");
    else
        check_equal(text, "null", "what JSON does not have is null");
}

} // namespace

/** The messages are not of interest, and writing them takes most of the time. */
extern "C" void syslog(int /*priority*/, const char * /*format*/, ...) {}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    check_decimal({reinterpret_cast<const char *>(data), size < 8 ? size : 8});
    Input input(data, size);
    Model model;
    corvel_answer *const answer = corvel_answer_new(nullptr, nullptr);
    for (std::size_t i = 0; i < size && i < 400; ++i)
        call(input, answer, model);
    const bool is_empty = model.text().empty() && !model.misused();
    const Sent sent = send(answer);
    corvel_answer_free(answer);
    check(sent.is_status(model.misused() ? "500" : "200"), "a misuse is answered by status 500");
    if (!model.misused())
        check_equal(sent.body, model.text(), "the JSON text");
    const bool is_json = sent.head.find("Content-Type: application/json") != std::string::npos;
    check(is_json == (!is_empty && !model.misused()), "the content type");
    return 0;
}
