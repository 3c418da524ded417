# SPDX-License-Identifier: MIT
"""The device's own network: interfaces, stations, applied settings."""

import json
import re
import subprocess

from demo_test import OwnDemoTest
from device import CLIENT_NAMES, CLIENTS, DEVICE, NETWORK, STATUS, Demo, wait_until


def machine(*arguments):
    """Returns the output of `ip` in the machine's own network."""
    return json.loads(subprocess.run(["ip", "-json", *arguments], check=True, capture_output=True,
                                     text=True).stdout or "[]")


class DeviceNetwork(OwnDemoTest):
    @classmethod
    def setUpClass(cls):
        cls.before = cls.names_of_the_machine()
        super().setUpClass()

    @staticmethod
    def names_of_the_machine():
        return sorted(each["ifname"] for each in machine("link", "show"))

    def link(self, name):
        link, = self.demo.ip("address", "show", "dev", name)
        return link

    def addresses(self, name, scope="global"):
        return {f"{each['local']}/{each['prefixlen']}" for each in self.link(name)["addr_info"]
                if each["scope"] == scope}

    def wait_for_clients(self):
        self.assertTrue(wait_until(lambda: self.demo.lessees() == CLIENT_NAMES, 60), self.demo.leases())

    def test_the_machines_own_network_is_unchanged(self):
        self.assertEqual(self.names_of_the_machine(), self.before)
        self.assertEqual({"br-lan", "wan0", "wlan0"} & set(self.before), set())
        self.assertLessEqual({"br-lan", "wan0", "wlan0"},
                             {each["ifname"] for each in self.demo.ip("link", "show")})
        self.assertEqual(machine("route", "show", "203.0.113.0/24"), [])

    def test_the_interfaces_have_their_addresses(self):
        self.assertEqual(self.addresses("br-lan"), {"192.168.1.1/24", "2001:db8:1::1/64"})
        self.assertEqual(self.addresses("wan0"), {"203.0.113.2/24", "2001:db8:2::2/64"})
        self.assertEqual(self.addresses("wlan0"), set())
        self.assertNotIn("UP", self.link("wlan0")["flags"])
        for name in ("br-lan", "wan0"):
            self.assertIn("UP", self.link(name)["flags"])

    def test_the_gateway_replies(self):
        route, = self.demo.ip("-4", "route", "show", "default")
        self.assertEqual((route["gateway"], route["dev"]), ("203.0.113.1", "wan0"))
        self.demo.greet_gateway()
        self.assertTrue(wait_until(lambda: any(
            "lladdr" in each for each in self.demo.ip("neighbor", "show", "203.0.113.1"))))

    def test_the_three_stations_have_leases_and_are_neighbours(self):
        self.wait_for_clients()
        leases = {lease[3]: (lease[2], lease[1]) for lease in self.demo.leases()}
        self.assertEqual(len(set(leases.values())), 3)
        for address, _ in leases.values():
            self.assertTrue(100 <= int(address.removeprefix("192.168.1.")) <= 199, address)

        def neighbours():
            return {(each["dst"], each["lladdr"]) for each in self.demo.ip(
                "-4", "neighbor", "show", "dev", "br-lan") if "lladdr" in each}

        self.assertTrue(wait_until(lambda: set(leases.values()) <= neighbours(), 30))

        def shows_all():
            return CLIENT_NAMES <= {row["name"] for row in self.demo.json(CLIENTS, "clients")}

        # dnsmasq rewrites its file in place: for a moment it is empty.
        self.assertTrue(wait_until(shows_all))

    def test_the_bridge_gets_a_changed_address(self):
        self.wait_for_clients()
        new = {"LAN_ADDRESS": "10.9.8.1", "LAN_NETMASK": "255.255.252.0", "DHCP_FIRST": "10.9.9.10",
               "DHCP_LAST": "10.9.9.20"}
        self.assertEqual(self.demo.post(NETWORK, new).status, 303)
        self.assertTrue(wait_until(
            lambda: self.addresses("br-lan") == {"10.9.8.1/22", "2001:db8:1::1/64"}),
            self.addresses("br-lan"))
        row = next(row for row in self.demo.document(STATUS)["interfaces"] if row["name"] == "br-lan")
        self.assertEqual((row["ipv4"], row["netmask"]), ("10.9.8.1", "255.255.252.0"))
        self.assertEqual(self.demo.get(NETWORK).status, 200, "the site is still served")
        self.assertEqual(self.demo.post(NETWORK, {
            "LAN_ADDRESS": "192.168.1.1", "LAN_NETMASK": "255.255.255.0",
            "DHCP_FIRST": "192.168.1.100", "DHCP_LAST": "192.168.1.199"}).status, 303)
        self.assertTrue(wait_until(
            lambda: self.addresses("br-lan") == {"192.168.1.1/24", "2001:db8:1::1/64"}))

    def apply_lan(self, **settings):
        """Makes the configuration client apply settings that the page would refuse. Returns its record
        of the applied settings."""
        text = self.factory["lan.conf"].decode()
        for name, value in settings.items():
            text = re.sub(f'^{name}=.*$', lambda _: f'{name}="{value}"', text, flags=re.M)
        file = self.demo.file("lan.conf")
        self.addCleanup(file.write_bytes, self.factory["lan.conf"])
        file.write_text(text)
        runs = int(self.demo.applied()["RUNS"])
        self.assertEqual(self.demo.post(DEVICE, {"CONTACT": "x"}).status, 303)
        self.assertTrue(wait_until(lambda: int(self.demo.applied()["RUNS"]) > runs))
        return self.demo.applied()

    def test_an_invalid_address_does_not_change_the_bridge(self):
        """The record keeps the previous address."""
        for address, netmask in (("300.1.1.1", "255.255.255.0"), ("", ""), ("192.168.1.1; reboot", "x"),
                                 ("192.168.1.7", "255.0.255.0"), ("-h", "-h"), ("127.0.0.1", "0.0.0.0")):
            applied = self.apply_lan(LAN_ADDRESS=address, LAN_NETMASK=netmask)
            self.assertEqual(self.addresses("br-lan"), {"192.168.1.1/24", "2001:db8:1::1/64"}, address)
            self.assertEqual(applied["LAN"], "192.168.1.1 255.255.255.0", address)
            self.assertEqual(self.demo.get(STATUS).status, 200)

    def test_the_record_names_the_applied_address(self):
        for address, netmask, prefix in (("172.16.5.9", "255.240.0.0", 12),
                                         ("192.168.1.7", "255.255.255.252", 30),
                                         ("192.168.1.1", "255.255.255.0", 24)):
            applied = self.apply_lan(LAN_ADDRESS=address, LAN_NETMASK=netmask)
            self.assertEqual(applied["LAN"], f"{address} {netmask}")
            self.assertIn(f"{address}/{prefix}", self.addresses("br-lan"))

    def test_an_invalid_range_does_not_change_the_server(self):
        """The record keeps the previous range."""
        usual = "192.168.1.100 192.168.1.199 12h"
        self.assertEqual(self.apply_lan()["DHCP"], usual)
        configuration = self.demo.root() / "run/dnsmasq.conf"
        before = configuration.read_text()
        for first, last in (("300.1.1.1", "192.168.1.199"), ("192.168.1.100", "192.168.2.199"),
                            ("", ""), ("x,y", "z")):
            self.assertEqual(self.apply_lan(DHCP_FIRST=first, DHCP_LAST=last)["DHCP"], usual, first)
            self.assertEqual(configuration.read_text(), before)
        self.assertIn("dhcp-range=192.168.1.100,192.168.1.199,255.255.255.0,12h\n", before)
        self.assertEqual(self.apply_lan(DHCP_ENABLED="0")["DHCP"], "off")
        self.assertEqual(self.apply_lan()["DHCP"], usual)

    def test_a_device_that_starts_with_invalid_settings_records_none(self):
        state = self.make_directory() / "state"
        with Demo(state=state) as demo:
            file = demo.file("lan.conf")
        text = file.read_text()
        file.write_text(text.replace("192.168.1", "300.168.1"))
        with Demo(state=state) as demo:
            self.assertEqual((demo.applied()["LAN"], demo.applied()["DHCP"]), ("none", "off"))
            link, = demo.ip("-4", "address", "show", "dev", "br-lan") or [{"addr_info": []}]
            self.assertEqual(link.get("addr_info", []), [])
            file.write_text(text)
            self.assertEqual(demo.post(DEVICE, {"CONTACT": "x"}).status, 303)
            self.assertTrue(wait_until(lambda: (demo.applied()["LAN"], demo.applied()["DHCP"]) == (
                "192.168.1.1 255.255.255.0", "192.168.1.100 192.168.1.199 12h")))
            self.assertTrue(wait_until(lambda: demo.lessees() == CLIENT_NAMES, 60))

    def test_the_leases_survive_a_restart(self):
        state = self.make_directory() / "state"
        with Demo(state=state) as demo:
            self.assertTrue(wait_until(lambda: demo.lessees() == CLIENT_NAMES, 60))
            leases = {lease[1]: lease[2] for lease in demo.leases()}
        with Demo(state=state) as demo:
            self.assertTrue(wait_until(lambda: demo.lessees() == CLIENT_NAMES, 60))
            self.assertEqual({lease[1]: lease[2] for lease in demo.leases()}, leases)
