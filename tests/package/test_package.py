# SPDX-License-Identifier: MIT
"""Tests the build and the installation: the headers alone in each language, the plain build and its
files, the installed package, and a sanitized shared library in a sanitized program.
"""
import functools
import os
import re
import subprocess
import tempfile
from pathlib import Path

import pytest

from build_tree import SOURCE, user_environment
from consumers import CONSUMER, LANGUAGES, PAGE, PROGRAM, REQUEST, assert_answers

# Overruns a small buffer, in the library.
OVERRUN = r"""
#include <corvel.h>

#include <stdlib.h>

int main(void)
{
    char *small = malloc(3);
    add_escape("long text", small);
    free(small);
    return 0;
}
"""


def run(*command, **options):
    """Runs a command, which must succeed, and returns its output."""
    done = subprocess.run(command, cwd=SOURCE, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, **options)
    assert done.returncode == 0, done.stdout
    return done.stdout


def build_preset(preset):
    """Builds the library and returns the directory."""
    run("cmake", "--preset", preset)
    run("cmake", "--build", "--preset", preset, "--target", "corvel")
    return SOURCE / "build" / preset


@pytest.fixture
def directory():
    with tempfile.TemporaryDirectory(prefix="corvel-package-") as made:
        yield Path(made)


# --- The headers alone --------------------------------------------------------------------------

COMMON = ("-Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Wcast-align -Wundef "
          "-Wredundant-decls ")
GCC_C = COMMON + "-Wstrict-prototypes -Wmissing-prototypes -Wc++-compat"
GCC_CXX = COMMON + "-Wold-style-cast -Wuseless-cast -Wzero-as-null-pointer-constant"
# The layout of the records contains padding, and compatibility with C++98 is not required.
CLANG_C = "-Weverything -Wno-padded"
CLANG_CXX = CLANG_C + " -Wno-c++98-compat -Wno-c++98-compat-pedantic"


@pytest.mark.parametrize("compiler, warnings", (
    ("gcc -xc -std=c99", GCC_C), ("gcc -xc -std=c11", GCC_C),
    ("clang -xc -std=c99", CLANG_C), ("clang -xc -std=c11", CLANG_C),
    ("g++ -xc++ -std=c++17", GCC_CXX), ("g++ -xc++ -std=c++20", GCC_CXX),
    ("clang++ -xc++ -std=c++17", CLANG_CXX), ("clang++ -xc++ -std=c++20", CLANG_CXX)),
    ids=lambda words: words if "-std" in words else "")
@pytest.mark.parametrize("headers", (
    "corvel.h", "corvel_page.h", "corvel.h corvel_page.h", "corvel_page.h corvel.h"))
def test_headers_alone_and_together(headers, compiler, warnings, directory):
    source = directory / "header"
    source.write_text("".join(f"#include <{header}>\n" for header in headers.split()))
    run(*compiler.split(), *warnings.split(), "-Werror", "-fsyntax-only", "-I", "include", source)


# --- The plain build and the installed package --------------------------------------------------

@pytest.fixture(scope="module")
def plain():
    """The directory of a build with the README's commands."""
    build = SOURCE / "build" / "package"
    run("cmake", "-S", ".", "-B", build, "-DCMAKE_BUILD_TYPE=Release", "-DBUILD_TESTING=OFF")
    run("cmake", "--build", build)
    return build


@pytest.fixture(scope="module")
def prefix(plain):
    """A prefix that was moved after the installation."""
    with tempfile.TemporaryDirectory(prefix="corvel-package-") as directory:
        staged, moved = Path(directory) / "staged", Path(directory) / "prefix"
        run("cmake", "--install", plain, "--prefix", staged)
        staged.rename(moved)
        yield moved


in_one_process = pytest.mark.xdist_group("plain")


each_library = pytest.mark.parametrize("name", ("libcorvel", "libcorvel_page"))


@in_one_process
@each_library
def test_the_shared_library_is_a_link_to_the_versioned_file(name, plain):
    library = plain / f"{name}.so"
    assert library.is_symlink() and library.is_file()


@in_one_process
@each_library
def test_soname(name, plain):
    dynamic = run("readelf", "--dynamic", "--wide", plain / f"{name}.so")
    assert f"Library soname: [{name}.so.1]" in dynamic


@in_one_process
@each_library
def test_the_static_library_is_built(name, plain):
    assert (plain / f"{name}.a").is_file()


@in_one_process
def test_a_program_with_pkg_config(prefix, directory):
    (directory / "program.c").write_text(PROGRAM)
    variables = user_environment(prefix)
    run("bash", "-c", 'cc "$0/program.c" -o "$0/program" $(pkg-config --cflags --libs corvel)',
        directory, env=variables)
    run(directory / "program", env=variables)
    assert run("pkg-config", "--modversion", "corvel", env=variables).startswith("1.")


@in_one_process
@pytest.mark.parametrize("library", ("corvel", "corvel_static"))
def test_a_program_with_find_package(library, prefix, directory):
    (directory / "program.c").write_text(PROGRAM)
    (directory / "CMakeLists.txt").write_text(CONSUMER)
    run("cmake", "-S", directory, "-B", directory, f"-DCMAKE_PREFIX_PATH={prefix}")
    run("cmake", "--build", directory, "--target", f"with_{library}")
    run(directory / f"with_{library}")


@in_one_process
@pytest.mark.parametrize("libraries", (
    "$(pkg-config --cflags --libs corvel_page)",
    "$(pkg-config --cflags --libs-only-L corvel_page) -l:libcorvel_page.a -l:libcorvel.a -lcrypt"),
    ids=("shared", "static"))
