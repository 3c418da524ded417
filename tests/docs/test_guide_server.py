# SPDX-License-Identifier: MIT
"""Sends requests to the guide's programs through nginx and fcgiwrap.

nginx reports "502 Bad Gateway" if a program exits while nginx is still sending the body.
"""
import contextlib
import os
import subprocess
import time

import pytest

CONFIGURATION = """
{user}
daemon off;
pid {directory}/nginx.pid;
error_log {directory}/nginx.log;
events {{}}
http {{
    client_max_body_size 32m;
    client_body_temp_path {directory}/body;
    proxy_temp_path {directory}/proxy;
    fastcgi_temp_path {directory}/fastcgi;
    uwsgi_temp_path {directory}/uwsgi;
    scgi_temp_path {directory}/scgi;
    access_log off;
    server {{
        listen unix:{directory}/http.socket;
        location / {{
            fastcgi_pass unix:{directory}/fastcgi.socket;
            fastcgi_param REQUEST_METHOD $request_method;
            fastcgi_param CONTENT_TYPE $content_type;
            fastcgi_param CONTENT_LENGTH $content_length;
            fastcgi_param QUERY_STRING $query_string;
            fastcgi_param SCRIPT_FILENAME {programs}$fastcgi_script_name;
        }}
    }}
}}
"""


@contextlib.contextmanager
def server(programs, scratch, variables):
    """Serves the programs of a directory. Yields the path of the server's socket."""
    user = "user root;" if os.geteuid() == 0 else ""
    (scratch / "nginx.conf").write_text(
        CONFIGURATION.format(directory=scratch, programs=programs, user=user))
    variables = {**variables, "PATH": variables["PATH"] + ":/usr/sbin"}
    commands = (["fcgiwrap", "-s", f"unix:{scratch}/fastcgi.socket"],
                ["nginx", "-c", scratch / "nginx.conf", "-e", scratch / "nginx.log"])
    with contextlib.ExitStack() as stack:
        for command in commands:
            process = stack.enter_context(subprocess.Popen(
                command, cwd=programs, env=variables, stdin=subprocess.DEVNULL,
                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))
            stack.callback(process.terminate)
        end = time.monotonic() + 30
        while not all((scratch / name).exists() for name in ("fastcgi.socket", "http.socket")):
            if time.monotonic() > end:
                raise RuntimeError("nginx did not start")
            time.sleep(0.01)
        yield scratch / "http.socket"


def post(socket, path, body, content_type="application/x-www-form-urlencoded"):
    """Returns the status and the complete response to a request."""
    done = subprocess.run(
        ["curl", "--silent", "--max-time", "60", "--include", "--unix-socket", socket,
         "--header", f"Content-Type: {content_type}", "--header", "Expect:", "--data-binary", "@-",
         f"http://localhost{path}"], input=body, capture_output=True)
    head = done.stdout.split(b" ", 2)
    return (int(head[1]) if len(head) > 1 else 0), done.stdout


@pytest.fixture(scope="module")
def site(program, scratch, variables):
    """The path of the socket on which nginx serves the programs."""
    for name in ("save_lan", "files", "plain_page"):
        directory = program(name).parent
    with server(directory, scratch, variables) as socket:
        yield socket


def status(*request):
    return post(*request)[0]


@pytest.mark.parametrize("size", (70_000, 3_000_000, 20_000_000))
def test_a_large_form_is_refused(site, size):
    assert status(site, "/save_lan", b"x" * size) == 413


@pytest.mark.parametrize("size", (70_000, 20_000_000))
def test_a_form_without_a_session_is_redirected(site, size):
    assert status(site, "/plain_page", b"x" * size) == 303


def test_a_form_is_accepted(site):
    assert status(site, "/save_lan", b"IPADDR=10.0.0.1") == 303


@pytest.mark.parametrize("size", (70_000, 20_000_000))
def test_an_upload_without_a_boundary_is_refused(site, size):
    assert status(site, "/files", b"x" * size, "multipart/form-data") == 400


UPLOAD = "multipart/form-data; boundary=b"


def test_an_upload_of_more_than_16_mib_is_refused(site):
    assert status(site, "/files", b"x" * 20_000_000, UPLOAD) == 400


def test_the_response_contains_no_part_of_a_field(site):
    body = (b"--b\r\nContent-Disposition: form-data; name=\"f\"\r\n\r\n"
            b"filename=x\r\n\r\n<script>alert(1)</script>\r\n--b--\r\n")
    result, response = post(site, "/files", body, UPLOAD)
    assert result == 200
    assert b"script" not in response
