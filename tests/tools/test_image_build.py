# SPDX-License-Identifier: MIT
"""Images built from manifests: identical to the model's, or refused without writing a file."""

import os
import random
import stat

import image_model as model
from image_model import image, partition, version
from programs import ToolTest, run, with_file_size_limit

SIMPLE = "[Rootfs]\nfile = root\n[Linux_kernel]\nfile = kernel\n[Ver0]\ntext = 1.0\n"
SIMPLE_IMAGE = image(partition(b"root", b"root file system"), partition(b"kern", b"kernel"),
                     version(b"1.0"))
TIGHT = "{} bytes leave less than 1024 of the 16777216 bytes of an upload for its headers"


class Build(ToolTest):
    def setUp(self):
        super().setUp()
        self.write("root", b"root file system")
        self.write("kernel", b"kernel")
        self.target = self.path("new.img")

    def build(self, manifest, target=None, **options):
        path = self.write("manifest", manifest)
        return run("corvel-image", "build", path, target or self.target, **options)

    def assert_builds(self, manifest, expected, warnings=(), after=()):
        """Checks that the build gives these warnings, those about booting, and those in `after`."""
        warnings = [*warnings, *model.warnings_about_boot(expected), *after]
        done = self.build(manifest)
        self.assertEqual(done.status, 0, done)
        self.assertEqual(done.errors.splitlines(), [
            f"corvel-image: {self.target}: warning: {warning}" for warning in warnings])
        self.assertEqual(self.target.read_bytes(), expected)
        self.assertEqual(model.expected_of(expected).result, model.ACCEPTED)
        return done

    def assert_refuses(self, manifest, status, message):
        """Checks for a message about the manifest, and that no file is created."""
        before = {path.name for path in self.directory.iterdir()} | {"manifest"}
        done = self.build(manifest)
        self.expect(done, status, errors=f"corvel-image: {self.path('manifest')}{message}\n")
        self.assertEqual(set(self.files()), before)

    def test_a_simple_image(self):
        done = self.assert_builds(SIMPLE, SIMPLE_IMAGE)
        self.assertEqual(done.output, f"{self.target}: {len(SIMPLE_IMAGE)} bytes, 3 sections, "
                         f"version 1.0, CRC 0x{SIMPLE_IMAGE[-4:].hex()}\n")

    def test_every_key(self):
        self.assert_builds(
            "[boot]\nfile = root\nburn-address = 0xbFc00000\npadding = 3\nmtd-id = 254\n"
            "[Linux_kernel]\nfile = kernel\nburn-address = 17\npadding = 0x10\nmtd-id = 0\n"
            "[Ver0]\ntext = 2.0 = two # not a comment\nburn-address = 4294967295\npadding = 5\n"
            "mtd-id = 0xff\n",
            image(partition(b"boot", b"root file system", pad=3, burn_address=0xbfc00000,
                            mtd_id=254),
                  partition(b"kern", b"kernel", pad=16, burn_address=17, mtd_id=0),
                  version(b"2.0 = two # not a comment" + bytes(5), pad=5,
                          burn_address=0xffffffff)))

    def test_each_partition_by_name_and_by_signature(self):
        for signature, (name, _, _, _) in model.PARTITIONS.items():
            if signature == b"Ver0":
                continue
            expected = image(partition(signature, b"kernel"), version(b"v"))
            for heading in (name, signature.decode()):
                self.assert_builds(f"[{heading}]\nfile=kernel\n[Ver0]\ntext=v\n", expected)

    def test_comments_and_whitespace_in_a_manifest_are_ignored(self):
        self.assert_builds("# A comment\r\n\r\n  [ Rootfs ]  \n\t# another\n file=root\t\n\n\n"
                           "[kern]\nfile\t= kernel\n[Ver0]\r\ntext =  1.0  \r", SIMPLE_IMAGE)

    def test_a_version_from_a_file(self):
        text = bytes(range(68))
        self.write("version", text)
        self.assert_builds("[Rootfs]\nfile = root\n[Ver0]\nfile = version\n",
                           image(partition(b"root", b"root file system"), version(text)))

    def test_an_empty_version(self):
        self.assert_builds("[Rootfs]\nfile = root\n[Ver0]\ntext =\n",
                           image(partition(b"root", b"root file system"), version(b"")))

    def test_warnings_for_faults_that_a_device_accepts(self):
        self.assert_builds(
            "[Rootfs]\nfile = kernel\nmtd-id = 255\n[kern]\nfile = kernel\n[Ver0]\ntext = v\n",
            image(partition(b"root", b"kernel", mtd_id=255), partition(b"kern", b"kernel"),
                  version(b"v")),
            ["section 1 (root) at offset 0x0: mtd_id 255: neither checksum nor size is checked"])

    def test_paths_are_relative_to_the_manifest(self):
        self.path("parts").mkdir()
        self.path("parts/root").write_bytes(b"another")
        self.path("parts/kernel").write_bytes(b"kernel")
        self.path("parts/manifest").write_text(SIMPLE)
        expected = image(partition(b"root", b"another"), partition(b"kern", b"kernel"),
                         version(b"1.0"))
        for manifest, cwd in (("parts/manifest", self.directory), ("manifest", self.path("parts")),
                                 (self.path("parts/manifest"), "/")):
            self.assertEqual(run("corvel-image", "build", manifest, self.target,
                                 cwd=cwd).status, 0)
            self.assertEqual(self.target.read_bytes(), expected)
            self.target.unlink()
        absolute = SIMPLE.replace("root\n", f"{self.path('parts/root')}\n")
        self.assert_builds(absolute, expected)

    def test_the_largest_content_and_one_byte_more(self):
        for signature, (name, stripped, largest, _) in model.PARTITIONS.items():
            if signature == b"Ver0":
                continue
            with self.subTest(name):
                most = largest if stripped else largest - 20 - 3 - 1
                self.write("large", bytes(most))
                manifest = f"[{name}]\nfile = large\npadding = 3\n[Ver0]\ntext = v\n"
                self.assert_builds(manifest, image(partition(signature, bytes(most), pad=3),
                                                   version(b"v")))
                self.write("large", bytes(most + 1))
                whole = "" if stripped else " with header and trailer"
                self.assert_refuses(manifest, 1, f":1: {name}: {largest + 1} bytes{whole}, 1 more "
                                    f"than the {largest} bytes of the partition")

    def test_the_size_is_checked_even_if_a_device_does_not_check_it(self):
        self.write("large", bytes(0x10001))
        self.assert_refuses("[ART]\nfile = large\nmtd-id = 255\n[Ver0]\ntext = v\n", 1,
                            ":1: ART: 65537 bytes, 1 more than the 65536 bytes of the partition")

    def test_a_version_that_is_too_long(self):
        manifest = "[Rootfs]\nfile = root\n[Ver0]\ntext = "
        self.assert_builds(manifest + "v" * 68, image(partition(b"root", b"root file system"),
                                                      version(b"v" * 68)))
        self.assert_refuses(manifest + "v" * 69, 1, ":3: Ver0: 93 bytes with header and trailer, "
                            "1 more than the 92 bytes of a version section")

    def test_an_image_larger_than_an_upload(self):
        # Two headers, a byte of content and its checksum, the CRC.
        self.write("byte", b"1")
        most = 16 * 1024 * 1024 - 20 - 1 - 1 - 20 - 4
        manifest = "[Rootfs]\nfile = byte\npadding = {}\n[Ver0]\ntext =\n"
        self.assert_builds(manifest.format(most),
                           image(partition(b"root", b"1", pad=most), version(b"")),
                           after=[TIGHT.format(2**24)])
        refusal = "makes the image larger than the upload limit of 16777216 bytes"
        self.assert_refuses(manifest.format(most + 1), 1, f":4: Ver0: {refusal}")
        for padding in (most + 25, 2**32 - 1):
            self.assert_refuses(manifest.format(padding), 1, f":1: Rootfs: {refusal}")
        with self.path("large").open("wb") as sparse:
            sparse.truncate(2**24 + 1)
        self.assert_refuses("[Log]\nfile = large\n[Ver0]\ntext = v\n", 1, ":1: Log: large is "
                            "larger than the upload limit of 16777216 bytes")

    def test_sections_that_a_device_refuses(self):
        ending = "[Ver0]\ntext = v\n"
        one, two, three, four = (f"[{name}]\nfile = kernel\n"
                                 for name in ("boot", "root", "kern", "log0"))
        kernel = partition(b"boot", b"kernel"), partition(b"root", b"kernel")
        self.assert_builds(one + two + three + ending,
                           image(*kernel, partition(b"kern", b"kernel"), version(b"v")))
        for manifest, message in (
                (one + two + three + four + ending,
                 ":9: Ver0: section 5: a device accepts at most 4 sections, including the version"),
                (one + two, ":3: Rootfs: the last section must be [Ver0], which contains the CRC"),
                (ending + one, ":3: Boot: the last section must be [Ver0], which contains the CRC"),
                (ending, ":1: Ver0: nothing to write: no section for a partition"),
                (one + two + one + ending, ":5: Boot: already in line 1"),
                (ending + ending, ":3: Ver0: already in line 1"),
                ("[Rootfs]\n" + ending, ":1: Rootfs: has no file"),
                ("[Rootfs]\ntext = v\n" + ending,
                 ":1: Rootfs: only a version section may have a text; use a file"),
                (one + "[Ver0]\n", ":3: Ver0: has neither a text nor a file"),
                (one + ending + "file = root\n", ":3: Ver0: has both a file and a text"),
                (one + ending + "mtd-id = 9\n",
                 ":3: Ver0: mtd-id must be 255: a version section has no checksum")):
            with self.subTest(manifest):
                self.assert_refuses(manifest, 1, message)

    def test_an_empty_file(self):
        self.write("root", b"")
        self.assert_refuses(SIMPLE, 1, ":1: Rootfs: root is empty")

    def test_invalid_manifests(self):
        number = "not a number from 0 to 4294967295 (0xffffffff)"
        known = ("the partitions are Boot, Boot-env, Rootfs, Linux_kernel, Rootfs-1, Linux_kernel-1, "
                 "Log, Config, ART, Ver0")
        for manifest, message in (
                ("", ": contains no section such as [Rootfs]"),
                ("# nothing\n", ": contains no section such as [Rootfs]"),
                ("file = root\n", ":1: a section such as [Rootfs] must come first"),
                ("\n[rootfs]\n", f":2: unknown partition 'rootfs'; {known}"),
                ("[]\n", f":1: unknown partition ''; {known}"),
                ("[Root\x1bfs]\n", f":1: unknown partition 'Root\\x1bfs'; {known}"),
                ("[Rootfs\n", ":1: a heading must end with ']'"),
                ("[", ":1: a heading must end with ']'"),
                ("[Rootfs]\nfile root\n", ":2: [PARTITION] or KEY = VALUE is expected"),
                ("[Rootfs]\nFile = root\n", ":2: unknown key 'File'; the keys are file, text, "
                 "burn-address, padding, mtd-id"),
                ("[Rootfs]\nfile =\n", ":2: file has no value"),
                ("[Rootfs]\nfile = a\0b\n", ":2: file contains a NUL"),
                ("[Rootfs]\nfile = a\nfile = b\n", ":3: file is set twice in this section"),
                ("[Rootfs]\npadding = 1\npadding = 1\n",
                 ":3: padding is set twice in this section"),
                *((f"[Rootfs]\n{key} = {value}\n", f":2: {key} is '{value}', {number}")
                  for key in ("padding", "burn-address", "mtd-id")
                  for value in ("x", "-1", "+1", "1 2", "1k", "0x", "0x1g", "4294967296",
                                "0x100000000", "1.5")),
                ("[Rootfs]\npadding =\n", f":2: padding is '', {number}")):
            with self.subTest(manifest):
                self.assert_refuses(manifest, 2, message)
        path = self.write("manifest", b"#" * (2**20 + 1))
        self.expect(run("corvel-image", "build", path, self.target), 2,
                    errors=f"corvel-image: {path}: too large for a manifest\n")

    def test_files_that_cannot_be_read(self):
        missing = "No such file or directory"
        self.expect(run("corvel-image", "build", self.path("none"), self.target), 2,
                    errors=f"corvel-image: {self.path('none')}: {missing}\n")
        self.expect(run("corvel-image", "build", self.directory, self.target), 2,
                    errors=f"corvel-image: {self.directory}: Is a directory\n")
        self.expect(self.build("[Rootfs]\nfile = none\n[Ver0]\ntext = v\n"), 2,
                    errors=f"corvel-image: {self.path('none')}: {missing}\n")
        for command in ("list", "verify"):
            self.expect(run("corvel-image", command, self.path("none")), 2,
                        errors=f"corvel-image: {self.path('none')}: {missing}\n")
            self.expect(run("corvel-image", command, self.directory), 2,
                        errors=f"corvel-image: {self.directory}: Is a directory\n")

    def test_a_target_that_cannot_be_written(self):
        self.path("directory").mkdir()
        for target, reason in ((self.path("directory"), "not a regular file"),
                               (self.path("none/new.img"), "No such file or directory"),
                               (self.path("root/new.img"), "Not a directory"),
                               ("/dev/null", "not a regular file")):
            self.expect(self.build(SIMPLE, target), 2, errors=f"corvel-image: {target}: {reason}\n")
        self.assertEqual(self.files(), ["directory", "kernel", "manifest", "root"])

    def test_a_full_disk_leaves_the_old_image(self):
        self.write("root", os.urandom(3_000_000))
        self.target.write_bytes(b"the old one")
        for limit in (0, 1000, 2_000_000):
            done = self.build(SIMPLE, **with_file_size_limit(limit))
            self.expect(done, 2, errors=f"corvel-image: {self.target}: File too large\n")
            self.assertEqual(self.target.read_bytes(), b"the old one")
            self.assertEqual(self.files(), ["kernel", "manifest", "new.img", "root"])

    def test_a_refusal_leaves_the_old_image(self):
        self.target.write_bytes(b"the old one")
        self.assert_refuses("[Rootfs]\nfile = root\n", 1, ":1: Rootfs: the last section must be "
                            "[Ver0], which contains the CRC")
        self.assertEqual(self.target.read_bytes(), b"the old one")

    def test_mode_and_links_of_the_target(self):
        self.assertEqual(self.build(SIMPLE, umask=0o027).status, 0)
        self.assertEqual(stat.S_IMODE(self.target.stat().st_mode), 0o640)
        self.target.chmod(0o604)
        os.chown(self.target, os.getuid(), os.getgid())
        link = self.path("link")
        link.symlink_to("new.img")
        other_name = self.path("other name")
        os.link(self.target, other_name)
        before = other_name.read_bytes()
        self.write("root", b"changed")
        self.assertEqual(self.build(SIMPLE, link).status, 0)
        self.assertTrue(link.is_symlink())
        self.assertEqual(self.target.read_bytes(),
                         image(partition(b"root", b"changed"), partition(b"kern", b"kernel"),
                               version(b"1.0")))
        self.assertEqual(stat.S_IMODE(self.target.stat().st_mode), 0o604)
        self.assertEqual(other_name.read_bytes(), before)

    def test_a_source_is_not_replaced_under_any_name(self):
        self.path("directory").mkdir()
        manifest = self.write("manifest", SIMPLE)
        for source in ("root", "kernel", "manifest"):
            before = self.path(source).read_bytes()
            symbolic, hard = self.path("symbolic"), self.path("hard")
            symbolic.symlink_to(source)
            os.link(self.path(source), hard)
            for target in (self.path(source), symbolic, hard,
                           self.directory / "directory/.." / source):
                self.expect(run("corvel-image", "build", manifest, target), 2, errors=(
                    f"corvel-image: {target}: is one of the files that the image is made from\n"))
                self.assertEqual(self.path(source).read_bytes(), before)
            symbolic.unlink()
            hard.unlink()

    def test_a_source_on_standard_input_is_not_replaced(self):
        manifest = self.write("manifest", SIMPLE)
        message = "corvel-image: {}: is one of the files that the image is made from\n"
        with manifest.open("rb") as file:
            self.expect(run("corvel-image", "build", "-", manifest, stdin=file,
                            cwd=self.directory), 2,
                        errors=message.format(manifest))
        with self.path("kernel").open("ab") as file:
            self.expect(run("corvel-image", "build", manifest, "-", stdout=file), 2,
                        errors=message.format("-"))
        self.assertEqual(manifest.read_text(), SIMPLE)
        self.assertEqual(self.path("kernel").read_bytes(), b"kernel")

    def test_two_sections_for_one_partition(self):
        kernel = "[kern]\nfile = kernel\n"
        for manifest, line, message in (
                ("[root]\nfile = root\n[rfs1]\nfile = root\n" + kernel, 3,
                 "section 2 (rfs1) at offset 0x25: writes the same partition as section 1 while "
                 "set A runs"),
                ("[rfs1]\nfile = root\n[root]\nfile = root\n" + kernel, 3,
                 "section 2 (root) at offset 0x25: writes the same partition as section 1 while "
                 "set A runs"),
                ("[root]\nfile = root\n[knl1]\nfile = kernel\n" + kernel, 5,
                 "section 3 (kern) at offset 0x40: writes the same partition as section 2 while "
                 "set A runs")):
            with self.subTest(manifest):
                self.assert_refuses(manifest + "[Ver0]\ntext = v\n", 1, f":{line}: {message}")

    def test_random_images(self):
        random.seed(3)
        for _ in range(60):
            signatures = random.sample(sorted(set(model.PARTITIONS) - {b"Ver0", b"rfs1", b"knl1"}),
                                       random.randrange(1, 4))
            lines, sections = [], []
            for index, signature in enumerate(signatures):
                content = random.randbytes(random.choice((1, 2, 100, 1000, 60000)))
                self.write(f"part{index}", content)
                pad, burn = random.randrange(300), random.getrandbits(32)
                mtd_id = random.choice((random.randrange(255), random.getrandbits(32) | 256))
                lines += [f"[{signature.decode()}]", f"file = part{index}", f"padding = {pad}",
                          f"burn-address = {burn:#x}", f"mtd-id = {mtd_id}"]
                sections.append(partition(signature, content, pad, burn_address=burn,
                                          mtd_id=mtd_id))
            text = random.choice(("", "v", "a b\tc", "\u65e5\u672c", "=" * 68))
            lines += ["[Ver0]", f"text = {text}"]
            self.assert_builds("\n".join(lines), image(*sections, version(text.encode())))
            self.assertEqual(run("corvel-image", "verify", self.target).status, 0)
