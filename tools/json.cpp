// SPDX-License-Identifier: MIT
#include "tools/json.h"

#include "tools/text_format.h"

namespace corvel::tools::json {

std::string string(std::string_view bytes) {
    std::string result = "\"";
    for (const char character : bytes) {
        if (character == '"' || character == '\\')
            result += {'\\', character};
        else if (character >= ' ' && character <= '~')
            result += character;
        else
            result += format("\\u%04x", static_cast<unsigned char>(character));
    }
    return result + '"';
}

std::string number(std::uint64_t value) { return std::to_string(value); }

std::string array(const std::vector<std::string> &values) {
    std::string result = "[";
    for (const std::string &value : values) {
        if (result.size() > 1)
            result += ", ";
        result += value;
    }
    return result + ']';
}

Object &Object::add(std::string_view name, std::string_view value) {
    if (!members_.empty())
        members_ += ", ";
    members_ += string(name) + ": ";
    members_ += value;
    return *this;
}

std::string Object::text() const { return '{' + members_ + '}'; }

} // namespace corvel::tools::json
