# SPDX-License-Identifier: MIT
"""The firmware upgrade over HTTP: from A to B and back, refusals, and interruptions."""

import contextlib
import hashlib
import html
import http.client
import os
import pathlib
import re
import shutil
import signal
import struct
import subprocess
import threading
import time
import zlib

import device
import upgrade_image
from demo_test import DemoTest
from device import NETWORK, UPGRADE, UPLOAD, Demo, wait_until
from upgrade_image import Image, large_image, section, version_section, with_crc

LARGEST = 16 * 1024 * 1024
RUNNING_A = (2, 3)
RUNNING_B = (4, 5)


def part(data, name="image", filename="image.bin", kind="application/octet-stream"):
    """Returns the header and the content of a part of a multipart body, without its boundary."""
    head = f'Content-Disposition: form-data; name="{name}"'
    if filename is not None:
        head += f'; filename="{filename}"'
    if kind is not None:
        head += f"\r\nContent-Type: {kind}"
    return head.encode() + b"\r\n\r\n" + data + b"\r\n"


def multipart(*parts, boundary=b"xYzZY"):
    return b"".join(b"--" + boundary + b"\r\n" + each for each in parts) + (
        b"--" + boundary + b"--\r\n")


def variables(image):
    """Checks the CRC of a boot environment and returns its variables."""
    assert struct.unpack(">I", image[:4])[0] == zlib.crc32(image[4:]), "wrong CRC"
    entries = image[4:image.index(b"\0\0", 4)].split(b"\0")
    return dict(entry.decode().split("=", 1) for entry in entries)


def environment(*entries):
    data = b"".join(each + b"\0" for each in entries).ljust(65532, b"\0")
    return struct.pack(">I", zlib.crc32(data)) + data


class UpgradeTest(DemoTest):
    """Tests that each start with a device in the factory's state."""

    options = {}

    def setUp(self):
        self.directory = self.make_directory()
        self.demo = Demo(state=self.directory / "state", **self.options)
        self.addCleanup(self.demo.stop)
        self.factory = self.flash()

    def flash(self, numbers=range(9)):
        return {number: self.demo.flash(number).read_bytes() for number in numbers}

    def curl(self, path, *arguments):
        """Runs curl and returns the status and the body."""
        result = subprocess.run(
            ["curl", "--silent", "--show-error", "--max-time", "60", "--write-out",
             "\n%{http_code}", "--cookie", f"session={self.demo.session}", *arguments,
             f"http://127.0.0.1:{self.demo.port}{path}"],
            capture_output=True, check=True)
        body, _, status = result.stdout.rpartition(b"\n")
        return int(status), body.decode()

    def upload(self, image):
        file = self.directory / "image.bin"
        file.write_bytes(image)
        return self.curl(f"{UPLOAD}?token={self.demo.token()}", "--form", f"image=@{file}")

    def send(self, body, content_type="multipart/form-data; boundary=xYzZY", **headers):
        return self.demo.request("POST", f"{UPLOAD}?token={self.demo.token()}", body, {"Content-Type": content_type, **headers})

    def perform(self, action):
        return self.curl(UPGRADE, "--data", f"action={action}&token={self.demo.token()}")[0]

    def state(self):
        return self.demo.json(UPGRADE, "upgrade")

    def write_staged(self):
        self.assertEqual(self.perform("write"), 303)
        self.assertTrue(wait_until(lambda: self.state()["STATE"] != "writing", 60))
        self.assertEqual(self.state()["STATE"], "written")

    def write_until(self, share):
        """Starts writing the staged image, and stops the writer when it has written this share."""
        self.assertEqual(self.perform("write"), 303)
        writer = self.writer()
        self.continue_until(writer, share)
        return writer

    def writer(self):
        """Returns the process that writes. Those that answer requests or parse them end soon."""
        seen = []

        def stays():
            seen[:] = [*seen[-1:], self.demo.programs("/www/cgi-bin/upgrade")]
            return len(seen) == 2 and len(seen[0]) == 1 and seen[0] == seen[1]

        self.assertTrue(wait_until(stays))
        return seen[0][0]

    def continue_until(self, writer, share):
        """Continues a writer until it has written more than this share. Returns the state."""
        while True:
            os.kill(writer, signal.SIGSTOP)
            state = self.state()
            self.assertEqual(state["STATE"], "writing")
            if int(state["WRITTEN"]) > share * int(state["TOTAL"]):
                return state
            os.kill(writer, signal.SIGCONT)
            time.sleep(0.01)

    def restart(self):
        before = self.state()["BOOT_ID"]
        self.assertEqual(self.perform("restart"), 200)
        self.wait_for_restart(before)

    def wait_for_restart(self, before):
        def is_back():
            with contextlib.suppress(OSError, http.client.HTTPException):
                return self.demo.get(NETWORK).status == 303
            return False

        self.assertTrue(wait_until(is_back, 20), "a restart ends all sessions")
        self.demo.session = self.demo.log_in()
        self.assertNotEqual(self.state()["BOOT_ID"], before)

    def start_again(self):
        self.demo.stop()
        self.demo = Demo(state=self.directory / "state", **self.options)
        self.addCleanup(self.demo.stop)

    def digests(self):
        """Returns the variables of the boot environment that tell the content of the sets."""
        return {name: hashlib.sha256(b"".join(self.flash(numbers).values())).hexdigest()
                for name, numbers in (("firmware_a", RUNNING_A), ("firmware_b", RUNNING_B))}

    def assert_set(self, running, following, version):
        state = self.state()
        self.assertEqual((state["RUNNING"], state["NEXT"], state["VERSION_" + running]),
                         (running, following, version))

    def assert_unchanged(self):
        self.assertEqual(self.flash(), self.factory)
        self.assert_set("A", "A", "Corvel R1 1.0.0")
        self.assertFalse((self.demo.root() / "tmp/firmware/image.bin").exists())

    def assert_page(self, text):
        self.assertIn('role="alert"', text)
        self.assertNotIn("{{", text)
        self.assertTrue(text.endswith("</html>\n"))

    def comparison(self, text):
        """Returns what the page says of the versions before an image is written."""
        rows = re.search('<dl class="versions">(.*?)</dl>', text, re.S).group(1)
        return {name: re.sub("<.*?>", "", version)
                for name, version in re.findall("<dt>(.*?)</dt><dd>(.*?)</dd>", rows)}

    def badges(self):
        """Returns the condition of both sets, as the page shows it."""
        found = re.findall('Set ([AB]) <span class="badge">(.*?)</span>', self.curl(UPGRADE)[1])
        return {f"{name}: {badge}" for name, badge in found}

    def message(self, text):
        return html.unescape(re.search(r'role="alert">(.*)</p>', text).group(1))


