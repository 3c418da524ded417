# SPDX-License-Identifier: MIT
"""Compiles and runs the examples of the public headers.

An example is an @code block: the body of main(). It is compiled as C99 and as C++17, every warning
an error, and each program is run in a directory of its own. An example may end with the shell
commands that run it, in lines that begin with "// $ "; a line that begins with "//   " continues
the command before it, and other lines are the output of the command before them. An example without
commands is run once and prints nothing.
"""
import contextlib
import fcntl
import re
import subprocess

import pytest

from build_tree import BUILD, INSTALLED, SOURCE
from documents import WARNINGS

HEADERS = [SOURCE / "include" / name for name in ("corvel.h", "corvel_page.h")]

CODE = re.compile(r"^ \* @code\n(.*?)^ \* @endcode\n", re.MULTILINE | re.DOTALL)
DECLARED = re.compile(r"^CORVEL(?:_PAGE)?_API[^;(\[]*?(\w+)\s*[;(\[]", re.MULTILINE)
COMMENT_END = " */\n"

INCLUDES = """#include <assert.h>
#include <corvel.h>
#include <corvel_page.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>
"""
COMPILERS = ("gcc -xc -std=c99", "g++ -xc++ -std=c++17")
LEAST_EXAMPLES = {"corvel.h": 30, "corvel_page.h": 12}


def examples(header):
    """Yields, for each example, its code and its commands. Its name is declared after it."""
    for match in CODE.finditer(header):
        after = header.index(COMMENT_END, match.end()) + len(COMMENT_END)
        name = DECLARED.search(header, after)[1]
        lines = [line[3:].rstrip("\n") for line in match[1].splitlines()]
        start = next((i for i, line in enumerate(lines) if line.startswith("// $ ")), len(lines))
        yield pytest.param("\n".join(lines[:start]) + "\n", commands_of(lines[start:]), id=name)


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


@contextlib.contextmanager
def alone():
    """Lets one example run at a time: that of is_runing() looks for others of its name."""
    with open(BUILD / "example.lock", "w", encoding="utf-8") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        yield


EXAMPLES = {header.name: list(examples(header.read_text())) for header in HEADERS}


@pytest.mark.parametrize("compiler", COMPILERS)
@pytest.mark.parametrize("code, commands", sum(EXAMPLES.values(), []))
def test_example(code, commands, compiler, new_directory, variables):
    source = new_directory / "example.source"
    source.write_text(f"{INCLUDES}\nint main(int argc, char **argv)\n{{\n{code}}}\n")
    status, output = run([*compiler.split(), *WARNINGS, "-Wno-unused-parameter",
                          "-D_DEFAULT_SOURCE", f"-I{INSTALLED}/include", source, "-o", "example",
                          f"-L{variables['LD_LIBRARY_PATH']}", "-xnone", "-lcorvel_page",
                          "-lcorvel"],
                         new_directory, variables)
    assert status == 0, output
    for command, expected in commands:
        with alone():
            status, output = run(["bash", "-c", command], new_directory, variables)
        # A transcript does not show whether the last line has a newline.
        output += "\n" if output and not output.endswith("\n") else ""
        assert (status, output) == (0, expected), command


@pytest.mark.parametrize("header", LEAST_EXAMPLES)
def test_there_are_enough_examples(header):
    assert len(EXAMPLES[header]) >= LEAST_EXAMPLES[header]
