# SPDX-License-Identifier: MIT
"""JSON of the programs, as a parser reads it, and beside the text."""

import json
import struct
import unittest

import environment_model
from environment_model import with_crc
from programs import ToolTest, run

def no_duplicates(pairs):
    result = dict(pairs)
    assert len(result) == len(pairs), pairs
    return result


class JsonTest(ToolTest):
    def parsed(self, done):
        self.assertTrue(done.output.endswith("}\n"), done)
        self.assertTrue(done.output[:-1].isprintable() and done.output.isascii(), done)
        return json.loads(done.output, object_pairs_hook=no_duplicates)


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


if __name__ == "__main__":
    unittest.main()
