# SPDX-License-Identifier: MIT
"""Upgrade images, built and checked without the library."""

import dataclasses
import struct
import zlib

# signature: name, written without its header, largest size, block device
PARTITIONS = {
    b"boot": ("Boot", True, 0x40000, 0),
    b"benv": ("Boot-env", True, 0x10000, 1),
    b"root": ("Rootfs", True, 0x650000, 2),
    b"kern": ("Linux_kernel", True, 0x100000, 3),
    b"rfs1": ("Rootfs-1", True, 0x650000, 4),
    b"knl1": ("Linux_kernel-1", True, 0x100000, 5),
    b"log0": ("Log", True, 0xf0000, 6),
    b"conf": ("Config", False, 0x10000, 7),
    b"artp": ("ART", True, 0x10000, 8),
    b"Ver0": ("Ver0", False, 0x5c, 255),
}

ACCEPTED, PAST_END, BAD_CHECKSUM, TOO_LARGE, TOO_MANY, BAD_CRC = range(6)


def section(signature, payload, burn_address=0, mtd_id=None, pad=0, length=None):
    """Returns a section with any payload."""
    mtd_id = PARTITIONS[signature][3] if mtd_id is None else mtd_id
    length = len(payload) if length is None else length
    return signature + struct.pack(">4I", burn_address, mtd_id, pad, length) + payload


def with_checksum(data, pad=0):
    """Returns the payload of a section other than the version section."""
    return data + bytes(pad) + bytes([-sum(data) % 256])


def partition(signature, data, pad=0, **header):
    return section(signature, with_checksum(data, pad), pad=pad, **header)


def with_crc(image):
    """Stores the CRC in the last four bytes of an image."""
    return image[:-4] + struct.pack(">I", zlib.crc32(image[:-4]))


def version(text=b"1.0", **header):
    return section(b"Ver0", text + bytes(4), **header)


def image(*sections):
    return with_crc(b"".join(sections))


@dataclasses.dataclass
class Expected:
    """The result of parse_firmware() and the section that determines it."""

    result: int
    section: int = 0  # the bad one, counted from 1
    offset: int = 0


def expected_of(data):
    """Returns the result of a device for an image."""
    offset = number = 0
    known = []
    while offset + 20 < len(data):
        number += 1
        signature = data[offset:offset + 4]
        _, mtd_id, pad, length = struct.unpack_from(">4I", data, offset + 4)
        if len(data) - offset - 16 < length:
            return Expected(PAST_END, number, offset)
        if signature in PARTITIONS:
            name, stripped, largest, _ = PARTITIONS[signature]
            size = (length - 1 - pad if stripped else length + 20) % 2**32
            if mtd_id != 255 and sum(data[offset + 20:offset + 20 + length]) % 256 != 0:
                return Expected(BAD_CHECKSUM, number, offset)
            if mtd_id != 255 and size > largest:
                return Expected(TOO_LARGE, number, offset)
            known.append((signature, number, offset, offset + 20 + length))
            if len(known) > 4:
                return Expected(TOO_MANY, number, offset)
        offset += 20 + length
    if not known:
        return Expected(BAD_CRC)
    signature, number, offset, end = known[-1]
    if signature != b"Ver0":
        return Expected(ACCEPTED)
    # A truncated CRC differs.
    if end > len(data) or data[end - 4:end] != struct.pack(">I", zlib.crc32(data[:-4])):
        return Expected(BAD_CRC, number, offset)
    return Expected(ACCEPTED)


# Indices of the block devices of a set.
ROOT, KERNEL = 0, 1
SETS = {"A": (2, 3), "B": (4, 5)}


def warnings_about_boot(data):
    """Returns the warnings for an accepted image after which a device may not boot."""
    sections = []
    offset = number = 0
    while offset + 20 < len(data):
        number += 1
        signature = data[offset:offset + 4]
        _, _, pad, length = struct.unpack_from(">4I", data, offset + 4)
        if signature in PARTITIONS:
            empty = PARTITIONS[signature][1] and (length - 1 - pad) % 2**32 == 0
            sections.append((signature, f"section {number} ({signature.decode()}) at offset "
                             f"0x{offset:x}: ", empty))
        offset += 20 + length

    def device(signature, running):
        idle = 2 if signature in (b"root", b"kern") and running == "A" else 0
        return PARTITIONS[signature][3] + idle

    written = {running: {device(signature, running) for signature, _, empty in sections
                         if not empty} for running in SETS}

    def sentence(text, holds):
        running = [name for name in SETS if holds(name)]
        if not running:
            return []
        return [text if len(running) == 2 else f"{text} while set {running[0]} runs"]

    def lacks(signature, running, part):
        return any(device(signature, running) == devices[part] and
                   devices[1 - part] not in written[running] for devices in SETS.values())

    lines = []
    for signature, place, _ in sections:
        if signature == b"Ver0":
            continue
        if signature == b"boot":
            lines.append(place + "writes the boot loader, of which a device has only one")
        if signature == b"benv":
            lines.append(place + "writes the boot environment, which selects the set that boots; "
                         "save_bootparam() then overwrites it")
        lines += sentence(place + "writes the running set",
                          lambda running: device(signature, running) in SETS[running])
        lines += sentence(place + "no kernel for the same set",
                          lambda running: lacks(signature, running, ROOT))
        lines += sentence(place + "no root file system for the same set",
                          lambda running: lacks(signature, running, KERNEL))
    place = f"{sections[0][1]}only a version section: " if [
        signature for signature, _, _ in sections] == [b"Ver0"] else ""
    idle = {"A": SETS["B"], "B": SETS["A"]}
    return lines + sentence(
        place + "no root file system and no kernel for the set that boots after the upgrade",
        lambda running: not written[running] & set(idle[running]))
