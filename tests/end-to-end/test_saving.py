# SPDX-License-Identifier: MIT
"""Values of a form are stored in the files, and are shown unchanged."""

import fcntl
import stat
import time

from demo_test import OwnDemoTest
from device import DEVICE, NETWORK, Page, escaped, wait_until

# Name: page, file, separator, a value that differs from the factory's.
SETTINGS = {
    "LAN_ADDRESS": (NETWORK, "lan.conf", "=", "192.168.1.254"),
    "LAN_NETMASK": (NETWORK, "lan.conf", "=", "255.255.0.0"),
    "DHCP_ENABLED": (NETWORK, "lan.conf", "=", "0"),
    "DHCP_FIRST": (NETWORK, "lan.conf", "=", "192.168.1.50"),
    "DHCP_LAST": (NETWORK, "lan.conf", "=", "192.168.1.240"),
    "DHCP_LEASE": (NETWORK, "lan.conf", "=", "168"),
    "DOMAIN": (NETWORK, "global.conf", " ", "home.arpa"),
    "WLAN_ENABLED": (NETWORK, "wireless.conf", "=", "0"),
    "WLAN_SSID": (NETWORK, "wireless.conf", "=", "Upstairs"),
    "WLAN_HIDDEN": (NETWORK, "wireless.conf", "=", "1"),
    "WLAN_PASSPHRASE": (NETWORK, "wireless.conf", "=", "a longer one"),
    "WLAN_CHANNEL": (NETWORK, "wireless.conf", "=", "13"),
    "COUNTRY": (NETWORK, "global.conf", " ", "ZA"),
    "HOST_NAME": (DEVICE, "global.conf", " ", "attic-2"),
    "DESCRIPTION": (DEVICE, "global.conf", " ", "Under the roof"),
    "CONTACT": (DEVICE, "global.conf", " ", "Ann"),
    "TIME_ZONE": (DEVICE, "global.conf", " ", "CET-1CEST,M3.5.0,M10.5.0/3"),
}

SECRETS = ("WLAN_PASSPHRASE",)  # on no page and in no document

NASTY = [
    '"', '""', '"a', 'a"', '"a"', '""a""', "\\", "\\\\", "a\\", "\\a", '\\"', '"\\', '\\\\"',
    "{{", "}}", "{{token}}", "{{&message}}", "{{#leases}}", "{{>head}}", "{{!",
    "$", "$$", "$message", "$WLAN_SSID$DESCRIPTION", "a$title", "${HOME}", "$(reboot)", "`reboot`",
    "a$CONTACT", "a$error_CONTACT", "a$WLAN_PASSPHRASE", "a$options_country", "a$error_WLAN_SSID",
    "'", "''", "a'b", "&", "&amp;", "&#36;", "&lt;", "<", ">", "<script>alert(1)</script>", "-->",
    "%", "%%", "%41", "%s%n", "+", "a+b", "a b", " a", "a ", "  ", "=", "a=b", "==", "#", "# a", ";",
    "&x=1", "a&b=c", "|", "*", "?", "~", "!", "!!", "setenv", "setenv\u00a0a", "\\n", "\\u0041", "{}", "[]", "null",
    "\u00e9", "\u65e5\u672c\u8a9e", "\U0001f600", "\u00a0", "\u2028", "\u0440\u0443\u0442\u0435\u0440",
]

