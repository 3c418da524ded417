// SPDX-License-Identifier: MIT
#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "page/answer.h"
#include "support/text.h"

namespace corvel {
namespace {

bool is_in_object(const JsonState &json) { return (json.objects & 1) != 0; }

/// Returns why a value with this name, which may be null, cannot be written here; null if it can.
const char *fault_of_value(const JsonState &json, const char *name) {
    if (is_in_object(json) && name == nullptr)
        return "A member of a JSON object has no name.";
    if (!is_in_object(json) && name != nullptr)
        return "A JSON value that is not a member of an object has a name.";
    if (json.depth == 0 && json.is_body)
        return "A JSON body has more than one value.";
    return nullptr;
}

/// The first value in an empty body makes the answer a JSON answer.
void begin_json(corvel_answer &answer) {
    if (answer.json.depth != 0 || answer.body.size() != 0)
        return;
    answer.json.is_body = true;
    if (!answer.has_type)
        corvel_answer_type(&answer, "application/json");
}

/// Appends what precedes a value. Returns the body; null if the value cannot be written here.
Buffer *begin_value(corvel_answer *answer, const char *name) {
    if (answer == nullptr || answer->is_final)
        return nullptr;
    JsonState &json = answer->json;
    const char *const fault = fault_of_value(json, name);
    if (fault != nullptr) {
        misuse(answer, fault);
        return nullptr;
    }
    begin_json(*answer);
    if (json.needs_comma)
        answer->body.append(",");
    if (name != nullptr) {
        append_json_string(answer->body, name);
        answer->body.append(":");
    }
    json.needs_comma = json.depth != 0;
    return &answer->body;
}

void append_value(corvel_answer *answer, const char *name, const char *value) {
    Buffer *const body = begin_value(answer, name);
    if (body != nullptr)
        body->append(value);
}

/// Opens an array or object; @p is_object is 1 for an object.
void open_level(corvel_answer *answer, const char *name, std::uint32_t is_object) {
    if (answer != nullptr && answer->json.depth == JsonState::depth_max) {
        misuse(answer, "JSON arrays and objects are nested too deeply.");
        return;
    }
    Buffer *const body = begin_value(answer, name);
    if (body == nullptr)
        return;
    body->append(is_object != 0 ? "{" : "[");
    JsonState &json = answer->json;
    json.objects = json.objects << 1 | is_object;
    ++json.depth;
    json.needs_comma = false;
}

/// Room for any double in 17 digits, with a decimal point of several bytes.
constexpr std::size_t decimal_size = 40;

/// To compare numbers without code for floating point, which a board can lack.
std::uint64_t bits_of(double value) { return std::bit_cast<std::uint64_t>(value); }

/// Formats a number with as many digits as are needed to read the same number again. The locale's
/// decimal point, which can have several bytes, becomes a point. Null for NaN and infinity.
const char *format_decimal(double value, char text[decimal_size]) {
    int digits = 15;
    do
        std::snprintf(text, decimal_size, "%.*g", digits, value);
    while (bits_of(std::strtod(text, nullptr)) != bits_of(value) && ++digits <= 17);

    if (std::strchr(text, 'n') != nullptr) // in "nan" and "inf"
        return nullptr;
    char *const point = text + std::strspn(text, "-0123456789");
    const std::size_t size = std::strcspn(point, "0123456789e");
    if (size != 0) {
        *point = '.';
        std::memmove(point + 1, point + size, std::strlen(point + size) + 1);
    }
    return text;
}

} // namespace
} // namespace corvel

using namespace corvel;

extern "C" {

void corvel_json_open_object(corvel_answer *answer, const char *name) {
    open_level(answer, name, 1);
}

void corvel_json_open_array(corvel_answer *answer, const char *name) {
    open_level(answer, name, 0);
}

void corvel_json_close(corvel_answer *answer) {
    if (answer == nullptr || answer->is_final)
        return;
    JsonState &json = answer->json;
    if (json.depth == 0) {
        misuse(answer, "No JSON array or object is open.");
        return;
    }
    answer->body.append(is_in_object(json) ? "}" : "]");
    json.objects >>= 1;
    --json.depth;
    json.needs_comma = json.depth != 0;
}

void corvel_json_string(corvel_answer *answer, const char *name, const char *value) {
    if (value == nullptr) {
        corvel_json_null(answer, name);
        return;
    }
    Buffer *const body = begin_value(answer, name);
    if (body != nullptr)
        append_json_string(*body, value);
}

void corvel_json_integer(corvel_answer *answer, const char *name, long long value) {
    char text[24];
    std::snprintf(text, sizeof text, "%lld", value);
    append_value(answer, name, text);
}

void corvel_json_decimal(corvel_answer *answer, const char *name, double value) {
    char text[decimal_size];
    const char *const formatted = format_decimal(value, text);
    append_value(answer, name, formatted != nullptr ? formatted : "null");
}

void corvel_json_boolean(corvel_answer *answer, const char *name, bool value) {
    append_value(answer, name, value ? "true" : "false");
}

void corvel_json_null(corvel_answer *answer, const char *name) {
    append_value(answer, name, "null");
}

} // extern "C"
