# SPDX-License-Identifier: MIT
"""The status page shows the state that the kernel reports for the device's network."""

import ipaddress
import re
import time

from demo_test import SharedDemoTest
from device import CLIENTS, LOGIN, NETWORK, STATUS, STRANGER, UPGRADE, Element, seconds_of, wait_until

INTERFACES = {"br-lan", "wan0", "wlan0"}


class Status(SharedDemoTest):
    def shown(self):
        """Returns the interfaces of the JSON document by name."""
        return {each["name"]: each for each in self.demo.document(STATUS)["interfaces"]}

    def system(self):
        return self.demo.json(STATUS, "system")

    def kernels(self):
        """Returns the interfaces as reported by `ip`."""
        found = {}
        for link in self.demo.ip("address", "show"):
            inet = [each for each in link["addr_info"] if each["family"] == "inet"]
            inet6 = [each for each in link["addr_info"]
                     if each["family"] == "inet6" and each["scope"] == "global"]
            found[link["ifname"]] = {
                "name": link["ifname"],
                "mac": link["address"].upper(),
                "ipv4": inet[0]["local"] if inet else "",
                "netmask": str(ipaddress.ip_network(f"0.0.0.0/{inet[0]['prefixlen']}").netmask)
                if inet else "",
                "ipv6": f"{inet6[0]['local']}/{inet6[0]['prefixlen']}" if inet6 else ""}
        return found

    def test_interfaces_equal_those_of_the_kernel(self):
        shown = self.shown()
        kernels = self.kernels()
        self.assertLessEqual(INTERFACES, set(shown))
        for name, row in shown.items():
            self.assertEqual(row | {"mac": row["mac"].upper()}, kernels[name])
        self.assertEqual((shown["wan0"]["ipv4"], shown["wan0"]["ipv6"]),
                         ("203.0.113.2", "2001:db8:2::2/64"))
        self.assertEqual((shown["br-lan"]["ipv4"], shown["br-lan"]["netmask"], shown["br-lan"]["ipv6"]),
                         ("192.168.1.1", "255.255.255.0", "2001:db8:1::1/64"))
        self.assertEqual((shown["wlan0"]["ipv4"], shown["wlan0"]["netmask"], shown["wlan0"]["ipv6"]),
                         ("", "", ""))

    def test_changed_interfaces_are_shown_by_the_next_request(self):
        before = self.shown()["wlan0"]["mac"]
        self.demo.ip("link", "set", "wlan0", "up")
        self.addCleanup(self.demo.ip, "link", "set", "wlan0", "down")
        self.addCleanup(self.demo.ip, "address", "flush", "dev", "wlan0")
        self.addCleanup(self.demo.ip, "link", "set", "wlan0", "address", before)
        for change, column, value in (
                ("address add 198.51.100.77/27 dev wlan0", "ipv4", "198.51.100.77"),
                ("address add 2001:db8:77::abcd/96 dev wlan0 nodad", "ipv6", "2001:db8:77::abcd/96"),
                ("link set wlan0 address 02:0a:ff:00:9b:c1", "mac", "02:0A:FF:00:9B:C1")):
            self.demo.ip(*change.split())
            row = self.shown()["wlan0"]
            self.assertEqual(row[column].upper() if column == "mac" else row[column], value)
            self.assertEqual(row | {"mac": row["mac"].upper()}, self.kernels()["wlan0"])
        self.assertEqual(self.shown()["wlan0"]["netmask"], "255.255.255.224")

    def test_a_hostile_interface_name_is_shown_unchanged(self):
        for name in ("<b>&\"'{{model}}", "'><i>{{&model}}", "\\\\u0041\\\"}"):
            with self.subTest(name):
                self.demo.ip("link", "add", name, "type", "bridge")
                self.addCleanup(self.demo.ip, "link", "del", name)
                self.assertIn(name, self.shown())
                for path in (STATUS, CLIENTS):
                    text = self.demo.get(path).text
                    self.assertIsNone(re.search("<[bi]>", text))
                    self.assertTrue(text.endswith("</html>\n"))
                rows = Element.of_page(self.demo.get(STATUS).text).by_id("interfaces").rows()
                self.assertIn((name, name), [(row["name"], row["data-name"]) for row in rows])

    def test_the_gateway_equals_that_of_the_default_route(self):
        route, = [each for each in self.demo.ip("-4", "route", "show", "default")
                  if each["dev"] == "wan0"]
        self.assertEqual(route["gateway"], "203.0.113.1")
        self.assertEqual(self.system()["gateway"], route["gateway"])
        self.addCleanup(self.demo.ip, "route", "replace", "default", "via", "203.0.113.1")
        self.demo.ip("route", "replace", "default", "via", "203.0.113.77")
        self.assertEqual(self.system()["gateway"], "203.0.113.77")
        self.demo.ip("route", "del", "default")
        self.assertEqual(self.system()["gateway"], "")

    def test_the_name_servers_equal_those_of_the_file(self):
        text = (self.demo.root() / "etc/resolv.conf").read_text()
        servers = re.findall(r"^nameserver\s+(\S+)", text, re.M)
        self.assertEqual(len(servers), 2)
        self.assertEqual(self.system()["dns"], ", ".join(servers))

    def test_the_status_page_shows_the_running_set(self):
        self.assertEqual(self.system()["bootset"], self.demo.json(UPGRADE, "upgrade")["RUNNING"])

    def test_the_uptime_counts_from_the_start_of_the_router(self):
        started = float((self.demo.root() / "run/started").read_text().split()[0])
        before = int(time.monotonic())
        shown = seconds_of(self.system()["uptime"])
        self.assertLessEqual(before, shown + int(started))
        self.assertLessEqual(shown + int(started), int(time.monotonic()))
        self.assertGreater(started, 0, "the machine runs for longer than the demo")

    def test_the_dhcp_server_is_shown_as_running(self):
        self.assertTrue(wait_until(lambda: self.system()["dnsmasq"] == "running"))
        self.assertTrue(any("dnsmasq" in name for name in self.demo.program_names()))

    def test_a_dhcp_server_that_is_switched_off_is_not_shown_as_running(self):
        lan = self.demo.file("lan.conf")
        content = lan.read_bytes()

        def switch(to, shown):
            self.assertEqual(self.demo.post(NETWORK, {"DHCP_ENABLED": to}).status, 303)
            self.assertTrue(wait_until(lambda: self.system()["dnsmasq"] == shown), shown)

        self.addCleanup(lan.write_bytes, content)
        switch("0", "switched off")
        switch("1", "running")

    def test_json_equals_the_page(self):
        before = self.system()
        page = Element.of_page(self.demo.get(STATUS).text)
        document = self.demo.document(STATUS)
        rows = page.by_id("interfaces").rows()
        self.assertEqual([row["data-name"] for row in rows],
                         [row["name"] for row in document["interfaces"]])
        for row, shown in zip(rows, document["interfaces"]):
            for column in ("ipv4", "netmask", "mac", "ipv6"):
                self.assertEqual(row[column], shown[column])
        system = document["system"]
        uptime = page.by_id("uptime").text
        self.assertLessEqual(before.pop("uptime"), uptime)
        self.assertLessEqual(uptime, system.pop("uptime"))
        self.assertEqual(system, before)
        self.assertEqual(system, {name: page.by_id(name).text for name in system})

    def test_a_client_without_a_session_gets_nothing(self):
        response = self.demo.request("GET", STATUS, headers=STRANGER)
        self.assertEqual((response.status, response.body), (303, b""))
        self.assertTrue(response.headers["Location"].startswith(LOGIN))

    def test_the_browser_shows_a_change_without_a_reload(self):
        """When the session has ended, the browser shows the login page."""
        before = self.shown()["wlan0"]["mac"]
        walk = self.walk("status")
        self.addCleanup(self.demo.ip, "link", "set", "wlan0", "address", before)
        self.addCleanup(self.demo.ip, "address", "flush", "dev", "wlan0")
        self.assertEqual(walk.line(), "shown")
        self.demo.ip("address", "add", "198.51.100.99/25", "dev", "wlan0")
        self.demo.ip("link", "set", "wlan0", "address", "02:0a:ff:00:9b:c2")
        self.assertEqual(walk.line(), "changed")
        self.demo.sessions()[self.demo.file_name(self.demo.session)].unlink()
        seen = walk.result()
        kernels = self.kernels()
        rows = {row["name"]: row for row in seen["rows"]}
        for name, row in rows.items():
            for column in ("ipv4", "netmask", "mac", "ipv6"):
                value = row[column].upper() if column == "mac" else row[column]
                self.assertEqual(value, kernels[name][column], (name, column))
        self.assertEqual(rows["wlan0"]["ipv4"], "198.51.100.99")
        self.assertEqual(seen["loads"], 1, "the page was loaded once")
        self.assertIn(LOGIN, seen["at"])
