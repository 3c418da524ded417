# SPDX-License-Identifier: MIT
"""Faults of images that a device accepts: warnings, or errors with --strict."""

import pathlib
import random
import subprocess
import tempfile

from build_tree import SOURCE
import image_model as model
import programs
from image_model import image, partition, section, version
from programs import ToolTest, run

ROOT, KERNEL = partition(b"root", b"root"), partition(b"kern", b"kern")
ROOT_B, KERNEL_B = partition(b"rfs1", b"root"), partition(b"knl1", b"kern")
LOG = partition(b"log0", b"log")
NO_SET = "no root file system and no kernel for the set that boots after the upgrade"


class WarningTest(ToolTest):
    def assert_warns(self, data, *warnings):
        """Checks that list and verify print these warnings, verify --strict the same as errors."""
        lines = "".join(f"corvel-image: -: warning: {warning}\n" for warning in warnings)
        for command in ("list", "verify"):
            done = run("corvel-image", command, "-", input=data)
            self.assertEqual((done.status, done.errors), (0, lines))
            self.assertTrue(done.output)
        self.expect(run("corvel-image", "verify", "--strict", "-", input=data),
                    3 if warnings else 0, "" if warnings else done.output,
                    lines.replace(": warning: ", ": error: "))


class Boot(WarningTest):
    def test_a_whole_set(self):
        self.assert_warns(image(ROOT, KERNEL, version()))
        self.assert_warns(image(KERNEL, LOG, ROOT, version()))

    def test_set_b_by_name_is_the_running_set_while_b_runs(self):
        self.assert_warns(
            image(ROOT_B, KERNEL_B, version()),
            "section 1 (rfs1) at offset 0x0: writes the running set while set B runs",
            "section 2 (knl1) at offset 0x19: writes the running set while set B runs",
            f"{NO_SET} while set B runs")

    def test_a_mixture_of_sets(self):
        self.assert_warns(
            image(ROOT_B, KERNEL, version()),
            "section 1 (rfs1) at offset 0x0: writes the running set while set B runs",
            "section 1 (rfs1) at offset 0x0: no kernel for the same set while set B runs",
            "section 2 (kern) at offset 0x19: no root file system for the same set while set B "
            "runs")
        self.assert_warns(
            image(ROOT, KERNEL_B, version()),
            "section 1 (root) at offset 0x0: no kernel for the same set while set B runs",
            "section 2 (knl1) at offset 0x19: writes the running set while set B runs",
            "section 2 (knl1) at offset 0x19: no root file system for the same set while set B "
            "runs")

    def test_a_root_file_system_without_its_kernel(self):
        self.assert_warns(image(ROOT, version()),
                          "section 1 (root) at offset 0x0: no kernel for the same set")
        self.assert_warns(
            image(LOG, ROOT_B, version()),
            "section 2 (rfs1) at offset 0x18: writes the running set while set B runs",
            "section 2 (rfs1) at offset 0x18: no kernel for the same set",
            f"{NO_SET} while set B runs")

    def test_a_kernel_without_its_root_file_system(self):
        self.assert_warns(image(KERNEL, version()),
                          "section 1 (kern) at offset 0x0: no root file system for the same set")

    def test_an_empty_section_counts_as_missing(self):
        self.assert_warns(
            image(ROOT, partition(b"kern", b""), version()),
            "section 2 (kern) at offset 0x19: writes nothing: the content is empty",
            "section 1 (root) at offset 0x0: no kernel for the same set")

    def test_a_version_alone(self):
        self.assert_warns(image(version()),
                          f"section 1 (Ver0) at offset 0x0: only a version section: {NO_SET}")

    def test_neither_root_file_system_nor_kernel(self):
        self.assert_warns(image(LOG, version()), NO_SET)
        self.assert_warns(image(partition(b"conf", b"c"), partition(b"artp", b"a"), version()),
                          NO_SET)

    def test_the_boot_environment_and_the_boot_loader(self):
        self.assert_warns(
            image(partition(b"benv", b"e"), ROOT, KERNEL, version()),
            "section 1 (benv) at offset 0x0: writes the boot environment, which selects the set "
            "that boots; save_bootparam() then overwrites it")
        self.assert_warns(
            image(ROOT, KERNEL, partition(b"boot", b"l"), version()),
            "section 3 (boot) at offset 0x32: writes the boot loader, of which a device has only "
            "one")

    def test_bytes_after_the_image(self):
        self.assert_warns(
            ROOT + KERNEL + bytes(20),
            "the last known section is not a version section: no CRC",
            "20 bytes after the last section belong to no section")
        good = image(ROOT, KERNEL, version())
        for count, follow in ((1, "1 byte follows"), (20, "20 bytes follow"),
                              (300, "300 bytes follow")):
            for command in ("list", "verify"):
                done = run("corvel-image", command, "-", input=good + bytes(count))
                self.assertEqual(done.status, 1)
                self.assertTrue(done.errors.endswith(
                    f"; a whole image ends at offset 0x{len(good):x}, and {follow} it\n"), done)
        # A CRC that does not match the preceding bytes does not end an image.
        done = run("corvel-image", "verify", "-", input=good[:-1] + b"x" + bytes(9))
        self.assertNotIn("a whole image", done.errors)


