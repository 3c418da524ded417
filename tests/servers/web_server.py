# SPDX-License-Identifier: MIT
"""Starts web servers as docs/servers.md shows it, in a private directory and on a free port."""
import contextlib
import os
import pwd
import re
import shutil
import signal
import socket
import subprocess
import time
from pathlib import Path

from build_tree import BUILD, SOURCE
from ports import free_port

PAGE = SOURCE / "docs" / "servers.md"
PROGRAMS = ("form_page", "upload_page", "form_interface", "upload_interface")
HERE = Path(__file__).resolve().parent

# The servers, with the headings of their sections.
SERVERS = {"lighttpd": "lighttpd", "nginx": "nginx with fcgiwrap",
           "mod_cgid": "Apache with mod_cgid", "mod_cgi": "Apache with mod_cgi",
           "busybox": "busybox httpd"}


def section(heading):
    """Returns the text of a section of the page."""
    found = re.search(rf"^## {re.escape(heading)}\n(.*?)(?=^## |\Z)", PAGE.read_text(), re.M | re.S)
    return found[1]


def blocks(text):
    """Yields the language and the content of each code block."""
    return re.findall(r"^```(\w+)\n(.*?)^```$", text, re.M | re.S)


class Site:
    """A running web server with the CGI programs."""

    def __init__(self, name, root):
        self.name = name
        self.root = root
        self.port = free_port()
        self.tls_port = free_port()
        self.received = root / "received"
        self.processes = []
        for directory in ("www/cgi-bin", "run", "received"):
            (root / directory).mkdir(parents=True)
        for program in PROGRAMS:
            shutil.copy(BUILD / "tests" / program, root / "www" / "cgi-bin")
        for program in (HERE / "programs").glob("*.sh"):
            shutil.copy(program, root / "www" / "cgi-bin" / program.stem)
        for page in (HERE / "programs").glob("*.html"):
            shutil.copy(page, root / "www")
        if os.geteuid() == 0:
            user = pwd.getpwnam("www-data")
            os.chown(self.received, user.pw_uid, user.pw_gid)

    def own(self, text):
        """Replaces what the page has for a device by what this machine has."""
        text = re.sub(r"\b80\b", str(self.port), text.replace("/srv/router", str(self.root)))
        text = re.sub(r"\b443\b", str(self.tls_port), text)
        text = text.replace("192.168.1.1", "127.0.0.1")
        if os.geteuid() != 0:
            text = text.replace("user www-data;", "").replace("-U www-data -M 0600", "")
        return text

    def start(self, heading=None):
        """Starts the server as its section shows it, or as a section of another heading."""
        for language, block in blocks(PAGE.read_text()):
            if language != "sh":
                name = block.split("\n", 1)[0].removeprefix("# ")
                (self.root / name).write_text(self.own(block))
        commands = [command for language, block in blocks(section(heading or SERVERS[self.name]))
                    if language == "sh" for command in self.own(block).splitlines()]
        variables = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin"}
        with (self.root / "output").open("w") as output:
            for command in commands:
                if command.startswith("openssl "):
                    subprocess.run(command.split(), check=True, stdout=output, stderr=subprocess.STDOUT)
                    continue
                self.processes.append(subprocess.Popen(
                    ["setpriv", "--pdeathsig", "TERM", *command.split()], env=variables,
                    stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT, cwd="/",
                    start_new_session=True))
                self.wait_for_socket(command)
        end = time.monotonic() + 20
        while not self.is_listening():
            ended = any(process.poll() is not None for process in self.processes)
            if ended or time.monotonic() > end:
                self.stop()
                raise RuntimeError(f"{self.name} does not start:\n{self.log()}")
            time.sleep(0.05)

    def is_listening(self):
        with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", self.port)):
            return True
        return False

    def wait_for_socket(self, command):
        path = re.search(r"\S+\.socket", command)
        end = time.monotonic() + 20
        while path and not Path(path[0]).exists() and time.monotonic() < end:
            time.sleep(0.02)

    def log(self):
        logs = [self.root / "output", *(self.root / "run").glob("*.log")]
        return "\n".join(path.read_text(errors="replace") for path in logs)

    def stop(self):
        for process in reversed(self.processes):
            with contextlib.suppress(ProcessLookupError):
                os.killpg(process.pid, signal.SIGTERM)
            try:
                process.wait(5)
            except subprocess.TimeoutExpired:
                pass
            with contextlib.suppress(ProcessLookupError):
                os.killpg(process.pid, signal.SIGKILL)
            process.wait()

    def programs(self):
        """Returns the processes that run CGI programs."""
        found = []
        for path in Path("/proc").glob("[0-9]*/cwd"):
            with contextlib.suppress(OSError):
                if Path(os.readlink(path)) == self.root / "www" / "cgi-bin":
                    found.append(int(path.parent.name))
        return found

    def wait_for_programs(self, seconds=15):
        """Waits until no CGI program runs. Returns false if that takes longer."""
        end = time.monotonic() + seconds
        while self.programs():
            if time.monotonic() > end:
                return False
            time.sleep(0.05)
        return True

    def clear(self):
        for path in self.received.iterdir():
            path.unlink()

