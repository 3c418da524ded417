# SPDX-License-Identifier: MIT
"""One's own pages, served from the device."""
import json
import os
import signal

import pytest

from conftest import add_program, fetch


@pytest.fixture
def site(device, www):
    with device.site("--www", www) as (address, _):
        yield address


def test_programs_and_files_are_served_on_the_machine(site):
    assert fetch(f"{site}/") == (200, "<p>the front page</p>\n")
    assert fetch(f"{site}/cgi-bin/shell") == (200, "from /www/cgi-bin/shell\n")


def test_a_program_built_with_pkg_config_sees_the_devices_settings(site):
    status, body = fetch(f"{site}/cgi-bin/page", b"sent=a+word")
    assert (status, json.loads(body)) == (200, {"address": "192.168.1.1", "sent": "a word", "cookie": None})


def test_the_libraries_of_the_device_serve_when_the_caller_names_none(device, www):
    del device.variables["LD_LIBRARY_PATH"]
    with device.site("--www", www) as (address, _):
        assert fetch(f"{address}/cgi-bin/page")[0] == 200


def test_a_changed_program_is_effective_at_once(site, www):
    add_program(www, "shell", 'printf "Content-Type: text/plain\\r\\n\\r\\nanother\\n"')
    assert fetch(f"{site}/cgi-bin/shell") == (200, "another\n")


@pytest.mark.parametrize("path", ("/secret", "/../secret", "/cgi-bin/../secret", "/cgi-bin/%2e%2e/secret",
                                  "/cgi-bin/missing"))
def test_other_files_of_the_directory_are_not_served(site, path):
    assert fetch(site + path)[0] == 404


def test_requests_under_another_host_name_are_refused(site):
    assert fetch(f"{site}/", Host="evil.example")[0] == 403


def test_a_link_that_leads_out_of_the_site_is_reported(device, www):
    (www / "public/inside").symlink_to("index.html")
    (www / "public/outside").symlink_to("../../file")
    done = device.run("--www", www, "--", "true")
    assert done.status == 0
    assert "public/outside leads out of the site" in done.errors
    assert "inside" not in done.errors


def test_addresses_of_programs_are_printed(device, www):
    with device.site("--www", www) as (address, process):
        lines = [process.stdout.readline().strip() for _ in range(2)]
    assert lines == [f"{address}/cgi-bin/page", f"{address}/cgi-bin/shell"]


def test_what_a_program_prints_as_an_error_is_shown(device, www):
    with device.site("--www", www) as (address, process):
        fetch(f"{address}/cgi-bin/shell")
        assert process.stderr.readline() == "seen\n"


@pytest.mark.parametrize("number", (signal.SIGINT, signal.SIGTERM))
def test_it_stops_with_a_signal(device, www, number):
    with device.site("--www", www) as (address, process):
        process.send_signal(number)
        assert process.wait(20) == 128 + number
        assert [path.name for path in device.directory.iterdir()] == ["www"]


def test_a_command_reaches_the_site_inside_the_device(device, www):
    for address in ("127.0.0.1", "192.168.1.1"):
        shown = device.shell(f"curl --silent http://{address}/cgi-bin/shell", "--www", www)
        assert shown == "from /www/cgi-bin/shell\n"


def test_the_site_returns_after_a_restart_of_the_device(device, www):
    """The directories that the command sees are not among those that a start empties."""
    precious = device.directory / "precious"
    precious.mkdir()
    (precious / "file").write_text("kept\n")
    script = ("cat /run/boot_id; /sbin/reboot; for i in $(seq 200); do [ -e /run/reboot ] || break; sleep 0.05; done;"
              "for i in $(seq 200); do [ -s /run/lighttpd.pid ] && break; sleep 0.05; done;"
              "cat /run/boot_id; curl --silent http://127.0.0.1/")
    first, second, page = device.shell(script, "--www", www, "--write", precious).splitlines()
    assert first != second
    assert page == "<p>the front page</p>"
    assert (precious / "file").read_text() == "kept\n"
    assert (www / "secret").exists()


def test_settings_that_a_page_saves_are_kept_with_a_state(device, www):
    state = device.directory / "state"
    script = "curl --silent http://127.0.0.1/cgi-bin/page"
    assert '"192.168.1.1"' in device.shell(script, "--www", www, "--state", state)
    assert '"192.168.1.2"' in device.shell(script, "--www", www, "--state", state)


def test_the_demo_is_served_when_it_is_installed(device):
    with device.site("--demo") as (address, _):
        status, body = fetch(f"{address}/cgi-bin/login")
    assert status == 200
    assert "<form" in body


def test_a_device_that_ends_is_reported(device, www):
    with device.site("--www", www, "--state", "state") as (_, process):
        first = json.loads((device.directory / "state/var/device.pid").read_text())["child-pid"]
        os.kill(first, signal.SIGKILL)
        assert process.wait(20) == 1
        assert "the web server has ended" in process.stderr.read()
