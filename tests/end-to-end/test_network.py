"""The device's own network: what it has, who is in it, and that it stays there."""

import json
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

from device import CLIENT_NAMES, CLIENTS, DEVICE, NETWORK, STATUS, Demo, wait_until



def machine(*arguments):
    """What the machine's own network has."""
    return json.loads(subprocess.run(["ip", "-json", *arguments], check=True, capture_output=True,
                                     text=True).stdout or "[]")


class DeviceNetwork(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        cls.before = cls.names_of_the_machine()
        cls.demo = Demo()
        cls.addClassCleanup(cls.demo.stop)

    @staticmethod
    def names_of_the_machine():
        return sorted(each["ifname"] for each in machine("link", "show"))

    def setUp(self):
        if not hasattr(type(self), "factory"):
            type(self).factory = self.demo.files()

    def tearDown(self):
        self.assertEqual(self.demo.crashes(), [])

    def link(self, name):
        link, = self.demo.ip("address", "show", "dev", name)
        return link

    def addresses(self, name, scope="global"):
        return {f"{each['local']}/{each['prefixlen']}" for each in self.link(name)["addr_info"]
                if each["scope"] == scope}

    def wait_for_clients(self):
        self.assertTrue(wait_until(lambda: self.known() == CLIENT_NAMES, 60), self.demo.leases())

    def known(self):
        return {lease[3] for lease in self.demo.leases()}

    def test_the_machine_has_none_of_it(self):
        self.assertEqual(self.names_of_the_machine(), self.before)
        self.assertEqual({"br-lan", "wan0", "wlan0"} & set(self.before), set())
        self.assertLessEqual({"br-lan", "wan0", "wlan0"},
                             {each["ifname"] for each in self.demo.ip("link", "show")})
        self.assertEqual(machine("route", "show", "203.0.113.0/24"), [])

    def test_the_interfaces(self):
        self.assertEqual(self.addresses("br-lan"), {"192.168.1.1/24", "2001:db8:1::1/64"})
        self.assertEqual(self.addresses("wan0"), {"203.0.113.2/24", "2001:db8:2::2/64"})
        self.assertEqual(self.addresses("wlan0"), set())
        self.assertNotIn("UP", self.link("wlan0")["flags"])
        for name in ("br-lan", "wan0"):
            self.assertIn("UP", self.link(name)["flags"])

    def test_the_gateway_answers(self):
        route, = self.demo.ip("-4", "route", "show", "default")
        self.assertEqual((route["gateway"], route["dev"]), ("203.0.113.1", "wan0"))
        # A datagram to it makes the kernel ask for its hardware address.
        subprocess.run(self.demo.inside(
            sys.executable, "-c", "import socket; socket.socket(socket.AF_INET, socket.SOCK_DGRAM)"
            ".sendto(b'x', ('203.0.113.1', 9))"), check=True)
        self.assertTrue(wait_until(lambda: any(
            "lladdr" in each for each in self.demo.ip("neighbor", "show", "203.0.113.1"))))

    def test_three_clients_come_with_leases_and_are_neighbours(self):
        self.wait_for_clients()
        leases = {lease[3]: (lease[2], lease[1]) for lease in self.demo.leases()}
        self.assertEqual(len(set(leases.values())), 3)
        for address, _ in leases.values():
            self.assertTrue(100 <= int(address.removeprefix("192.168.1.")) <= 199, address)

        def neighbours():
            return {(each["dst"], each["lladdr"]) for each in self.demo.ip(
                "-4", "neighbor", "show", "dev", "br-lan") if "lladdr" in each}

        self.assertTrue(wait_until(lambda: set(leases.values()) <= neighbours(), 30))
        document = self.demo.document(CLIENTS)
        self.assertLessEqual(CLIENT_NAMES, {row["host"] for row in document["leases"]})

    def test_a_changed_address_comes_to_the_bridge(self):
        self.wait_for_clients()
        new = {"LAN_ADDRESS": "10.9.8.1", "LAN_NETMASK": "255.255.252.0", "DHCP_FIRST": "10.9.9.10",
               "DHCP_LAST": "10.9.9.20"}
        self.assertEqual(self.demo.post(NETWORK, new).status, 303)
        self.assertTrue(wait_until(
            lambda: self.addresses("br-lan") == {"10.9.8.1/22", "2001:db8:1::1/64"}),
            self.addresses("br-lan"))
        row = next(row for row in self.demo.document(STATUS)["interfaces"] if row["name"] == "br-lan")
        self.assertEqual((row["ipv4"], row["netmask"]), ("10.9.8.1", "255.255.252.0"))
        self.assertEqual(self.demo.get(NETWORK).status, 200, "the site is still there")
        self.assertEqual(self.demo.post(NETWORK, {
            "LAN_ADDRESS": "192.168.1.1", "LAN_NETMASK": "255.255.255.0",
            "DHCP_FIRST": "192.168.1.100", "DHCP_LAST": "192.168.1.199"}).status, 303)
        self.assertTrue(wait_until(
            lambda: self.addresses("br-lan") == {"192.168.1.1/24", "2001:db8:1::1/64"}))

    def test_an_impossible_address_leaves_the_bridge_as_it_was(self):
        """Written into the file by hand, past the page that would refuse it."""
        for address, netmask in (("300.1.1.1", "255.255.255.0"), ("", ""), ("192.168.1.1; reboot", "x"),
                                 ("192.168.1.7", "255.0.255.0"), ("-h", "-h"), ("127.0.0.1", "0.0.0.0")):
            file = self.demo.file("lan.conf")
            text = self.factory["lan.conf"].decode()
            self.addCleanup(file.write_bytes, self.factory["lan.conf"])
            file.write_text(text.replace('LAN_ADDRESS="192.168.1.1"', f'LAN_ADDRESS="{address}"')
                            .replace('LAN_NETMASK="255.255.255.0"', f'LAN_NETMASK="{netmask}"'))
            runs = int(self.demo.applied()["RUNS"])
            self.assertEqual(self.demo.post(DEVICE, {"CONTACT": "x"}).status, 303)
            self.assertTrue(wait_until(lambda: int(self.demo.applied()["RUNS"]) > runs))
            self.assertEqual(self.addresses("br-lan"), {"192.168.1.1/24", "2001:db8:1::1/64"}, address)
            self.assertEqual(self.demo.get(STATUS).status, 200)

    def test_the_leases_survive_a_restart(self):
        folder = pathlib.Path(tempfile.mkdtemp(prefix="corvel-test-"))
        self.addCleanup(shutil.rmtree, folder, ignore_errors=True)
        with Demo(state=folder / "state") as demo:
            self.assertTrue(wait_until(
                lambda: {lease[3] for lease in demo.leases()} == CLIENT_NAMES, 60))
            leases = {lease[1]: lease[2] for lease in demo.leases()}
        with Demo(state=folder / "state") as demo:
            self.assertTrue(wait_until(
                lambda: {lease[3] for lease in demo.leases()} == CLIENT_NAMES, 60))
            self.assertEqual({lease[1]: lease[2] for lease in demo.leases()}, leases)
