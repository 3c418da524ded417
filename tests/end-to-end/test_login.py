# SPDX-License-Identifier: MIT
"""Nothing is served without a login, and a login expires."""

import concurrent.futures
import contextlib
import html
import json
import os
import pathlib
import re
import secrets
import select
import shutil
import signal
import socket
import stat
import struct
import time
import urllib.parse

import device
from demo_test import SharedDemoTest
from device import (DEVICE, OWNER_PASSWORD, LOGIN, LOGOUT, NETWORK, STATUS, STRANGER, UPLOAD, USER,
                    Page, wait_until)

FORM = "application/x-www-form-urlencoded"
MULTIPART = "multipart/form-data; boundary=xYzZY"
UPLOAD_BODY = (b'--xYzZY\r\nContent-Disposition: form-data; name="image"; filename="a.bin"\r\n'
               b"Content-Type: application/octet-stream\r\n\r\nabc\r\n--xYzZY--\r\n")
LARGEST = 16 * 1024 * 1024
PIECE = 65536
# Header lines without a session: no cookie, a malformed cookie, a cookie with an unknown number.
FORGED = ("", "Cookie: session=x\r\n", f"Cookie: session={'0' * 64}\r\n")
MOST_SESSIONS = 8
IDLE = 15 * 60


class LoginTest(SharedDemoTest):
    def assert_to_login(self, response, path=None):
        """Checks that the response redirects to the login and has no body."""
        self.assertEqual(response.status, 303)
        self.assertRegex(response.headers["Location"], r"^/cgi-bin/login(\?next=[!-~]*)?$")
        self.assertEqual(response.body, b"")
        if path:
            query = urllib.parse.urlsplit(response.headers["Location"]).query
            self.assertEqual(urllib.parse.parse_qs(query)["next"], [path])

    def assert_refused(self, cookie):
        """Checks that a request with this cookie is treated as one without a session."""
        name = str(cookie)[:90]
        with self.subTest(name):
            self.assert_to_login(self.demo.get(NETWORK, Cookie=cookie))
            response = self.demo.get(NETWORK + "?Ajax=1", Cookie=cookie)
            self.assertEqual((response.status, json.loads(response.body)),
                             (401, {"error": "login"}))


