# SPDX-License-Identifier: MIT
"""Tests what a release consists of, and that a second build has the same bytes."""
import hashlib
import re
import shutil
import subprocess
import tarfile

import pytest

from build_tree import SOURCE
from releases import run

pytestmark = pytest.mark.xdist_group("release")

VERSION = ".".join(re.findall(r"^#define CORVEL_VERSION_[A-Z]+ (\d+)$",
                              (SOURCE / "include" / "corvel.h").read_text(), re.MULTILINE))
ARCHIVES = {f"corvel-{VERSION}{name}.tar.xz"
            for name in ("", "-device-mips-linux-musl", "-development-mips-linux-musl")}
PACKAGES = {"corvel-device", "corvel-doc", "corvel-tools", "libcorvel-dev", "libcorvel-page-dev",
            "libcorvel-page1", "libcorvel1"}


def checksums(directory):
    return {path.name: hashlib.sha256(path.read_bytes()).hexdigest()
            for path in directory.iterdir() if path.name != "SHA256SUMS"}


def test_the_files_of_a_release(release):
    names = {path.name for path in release.files.iterdir()}
    packages = {name.split("_")[0] for name in names if name.endswith(".deb")}
    assert {name for name in packages if not name.endswith("-dbgsym")} == PACKAGES
    assert {name for name in names if name.startswith(f"corvel-{VERSION}")} == ARCHIVES
    assert [name for name in names if name.endswith(".dsc")]


def test_the_checksums_of_a_release(release):
    listed = dict(reversed(line.split("  ")) for line in
                  (release.files / "SHA256SUMS").read_text().splitlines())
    assert listed == checksums(release.files)


def test_a_second_build_has_the_same_bytes(release):
    assert checksums(release.again) == checksums(release.files)


# --- The source archive -------------------------------------------------------------------------

@pytest.fixture
def tree(release, tmp_path):
    """A tree that was unpacked from the source archive."""
    release.unpack(f"corvel-{VERSION}.tar.xz", tmp_path)
    return tmp_path / f"corvel-{VERSION}"


def test_the_source_archive_contains_the_tracked_files(tree):
    if not (SOURCE / ".git").exists():
        pytest.fail("this test compares with the files that git tracks")
    tracked = run("git", "ls-files", "-co", "--exclude-standard", cwd=SOURCE).splitlines()
    contents = {str(path.relative_to(tree)) for path in tree.rglob("*")
                if path.is_symlink() or not path.is_dir()}
    assert contents == {name for name in tracked if (SOURCE / name).is_symlink()
                        or (SOURCE / name).exists()}


def test_the_source_archive_has_no_owner_and_one_date(release):
    with tarfile.open(release.one(f"corvel-{VERSION}.tar.xz")) as archive:
        members = archive.getmembers()
    assert {(each.uid, each.gid, each.uname, each.gname) for each in members} == {(0, 0, "", "")}
    assert len({each.mtime for each in members}) == 1
    assert {each.mode for each in members if each.isfile()} == {0o644, 0o755}


def test_build_products_are_not_part_of_the_source_archive(tree, tmp_path):
    for name in ("build/release/made", "build-old/made", "tests/__pycache__/made",
                 "demo/node_modules/made"):
        (tree / name).parent.mkdir(parents=True, exist_ok=True)
        (tree / name).touch()
    run(tree / "packaging" / "source-archive", tmp_path / "again")
    with tarfile.open(next((tmp_path / "again").iterdir())) as archive:
        assert not [name for name in archive.getnames() if name.endswith("/made")]


# --- The version --------------------------------------------------------------------------------

def set_version(tree, version):
    header = tree / "include" / "corvel.h"
    text = header.read_text()
    for part, number in zip(("MAJOR", "MINOR", "PATCH"), version.split(".")):
        text = re.sub(rf"(?m)^(#define CORVEL_VERSION_{part}) \d+$", rf"\1 {number}", text)
    header.write_text(text)


def add_to_changelog(tree, line):
    changelog = tree / "CHANGELOG.md"
    changelog.write_text(changelog.read_text().replace("## Unreleased\n", f"{line}\n", 1))


def debian_version(tree, date="0"):
    return run("bash", "-c", ". packaging/common.sh; debian_version", cwd=tree,
               env={"SOURCE_DATE_EPOCH": date}).strip()


def test_the_header_states_the_version_of_everything(tree, tmp_path):
    set_version(tree, "1.10.2")
    archive, = run(tree / "packaging" / "source-archive", tmp_path / "again").split()
    assert archive.endswith("/corvel-1.10.2.tar.xz")
    add_to_changelog(tree, "## 1.10.2 - 2026-12-01")
    assert debian_version(tree) == "1.10.2-1"


def test_packages_before_a_release_have_a_lower_version(tree):
    set_version(tree, "1.10.2")
    first, second = debian_version(tree, "1700000000"), debian_version(tree, "1700000001")
    for lower, higher in ((first, second), (second, "1.10.2-1"), ("1.10.2~-1", first)):
        run("dpkg", "--compare-versions", lower, "lt", higher)


@pytest.mark.parametrize("line", ("## 1.10.20 - 2026-12-01", "## 1.10.2", "## 11.10.2 - 2026-12-01"))
def test_a_release_needs_a_section_of_the_changelog(line, tree, tmp_path):
    set_version(tree, "1.10.2")
    add_to_changelog(tree, line)
    done = subprocess.run([tree / "packaging" / "release", tmp_path / "out"],
                          stderr=subprocess.PIPE, text=True)
    assert done.returncode == 1
    assert 'CHANGELOG.md has no section "## 1.10.2 - YEAR-MONTH-DAY"' in done.stderr
    assert not (tmp_path / "out").exists()


def test_a_release_needs_an_empty_directory(tree):
    shutil.copy(tree / "LICENSE", tree / "packaging" / "debian")
    done = subprocess.run([tree / "packaging" / "release", "--draft", tree / "packaging"],
                          stderr=subprocess.PIPE, text=True)
    assert done.returncode == 1 and "is not empty" in done.stderr


def test_a_release_needs_committed_files(tree, tmp_path):
    add_to_changelog(tree, f"## {VERSION} - 2026-12-01")
    git = ("git", "-c", "user.name=N", "-c", "user.email=n@localhost")
    for command in (("init", "--quiet"), ("add", "--all"), ("commit", "--quiet", "-m", "all")):
        run(*git, *command, cwd=tree)
    (tree / "left.txt").touch()
    done = subprocess.run([tree / "packaging" / "release", tmp_path / "out"],
                          stderr=subprocess.PIPE, text=True)
    assert done.returncode == 1 and "there are uncommitted changes: ?? left.txt" in done.stderr
