# SPDX-License-Identifier: MIT
"""The functions that the pages use, as the build has found out from their programs."""

import re

from build_tree import SOURCE
from demo_test import Case, SharedDemoTest
from device import IMAGE, LOGIN, PAGES, Element

MADE_WITH = IMAGE / "www/made-with"
# The functions of the interface that no page uses, each with the reason.
UNUSED = SOURCE / "tests/end-to-end/unused-functions"
DATA = {"bb_default_error_retval", "bb_msg_memory_exhausted", "bootparam", "env_image_mem"}


def functions(name):
    """Returns the functions that a program uses."""
    return set(re.findall(r"\w+(?=\(\))", (MADE_WITH / name).read_text()))


class MadeWith(SharedDemoTest):
    def test_a_page_names_the_functions_of_its_program(self):
        for path in PAGES:
            summary, = Element.of_page(self.demo.get(path).text).find("details")
            text = (MADE_WITH / path.rpartition("/")[2]).read_text().strip()
            self.assertIn(text, summary.text)
            self.assertLess(len(text), 4000)
        self.assertIn("getHWip", functions("status"))
        self.assertNotIn("getHWip", functions("password"))

    def test_a_stranger_is_not_told(self):
        self.assertEqual(Element.of_page(self.demo.get(LOGIN, Cookie=None).text).find("details"), [])


class Unused(Case):
    def test_each_function_that_no_page_uses_is_listed_with_the_reason(self):
        """The list and the programs agree: a function that a page begins or ceases to use is a
        difference."""
        listed = {}
        for line in UNUSED.read_text().splitlines():
            if line and not line.startswith("#"):
                name, reason = re.fullmatch(r"(\w+)  (\S.+)", line).groups()
                self.assertNotIn(name, listed)
                listed[name] = reason
        exported = set((SOURCE / "tests/surface/exports.txt").read_text().split()) - DATA
        used = set().union(*(functions(path.name) for path in MADE_WITH.iterdir()))
        unused = exported - used
        print(f"{len(unused)} of {len(exported)} functions are used by no page:")
        for name in sorted(unused):
            print(f"  {name}: {listed.get(name, 'no reason')}")
        self.assertEqual(sorted(unused), sorted(listed))
