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

/// What stands on the command line behind the command's name.
struct Arguments {
    std::vector<std::string> words;
    bool force = false;
};

struct Command {
    static constexpr std::size_t any = static_cast<std::size_t>(-1);

    std::string_view name;
    std::size_t fewest; ///< words
    std::size_t most;
    bool knows_force;
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

/// Prints a message on standard error, with the program's name.
void complain(const std::string &message);

} // namespace corvel::tools

#endif
