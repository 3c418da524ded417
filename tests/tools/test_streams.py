# SPDX-License-Identifier: MIT
"""Standard input and output as file arguments, and which files the programs open."""

import ctypes
import os
import pty
import shutil
import socket
import struct
import subprocess
import tempfile
import threading

import environment_model
import programs
from environment_model import SIZE, entries_of
from image_model import image, partition, version
from programs import ToolTest, printable, run

GOOD = image(partition(b"root", bytes(300000)), partition(b"kern", bytes(100000)), version(b"1"))
ENVIRONMENT = environment_model.image([b"a=1", b"b=2"])

# Each command that reads a file, with the content to read; the file argument is "-".
READERS = [
    (["corvel-image", "verify", "-"], GOOD),
    (["corvel-image", "list", "-"], GOOD),
    (["corvel-env", "list", "-"], ENVIRONMENT),
    (["corvel-env", "get", "-", "b"], ENVIRONMENT),
    (["corvel-env", "check", "-"], ENVIRONMENT),
    (["corvel-env", "set", "-", "c=3"], ENVIRONMENT),
    (["corvel-env", "delete", "-", "a"], ENVIRONMENT),
]


class Inotify:
    """Counts how often files were opened."""
    IN_OPEN = 0x20
    IN_NONBLOCK = 0o4000

    def __init__(self):
        self.libc = ctypes.CDLL(None, use_errno=True)
        self.descriptor = self.libc.inotify_init1(self.IN_NONBLOCK)
        assert self.descriptor >= 0

    def watch(self, path):
        assert self.libc.inotify_add_watch(self.descriptor, os.fsencode(path), self.IN_OPEN) > 0

    def opened(self):
        try:
            return len(os.read(self.descriptor, 65536)) // struct.calcsize("iIII")
        except BlockingIOError:
            return 0

    def close(self):
        os.close(self.descriptor)


class StandardInput(ToolTest):
    def expected(self, arguments, content):
        """Returns the command's output for a file, or the file after set or delete."""
        path = self.write("plain", content)
        done = run(*(str(path) if argument == "-" else argument for argument in arguments))
        self.assertEqual((done.status, done.errors), (0, ""))
        if arguments[1] in ("set", "delete"):
            return path.read_bytes()
        return done.output.encode().replace(os.fsencode(path), b"-")

    def run_on(self, arguments, stdin, **options):
        command = [programs.BUILD / "tools" / arguments[0], *arguments[1:]]
        return subprocess.run(command, stdin=stdin, capture_output=True, timeout=60, **options)

    def assert_reads(self, arguments, content, stdin, **options):
        done = self.run_on(arguments, stdin, **options)
        self.assertEqual((done.returncode, done.stderr), (0, b""), arguments)
        self.assertEqual(done.stdout, self.expected(arguments, content))

    def feed(self, send, content):
        def feeder():
            try:
                send(content)
            except OSError:  # the program's own message reports the failure
                pass
        thread = threading.Thread(target=feeder)
        thread.start()
        self.addCleanup(thread.join)

    def test_a_socket(self):
        for blocking in (True, False):
            for arguments, content in READERS:
                ours, theirs = socket.socketpair()
                theirs.setblocking(blocking)

                def send(content, ours=ours):
                    with ours:
                        ours.sendall(content)
                with theirs:
                    self.feed(send, content)
                    self.assert_reads(arguments, content, theirs)

    def test_a_pipe(self):
        for arguments, content in READERS:
            read_end, write_end = os.pipe()

            def send(content, write_end=write_end):
                with os.fdopen(write_end, "wb") as pipe:
                    pipe.write(content)
            with os.fdopen(read_end, "rb") as pipe:
                self.feed(send, content)
                self.assert_reads(arguments, content, pipe)

    def test_a_positioned_file(self):
        for arguments, content in READERS:
            path = self.write("positioned", b"what another program has read" + content)
            descriptor = os.open(path, os.O_RDONLY)
            os.lseek(descriptor, len(b"what another program has read"), os.SEEK_SET)
            with os.fdopen(descriptor, "rb") as file:
                self.assert_reads(arguments, content, file)

    def test_a_file_that_the_user_could_not_open(self):
        user = {"user": 65534, "extra_groups": []} if os.getuid() == 0 else {}
        with tempfile.TemporaryDirectory() as directory:
            os.chmod(directory, 0o755)
            for arguments, content in READERS:
                program = shutil.copy(programs.BUILD / "tools" / arguments[0], directory)
                path = self.write("mine", content)
                with path.open("rb") as file:
                    path.chmod(0)
                    done = subprocess.run([program, *arguments[1:]], stdin=file,
                                          capture_output=True, timeout=60, cwd="/", **user)
                self.assertEqual((done.returncode, done.stderr), (0, b""), arguments)
                self.assertEqual(done.stdout, self.expected(arguments, content))
                path.unlink()

    def test_closed_standard_input_is_empty(self):
        for program, reason in (("corvel-image", "found an image of 0 bytes"),
                                ("corvel-env", "size: 65536 bytes are expected; found 0")):
            done = subprocess.run(["sh", "-c", '"$0" list - <&-', programs.BUILD / "tools" / program],
                                  capture_output=True, text=True, timeout=60)
            self.assertEqual(done.returncode, 1)
            self.assertIn(reason, done.stderr)

    def test_a_manifest(self):
        self.write("root", b"root file system")
        self.write("kernel", b"kernel")
        manifest = b"[root]\nfile = root\n[kern]\nfile = kernel\n[Ver0]\ntext = 1\n"
        target = self.path("new.img")
        self.assertEqual(run("corvel-image", "build", "-", target, input=manifest,
                             cwd=self.directory).status, 0)
        self.assertEqual(target.read_bytes(), image(
            partition(b"root", b"root file system"), partition(b"kern", b"kernel"), version(b"1")))
        self.expect(run("corvel-image", "build", "-", target, input=b"[x"), 2,
                    errors="corvel-image: -:1: a heading must end with ']'\n")


