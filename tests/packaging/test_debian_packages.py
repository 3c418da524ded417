# SPDX-License-Identifier: MIT
"""Tests the Debian packages: they are installed in a clean root, where programs outside of the source
tree are built with them and run, and removed.
"""
import tempfile
from pathlib import Path

import pytest

from build_tree import SOURCE
from consumers import CONSUMER, LANGUAGES, PAGE, PROGRAM, REQUEST, assert_answers
from releases import run

pytestmark = pytest.mark.xdist_group("release")

COMPILERS = "gcc,g++,cmake,make,pkgconf"
# What the simulated device needs besides this project's packages.
DEVICE = "bubblewrap,busybox,dnsmasq-base,iproute2,lighttpd,passwd,python3"
LIBRARIES = {"libcorvel1": "libcorvel", "libcorvel-page1": "libcorvel_page"}
EXPORTS = {"libcorvel1": "exports.txt", "libcorvel-page1": "page_exports.txt"}
MANUAL_PAGES = {"libcorvel-dev": "exports.txt", "libcorvel-page-dev": "page_exports.txt"}


def lines(path):
    return path.read_text().splitlines()


def exported(name):
    return set(lines(SOURCE / "tests" / "surface" / name))


def contents(release, package):
    """Returns the names of the files in a package."""
    listing = run("dpkg-deb", "--contents", release.one(f"{package}_*.deb"))
    return {line.split(None, 5)[5].removeprefix("./").split(" -> ")[0]
            for line in listing.splitlines() if not line.startswith("d")}


# --- Contents -----------------------------------------------------------------------------------

@pytest.mark.parametrize("package", LIBRARIES)
def test_a_runtime_package_contains_one_library(package, release):
    files = {name.rsplit("/", 1)[1] for name in contents(release, package)
             if not name.startswith("usr/share/doc/")}
    library = LIBRARIES[package]
    assert files == {f"{library}.so.1", f"{library}.so.1.0.0"}


@pytest.mark.parametrize("package", MANUAL_PAGES)
def test_each_exported_name_has_a_manual_page_in_its_package(package, release):
    pages = {Path(name).name for name in contents(release, package) if "/man3/" in name}
    assert {f"{name}.3.gz" for name in exported(MANUAL_PAGES[package])} <= pages
    other, = set(MANUAL_PAGES.values()) - {MANUAL_PAGES[package]}
    assert not {f"{name}.3.gz" for name in exported(other)} & pages


@pytest.mark.parametrize("package", EXPORTS)
def test_the_symbols_of_a_package_are_the_exported_names(package):
    symbols = lines(SOURCE / "packaging" / "debian" / f"{package}.symbols")
    assert {line.split("@")[0].strip() for line in symbols if line.startswith(" ")} == \
        exported(EXPORTS[package])


@pytest.mark.parametrize("package", LIBRARIES)
def test_a_library_is_hardened(package, release, tmp_path):
    run("dpkg-deb", "--extract", release.one(f"{package}_*.deb"), tmp_path)
    library, = tmp_path.rglob("*.so.1.0.0")
    dynamic = run("readelf", "--dynamic", "--segments", "--symbols", "--wide", library)
    for sign in ("BIND_NOW", "GNU_RELRO", "__stack_chk_fail", "_chk@"):
        assert sign in dynamic
    assert "GNU_STACK      0x000000 0x0000000000000000 0x0000000000000000 0x000000 0x000000 RW " \
        in dynamic


def test_no_package_needs_root_to_be_built(release):
    source = release.one("*.dsc").read_text()
    assert "Architecture: any all" in source
    assert "Rules-Requires-Root: no" in lines(SOURCE / "packaging" / "debian" / "control")


# --- In a clean root ----------------------------------------------------------------------------

