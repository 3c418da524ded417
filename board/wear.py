# SPDX-License-Identifier: MIT
"""Counts what scenes erase and write at the flash, and checks that what changes nothing writes
nothing."""
import tempfile
from pathlib import Path

import cuts
import machine
from flash import DISK_OFFSET, ERASE_BLOCK, Flash, PARTITIONS
from scenes import Scene, ServedFlash
from upgrades import VERSIONS, free_port

NOR_BLOCK = 65536


def partition_of(write):
    """Returns the name of the partition that a write is in."""
    offset = write.offset + (DISK_OFFSET if write.drive == "disk" else 0)
    return next(p.name for p in PARTITIONS if p.offset <= offset < p.offset + p.size)


def changed_bytes(before, after):
    return sum(old != new for name in ("nor", "disk")
               for old, new in zip(getattr(before, name).read_bytes(), getattr(after, name).read_bytes()))


def written_bytes(start, writes):
    """Returns the number of bytes that the kernel's driver was given. The disk is written in blocks,
    of which the driver has changed a part, and QEMU writes the NOR flash in blocks, too."""
    content = {name: bytearray(getattr(start, name).read_bytes()) for name in ("nor", "disk")}
    count = 0
    for write in writes:
        drive, end = content[write.drive], write.offset + len(write.content)
        old = bytes(drive[write.offset:end])
        if not write.erases and old != write.content:
            differences = [i for i in range(len(old)) if old[i] != write.content[i]]
            count += differences[-1] + 1 - differences[0]
        drive[write.offset:end] = write.content
    return count


def show(trials):
    """Prints what a scene has written."""
    start, end = Flash(trials.directory), Flash(trials.directory / "complete")
    writes, changed = trials.journal, changed_bytes(start, end)
    for name in sorted({partition_of(write) for write in writes}):
        own = [write for write in writes if partition_of(write) == name]
        erased = [write for write in own if write.erases]
        size = NOR_BLOCK if own[0].drive == "nor" else ERASE_BLOCK
        print(f"{trials.scene.name:14} {name:15} {len(own) - len(erased):6} writes "
              f"{len(erased):5} erases of {size:5} bytes")
    written = written_bytes(start, writes)
    print(f"{trials.scene.name:14} {written} bytes written, {changed} changed, "
          f"{written / max(changed, 1):.1f} times as many", flush=True)


def same_page(_board, site):
    site.post("device", "CONTACT=")


def run(report):
    cuts.discard_outdated()
    with tempfile.TemporaryDirectory(dir=machine.SYSTEM) as directory:
        for cut in cuts.all_cuts(Path(directory)):
            show(cuts.Trials(cut, cuts.DIRECTORY))
        check_same_settings(report, directory)
        check_second_start(report, directory)


def check_same_settings(report, directory):
    scene = Scene("same-settings", same_page)
    scene.prepare(directory)
    again = Path(directory) / "again"
    again.mkdir()
    flash = scene.flash(again)
    scene.play(flash)
    report.check(flash.count_writes() == 0, "a page that is saved unchanged writes nothing")


def check_second_start(report, directory):
    """The flash file system may complete what it has begun, in its own partition."""
    flash = ServedFlash(Path(directory) / "starts")
    machine.fill_factory_set(flash, VERSIONS[0])
    for _ in range(2):
        port = free_port()
        console = machine.LogFile(machine.SYSTEM / "wear.log")
        with flash.served() as drives, machine.Machine(flash, console, port=port, options="quiet",
                                                       drives=drives) as board:
            board.wait_for_site(port)
            flash.wait_until_quiet()
    others = {partition_of(write) for write in flash.writes()} - {"Config"}
    report.check(not others, "the second start writes nothing over the firmware and the environment")
