# SPDX-License-Identifier: MIT
"""The clients page: the DHCP server's leases and the kernel's neighbours."""

import subprocess
import time

from demo_test import SharedDemoTest
from device import CLIENT_NAMES, CLIENTS, Element, seconds_of, wait_until

COLUMNS = ("host", "ip", "mac", "expires")

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

    def rows(self, table):
        return self.demo.document(CLIENTS)[table]

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

        The server overwrites the file when a client renews its lease; read() is then called again.
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


class Clients(ClientsTest):
    def test_leases_equal_those_of_the_server(self):
        while True:
            earliest = int(time.time())
            before = self.demo.leases()
            rows = [row for row in self.rows("leases") if "." in row["ip"]]
            if self.demo.leases() == before:
                break
        latest = int(time.time())
        self.assertEqual(sorted((row["host"], row["ip"], row["mac"].upper()) for row in rows),
                         sorted((host.replace("*", ""), ip, mac.upper())
                                for _, mac, ip, host, *_ in before))
        ends = {mac.upper(): int(expiry) for expiry, mac, *_ in before}
        for row in rows:
            left = seconds_of(row["expires"])
            self.assertLessEqual(ends[row["mac"].upper()] - latest - 1, left)
            self.assertLessEqual(left, ends[row["mac"].upper()] - earliest + 1)

    def test_neighbours_equal_those_of_the_kernel(self):
        self.demo.greet_gateway()
        self.assertTrue(wait_until(lambda: "203.0.113.1" in {ip for ip, _, _ in self.neighbours()}))

        def same():
            before = self.neighbours()
            rows = self.rows("neighbours")
            return before == self.neighbours() and before == {
                (row["ip"], row["mac"].upper(), row["interface"]) for row in rows}

        self.assertTrue(wait_until(same, 10), (self.neighbours(), self.rows("neighbours")))
        self.assertIn("203.0.113.1", {row["ip"] for row in self.rows("neighbours")})

    def test_each_client_is_a_neighbour_with_the_address_of_its_lease(self):
        def all_listed():
            leases = {row["host"]: (row["ip"], row["mac"].upper()) for row in self.rows("leases")}
            neighbours = {row["host"]: (row["ip"], row["mac"].upper())
                          for row in self.rows("neighbours")}
            return all(neighbours.get(name) == leases[name] for name in CLIENT_NAMES)

        self.assertTrue(wait_until(all_listed, 30), self.rows("neighbours"))

    def test_an_added_neighbour_is_shown_and_a_removed_one_is_not(self):
        self.demo.ip("neighbor", "replace", "192.168.1.77", "lladdr", "02:00:de:ad:be:ef",
                     "dev", "br-lan", "nud", "permanent")
        row, = [row for row in self.rows("neighbours") if row["ip"] == "192.168.1.77"]
        self.assertEqual((row["host"], row["mac"].upper(), row["interface"]),
                         ("", "02:00:DE:AD:BE:EF", "br-lan"))
        self.demo.ip("neighbor", "del", "192.168.1.77", "dev", "br-lan")
        self.assertNotIn("192.168.1.77", [row["ip"] for row in self.rows("neighbours")])

    def test_json_equals_the_page(self):
        def same():
            page = self.page()
            document = self.demo.document(CLIENTS)
            for table in ("leases", "neighbours"):
                rows = page.by_id(table).rows()
                if len(rows) != len(document[table]):
                    return False
                for row, values in zip(rows, document[table]):
                    self.assertEqual(row["data-mac"], row["data-mac"].upper())
                    self.assertRegex(row["data-mac"], r"^([0-9A-F]{2}:){5}[0-9A-F]{2}$" if "." in row["ip"] else "^$")
                    if any(row[name] != values[name] for name in COLUMNS):
                        return False
            return True

        # A second may pass between the two requests.
        self.assertTrue(wait_until(same), "page and JSON differ")

    def test_a_page_can_be_sorted_without_javascript(self):
        for number in (9, 10, 77, 250):
            self.add_neighbour(f"192.168.1.{number}", f"02:00:00:{255 - number:02x}:00:01")
        keys = {"ip": lambda row: [int(part) for part in row["ip"].split(".")],
                "mac": lambda row: row["mac"]}
        for column, key in keys.items():
            for sort, is_down in ((column, False), ("-" + column, True)):
                rows = self.page(f"?sort={sort}").by_id("neighbours").rows()
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
            row, = [row for row in self.rows("leases") if row["mac"] == mac.upper()]
            self.assertEqual(row["host"], lease[3].replace("*", ""))
            text = self.demo.get(CLIENTS).text
            self.assertNotIn("<script>", text)
            self.assertNotIn("<b>", text)
        self.assertEqual(row["host"], "good-name")


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
        rows = {row["data-mac"]: row for row in page.by_id("leases").rows()}
        values = {row["mac"]: row for row in document["leases"]}
        for i, name in enumerate(HOSTILE):
            mac = f"02:00:00:00:66:{i:02X}"
            self.assertEqual(values[mac]["host"], name)
            self.assertEqual(rows[mac]["host"], name)
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
                      f"{word} 02:00:00:00:66:67 192.168.1.67 time *", f"{later} {word}", word]
        lines += ["", " ", "    ", f"{later}", "-1 02:00:00:00:66:68 192.168.1.68 ended *",
                  "0 02:00:00:00:66:69 192.168.1.69 never *",
                  "9" * 200 + " 02:00:00:00:66:70 1.1.1.1 far *"]
        text, document = self.with_leases(lines, self.read)
        self.assertTrue(text.endswith("</html>\n"))
        self.assertLessEqual(CLIENT_NAMES, {row["host"] for row in document["leases"]})
        page = Element.of_page(text)
        self.assertEqual([each.attributes.get("src") for each in page.find("script")], [self.demo.static_file("text/javascript")])
        self.assertEqual(len(page.find(id="leases")), 1)
        self.assertNotIn("<b>", text)

    def test_infinite_unnamed_expired_and_ipv6_leases(self):
        later = int(time.time()) + 7200
        lines = ["0 02:00:00:00:66:01 192.168.1.61 kept 01:02:00:00:00:66:01",
                 f"{later} 02:00:00:00:66:02 192.168.1.62 * *",
                 "1700000000 02:00:00:00:66:03 192.168.1.63 gone *",
                 "duid 00:01:00:01:2c:9f:1e:3b:02:00:00:00:66:00",
                 f"{later} 14535372 fd00::10 six 00:01:00:01:2c:9f:1e:3c:02:00:00:00:66:01"]
        _, document = self.with_leases(lines, self.read)
        rows = {row["ip"]: row for row in document["leases"]}
        self.assertNotIn("", rows)
        kept, unnamed, gone, six = (rows[ip] for ip in (
            "192.168.1.61", "192.168.1.62", "192.168.1.63", "fd00::10"))
        self.assertEqual((kept["host"], kept["expires"]), ("kept", "never"))
        self.assertEqual((unnamed["host"], unnamed["mac"]), ("", "02:00:00:00:66:02"))
        self.assertEqual(gone["expires"], "expired")
        self.assertEqual((six["host"], six["mac"]), ("six", ""))

    def test_malformed_utf_8_is_replaced(self):
        host = b"a\xff\xfe\x80\xed\xa0\x80b\x01\x1bc".decode("utf-8", "surrogateescape")
        text, document = self.with_leases(self.lines([host]), self.read)
        row, = [row for row in document["leases"] if row["mac"] == "02:00:00:00:66:00"]
        self.assertEqual(row["host"], "a" + "\ufffd" * 6 + "b\x01\x1bc")
        self.assertTrue(text.endswith("</html>\n"))

    def test_thousands_of_leases_are_shown(self):
        later = int(time.time()) + 7200
        lines = [f"{later} 02:00:00:01:{i // 256:02x}:{i % 256:02x} 10.1.{i // 256}.{i % 256} host-{i} *"
                 for i in range(3000)]
        text, document = self.with_leases(lines, self.read)
        self.assertTrue(text.endswith("</html>\n"))
        shown = {row["host"] for row in document["leases"]}
        self.assertLessEqual({f"host-{i}" for i in range(3000)}, shown)


