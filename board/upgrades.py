# SPDX-License-Identifier: MIT
"""Upgrades from set A to B and back, through the site, with real images."""
import contextlib
import hashlib
import json
import os
import re
import socket
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import machine
from flash import ENVIRONMENT, Flash, ROOT, SETS

TOOL = ROOT / "build/board-tools/tools/corvel-image"
OWNER_PASSWORD = "seven grey herons"
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
        self.port, self.session, self._token = port, session, None

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
        """Logs in with the owner's password, or else with the factory's, which is then replaced."""
        if self._start_session(OWNER_PASSWORD):
            return
        self._start_session("corvel")
        response = self.post("password", f"new={OWNER_PASSWORD}", f"again={OWNER_PASSWORD}")
        self.expect(303, response)
        self._take_session(response)
        self._token = None

    def _start_session(self, password):
        """Returns false if the password is wrong."""
        response = self.curl("login", "--data-urlencode", "user=admin", "--data-urlencode",
                             f"password={password}")
        return response[0] == 303 and self._take_session(response)

    def _take_session(self, response):
        self.session = re.search("session=([0-9a-f]{64})", response[1])[1]
        return True

    def token(self):
        """Returns the token of the session's forms."""
        if not self._token:
            page = self.curl("password")[2].decode()
            self._token = re.search('name="token" value="([0-9a-f]{64})"', page)[1]
        return self._token

    def post(self, path, *fields):
        """Sends a form. Returns the status, the header and the body of the response."""
        words = [word for field in (*fields, f"token={self.token()}")
                 for word in ("--data-urlencode", field)]
        return self.curl(path, "--header", f"Origin: http://127.0.0.1:{self.port}", *words)

    def upload(self, path):
        self.expect(303, self.curl(f"upload?token={self.token()}", "--header",
                                   f"Origin: http://127.0.0.1:{self.port}", "--form", f"image=@{path}"))

    def upgrade_state(self):
        return json.loads(self.curl("upgrade?Ajax=1")[2])["upgrade"]

    def upgrade(self, image):
        """Uploads an image and writes it. Returns the seconds that both took."""
        start = time.monotonic()
        self.upload(image.path)
        uploaded = time.monotonic()
        self.expect(303, self.post("upgrade", "action=write"))
        while (state := self.upgrade_state())["STATE"] == "writing":
            time.sleep(0.5)
        if state["STATE"] != "written":
            raise RuntimeError(f"the image was not written: {state}")
        return uploaded - start, time.monotonic() - uploaded

    @staticmethod
    def expect(status, response):
        found, _, body = response
        if found != status:
            raise RuntimeError(f"status {found} instead of {status}: {body.decode()}")


def check_flash(report, before, after, image, target):
    """Compares the flash before and after an upgrade: nothing but the partitions of the target set
    and the environment's variable has changed."""
    root, kernel = SETS[target]
    for name, content in ((root, image.root), (kernel, image.kernel)):
        report.check(after[name].startswith(content), f"{name} contains the section of the image")
        report.check(after[name][len(content):] == before[name][len(content):],
                     f"{name} is unchanged after the section")
    old, new = (machine.environment(flash[ENVIRONMENT]) for flash in (before, after))
    expected = {**old, b"bootparam": b"%d" % target}
    for letter, partitions in zip("ab", SETS):
        content = b"".join(after[each] for each in partitions)
        expected[f"firmware_{letter}".encode()] = hashlib.sha256(content).hexdigest().encode()
    report.check(new == expected, "bootparam and the hashes of both sets are right, and nothing else "
                 "has changed in the environment")
    for name in after:
        if name not in (root, kernel, ENVIRONMENT, SETTINGS):
            report.check(after[name] == before[name], f"{name} is unchanged")


@contextlib.contextmanager
def started(flash, port, report, expected_set):
    """Starts the board and logs in to the site."""
    console = machine.LogFile(machine.SYSTEM / "upgrade.log")
    with machine.Machine(flash, console, port=port, options="quiet") as board:
        seconds = board.wait_for_site(port)
        report.check(board.set == expected_set,
                     f"set {'AB'[expected_set]} boots (the site responds after {seconds:.0f} s)")
        site = Site(port)
        site.log_in()
        yield board, site


