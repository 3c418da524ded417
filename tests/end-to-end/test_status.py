# SPDX-License-Identifier: MIT
"""The status page shows the state that the kernel reports for the device's network."""

import ipaddress
import os
import pathlib
import re
import time

from demo_test import SharedDemoTest
from device import CLIENTS, LOGIN, NETWORK, STATUS, STRANGER, UPGRADE, Element, wait_until

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

    def test_the_state_of_the_internet_connection_has_its_reason(self):
        def state():
            return self.system()["internet"]

        def restore():
            self.demo.ip("link", "set", "wan0", "up")
            for change in (["address", "replace", "203.0.113.2/24", "dev", "wan0"],
                           ["address", "replace", "2001:db8:2::2/64", "dev", "wan0", "nodad"],
                           ["route", "replace", "default", "via", "203.0.113.1"],
                           ["-6", "route", "replace", "default", "via", "2001:db8:2::1"]):
                self.demo.ip(*change)

        self.addCleanup(restore)
        shown = self.system()
        self.assertEqual((shown["internet"], shown["address"], shown["address6"]),
                         ("Connected", "203.0.113.2", "2001:db8:2::2/64"))
        self.demo.ip("route", "replace", "default", "via", "203.0.113.99")
        self.demo.greet("203.0.113.99")
        self.assertTrue(wait_until(lambda: state() == "Not connected: the gateway does not answer"), state())
        self.demo.ip("route", "del", "default")
        self.assertEqual(state(), "Not connected: no gateway")
        self.demo.ip("address", "flush", "dev", "wan0", "scope", "global")
        shown = self.system()
        self.assertEqual([shown[name] for name in ("internet", "address", "address6", "since")],
                         ["Not connected: no address", "", "", ""])
        self.demo.ip("link", "set", "wan0", "down")
        self.assertEqual(state(), "Not connected: no cable, or the other end is off")
        before = time.strftime("%Y-%m-%d %H:%M", time.localtime(time.time() - 1))
        restore()
        self.assertTrue(wait_until(lambda: state() == "Connected"), state())
        self.assertLessEqual(before, self.system()["since"])
        self.assertLessEqual(self.system()["since"], time.strftime("%Y-%m-%d %H:%M"))

    def test_the_status_page_shows_the_running_set_and_its_version(self):
        upgrade = self.demo.json(UPGRADE, "upgrade")
        shown = self.system()
        self.assertEqual((shown["bootset"], shown["version"]),
                         (upgrade["RUNNING"], upgrade["VERSION_" + upgrade["RUNNING"]]))
        self.assertTrue(shown["version"])

    def test_the_uptime_counts_from_the_start_of_the_router(self):
        started = float((self.demo.root() / "run/started").read_text().split()[0])

        def uptime():
            minutes = int(time.monotonic() - int(started)) // 60
            return f"{minutes // 60} h {minutes % 60:02} min"

        before = uptime()
        shown = self.system()["uptime"]
        self.assertIn(shown, (before, uptime()))
        self.assertGreater(started, 0, "the machine runs for longer than the demo")

    def test_load_and_memory_are_those_of_the_machine(self):
        def memory(name):
            return int(re.search(rf"^{name}: +(\d+) kB$", pathlib.Path("/proc/meminfo").read_text(),
                                 re.M).group(1)) // 1024

        def matches():
            shown = self.system()
            load = float(re.fullmatch(r"(\d+\.\d) in the last minute", shown["load"]).group(1))
            used, total = map(int, re.fullmatch(r"(\d+) % of (\d+) MiB in use", shown["memory"]).groups())
            self.assertEqual(total, memory("MemTotal"))
            return (abs(load - os.getloadavg()[0]) < 0.2 and
                    abs(used - 100 + 100 * memory("MemAvailable") / total) < 3)

        self.assertTrue(wait_until(matches), self.system())

    def test_the_number_of_clients_is_that_of_the_clients_page(self):
        def same():
            shown = self.system()["clients"]
            states = [row["state"] for row in self.demo.json(CLIENTS, "clients")]
            return len(states) >= 3 and shown == f"{states.count('Online')} online, {len(states)} known"

        self.assertTrue(wait_until(same, 30), self.system()["clients"])

    def test_the_dhcp_server_and_the_radio_are_shown_as_they_are_applied(self):
        for name in ("lan.conf", "wireless.conf"):
            self.addCleanup(self.demo.file(name).write_bytes, self.demo.file(name).read_bytes())

        def switch(settings, **shown):
            self.assertEqual(self.demo.post(NETWORK, settings).status, 303)
            self.assertTrue(wait_until(lambda: shown.items() <= self.system().items()), shown)

        self.assertTrue(wait_until(lambda: self.system()["dnsmasq"] == "Running"))
        self.assertTrue(any("dnsmasq" in name for name in self.demo.program_names()))
        switch({"DHCP_ENABLED": "0", "WLAN_ENABLED": "0"}, dnsmasq="Switched off", radio="Off", ssid="")
        switch({"DHCP_ENABLED": "1", "WLAN_ENABLED": "1", "WLAN_CHANNEL": "11", "WLAN_SSID": "<b> & co"},
               dnsmasq="Running", radio="On, channel 11", ssid="<b> & co")
        switch({"WLAN_CHANNEL": "0"}, radio="On, automatic channel")

    def test_an_unchanged_document_is_not_sent_again(self):
        def is_unchanged():
            tag = self.demo.get(STATUS + "?Ajax=1").headers["ETag"]
            again = self.demo.request("GET", STATUS + "?Ajax=1", headers={"If-None-Match": tag})
            return (again.status, again.body) == (304, b"")

        self.assertTrue(wait_until(is_unchanged))

    def test_json_equals_the_page(self):
        def same():
            page = Element.of_page(self.demo.get(STATUS).text)
            document = self.demo.document(STATUS)
            rows = page.by_id("interfaces").rows()
            self.assertEqual([row["data-name"] for row in rows],
                             [row["name"] for row in document["interfaces"]])
            for row, shown in zip(rows, document["interfaces"]):
                for column in ("ipv4", "netmask", "mac", "ipv6"):
                    self.assertEqual(row[column], shown[column])
            system = document["system"]
            return system == {name: page.by_id(name).text for name in system}

        # Load and memory may change between the two requests.
        self.assertTrue(wait_until(same), "page and JSON differ")

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
