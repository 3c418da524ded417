# SPDX-License-Identifier: MIT
"""The emulated board: its images, its boot loader, which is a program of the host, and the machine."""
import contextlib
import hashlib
import http.client
import json
import re
import socket
import struct
import subprocess
import threading
import time
import zlib

from flash import BY_NAME, ENVIRONMENT, ROOT, SETS

SYSTEM = ROOT / "build/board-system"
KERNELS = SYSTEM / "kernels"
# The kernel that has been built; KERNELS contains each one that a stub names.
KERNEL = SYSTEM / "kernel"

# Address of the board in the network of its first card; the host is the gateway.
ADDRESS = "203.0.113.2"

# --- The contents of the partitions ---------------------------------------------------------------

# The kernel does not fit into its partition. A stub is there instead: a line with the kernel's hash,
# and as much of the compressed kernel as a kernel that fits would have. The boot loader compares the
# stub and takes the kernel itself from the host.
STUB_SIZE = 1000 * 1000
# A squashfs starts with a magic number. Its size is at an offset, in little-endian order.
SQUASHFS_MAGIC = b"hsqs"
SQUASHFS_SIZE_AT = 40


def make_kernel_stub():
    """Returns the stub of the kernel that has been built, which the boot loader then knows."""
    kernel = (KERNEL / "vmlinux").read_bytes()
    name = hashlib.sha256(kernel).hexdigest()
    stub = f"Corvel board kernel {name}\n".encode()
    stub += (KERNEL / "vmlinuz").read_bytes()[:STUB_SIZE - len(stub)]
    directory = KERNELS / name
    if not (directory / "stub").exists():
        directory.mkdir(parents=True, exist_ok=True)
        (directory / "vmlinux").write_bytes(kernel)
        (directory / "stub").write_bytes(stub)
    return stub


def make_root(version):
    """Returns the root file system, followed by a line with its version and a line with its CRC."""
    image = (SYSTEM / "root.squashfs").read_bytes()
    (size,) = struct.unpack_from("<Q", image, SQUASHFS_SIZE_AT)
    image = image[:size] + version.encode() + b"\n"
    return image + f"crc32 {zlib.crc32(image):08x}\n".encode()


# --- The boot loader ------------------------------------------------------------------------------


def environment(image):
    """Returns the variables of an environment image; None if its CRC is wrong."""
    (stored,) = struct.unpack(">I", image[:4])
    if stored != zlib.crc32(image[4:]):
        return None
    listed, _, _ = image[4:].partition(b"\0\0")
    return dict(entry.partition(b"=")[::2] for entry in listed.split(b"\0"))


def preferred_set(flash):
    """Returns the set that the environment selects. Without a valid environment, that is set A."""
    variables = environment(flash.read(ENVIRONMENT)) or {}
    try:
        return int(variables.get(b"bootparam", b"0")) % 2
    except ValueError:
        return 0


def find_kernel(content):
    """Returns the kernel whose stub is in the partition; None if there is none."""
    for stub in KERNELS.glob("*/stub"):
        if content.startswith(stub.read_bytes()):
            return stub.parent / "vmlinux"
    return None


def is_root_intact(content):
    if not content.startswith(SQUASHFS_MAGIC):
        return False
    (size,) = struct.unpack_from("<Q", content, SQUASHFS_SIZE_AT)
    end = content.find(b"\n", size) + 1
    crc = f"crc32 {zlib.crc32(content[:end]):08x}\n".encode()
    return 0 < size < end and content.startswith(crc, end)


class NothingBootsError(Exception):
    pass


def select_set(flash):
    """Returns the number of the set to start, and its kernel: the one that the environment selects,
    or the other one if that one is damaged."""
    first = preferred_set(flash)
    for number in (first, 1 - first):
        root, kernel = (flash.read(name) for name in SETS[number])
        found = find_kernel(kernel)
        if found and is_root_intact(root):
            return number, found
    raise NothingBootsError("neither set has an intact kernel and root file system")