class StandardOutput(ToolTest):
    def setUp(self):
        super().setUp()
        self.write("part", bytes(3_000_000))
        self.manifest = self.write("manifest", "[root]\nfile = part\n[kern]\nfile = manifest\n"
                                   "[Ver0]\ntext = 1\n")
        self.expected = image(partition(b"root", bytes(3_000_000)),
                              partition(b"kern", self.manifest.read_bytes()), version(b"1"))

    def build_into(self, stdout, **options):
        return subprocess.run([programs.BUILD / "tools/corvel-image", "build", self.manifest, "-"],
                              stdout=stdout, stderr=subprocess.PIPE, timeout=60, **options)

    def test_only_the_image_is_written(self):
        done = self.build_into(subprocess.PIPE)
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, self.expected, b""))
        self.assertEqual(self.files(), ["manifest", "part"])

    def test_a_socket_that_does_not_block(self):
        ours, theirs = socket.socketpair()
        theirs.setblocking(False)
        received = []

        def receive():
            while piece := ours.recv(65536):
                received.append(piece)
        thread = threading.Thread(target=receive)
        thread.start()
        done = self.build_into(theirs)
        theirs.close()
        thread.join()
        ours.close()
        self.assertEqual((done.returncode, done.stderr), (0, b""))
        self.assertEqual(b"".join(received), self.expected)

    def test_a_refused_command_prints_nothing(self):
        self.manifest.write_text("[root]\nfile = part\n")
        done = self.build_into(subprocess.PIPE)
        self.assertEqual((done.returncode, done.stdout), (1, b""))
        done = run("corvel-env", "set", "-", "=", input=ENVIRONMENT)
        self.assertEqual((done.status, done.output), (2, ""))

    def test_a_full_disk(self):
        with open("/dev/full", "wb") as full:
            done = self.build_into(full)
        self.assertEqual((done.returncode, done.stderr),
                         (2, b"corvel-image: standard output: No space left on device\n"))
        done = subprocess.run(["sh", "-c", '"$0" create - a=1 >&-',
                               programs.BUILD / "tools/corvel-env"], stderr=subprocess.PIPE,
                              timeout=60)
        self.assertEqual(done.returncode, 2)
        self.assertIn(b"standard output: ", done.stderr)

    def test_a_terminal_gets_no_image(self):
        leader, follower = pty.openpty()
        done = self.build_into(follower)
        os.close(follower)
        try:
            shown = os.read(leader, 4096)
        except OSError:  # the other end is closed
            shown = b""
        os.close(leader)
        self.assertEqual((done.returncode, shown, done.stderr), (
            2, b"", b"corvel-image: standard output: is a terminal, and an image is binary\n"))

    def test_environments_through_a_pipeline(self):
        program = programs.BUILD / "tools/corvel-env"
        self.write("-", b"a file of that name")
        done = subprocess.run(
            ["sh", "-c", '"$0" create - a=1 b=2 | "$0" set - c=3 a=4 | "$0" delete - b', program],
            capture_output=True, timeout=60, cwd=self.directory)
        self.assertEqual((done.returncode, done.stderr), (0, b""))
        self.assertEqual(entries_of(done.stdout), [b"c=3", b"a=4"])
        self.assertEqual(self.path("-").read_bytes(), b"a file of that name")
        self.assertEqual(self.files(), ["-", "manifest", "part"])


