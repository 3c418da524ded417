# SPDX-License-Identifier: MIT
"""Changing the password, with the device's real chpasswd."""

import json
import pathlib
import re
import stat

from demo_test import Case, DemoTest, OwnDemoTest
from device import (FACTORY_PASSWORD, LOGOUT, OWNER_PASSWORD, PAGES, PASSWORD, STATUS, STRANGER,
                    UPLOAD, USER, Demo, Page)

SHORTEST, LONGEST = 8, 63


class PasswordTest(OwnDemoTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.path = cls.demo.root() / "etc/shadow"
        cls.accounts = cls.path.read_bytes()

    def setUp(self):
        """Restores the owner's password and resets the failures."""
        self.path.write_bytes(self.accounts)
        self.demo.end_sessions()
        self.demo.session = self.demo.log_in()

    def tearDown(self):
        super().tearDown()
        root = self.demo.root()
        for path in (root / "tmp", pathlib.Path("/tmp")):
            self.assertFalse((path / ".chpwd.txt").is_symlink() or (path / ".chpwd.txt").exists())

    def write_setting(self, name, value):
        file = self.demo.file("global.conf")
        content = file.read_text()
        self.addCleanup(file.write_text, content)
        file.write_text(re.sub(f'^{name} .*$', f'{name} "{value}"', content, flags=re.M))

    def entry(self, user=USER):
        lines = dict(line.split(":", 1) for line in self.path.read_text().splitlines())
        return lines[user].split(":")[0]

    def send(self, old, new, again=None, **headers):
        """Sends the form, and stores the cookie of the response as a browser does."""
        response = self.demo.post(PASSWORD, {
            "old": old, "new": new, "again": new if again is None else again}, headers)
        if response.headers["Set-Cookie"]:
            self.demo.session = response.session()
        return response

    def change(self, old, new):
        """Changes the password, and checks that only the new one is accepted."""
        before = self.path.read_text().splitlines()
        response = self.send(old, new)
        self.assertEqual(response.status, 303, response.text)
        self.assertRegex(response.headers["Location"], r"^/cgi-bin/password\?\w+=1$")
        after = self.path.read_text().splitlines()
        changed = [(was, now) for was, now in zip(before, after, strict=True) if was != now]
        self.assertEqual(len(changed), 1, "one line of the accounts has changed")
        self.assertTrue(changed[0][0].startswith(USER + ":"))
        self.assertTrue(changed[0][1].startswith(USER + ":$"))
        self.assertNotIn(new, changed[0][1])
        session = self.demo.log_in(password=new)
        self.assertEqual(self.demo.try_log_in(password=old).status, 403)
        self.demo.log_in(password=new)
        return session

    def assert_refused(self, response, *statuses):
        self.assertIn(response.status, statuses or (403, 422))
        self.assertIn('id="password"', response.text)
        self.assertTrue(re.search(r'(role="alert"|class="error"|class="message")[^>]*>[^<]',
                                  response.text))
        self.assertEqual(self.path.read_bytes(), self.accounts)
        self.assertTrue(self.demo.is_logged_in(self.demo.session))


class Change(PasswordTest):
    def test_only_the_new_password_is_accepted_after_a_change(self):
        mode = stat.S_IMODE(self.path.stat().st_mode)
        self.assertEqual(mode & 0o007, 0)
        before = self.entry()
        self.assertRegex(before, r"^\$[156y]\$")
        self.change(OWNER_PASSWORD, "a longer word")
        self.assertNotEqual(self.entry(), before)
        self.assertRegex(self.entry(), r"^\$[156y]\$")
        self.assertEqual(stat.S_IMODE(self.path.stat().st_mode), mode)
        self.assertEqual(self.path.stat().st_uid, 0)
        page = Page(self.demo.get(PASSWORD + "?saved=1").text)
        self.assertNotIn("a longer word", page.text)

    def test_passwords_may_contain_any_printable_characters(self):
        old = OWNER_PASSWORD
        for new in ("a:b:c:d:", ":;:=:,:.", " leading and trailing ", "\"quoted\" 'twice'", "$HOME `id` $(id)",
                    "back\\slash\\", "%41%%+&=#;", "setenv a b", "p\u00e4ssw\u00f6rd \u65e5\u672c\U0001f600",
                    "*!:!*?!*", "-m --help", "<script>alert(1)</script>", "xkcdxkcd"[:SHORTEST],
                    ("xkcd" * 16)[:LONGEST], ("%7F&" * 16)[:LONGEST]):
            with self.subTest(new):
                before = self.entry()
                self.assertEqual(self.send(old, new).status, 303)
                self.assertNotEqual(self.entry(), before)
                self.demo.log_in(password=new)
                old = new

    def test_a_change_ends_other_sessions_and_renews_the_own_one(self):
        """The previous number of the own session becomes invalid as well."""
        others = [self.demo.session, *(self.demo.log_in() for _ in range(3))]
        self.assertEqual(self.send(OWNER_PASSWORD, "another one").status, 303)
        for session in others:
            self.assertFalse(self.demo.is_logged_in(session))
            self.assertNotIn(self.demo.file_name(session), self.demo.sessions())
        self.assertTrue(self.demo.is_logged_in(self.demo.session))
        self.assertEqual(set(self.demo.sessions()), {self.demo.file_name(self.demo.session)})

    def test_a_refused_change_ends_no_session(self):
        other = self.demo.log_in()
        self.assert_refused(self.send("wrong", "another one"))
        self.assertTrue(self.demo.is_logged_in(other))

    def test_a_wrong_old_password_is_refused(self):
        for old in ("wrong", "", OWNER_PASSWORD + " ", OWNER_PASSWORD.upper()):
            with self.subTest(old):
                self.assert_refused(self.send(old, "another one"))
                self.demo.log_in()

    def test_invalid_new_passwords_are_refused(self):
        for new in ("", "short 7", "line\nend", "line\rend", "the end\n", "\nroot:x", "tab\tin it",
                    "delete\x7fdelete",
                    "x" * (LONGEST + 1), "x" * 255, "x" * 256, "x" * 5000, "%" * 86, "\u65e5" * 85):
            with self.subTest(new[:20]):
                self.assert_refused(self.send(OWNER_PASSWORD, new))
        self.assertEqual(self.send(OWNER_PASSWORD, "a nul\0in it").status, 400)
        self.assertEqual(self.path.read_bytes(), self.accounts)

    def test_passwords_that_are_easy_to_guess_are_refused_with_a_reason(self):
        self.write_setting("HOST_NAME", "attic-box")
        for new, reason in (
                ("password", "tried first"), ("PassWord", "tried first"), ("sunshine", "tried first"),
                ("Dragon2024!", "tried first"), ("1q2w3e4r", "tried first"), ("qwertyuiop", "tried first"),
                ("12345678", "sequential"), ("9876543210", "sequential"), ("aaaaaaaa", "sequential"),
                ("abcd1234", "sequential"), ("aaaa1111bbbb", "sequential"), ("xyxyxyxy", "sequential"),
                ("ahahahahahah", "sequential"), (":" * LONGEST, "sequential"),
                ("admin-29x", "name"), ("29xADMIN7", "name"), ("my.corvel7", "name"), ("attic-box24", "name")):
            with self.subTest(new):
                response = self.send(OWNER_PASSWORD, new)
                self.assert_refused(response, 422)
                self.assertIn(reason, Page(response.text).errors["new"])

    def test_passwords_that_only_contain_what_is_easy_to_guess_are_accepted(self):
        old = OWNER_PASSWORD
        for new in ("password of mine", "the admin's teapot", "herons 12345678", "mydragons"):
            with self.subTest(new):
                self.assertEqual(self.send(old, new).status, 303)
                old = new

    def test_the_common_passwords_are_a_readable_list(self):
        words = (self.demo.root() / "etc/weak-passwords").read_text().splitlines()
        self.assertEqual(len(words), len(set(words)))
        self.assertTrue(all(re.fullmatch("[!-@^-~]+", word) for word in words), "in lower case")
        self.assertIn("letmein", words)

    def test_two_different_new_passwords_are_refused(self):
        for new, again in (("another one", "another two"), ("another one", ""), ("", "another one"),
                           ("another one", "another one ")):
            self.assert_refused(self.send(OWNER_PASSWORD, new, again))

    def test_incomplete_forms_are_refused(self):
        for body in ("", f"old={OWNER_PASSWORD}", "new=another&again=another",
                     f"old={OWNER_PASSWORD}&new=another", "old&new&again", "=&" * 3000,
                     f"old={OWNER_PASSWORD}&new&again"):
            response = self.demo.post(PASSWORD, body)
            self.assertIn(response.status, (400, 403, 422), body[:30])
            self.assertEqual(self.path.read_bytes(), self.accounts)
            self.demo.session = self.demo.log_in()

    def test_requests_without_a_session_or_of_another_site_change_nothing(self):
        response = self.send(OWNER_PASSWORD, "another one", **STRANGER)
        self.assertIn(response.status, (303, 401))
        for origin in ("http://evil.example", "null"):
            response = self.send(OWNER_PASSWORD, "another one", Origin=origin)
            self.assertEqual(response.status, 403)
        self.assertEqual(self.path.read_bytes(), self.accounts)

    def test_a_field_cannot_select_another_user(self):
        root = self.entry("root")
        response = self.demo.post(PASSWORD, {
            "old": OWNER_PASSWORD, "new": "another one", "again": "another one", "user": "root"})
        self.assertIn(response.status, (303, 400, 422))
        self.assertEqual(self.entry("root"), root)

    def test_a_planted_symbolic_link_is_not_followed(self):
        target = self.demo.root() / "tmp/precious"
        target.write_text("precious")
        self.addCleanup(target.unlink)
        (self.demo.root() / "tmp/.chpwd.txt").symlink_to("/tmp/precious")
        self.change(OWNER_PASSWORD, "another one")
        self.assertEqual(target.read_text(), "precious")

    def test_the_page_shows_no_password(self):
        page = Page(self.demo.get(PASSWORD).text)
        self.assertIn("password", page.ids)
        self.assertEqual(dict(page.fields), {"token": self.demo.token(), "user": USER, "old": "", "new": "", "again": ""})
        response = self.send("the old one$title", "the new one$title", "another one$title")
        self.assert_refused(response)
        for each in ("the old one", "the new one", "another one"):
            self.assertNotIn(each, response.text)


class FirstStep(DemoTest):
    """A new device, whose owner has logged in with the factory's password."""

    def setUp(self):
        self.demo = Demo(password=FACTORY_PASSWORD)
        self.addCleanup(self.demo.stop)

    def test_a_new_device_has_nothing_but_the_choice_of_a_password(self):
        self.check_that_every_page_leads_there()
        self.check_that_the_rules_of_the_password_page_hold()
        seen = self.walk("first", FACTORY_PASSWORD, OWNER_PASSWORD, logged_in=False).result()
        self.assertIn("tried first", seen["reason"])
        self.assertTrue(seen["at"].endswith(STATUS))
        self.assertFalse(self.demo.is_logged_in(self.demo.session), "the other session has ended")
        self.demo.session = self.demo.log_in()
        self.assertEqual(self.demo.get(STATUS).status, 200)
        self.assertEqual(self.demo.try_log_in(password=FACTORY_PASSWORD).status, 403)

    def check_that_every_page_leads_there(self):
        settings = self.demo.files()
        for path in {*PAGES, UPLOAD} - {PASSWORD}:
            fields = {"WLAN_SSID": "x", "CONTACT": "x", "action": "restart"}
            for response in (self.demo.get(path), self.demo.post(path, fields)):
                self.assertEqual((response.status, response.headers["Location"]), (303, PASSWORD), path)
        for path in set(PAGES) - {PASSWORD}:
            response = self.demo.get(path + "?Ajax=1")
            self.assertEqual((response.status, json.loads(response.body)), (403, {"error": "password"}))
        self.assertEqual(self.demo.files(), settings)
        page = Page(self.demo.get(PASSWORD).text)
        self.assertEqual([name for name, _ in page.fields if name != "token"], ["user", "new", "again"])
        self.assertEqual({link for link in page.links if link.startswith("/cgi-bin/")}, {PASSWORD, LOGOUT})

    def check_that_the_rules_of_the_password_page_hold(self):
        shadow = self.demo.root() / "etc/shadow"
        accounts = shadow.read_bytes()
        for new, again in ((FACTORY_PASSWORD, FACTORY_PASSWORD), ("corvel 2024", "corvel 2024"),
                           ("password1", "password1"), (OWNER_PASSWORD, "another one"), ("", "")):
            response = self.demo.post(PASSWORD, {"old": FACTORY_PASSWORD, "new": new, "again": again})
            self.assertEqual(response.status, 422, new)
            self.assertTrue(any(Page(response.text).errors.values()))
        fields = {"new": OWNER_PASSWORD, "again": OWNER_PASSWORD, "token": "0" * 64}
        self.assertEqual(self.demo.post(PASSWORD, fields).status, 403)
        self.assertEqual(shadow.read_bytes(), accounts)


class InBrowser(PasswordTest):
    def test_a_change_in_the_browser(self):
        seen = self.walk("password", OWNER_PASSWORD, "quite another one").result()
        self.assertTrue(seen["reason"])
        self.assertTrue(seen["at"].endswith(STATUS))
        self.demo.log_in(password="quite another one")


class AfterAChange(Case):
    def test_a_password_survives_a_restart_and_a_reset_undoes_it(self):
        state = self.make_directory() / "state"
        new = "kept for long"
        with Demo(state=state) as demo:
            session = demo.session
            response = demo.post(PASSWORD, {"old": OWNER_PASSWORD, "new": new, "again": new})
            self.assertEqual(response.status, 303)
        with Demo(state=state, password=new) as demo:
            self.assertFalse(demo.is_logged_in(session), "a session ends with the device")
            self.assertTrue(demo.is_logged_in(demo.session))
        with Demo("--reset", state=state, password=FACTORY_PASSWORD) as demo:
            self.assertEqual(demo.get(STATUS).headers["Location"], PASSWORD, "the first step comes again")
