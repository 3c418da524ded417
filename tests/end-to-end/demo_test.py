# SPDX-License-Identifier: MIT
"""Base classes of the tests: they provide a demo and check that none of its programs has crashed."""

import pathlib
import shutil
import tempfile
import unittest

from browser import Walk
from device import Demo, shared_demo


class Case(unittest.TestCase):
    maxDiff = None

    def make_directory(self):
        """Returns a new directory, which is removed after the test."""
        directory = pathlib.Path(tempfile.mkdtemp(prefix="corvel-test-"))
        self.addCleanup(shutil.rmtree, directory, ignore_errors=True)
        return directory


class DemoTest(Case):
    """Tests that use self.demo."""

    def tearDown(self):
        self.assertEqual(self.demo.crashes(), [])

    def walk(self, name, *arguments, **options):
        """Starts a walk in a browser. It is stopped when the test ends."""
        walk = Walk(name, self.demo, *arguments, **options)
        self.addCleanup(walk.stop)
        return walk


class SharedDemoTest(DemoTest):
    """Tests that restore the demo's state. Each starts with a new session."""

    @classmethod
    def setUpClass(cls):
        cls.demo = shared_demo()

    def setUp(self):
        # A successful login resets the failures of previous tests.
        self.demo.end_sessions()
        self.demo.session = self.demo.log_in()


class OwnDemoTest(DemoTest):
    """Tests whose class needs its own demo, started with these arguments."""

    arguments = ()

    @classmethod
    def setUpClass(cls):
        cls.demo = Demo(*cls.arguments)
        cls.addClassCleanup(cls.demo.stop)
        cls.factory = cls.demo.files()

    def restore_settings(self):
        for name, content in self.factory.items():
            self.demo.file(name).write_bytes(content)
