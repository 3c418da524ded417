# SPDX-License-Identifier: MIT
"""Tests the documents as HTML."""
import html.parser
import re
import subprocess
import xml.etree.ElementTree as ElementTree

import pytest

from build_tree import SOURCE

DIAGRAMS = sorted((SOURCE / "docs/images").glob("*.svg"))


class Links(html.parser.HTMLParser):
    """The links, pictures and identifiers of a page."""

    def __init__(self, path):
        super().__init__()
        self.links, self.sources, self.ids, self.headings = [], [], set(), 0
        self.feed(path.read_text())

    def handle_starttag(self, tag, attributes):
        values = dict(attributes)
        if "id" in values:
            self.ids.add(values["id"])
        if tag == "a" and "href" in values:
            self.links.append(values["href"])
        if "src" in values:
            self.sources.append(values["src"])
        self.headings += tag == "h1"


@pytest.fixture(scope="module")
def pages(tmp_path_factory):
    directory = tmp_path_factory.mktemp("html")
    subprocess.run([SOURCE / "docs/make-html", directory], check=True)
    return {path.name: Links(path) for path in directory.glob("*.html")}, directory


def test_every_document_has_a_page(pages):
    found, _ = pages
    documents = {path.stem for path in (SOURCE / "docs").glob("*.md")}
    assert {f"{name}.html" for name in documents} | {"index.html", "demo.html"} <= set(found)
    assert {name: page.headings for name, page in found.items()} == dict.fromkeys(found, 1)


def test_links_within_the_pages_lead_somewhere(pages):
    found, _ = pages
    count = 0
    for name, page in found.items():
        for link in page.links:
            path, _, fragment = link.partition("#")
            if re.match(r"\w+:", link) or path.startswith("html/"):
                continue  # the reference is doxygen's
            count += 1
            assert (path or name) in found, f"{name}: {link}"
            assert not fragment or fragment in found[path or name].ids, f"{name}: {link}"
    assert count > 50


def test_pictures_are_local_and_exist(pages):
    found, directory = pages
    sources = {source for page in found.values() for source in page.sources}
    assert len(sources) >= 7
    for source in sources:
        assert (directory / source).is_file(), source


def test_programs_and_tables_are_kept(pages):
    _, directory = pages
    text = (directory / "first-page.html").read_text()
    assert "#include &lt;corvel_page.h&gt;" in text
    assert "<table>" in (directory / "index.html").read_text()


@pytest.mark.parametrize("path", DIAGRAMS, ids=lambda path: path.name)
def test_a_diagram_is_one_file_without_scripts(path):
    root = ElementTree.fromstring(path.read_text())
    assert root.tag.endswith("}svg")
    assert not re.search(r"<script|<image|href=|url\((?!#)", path.read_text())


def test_the_flash_map_is_that_of_the_library():
    shown = (SOURCE / "docs/images/flash.svg").read_text()
    header = (SOURCE / "firmware/image_format.h").read_text()
    rows = re.findall(r'\{"\w{4}", "([\w-]+)", (\d), \d+, \d, 0x(\w+), 0x(\w+), \d\}', header)
    assert len(rows) == 9
    for name, number, size, offset in rows:
        assert name in shown
        for text in (f"/dev/mtdblock{number}", f"{int(size, 16) // 1024} KiB", f"0x{int(offset, 16):06x}"):
            assert f">{text}<" in shown, (name, text)
