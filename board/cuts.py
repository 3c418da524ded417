# SPDX-License-Identifier: MIT
"""Cuts the power at writes to the flash, and starts the board again.

Two kinds of cuts have the same result. For a "killed" one, the machine continues the snapshot of a
scene and is killed at the n-th write that reaches the flash; what its kernel has not written by then
is lost. For a "replayed" one, the first n writes of the journal of a complete scene are written to
the flash of its start. A cut is before a write or in its middle. The second kind takes no emulated
time until the start, so it covers every write.

The outcomes are kept in build/board-system/cuts until the board's system changes: a run that was
interrupted continues.
"""
import collections
import contextlib
import hashlib
import shutil
import tempfile
import time
from pathlib import Path

import machine
from flash import BY_NAME, ENVIRONMENT, ROOT
from scenes import Scene, ServedFlash, half
from upgrades import Image, Site, VERSIONS, free_port

DIRECTORY = machine.SYSTEM / "cuts"
WIRELESS = "/etc/config/wireless.conf"
OLD_NAME, NEW_NAME = "Corvel Home", "Night watch"
VARIABLE = b"contact"


# --- The scenes -------------------------------------------------------------------------------------


def typed(command):
    """Types a command, and waits for its end unless the power is cut."""
    def act(board, _site):
        board.console.begin(command)
        while board.has_power():
            with contextlib.suppress(TimeoutError):
                board.console.end(0.5)
                return
    return act


def save_page(_board, site):
    site.post("device", "CONTACT=the night watch")


def write_image(board, site):
    """Writes the image, which takes longer than the pauses between two writes."""
    site.post("upgrade", "action=write")
    while board.has_power() and site.upgrade_state()["STATE"] == "writing":
        time.sleep(0.5)


def upload_image(directory):
    image = Image(directory, VERSIONS[1])
    return lambda _board, site: site.upload(image.path)


class Cut:
    """A scene, how the state after a cut and a start is named, and how many cuts there are."""

    def __init__(self, scene, outcome, replayed=None, killed=0):
        """`outcome` gets the board that was started, a client of its site, and the flash. It returns
        a word, or raises RuntimeError if the board is in a state that must not be. `replayed` is
        the largest number of replayed cuts of each drive, None for all; `killed` that of the others."""
        self.scene, self.outcome, self.replayed, self.killed = scene, outcome, replayed, killed


def wireless_outcome(board, _site, _flash):
    _, content = board.console.run(f"cat {WIRELESS}")
    expected = (ROOT / "demo/device/etc/config/wireless.conf").read_text()
    if content == expected:
        return "the old settings"
    if content == expected.replace(OLD_NAME, NEW_NAME):
        return "the new settings"
    raise RuntimeError(f"the settings are damaged: {content!r}")


def page_outcome(board, _site, _flash):
    _, content = board.console.run("cat /etc/config/global.conf")
    expected = (ROOT / "demo/device/etc/config/global.conf").read_text()
    if content == expected:
        return "the old settings"
    if content == expected.replace('CONTACT ""', 'CONTACT "the night watch"'):
        return "the new settings"
    raise RuntimeError(f"the settings are damaged: {content!r}")


def variables(flash):
    return machine.environment(flash.read(ENVIRONMENT))


def environment_outcome(_board, site, flash):
    found = variables(flash)
    if site.upgrade_state()["RUNNING"] != "A":
        raise RuntimeError("the other set runs")
    if found is None:
        raise RuntimeError("the environment is not valid after the start")
    return "the new variable" if VARIABLE in found else "the old variables"


def upgrade_outcome(_board, site, flash):
    """The set that runs is intact, since the boot loader checked it."""
    state = site.upgrade_state()
    if state["VERSION_" + state["RUNNING"]] not in VERSIONS[:2]:
        raise RuntimeError("the version of the running set is unknown")
    if variables(flash) is None:
        raise RuntimeError("the environment is not valid after the start")
    return f"set {state['RUNNING']} runs"


def all_cuts(directory):
    return (
        Cut(Scene("save_prop", typed(f"job save_prop {WIRELESS} WLAN_SSID '{NEW_NAME}'")),
            wireless_outcome, killed=1),
        Cut(Scene("settings_save", typed(f"job settings_save {WIRELESS} WLAN_SSID '{NEW_NAME}'")),
            wireless_outcome, killed=1),
        Cut(Scene("page", save_page), page_outcome, killed=1),
        Cut(Scene("environment", typed("job env contact night")), environment_outcome,
            killed=1),
        Cut(Scene("upgrade", write_image, upload_image(directory)), upgrade_outcome, replayed=40,
            killed=1),
    )


# --- The cuts ---------------------------------------------------------------------------------------


