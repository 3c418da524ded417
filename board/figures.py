# SPDX-License-Identifier: MIT
"""Counts the instructions and the memory of jobs on the board.

With QEMU's option -icount, the machine's time is the number of its instructions: the processor's
counter, which a process can read, then counts them. Each job is a process, counted from its start to
its end, the kernel's instructions included. It runs several times; the smallest count is that in
which no timer or service has interrupted it.
"""
import sys
import tempfile
from pathlib import Path

import machine
from flash import Flash, ROOT
from upgrades import Site, VERSIONS, free_port

sys.path.append(str(ROOT / "tests/end-to-end"))

from upgrade_image import large_image  # noqa: E402

# An instruction takes 2^3 ns; the counter has 160 MHz.
SHIFT = 3
TICK_NS = 6.25
RUNS = 15
IMAGE_SIZE = 15 << 20

JOB = "/usr/sbin/job"
IMAGE = "/tmp/image"
FILE = "/tmp/settings"
# The job, its command with the library, and the command that does the same without the library.
JOBS = (
    ("start and end of a process", f"{JOB} nothing", None),
    ("CRC of a file of 15 MiB", f"{JOB} crc {IMAGE}", f"{JOB} crc_alone {IMAGE}"),
    ("check of an image of 15 MiB", f"{JOB} check {IMAGE}", None),
    ("form with 100 fields", f"{JOB} form 100", f"{JOB} form_alone 100"),
    ("JSON with 100 fields", f"{JOB} json 100", f"{JOB} json_alone 100"),
    ("save_prop() of a setting", f"{JOB} save_prop {FILE} LAN_ADDRESS 192.168.2.1",
     f"/usr/bin/sed -i s/^LAN_ADDRESS=.*/LAN_ADDRESS=192.168.2.1/ {FILE}"),
    ("corvel_settings_save() of a setting", f"{JOB} settings_save {FILE} LAN_ADDRESS NEW", None),
    ("the demo's settings page", "/www/cgi-bin/device", None),
)


def measure(console, command):
    """Returns the instructions and the peak memory in KiB."""
    counts = []
    for run in range(RUNS):
        words = command.replace("NEW", f"192.168.3.{run + 1}")
        status, output = console.run(f"{JOB} measure {words} 3>&1 >/dev/null 2>&3 </dev/null", 300)
        if status != 0:
            raise RuntimeError(f"{command}: status {status}: {output}")
        ticks, memory = output.split()[-2:]
        counts.append((round(int(ticks) * TICK_NS / 2 ** SHIFT), int(memory)))
    return min(counts)


def rounded(count):
    """Returns a number with its two most significant digits, which are the same in every run."""
    unit = 10 ** max(len(str(count)) - 2, 0)
    return (count + unit // 2) // unit * unit


def run(report):
    with tempfile.TemporaryDirectory() as name:
        directory = Path(name)
        flash = Flash(directory / "flash")
        machine.fill_factory_set(flash, VERSIONS[0])
        (directory / "image").write_bytes(large_image(VERSIONS[1], IMAGE_SIZE)[1])
        port = free_port()
        console = machine.Console(machine.SYSTEM / "figures.log")
        with machine.Machine(flash, console, port=port, options="quiet norandmaps", share=directory,
                             more=("-icount", f"shift={SHIFT},sleep=on", "-rtc",
                                   "base=2026-01-01,clock=vm")) as board:
            board.wait_for_site(port, 300)
            site = Site(port)
            site.log_in()
            prepare(console, site)
            for title, *commands in JOBS:
                show(title, *(command and measure(console, command) for command in commands))
    report.check(True, "the jobs are counted")


def prepare(console, site):
    for command in (
            "mount -t 9p -o trans=virtio,version=9p2000.L host /mnt/host", f"cp /mnt/host/image {IMAGE}",
            "umount /mnt/host", f"cp /etc/config/lan.conf {FILE}",
            "export REQUEST_METHOD=GET GATEWAY_INTERFACE=CGI/1.1 SCRIPT_NAME=/cgi-bin/device "
            f"REMOTE_ADDR=203.0.113.1 HTTP_HOST=127.0.0.1 HTTP_COOKIE=session={site.session}"):
        if console.run(command)[0] != 0:
            raise RuntimeError(f"failed: {command}")
    if 'name="CONTACT"' not in console.run("/www/cgi-bin/device")[1]:
        raise RuntimeError("the settings page is not shown")


def show(title, library, alone):
    count, memory = library
    print(f"{title:36} {rounded(count):12,} instructions {memory:6} KiB" +
          (f"   without the library {rounded(alone[0]):12,} {alone[1]:6} KiB" if alone else ""),
          flush=True)
