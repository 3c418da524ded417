# SPDX-License-Identifier: MIT
"""Runs the tools."""

import pathlib
import resource
import shutil
import subprocess
import tempfile
import unittest

from build_tree import BUILD


class Done:
    """The exit status and the output of a program."""

    def __init__(self, done):
        self.status = done.returncode
        self.output = (done.stdout or b"").decode(errors="surrogateescape")
        self.errors = done.stderr.decode(errors="surrogateescape")

    def __repr__(self):
        return f"status {self.status}\noutput: {self.output}\nerrors: {self.errors}"


def run(program, *arguments, **options):
    command = [BUILD / "tools" / program, *arguments]
    options = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE,
               "timeout": 120, **options}
    if "input" in options:
        del options["stdin"]
    return Done(subprocess.run(command, **options))


def printable(content):
    """Escapes bytes as the programs do."""
    return "".join("\\\\" if byte == 0x5c else chr(byte) if 0x20 <= byte < 0x7f else
                   f"\\x{byte:02x}" for byte in content)


def with_file_size_limit(size):
    """Returns options for run() with which writing beyond this size fails, as on a full disk."""
    return {"preexec_fn": lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (size, size)),
            "restore_signals": False}


class ToolTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="corvel-tools-"))
        self.addCleanup(shutil.rmtree, self.directory, ignore_errors=True)

    def path(self, name):
        return self.directory / name

    def write(self, name, content):
        path = self.path(name)
        path.write_bytes(content.encode() if isinstance(content, str) else content)
        return path

    def expect(self, done, status, output="", errors=""):
        self.assertEqual((done.status, done.output, done.errors), (status, output, errors), done)

    def files(self):
        return sorted(path.name for path in self.directory.iterdir())
