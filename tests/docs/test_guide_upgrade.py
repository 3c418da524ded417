# SPDX-License-Identifier: MIT
"""Runs the guide's upgrade program on devices of plain files, in a private root.

After each run a model of the boot loader starts the device: it reads `bootparam` from the
environment if its CRC is correct, and starts set A otherwise. The root file system and the kernel
of the started set must have the same version. The program is also killed at each of its system
calls that open or write a file. A complete set must then boot, unless none booted before and no set
has been changed.
"""
import os
import shutil
import struct
import subprocess
import zlib

import pytest

UPGRADED, REFUSED, NOT_WRITTEN = range(3)
WORDS = ("upgraded", "refused", "not written")
ROOT_SIZE, KERNEL_SIZE, PAGE = 0x650000, 0x100000, 4096


# --- Environments and images --------------------------------------------------------------------

def environment(*variables, good_crc=True):
    data = b"".join(each + b"\0" for each in variables) + b"\0"
    data = data.ljust(65532, b"\0")
    return struct.pack(">I", zlib.crc32(data) ^ (0 if good_crc else 1)) + data


def section(signature, data, unchecked=False):
    payload = data + bytes([-sum(data) & 255])
    return signature + struct.pack(">IIII", 0, 255 if unchecked else 2, 0, len(payload)) + payload


def image(*sections):
    data = b"".join(sections) + b"Ver0" + struct.pack(">IIII", 0, 255, 0, 8) + b"2.0\0"
    return data + struct.pack(">I", zlib.crc32(data))


ROOT, KERNEL = section(b"root", b"root new"), section(b"kern", b"kern new")
ROOT_B, KERNEL_B = section(b"rfs1", b"root new"), section(b"knl1", b"kern new")
NEW = image(ROOT, KERNEL)
A_BOOTS, B_BOOTS = environment(b"bootparam=0"), environment(b"bootparam=1")
DAMAGED_A = environment(b"bootparam=0", good_crc=False)
DAMAGED_B = environment(b"bootparam=1", good_crc=False)
WITHOUT = environment(b"bootdelay=1")


def line(partition, rest=""):
    return f"console=ttyS0 root=31:{partition} rootfstype=squashfs{rest}\n"


# --- A device -----------------------------------------------------------------------------------

class Device:
    """A flash whose running set has the version "old"; the other set is erased."""

    def __init__(self, directory, program, running, environment_image, command_line):
        self.root = directory / "device"
        shutil.rmtree(self.root, ignore_errors=True)
        (self.root / "dev").mkdir(parents=True)
        (self.root / "proc").mkdir()
        shutil.copy(program, self.root / "upgrade")
        (self.root / "dev/null").touch()
        for number in range(9):
            self.partition(number).write_bytes(b"\xff" * PAGE)
        self.partition(1).write_bytes(environment_image)
        self.write(2 + 2 * running, b"root old")
        self.write(3 + 2 * running, b"kern old")
        if command_line is not None:
            (self.root / "proc/cmdline").write_text(command_line)
        self.before = self.contents()

    def partition(self, number):
        return self.root / f"dev/mtdblock{number}"

    def write(self, number, data):
        self.partition(number).write_bytes(data.ljust(PAGE, b"\xff"))

    def contents(self):
        return [self.partition(number).read_bytes() for number in range(9)]

    def upgrade(self, image_bytes, wrapper=()):
        """Runs the program and returns its exit status."""
        root = ["chroot"] if os.geteuid() == 0 else ["unshare", "--map-root-user", "chroot"]
        done = subprocess.run([*wrapper, *root, self.root, "/upgrade"], input=image_bytes,
                              capture_output=True, timeout=60)
        assert not done.stdout, done.stdout
        return done.returncode

    def booted(self):
        """Returns the set that boots and its version, which is None if the set is incomplete."""
        stored = self.partition(1).read_bytes()
        number = 0
        if len(stored) == 65536 and struct.unpack(">I", stored[:4])[0] == zlib.crc32(stored[4:]):
            for entry in stored[4:].split(b"\0\0")[0].split(b"\0"):
                if entry.startswith(b"bootparam="):
                    number = int(entry[10:]) % 2
                    break
        root, kernel = (self.partition(2 + 2 * number + half).read_bytes()[:8] for half in (0, 1))
        for version in (b"old", b"new"):
            if (root, kernel) == (b"root " + version, b"kern " + version):
                return "AB"[number], version.decode()
        return "AB"[number], None


