# SPDX-License-Identifier: MIT
"""Environment images, created and edited, compared with a model in Python."""

import os
import random
import re
import stat

import environment_model as model
from environment_model import DATA_SIZE, SIZE, entries_of, image, with_crc
from programs import ToolTest, printable, run, with_file_size_limit


class EnvironmentTest(ToolTest):
    def setUp(self):
        super().setUp()
        self.file = self.path("env")

    def env(self, command, *arguments, **options):
        return run("corvel-env", command, *arguments, **options)

    def assert_entries(self, *entries):
        self.assertEqual(entries_of(self.file.read_bytes()), list(entries))

    def contents(self):
        return {path.name: path.read_bytes() for path in self.directory.iterdir()}

    def assert_refuses(self, status, message, command, *arguments, **options):
        """Checks for a message, and that every file is unchanged."""
        before = self.contents()
        self.expect(self.env(command, *arguments, **options), status,
                    errors=f"corvel-env: {message}\n")
        self.assertEqual(self.contents(), before)


class Editing(EnvironmentTest):
    def test_an_empty_environment(self):
        self.expect(self.env("create", self.file), 0)
        self.assertEqual(self.file.read_bytes(), with_crc(bytes(DATA_SIZE)))
        self.expect(self.env("list", self.file), 0)
        self.expect(self.env("check", self.file), 0,
                    f"{self.file}: good: 0 variables, {DATA_SIZE} bytes free\n")

    def test_a_first_environment(self):
        self.expect(self.env("create", self.file, "bootparam=0",
                             "bootargs=console=ttyS0 root=31:2 "), 0)
        self.assertEqual(self.file.read_bytes(),
                         image([b"bootparam=0", b"bootargs=console=ttyS0 root=31:2 "]))
        self.expect(self.env("list", self.file), 0,
                    "bootparam=0\nbootargs=console=ttyS0 root=31:2 \n")
        self.expect(self.env("get", self.file, "bootargs"), 0, "console=ttyS0 root=31:2 \n")
        self.expect(self.env("check", self.file), 0,
                    f"{self.file}: good: 2 variables, {DATA_SIZE - 46} bytes free\n")

    def test_create_replaces_a_file_only_with_force(self):
        for content in (b"precious", b""):
            self.file.write_bytes(content)
            self.assert_refuses(2, f"{self.file}: already exists; use --force to replace it",
                                "create", self.file, "a=1")
        for option in ("--force", "-f"):
            self.file.write_bytes(b"precious")
            self.expect(self.env("create", option, self.file, "a=1"), 0)
            self.assert_entries(b"a=1")

    def test_the_last_of_several_values_counts(self):
        self.env("create", self.file, "a=1", "b=2", "a=3")
        self.assert_entries(b"b=2", b"a=3")
        self.expect(self.env("set", self.file, "c=1", "b=x", "c=2"), 0)
        self.assert_entries(b"a=3", b"b=x", b"c=2")

    def test_any_value_can_be_stored(self):
        everything = bytes(range(1, 256))
        for value in (b"", b"=", b"a=b", b" ", b"-1", b"--force", b"'\"$`\\", everything):
            self.env("create", "-f", self.file, "before=1")
            self.expect(self.env("set", self.file, b"name=" + value), 0)
            self.assert_entries(b"before=1", b"name=" + value)
            done = self.env("get", "--raw", self.file, "name")
            self.assertEqual(done.output.encode(errors="surrogateescape"), value + b"\n")
            self.expect(self.env("get", self.file, "name"), 0, printable(value) + "\n")
            self.expect(self.env("list", self.file), 0,
                        f"before=1\nname={printable(value)}\n")

    def test_names_that_are_part_of_others(self):
        self.env("create", self.file, "boot=1", "bootdelay=2", "bo=3")
        for name, value in (("boot", "1"), ("bootdelay", "2"), ("bo", "3")):
            self.expect(self.env("get", self.file, name), 0, value + "\n")
        for name in ("b", "bootd", "bootdelay2", "Boot"):
            self.assert_refuses(1, f"{self.file}: no variable '{name}'",
                                "get", self.file, name)
        self.expect(self.env("delete", self.file, "boot"), 0)
        self.assert_entries(b"bootdelay=2", b"bo=3")

    def test_names_that_begin_with_a_dash(self):
        self.env("create", self.file, "--", "-a=1", "--force=2")
        self.assert_entries(b"-a=1", b"--force=2")
        self.expect(self.env("get", "--", self.file, "-a"), 0, "1\n")
        self.expect(self.env("delete", "--", self.file, "--force"), 0)
        self.assert_entries(b"-a=1")

    def test_delete(self):
        self.env("create", self.file, *(f"{name}=1" for name in "abcde"))
        for names, left in (("c", "abde"), ("ea", "bd"), ("d", "b"), ("b", "")):
            self.expect(self.env("delete", self.file, *names), 0)
            self.assert_entries(*(f"{name}=1".encode() for name in left))
        self.assertEqual(self.file.read_bytes()[4:6], b"\0\0")

    def test_deleting_a_missing_variable(self):
        self.env("create", self.file, "a=1", "b=2")
        self.assert_refuses(1, f"{self.file}: no variable 'x'",
                            "delete", self.file, "a", "x")
        self.expect(self.env("delete", "--force", self.file, "a", "x", "a"), 0)
        self.assert_entries(b"b=2")

    def test_words_that_are_not_assignments(self):
        self.env("create", self.file, "a=1")
        for word, message in (("b", "'b' is not NAME=VALUE"), ("", "'' is not NAME=VALUE"),
                              ("=b", "'=b' has no name"), ("=", "'=' has no name")):
            self.assert_refuses(2, message, "set", self.file, "c=1", word)
            self.assert_refuses(2, message, "create", "-f", self.file, "c=1", word)
        for name in ("", "a=", "=", "a=1"):
            for command in ("get", "delete"):
                self.assert_refuses(2, f"'{name}' is not a variable name",
                                    command, self.file, name)

    def test_the_longest_value_and_one_byte_more(self):
        room = DATA_SIZE - len("a=1") - 1
        fitting = "v" * (room - len("name") - 3)
        for command in ("create", "set"):
            first = ["a=1"] if command == "create" else []
            self.env("create", "-f", self.file, "a=1", "name=old")
            size = DATA_SIZE - 4
            self.assert_refuses(1, f"'name' does not fit: it takes {size + 1} bytes, and {size} "
                                "are free", command, *(["-f"] if first else []), self.file, *first,
                                f"name={fitting}v")
            self.expect(self.env(command, *(["-f"] if first else []), self.file, *first,
                                 f"name={fitting}"), 0)
            self.assert_entries(b"a=1", f"name={fitting}".encode())
            self.expect(self.env("check", self.file), 0,
                        f"{self.file}: good: 2 variables, 1 bytes free\n")
        self.assert_refuses(1, "'b' does not fit: it takes 4 bytes, and 1 are free",
                            "set", self.file, "b=")
        self.expect(self.env("set", self.file, "name=short", "b="), 0)

    def test_set_changes_all_variables_or_none(self):
        self.env("create", self.file, "a=1")
        self.assert_refuses(1, "'c' does not fit: it takes 70004 bytes, and 65524 are free",
                            "set", self.file, "b=2", "c=" + "x" * 70000)

    def test_free_space_is_unchanged(self):
        content = image([b"a=1", b"b=2"], fill=b"\xff")
        self.file.write_bytes(content)
        self.expect(self.env("set", self.file, "b=345"), 0)
        self.assertEqual(self.file.read_bytes(), image([b"a=1", b"b=345"], fill=b"\xff"))

    def test_random_changes(self):
        random.seed(4)
        self.env("create", self.file)
        entries = {}
        for _ in range(300):
            names = [random.choice(("a", "ab", "abc", "b", "bootargs", "x" * 40))
                     for _ in range(random.randrange(1, 4))]
            if random.random() < 0.6:
                values = [random.choice(("", "1", "=", "v" * random.randrange(2000)))
                          for _ in names]
                command = ["set", self.file, *map("=".join, zip(names, values))]
                for name, value in zip(names, values):
                    entries.pop(name, None)
                    entries[name] = value
            else:
                command = ["delete", "--force", self.file, *names]
                for name in names:
                    entries.pop(name, None)
            self.expect(self.env(*command), 0)
            self.assert_entries(*(f"{name}={value}".encode() for name, value in entries.items()))
        self.assertTrue(entries)


