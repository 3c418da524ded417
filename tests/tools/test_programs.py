# SPDX-License-Identifier: MIT
"""Features common to both programs: help, usage, output, progress, manual pages, installation."""

import os
import pathlib
import pty
import re
import subprocess
import tempfile
import unittest

from build_tree import INSTALLED, SOURCE
import programs
from image_model import image, partition, version
from programs import ToolTest, run

COMMANDS = {"corvel-image": ("build", "list", "verify"),
            "corvel-env": ("create", "list", "get", "set", "delete", "check")}


class CommandLine(ToolTest):
    def test_help(self):
        for program, commands in COMMANDS.items():
            for arguments in (["--help"], ["-h"], ["list", "--help"], ["--help", "nonsense"]):
                done = run(program, *arguments)
                self.assertEqual((done.status, done.errors), (0, ""))
                self.assertTrue(done.output.startswith(f"usage: {program} "))
                for command in commands:
                    self.assertIn(f"\n  {command} ", done.output)
                self.assertLess(max(map(len, done.output.splitlines())), 80)

    def test_version(self):
        for program in COMMANDS:
            for option in ("--version", "-V"):
                done = run(program, option)
                self.assertEqual((done.status, done.errors), (0, ""))
                self.assertRegex(done.output, rf"^{program} \d+\.\d+\.\d+\n$")

    def test_wrong_usage(self):
        for program, arguments, message in (
                ("corvel-image", [], "missing command"),
                ("corvel-image", ["nonsense"], "unknown command 'nonsense'"),
                ("corvel-image", ["build"], "build: too few arguments"),
                ("corvel-image", ["build", "a"], "build: too few arguments"),
                ("corvel-image", ["build", "a", "b", "c"], "build: too many arguments"),
                ("corvel-image", ["list"], "list: too few arguments"),
                ("corvel-image", ["list", "a", "b"], "list: too many arguments"),
                ("corvel-image", ["verify"], "verify: too few arguments"),
                ("corvel-image", ["verify", "a", "b"], "verify: too many arguments"),
                ("corvel-image", ["verify", "--force", "a"],
                 "verify: option --force is not allowed"),
                ("corvel-image", ["build", "--json", "a", "b"],
                 "build: option --json is not allowed"),
                ("corvel-image", ["list", "-s", "a"], "list: option --strict is not allowed"),
                ("corvel-image", ["verify", "--strict=1", "a"],
                 "option '--strict' allows no argument"),
                ("corvel-env", ["get", "-j", "a", "b"], "get: option --json is not allowed"),
                ("corvel-env", ["list", "--raw", "a"], "list: option --raw is not allowed"),
                ("corvel-env", ["list", "--force", "-xj", "a"], "invalid option -- 'x'"),
                ("corvel-env", [], "missing command"),
                ("corvel-env", ["SET", "a", "b=1"], "unknown command 'SET'"),
                ("corvel-env", ["create"], "create: too few arguments"),
                ("corvel-env", ["list"], "list: too few arguments"),
                ("corvel-env", ["list", "a", "b"], "list: too many arguments"),
                ("corvel-env", ["get", "a"], "get: too few arguments"),
                ("corvel-env", ["get", "a", "b", "c"], "get: too many arguments"),
                ("corvel-env", ["get", "-f", "a", "b"], "get: option --force is not allowed"),
                ("corvel-env", ["set", "a"], "set: too few arguments"),
                ("corvel-env", ["delete", "a"], "delete: too few arguments"),
                ("corvel-env", ["check"], "check: too few arguments"),
                ("corvel-env", ["check", "a", "b"], "check: too many arguments"),
                ("corvel-env", ["--nonsense"], "unrecognized option '--nonsense'"),
                ("corvel-env", ["-x", "list"], "invalid option -- 'x'")):
            with self.subTest(program=program, arguments=arguments):
                done = run(program, *arguments, cwd=self.directory)
                self.assertEqual((done.status, done.output), (2, ""))
                lines = done.errors.splitlines()
                self.assertEqual(lines[0], f"{program}: {message}")
                self.assertEqual(lines[1:], [f"Try '{program} --help'."])
        self.assertEqual(self.files(), [])


