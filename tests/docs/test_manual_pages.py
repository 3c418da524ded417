# SPDX-License-Identifier: MIT
"""Tests of docs/make-manual-pages: of the pages that an installation holds, and of its own rules."""
import os
import re
import subprocess
import tempfile
import unittest
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from build_tree import INSTALLED
from build_tree import SOURCE as ROOT

HERE = Path(__file__).resolve().parent
EXAMPLE = HERE / "example.h"


def run(command, **options):
    """Runs a command to its end and returns its status and all that it printed."""
    done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, timeout=120, encoding="utf-8", **options)
    return done.returncode, done.stdout


# Each header, the list of its exports, and the macro before each of its declarations.
LIBRARIES = {
    "corvel": ("exports.txt", "CORVEL_API"),
    "corvel_page": ("page_exports.txt", "CORVEL_PAGE_API"),
}


def header_of(library):
    return (ROOT / "include" / f"{library}.h").read_text()


def exports_of(library):
    return (ROOT / "tests" / "surface" / LIBRARIES[library][0]).read_text().split()


def make_pages(header, directory):
    """Makes the pages of a header, dated 2001-09-09."""
    return run([ROOT / "docs" / "make-manual-pages", "--header", header, "--release", "1.2.3",
                directory], env={**os.environ, "SOURCE_DATE_EPOCH": "1000000000"})


def man_warnings(pages):
    """What man says about pages, besides showing them."""
    done = subprocess.run(["man", "--local-file", "--warnings=w", "-Tutf8", "--ditroff", *pages],
                          stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                          stderr=subprocess.PIPE, timeout=120, encoding="utf-8",
                          env={**os.environ, "LC_ALL": "C.UTF-8", "MANWIDTH": "80"})
    return done.stderr + (f"man: status {done.returncode}\n" if done.returncode else "")


def plain(source):
    """A source without fonts, its white space one space each."""
    return re.sub(r"\s+", " ", re.sub(r"\\f[BIR]", "", source))


def lint(pages):
    """What both formatters say about pages."""
    slices = [pages[start::4] for start in range(4) if pages[start::4]]
    with ThreadPoolExecutor() as threads:
        warnings = "".join(threads.map(man_warnings, slices))
    return run(["mandoc", "-Tlint", *pages])[1] + warnings


