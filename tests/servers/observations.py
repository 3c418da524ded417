# SPDX-License-Identifier: MIT
"""What a web server and the CGI programs make of each kind of request, in the words of the tables in
docs/servers.md.
"""
import functools
import json
import random
import time

from http_client import Connection, exchange, form, request

MIB = 1 << 20
BOUNDARY = b"---------------------------298401764"
MULTIPART = "multipart/form-data; boundary=" + BOUNDARY.decode()


@functools.cache
def sample(size):
    return random.Random(size).randbytes(size)


def upload_of(content):
    return (b"--" + BOUNDARY + b"\r\n"
            b'Content-Disposition: form-data; name="file"; filename="image.bin"\r\n'
            b"Content-Type: application/octet-stream\r\n\r\n" + content +
            b"\r\n--" + BOUNDARY + b"--\r\n")


def result(response, is_right=None):
    """Returns the words for a response; is_right tells whether its content is as expected."""
    if not response.status:
        return "no response"
    if is_right is None or response.status != 200:
        return str(response.status)
    return "200" if is_right else "200, wrong"


def fields_of(response):
    try:
        return json.loads(response.body)["fields"]
    except (ValueError, KeyError):
        return None


class Pages:
    """The requests to the programs of a library, `page` or `interface`."""

    def __init__(self, site, library):
        self.site = site
        self.form = f"/cgi-bin/form_{library}"
        self.upload = f"/cgi-bin/upload_{library}"

    def send(self, data):
        return exchange(self.site.port, data)

    def form_result(self, data, fields):
        response = self.send(data)
        return result(response, fields_of(response) == fields)

    def get(self):
        return self.form_result(request("GET", self.form), [])

    def query(self):
        return self.form_result(request("GET", self.form + "?a=1&b=x+%26%20y"),
                                [["a", "1"], ["b", "x & y"]])

    def path(self):
        response = self.send(request("GET", self.form + "/lan/eth%200"))
        return result(response, b'"path":"/lan/eth 0"' in response.body)

    def head(self):
        response = self.send(request("HEAD", self.form))
        return result(response) + (", a body" if response.body else ", no body")

    def post(self):
        return self.form_result(request("POST", self.form, **form(b"a=1&b=x+%26%20y")),
                                [["a", "1"], ["b", "x & y"]])

    def ajax(self):
        text = '{"Ajax":1,"name":"\u00e9\\"<"}'
        response = self.send(request("POST", self.form, text.encode(),
                                     Content_Type="application/json"))
        return result(response, response.status == 200 and
                      json.loads(response.body)["body"] == text and
                      response.fields["content-type"].startswith("application/json"))

    def redirection(self):
        response = self.send(request("POST", self.form, **form(b"go=1")))
        return f"{result(response)} to {response.fields.get('location', 'nowhere')}".replace(
            self.form, "the page")

    def pairs(self):
        pairs = [[f"n{number}", f"v{number}"] for number in range(4000)]
        body = "&".join("=".join(pair) for pair in pairs).encode()
        return self.form_result(request("POST", self.form, **form(body)), pairs)

    def expect(self):
        head, body = request("POST", self.form, **form(b"a=1", Expect="100-continue")).split(
            b"\r\n\r\n", 1)
        with Connection(self.site.port) as connection:
            connection.send(head + b"\r\n\r\n")
            told = connection.wait(3)
            connection.send(body)
            response = connection.response()
        first = "100, then " if response.interim and told else "no 100, "
        return first + result(response, fields_of(response) == [["a", "1"]])

    def chunked(self):
        body = b"4\r\na=1&\r\n3\r\nb=2\r\n0\r\n\r\n"
        response = self.send(request("POST", self.form, **form(
            body, Content_Length=None, Transfer_Encoding="chunked")))
        if response.status == 200 and fields_of(response) == []:
            return "200, no fields"
        return result(response, fields_of(response) == [["a", "1"], ["b", "2"]])

    def upload_of(self, size):
        return request("POST", self.upload, upload_of(sample(size)), Content_Type=MULTIPART)

    def files(self):
        return sorted(path for path in self.site.received.iterdir() if path.name.isdigit())

    def large_upload(self):
        response = self.send(self.upload_of(15 * MIB))
        files = self.files()
        right = len(files) == 1 and files[0].read_bytes() == sample(15 * MIB)
        return result(response, right)

    def refused_upload(self):
        response = self.send(self.upload_of(20 * MIB))
        return result(response) + (", a file" if self.files() else "")

    def aborted_upload(self):
        with Connection(self.site.port) as connection:
            connection.send(self.upload_of(15 * MIB)[:MIB])
        time.sleep(1)
        is_over = self.site.wait_for_programs()
        return ("no file" if not self.files() else "a file") + ("" if is_over else ", still runs")


