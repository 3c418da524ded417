# SPDX-License-Identifier: MIT
"""The source tree, and the build that is tested: CORVEL_BUILD, or build/release."""
import os
from pathlib import Path

SOURCE = Path(__file__).resolve().parent.parent
BUILD = Path(os.environ.get("CORVEL_BUILD", SOURCE / "build" / "release"))
INSTALLED = BUILD / "installed"  # what the library's users install; the test `installation` makes it


def user_environment(prefix=INSTALLED):
    """Returns the environment of a user whose library is installed in the prefix."""
    return {**os.environ,
            "PATH": f"{prefix / 'bin'}:{os.environ.get('PATH', os.defpath)}",
            "PKG_CONFIG_PATH": str(next(prefix.glob("lib*/**/pkgconfig"))),
            "CMAKE_PREFIX_PATH": str(prefix),
            "LD_LIBRARY_PATH": str(next(prefix.glob("lib*/**/libcorvel.so")).parent)}
