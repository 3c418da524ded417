# SPDX-License-Identifier: MIT
"""Tests the programs, commands and outputs shown in the README and in docs/.

The fenced code blocks of a document are checked depending on their language:

  c         compiled separately as C and as C++ with both compilers; every warning is an error
  console   each "$ command" is run in the document's directory; the following lines are its output
  sh, text  not processed: commands that other suites run, and text that is not a program

If the first line of a block of any other language, or of a `c` block, is a comment that contains
only a file name, the block is in that file of the document's directory, for the commands. These use
the files that earlier ones have written: run all commands of a document.
"""
import os
import subprocess

import pytest

from build_tree import INSTALLED
from documents import DOCUMENTS, WARNINGS, blocks

COMPILERS = ("gcc -xc -std=c99", "gcc -xc -std=c11", "clang -xc -std=c99", "g++ -xc++ -std=c++17",
             "clang++ -xc++ -std=c++20")
BLOCKS = [block for document in DOCUMENTS for block in blocks(document)]
PROGRAMS = [block for block in BLOCKS if block.language == "c"]
OTHERS = [block for block in BLOCKS if block.language not in ("c", "console", "sh", "text")]


def commands_of(block):
    """Returns pairs of a command and its output."""
    pairs = []
    for line in block.code.splitlines():
        if line.startswith("$ "):
            pairs.append([line[2:], ""])
        elif not pairs:
            raise ValueError(f"{block.title}: output without a command: {line}")
        elif pairs[-1][0].endswith("\\") and not pairs[-1][1]:
            pairs[-1][0] += "\n" + line
        else:
            pairs[-1][1] += line + "\n"
    return pairs


COMMANDS = [pytest.param(block, command, output, id=f"{block.title} $ {command.splitlines()[0]}",
                         marks=pytest.mark.xdist_group(block.document.name))
            for block in BLOCKS if block.language == "console"
            for command, output in commands_of(block)]


@pytest.mark.parametrize("compiler", COMPILERS)
@pytest.mark.parametrize("block", PROGRAMS, ids=lambda block: block.title)
def test_program_compiles(block, compiler, directory_of):
    is_header = block.file and block.file.endswith(".h")
    code = f'#include "{block.file}"\n' if is_header else block.code
    done = subprocess.run([*compiler.split(), *WARNINGS, f"-I{INSTALLED}/include",
                           f"-I{directory_of(block.document)}", "-c", "-o", os.devnull, "-"],
                          input=code, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          timeout=120)
    assert done.returncode == 0, done.stdout


@pytest.mark.parametrize("block, command, expected", COMMANDS)
def test_command_prints_what_is_shown(block, command, expected, directory_of, variables):
    done = subprocess.run(["bash", "-c", command], cwd=directory_of(block.document), env=variables,
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, timeout=600, errors="replace")
    assert done.returncode == 0, done.stdout
    # The documents show neither carriage returns nor a missing newline at the end.
    shown = done.stdout.replace("\r\n", "\n")
    shown += "\n" if shown and not shown.endswith("\n") else ""
    assert shown == expected


@pytest.mark.parametrize("block", OTHERS, ids=lambda block: block.title)
def test_text_of_another_language_is_a_file(block):
    assert block.file, f"no check for the language {block.language}"


def test_files_of_a_document_have_different_names():
    for document in DOCUMENTS:
        names = [block.file for block in blocks(document) if block.file]
        assert len(names) == len(set(names)), document
