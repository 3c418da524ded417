# SPDX-License-Identifier: MIT
"""Fifty clients save and read at the same time: no error, no lost setting, no incomplete file."""

import concurrent.futures
import contextlib
import itertools
import re
import threading
import time

from demo_test import OwnDemoTest
from device import DEVICE, NETWORK, escaped, wait_until

CLIENTS = 50
REQUESTS = 60  # of each client: 3,000 in all
WHOLE_LINE = re.compile(rb'(#.*|[A-Z_]+[= ]"([^"\\]|\\.)*")')

# Settings that are each changed by one client, which saves these values in turn. Any combination of
# the values is valid.
OWNED = {
    "LAN_ADDRESS": (NETWORK, [f"192.168.1.{i}" for i in range(2, 90)]),
    "DHCP_ENABLED": (NETWORK, ["0", "1"]),
    "DHCP_FIRST": (NETWORK, [f"192.168.1.{i}" for i in range(100, 140)]),
    "DHCP_LAST": (NETWORK, [f"192.168.1.{i}" for i in range(150, 250)]),
    "DHCP_LEASE": (NETWORK, [str(i) for i in range(1, 169)]),
    "DOMAIN": (NETWORK, [f"zone{i}.lan" for i in range(100)]),
    "WLAN_ENABLED": (NETWORK, ["0", "1"]),
    "WLAN_HIDDEN": (NETWORK, ["1", "0"]),
    "WLAN_CHANNEL": (NETWORK, [str(i) for i in range(14)]),
    "COUNTRY": (NETWORK, ["AU", "JP", "GB"]),
    "HOST_NAME": (DEVICE, [f"host-{i}" for i in range(100)]),
}


class ClientsAtOnce(OwnDemoTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.names = {name: [re.split(rb"[= ]", line)[0] for line in content.splitlines()]
                     for name, content in cls.factory.items()}

    def expect(self, holds, what):
        if not holds:
            raise AssertionError(what)

    def owner(self, name):
        """Saves its own setting and checks that no other client changes it."""
        path, values = OWNED[name]
        for value in itertools.islice(itertools.cycle(values), REQUESTS // 2):
            response = self.demo.post(path, {name: value})
            self.expect(response.status == 303, (name, value, response.status))
            shown = self.demo.json(path)[name]
            self.expect(shown == value, f"lost: {name} is {shown}, saved was {value}")
        return {name: value}

    def pair_writer(self, path, first, second, tag):
        """Saves the same string in two settings, and checks that they are always equal."""
        for i in range(REQUESTS // 2):
            text = f'client "{tag}" \\{i}$'
            response = self.demo.post(path, {first: text, second: text})
            self.expect(response.status == 303, response.status)
            self.check_pair(self.stored_pair() if path == NETWORK else self.demo.json(path), first, second)
        return {}

    def stored_pair(self):
        """Returns the settings of the wireless network, whose passphrase is on no page."""
        found = {}

        def is_read():
            # While the file is replaced, it does not exist.
            with contextlib.suppress(FileNotFoundError):
                found.update(re.findall('^(WLAN_SSID|WLAN_PASSPHRASE)="(.*)"$',
                                        self.demo.file("wireless.conf").read_text(), re.M))
            return found

        wait_until(is_read)
        return found

    def check_pair(self, settings, first, second):
        self.expect(settings[first] == settings[second], (settings[first], settings[second]))

    def reader(self, tag):
        for i in range(REQUESTS):
            path, first, second = ((NETWORK, "WLAN_SSID", "WLAN_PASSPHRASE"),
                                   (DEVICE, "DESCRIPTION", "CONTACT"))[(tag + i) % 2]
            settings = self.demo.json(path) if i % 4 < 2 else self.demo.page(path).shown
            if path == NETWORK:
                settings |= self.stored_pair()
            self.check_pair(settings, first, second)
            self.expect(all(settings.values()), f"an empty setting: {settings}")
        return {}

    def watch_files(self, finished):
        """Reads the files without a lock: they are complete or, for a moment, do not exist."""
        looks = 0
        while not finished.is_set():
            for name, lines in self.names.items():
                try:
                    content = self.demo.file(name).read_bytes()
                except FileNotFoundError:
                    continue
                self.check_whole(content, lines)
                looks += 1
            time.sleep(0.002)
        return looks

    def check_whole(self, content, names):
        lines = content.splitlines()
        self.expect(content.endswith(b"\n"), content)
        self.expect(all(WHOLE_LINE.fullmatch(line) for line in lines), content)
        self.expect([re.split(rb"[= ]", line)[0] for line in lines] == names, content)

    def test_fifty_clients_at_the_same_time_lose_no_setting(self):
        same = "client at first"
        self.demo.post(NETWORK, {"WLAN_SSID": same, "WLAN_PASSPHRASE": same})
        self.demo.post(DEVICE, {"DESCRIPTION": same, "CONTACT": same})

        finished = threading.Event()
        start = time.monotonic()
        with concurrent.futures.ThreadPoolExecutor(CLIENTS + 1) as pool:
            watching = pool.submit(self.watch_files, finished)
            try:
                clients = [pool.submit(self.owner, name) for name in OWNED]
                for tag in range(10):
                    clients.append(pool.submit(
                        self.pair_writer, NETWORK, "WLAN_SSID", "WLAN_PASSPHRASE", tag))
                    clients.append(pool.submit(
                        self.pair_writer, DEVICE, "DESCRIPTION", "CONTACT", tag))
                while len(clients) < CLIENTS:
                    clients.append(pool.submit(self.reader, len(clients)))
                concurrent.futures.wait(clients)
            finally:
                finished.set()
            seconds = time.monotonic() - start
            looks = watching.result()
        last = {}
        for client in clients:
            last.update(client.result())
        print(f"{CLIENTS * REQUESTS} requests in {seconds:.1f} s, {looks} reads of files ...",
              end=" ", flush=True)

        self.assertEqual(self.demo.crashes(), [])
        self.assertEqual(set(last), set(OWNED))
        self.assertGreater(looks, 100)
        for name, value in last.items():
            file = next(file for file, names in self.names.items() if name.encode() in names)
            separator = " " if file == "global.conf" else "="
            self.assertEqual(self.demo.setting(name, file, separator), f'"{escaped(value)}"')
        for name, content in self.demo.files().items():
            self.check_whole(content, self.names[name])
        self.assertEqual(list((self.demo.state / "config").glob("*.cgi")), [])
        self.assertTrue(wait_until(
            lambda: self.demo.applied()["LAN"] == f"{last['LAN_ADDRESS']} 255.255.255.0"),
            "the configuration client has not applied the last change")
