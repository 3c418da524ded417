# SPDX-License-Identifier: MIT
"""Runs the guide's program that lists leases in a private root, with the files of a udhcpd."""
import json
import os
import shutil
import struct
import subprocess

import pytest

HOST = bytes.fromhex("aabbccddee01"), bytes([192, 168, 1, 10])
KNOWN = HOST[0].ljust(16, b"\0") + HOST[1] + struct.pack(">I", 3600)
ROW = {"ip": "192.168.1.10", "mac": "AA:BB:CC:DD:EE:01", "name": "", "left": "3600"}


def current(count):
    """Returns the file that a current udhcpd writes: the time, then leases of 36 bytes."""
    lease = struct.pack(">I4s6s20sxx", 3600, HOST[1], HOST[0], b"laptop")
    return struct.pack(">q", 1_700_000_000) + count * lease


# Name: (pid file, lease file, expected rows).
CASES = {
    "the supported layout": ("99999\n", 2 * KNOWN, [ROW, ROW]),
    "an empty file": ("99999\n", b"", []),
    "a file of another layout, without leases": ("99999\n", current(0), []),
    "a file of another layout": ("99999\n", current(2), []),
    "many leases of another layout": ("99999\n", current(50), []),
    "process 1": ("1\n", KNOWN, []),
}


def rows(root, program, process, leases):
    (root / "var/run").mkdir(parents=True)
    (root / "var/config").mkdir()
    shutil.copy(program, root / "hosts")
    (root / "var/run/udhcpd.pid").write_text(process)
    (root / "var/config/udhcpd.leases").write_bytes(leases)
    # In its own process namespace the program cannot signal any other process.
    user = [] if os.geteuid() == 0 else ["--map-root-user"]
    done = subprocess.run(["unshare", *user, "--pid", "--fork", "chroot", root, "/hosts"],
                          stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=60)
    return json.loads(done.stdout.partition("\n\n")[2])


@pytest.mark.parametrize("process, leases, expected", CASES.values(), ids=CASES)
def test_leases(process, leases, expected, new_directory, static_program):
    assert rows(new_directory, static_program("hosts"), process, leases) == expected
