# SPDX-License-Identifier: MIT
import pytest

import releases


@pytest.fixture(scope="session")
def release():
    """A release that was built twice."""
    with releases.made_twice() as made:
        yield made
