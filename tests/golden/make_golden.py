#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Writes the golden files, only from the layout of the formats and zlib's CRC.

usage: make_golden.py [DIRECTORY]   by default, the directory of this script

environment.head         the CRC word and the variables of an environment image; the rest of its 65536
                         bytes is erased flash (0xFF)
environment.txt          its variables, one on each line
environment-edited.head  the image after "bootdelay" was deleted and "bootargs" and "bootparam" were set
upgrade.img              an upgrade image: boot loader, an unknown section, root file system, kernel,
                         version
upgrade-set-*.txt        what must be written if set A or set B is running: staging file, offset of the
                         bytes, length, burn address, block device, its index in the image
leases.bin               a binary DHCP lease file with empty slots and an incomplete last record
leases.txt               its leases: IP address, hardware address, expiry
leases-every-slot.txt    the same for every complete record, including empty slots
crc32.bin                bytes
crc32.txt                ranges of these bytes and their CRC-32: offset, length, word
crc32.words              only the words, in big-endian byte order as in the formats
trap-*-endian.bin        the netlink message that process 0x01020304 sends for the record of bytes
                         0 to 155, for each byte order of the processor
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
    """Setting a variable deletes and appends it; the bytes after the list remain unchanged."""
    _, data = environment(entries)
    data = bytearray(data)
    current = list(entries)

    def write(entries_now):
        text = b"".join(f"{n}={v}".encode("latin-1") + b"\0" for n, v in entries_now) + b"\0"
        data[: len(text)] = text

    def delete(name):
        current[:] = [entry for entry in current if entry[0] != name]
        write(current)

    def set_variable(name, value):
        delete(name)
        current.append((name, value))
        write(current)

    delete("bootdelay")
    set_variable("bootargs", "console=ttyS0,115200 root=31:4 rootfstype=squashfs init=/sbin/init")
    set_variable("bootparam", "1")
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


def leases():
    """A slot is empty if its hardware address is zeros; the bytes after the address are unused."""
    slots = [
        ("00 1a bc ff 0f 09", b"\0" * 10, (192, 168, 1, 10), 3600),
        ("00 00 00 00 00 00", b"\0" * 10, (0, 0, 0, 0), 0),
        ("02 80 7f 00 00 01", b"\xff" * 10, (10, 0, 0, 1), 0),
        ("00 11 22 aa bb cc", b"\0" * 10, (192, 168, 1, 255), 1),
        ("00 00 00 00 00 00", b"?" * 10, (10, 0, 0, 2), 60),
        ("80 00 00 00 00 00", b"\0" * 10, (128, 0, 255, 127), 2147483647),
        ("fe ed fa ce be ef", bytes(range(10)), (172, 16, 254, 1), 2147483648),
        ("ff ff ff ff ff ff", b"\xff" * 10, (255, 255, 255, 255), 4294967295),
        ("00 00 00 00 00 01", b"\0" * 10, (1, 2, 3, 4), 0x01020304),
        ("00 00 00 00 00 00", b"\0" * 10, (0, 0, 0, 0), 0),
        ("01 23 45 67 89 ab", b"\0" * 10, (10, 9, 8, 7), 0xFF),
    ]
    image = b""
    every_slot = []
    listed = []
    for mac, rest, ip, expiry in slots:
        record = struct.pack(">6s10s4BI", bytes.fromhex(mac), rest, *ip, expiry)
        line = f"{'.'.join(map(str, ip))} {mac.upper().replace(' ', ':')} {expiry}\n"
        every_slot.append(line)
        if any(record[:6]):
            listed.append(line)
        image += record
    return image + image[:23], "".join(listed), "".join(every_slot)


def crc_ranges():
    random = []
    state = 1
    for _ in range(5000):
        state = (state * 1103515245 + 12345) % 2**31
        random.append(state >> 16 & 0xFF)
    pieces = [bytes(range(256)), b"123456789", b"\0" * 700, b"\xff" * 700, bytes(random)]
    data = b"".join(pieces)
    ranges = [(0, 0), (0, 1), (255, 1), (1, 3), (0, len(data)), (1, len(data) - 1)]
    offset = 0
    for piece in pieces:
        ranges.append((offset, len(piece)))
        offset += len(piece)
    for length in (4, 599, 600, 601, 2047, 2048, 2049, 4096, 4097):
        ranges += [(300, length), (1303, length)]
    words = [zlib.crc32(data[start : start + length]) for start, length in ranges]
    lines = [f"{start} {length} 0x{word:08x}\n" for (start, length), word in zip(ranges, words)]
    return data, "".join(lines), b"".join(struct.pack(">I", word) for word in words)


def trap_message(byte_order):
    """The header: length, type, flags, sequence number, sender."""
    return struct.pack(byte_order + "IHHII", 172, 17, 0, 1, 0x01020304) + bytes(range(156))


def main():
    directory = Path(sys.argv[1] if len(sys.argv) > 1 else Path(__file__).parent)
    entries = [
        ("bootcmd", "bootm 0x9f6a0000"),
        ("bootdelay", "1"),
        ("bootargs", "console=ttyS0,115200 root=31:2 rootfstype=squashfs"),
        ("ethaddr", "00:11:22:33:44:55"),
        ("latin", "\xe9\x80\xff"),
        ("empty", ""),
        ("bootparam", "0"),
    ]
    (directory / "environment.head").write_bytes(environment(entries)[0])
    (directory / "environment.txt").write_bytes(
        "".join(f"{name}={value}\n" for name, value in entries).encode("latin-1")
    )
    (directory / "environment-edited.head").write_bytes(edited(entries))
    image, records = upgrade()
    (directory / "upgrade.img").write_bytes(image)
    (directory / "upgrade-set-a.txt").write_text(record_lines(records, 2))
    (directory / "upgrade-set-b.txt").write_text(record_lines(records, 0))
    image, listed, every_slot = leases()
    (directory / "leases.bin").write_bytes(image)
    (directory / "leases.txt").write_text(listed)
    (directory / "leases-every-slot.txt").write_text(every_slot)
    data, lines, words = crc_ranges()
    (directory / "crc32.bin").write_bytes(data)
    (directory / "crc32.txt").write_text(lines)
    (directory / "crc32.words").write_bytes(words)
    (directory / "trap-little-endian.bin").write_bytes(trap_message("<"))
    (directory / "trap-big-endian.bin").write_bytes(trap_message(">"))


if __name__ == "__main__":
    main()
