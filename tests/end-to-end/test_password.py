# SPDX-License-Identifier: MIT
"""Changing the password, with the device's real chpasswd."""

import pathlib
import re
import stat

from demo_test import Case, OwnDemoTest
from device import FACTORY_PASSWORD, PASSWORD, STATUS, STRANGER, USER, Demo, Page

SHORTEST, LONGEST = 8, 63


class PasswordTest(OwnDemoTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.path = cls.demo.root() / "etc/shadow"
        cls.accounts = cls.path.read_bytes()

    def setUp(self):
        """Restores the factory's password and resets the failures."""
        self.path.write_bytes(self.accounts)
        self.demo.end_sessions()
        self.demo.session = self.demo.log_in()

    def tearDown(self):
        super().tearDown()
        root = self.demo.root()
        for path in (root / "tmp", pathlib.Path("/tmp")):
            self.assertFalse((path / ".chpwd.txt").is_symlink() or (path / ".chpwd.txt").exists())

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
        self.change(FACTORY_PASSWORD, "a longer word")
        self.assertNotEqual(self.entry(), before)
        self.assertRegex(self.entry(), r"^\$[156y]\$")
        self.assertEqual(stat.S_IMODE(self.path.stat().st_mode), mode)
        self.assertEqual(self.path.stat().st_uid, 0)
        page = Page(self.demo.get(PASSWORD + "?saved=1").text)
        self.assertNotIn("a longer word", page.text)

    def test_passwords_may_contain_any_printable_characters(self):
        old = FACTORY_PASSWORD
        for new in ("a:b:c:d:", "::::::::", " leading and trailing ", "\"quoted\" 'twice'", "$HOME `id` $(id)",
                    "back\\slash\\", "%41%%+&=#;", "setenv a b", "p\u00e4ssw\u00f6rd \u65e5\u672c\U0001f600",
                    "*!:!*!!*", "-m --help", "<script>alert(1)</script>", "x" * SHORTEST,
                    "x" * LONGEST, "%" * LONGEST):
            with self.subTest(new):
                before = self.entry()
                self.assertEqual(self.send(old, new).status, 303)
                self.assertNotEqual(self.entry(), before)
                self.demo.log_in(password=new)
                old = new

    def test_a_change_ends_other_sessions_and_renews_the_own_one(self):
        """The previous number of the own session becomes invalid as well."""
        others = [self.demo.session, *(self.demo.log_in() for _ in range(3))]
        self.assertEqual(self.send(FACTORY_PASSWORD, "another one").status, 303)
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
        for old in ("wrong", "", FACTORY_PASSWORD + " ", FACTORY_PASSWORD.upper()):
            with self.subTest(old):
                self.assert_refused(self.send(old, "another one"))
                self.demo.log_in()

    def test_invalid_new_passwords_are_refused(self):
        for new in ("", "short 7", "line\nend", "line\rend", "the end\n", "\nroot:x", "tab\tin it",
                    "delete\x7fdelete",
                    "x" * (LONGEST + 1), "x" * 255, "x" * 256, "x" * 5000, "%" * 86, "\u65e5" * 85):
            with self.subTest(new[:20]):
                self.assert_refused(self.send(FACTORY_PASSWORD, new))
        self.assertEqual(self.send(FACTORY_PASSWORD, "a nul\0in it").status, 400)
        self.assertEqual(self.path.read_bytes(), self.accounts)

    def test_two_different_new_passwords_are_refused(self):
        for new, again in (("another one", "another two"), ("another one", ""), ("", "another one"),
                           ("another one", "another one ")):
            self.assert_refused(self.send(FACTORY_PASSWORD, new, again))

    def test_incomplete_forms_are_refused(self):
        for body in ("", f"old={FACTORY_PASSWORD}", "new=another&again=another",
                     f"old={FACTORY_PASSWORD}&new=another", "old&new&again", "=&" * 3000,
                     f"old={FACTORY_PASSWORD}&new&again"):
            response = self.demo.post(PASSWORD, body)
            self.assertIn(response.status, (400, 403, 422), body[:30])
            self.assertEqual(self.path.read_bytes(), self.accounts)
            self.demo.session = self.demo.log_in()

    def test_requests_without_a_session_or_of_another_site_change_nothing(self):
        response = self.send(FACTORY_PASSWORD, "another one", **STRANGER)
        self.assertIn(response.status, (303, 401))
        for origin in ("http://evil.example", "null"):
            response = self.send(FACTORY_PASSWORD, "another one", Origin=origin)
            self.assertEqual(response.status, 403)
        self.assertEqual(self.path.read_bytes(), self.accounts)

    def test_a_field_cannot_select_another_user(self):
        root = self.entry("root")
        response = self.demo.post(PASSWORD, {
            "old": FACTORY_PASSWORD, "new": "another one", "again": "another one", "user": "root"})
        self.assertIn(response.status, (303, 400, 422))
        self.assertEqual(self.entry("root"), root)

    def test_a_planted_symbolic_link_is_not_followed(self):
        target = self.demo.root() / "tmp/precious"
        target.write_text("precious")
        self.addCleanup(target.unlink)
        (self.demo.root() / "tmp/.chpwd.txt").symlink_to("/tmp/precious")
        self.change(FACTORY_PASSWORD, "another one")
        self.assertEqual(target.read_text(), "precious")

    def test_the_page_shows_no_password(self):
        page = Page(self.demo.get(PASSWORD).text)
        self.assertIn("password", page.ids)
        self.assertEqual(dict(page.fields), {"token": self.demo.token(), "user": USER, "old": "", "new": "", "again": ""})
        response = self.send("the old one$title", "the new one$title", "another one$title")
        self.assert_refused(response)
        for each in ("the old one", "the new one", "another one"):
            self.assertNotIn(each, response.text)


class InBrowser(PasswordTest):
    def test_a_change_in_the_browser(self):
        seen = self.walk("password", FACTORY_PASSWORD, "quite another one").result()
        self.assertTrue(seen["reason"])
        self.assertTrue(seen["at"].endswith(STATUS))
        self.demo.log_in(password="quite another one")


class AfterAChange(Case):
    def test_a_password_survives_a_restart_and_a_reset_undoes_it(self):
        state = self.make_directory() / "state"
        new = "kept for long"
        with Demo(state=state) as demo:
            session = demo.session
            response = demo.post(PASSWORD, {"old": FACTORY_PASSWORD, "new": new, "again": new})
            self.assertEqual(response.status, 303)
        with Demo(state=state, password=new) as demo:
            self.assertFalse(demo.is_logged_in(session), "a session ends with the device")
            self.assertTrue(demo.is_logged_in(demo.session))
        with Demo("--reset", state=state) as demo:
            self.assertTrue(demo.is_logged_in(demo.session))
