/* SPDX-License-Identifier: MIT */
/**
 * The surroundings of a CGI program, put back when the object goes.
 *
 *     const EnvironmentVariable method("REQUEST_METHOD", "POST");
 *     const EnvironmentVariable no_query("QUERY_STRING", std::nullopt);
 *     const StandardInput body("name=value");
 *     const int count = process_queue(table);
 */
#ifndef CORVEL_TESTS_ENVIRONMENT_H
#define CORVEL_TESTS_ENVIRONMENT_H

#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace corvel_test {

/** Sets a variable, or removes it where there is no value. */
class EnvironmentVariable {
  public:
    EnvironmentVariable(const std::string &name, const std::optional<std::string> &value);
    ~EnvironmentVariable();
    EnvironmentVariable(const EnvironmentVariable &) = delete;
    EnvironmentVariable &operator=(const EnvironmentVariable &) = delete;

  private:
    std::string name_;
    std::optional<std::string> saved_;
};

/**
 * Feeds bytes as standard input, to the stream `stdin` and to descriptor 0. What stdin had buffered
 * before is gone. Afterwards standard input is empty.
 */
class StandardInput {
  public:
    enum class Kind {
        file, /**< A file, as some web servers hand the body over. */
        pipe, /**< A pipe that a process of its own fills, in small pieces. */
    };

    explicit StandardInput(std::string_view bytes, Kind kind = Kind::file);
    ~StandardInput();
    StandardInput(const StandardInput &) = delete;
    StandardInput &operator=(const StandardInput &) = delete;

  private:
    pid_t writer_ = 0;
};

} // namespace corvel_test

#endif
