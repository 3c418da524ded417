# SPDX-License-Identifier: MIT
"""What a device accepts and does not survive: warnings, and errors with --strict."""

import unittest

import image_model as model
from image_model import image, partition, version
from programs import ToolTest, run

ROOT, KERNEL = partition(b"root", b"root"), partition(b"kern", b"kern")
ROOT_B, KERNEL_B = partition(b"rfs1", b"root"), partition(b"knl1", b"kern")
LOG = partition(b"log0", b"log")
NO_SET = "no root file system and no kernel for the set that boots after the upgrade"


class WarningTest(ToolTest):
    def assert_warns(self, data, *warnings):
        """The same of list, of verify and, as errors, of verify --strict."""
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

    def test_a_part_without_content_is_not_there(self):
        self.assert_warns(
            image(ROOT, partition(b"kern", b""), version()),
            "section 2 (kern) at offset 0x19: writes nothing: its content has no bytes",
            "section 1 (root) at offset 0x0: no kernel for the same set")

    def test_a_version_alone(self):
        self.assert_warns(image(version()),
                          f"section 1 (Ver0) at offset 0x0: a version alone: {NO_SET}")

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
            "section 3 (boot) at offset 0x32: writes the boot loader: a device has no second one "
            "to boot from")

    def test_bytes_after_the_image(self):
        self.assert_warns(
            ROOT + KERNEL + bytes(20),
            "the last known section is no version section: the image carries no CRC",
            "20 bytes after the last section belong to none")
        good = image(ROOT, KERNEL, version())
        for count, follow in ((1, "1 byte follows"), (20, "20 bytes follow"),
                              (300, "300 bytes follow")):
            for command in ("list", "verify"):
                done = run("corvel-image", command, "-", input=good + bytes(count))
                self.assertEqual(done.status, 1)
                self.assertTrue(done.errors.endswith(
                    f"; a whole image ends at offset 0x{len(good):x}, and {follow} it\n"), done)
        # A CRC at the end of another range does not end an image.
        done = run("corvel-image", "verify", "-", input=good[:-1] + b"x" + bytes(9))
        self.assertNotIn("a whole image", done.errors)


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
        self.assertEqual(model.judge(self.path("new.img").read_bytes()).result, model.ACCEPTED)

    def test_a_bad_image_keeps_its_own_status(self):
        data = bytearray(image(ROOT, version()))
        data[-1] ^= 1
        self.assertEqual(run("corvel-image", "verify", "--strict", "-", input=data).status, 1)


if __name__ == "__main__":
    unittest.main()