class OpenedFiles(ToolTest):
    def test_no_flash_device_is_opened(self):
        devices = [self.write(f"flash{index}", environment_model.image([b"bootparam=1"]))
                   for index in range(9)]
        binds = [word for index, device in enumerate(devices)
                 for word in ("--bind", device, f"/dev/mtdblock{index}")]
        self.write("part", b"part")
        manifest = self.write("manifest", "".join(
            f"[{name}]\nfile = part\n" for name in ("boot", "benv", "conf")) + "[Ver0]\ntext = 1\n")
        sandbox = ["bwrap", "--bind", "/", "/", "--dev", "/dev", *binds]
        tools = programs.BUILD / "tools"
        watch = Inotify()
        self.addCleanup(watch.close)
        for device in devices:
            watch.watch(device)
        for arguments, content in (
                (["corvel-image", "build", manifest, self.path("new.img")], b""),
                (["corvel-image", "verify", "--json", "-"], GOOD),
                (["corvel-image", "list", "-"], GOOD),
                (["corvel-env", "list", "-"], ENVIRONMENT),
                (["corvel-env", "set", "-", "bootparam=0"], ENVIRONMENT)):
            done = subprocess.run([*sandbox, tools / arguments[0], *arguments[1:]], input=content,
                                  capture_output=True, timeout=60)
            self.assertEqual(done.returncode, 0, done.stderr)
            self.assertEqual(watch.opened(), 0, arguments)
        # The watch detects a program that opens a device.
        subprocess.run([*sandbox, "head", "-c", "1", "/dev/mtdblock1"], check=True, timeout=60,
                       stdout=subprocess.DEVNULL)
        self.assertEqual(watch.opened(), 1)

    def test_an_input_that_is_a_device_is_refused(self):
        refusal = "is a device; devices are read through standard input only"
        for device in ("/dev/zero", "/dev/null", "/dev/tty"):
            link = self.path("link")
            link.symlink_to(device)
            for path in (device, link):
                for arguments in (["corvel-image", "build", path, self.path("new.img")],
                                  ["corvel-image", "list", path], ["corvel-image", "verify", path],
                                  ["corvel-env", "list", path], ["corvel-env", "get", path, "a"],
                                  ["corvel-env", "set", path, "a=1"], ["corvel-env", "check", path],
                                  ["corvel-env", "delete", path, "a"]):
                    self.expect(run(*arguments), 2,
                                errors=f"corvel-{arguments[0][7:]}: {path}: {refusal}\n")
            link.unlink()
            manifest = self.write("manifest", f"[root]\nfile = {device}\n[Ver0]\ntext = 1\n")
            self.expect(run("corvel-image", "build", manifest, self.path("new.img")), 2,
                        errors=f"corvel-image: {device}: {refusal}\n")

    def test_a_device_is_read_through_standard_input(self):
        with open("/dev/zero", "rb") as device:
            self.expect(run("corvel-env", "check", "-", stdin=device), 1, errors=(
                f"corvel-env: -: size: 65536 bytes are expected; found at least {SIZE + 1}\n"))


