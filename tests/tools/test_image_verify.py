# SPDX-License-Identifier: MIT
"""The results of list and verify for images of every kind."""

import random
import struct
import subprocess

import environment_model
import image_model as model
import programs
from image_model import ACCEPTED, image, partition, section, version, with_checksum, with_crc
from programs import ToolTest, run

GOOD = image(partition(b"root", b"root file system"), partition(b"kern", b"kernel", pad=3),
             version(b"2.1.0"))


class Verify(ToolTest):
    def verify(self, data):
        return run("corvel-image", "verify", "-", input=data)

    def list(self, data):
        return run("corvel-image", "list", "-", input=data)

    def assert_fault(self, data, fault):
        """Checks that the image is refused for exactly this reason, and by the model as well."""
        self.assertNotEqual(model.expected_of(data).result, ACCEPTED)
        self.expect(self.verify(data), 1, errors=f"corvel-image: -: bad image: {fault}\n")

    def assert_warnings(self, data, *warnings):
        """Checks for these warnings, followed by those about booting."""
        warnings = [*warnings, *model.warnings_about_boot(data)]
        self.assertEqual(model.expected_of(data).result, ACCEPTED)
        done = self.verify(data)
        self.assertEqual(done.status, 0, done)
        self.assertEqual(done.errors.splitlines(),
                         [f"corvel-image: -: warning: {warning}" for warning in warnings])
        self.assertTrue(done.output.startswith("-: good: "), done)

    def assert_agrees_with_model(self, data):
        expected = model.expected_of(data)
        done = self.verify(data)
        self.assertEqual(done.status, 0 if expected.result == ACCEPTED else 1, (data.hex(), done))
        # The program's reason agrees with the library's result.
        self.assertNotIn("the library's result", done.errors, data.hex())
        if expected.section:
            self.assertIn(f"bad image: section {expected.section} (", done.errors)
            self.assertIn(f" at offset 0x{expected.offset:x}: ", done.errors)
        return expected.result

    def test_a_good_image(self):
        path = self.write("good.img", GOOD)
        crc, = struct.unpack(">I", GOOD[-4:])
        done = run("corvel-image", "verify", path)
        self.expect(done, 0, f"{path}: good: 3 sections, version 2.1.0, CRC 0x{crc:08x}\n")

    def test_the_list_of_a_good_image(self):
        data = image(partition(b"boot", b"loader", pad=2, burn_address=0xbfc00000),
                     partition(b"root", b"root file system"), partition(b"kern", b"k"),
                     version(b"2.1.0"))
        crc, = struct.unpack(">I", data[-4:])
        self.expect(self.list(data), 0, (
            "number  offset     signature  partition              len         pad  mtd_id"
            "  checksum  to write  A runs        B runs\n"
            "     1  0x0000000  boot       Boot                     9           2       0"
            "  good             6  mtdblock0     mtdblock0  burn address 0xbfc00000\n"
            "     2  0x000001d  root       Rootfs                  17           0       2"
            "  good            16  mtdblock4     mtdblock2\n"
            "     3  0x0000042  kern       Linux_kernel             2           0       3"
            "  good             1  mtdblock5     mtdblock3\n"
            "     4  0x0000058  Ver0       Ver0                     9           0     255"
            "  none      not written\n"
            "version: 2.1.0\n"
            f"CRC: 0x{crc:08x}\n"), "corvel-image: -: warning: section 1 (boot) at offset 0x0: writes "
            "the boot loader, of which a device has only one\n")

    def test_the_block_device_of_each_partition(self):
        for signature, (name, stripped, _, device) in model.PARTITIONS.items():
            if signature == b"Ver0":
                continue
            with self.subTest(name):
                data = image(partition(signature, b"content", pad=5), version())
                row = self.list(data).output.splitlines()[1].split()
                idle = 2 if name in ("Rootfs", "Linux_kernel") else 0
                size = 7 if stripped else 20 + 7 + 5 + 1
                self.assertEqual(row[:11], [
                    "1", "0x0000000", signature.decode(), name, "13", "5", str(device), "good",
                    str(size), f"mtdblock{device + idle}", f"mtdblock{device}"])

    def test_the_list_is_the_same_on_every_machine(self):
        """Even on a device, regardless of the set that runs and of its environment."""
        expected = self.list(GOOD)
        program = programs.BUILD / "tools" / "corvel-image"
        good = environment_model.image
        for content in (good([b"bootparam=0"]), good([b"bootparam=1"]), good([]),
                        bytes(environment_model.SIZE), b"short"):
            environment = self.write("environment", content)
            done = subprocess.run(
                ["bwrap", "--ro-bind", "/", "/", "--dev", "/dev", "--ro-bind", environment,
                 "/dev/mtdblock1", program, "list", "-"], input=GOOD, capture_output=True,
                timeout=60)
            self.assertEqual((done.returncode, done.stdout.decode(), done.stderr.decode()),
                             (0, expected.output, ""))

    def test_a_refused_image_is_listed_up_to_the_bad_section(self):
        data = bytearray(GOOD)
        data[len(partition(b"root", b"root file system")) + 20] ^= 1
        done = self.list(data)
        self.assertEqual(done.status, 1)
        rows = [row.split() for row in done.output.splitlines()[1:]]
        self.assertEqual([(row[2], row[7], row[8]) for row in rows],
                         [("root", "good", "refused"), ("kern", "BAD", "refused")])

    def test_a_section_past_the_end(self):
        for length in (42, 255, 0xffffffff):
            self.assert_fault(
                image(section(b"root", b"x" * 10, length=length), version()),
                "section 1 (root) at offset 0x0: len: at most 41 is expected, since 37 bytes "
                f"follow the header; found {length}")

    def test_a_length_may_exceed_the_image_by_four_bytes(self):
        for more in range(1, 5):
            data = section(b"root", with_checksum(b"root"), length=5 + more)
            missing = "1 byte" if more == 1 else f"{more} bytes"
            self.assert_warnings(
                data, f"section 1 (root) at offset 0x0: {missing} missing from the payload",
                "the last known section is not a version section: no CRC")
        self.assert_fault(
            section(b"root", with_checksum(b"root"), length=10),
            "section 1 (root) at offset 0x0: len: at most 9 is expected, since 5 bytes follow the "
            "header; found 10")
        self.assert_fault(
            partition(b"root", b"root") + section(b"kern", b"k", length=0xffffffff),
            "section 2 (kern) at offset 0x19: len: at most 5 is expected, since 1 byte follows the "
            "header; found 4294967295")

    def test_a_bad_checksum(self):
        for offset in (20, 35, 36):
            data = bytearray(GOOD)
            data[offset] += 3
            self.assert_fault(
                bytes(data), "section 1 (root) at offset 0x0: payload checksum: the sum of the 17 "
                "bytes from offset 0x14 is expected to be 0 (modulo 256); found 0x03")

    def test_a_section_that_is_too_large(self):
        for signature, (name, stripped, largest, _) in model.PARTITIONS.items():
            if signature == b"Ver0":
                continue
            with self.subTest(name):
                most = largest if stripped else largest - 21
                fitting = image(partition(signature, bytes(most), pad=2 if stripped else 0),
                                version())
                self.assert_warnings(fitting)
                size = largest + 1
                self.assert_fault(
                    image(partition(signature, bytes(most + 1)), version()),
                    f"section 1 ({signature.decode()}) at offset 0x0: size: at most {largest} "
                    f"(0x{largest:x}) bytes are expected, the size of partition {name}; found "
                    f"{size} (0x{size:x})")

    def test_padding_larger_than_the_payload(self):
        for pad in (5, 6, 0x80000000):
            self.assert_fault(
                image(section(b"root", with_checksum(b"root"), pad=pad), version()),
                f"section 1 (root) at offset 0x0: pad: less than len, 5, is expected; found {pad}")
        self.assert_warnings(
            image(section(b"root", with_checksum(b"root"), pad=4), version()),
            "section 1 (root) at offset 0x0: writes nothing: the content is empty")
        # Sizes are 32-bit numbers: this one wraps around to 5.
        self.assert_warnings(
            image(section(b"root", with_checksum(b"root"), pad=0xffffffff), version()),
            "section 1 (root) at offset 0x0: pad 4294967295 is not less than len 5")

    def test_a_version_section_with_an_ordinary_id(self):
        data = image(partition(b"root", b"root"), version(b"", mtd_id=9))
        total = sum(data[-4:]) % 256
        self.assertNotEqual(total, 0)
        self.assert_fault(data, "section 2 (Ver0) at offset 0x19: payload checksum: the sum of the "
                          "4 bytes from offset 0x2d is expected to be 0 (modulo 256); found "
                          f"0x{total:02x}")

    def test_more_than_four_sections(self):
        root = partition(b"root", b"r")
        kernel = partition(b"kern", b"k")
        log = partition(b"log0", b"l")
        boot = partition(b"boot", b"b")
        self.assert_warnings(image(root, kernel, log, version()))
        self.assert_fault(image(root, kernel, log, boot, version()),
                          "section 5 (Ver0) at offset 0x58: number of known sections: at most 4 "
                          "are expected, including the version; found 5")
        unknown = section(b"root".upper(), b"x", mtd_id=2)
        self.assert_warnings(image(root, unknown, kernel, unknown, log, version()),
                             "2 sections with an unknown signature are skipped")

    def test_a_bad_crc(self):
        data = bytearray(GOOD)
        data[-1] ^= 0xff
        stored, = struct.unpack(">I", data[-4:])
        expected, = struct.unpack(">I", GOOD[-4:])
        self.assert_fault(
            bytes(data), f"section 3 (Ver0) at offset 0x43: CRC at offset 0x{len(GOOD) - 4:x}: "
            f"0x{expected:08x} is expected, the CRC-32 of the first {len(GOOD) - 4} bytes; found "
            f"0x{stored:08x}")

    def test_a_change_that_keeps_the_sum(self):
        data = bytearray(GOOD)
        data[20] += 1
        data[21] -= 1
        self.assertEqual(model.expected_of(bytes(data)).result, model.BAD_CRC)
        self.assertIn(": CRC at offset ", self.verify(bytes(data)).errors)

    def test_a_crc_that_ends_after_the_image(self):
        root = partition(b"root", b"root")
        for more in range(1, 5):
            data = with_crc(root + section(b"Ver0", b"1.0" + bytes(4), length=7 + more))
            self.assert_fault(data, "section 2 (Ver0) at offset 0x19: len: 7 is expected, so that "
                              f"the CRC ends at the end of the image; found {7 + more}")

    def test_a_crc_before_the_end(self):
        for more in range(1, 20):
            self.assertEqual(self.assert_agrees_with_model(GOOD + bytes(more)), model.BAD_CRC)
        # An unknown section after the version continues the chain.
        data = with_crc(GOOD + section(b"what", bytes(9), mtd_id=0))
        self.assertEqual(self.assert_agrees_with_model(data), model.BAD_CRC)

    def test_images_without_a_section(self):
        for size in range(21):
            self.assert_fault(
                bytes(size), "sections: at least one is expected, of more than 20 bytes; found an "
                f"image of {size} byte{'' if size == 1 else 's'}")
        for size in (21, 40, 41, 1000):
            self.assert_fault(
                bytes(size), "sections: at least one with a known signature is expected; found "
                f"none among {(size - 1) // 20}")

    def test_warnings(self):
        root, kernel = partition(b"root", b"root"), partition(b"kern", b"k")
        no_crc = "the last known section is not a version section: no CRC"
        self.assert_warnings(root, no_crc)
        self.assert_warnings(root + bytes(1), no_crc,
                             "1 byte after the last section belongs to no section")
        self.assert_warnings(image(root, root, version()), "section 2 (root) at offset 0x19: writes"
                             " the same partition as section 1")
        self.assert_warnings(
            image(root, kernel, partition(b"rfs1", b"r"), version()),
            "section 3 (rfs1) at offset 0x2f: writes the same partition as section 1 while set A "
            "runs")
        self.assert_warnings(image(section(b"root", b"xyz", mtd_id=255), version()),
                             "section 1 (root) at offset 0x0: mtd_id 255: neither checksum nor "
                             "size is checked")
        self.assert_warnings(
            image(section(b"benv", bytes(0x10002), mtd_id=255), version()),
            "section 1 (benv) at offset 0x0: mtd_id 255: neither checksum nor size is checked",
            "section 1 (benv) at offset 0x0: writes 65537 bytes, and partition Boot-env holds "
            "65536")
        self.assert_warnings(image(section(b"what", b"x", mtd_id=0), root, version()),
                             "1 section with an unknown signature is skipped")

    def test_bytes_of_an_image_are_escaped(self):
        data = image(section(b"\x1b[2J", b"x", mtd_id=0), partition(b"root", b"root"),
                     version(b"\x1b]0;title\x07\\\n\xff"))
        done = self.list(data)
        self.assertIn("\\x1b[2J", done.output)
        self.assertIn("version: \\x1b]0;title\\x07\\\\\\x0a\\xff\n", done.output)
        self.assertTrue((done.output + done.errors).replace("\n", "").isprintable())

    def test_thousands_of_unknown_sections(self):
        data = bytes(16 * 1024 * 1024)
        done = self.list(data)
        self.assertEqual(done.status, 1)
        self.assertIn("   ...  838856 more with unknown signatures, skipped\n", done.output)
        self.assertEqual(len(done.output.splitlines()), 6)

    def test_an_image_larger_than_an_upload(self):
        fault = ("size: at most 16777216 bytes are expected, the limit of an upload; found more\n")
        large = self.path("large")
        with large.open("wb") as sparse:
            sparse.truncate(2**24 + 1)
        for command in ("verify", "list"):
            self.expect(run("corvel-image", command, large), 1,
                        errors=f"corvel-image: {large}: {fault}")
            with open("/dev/zero", "rb") as endless:
                self.expect(run("corvel-image", command, "-", stdin=endless), 1,
                            errors=f"corvel-image: -: {fault}")

    def test_every_truncation(self):
        results = [self.assert_agrees_with_model(GOOD[:size]) for size in range(len(GOOD))]
        # An image that ends after a whole section, or up to four zero bytes before its end, is
        # accepted without a version.
        self.assertIn(ACCEPTED, results)
        self.assertEqual(set(results), {ACCEPTED, model.PAST_END, model.BAD_CHECKSUM, model.BAD_CRC})

    def test_every_changed_byte(self):
        # If the version section's signature changes, no CRC is checked.
        signature = range(GOOD.index(b"Ver0"), GOOD.index(b"Ver0") + 4)
        for offset in range(len(GOOD)):
            for change in (1, 0x80, 0xff):
                data = bytearray(GOOD)
                data[offset] ^= change
                result = self.assert_agrees_with_model(bytes(data))
                self.assertEqual(result == ACCEPTED, offset in signature, offset)

    def test_every_header_field_at_its_extremes(self):
        for offset in (4, 8, 12, 16):
            for value in (0, 1, 4, 5, 16, 17, 18, 254, 255, 256, 0x7fffffff, 0x80000000,
                          0xffffffec, 0xfffffffb, 0xffffffff):
                data = GOOD[:offset] + struct.pack(">I", value) + GOOD[offset + 4:]
                self.assert_agrees_with_model(data)
                self.assert_agrees_with_model(with_crc(data))

    def test_random_images(self):
        random.seed(2)
        results = set()
        for _ in range(600):
            results.add(self.assert_agrees_with_model(random_image()))
        self.assertEqual(results, {ACCEPTED, *range(1, 6)})


def random_image():
    """Returns an image that satisfies most rules, but not all."""
    sections = []
    for _ in range(random.choice((0, 1, 1, 2, 2, 3, 3, 4, 5))):
        signature = random.choice((*model.PARTITIONS, b"what"))
        payload = random.randbytes(random.randrange(1, 40))
        if random.random() < 0.9:
            payload = with_checksum(payload)
        device = model.PARTITIONS.get(signature, ("", True, 0, 0))[3]
        sections.append(section(
            signature, payload, burn_address=random.getrandbits(32),
            mtd_id=random.choice((device, device, device, 255)),
            pad=random.choice((0, 0, 0, 0, 1, 3, len(payload) - 1, len(payload), 2**32 - 1)),
            length=len(payload) + random.choice((0,) * 20 + (1, 4, 5, -1))))
    data = b"".join(sections)
    if random.random() < 0.8:
        data = with_crc(data + version(random.randbytes(random.randrange(8)),
                                       pad=random.choice((0, 7))))
    return data + bytes(random.choice((0,) * 10 + (1, 19, 21)))
