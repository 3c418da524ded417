/* SPDX-License-Identifier: MIT */
/**
 * The environment of a CGI program: variables and standard input, restored by the destructor.
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

/** Sets a variable, or removes it if there is no value. */
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
 * Provides bytes as standard input, for the stream `stdin` and for descriptor 0. Input buffered in
 * `stdin` before is discarded. The destructor leaves standard input empty.
 */
class StandardInput {
  public:
    enum class Kind {
        file, /**< A file, which some web servers pass as the body. */
        pipe, /**< A pipe that a separate process fills in small pieces. */
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