class Upload(WarningTest):
    """The expected values come from the library's upload intake, run in a separate program."""

    SOURCE = r"""
#include <corvel.h>
#include <stdio.h>
#include <string.h>
int main(void)
{
    static char upload[40 << 20];
    static prop_file files[4];
    const char *head = "--limit\n--limit\r\nContent-Disposition: form-data; name=\"f\"; "
                       "filename=\"f\"\r\nContent-Type: application/octet-stream\r\n\r\n";
    size_t length = strlen(head);
    memcpy(upload, head, length);
    length += fread(upload + length, 1, sizeof upload / 2, stdin);
    memcpy(upload + length, "\r\n--limit--\r\n", 13);
    int count = process_file(upload, (int)(length + 13), "--limit", files);
    if (count != 1)
        return 1;
    fwrite(files[0].data, 1, files[0].size, stdout);
    return 0;
}
"""

    @classmethod
    def setUpClass(cls):
        directory = tempfile.TemporaryDirectory()
        cls.addClassCleanup(directory.cleanup)
        cls.program = pathlib.Path(directory.name) / "upload"
        source = cls.program.with_suffix(".c")
        source.write_text(cls.SOURCE)
        subprocess.run(["g++", "-x", "c++", "-I", SOURCE / "include", source, "-x", "none",
                        programs.BUILD / "libcorvel.a", "-lcrypt", "-o", cls.program], check=True)

    def stored(self, data):
        return subprocess.run([self.program], input=data, stdout=subprocess.PIPE, check=True,
                              timeout=60).stdout

    def assert_arrives(self, kernel):
        data = image(ROOT, partition(b"kern", kernel), version())
        self.assertEqual(self.stored(data), data)
        self.assert_warns(data)

    def assert_is_truncated(self, kernel, *headers):
        """`headers`: the mistaken headers, each with its offset in the kernel."""
        data = image(ROOT, partition(b"kern", kernel), version())
        stored = self.stored(data)
        self.assertLess(len(stored), len(data))
        self.assertTrue(data.endswith(stored))
        size = "1 byte" if len(stored) == 1 else f"{len(stored)} bytes"
        self.assert_warns(data, *(
            f'section 2 (kern) at offset 0x19: "{name}:" at offset '
            f"0x{len(ROOT) + 20 + place:x} is mistaken for a header: a device that receives the "
            f"image as an upload stores only its last {size}" for name, place in headers))

    def test_a_payload_that_looks_like_a_header(self):
        for name in ("Content-Type", "Content-Transfer-Encoding"):
            for before in (b"", b"x", b"\r\n", bytes(1000)):
                for after in (b"", b"\n", b" text\r\nmore", b"\0" * 300 + b"\rmore"):
                    with self.subTest(name=name, before=len(before), after=len(after)):
                        self.assert_is_truncated(before + name.encode() + b":" + after,
                                                 (name, len(before)))

    def test_both_headers(self):
        both = b"Content-Type: a\nContent-Transfer-Encoding: b\n"
        self.assert_is_truncated(both, ("Content-Type", 0),
                                 ("Content-Transfer-Encoding", 16))
        # An encoding before the type or in the same line does not count.
        self.assert_is_truncated(
            b"Content-Transfer-Encoding: b\nContent-Type: a\n", ("Content-Type", 29))
        self.assert_is_truncated(
            b"Content-Type: Content-Transfer-Encoding: b\n", ("Content-Type", 0))

    def test_text_that_only_resembles_a_header(self):
        for kernel in (b"content-type: x\n", b"CONTENT-TYPE: x\n", b"Content-Type : x\n",
                       b"Content-Type", b"Content-Type=x\n", b"Content-Typ", b"Content-T",
                       b"Content-Length: 3\n", b"filename=x\n", b"boundary=x\n",
                       b"Content-transfer-encoding: x\n", b"Content-Transfer-Encodin\n"):
            with self.subTest(kernel):
                self.assert_arrives(kernel)

    def test_only_the_first_occurrence_of_a_name_counts(self):
        self.assert_arrives(b"Content-Type, Content-Type: x\n")
        self.assert_arrives(b"Content-Transfer-Encoding\nContent-Transfer-Encoding: x\n")
        self.assert_is_truncated(b"Content-Type, Content-Transfer-Encoding: x\n",
                                 ("Content-Transfer-Encoding", 14))

    def test_a_header_in_a_version_and_in_a_skipped_section(self):
        data = image(ROOT, KERNEL, version(b"Content-Type: x"))
        self.assertEqual(self.stored(data), b"")
        self.assert_warns(data, (
            'section 3 (Ver0) at offset 0x32: "Content-Type:" at offset 0x46 is mistaken '
            "for a header: a device that receives the image as an upload stores only its last 0 "
            "bytes"))
        skipped = section(b"what", b"Content-Type:\n", mtd_id=0)
        data = image(*[section(b"what", b"x", mtd_id=0)] * 5, skipped, ROOT, KERNEL, version())
        self.assert_warns(
            data, "6 sections with an unknown signature are skipped",
            '"Content-Type:" at offset 0x7d is mistaken for a header: a device that receives the '
            f"image as an upload stores only its last {len(self.stored(data))} bytes")

    def test_random_payloads(self):
        random.seed(7)
        words = (b"Content-Type", b"Content-Transfer-Encoding", b":", b":", b"\r\n", b"\n", b"x",
                 b"=", b"Content-T", b"\0")
        arrived = 0
        for _ in range(200):
            kernel = b"".join(random.choices(words, k=random.randrange(1, 9)))
            data = image(ROOT, partition(b"kern", kernel), version())
            stored = self.stored(data)
            done = run("corvel-image", "verify", "--strict", "-", input=data)
            arrived += stored == data
            self.assertEqual(done.status, 0 if stored == data else 3, kernel)
            if stored != data:
                self.assertIn(f" its last {len(stored)} byte", done.errors)
        self.assertTrue(20 < arrived < 180, arrived)

    def test_an_image_that_leaves_no_room_for_the_headers(self):
        room = 2**24 - 1024 - len(image(ROOT, KERNEL, partition(b"log0", b""), version()))
        log = section(b"log0", bytes(room + 1), mtd_id=9, pad=room)
        data = image(ROOT, KERNEL, log, version())
        self.assertEqual(len(data), 2**24 - 1024)
        empty = "section 3 (log0) at offset 0x32: writes nothing: the content is empty"
        self.assert_warns(data, empty)
        log = section(b"log0", bytes(room + 2), mtd_id=9, pad=room + 1)
        self.assert_warns(image(ROOT, KERNEL, log, version()), empty,
                          "16776193 bytes leave less than 1024 of the 16777216 bytes of an "
                          "upload for its headers")


