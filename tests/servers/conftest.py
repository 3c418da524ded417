# SPDX-License-Identifier: MIT
"""Runs the tests with each web server, with --short with two of them, and prints the tables of
docs/servers.md as they have been observed.
"""
import os
import tempfile
from pathlib import Path

import pytest

from tables import markdown, table
from web_server import SERVERS, Site

SHORT = ("lighttpd", "nginx")


def pytest_addoption(parser):
    parser.addoption("--short", action="store_true", help="test with two servers and few clients")


def pytest_configure(config):
    config.addinivalue_line("markers", "whole: left out of the short form")
    config.addinivalue_line("markers", "one_server: the server makes no difference")


def pytest_generate_tests(metafunc):
    if "server" in metafunc.fixturenames:
        servers = SHORT if metafunc.config.getoption("short") else tuple(SERVERS)
        if metafunc.definition.get_closest_marker("one_server"):
            servers = servers[:1]
        # The tests of a module share their servers.
        module = metafunc.module.__name__
        metafunc.parametrize("server", [
            pytest.param(name, marks=pytest.mark.xdist_group(f"{module} {name}"))
            for name in servers], scope="session")


@pytest.hookimpl(tryfirst=True)
def pytest_collection_modifyitems(config, items):
    if config.getoption("short"):
        items[:] = [item for item in items if not item.get_closest_marker("whole")]


@pytest.fixture(scope="session")
def scratch():
    with tempfile.TemporaryDirectory(prefix="corvel-servers-", ignore_cleanup_errors=True) as path:
        os.chmod(path, 0o755)  # Apache runs programs as an ordinary user
        yield Path(path)


@pytest.fixture(scope="session")
def running(scratch, server):
    """A running server."""
    site = Site(server, scratch / server)
    site.start()
    yield site
    site.stop()


@pytest.fixture
def site(running):
    """A running server whose programs have received nothing yet."""
    running.clear()
    yield running
    assert running.wait_for_programs(), running.log()


@pytest.fixture
def observe(record_property):
    """A function that compares cells of a row of a table, by column, with what was observed."""
    def compare(heading, row, observed):
        for column, cell in observed.items():
            record_property("cell", [heading, row, column, cell])
        expected = table(heading).get(row, {})
        assert {column: cell for column, cell in observed.items()
                if cell not in expected.get(column, "").split(" or ")} == {}

    return compare


def pytest_terminal_summary(terminalreporter):
    cells = [value for reports in terminalreporter.stats.values() for report in reports
             for name, value in getattr(report, "user_properties", ())
             if name == "cell" and report.when == "call"]
    terminalreporter.write(markdown(cells))
