# SPDX-License-Identifier: MIT
"""Starts and stops the demo, and sends requests to its pages as a browser does."""

import contextlib
import hashlib
import html.parser
import http.client
import json
import os
import pathlib
import re
import select
import shutil
import signal
import socket
import ssl
import subprocess
import sys
import tempfile
import time
import urllib.parse

from build_tree import BUILD, SOURCE
from ports import free_port
from waiting import wait_until

IMAGE = BUILD / "device"
NETWORK = "/cgi-bin/network"
DEVICE = "/cgi-bin/device"
UPGRADE = "/cgi-bin/upgrade"
UPLOAD = "/cgi-bin/upload"
LOGIN = "/cgi-bin/login"
LOGOUT = "/cgi-bin/logout"
PASSWORD = "/cgi-bin/password"
STATUS = "/cgi-bin/status"
CLIENTS = "/cgi-bin/clients"
TRAPS = "/cgi-bin/traps"
SYSTEM = "/cgi-bin/system"
RESTART = "/cgi-bin/restart"
VARIABLE = "/cgi-bin/variable"
BACKUP = "/cgi-bin/backup"
DIAGNOSTICS = "/cgi-bin/diagnostics"
PAGES = (STATUS, CLIENTS, NETWORK, DEVICE, UPGRADE, TRAPS, SYSTEM, PASSWORD)

USER = "admin"
FACTORY_PASSWORD = "corvel"
OWNER_PASSWORD = "seven grey herons"  # with which a new demo replaces it

CLIENT_NAMES = {"laptop", "phone", "printer"}  # the stations in the device's LAN

STRANGER = {"Cookie": None}  # headers of a client that has not logged in

_running = set()
_shared = []


def shared_demo():
    """Returns a running demo for tests that restore its state. stop_all() stops it."""
    if not _shared:
        _shared.append(Demo())
    return _shared[0]


def stop_all():
    for demo in list(_running):
        demo.stop()


def seconds_of(duration):
    """Converts a duration as shown on a page to seconds."""
    days, hours, minutes, seconds = re.fullmatch(
        r"(?:(\d+) d )?(\d\d):(\d\d):(\d\d)", duration).groups()
    return ((int(days or 0) * 24 + int(hours)) * 60 + int(minutes)) * 60 + int(seconds)


def process_namespace(pid):
    try:
        return os.readlink(f"/proc/{pid}/ns/pid")
    except OSError:
        return None


def start_time(pid):
    """Returns what distinguishes a process from a later one with the same number; None if it is gone."""
    try:
        return pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[19]
    except OSError:
        return None


def processes():
    return [int(name) for name in os.listdir("/proc") if name.isdigit()]


def descendants(pid):
    parents = {}
    for each in processes():
        with contextlib.suppress(OSError):
            fields = pathlib.Path(f"/proc/{each}/stat").read_text().rpartition(")")[2].split()
            parents.setdefault(int(fields[1]), []).append(each)
    found = []
    left = [pid]
    while left:
        children = parents.get(left.pop(), [])
        found += children
        left += children
    return found


