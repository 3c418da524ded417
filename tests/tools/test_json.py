# SPDX-License-Identifier: MIT
"""The JSON output of both programs, parsed and compared with the text output."""

import json
import struct

import environment_model
from environment_model import with_crc
from image_model import image, partition, section, version
from programs import ToolTest, run

GOOD = image(partition(b"root", b"root file system"), partition(b"kern", b"kernel", pad=3),
             version(b"2.1.0"))


def no_duplicates(pairs):
    result = dict(pairs)
    assert len(result) == len(pairs), pairs
    return result


class JsonTest(ToolTest):
    def parsed(self, done):
        self.assertTrue(done.output.endswith("}\n"), done)
        self.assertTrue(done.output[:-1].isprintable() and done.output.isascii(), done)
        return json.loads(done.output, object_pairs_hook=no_duplicates)


class Images(JsonTest):
    def image(self, command, data, *options):
        return run("corvel-image", command, "--json", *options, "-", input=data)

    def test_a_good_image(self):
        crc, = struct.unpack(">I", GOOD[-4:])
        verdict = {"file": "-", "size": len(GOOD), "accepted": True, "fault": None, "warnings": [],
                   "version": "2.1.0", "crc": crc, "bytes_after_image": 0}
        done = self.image("verify", GOOD)
        self.assertEqual((done.status, done.errors), (0, ""))
        self.assertEqual(self.parsed(done), verdict)
        done = self.image("list", GOOD)
        self.assertEqual((done.status, done.errors), (0, ""))
        self.assertEqual(self.parsed(done), {
            **verdict, "unlisted_sections": 0, "sections": [
                {"number": 1, "offset": 0, "signature": "root", "partition": "Rootfs",
                 "burn_address": 0, "mtd_id": 2, "pad": 0, "len": 17, "checksum": "good",
                 "target": {"size": 16, "mtdblock_while_a_runs": 4, "mtdblock_while_b_runs": 2}},
                {"number": 2, "offset": 37, "signature": "kern", "partition": "Linux_kernel",
                 "burn_address": 0, "mtd_id": 3, "pad": 3, "len": 10, "checksum": "good",
                 "target": {"size": 6, "mtdblock_while_a_runs": 5, "mtdblock_while_b_runs": 3}},
                {"number": 3, "offset": 67, "signature": "Ver0", "partition": "Ver0",
                 "burn_address": 0, "mtd_id": 255, "pad": 0, "len": 9, "checksum": "none",
                 "target": None}]})

    def test_a_refused_image(self):
        data = bytearray(GOOD)
        data[40 + 20] ^= 1
        for command in ("list", "verify"):
            done = self.image(command, bytes(data))
            self.assertEqual(done.status, 1)
            found = self.parsed(done)
            self.assertEqual(done.errors, f"corvel-image: -: bad image: {found['fault']}\n")
            self.assertIn("section 2 (kern) at offset 0x25: payload checksum", found["fault"])
            self.assertEqual((found["accepted"], found["version"], found["crc"]),
                             (False, None, None))
        sections = self.parsed(self.image("list", bytes(data)))["sections"]
        self.assertEqual([(row["checksum"], row["target"]) for row in sections],
                         [("good", None), ("bad", None)])

    def test_every_byte_of_a_version_and_of_a_signature(self):
        everything = bytes(range(256))
        for start in range(0, 256, 64):
            text = everything[start:start + 64]
            found = self.parsed(self.image("verify", image(partition(b"root", b"r"),
                                                           version(text))))
            self.assertEqual(found["version"].encode("latin-1"), text)
        for start in range(0, 256, 4):
            signature = everything[start:start + 4]
            found = self.parsed(self.image("list", image(section(signature, b"x", mtd_id=0),
                                                         partition(b"root", b"r"), version())))
            self.assertEqual(found["sections"][0]["signature"].encode("latin-1"), signature)
            self.assertIsNone(found["sections"][0]["partition"])

    def test_a_file_name(self):
        path = str(self.directory).encode() + b"/\x1b\"\\\n\xff"
        with open(path, "wb") as file:
            file.write(GOOD)
        found = self.parsed(run("corvel-image", "verify", "--json", path))
        self.assertEqual(found["file"].encode("latin-1"), path)

    def test_warnings(self):
        data = image(partition(b"root", b"root"), section(b"what", b"x", mtd_id=0), version())
        done = self.image("verify", data)
        self.assertEqual(done.status, 0)
        warnings = self.parsed(done)["warnings"]
        self.assertEqual([(warning["kind"], warning["section"]) for warning in warnings],
                         [("unknown-section", None), ("root-without-kernel", 1)])
        self.assertEqual([f"corvel-image: -: warning: {warning['message']}"
                          for warning in warnings], done.errors.splitlines())
        done = self.image("verify", data, "--strict")
        self.assertEqual((done.status, self.parsed(done)["warnings"]), (3, warnings))

    def test_bytes_after_the_image(self):
        for count in (1, 20, 21, 5000):
            found = self.parsed(self.image("list", GOOD + bytes(count)))
            self.assertEqual((found["accepted"], found["bytes_after_image"]), (False, count))
        data = partition(b"root", b"root") + bytes(20)
        found = self.parsed(self.image("list", data))
        self.assertEqual((found["accepted"], found["bytes_after_image"]), (True, 20))

    def test_hundreds_of_thousands_of_sections(self):
        found = self.parsed(self.image("list", bytes(2**24)))
        self.assertEqual((len(found["sections"]), found["unlisted_sections"]), (4, 838856))

    def test_no_json_of_a_file_that_cannot_be_read(self):
        self.expect(run("corvel-image", "list", "--json", self.path("none")), 2,
                    errors=f"corvel-image: {self.path('none')}: No such file or directory\n")


