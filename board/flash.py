#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""The board's flash: two files of the host, with the partitions of the library's own table.

usage: board/flash.py command-line       prints the kernel's options for the partitions

The Malta's own NOR flash has 4 MiB; the first partitions are in it, at their offsets. The others are
on a disk that the kernel presents as flash with small erase blocks.
"""
import re
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
TABLE = ROOT / "firmware/image_format.h"

ERASED = b"\xff"
NOR_SIZE = 4 << 20
NOR_DEVICE = "1e000000.flash"
IN_NOR = ("Boot", "Boot-env")
DISK_DEVICE = "flash"
ERASE_BLOCK = 4096

ENVIRONMENT = "Boot-env"
# The partitions of each set: root file system, kernel.
SETS = (("Rootfs", "Linux_kernel"), ("Rootfs-1", "Linux_kernel-1"))


class Partition:
    def __init__(self, name, size, offset, number):
        self.name, self.size, self.offset, self.number = name, size, offset, number


def read_table():
    """Returns the partitions, in the order of their numbers, from the library's source."""
    rows = re.findall(r'\{"....", "([\w-]+)", \d+, \d+, \d+, (0x[0-9a-f]+), (0x[0-9a-f]+), (\d+)\}',
                      TABLE.read_text())
    partitions = [Partition(name, int(size, 16), int(offset, 16), int(number))
                  for name, size, offset, number in rows]
    end = 0
    for number, partition in enumerate(partitions):
        if (partition.number, partition.offset) != (number, end):
            raise ValueError(f"{TABLE}: {partition.name} does not follow the previous partition")
        end += partition.size
    if len(partitions) != 9:
        raise ValueError(f"{TABLE}: {len(partitions)} partitions instead of 9")
    return partitions


PARTITIONS = read_table()
BY_NAME = {partition.name: partition for partition in PARTITIONS}
DISK_OFFSET = sum(BY_NAME[name].size for name in IN_NOR)
DISK_SIZE = sum(partition.size for partition in PARTITIONS) - DISK_OFFSET


def mtd_parts():
    def listed(on_nor):
        return ",".join(f"{p.size:#x}({p.name})" for p in PARTITIONS if (p.name in IN_NOR) == on_nor)

    return f"mtdparts={NOR_DEVICE}:{listed(True)};{DISK_DEVICE}:{listed(False)}"


def command_line():
    return f"block2mtd.block2mtd=/dev/vda,{ERASE_BLOCK},{DISK_DEVICE} {mtd_parts()}"


class Flash:
    """The two files, in a directory."""

    def __init__(self, directory):
        self.nor = Path(directory) / "nor.img"
        self.disk = Path(directory) / "disk.img"

    def exists(self):
        return self.nor.exists() and self.disk.exists()

    def erase(self):
        """Creates the flash of a new board."""
        self.nor.parent.mkdir(parents=True, exist_ok=True)
        self.nor.write_bytes(ERASED * NOR_SIZE)
        self.disk.write_bytes(ERASED * DISK_SIZE)

    def _place(self, name):
        partition = BY_NAME[name]
        if name in IN_NOR:
            return self.nor, partition.offset
        return self.disk, partition.offset - DISK_OFFSET

    def read(self, name):
        path, offset = self._place(name)
        with path.open("rb") as file:
            file.seek(offset)
            return file.read(BY_NAME[name].size)

    def write(self, name, content, offset=0):
        """Writes to a partition; the rest of the partition stays as it is."""
        if offset + len(content) > BY_NAME[name].size:
            raise ValueError(f"{len(content)} bytes do not fit into {name}")
        path, start = self._place(name)
        with path.open("r+b") as file:
            file.seek(start + offset)
            file.write(content)

    def snapshot(self):
        return {partition.name: self.read(partition.name) for partition in PARTITIONS}


if __name__ == "__main__":
    if sys.argv[1:] != ["command-line"]:
        sys.exit(__doc__)
    print(command_line())
