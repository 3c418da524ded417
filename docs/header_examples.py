# SPDX-License-Identifier: MIT
"""Compiles and runs the examples of the public header.

An example is an @code block: the body of main(). It is compiled as C99 and as C++17, every warning
an error, and each program is run in a directory of its own. An example may end with the shell
commands that run it, in lines that begin with "// $ "; a line that begins with "//   " continues
the command before it, and other lines are the output of the command before them. An example without
commands is run once and prints nothing.
"""
import re
import shlex
import subprocess

CODE = re.compile(r"^ \* @code\n(.*?)^ \* @endcode\n", re.MULTILINE | re.DOTALL)
DECLARED = re.compile(r"CORVEL_API[^;(\[]*?(\w+)\s*[;(\[]")
COMMENT_END = " */\n"

INCLUDES = """#include <assert.h>
#include <corvel.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>
"""
LANGUAGES = [["gcc", "-xc", "-std=c99", "-Wno-unused-parameter"],
             ["g++", "-xc++", "-std=c++17", "-Wno-unused-parameter"]]
LEAST_EXAMPLES = 30


def examples(header):
    """Yields, for each example, the name that is declared after it, its code and its commands."""
    for match in CODE.finditer(header):
        after = header.index(COMMENT_END, match.end()) + len(COMMENT_END)
        name = DECLARED.search(header, after)[1]
        lines = [line[3:].rstrip("\n") for line in match[1].splitlines()]
        start = next((i for i, line in enumerate(lines) if line.startswith("// $ ")), len(lines))
        yield name, "\n".join(lines[:start]) + "\n", commands_of(lines[start:])


def commands_of(lines):
    """Splits a transcript into pairs of a shell command and its output."""
    pairs = []
    for line in lines:
        if line.startswith("// $ "):
            pairs.append([line[5:], ""])
        elif line.startswith("//   ") and not pairs[-1][1]:
            pairs[-1][0] += "\n" + line[5:]
        else:
            pairs[-1][1] += line[3:] + "\n"
    return pairs or [["./example", ""]]


def run(command, directory, variables, **options):
    done = subprocess.run(command, cwd=directory, env=variables, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=120,
                          errors="replace", **options)
    return done.returncode, done.stdout


def compile_example(compiler, warnings, code, prefix, directory, variables):
    """Returns what is wrong, or None."""
    source = directory / "example.source"
    source.write_text(f"{INCLUDES}\nint main(int argc, char **argv)\n{{\n{code}}}\n")
    status, output = run([*compiler, *warnings, "-D_DEFAULT_SOURCE", f"-I{prefix}/include", source,
                          "-o", "example", f"-L{next(prefix.glob('lib*/**/libcorvel.so')).parent}",
                          "-xnone", "-lcorvel"], directory, variables)
    return f"{code}{output}" if status != 0 else None


def run_example(commands, directory, variables):
    """Returns what differs from the transcript, or None."""
    for command, expected in commands:
        status, output = run(["bash", "-c", command], directory, variables)
        # A transcript does not show whether the last line has a newline.
        output += "\n" if output and not output.endswith("\n") else ""
        if status != 0 or output != expected:
            return f"$ {command}\nstatus {status}, expected:\n{expected}got:\n{output}"
    return None


def check(tally, header, warnings, prefix, scratch, variables):
    """Adds a check per example and language."""
    count = 0
    for name, code, commands in examples(header.read_text()):
        count += 1
        for compiler in LANGUAGES:
            directory = scratch / f"{name}-{compiler[0]}"
            directory.mkdir(parents=True)
            fault = compile_example(compiler, warnings, code, prefix, directory, variables)
            if fault is None:
                fault = run_example(commands, directory, variables)
            tally.add(f"{header.name}: {name}() {shlex.join(compiler)}", fault)
    missing = f"only {count} examples" if count < LEAST_EXAMPLES else None
    tally.add(f"{header.name} has at least {LEAST_EXAMPLES} examples", missing)