class Strict(ToolTest):
    def build(self, manifest, *options):
        self.write("part", b"part")
        return run("corvel-image", "build", *options, self.write("manifest", manifest),
                   self.path("new.img"))

    def test_an_image_with_warnings_is_not_built(self):
        manifest = "[root]\nfile = part\n[Ver0]\ntext = 1\n"
        done = self.build(manifest, "--strict")
        self.expect(done, 3, errors=f"corvel-image: {self.path('new.img')}: error: section 1 "
                    "(root) at offset 0x0: no kernel for the same set\n")
        self.assertEqual(self.files(), ["manifest", "part"])
        self.path("new.img").write_bytes(b"the old one")
        self.assertEqual(self.build(manifest, "--strict").status, 3)
        self.assertEqual(self.path("new.img").read_bytes(), b"the old one")
        self.assertEqual(self.build(manifest).status, 0)

    def test_an_image_without_warnings_is_built(self):
        done = self.build("[root]\nfile = part\n[kern]\nfile = part\n[Ver0]\ntext = 1\n",
                          "--strict")
        self.assertEqual((done.status, done.errors), (0, ""))
        built = self.path("new.img").read_bytes()
        self.assertEqual(model.expected_of(built).result, model.ACCEPTED)

    def test_a_bad_image_keeps_its_own_status(self):
        data = bytearray(image(ROOT, version()))
        data[-1] ^= 1
        self.assertEqual(run("corvel-image", "verify", "--strict", "-", input=data).status, 1)
