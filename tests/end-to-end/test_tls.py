# SPDX-License-Identifier: MIT
"""The demo by TLS, with a certificate of its own, which the tests trust."""

import stat

from demo_test import Case
from device import DEVICE, STATUS, Demo


class Tls(Case):
    def test_the_site_is_served_by_tls_alone(self):
        state = self.make_directory() / "state"
        with Demo("--tls", state=state) as demo:
            self.check_cookie(demo)
            self.check_forms(demo)
            self.check_that_there_is_no_plain_site(demo)
            certificate = (state / "var/tls/router.crt").read_bytes()
            self.assertEqual(stat.S_IMODE((state / "var/tls/router.key").stat().st_mode), 0o600)
            self.assertEqual(demo.crashes(), [])
        with Demo("--tls", state=state) as demo:
            self.assertEqual((state / "var/tls/router.crt").read_bytes(), certificate)
            self.assertEqual(demo.get(STATUS).status, 200)

    def check_cookie(self, demo):
        _, *attributes = demo.try_log_in().headers["Set-Cookie"].split("; ")
        self.assertEqual(set(attributes), {"Path=/", "HttpOnly", "SameSite=Strict", "Secure"})

    def check_forms(self, demo):
        """A page of the same address without TLS is another site."""
        refused = demo.post(DEVICE, {"CONTACT": "x"}, {"Origin": f"http://127.0.0.1:{demo.port}"})
        self.assertEqual(refused.status, 403)
        self.assertEqual(demo.post(DEVICE, {"CONTACT": "Ann"}).status, 303)
        self.assertEqual(demo.json(DEVICE)["CONTACT"], "Ann")

    def check_that_there_is_no_plain_site(self, demo):
        self.assertNotIn(b"HTTP/1.1 2", demo.raw(b"GET /cgi-bin/login HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n"))
