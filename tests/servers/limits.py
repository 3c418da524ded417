# SPDX-License-Identifier: MIT
"""What a web server does with slow and with many clients, in the words of the table in
docs/servers.md.
"""
import contextlib
import time

from http_client import Connection, exchange, form, request

LONGEST = 75  # seconds until a slow client counts as accepted
MOST = 200  # connections
CLIENTS = 40
HEAD = b"GET /cgi-bin/form_page HTTP/1.1\r\nHost: router\r\nX: "


def words(seconds):
    """A duration in steps of five seconds: servers look at their clocks once a second or so."""
    return f"{5 * int((seconds + 1) // 5)} s"


def result(connection):
    """Waits for the end of a connection and returns the words for it."""
    response = connection.response(LONGEST)
    if response.seconds > LONGEST - 1:
        return "none"
    return f"{response.status or 'closed'} after {words(response.seconds)}"


def drip(connection, byte):
    """Sends a byte each half second until the server closes the connection."""
    end = time.monotonic() + LONGEST
    while time.monotonic() < end:
        if connection.wait(0.5) or not connection.send(byte):
            return result(connection)
    return "none"


def nothing(site):
    with Connection(site.port) as connection:
        return result(connection)


def slow_header(site):
    with Connection(site.port) as connection:
        connection.send(HEAD)
        return drip(connection, b"x")


def stopped_body(site):
    with Connection(site.port) as connection:
        connection.send(request("POST", "/cgi-bin/form_page", **form(b"x" * 1000))[:-900])
        return result(connection)


def slow_body(site):
    with Connection(site.port) as connection:
        connection.send(request("POST", "/cgi-bin/form_page", **form(b"x" * 1000))[:-900])
        return drip(connection, b"x")


def half_headers(site):
    """Opens connections, each with half a header, until the next client gets no response."""
    with contextlib.ExitStack() as stack:
        for count in range(MOST):
            status = next_client(site, 2)
            if status != "200":
                return f"{count}, then {status}"
            with contextlib.suppress(OSError):
                stack.enter_context(Connection(site.port)).send(HEAD)
    return f"more than {MOST}"


def next_client(site, seconds, address="127.0.0.1"):
    """Returns the words for the response to a client from an address of this machine."""
    try:
        with Connection(site.port, address) as connection:
            connection.send(request("GET", "/cgi-bin/form_page"))
            return str(connection.response(seconds).status or "waits")
    except OSError:
        return "refused"


def half_bodies(site):
    """Has clients send half a form, and then others request a page."""
    with contextlib.ExitStack() as stack:
        for _ in range(CLIENTS):
            client = stack.enter_context(Connection(site.port))
            client.send(request("POST", "/cgi-bin/form_page", **form(b"x" * 1000))[:-500])
        end = time.monotonic() + 8
        programs = 0
        while time.monotonic() < end:
            programs = max(programs, len(site.programs()))
            time.sleep(0.2)
        own, other = (next_client(site, 3, address) for address in ("127.0.0.1", "127.0.0.2"))
    return f"{programs} programs, {own}" + (
        f", {other} from another address" if other != own else "")


def large_header(site):
    return str(exchange(site.port, request("GET", "/cgi-bin/form_page", X="x" * 65536)).status)


def large_body(site):
    return str(exchange(site.port, request("POST", "/cgi-bin/form_page", **form(
        b"x" * (40 << 20)))).status)


# These wait; those after them need the server for themselves.
SLOW = {
    "A client that sends nothing": nothing,
    "A header with a byte each half second": slow_header,
    "A body that stops": stopped_body,
    "A body with a byte each half second": slow_body,
}
OTHERS = {
    "Half headers that are accepted, and then the next client": half_headers,
    "Half bodies on 40 connections, and then the next client": half_bodies,
    "A header of 64 KiB": large_header,
    "A body of 40 MiB": large_body,
}