class Demo:
    """A running demo with its own state directory, and a client that is logged in to it."""

    def __init__(self, *arguments, state=None, password=OWNER_PASSWORD, image=IMAGE,
                 script=(SOURCE / "demo" / "serve",), command=()):
        self.own_directory = None if state else pathlib.Path(tempfile.mkdtemp(prefix="corvel-demo-"))
        self.state = state or self.own_directory / "state"
        self.scheme = "https" if "--tls" in arguments else "http"
        is_new = "--reset" in arguments or not (self.state / "accounts").exists()
        self.session = None
        self._tokens = {}
        self.namespaces = set()
        self.members = []
        self._started = {}
        _running.add(self)
        # Another test's client can take the port between the choice and the start.
        for _ in range(5):
            self.port = free_port()
            self.output = ""
            # The demo ends if this process is killed.
            words = [*command, "setpriv", "--pdeathsig", "TERM", *script,
                     "--port", str(self.port), "--state", self.state,
                     *(["--image", image] if image else []), *arguments]
            self.process = subprocess.Popen(
                [str(word) for word in words], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                stderr=subprocess.STDOUT, start_new_session=True)
            if self._wait_for_url() or "Address already in use" not in self.output:
                break
            self.process.stdout.close()
        if "\nServing " not in f"\n{self.output}":
            self.stop()
            raise RuntimeError(f"the demo did not start:\n{self.output}")
        self.members = descendants(self.process.pid)
        own = process_namespace("self")
        self.namespaces = {process_namespace(pid) for pid in self.members} - {own, None}
        self._started = {pid: start_time(pid) for pid in self.members}
        try:
            if is_new and password != FACTORY_PASSWORD:
                self.choose_password(password)
            else:
                self.session = self.log_in(password=password)
        except BaseException:
            self.stop()
            raise

    def _wait_for_url(self):
        end = time.monotonic() + 300
        with_output = self.process.stdout.fileno()
        while time.monotonic() < end:
            if select.select([with_output], [], [], 0.5)[0]:
                piece = os.read(with_output, 4096)
                if not piece:
                    self.process.wait(10)
                    return False
                self.output += piece.decode()
                if re.search(r"^Serving https?://127\.0\.0\.1:\d+/", self.output, re.M):
                    return True
        return False

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()

    def stop(self, with_signal=signal.SIGTERM):
        """Stops the demo and returns its exit status."""
        if self in _running:
            _running.discard(self)
            if self.process.poll() is None:
                self.process.send_signal(with_signal)
            try:
                self.process.wait(15)
            except subprocess.TimeoutExpired:
                os.killpg(self.process.pid, signal.SIGKILL)
                self.process.wait()
            self.process.stdout.close()
            if self.own_directory:
                shutil.rmtree(self.own_directory, ignore_errors=True)
        return self.process.returncode

    def remaining_processes(self):
        """Returns the processes of the device and of the script that still exist."""
        left = [pid for pid, started in self._started.items()
                if started and process_namespace(pid) and start_time(pid) == started]
        return left + [pid for pid in processes() if process_namespace(pid) in self.namespaces]

    # Files of the device.

    def file(self, name):
        return self.state / "config" / name

    def files(self):
        return {path.name: path.read_bytes() for path in (self.state / "config").iterdir()
                if path.suffix == ".conf"}

    def setting(self, name, file, separator="="):
        """Returns the raw value of a line of the file; None if there is no such line."""
        for line in self.file(file).read_bytes().decode("utf-8", "surrogateescape").split("\n"):
            key, found, value = line.partition(separator)
            if found and key == name:
                return value
        return None

    def applied(self):
        """Returns the configuration client's record of the applied settings."""
        path = self.state / "var" / "log" / "applied.conf"
        return dict(line.split(" ", 1) for line in path.read_text().splitlines())

    def crashes(self):
        """Returns the lines about crashes and sanitizer reports: the server's log names programs that
        a signal ended, and the reports are what the programs print."""
        logs = [self.state / "var/log" / name for name in ("lighttpd.log", "programs.log")]
        return [line for log in logs for line in log.read_text(errors="replace").splitlines()
                if re.search(r"died|signal|Sanitizer|runtime error", line)]

    def flash(self, number):
        """Returns the path of a flash partition's file."""
        return self.state / "flash" / f"mtdblock{number}"

    @staticmethod
    def file_name(session):
        """Returns the name of a session's file."""
        return hashlib.sha256(session.encode()).hexdigest()

    def sessions(self):
        """Returns the files of the sessions by name."""
        return {path.name: path for path in (self.root() / "run/sessions").iterdir()}

    def end_sessions(self):
        """Ends all sessions. A user has eight; of those that were used in the same second, any one
        makes room for a new one."""
        for path in self.sessions().values():
            path.unlink()

    def programs(self, path):
        """Returns the processes of the device that run a program."""
        found = []
        for pid in processes():
            with contextlib.suppress(OSError):
                words = pathlib.Path(f"/proc/{pid}/cmdline").read_bytes().split(b"\0")
                if words[0] == path.encode() and process_namespace(pid) in self.namespaces:
                    found.append(pid)
        return found

    def program_names(self):
        """Returns the names of the processes in the device's network."""
        own = os.readlink(f"/proc/{self.programs('/usr/sbin/lighttpd')[0]}/ns/net")
        found = set()
        for pid in processes():
            with contextlib.suppress(OSError):
                if os.readlink(f"/proc/{pid}/ns/net") == own:
                    found.add(pathlib.Path(f"/proc/{pid}/comm").read_text().strip())
        return found

    def root(self):
        """Returns the device's root directory."""
        return pathlib.Path(f"/proc/{self.programs('/usr/sbin/lighttpd')[0]}/root")

    # The device's network.

    def inside(self, *command):
        """Returns the command line that runs a program of the machine in the device's network."""
        pid = self.programs("/usr/sbin/lighttpd")[0]
        return ["nsenter", "--target", str(pid), "--net", *command]

    def protect(self, path):
        """Makes a file of the device that is mounted read-only."""
        pid = str(self.programs("/usr/sbin/lighttpd")[0])
        subprocess.run(["nsenter", "--target", pid, "--user", "--preserve-credentials", "--mount",
                        "mount", "-o", "remount,bind,ro", path], check=True, capture_output=True)

    def ip(self, *arguments):
        """Returns the output of `ip` in the device's network."""
        result = subprocess.run(self.inside("ip", "-json", *arguments), check=True,
                                capture_output=True, text=True, stdin=subprocess.DEVNULL)
        return json.loads(result.stdout or "[]")

    def leases(self):
        """Returns the leases of IPv4 addresses as lists of words: expiry, MAC, IP, host name,
        identifier."""
        path = self.state / "var" / "config" / "dnsmasq.leases"
        lines = path.read_text(errors="surrogateescape").splitlines() if path.exists() else []
        words = [line.split(" ") for line in lines if line]
        return [lease for lease in words if len(lease) > 2 and "." in lease[2]]

    def lessees(self):
        """Returns the host names of the leases."""
        return {lease[3] for lease in self.leases()}

    def greet_gateway(self):
        self.greet("203.0.113.1")

    def greet(self, address):
        """Sends a datagram to a neighbour, so that the kernel requests its hardware address."""
        subprocess.run(self.inside(
            sys.executable, "-c", "import socket; socket.socket(socket.AF_INET, socket.SOCK_DGRAM)"
            f".sendto(b'x', ('{address}', 9))"), check=True)

    # Requests.

    def request(self, method, path, body=None, headers=None, timeout=20, source="127.0.0.1"):
        """Sends a request from an address of the machine. A Cookie header, which may be None,
        replaces the session's cookie."""
        own = {"Cookie": self.session and f"session={self.session}"}
        sent = {name: value for name, value in (own | (headers or {})).items() if value is not None}
        connection = self.connect(timeout, source)
        try:
            connection.request(method, path, body, sent)
            response = connection.getresponse()
            return Response(response, response.read())
        finally:
            connection.close()

    def connect(self, timeout, source):
        if self.scheme == "http":
            return http.client.HTTPConnection("127.0.0.1", self.port, timeout=timeout,
                                              source_address=(source, 0))
        trusted = ssl.create_default_context(cafile=self.state / "var/tls/router.crt")
        return http.client.HTTPSConnection("127.0.0.1", self.port, timeout=timeout,
                                           source_address=(source, 0), context=trusted)

    def get(self, path, **headers):
        return self.request("GET", path, headers=headers)

    def try_log_in(self, user=USER, password=OWNER_PASSWORD, source="127.0.0.1", **fields):
        """Sends the login form as a client that is not logged in."""
        return self.post(LOGIN, {"user": user, "password": password, **fields}, STRANGER,
                         source=source)

    def log_in(self, user=USER, password=OWNER_PASSWORD):
        """Logs in and returns the new session. Requests do not use it yet."""
        responses = []

        def is_checked():
            """After wrong passwords a client has to wait."""
            responses.append(self.try_log_in(user, password))
            return responses[-1].status != 429

        wait_until(is_checked, 120)
        response = responses[-1]
        if response.status != 303:
            raise AssertionError(f"login failed: {response.status}")
        return response.session()

    def choose_password(self, password):
        """Replaces the factory's password, which is the first step on a new device."""
        self.session = self.log_in(password=FACTORY_PASSWORD)
        response = self.post(PASSWORD, {"new": password, "again": password})
        if response.status != 303:
            raise AssertionError(f"the password was not changed: {response.text}")
        self.session = response.session()

    def is_logged_in(self, session):
        return self.get(NETWORK, Cookie=f"session={session}").status == 200

    def token(self, session=None):
        """Returns the token of a session's forms, as the pages have it; empty if it is over."""
        session = session or self.session
        if not self._tokens.get(session):
            page = self.get(PASSWORD, Cookie=f"session={session}").text
            found = re.search(r'name="token" value="([0-9a-f]{64})"', page)
            self._tokens[session] = found.group(1) if found else ""
        return self._tokens[session]

    def post(self, path, fields, headers=None, timeout=20, source="127.0.0.1"):
        """Sends a form with the token of its session."""
        body = fields if isinstance(fields, (bytes, str)) else urllib.parse.urlencode(fields)
        cookie = (headers or {}).get("Cookie", f"session={self.session}")
        if path != LOGIN and cookie and b"token=" not in (
                body if isinstance(body, bytes) else body.encode()):
            ending = "&token=" + self.token(cookie.removeprefix("session="))
            body += ending.encode() if isinstance(body, bytes) else ending
        return self.request("POST", path, body, {
            "Content-Type": "application/x-www-form-urlencoded",
            "Origin": f"{self.scheme}://127.0.0.1:{self.port}", **(headers or {})}, timeout, source)

    def page(self, path):
        return Page(self.get(path).text)

    def static_file(self, kind):
        """Returns the path of the static file of a type, as the pages name it."""
        ending = {"text/css": "css", "text/javascript": "js", "image/svg+xml": "svg"}[kind]
        return re.search(rf'"(/[^"]+\.{ending})"', self.get(LOGIN).text).group(1)

    def document(self, path):
        """Returns a page's JSON document."""
        response = self.get(path + "?Ajax=1")
        if response.status != 200:
            raise AssertionError(f"{path}: {response.status} {response.text}")
        return json.loads(response.body)

    def json(self, path, section="settings"):
        return self.document(path)[section]

    def raw(self, data, seconds=20, half_close=False):
        """Sends bytes and returns everything received until the server closes the connection."""
        with socket.create_connection(("127.0.0.1", self.port), timeout=seconds) as connection:
            connection.sendall(data)
            if half_close:
                connection.shutdown(socket.SHUT_WR)
            response = b""
            with contextlib.suppress(ConnectionResetError):
                while piece := connection.recv(65536):
                    response += piece
            return response


