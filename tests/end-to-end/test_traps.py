# SPDX-License-Identifier: MIT
"""Traps: the notifications that the device sends, and their log."""

import struct
import subprocess
import sys

from demo_test import OwnDemoTest
from device import (DEVICE, OWNER_PASSWORD, NETWORK, PASSWORD, TRAPS, UPGRADE, UPLOAD, USER, Element,
                    wait_until)
from test_upgrade import multipart, part
from upgrade_image import Image

# Listens on multicast group 1 of netlink's protocol 16, as any program of the device may. Prints each
# received message in hexadecimal.
LISTENER = """
import socket
listener = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, 16)
listener.bind((0, 1))
print("listening", flush=True)
while True:
    print(listener.recv(65536).hex(), flush=True)
"""


class Traps(OwnDemoTest):
    def setUp(self):
        self.demo.end_sessions()
        self.demo.session = self.demo.log_in()
        self.listener = subprocess.Popen(
            self.demo.inside(sys.executable, "-c", LISTENER), stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, text=True)
        self.addCleanup(self.listener.communicate)
        self.addCleanup(self.listener.kill)
        self.assertEqual(self.listener.stdout.readline(), "listening\n")

    def next_trap(self):
        """Checks the format of the next trap and returns its text."""
        message = bytes.fromhex(self.listener.stdout.readline())
        length, kind, flags, sequence, port = struct.unpack("=IHHII", message[:16])
        self.assertEqual((length, len(message), kind, flags, sequence), (172, 172, 17, 0, 1))
        self.assertGreater(port, 0)
        text, _, rest = message[16:].partition(b"\0")
        self.assertEqual(set(rest), {0} if rest else set(), "zeros follow the text")
        self.assertLess(len(text), 156)
        return text.decode()

    def log(self):
        """Returns the texts of the log, oldest first."""
        lines = (self.demo.state / "var/log/traps.log").read_text(errors="replace").splitlines()
        for line in lines:
            self.assertRegex(line, r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d .*$")
        return [line[20:] for line in lines]

    def shown(self):
        page = Element.of_page(self.demo.get(TRAPS).text)
        return [(each.find("time")[0].text, each.find("span")[-1].text)
                for each in page.by_id("traps").find("li")]

    def assert_reported(self, text):
        """Checks that the trap was received, is the last of the log and the first on the page."""
        self.assertEqual(self.next_trap(), text)
        self.assertTrue(wait_until(lambda: self.log()[-1] == text), self.log()[-3:])
        time, shown = self.shown()[0]
        self.assertEqual(shown, text)
        self.assertRegex(time, r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d$")

    def test_a_login_sends_a_trap(self):
        self.demo.log_in()
        self.assert_reported(f"login: {USER}")

    def test_a_failed_login_sends_a_trap(self):
        self.assertEqual(self.demo.try_log_in("<b>somebody</b>", "the wrong one").status, 403)
        self.assert_reported("login refused")
        self.demo.log_in()
        self.assert_reported(f"login: {USER}")
        self.assertNotIn("the wrong one", "".join(self.log()))

    def test_a_change_of_password_sends_a_trap(self):
        accounts = self.demo.root() / "etc/shadow"
        self.addCleanup(accounts.write_bytes, accounts.read_bytes())
        response = self.demo.post(PASSWORD, {
            "old": OWNER_PASSWORD, "new": "another one", "again": "another one"})
        self.assertEqual(response.status, 303)
        self.demo.session = response.session()
        self.assert_reported(f"password changed: {USER}")
        self.assertNotIn("another one", "".join(self.log()))

    def test_saved_settings_send_a_trap(self):
        self.assertEqual(self.demo.post(DEVICE, {"CONTACT": "x"}).status, 303)
        self.assert_reported("settings saved: device")
        self.assertEqual(self.demo.post(NETWORK, {"WLAN_SSID": "x"}).status, 303)
        self.assert_reported("settings saved: network")

    def test_refused_settings_send_no_trap(self):
        self.assertEqual(self.demo.post(NETWORK, {"WLAN_SSID": ""}).status, 422)
        self.demo.log_in()
        self.assert_reported(f"login: {USER}")

    def test_written_firmware_sends_a_trap(self):
        response = self.demo.request("POST", f"{UPLOAD}?token={self.demo.token()}", multipart(part(
            Image("Corvel R1 2.0.0", 1000, 1000).bytes())), {
                "Content-Type": "multipart/form-data; boundary=xYzZY"})
        self.assertEqual(response.status, 303)
        self.assertEqual(self.demo.post(UPGRADE, "action=write").status, 303)
        self.assertTrue(wait_until(
            lambda: self.demo.json(UPGRADE, "upgrade")["STATE"] == "written"))
        self.assert_reported("firmware written: set B")

    def test_the_page_shows_the_newest_entry_of_the_log_first(self):
        for _ in range(3):
            self.demo.log_in()
        self.demo.post(DEVICE, {"CONTACT": "y"})
        self.assertTrue(wait_until(lambda: self.log()[-1] == "settings saved: device"))
        log = self.log()
        shown = self.shown()
        self.assertEqual([text for _, text in shown], log[::-1][:len(shown)])
        self.assertGreaterEqual(len(shown), 4)
        self.assertEqual([time for time, _ in shown],
                         sorted([time for time, _ in shown], reverse=True))

    def test_the_log_is_continued_after_a_restart(self):
        before = self.log()
        self.assertEqual(self.demo.post(UPGRADE, "action=restart").status, 200)
        self.assertTrue(wait_until(lambda: self.demo.get(TRAPS).status == 303, 30))

        def is_logged():
            self.demo.session = self.demo.log_in()
            return len(self.log()) > len(before)

        self.assertTrue(wait_until(is_logged, 30))
        self.assertEqual(self.log()[:len(before)], before)
        self.assertEqual(self.shown()[0][1], f"login: {USER}")

    def test_traps_of_other_programs_are_shown_as_text(self):
        """Traps of other programs are logged and shown, too."""
        for text in (b"<script>alert(1)</script>{{model}}", b"line\nend\r\x1b[2J", b"x" * 156, b"\xff\xfe", b""):
            code = ("import socket, struct, sys\n"
                    "s = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, 16)\n"
                    "s.bind((0, 0))\n"
                    f"s.sendto(struct.pack('=IHHII', 172, 17, 0, 1, 0) + {text.ljust(156, bytes(1))!r},"
                    " (0, 1))\n")
            subprocess.run(self.demo.inside(sys.executable, "-c", code), check=True)
        self.demo.log_in()
        self.assertTrue(wait_until(lambda: self.log()[-1] == f"login: {USER}"))
        response = self.demo.get(TRAPS)
        self.assertTrue(response.text.endswith("</html>\n"))
        self.assertNotIn("<script>alert", response.text)
        self.assertIn("<script>alert(1)</script>{{model}}", [text for _, text in self.shown()])
        self.assertIn("x" * 155, "".join(self.log()))
