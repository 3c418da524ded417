# SPDX-License-Identifier: MIT
"""The contents of the pages and of the JSON documents."""

import html
import json
import re
import urllib.parse

from demo_test import OwnDemoTest
from device import (CLIENTS, DEVICE, LOGIN, LOGOUT, NETWORK, PAGES, PASSWORD, STATUS, TRAPS, UPGRADE,
                    UPLOAD, Page)

LAN = {"LAN_ADDRESS": "10.20.30.1", "LAN_NETMASK": "255.255.252.0", "DHCP_ENABLED": "0",
       "DHCP_FIRST": "10.20.28.10", "DHCP_LAST": "10.20.29.200", "DHCP_LEASE": "72"}
WIRELESS = {"WLAN_ENABLED": "1", "WLAN_SSID": "Caf\u00e9 <b> & 'co'", "WLAN_HIDDEN": "1",
            "WLAN_PASSPHRASE": "correct horse", "WLAN_CHANNEL": "11"}
GLOBAL = {"HOST_NAME": "attic", "DESCRIPTION": "Under the roof", "CONTACT": "Ann, 2nd floor",
          "DOMAIN": "home.arpa", "COUNTRY": "JP", "TIME_ZONE": "<-03>3"}
CHOICES = ("DHCP_ENABLED", "WLAN_ENABLED", "WLAN_HIDDEN", "WLAN_CHANNEL", "COUNTRY", "TIME_ZONE")
# The passphrase is on no page and in no document.
SECRETS = ("WLAN_PASSPHRASE",)
NETWORK_SETTINGS = {**LAN, **WIRELESS, "DOMAIN": GLOBAL["DOMAIN"], "COUNTRY": GLOBAL["COUNTRY"]}
DEVICE_SETTINGS = {name: GLOBAL[name] for name in ("HOST_NAME", "DESCRIPTION", "CONTACT", "TIME_ZONE")}