class CleanRoot:
    """A Debian system with compilers, from the archive that this machine uses."""

    def __init__(self, directory):
        self.root = directory / "root"
        sources = run("apt-get", "indextargets", "--format", "deb $(REPO_URI) $(CODENAME) main",
                      "Created-By: Packages", "Origin: Debian")
        assert sources, "apt has no lists of Debian's archive"
        (directory / "sources").write_text("\n".join(sorted(set(sources.splitlines()))) + "\n")
        release = run("sh", "-c", '. /etc/os-release && echo "$VERSION_CODENAME"').strip()
        run("mmdebstrap", "--variant=minbase", f"--include={COMPILERS},{DEVICE}",
            "--dpkgopt=force-unsafe-io", release, self.root, directory / "sources")
        (self.root / "packages").mkdir()

    def run(self, *command, **variables):
        """Runs a command in the root, without a network, and returns its output."""
        settings = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C.UTF-8",
                    "DEBIAN_FRONTEND": "noninteractive", **variables}
        return run("bwrap", "--bind", self.root, "/", "--dev", "/dev", "--proc", "/proc",
                   "--unshare-net", "--unshare-pid", "--unshare-ipc", "--die-with-parent",
                   "--cap-add", "ALL", "--clearenv",
                   *(word for item in settings.items() for word in ("--setenv", *item)), *command)

    def install(self, release, *packages):
        """Installs packages, whose dependencies must be installed already or among them."""
        for package in packages:
            file = release.one(f"{package}_*.deb")
            (self.root / "packages" / file.name).write_bytes(file.read_bytes())
        self.run("dpkg", "--force-unsafe-io", "--install",
                 *(f"/packages/{release.one(f'{name}_*.deb').name}" for name in packages))

    def files(self):
        """Returns the files, apart from those that dpkg and the loader keep."""
        return {str(path.relative_to(self.root))
                for top in ("etc", "usr", "opt", "srv") for path in (self.root / top).rglob("*")
                } - {"etc/ld.so.cache"}


@pytest.fixture(scope="module")
def clean():
    with tempfile.TemporaryDirectory(prefix="corvel-clean-root-") as directory:
        yield CleanRoot(Path(directory))


@pytest.fixture(scope="module")
def files_before(clean):
    return clean.files()


@pytest.fixture(scope="module")
def with_library(clean, files_before, release):
    """The root with the packages of the library."""
    clean.install(release, "libcorvel1", "libcorvel-dev")
    return clean


@pytest.fixture(scope="module")
def with_everything(with_library, release):
    with_library.install(release, "libcorvel-page1", "libcorvel-page-dev", "corvel-tools",
                         "corvel-device", "corvel-doc")
    return with_library


@pytest.fixture
def directory(clean):
    """A directory in the root, and its name there."""
    with tempfile.TemporaryDirectory(dir=clean.root / "tmp") as made:
        yield Path(made), f"/tmp/{Path(made).name}"


def static(name, libraries):
    return f"$(pkg-config --cflags --libs-only-L {name}) {libraries} -lcrypt"


SHARED_OR_STATIC = {
    "corvel": ("$(pkg-config --cflags --libs corvel)", static("corvel", "-l:libcorvel.a")),
    "corvel_page": ("$(pkg-config --cflags --libs corvel_page)",
                    static("corvel_page", "-l:libcorvel_page.a -l:libcorvel.a"))}


def build_with_pkg_config(root, directory, suffix, code, libraries):
    """Builds a program in the root and returns its path there."""
    outside, inside = directory
    (outside / f"program.{suffix}").write_text(code)
    root.run("sh", "-c", f'cd {inside} && {LANGUAGES[suffix]} program.{suffix} -o program {libraries}')
    return f"{inside}/program"


def build_with_find_package(root, directory, suffix, code, library, consumer=CONSUMER):
    outside, inside = directory
    (outside / f"program.{suffix}").write_text(code)
    (outside / "CMakeLists.txt").write_text(consumer)
    root.run("cmake", "-S", inside, "-B", f"{inside}/build")
    root.run("cmake", "--build", f"{inside}/build", "--target", f"with_{library}")
    return f"{inside}/build/with_{library}"


@pytest.mark.parametrize("libraries", SHARED_OR_STATIC["corvel"], ids=("shared", "static"))
@pytest.mark.parametrize("suffix", LANGUAGES)
def test_a_program_without_the_page_kit_with_pkg_config(suffix, libraries, with_library, directory):
    code = PROGRAM if suffix == "c" else PROGRAM.replace("(void)", "()")
    with_library.run(build_with_pkg_config(with_library, directory, suffix, code, libraries))


@pytest.mark.parametrize("library", ("corvel", "corvel_static"))
@pytest.mark.parametrize("suffix", LANGUAGES)
def test_a_program_without_the_page_kit_with_find_package(suffix, library, with_library, directory):
    consumer = CONSUMER.replace(" corvel_page corvel_page_static", "")
    with_library.run(build_with_find_package(with_library, directory, suffix, PROGRAM, library,
                                             consumer))


