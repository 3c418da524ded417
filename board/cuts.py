# SPDX-License-Identifier: MIT
"""Cuts the power at each write to the flash, and starts the board again.

Each trial continues the same snapshot of a running board, with the same request to the site. The
machine is killed at the n-th write that reaches the flash; what its kernel has not written by then is
lost. The first trials let each request complete and count its writes.
"""
import collections
import contextlib
import re
import shutil
import subprocess
import tempfile
import time
from pathlib import Path

import machine
from flash import ENVIRONMENT, Flash, ROOT
from upgrades import Image, Site, VERSIONS, free_port

# A request is complete when nothing has been written for this time.
QUIET_SECONDS = 4
SNAPSHOT = "snapshot"
NEW_CONTACT = "the night watch"


class CutFlash(Flash):
    """The flash, served by a process that ends at the n-th write."""

    def __init__(self, directory):
        super().__init__(directory)
        self.directory = Path(directory)
        self.log = self.directory / "writes"
        self.process = None

    @contextlib.contextmanager
    def served(self, after=0, torn=False):
        """Serves the flash; cuts the power at a write, or never."""
        self.log.write_text("")
        socket = self.directory / "socket"
        socket.unlink(missing_ok=True)
        self.process = subprocess.Popen(
            ["nbdkit", "--foreground", "--unix", socket, "python", ROOT / "board/cut_plugin.py",
             f"nor={self.nor}", f"disk={self.disk}", f"log={self.log}", f"after={after}",
             f"torn={int(torn)}"], stdin=subprocess.DEVNULL)
        try:
            while not socket.exists():
                if self.process.poll() is not None:
                    raise RuntimeError("nbdkit did not start")
                time.sleep(0.02)
            yield {name: f"nbd:unix:{socket}:exportname={name}" for name in ("nor", "disk")}
        finally:
            self.process.kill()
            self.process.wait()

    def has_power(self):
        return self.process.poll() is None

    def writes(self):
        return [line.split() for line in self.log.read_text().splitlines()]

    def wait_until_quiet(self):
        """Waits until the power is cut or nothing has been written for a while."""
        count, since = -1, time.monotonic()
        while self.has_power() and time.monotonic() < since + QUIET_SECONDS:
            if len(self.writes()) != count:
                count, since = len(self.writes()), time.monotonic()
            time.sleep(0.05)


class Scene:
    """A snapshot of a running board, with a request to the site."""

    def __init__(self, name, request, outcome):
        """`request` gets a client that is logged in. `outcome` gets one after the next start, and the
        flash, and returns a word, or raises RuntimeError if the board is in neither state."""
        self.name, self.request, self.outcome = name, request, outcome
        self.session = self.directory = None

    def prepare(self, directory, arrange):
        """Starts a new board, arranges the scene, and saves the snapshot."""
        self.directory = Path(directory) / self.name
        flash = CutFlash(self.directory)
        machine.fill_factory_set(flash, VERSIONS[0])
        port = free_port()
        with flash.served() as drives, machine.Machine(
                flash, console(), port=port, options="quiet upload_pause=no",
                drives=drives) as board:
            board.wait_for_site(port)
            site = Site(port)
            site.log_in()
            arrange(site)
            flash.wait_until_quiet()
            board.save(self.directory / SNAPSHOT)
            self.session = site.session

    def trial(self, after=0, torn=False):
        """Cuts the power at a write. Returns the outcome and the writes before the cut."""
        with tempfile.TemporaryDirectory(dir=self.directory) as directory:
            flash = CutFlash(directory)
            for file in ("nor.img", "disk.img"):
                shutil.copy(self.directory / file, directory)
            port = free_port()
            with flash.served(after, torn) as drives, machine.Machine(
                    flash, console(), port=port, drives=drives,
                    snapshot=self.directory / SNAPSHOT) as board:
                board.resume()
                # The power may be cut before the response.
                with contextlib.suppress(subprocess.CalledProcessError):
                    self.request(Site(port, self.session))
                flash.wait_until_quiet()
                was_cut = not flash.has_power()
            if was_cut != bool(after):
                return None, flash.writes()
            return self.restarted(flash), flash.writes()

    def restarted(self, flash):
        port = free_port()
        try:
            with machine.Machine(flash, console(), port=port, options="quiet") as board:
                board.wait_for_site(port)
                site = Site(port)
                site.log_in()
                return self.outcome(site, flash)
        except (machine.NothingBootsError, RuntimeError, TimeoutError) as error:
            return f"FAILED: {error}"