class Pages(OwnDemoTest):
    def setUp(self):
        self.write("lan.conf", LAN, '{}="{}"')
        self.write("wireless.conf", WIRELESS, '{}="{}"')
        self.write("global.conf", GLOBAL, '{} "{}"')

    def write(self, file, values, form):
        lines = [form.format(name, value) for name, value in values.items()]
        self.demo.file(file).write_text("# made by hand\n" + "\n".join(lines) + "\n")

    def public(self, settings):
        """Returns what a document has of the settings."""
        return ({name: value for name, value in settings.items() if name not in SECRETS}
                | {f"set_{name}": "1" for name in SECRETS})

    def test_the_network_page_shows_the_values_of_the_files(self):
        page = self.demo.page(NETWORK)
        self.assertEqual(page.shown, NETWORK_SETTINGS | dict.fromkeys(SECRETS, ""))
        self.assertIn(">/22</output>", page.text)

    def test_the_device_page_shows_the_values_of_the_file_and_the_factory(self):
        page = self.demo.page(DEVICE)
        self.assertEqual(page.shown, DEVICE_SETTINGS)
        for text in ("Corvel R1", "CR1-2209-004711", "1.2"):
            self.assertIn(f"<dd>{text}</dd>", page.text)

    def test_json_has_the_same_values(self):
        self.assertEqual(self.demo.json(NETWORK), self.public(NETWORK_SETTINGS))
        self.assertEqual(self.demo.json(DEVICE), DEVICE_SETTINGS)
        self.assertEqual(self.demo.json(DEVICE, "factory"), {
            "MODEL": "Corvel R1", "SERIAL": "CR1-2209-004711", "HARDWARE": "1.2"})
        self.assertRegex(self.demo.json(NETWORK, "applied")["TIME"], r"^\d{4}-\d\d-\d\d ")

    def test_the_query_selects_json(self):
        html = "text/html; charset=utf-8"
        for query, kind in (("Ajax=1", "application/json"), ("x=1&Ajax=2", "application/json"),
                            ("Ajax=0", html), ("ajax=1", html), ("Ajax=no", html), ("", html)):
            response = self.demo.get(f"{NETWORK}?{query}")
            self.assertEqual(response.headers["Content-Type"], kind, query)

    def test_no_marker_remains_in_a_page(self):
        for path in PAGES:
            text = self.demo.get(path).text
            self.assertIsNone(re.search("{{|}}", text))
            self.assertTrue(text.endswith("</html>\n"))

    def test_values_of_a_form_are_shown_escaped(self):
        """A value is shown as it was sent, even if it looks like a marker of a template."""
        forms = {NETWORK: NETWORK_SETTINGS, DEVICE: DEVICE_SETTINGS, LOGIN: ("user", "next"),
                 PASSWORD: ("old", "new", "again", "user"), UPGRADE: ("action",),
                 STATUS: ("name",), CLIENTS: ("sort",), TRAPS: ("text",), LOGOUT: ("next",)}
        statuses = {LOGOUT: (403,), UPGRADE: (400,), STATUS: (405,), CLIENTS: (400,), TRAPS: (405,)}
        for sent in ("x$token", "{{token}}", '"><script>', "{{&token}}$message'"):
            for path, names in forms.items():
                with self.subTest(f"{path} {sent}"):
                    fields = dict.fromkeys(names, sent) | {"password": sent}
                    if path == LOGOUT:
                        fields["token"] = sent
                    response = self.demo.post(path, fields)
                    self.assertIn(response.status, statuses.get(path, (403, 422, 429)))
                    page = Page(response.text)
                    for name in names:
                        if path in (NETWORK, DEVICE, LOGIN) and name not in (*CHOICES, *SECRETS, "next"):
                            self.assertEqual(page.shown[name], sent, name)
                    self.assertNotIn("<script>", response.text)
                    self.assertNotIn("x" + self.demo.token(), response.text)
            for path in PAGES:
                text = self.demo.get(f"{path}?" + urllib.parse.urlencode(
                    {name: sent for name in ("sort", "saved", "next", "user", "message")})).text
                self.assertNotIn("<script>", text)
                self.assertNotIn(sent, html.unescape(text))
        self.demo.session = self.demo.log_in()

    def test_the_navigation_marks_the_current_page(self):
        for path in PAGES:
            current = re.findall(r'<a href="([^"]+)" aria-current="page">', self.demo.get(path).text)
            self.assertEqual(current, [path])

    def test_every_control_has_a_label_and_ids_are_unique(self):
        for path in PAGES:
            page = self.demo.page(path)
            self.assertEqual(set(page.controls), page.labels)
            self.assertEqual(len(page.ids), len(set(page.ids)))

    def test_all_links_of_a_page_are_served_by_this_site(self):
        for path in PAGES:
            for link in self.demo.page(path).links:
                self.assertRegex(link, r"^(/(?!/)|#)")
                if link.startswith("/") and link.partition("?")[0] not in (UPLOAD, LOGOUT):
                    self.assertIn(self.demo.get(link).status, (200, 302), link)

    def test_static_files_have_their_types(self):
        for kind in ("text/css", "text/javascript", "image/svg+xml"):
            path = self.demo.static_file(kind)
            response = self.demo.get(path)
            self.assertEqual(response.status, 200)
            self.assertTrue(response.headers["Content-Type"].startswith(kind))

    def test_the_root_redirects_to_the_status_page(self):
        response = self.demo.get("/")
        self.assertEqual((response.status, response.headers["Location"]), (302, STATUS))

    def test_templates_and_settings_are_not_served(self):
        for path in ("/templates/network.html", "/../templates/network.html", "/etc/config/lan.conf",
                     "/cgi-bin/../templates/network.html", "/cgi-bin/%2e%2e/templates/network.html",
                     "/cgi-bin/", "/cgi-bin/nothing"):
            self.assertIn(self.demo.get(path).status, (400, 403, 404), path)

    def test_responses_have_the_security_headers(self):
        for path in (*PAGES, self.demo.static_file("text/css"), NETWORK + "?Ajax=1"):
            headers = self.demo.get(path).headers
            self.assertIn("default-src 'none'", headers["Content-Security-Policy"])
            self.assertIn("frame-ancestors 'none'", headers["Content-Security-Policy"])
            self.assertEqual(headers["X-Content-Type-Options"], "nosniff")
            self.assertEqual(headers["Referrer-Policy"], "same-origin")
        self.assertEqual(self.demo.get(NETWORK).headers["Cache-Control"], "no-store")

    def test_an_error_page_does_not_name_the_web_server(self):
        for request, status in (
                ("GET /nothing HTTP/1.1", 404), ("GET /cgi-bin/ HTTP/1.1", 403), ("GET", 400),
                (f"POST {NETWORK} HTTP/1.1", 411),
                (f"POST {NETWORK} HTTP/1.1\r\nContent-Length: 66000", 413),
                (f"POST {UPLOAD} HTTP/1.1\r\nContent-Length: 70000000", 413)):
            with self.subTest(request):
                head, _, body = self.demo.raw(
                    f"{request}\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n".encode()
                ).decode().partition("\r\n\r\n")
                self.assertRegex(head, rf"^HTTP/1\.[01] {status} ")
                self.assertRegex(head, r"\r\nContent-Type: text/html")
                self.assertNotIn("lighttpd", head + body)
                self.assertTrue(body.endswith("</html>\n"))

    def test_a_response_to_head_has_no_body(self):
        response = self.demo.request("HEAD", NETWORK)
        self.assertEqual((response.status, response.body), (200, b""))

    def test_a_damaged_file_gives_a_complete_page_and_valid_json(self):
        for damage in (b'WLAN_SSID="\xff\xfe\x80 \xed\xa0\x80"\n', b'WLAN_SSID="\x01\x1b\x7f\t"\n',
                       b"WLAN_SSID=" + b'"' * 900 + b"\n", b"WLAN_SSID=" + b"\\" * 5000 + b"\n",
                       b'WLAN_SSID="$message $LAN_ADDRESS"\n', b'WLAN_SSID="</p><script>"\n',
                       b"=\n" * 20000, b"\0\n\0\n", b"WLAN_SSID", b"", b"\n" * 9000):
            self.demo.file("wireless.conf").write_bytes(damage)
            response = self.demo.get(NETWORK)
            self.assertEqual(response.status, 200, damage[:40])
            self.assertTrue(response.text.endswith("</html>\n"))
            self.assertNotIn("<script>", response.text)
            settings = json.loads(self.demo.get(NETWORK + "?Ajax=1").body)["settings"]
            self.assertEqual(set(settings), set(self.public(NETWORK_SETTINGS)))

    def test_quotes_in_the_applied_settings_are_escaped_in_json(self):
        record = self.demo.state / "var" / "log" / "applied.conf"
        content = record.read_bytes()
        self.addCleanup(record.write_bytes, content)
        for stored, shown in (('"\\"a\\""', '"a"'), ('"\\\\"', "\\"), ('"\\""', '"'),
                              ('"' + '\\"' * 100 + '"', None)):
            record.write_text(f"TIME {stored}\nRUNS 1\n")
            applied = self.demo.json(NETWORK, "applied")
            self.assertEqual(applied["RUNS"], "1")
            if shown:
                self.assertEqual(applied["TIME"], shown)

    def test_missing_files_are_empty_settings(self):
        for path in (self.demo.state / "config").iterdir():
            path.unlink()
        self.assertEqual(set(self.demo.json(NETWORK).values()), {""})
        self.assertEqual(self.demo.get(NETWORK).status, 200)
        self.assertEqual(self.demo.get(DEVICE).status, 200)
