# SPDX-License-Identifier: MIT
"""A command inside the device."""
import os
import shutil
import signal
import stat
import subprocess
from ipaddress import IPv6Address
from pathlib import Path

import pytest

from build_tree import INSTALLED
from conftest import COMMAND, LEASES, build
from waiting import wait_until

CLIENTS = {"laptop", "phone", "printer"}


@pytest.mark.parametrize("status", (0, 1, 7, 127))
def test_the_exit_status_is_the_commands(device, status):
    assert device.run("--", "sh", "-c", f"exit {status}").status == status


def test_a_signal_that_ends_the_command_is_the_exit_status(device):
    assert device.run("--", "python3", "-c", "import os; os.kill(os.getpid(), 9)").status == 128 + 9


def test_a_missing_command_is_reported(device):
    done = device.run("--", "missing-program")
    assert done.status == 127
    assert "missing-program" in done.errors


def test_input_output_and_errors_are_the_commands(device):
    done = device.run("--", "sh", "-c", "tr a-z A-Z; echo wrong >&2", input="typed\n")
    assert (done.status, done.output, done.errors) == (0, "TYPED\n", "wrong\n")


def test_arguments_are_passed_on_unchanged(device):
    words = ("two words", "", "$HOME", "--state", "--", "*")
    assert device.run("--", "printf", "<%s>\n", *words).output == "".join(f"<{word}>\n" for word in words)


def test_the_device_has_its_settings_accounts_flash_and_network(device):
    shown = device.shell("id -u; hostname; sed -n s/^LAN_ADDRESS=//p /etc/config/lan.conf; cut -d: -f1 /etc/passwd;"
                         "stat -c %s /dev/mtdblock2; ip -br -4 address show br-lan; ip route; cat /run/cmdline")
    for each in ("0\nrouter\n", '192.168.1.1"\n', "root\nadmin\n", f"{0x650000}\n", "192.168.1.1/24",
                 "default via 203.0.113.1 dev wan0", "root=31:2"):
        assert each in shown


def test_the_clients_get_addresses_from_the_devices_server(device):
    """As the library reads them from the server's file: IPv4 leases, the server's own line, IPv6 leases. An
    IPv6 lease has a number instead of the hardware address: these clients use its last four bytes."""
    build(device.directory, "leases", LEASES)
    shown = device.shell("for i in $(seq 300); do [ $(wc -l </var/config/dnsmasq.leases) -ge 6 ] && break;"
                         "sleep 0.1; done; ./leases")
    leases = [dict(zip(("host", "ip", "mac", "left"), line.split(","))) for line in shown.splitlines()]
    (server,) = (each for each in leases if not each["ip"])
    ipv4 = {each["host"]: each for each in leases if "." in each["ip"]}
    ipv6 = {each["host"]: each for each in leases if ":" in each["ip"]}
    assert leases == [*ipv4.values(), server, *ipv6.values()]
    assert set(ipv4) == CLIENTS and set(ipv6) == {"laptop", "phone"}
    assert server["host"] == "" and server["mac"].startswith("00:01:00:01:")
    for host, lease in ipv6.items():
        assert lease["mac"] == str(int(ipv4[host]["mac"].replace(":", "")[-8:], 16))
        assert 0x1000 <= int(IPv6Address(lease["ip"])) - int(IPv6Address("2001:db8:1::")) <= 0x1fff
    assert all(11 * 3600 < int(lease["left"]) <= 12 * 3600 for lease in (*ipv4.values(), *ipv6.values()))


def test_a_client_with_an_ipv6_lease_reaches_the_device(device):
    """The client has the address that the server's file names, and the route that the server announces."""
    script = ("client() { nsenter --net --target $(pgrep -f '^/usr/bin/python3 -I /sbin/dhcp6 eth0 laptop') \"$@\"; };"
              "addresses() { client ip -br -6 address show dev eth0 scope global; };"
              "answers() { client busybox ping -6 -c 1 -W 1 2001:db8:1::1 >/dev/null; };"
              "for i in $(seq 300); do addresses | grep -q 2001 && answers && break; sleep 0.1; done 2>/dev/null;"
              "addresses; client ip -6 route show default;"
              "sed -n 's/.* \\(.*\\) laptop 00:03:.*/\\1/p' /var/config/dnsmasq.leases")
    addresses, route, leased = device.shell(script).splitlines()
    assert addresses.split()[2:] == [f"{leased}/128"]
    assert route.startswith("default via fe80::43:52ff:fe00:101 dev eth0 proto ra")


def test_the_machines_own_files_are_not_visible(device):
    device.variables["LD_LIBRARY_PATH"] = ""
    (device.directory / "mine").write_text("visible\n")
    names = "/boot /home /media /mnt /root /srv /var/lib /etc/hostname"
    assert device.shell(f"cat mine; for name in {names}; do ! [ -e $name ] || echo $name; done") == "visible\n"
    accounts = device.shell("cat /etc/shadow")
    with open("/etc/shadow") as file:
        assert not [line for line in file if line in accounts]


def test_the_current_directory_is_read_only(device):
    assert device.run("--", "touch", "file").status == 1
    assert not (device.directory / "file").exists()


def test_a_directory_can_be_made_writable(device):
    directory = device.directory / "results"
    directory.mkdir()
    device.shell("echo kept >results/file", "--write", directory)
    assert (directory / "file").read_text() == "kept\n"


@pytest.mark.parametrize("directory", ("/", "/etc", "/run", "/dev", "/var/log", "/usr/share", "/tmp"))
def test_a_directory_of_the_device_is_not_made_writable(device, directory):
    done = device.run("--write", directory, "--", "true")
    assert done.status == 1
    assert "of its own" in done.errors


