# SPDX-License-Identifier: MIT
"""Runs the walks of browser.js."""

import json
import os
import pathlib
import shutil
import signal
import subprocess
import tempfile

from browser_packages import HERE, MODULES
from device import OWNER_PASSWORD


class Walk:
    """A walk through the pages of a running demo, in its own browser that is logged in."""

    def __init__(self, name, demo, *arguments, logged_in=True, **environment):
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="corvel-browser-"))
        command = ["setpriv", "--pdeathsig", "KILL", "node", HERE / "browser.js", name,
                   f"http://127.0.0.1:{demo.port}", self.directory, *arguments]
        self.process = subprocess.Popen(
            [str(word) for word in command], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, text=True, start_new_session=True,
            env={**os.environ, "NODE_PATH": str(MODULES), "HOME": str(self.directory),
                 "SESSION": demo.session if logged_in else "", "PASSWORD": OWNER_PASSWORD,
                 **environment})

    def line(self):
        """Returns the next line that the walk prints."""
        return self.process.stdout.readline().strip()

    def result(self):
        """Waits for the end of the walk and returns its observations."""
        try:
            output, errors = self.process.communicate(timeout=300)
        finally:
            self.stop()
        if self.process.returncode != 0:
            raise AssertionError(errors)
        return json.loads(output.splitlines()[-1])

    def stop(self):
        if self.process.poll() is None:
            os.killpg(self.process.pid, signal.SIGKILL)
            self.process.communicate()
        shutil.rmtree(self.directory, ignore_errors=True)
