# SPDX-License-Identifier: MIT
"""Distributes the tests of every suite among processes."""
import unittest

import pytest


@pytest.hookimpl(tryfirst=True)
def pytest_collection_modifyitems(items):
    """The tests of a class with a setup of its own run in one process."""
    for item in items:
        test_case = getattr(item, "cls", None)
        if test_case and hasattr(test_case, "setUpClass") and (
                test_case.setUpClass.__func__ is not unittest.TestCase.setUpClass.__func__):
            item.add_marker(pytest.mark.xdist_group(f"{item.module.__name__}.{test_case.__name__}"))