def test_changes_of_the_device_do_not_last(device):
    device.shell("echo 'LAN_ADDRESS=\"10.1.1.1\"' >/etc/config/lan.conf; echo x >/dev/mtdblock8")
    shown = device.shell("cat /etc/config/lan.conf; head -c 2 /dev/mtdblock8 | od -A n -t x1")
    assert "192.168.1.1" in shown and "10.1.1.1" not in shown
    assert shown.endswith(" ff ff\n")
    assert list(device.directory.iterdir()) == []


def test_a_kept_state_lasts_until_it_is_reset(device):
    state = ("--state", device.directory / "state")
    device.shell("sed -i 's/192.168.1.1/10.1.1.1/' /etc/config/lan.conf", *state)
    assert "10.1.1.1/" in device.shell("ip -br -4 address show br-lan", *state)
    assert "192.168.1.1/" in device.shell("ip -br -4 address show br-lan", *state, "--reset")
    assert stat.S_IMODE((device.directory / "state").stat().st_mode) == 0o700


def test_only_a_few_variables_are_passed_on(device):
    device.variables.update(SECRET_TOKEN="x", TERM="vt100")
    shown = device.run("--", "env").output
    assert "TERM=vt100\n" in shown
    assert "SECRET_TOKEN" not in shown and str(device.variables["PATH"]) not in shown


def test_ctrl_c_ends_a_command(device):
    status, _ = device.in_terminal(["--", "sh", "-c", "echo ready; sleep 100"], [(b"ready", b"\3")])
    assert status == 128 + signal.SIGINT


def test_a_command_can_handle_ctrl_c(device):
    program = "import time\ntry:\n print('ready', flush=True)\n time.sleep(100)\nexcept KeyboardInterrupt:\n exit(7)"
    status, _ = device.in_terminal(["--", "python3", "-c", program], [(b"ready", b"\3")])
    assert status == 7


def test_a_shell_has_a_terminal_and_continues_after_ctrl_c(device):
    status, output = device.in_terminal(
        ["--", "bash", "--norc", "-i"],
        [(b"# ", b"test -t 0 && echo termi''nal\n"), (b"terminal", b"sleep 100\n"), (b"sleep 100", b"\3"),
         (b"^C", b"echo al''ive; exit 9\n")])
    assert status == 9
    assert "alive" in output


@pytest.mark.parametrize("number", (signal.SIGTERM, signal.SIGHUP, signal.SIGKILL))
def test_nothing_is_left_running_after_a_signal(device, number):
    mark = f"300{os.getpid()}"
    process = device.start("--", "sh", "-c", f"setsid sleep {mark} & echo ready; wait")
    with process:
        assert process.stdout.readline() == "ready\n"
        assert running(mark)
        process.send_signal(number)
    assert process.returncode == (-number if number == signal.SIGKILL else 128 + number)
    assert wait_until(lambda: not running(mark), 20)


def test_nothing_is_left_running_after_the_command(device):
    mark = f"400{os.getpid()}"
    device.shell(f"setsid sleep {mark} >/dev/null 2>&1 &")
    assert not running(mark)


def test_an_ordinary_user_can_use_it(device):
    """The installation and the user's directories are the user's own."""
    if os.geteuid() == 0:
        installed = device.directory / "installed"
        shutil.copytree(INSTALLED, installed, symlinks=True)
        subprocess.run(["chown", "-R", "65534:65534", device.directory], check=True)
        os.chmod(device.directory.parent, 0o711)
        for parent in list(device.directory.parents)[:3]:
            os.chmod(parent, os.stat(parent).st_mode | 0o011)
        command = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--inh-caps=-all",
                   installed / "bin/corvel-device"]
    else:
        command = [COMMAND]
    variables = {**device.variables, "LD_LIBRARY_PATH": ""}
    done = subprocess.run([*command, "--", "sh", "-c", "id -u; ip -br -4 address show br-lan; exit 5"],
                          cwd=device.directory, env=variables, stdout=subprocess.PIPE, text=True, timeout=120)
    assert done.returncode == 5
    assert done.stdout.startswith("0\n") and "192.168.1.1/24" in done.stdout


@pytest.mark.parametrize("option", ("--state", "--record"))
def test_a_directory_of_another_user_is_refused(device, option):
    directory = Path("/mnt")  # an empty directory of root's
    if os.geteuid() == 0:
        directory = device.directory / "theirs"
        directory.mkdir()
        os.chown(directory, 65534, 65534)
    (device.directory / "www/public").mkdir(parents=True)
    done = device.run(option, directory, "--www", "www", "--", "true")
    assert done.status == 1
    assert "belongs to another user" in done.errors
    assert list(directory.iterdir()) == []


def running(mark):
    return subprocess.run(["pgrep", "--full", f"sleep {mark}$"], stdout=subprocess.DEVNULL).returncode == 0


@pytest.mark.parametrize("words, text", (
    ((), "is needed"), (("--port", "0", "--", "true"), "not a port"), (("--www", "missing"), "neither"),
    (("--record", "r", "--", "true"), "needs --www"), (("--replay", "missing"), "not the directory"),
    (("--www", "x", "--demo"), "is needed"), (("--on", "board", "--www", "x"), "needs the source tree"),
    (("--on", "board", "--demo"), "takes only"), (("--image", "/usr", "--", "true"), "not the device's file system")))
def test_wrong_usage_is_reported(device, words, text):
    done = device.run(*words)
    assert done.status in (1, 2)
    assert text in done.errors
