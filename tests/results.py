#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Counts the tests of a run and prints the output of each one that did not pass. A test that was
skipped or could not be run counts as failed.

usage: tests/results.py JUNIT        the results of the tests, as written by ctest

The last line is "N passed, N failed".
"""
import sys
import xml.etree.ElementTree as ElementTree


def count(junit):
    """Returns the number of tests that passed and of those that did not."""
    cases = list(ElementTree.parse(junit).getroot().iter("testcase"))
    missed = [case for case in cases if case.get("status") != "run"]
    for case in missed:
        print(f"--- not passed: {case.get('name')} ({case.get('status')})")
        print(case.findtext("system-out", ""))
    return len(cases) - len(missed), len(missed)


def main():
    passed, failed = count(sys.argv[1])
    print(f"{passed} passed, {failed} failed")
    return 0 if passed and not failed else 1


if __name__ == "__main__":
    sys.exit(main())
