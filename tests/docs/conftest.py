# SPDX-License-Identifier: MIT
import functools
import subprocess
import tempfile
from pathlib import Path

import pytest

import documents
from build_tree import user_environment


@pytest.fixture(scope="session")
def scratch():
    with tempfile.TemporaryDirectory(prefix="corvel-docs-") as directory:
        yield Path(directory)


@pytest.fixture
def new_directory(scratch):
    with tempfile.TemporaryDirectory(dir=scratch) as directory:
        yield Path(directory)


@pytest.fixture(scope="session")
def variables():
    return user_environment()


@pytest.fixture(scope="session")
def directory_of(scratch):
    """A function that returns the directory of a document, which contains the document's files."""
    @functools.cache
    def directory(document):
        made = scratch / document.stem
        documents.write_files(document, made)
        return made

    return directory


@pytest.fixture(scope="session")
def program(scratch, variables):
    """A function that compiles a program of the guide, once, and returns its path."""
    directory = scratch / "programs"
    documents.write_files(documents.GUIDE, directory)

    @functools.cache
    def compiled(name, libraries="$(pkg-config --cflags --libs corvel)"):
        done = subprocess.run(["bash", "-c", f"cc -O2 {name}.c -o {name} {libraries}"],
                              cwd=directory, env=variables, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True)
        assert done.returncode == 0, done.stdout
        return directory / name

    return compiled


@pytest.fixture(scope="session")
def static_program(program):
    """The same with the static libraries."""
    return lambda name: program(
        name, "-static $(pkg-config --cflags --libs-only-L corvel) -l:libcorvel.a -lcrypt")
