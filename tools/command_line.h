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

/// The options that only some commands have, each with the letter that represents it.
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
    std::size_t fewest; ///< words
    std::size_t most;
    std::string_view options; ///< letters of the options that the command has
    ExitStatus (*run)(const Arguments &);
};

struct Program {
    const char *name;
    const char *help;
    std::span<const Command> commands;
};

/// Carries out the command that the arguments name. All that goes wrong ends here, as a message on
/// standard error and an exit status.
int run_program(const Program &program, int argument_count, char **arguments);

/// Prints a message on standard error, with the program's name. What comes from a file or from the
/// command line must be printable().
void complain(const std::string &message);

} // namespace corvel::tools

#endif
