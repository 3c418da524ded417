# SPDX-License-Identifier: MIT
"""Reads the documents: the README and those in docs/."""
import os
import re
from dataclasses import dataclass
from pathlib import Path

from build_tree import SOURCE

GUIDE = SOURCE / "docs" / "guide.md"
DOCUMENTS = [SOURCE / "README.md", *sorted((SOURCE / "docs").glob("*.md"))]

WARNINGS = ("-Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Wcast-qual "
            "-Wwrite-strings -Wformat=2 -Werror -O2").split()

FENCE = re.compile(r"^```(\S*)\n(.*?)^```$", re.MULTILINE | re.DOTALL)
FILE_NAME = re.compile(r"^(?:/\*|#|<!--) ([\w.-]+\.\w+)(?: \*/| -->)?$")


@dataclass
class Block:
    """A fenced code block. It is a file if its first line is a comment with only a file name."""
    document: Path
    line: int
    language: str
    code: str

    @property
    def title(self):
        return f"{self.document.relative_to(SOURCE)}:{self.line}"

    @property
    def file(self):
        name = FILE_NAME.match(self.code.split("\n", 1)[0])
        return name[1] if name and self.language not in ("console", "sh", "text") else None


def blocks(document):
    text = document.read_text()
    return [Block(document, text.count("\n", 0, match.start()) + 1, *match.groups())
            for match in FENCE.finditer(text)]


def write_files(document, directory):
    """Creates a directory with the files that a document contains."""
    directory.mkdir()
    for block in blocks(document):
        if block.file:
            (directory / block.file).write_text(block.code)


def without_blocks(document):
    return FENCE.sub("", document.read_text())


def tree(*suffixes):
    """Returns the files of the source tree whose names end in one of the suffixes."""
    found = []
    for directory, directories, files in os.walk(SOURCE):
        directories[:] = [each for each in directories
                          if each != "node_modules" and not each.startswith((".git", "build"))]
        found += [Path(directory) / each for each in files if each.endswith(suffixes)]
    return sorted(found)