class OutputNames(ToolTest):
    def setUp(self):
        super().setUp()
        self.write("part", b"part")
        self.manifest = self.write("manifest", "[root]\nfile = part\n[kern]\nfile = part\n"
                                   "[Ver0]\ntext = 1\n")

    def test_the_longest_name(self):
        most = os.pathconf(self.directory, "PC_NAME_MAX")
        for name in ("i" * most, "\u00e9" * (most // 2)):
            target = self.path(name)
            for _ in range(2):  # a new file, and one that is replaced
                done = run("corvel-image", "build", self.manifest, target)
                self.assertEqual((done.status, done.errors), (0, ""))
                self.assertTrue(target.read_bytes().startswith(b"root"))
            self.expect(run("corvel-env", "create", "-f", target, "a=1"), 0)
            self.expect(run("corvel-env", "set", target, "a=2"), 0)
            self.assertEqual(entries_of(target.read_bytes()), [b"a=2"])
        self.assertEqual(len(self.files()), 4)
        too_long = self.path("i" * (most + 1))
        self.expect(run("corvel-env", "create", too_long), 2,
                    errors=f"corvel-env: {too_long}: File name too long\n")

    def test_the_longest_path(self):
        most = os.pathconf(self.directory, "PC_PATH_MAX") - 1  # without the NUL
        path = str(self.directory)
        while len(path) + 202 < most:
            path += "/" + "d" * 100
        os.makedirs(path)
        path += "/" + "f" * (most - len(path) - 1)
        self.assertEqual(len(path), most)
        for value in "12":
            self.expect(run("corvel-env", "create", "--force", path, f"a={value}"), 0)
        self.expect(run("corvel-env", "get", path, "a"), 0, "2\n")

    def test_names_with_control_characters_are_escaped(self):
        name = b"\x1b]0;title\x07\n\xff\\"
        path = os.path.join(os.fsencode(self.directory), name)
        shown = printable(path)
        self.expect(run("corvel-env", "list", path), 2,
                    errors=f"corvel-env: {shown}: No such file or directory\n")
        self.expect(run("corvel-env", "create", path, b"\x1b=1"), 0)
        self.expect(run("corvel-env", "check", path), 0,
                    f"{shown}: good: 1 variable, {environment_model.DATA_SIZE - 4} bytes free\n")
        self.expect(run("corvel-env", "get", path, b"\x07"), 1,
                    errors=f"corvel-env: {shown}: no variable '\\x07'\n")
        done = run("corvel-image", "build", self.manifest, path)
        self.assertEqual((done.status, done.errors), (0, ""))
        self.assertTrue(done.output.startswith(f"{shown}: "))
        for arguments in (["\x1b[2J"], ["--\x1b[2J"], ["-\x1b"], ["set", path, "\x1b"],
                          ["set", path, "=\x1b"], ["get", path, "\x1b="],
                          ["set", path, "\x1b=" + "1" * SIZE]):
            done = run("corvel-env", *arguments)
            self.assertNotEqual(done.status, 0)
            self.assertTrue(done.errors.replace("\n", "").isprintable(), repr(done.errors))
        manifest = self.write("bad", b"[root]\nfile = \x1b[2J\n[Ver0]\ntext = 1\n")
        done = run("corvel-image", "build", manifest, self.path("new.img"))
        self.assertEqual(done.status, 2)
        self.assertIn("/\\x1b[2J: No such file", done.errors)
