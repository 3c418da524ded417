# SPDX-License-Identifier: MIT
"""Sends requests byte by byte as they are stated, and reads the responses."""
import select
import socket
import time
from dataclasses import dataclass

CHUNK = 65536


@dataclass
class Response:
    """The last response of a connection, and when it or the end of the connection came."""
    status: int  # 0 if there is none
    fields: dict
    body: bytes
    interim: bool  # a response of status 100 preceded it
    seconds: float


def request(method, path, body=b"", **fields):
    """Returns a request."""
    lines = {"Host": "router", "Connection": "close"}
    if body or method == "POST":
        lines["Content-Length"] = str(len(body))
    lines |= {name.replace("_", "-"): value for name, value in fields.items()}
    head = f"{method} {path} HTTP/1.1\r\n" + "".join(
        f"{name}: {value}\r\n" for name, value in lines.items() if value is not None)
    return head.encode() + b"\r\n" + body


def form(body, **fields):
    return {"body": body, "Content_Type": "application/x-www-form-urlencoded", **fields}


def parse(received, seconds):
    interim = False
    while received.startswith(b"HTTP/1.1 100"):
        interim, received = True, received.partition(b"\r\n\r\n")[2]
    head, separator, body = received.partition(b"\r\n\r\n")
    if not separator:
        return Response(0, {}, received, interim, seconds)
    status, *lines = head.decode("latin-1").split("\r\n")
    fields = {name.lower(): value.strip() for name, _, value in (
        line.partition(":") for line in lines)}
    if fields.get("transfer-encoding") == "chunked":
        body = without_chunks(body)
    return Response(int(status.split()[1]), fields, body, interim, seconds)


def without_chunks(body):
    decoded = b""
    while body:
        size, _, body = body.partition(b"\r\n")
        length = int(size or b"0", 16)
        decoded, body = decoded + body[:length], body[length + 2:]
    return decoded


class Connection:
    """A connection to a web server."""

    def __init__(self, port, address="127.0.0.1"):
        self.socket = socket.create_connection(("127.0.0.1", port), 30, (address, 0))
        self.start = time.monotonic()
        self.received = b""

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def send(self, data):
        """Sends data while the server accepts it. Returns false if it does not accept all."""
        view = memoryview(data)
        try:
            while view:
                readable, writable, _ = select.select([self.socket], [self.socket], [], 60)
                if readable and not self.receive():
                    return False
                if writable:
                    view = view[self.socket.send(view[:CHUNK], socket.MSG_DONTWAIT):]
        except OSError:
            return False
        return True

    def receive(self):
        """Receives a piece. Returns false at the end of the connection."""
        piece = self.socket.recv(CHUNK)
        self.received += piece
        return bool(piece)

    def wait(self, seconds):
        """Waits for a piece. Returns whether one came or the connection has ended."""
        return bool(select.select([self.socket], [], [], seconds)[0])

    def response(self, seconds=60):
        """Returns the response after the connection has ended."""
        end = time.monotonic() + seconds
        try:
            while self.wait(max(0, end - time.monotonic())) and self.receive():
                continue
        except OSError:
            pass  # what has been received before counts
        return parse(self.received, time.monotonic() - self.start)


def exchange(port, data, seconds=60):
    with Connection(port) as connection:
        connection.send(data)
        return connection.response(seconds)
