# SPDX-License-Identifier: MIT
"""Writes and reads multipart bodies with Python's email package.

    multipart_peer.py send PORT LAYOUT    posts two files to the loopback interface
    multipart_peer.py parse DIRECTORY     parses every DIRECTORY/*.body, whose content type is in
                                          *.type, and writes the files to *.parsed: a line each for
                                          name, type and length, then the content
"""

import email.encoders
import email.message
import email.mime.application
import email.mime.multipart
import email.parser
import email.policy
import http.client
import pathlib
import sys

MAX_FILES = 4


def file_headers_first(content, name):
    """A part whose first header is the disposition, as browsers send it."""
    part = email.message.Message()
    part.add_header("Content-Disposition", "form-data", name="image", filename=name)
    part["Content-Type"] = "application/octet-stream"
    part.set_payload(content)
    email.encoders.encode_base64(part)
    return part


def package_order(content, name):
    """A part with the package's order of headers: the type before the disposition."""
    part = email.mime.application.MIMEApplication(content)
    part.add_header("Content-Disposition", "form-data", name="image", filename=name)
    return part


LAYOUTS = {"disposition-first": file_headers_first, "type-first": package_order}


def send(port, layout):
    form = email.mime.multipart.MIMEMultipart("form-data")
    form.attach(LAYOUTS[layout](bytes(range(6)), "first.bin"))
    form.attach(LAYOUTS[layout](b"\xff" * 60, "second.bin"))
    headers, body = form.as_bytes(policy=email.policy.HTTP).split(b"\r\n\r\n", 1)
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=20)
    kind = f'multipart/form-data; boundary={form.get_boundary()}'
    connection.request("POST", "/", body, {"Content-Type": kind})
    return 0 if connection.getresponse().status == 200 else 1


def parse(body, kind):
    message = email.parser.BytesParser(policy=email.policy.compat32).parsebytes(
        b"Content-Type: " + kind + b"\r\n\r\n" + body)
    files = [part for part in message.get_payload() if part.get_filename()]
    lines = b""
    for part in files[:MAX_FILES]:
        content = part.get_payload(decode=True)
        lines += f"{part.get_filename()}\n{part['Content-Type']}\n{len(content)}\n".encode()
        lines += content
    return lines


def parse_all(directory):
    for body in pathlib.Path(directory).glob("*.body"):
        kind = body.with_suffix(".type").read_bytes()
        body.with_suffix(".parsed").write_bytes(parse(body.read_bytes(), kind))
    return 0


if __name__ == "__main__":
    if sys.argv[1] == "send":
        sys.exit(send(int(sys.argv[2]), sys.argv[3]))
    sys.exit(parse_all(sys.argv[2]))
