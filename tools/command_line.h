// SPDX-License-Identifier: MIT
#ifndef CORVEL_TOOLS_COMMAND_LINE_H
#define CORVEL_TOOLS_COMMAND_LINE_H

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tools/failure.h"

namespace corvel::tools {

/// The options that only some commands accept, each with its letter.
enum class Option : char { force = 'f', json = 'j', raw = 'r', strict = 's' };

/// The command line after the command's name.
struct Arguments {
    std::vector<std::string> words;
    std::vector<Option> options;

    [[nodiscard]] bool has(Option option) const;
};

struct Command {
    static constexpr std::size_t any = static_cast<std::size_t>(-1);

    std::string_view name;
    std::size_t fewest;       ///< minimum number of words
    std::size_t most;         ///< maximum number of words
    std::string_view options; ///< letters of the options that the command accepts
    ExitStatus (*run)(const Arguments &);
};

struct Program {
    const char *name;
    const char *help;
    std::span<const Command> commands;
};

/// Runs the command named by the arguments. Reports every failure with a message on standard error
/// and returns the exit status.
int run_program(const Program &program, int argument_count, char **arguments);

/// Prints a message on standard error, prefixed with the program's name. Text from a file or from
/// the command line must have passed through printable().
void complain(const std::string &message);

} // namespace corvel::tools

#endif
