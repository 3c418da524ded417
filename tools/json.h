// SPDX-License-Identifier: MIT
#ifndef CORVEL_TOOLS_JSON_H
#define CORVEL_TOOLS_JSON_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace corvel::tools::json {

/// A JSON string in which each byte is the character with the same number, U+0000 to U+00FF, so
/// that the bytes can be restored regardless of their encoding. The result is printable ASCII.
std::string string(std::string_view bytes);

std::string number(std::uint64_t value);

constexpr const char *boolean(bool value) { return value ? "true" : "false"; }

constexpr const char *null = "null";

std::string array(const std::vector<std::string> &values);

/// A JSON object, built member by member. Each value is already JSON.
class Object {
  public:
    Object &add(std::string_view name, std::string_view value);
    [[nodiscard]] std::string text() const;

  private:
    std::string members_;
};

} // namespace corvel::tools::json

#endif