class Output(ToolTest):
    def setUp(self):
        super().setUp()
        self.image = self.write("good.img", image(partition(b"root", b"root"), version()))
        run("corvel-env", "create", self.path("env"), "a=1")

    def test_output_that_cannot_be_written(self):
        for program, arguments in (("corvel-image", ["list", self.image]),
                                   ("corvel-image", ["verify", self.image]),
                                   ("corvel-env", ["list", self.path("env")]),
                                   ("corvel-env", ["get", self.path("env"), "a"]),
                                   ("corvel-env", ["check", self.path("env")]),
                                   ("corvel-env", ["--help"])):
            with open("/dev/full", "wb") as full:
                done = subprocess.run([programs.BUILD / "tools" / program, *arguments],
                                      stdout=full, stderr=subprocess.PIPE, timeout=60)
            self.assertEqual(done.returncode, 2, arguments)
            self.assertIn(b"standard output: ", done.stderr)

    def test_closed_descriptors(self):
        """No file gets the number of standard output and with it the printed text."""
        program = programs.BUILD / "tools" / "corvel-env"
        for closed in ("<&-", ">&-", "2>&-", "<&- >&- 2>&-"):
            done = subprocess.run(["sh", "-c", f'"$0" set "$1" b=2 {closed}', program,
                                   self.path("env")], timeout=60)
            self.assertEqual(done.returncode, 0, closed)
            self.expect(run("corvel-env", "list", self.path("env")), 0, "a=1\nb=2\n")
        done = subprocess.run(["sh", "-c", '"$0" list "$1" >&-', program, self.path("env")],
                              stderr=subprocess.PIPE, timeout=60)
        self.assertEqual(done.returncode, 2)
        self.assertIn(b"standard output: ", done.stderr)

    def test_progress_is_shown_only_on_a_terminal(self):
        self.write("root", bytes(3_000_000))
        manifest = self.write("manifest", "[Rootfs]\nfile = root\n[kern]\nfile = env\n"
                              "[Ver0]\ntext = 1\n")
        target = self.path("new.img")
        arguments = [programs.BUILD / "tools" / "corvel-image", "build", manifest, target]
        leader, follower = pty.openpty()
        with subprocess.Popen(arguments, stdout=subprocess.PIPE, stderr=follower) as process:
            os.close(follower)
            shown = b""
            try:
                while piece := os.read(leader, 4096):
                    shown += piece
            except OSError:  # the other end is closed
                pass
            os.close(leader)
            output = process.stdout.read()
        self.assertEqual(process.returncode, 0)
        self.assertNotIn(b"\r", output)
        for what in (f"reading {self.path('root')}", f"writing {target}"):
            percents = [int(number) for number in
                        re.findall(rf"{re.escape(what)} +(\d+) %".encode(), shown)]
            self.assertGreater(len(set(percents)), 2)
            self.assertEqual(percents, sorted(percents))
        self.assertTrue(shown.endswith(b"\r\033[K"))
        self.assertEqual(run("corvel-image", "build", manifest, target).errors, "")


class ManualPages(unittest.TestCase):
    def page(self, program):
        return SOURCE / "tools" / f"{program}.1"

    def test_the_markup_has_no_fault(self):
        for program in COMMANDS:
            done = subprocess.run(["mandoc", "-T", "lint", "-W", "warning", self.page(program)],
                                  capture_output=True, text=True, timeout=60)
            self.assertEqual((done.returncode, done.stdout), (0, ""))

    def test_all_commands_and_options_are_documented(self):
        for program, commands in COMMANDS.items():
            text = subprocess.run(["mandoc", "-T", "ascii", self.page(program)],
                                  capture_output=True, check=True, timeout=60).stdout
            text = re.sub(rb".\x08", b"", text).decode()
            synopsis = text.partition("SYNOPSIS")[2].partition("DESCRIPTION")[0]
            options = set(re.findall(r"--\w+", run(program, "--help").output))
            for command in commands:
                self.assertIn(f"{program} {command} ", synopsis)
            for option in options:
                self.assertIn(option, text)
            for heading in ("EXIT STATUS", "EXAMPLES", "SEE ALSO"):
                self.assertIn(f"\n{heading}\n", text)

    def test_all_warnings_are_documented(self):
        source = (SOURCE / "tools/image_inspection.cpp").read_text()
        kinds = set(re.findall(r'warn_\w+\(\s*"([a-z-]+)"', source))
        self.assertGreater(len(kinds), 10)
        warnings = self.page("corvel-image").read_text().partition(".Ss Warnings")[2]
        self.assertEqual(set(re.findall(r"^\.It Cm ([a-z-]+)$", warnings.partition(".Ss JSON")[0],
                                        re.M)), kinds)

    def test_the_examples_give_the_shown_output(self):
        """The examples of each page form one session."""
        for program in COMMANDS:
            with self.subTest(program), tempfile.TemporaryDirectory() as directory:
                for name in ("rootfs.squashfs", "kernel.bin"):
                    pathlib.Path(directory, name).write_bytes(name.encode() * 100)
                source = self.page(program).read_text()
                blocks = re.findall(r"^\.Bd -literal.*?\n(.*?)^\.Ed$",
                                    source.partition(".Sh EXAMPLES")[2], re.M | re.S)
                shown = "".join(blocks).replace("\\e", "\\")
                commands = re.findall(r"^\$ (.*(?:\n>.*)*)", shown, re.M)
                self.assertGreater(len(commands), 3)
                output = ""
                for command in commands:
                    output += f"$ {command}\n"
                    done = subprocess.run(
                        ["sh", "-c", re.sub(r"\n> ?", "\n", command)], cwd=directory,
                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=60,
                        env={"PATH": f"{programs.BUILD / 'tools'}:{os.environ['PATH']}"})
                    output += done.stdout
                self.assertEqual(output, shown)


class Installation(unittest.TestCase):
    def test_programs_and_pages(self):
        for program in COMMANDS:
            done = subprocess.run([INSTALLED / "bin" / program, "--version"], capture_output=True,
                                  text=True, timeout=60)
            self.assertEqual(done.returncode, 0, done.stderr)
            page = next(INSTALLED.glob(f"**/man1/{program}.1"))
            self.assertEqual(page.read_bytes(), (SOURCE / "tools" / f"{program}.1").read_bytes())