PAGE_REQUESTS = {
    "GET": Pages.get,
    "GET with a query": Pages.query,
    "GET with a path after the program": Pages.path,
    "HEAD": Pages.head,
    "POST": Pages.post,
    "POST of JSON": Pages.ajax,
    "POST answered by a redirection": Pages.redirection,
    "POST of 4,000 pairs": Pages.pairs,
    "POST with `Expect: 100-continue`": Pages.expect,
    "POST with chunked body": Pages.chunked,
    "Upload of 15 MiB": Pages.large_upload,
    "Upload of 20 MiB": Pages.refused_upload,
    "Upload aborted after 1 MiB": Pages.aborted_upload,
}


class Passed:
    """What the server passes to a program, which records it."""

    def __init__(self, site):
        self.site = site

    def record(self, data):
        """Sends a request to the recording program. Returns the variables and the input."""
        response = exchange(self.site.port, data)
        if response.status != 200:
            return {"": str(response.status)}, b""
        return self.variables(), (self.site.received / "input").read_bytes()

    def variables(self):
        text = (self.site.received / "environment").read_text(errors="replace")
        return dict(line.split("=", 1) for line in text.splitlines() if "=" in line)

    def method(self, name):
        variables, _ = self.record(request(name, "/cgi-bin/record"))
        return variables.get("REQUEST_METHOD", variables.get("", ""))

    def head(self):
        return f"`{self.method('HEAD')}`"

    def put(self):
        name = self.method("PUT")
        return name if name.isdigit() else f"`{name}`"

    def path(self):
        variables, _ = self.record(request("GET", "/cgi-bin/record/lan/a%20b/../c"))
        return f"`{variables.get('PATH_INFO', '')}`"

    def directory(self):
        self.record(request("GET", "/cgi-bin/record"))
        directory = (self.site.received / "directory").read_text().strip()
        return directory.replace(str(self.site.root), "").lstrip("/") or "/"

    def expect(self):
        variables, _ = self.record(request("POST", "/cgi-bin/record", **form(
            b"a=1", Expect="100-continue")))
        return "yes" if "HTTP_EXPECT" in variables else "no"

    def proxy(self):
        variables, _ = self.record(request("GET", "/cgi-bin/record", Proxy="evil.example"))
        return "yes" if variables.get("HTTP_PROXY") else "no"

    def chunked(self):
        body = b"4\r\na=1&\r\n3\r\nb=2\r\n0\r\n\r\n"
        variables, sent = self.record(request("POST", "/cgi-bin/record", **form(
            body, Content_Length=None, Transfer_Encoding="chunked")))
        length = f"`{variables['CONTENT_LENGTH']}`" if "CONTENT_LENGTH" in variables else "no length"
        coding = ", `HTTP_TRANSFER_ENCODING`" if "HTTP_TRANSFER_ENCODING" in variables else ""
        contents = {b"a=1&b=2": "decoded", body: "with the lengths of the chunks"}
        content = contents.get(sent, "something else")
        return f"{length}{coding}, {content}"

    def start(self):
        whole = request("POST", "/cgi-bin/record", **form(b"x" * MIB))
        with Connection(self.site.port) as connection:
            connection.send(whole[:-10])
            time.sleep(1)
            early = (self.site.received / "environment").exists()
        self.site.wait_for_programs()
        return "before the body" if early else "after the body"

    def abort(self):
        with Connection(self.site.port) as connection:
            connection.send(request("POST", "/cgi-bin/record", **form(b"x" * MIB))[:-10])
            time.sleep(1)
        time.sleep(1)
        is_over = self.site.wait_for_programs()
        if not (self.site.received / "environment").exists():
            return "does not start"
        if (self.site.received / "ended").exists():
            return "its input ends"
        return "is ended by a signal" if is_over else "keeps waiting"

    def unread(self):
        return result(exchange(self.site.port, request(
            "POST", "/cgi-bin/refuse", **form(b"x" * 3_000_000))))


PASSED = {
    "`REQUEST_METHOD` of a HEAD": Passed.head,
    "`REQUEST_METHOD` of a PUT, or the server's answer": Passed.put,
    "`PATH_INFO` of `/cgi-bin/record/lan/a%20b/../c`": Passed.path,
    "Working directory": Passed.directory,
    "`HTTP_EXPECT`": Passed.expect,
    "`HTTP_PROXY`, from a field `Proxy`": Passed.proxy,
    "Chunked body: `CONTENT_LENGTH`, input": Passed.chunked,
    "The program starts": Passed.start,
    "If the client disconnects, the program": Passed.abort,
    "Response of a program that reads no body": Passed.unread,
}