class InstalledPages(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.manual = INSTALLED / "share" / "man"
        cls.pages = sorted((cls.manual / "man3").iterdir())

    def test_each_export_record_and_group_has_a_page_and_nothing_else(self):
        expected = set(LIBRARIES)
        for library in LIBRARIES:
            header = header_of(library)
            expected |= set(exports_of(library))
            expected |= set(re.findall(r"^typedef struct (\w+) \{", header, re.MULTILINE))
            expected |= {f"corvel_{name}" for name in re.findall(r"@defgroup (\w+)", header)}
        self.assertEqual({page.name for page in self.pages}, {f"{name}.3" for name in expected})

    def test_no_page_makes_man_or_mandoc_warn(self):
        self.assertEqual(lint(self.pages), "")

    def test_man_finds_a_page_by_the_name_of_its_function(self):
        status, output = run(["man", "-M", self.manual, "-w", "save_prop"])
        self.assertEqual((status, output.strip()), (0, str(self.manual / "man3" / "save_prop.3")))

    def test_a_search_finds_each_page_by_its_name_and_a_description(self):
        status, output = run(["lexgrog", *self.pages])
        self.assertEqual(status, 0, output)
        for page in self.pages:
            self.assertRegex(output, rf'(?m)^{re.escape(str(page))}: "{page.stem} - .{{5,}}')

    def test_each_synopsis_is_the_declaration_in_the_header(self):
        for library, (_, mark) in LIBRARIES.items():
            declared = set(re.findall(mark + r" ([^;#]*?)(?: CORVEL\w*_PRINTF_LIKE\(\d, \d\))?;",
                                      plain(header_of(library))))
            shown = set()
            for name in exports_of(library):
                source = plain((self.manual / "man3" / f"{name}.3").read_text())
                shown.add(re.search(rf"#include <{library}\.h> \.PP (?:extern )?(.*?); \.fi",
                                    source)[1])
            self.assertEqual(shown, declared)

    def test_each_page_names_its_library_and_the_version(self):
        version = ".".join(re.findall(r"^#define CORVEL_VERSION_\w+ (\d+)$", header_of("corvel"),
                                      re.MULTILINE))
        for page in self.pages:
            source = page.read_text()
            library = re.search(r"(?m)^\.TH \S+ 3 [\d-]+ \"lib(\w+) " + re.escape(version) + '" ',
                                source)[1]
            self.assertIn(rf"#include <{library}.h>", source)
            self.assertIn(f"lib{library} (\\fI\\-l{library}\\fR)", source)


class Rendering(unittest.TestCase):
    """The pages of a header with all markup; the expected texts are in the directory `expected`."""

    @classmethod
    def setUpClass(cls):
        cls.scratch = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.scratch.cleanup)
        cls.directory = Path(cls.scratch.name)
        status, output = make_pages(EXAMPLE, cls.directory)
        assert (status, output) == (0, ""), output

    def assert_shown_as_expected(self, page):
        status, output = run(["mandoc", "-Tutf8", "-Owidth=80", self.directory / f"{page}.3"])
        self.assertEqual(status, 0, output)
        shown = re.sub(r".\x08", "", output)
        expected = HERE / "expected" / f"{page}.txt"
        self.assertEqual(shown, expected.read_text(encoding="utf-8"))

    def test_the_pages_are_those_of_the_header(self):
        self.assertEqual({page.name for page in self.directory.iterdir()},
                         {"example.3", "corvel_shelf.3", "book.3", "shelf_in_use.3", "shelve.3",
                          "unshelve.3", "find_shelf.3"})

    def test_a_function(self):
        self.assert_shown_as_expected("shelve")

    def test_a_function_with_a_result_only(self):
        self.assert_shown_as_expected("unshelve")

    def test_a_variable(self):
        self.assert_shown_as_expected("shelf_in_use")

    def test_a_record(self):
        self.assert_shown_as_expected("book")

    def test_a_group(self):
        self.assert_shown_as_expected("corvel_shelf")

    def test_the_overview(self):
        self.assert_shown_as_expected("example")

    def test_fonts_tell_names_from_text(self):
        source = (self.directory / "shelve.3").read_text()
        self.assertIn(r"\fBint shelve(book *\fIshelf\fB, const char *\fIname\fB, ", source)
        self.assertIn(r"\fBunshelve\fR(3)", source)
        self.assertIn(r"slow: no. \-1, no. 10", source)
        self.assertIn(r"The form of \fIname\fR:", source)

    def test_neither_man_nor_mandoc_warns(self):
        self.assertEqual(lint(sorted(self.directory.iterdir())), "")

    def test_a_page_that_is_no_longer_made_is_removed(self):
        (self.directory / "gone.3").write_text("")
        make_pages(EXAMPLE, self.directory)
        self.assertFalse((self.directory / "gone.3").exists())


class TwoHeaders(unittest.TestCase):
    """The pages of several headers are in one directory."""

    def make(self, second):
        """The status, the output, and the names of the pages of example.h and a second header."""
        with tempfile.TemporaryDirectory() as scratch:
            header, directory = Path(scratch) / "second.h", Path(scratch) / "pages"
            header.write_text(f"/** @file\n * A file. */\n/** Text. */\n{second}\n")
            status, output = run([ROOT / "docs" / "make-manual-pages", "--header", EXAMPLE,
                                  "--header", header, "--release", "1.2.3", directory])
            return status, output, {page.name for page in directory.glob("*")}

    def test_each_header_has_its_pages(self):
        status, output, pages = self.make("void function(void);")
        self.assertEqual((status, output), (0, ""))
        self.assertLessEqual({"example.3", "shelve.3", "second.3", "function.3"}, pages)

    def test_a_name_in_two_headers_is_an_error(self):
        status, output, pages = self.make("int unshelve(void);")
        self.assertEqual((status, output, pages), (1, "unshelve.3: in two headers\n", set()))