class Files(EnvironmentTest):
    def test_files_of_another_size(self):
        for size in (0, 1, 4, SIZE - 1, SIZE + 1, 2 * SIZE):
            self.file.write_bytes(bytes(size))
            found = f"at least {SIZE + 1}" if size > SIZE else size
            message = f"{self.file}: size: 65536 bytes are expected; found {found}"
            for command in (["list"], ["get", "a"], ["set", "a=1"], ["set", "-f", "a=1"],
                            ["delete", "a"], ["check"]):
                self.assert_refuses(1, message, command[0], self.file, *command[1:])

    def test_files_that_cannot_be_read(self):
        for path, reason in ((self.path("none"), "No such file or directory"),
                             (self.directory, "Is a directory"), ("", "No such file or directory")):
            for command in (["list"], ["get", "a"], ["set", "a=1"], ["delete", "a"], ["check"]):
                self.expect(self.env(command[0], path, *command[1:]), 2,
                            errors=f"corvel-env: {path}: {reason}\n")
        self.assertEqual(self.files(), [])

    def test_files_that_cannot_be_written(self):
        for path in (self.path("none/env"), "/proc/self/env"):
            done = self.env("create", path)
            self.assertEqual((done.status, done.output), (2, ""))
            self.assertRegex(done.errors, f"^corvel-env: {re.escape(str(path))}: .+\n$")
        self.expect(self.env("create", "-f", "/dev/null"), 2,
                    errors="corvel-env: /dev/null: not a regular file\n")

    def test_a_stream_can_be_read_but_not_replaced(self):
        self.file.write_bytes(image([b"a=1"]))
        with self.file.open("rb") as content:
            self.expect(self.env("get", "/dev/stdin", "a", stdin=content), 0, "1\n")
        read_end, write_end = os.pipe()
        os.write(write_end, image([b"a=2"])[:SIZE - 1000])
        os.write(write_end, image([b"a=2"])[SIZE - 1000:])
        os.close(write_end)
        with os.fdopen(read_end, "rb") as content:
            done = self.env("set", "/dev/stdin", "a=3", stdin=content)
        self.assertEqual(done.status, 2)
        self.assertIn("not a regular file", done.errors)

    def test_a_full_disk_leaves_the_old_file(self):
        self.env("create", self.file, "a=1")
        for limit in (0, 1, 4096, SIZE - 1):
            for command in (["set", self.file, "a=2"], ["delete", self.file, "a"],
                            ["create", "-f", self.file]):
                self.assert_refuses(2, f"{self.file}: File too large", *command,
                                    **with_file_size_limit(limit))

    def test_mode_and_links(self):
        self.expect(self.env("create", self.file, "a=1", umask=0o077), 0)
        self.assertEqual(stat.S_IMODE(self.file.stat().st_mode), 0o600)
        self.file.chmod(0o640)
        self.path("link").symlink_to("env")
        self.expect(self.env("set", self.path("link"), "a=2"), 0)
        self.assertTrue(self.path("link").is_symlink())
        self.assertEqual(stat.S_IMODE(self.file.stat().st_mode), 0o640)
        self.assert_entries(b"a=2")

    def test_owner(self):
        self.env("create", self.file, "a=1")
        root = os.getuid() == 0
        owner = (65534, 65533) if root else (os.getuid(), os.getgid())
        os.chown(self.file, *owner)
        self.file.chmod(0o4640)
        self.expect(self.env("set", self.file, "a=2"), 0)
        status = self.file.stat()
        self.assertEqual((status.st_uid, status.st_gid, stat.S_IMODE(status.st_mode)),
                         (*owner, 0o4640))

    def test_a_reader_never_sees_an_incomplete_file(self):
        self.env("create", self.file, "a=" + "1" * 60000)
        old = self.file.open("rb")
        self.addCleanup(old.close)
        self.env("set", self.file, "a=" + "2" * 60000)
        self.assertEqual(old.read(), image([b"a=" + b"1" * 60000]))
        self.assert_entries(b"a=" + b"2" * 60000)
        self.assertEqual(self.files(), ["env"])