@pytest.mark.parametrize("suffix", LANGUAGES)
def test_a_page_with_pkg_config(suffix, libraries, prefix, directory):
    (directory / f"program.{suffix}").write_text(PAGE)
    variables = user_environment(prefix)
    run("bash", "-c", f'{LANGUAGES[suffix]} "$0/program.{suffix}" -o "$0/program" {libraries}',
        directory, env=variables)
    assert_answers(run(directory / "program", env={**variables, **REQUEST}))
    assert run("pkg-config", "--modversion", "corvel_page", env=variables).startswith("1.")


@in_one_process
@pytest.mark.parametrize("library", ("corvel_page", "corvel_page_static"))
@pytest.mark.parametrize("suffix", LANGUAGES)
def test_a_page_with_find_package(suffix, library, prefix, directory):
    (directory / f"program.{suffix}").write_text(PAGE)
    (directory / "CMakeLists.txt").write_text(CONSUMER)
    run("cmake", "-S", directory, "-B", directory, f"-DCMAKE_PREFIX_PATH={prefix}")
    run("cmake", "--build", directory, "--target", f"with_{library}")
    assert_answers(run(directory / f"with_{library}", env={**os.environ, **REQUEST}))


# --- The components of the installation ---------------------------------------------------------

COMPONENTS = {
    "runtime": {"bin/corvel-settings",
                *(f"lib/{name}.so.{version}" for name in ("libcorvel", "libcorvel_page")
                  for version in ("1", "1.0.0"))},
    "development": {"include/corvel.h", "include/corvel_page.h",
                    "lib/pkgconfig/corvel.pc", "lib/pkgconfig/corvel_page.pc",
                    "lib/cmake/corvel/corvelConfig.cmake",
                    "lib/cmake/corvel/corvelConfigVersion.cmake",
                    *(f"lib/cmake/corvel/{export}{suffix}.cmake" for suffix in ("", "-release")
                      for export in ("corvelTargets", "corvelPageTargets")),
                    *(f"lib/{name}.{suffix}" for name in ("libcorvel", "libcorvel_page")
                      for suffix in ("a", "so"))},
    "tools": {"share/man/man1/corvel-settings.1"}}


@in_one_process
@pytest.mark.parametrize("component", COMPONENTS)
def test_a_component_of_the_installation(component, plain, directory):
    run("cmake", "--install", plain, "--prefix", directory, "--component", component,
        "--config", "Release")
    installed = {str(path.relative_to(directory)).replace("lib/x86_64-linux-gnu/", "lib/")
                 for path in directory.rglob("*") if not path.is_dir()}
    assert {name for name in installed if "/man3/" not in name} == COMPONENTS[component]


@in_one_process
def test_the_components_together_are_the_installation(prefix, plain, directory):
    for component in COMPONENTS:
        run("cmake", "--install", plain, "--prefix", directory, "--component", component)
    everything, parts = ({path.relative_to(top) for path in top.rglob("*")}
                         for top in (prefix, directory))
    assert parts == everything


@in_one_process
@pytest.mark.parametrize("wanted, status", (("", 0), ("COMPONENTS page", 1)))
def test_an_installation_without_the_page_kit(wanted, status, plain, directory):
    installed = directory / "prefix"
    run("cmake", "--install", plain, "--prefix", installed)
    for path in [*installed.rglob("corvelPage*"), *installed.rglob("libcorvel_page*")]:
        path.unlink()
    (directory / "program.c").write_text(PROGRAM)
    (directory / "CMakeLists.txt").write_text(f"""
cmake_minimum_required(VERSION 3.20)
project(consumer LANGUAGES C)
find_package(corvel 1.0 REQUIRED {wanted})
add_executable(program program.c)
target_link_libraries(program PRIVATE corvel::corvel)
""")
    done = subprocess.run(["cmake", "-S", directory, "-B", directory,
                           f"-DCMAKE_PREFIX_PATH={installed}"], stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    assert done.returncode == status, done.stdout
    if status != 0:
        assert "the installation lacks a required component" in done.stdout
    else:
        run("cmake", "--build", directory)
        run(directory / "program")


# --- The smallest build -------------------------------------------------------------------------

def test_the_smallest_build():
    build_preset("size")


# --- Sanitizers ---------------------------------------------------------------------------------

SANITIZED = {"sanitize": "gcc", "sanitize-flags": "gcc",
             "sanitize-clang": "clang", "sanitize-flags-clang": "clang"}


@pytest.fixture(scope="module")
def sanitized():
    """A function that builds a preset once and returns the directory."""
    return functools.cache(build_preset)


def compile_sanitized(compiler, code, library, directory):
    (directory / "program.c").write_text(code)
    run(compiler, "-fsanitize=address,undefined", "-I", "include", directory / "program.c", "-o",
        directory / "program", "-L", library, "-lcorvel")
    return directory / "program", {**os.environ, "LD_LIBRARY_PATH": str(library)}


EACH_PRESET = pytest.mark.parametrize("preset, compiler", [
    pytest.param(preset, compiler, id=preset, marks=pytest.mark.xdist_group(preset))
    for preset, compiler in SANITIZED.items()])


@EACH_PRESET
def test_a_sanitized_library_is_loaded(preset, compiler, sanitized, directory):
    program, variables = compile_sanitized(compiler, PROGRAM, sanitized(preset), directory)
    run(program, env=variables)


@EACH_PRESET
def test_an_overrun_in_a_sanitized_library_is_found(preset, compiler, sanitized, directory):
    program, variables = compile_sanitized(compiler, OVERRUN, sanitized(preset), directory)
    done = subprocess.run([program], env=variables, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    assert done.returncode != 0
    assert "heap-buffer-overflow" in done.stdout
    assert re.search("SUMMARY.*escape", done.stdout)
