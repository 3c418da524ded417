# SPDX-License-Identifier: MIT
"""Tests what the documents refer to: a relative link leads to an existing file, and its fragment to a
heading. In the documents about the code base, a code span that is a path exists, and one that is a
name occurs in the sources.
"""
import functools
import re

import pytest

from build_tree import SOURCE
from documents import tree, without_blocks

ABOUT_THE_CODE = ["CONTRIBUTING.md", "SECURITY.md", "docs/architecture.md", "docs/versioning.md"]
LINK = re.compile(r"\[[^\]]*\]\(([^()\s]+)\)")
CODE_SPAN = re.compile(r"`([^`\n]+)`")
# Names that a document leaves open, such as AREA/SUBJECT_test.cpp, and what a pattern matches.
OPEN_NAME = re.compile(r"AREA|SUBJECT|NAME|TARGET|[*{<]")
PATH = re.compile(r"[\w.-]+(/[\w.-]+)*/?")
# A name that is a word of English or of the shell could be anything.
CODE_NAME = re.compile(r"(?=.*(_|::|\(\)|[a-z][A-Z]))~?[A-Za-z_]\w*(::~?\w+)*(\(\))?")


def links():
    for document in tree(".md"):
        for link in LINK.findall(CODE_SPAN.sub("", without_blocks(document))):
            if not re.match(r"\w+:", link):
                yield pytest.param(document, link, id=f"{document.relative_to(SOURCE)} {link}")


def spans(is_wanted):
    for name in ABOUT_THE_CODE:
        for span in sorted(set(CODE_SPAN.findall(without_blocks(SOURCE / name)))):
            if not OPEN_NAME.search(span) and is_wanted(span):
                yield pytest.param(span, id=f"{name} {span}")


def is_path(span):
    return "/" in span and PATH.fullmatch(span) and not span.startswith("build/")


def is_name(span):
    return not is_path(span) and CODE_NAME.fullmatch(span)


def fragments(document):
    """Returns the fragments that lead to the headings of a document, as forges make them."""
    headings = re.findall(r"^#+ +(.*)$", without_blocks(document), re.MULTILINE)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}


@functools.cache
def words_of_the_sources():
    words = set()
    for path in tree(".h", ".cpp", ".c", "CMakeLists.txt", "CMakePresets.json"):
        words.update(re.findall(r"\w+", path.read_text(errors="replace")))
    return words


@pytest.mark.parametrize("document, link", links())
def test_link_leads_somewhere(document, link):
    path, _, fragment = link.partition("#")
    target = document.parent / path if path else document
    assert target.exists()
    assert not fragment or fragment in fragments(target)


@pytest.mark.parametrize("span", spans(is_path))
def test_path_exists(span):
    assert (SOURCE / span).exists()


@pytest.mark.parametrize("span", spans(is_name))
def test_name_is_in_the_sources(span):
    assert set(re.findall(r"\w+", span)) <= words_of_the_sources()
