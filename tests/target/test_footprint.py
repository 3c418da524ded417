# SPDX-License-Identifier: MIT
"""Tests C programs for the board with the shared and with the static library, and the footprint of
the libraries, which is written into the file `footprint` of the build.
"""
import re
import subprocess
from pathlib import Path

import pytest

from build_tree import BUILD, SOURCE

SYSROOT = SOURCE / "build" / "mips-sysroot"
EMULATOR = ["qemu-mips", "-L", SYSROOT]

LIBRARY_LIMIT = 64 * 1024
WRITABLE_LIMIT = 80 * 1024
KIT_LIMIT = 77 * 1024
KIT_WRITABLE_LIMIT = 4 * 1024

CONFIGURATION = 'IPADDR="192.168.1.1"\nNETMASK="255.255.255.0"\n'
TEMPLATE = '<input name="IPADDR" value="$IPADDR">\n'
PAGE = b'Content-Type: text/html\r\n\r\n<input name="IPADDR" value="192.168.1.1">\n'


def tool(name, *arguments):
    return subprocess.run([SYSROOT / f"bin/mips-linux-musl-{name}", *arguments], check=True,
                          stdout=subprocess.PIPE, text=True).stdout


def sections(library):
    """Returns the size of each section."""
    return {name: int(size) for name, size in
            re.findall(r"^(\.\S+)\s+(\d+)\s+\d+$", tool("size", "-A", library), re.MULTILINE)}


def writable_memory(library):
    """Returns the size of the library's writable segments, which each process has a copy of."""
    return sum(int(size, 16) for size, flags in re.findall(
        r"^\s+LOAD\s+\S+ \S+ \S+ \S+ (\S+) (...)", tool("readelf", "-lW", library), re.MULTILINE)
        if "W" in flags)


def dynamic_relocations(library):
    return len(re.findall(r"^[0-9a-f]{8}\s+[0-9a-f]{8}\s+R_MIPS_(?!NONE)",
                          tool("readelf", "-rW", library), re.MULTILINE))


def system_calls(program, directory):
    """Counts the system calls of the emulated program, including those of the loader."""
    trace = subprocess.run([*EMULATOR[:1], "-strace", *EMULATOR[1:], program, directory],
                           check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                           stderr=subprocess.PIPE, text=True).stderr
    return len(re.findall(r"^\d+ [a-z_0-9]+\(", trace, re.MULTILINE))


def resident_memory(program, directory):
    """Returns the KiB of resident and of private dirty emulated memory after printing the page."""
    process = subprocess.Popen([*EMULATOR, program, directory], stdin=subprocess.PIPE,
                               stdout=subprocess.PIPE)
    try:
        shown = process.stdout.read(len(PAGE))
        total = own = 0
        emulated = False
        for line in Path(f"/proc/{process.pid}/smaps").read_text().splitlines():
            bounds = re.match(r"([0-9a-f]+)-[0-9a-f]+ ", line)
            if bounds:
                # The emulated 32-bit memory is below 4 GiB, the emulator itself far above.
                emulated = int(bounds[1], 16) < 1 << 32
            size = re.match(r"(Rss|Private_Dirty):\s+(\d+) kB", line)
            if emulated and size and size[1] == "Rss":
                total += int(size[2])
            elif emulated and size:
                own += int(size[2])
    finally:
        process.stdin.close()
        process.wait()
    if shown != PAGE:
        raise RuntimeError(f"{program} printed {shown}")
    return total, own


@pytest.fixture(scope="module")
def directory(tmp_path_factory):
    made = tmp_path_factory.mktemp("pages")
    (made / "lan.conf").write_text(CONFIGURATION)
    (made / "lan.html").write_text(TEMPLATE)
    return made


def stripped(name, directory):
    """Returns a stripped copy of a library."""
    copy = directory / name
    tool("strip", "-o", copy, BUILD / name)
    return copy


@pytest.fixture(scope="module")
def library(directory):
    return stripped("libcorvel.so", directory)


@pytest.fixture(scope="module")
def kit(directory):
    return stripped("libcorvel_page.so", directory)


@pytest.mark.parametrize("name", ("page", "page_static", "page_alone"))
def test_a_program_prints_its_page(name, directory):
    done = subprocess.run([*EMULATOR, BUILD / "tests" / name, directory], stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    assert (done.returncode, done.stdout) == (0, PAGE)


def test_size_of_the_library_is_within_its_limit(library):
    assert library.stat().st_size <= LIBRARY_LIMIT


def test_writable_memory_is_within_its_limit(library):
    assert writable_memory(library) <= WRITABLE_LIMIT


def test_size_of_the_page_kit_is_within_its_limit(kit):
    assert kit.stat().st_size <= KIT_LIMIT


def test_writable_memory_of_the_page_kit_is_within_its_limit(kit):
    assert writable_memory(kit) <= KIT_WRITABLE_LIMIT


def footprint_of(library, limit, writable_limit):
    part = sections(library)
    title = f"{library.name}, stripped"
    return [
        f"{title:34}{library.stat().st_size:7} bytes  (limit {limit})",
        f"  code                            {part['.text']:7}",
        f"  constant data                   {part['.rodata']:7}",
        f"  writable memory                 {writable_memory(library):7} bytes"
        f"  (limit {writable_limit})",
        f"  dynamic relocations             {dynamic_relocations(library):7}"]


def test_the_footprint_is_written(library, kit, directory):
    lines = footprint_of(library, LIBRARY_LIMIT, WRITABLE_LIMIT)
    lines += footprint_of(kit, KIT_LIMIT, KIT_WRITABLE_LIMIT)
    for name, title in (("page_alone", "without the library"), ("page", "with the library")):
        total, own = resident_memory(BUILD / "tests" / name, directory)
        calls = system_calls(BUILD / "tests" / name, directory)
        lines.append(f"a page {title:26} {calls:7} system calls, "
                     f"{total} KiB resident, {own} of them private")
    (BUILD / "footprint").write_text("\n".join(lines) + "\n")