class InBrowser(ClientsTest):
    def test_a_click_on_a_heading_sorts_and_another_one_reverses_the_order(self):
        for number in (9, 10, 77, 250):
            self.add_neighbour(f"192.168.1.{number}", f"02:00:00:{255 - number:02x}:00:01")
        seen = self.walk("sort").result()
        for column, orders in seen.items():
            for table in ("leases", "neighbours"):
                first, second = orders[0][table], orders[1][table]
                key = {"ip": lambda text: [int(part) for part in text.split(".")] if "." in text else [],
                       "host": lambda text: (not text, text.lower()),
                       "expires": lambda text: seconds_of(text) if text else -1,
                       }.get(column, str)
                values = [key(text) for text in first]
                self.assertEqual(values, sorted(values), (column, table))
                values = [key(text) for text in second]
                self.assertEqual(values, sorted(values, reverse=True), (column, table))
        self.assertIn("192.168.1.9", seen["ip"][0]["neighbours"])

    def test_a_new_client_is_shown_in_the_chosen_order_without_a_reload(self):
        walk = self.walk("clients")
        self.assertEqual(walk.line(), "sorted")
        self.add_neighbour("192.168.1.9", "02:00:00:00:09:09")
        self.add_neighbour("192.168.1.90", "02:00:00:00:90:90")
        seen = walk.result()
        values = [[int(part) for part in each.split(".")] for each in seen["ips"]]
        self.assertEqual(values, sorted(values, reverse=True))
        self.assertEqual(seen["loads"], 1)

    def test_hostile_names_are_shown_as_text(self):
        lines = HostileNames.lines(self, HOSTILE)

        seen = self.with_leases(lines, lambda: self.walk("hostile", len(lines)).result())
        self.assertLessEqual(set(HOSTILE), set(seen["first"]))
        self.assertLessEqual(set(HOSTILE), set(seen["refreshed"]))
        self.assertFalse(seen["hacked"])
