# SPDX-License-Identifier: MIT
"""A plugin for nbdkit: serves the files of the flash, keeps a journal, and cuts the power.

    nbdkit python board/cut_plugin.py nor=FILE disk=FILE journal=FILE [after=N] [torn=1]

Every write is a line of the journal: the file, the offset and the length; what was written is
appended to the file JOURNAL.data. The process ends with the N-th write, without it or, if `torn`,
with the first half of the bytes that it changes. Nothing is written after that. QEMU writes the
whole NOR flash, with its own start code in it, when it continues a snapshot: such a write is ignored.
"""
import os

import nbdkit

API_VERSION = 2

settings = {"after": "0", "torn": "0"}
state = {"writes": 0}


def config(key, value):
    settings[key] = value


def thread_model():
    return nbdkit.THREAD_MODEL_SERIALIZE_ALL_REQUESTS


def open(_readonly):  # the name is nbdkit's
    return os.open(settings[nbdkit.export_name()], os.O_RDWR), nbdkit.export_name()


def close(handle):
    os.close(handle[0])


def get_size(handle):
    return os.fstat(handle[0]).st_size


def pread(handle, buffer, offset, _flags):
    count = os.preadv(handle[0], [buffer], offset)
    if count != len(buffer):
        raise OSError("short read")


def half(old, new):
    """Returns the length up to the middle of what differs."""
    differences = [i for i in range(len(new)) if old[i] != new[i]]
    return (differences[0] + differences[-1] + 1) // 2 if differences else 0


def append(path, content):
    file = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_APPEND, 0o600)
    os.write(file, content)
    os.close(file)


def pwrite(handle, buffer, offset, _flags):
    file, name = handle
    content = bytes(buffer)
    if len(content) == get_size(handle):
        return
    state["writes"] += 1
    if state["writes"] == int(settings["after"]):
        if settings["torn"] == "1":
            os.pwrite(file, content[:half(os.pread(file, len(content), offset), content)], offset)
        os._exit(0)
    os.pwrite(file, content, offset)
    append(settings["journal"] + ".data", content)
    append(settings["journal"], f"{name} {offset} {len(content)}\n".encode())


def flush(_handle, _flags):
    pass
