# SPDX-License-Identifier: MIT
"""The firmware upgrade in a browser."""

import contextlib
import os
import signal
import socket
import struct
import threading
import types

from browser import Walk
from device import LOGIN, UPLOAD, wait_until
from test_upgrade import RUNNING_A, UpgradeTest
from upgrade_image import Image, large_image


class Network:
    """Relays connections to a port. The one with the second upload falls silent."""

    def __init__(self, port):
        self._target = port
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.port = self._listener.getsockname()[1]
        self._sockets = []
        self._uploads = 0
        self._silent = None
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        with contextlib.suppress(OSError):
            while True:
                pair = self._listener.accept()[0], socket.create_connection(("127.0.0.1", self._target))
                self._sockets += pair
                for each in (pair, pair[::-1]):
                    threading.Thread(target=self._relay, args=each, daemon=True).start()

    def _relay(self, source, target):
        left = None
        with contextlib.suppress(OSError):
            while piece := source.recv(65536):
                if piece.startswith(f"POST {UPLOAD}".encode()):
                    self._uploads += 1
                    left = 1_000_000 if self._uploads == 2 else None
                target.sendall(piece)
                if left is not None:
                    left -= len(piece)
                    if left < 0:
                        self._silent = source
                        return
        for each in (source, target):
            with contextlib.suppress(OSError):
                each.shutdown(socket.SHUT_RDWR)

    def lose(self):
        """Resets the silent connection of the client. The one to the server stays open and silent."""
        self._silent.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self._silent.close()

    def close(self):
        self._listener.close()
        for each in self._sockets:
            each.close()


class InBrowser(UpgradeTest):
    def file(self, name, data):
        path = self.directory / name
        path.write_bytes(data)
        return path

    def test_from_a_to_b_and_back(self):
        there, bytes_there = large_image("Corvel R1 2.0.0", 15 * 1024 * 1024)
        back, bytes_back = large_image("Corvel R1 3.0.0", 15 * 1024 * 1024)
        seen = self.walk("both", self.file("corvel-r1-2.0.0.bin", bytes_there),
                         self.file("corvel-r1-3.0.0.bin", bytes_back)).result()
        self.assertEqual(
            [(each["before"], each["after"]) for each in seen["upgrades"]],
            [("Set A Running Corvel R1 1.0.0", "Set B Running Corvel R1 2.0.0"),
             ("Set B Running Corvel R1 2.0.0", "Set A Running Corvel R1 3.0.0")])
        self.assertEqual([each["rows"][0].split("\t")[:3] for each in seen["upgrades"]],
                         [["Rootfs", "Rootfs-1", "/dev/mtdblock4"],
                          ["Rootfs", "Rootfs", "/dev/mtdblock2"]])
        for name in ("uploading", "writing"):
            steps = {percent for percent in seen[name] if 0 < percent < 100}
            self.assertGreater(len(steps), 2, name)
        for number, expected in ((2, back.root), (3, back.kernel), (4, there.root),
                                 (5, there.kernel)):
            self.assertTrue(self.demo.flash(number).read_bytes().startswith(expected), number)
        self.demo.session = self.demo.log_in()
        self.assert_set("A", "A", "Corvel R1 3.0.0")

    def test_a_killed_writer_leaves_the_running_set_unchanged(self):
        image = self.file("corvel-r1-2.0.0.bin", large_image("Corvel R1 2.0.0", 15 * 1024 * 1024)[1])
        walk = self.walk("write", image)
        self.assertTrue(wait_until(lambda: self.state()["STATE"] == "writing", 30))
        writer = self.writer()
        self.continue_until(writer, 0.4)
        self.assertEqual(walk.line(), "writing")
        os.kill(writer, signal.SIGKILL)
        seen = walk.result()
        self.assertEqual(seen["running"], "Set A Running Corvel R1 1.0.0")
        self.assertTrue(seen["writing"])
        self.assertEqual(self.flash((1, *RUNNING_A)),
                         {each: self.factory[each] for each in (1, *RUNNING_A)})

    def test_another_window_follows_a_lost_upload_and_then_starts_the_other_set(self):
        image = self.file("a.bin", large_image("Corvel R1 2.0.0", 15 * 1024 * 1024)[1])
        network = Network(self.demo.port)
        self.addCleanup(network.close)
        client = types.SimpleNamespace(port=network.port, session=self.demo.session)
        walk = Walk("followed", client, image)
        self.addCleanup(walk.stop)
        self.assertEqual(walk.line() or walk.result(), "silent")
        network.lose()
        seen = walk.result()
        self.assertEqual(seen["cancelled"], "Cancelled. Nothing has been written.")
        self.assertEqual(seen["running"], "Set B Running Corvel R1 2.0.0")

    def test_a_refused_image_is_explained(self):
        image = bytearray(Image("Corvel R1 2.0.0").bytes())
        image[2_000_000] ^= 1
        seen = self.walk("refused", self.file("damaged.bin", image)).result()
        self.assertEqual(seen["reason"], "Rootfs: This section is damaged.")
        self.assertEqual(seen["focused"], "damaged.bin cannot be used")
        self.assert_unchanged()

    def test_a_file_that_is_too_large_is_not_sent(self):
        self.assertIn("larger than 16 MiB", self.walk(
            "tooLarge", self.file("large.bin", bytes(16 * 1024 * 1024 + 1))).result())

    def test_an_upload_after_the_end_of_the_session_leads_to_the_login(self):
        image = self.file("a.bin", large_image("Corvel R1 2.0.0", 15 * 1024 * 1024)[1])
        for name in ("ended", "endedWithoutScripts"):
            self.assertIn(LOGIN, self.walk(name, image).result(), name)
        self.assert_unchanged()

    def test_an_upgrade_without_javascript(self):
        image = self.file("a.bin", Image("Corvel R1 2.0.0").bytes())
        self.assertEqual(self.walk("withoutScripts", image).result(),
                         "Set B Running Corvel R1 2.0.0")

    def test_every_page_at_every_width_and_in_every_colour_scheme(self):
        self.assertEqual(self.walk("pages").result(), "checked")
