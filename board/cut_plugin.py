# SPDX-License-Identifier: MIT
"""A plugin for nbdkit: serves the files of the flash, counts what is written, and cuts the power.

    nbdkit python board/cut_plugin.py nor=FILE disk=FILE log=FILE [after=N] [torn=1]

Every write is a line in the log: the file, the offset and the length. The process ends with the N-th
write, without it or, if `torn`, with its first half. Nothing is written after that. QEMU writes the
whole NOR flash, unchanged, when it continues a snapshot: such a write does not count.
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


def pwrite(handle, buffer, offset, _flags):
    file, name = handle
    if len(buffer) == get_size(handle):
        os.pwrite(file, buffer, offset)
        return
    state["writes"] += 1
    if state["writes"] == int(settings["after"]):
        if settings["torn"] == "1":
            os.pwrite(file, bytes(buffer)[:len(buffer) // 2], offset)
        os._exit(0)
    os.pwrite(file, buffer, offset)
    erased = "erased" if bytes(buffer).count(0xff) == len(buffer) else "data"
    log = os.open(settings["log"], os.O_WRONLY | os.O_CREAT | os.O_APPEND, 0o600)
    os.write(log, f"{name} {offset} {len(buffer)} {erased}\n".encode())
    os.close(log)


def flush(_handle, _flags):
    pass
