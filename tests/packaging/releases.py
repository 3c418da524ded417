# SPDX-License-Identifier: MIT
"""Builds a release twice, in directories, by users and with settings that differ."""
import contextlib
import os
import signal
import subprocess
import tarfile
import tempfile
from dataclasses import dataclass
from pathlib import Path

from build_tree import SOURCE

NOBODY = 65534
SYSROOT = SOURCE / "build" / "mips-sysroot"


def run(*command, **options):
    """Runs a command, which must succeed, and returns its output."""
    done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, **options)
    assert done.returncode == 0, done.stdout
    return done.stdout


@dataclass
class Release:
    files: Path  # what `packaging/release --draft` writes in the working tree
    again: Path  # what its scripts write in a tree that was unpacked from its source archive

    def one(self, pattern):
        """Returns the only file whose name matches."""
        found, = self.files.glob(pattern)
        return found

    def unpack(self, pattern, directory):
        with tarfile.open(self.one(pattern)) as archive:
            archive.extractall(directory)


def build_again(archive, directory):
    """Writes the files of a release from a source archive: without git, as an ordinary user if
    possible, in a tree that this user cannot write. Returns their directory.

    The board's compiler may be in a directory that another user cannot read.
    """
    output, temporary = directory / "again", directory / "temporary"
    programs = directory / "programs"
    for made in (output, temporary, programs):
        made.mkdir()
    with tarfile.open(archive) as source:
        source.extractall(directory / "unpacked")
    tree, = (directory / "unpacked").iterdir()
    (programs / "git").write_text("#!/bin/sh\necho 'git was called' >&2\nexit 1\n")
    (programs / "git").chmod(0o755)
    variables = {"PATH": f"{programs}:{os.environ['PATH']}", "TMPDIR": str(temporary),
                 "HOME": "/nonexistent", "LANG": "C", "TZ": "Asia/Tokyo", "CFLAGS": "-DUNWANTED",
                 "CORVEL_MIPS_SYSROOT": str(SYSROOT)}
    user = []
    if os.geteuid() == 0:
        user = ["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups"]
        directory.chmod(0o755)
        for made in (output, temporary):
            os.chown(made, NOBODY, NOBODY)
    for script in (["source-archive"], ["debian-packages", "--no-check"]):
        run(*user, tree / "packaging" / script[0], *script[1:], output, env=variables, umask=0o027)
    run(tree / "packaging" / "board-archives", output, env=variables)
    return output


@contextlib.contextmanager
def made_twice():
    with tempfile.TemporaryDirectory(prefix="corvel-packaging-") as name:
        directory = Path(name)
        files, log = directory / "files", directory / "log"
        run("cmake/mips-sysroot", cwd=SOURCE)
        archive = Path(run("packaging/source-archive", directory, cwd=SOURCE).strip())
        with log.open("w") as output:
            first = subprocess.Popen(["packaging/release", "--draft", files], cwd=SOURCE,
                                     stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                                     start_new_session=True)
            try:
                again = build_again(archive, directory)
                status = first.wait()
            finally:
                if first.poll() is None:
                    os.killpg(first.pid, signal.SIGTERM)
        assert status == 0, log.read_text()
        yield Release(files, again)
