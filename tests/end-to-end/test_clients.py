# SPDX-License-Identifier: MIT
"""The clients page: leases, neighbours and the user's names for them, joined by hardware address."""

import json
import subprocess
import time

from demo_test import SharedDemoTest
from device import CLIENT_NAMES, CLIENTS, STRANGER, Element, Page, wait_until

HOSTILE = [
    "<script>window.hacked=1</script>", "<img/src=x/onerror=window.hacked=1>", "</td></tr></table>",
    '"', "''", '"><b>', "'onmouseover='window.hacked=1", "&lt;b&gt;", "&amp;", "&", "$ip", "$title",
    "{{ip}}", "{{&model}}", "{{#leases}}", "$leases", "\\", '\\"', "\\u0041", "\\\\\\", "{}", '"}],"x":[{"y":"', "%41", "%s%n", "x=y", "--",
    "javascript:alert(1)", "../../etc/passwd", "\u00e9\u65e5\U0001f600", "setenv", "a" * 100,
]


class ClientsTest(SharedDemoTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        if not wait_until(lambda: CLIENT_NAMES <= cls.demo.lessees(), 60):
            raise AssertionError(f"there are clients without a lease: {cls.demo.leases()}")

    def rows(self):
        """Returns the rows by hardware address."""
        rows = self.demo.json(CLIENTS, "clients")
        self.assertEqual(len({row["mac"] for row in rows if row["mac"]}),
                         len([row for row in rows if row["mac"]]), "one row for each client")
        return {row["mac"]: row for row in rows}

    def page(self, query=""):
        return Element.of_page(self.demo.get(CLIENTS + query).text)

    def neighbours(self):
        """Returns IP, MAC and interface of the kernel's neighbours with a known hardware address."""
        return {(each["dst"], each["lladdr"].upper(), each["dev"])
                for each in self.demo.ip("-4", "neighbor", "show", "nud", "all")
                if "lladdr" in each and not {"FAILED", "INCOMPLETE", "NOARP"} & set(each["state"])}

    def add_neighbour(self, address, mac):
        """Adds a permanent neighbour."""
        self.demo.ip("neighbor", "replace", address, "lladdr", mac, "dev", "br-lan",
                     "nud", "permanent")
        self.addCleanup(self.demo.ip, "neighbor", "del", address, "dev", "br-lan")

    def with_leases(self, lines, read):
        """Appends lines to the server's file, calls read(), and removes the lines.

        The server overwrites the file when a client renews its lease, which can leave some of the lines.
        They are removed, and read() is called again.
        """
        path = self.demo.state / "var/config/dnsmasq.leases"
        added = "".join(line + "\n" for line in lines).encode("utf-8", "surrogateescape")
        while True:
            before = path.read_bytes()
            with open(path, "ab") as file:
                file.write(added)
            seen = read()
            after = path.read_bytes()
            if after == before + added:
                with open(path, "r+b") as file:
                    file.truncate(len(before))
                return seen
            own = added.splitlines(keepends=True)
            path.write_bytes(b"".join(line for line in after.splitlines(keepends=True) if line not in own))


class Clients(ClientsTest):
    def test_each_lease_of_the_server_is_a_client_with_its_end(self):
        def same():
            before = self.demo.leases()
            rows = self.rows()
            for expiry, mac, ip, host, *_ in before:
                if ":" in mac:
                    row = rows[mac.upper()]
                    self.assertEqual((row["name"], row["ip"].split("\n")[0]), (host, ip))
                    self.assertEqual(row["ends"], time.strftime("%Y-%m-%d %H:%M:%S",
                                                                time.localtime(int(expiry))))
            return before == self.demo.leases()

        self.assertTrue(wait_until(same))

    def test_an_ipv6_lease_is_joined_with_that_of_the_same_client(self):
        def six():
            path = self.demo.state / "var/config/dnsmasq.leases"
            leases = [line.split() for line in path.read_text().splitlines()]
            return {lease[3]: lease[2] for lease in leases if len(lease) > 3 and ":" in lease[2]}

        self.assertTrue(wait_until(lambda: set(six()) == {"laptop", "phone"}, 30), six())

        def joined():
            rows = {row["name"]: row for row in self.rows().values()}
            return all(address in rows[host]["ip"].split("\n")[1:] and rows[host]["mac"]
                       for host, address in six().items())

        self.assertTrue(wait_until(joined), self.rows())

    def test_the_neighbours_of_the_kernel_are_clients_but_not_those_of_the_provider(self):
        self.demo.greet_gateway()
        self.assertTrue(wait_until(lambda: "203.0.113.1" in {ip for ip, _, _ in self.neighbours()}))

        def same():
            before = {(ip, mac) for ip, mac, interface in self.neighbours() if interface != "wan0"}
            rows = self.rows()
            return before and all(mac in rows and ip in rows[mac]["ip"].split("\n") for ip, mac in before)

        self.assertTrue(wait_until(same, 10), (self.neighbours(), self.rows()))
        self.assertNotIn("203.0.113.1", [row["ip"] for row in self.rows().values()])

    def test_clients_that_were_seen_are_online_and_others_offline(self):
        self.add_neighbour("192.168.1.77", "02:00:de:ad:be:ef")

        def states():
            return {row["name"]: row["state"] for row in self.rows().values()}

        expected = {"Unnamed": "Offline", **dict.fromkeys(CLIENT_NAMES, "Online")}
        self.assertTrue(wait_until(lambda: expected.items() <= states().items(), 20), states())
        # On a bridge, the router can be its own neighbour.
        self.demo.ip("neighbor", "replace", "fd00::99", "lladdr", "02:43:52:00:01:01", "dev",
                     "br-lan", "nud", "stale")
        self.addCleanup(self.demo.ip, "neighbor", "del", "fd00::99", "dev", "br-lan")
        self.assertNotIn("02:43:52:00:01:01", self.rows())
        # A neighbour that has asked for the router's address has been seen, too.
        self.demo.ip("neighbor", "replace", "192.168.1.77", "lladdr", "02:00:de:ad:be:ef", "dev",
                     "br-lan", "nud", "stale")
        self.assertEqual(self.rows()["02:00:DE:AD:BE:EF"]["state"], "Online")

    def test_an_added_neighbour_is_shown_and_a_removed_one_is_not(self):
        self.demo.ip("neighbor", "replace", "192.168.1.77", "lladdr", "02:00:de:ad:be:ef",
                     "dev", "br-lan", "nud", "permanent")
        row = self.rows()["02:00:DE:AD:BE:EF"]
        self.assertEqual((row["name"], row["ip"], row["ends"]), ("Unnamed", "192.168.1.77", ""))
        self.demo.ip("neighbor", "del", "192.168.1.77", "dev", "br-lan")
        self.assertNotIn("02:00:DE:AD:BE:EF", self.rows())

    def test_json_equals_the_page_and_is_not_sent_again_unchanged(self):
        def same():
            page = self.page()
            response = self.demo.get(CLIENTS + "?Ajax=1")
            again = self.demo.request("GET", CLIENTS + "?Ajax=1", headers={
                "If-None-Match": response.headers["ETag"]})
            rows = page.by_id("clients").rows()
            for row in rows:
                self.assertEqual(row.pop("data-mac"), row["mac"])
            return (again.status, again.body) == (304, b"") and (
                rows == json.loads(response.body)["clients"])

        self.assertTrue(wait_until(same), "page and JSON differ")

    def test_a_page_can_be_sorted_without_javascript(self):
        for number in (9, 10, 77, 250):
            self.add_neighbour(f"192.168.1.{number}", f"02:00:00:{255 - number:02x}:00:01")
        keys = {"ip": lambda row: [int(part) for part in row["ip"].split("\n")[0].split(".")],
                "mac": lambda row: row["mac"]}
        for column, key in keys.items():
            for sort, is_down in ((column, False), ("-" + column, True)):
                rows = self.page(f"?sort={sort}").by_id("clients").rows()
                self.assertGreaterEqual(len(rows), 4)
                self.assertEqual(rows, sorted(rows, key=key, reverse=is_down), sort)
        for sort in ("nothing", "-", "--ip", "ip-", "<b>", "x" * 3000, "$title"):
            response = self.demo.get(f"{CLIENTS}?sort={sort}")
            self.assertEqual(response.status, 200, sort[:20])
            self.assertTrue(response.text.endswith("</html>\n"))
            self.assertNotIn("<b>", response.text)

    def test_a_client_with_a_hostile_name_is_shown_with_the_name_in_the_lease(self):
        """The client is real. The server may reject its name; the name that it stores is shown."""
        ip = self.demo.ip
        mac = "02:00:00:00:77:01"
        ip("link", "add", "test0", "type", "veth", "peer", "name", "test1", "address", mac)
        self.addCleanup(ip, "link", "del", "test0")
        ip("link", "set", "test0", "master", "br-lan", "up")
        ip("link", "set", "test1", "up")
        for name in ("<script>window.hacked=1</script>", "'\"><b>$title", "good-name"):
            subprocess.run(self.demo.inside(
                "busybox", "udhcpc", "-f", "-q", "-n", "-t", "20", "-T", "1", "-i", "test1", "-s", "/bin/true",
                "-x", f"hostname:{name}"), check=True, capture_output=True, timeout=60)
            lease, = [each for each in self.demo.leases() if each[1] == mac]
            row = self.rows()[mac.upper()]
            self.assertEqual(row["name"], lease[3].replace("*", "Unnamed"))
            text = self.demo.get(CLIENTS).text
            self.assertNotIn("<script>", text)
            self.assertNotIn("<b>", text)
        self.assertEqual(row["name"], "good-name")


class Names(ClientsTest):
    """The names that the user gives to clients."""

    MAC = "02:00:00:00:77:02"

    def setUp(self):
        super().setUp()
        path = self.demo.file("clients.conf")
        self.addCleanup(path.write_bytes, path.read_bytes())

    def save(self, name, client=MAC, **fields):
        return self.demo.post(CLIENTS, {"client": client, "name": name, **fields})

    def test_a_client_has_the_name_that_the_user_gives_it_and_then_its_own_again(self):
        row, = [row for row in self.rows().values() if row["name"] == "phone"]
        for name in ("Ann's phone", 'a"b\\$c`d', "\u00e9\u65e5", "x" * 40, "<b>{{mac}}</b>"):
            response = self.save(name, row["mac"].lower())
            self.assertEqual((response.status, response.headers["Location"]),
                             (303, CLIENTS + "?saved=1"))
            self.assertEqual(self.rows()[row["mac"]]["name"], name)
            details = self.page("?client=" + row["mac"])
            self.assertEqual(details.by_id("details-heading").text, name)
            self.assertEqual(details.by_id("name").attributes["value"], name)
        # The table is sorted without closing the details.
        fields = self.demo.page(CLIENTS + "?client=" + row["mac"]).fields
        self.assertEqual(fields.count(("client", row["mac"])), 2, fields)
        self.assertEqual(self.save("", row["mac"]).status, 303)
        self.assertEqual(self.rows()[row["mac"]]["name"], "phone")
        self.assertNotIn(row["mac"].encode(), self.demo.file("clients.conf").read_bytes())

    def test_a_client_with_a_name_is_shown_even_if_it_is_not_there(self):
        self.assertNotIn(self.MAC, self.rows())
        self.assertEqual(self.save("Guest").status, 303)
        self.assertEqual(self.rows()[self.MAC], {"name": "Guest", "state": "Offline", "ip": "",
                                                 "mac": self.MAC, "ends": ""})

    def test_the_first_name_is_saved_without_a_file(self):
        for path in self.demo.file("").glob("clients.conf*"):
            path.unlink()
        self.assertEqual(self.demo.get(CLIENTS).status, 200)
        self.assertFalse(self.demo.file("clients.conf").exists())
        self.assertEqual(self.save("Guest").status, 303)
        self.assertEqual(self.rows()[self.MAC]["name"], "Guest")

    def test_invalid_names_and_addresses_are_refused_and_nothing_is_saved(self):
        before = self.demo.file("clients.conf").read_bytes()
        for name in ("x" * 41, "\u00e9" * 21, "a\nb", "a\x1bb"):
            response = self.save(name)
            self.assertEqual(response.status, 422, name)
        phone, = [row for row in self.rows().values() if row["name"] == "phone"]
        page = self.save("x" * 41, phone["mac"]).text
        self.assertEqual(Page(page).shown["name"], "x" * 41)
        self.assertIn("at most 40", Page(page).errors["name"])
        for client in ("", "02:00", "02:00:00:00:77:02x", "../../etc/passwd", "02-00-00-00-77-02"):
            self.assertEqual(self.save("x", client).status, 400, client)
        self.assertEqual(self.demo.post(CLIENTS, {"client": self.MAC}).status, 400)
        self.assertEqual(self.save("x", token="0" * 64).status, 403)
        self.assertEqual(self.demo.post(CLIENTS, {"client": self.MAC, "name": "x"}, STRANGER).status, 303)
        self.assertEqual(self.demo.file("clients.conf").read_bytes(), before)


class HostileNames(ClientsTest):
    """Leases with names that the DHCP server itself would not write."""

    def lines(self, names):
        later = int(time.time()) + 7200
        return [f"{later} 02:00:00:00:66:{i:02x} 192.168.1.{30 + i} {name} *"
                for i, name in enumerate(names)]

    def read(self):
        return self.demo.get(CLIENTS).text, self.demo.document(CLIENTS)

    def test_page_and_json_show_hostile_names_unchanged(self):
        text, document = self.with_leases(self.lines(HOSTILE), self.read)
        page = Element.of_page(text)
        rows = {row["data-mac"]: row for row in page.by_id("clients").rows()}
        values = {row["mac"]: row for row in document["clients"]}
        for i, name in enumerate(HOSTILE):
            mac = f"02:00:00:00:66:{i:02X}"
            self.assertEqual(values[mac]["name"], name)
            self.assertEqual(rows[mac]["name"], name)
            self.assertEqual(rows[mac]["ip"], f"192.168.1.{30 + i}")
        self.assertTrue(text.endswith("</html>\n"))
        self.assertEqual([each.attributes.get("src") for each in page.find("script")], [self.demo.static_file("text/javascript")])
        self.assertEqual([each for each in page if any(name.startswith("on")
                                                       for name in each.attributes)], [])

    def test_malformed_leases_leave_the_page_intact(self):
        later = int(time.time()) + 7200
        lines = []
        for word in HOSTILE + ["x" * 900, "1.2.3.4.5", "999.1.1.1", "\x01\x1b", "0"]:
            lines += [f"{later} {word} 192.168.1.66 mac *", f"{later} 02:00:00:00:66:66 {word} ip *",
                      f"{word} 02:00:00:00:66:67 192.168.1.67 time *", f"{later} {word}", word,
                      f"{later} {word} fd00::{'1:' * 20}1 six *"]
        lines += ["", " ", "    ", f"{later}", "-1 02:00:00:00:66:68 192.168.1.68 ended *",
                  "0 02:00:00:00:66:69 192.168.1.69 never *",
                  "9" * 200 + " 02:00:00:00:66:70 1.1.1.1 far *"]
        text, document = self.with_leases(lines, self.read)
        self.assertTrue(text.endswith("</html>\n"))
        self.assertLessEqual(CLIENT_NAMES, {row["name"] for row in document["clients"]})
        page = Element.of_page(text)
        self.assertEqual([each.attributes.get("src") for each in page.find("script")], [self.demo.static_file("text/javascript")])
        self.assertEqual(len(page.find(id="clients")), 1)
        self.assertNotIn("<b>", text)

    def test_infinite_unnamed_and_expired_leases(self):
        later = int(time.time()) + 7200
        lines = ["0 02:00:00:00:66:01 192.168.1.61 kept 01:02:00:00:00:66:01",
                 f"{later} 02:00:00:00:66:02 192.168.1.62 * *",
                 "1700000000 02:00:00:00:66:03 192.168.1.63 gone *"]
        _, document = self.with_leases(lines, self.read)
        rows = {row["ip"]: row for row in document["clients"]}
        kept, unnamed, gone = (rows[f"192.168.1.6{i}"] for i in (1, 2, 3))
        self.assertEqual((kept["name"], kept["ends"]), ("kept", "Never"))
        self.assertEqual((unnamed["name"], unnamed["mac"]), ("Unnamed", "02:00:00:00:66:02"))
        self.assertEqual(gone["ends"], "Ended")

    def test_an_ipv6_lease_finds_its_client_by_neighbour_identifier_or_name(self):
        later = int(time.time()) + 7200
        for address in ("fd00::4", "fd00:1111:2222:3333:4444:5555:6666:7777"):
            self.add_neighbour(address, "02:00:00:00:66:04")
            self.demo.ip("neighbor", "replace", address, "lladdr", "02:00:00:00:66:04", "dev",
                         "br-lan", "nud", "reachable")
        lines = [f"{later} 02:00:00:00:66:01 192.168.1.61 one *",
                 f"{later} 02:00:00:00:66:02 192.168.1.62 two *",
                 "duid 00:01:00:01:2c:9f:1e:3b:02:00:00:00:66:00",
                 f"{later} {0x6601} fd00::1 * 00:01",
                 f"{later} 99 fd00::2 two 00:01",
                 f"{later} 98 fd00::3 other 00:01",
                 f"{later} 97 fd00::4 * 00:01",
                 f"{later} 96 fd00:1111:2222:3333:4444:5555:6666:7777 * 00:01",
                 f"{later} 95 fd00:1111:2222:3333:4444:6666:5555:8888 long 00:01"]
        _, document = self.with_leases(lines, self.read)
        rows = {row["mac"]: row for row in document["clients"]}
        self.assertEqual(rows["02:00:00:00:66:01"]["ip"], "192.168.1.61\nfd00::1")
        self.assertEqual(rows["02:00:00:00:66:02"]["ip"], "192.168.1.62\nfd00::2")
        self.assertEqual(set(rows["02:00:00:00:66:04"]["ip"].split("\n")),
                         {"fd00::4", "fd00:1111:2222:3333:4444:5555:6666:7777"})
        unknown = {row["name"]: row["ip"] for row in document["clients"] if not row["mac"]}
        self.assertEqual(unknown, {"other": "fd00::3", "long": "fd00:1111:2222:3333:4444:6666:5..."})

    def test_malformed_utf_8_is_replaced(self):
        host = b"a\xff\xfe\x80\xed\xa0\x80b\x01\x1bc".decode("utf-8", "surrogateescape")
        text, document = self.with_leases(self.lines([host]), self.read)
        row, = [row for row in document["clients"] if row["mac"] == "02:00:00:00:66:00"]
        self.assertEqual(row["name"], "a" + "\ufffd" * 6 + "b\x01\x1bc")
        self.assertTrue(text.endswith("</html>\n"))

    def test_thousands_of_leases_are_shown(self):
        later = int(time.time()) + 7200
        lines = [f"{later} 02:00:00:01:{i // 256:02x}:{i % 256:02x} 10.1.{i // 256}.{i % 256} host-{i} *"
                 for i in range(3000)]
        text, document = self.with_leases(lines, self.read)
        self.assertTrue(text.endswith("</html>\n"))
        shown = {row["name"] for row in document["clients"]}
        self.assertLessEqual({f"host-{i}" for i in range(3000)}, shown)


class InBrowser(ClientsTest):
    def test_a_click_on_a_heading_sorts_and_another_one_reverses_the_order(self):
        for number in (9, 10, 77, 250):
            self.add_neighbour(f"192.168.1.{number}", f"02:00:00:{255 - number:02x}:00:01")
        seen = self.walk("sort").result()
        keys = {"ip": lambda text: [int(part) for part in text.split("\n")[0].split(".")],
                "name": lambda text: (text == "Unnamed", text.lower()),
                "state": lambda text: text == "Offline"}
        for column, orders in seen.items():
            for number, shown in enumerate(orders):
                values = [keys.get(column, str)(text) for text in shown]
                self.assertEqual(values, sorted(values, reverse=number == 1), column)
        self.assertIn("192.168.1.9", seen["ip"][0])

    def test_a_new_client_is_shown_in_the_chosen_order_without_a_reload(self):
        walk = self.walk("clients")
        self.assertEqual(walk.line(), "sorted")
        self.add_neighbour("192.168.1.9", "02:00:00:00:09:09")
        self.add_neighbour("192.168.1.90", "02:00:00:00:90:90")
        self.addCleanup(self.demo.file("clients.conf").write_bytes,
                        self.demo.file("clients.conf").read_bytes())
        seen = walk.result()
        values = [[int(part) for part in each.split("\n")[0].split(".")] for each in seen["ips"]]
        self.assertEqual(values, sorted(values, reverse=True))
        self.assertEqual(seen["loads"], 1)
        self.assertEqual(seen["named"], "Kitchen radio")
        self.assertEqual(seen["empty"], ['"No entries."', True])

    def test_hostile_names_are_shown_as_text_and_a_long_one_leaves_all_columns_in_view(self):
        lines = HostileNames.lines(self, HOSTILE)
        seen = self.with_leases(lines, lambda: self.walk("hostile", len(lines)).result())
        self.assertLessEqual(set(HOSTILE), set(seen["first"]))
        self.assertLessEqual(set(HOSTILE), set(seen["refreshed"]))
        self.assertFalse(seen["hacked"])
        self.assertEqual(seen["hidden"], [])
