# SPDX-License-Identifier: MIT
"""The system page: what runs, the flash, and the boot environment."""

import os
import signal

from demo_test import OwnDemoTest
from device import SYSTEM, Element, seconds_of, wait_until

SET_A, SET_B = (2, 3), (4, 5)


class System(OwnDemoTest):
    def services(self):
        return {each["name"]: each for each in self.demo.json(SYSTEM, "services")}

    def test_services_are_running_since_their_processes_started(self):
        self.assertTrue(wait_until(
            lambda: {each["state"] for each in self.services().values()} == {"Running"}))
        found = self.services()
        self.assertEqual(set(found), {"Web server", "DHCP and name server", "Event log"})
        for each in found.values():
            self.assertLess(seconds_of(each["duration"]), 300)
            self.assertRegex(each["since"], r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d$")

    def test_a_service_that_has_ended_is_not_running_whatever_its_file_says(self):
        keeper = next(pid for pid in self.demo.members if self.command(pid).endswith(
            b"/bin/sh\0/sbin/keep\0traplog\0"))
        os.kill(keeper, signal.SIGSTOP)
        self.addCleanup(os.kill, keeper, signal.SIGCONT)
        pid, = self.demo.programs("traplog")
        os.kill(pid, signal.SIGKILL)
        self.assertTrue(wait_until(
            lambda: self.services()["Event log"]["state"] == "Not running"))
        self.assertEqual(self.services()["Event log"]["since"], "")
        # The number in the file can be that of another process.
        file = self.demo.root() / "run/traplog.pid"
        file.write_text((self.demo.root() / "run/dnsmasq.pid").read_text())
        self.assertEqual(self.services()["Event log"]["state"], "Not running")

    @staticmethod
    def command(pid):
        try:
            with open(f"/proc/{pid}/cmdline", "rb") as file:
                return file.read()
        except OSError:
            return b""

    def test_the_flash_map_has_every_partition_and_the_running_set(self):
        rows = self.demo.json(SYSTEM, "flash")
        self.assertEqual([each["device"] for each in rows], [f"mtdblock{i}" for i in range(9)])
        for number, each in enumerate(rows):
            size = self.demo.flash(number).stat().st_size
            self.assertEqual(each["size"], f"{size // 1024} KiB")
            self.assertEqual(each["set"], "A, running" if number in SET_A else
                             "B, not running" if number in SET_B else "")

    def test_the_page_shows_the_same_as_the_document(self):
        page = Element.of_page(self.demo.get(SYSTEM).text)
        document = self.demo.document(SYSTEM)
        for name in ("flash", "environment"):
            shown = [{key: value for key, value in row.items() if not key.startswith("data-")}
                     for row in page.by_id(name).rows()]
            self.assertEqual(shown, document[name])
        self.assertEqual({each["name"]: each["value"] for each in document["environment"]}, {
            "bootdelay": "2", "baudrate": "115200", "bootparam": "0",
            "bootargs": "console=ttyS0,115200 root=31:2 rootfstype=squashfs ro"})

    def test_a_damaged_environment_is_not_listed(self):
        flash = self.demo.flash(1)
        content = flash.read_bytes()
        self.addCleanup(flash.write_bytes, content)
        for damaged in (b"\0" + content[1:], content[:1000], b"\xff" * len(content)):
            flash.write_bytes(damaged)
            page = Element.of_page(self.demo.get(SYSTEM).text)
            self.assertEqual(page.by_id("environment").rows(), [])
            self.assertIn("is damaged", page.find("p", role="alert")[0].text)
