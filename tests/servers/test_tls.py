# SPDX-License-Identifier: MIT
"""lighttpd with TLS, as docs/servers.md shows it."""
import http.client
import ssl

import pytest

from http_client import exchange, request
from web_server import Site


@pytest.fixture(scope="module")
def tls_site(scratch):
    site = Site("lighttpd", scratch / "tls")
    site.start("lighttpd with TLS")
    yield site
    site.stop()


def test_request_without_tls_is_redirected_and_starts_no_program(tls_site):
    response = exchange(tls_site.port, request("GET", "/cgi-bin/record?a=1"))
    assert response.status == 308
    assert response.fields["location"] == "https://router/cgi-bin/record?a=1"
    response = exchange(tls_site.port, request("POST", "/cgi-bin/form_page", b"a=1"))
    assert (response.status, response.fields["location"]) == (308, "https://router/cgi-bin/form_page")
    assert list(tls_site.received.iterdir()) == []


def test_program_gets_https(tls_site):
    trusted = ssl.create_default_context(cafile=tls_site.root / "run/router.crt")
    connection = http.client.HTTPSConnection("127.0.0.1", tls_site.tls_port, context=trusted)
    connection.request("GET", "/cgi-bin/record")
    assert connection.getresponse().read() == b"recorded\n"
    assert "HTTPS=on" in (tls_site.received / "environment").read_text().splitlines()
