# SPDX-License-Identifier: MIT
"""Cuts the power at writes to the flash, and starts the board again.

Two kinds of cuts have the same result. For a "killed" one, the machine continues the snapshot of a
scene and is killed at the n-th write that reaches the flash; what its kernel has not written by then
is lost. For a "replayed" one, the first n writes of the journal of a complete scene are written to
the flash of its start. A cut is before a write or in its middle. The second kind takes no emulated
time until the start, so it covers every write; the last one, after all writes, must have the scene's
result. For an "upgraded" one, the started board is then upgraded and started again.

The outcomes are kept in build/board-system/cuts until the board's system changes: a run that was
interrupted continues.
"""
import collections
import contextlib
import hashlib
import shutil
import subprocess
import tempfile
import time
from pathlib import Path

import machine
from flash import BY_NAME, ENVIRONMENT, ERASED, ROOT
from scenes import Scene, ServedFlash, Start, half
from upgrades import Image, Site, VERSIONS, free_port

DIRECTORY = machine.SYSTEM / "cuts"
WIRELESS = "/etc/config/wireless.conf"
OLD_NAME, NEW_NAME = "Corvel Home", "Night watch"
VARIABLE = b"contact"
# The longest time that writing an image takes.
UPGRADE_SECONDS = 600


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
    end = time.monotonic() + UPGRADE_SECONDS
    while board.has_power() and is_writing(site):
        if time.monotonic() > end:
            raise RuntimeError("the image is still being written")
        time.sleep(0.5)


def is_writing(site):
    """Whether an image is being written; true if the site does not respond."""
    with contextlib.suppress(subprocess.CalledProcessError, ValueError):
        return site.upgrade_state()["STATE"] == "writing"
    return True


def upload(image):
    return lambda _board, site: site.upload(image.path)


class Cut:
    """A scene, the outcome when it is complete, and how many cuts there are."""

    def __init__(self, scene, outcome, complete, *, replayed=None, killed=1, upgraded=None, upgrades=0):
        """`outcome` gets the board that was started, a client of its site, and the flash. It returns
        a word, `complete` after all writes, or raises RuntimeError if the board is in a state that
        must not be. `replayed` is the largest number of replayed cuts of each drive, None for all;
        `killed` that of the killed ones. `upgraded` is the image of a further upgrade after
        `upgrades` cuts in the NOR flash."""
        self.scene, self.outcome, self.complete = scene, outcome, complete
        self.replayed, self.killed, self.upgraded, self.upgrades = replayed, killed, upgraded, upgrades


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
    if state["VERSION_" + state["RUNNING"]] not in VERSIONS:
        raise RuntimeError("the version of the running set is unknown")
    if variables(flash) is None:
        raise RuntimeError("the environment is not valid after the start")
    return f"set {state['RUNNING']} runs"


def fill_new(flash, _directory):
    machine.fill_factory_set(flash, VERSIONS[0])


def fill_invalid(flash, directory):
    """The flash after the first half of a change of the environment was written."""
    flash.copy(ServedFlash(directory / "environment"))
    half_size = BY_NAME[ENVIRONMENT].size // 2
    flash.write(ENVIRONMENT, ERASED * half_size, half_size)


def all_cuts(directory):
    images = [Image(directory, version) for version in VERSIONS[1:]]
    upgrade = Scene("upgrade", write_image, upload(images[0]))
    return (
        Cut(Scene("save_prop", typed(f"job save_prop {WIRELESS} WLAN_SSID '{NEW_NAME}'")),
            wireless_outcome, "the new settings"),
        Cut(Scene("settings_save", typed(f"job settings_save {WIRELESS} WLAN_SSID '{NEW_NAME}'")),
            wireless_outcome, "the new settings"),
        Cut(Scene("page", save_page), page_outcome, "the new settings"),
        Cut(Scene("environment", typed("job env contact night")), environment_outcome,
            "the new variable", upgraded=images[0], upgrades=3),
        Cut(upgrade, upgrade_outcome, "set B runs", replayed=40, upgraded=images[1], upgrades=3),
        # Set B runs, and its upgrade of set A is cut.
        Cut(Scene("second-upgrade", write_image, upload(images[1]), after=upgrade), upgrade_outcome,
            "set A runs", replayed=20, killed=0, upgraded=images[0], upgrades=3),
        Cut(Start("first-start", fill_new), wireless_outcome, "the old settings",
            replayed=20, killed=0),
        Cut(Start("restoring-start", fill_invalid), environment_outcome, "the old variables",
            replayed=20, killed=0),
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
        # The outcome of each flash that was started.
        self.started = {}

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
            limits = {"killed": self.cut.killed, "replayed": self.cut.replayed,
                      "upgraded": self.cut.upgrades if drive == "nor" else 0}
            for kind, limit in limits.items():
                for i, number in enumerate(chosen(numbers, limit)):
                    both = kind == "replayed" and limit is None
                    found += [(kind, number, torn) for torn in (False, True)
                              if both or torn == bool(i % 2)]
        if self.cut.replayed != 0:
            found.append(("replayed", len(self.journal), False))
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
            if kind == "killed" and not self.scene.play(flash, number + 1, torn):
                return "FAILED: the power was not cut"
            if kind != "killed":
                self.scene.replay(flash, self.journal, number, torn)
            # The middle of a write that changes a single byte is its start.
            state = kind == "upgraded", flash.digest()
            if state not in self.started:
                self.started[state] = self._outcome(flash, upgrades=kind == "upgraded")
            outcome = self.started[state]
            if number == len(self.journal) and outcome != self.cut.complete:
                return f"FAILED: {outcome} after all writes"
            return outcome

    def _outcome(self, flash, *, upgrades):
        before = "" if variables(flash) else "invalid environment; "
        try:
            with self._start(flash) as (board, site):
                found = before + self.cut.outcome(board, site, flash)
                if not upgrades:
                    return found
                site.upgrade(self.cut.upgraded)
                site.expect(200, site.post("upgrade", "action=restart"))
                board.wait(60)
                target = 1 - board.set
            with self._start(flash) as (board, site):
                if board.set != target:
                    raise RuntimeError("the upgraded set does not run")
                return f"{before}upgraded; {upgrade_outcome(board, site, flash)}"
        except (machine.NothingBootsError, RuntimeError, TimeoutError, subprocess.SubprocessError) as error:
            return f"FAILED: {error}".replace("\t", " ").replace("\n", " ")

    @contextlib.contextmanager
    def _start(self, flash):
        port = free_port()
        with machine.Machine(flash, self.scene.console(), port=port, options="quiet") as board:
            board.wait_for_site(port)
            site = Site(port)
            site.log_in()
            # What the start has written is in the flash soon.
            time.sleep(1)
            yield board, site


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
            if (names and cut.scene.name not in names) or (killed_only and not cut.killed):
                continue
            if killed_only:
                cut.replayed = cut.upgrades = 0
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
