# SPDX-License-Identifier: MIT
"""What the web server delivers itself: static files and its own error pages."""

import gzip
import os
import pathlib
import re
import subprocess
import unittest

from demo_test import SharedDemoTest
from device import IMAGE, NETWORK, UPLOAD, Element, wait_until


class StaticFiles(SharedDemoTest):
    def test_browsers_keep_them_until_they_change(self):
        for kind in ("text/css", "text/javascript"):
            path = self.demo.static_file(kind)
            self.assertRegex(path, r"^/[a-z]+\.[0-9a-f]{8}\.(css|js)$")
            self.assertIn("immutable", self.demo.get(path).headers["Cache-Control"])

    def test_they_are_compressed_for_a_browser_that_accepts_it(self):
        for kind in ("text/css", "text/javascript"):
            path = self.demo.static_file(kind)
            plain = self.demo.get(path)
            packed = self.demo.get(path, **{"Accept-Encoding": "gzip, br"})
            self.assertIsNone(plain.headers["Content-Encoding"])
            self.assertEqual(packed.headers["Content-Encoding"], "gzip")
            self.assertEqual(gzip.decompress(packed.body), plain.body)
            self.assertEqual(packed.headers["Content-Type"], plain.headers["Content-Type"])
            for response in (plain, packed):
                self.assertEqual(response.headers["Vary"], "Accept-Encoding")

    def test_they_have_less_than_60_kib(self):
        files = list((IMAGE / "www/public").iterdir())
        self.assertTrue(files)
        self.assertLess(sum(each.stat().st_size for each in files), 60 * 1024)


class Logs(SharedDemoTest):
    def test_a_long_log_is_put_aside_and_continued(self):
        logs = self.demo.state / "var/log"
        log, old = logs / "programs.log", logs / "programs.log.1"
        with log.open("a") as file:
            file.write(1000 * f"{'a line':<69}\n")
        self.assertTrue(wait_until(lambda: old.exists() and log.stat().st_size == 0))
        self.assertEqual(old.read_bytes().count(b"a line"), 1000)
        # The web server and its programs still write to it.
        server, = self.demo.programs("/usr/sbin/lighttpd")
        flags = [re.search(r"^flags:\s*0*(\d+)$", (number.parent.parent / "fdinfo" / number.name).read_text(), re.M)
                 for number in pathlib.Path(f"/proc/{server}/fd").iterdir()
                 if os.readlink(number).endswith(("programs.log", "lighttpd.log"))]
        self.assertEqual(len(flags), 2)
        self.assertTrue(all(int(each[1], 8) & os.O_APPEND for each in flags))


class Programs(unittest.TestCase):
    def test_they_need_no_library_but_those_of_the_device_and_the_c_library(self):
        """In particular not the C++ runtime, although the network page is in C++."""
        files = [*(IMAGE / "www/cgi-bin").iterdir(), *(IMAGE / "opt/lib").iterdir()]
        self.assertIn("network", [each.name for each in files])
        output = subprocess.run(["readelf", "--dynamic", *files], check=True, capture_output=True,
                                text=True).stdout
        needed = set(re.findall(r"\(NEEDED\).*\[(.*?)\]", output))
        self.assertLessEqual(needed, {"libcorvel.so.1", "libcorvel_page.so.1", "libc.so.6",
                                      "libcrypt.so.1"})
        self.assertIn("libc.so.6", needed)


class ErrorPages(SharedDemoTest):
    REQUESTS = (
        ("GET", 400), ("GET / HTTP/1.1\r\nHost: elsewhere.example", 403),
        ("GET /nothing HTTP/1.1", 404), (f"POST {NETWORK} HTTP/1.1", 411),
        (f"POST {NETWORK} HTTP/1.1\r\nContent-Length: 66000", 413),
        (f"POST {UPLOAD} HTTP/1.1\r\nContent-Length: 70000000", 413),
        ("GET / HTTP/1.1\r\nX-Long: " + 20_000 * "a", 431), ("GET / HTTP/3.1", 505),
    )

    def test_those_of_the_web_server_have_the_design_of_the_site_and_a_way_back(self):
        for request, status in self.REQUESTS:
            host = "" if "Host:" in request else "\r\nHost: 127.0.0.1"
            with self.subTest(request[:40]):
                head, _, body = self.demo.raw(
                    f"{request}{host}\r\nConnection: close\r\n\r\n".encode()
                ).decode().partition("\r\n\r\n")
                self.assertRegex(head, rf"^HTTP/1\.[01] {status} ")
                page = Element.of_page(body)
                self.assertEqual(len(page.find("h1")), 1)
                self.assertIn(f"Error {status}", page.text)
                self.assertEqual([each.attributes["href"] for each in page.find("a")], ["/"])
                self.assertEqual([each.attributes["href"] for each in page.find(
                    "link", rel="stylesheet")], [self.demo.static_file("text/css")])
