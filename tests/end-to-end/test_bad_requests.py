# SPDX-License-Identifier: MIT
"""Malformed requests get an appropriate response, and leave the files intact."""

import random
import time
import urllib.parse

from demo_test import OwnDemoTest
from device import DEVICE, LOGOUT, NETWORK, PASSWORD, UPGRADE, UPLOAD

FORM = "application/x-www-form-urlencoded"


class BadRequests(OwnDemoTest):
    def setUp(self):
        self.restore_settings()

    def assert_unchanged(self):
        self.assertEqual(self.demo.files(), self.factory)
        self.assertEqual(self.demo.get(NETWORK).status, 200)

    def raw_post(self, headers, body=b"", **options):
        head = f"POST {NETWORK} HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n"
        head += f"Cookie: session={self.demo.session}\r\n{headers}\r\n"
        response = self.demo.raw(head.encode() + body, **options)
        return int(response.split()[1]) if response else None

    def test_other_methods_are_refused(self):
        for method in ("PUT", "DELETE", "PATCH", "TRACE", "CONNECT", "MKCOL", "get", "post", "FOO"):
            for body in (None, b"WLAN_SSID=x"):
                response = self.demo.request(method, NETWORK, body, {"Content-Type": FORM})
                self.assertIn(response.status, (400, 405, 501), method)
        self.assertIn(self.demo.request("OPTIONS", NETWORK).status, (200, 405))
        self.assert_unchanged()

    def test_a_form_of_another_type_is_refused(self):
        for kind in ("multipart/form-data; boundary=x", "text/plain", "application/json", ""):
            response = self.demo.post(NETWORK, "WLAN_SSID=x", {"Content-Type": kind})
            self.assertEqual(response.status, 415, kind)
        self.assert_unchanged()

    def test_a_charset_after_the_type_is_accepted(self):
        response = self.demo.post(NETWORK, "WLAN_SSID=x", {"Content-Type": FORM + "; charset=UTF-8"})
        self.assertEqual(response.status, 303)

    def test_forms_of_other_sites_are_refused(self):
        own = f"127.0.0.1:{self.demo.port}"
        for headers in ({"Origin": "http://evil.example"}, {"Origin": "null"},
                        {"Origin": f"http://{own}0"}, {"Origin": f"http://{own}.evil.example"},
                        {"Origin": f"http://evil.example/http://{own}"}, {"Origin": own},
                        {"Origin": "http://127.0.0.1"}):
            self.assertEqual(self.demo.post(NETWORK, "WLAN_SSID=x", headers).status, 403, headers)
        for referer in ("http://evil.example/", f"http://evil.example/?http://{own}/",
                        f"http://{own}@evil.example/"):
            response = self.demo.request("POST", NETWORK, f"WLAN_SSID=x&token={self.demo.token()}", {
                "Content-Type": FORM, "Referer": referer})
            self.assertEqual(response.status, 403, referer)
        self.assert_unchanged()

    def test_a_form_without_the_token_of_its_session_is_refused(self):
        other = self.demo.token(self.demo.log_in())
        for token in ("", "&token", "&token=", "&token=x", "&token=" + "0" * 64, "&token=" + other,
                      f"&token={self.demo.token()}0", f"&Token={self.demo.token()}",
                      f"&token={self.demo.session}"):
            for path, field in ((NETWORK, "WLAN_SSID=x"), (DEVICE, "CONTACT=x"),
                                (UPGRADE, "action=restart"), (PASSWORD, "old=corvel"), (LOGOUT, "")):
                response = self.demo.request("POST", path, field + token, {"Content-Type": FORM})
                self.assertEqual(response.status, 403, path + token)
        upload = self.demo.request("POST", f"{UPLOAD}?token={other}", b"",
                                   {"Content-Type": "multipart/form-data; boundary=x"})
        self.assertEqual(upload.status, 403)
        self.assert_unchanged()

    def test_forms_of_this_site_and_of_programs_are_accepted(self):
        own = f"http://127.0.0.1:{self.demo.port}"
        for headers in ({}, {"Origin": own}, {"Referer": own + NETWORK}, {"Referer": own}):
            response = self.demo.request("POST", NETWORK, f"WLAN_SSID=x&token={self.demo.token()}", {
                "Content-Type": FORM, **headers})
            self.assertEqual(response.status, 303, headers)

    def test_a_foreign_host_is_refused(self):
        for host in ("evil.example", "evil.example:80", "127.0.0.1.evil.example", "10.0.0.1"):
            self.assertEqual(self.demo.get(NETWORK, Host=host).status, 403, host)
            response = self.demo.post(NETWORK, "WLAN_SSID=x", {
                "Host": host, "Origin": f"http://{host}"})
            self.assertEqual(response.status, 403, host)
        self.assert_unchanged()

    def test_bodies_that_are_too_large_are_refused(self):
        for size in (65537, 100_000, 5_000_000):
            body = "WLAN_SSID=x&filler=" + "x" * (size - 19)
            try:
                self.assertEqual(self.demo.post(NETWORK, body).status, 413, size)
            except (BrokenPipeError, ConnectionResetError):
                pass  # the server has closed the connection before the end of the body
        for length in ("99999999999", "9223372036854775807"):
            self.assertEqual(self.raw_post(f"Content-Type: {FORM}\r\nContent-Length: {length}\r\n"),
                             413)
        self.assert_unchanged()

    def test_the_largest_body_is_accepted(self):
        ending = f"&WLAN_SSID=Full&token={self.demo.token()}"
        body = "a=&" * 21000 + "a="
        body += "z" * (65536 - len(body) - len(ending)) + ending
        self.assertEqual(len(body), 65536)
        self.assertEqual(self.demo.post(NETWORK, body).status, 303)
        self.assertEqual(self.demo.json(NETWORK)["WLAN_SSID"], "Full")

    def test_thousands_of_fields_are_accepted(self):
        for count in (2047, 2048, 2049, 10000, 21000):
            body = "=&" * count + f"WLAN_SSID={count}&" + "a=&" * 100
            self.assertEqual(self.demo.post(NETWORK, body).status, 303, count)
            self.assertEqual(self.demo.json(NETWORK)["WLAN_SSID"], str(count))
        body = "&".join(f"WLAN_SSID={i}" for i in range(4000))
        self.assertEqual(self.demo.post(NETWORK, body).status, 303)
        self.assertEqual(self.demo.json(NETWORK)["WLAN_SSID"], "0", "the first field is used")
        self.assertEqual(self.demo.post(DEVICE, "=&" * 32700).status, 400)

    def test_long_queries_get_a_complete_response(self):
        for query in ("=&" * 2048 + "Ajax=1", "=&" * 2047 + "Ajax=1", "a&" * 2000, "Ajax=" + "9" * 3000,
                      "Ajax", "Ajax=", "Ajax=1%", "Ajax=%", "Ajax=-1", "%", "&", "=",
                      "Ajax=99999999999999999999"):
            response = self.demo.get(f"{NETWORK}?{query}")
            self.assertEqual(response.status, 200, query[:30])
            self.assertTrue(response.text.endswith(("</html>\n", "}")), query[:30])
        self.assertIn(self.demo.get(f"{NETWORK}?Ajax=%00").status, (200, 400))
        for length in (10_000, 100_000):
            status = self.demo.get(f"{NETWORK}?" + "x" * length).status
            self.assertIn(status, (200, 400, 414, 431))

    def test_a_post_without_known_settings_is_refused(self):
        for body in ("", "a=b", "WLAN_SSID", "=", "&", "wlan_ssid=x", "=WLAN_SSID=x",
                     "WLAN_SSID%3Dx"):
            # A last word without `=` is a field with an empty value, and an empty SSID is invalid.
            expected = 422 if body == "WLAN_SSID" else 400
            self.assertEqual(self.demo.post(NETWORK, body).status, expected, body)
        self.assert_unchanged()

    def test_a_post_without_a_valid_length_is_refused(self):
        self.assertEqual(self.raw_post(f"Content-Type: {FORM}\r\n"), 411)
        for length in ("-1", "x", "1x", "", "0x10", "+5"):
            status = self.raw_post(f"Content-Type: {FORM}\r\nContent-Length: {length}\r\n")
            self.assertIn(status, (400, 411, 413), length)
        self.assert_unchanged()

    def test_a_chunked_body_is_accepted(self):
        token = f"&token={self.demo.token()}".encode()
        chunks = b"5\r\nWLAN_\r\n8\r\nSSID=abc\r\n%x\r\n%s\r\n0\r\n\r\n" % (len(token), token)
        headers = f"Content-Type: {FORM}\r\nTransfer-Encoding: chunked\r\n"
        self.assertEqual(self.raw_post(headers, chunks), 303)
        self.assertEqual(self.demo.json(NETWORK)["WLAN_SSID"], "abc")
        self.assertIn(self.raw_post(headers, b"zz\r\nWLAN_SSID=x"), (400, None))

    def test_a_short_body_is_not_saved(self):
        headers = f"Content-Type: {FORM}\r\nContent-Length: 100\r\n"
        for body in (b"", b"WLAN_SSID=short"):
            self.assertIn(self.raw_post(headers, body, half_close=True), (None, 400, 408))
        self.assert_unchanged()

    def test_a_client_that_stops_sending_is_disconnected(self):
        start = time.monotonic()
        headers = f"Content-Type: {FORM}\r\nContent-Length: 100\r\n"
        self.assertIn(self.raw_post(headers, b"WLAN_SSID=slow", seconds=30), (None, 400, 408))
        self.assertLess(time.monotonic() - start, 25)
        self.assert_unchanged()

    def test_bytes_after_the_content_length_are_ignored(self):
        body = f"token={self.demo.token()}&WLAN_SSID=a".encode()
        headers = f"Content-Type: {FORM}\r\nContent-Length: {len(body)}\r\n"
        self.assertEqual(self.raw_post(headers, body + b"bGARBAGE"), 303)
        self.assertEqual(self.demo.json(NETWORK)["WLAN_SSID"], "a")

    def test_random_bodies_are_refused(self):
        chance = random.Random(1)
        for _ in range(150):
            body = chance.randbytes(chance.choice((1, 2, 10, 300, 5000)))
            self.assertIn(self.demo.post(chance.choice((NETWORK, DEVICE)), body).status, (400, 422))
        self.assert_unchanged()

    def test_damaged_forms_leave_the_files_well_formed(self):
        chance = random.Random(2)
        fields = [each for each in self.demo.page(NETWORK).fields
                  if each[0] != "token" and not each[0].startswith("version_")]
        good = urllib.parse.urlencode(fields).encode()
        for _ in range(300):
            body = bytearray(good)
            for _ in range(chance.randint(1, 6)):
                at = chance.randrange(len(body))
                if chance.random() < 0.5:
                    body[at] = chance.choice(b"%&=+\"\\$`\x00\xff\n0aZ")
                else:
                    del body[at:at + chance.randint(1, 20)]
            self.assertIn(self.demo.post(NETWORK, bytes(body)).status, (303, 400, 422), bytes(body))
        for name, content in self.demo.files().items():
            old = self.factory[name].splitlines()
            new = content.splitlines()
            self.assertTrue(content.endswith(b"\n"))
            self.assertEqual([line.replace(b"=", b" ").split()[0] for line in new],
                             [line.replace(b"=", b" ").split()[0] for line in old])
        self.assertEqual(self.demo.get(NETWORK).status, 200)

    def test_malformed_encodings_are_kept_and_a_nul_is_refused(self):
        for body, value in (("WLAN_SSID=100%", "100%"), ("WLAN_SSID=a%4", "a%4"),
                            ("&&WLAN_SSID=b&", "b"), ("WLAN_SSID=%41%", "A%")):
            self.assertEqual(self.demo.post(NETWORK, body).status, 303, body)
            self.assertEqual(self.demo.json(NETWORK)["WLAN_SSID"], value)
        self.assertEqual(self.demo.post(NETWORK, "WLAN_SSID=ab%00cd").status, 400)
        self.assertEqual(self.demo.json(NETWORK)["WLAN_SSID"], "A%")

    def test_a_value_that_the_decoder_truncates_is_refused(self):
        for value in ("%41" * 81, "%41" * 85, "%41" * 86, "a" * 254 + "%4", "%E6%97%A5" * 40):
            self.assertEqual(self.demo.post(DEVICE, "DESCRIPTION=" + value).status, 422, value)
        self.assert_unchanged()