# --- The machine ----------------------------------------------------------------------------------


class Terminal:
    """The serial console on this terminal, with QEMU's own commands after Ctrl-A."""
    options = ("-chardev", "stdio,id=console,mux=on,signal=off", "-serial", "chardev:console",
               "-mon", "chardev=console")
    descriptors = ()
    input = None

    def close(self):
        pass


class LogFile:
    """The serial console in a file, without input."""
    descriptors = ()
    input = subprocess.DEVNULL

    def close(self):
        pass

    def __init__(self, path):
        self.options = ("-serial", f"file:{path}")


class Console:
    """The serial console as a shell for this program; its output is also in a file."""
    input = subprocess.DEVNULL

    def __init__(self, path):
        self._socket, self._theirs = socket.socketpair()
        self._received, self._changed = b"", threading.Condition()
        self.descriptors = (self._theirs.fileno(),)
        self.options = ("-chardev", f"socket,id=console,fd={self._theirs.fileno()}",
                        "-serial", "chardev:console")
        # A socket holds a few hundred single characters: then the board waits.
        threading.Thread(target=self._read, args=(path,), daemon=True).start()

    def _read(self, path):
        with open(path, "wb", buffering=0) as log, contextlib.suppress(OSError):
            while piece := self._socket.recv(65536):
                log.write(piece)
                with self._changed:
                    self._received += piece
                    self._changed.notify()

    def close(self):
        """Closes QEMU's end, which QEMU has inherited."""
        self._theirs.close()

    def begin(self, command):
        """Types a command."""
        # The marks are split, so that the echo of the command does not contain them.
        self._socket.sendall(f"echo '<''<'; {command}; echo \">$?\"'>'\n".encode())

    def end(self, seconds=60):
        """Waits for the end of the command. Returns its exit status and its output."""
        def find():
            return re.search(rb"<<\r\n(.*?)>(\d+)>\r\n", self._received, re.DOTALL)

        with self._changed:
            found = self._changed.wait_for(find, seconds)
            if not found:
                raise TimeoutError("the command on the console has not ended")
            self._received = self._received[found.end():]
        return int(found[2]), found[1].replace(b"\r\n", b"\n").decode()

    def run(self, command, seconds=60):
        self.begin(command)
        return self.end(seconds)


