# SPDX-License-Identifier: MIT
"""Environment images, built and read without the library."""

import struct
import zlib

SIZE = 65536
DATA_SIZE = SIZE - 4


def with_crc(data):
    assert len(data) == DATA_SIZE
    return struct.pack(">I", zlib.crc32(data)) + data


def image(entries, fill=b"\0"):
    """Returns the image with these entries, such as b"a=1"."""
    listed = b"".join(entry + b"\0" for entry in entries) + b"\0"
    return with_crc(listed + fill * (DATA_SIZE - len(listed)))


def entries_of(content):
    """Checks the CRC of an image and returns its entries."""
    assert len(content) == SIZE
    assert content[:4] == struct.pack(">I", zlib.crc32(content[4:]))
    listed, end, _ = content[4:].partition(b"\0\0")
    assert end
    return listed.split(b"\0") if listed else []


def list_end(data):
    """Returns the offset of the end of the list: its empty entry, or the end of the data."""
    start = 0
    while start < len(data) and data[start] != 0:
        end = data.find(b"\0", start)
        start = len(data) if end < 0 else end + 1
    return start


def closed_entries(data):
    """Returns the entries before the end of the list that are terminated by a NUL."""
    return data[:list_end(data)].split(b"\0")[:-1]
