# SPDX-License-Identifier: MIT
"""Runs the guide's program that starts the configuration client, with one that keeps running."""
import os
import subprocess
import time

CLIENT = "#!/bin/sh\nread -r line </pages/go && echo \"$line\" >/pages/done\n"
LIBRARIES = [["--symlink", os.readlink(f"/{name}"), f"/{name}"]
             for name in ("bin", "lib", "lib32", "lib64") if os.path.islink(f"/{name}")]


def test_the_response_ends_before_the_client(program, variables):
    apply = program("apply")
    directory = apply.parent
    client = directory / "configclient"
    client.write_text(CLIENT)
    client.chmod(0o755)
    os.mkfifo(directory / "go")
    library = variables["LD_LIBRARY_PATH"]
    root = ["bwrap", "--ro-bind", "/usr", "/usr", *sum(LIBRARIES, []), "--dev", "/dev",
            "--ro-bind", client, "/sbin/configclient", "--bind", directory, "/pages",
            "--ro-bind", library, "/library", "--setenv", "LD_LIBRARY_PATH", "/library"]
    process = subprocess.Popen([*root, "/pages/apply"], stdin=subprocess.DEVNULL,
                               stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    output = None
    try:
        output = process.communicate(timeout=30)[0]
    except subprocess.TimeoutExpired:
        pass
    # The client ends when it reads a line.
    go = os.open(directory / "go", os.O_RDWR)
    os.write(go, b"applied\n")
    end = time.monotonic() + 30
    while not (directory / "done").exists() and time.monotonic() < end:
        time.sleep(0.01)
    os.close(go)
    process.communicate()
    assert output is not None, "the client holds the response open"
    assert output.startswith(b"Status: 303 ")
    assert (directory / "done").exists(), "the client was not started"
