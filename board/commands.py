# SPDX-License-Identifier: MIT
"""Runs a command on the board, and tests that."""
import contextlib
import shlex
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import machine
from flash import ROOT

COMPILER = ROOT / "build/mips-sysroot/bin/mips-linux-musl-gcc"
PROGRAM = r"""
#include <corvel.h>
#include <stdio.h>

int main(int argc, char **argv)
{
    union { int number; unsigned char first; } one = {1};
    char address[CORVEL_IPV4_SIZE];

    getHWip("br-lan", CORVEL_ADDRESS_IPV4, address, sizeof address);
    printf("%s %s\n%s\n", one.first ? "little" : "big", address, argc == 2 ? argv[1] : "");
    fprintf(stderr, "an error\n");
    return 7;
}
"""


class Stream:
    """Passes on what a command appends to a file."""

    def __init__(self, path, target):
        self._path, self._target, self._passed = path, target, 0

    def pass_on(self):
        with contextlib.suppress(FileNotFoundError), open(self._path, "rb") as file:
            file.seek(self._passed)
            content = file.read()
            self._passed += len(content)
            self._target.write(content)
            self._target.flush()


def run(command, flash, *, pages=None, port=None):
    """Starts the board, runs the command in the current directory, switches the board off, and returns
    the command's status."""
    with tempfile.TemporaryDirectory(prefix="corvel-board-") as name:
        share = Path(name)
        script = share / "command"
        script.write_text(f"#!/bin/sh\nexec {shlex.join(command)}\n")
        script.chmod(0o700)
        streams = (Stream(share / "output", sys.stdout.buffer), Stream(share / "errors", sys.stderr.buffer))
        site = {"pages": pages} if pages else {}
        options = "quiet host_command=yes" + (" pages=yes" if pages else "")
        with machine.Machine(flash, machine.LogFile(share / "console"), port=port, options=options, share=share,
                             here=Path.cwd(), **site) as board:
            while board.is_running():
                for stream in streams:
                    stream.pass_on()
                time.sleep(0.05)
        for stream in streams:
            stream.pass_on()
        if (share / "status").exists():
            return int((share / "status").read_text())
        print("board: the board ended before the command; its console:", file=sys.stderr)
        print(*(share / "console").read_text(errors="replace").splitlines()[-10:], sep="\n", file=sys.stderr)
        return 1


def check(report):
    """Checks that a program that was compiled for the board runs on it, as `corvel-device --on board`."""
    with tempfile.TemporaryDirectory(prefix="corvel-board-") as name:
        directory = Path(name)
        (directory / "program.c").write_text(PROGRAM)
        subprocess.run([COMPILER, "program.c", "-o", "program", f"-I{ROOT}/include", f"-L{ROOT}/build/board",
                        "-lcorvel"], cwd=directory, check=True)
        done = subprocess.run([ROOT / "tools/corvel-device", "--on", "board", "--", "./program", "two  words"],
                              cwd=directory, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, text=True, check=False)
        report.check(done.stdout == "big 192.168.1.1\ntwo  words\n", f"a command's output: {done.stdout!r}")
        # The steps of the build precede it.
        report.check(done.stderr.splitlines()[-1:] == ["an error"], f"a command's errors: {done.stderr!r}")
        report.check(done.returncode == 7, f"a command's exit status: {done.returncode}")
