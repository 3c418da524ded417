# SPDX-License-Identifier: MIT
"""Runs the walks of browser.js, and installs what they need."""

import json
import os
import pathlib
import shutil
import signal
import subprocess
import tempfile

from device import FACTORY_PASSWORD, SOURCE

HERE = pathlib.Path(__file__).resolve().parent
FOLDER = SOURCE / "build" / "end-to-end"


def install():
    """Installs the locked packages, unless they are there."""
    installed = FOLDER / "package-lock.json"
    locked = HERE / "package-lock.json"
    if installed.exists() and installed.read_bytes() == locked.read_bytes():
        return
    if not shutil.which("npm"):
        raise SystemExit("npm is not installed: apt-get install npm")
    shutil.rmtree(FOLDER, ignore_errors=True)
    FOLDER.mkdir(parents=True)
    shutil.copy(HERE / "package.json", FOLDER)
    # The copy of the lock comes last: it says that all is there.
    shutil.copy(locked, FOLDER / "npm-shrinkwrap.json")
    subprocess.run(["npm", "ci", "--ignore-scripts", "--no-audit", "--no-fund"], cwd=FOLDER,
                   check=True, stdin=subprocess.DEVNULL)
    shutil.copy(locked, installed)


class Walk:
    """A walk through the pages of a running demo, in a browser of its own that has logged in."""

    def __init__(self, name, demo, *arguments, logged_in=True, **environment):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="corvel-browser-"))
        command = ["setpriv", "--pdeathsig", "KILL", "node", HERE / "browser.js", name,
                   f"http://127.0.0.1:{demo.port}", self.folder, *arguments]
        self.process = subprocess.Popen(
            [str(word) for word in command], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, text=True, start_new_session=True,
            env={**os.environ, "NODE_PATH": str(FOLDER / "node_modules"), "HOME": str(self.folder),
                 "SESSION": demo.session if logged_in else "", "PASSWORD": FACTORY_PASSWORD,
                 **environment})

    def line(self):
        """The next line that the walk prints."""
        return self.process.stdout.readline().strip()

    def result(self):
        """Waits for the end of the walk; gives back what it has seen."""
        try:
            output, errors = self.process.communicate(timeout=120)
        finally:
            self.stop()
        if self.process.returncode != 0:
            raise AssertionError(errors)
        return json.loads(output.splitlines()[-1])

    def stop(self):
        if self.process.poll() is None:
            os.killpg(self.process.pid, signal.SIGKILL)
            self.process.communicate()
        shutil.rmtree(self.folder, ignore_errors=True)
