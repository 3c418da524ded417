# SPDX-License-Identifier: MIT
"""Waits for what other processes do."""
import time


def wait_until(condition, seconds=10):
    """Waits until a condition is true. Returns false if it is not true in time."""
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            return False
        time.sleep(0.02)
    return True
