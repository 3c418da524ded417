// SPDX-License-Identifier: MIT
#include "tools/command_line.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <getopt.h>
#include <unistd.h>

namespace corvel::tools {
namespace {

const char *program_name = "";

/// Standard input, output and error are open, so that no file gets their numbers. Where one was
/// closed, reading from it finds the end and writing to it fails.
void open_standard_descriptors() {
    int descriptor = 0;
    while (descriptor >= 0 && descriptor <= STDERR_FILENO)
        descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (descriptor > STDERR_FILENO)
        close(descriptor);
}

Failure usage_error(const std::string &message) {
    return {cannot_do_it, message + "\nTry '" + program_name + " --help'."};
}

const Command &find_command(const Program &program, const std::string &name) {
    const auto command = std::ranges::find(program.commands, name, &Command::name);
    if (command == program.commands.end())
        throw usage_error("there is no command '" + name + "'");
    return *command;
}

void check_arguments(const Command &command, const Arguments &arguments) {
    const std::string name(command.name);
    if (arguments.words.size() < command.fewest)
        throw usage_error(name + ": too few arguments");
    if (arguments.words.size() > command.most)
        throw usage_error(name + ": too many arguments");
    if (arguments.force && !command.knows_force)
        throw usage_error(name + ": there is no --force here");
}

/// What was printed has arrived: a full disk is no success.
void finish_output() {
    if (std::fflush(stdout) != 0)
        throw Failure(cannot_do_it, std::string("standard output: ") + std::strerror(errno));
    if (std::ferror(stdout) != 0)
        throw Failure(cannot_do_it, "standard output: could not be written");
}

ExitStatus run_command(const Program &program, int argument_count, char **words) {
    static constexpr option options[] = {
        {"force", no_argument, nullptr, 'f'},
        {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},
        {nullptr, 0, nullptr, 0},
    };
    Arguments arguments;
    for (int letter = 0; letter != -1;) {
        letter = getopt_long(argument_count, words, "fhV", options, nullptr);
        switch (letter) {
        case 'f':
            arguments.force = true;
            break;
        case 'h':
            std::fputs(program.help, stdout);
            return success;
        case 'V':
            std::printf("%s %s\n", program.name, CORVEL_VERSION);
            return success;
        case '?': // getopt has said what is wrong
            std::fprintf(stderr, "Try '%s --help'.\n", program.name);
            return cannot_do_it;
        default:
            break;
        }
    }
    arguments.words.assign(words + optind, words + argument_count);
    if (arguments.words.empty())
        throw usage_error("a command is missing");
    const Command &command = find_command(program, arguments.words.front());
    arguments.words.erase(arguments.words.begin());
    check_arguments(command, arguments);
    return command.run(arguments);
}

} // namespace

int run_program(const Program &program, int argument_count, char **arguments) {
    program_name = program.name;
    if (argument_count < 1)
        return cannot_do_it;                         // getopt counts on the program's own name
    arguments[0] = const_cast<char *>(program.name); // its messages begin with it
    try {
        open_standard_descriptors();
        const ExitStatus status = run_command(program, argument_count, arguments);
        finish_output();
        return status;
    } catch (const Failure &failure) {
        complain(failure.what());
        return failure.status();
    } catch (const std::exception &error) {
        complain(error.what());
        return cannot_do_it;
    }
}

void complain(const std::string &message) {
    std::fflush(stdout);
    std::fprintf(stderr, "%s: %s\n", program_name, message.c_str());
}

} // namespace corvel::tools
