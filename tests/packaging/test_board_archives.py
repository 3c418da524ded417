# SPDX-License-Identifier: MIT
"""Tests the archives for the board: their contents, and programs that are built with one and run with
the other in an emulator.
"""
import pytest

from build_tree import SOURCE
from consumers import CONSUMER, LANGUAGES, PAGE, REQUEST, assert_answers
from releases import SYSROOT, run

pytestmark = pytest.mark.xdist_group("release")

NAMES = ("libcorvel", "libcorvel_page")
DEVICE = {"usr/bin/corvel-settings",
          *(f"usr/lib/{name}.so.{version}" for name in NAMES for version in ("1", "1.0.0"))}
DEVELOPMENT = {"LICENSE", "bin/corvel-settings", "include/corvel.h", "include/corvel_page.h",
               "lib/pkgconfig/corvel.pc", "lib/pkgconfig/corvel_page.pc",
               "lib/cmake/corvel/corvelConfig.cmake",
               "lib/cmake/corvel/corvelConfigVersion.cmake",
               *(f"lib/cmake/corvel/{export}{suffix}.cmake"
                 for export in ("corvelTargets", "corvelPageTargets")
                 for suffix in ("", "-minsizerel")),
               *(f"lib/{name}.{suffix}" for name in NAMES
                 for suffix in ("a", "so", "so.1", "so.1.0.0"))}


@pytest.fixture(scope="module")
def board(release, tmp_path_factory):
    """A directory with the device's root in `device` and the archive for the build in `sdk`."""
    directory = tmp_path_factory.mktemp("board")
    release.unpack("corvel-*-device-*.tar.xz", directory / "device")
    release.unpack("corvel-*-development-*.tar.xz", directory)
    made, = directory.glob("corvel-*")
    made.rename(directory / "sdk")
    return directory


def contents(directory):
    return {str(path.relative_to(directory)) for path in directory.rglob("*")
            if path.is_symlink() or not path.is_dir()}


def test_the_contents_of_the_device_archive(board):
    assert contents(board / "device") == DEVICE


def test_the_contents_of_the_development_archive(board):
    assert contents(board / "sdk") == DEVELOPMENT


@pytest.mark.parametrize("name", sorted(name for name in DEVICE if not name.endswith(".so.1")))
def test_what_the_device_gets_is_stripped(name, board):
    sections = run("readelf", "--sections", "--wide", board / "device" / name)
    assert ".dynsym" in sections and ".symtab" not in sections and ".debug" not in sections


@pytest.mark.parametrize("name", sorted(name for name in DEVICE if not name.endswith(".so.1")))
def test_what_the_device_gets_is_for_its_processor(name, board):
    header = run("readelf", "--file-header", "--dynamic", "--wide", board / "device" / name)
    assert "MIPS R3000" in header and "big endian" in header
    assert "RUNPATH" not in header and "RPATH" not in header


def emulate(board, *program, **options):
    return run("qemu-mips", SYSROOT / "lib" / "ld-musl-mips.so.1", "--library-path",
               f"{board}/device/usr/lib:{SYSROOT}/lib", *program, **options)


@pytest.mark.parametrize("libraries", (
    "$(pkg-config --cflags --libs corvel_page)",
    "$(pkg-config --cflags --libs-only-L corvel_page) -l:libcorvel_page.a -l:libcorvel.a -lcrypt"),
    ids=("shared", "static"))
@pytest.mark.parametrize("suffix", LANGUAGES)
def test_a_page_with_pkg_config(suffix, libraries, board, tmp_path):
    (tmp_path / f"program.{suffix}").write_text(PAGE)
    compiler = {"c": "gcc -std=c99", "cpp": "g++ -std=c++17"}[suffix]
    run("bash", "-c", f'"$1"/bin/mips-linux-musl-{compiler} "$0/program.{suffix}" -o "$0/program" '
        f"{libraries}", tmp_path, SYSROOT,
        env={"PATH": "/usr/bin:/bin", "PKG_CONFIG_LIBDIR": str(board / "sdk/lib/pkgconfig")})
    assert_answers(emulate(board, tmp_path / "program", env={"PATH": "/usr/bin:/bin", **REQUEST}))


@pytest.mark.parametrize("library", ("corvel_page", "corvel_page_static"))
@pytest.mark.parametrize("suffix", LANGUAGES)
def test_a_page_with_find_package(suffix, library, board, tmp_path):
    (tmp_path / f"program.{suffix}").write_text(PAGE)
    (tmp_path / "CMakeLists.txt").write_text(CONSUMER)
    run("cmake", "-S", tmp_path, "-B", tmp_path / "build", "--toolchain",
        SOURCE / "cmake" / "mips-linux-musl.cmake", f"-DCORVEL_MIPS_SYSROOT={SYSROOT}",
        f"-Dcorvel_DIR={board}/sdk/lib/cmake/corvel")
    run("cmake", "--build", tmp_path / "build", "--target", f"with_{library}")
    program = tmp_path / "build" / f"with_{library}"
    assert_answers(emulate(board, program, env={"PATH": "/usr/bin:/bin", **REQUEST}))


def test_corvel_settings_runs_on_the_device(board):
    program = board / "device" / "usr" / "bin" / "corvel-settings"
    assert "corvel-settings" in emulate(board, program, "--help")
