# SPDX-License-Identifier: MIT
"""Builds valid and invalid upgrade images."""

import random
import struct
import zlib

# By signature: the size of the partition and the number of its block device.
PARTITIONS = {
    b"boot": (0x40000, 0), b"benv": (0x10000, 1), b"root": (0x650000, 2), b"kern": (0x100000, 3),
    b"rfs1": (0x650000, 4), b"knl1": (0x100000, 5), b"log0": (0xF0000, 6), b"conf": (0x10000, 7),
    b"artp": (0x10000, 8), b"Ver0": (0x5C, 255),
}
SIZES = {number: size for size, number in PARTITIONS.values() if number != 255}
HEADER = struct.Struct(">4s4I")


def section(signature, content, *, burn_address=0, padding=0, mtd_id=None):
    """Returns a section. The bytes of its payload, padding and checksum add up to 0 modulo 256."""
    body = content + bytes(padding)
    body += bytes([-sum(body) % 256])
    number = PARTITIONS.get(signature, (0, 1))[1] if mtd_id is None else mtd_id
    return HEADER.pack(signature, burn_address, number, padding, len(body)) + body


def version_section(text):
    """Returns the version section up to the CRC, which is part of its payload."""
    payload = text.encode().ljust(24, b"\0")
    return HEADER.pack(b"Ver0", 0, 255, 0, len(payload) + 4) + payload


def with_crc(image):
    """Appends the CRC."""
    return image + struct.pack(">I", zlib.crc32(image))


def content(version, size, seed=0):
    """Returns the content of a partition, starting with its version."""
    return f"{version}\n".encode() + random.Random(f"{version}{seed}").randbytes(
        size - len(version) - 1)


class Image:
    """An image with a root file system and a kernel."""

    def __init__(self, version, root_size=3_000_000, kernel_size=900_000, extra=()):
        self.version = version
        self.root = content(version, root_size)
        self.kernel = content(f"kernel {version}", kernel_size)
        self.sections = [section(b"root", self.root), section(b"kern", self.kernel, padding=7),
                         *extra]

    def bytes(self):
        return with_crc(b"".join(self.sections) + version_section(self.version))


def large_image(version, size):
    """Returns an image of exactly this size, filled up with an unknown section."""
    image = Image(version, 0x650000 - 100, 0x100000 - 100)
    room = size - len(image.bytes()) - HEADER.size - 1
    image.sections.append(section(b"note", random.Random(version).randbytes(room)))
    result = image.bytes()
    assert len(result) == size
    return image, result
