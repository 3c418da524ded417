# SPDX-License-Identifier: MIT
"""Installs the packages of browser.js."""

import pathlib
import shutil
import subprocess

HERE = pathlib.Path(__file__).resolve().parent
DIRECTORY = HERE.parents[1] / "build" / "end-to-end"
MODULES = DIRECTORY / "node_modules"


def install():
    """Installs the locked packages unless they are installed."""
    installed = DIRECTORY / "package-lock.json"
    locked = HERE / "package-lock.json"
    if installed.exists() and installed.read_bytes() == locked.read_bytes():
        return
    if not shutil.which("npm"):
        raise SystemExit("npm is not installed: apt-get install npm")
    shutil.rmtree(DIRECTORY, ignore_errors=True)
    DIRECTORY.mkdir(parents=True)
    shutil.copy(HERE / "package.json", DIRECTORY)
    # The lock file is copied last: its presence shows that the installation is complete.
    shutil.copy(locked, DIRECTORY / "npm-shrinkwrap.json")
    subprocess.run(["npm", "ci", "--ignore-scripts", "--no-audit", "--no-fund"], cwd=DIRECTORY,
                   check=True, stdin=subprocess.DEVNULL)
    shutil.copy(locked, installed)


if __name__ == "__main__":
    install()
