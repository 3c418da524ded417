#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""usage: python_upload.py LIBRARY URL FILE...

Sends the files and a field as a form with requests, httpx or aiohttp, and prints the response.
"""
import asyncio
import contextlib
import sys
from pathlib import Path

NOTE = "caf\u00e9 & tea"


def with_requests(url, paths):
    import requests
    with contextlib.ExitStack() as stack:
        files = [("file", stack.enter_context(path.open("rb"))) for path in paths]
        return requests.post(url, data={"note": NOTE}, files=files, timeout=60).text


def with_httpx(url, paths):
    import httpx
    with contextlib.ExitStack() as stack:
        files = [("file", stack.enter_context(path.open("rb"))) for path in paths]
        return httpx.post(url, data={"note": NOTE}, files=files, timeout=60).text


async def with_aiohttp(url, paths):
    import aiohttp
    form = aiohttp.FormData()
    form.add_field("note", NOTE)
    for path in paths:
        form.add_field("file", path.read_bytes(), filename=path.name)
    async with aiohttp.ClientSession() as session, session.post(url, data=form) as response:
        return await response.text()


def main():
    library, url, *names = sys.argv[1:]
    paths = [Path(name) for name in names]
    if library == "aiohttp":
        print(asyncio.run(with_aiohttp(url, paths)))
    else:
        print({"requests": with_requests, "httpx": with_httpx}[library](url, paths))


if __name__ == "__main__":
    main()
