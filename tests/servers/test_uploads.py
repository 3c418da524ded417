# SPDX-License-Identifier: MIT
"""Compares which files of each HTTP client arrive with the tables of docs/servers.md."""
import json

import pytest

from clients import CLIENTS, FIELD, SAMPLES, SHORT, send, write_samples
from tables import table

KIT = "Uploads on the kit"
INTERFACE = "Uploads on the interface"

each_client = pytest.mark.parametrize("client", [
    pytest.param(name, marks=() if name in SHORT else pytest.mark.whole) for name in CLIENTS])


@pytest.fixture
def samples(running):
    return write_samples(running.root / "samples")


def arrival(site, column, stored, number):
    """Returns the words for a file that a page has stored."""
    name, content = SAMPLES[column]
    received = (site.received / str(number)).read_bytes()
    if received != content:
        return f"{len(received)} of {len(content)} bytes"
    return "arrives" if stored["name"] == name else f"arrives as `{stored['name']}`"


@each_client
def test_every_file_arrives_on_the_kit(site, samples, client, observe):
    url = f"http://127.0.0.1:{site.port}/cgi-bin/upload_page"
    response = json.loads(send(client, url, list(samples.values()), site.root))
    assert response["fields"] == {"note": FIELD}
    assert len(response["files"]) == len(samples)
    cells = {column: arrival(site, column, response["files"][number], number)
             for number, column in enumerate(samples)}
    assert all(cell.startswith("arrives") for cell in cells.values())
    observe(KIT, client, cells)


@pytest.mark.one_server
@each_client
@pytest.mark.parametrize("column", SAMPLES)
def test_file_arrives_on_the_interface_as_the_table_says(site, samples, client, column, observe):
    url = f"http://127.0.0.1:{site.port}/cgi-bin/upload_interface"
    stored = json.loads(send(client, url, [samples[column]], site.root))["files"]
    cell = arrival(site, column, stored[0], 0) if stored else "is skipped"
    observe(INTERFACE, client, {column: cell})


@pytest.mark.parametrize("heading", (KIT, INTERFACE))
def test_table_has_a_cell_for_each_file(heading):
    cells = table(heading)
    assert list(cells) == list(CLIENTS)
    assert all(list(row) == list(SAMPLES) for row in cells.values())