# --- The cases ----------------------------------------------------------------------------------

A, B = 0, 1
STARTS_NEW_A, STARTS_NEW_B = ("A", "new"), ("B", "new")

# Name: (running set, environment, image, command line, outcome, set and version that boot
# afterwards; None for the running set). A refused upgrade must leave the flash unchanged.
CASES = {
    "a valid environment": (A, A_BOOTS, NEW, line(2), UPGRADED, STARTS_NEW_B),
    "an environment with a wrong CRC": (A, DAMAGED_A, NEW, line(2), UPGRADED, STARTS_NEW_B),
    "an environment without bootparam": (A, WITHOUT, NEW, line(2), UPGRADED, STARTS_NEW_B),
    "a negative bootparam": (A, environment(b"bootparam=-1"), NEW, line(2), UPGRADED, STARTS_NEW_B),
    "B is running, an image for set B": (B, B_BOOTS, image(ROOT_B, KERNEL_B), line(4), REFUSED,
                                         None),
    "A is running, an image of rfs1 and kern": (A, A_BOOTS, image(ROOT_B, KERNEL), line(2),
                                                UPGRADED, STARTS_NEW_B),
    "B is running, an image of rfs1 and kern": (B, B_BOOTS, image(ROOT_B, KERNEL), line(4),
                                                REFUSED, None),
    "only a root file system": (A, A_BOOTS, image(ROOT), line(2), REFUSED, None),
    "only a log": (A, A_BOOTS, image(section(b"log0", b"log")), line(2), REFUSED, None),
    "an image with a boot environment": (A, A_BOOTS, image(section(b"benv", B_BOOTS), ROOT, KERNEL),
                                         line(2), REFUSED, None),

    "B is running": (B, B_BOOTS, NEW, line(4), UPGRADED, STARTS_NEW_A),
    "B is running, a wrong CRC": (B, DAMAGED_B, NEW, line(4), UPGRADED, STARTS_NEW_A),
    "B is running, no bootparam": (B, WITHOUT, NEW, line(4), UPGRADED, STARTS_NEW_A),
    "a device path as the root": (B, B_BOOTS, NEW, "ro root=/dev/mtdblock4\n", UPGRADED,
                                  STARTS_NEW_A),
    "the last of two root parameters": (B, B_BOOTS, NEW, line(2, " root=31:4"), UPGRADED,
                                        STARTS_NEW_A),
    "a root parameter in a quoted value": (B, B_BOOTS, NEW, line(4, ' x="y root=31:2 z"'), UPGRADED,
                                 STARTS_NEW_A),
    "a root parameter for the init program": (B, B_BOOTS, NEW, line(4, " -- root=31:2"), UPGRADED,
                                     STARTS_NEW_A),
    "a long command line": (B, DAMAGED_B, NEW, "x" * 4000 + " " + line(4), UPGRADED, STARTS_NEW_A),
    "no command line": (B, B_BOOTS, NEW, None, UPGRADED, STARTS_NEW_A),
    "another root": (B, B_BOOTS, NEW, "root=/dev/nfs\n", UPGRADED, STARTS_NEW_A),
    "neither a command line nor bootparam": (A, WITHOUT, NEW, "quiet\n", REFUSED, None),
    "a command line that contradicts bootparam": (A, B_BOOTS, NEW, line(2), REFUSED, None),
    "an erased environment": (A, b"\xff" * 65536, NEW, line(2), REFUSED, None),
    "a short environment": (A, A_BOOTS[:65535], NEW, line(2), REFUSED, None),
    "an environment that is not a list": (A, b"noise" + bytes(65531), NEW, line(2), REFUSED, None),
    "no variables and a wrong CRC": (A, environment(good_crc=False), NEW, line(2), REFUSED, None),
    "only a kernel": (A, A_BOOTS, image(KERNEL), line(2), REFUSED, None),
    "only a version": (A, A_BOOTS, image(), line(2), REFUSED, None),
    "no version": (A, A_BOOTS, ROOT + KERNEL, line(2), REFUSED, None),
    "a root file system twice": (A, A_BOOTS, image(ROOT, ROOT), line(2), REFUSED, None),
    "the root file systems of both sets": (A, A_BOOTS, image(ROOT, ROOT_B), line(2), REFUSED, None),
    "an empty kernel": (A, A_BOOTS, image(ROOT, section(b"kern", b"")), line(2), REFUSED, None),
    "an unverified root file system that is too large": (
        A, A_BOOTS, image(section(b"root", bytes(ROOT_SIZE + 1), True), KERNEL), line(2), REFUSED,
        None),
    "an unverified kernel that is too large": (
        A, A_BOOTS, image(ROOT, section(b"kern", bytes(KERNEL_SIZE + 1), True)), line(2), REFUSED,
        None),
    "a boot loader": (A, A_BOOTS, image(section(b"boot", b"boot"), ROOT, KERNEL), line(2), REFUSED,
                      None),
    "a damaged image": (A, A_BOOTS, NEW[:-1] + b"?", line(2), REFUSED, None),
    "a truncated image": (A, A_BOOTS, NEW[:50], line(2), REFUSED, None),
    "no image": (A, A_BOOTS, b"", line(2), REFUSED, None),
}


