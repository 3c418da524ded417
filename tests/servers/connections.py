# SPDX-License-Identifier: MIT
"""Has one address open more connections than the firewall of docs/servers.md allows, and prints how many
are open and what the next clients get. Runs in a network of its own: connections.py DIRECTORY
"""
import contextlib
import json
import subprocess
import sys
from pathlib import Path

from http_client import Connection
from limits import CLIENTS, HEAD, next_client
from web_server import Site


def main(directory):
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    site = Site("lighttpd", directory)
    site.start()
    try:
        subprocess.run(["nft", "-f", directory / "connections.nft"], check=True)
        with contextlib.ExitStack() as stack:
            accepted = 0
            for _ in range(CLIENTS):
                with contextlib.suppress(ConnectionRefusedError):
                    stack.enter_context(Connection(site.port)).send(HEAD)
                    accepted += 1
            others = [next_client(site, 5, address) for address in ("127.0.0.1", "127.0.0.2")]
        print(json.dumps([accepted, *others]))
    finally:
        site.stop()


main(Path(sys.argv[1]))
