# SPDX-License-Identifier: MIT
"""The system page: what runs, the flash, and the boot environment."""

import datetime
import fcntl
import html
import os
import pathlib
import re
import signal
import struct
import subprocess
import sys
import zlib

from demo_test import OwnDemoTest
from device import (BACKUP, DEVICE, DIAGNOSTICS, FACTORY_PASSWORD, IMAGE, LOGIN, NETWORK,
                    OWNER_PASSWORD, PASSWORD, RESTART, STRANGER, SYSTEM, TRAPS, VARIABLE, Demo,
                    Element, Page, seconds_of, start_time, wait_until)
from test_upgrade import multipart, part

# Asks the router's name server for an address, and prints it.
RESOLVER = """
import socket, sys
name = b"".join(bytes([len(part)]) + part.encode() for part in sys.argv[1].split("."))
query = b"\\0\\1\\1\\0\\0\\1\\0\\0\\0\\0\\0\\0" + name + b"\\0\\0\\1\\0\\1"
with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as client:
    client.settimeout(1)
    client.sendto(query, ("192.168.1.1", 53))
    answer = client.recv(512)
    print(".".join(map(str, answer[-4:])) if answer[7] else "unknown")
"""

SET_A, SET_B = (2, 3), (4, 5)


class System(OwnDemoTest):
    def services(self):
        return {each["name"]: each for each in self.demo.json(SYSTEM, "services")}

    def test_services_are_running_since_their_processes_started(self):
        self.assertTrue(wait_until(
            lambda: {each["state"] for each in self.services().values()} == {"Running"}))
        self.assertEqual(set(self.services()), {"Web server", "DHCP and name server", "Event log"})
        for name, program in (("Web server", "/usr/sbin/lighttpd"), ("DHCP and name server", "dnsmasq"),
                              ("Event log", "traplog")):
            pid = self.demo.programs(program)[0]
            before = self.age(pid)
            shown = self.services()[name]
            self.assertGreaterEqual(seconds_of(shown["duration"]), int(before) - 1, name)
            self.assertLessEqual(seconds_of(shown["duration"]), self.age(pid) + 1, name)
            self.assertRegex(shown["since"], r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d$")

    @staticmethod
    def age(pid):
        """Returns for how many seconds a process has been running."""
        up = float(pathlib.Path("/proc/uptime").read_text().split()[0])
        return up - int(start_time(pid)) / os.sysconf("SC_CLK_TCK")

    def test_a_service_that_has_ended_is_not_running_regardless_of_its_file(self):
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


class Variable(OwnDemoTest):
    def environment(self):
        return {each["name"]: each["value"] for each in self.demo.json(SYSTEM, "environment")}

    def change(self, name, value):
        """Confirms a change as a browser does. Returns the last response."""
        response = self.demo.post(VARIABLE, {"name": name, "value": value})
        if response.status != 200:
            return response
        return self.demo.post(VARIABLE, dict(Page(response.text).fields[1:]))

    def test_a_variable_is_added_changed_and_removed_after_a_confirmation(self):
        before = self.environment()
        for value in ("1", "a value = with \"quotes\" <&>", "x" * 200, ""):
            self.assertEqual(self.demo.post(VARIABLE, {"name": "own", "value": value}).status, 200)
            self.assertNotEqual(self.environment().get("own", ""), value, "without confirmation")
            response = self.change("own", value)
            self.assertEqual((response.status, response.headers["Location"]),
                             (303, SYSTEM + "?done=changed"))
            self.assertEqual(self.environment(), before | ({"own": value} if value else {}))

    def test_variables_that_decide_what_starts_and_malformed_names_are_refused(self):
        flash = self.demo.flash(1).read_bytes()
        for name in ("bootparam", "bootargs", "bootcmd", "firmware_a", "firmware_b", "", "a=b",
                     "a b", "x" * 33, "\u00e9", "a\nb"):
            for fields in ({}, {"old": self.environment().get(name, "")}):
                response = self.demo.post(VARIABLE, {"name": name, "value": "1", **fields})
                self.assertEqual(response.status, 422, name)
                self.assertEqual(bool(Page(response.text).errors["name"]), True)
        self.assertEqual(self.demo.flash(1).read_bytes(), flash)

    def test_a_value_that_is_too_long_or_has_no_room_is_refused(self):
        flash = self.demo.flash(1).read_bytes()
        self.addCleanup(self.demo.flash(1).write_bytes, flash)
        for value in ("x" * 201, "a\nb", "\x01"):
            self.assertEqual(self.change("own", value).status, 422)
        self.assertEqual(self.demo.flash(1).read_bytes(), flash)
        data = flash[4:].partition(b"\0\0")[0] + b"\0fill=" + b"x" * 64800 + b"\0\0"
        data = data.ljust(65532, b"\0")
        self.demo.flash(1).write_bytes(zlib.crc32(data).to_bytes(4, "big") + data)
        self.assertEqual(self.change("own", "x" * 200).status, 422)
        self.assertEqual(self.change("own", "x").status, 303)

    def test_a_change_is_refused_if_the_value_is_another_one_now_or_an_upgrade_has_the_flash(self):
        fields = {"name": "bootdelay", "value": "5", "old": "3"}
        self.assertEqual(self.demo.post(VARIABLE, fields).status, 409)
        with open(self.demo.root() / "run/upgrade.lock", "r+b") as lock:
            fcntl.fcntl(lock, fcntl.F_OFD_SETLK,
                        struct.pack("hhqqi4x", fcntl.F_WRLCK, os.SEEK_SET, 0, 0, 0))
            self.assertEqual(self.demo.post(VARIABLE, fields | {"old": "2"}).status, 409)
        self.assertEqual(self.environment()["bootdelay"], "2")
        self.assertEqual(self.demo.post(VARIABLE, fields | {"old": "2"}).status, 303)
        self.assertEqual(self.environment()["bootdelay"], "5")

    def test_entries_that_are_refused_are_shown_again(self):
        page = Page(self.demo.post(VARIABLE, {"name": "a <b>", "value": "kept"}).text)
        self.assertEqual(page.shown, {"name": "a <b>", "value": "kept"})
        self.assertEqual(self.demo.get(VARIABLE + "?name=bootparam").status, 422)

    def test_only_variables_that_can_be_changed_have_a_link(self):
        page = Element.of_page(self.demo.get(SYSTEM).text)
        links = [each.attributes["href"] for each in page.by_id("environment").find("a")]
        self.assertEqual(sorted(links), [f"{VARIABLE}?name=baudrate", f"{VARIABLE}?name=bootdelay"])
        for link in links:
            self.assertEqual(self.demo.get(link).status, 200)


class Backup(OwnDemoTest):
    OTHER = {"LAN_ADDRESS": "10.0.0.1", "LAN_NETMASK": "255.0.0.0", "DHCP_FIRST": "10.0.0.9",
             "DHCP_LAST": "10.0.0.99", "WLAN_SSID": 'Caf\u00e9 "$x\\`', "COUNTRY": "JP"}

    def setUp(self):
        self.restore_settings()

    def backup(self):
        response = self.demo.get(BACKUP)
        self.assertEqual(response.status, 200)
        self.assertRegex(response.headers["Content-Disposition"],
                         r'^attachment; filename="settings-\d{4}-\d\d-\d\d\.conf"$')
        return response.body

    def restore(self, content, token=None):
        body = multipart(part(content, "backup", "settings.conf"))
        return self.demo.request(
            "POST", f"{BACKUP}?token={token or self.demo.token()}", body,
            {"Content-Type": "multipart/form-data; boundary=xYzZY"})

    def test_a_restore_brings_back_every_setting_but_the_passphrase(self):
        self.assertEqual(self.demo.post(NETWORK, self.OTHER).status, 303)
        self.assertEqual(self.demo.post(DEVICE, {"CONTACT": "Ann"}).status, 303)
        with self.demo.file("clients.conf").open("a") as file:
            file.write('02:43:52:00:01:11="My laptop"\n02:43:52:00:01:13="Drucker \\"1\\""\n')
        saved = self.demo.files()
        backup = self.backup()
        self.restore_settings()
        self.demo.post(NETWORK, {"WLAN_PASSPHRASE": "another phrase"})
        response = self.restore(backup)
        self.assertEqual((response.status, response.headers["Location"]),
                         (303, SYSTEM + "?done=restored"))
        self.assertEqual(self.demo.files(), saved | {"wireless.conf": saved["wireless.conf"].replace(
            b"change me soon", b"another phrase")})
        self.assertEqual(self.backup(), backup)

    def test_a_backup_contains_every_setting_but_no_secret(self):
        text = self.backup().decode()
        names = [line.partition("=")[0] for line in text.splitlines()]
        stored = [line.replace(b"=", b" ").split()[0].decode() for name in ("lan", "wireless", "global")
                  for line in self.factory[name + ".conf"].splitlines() if line[:1] != b"#"]
        self.assertEqual(sorted(names), sorted({*stored, "CORVEL_SETTINGS"} - {"WLAN_PASSPHRASE"}))
        self.assertNotIn("change me soon", text)
        self.assertNotIn("change me soon", self.demo.get(BACKUP + "?Ajax=1").text)

    def test_nothing_is_restored_if_anything_is_wrong_and_the_page_names_it(self):
        good = self.backup()
        files = self.demo.files()
        lines = good.splitlines(keepends=True)
        for content, named in (
                (good.replace(b'"192.168.1.1"', b'"300.1.1.1"'), ["LAN_ADDRESS"]),
                (good.replace(b'COUNTRY="CH"', b'COUNTRY="XX"').replace(b'"router"', b'"-"'),
                 ["HOST_NAME", "COUNTRY"]),
                (good.replace(b'DHCP_FIRST="192.168.1.100"', b'DHCP_FIRST="192.168.2.100"'),
                 ["DHCP_FIRST"]),
                (good.replace(b"COUNTRY", b"<b>"), ["&lt;b&gt;"]),
                (good + b'LAN_ADDRESS="192.168.1.9"\n', ["LAN_ADDRESS", "File"]),
                (good + b'WLAN_PASSPHRASE="a secret one"\n', ["WLAN_PASSPHRASE"]),
                (good + b'admin="x"\n', ["admin"]), (good + b'1:2="x"\n', ["1:2"]),
                (good + b'02:43:52:00:01:11=""\n', ["02:43:52:00:01:11"]),
                (good + b'02:43:52:00:01:11="' + b"x" * 41 + b'"\n', ["02:43:52:00:01:11"]), (b"".join(lines[:-1]), ["File"]),
                (good[:-1], ["File"]), (good[:40], ["File"]), (b"".join(lines[1:]), ["File"]), (b"x\n", ["File"]),
                (b'COUNTRY="AT"\n', ["File"]),
                (b"\0" * 200, ["File"]), (bytes(range(256)) * 60, ["File"])):
            response = self.restore(content)
            self.assertEqual(response.status, 422, content[:60])
            for name in named:
                self.assertIn(f"<dt>{name}</dt>", response.text)
            self.assertEqual(self.demo.files(), files)
        for content, status in ((b"x" * 65537, 413), (b"", 422)):
            self.assertEqual(self.restore(content).status, status)
        self.assertEqual(self.restore(good, "0" * 64).status, 403)
        self.assertEqual(self.demo.files(), files)

    def test_a_stranger_gets_no_backup(self):
        self.assertEqual(self.demo.get(BACKUP, Cookie=None).status, 303)


class Diagnostics(OwnDemoTest):
    def test_the_file_names_versions_network_flash_and_log_but_no_secret(self):
        self.assertEqual(self.demo.post(VARIABLE, {"name": "key", "value": "hush", "old": ""}).status,
                         303)
        self.demo.greet_gateway()
        self.assertTrue(wait_until(lambda: len(self.demo.leases()) > 2, 60))
        response = self.demo.get(DIAGNOSTICS)
        self.assertEqual(response.headers["Content-Type"], "text/plain; charset=utf-8")
        self.assertIn("attachment", response.headers["Content-Disposition"])
        text = response.text
        log = (self.demo.state / "var/log/traps.log").read_text()
        for part_of_it in ("MODEL: Corvel R1\n", "Set A: Corvel R1 1.0.0, not recorded, running",
                           "lighttpd: running for 00:0", "br-lan: 02:43:52:00:01:01, 192.168.1.1/255",
                           "neighbour 203.0.113.1 024352000201\n", "nameserver 203.0.113.1\n",
                           "/dev/mtdblock2 Rootfs, 6464 KiB, first bytes 43:6F:72:76", "bootparam=0\n",
                           "key=(not shown)\n", "phone, expires in ", log.splitlines()[0]):
            self.assertIn(part_of_it, text)
        shadow = (self.demo.state / "accounts/etc/shadow").read_text()
        for secret in ("hush", "change me soon", self.demo.session, self.demo.token(),
                       *self.demo.sessions(),
                       *(line.split(":")[1] for line in shadow.splitlines()
                         if len(line.split(":")[1]) > 3)):
            self.assertNotIn(secret, text)
        self.assertEqual(self.demo.get(DIAGNOSTICS, Cookie=None).status, 303)


class NameAndTime(OwnDemoTest):
    def resolve(self, name):
        done = subprocess.run(self.demo.inside(sys.executable, "-c", RESOLVER, name),
                              capture_output=True, text=True, check=False)
        return done.stdout.strip()

    def test_the_host_name_takes_effect_in_the_kernel_the_name_server_and_on_the_pages(self):
        self.assertEqual(self.demo.post(DEVICE, {"HOST_NAME": "attic"}).status, 303)
        for name in ("attic", "attic.lan"):
            self.assertTrue(wait_until(lambda name=name: self.resolve(name) == "192.168.1.1"), name)
        self.assertEqual(self.resolve("router"), "unknown")
        page = Element.of_page(self.demo.get(SYSTEM).text)
        self.assertEqual([each.text for each in page.find("small")], ["attic"])
        login = Element.of_page(self.demo.get(LOGIN, Cookie=None).text)
        self.assertEqual(login.find("small"), [])

    def offset(self):
        """Returns the difference between the times of the page and UTC, in hours."""
        since = self.demo.json(SYSTEM, "services")[0]
        shown = datetime.datetime.fromisoformat(since["since"] + "+00:00")
        started = datetime.datetime.now(datetime.timezone.utc) - datetime.timedelta(
            seconds=seconds_of(since["duration"]))
        return round((shown - started).total_seconds() / 360) / 10

    def test_the_time_zone_takes_effect_in_all_times(self):
        self.assertEqual(self.offset(), 0)
        for zone, hours in (("IST-5:30", 5.5), ("<-03>3", -3), ("UTC0", 0)):
            self.assertEqual(self.demo.post(DEVICE, {"TIME_ZONE": zone}).status, 303)
            self.assertTrue(wait_until(lambda hours=hours: self.offset() == hours), zone)
            newest = Element.of_page(self.demo.get(TRAPS).text).find("time")[0].text
            ahead = datetime.datetime.fromisoformat(newest + "+00:00") - datetime.datetime.now(
                datetime.timezone.utc)
            self.assertEqual(round(ahead.total_seconds() / 360) / 10, hours)

    def test_every_zone_of_the_list_has_a_rule_that_the_machine_understands(self):
        text = self.demo.get(DEVICE).text
        zones = re.findall(r'<option value="([^"]+)"', text)
        self.assertGreater(len(zones), 20)
        self.assertEqual(len(set(zones)), len(zones))
        for zone in zones:
            shown = subprocess.run(["date", "--date", "2026-01-15", "+%z"], env={"TZ": html.unescape(zone)},
                                   capture_output=True, text=True, check=True).stdout.strip()
            self.assertEqual(shown == "+0000", zone.startswith(("UTC", "GMT")), zone)


class Restart(OwnDemoTest):
    def boot_id(self):
        return (self.demo.root() / "run/boot_id").read_text()

    def restart(self, action):
        """Returns the page after which the router has restarted."""
        before = self.boot_id()
        response = self.demo.post(RESTART, {"action": action})
        self.assertEqual(response.status, 200)
        self.assertTrue(wait_until(lambda: self.is_restarted(before)))
        self.assertFalse(self.demo.is_logged_in(self.demo.session))
        self.demo.session = self.demo.log_in(
            password=FACTORY_PASSWORD if action == "reset" else OWNER_PASSWORD)
        return Element.of_page(response.text)

    def is_restarted(self, before):
        try:
            return self.boot_id() != before and self.demo.get(SYSTEM).status == 303
        except (IndexError, OSError):
            return False  # the web server is not running

    def test_a_restart_keeps_everything_and_the_page_leads_back(self):
        saved = self.demo.post(DEVICE, {"CONTACT": "kept"})
        self.assertEqual(saved.status, 303)
        files = self.demo.files()
        page = self.restart("restart")
        self.assertEqual(self.demo.files(), files)
        refresh, = page.find("meta", http_equiv="refresh")
        self.assertEqual(refresh.attributes["content"], "20; url=/cgi-bin/system")
        self.assertEqual(page.find("div", data_waiting=SYSTEM)[0].tag, "div")

    def test_the_page_in_a_browser_waits_and_leads_back_after_the_login(self):
        self.assertEqual(self.walk("system", PASSWORD=OWNER_PASSWORD).result(), "back")
        self.demo.session = self.demo.log_in()

    def test_nothing_happens_without_a_confirmation_a_session_and_a_token(self):
        before = self.boot_id()
        for action in ("restart", "reset"):
            self.assertEqual(self.demo.get(f"{RESTART}?action={action}").status, 200)
            self.assertEqual(self.demo.post(RESTART, {"action": action}, STRANGER).status, 303)
            refused = self.demo.post(RESTART, {"action": action, "token": "0" * 64})
            self.assertEqual(refused.status, 403)
        self.assertEqual(self.demo.post(RESTART, {"action": "other"}).status, 400)
        self.assertEqual(self.boot_id(), before)
        self.assertFalse(self.demo.file("reset").exists())

    def test_an_interrupted_reset_is_repeated_by_the_next_start(self):
        state = self.make_directory() / "state"
        with Demo(state=state) as demo:
            factory = demo.files()
        config = state / "config"
        (config / "reset").touch()
        (config / "lan.conf").unlink()
        (config / "global.conf").write_bytes(b"")
        (config / "wireless.conf").write_bytes(b'WLAN_SSID="Other"\n')
        with Demo(state=state, password=FACTORY_PASSWORD) as demo:
            self.assertEqual(demo.files(), factory)
            self.assertFalse((config / "reset").exists())

    def test_a_reset_restores_settings_and_password_and_keeps_the_flash(self):
        with Demo() as demo:
            self.demo, kept = demo, self.demo
            factory = demo.files()
            flash = [demo.flash(i).read_bytes() for i in range(9)]
            for path, name, value in ((NETWORK, "WLAN_SSID", "Other"), (DEVICE, "CONTACT", "Ann"),
                                      (NETWORK, "LAN_ADDRESS", "192.168.1.7")):
                self.assertEqual(demo.post(path, {name: value}).status, 303)
            shadow = demo.state / "accounts/etc/shadow"
            self.assertNotEqual(shadow.read_bytes(), (IMAGE / "etc/accounts/etc/shadow").read_bytes())
            page = Element.of_page(demo.get(RESTART + "?action=reset").text)
            self.assertIn("192.168.1.1", page.text)
            self.restart("reset")
            self.assertEqual(demo.files(), factory)
            self.assertEqual(shadow.read_bytes(), (IMAGE / "etc/accounts/etc/shadow").read_bytes())
            self.assertEqual(demo.get(NETWORK).headers["Location"], PASSWORD, "the first step comes again")
            self.assertEqual([demo.flash(i).read_bytes() for i in range(9)], flash)
            self.assertFalse(demo.file("reset").exists())
            self.assertTrue(wait_until(lambda: demo.applied()["LAN"].startswith("192.168.1.1 ")))
            self.assertEqual(demo.crashes(), [])
            self.demo = kept
