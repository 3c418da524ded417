# SPDX-License-Identifier: MIT
"""Ports for the servers of tests that run in several processes."""
import os
import socket

# Each of several processes has its share of the ports.
_number = int(os.environ.get("PYTEST_XDIST_WORKER", "gw0").removeprefix("gw"))
_count = int(os.environ.get("PYTEST_XDIST_WORKER_COUNT", "1"))


def free_port():
    while True:
        with socket.socket() as listener:
            listener.bind(("127.0.0.1", 0))
            port = listener.getsockname()[1]
        # The kernel assigns even ports to bind() and odd ones to connect().
        if port // 2 % _count == _number:
            return port