class Response:
    def __init__(self, response, body):
        self.status = response.status
        self.headers = response.headers
        self.body = body

    @property
    def text(self):
        return self.body.decode()

    def session(self):
        """Returns the session that the response sets."""
        return re.fullmatch(r"session=([0-9a-f]{64})(; .*)?", self.headers["Set-Cookie"]).group(1)


class Page(html.parser.HTMLParser):
    """A page's form as a browser sees it."""

    def __init__(self, text):
        super().__init__()
        self.text = text
        self.fields = []    # the fields that a browser would send, in order
        self.shown = {}     # name: value shown by the control
        self.errors = {}    # name: error message
        self.labels = set()
        self.ids = []
        self.controls = []  # ids of the visible controls
        self.links = []
        self.message = ""
        self._select = None
        self._into = None
        self.feed(text)

    def handle_starttag(self, tag, attributes):
        found = dict(attributes)
        if "id" in found:
            self.ids.append(found["id"])
        self.links += [found[name] for name in ("href", "src", "action") if name in found]
        if tag == "label":
            self.labels.add(found["for"])
        elif tag == "input":
            self._input(found)
        elif tag == "select":
            self._select = found["name"]
            self.controls.append(found["id"])
        elif tag == "progress":
            self.controls.append(found["id"])
        elif tag == "option" and "selected" in found:
            self._show(self._select, found["value"])
        elif tag == "p" and "error" in found.get("class", "").split():
            self._into = found.get("id", "error-").removeprefix("error-")
        elif tag == "p" and "message" in found.get("class", "").split():
            self._into = "message"

    def _input(self, found):
        kind = found.get("type", "text")
        if kind != "hidden":
            self.controls.append(found["id"])
        if kind == "checkbox":
            self.shown[found["name"]] = "1" if "checked" in found else "0"
            if "checked" in found:
                self.fields.append((found["name"], found["value"]))
        elif kind == "hidden":
            self.fields.append((found["name"], found["value"]))
        elif kind != "file":
            self._show(found["name"], found["value"])

    def _show(self, name, value):
        self.shown[name] = value
        self.fields.append((name, value))

    def handle_data(self, data):
        if self._into == "message":
            self.message += data
        elif self._into:
            self.errors[self._into] = self.errors.get(self._into, "") + data

    def handle_endtag(self, tag):
        if tag == "p":
            self._into = None