INVALID = {
    "LAN_ADDRESS": ["", "1", "1.2.3", "1.2.3.4.5", "256.1.1.1", "192.168.1.0", "192.168.1.255",
                    "192.168.1.150", "127.0.0.1", "224.0.0.1", "0.0.0.0", "255.255.255.255",
                    "192.168.001.1", " 192.168.1.1", "192.168.1.1 ", "a.b.c.d", "10.0.0.1", "::1",
                    '192.168.1.1"', "192.168.1.1\nDHCP_ENABLED=0"],
    "LAN_NETMASK": ["", "255.255.255.1", "255.0.255.0", "0.0.0.0", "255.255.255.255", "24",
                    "255.255.255", "255.255.255.254", "254.0.0.0", "-1.0.0.0", "255.255.255.240"],
    "DHCP_ENABLED": ["", "2", "on", "01", "1 "],
    "DHCP_FIRST": ["", "192.168.1.200", "192.168.2.100", "192.168.1.0", "192.168.1.1"],
    "DHCP_LAST": ["", "192.168.1.99", "192.168.2.199", "192.168.1.255"],
    "DHCP_LEASE": ["", "0", "169", "-1", "1.5", "012", " 12", "12h", "99999999999999999999"],
    "DOMAIN": ["UPPER", "a b", "a_b", "x" * 64, "\u00e9"],
    "WLAN_ENABLED": ["", "yes"],
    "WLAN_SSID": ["", "x" * 33, "\u65e5" * 11, "a\nb", "a\tb", "a\x7fb", "setenv a b"],
    "WLAN_HIDDEN": ["", "2"],
    "WLAN_PASSPHRASE": ["1234567", "12345678", "sunshine", "corvel 2024", "`" * 63, "x" * 64, "x" * 300, "pass\u00e9phrase", "12345678\n", "my setenv word"],
    "WLAN_CHANNEL": ["", "14", "-1", "-0", "06", "1,2", "auto"],
    "COUNTRY": ["", "XX", "ch", "CHE"],
    "HOST_NAME": ["", "a b", "-a", "a-", "a.b", "x" * 64, "\u00e9"],
    "DESCRIPTION": ["x" * 81, "x" * 255, "x" * 256, "x" * 5000, "\u65e5" * 27, "%" * 86, "a\nb", "a\rb",
                    "\x01"],
    "CONTACT": ["x" * 81, "a\nHOST_NAME evil", "setenv HOST_NAME evil"],
    "TIME_ZONE": ["UTC", "UTC0 ", "CET-1CEST", ":/etc/shadow", "../../etc/shadow", "UTC0\nX"],
}


