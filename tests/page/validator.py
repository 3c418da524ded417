#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Reads what the page kit wrote with independent parsers.

usage: validator.py json FILE       prints the value in ASCII, without spaces
       validator.py html FILE...    prints a line for each file: its parse errors, and its elements
                                    with their attributes and text, as JSON in ASCII
"""
import json
import sys


def refuse(constant):
    raise ValueError(f"{constant} is not JSON")


def canonical(value):
    return json.dumps(value, ensure_ascii=True, separators=(",", ":"))


def read_json(path):
    with open(path, "rb") as file:
        text = file.read().decode("utf-8")
    return canonical(json.loads(text, parse_constant=refuse))


def read_html(parser, path):
    with open(path, "rb") as file:
        text = file.read().decode("utf-8")
    document = parser.parse(text)
    elements = [[element.tag, dict(element.attrib), element.text or ""]
                for element in document.iter() if isinstance(element.tag, str)]
    return canonical([[code for _, code, _ in parser.errors], elements])


def main():
    kind, *paths = sys.argv[1:]
    if kind == "json":
        print(read_json(paths[0]))
        return
    import html5lib
    for path in paths:
        print(read_html(html5lib.HTMLParser(namespaceHTMLElements=False), path))


main()
