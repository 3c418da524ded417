# SPDX-License-Identifier: MIT
"""Compares what web servers do with slow and with many clients with the table of docs/servers.md."""
from concurrent.futures import ThreadPoolExecutor

import pytest

from limits import OTHERS, SLOW
from tables import table
from web_server import SERVERS, Site

LIMITS = "Limits"


@pytest.fixture(scope="session")
def slow_results(scratch, server):
    """The results of the clients that wait, all at the same time."""
    site = Site(server, scratch / f"{server}-slow")
    site.start()
    try:
        with ThreadPoolExecutor() as clients:
            yield {row: clients.submit(client, site) for row, client in SLOW.items()}
    finally:
        site.stop()


@pytest.mark.whole
@pytest.mark.parametrize("row", SLOW)
def test_slow_client_is_disconnected_as_the_table_says(server, slow_results, row, observe):
    observe(LIMITS, row, {SERVERS[server]: slow_results[row].result()})


@pytest.mark.whole
@pytest.mark.parametrize("row", OTHERS)
def test_limit_refuses_what_the_table_says(site, row, observe):
    observe(LIMITS, row, {SERVERS[site.name]: OTHERS[row](site)})
    assert site.wait_for_programs(60)


def test_table_has_a_cell_for_each_limit():
    cells = table(LIMITS)
    assert list(cells) == [*SLOW, *OTHERS]
    assert all(list(row) == list(SERVERS.values()) for row in cells.values())
