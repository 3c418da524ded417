# SPDX-License-Identifier: MIT
"""Compares what web servers and CGI programs make of each kind of request with the tables of
docs/servers.md.
"""
import pytest

from observations import PAGE_REQUESTS, PASSED, Pages, Passed
from tables import table
from web_server import SERVERS

LIBRARIES = {"page": "Pages on the kit", "interface": "Pages on the interface"}
PROGRAMS = "What a program gets"


@pytest.mark.parametrize("row", PAGE_REQUESTS)
@pytest.mark.parametrize("library", LIBRARIES)
def test_page_responds_as_the_table_says(site, library, row, observe):
    observe(LIBRARIES[library], row, {
        SERVERS[site.name]: PAGE_REQUESTS[row](Pages(site, library))})


@pytest.mark.parametrize("row", PASSED)
def test_program_gets_what_the_table_says(site, row, observe):
    observe(PROGRAMS, row, {SERVERS[site.name]: PASSED[row](Passed(site))})


@pytest.mark.parametrize("heading, rows", [
    *((heading, PAGE_REQUESTS) for heading in LIBRARIES.values()), (PROGRAMS, PASSED)])
def test_table_has_a_cell_for_each_observation(heading, rows):
    cells = table(heading)
    assert list(cells) == list(rows)
    assert all(list(row) == list(SERVERS.values()) for row in cells.values())
