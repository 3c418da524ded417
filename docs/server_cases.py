# SPDX-License-Identifier: MIT
"""Sends requests to the guide's programs through nginx and fcgiwrap.

nginx reports "502 Bad Gateway" if a program exits while nginx is still sending the body.
"""
import contextlib
import os
import subprocess
import time

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


def fault_of_status(status, expected):
    return None if status == expected else f"status {status}, not {expected}"


def check(tally, directory, scratch, variables):
    with server(directory, scratch, variables) as socket:
        for size in (70_000, 3_000_000, 20_000_000):
            status, _ = post(socket, "/save_lan", b"x" * size)
            tally.add(f"nginx: a form of {size} bytes is refused", fault_of_status(status, 413))
        status, _ = post(socket, "/save_lan", b"IPADDR=10.0.0.1")
        tally.add("nginx: a form is accepted", fault_of_status(status, 303))
        kind = "multipart/form-data; boundary=b"
        for size in (70_000, 20_000_000):
            status, _ = post(socket, "/files", b"x" * size, "multipart/form-data")
            tally.add(f"nginx: an upload of {size} bytes without a boundary is refused",
                      fault_of_status(status, 400))
        status, _ = post(socket, "/files", b"x" * 20_000_000, kind)
        tally.add("nginx: an upload of more than 16 MiB is refused", fault_of_status(status, 400))
        status, response = post(
            socket, "/files", b"--b\r\nContent-Disposition: form-data; name=\"f\"\r\n\r\n"
            b"filename=x\r\n\r\n<script>alert(1)</script>\r\n--b--\r\n", kind)
        tally.add("nginx: the response contains no part of a field",
                  fault_of_status(status, 200) or (response.decode() if b"script" in response else
                                                   None))