class Faults(unittest.TestCase):
    """What cannot be shown ends the program, which then writes nothing."""

    def assert_refused(self, comment, message, declaration="void function(int a);"):
        with tempfile.TemporaryDirectory() as scratch:
            header, directory = Path(scratch) / "faulty.h", Path(scratch) / "pages"
            header.write_text(f"/** @file\n * A file. */\n/** {comment} */\n{declaration}\n")
            status, output = make_pages(header, directory)
            self.assertEqual(status, 1, output)
            self.assertRegex(output, message)
            self.assertFalse(directory.exists())

    def test_unknown_markup(self):
        self.assert_refused("A formula: \\f$ x \\f$.",
                            "faulty.h:4: function: unknown markup <formula>")

    def test_unknown_markup_in_a_list(self):
        self.assert_refused("Text.\n * - a\n * - H<sub>2</sub>\n", "unknown markup <subscript>")

    def test_an_unknown_section(self):
        self.assert_refused("Text. @author Nobody", "unknown section @author")

    def test_a_list_of_things_to_do(self):
        self.assert_refused("Text. @todo Write it.", "the header has parts that no page shows")

    def test_a_function_without_a_sentence(self):
        self.assert_refused("@param a a number.", "function: no sentence says what it is")

    def test_a_code_span_that_does_not_end_in_its_line(self):
        self.assert_refused("Text with `one\n * word`s span and `another.",
                            "a code span that does not end in its line")

    def test_a_field_without_a_description(self):
        self.assert_refused("Text.", "record: first has no description",
                            "typedef struct record { int first; } record;")

    def test_a_kind_of_declaration_without_a_page(self):
        self.assert_refused("Text.", "the header has parts that no page shows: union",
                            "union either { int first; /**< One. */ };")


class Build(unittest.TestCase):
    """When the pages are part of the build."""

    def configure(self, *options, source=ROOT):
        """The status, the output and the value of the option."""
        with tempfile.TemporaryDirectory() as build:
            status, output = run(["cmake", "-S", source, "-B", build, "-DBUILD_TESTING=OFF",
                                  *options])
            cache = Path(build) / "CMakeCache.txt"
            value = re.search(r"^CORVEL_MANUAL_PAGES:BOOL=(\w+)$", cache.read_text(), re.MULTILINE)
            return status, output, value[1]

    def test_without_doxygen_the_library_is_built_without_pages(self):
        status, output, value = self.configure("-DCMAKE_DISABLE_FIND_PACKAGE_Doxygen=ON")
        self.assertEqual((status, value), (0, "OFF"), output)

    def test_pages_that_are_asked_for_need_doxygen(self):
        status, output, _ = self.configure("-DCMAKE_DISABLE_FIND_PACKAGE_Doxygen=ON",
                                           "-DCORVEL_MANUAL_PAGES=ON")
        self.assertNotEqual(status, 0, output)
        self.assertIn("Doxygen", output)

    def test_a_build_for_a_board_makes_no_pages_unless_asked_to(self):
        status, output, value = self.configure("-DCMAKE_SYSTEM_NAME=Linux")
        self.assertEqual((status, value), (0, "OFF"), output)

    def test_a_project_that_the_library_is_a_part_of_makes_no_pages_unless_asked_to(self):
        with tempfile.TemporaryDirectory() as source:
            (Path(source) / "CMakeLists.txt").write_text(
                "cmake_minimum_required(VERSION 3.20)\n"
                "project(whole LANGUAGES C CXX)\n"
                f'add_subdirectory("{ROOT}" corvel)\n')
            status, output, value = self.configure(source=source)
        self.assertEqual((status, value), (0, "OFF"), output)

    def test_a_plain_build_makes_pages(self):
        status, output, value = self.configure()
        self.assertEqual((status, value), (0, "ON"), output)
