# SPDX-License-Identifier: MIT
"""Counts the checks of a run, prints them, and writes them for the runner of the suites."""
import contextlib
import time
import traceback
import xml.etree.ElementTree as ElementTree


class Report:
    def __init__(self):
        self.checks = []

    @property
    def passed(self):
        return sum(holds for _, holds, _ in self.checks)

    @property
    def failed(self):
        return len(self.checks) - self.passed

    def add(self, holds, title, output=""):
        """Counts a check without printing it."""
        self.checks.append((title, bool(holds), output))

    def check(self, holds, title):
        self.add(holds, title)
        print("ok    " if holds else "FAILED", title, flush=True)

    @contextlib.contextmanager
    def step(self, title):
        """Prints the time of a step. An exception ends the step and is counted as a failed check."""
        start = time.monotonic()
        try:
            yield
        except Exception:
            self.add(False, title, traceback.format_exc())
            traceback.print_exc()
        print(f"board: {title:36} {time.monotonic() - start:4.0f} s", flush=True)

    def write(self, path):
        """Writes the checks as JUnit's XML."""
        suite = ElementTree.Element("testsuite", name="board", tests=str(len(self.checks)),
                                    failures=str(self.failed))
        for title, holds, output in self.checks:
            case = ElementTree.SubElement(suite, "testcase", classname="board", name=title)
            if not holds:
                ElementTree.SubElement(case, "failure").text = output
        ElementTree.ElementTree(suite).write(path)