class Strangers(LoginTest):
    """Requests without a session to every program of the device."""

    def setUp(self):
        super().setUp()
        programs = self.demo.root() / "www/cgi-bin"
        self.paths = [f"/cgi-bin/{each.name}" for each in sorted(programs.iterdir())
                      if each.name != "login"]
        self.files = self.demo.files()
        self.flash = [self.demo.flash(number).read_bytes() for number in (0, 1, 4, 5)]
        self.accounts = (self.demo.root() / "etc/shadow").read_bytes()
        self.sessions = set(self.demo.sessions())

    def tearDown(self):
        self.assertEqual(self.demo.files(), self.files)
        self.assertEqual([self.demo.flash(number).read_bytes() for number in (0, 1, 4, 5)],
                         self.flash)
        self.assertEqual((self.demo.root() / "etc/shadow").read_bytes(), self.accounts)
        self.assertFalse((self.demo.root() / "tmp/firmware/image.bin").exists())
        self.assertEqual(set(self.demo.sessions()), self.sessions)
        super().tearDown()

    def request(self, method, path, body=None, **headers):
        return self.demo.request(method, path, body, {**STRANGER, **headers})

    def test_every_program_of_the_build_is_tested(self):
        built = {f"/cgi-bin/{each.name}"
                 for each in (device.IMAGE / "www/cgi-bin").iterdir()}
        self.assertEqual(built - {LOGIN}, set(self.paths))
        self.assertLessEqual({*device.PAGES, UPLOAD, LOGOUT}, built)

    def test_a_page_redirects_to_the_login(self):
        for path in self.paths:
            for query in ("", "?saved=1", "?Ajax=0", "?next=/style.css", "?user=admin&password=seven"):
                with self.subTest(path + query):
                    response = self.request("GET", path + query)
                    self.assert_to_login(response)
                    self.assert_to_login(self.request("HEAD", path + query))
        for path in ("", "?saved=1"):
            self.assert_to_login(self.request("GET", NETWORK + path), NETWORK + path)

    def test_additional_path_after_a_program_does_not_avoid_the_login(self):
        for path in self.paths:
            for more in ("/", "/login", "/../login", "/public/style.css", "//", "%2flogin"):
                with self.subTest(path + more):
                    response = self.request("GET", path + more)
                    self.assertIn(response.status, (303, 404, 200))
                    if response.status == 200:
                        self.assertIn('id="login"', response.text)
                        self.assertTrue(more.startswith("/.."))

    def test_json_is_refused(self):
        for path in self.paths:
            for query in ("?Ajax=1", "?x=1&Ajax=2", "?Ajax=1&Ajax=0"):
                with self.subTest(path + query):
                    response = self.request("GET", path + query)
                    self.assertIn((response.status, response.body.strip()), (
                        (401, b'{"error":"login"}'), (303, b"")))
                    if path in device.PAGES and query == "?Ajax=1":
                        self.assertEqual(response.status, 401)
                        self.assertTrue(response.headers["Content-Type"].startswith(
                            "application/json"))

    def test_a_post_is_refused_and_changes_nothing(self):
        bodies = ((FORM, b""), (FORM, b"WLAN_SSID=x&HOST_NAME=x&CONTACT=x&action=restart"),
                  (FORM, b"user=admin&password=corvel&old=corvel&new=x&again=x&next=/"),
                  (MULTIPART, UPLOAD_BODY), ("text/plain", b"x=y"), ("", b"{}"))
        for path in self.paths:
            for kind, body in bodies:
                for query in ("", "?Ajax=1"):
                    with self.subTest(f"{path}{query} {kind} {body[:20]}"):
                        response = self.request("POST", path + query, body,
                                                **{"Content-Type": kind})
                        self.assertIn(response.status, (303, 401))
                        if response.status == 303:
                            self.assert_to_login(response)
                        else:
                            self.assertEqual(json.loads(response.body), {"error": "login"})

    def test_other_methods_are_refused(self):
        for path in self.paths:
            for method in ("PUT", "DELETE", "PATCH", "TRACE", "CONNECT", "MKCOL", "PROPFIND", "get",
                           "post", "FOO", "OPTIONS"):
                for body in (None, b"WLAN_SSID=x"):
                    with self.subTest(f"{method} {path}"):
                        response = self.request(method, path, body, **{"Content-Type": FORM})
                        if method == "OPTIONS" and response.status == 200:
                            self.assertEqual(response.body, b"")
                        else:
                            self.assertIn(response.status, (303, 400, 401, 405, 501))
                        for secret in ("Corvel Home", "change me soon", "CR1-2209", "192.168."):
                            self.assertNotIn(secret, response.text)

    def test_a_large_upload_is_refused(self):
        body = b"x" * (16 * 1024 * 1024)
        try:
            response = self.request("POST", UPLOAD, body, **{"Content-Type": MULTIPART})
            self.assertIn(response.status, (303, 401, 413))
        except (BrokenPipeError, ConnectionResetError):
            pass  # the server has closed the connection before the end of the body
        self.assertTrue(wait_until(lambda: not self.demo.programs("/www/cgi-bin/upload")))

    def begin_upload(self, cookie):
        """Sends the header of an upload of 16 MiB and returns the connection."""
        connection = socket.create_connection(("127.0.0.1", self.demo.port), timeout=20)
        self.addCleanup(connection.close)
        connection.sendall((
            f"POST {UPLOAD} HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: {MULTIPART}\r\n{cookie}"
            f"Content-Length: {LARGEST}\r\n\r\n").encode())
        return connection

    def test_an_upload_is_refused_before_its_body(self):
        for cookie in FORGED:
            with self.subTest(cookie):
                response = self.begin_upload(cookie).recv(4096)
                self.assertTrue(response.startswith(b"HTTP/1.1 303 "), response)
                self.assertIn(b"\r\nLocation: /cgi-bin/login\r\n", response)

    def restricted(self):
        """Returns the programs of an upload that the kernel restricts."""
        found = []
        for pid in self.demo.programs("/www/cgi-bin/upload"):
            status = pathlib.Path(f"/proc/{pid}/status").read_text()
            if re.search(r"^NoNewPrivs:\t1$", status, re.M) and re.search(r"^Seccomp:\t2$", status, re.M):
                found.append(pid)
        return found

    def test_an_upload_is_read_by_a_process_without_privileges(self):
        """If that process dies, the client gets an error, and no process is left."""
        connection = socket.create_connection(("127.0.0.1", self.demo.port), timeout=20)
        self.addCleanup(connection.close)
        length = 200_000
        begun = UPLOAD_BODY[:100]
        connection.sendall((
            f"POST {UPLOAD}?token={self.demo.token()} HTTP/1.1\r\nHost: 127.0.0.1\r\n"
            f"Content-Type: {MULTIPART}\r\nCookie: session={self.demo.session}\r\n"
            f"Content-Length: {length}\r\n\r\n").encode() + begun)
        self.assertTrue(wait_until(self.restricted))
        parser, = self.restricted()
        self.assertEqual(len(self.demo.programs("/www/cgi-bin/upload")), 2)
        os.kill(parser, signal.SIGKILL)
        connection.sendall(bytes(length - len(begun)))
        self.assertIn(b" 500 ", connection.recv(4096))
        self.assertTrue(wait_until(lambda: not self.demo.programs("/www/cgi-bin/upload")))

    def test_the_body_of_a_refused_upload_is_not_stored(self):
        def used():
            space = os.statvfs(self.demo.root() / "tmp")
            return (space.f_blocks - space.f_bfree) * space.f_frsize

        for cookie in FORGED:
            with self.subTest(cookie):
                before = used()
                most = 0
                connection = self.begin_upload(cookie)
                with contextlib.suppress(BrokenPipeError, ConnectionResetError):
                    for _ in range(LARGEST // PIECE - 1):
                        connection.sendall(bytes(PIECE))
                        # What arrives before the answer may have to be stored: the first piece.
                        select.select([connection], [], [], 20)
                        most = max(most, used() - before)
                self.assertLessEqual(most, PIECE)

    def test_a_chunked_upload_is_refused_before_its_body(self):
        for cookie in FORGED:
            with self.subTest(cookie):
                connection = socket.create_connection(("127.0.0.1", self.demo.port), timeout=20)
                self.addCleanup(connection.close)
                connection.sendall((
                    f"POST {UPLOAD} HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: {MULTIPART}\r\n"
                    f"{cookie}Transfer-Encoding: chunked\r\n\r\n").encode())
                response = connection.recv(4096)
                self.assertIn(response[:13], (b"HTTP/1.1 303 ", b"HTTP/1.1 411 "))

    def test_only_public_files_are_served(self):
        public = self.demo.root() / "www/public"
        files = [path for path in public.rglob("*") if path.is_file()]
        self.assertGreaterEqual(len(files), 3)
        for path in files:
            response = self.request("GET", f"/{path.relative_to(public)}")
            self.assertEqual((response.status, response.body), (200, path.read_bytes()), path)
        response = self.request("GET", "/")
        self.assertIn(response.status, (302, 303))
        self.assertIn(response.headers["Location"], ("/cgi-bin/status", "/cgi-bin/login", NETWORK))
        session = next(iter(self.demo.sessions()))
        for path in (f"/run/sessions/{session}", f"/../run/sessions/{session}", "/cgi-bin/",
                     "/templates/login.html", "/etc/shadow", "/%2e%2e/%2e%2e/etc/shadow",
                     "/cgi-bin/../../etc/shadow", "/var/log/traps.log", "/login", "/status"):
            self.assertIn(self.request("GET", path).status, (400, 403, 404), path)

    def test_the_login_page_reveals_no_settings(self):
        response = self.request("GET", LOGIN)
        self.assertEqual(response.status, 200)
        page = Page(response.text)
        self.assertIn("login", page.ids)
        self.assertEqual({name for name, _ in page.fields} - {"next"}, {"user", "password"})
        self.assertEqual(set(page.controls), page.labels)
        self.assertEqual(len(page.ids), len(set(page.ids)))
        self.assertIsNone(re.search("{{|}}", response.text))
        self.assertEqual(response.headers["Cache-Control"], "no-store")
        self.assertIn("frame-ancestors 'none'", response.headers["Content-Security-Policy"])
        self.assertIsNone(response.headers["Set-Cookie"])
        self.assertEqual({link for link in page.links if link.startswith("/cgi-bin/")}, {LOGIN})
        for secret in ("Corvel Home", "change me soon", "CR1-2209", "192.168."):
            self.assertNotIn(secret, response.text)
        for link in page.links:
            if link.startswith("/"):
                self.assertIn(self.request("GET", link).status, (200, 302), link)
        for method in ("PUT", "DELETE", "FOO"):
            self.assertIn(self.request(method, LOGIN, b"").status, (400, 405, 501), method)


class Cookies(LoginTest):
    def test_a_session_is_a_random_hexadecimal_number_that_scripts_cannot_read(self):
        response = self.demo.try_log_in()
        self.assertEqual(response.status, 303)
        value, *attributes = re.split(r"; *", response.headers["Set-Cookie"])
        self.assertRegex(value, r"^session=[0-9a-f]{64}$")
        self.assertEqual({each.lower() for each in attributes},
                         {"path=/", "httponly", "samesite=strict"})
        self.assertNotIn(self.demo.session, value)
        self.assertNotEqual(response.session(), self.demo.log_in())

    def test_a_session_is_a_file_that_only_root_can_read(self):
        directory = self.demo.root() / "run/sessions"
        self.assertEqual(stat.S_IMODE(directory.stat().st_mode), 0o700)
        path = self.demo.sessions()[self.demo.file_name(self.demo.session)]
        status = path.lstat()
        self.assertTrue(stat.S_ISREG(status.st_mode))
        self.assertEqual(stat.S_IMODE(status.st_mode), 0o600)
        self.assertNotIn(OWNER_PASSWORD.encode(), path.read_bytes())
        self.assertNotIn(self.demo.session, self.demo.sessions(), "the name reveals no session")
        self.assertNotIn(self.demo.session.encode(), path.read_bytes())
        self.assertEqual([name for name in self.demo.sessions()
                          if not re.fullmatch("[0-9a-f]{64}", name)], [])

    def test_a_session_cookie_among_other_cookies_is_accepted(self):
        good = f"session={self.demo.session}"
        for cookie in (f"a=b; {good}", f"{good}; a=b", f"a=b; {good}; c=d", f"xsession=1; {good}",
                       f"session2=1; {good}", f"{'x' * 3000}=1; {good}", f"a; {good}", f"=; {good}"):
            self.assertEqual(self.demo.get(NETWORK, Cookie=cookie).status, 200, cookie[:50])

    def test_other_cookies_of_the_same_name_do_not_hide_a_session(self):
        """Another server on the same address can make the browser send its cookie first."""
        good = f"session={self.demo.session}"
        for other in ("session=", "session=x", f"session={'0' * 64}", f"session={secrets.token_hex(32)}",
                      "session=" + "a" * 3000, "; ".join(["session=x"] * 200)):
            for cookie in (f"{other}; {good}", f"{good}; {other}", f"{other}; {good}; {other}"):
                self.assertEqual(self.demo.get(NETWORK, Cookie=cookie).status, 200, cookie[:50])
            self.assert_refused(f"{other}; {other}")

    def test_an_invalid_session_cookie_is_refused(self):
        good = self.demo.session
        while not re.search("[a-f]", good) or good == good[::-1]:
            good = self.demo.session = self.demo.log_in()
        for value in ("", "x", good[:-1], good[1:], good[:32], good + "0", "0" + good, good + good,
                      good.upper(), good.capitalize() if good[0] in "abcdef" else good.upper(),
                      good[::-1], good[:-1] + ("0" if good[-1] != "0" else "1"),
                      f'"{good}', f"'{good}'", good + "%00", good + "/", "/" + good, good + ".",
                      good + "\t.", good + ",", "%" + good, "-" + good[1:], "+" + good[1:],
                      "".join(f"%{ord(each):02x}" for each in good),
                      f"../sessions/{good}", f"./{good}", f"/run/sessions/{good}",
                      "../../etc/passwd", "." * 64, "/" * 64, "0" * 63 + "/", "../" * 21 + ".",
                      "0" * 64, "f" * 64, "g" * 64, "\xe9" * 64, " " * 64, "*" * 64,
                      secrets.token_hex(32), good[:63] + "G", good * 50, "a" * 6000):
            self.assert_refused(f"session={value}")
        for cookie in (good, f"={good}", f"Session={good}", f"SESSION={good}", f"xsession={good}",
                       f"session2={good}", f"sessio={good}", f"session:{good}", f"session=={good}",
                       f"sessionsession={good}", f"a=session={good}", f"a=b&session={good}", "",
                       ";", "=", "session", "session=", "; " * 2000):
            self.assert_refused(cookie)
        self.assertTrue(self.demo.is_logged_in(good))

    def test_a_cookie_of_a_megabyte_gets_a_response(self):
        response = self.demo.raw(b"GET /cgi-bin/network HTTP/1.1\r\nHost: 127.0.0.1\r\n"
                                 b"Connection: close\r\nCookie: session=" + b"a" * 1_000_000
                                 + b"\r\n\r\n")
        self.assertIn(response[9:12], (b"", b"303", b"400", b"413", b"431"))
        self.assertTrue(self.demo.is_logged_in(self.demo.session))

    def test_other_files_in_the_sessions_directory_are_not_sessions(self):
        sessions = self.demo.root() / "run/sessions"
        good = self.demo.sessions()[self.demo.file_name(self.demo.session)]
        names = {"x", "A" * 64, "a" * 63, "a" * 65, "e" * 63 + "."}
        for name in names:
            shutil.copy2(good, sessions / name)
            self.addCleanup((sessions / name).unlink)
        numbers = ("e" * 64, "d" * 64, "c" * 64)
        empty, directory, other = (self.demo.file_name(each) for each in numbers)
        (sessions / empty).touch(mode=0o600)
        self.addCleanup((sessions / empty).unlink, missing_ok=True)
        (sessions / directory).mkdir()
        self.addCleanup(shutil.rmtree, sessions / directory)
        (sessions / other).write_bytes(bytes(range(256)) * 40)
        (sessions / other).chmod(0o600)
        self.addCleanup((sessions / other).unlink, missing_ok=True)
        for name in (*names, *numbers):
            self.assert_refused(f"session={name}")
        self.assertTrue(self.demo.is_logged_in(self.demo.session))


class Sessions(LoginTest):
    def test_a_login_does_not_accept_a_number_chosen_by_the_client(self):
        chosen = secrets.token_hex(32)
        former = self.demo.log_in()
        for sent in (chosen, former):
            response = self.demo.post(LOGIN, {"user": USER, "password": OWNER_PASSWORD},
                                      {"Cookie": f"session={sent}"})
            self.assertEqual(response.status, 303)
            self.assertNotEqual(response.session(), sent)
            self.assertTrue(self.demo.is_logged_in(response.session()))
            self.assert_refused(f"session={sent}")
            self.assertNotIn(self.demo.file_name(sent), self.demo.sessions())

    def test_a_logout_ends_only_its_session(self):
        session = self.demo.log_in()
        cookie = {"Cookie": f"session={session}"}
        response = self.demo.post(LOGOUT, "", cookie)
        self.assertEqual((response.status, response.headers["Location"]), (303, LOGIN))
        name, *attributes = re.split(r"; *", response.headers["Set-Cookie"])
        self.assertEqual(name, "session=")
        self.assertIn("max-age=0", [each.lower() for each in attributes])
        self.assertIn("path=/", [each.lower() for each in attributes])
        self.assertNotIn(self.demo.file_name(session), self.demo.sessions())
        self.assert_refused(cookie["Cookie"])
        self.assert_to_login(self.demo.post(NETWORK, {"WLAN_SSID": "x"}, cookie))
        self.assert_to_login(self.demo.post(LOGOUT, "", cookie))
        self.assertTrue(self.demo.is_logged_in(self.demo.session))

    def test_a_get_does_not_log_out(self):
        for method in ("GET", "HEAD"):
            self.assertEqual(self.demo.request(method, LOGOUT).status, 405)
        self.assertTrue(self.demo.is_logged_in(self.demo.session))

    def test_a_new_session_replaces_the_oldest_one(self):
        sessions = [self.demo.session, *(self.demo.log_in() for _ in range(MOST_SESSIONS - 1))]
        for i, session in enumerate(sessions):
            self.age(session, MOST_SESSIONS - i)
        self.assertEqual(set(self.demo.sessions()), set(map(self.demo.file_name, sessions)))
        sessions.append(self.demo.log_in())
        self.assertEqual(set(self.demo.sessions()), set(map(self.demo.file_name, sessions[1:])))
        self.assert_refused(f"session={sessions[0]}")
        for session in sessions[1:]:
            self.assertTrue(self.demo.is_logged_in(session))

    def test_simultaneous_logins_do_not_exceed_the_limit_of_sessions(self):
        def log_in(_):
            while (response := self.demo.try_log_in()).status == 429:
                time.sleep(0.05)
            return response.session()

        self.age(self.demo.session, 60)
        with concurrent.futures.ThreadPoolExecutor(8) as pool:
            made = list(pool.map(log_in, range(40)))
        self.assertEqual(len(set(made)), 40)
        self.assertEqual(len(self.demo.sessions()), MOST_SESSIONS)
        self.assertLessEqual(set(self.demo.sessions()), set(map(self.demo.file_name, made)))

    def age(self, session, seconds):
        """Sets the time of the session's last use back."""
        path = self.demo.sessions()[self.demo.file_name(session)]
        then = path.stat().st_mtime - seconds
        os.utime(path, (then, then))

    def test_an_unused_session_expires(self):
        session = self.demo.log_in()
        self.age(session, IDLE - 60)
        self.assertTrue(self.demo.is_logged_in(session))
        self.age(session, IDLE - 60)
        self.assertTrue(self.demo.is_logged_in(session), "each use extends the session")
        self.age(session, IDLE + 60)
        self.assert_refused(f"session={session}")
        self.assertTrue(self.demo.is_logged_in(self.demo.session))

    def test_automatic_refreshes_do_not_extend_a_session(self):
        session = self.demo.log_in()
        cookie = f"session={session}"
        for path in (STATUS, device.CLIENTS):
            self.age(session, 120)
            before = self.demo.sessions()[self.demo.file_name(session)].stat().st_mtime
            self.assertEqual(self.demo.get(path + "?Ajax=1", Cookie=cookie).status, 200)
            self.assertEqual(self.demo.sessions()[self.demo.file_name(session)].stat().st_mtime, before)
            self.assertEqual(self.demo.get(path, Cookie=cookie).status, 200)
            self.assertGreater(self.demo.sessions()[self.demo.file_name(session)].stat().st_mtime, before)


class Passwords(LoginTest):
    FREE_ATTEMPTS = 3
    STRANGER = "127.0.0.2"

    def tearDown(self):
        """Forgets the failures of the tests."""
        (self.demo.root() / "run/logins").unlink()
        super().tearDown()

    def fail_to_log_in(self, user=USER, password="a bad guess", **options):
        return self.demo.try_log_in(user, password, **options)

    def message(self, response, status=403):
        self.assertEqual(response.status, status)
        self.assertIsNone(response.headers["Set-Cookie"])
        self.assertIn('id="login"', response.text)
        found = re.search(r'role="alert"[^>]*>([^<]+)<', response.text)
        return html.unescape(found.group(1))

    def assert_must_wait(self, response, longest):
        self.message(response, 429)
        seconds = int(response.headers["Retry-After"])
        self.assertGreater(seconds, 0)
        self.assertLessEqual(seconds, longest)

    def test_the_message_does_not_reveal_which_of_the_two_is_wrong(self):
        sessions = set(self.demo.sessions())
        messages = set()
        for user, password in ((USER, "a bad guess"), ("nobody-there", OWNER_PASSWORD), (USER, "")):
            response = self.fail_to_log_in(user, password)
            messages.add(self.message(response))
            self.assertNotIn("a bad guess", response.text)
        self.assertEqual(len(messages), 1)
        self.assertEqual(set(self.demo.sessions()), sessions)

    def test_after_the_free_attempts_a_client_has_to_wait(self):
        for _ in range(self.FREE_ATTEMPTS + 1):
            self.message(self.fail_to_log_in())
        self.assert_must_wait(self.fail_to_log_in(), 2)
        self.assert_must_wait(self.demo.try_log_in(), 2)
        self.demo.log_in()
        for _ in range(self.FREE_ATTEMPTS):
            self.message(self.fail_to_log_in())
        self.assertEqual(self.demo.try_log_in().status, 303, "a successful login ends the delay")

    def test_closing_the_connection_does_not_avoid_the_delay(self):
        """A slot of the record contains the client, the end of the delay, and the failures."""
        record = self.demo.root() / "run/logins"

        def failures():
            slots = struct.iter_unpack("=QIHH", record.read_bytes()[48:])
            return sum(failures for _, _, failures, _ in slots)

        body = urllib.parse.urlencode({"user": USER, "password": "a bad guess"})
        self.assertEqual(failures(), 0)
        for number in range(1, self.FREE_ATTEMPTS + 2):
            with socket.create_connection(("127.0.0.1", self.demo.port), timeout=20) as connection:
                connection.sendall((
                    f"POST {LOGIN} HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: {FORM}\r\n"
                    f"Content-Length: {len(body)}\r\n\r\n{body}").encode())
                self.assertTrue(wait_until(lambda: failures() == number))
            self.assertTrue(wait_until(lambda: not self.demo.programs("/www/cgi-bin/login")))
        self.assert_must_wait(self.demo.try_log_in(), 2)

    def test_a_stranger_does_not_keep_the_owner_out(self):
        for _ in range(self.FREE_ATTEMPTS + 1):
            self.message(self.fail_to_log_in(source=self.STRANGER))
        for _ in range(10):
            self.assert_must_wait(self.demo.try_log_in(source=self.STRANGER), 2)
            self.assertEqual(self.demo.try_log_in().status, 303)

    def test_invalid_names_and_passwords_are_refused(self):
        for user, password in (("root", ""), ("root", "*"), ("root:x", "x"), ("", ""),
                               (USER + "\n", OWNER_PASSWORD), (USER, OWNER_PASSWORD + "\n"),
                               (USER, OWNER_PASSWORD + "x" * 300), (USER.upper(), OWNER_PASSWORD),
                               ("x" * 5000, "x" * 50000)):
            with self.subTest(f"{user[:20]!r} {password[:20]!r}"):
                self.message(self.fail_to_log_in(user, password))
                self.demo.log_in()
        for body in ("", "user=admin", "password=corvel", "user&password", "=&" * 3000):
            response = self.demo.post(LOGIN, body, STRANGER)
            self.assertIn(response.status, (400, 403), body[:20])
            self.assertIsNone(response.headers["Set-Cookie"])
            self.demo.log_in()

    def test_the_user_name_is_shown_escaped_and_the_password_is_not_shown(self):
        user = '"><script>alert(1)</script>{{model}}'
        response = self.fail_to_log_in(user, "{{message}}")
        self.message(response)
        self.assertNotIn("<script>", response.text)
        self.assertEqual(Page(response.text).shown["user"], user)
        self.assertNotIn("{{message}}", html.unescape(response.text), "a password is never shown")

    def test_a_flood_of_wrong_passwords_does_not_delay_other_requests(self):
        most = 0
        with concurrent.futures.ThreadPoolExecutor(60) as pool:
            flood = [pool.submit(self.fail_to_log_in, USER, f"wrong {i}", source=self.STRANGER)
                     for i in range(60)]
            while not all(each.done() for each in flood):
                most = max(most, len(self.demo.programs("/www/cgi-bin/login")))
                self.assertTrue(self.demo.is_logged_in(self.demo.session))
                self.assertEqual(self.demo.try_log_in().status, 303)
        statuses = [each.result().status for each in flood]
        self.assertEqual(set(statuses), {403, 429})
        self.assertGreater(statuses.count(429), 30)
        self.assertLess(most, 60)
        for each in flood:
            if each.result().status == 429:
                self.assert_must_wait(each.result(), 4)
            self.assertIsNone(each.result().headers["Set-Cookie"])


class ManyConnections(LoginTest):
    STRANGER = "127.0.0.2"
    ATTEMPTS = 2500
    MOST = 128

    def begin_slowly(self):
        """Opens a connection and sends half a header. Returns None if the server resets it."""
        connection = socket.socket()
        try:
            connection.bind((self.STRANGER, 0))
            connection.settimeout(5)
            connection.connect(("127.0.0.1", self.demo.port))
            connection.sendall(b"GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nX: ")
            connection.setblocking(False)
        except ConnectionResetError:
            connection.close()
            return None
        return connection

    def open_more(self, kept, attempts):
        """Opens connections. Closes and leaves out those that the server has reset."""
        kept += filter(None, [self.begin_slowly() for _ in range(attempts)])
        for each in list(kept):
            try:
                each.recv(1)
            except BlockingIOError:
                continue
            except ConnectionResetError:
                pass
            each.close()
            kept.remove(each)

    def most_are_open(self, kept):
        """Whether no more than the limit are left. The server closes those that are idle for some seconds."""
        self.open_more(kept, 0)
        return len(kept) <= self.MOST

    def test_one_client_with_many_slow_connections_keeps_only_itself_out(self):
        kept = []
        for _ in range(self.ATTEMPTS // 100):
            self.open_more(kept, 100)
        self.assertTrue(wait_until(lambda: self.most_are_open(kept)), len(kept))
        for path in (NETWORK, self.demo.static_file("text/css")):
            self.assertEqual(self.demo.request("GET", path, timeout=5).status, 200)
        self.open_more(kept, self.MOST)
        with self.assertRaises(ConnectionResetError):
            self.demo.request("GET", LOGIN, headers=STRANGER, source=self.STRANGER)
        for each in kept:
            each.close()
        self.assertTrue(wait_until(self.stranger_is_served))

    def stranger_is_served(self):
        with contextlib.suppress(ConnectionResetError):
            return self.demo.request("GET", LOGIN, headers=STRANGER, source=self.STRANGER).status == 200
        return False

    def test_the_limit_is_that_of_the_server_and_not_of_its_programs(self):
        server, = self.demo.programs("/usr/sbin/lighttpd")
        self.assertIn("/opt/lib/connections.so", pathlib.Path(f"/proc/{server}/maps").read_text())
        with socket.create_connection(("127.0.0.1", self.demo.port), timeout=20) as connection:
            connection.sendall((
                f"POST {UPLOAD}?token={self.demo.token()} HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: {MULTIPART}\r\n"
                f"Cookie: session={self.demo.session}\r\nContent-Length: 1000\r\n\r\n").encode())
            self.assertTrue(wait_until(lambda: self.demo.programs("/www/cgi-bin/upload")))
            for pid in self.demo.programs("/www/cgi-bin/upload"):
                self.assertNotIn("connections.so", pathlib.Path(f"/proc/{pid}/maps").read_text())


class OtherSites(LoginTest):
    def test_a_form_of_another_site_is_refused_by_every_program(self):
        programs = sorted(each.name for each in (self.demo.root() / "www/cgi-bin").iterdir())
        files = self.demo.files()
        accounts = (self.demo.root() / "etc/shadow").read_bytes()
        for name in programs:
            for headers in ({"Origin": "http://evil.example"}, {"Origin": "null"},
                            {"Origin": None, "Referer": "http://evil.example/"},
                            {"Origin": f"http://127.0.0.1:{self.demo.port}.evil.example"},
                            {"Origin": f"http://localhost:{self.demo.port}"}):
                for cookie in ({}, STRANGER) if name == "login" else ({},):
                    with self.subTest(f"{name} {headers}"):
                        fields = {"user": USER, "password": OWNER_PASSWORD, "action": "restart",
                                  "old": OWNER_PASSWORD, "new": "evil evil", "again": "evil evil",
                                  "WLAN_SSID": "evil", "CONTACT": "evil"}
                        response = self.demo.post(f"/cgi-bin/{name}", fields, headers | cookie)
                        self.assertIn(response.status, (403, 405))
                        self.assertIsNone(response.headers["Set-Cookie"])
        self.assertTrue(self.demo.is_logged_in(self.demo.session))
        self.assertEqual(self.demo.files(), files)
        self.assertEqual((self.demo.root() / "etc/shadow").read_bytes(), accounts)

    def test_a_login_redirects_to_the_requested_page(self):
        for path in (NETWORK, DEVICE, DEVICE + "?saved=1", device.CLIENTS + "?sort=-ip"):
            response = self.demo.request("GET", path, headers=STRANGER)
            self.assert_to_login(response, path)
            page = Page(self.demo.request("GET", response.headers["Location"],
                                          headers=STRANGER).text)
            fields = dict(page.fields) | {"user": USER, "password": OWNER_PASSWORD}
            response = self.demo.post(LOGIN, fields, STRANGER)
            self.assertEqual((response.status, response.headers["Location"]), (303, path))
        response = self.demo.try_log_in()
        self.assertEqual((response.status, response.headers["Location"]), (303, STATUS))

    def test_a_login_redirects_only_to_pages_of_this_site(self):
        for target in ("http://evil.example/", "//evil.example/", "///evil.example/", "evil.example",
                       "/\\evil.example/", "\\\\evil.example/", "\\/evil.example", "https:evil.example",
                       "javascript:alert(1)", "data:text/html,x", "/\t/evil.example", "\t//evil.example",
                       " //evil.example", "/\r\n/evil.example", "/%0d%0aSet-Cookie:%20a=b",
                       "/cgi-bin/status\r\nSet-Cookie: a=b", "/cgi-bin/status\nLocation: //evil.example",
                       "/./\\evil.example", "/..//evil.example",
                       "", "/" * 200, "/" + "a" * 500, "/%5cevil.example", "%2f%2fevil.example",
                       "/@evil.example", ":80//evil.example", "?//evil.example", "#", "\u2215evil.example",
                       "/\u2215evil.example", "/cgi-bin/logout", LOGIN):
            with self.subTest(target[:40]):
                response = self.demo.try_log_in(next=target)
                self.assertEqual(response.status, 303)
                self.assertEqual(len(response.headers.get_all("Set-Cookie")), 1)
                location, = response.headers.get_all("Location")
                self.assertRegex(location, r"^/(?![/\\])[!-~]*$")
                own = f"http://127.0.0.1:{self.demo.port}"
                self.assertTrue(urllib.parse.urljoin(own + LOGIN, location).startswith(own + "/"))
                self.assertNotIn("\\", location)

                query = urllib.parse.urlencode({"next": target})
                page = self.demo.request("GET", f"{LOGIN}?{query}", headers=STRANGER)
                self.assertIn(page.status, (200, 400))
                self.assertIsNone(re.search(r"""(href|src|action)=["']?[^/#"']""", page.text))
        response = self.demo.try_log_in(next="/cgi-bin/status\0//evil.example")
        self.assertEqual((response.status, response.headers["Location"]), (400, None))

    def test_the_requested_page_is_shown_escaped(self):
        target = """/x"><script>alert(1)</script>'{{model}}&lt;"""
        query = urllib.parse.urlencode({"next": target})
        text = self.demo.request("GET", f"{LOGIN}?{query}", headers=STRANGER).text
        self.assertNotIn("<script>", text)
        self.assertIsNone(re.search("{{|}}", text))


class InBrowser(LoginTest):
    def test_a_login_and_a_logout(self):
        seen = self.walk("login", logged_in=False).result()
        self.assertTrue(seen["reason"])
        self.assertTrue(seen["at"][0].endswith(DEVICE), "the requested page")
        self.assertLessEqual(set(device.PAGES), set(seen["at"]))
        cookie, = seen["cookies"]
        self.assertEqual((cookie["name"], cookie["path"], cookie["httpOnly"], cookie["sameSite"],
                          cookie["expires"]), ("session", "/", True, "Strict", -1))
        self.assertEqual(seen["seenByScripts"], "")
        self.assertEqual(seen["after"], [])
        self.assertNotIn(self.demo.file_name(cookie["value"]), self.demo.sessions())
        self.assertIn(LOGIN, seen["end"])
