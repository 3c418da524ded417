# SPDX-License-Identifier: MIT
"""Starting and stopping the demo: only the state remains."""

import contextlib
import os
import pathlib
import shutil
import signal
import socket
import stat
import subprocess

import device
from demo_test import Case
from device import (CLIENT_NAMES, DEVICE, OWNER_PASSWORD, NETWORK, PASSWORD, SOURCE, STATUS, Demo,
                    wait_until)

NOBODY = 65534


class Lifecycle(Case):
    def setUp(self):
        self.directory = self.make_directory()
        self.state = self.directory / "state"

    def run_script(self, *arguments):
        return subprocess.run([SOURCE / "demo" / "serve", "--image", device.IMAGE,
                               "--state", self.state, *arguments],
                              capture_output=True, text=True, timeout=60)

    def test_dev_demo_builds_and_serves_it(self):
        with Demo(state=self.state, script=[SOURCE / "dev", "demo"], image=None) as demo:
            self.assertEqual(demo.json(NETWORK)["WLAN_SSID"], "Corvel Home")

    def test_settings_survive_a_restart_and_a_reset_undoes_them(self):
        with Demo(state=self.state) as demo:
            factory = demo.files()
            self.assertEqual(demo.post(NETWORK, {"WLAN_SSID": "Kept"}).status, 303)
            self.assertEqual(demo.post(DEVICE, {"CONTACT": "Kept, too"}).status, 303)
            saved = demo.files()
        with Demo(state=self.state) as demo:
            self.assertEqual(demo.files(), saved)
            self.assertEqual(demo.json(NETWORK)["WLAN_SSID"], "Kept")
            self.assertEqual(demo.page(DEVICE).shown["CONTACT"], "Kept, too")
        with Demo("--reset", state=self.state) as demo:
            self.assertEqual(demo.files(), factory)
            self.assertEqual(demo.applied()["RUNS"], "1")

    def test_two_demos_are_independent(self):
        with Demo() as one, Demo() as other:
            one.post(NETWORK, {"WLAN_SSID": "One"})
            self.assertEqual(one.json(NETWORK)["WLAN_SSID"], "One")
            self.assertEqual(other.json(NETWORK)["WLAN_SSID"], "Corvel Home")

    def test_no_process_remains_after_any_signal(self):
        for end in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGKILL):
            with self.subTest(end.name):
                demo = Demo(state=self.state)
                self.assertEqual(len(demo.namespaces), 1)
                self.assertGreaterEqual(len(demo.members), 3)
                self.assertTrue(demo.remaining_processes())
                demo.post(NETWORK, {"WLAN_SSID": end.name})
                status = demo.stop(end)
                if end != signal.SIGKILL:
                    self.assertEqual(status, 128 + end)
                    self.assertEqual(demo.remaining_processes(), [])
                self.assertTrue(wait_until(lambda: not demo.remaining_processes(), 5))
                with socket.socket() as port:
                    self.assertNotEqual(port.connect_ex(("127.0.0.1", demo.port)), 0)

    def test_the_machines_own_directories_are_not_visible(self):
        with Demo() as demo:
            inside = next(pid for pid in demo.members
                          if pathlib.Path(f"/proc/{pid}/cmdline").read_bytes().startswith(
                              b"/usr/sbin/lighttpd"))
            root = pathlib.Path(f"/proc/{inside}/root")
            self.assertEqual(sorted(path.name for path in (root / "sbin").iterdir()),
                             ["bootloader", "chpasswd", "configclient", "corvel-settings", "dhcp6",
                              "environment", "factory", "init", "interfaces", "keep", "reboot",
                              "recover", "reset", "station", "traplog", "trimlogs",
                              "webserver"])
            for name in ("passwd", "shadow"):
                users = [line.split(":")[0] for line in (root / "etc" / name).read_text().splitlines()]
                self.assertEqual(users, ["root", "admin"])
            self.assertFalse((root / "home").exists() or (root / "root").exists())
            for directory in ("usr", "etc", "www", "sbin", "opt"):
                self.assertTrue(os.statvfs(root / directory).f_flag & os.ST_RDONLY, directory)

    def test_an_interrupted_save_is_recovered_at_the_start(self):
        Demo(state=self.state).stop()
        config = self.state / "config"
        whole = (config / "lan.conf").read_bytes()
        wireless = (config / "wireless.conf").read_bytes()
        (config / "lan.conf").rename(config / "lan.conf.cgi")
        (config / "wireless.conf.cgi").write_bytes(wireless[:20])
        with Demo(state=self.state) as demo:
            self.assertEqual(demo.file("lan.conf").read_bytes(), whole)
            self.assertEqual(demo.file("wireless.conf").read_bytes(), wireless)
            self.assertEqual(list(config.glob("*.cgi")), [])
            self.assertEqual(demo.json(NETWORK)["LAN_ADDRESS"], "192.168.1.1")

    def test_a_file_that_a_power_loss_has_emptied_is_recovered_at_the_start(self):
        with Demo(state=self.state) as demo:
            self.assertEqual(demo.post(DEVICE, {"CONTACT": "Ann"}).status, 303)
            saved = demo.files()
        config = self.state / "config"
        (config / "global.conf").write_bytes(b"")
        (config / "lan.conf").write_bytes(saved["lan.conf"][:30])
        (config / "wireless.conf").write_bytes(bytes(len(saved["wireless.conf"])))
        with Demo(state=self.state) as demo:
            self.assertEqual(demo.files(), saved)
            self.assertEqual(demo.page(DEVICE).shown["CONTACT"], "Ann")

    def test_only_the_owner_can_access_the_state(self):
        """Users that can read a file could hold its lock."""
        self.state.mkdir(mode=0o755)
        for _ in ("an existing directory", "an existing state"):
            self.state.chmod(0o755)
            with Demo(state=self.state):
                self.assertEqual(stat.S_IMODE(self.state.stat().st_mode), 0o700)

    def test_a_port_in_use_is_reported(self):
        with socket.socket() as other:
            other.bind(("127.0.0.1", 0))
            other.listen()
            port = other.getsockname()[1]
            result = self.run_script("--port", str(port))
        self.assertEqual(result.returncode, 1)
        self.assertIn(f"port {port} is in use", result.stderr)

    def test_a_directory_with_other_files_is_not_changed(self):
        (self.state / "var").mkdir(parents=True)
        (self.state / "var" / "precious").touch()
        result = self.run_script("--reset", "--port", str(device.free_port()))
        self.assertEqual(result.returncode, 1)
        self.assertIn("contains other files", result.stderr)
        self.assertEqual([path.name for path in self.state.iterdir()], ["var"])
        self.assertTrue((self.state / "var" / "precious").exists())

    def test_a_state_in_use_is_refused(self):
        with Demo(state=self.state):
            result = self.run_script("--port", str(device.free_port()))
        self.assertEqual(result.returncode, 1)
        self.assertIn("in use by another device", result.stderr)

    def test_wrong_arguments_are_reported(self):
        for arguments, text in ((("--port", "x"), "not a port"), (("--port", "70000"), "not a port"),
                                (("--port",), "expected one argument"),
                                (("--what",), "unrecognized arguments")):
            result = self.run_script(*arguments)
            self.assertNotEqual(result.returncode, 0, arguments)
            self.assertIn(text, result.stderr, arguments)
        self.assertIn("usage", self.run_script("--help").stdout)

    def test_it_runs_as_an_ordinary_user(self):
        script = shutil.copy(SOURCE / "tools" / "corvel-device", self.directory)
        image = self.directory / "image"
        shutil.copytree(device.IMAGE, image, symlinks=True)
        command = ()
        if os.geteuid() == 0:
            subprocess.run(["chown", "-R", f"{NOBODY}:{NOBODY}", self.directory], check=True)
            command = ("setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups",
                       "--inh-caps=-all")
        try:
            demo = Demo(state=self.state, script=[script, "--demo"], image=image, command=command)
        except RuntimeError as problem:
            self.fail(f"an ordinary user cannot run the demo here (user namespaces?): {problem}")
        with demo:
            owner = os.stat(self.state / "config").st_uid
            self.assertNotEqual(owner, 0)
            for pid in demo.members:
                with contextlib.suppress(FileNotFoundError):  # a program that has ended since
                    self.assertEqual(os.stat(f"/proc/{pid}").st_uid, owner)
            self.assertEqual(demo.post(NETWORK, {"WLAN_SSID": "Ordinary"}).status, 303)
            self.assertEqual(demo.post(DEVICE, {"CONTACT": "Ordinary"}).status, 303)
            self.assertEqual(demo.json(NETWORK)["WLAN_SSID"], "Ordinary")
            self.assertTrue(wait_until(lambda: demo.applied()["WLAN"] == "0 Ordinary"))
            shown = {each["name"]: each["ipv4"] for each in demo.document(STATUS)["interfaces"]}
            self.assertEqual((shown["br-lan"], shown["wan0"]), ("192.168.1.1", "203.0.113.2"))
            self.assertTrue(wait_until(lambda: demo.lessees() == CLIENT_NAMES, 60),
                            "there are clients without a lease")
            response = demo.post(PASSWORD, {
                "old": OWNER_PASSWORD, "new": "another one", "again": "another one"})
            self.assertEqual(response.status, 303)
            demo.log_in(password="another one")
        self.assertEqual(demo.remaining_processes(), [])
