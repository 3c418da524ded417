# SPDX-License-Identifier: MIT
"""Runs the installed corvel-device, and serves a site whose programs are built as a user builds them."""
import contextlib
import os
import pty
import socket
import subprocess
import textwrap
import urllib.error
import urllib.request
from dataclasses import dataclass
from pathlib import Path

import pytest

from build_tree import INSTALLED, user_environment

COMMAND = INSTALLED / "bin/corvel-device"
# Shows a setting and a field of the request, and what it was sent.
PAGE = r"""
#include <corvel_page.h>
#include <stdlib.h>

static void respond(corvel_answer *answer, corvel_request *request)
{
    static corvel_request_rules rules;
    corvel_settings_result loaded = CORVEL_SETTINGS_UNREADABLE;
    corvel_settings *lan = corvel_settings_load("/etc/config/lan.conf", '=', &loaded);

    rules.methods = CORVEL_GET | CORVEL_POST;
    if (corvel_request_read(request, &rules) == CORVEL_HTTP_OK) {
        corvel_json_open_object(answer, NULL);
        corvel_json_string(answer, "address", corvel_setting(lan, "LAN_ADDRESS"));
        corvel_json_string(answer, "sent", corvel_field(request, "sent"));
        corvel_json_string(answer, "cookie", getenv("HTTP_COOKIE"));
        corvel_json_close(answer);
        corvel_setting_set(lan, "LAN_ADDRESS", "192.168.1.2");
        corvel_settings_save(&lan, 1);
    }
    corvel_settings_free(lan);
}

int main(void)
{
    corvel_request *request = corvel_request_begin();
    corvel_answer *answer = corvel_answer_new(request, NULL);

    respond(answer, request);
    corvel_answer_send(answer);
    corvel_answer_free(answer);
    corvel_request_free(request);
    return 3;
}
"""


# Prints what the library reads from the lease file of the server that runs.
LEASES = r"""
#include <corvel.h>
#include <stdio.h>

int main(void)
{
    lease_entry *leases = NULL;

    get_leases(&leases);
    for (const lease_entry *each = leases; each != NULL; each = each->next)
        printf("%s,%s,%s,%s\n", each->hostname, each->ip, each->mac, each->expires);
    free_leaselist(&leases);
    return 0;
}
"""


@dataclass
class Done:
    status: int
    output: str
    errors: str


class Runner:
    """Runs corvel-device in a directory of its own."""

    def __init__(self, directory):
        self.directory = directory
        self.variables = {**user_environment(), "TMPDIR": str(directory)}

    def start(self, *words, **options):
        options = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **options}
        return subprocess.Popen([str(word) for word in (COMMAND, *words)], cwd=self.directory,
                                env=self.variables, text=True, **options)

    def run(self, *words, input=None):
        with self.start(*words, stdin=subprocess.PIPE) as process:
            output, errors = process.communicate(input, timeout=120)
        return Done(process.returncode, output, errors)

    def shell(self, script, *words):
        """Runs a script on the device. Returns its output."""
        done = self.run(*words, "--", "sh", "-c", script)
        assert done.status == 0, done
        return done.output

    @contextlib.contextmanager
    def site(self, *words):
        """Serves a site on the machine. Yields its address and the process."""
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            port = free.getsockname()[1]
        with self.start("--port", port, *words) as process:
            try:
                assert f"http://127.0.0.1:{port}/" in process.stdout.readline(), process.stderr.read()
                yield f"http://127.0.0.1:{port}", process
            finally:
                process.terminate()

    def in_terminal(self, words, dialogue):
        """Runs it in a terminal. The dialogue is pairs of what the program prints and what is typed
        then. Returns the status and the output."""
        process, terminal = pty.fork()
        if process == 0:
            os.chdir(self.directory)
            os.execve(COMMAND, [str(word) for word in (COMMAND, *words)], self.variables)
        output = b""
        for shown, typed in dialogue:
            while shown not in output:
                output += os.read(terminal, 4096)
            os.write(terminal, typed)
            output = output[output.index(shown) + len(shown):]
        with contextlib.suppress(OSError):  # the end of a terminal
            while piece := os.read(terminal, 4096):
                output += piece
        os.close(terminal)
        return os.waitstatus_to_exitcode(os.waitpid(process, 0)[1]), output.decode()


@pytest.fixture
def device(tmp_path):
    return Runner(tmp_path)


def build(directory, name, code):
    """Builds a program outside of the tree, with pkg-config. Returns its path."""
    (directory / f"{name}.c").write_text(code)
    subprocess.run(f"cc -g {name}.c -o {name} $(pkg-config --cflags --libs corvel_page corvel)", shell=True,
                   check=True, cwd=directory, env=user_environment())
    return directory / name


@pytest.fixture(scope="session")
def built_page(tmp_path_factory):
    return build(tmp_path_factory.mktemp("page"), "page", PAGE)


@pytest.fixture
def www(tmp_path, built_page):
    """A site with that program, the program `shell`, and a file."""
    directory = tmp_path / "www"
    (directory / "cgi-bin").mkdir(parents=True)
    (directory / "public").mkdir()
    os.link(built_page, directory / "cgi-bin/page")
    add_program(directory, "shell", 'printf "Content-Type: text/plain\\r\\n\\r\\n"; echo "from $0"; echo seen >&2')
    (directory / "public/index.html").write_text("<p>the front page</p>\n")
    (directory / "secret").write_text("not served\n")
    return directory


def add_program(www, name, script):
    path = Path(www) / "cgi-bin" / name
    path.write_text("#!/bin/sh\n" + textwrap.dedent(script) + "\n")
    path.chmod(0o755)


def fetch(address, body=None, **headers):
    """Returns the status and the body of an answer."""
    request = urllib.request.Request(address, body, headers)
    try:
        with urllib.request.urlopen(request, timeout=30) as answer:
            return answer.status, answer.read().decode()
    except urllib.error.HTTPError as error:
        return error.code, error.read().decode()