class Upgrades(UpgradeTest):
    def test_the_factory_program_creates_a_flash_that_boots_set_a(self):
        self.assertEqual({number: len(data) for number, data in self.factory.items()},
                         upgrade_image.SIZES)
        self.assertEqual(variables(self.factory[1]), {
            "bootdelay": "2", "baudrate": "115200", "bootparam": "0",
            "bootargs": "console=ttyS0,115200 root=31:2 rootfstype=squashfs ro"})
        self.assert_set("A", "A", "Corvel R1 1.0.0")
        self.assertEqual(set(self.factory[4] + self.factory[8]), {0xFF})

    def test_from_a_to_b_and_back(self):
        root = self.demo.root
        there, bytes_there = large_image("Corvel R1 2.0.0", 15 * 1024 * 1024)
        self.assertEqual(self.upload(bytes_there)[0], 303)
        status, text = self.curl(UPGRADE)
        self.assertEqual(status, 200)
        self.assertEqual(self.comparison(text), {
            "New version": "Corvel R1 2.0.0", "Replaces in set B": "no version",
            "Keeps running, in set A": "Corvel R1 1.0.0"})
        for cells in (("Rootfs", "Rootfs-1", "/dev/mtdblock4", "6.3 MiB"),
                      ("Linux_kernel", "Linux_kernel-1", "/dev/mtdblock5", "1023.9 KiB")):
            self.assertIn("<th scope=\"row\">{}</th><td>{}</td><td>{}</td>"
                          "<td class=\"number\">{}</td>".format(*cells), text)
        self.assertEqual(self.flash(), self.factory, "nothing is written before it is confirmed")
        self.assertEqual((root() / "tmp/firmware/image.bin").read_bytes(), bytes_there)

        self.write_staged()
        self.assertFalse((root() / "tmp/firmware/image.bin").exists())
        self.assert_set("A", "B", "Corvel R1 1.0.0")
        self.assertTrue(self.demo.flash(4).read_bytes().startswith(there.root))
        self.assertTrue(self.demo.flash(5).read_bytes().startswith(there.kernel))
        self.assertEqual(variables(self.demo.flash(1).read_bytes()),
                         {**variables(self.factory[1]), "bootparam": "1", **self.digests()})
        untouched = (0, 2, 3, 6, 7, 8)
        self.assertEqual(self.flash(untouched), {each: self.factory[each] for each in untouched})

        self.restart()
        self.assert_set("B", "B", "Corvel R1 2.0.0")
        self.assertIn("root=31:4", (root() / "run/cmdline").read_text())

        back, bytes_back = large_image("Corvel R1 3.0.0", 15 * 1024 * 1024)
        running = self.flash(RUNNING_B)
        self.assertEqual(self.upload(bytes_back)[0], 303)
        self.assertEqual(self.comparison(self.curl(UPGRADE)[1]), {
            "New version": "Corvel R1 3.0.0", "Replaces in set A": "Corvel R1 1.0.0",
            "Keeps running, in set B": "Corvel R1 2.0.0"})
        self.write_staged()
        self.restart()
        self.assert_set("A", "A", "Corvel R1 3.0.0")
        self.assertTrue(self.demo.flash(2).read_bytes().startswith(back.root))
        self.assertTrue(self.demo.flash(3).read_bytes().startswith(back.kernel))
        self.assertEqual(self.flash(RUNNING_B), running)
        self.start_again()
        self.assert_set("A", "A", "Corvel R1 3.0.0")
        self.assertEqual({number: len(data) for number, data in self.flash().items()},
                         upgrade_image.SIZES)

    def written_to(self, number, content_bytes):
        """Returns the bytes of the erase blocks that contain what is to be written."""
        flash = self.demo.flash(number).read_bytes()
        return sum(len(block) for start in range(0, len(content_bytes), 65536)
                   if flash.startswith(block := content_bytes[start:start + 65536], start))

    def test_reported_progress_has_been_written(self):
        image, image_bytes = large_image("Corvel R1 2.0.0", 15 * 1024 * 1024)
        self.upload(image_bytes)
        writer = self.write_until(0)
        for share in (0, 0.2, 0.5, 0.9, 0.985):
            state = self.continue_until(writer, share)
            self.assertEqual(int(state["TOTAL"]), len(image.root) + len(image.kernel))
            written = {"Rootfs-1": self.written_to(4, image.root),
                       "Linux_kernel-1": self.written_to(5, image.kernel)}
            self.assertGreaterEqual(sum(written.values()), int(state["WRITTEN"]))
            self.assertGreater(written[state["SECTION"]], 0)
            left = int(state["TOTAL"]) - int(state["WRITTEN"])
            percent = str(int(state["WRITTEN"]) * 100 // int(state["TOTAL"])) if left else ""
            self.assertEqual(state["PERCENT"], percent)
            self.assertEqual(state["PHASE"], (
                "Checking what was written" if left == 0 else
                "Writing the start of both sections" if left < 2 * 65536 else
                "Writing section 1 of 2, the root file system" if state["SECTION"] == "Rootfs-1" else
                "Writing section 2 of 2, the kernel"))
            text = self.curl(UPGRADE)[1]
            self.assertIn(f'max="100" value="{percent}">' if percent else 'max="100">', text)
            self.assertIn(f'role="status">{state["PHASE"]}</p>', text)
            self.assertIn('Set B <span class="badge">Being written</span>', text)
            self.assertIn('<meta http-equiv="refresh" content="1">', text)
            self.assertEqual(state["NEXT"], "A")
        os.kill(writer, signal.SIGCONT)
        self.assertTrue(wait_until(lambda: self.state()["STATE"] == "written"))

    def test_an_image_may_have_at_most_16_mib(self):
        largest = large_image("Corvel R1 2.0.0", LARGEST)[1]
        self.assertEqual(self.send(multipart(part(largest))).status, 303)
        self.assertEqual(self.state()["STATE"], "staged")
        self.perform("discard")

        for size in (LARGEST + 1, LARGEST + 1_000_000):
            response = self.send(multipart(part(largest.ljust(size, b"\0"))))
            self.assertEqual(response.status, 413)
            self.assert_page(response.text)
            self.assertEqual(self.message(response.text), "The file is larger than 16 MiB, so it is not "
                             "an image for this router.")
            self.assertIn("Choose another image", response.text)
        self.assert_unchanged()

    def test_other_pages_accept_only_small_forms(self):
        for path in (NETWORK, UPGRADE, UPLOAD + "/x", UPLOAD + "2"):
            response = self.demo.post(path, b"x" * 70000)
            self.assertEqual(response.status, 413, path)
            self.assert_page(response.text)

    def test_an_upload_needs_little_more_memory_than_the_image(self):
        """Runs the program under one that records its maximum memory use."""
        image = self.directory / "image"
        shutil.copytree(device.IMAGE, image, symlinks=True)
        program = image / "www/cgi-bin/upload"
        program.rename(program.with_name("upload.real"))
        program.write_text(
            "#!/usr/bin/python3\nimport os, resource, signal, subprocess\n"
            "signal.signal(signal.SIGTERM, signal.SIG_IGN)  # sent when the answer is complete\n"
            "subprocess.run(['/www/cgi-bin/upload.real'])\n"
            "peak = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss\n"
            "open('/var/log/new', 'w').write(str(peak))\n"
            "os.rename('/var/log/new', '/var/log/peak')\n")
        program.chmod(0o755)
        body = multipart(part(large_image(
            "Corvel R1 2.0.0", LARGEST - len(multipart(part(b""))))[1]))
        with Demo(image=image) as demo:
            start = time.monotonic()
            response = demo.request("POST", f"{UPLOAD}?token={demo.token()}", body, {
                "Content-Type": "multipart/form-data; boundary=xYzZY"})
            seconds = time.monotonic() - start
            self.assertEqual(response.status, 303)
            record = demo.state / "var/log/peak"
            self.assertTrue(wait_until(record.exists))
            peak = int(record.read_text())
        print(f"16 MiB in {seconds:.3f} s with {peak} KiB ...", end=" ", flush=True)
        self.assertGreater(peak, LARGEST // 1024 - 100, "the check maps the image")
        self.assertLess(peak, LARGEST // 1024 + 4096)

    def test_actions_in_the_wrong_order_are_refused(self):
        self.assertEqual(self.perform("write"), 409)
        self.assertEqual(self.perform("format"), 400)
        self.assertEqual(self.curl(UPGRADE, "--data", f"x=y&token={self.demo.token()}")[0], 400)
        self.assert_unchanged()
        image = Image("Corvel R1 2.0.0").bytes()
        self.upload(image)
        self.assertEqual(self.perform("discard"), 303)
        self.assertEqual(self.perform("write"), 409)
        self.assert_unchanged()
        self.upload(image)
        self.write_staged()
        status, text = self.upload(image)
        self.assertEqual(status, 409, "it would overwrite the running set")
        self.assert_page(text)
        self.assertEqual(self.perform("write"), 409)
        self.assertEqual(self.flash(RUNNING_A), {each: self.factory[each] for each in RUNNING_A})

    def test_an_upload_replaces_the_previous_one(self):
        self.upload(Image("Corvel R1 2.0.0").bytes())
        second = Image("Corvel R1 2.0.1")
        self.upload(second.bytes())
        self.write_staged()
        self.assertTrue(self.demo.flash(4).read_bytes().startswith(second.root))

    def test_a_cancelled_upgrade_leaves_the_running_set_unchanged(self):
        self.assertEqual(self.perform("cancel"), 409, "nothing is being written")
        self.upload(large_image("Corvel R1 2.0.0", 8 * 1024 * 1024)[1])
        self.assertEqual(self.perform("cancel"), 409)
        writer = self.write_until(0.3)
        self.assertIn('value="cancel"', self.curl(UPGRADE)[1])
        self.assertEqual(self.perform("cancel"), 303)
        os.kill(writer, signal.SIGCONT)
        self.assertTrue(wait_until(lambda: self.state()["STATE"] == "failed"))
        text = self.curl(UPGRADE)[1]
        self.assertIn("The upgrade was cancelled. The running set is unchanged and still boots.", text)
        self.assertEqual(self.badges(), {"A: Running", "B: Half-written"})
        self.assertFalse((self.demo.root() / "tmp/firmware/image.bin").exists())
        kept = (0, 1, *RUNNING_A, 6, 7, 8)
        self.assertEqual(self.flash(kept), {each: self.factory[each] for each in kept})
        self.upload(Image("Corvel R1 2.0.1", 99, 99).bytes())
        self.write_staged()
        self.restart()
        self.assert_set("B", "B", "Corvel R1 2.0.1")

    def test_restarting_without_an_upgrade_changes_nothing(self):
        self.restart()
        self.assert_unchanged()

    def test_only_the_image_that_the_page_has_shown_is_written(self):
        seen = []
        for version in ("Corvel R1 1.0.0", "Corvel R1 0.9.0"):
            self.assertEqual(self.upload(Image(version, 99, 99).bytes())[0], 303)
            text = self.curl(UPGRADE)[1]
            seen.append(re.search('name="image" value="(.+?)"', text).group(1))
            self.assertEqual("runs this version already" in text, version.endswith("1.0.0"))
            self.assertEqual("older than the one that runs" in text, version.endswith("0.9.0"))
        for action in ("write", "discard"):
            response = self.demo.post(UPGRADE, {"action": action, "image": seen[0]})
            self.assertEqual(response.status, 409)
            self.assertIn("in another window", self.message(response.text))
        self.assertEqual(self.flash(), self.factory)
        response = self.demo.post(UPGRADE, {"action": "write", "image": seen[1]})
        self.assertEqual(response.status, 303)


    def test_the_demo_names_a_good_and_a_damaged_sample(self):
        output = self.demo.output
        while output.count("-damaged.bin\n") < 1:
            more = os.read(self.demo.process.stdout.fileno(), 4096).decode()
            self.assertTrue(more, output)
            output += more
        good, damaged = (pathlib.Path(name) for name in
                         re.findall("^Upgrade image to try: (.*)$", output, re.M))
        status, text = self.upload(damaged.read_bytes())
        self.assertEqual((status, self.message(text)), (422, "Rootfs: This section is damaged."))
        self.assertIn("-damaged.bin", damaged.name)
        self.assertEqual(self.upload(good.read_bytes())[0], 303)
        self.write_staged()
        self.assertEqual(self.state()["VERSION_B"], "Corvel R1 1.1.0")


class OtherSet(UpgradeTest):
    """The set that is not running can be started if it is complete."""

    def restart_with(self, action):
        before = self.state()["BOOT_ID"]
        status, text = self.curl(UPGRADE, "--data", f"action={action}&token={self.demo.token()}")
        self.assertEqual(status, 200)
        self.assertIn("5; url=/cgi-bin/upgrade?started=", text)
        self.wait_for_restart(before)

    def assert_not_startable(self, reason):
        self.assertNotIn("start=1", self.curl(UPGRADE)[1])
        text = self.curl(UPGRADE + "?start=1")[1]
        self.assertIn(reason, self.message(text))
        self.assertNotIn('value="start"', text)
        response = self.demo.post(UPGRADE, "action=start")
        self.assertEqual(response.status, 409)
        self.assertIn(reason, self.message(response.text))
        self.assertEqual(self.state()["RUNNING"], self.state()["NEXT"])

    def test_it_is_started_after_a_confirmation_and_refused_with_the_reason(self):
        self.assertEqual(self.badges(), {"A: Running", "B: Empty"})
        self.assert_not_startable("contains no firmware")

        self.upload(Image("Corvel R1 2.0.0", 200_000, 99).bytes())
        self.write_staged()
        self.assertEqual(self.demo.post(UPGRADE, "action=start").status, 409, "a restart is pending")
        self.assertIn("Set B is ready", self.curl(UPGRADE)[1])
        self.assertIn("The router has not started set B. It continues with set A.",
                      self.curl(UPGRADE + "?started=B")[1])
        self.assertEqual(self.perform("keep"), 303)
        self.assert_set("A", "A", "Corvel R1 1.0.0")
        self.assertEqual(self.state()["STATE"], "")
        self.assertEqual(self.badges(), {"A: Running", "B: Ready"})
        flash = self.flash(range(2, 9))
        text = self.curl(UPGRADE + "?start=1")[1]
        self.assertEqual(self.comparison(text), {"Will run, from set B": "Corvel R1 2.0.0",
                                                 "Runs now, from set A": "Corvel R1 1.0.0"})
        self.assertEqual(self.state()["NEXT"], "A", "only the form starts it")
        self.restart_with("start")
        self.assert_set("B", "B", "Corvel R1 2.0.0")
        text = self.curl(UPGRADE + "?started=B")[1]
        self.assertIn("The router runs Corvel R1 2.0.0</h2>", text)
        self.assertIn("Set A contains Corvel R1 1.0.0.", text)
        self.assertIn("The router has not started set A. It continues with set B.",
                      self.curl(UPGRADE + "?started=A")[1])
        self.assertEqual(self.flash(range(2, 9)), flash)
        self.assertEqual(self.badges(), {"A: Ready", "B: Running"})

        damaged = bytearray(flash[2])
        damaged[3_000_000] ^= 1
        self.demo.flash(2).write_bytes(damaged)
        self.assertEqual(self.badges(), {"A: Damaged", "B: Running"})
        self.assert_not_startable("is not what was written")

    def test_it_is_refused_as_long_as_nothing_is_known_of_its_content(self):
        self.demo.flash(4).write_bytes(self.factory[2])
        self.demo.flash(5).write_bytes(self.factory[3])
        self.assertEqual(self.badges(), {"A: Running", "B: Not verified"})
        self.assert_not_startable("is not known")
        self.assert_set("A", "A", "Corvel R1 1.0.0")

    def test_a_half_written_set_keeps_its_mark_across_restarts(self):
        self.upload(large_image("Corvel R1 2.0.0", 8 * 1024 * 1024)[1])
        os.kill(self.write_until(0.4), signal.SIGKILL)
        self.assertTrue(wait_until(lambda: self.state()["STATE"] == "interrupted"))
        self.perform("discard")
        text = self.curl(UPGRADE)[1]
        self.assertIn("Writing was interrupted.", text)
        self.assertIn("Choose an upgrade image", text)
        for again in (self.restart, self.start_again):
            again()
            self.assertEqual(self.badges(), {"A: Running", "B: Half-written"})
            self.assert_not_startable("was not completed")


class RunningSet(UpgradeTest):
    """The kernel's command line names the running set, regardless of the boot environment."""

    def upgrade_with(self, stored, line=None):
        self.demo.flash(1).write_bytes(stored)
        if line is not None:
            (self.demo.root() / "run/cmdline").write_text(line)
        running = self.state()["RUNNING"]
        kept = self.flash(RUNNING_A if running == "A" else RUNNING_B)
        image = Image("Corvel R1 2.0.0", 9999, 9999)
        self.assertEqual(self.upload(image.bytes())[0], 303)
        self.write_staged()
        self.assertEqual(self.flash(kept), kept)
        other = RUNNING_B if running == "A" else RUNNING_A
        for number, content_bytes in zip(other, (image.root, image.kernel)):
            self.assertTrue(self.demo.flash(number).read_bytes().startswith(content_bytes))
        self.assertEqual(variables(self.demo.flash(1).read_bytes())["bootparam"],
                         "1" if running == "A" else "0")
        return running

    def test_a_boot_environment_with_a_wrong_crc(self):
        self.assertEqual(self.upgrade_with(self.factory[1][:-1] + b"x"), "A")

    def test_a_boot_environment_without_bootparam(self):
        self.assertEqual(self.upgrade_with(environment(b"bootdelay=2")), "A")

    def test_a_boot_environment_without_bootparam_while_set_b_is_running(self):
        self.assertEqual(self.upgrade_with(environment(b"bootdelay=2"), "x root=31:4 ro\n"), "B")

    def test_a_command_line_that_names_no_set(self):
        self.assertEqual(self.upgrade_with(environment(b"bootparam=1"), "quiet\n"), "B")

    def test_a_long_command_line(self):
        """The boot loader derives it from a long variable and starts set B."""
        arguments = b"bootargs=" + b"x=" + b"y" * 5000 + b" root=31:2 ro"
        self.demo.flash(1).write_bytes(environment(arguments, b"bootparam=1"))
        self.restart()
        self.assertIn("root=31:4", (self.demo.root() / "run/cmdline").read_text())
        self.assertEqual((self.state()["RUNNING"], self.state()["NEXT"]), ("B", "B"))
        self.assertEqual(self.upgrade_with(environment(arguments, b"bootdelay=2")), "B")

    def test_only_a_complete_root_argument_is_used(self):
        for line, running in (("root=31:2 root=31:4\n", "B"), ("root=/dev/mtdblock4", "B"),
                              ('x="a root=31:4 b" root=31:2\n', "A"),
                              ("nfsroot=31:4 root=31:2", "A"),
                              ("root=31:2 -- root=31:4\n", "A")):
            (self.demo.root() / "run/cmdline").write_text(line)
            self.assertEqual(self.state()["RUNNING"], running, line)


class Refusals(UpgradeTest):
    def test_malformed_uploads_are_refused(self):
        good = Image("Corvel R1 2.0.0", 100_000, 50_000).bytes()
        usual = "multipart/form-data; boundary=xYzZY"
        for name, body, kind, status in (
                ("another boundary", multipart(part(good), boundary=b"other"), usual, 400),
                ("no boundary", multipart(part(good)), "multipart/form-data", 400),
                ("an empty boundary", multipart(part(good)), "multipart/form-data; boundary=", 400),
                ("no file", multipart(part(b"x", filename=None)), usual, 400),
                ("no file chosen", multipart(part(b"", filename="")), usual, 400),
                ("another field", multipart(part(good, name="x")), usual, 400),
                ("two files", multipart(part(good), part(good)), usual, 400),
                ("five files", multipart(*[part(good)] * 5), usual, 400),
                ("no closing boundary", b"--xYzZY\r\n" + part(good), usual, 400),
                ("no body", b"", usual, 415),
                ("a boundary only", b"--xYzZY--\r\n", usual, 400),
                ("boundaries only", b"--xYzZY\r\n" * 1000, usual, 413),
                ("NULs", bytes(7000), usual, 400),
                ("a form", b"image=x", "application/x-www-form-urlencoded", 415),
                ("no kind", good, "", 415)):
            with self.subTest(name):
                response = self.send(body, kind)
                self.assertEqual(response.status, status)
                self.assert_page(response.text)
                self.assertEqual(self.demo.crashes(), [])
        self.assert_unchanged()

    def test_the_form_of_the_upload_does_not_matter(self):
        """An image is received whole, even if it contains what looks like the header of a part."""
        image = Image("Corvel R1 2.0.0\r\n\r\nContent-Type: text/html\r\n\r\n").bytes()
        usual = "multipart/form-data; boundary=xYzZY"
        more = b"Content-Transfer-Encoding: binary\r\nX-More: x\r\n"
        for name, body, kind in (
                ("a boundary followed by a parameter", multipart(part(image)), usual + "; x=y"),
                ("a boundary in quotes", multipart(part(image)), usual.replace("xYzZY", '"xYzZY"')),
                ("no type", multipart(part(image, kind=None)), usual),
                ("more header lines", multipart(more + part(image)), usual)):
            with self.subTest(name):
                self.assertEqual(self.send(body, kind).status, 303)
                staged = self.demo.root() / "tmp/firmware/image.bin"
                self.assertEqual(staged.read_bytes(), image)
                self.perform("discard")
        self.assert_unchanged()

    def test_fields_before_and_after_the_file_are_ignored(self):
        good = Image("Corvel R1 2.0.0", 100_000, 50_000).bytes()
        field = part(b"value", filename=None, kind=None)
        response = self.send(multipart(field, part(good), field))
        self.assertEqual(response.status, 303)

    def test_other_methods_and_other_sites_are_refused(self):
        good = multipart(part(Image("Corvel R1 2.0.0", 1000, 1000).bytes()))
        for method in ("GET", "PUT", "DELETE"):
            self.assertEqual(self.demo.request(method, UPLOAD).status, 405, method)
        for origin in ("http://evil.example", "null"):
            self.assertEqual(self.send(good, Origin=origin).status, 403, origin)
        self.assertEqual(self.demo.post(UPGRADE, "action=restart", {"Origin": "null"}).status, 403)
        self.assert_unchanged()

    def test_an_incomplete_upload_changes_nothing(self):
        body = multipart(part(Image("Corvel R1 2.0.0").bytes()))
        head = (f"POST {UPLOAD}?token={self.demo.token()} HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n"
                f"Cookie: session={self.demo.session}\r\n"
                "Content-Type: multipart/form-data; boundary=xYzZY\r\n"
                f"Content-Length: {len(body)}\r\n\r\n").encode()
        for length in (0, 10, len(body) // 2, len(body) - 5):
            response = self.demo.raw(head + body[:length], half_close=True)
            self.assertNotIn(b" 303 ", response)
            self.assertTrue(wait_until(lambda: not self.demo.programs("/www/cgi-bin/upload")))
            self.assertNotEqual(self.state()["STATE"], "staged")
        self.assert_unchanged()

    def refuse(self, image, message):
        """Checks that the image is refused for this reason, and that nothing is changed."""
        status, text = self.upload(image)
        self.assertEqual(status, 422)
        self.assert_page(text)
        self.assertEqual(self.message(text), message)
        self.assert_unchanged()
        self.assertEqual(self.perform("write"), 409)
        return text

    def test_damaged_images_are_refused(self):
        good = Image("Corvel R1 2.0.0", 100_000, 50_000)
        image = good.bytes()
        text = self.refuse(image[:len(image) - 40_000], "The image is truncated.")
        self.assertIn('<th scope="row">Rootfs</th><td>Rootfs-1</td>', text)

        damaged = bytearray(image)
        damaged[100_000 + 1000] ^= 1
        text = self.refuse(bytes(damaged), "Linux_kernel: This section is damaged.")
        self.assertIn('<tr class="failed"><th scope="row">Linux_kernel</th>', text)
        self.assertIn('<th scope="row">Rootfs</th><td>Rootfs-1</td>', text)

        large = with_crc(section(b"root", bytes(0x650001)) + version_section("x"))
        self.refuse(large, "Rootfs: This section is larger than its partition.")
        self.refuse(image[:-1] + bytes([image[-1] ^ 1]),
                    "The CRC of the image is wrong. The image is damaged.")
        for nothing in (b"", b"x", bytes(20), bytes(50_000), b"\xff" * 21, b"\x7fELF" * 30_000):
            status, text = self.upload(nothing)
            self.assertEqual(status, 422)
            self.assert_page(text)
        self.assert_unchanged()

    def test_images_that_are_not_a_whole_set_are_refused(self):
        good = Image("Corvel R1 2.0.0", 100_000, 50_000)
        body = b"".join(good.sections)
        no_version = "The image does not end with a version section, and thus has no CRC."
        self.refuse(body, no_version)
        self.refuse(body + with_crc(b""), no_version)
        root, kernel = good.sections
        end = version_section("x")
        half = "The image must contain both a root file system and a kernel."
        for sections in (root + end, kernel + end, end):
            self.refuse(with_crc(sections), half)
        twice = "Two sections are for this partition."
        self.refuse(with_crc(root + root + kernel + end), f"Rootfs: {twice}")
        for signature, name in ((b"rfs1", "Rootfs-1"), (b"knl1", "Linux_kernel-1")):
            self.refuse(Image("x", 99, 99, [section(signature, b"x")]).bytes(), f"{name}: {twice}")

    def test_sections_for_other_partitions_are_refused(self):
        """Their partitions exist only once: an interruption would lose what is in them."""
        for signature, name in ((b"boot", "Boot"), (b"benv", "Boot-env"), (b"log0", "Log"),
                                (b"artp", "ART")):
            self.refuse(Image("x", 99, 99, [section(signature, b"bootparam=1\0")]).bytes(),
                        f"{name}: This section is neither a root file system nor a kernel.")

    def test_an_unverified_section_must_fit_into_its_partition(self):
        large = section(b"root", bytes(0x650000 + 1), mtd_id=255)
        self.refuse(with_crc(large + section(b"kern", b"x") + version_section("x")),
                    "Rootfs: This section is larger than its partition.")

    def test_the_running_set_is_never_overwritten(self):
        self.assertEqual(self.upload(Image("Corvel R1 2.0.0", 99, 99).bytes())[0], 303)
        self.write_staged()
        self.restart()
        before = self.flash()
        for signature in (b"rfs1", b"knl1"):
            image = Image("x", 99, 99, [section(signature, b"x")]).bytes()
            status, text = self.upload(image)
            self.assertEqual(status, 422)
            self.assertIn("would overwrite the running set", self.message(text))
        self.assertEqual(self.flash(), before)

    def test_an_unusable_boot_environment_is_refused(self):
        image = Image("Corvel R1 2.0.0", 99, 99).bytes()
        for broken in (b"\0" * 65536, b"noise" + bytes(65531),
                       b"\0" * 4 + b"\xff" * 65532):
            self.demo.flash(1).write_bytes(broken)
            self.factory[1] = broken
            status, text = self.upload(image)
            self.assertEqual(status, 422)
            self.assertIn("boot environment", self.message(text))
            self.assertEqual(self.flash(), self.factory)
            self.assertEqual(self.curl(UPGRADE)[0], 200)

    def test_an_upgrade_is_refused_if_the_running_set_is_unknown(self):
        (self.demo.root() / "run/cmdline").write_text("root=/dev/nfs\n")
        self.demo.flash(1).write_bytes(environment(b"bootdelay=2"))
        self.factory[1] = self.demo.flash(1).read_bytes()
        status, text = self.upload(Image("Corvel R1 2.0.0", 99, 99).bytes())
        self.assertEqual(status, 422)
        self.assertIn("names the running set", self.message(text))
        self.assertEqual(self.flash(), self.factory)
        self.assertEqual((self.state()["RUNNING"], self.state()["NEXT"]), ("", ""))
        self.assertEqual(self.curl(UPGRADE)[0], 200)

    def test_a_version_that_contains_html_is_escaped(self):
        """The image with this version can be staged, shown and booted."""
        version = "<b>x</b>{{model}}'\"&amp;"
        self.assertEqual(self.upload(Image(version, 99, 99).bytes())[0], 303)
        self.write_staged()
        for path in (UPGRADE, UPGRADE + "?x=1"):
            text = self.curl(path)[1]
            self.assertNotIn("<b>x", text)
            self.assertIn(">&lt;b&gt;x&lt;/b&gt;{{model}}&#39;&quot;&amp;amp;<", text)
        self.assertEqual(self.state()["VERSION_B"], version)
        self.restart()
        self.assert_set("B", "B", version)

    def test_file_names_are_shown_escaped_and_without_directories(self):
        image = Image("Corvel R1 2.0.0", 99, 99).bytes()
        for name, shown in (("<script>alert(1)</script>", "script>"), ("../../etc/passwd", "passwd"),
                            ("C:\\images\\a.bin", "a.bin"), ("$message", "$message"), ("a" * 300, "image"),
                            ("setenv x.bin", "setenv x.bin"), ("{{token}}", "{{token}}"), ("\u65e5\u672c.bin", "\u65e5\u672c.bin"), ("'&.bin", "'&.bin"),
                            ("\udcff.bin", "image"), ("a\tb", "image")):
            file = name.encode("utf-8", "surrogateescape").decode("latin-1")
            body = multipart(part(image)).replace(
                b'"image.bin"', b'"' + file.encode("latin-1") + b'"')
            self.assertEqual(self.send(body).status, 303, name)
            heading = re.search(r'<h2 id="step">(.*)</h2>', self.curl(UPGRADE)[1]).group(1)
            self.assertEqual(html.unescape(heading), f"Write {shown} to set B?")
            self.assertNotIn("<", heading)


class Interruptions(UpgradeTest):
    def assert_runs_as_before(self):
        kept = (0, 1, *RUNNING_A, 6, 7, 8)
        self.assertEqual(self.flash(kept), {each: self.factory[each] for each in kept})
        self.assert_set("A", "A", "Corvel R1 1.0.0")

    def test_a_killed_writer_leaves_the_running_set_unchanged(self):
        image = large_image("Corvel R1 2.0.0", 8 * 1024 * 1024)
        for share in (0, 0.3, 0.9):
            self.assertEqual(self.upload(image[1])[0], 303)
            writer = self.write_until(share)
            self.assertEqual(self.upload(image[1])[0], 409)
            self.assertEqual(self.perform("restart"), 409)
            os.kill(writer, signal.SIGKILL)
            self.assertTrue(wait_until(lambda: self.state()["STATE"] == "interrupted"))
            self.assert_runs_as_before()
            text = self.curl(UPGRADE)[1]
            self.assertIn("Writing was interrupted", text)
            self.assertEqual(self.badges(), {"A: Running", "B: Half-written"})
            self.restart()
            self.assert_runs_as_before()
        self.assertEqual(self.upload(image[1])[0], 303)
        os.kill(self.write_until(0.5), signal.SIGKILL)
        self.assertTrue(wait_until(lambda: self.state()["STATE"] == "interrupted"))
        self.write_staged()
        self.restart()
        self.assert_set("B", "B", "Corvel R1 2.0.0")

    def test_a_power_loss_leaves_the_running_set_unchanged(self):
        self.upload(large_image("Corvel R1 2.0.0", 8 * 1024 * 1024)[1])
        self.write_until(0.4)
        self.demo.stop(signal.SIGKILL)
        self.start_again()
        self.assert_runs_as_before()
        self.assertEqual(self.state()["STATE"], "")
        self.assertFalse((self.demo.root() / "tmp/firmware").exists())


class ReadOnlyFlash(UpgradeTest):
    """A device with a partition that cannot be written."""

    def setUp(self):
        super().setUp()
        self.demo.protect("/dev/mtdblock5")

    def test_a_set_that_cannot_be_written_does_not_boot(self):
        self.assertEqual(self.upload(Image("Corvel R1 2.0.0").bytes())[0], 303)
        self.assertEqual(self.perform("write"), 303)
        self.assertTrue(wait_until(lambda: self.state()["STATE"] == "failed", 30))
        self.assert_set("A", "A", "Corvel R1 1.0.0")
        self.assertIn("The flash could not be written. The running set is unchanged",
                      self.curl(UPGRADE)[1])
        self.assertFalse((self.demo.root() / "tmp/firmware/image.bin").exists())
        self.assertEqual(self.demo.flash(1).read_bytes(), self.factory[1])


class AtOnce(UpgradeTest):
    def send_half(self, body):
        """Sends half of an upload. Returns the connection."""
        connection = http.client.HTTPConnection("127.0.0.1", self.demo.port, timeout=20)
        self.addCleanup(connection.close)
        connection.putrequest("POST", f"{UPLOAD}?token={self.demo.token()}")
        for name, value in (("Content-Type", "multipart/form-data; boundary=xYzZY"),
                            ("Cookie", f"session={self.demo.session}"),
                            ("Content-Length", str(len(body)))):
            connection.putheader(name, value)
        connection.endheaders(body[:len(body) // 2])
        self.assertTrue(wait_until(lambda: self.state()["PERCENT"] in ("49", "50"), 5))
        return connection

    def test_one_upload_at_a_time(self):
        large = multipart(part(large_image("Corvel R1 2.0.0", 15 * 1024 * 1024)[1]))
        small = multipart(part(Image("Corvel R1 1.9.0", 99, 99).bytes()))
        connection = self.send_half(large)
        state = self.state()
        self.assertEqual((state["STATE"], state["PHASE"]), ("receiving", "The image is being received"))
        self.assertTrue(wait_until(
            lambda: re.fullmatch(r"Please wait: ([2-9]|\d\d) s", self.state()["WAIT"])))
        text = self.curl(UPGRADE)[1]
        self.assertIn('role="status">The image is being received</p>', text)
        self.assertIn(f'value="{state["PERCENT"]}"', text)
        self.assertIn('<meta http-equiv="refresh" content="1">', text)

        response = self.send(small)
        self.assertEqual(response.status, 409)
        self.assert_page(response.text)
        self.assertIn("Only one upgrade is possible at a time", self.message(response.text))
        self.assertIn('content="5; url=/cgi-bin/upgrade"', response.text)
        for action in ("write", "discard", "restart", "start", "keep"):
            self.assertEqual(self.perform(action), 409)
        connection.send(large[len(large) // 2:])
        self.assertEqual(connection.getresponse().status, 303)
        self.assertEqual(self.state()["STATE"], "staged")

    def test_an_upload_is_cancelled_in_another_window(self):
        large = multipart(part(large_image("Corvel R1 2.0.0", 15 * 1024 * 1024)[1]))
        connection = self.send_half(large)
        self.assertEqual(self.perform("cancel"), 303)
        connection.send(large[len(large) // 2:-5])
        self.assertTrue(wait_until(lambda: self.state()["STATE"] == ""), "before the upload ends")
        self.assertEqual(self.upload(Image("Corvel R1 1.9.0", 99, 99).bytes())[0], 303)
        connection.send(large[-5:])
        response = connection.getresponse()
        self.assertEqual(response.status, 409)
        self.assertIn("cancelled in another window", response.read().decode())
        self.assertEqual(self.state()["STATE"], "staged", "the other image is kept")
        self.assertIn("Corvel R1 1.9.0", self.curl(UPGRADE)[1])

    def test_simultaneous_small_uploads(self):
        bodies = [multipart(part(Image(f"Corvel R1 2.0.{i}", 99, 99).bytes())) for i in range(12)]
        statuses = []
        clients = [
            threading.Thread(target=lambda body=body: statuses.append(self.send(body).status))
            for body in bodies]
        for client in clients:
            client.start()
        for client in clients:
            client.join()
        self.assertEqual(set(statuses) - {303, 409}, set())
        self.assertIn(303, statuses)
        self.assertEqual(self.state()["STATE"], "staged")
        self.assertEqual(self.flash(), self.factory)


class DamagedEnvironment(UpgradeTest):
    """The flash has the boot environment once: a power cut while it is written damages it."""

    def start_again(self):
        self.demo.stop()
        self.demo = Demo(state=self.directory / "state", **self.options)
        self.addCleanup(self.demo.stop)

    def test_the_start_restores_it(self):
        good = self.demo.flash(1).read_bytes()
        self.demo.flash(1).write_bytes(good[:40_000] + b"\xff" * (len(good) - 40_000))
        self.start_again()
        self.assertEqual(variables(self.demo.flash(1).read_bytes()), variables(good))
        self.assertEqual(self.flash(range(2, 9)),
                         {each: self.factory[each] for each in range(2, 9)})

    def test_a_good_one_is_left_alone(self):
        entries = (b"bootparam=0", b"contact=somebody")
        self.demo.flash(1).write_bytes(environment(*entries))
        self.start_again()
        self.assertEqual(self.demo.flash(1).read_bytes(), environment(*entries))
        self.demo.flash(1).write_bytes(b"\0" * 65536)
        self.start_again()
        self.assertEqual(variables(self.demo.flash(1).read_bytes()),
                         {"bootparam": "0", "contact": "somebody"})