@pytest.mark.parametrize("libraries", SHARED_OR_STATIC["corvel_page"], ids=("shared", "static"))
@pytest.mark.parametrize("suffix", LANGUAGES)
def test_a_page_with_pkg_config(suffix, libraries, with_everything, directory):
    program = build_with_pkg_config(with_everything, directory, suffix, PAGE, libraries)
    assert_answers(with_everything.run(program, **REQUEST))


@pytest.mark.parametrize("library", ("corvel_page", "corvel_page_static"))
@pytest.mark.parametrize("suffix", LANGUAGES)
def test_a_page_with_find_package(suffix, library, with_everything, directory):
    program = build_with_find_package(with_everything, directory, suffix, PAGE, library)
    assert_answers(with_everything.run(program, **REQUEST))


@pytest.mark.parametrize("name", SHARED_OR_STATIC)
def test_pkg_config_adds_no_directory_that_is_searched_anyway(name, with_everything):
    flags = with_everything.run("pkg-config", "--cflags", "--libs", name).split()
    assert [word for word in flags if word.startswith(("-I", "-L"))] == []


@pytest.mark.parametrize("name", ("corvel-image", "corvel-env", "corvel-settings"))
def test_a_tool_runs(name, with_everything):
    assert name in with_everything.run(name, "--help")


# --- The simulated device -----------------------------------------------------------------------

def test_the_device_needs_no_other_packages(release):
    fields = run("dpkg-deb", "--field", release.one("corvel-device_*.deb"), "Depends")
    needed = {each.split()[0] for each in fields.split(",")}
    assert needed - {"libc6", "libcrypt1", "libcorvel1", "libcorvel-page1", "corvel-tools"} == set(DEVICE.split(","))


def run_on_device(root, *words):
    """Runs corvel-device in the root, and returns its output and, in a last line, its status. A /proc of which
    parts are hidden does not allow another one."""
    return root.run("sh", "-c", 'mount -t proc proc /proc; corvel-device "$@"; status=$?; echo;'
                    'echo "status $status"', "sh", *words)


def test_a_command_runs_on_the_device(with_everything):
    shown = run_on_device(with_everything, "--", "sh", "-c", "hostname; ip -br -4 address show br-lan; exit 5").split()
    assert shown[0] == "router" and "192.168.1.1/24" in shown and shown[-2:] == ["status", "5"]


def test_the_devices_programs_use_the_packaged_libraries(with_everything):
    """The first start restores settings with corvel-settings and makes the flash with a program of the kit."""
    shown = run_on_device(with_everything, "--", "sh", "-c", "command -v corvel-settings; cat /run/cmdline;"
                          "LD_TRACE_LOADED_OBJECTS=1 /sbin/factory | sed -n 's/.*libcorvel_page.so.1 => \\([^ ]*\\).*/\\1/p'")
    settings, command_line, library, *_ = shown.splitlines()
    assert settings == "/usr/bin/corvel-settings" and "root=31:2" in command_line
    assert library.endswith("/libcorvel_page.so.1") and not library.startswith("/opt/")


def test_a_page_that_was_built_with_the_packages_is_served_on_the_device(with_everything, directory):
    _, inside = directory
    program = build_with_pkg_config(with_everything, directory, "c", PAGE, SHARED_OR_STATIC["corvel_page"][0])
    with_everything.run("sh", "-c", f"mkdir -p {inside}/www/cgi-bin && cp {program} {inside}/www/cgi-bin/page")
    shown = run_on_device(with_everything, "--www", f"{inside}/www", "--", "busybox", "wget", "-q", "-O", "-",
                          f"http://127.0.0.1/cgi-bin/page?{REQUEST['QUERY_STRING']}")
    assert shown == '"a\\"b"\nstatus 0\n'


def test_the_documentation_is_installed(with_everything):
    documents = with_everything.root / "usr" / "share" / "doc" / "corvel-doc"
    for name in ("index.html", "guide.html", "packages.html", "changes.html", "images/flash.svg",
                 "html/index.html"):
        assert (documents / name).is_file()


def test_the_packages_leave_nothing(with_everything, files_before):
    """Runs last: it removes the packages."""
    packages = with_everything.run("dpkg-query", "-W", "-f", "${Package} ${source:Package}\n")
    names = [line.split()[0] for line in packages.splitlines() if line.endswith(" corvel")]
    assert len(names) == 7
    with_everything.run("dpkg", "--force-unsafe-io", "--purge", *names)
    assert with_everything.files() == files_before