def run(report):
    port = free_port()
    with tempfile.TemporaryDirectory() as directory:
        flash = Flash(Path(directory) / "flash")
        machine.fill_factory_set(flash, VERSIONS[0])
        factory = flash.snapshot()
        running = 0
        for version in VERSIONS[1:]:
            image = Image(Path(directory), version)
            with started(flash, port, report, running) as (board, site):
                before = flash.snapshot()
                if running == 0:
                    check_first_start(report, factory, before)
                uploading, writing = site.upgrade(image)
                site.expect(200, site.post("upgrade", "action=restart"))
                report.check(board.wait(60), f"the system restarts ({image.path.stat().st_size} bytes "
                             f"uploaded in {uploading:.0f} s, written in {writing:.0f} s)")
            running = 1 - running
            check_flash(report, before, flash.snapshot(), image, running)
        with started(flash, port, report, running) as (_, site):
            state = site.upgrade_state()
            report.check((state["RUNNING"], state["VERSION_A"], state["VERSION_B"]) ==
                         ("A", VERSIONS[2], VERSIONS[1]), "the site shows the versions of both sets")
            check_system_page(report, site)
        check_fallback(report, flash, port)


def check_first_start(report, factory, started_once):
    """The first start writes the environment, and nothing over the firmware."""
    for name, content in started_once.items():
        if name not in (ENVIRONMENT, SETTINGS):
            report.check(content == factory[name], f"{name} is unchanged by the first start")
    report.check(machine.environment(started_once[ENVIRONMENT]), "the first start writes an environment")


def check_system_page(report, site):
    """The kernel has the flash, the processes and the host name that the page shows."""
    shown = json.loads(site.curl("system?Ajax=1")[2])
    running = {each["name"] for each in shown["services"] if each["state"] == "Running"}
    report.check(running == {"Web server", "Event log"}, "the system page shows what runs")
    sets = {each["device"]: each["set"] for each in shown["flash"]}
    report.check((len(sets), sets.get("mtdblock2"), sets.get("mtdblock4")) ==
                 (9, "A, running", "B, not running"), "the system page shows the flash")
    site.expect(303, site.post("device", "HOST_NAME=attic"))
    end = time.monotonic() + 60
    while not (found := b"<small>attic</small>" in site.curl("system")[2]) and time.monotonic() < end:
        time.sleep(0.2)
    report.check(found, "the host name takes effect")


def check_fallback(report, flash, port):
    """With a damaged set A, the boot loader starts set B."""
    root = SETS[0][0]
    damaged = bytearray(flash.read(root)[:4096])
    damaged[1000] ^= 1
    flash.write(root, damaged)
    with started(flash, port, report, 1) as (_, site):
        report.check(site.upgrade_state()["RUNNING"] == "B", "the site knows that set B runs")
    flash.write(SETS[1][1], b"damaged")
    try:
        machine.select_set(flash)
        report.check(False, "nothing boots if both sets are damaged")
    except machine.NothingBootsError:
        report.check(True, "nothing boots if both sets are damaged")


# --- In a browser -----------------------------------------------------------------------------------


def run_in_browser(report):
    """Upgrades from set A to B and back with Chromium."""
    sys.path[:0] = [str(ROOT / "tests"), str(ROOT / "tests/end-to-end")]
    os.environ.setdefault("CORVEL_BUILD", str(ROOT / "build/board"))
    from browser import Walk
    import browser_packages
    browser_packages.install()
    port = free_port()
    with tempfile.TemporaryDirectory() as directory:
        flash = Flash(Path(directory) / "flash")
        machine.fill_factory_set(flash, VERSIONS[0])
        images = [Image(Path(directory), version) for version in VERSIONS[1:]]
        with started(flash, port, report, 0) as (board, site):
            walk = Walk("both", site, *(image.path for image in images), PASSWORD=OWNER_PASSWORD)
            # QEMU ends when the board restarts; the walk waits for the site.
            report.check(board.wait(300), "the browser restarts the system after the first upgrade")
        with started(flash, port, report, 1) as (board, _):
            report.check(board.wait(300), "the browser restarts the system after the second upgrade")
        with started(flash, port, report, 0):
            seen = [(each["before"], each["after"]) for each in walk.result()["upgrades"]]
        expected = [f"Set {name} Running {version}" for name, version in zip("ABA", VERSIONS)]
        report.check(seen == list(zip(expected, expected[1:])), "the browser shows the running sets")
        after = flash.snapshot()
        for image, target in zip(images, (1, 0)):
            for name, content in zip(SETS[target], (image.root, image.kernel)):
                report.check(after[name].startswith(content), f"{name} contains the section of the image")
