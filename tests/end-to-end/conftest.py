# SPDX-License-Identifier: MIT
import os
import tempfile

import pytest

import device

# The longest tests are started first, so that the shorter ones fill the remaining time.
LONG = ("test_clients_at_once", "test_bad_requests", "test_login", "test_upgrade_in_browser",
        "test_password", "test_saving")


@pytest.hookimpl(tryfirst=True)
def pytest_collection_modifyitems(items):
    def place(item):
        module = item.module.__name__
        return LONG.index(module) if module in LONG else len(LONG)

    items.sort(key=place)


@pytest.fixture(scope="session", autouse=True)
def devices():
    """Stops the devices at the end, and removes their files."""
    with tempfile.TemporaryDirectory(prefix="corvel-end-to-end-",
                                     ignore_cleanup_errors=True) as directory:
        os.chmod(directory, 0o711)  # one test runs as an ordinary user
        tempfile.tempdir = directory
        yield
        device.stop_all()