class Machine:
    """A machine that runs the set that the boot loader selects. Its process ends when the system
    restarts or switches the machine off."""

    def __init__(self, flash, console, *, port=None, memory=256, options="", share=None, pages=None,
                 here=None, drives=None, snapshot=None, more=()):
        """`options` are added to the kernel's command line. The system can mount the directory `share`
        of the host, and write to it, and `pages`, the directory of a site, and `here`, that of a
        command, and read them. `drives` serve the flash instead of its files. A machine that continues
        a snapshot is stopped at first. `more` are options of QEMU."""
        self.set, kernel = select_set(flash)
        root = BY_NAME[SETS[self.set][0]].number
        network = "user,id=wan,net=203.0.113.0/24,host=203.0.113.1,restrict=on"
        if port is not None:
            network += f",hostfwd=tcp:127.0.0.1:{port}-{ADDRESS}:80"
        drives = drives or {"nor": flash.nor, "disk": flash.disk}
        self._restarted, self._input = False, b""
        self._control, theirs = socket.socketpair()
        # The machine ends with this program, however it ends.
        line = ["setpriv", "--pdeathsig", "KILL", "qemu-system-mips", "-machine", "malta", "-cpu", "24Kf", "-m", str(memory),
                "-nodefaults", "-display", "none", "-no-reboot", "-kernel", kernel,
                "-append", f"root=31:{root} {options}".strip(),
                "-drive", f"if=pflash,format=raw,file={drives['nor']}",
                "-drive", f"if=none,id=flash,format=raw,file={drives['disk']}",
                "-device", "virtio-blk-pci,drive=flash",
                "-netdev", network, "-device", "virtio-net-pci,netdev=wan,romfile=",
                "-device", "virtio-rng-pci",
                "-chardev", f"socket,id=control,fd={theirs.fileno()}",
                "-mon", "chardev=control,mode=control", *console.options, *more]
        if snapshot is not None:
            line += ["-incoming", f"exec:cat {snapshot}", "-S"]
        shared = [(tag, directory) for tag, directory in (("host", share), ("pages", pages), ("here", here))
                  if directory is not None]
        # Only four slots have interrupts: the directories are in the last one.
        for function, (tag, directory) in enumerate(shared):
            access = "" if tag == "host" else ",readonly=on"
            line += ["-fsdev", f"local,id={tag},path={directory},security_model=none{access}",
                     "-device", f"virtio-9p-pci,fsdev={tag},mount_tag={tag},addr=15.{function},multifunction=on"]
        self.console = console
        self._process = subprocess.Popen([str(word) for word in line], stdin=console.input,
                                         pass_fds=[theirs.fileno(), *console.descriptors])
        theirs.close()
        console.close()
        self._control.settimeout(60)
        self._message()
        self.command("qmp_capabilities")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.kill()

    def kill(self):
        """Cuts the power."""
        self._process.kill()
        self._process.wait()
        self._control.close()

    def is_running(self):
        return self._process.poll() is None

    def _message(self):
        """Returns QEMU's next message; None at the end."""
        while b"\n" not in self._input:
            chunk = self._control.recv(65536)
            if not chunk:
                return None
            self._input += chunk
        line, _, self._input = self._input.partition(b"\n")
        message = json.loads(line)
        if message.get("data", {}).get("reason") == "guest-reset":
            self._restarted = True
        return message

    def command(self, name, **arguments):
        """Gives QEMU a command, and returns its result."""
        self._control.sendall(json.dumps({"execute": name, "arguments": arguments}).encode())
        while message := self._message():
            if "return" in message:
                return message["return"]
            if "error" in message:
                raise RuntimeError(f"{name}: {message['error']['desc']}")
        raise RuntimeError(f"{name}: QEMU has ended")

    def save(self, path):
        """Stops the machine, and saves everything but its flash."""
        self.command("stop")
        self.command("migrate", uri=f"exec:cat >{path}")
        self._wait_for_status("query-migrate", "completed")

    def resume(self):
        """Starts a machine that continues a snapshot."""
        self._wait_for_status("query-status", "paused")
        self.command("cont")

    def _wait_for_status(self, query, status, seconds=60):
        end = time.monotonic() + seconds
        while (found := self.command(query)["status"]) != status:
            if time.monotonic() > end or found == "failed":
                raise RuntimeError(f"{query}: {found} instead of {status}")
            time.sleep(0.05)

    def wait(self, seconds=None):
        """Waits for the end. Returns whether the system restarted: False if it was switched off."""
        self._process.wait(seconds)
        while self._message():
            pass
        return self._restarted

    def wait_for_site(self, port, seconds=120, path="/cgi-bin/login"):
        """Waits until the site responds, with a page unless the path is "/". Returns the seconds that
        it took."""
        start = time.monotonic()
        # A connection that is made before the board has its address is never answered.
        patience = 0.5
        while self.is_running():
            with contextlib.suppress(OSError, http.client.HTTPException):
                connection = http.client.HTTPConnection("127.0.0.1", port, timeout=patience)
                connection.request("GET", path)
                if connection.getresponse().status == 200 or path == "/":
                    return time.monotonic() - start
            if time.monotonic() > start + seconds:
                raise TimeoutError("the site does not respond")
            patience = min(patience * 1.25, 10)
            time.sleep(0.1)
        raise RuntimeError("the machine has ended")


def fill_factory_set(flash, version):
    """Writes set A of a new board."""
    flash.erase()
    root, kernel = SETS[0]
    flash.write(root, make_root(version))
    flash.write(kernel, make_kernel_stub())