@pytest.fixture
def device(new_directory, static_program):
    """A function that returns a new device, instead of the one before."""
    return lambda *arguments: Device(new_directory, static_program("upgrade"), *arguments)


@pytest.mark.parametrize("case", CASES.values(), ids=CASES)
def test_upgrade(case, device):
    running, environment_image, image_bytes, command_line, outcome, boots = case
    upgraded = device(running, environment_image, command_line)
    expected = boots or upgraded.booted()
    assert WORDS[upgraded.upgrade(image_bytes)] == WORDS[outcome]
    if outcome == REFUSED:
        assert upgraded.contents() == upgraded.before
    assert upgraded.booted() == expected


def test_the_running_set_boots_if_a_partition_cannot_be_written(device):
    upgraded = device(A, A_BOOTS, line(2))
    upgraded.partition(5).unlink()
    upgraded.partition(5).symlink_to("/dev/missing")
    assert (upgraded.upgrade(NEW), upgraded.booted()) == (NOT_WRITTEN, ("A", "old"))


def test_a_second_upgrade_before_the_restart_is_refused(device):
    """It would overwrite the running set."""
    upgraded = device(A, A_BOOTS, line(2))
    assert (upgraded.upgrade(NEW), upgraded.upgrade(NEW)) == (UPGRADED, REFUSED)
    assert upgraded.booted() == STARTS_NEW_B


def test_an_upgrade_is_refused_while_another_one_holds_the_lock(device):
    upgraded = device(A, A_BOOTS, line(2))
    assert upgraded.upgrade(NEW, ["flock", upgraded.partition(1)]) == REFUSED
    assert upgraded.contents() == upgraded.before


KILLED = {"A is running": (A, A_BOOTS), "B is running": (B, B_BOOTS),
          "A is running, a wrong CRC": (A, DAMAGED_A),
          "B is running, a wrong CRC": (B, DAMAGED_B),
          "B is running, no bootparam": (B, WITHOUT)}


@pytest.mark.parametrize("call", ("openat", "write"))
@pytest.mark.parametrize("running, environment_image", KILLED.values(), ids=KILLED)
def test_a_complete_set_boots_after_a_kill_at_any_call(running, environment_image, call, device):
    for number in range(1, 1000):
        upgraded = device(running, environment_image, line(2 + 2 * running))
        booted_before = upgraded.booted()[1] is not None
        status = upgraded.upgrade(NEW, ["strace", "-f", "-qq", "-o", os.devnull, "-e",
                                        f"inject={call}:signal=KILL:when={number}"])
        touched = upgraded.contents()[2:6] != upgraded.before[2:6]
        if booted_before or touched:
            assert upgraded.booted()[1] is not None, f"killed at {call} {number}"
        if status == UPGRADED:
            assert number > 2, f"only {number - 1} calls"
            return
    pytest.fail("more calls than expected")
