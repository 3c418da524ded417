# SPDX-License-Identifier: MIT
"""The golden files are identical to the output of their script."""

import pathlib
import subprocess
import sys
import tempfile
import unittest

from build_tree import SOURCE

GOLDEN = SOURCE / "tests/golden"


class Golden(unittest.TestCase):
    def test_the_script_writes_the_existing_files(self):
        def contents(directory):
            return {path.name: path.read_bytes() for path in pathlib.Path(directory).iterdir()
                    if path.suffix != ".py"}

        with tempfile.TemporaryDirectory() as directory:
            subprocess.run([sys.executable, GOLDEN / "make_golden.py", directory], check=True)
            written = contents(directory)
        self.assertGreater(len(written), 10)
        self.assertEqual(written, contents(GOLDEN))