def console():
    return machine.serial_to_file(machine.SYSTEM / "cuts.log")


# --- Settings ---------------------------------------------------------------------------------------


def save_contact(site):
    site.curl("device", "--data-urlencode", f"CONTACT={NEW_CONTACT}")


def contact_outcome(site, _flash):
    page = site.curl("device")[2].decode()
    contact = re.search('name="CONTACT" value="([^"]*)"', page)
    description = re.search('name="DESCRIPTION" value="([^"]*)"', page)
    if not contact or not description or description[1] != "Router in the hall":
        raise RuntimeError("the settings are incomplete")
    if contact[1] not in ("", NEW_CONTACT):
        raise RuntimeError(f"the setting is {contact[1]}")
    return "new setting" if contact[1] else "old setting"


# --- Upgrade and environment ------------------------------------------------------------------------


def write_image(site):
    site.curl("upgrade", "--data", "action=write")


def upgrade_outcome(site, flash):
    """The set that runs is whole, since the boot loader checked it. Returns it, and the state of the
    environment."""
    state = site.upgrade_state()
    valid = machine.environment(flash.read(ENVIRONMENT)) is not None
    if state["VERSION_" + state["RUNNING"]] not in VERSIONS[:2]:
        raise RuntimeError("the version of the running set is unknown")
    return f"set {state['RUNNING']} runs, environment {'valid' if valid else 'invalid'}"


def upload_image(directory):
    image = Image(Path(directory), VERSIONS[1])
    return lambda site: site.expect(303, "upload", "--form", f"image=@{image.path}")


# --- The runs ---------------------------------------------------------------------------------------


def show(name, outcomes, seconds):
    for outcome, count in sorted(outcomes.items()):
        print(f"{name:10} {outcome:44} {count:4}", flush=True)
    print(f"{name:10} {sum(outcomes.values())} cuts, {seconds:.0f} s", flush=True)


def cut(scene, points):
    """Cuts the power at these writes. Returns the number of trials, and of those that failed."""
    start, outcomes = time.monotonic(), collections.Counter()
    for after, torn in points:
        outcome, _ = scene.trial(after, torn)
        outcomes[outcome or "FAILED: the power was not cut"] += 1
    show(scene.name, outcomes, time.monotonic() - start)
    failed = sum(count for outcome, count in outcomes.items() if outcome.startswith("FAILED"))
    return len(points), failed


def chosen(numbers, limit):
    """Returns at most `limit` of the numbers, spread evenly; the first and the last are among them."""
    numbers = list(numbers)
    if len(numbers) <= limit:
        return numbers
    return [numbers[i * (len(numbers) - 1) // (limit - 1)] for i in range(limit)]


def run(limit):
    """Makes at most `limit` cuts of each kind."""
    passed = failed = 0
    with tempfile.TemporaryDirectory(dir=machine.SYSTEM) as directory:
        scenes = ((Scene("settings", save_contact, contact_outcome), lambda site: None),
                  (Scene("upgrade", write_image, upgrade_outcome), upload_image(directory)))
        for scene, arrange in scenes:
            scene.prepare(directory, arrange)
            _, writes = scene.trial()
            nor = [n for n, write in enumerate(writes, 1) if write[0] == "nor"]
            disk = [n for n, write in enumerate(writes, 1) if write[0] == "disk"]
            print(f"{scene.name:10} {len(disk)} writes to the disk, {len(nor)} to the NOR flash",
                  flush=True)
            for kind in (disk, nor):
                # Every second write is cut in its middle.
                points = [(n, i % 2 == 1) for i, n in enumerate(chosen(kind, limit))]
                if points:
                    count, faults = cut(scene, points)
                    passed, failed = passed + count - faults, failed + faults
    return passed, failed
