# SPDX-License-Identifier: MIT
"""Scenes: a board whose flash is served by a process that keeps a journal, and something that it is
to do. The power is cut during a scene (cuts.py), and what it writes is counted (wear.py)."""
import contextlib
import hashlib
import subprocess
import time
from pathlib import Path

import machine
from flash import ERASED, Flash, ROOT
from upgrades import Site, VERSIONS, free_port

# A scene is complete when nothing has been written for this time.
QUIET_SECONDS = 4
SNAPSHOT = "snapshot"


def half(old, new):
    """Returns the length up to the middle of what differs; 0 if nothing does."""
    differences = [i for i in range(len(new)) if old[i] != new[i]]
    return (differences[0] + differences[-1] + 1) // 2 if differences else 0


class Write:
    """A write to the flash."""

    def __init__(self, drive, offset, content):
        self.drive, self.offset, self.content = drive, offset, content

    @property
    def erases(self):
        return self.content.count(ERASED) == len(self.content)


class ServedFlash(Flash):
    """The flash, served by a process that keeps a journal and can cut the power."""

    def __init__(self, directory):
        super().__init__(directory)
        self.directory = Path(directory)
        self.journal = self.directory / "journal"
        self.data = self.directory / "journal.data"
        self.process = None

    @contextlib.contextmanager
    def served(self, after=0, torn=False):
        """Serves the flash; cuts the power at a write, or never."""
        self.forget_writes()
        socket = self.directory / "socket"
        socket.unlink(missing_ok=True)
        self.process = subprocess.Popen(
            ["nbdkit", "--foreground", "--exit-with-parent", "--unix", socket, "python",
             ROOT / "board/cut_plugin.py", f"nor={self.nor}", f"disk={self.disk}",
             f"journal={self.journal}", f"after={after}", f"torn={int(torn)}"],
            stdin=subprocess.DEVNULL)
        try:
            while not socket.exists():
                if self.process.poll() is not None:
                    raise RuntimeError("nbdkit did not start")
                time.sleep(0.02)
            yield {name: f"nbd:unix:{socket}:exportname={name}" for name in ("nor", "disk")}
        finally:
            self.process.kill()
            self.process.wait()

    def copy(self, other):
        self.directory.mkdir(parents=True, exist_ok=True)
        for name in ("nor", "disk"):
            getattr(self, name).write_bytes(getattr(other, name).read_bytes())

    def digest(self):
        return hashlib.sha256(self.nor.read_bytes() + self.disk.read_bytes()).digest()

    def has_power(self):
        return self.process.poll() is None

    def forget_writes(self):
        self.journal.write_text("")
        self.data.write_bytes(b"")

    def count_writes(self):
        return self.journal.read_text().count("\n")

    def writes(self):
        found, data, start = [], self.data.read_bytes(), 0
        for line in self.journal.read_text().splitlines():
            drive, offset, length = line.split()
            end = start + int(length)
            found.append(Write(drive, int(offset), data[start:end]))
            start = end
        return found

    def wait_until_quiet(self, seconds=QUIET_SECONDS):
        """Waits until the power is cut or nothing has been written for a while."""
        count, since = -1, time.monotonic()
        while self.has_power() and time.monotonic() < since + seconds:
            if self.count_writes() != count:
                count, since = self.count_writes(), time.monotonic()
            time.sleep(0.05)


class Scene:
    """What a board does, after it was arranged. Both functions get the board and a client of its
    site that is logged in; `act` may ask board.has_power()."""

    def __init__(self, name, act, arrange=lambda board, site: None, after=None):
        """The board is new, or that after the complete scene `after`, which must have been played in
        the same directory."""
        self.name, self.act, self.arrange, self.after = name, act, arrange, after
        self.session = self.directory = None

    def prepare(self, directory):
        """Starts the board, arranges the scene, and saves a snapshot and the flash."""
        self.directory = Path(directory) / self.name
        flash = ServedFlash(self.directory)
        if self.after:
            flash.copy(ServedFlash(Path(directory) / self.after.name / "complete"))
        else:
            machine.fill_factory_set(flash, VERSIONS[0])
        port = free_port()
        with flash.served() as drives, machine.Machine(
                flash, self.console(), port=port, options="quiet", drives=drives) as board:
            board.wait_for_site(port)
            site = Site(port)
            site.log_in()
            site.token()
            # The shell has started.
            board.console.run("true")
            self.arrange(board, site)
            flash.wait_until_quiet()
            board.save(self.directory / SNAPSHOT)
            self.session = site.session

    def console(self):
        return machine.Console(self.directory / "console")

    def flash(self, directory):
        """Returns a copy of the flash at the start of the scene."""
        copy = ServedFlash(directory)
        copy.copy(ServedFlash(self.directory))
        return copy

    def play(self, flash, after=0, torn=False):
        """Plays the scene on a copy of the flash, until the power is cut or nothing is written any
        more."""
        port = free_port()
        with flash.served(after, torn) as drives, machine.Machine(
                flash, self.console(), port=port, drives=drives,
                snapshot=self.directory / SNAPSHOT) as board:
            board.has_power = flash.has_power
            board.resume()
            self._act(board, flash, port)
            flash.wait_until_quiet()
            return not flash.has_power()

    def _act(self, board, flash, port):
        """The power may be cut before the response. A request can fail at once, since the network of
        the host starts anew with the snapshot: it is repeated then."""
        for _ in range(5):
            with contextlib.suppress(subprocess.CalledProcessError, ValueError):
                self.act(board, Site(port, self.session))
                return
            if not flash.has_power():
                return
            time.sleep(1)
        raise RuntimeError("the site does not respond")

    def replay(self, flash, writes, count, torn):
        """Writes the first `count` writes to a copy of the flash at the start and, if `torn`, the
        first half of what the next one changes: the flash after a cut there."""
        for write in writes[:count]:
            self._write(flash, write.drive, write.offset, write.content)
        if torn:
            write = writes[count]
            with getattr(flash, write.drive).open("rb") as file:
                file.seek(write.offset)
                old = file.read(len(write.content))
            self._write(flash, write.drive, write.offset, write.content[:half(old, write.content)])

    @staticmethod
    def _write(flash, drive, offset, content):
        with getattr(flash, drive).open("r+b") as file:
            file.seek(offset)
            file.write(content)


class Start(Scene):
    """The start of a board whose flash was written by a function."""

    def __init__(self, name, fill):
        super().__init__(name, act=None)
        self.fill, self.session = fill, ""

    def prepare(self, directory):
        self.directory = Path(directory) / self.name
        self.fill(ServedFlash(self.directory), Path(directory))

    def play(self, flash, after=0, torn=False):
        port = free_port()
        with flash.served(after, torn) as drives, machine.Machine(
                flash, self.console(), port=port, options="quiet", drives=drives) as board:
            end = time.monotonic() + 120
            while flash.has_power() and time.monotonic() < end:
                with contextlib.suppress(TimeoutError):
                    board.wait_for_site(port, 1)
                    break
            flash.wait_until_quiet()
            return not flash.has_power()
