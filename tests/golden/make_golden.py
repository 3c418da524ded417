#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Writes the golden files of this folder, from the layout of the formats and zlib's CRC alone.

usage: make_golden.py [FOLDER]      the default is the folder of this script

environment.head         the CRC word and the list of an environment image whose free space is
                         erased flash (0xFF up to byte 65535)
environment.txt          its variables, as they are listed
environment-edited.head  the image after "bootdelay" was deleted, "bootargs" and then "bootparam" set
upgrade.img              an upgrade image: boot loader, an unknown section, root file system, kernel,
                         version
upgrade-set-*.txt        what it asks to be written while set A or set B runs: staging name, offset of
                         the bytes, length, burn address, block device, its index before the shift
"""

import struct
import sys
import zlib
from pathlib import Path

ENVIRONMENT_SIZE = 65536


def environment(entries):
    text = b"".join(f"{name}={value}".encode("latin-1") + b"\0" for name, value in entries) + b"\0"
    data = text.ljust(ENVIRONMENT_SIZE - 4, b"\xff")
    return struct.pack(">I", zlib.crc32(data)) + text, data


def edited(entries):
    """Setting a variable deletes it and puts it at the end; the bytes left over stay as they are."""
    _, data = environment(entries)
    data = bytearray(data)
    current = list(entries)

    def write(entries_now):
        text = b"".join(f"{n}={v}".encode("latin-1") + b"\0" for n, v in entries_now) + b"\0"
        data[: len(text)] = text

    def delete(name):
        current[:] = [entry for entry in current if entry[0] != name]
        write(current)

    def put(name, value):
        delete(name)
        current.append((name, value))
        write(current)

    delete("bootdelay")
    put("bootargs", "console=ttyS0,115200 root=31:4 rootfstype=squashfs init=/sbin/init")
    put("bootparam", "1")
    used = len(bytes(data).rstrip(b"\xff"))
    return struct.pack(">I", zlib.crc32(bytes(data))) + bytes(data[:used])


def section(signature, burn_address, data, padding=b"", mtd_id=0):
    payload = data + padding
    payload += bytes([-sum(payload) % 256])
    return struct.pack(">4sIIII", signature, burn_address, mtd_id, len(padding), len(payload)) + payload


def version_section(text):
    return struct.pack(">4sIIII", b"Ver0", 0, 255, 0, len(text) + 4) + text


def upgrade():
    pieces = [
        ("Boot", section(b"boot", 0xBFC00000, bytes(range(256)), b"\xff" * 3, 0), 256, 0xBFC00000, 0),
        (None, section(b"????", 1, b"skipped", b"", 7), 0, 0, 0),
        ("Rootfs", section(b"root", 0x9F050000, b"a root file system" * 9, b"\0" * 14, 2), 162, 0, 2),
        ("Linux_kernel", section(b"kern", 0x9F6A0000, b"\x80\xff\0kernel", b"", 3), 9, 0, 3),
    ]
    image = b""
    records = []
    for name, piece, length, burn, device in pieces:
        if name:
            records.append((name, len(image) + 20, length, burn, device))
        image += piece
    version = version_section(b"1.2.3 golden")
    records.append(("Ver0", len(image), len(version) + 4, 0, 255))
    image += version
    return image + struct.pack(">I", zlib.crc32(image)), records


def record_lines(records, shift):
    lines = []
    for name, offset, length, burn, base in records:
        device = base + shift if name in ("Rootfs", "Linux_kernel") else base
        lines.append(
            f"/tmp/firmware/{name}.bin {offset} {length} 0x{burn:08x} /dev/mtdblock{device} {base}\n"
        )
    return "".join(lines)


def main():
    folder = Path(sys.argv[1] if len(sys.argv) > 1 else Path(__file__).parent)
    entries = [
        ("bootcmd", "bootm 0x9f6a0000"),
        ("bootdelay", "1"),
        ("bootargs", "console=ttyS0,115200 root=31:2 rootfstype=squashfs"),
        ("ethaddr", "00:11:22:33:44:55"),
        ("latin", "\xe9\x80\xff"),
        ("empty", ""),
        ("bootparam", "0"),
    ]
    (folder / "environment.head").write_bytes(environment(entries)[0])
    (folder / "environment.txt").write_bytes(
        "".join(f"{name}={value}\n" for name, value in entries).encode("latin-1")
    )
    (folder / "environment-edited.head").write_bytes(edited(entries))
    image, records = upgrade()
    (folder / "upgrade.img").write_bytes(image)
    (folder / "upgrade-set-a.txt").write_text(record_lines(records, 2))
    (folder / "upgrade-set-b.txt").write_text(record_lines(records, 0))


if __name__ == "__main__":
    main()