class Element:
    """An element of a page and its contents."""

    VOID = {"area", "br", "col", "hr", "img", "input", "link", "meta"}

    def __init__(self, tag="", attributes=()):
        self.tag = tag
        self.attributes = dict(attributes)
        self.children = []

    @classmethod
    def of_page(cls, text):
        page = cls()
        open_elements = [page]

        class Builder(html.parser.HTMLParser):
            def handle_starttag(self, tag, attributes):
                element = cls(tag, attributes)
                open_elements[-1].children.append(element)
                if tag not in cls.VOID:
                    open_elements.append(element)

            def handle_endtag(self, tag):
                while len(open_elements) > 1 and open_elements.pop().tag != tag:
                    pass

            def handle_data(self, data):
                open_elements[-1].children.append(data)

        Builder().feed(text)
        return page

    def __iter__(self):
        """Yields all descendants in document order."""
        for child in self.children:
            if isinstance(child, Element):
                yield child
                yield from child

    @property
    def text(self):
        return "".join(getattr(child, "text", child) for child in self.children).strip()

    def find(self, tag="", **attributes):
        """Returns the descendants with this tag and these attributes."""
        return [each for each in self if tag in ("", each.tag)
                and all(each.attributes.get(name.rstrip("_").replace("_", "-")) == value
                        for name, value in attributes.items())]

    def by_id(self, name):
        element, = self.find(id=name)
        return element

    def rows(self):
        """Returns the rows of a table: the texts of the cells by class, and the data attributes."""
        return [{each.attributes["class"]: each.text for each in row if "class" in each.attributes}
                | {name: value for name, value in row.attributes.items() if name.startswith("data-")}
                for row in self.find("tr") if row.find("td")]


def escaped(value):
    """Escapes a value as between the quotes of a settings file."""
    return re.sub(r'(["\\$`])', r"\\\1", value)
