# SPDX-License-Identifier: MIT
"""The firewall of docs/servers.md, which limits the connections of one address."""
import json
import os
import subprocess
import sys
from pathlib import Path

SCRIPT = Path(__file__).parent / "connections.py"


def test_one_address_keeps_no_other_one_out(scratch):
    own = [] if os.geteuid() == 0 else ["--map-root-user"]
    done = subprocess.run(
        ["unshare", "--net", *own, sys.executable, SCRIPT, scratch / "connections"], check=True,
        stdout=subprocess.PIPE, env=os.environ | {"PYTHONPATH": os.pathsep.join(sys.path)})
    assert json.loads(done.stdout) == [24, "refused", "200"]
