# SPDX-License-Identifier: MIT
"""Upgrades from set A to B and back, through the site, with real images."""
import contextlib
import json
import re
import socket
import subprocess
import tempfile
import time
from pathlib import Path

import machine
from flash import ENVIRONMENT, Flash, ROOT, SETS

TOOL = ROOT / "build/board-tools/tools/corvel-image"
VERSIONS = ("Corvel R1 1.0.0", "Corvel R1 2.0.0", "Corvel R1 3.0.0")
# JFFS2 writes to the settings' partition on its own.
SETTINGS = "Config"


def free_port():
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        return listener.getsockname()[1]


class Image:
    """An upgrade image, and what it writes."""

    def __init__(self, directory, version):
        self.version = version
        self.root, self.kernel = machine.make_root(version), machine.make_kernel_stub()
        name = version.rpartition(" ")[2]
        self.path = directory / f"corvel-r1-{name}.bin"
        (directory / "root").write_bytes(self.root)
        (directory / "kernel").write_bytes(self.kernel)
        manifest = directory / "manifest"
        manifest.write_text(f"[root]\nfile = root\n[kern]\nfile = kernel\n[Ver0]\ntext = {version}\n")
        subprocess.run([TOOL, "build", "--strict", manifest, self.path], check=True)


class Site:
    """A client of the site, with curl."""

    def __init__(self, port, session=None):
        self.port, self.session = port, session

    def curl(self, path, *arguments):
        """Returns the status, the header and the body of a response."""
        cookie = ["--cookie", f"session={self.session}"] if self.session else []
        output = subprocess.run(
            ["curl", "--silent", "--show-error", "--max-time", "120", "--include", "--header",
             "Expect:", *cookie, *arguments, f"http://127.0.0.1:{self.port}/cgi-bin/{path}"],
            check=True, stdout=subprocess.PIPE).stdout
        header, _, body = output.partition(b"\r\n\r\n")
        return int(header.split()[1]), header.decode(), body

    def log_in(self):
        _, header, _ = self.curl("login", "--data", "user=admin&password=corvel")
        self.session = re.search("session=([0-9a-f]{64})", header)[1]

    def upgrade_state(self):
        return json.loads(self.curl("upgrade?Ajax=1")[2])["upgrade"][0]

    def upgrade(self, image):
        """Uploads an image and writes it. Returns the seconds that both took."""
        start = time.monotonic()
        self.expect(303, "upload", "--form", f"image=@{image.path}")
        uploaded = time.monotonic()
        self.expect(303, "upgrade", "--data", "action=write")
        while (state := self.upgrade_state())["STATE"] == "writing":
            time.sleep(0.5)
        if state["STATE"] != "written":
            raise RuntimeError(f"the image was not written: {state}")
        return uploaded - start, time.monotonic() - uploaded

    def expect(self, status, *arguments):
        found, _, body = self.curl(*arguments)
        if found != status:
            raise RuntimeError(f"status {found} instead of {status}: {body.decode()}")


class Faults:
    def __init__(self):
        self.passed = self.failed = 0

    def check(self, holds, title):
        self.passed += bool(holds)
        self.failed += not holds
        print("ok    " if holds else "FAILED", title, flush=True)


def check_flash(faults, before, after, image, target):
    """Compares the flash before and after an upgrade: nothing but the partitions of the target set
    and the environment's variable has changed."""
    root, kernel = SETS[target]
    for name, content in ((root, image.root), (kernel, image.kernel)):
        faults.check(after[name].startswith(content), f"{name} contains the section of the image")
        faults.check(after[name][len(content):] == before[name][len(content):],
                     f"{name} is unchanged after the section")
    old, new = (machine.environment(flash[ENVIRONMENT]) for flash in (before, after))
    faults.check(new == {**old, b"bootparam": b"%d" % target},
                 "nothing but bootparam has changed in the environment")
    for name in after:
        if name not in (root, kernel, ENVIRONMENT, SETTINGS):
            faults.check(after[name] == before[name], f"{name} is unchanged")


@contextlib.contextmanager
def started(flash, port, faults, expected_set):
    """Starts the board and logs in to the site."""
    console = machine.serial_to_file(machine.SYSTEM / "upgrade.log")
    with machine.Machine(flash, console, port=port, options="quiet upload_pause=no") as board:
        seconds = board.wait_for_site(port)
        faults.check(board.set == expected_set,
                     f"set {'AB'[expected_set]} boots (the site responds after {seconds:.0f} s)")
        site = Site(port)
        site.log_in()
        yield board, site


def run():
    faults = Faults()
    port = free_port()
    with tempfile.TemporaryDirectory() as directory:
        flash = Flash(Path(directory) / "flash")
        machine.fill_factory_set(flash, VERSIONS[0])
        factory = flash.snapshot()
        running = 0
        for version in VERSIONS[1:]:
            image = Image(Path(directory), version)
            with started(flash, port, faults, running) as (board, site):
                before = flash.snapshot()
                if running == 0:
                    check_first_start(faults, factory, before)
                uploading, writing = site.upgrade(image)
                site.expect(200, "upgrade", "--data", "action=restart")
                faults.check(board.wait(60), f"the system restarts ({image.path.stat().st_size} bytes "
                             f"uploaded in {uploading:.0f} s, written in {writing:.0f} s)")
            running = 1 - running
            check_flash(faults, before, flash.snapshot(), image, running)
        with started(flash, port, faults, running) as (_, site):
            state = site.upgrade_state()
            faults.check((state["RUNNING"], state["VERSION_A"], state["VERSION_B"]) ==
                         ("A", VERSIONS[2], VERSIONS[1]), "the site shows the versions of both sets")
        check_fallback(faults, flash, port)
    return faults.passed, faults.failed


def check_first_start(faults, factory, started_once):
    """The first start writes the environment, and nothing over the firmware."""
    for name, content in started_once.items():
        if name not in (ENVIRONMENT, SETTINGS):
            faults.check(content == factory[name], f"{name} is unchanged by the first start")
    faults.check(machine.environment(started_once[ENVIRONMENT]), "the first start writes an environment")


def check_fallback(faults, flash, port):
    """With a damaged set A, the boot loader starts set B."""
    root = SETS[0][0]
    damaged = bytearray(flash.read(root)[:4096])
    damaged[1000] ^= 1
    flash.write(root, damaged)
    with started(flash, port, faults, 1) as (_, site):
        faults.check(site.upgrade_state()["RUNNING"] == "B", "the site knows that set B runs")
    flash.write(SETS[1][1], b"damaged")
    try:
        machine.select_set(flash)
        faults.check(False, "nothing boots if both sets are damaged")
    except machine.NothingBootsError:
        faults.check(True, "nothing boots if both sets are damaged")
