# SPDX-License-Identifier: MIT
"""HTTP clients that send files as a form."""
import functools
import os
import subprocess

from build_tree import BUILD, SOURCE
from web_server import HERE

PROGRAMS = HERE / "clients"
FIELD = "caf\u00e9 & tea"
BOUNDARY = "------------------------7d44e178b1a2"

# The files that each client sends, by the columns of the tables.
SAMPLES = {
    "binary": ("binary.bin", bytes(range(256)) * 4),
    "empty": ("empty.bin", b""),
    "`Content-Type:` inside": (
        "headers.txt", b"a\r\nContent-Type: text/html\r\n\r\nfilename=\"x\"\r\n"
        b"--b--\r\n\r\n------\r\n--------------------------\r\nend\r\n"),
    "quote in the name": ('the "new" one.bin', b"quote\r\n"),
    "UTF-8 in the name": ("caf\u00e9.bin", b"UTF-8\n"),
    "space in the name": ("my file.bin", b"\r\nspace\r"),
}


def write_samples(directory):
    """Writes the files and returns their paths by column."""
    directory.mkdir(exist_ok=True)
    paths = {column: directory / name for column, (name, _) in SAMPLES.items()}
    for column, path in paths.items():
        path.write_bytes(SAMPLES[column][1])
    return paths


def with_curl(url, paths, _):
    files = []
    for path in paths:
        files += ["-F", 'file=@"{}"'.format(str(path).replace('"', '\\"'))]
    return ["curl", "-s", "-F", f"note={FIELD}", *files, url]


def with_wget(url, paths, scratch):
    """wget sends no forms: the body is in a file."""
    lines = [f"--{BOUNDARY}", 'Content-Disposition: form-data; name="note"', "", FIELD]
    body = "\r\n".join(lines).encode()
    for path in paths:
        name = path.name.replace('"', "%22")
        lines = ["", f"--{BOUNDARY}",
                 f'Content-Disposition: form-data; name="file"; filename="{name}"',
                 "Content-Type: application/octet-stream", "", ""]
        body += "\r\n".join(lines).encode() + path.read_bytes()
    (scratch / "body").write_bytes(body + f"\r\n--{BOUNDARY}--\r\n".encode())
    return ["wget", "-q", "-O", "-", f"--post-file={scratch}/body",
            f"--header=Content-Type: multipart/form-data; boundary={BOUNDARY}", url]


def with_python(library):
    return lambda url, paths, _: [PROGRAMS / "python_upload.py", library, url, *paths]


def with_program(*command):
    return lambda url, paths, _: [*command, url, *paths]


def with_go(url, paths, _):
    return [go_program(), url, *paths]


@functools.cache
def go_program():
    program = BUILD / "servers" / f"go_upload.{os.getpid()}"
    program.parent.mkdir(exist_ok=True)
    subprocess.run(["go", "build", "-o", program, PROGRAMS / "go_upload.go"], check=True, env={
        **os.environ, "GO111MODULE": "off", "GOCACHE": str(program.parent / "cache"),
        "GOPATH": str(program.parent / "path"), "GOTOOLCHAIN": "local"})
    return program


CLIENTS = {
    "curl": with_curl,
    "wget, body in a file": with_wget,
    "Python, requests": with_python("requests"),
    "Python, httpx": with_python("httpx"),
    "Python, aiohttp": with_python("aiohttp"),
    "Node, fetch": with_program("node", PROGRAMS / "node_upload.mjs"),
    "Go, mime/multipart": with_go,
    "Perl, LWP": with_program("perl", PROGRAMS / "perl_upload.pl"),
    "Ruby, net/http": with_program("ruby", PROGRAMS / "ruby_upload.rb"),
    "Chromium": with_program("node", PROGRAMS / "browser_upload.js"),
}
SHORT = ("curl", "wget, body in a file", "Python, requests")


def send(client, url, paths, scratch):
    """Sends the files and the field, and returns the response."""
    # Chromium has its profile in the home directory.
    variables = {**os.environ, "HOME": str(scratch), "LC_ALL": "C.UTF-8",
                 "NODE_PATH": str(SOURCE / "build" / "end-to-end" / "node_modules")}
    done = subprocess.run(CLIENTS[client](url, paths, scratch), env=variables, timeout=120,
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    assert done.returncode == 0, done.stderr.decode(errors="replace")
    return done.stdout.decode()