class BadImages(EnvironmentTest):
    CRC = r"CRC: 0x[0-9a-f]{8} is expected, the CRC-32 of the bytes from offset 4; found 0x"

    def with_bad_crc(self, content):
        return bytes([content[0] ^ 1]) + content[1:]

    def test_a_bad_crc_is_read_with_a_message(self):
        good = image([b"a=1", b"b=2"])
        self.file.write_bytes(self.with_bad_crc(good))
        found, expected = self.file.read_bytes()[:4].hex(), good[:4].hex()
        message = (f"corvel-env: {self.file}: bad environment: CRC: 0x{expected} is expected, the "
                   f"CRC-32 of the bytes from offset 4; found 0x{found}\n")
        self.expect(self.env("list", self.file), 1, "a=1\nb=2\n", message)
        self.expect(self.env("get", self.file, "b"), 1, "2\n", message)
        self.expect(self.env("check", self.file), 1, "", message)
        for command in (["set", self.file, "a=2"], ["delete", self.file, "a"]):
            self.assert_refuses(1, message.removeprefix("corvel-env: ") +
                                "Use --force to change it anyway.", *command)

    def test_force_corrects_the_crc(self):
        self.file.write_bytes(self.with_bad_crc(image([b"a=1", b"b=2"])))
        self.expect(self.env("set", "--force", self.file, "a=3"), 0)
        self.assert_entries(b"b=2", b"a=3")
        self.file.write_bytes(self.with_bad_crc(image([b"a=1", b"b=2"])))
        self.expect(self.env("delete", self.file, "b", "--force"), 0)
        self.assert_entries(b"a=1")

    def test_each_changed_byte_is_detected(self):
        content = image([b"a=1", b"b=2"])
        for offset in (*range(14), 100, SIZE // 2, SIZE - 1):
            changed = bytearray(content)
            changed[offset] ^= 0x10
            self.file.write_bytes(changed)
            done = self.env("check", self.file)
            self.assertEqual(done.status, 1)
            self.assertRegex(done.errors, self.CRC)

    def test_malformed_entries(self):
        place = f"corvel-env: {self.file}: bad environment: entry at offset"
        for entries, faults in (
                ([b"a=1", b"word", b"b=2"], ["0x8: NAME=VALUE is expected; found no '='"]),
                ([b"=1"], ["0x4: a name is expected; found none"]),
                ([b"a=1", b"b=1", b"a=2"], ["0xc: a unique name is expected; found 'a' again"]),
                ([b"\x1b=1", b"\x1b=2", b"x"],
                 ["0x8: a unique name is expected; found '\\x1b' again",
                  "0xc: NAME=VALUE is expected; found no '='"])):
            self.file.write_bytes(image(entries))
            self.expect(self.env("check", self.file), 1,
                        errors="".join(f"{place} {fault}\n" for fault in faults))
            self.expect(self.env("list", self.file), 0,
                        "".join(printable(entry) + "\n" for entry in entries))

    def test_a_name_in_several_entries(self):
        entries = [b"a=1", b"b=1", b"a=2", b"a=3", b"c=1"]
        self.file.write_bytes(image(entries))
        self.expect(self.env("get", self.file, "a"), 0, "1\n")
        self.expect(self.env("set", self.file, "a=4"), 0)
        self.assert_entries(b"b=1", b"c=1", b"a=4")
        self.expect(self.env("get", self.file, "a"), 0, "4\n")
        self.file.write_bytes(image(entries))
        self.expect(self.env("delete", self.file, "a"), 0)
        self.assert_entries(b"b=1", b"c=1")

    def test_thousands_of_the_same_name(self):
        count = (DATA_SIZE - 1) // 3
        self.file.write_bytes(image([b"a="] * count))
        self.expect(self.env("set", self.file, "a=1"), 0)
        self.assert_entries(b"a=1")

    def test_a_list_without_an_end(self):
        for data in (b"\xff" * DATA_SIZE, b"a=1\0" + b"x" * (DATA_SIZE - 4),
                     b"a=1\0" * (DATA_SIZE // 4), b"a=1\0" + b"b" * (DATA_SIZE - 5) + b"\0"):
            self.file.write_bytes(with_crc(data))
            done = self.env("check", self.file)
            self.assertEqual((done.status, done.output), (1, ""))
            self.assertIn(f"{self.file}: bad environment: list: a second NUL is expected at its "
                          "end; found the end of the image\n", done.errors)
            self.assert_refuses(1, "'new' does not fit: it takes 7 bytes, and 0 are free",
                                "set", self.file, "new=1")
            listed = self.env("list", self.file)
            self.assertEqual(listed.status, 0)
            self.assertEqual(listed.output, "".join(
                printable(entry) + "\n" for entry in data.removesuffix(b"\0").split(b"\0")))

    def test_random_images(self):
        """On any image, commands end with a result and change only the variables named."""
        random.seed(5)
        kinds = (lambda: random.randbytes(DATA_SIZE),
                 lambda: bytes(random.choices(b"\0a=", k=DATA_SIZE)),
                 lambda: bytes(random.choices(b"\0\0\0ab=", k=100)).ljust(DATA_SIZE, b"\xff"),
                 lambda: b"\xff" * DATA_SIZE, lambda: bytes(DATA_SIZE))
        for _ in range(60):
            data = random.choice(kinds)()
            content = random.choice((with_crc, lambda data: b"wxyz" + data))(data)
            good = content == with_crc(data)
            self.file.write_bytes(content)
            end = model.list_end(data)
            entries = data[:end].removesuffix(b"\0").split(b"\0") if end else []
            values = [entry[2:] for entry in model.closed_entries(data) if entry[:2] == b"a="]

            listed = self.env("list", self.file)
            self.assertEqual(listed.status, 0 if good else 1)
            self.assertEqual(listed.output, "".join(printable(entry) + "\n" for entry in entries))
            got = self.env("get", self.file, "a")
            self.assertEqual(got.status, 0 if good and values else 1)
            self.assertEqual(got.output, printable(values[0]) + "\n" if values else "")
            self.assertEqual(self.file.read_bytes(), content)

            done = self.env("set", "--force", self.file, "a=new value")
            self.assertIn(done.status, (0, 1))
            after = self.file.read_bytes()
            if done.status == 0:
                kept = [entry for entry in model.closed_entries(data) if entry[:2] != b"a="]
                self.assertEqual(entries_of(after), [*kept, b"a=new value"])
            else:
                self.assertEqual(after, content)
                self.assertRegex(done.errors, r"^corvel-env: 'a' does not fit: it takes 13 bytes")
                self.assertTrue(end > DATA_SIZE - 13)
