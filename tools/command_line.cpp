// SPDX-License-Identifier: MIT
#include "tools/command_line.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <getopt.h>
#include <iterator>
#include <unistd.h>

#include "tools/text_format.h"

namespace corvel::tools {
namespace {

const char *program_name = "";

constexpr option long_options[] = {
    {"force", no_argument, nullptr, 'f'},
    {"json", no_argument, nullptr, 'j'},
    {"raw", no_argument, nullptr, 'r'},
    {"strict", no_argument, nullptr, 's'},
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, 'V'},
    {nullptr, 0, nullptr, 0},
};

/// Ensures that descriptors 0, 1 and 2 are open, so that no file gets their numbers. One that was
/// closed reads as empty and cannot be written.
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
        throw usage_error("unknown command '" + printable(name) + "'");
    return *command;
}

std::string name_of(Option wanted) {
    return std::ranges::find(long_options, static_cast<int>(wanted), &option::val)->name;
}

/// The error for an option that getopt rejects. `optopt` is 0 for an unknown long option; it is a
/// known option only if its long form was given an argument.
Failure option_error(char **words) {
    if (optopt == 0)
        return usage_error("unrecognized option '" + printable(words[optind - 1]) + "'");
    const auto *const known = std::ranges::find(long_options, optopt, &option::val);
    if (known != std::end(long_options))
        return usage_error(std::string("option '--") + known->name + "' allows no argument");
    const char letter = static_cast<char>(optopt);
    return usage_error("invalid option -- '" + printable(std::string_view(&letter, 1)) + "'");
}

void check_arguments(const Command &command, const Arguments &arguments) {
    const std::string name(command.name);
    if (arguments.words.size() < command.fewest)
        throw usage_error(name + ": too few arguments");
    if (arguments.words.size() > command.most)
        throw usage_error(name + ": too many arguments");
    for (const Option given : arguments.options)
        if (command.options.find(static_cast<char>(given)) == std::string_view::npos)
            throw usage_error(name + ": option --" + name_of(given) + " is not allowed");
}

/// Flushes standard output, and fails if any output could not be written, as on a full disk.
void finish_output() {
    if (std::fflush(stdout) != 0)
        throw Failure(cannot_do_it, std::string("standard output: ") + std::strerror(errno));
    if (std::ferror(stdout) != 0)
        throw Failure(cannot_do_it, "standard output: could not be written");
}

ExitStatus run_command(const Program &program, int argument_count, char **words) {
    Arguments arguments;
    opterr = 0; // its messages would contain bytes of the command line unescaped
    for (int letter = 0; letter != -1;) {
        letter = getopt_long(argument_count, words, "fhjrsV", long_options, nullptr);
        switch (letter) {
        case 'h':
            std::fputs(program.help, stdout);
            return success;
        case 'V':
            std::printf("%s %s\n", program.name, CORVEL_VERSION);
            return success;
        case '?':
            throw option_error(words);
        case -1:
            break;
        default:
            arguments.options.push_back(static_cast<Option>(letter));
        }
    }
    arguments.words.assign(words + optind, words + argument_count);
    if (arguments.words.empty())
        throw usage_error("missing command");
    const Command &command = find_command(program, arguments.words.front());
    arguments.words.erase(arguments.words.begin());
    check_arguments(command, arguments);
    return command.run(arguments);
}

} // namespace

bool Arguments::has(Option option) const {
    return std::ranges::find(options, option) != options.end();
}

int run_program(const Program &program, int argument_count, char **arguments) {
    program_name = program.name;
    if (argument_count < 1)
        return cannot_do_it; // getopt expects the program's name
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
