# SPDX-License-Identifier: MIT
"""Traps: the notifications that the device sends, and their log."""

import datetime
import os
import signal
import struct
import subprocess
import sys

from demo_test import OwnDemoTest
from device import (DEVICE, OWNER_PASSWORD, LOGOUT, NETWORK, PASSWORD, TRAPS, UPGRADE, UPLOAD, USER, Element,
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


class TrapsTest(OwnDemoTest):
    def setUp(self):
        self.demo.end_sessions()
        self.demo.session = self.demo.log_in()
        # No event from before the test is written after this one.
        self.assertEqual(self.demo.try_log_in(password=OWNER_PASSWORD, source="127.0.0.77").status, 303)
        self.assertTrue(wait_until(lambda: self.path().exists() and
                                   self.path().read_bytes().endswith(b"127.0.0.77)\n")))
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

    def path(self):
        return self.demo.state / "var/log/traps.log"

    def log(self):
        """Returns the texts of the log, oldest first."""
        lines = self.path().read_text(errors="replace").splitlines()
        for line in lines:
            self.assertRegex(line, r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ .*$")
        return [line[21:] for line in lines]

    def shown(self, query=""):
        """Returns the time, kind and text of each entry that the page shows."""
        page = Element.of_page(self.demo.get(TRAPS + query).text)
        return [(each.find("time")[0].text, each.find("b")[0].text, each.find("span")[-1].text)
                for each in page.by_id("traps").find("li") if each.find("b")]

    def assert_reported(self, kind, text, user=USER):
        """Checks that the trap was received, is the last of the log and the first on the page."""
        source = f" ({user}, 127.0.0.1)" if user else " (127.0.0.1)"
        self.assertEqual(self.next_trap(), f"{kind}: {text}{source}")
        self.assertTrue(wait_until(lambda: self.log()[-1] == f"{kind}: {text}{source}"),
                        self.log()[-3:])
        time, *shown = self.shown()[0]
        self.assertEqual(shown, [kind, text + source])
        self.assertRegex(time, r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d$")

    def upload(self, content):
        return self.demo.request("POST", f"{UPLOAD}?token={self.demo.token()}", multipart(part(content)), {
            "Content-Type": "multipart/form-data; boundary=xYzZY"})


class Traps(TrapsTest):
    def test_a_login_and_a_logout_are_logged_with_user_and_address(self):
        session = self.demo.log_in()
        self.assert_reported("Login", "Logged in")
        self.assertEqual(self.demo.post(LOGOUT, {}, {"Cookie": f"session={session}"}).status, 303)
        self.assert_reported("Login", "Logged out")

    def test_a_refused_login_is_logged_with_the_address_alone(self):
        """What was typed as the user's name may be a password."""
        self.assertEqual(self.demo.try_log_in("<b>somebody</b>", "the wrong one",
                                              source="127.0.0.9").status, 403)
        self.assertEqual(self.next_trap(), "Login: Wrong user name or password (127.0.0.9)")
        self.demo.log_in()
        self.assert_reported("Login", "Logged in")
        self.assertNotIn("the wrong one", "".join(self.log()))
        self.assertNotIn("somebody", "".join(self.log()))

    def test_a_change_of_password_is_logged_and_a_refused_one_too(self):
        accounts = self.demo.root() / "etc/shadow"
        self.addCleanup(accounts.write_bytes, accounts.read_bytes())
        change = {"new": "another one", "again": "another one"}
        self.assertEqual(self.demo.post(PASSWORD, {"old": "a wrong one", **change}).status, 403)
        self.assert_reported("Password", "Password not changed: wrong current password")
        response = self.demo.post(PASSWORD, {"old": OWNER_PASSWORD, **change})
        self.assertEqual(response.status, 303)
        self.demo.session = response.session()
        self.assert_reported("Password", "Password changed")
        self.assertNotIn("another one", "".join(self.log()))
        self.assertNotIn("a wrong one", "".join(self.log()))

    def test_each_changed_setting_is_logged_but_no_secret(self):
        self.assertEqual(self.demo.post(DEVICE, {"CONTACT": "x", "DESCRIPTION": "y" * 80}).status, 303)
        self.assertEqual(self.next_trap(), f"Settings: DESCRIPTION changed to \"{'y' * 80}\" ({USER}, 127.0.0.1)")
        self.assert_reported("Settings", 'CONTACT changed to "x"')
        self.assertEqual(self.demo.post(NETWORK, {
            "WLAN_SSID": "y", "WLAN_PASSPHRASE": "a secret phrase"}).status, 303)
        self.assertEqual(self.next_trap(), f'Settings: WLAN_SSID changed to "y" ({USER}, 127.0.0.1)')
        self.assert_reported("Settings", "WLAN_PASSPHRASE changed")
        self.assertNotIn("a secret phrase", "".join(self.log()))

    def test_refused_and_unchanged_settings_are_not_logged(self):
        self.assertEqual(self.demo.post(NETWORK, {"WLAN_SSID": ""}).status, 422)
        self.assertEqual(self.demo.post(NETWORK, {"LAN_ADDRESS": "192.168.1.1"}).status, 303)
        self.demo.log_in()
        self.assert_reported("Login", "Logged in")

    def test_written_firmware_and_refused_uploads_are_logged(self):
        self.assertEqual(self.upload(bytes(1000)).status, 422)
        self.assertRegex(self.next_trap(), rf"^Firmware: Upload refused: .+ \({USER}, 127\.0\.0\.1\)$")
        self.assertEqual(self.upload(Image("Corvel R1 2.0.0", 1000, 1000).bytes()).status, 303)
        self.assertEqual(self.demo.post(UPGRADE, "action=write").status, 303)
        self.assertTrue(wait_until(
            lambda: self.demo.json(UPGRADE, "upgrade")["STATE"] == "written"))
        self.assertEqual(self.next_trap(), f"Firmware: Set B written ({USER}, 127.0.0.1)")
        self.assertEqual(self.demo.post(UPGRADE, "action=keep").status, 303)
        self.assert_reported("Firmware", "Set A starts next")

    def test_the_page_shows_the_newest_entry_of_the_log_first_in_local_time(self):
        for _ in range(3):
            self.demo.log_in()
        last = f'Settings: CONTACT changed to "z" ({USER}, 127.0.0.1)'
        self.demo.post(DEVICE, {"CONTACT": "z"})
        self.assertTrue(wait_until(lambda: self.log()[-1] == last))
        log = self.log()
        shown = self.shown()
        self.assertEqual([f"{kind}: {text}" for _, kind, text in shown], log[::-1][:len(shown)])
        self.assertGreaterEqual(len(shown), 4)
        times = [time for time, _, _ in shown]
        self.assertEqual(times, sorted(times, reverse=True))
        logged = datetime.datetime.fromisoformat(self.path().read_text().splitlines()[-1][:20])
        self.assertEqual(times[0], logged.astimezone().strftime("%Y-%m-%d %H:%M:%S"))

    def test_a_restart_is_logged_and_the_log_is_continued(self):
        before = self.log()

        def started():
            return float((self.demo.root() / "run/started").read_text().split()[0])

        previous = started()
        self.assertEqual(self.demo.post(UPGRADE, "action=restart").status, 200)
        self.assertTrue(wait_until(lambda: self.demo.get(TRAPS).status == 303, 30))

        def is_logged():
            self.demo.session = self.demo.log_in()
            return self.log()[-1].startswith("Login: ")

        self.assertTrue(wait_until(is_logged, 30))
        self.assertGreater(started(), previous, "the uptime counts from the restart")
        log = self.log()
        self.assertEqual(log[:len(before)], before)
        self.assertEqual(log[len(before)], f"System: Restart requested ({USER}, 127.0.0.1)")
        self.assertRegex(log[len(before) + 1], r"^System: Started with set [AB], Corvel R1 ")
        self.assertEqual(log[len(before) + 2], f"Login: Logged in ({USER}, 127.0.0.1)")

    def test_the_end_of_the_program_that_writes_the_log_is_logged(self):
        for pid in self.demo.programs("traplog"):
            os.kill(pid, signal.SIGKILL)
        self.assertTrue(wait_until(lambda: self.log()[-1] == "System: The log was interrupted", 20),
                        self.log()[-3:])

    def test_traps_of_other_programs_are_shown_as_text(self):
        """Traps of other programs are logged and shown, too."""
        for text in (b"<script>alert(1)</script>{{model}}", b"line\nend\r\x1b[2J", b"x" * 156, b"\xff\xfe", b"",
                     b"Login: <b>"):
            code = ("import socket, struct, sys\n"
                    "s = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, 16)\n"
                    "s.bind((0, 0))\n"
                    f"s.sendto(struct.pack('=IHHII', 172, 17, 0, 1, 0) + {text.ljust(156, bytes(1))!r},"
                    " (0, 1))\n")
            subprocess.run(self.demo.inside(sys.executable, "-c", code), check=True)
        self.demo.log_in()
        self.assertTrue(wait_until(lambda: self.log()[-1].startswith("Login: Logged in")))
        response = self.demo.get(TRAPS)
        self.assertTrue(response.text.endswith("</html>\n"))
        self.assertNotIn("<script>alert", response.text)
        self.assertNotIn("<b><", response.text)
        entries = [entry[1:] for entry in self.shown()]
        self.assertIn(("Other", "<script>alert(1)</script>{{model}}"), entries)
        self.assertIn(("Login", "<b>"), entries)
        self.assertIn("x" * 155, "".join(self.log()))


class Pages(TrapsTest):
    """The pages of a long log, and its filter. The log is written by the test."""

    def setUp(self):
        super().setUp()
        (self.path().parent / "traps.log.old").unlink(missing_ok=True)

    def write(self, *numbers, name="traps.log"):
        kinds = ("Login", "Settings", "Firmware")
        (self.path().parent / name).write_text("".join(
            f"2026-01-02T03:04:05Z {kinds[i % 3]}: Event {i} (admin, 10.0.0.{i % 10})\n"
            for i in range(*numbers)))

    def numbers(self, query=""):
        return [int(text.split()[1]) for _, _, text in self.shown(query)]

    def links(self, query=""):
        page = Element.of_page(self.demo.get(TRAPS + query).text)
        return {each.text: each.attributes["href"].removeprefix(TRAPS) for each in page.find("a")
                if each.text in ("Newer", "Older")}

    def test_every_entry_of_both_files_is_on_one_page(self):
        self.write(130, name="traps.log.old")
        self.write(130, 250)
        self.assertEqual(self.numbers(), list(range(249, 149, -1)))
        older = self.links()
        self.assertEqual(list(older), ["Older"])
        self.assertEqual(self.numbers(older["Older"]), list(range(149, 49, -1)))
        both = self.links(older["Older"])
        self.assertEqual(list(both), ["Newer", "Older"])
        self.assertEqual(self.numbers(both["Newer"]), self.numbers())
        self.assertEqual(self.numbers(both["Older"]), list(range(49, -1, -1)))
        self.assertEqual(list(self.links(both["Older"])), ["Newer"])
        self.assertEqual(self.demo.json(TRAPS, "log")["count"], "250")
        self.assertEqual(self.numbers("?page=9"), [])
        self.assertEqual(self.numbers(self.links("?page=9")["Newer"]), self.numbers())

    def test_the_filter_selects_by_kind_and_text_on_every_page(self):
        self.write(600)
        logins = list(range(597, -1, -3))
        self.assertEqual(self.numbers("?kind=Login"), logins[:100])
        self.assertEqual(self.numbers(self.links("?kind=Login")["Older"]), logins[100:])
        self.assertEqual(self.numbers("?text=10.0.0.7"), list(range(597, -1, -10)))
        self.assertEqual(self.numbers("?kind=Login&text=ADMIN, 10.0.0.7".replace(" ", "%20")),
                         [i for i in logins if i % 10 == 7])
        self.assertEqual(self.numbers("?kind=System"), [])
        for query in ("?kind=nothing", "?page=0", "?page=x", "?text=", "?text=" + "x" * 300):
            self.assertEqual(self.numbers(query), list(range(599, 499, -1)), query)
        page = self.demo.page(TRAPS + "?kind=Login&text=%22%3Cb%3E%26")
        self.assertEqual((page.shown["kind"], page.shown["text"]), ("Login", '"<b>&'))
        self.assertIn("No event matches.", page.text)

    def test_a_full_log_is_rotated_and_only_the_oldest_entries_are_lost(self):
        self.write(5000, 5010, name="traps.log.old")
        self.write(1131)
        self.assertGreater(self.path().stat().st_size, 65536)
        self.demo.log_in()
        self.assertEqual(self.next_trap(), f"Login: Logged in ({USER}, 127.0.0.1)")
        self.assertTrue(wait_until(lambda: self.shown()[0][1] == "Login"))
        self.assertLess(self.path().stat().st_size, 1000)
        self.assertEqual([text for _, _, text in self.shown()][:2],
                         [f"Logged in ({USER}, 127.0.0.1)", "Event 1130 (admin, 10.0.0.0)"])
        self.assertEqual(self.demo.json(TRAPS, "log")["count"], "1132")
        self.assertEqual(self.numbers("?page=12")[-1], 0)

    def test_damaged_lines_are_shown_as_they_are(self):
        self.path().write_bytes(b"\n\nno time\n2026-01-02T03:04:05Z\n2026-13-02T03:04:05Z System: x\nnot ended")
        self.assertEqual(self.shown(), [
            ("", "Other", "not ended"), ("", "System", "x"), ("", "Other", "2026-01-02T03:04:05Z"),
            ("", "Other", "no time"), ("", "Other", ""), ("", "Other", "")])
        self.path().write_bytes(b"")
        self.assertIn("No events yet.", self.demo.get(TRAPS).text)