class Environments(JsonTest):
    def list(self, content):
        return run("corvel-env", "list", "--json", "-", input=content)

    def test_a_good_environment(self):
        content = environment_model.image([b"a=1", b"b=x=y", b"c="])
        crc, = struct.unpack(">I", content[:4])
        done = self.list(content)
        self.assertEqual((done.status, done.errors), (0, ""))
        self.assertEqual(self.parsed(done), {
            "file": "-", "good_crc": True, "stored_crc": crc, "computed_crc": crc, "variables": [
                {"name": "a", "value": "1"}, {"name": "b", "value": "x=y"},
                {"name": "c", "value": ""}]})
        self.assertEqual(self.parsed(self.list(environment_model.image([])))["variables"], [])

    def test_a_bad_crc(self):
        content = environment_model.image([b"a=1"])
        crc, = struct.unpack(">I", content[:4])
        done = self.list(struct.pack(">I", crc ^ 1) + content[4:])
        self.assertEqual(done.status, 1)
        found = self.parsed(done)
        self.assertEqual((found["good_crc"], found["stored_crc"], found["computed_crc"]),
                         (False, crc ^ 1, crc))
        self.assertEqual(found["variables"], [{"name": "a", "value": "1"}])

    def test_every_byte_and_every_kind_of_entry(self):
        everything = bytes(range(1, 256))
        entries = [b"name=" + everything, b"word", b"=1", b"a=1", b"a=2", b"\x1b\xff="]
        found = self.parsed(self.list(environment_model.image(entries)))["variables"]
        self.assertEqual(
            [(row["name"].encode("latin-1"),
              None if row["value"] is None else row["value"].encode("latin-1")) for row in found],
            [(b"name", everything), (b"word", None), (b"", b"1"), (b"a", b"1"), (b"a", b"2"),
             (b"\x1b\xff", b"")])

    def test_a_list_without_an_end(self):
        data = b"a=1\0" + b"\xff" * (environment_model.DATA_SIZE - 4)
        found = self.parsed(self.list(with_crc(data)))["variables"]
        self.assertEqual(found, [{"name": "a", "value": "1"},
                                 {"name": "\xff" * (len(data) - 4), "value": None}])