class Saving(OwnDemoTest):
    def setUp(self):
        self.restore_settings()

    def save(self, path, fields):
        response = self.demo.post(path, fields)
        self.assertEqual(response.status, 303, (fields, response.text))
        self.assertEqual(response.headers["Location"], path + "?saved=1")

    def assert_stored(self, name, value):
        """Checks that the value is in the file, on the page and in the JSON document."""
        path, file, separator, _ = SETTINGS[name]
        self.assertEqual(self.demo.setting(name, file, separator), f'"{escaped(value)}"')
        if name not in SECRETS:
            self.assertEqual(self.demo.page(path).shown[name], value)
            self.assertEqual(self.demo.json(path)[name], value)

    def wait_for_the_client(self):
        """Waits until the configuration client has applied all saved settings."""
        locks = self.demo.state / "var" / "lock"
        self.assertTrue(wait_until(lambda: not (locks / "apply.wanted").exists()))
        time.sleep(0.3)
        with open(locks / "configclient", "a") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)  # it is held while settings are applied

    def test_each_setting_can_be_saved_separately(self):
        for name, (path, file, separator, value) in SETTINGS.items():
            with self.subTest(name):
                self.restore_settings()
                old = self.demo.setting(name, file, separator)
                self.save(path, {name: value})
                self.assert_stored(name, value)
                changed = self.factory[file].replace(
                    f"{name}{separator}{old}\n".encode(), f'{name}{separator}"{value}"\n'.encode())
                self.assertNotEqual(changed, self.factory[file])
                self.assertEqual(self.demo.files(), {**self.factory, file: changed})

    def test_all_settings_of_a_page_can_be_saved_together(self):
        for page in (NETWORK, DEVICE):
            fields = {name: value for name, (path, _, _, value) in SETTINGS.items() if path == page}
            if page == NETWORK:  # values that are valid together
                fields |= {"LAN_ADDRESS": "192.168.1.254", "LAN_NETMASK": "255.255.255.0"}
            self.save(page, fields)
            for name, value in fields.items():
                self.assert_stored(name, value)

    def test_an_unchanged_form_changes_nothing(self):
        for path in (NETWORK, DEVICE):
            self.save(path, self.demo.page(path).fields)
        self.assertEqual(self.demo.files(), self.factory)

    def test_an_unchecked_switch_is_off_and_a_checked_one_is_on(self):
        for name in ("DHCP_ENABLED", "WLAN_ENABLED", "WLAN_HIDDEN"):
            for fields, value in (([(name, "0")], "0"), ([(name, "1"), (name, "0")], "1")):
                self.save(NETWORK, fields)
                self.assert_stored(name, value)

    def test_values_with_special_characters_are_unchanged(self):
        for value in NASTY:
            with self.subTest(value):
                self.save(DEVICE, {"DESCRIPTION": value, "CONTACT": value[::-1]})
                self.assert_stored("DESCRIPTION", value)
                self.assert_stored("CONTACT", value[::-1])
                if len(value.encode()) <= 32:
                    self.save(NETWORK, {"WLAN_SSID": value})
                    self.assert_stored("WLAN_SSID", value)

    def test_every_printable_character_at_either_end_is_unchanged(self):
        printable = [chr(code) for code in range(0x20, 0x7F)]
        for character in printable:
            value = f"{character}a longer one{character}"
            self.save(NETWORK, {"WLAN_SSID": value, "WLAN_PASSPHRASE": value})
            self.assert_stored("WLAN_SSID", value)
            self.assert_stored("WLAN_PASSPHRASE", value)
        for start in range(0, len(printable), 60):
            value = "".join(printable[start:start + 60])
            self.save(DEVICE, {"DESCRIPTION": value})
            self.assert_stored("DESCRIPTION", value)

    def test_the_longest_values_are_unchanged(self):
        for value in ("x" * 80, '"' * 80, "\\" * 80, "$" * 80, "&" * 80, "\U0001f600" * 20, ""):
            self.save(DEVICE, {"DESCRIPTION": value})
            self.assert_stored("DESCRIPTION", value)
        self.save(NETWORK, {"WLAN_SSID": "`" * 32, "WLAN_PASSPHRASE": "`\\\"$" * 15 + "`\\\""})
        self.assert_stored("WLAN_PASSPHRASE", "`\\\"$" * 15 + "`\\\"")
        self.assert_stored("WLAN_SSID", "`" * 32)

    def test_characters_may_be_percent_encoded_or_plain(self):
        for body in ("WLAN_SSID=a%2Bb+c", "WLAN_SSID=%61%2b%62%20%63", "WLAN_SSID=a%2bb c"):
            self.save(NETWORK, body)
            self.assert_stored("WLAN_SSID", "a+b c")

    def test_invalid_values_are_refused_and_nothing_is_changed(self):
        self.wait_for_the_client()
        runs = self.demo.applied()["RUNS"]
        for name, values in INVALID.items():
            path = SETTINGS[name][0]
            for value in values:
                with self.subTest(f"{name}={value[:40]!r}"):
                    response = self.demo.post(path, {name: value})
                    self.assertEqual(response.status, 422)
                    self.assertIn("have not been saved", response.text)
                    self.assertEqual(self.demo.files(), self.factory)
        self.assertEqual(self.demo.applied()["RUNS"], runs)

    def test_an_invalid_value_is_shown_again_with_its_message(self):
        response = self.demo.post(NETWORK, {"DHCP_LEASE": "<12 h>", "WLAN_SSID": "Not lost"})
        page = Page(response.text)
        self.assertEqual(page.shown["DHCP_LEASE"], "<12 h>")
        self.assertEqual(page.shown["WLAN_SSID"], "Not lost")
        self.assertEqual(page.errors, {"DHCP_LEASE": "Use 1 to 168 hours."})
        self.assertTrue(page.message)

    def test_contradictory_addresses_are_refused(self):
        for fields, name in (
                ({"LAN_ADDRESS": "192.168.1.120"}, "DHCP_FIRST"),
                ({"LAN_ADDRESS": "10.0.0.1"}, "DHCP_FIRST"),
                ({"LAN_NETMASK": "255.255.255.128"}, "DHCP_LAST"),
                ({"DHCP_FIRST": "192.168.1.150", "DHCP_LAST": "192.168.1.149"}, "DHCP_LAST"),
                ({"LAN_ADDRESS": "192.168.1.0"}, "LAN_ADDRESS"),
                ({"LAN_ADDRESS": "203.0.113.129", "LAN_NETMASK": "255.255.255.128",
                  "DHCP_FIRST": "203.0.113.130", "DHCP_LAST": "203.0.113.200"}, "LAN_ADDRESS"),
                ({"LAN_ADDRESS": "203.0.1.1", "LAN_NETMASK": "255.255.0.0",
                  "DHCP_FIRST": "203.0.1.2", "DHCP_LAST": "203.0.1.9"}, "LAN_ADDRESS")):
            response = self.demo.post(NETWORK, fields)
            self.assertEqual(response.status, 422, fields)
            self.assertIn(name, Page(response.text).errors, fields)
        self.assertEqual(self.demo.files(), self.factory)
        self.save(NETWORK, {"LAN_ADDRESS": "203.0.112.1", "LAN_NETMASK": "255.255.255.0",
                            "DHCP_FIRST": "203.0.112.2", "DHCP_LAST": "203.0.112.9"})
        self.save(NETWORK, {"LAN_ADDRESS": "10.0.0.1", "LAN_NETMASK": "255.0.0.0",
                            "DHCP_FIRST": "10.0.0.2", "DHCP_LAST": "10.255.255.254"})

    def test_settings_that_are_switched_off_are_not_checked(self):
        off = {"DHCP_ENABLED": "0", "WLAN_ENABLED": "0"}
        self.save(NETWORK, {**off, "LAN_ADDRESS": "10.9.0.1", "DHCP_FIRST": "192.168.1.100",
                            "DHCP_LEASE": "no hours", "WLAN_PASSPHRASE": "short"})
        saved = self.demo.json(NETWORK)
        self.assertEqual((saved["LAN_ADDRESS"], saved["DHCP_LEASE"]), ("10.9.0.1", "12"))
        self.assertEqual(self.demo.setting("WLAN_PASSPHRASE", "wireless.conf"), '"change me soon"')
        response = self.demo.post(NETWORK, {"DHCP_ENABLED": "1"})
        self.assertEqual(response.status, 422, "the range is in another network")
        self.assertIn("DHCP_FIRST", Page(response.text).errors)

    def test_the_configuration_client_applies_saved_settings(self):
        self.wait_for_the_client()
        runs = int(self.demo.applied()["RUNS"])
        ssid = "\"q\" `b` $HOME \\ 'x' \u00e9"
        self.save(NETWORK, {"WLAN_SSID": ssid, "WLAN_CHANNEL": "6", "DHCP_ENABLED": "0"})
        self.assertTrue(wait_until(lambda: int(self.demo.applied()["RUNS"]) == runs + 1))
        self.assertEqual(self.demo.applied()["WLAN"], f"6 {ssid}")
        self.assertEqual(self.demo.applied()["DHCP"], "off")
        self.save(DEVICE, {"CONTACT": "x"})
        self.assertTrue(wait_until(lambda: int(self.demo.applied()["RUNS"]) == runs + 2))

    def test_a_response_does_not_wait_for_the_configuration_client(self):
        self.wait_for_the_client()
        runs = int(self.demo.applied()["RUNS"])
        with open(self.demo.state / "var" / "lock" / "configclient", "a") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            self.save(NETWORK, {"WLAN_SSID": "At once"})
            self.assert_stored("WLAN_SSID", "At once")
            self.assertEqual(int(self.demo.applied()["RUNS"]), runs)
        self.assertTrue(wait_until(lambda: int(self.demo.applied()["RUNS"]) == runs + 1))

    def test_other_lines_and_the_mode_are_kept(self):
        for file, line in (("wireless.conf", "OTHER"), ("global.conf", "OTHER 1")):
            path = self.demo.file(file)
            path.write_bytes(b"# first\n\n" + self.factory[file] + line.encode() + b"\n  # last\n")
            path.chmod(0o640)
        before = self.demo.files()
        self.save(NETWORK, {"WLAN_SSID": "Corvel Away", "COUNTRY": "AT"})
        after = self.demo.files()
        self.assertEqual(after["wireless.conf"],
                         before["wireless.conf"].replace(b"Corvel Home", b"Corvel Away"))
        self.assertEqual(after["global.conf"],
                         before["global.conf"].replace(b'COUNTRY "CH"', b'COUNTRY "AT"'))
        for file in ("wireless.conf", "global.conf"):
            self.assertEqual(stat.S_IMODE(self.demo.file(file).stat().st_mode), 0o640)

    def test_a_global_setting_without_a_line_is_appended(self):
        self.demo.file("global.conf").write_text('HOST_NAME "router"\n')
        self.save(DEVICE, {"DESCRIPTION": '"quoted"'})
        self.assertEqual(self.demo.file("global.conf").read_text(),
                         'HOST_NAME "router"\nDESCRIPTION "\\"quoted\\""\n')
        self.assert_stored("DESCRIPTION", '"quoted"')

    def form(self, path, changes):
        """Returns the fields that a browser sends for a form as it is now, with these changes."""
        return dict(self.demo.page(path).fields) | changes

    def test_a_save_in_a_second_tab_is_noticed(self):
        """Neither the saved settings nor the entries of the second form are lost."""
        first = self.form(NETWORK, {"WLAN_SSID": "First", "WLAN_CHANNEL": "6"})
        second = self.form(NETWORK, {"WLAN_SSID": "<Second>", "DOMAIN": "second.lan"})
        self.save(NETWORK, first)
        saved = self.demo.files()
        response = self.demo.post(NETWORK, second)
        self.assertEqual(response.status, 409)
        page = Page(response.text)
        self.assertIn("changed elsewhere", page.message)
        self.assertEqual(self.demo.files(), saved, "nothing is saved")
        self.assertEqual(page.shown["WLAN_SSID"], "<Second>")
        self.assertEqual(page.errors, {
            "WLAN_SSID": "The saved value is: First", "DOMAIN": "The saved value is: lan",
            "WLAN_CHANNEL": "Another value has been saved."})
        self.save(NETWORK, dict(page.fields))
        self.assert_stored("WLAN_SSID", "<Second>")
        self.assert_stored("DOMAIN", "second.lan")
        self.assert_stored("WLAN_CHANNEL", second["WLAN_CHANNEL"])
        self.assertEqual(self.demo.post(NETWORK, second).status, 409, "its versions are too old")

    def test_a_form_that_is_corrected_still_notices_a_save_in_a_second_tab(self):
        form = self.form(DEVICE, {"CONTACT": "a\nb"})
        self.save(DEVICE, {"DESCRIPTION": "Elsewhere"})
        response = self.demo.post(DEVICE, form)
        self.assertEqual(response.status, 422)
        corrected = dict(Page(response.text).fields) | {"CONTACT": "Ann"}
        self.assertEqual(self.demo.post(DEVICE, corrected).status, 409)
        self.assert_stored("DESCRIPTION", "Elsewhere")

    def test_the_passphrase_is_in_no_answer_and_an_empty_entry_keeps_it(self):
        stored = "change me soon"
        answers = [self.demo.get(NETWORK), self.demo.get(NETWORK + "?Ajax=1")]
        self.assertIn("Leave this empty to keep it", answers[0].text)
        self.assertEqual(self.demo.json(NETWORK)["set_WLAN_PASSPHRASE"], "1")
        self.save(NETWORK, self.form(NETWORK, {"WLAN_SSID": "Upstairs"}))
        self.assert_stored("WLAN_PASSPHRASE", stored)
        # A form that is shown again contains neither the stored one nor the one that was typed.
        form = self.form(NETWORK, {"WLAN_PASSPHRASE": "typed before", "DOMAIN": "a b"})
        answers.append(self.demo.post(NETWORK, form))
        self.assertEqual(answers[-1].status, 422)
        self.assertIn("Enter it again", Page(answers[-1].text).errors["WLAN_PASSPHRASE"])
        self.save(NETWORK, {"WLAN_CHANNEL": "6"})
        answers.append(self.demo.post(NETWORK, form | {"DOMAIN": "lan"}))
        self.assertEqual(answers[-1].status, 409)
        self.assertIn("Enter it again", Page(answers[-1].text).errors["WLAN_PASSPHRASE"])
        for answer in answers:
            self.assertNotIn(stored, answer.text)
            self.assertNotIn("typed before", answer.text)
        self.assert_stored("WLAN_PASSPHRASE", stored)

    def test_a_missing_passphrase_is_asked_for_and_a_weak_one_of_before_is_not(self):
        file = self.demo.file("wireless.conf")
        factory = file.read_bytes()
        file.write_bytes(factory.replace(b"change me soon", b""))
        response = self.demo.post(NETWORK, self.form(NETWORK, {"WLAN_ENABLED": "1"}))
        self.assertEqual(response.status, 422)
        self.assertIn("8 to 63", Page(response.text).errors["WLAN_PASSPHRASE"])
        self.assertNotIn("to keep it", response.text)
        file.write_bytes(factory.replace(b"change me soon", b"12345678"))
        self.save(NETWORK, self.form(NETWORK, {"WLAN_ENABLED": "1", "WLAN_CHANNEL": "6"}))

    def test_a_change_by_another_program_is_noticed(self):
        fields = self.form(DEVICE, {"CONTACT": "Ann"})
        file = self.demo.file("global.conf")
        file.write_bytes(file.read_bytes() + b'OTHER "1"\n')
        self.assertEqual(self.demo.post(DEVICE, fields).status, 409)
        self.assertNotIn(b"Ann", file.read_bytes())

    def test_a_version_that_is_none_is_refused(self):
        for version in ("", "x", "0" * 64, "0" * 65, "f" * 300):
            response = self.demo.post(DEVICE, {"CONTACT": "x", "version_global": version})
            self.assertEqual(response.status, 409, version)
        self.assertEqual(self.demo.files(), self.factory)

    def test_files_that_cannot_be_read_are_not_changed(self):
        file = self.demo.file("global.conf")
        content = file.read_bytes()
        for name in ("global.conf", "global.conf.kept"):
            self.demo.file(name).unlink(missing_ok=True)
        self.assertEqual(self.demo.post(DEVICE, {"CONTACT": "x", "HOST_NAME": "x"}).status, 422)
        self.assertFalse(file.exists())
        file.write_bytes(content)

    def test_every_setting_is_tested(self):
        self.assertEqual(set(INVALID), set(SETTINGS))
        lines = b"".join(self.factory.values()).decode().splitlines()
        names = {line.replace("=", " ").split()[0] for line in lines if not line.startswith("#")}
        self.assertEqual(names, set(SETTINGS))
