# SPDX-License-Identifier: MIT
"""What tests have in common: a demo to look at, and that none of its programs may crash."""

import pathlib
import shutil
import tempfile
import unittest

from browser import Walk
from device import Demo, shared_demo


class Case(unittest.TestCase):
    maxDiff = None

    def make_folder(self):
        """A new folder that is gone after the test."""
        folder = pathlib.Path(tempfile.mkdtemp(prefix="corvel-test-"))
        self.addCleanup(shutil.rmtree, folder, ignore_errors=True)
        return folder


class DemoTest(Case):
    """Tests against self.demo."""

    def tearDown(self):
        self.assertEqual(self.demo.crashes(), [])

    def walk(self, name, *arguments, **options):
        """Begins a walk in a browser; it ends with the test at the latest."""
        walk = Walk(name, self.demo, *arguments, **options)
        self.addCleanup(walk.stop)
        return walk


class SharedDemoTest(DemoTest):
    """Tests that leave the demo as they found it. Each begins with a session of its own."""

    @classmethod
    def setUpClass(cls):
        cls.demo = shared_demo()

    def setUp(self):
        # A success makes the device forget the failures of the tests before.
        self.demo.session = self.demo.log_in()


class OwnDemoTest(DemoTest):
    """Tests that need a demo for their class alone, with these arguments."""

    arguments = ()

    @classmethod
    def setUpClass(cls):
        cls.demo = Demo(*cls.arguments)
        cls.addClassCleanup(cls.demo.stop)
        cls.factory = cls.demo.files()

    def restore_settings(self):
        for name, content in self.factory.items():
            self.demo.file(name).write_bytes(content)