def chosen(numbers, limit):
    """Returns at most `limit` of the numbers, spread evenly; the first and the last are among them."""
    numbers = list(numbers)
    if limit is None or len(numbers) <= limit:
        return numbers
    if limit < 2:
        return numbers[len(numbers) // 2:][:limit]
    return [numbers[i * (len(numbers) - 1) // (limit - 1)] for i in range(limit)]


def key():
    """Identifies the board's system and these programs."""
    digest = hashlib.sha256()
    for path in (machine.SYSTEM / "root.squashfs", machine.KERNEL / "vmlinux",
                 *((ROOT / "board" / f"{name}.py") for name in ("cut_plugin", "scenes", "flash"))):
        digest.update(path.read_bytes())
    return digest.hexdigest()


class Trials:
    """The trials of a scene, with the outcomes of those that were made."""

    def __init__(self, cut, directory):
        self.cut, self.scene = cut, cut.scene
        self.directory = directory / self.scene.name
        self.file = self.directory / "outcomes"
        if not self.file.exists():
            shutil.rmtree(self.directory, ignore_errors=True)
            self._prepare(directory)
        self.scene.directory = self.directory
        self.scene.session = (self.directory / "session").read_text()
        self.journal = ServedFlash(self.directory / "complete").writes()
        self.outcomes = dict(line.split("\t") for line in self.file.read_text().splitlines())

    def _prepare(self, directory):
        self.scene.prepare(directory)
        (self.directory / "session").write_text(self.scene.session)
        (self.directory / "complete").mkdir()
        self.scene.play(self.scene.flash(self.directory / "complete"))
        self.file.write_text("")

    def points(self):
        """Returns the trials: kind, number of writes before the cut, and whether the next is torn."""
        found = []
        for drive in ("disk", "nor"):
            numbers = [n for n, write in enumerate(self.journal) if write.drive == drive]
            for kind, limit in (("killed", self.cut.killed), ("replayed", self.cut.replayed)):
                for i, number in enumerate(chosen(numbers, limit)):
                    both = kind == "replayed" and limit is None
                    found += [(kind, number, torn) for torn in (False, True)
                              if both or torn == bool(i % 2)]
        return found

    def run(self):
        """Makes the trials that were not made."""
        for kind, number, torn in self.points():
            name = f"{kind} {number} {'torn' if torn else 'before'}"
            if name not in self.outcomes:
                self.outcomes[name] = self._trial(kind, number, torn)
                with self.file.open("a") as file:
                    file.write(f"{name}\t{self.outcomes[name]}\n")

    def _trial(self, kind, number, torn):
        with tempfile.TemporaryDirectory(dir=self.directory) as directory:
            flash = self.scene.flash(directory)
            if kind == "replayed":
                self.scene.replay(flash, self.journal, number, torn)
            elif not self.scene.play(flash, number + 1, torn):
                return "FAILED: the power was not cut"
            return self._restarted(flash)

    def _restarted(self, flash):
        before = "" if variables(flash) else "invalid environment, restored; "
        port = free_port()
        try:
            with machine.Machine(flash, self.scene.console(), port=port, options="quiet") as board:
                board.wait_for_site(port)
                site = Site(port)
                site.log_in()
                # What the start has written is in the flash soon.
                time.sleep(1)
                return before + self.cut.outcome(board, site, flash)
        except (machine.NothingBootsError, RuntimeError, TimeoutError) as error:
            return f"FAILED: {error}".replace("\t", " ").replace("\n", " ")


def discard_outdated():
    """Removes the scenes and outcomes of another system."""
    valid = DIRECTORY / "key"
    if not valid.exists() or valid.read_text() != key():
        shutil.rmtree(DIRECTORY, ignore_errors=True)
        DIRECTORY.mkdir(parents=True)
        valid.write_text(key())


def environment_states(trials):
    """Counts the states of the environment in the flash after every cut in the NOR flash, without a
    start: a start depends only on whether the environment is valid, and on its variables."""
    partition = BY_NAME[ENVIRONMENT]
    content = bytearray((trials.directory / "nor.img").read_bytes())
    after = (trials.directory / "complete" / "nor.img").read_bytes()

    def state(image):
        return machine.environment(bytes(image[partition.offset:partition.offset + partition.size]))

    old, new = state(content), state(after)
    counts = collections.Counter()
    for write in trials.journal:
        if write.drive != "nor":
            continue
        end = write.offset + len(write.content)
        torn = bytearray(content)
        length = half(bytes(content[write.offset:end]), write.content)
        torn[write.offset:write.offset + length] = write.content[:length]
        for image in (content, torn):
            found = state(image)
            counts["invalid" if found is None else "the old variables" if found == old else
                   "the new variables" if found == new else "FAILED: other variables"] += 1
        content[write.offset:end] = write.content
    return counts


def run(report, names=None, *, killed_only=False):
    """Makes the cuts of the scenes with these names, or of all."""
    discard_outdated()
    with tempfile.TemporaryDirectory(dir=machine.SYSTEM) as directory:
        for cut in all_cuts(Path(directory)):
            if names and cut.scene.name not in names:
                continue
            if killed_only:
                cut.replayed = 0
            trials = Trials(cut, DIRECTORY)
            show(report, trials)


def show(report, trials):
    start = time.monotonic()
    trials.run()
    counts = collections.Counter()
    for name, outcome in trials.outcomes.items():
        counts[name.partition(" ")[0], outcome] += 1
        report.add(not outcome.startswith("FAILED"), f"{trials.scene.name}: {name}", outcome)
    for (kind, outcome), count in sorted(counts.items()):
        print(f"{trials.scene.name:14} {kind:9} {outcome:60} {count:5}")
    for state, count in sorted(environment_states(trials).items()):
        report.add(not state.startswith("FAILED"), f"{trials.scene.name}: environment", state)
        print(f"{trials.scene.name:14} not started, environment: {state:42} {count:5}")
    print(f"{trials.scene.name:14} {len(trials.journal)} writes, {len(trials.outcomes)} cuts, "
          f"{time.monotonic() - start:.0f} s", flush=True)
