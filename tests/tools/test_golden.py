# SPDX-License-Identifier: MIT
"""The golden files are what their script writes."""

import pathlib
import subprocess
import sys
import tempfile
import unittest

from programs import SOURCE

GOLDEN = SOURCE / "tests/golden"


class Golden(unittest.TestCase):
    def test_the_script_writes_the_files_that_are_there(self):
        def contents(folder):
            return {path.name: path.read_bytes() for path in pathlib.Path(folder).iterdir()
                    if path.suffix != ".py"}

        with tempfile.TemporaryDirectory() as folder:
            subprocess.run([sys.executable, GOLDEN / "make_golden.py", folder], check=True)
            written = contents(folder)
        self.assertGreater(len(written), 10)
        self.assertEqual(written, contents(GOLDEN))
